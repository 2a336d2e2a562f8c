#include "task/tavo_proc_reader.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

#include "util/tavo_log.h"
#include "util/tavo_strings.h"

namespace Tavo::Bpf {

namespace {

// Path suffixes under the root and the status and fdinfo line prefixes.
constexpr const char* TASK_STATUS_TEMPLATE = "/%s/status";
constexpr const char* TASK_STATUS_PID_TEMPLATE = "/%d/status";
constexpr const char* TASK_STAT_TEMPLATE = "/%s/stat";
constexpr const char* TASK_FD_TEMPLATE = "/%s/fd";
constexpr const char* TASK_FDINFO_TEMPLATE = "/%s/fdinfo/%s";
constexpr const char* SUBTASK_PATH_TEMPLATE = "/%s/task";
constexpr const char* TASK_NET_NS_TEMPLATE = "/%s/ns/net";
constexpr std::string_view TASK_COMM_PREFIX = "Name:\t";
constexpr std::string_view TASK_PPID_PREFIX = "PPid:\t";
constexpr std::string_view TASK_RSS_ANON_PREFIX = "RssAnon:\t";
constexpr std::string_view TASK_RSS_FILE_PREFIX = "RssFile:\t";
constexpr std::string_view TASK_RSS_SHMEM_PREFIX = "RssShmem:\t";
constexpr std::string_view TASK_VM_SWAP_PREFIX = "VmSwap:\t";
constexpr std::string_view TASK_PROC_UID_PREFIX = "Uid:\t";
constexpr std::string_view TASK_DMABUF_SIZE_PREFIX = "size:\t";
constexpr std::string_view TASK_DMABUF_INO_PREFIX = "ino:\t";

// /proc status files are about 1.5 KB; a file larger than this is cut.
constexpr size_t kInitialBuffer = 4096;
constexpr size_t kMaxBuffer = 1 << 20;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// One file's text, read whole. Per thread, so the pumps never share it.
class FileBuffer {
 public:
  FileBuffer() : block_(kInitialBuffer) {}

  // False (errno set) when the file cannot be opened or read.
  bool Read(const std::string& path) {
    length_ = 0;
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return false;
    for (;;) {
      if (length_ == block_.size()) {
        if (block_.size() >= kMaxBuffer) break;
        block_.resize(block_.size() * 2);
      }
      const ssize_t n = read(fd.get(), block_.data() + length_, block_.size() - length_);
      if (n < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      if (n == 0) break;
      length_ += static_cast<size_t>(n);
    }
    return true;
  }

  const char* begin() const { return block_.data(); }
  const char* end() const { return block_.data() + length_; }

 private:
  std::vector<char> block_;
  size_t length_ = 0;
};

FileBuffer& ThreadBuffer() {
  thread_local FileBuffer buffer;
  return buffer;
}

struct Line {
  const char* begin;
  const char* end;  // the '\n' or the end of the text
};

// fn(line) for each line; stops early when fn returns false.
template <typename Fn>
void ForEachLine(const char* text, const char* end, Fn fn) {
  while (text < end) {
    const char* nl = static_cast<const char*>(memchr(text, '\n', static_cast<size_t>(end - text)));
    const char* lineEnd = nl != nullptr ? nl : end;
    if (!fn(Line{text, lineEnd})) return;
    text = lineEnd + 1;
  }
}

// A line matches a prefix that occurs anywhere in it; the value starts as
// many characters after the line's start as the prefix is long. Returns the
// index of the first prefix, in the given order, that matches, or -1.
int FirstMatch(const Line& line, const std::string_view* prefixes, int count) {
  const size_t len = static_cast<size_t>(line.end - line.begin);
  for (int i = 0; i < count; ++i) {
    const std::string_view p = prefixes[i];
    if (len >= p.size() && memmem(line.begin, len, p.data(), p.size()) != nullptr) return i;
  }
  return -1;
}

const char* ValueOf(const Line& line, std::string_view prefix) {
  const size_t len = static_cast<size_t>(line.end - line.begin);
  return line.begin + (prefix.size() < len ? prefix.size() : len);
}

// Leading blanks, an optional sign, digits up to the first non-digit, bounded
// by end and saturating.
uint64_t ParseMagnitude(const char* p, const char* end, bool* negative) {
  while (p < end && (*p == ' ' || *p == '\t')) ++p;
  *negative = false;
  if (p < end && (*p == '-' || *p == '+')) {
    *negative = *p == '-';
    ++p;
  }
  uint64_t value = 0;
  for (; p < end && *p >= '0' && *p <= '9'; ++p) {
    if (__builtin_mul_overflow(value, 10u, &value) ||
        __builtin_add_overflow(value, static_cast<uint64_t>(*p - '0'), &value)) {
      return UINT64_MAX;
    }
  }
  return value;
}

int64_t ParseSigned(const char* p, const char* end) {
  bool negative;
  const uint64_t magnitude = ParseMagnitude(p, end, &negative);
  if (negative) return magnitude > static_cast<uint64_t>(INT64_MAX) ? INT64_MIN : -static_cast<int64_t>(magnitude);
  return magnitude > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(magnitude);
}

uint64_t ParseUnsigned(const char* p, const char* end) {
  bool negative;
  const uint64_t magnitude = ParseMagnitude(p, end, &negative);
  return negative ? 0 - magnitude : magnitude;
}

int32_t ClampInt(int64_t v) { return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v); }

int64_t KbToBytes(int64_t kb) {
  if (kb > (INT64_MAX >> 10)) return INT64_MAX;
  if (kb < (INT64_MIN >> 10)) return INT64_MIN;
  return kb * 1024;
}

// At most 16 bytes of the value, as a C string copies: a shorter name is
// NUL-padded, so no tail of the name it replaces survives. The 16th byte is
// always NUL.
void CopyComm(char* comm, const char* value, const char* end) {
  const size_t len = value < end ? static_cast<size_t>(end - value) : 0;
  const size_t n = len < TAVO_COMM_LEN ? len : TAVO_COMM_LEN;
  memcpy(comm, value, n);
  memset(comm + n, 0, TAVO_COMM_LEN - n);
  comm[TAVO_COMM_LEN - 1] = '\0';
}

constexpr std::string_view kStatusPrefixes[] = {
    TASK_COMM_PREFIX,      TASK_PPID_PREFIX,    TASK_RSS_ANON_PREFIX, TASK_RSS_FILE_PREFIX,
    TASK_RSS_SHMEM_PREFIX, TASK_VM_SWAP_PREFIX, TASK_PROC_UID_PREFIX,
};
enum StatusPrefix { kName, kPPid, kRssAnon, kRssFile, kRssShmem, kVmSwap, kUid, kStatusPrefixCount };

template <typename T>
T ReadFdInfoValue(const std::string& path, std::string_view prefix, T (*parse)(const char*, const char*)) {
  FileBuffer& file = ThreadBuffer();
  if (!file.Read(path)) {
    TAVO_LOGW(kServiceTag, "Unable to open %s", path.c_str());
    return 0;
  }
  T result = 0;
  ForEachLine(file.begin(), file.end(), [&](const Line& line) {
    if (FirstMatch(line, &prefix, 1) < 0) return true;
    result = parse(ValueOf(line, prefix), line.end);
    return false;
  });
  return result;
}

long ParseLong(const char* p, const char* end) { return static_cast<long>(ParseSigned(p, end)); }

}  // namespace

TavoProcReader::TavoProcReader(std::string root) : root_(std::move(root)) {}

std::string TavoProcReader::Path(const char* name, const char* file) const {
  return root_ + StringPrintf(file, name);
}

void TavoProcReader::ForEachProcess(const std::function<void(int32_t, const char*)>& fn) const {
  DirPtr dir(opendir(root_.c_str()));
  if (!dir) return;
  while (const dirent* entry = readdir(dir.get())) {
    const char* name = entry->d_name;
    if (name[0] < '0' || name[0] > '9' || !IsDigits(name)) continue;
    fn(ClampInt(ParseSigned(name, name + strlen(name))), name);
  }
}

void TavoProcReader::ParseStatus(const char* begin, const char* end, TavoProcFacts* facts) {
  ForEachLine(begin, end, [facts](const Line& line) {
    const int which = FirstMatch(line, kStatusPrefixes, kStatusPrefixCount);
    if (which < 0) return true;
    const char* v = ValueOf(line, kStatusPrefixes[which]);
    switch (which) {
      case kName: CopyComm(facts->comm, v, line.end); break;
      case kPPid: facts->ppid = ClampInt(ParseSigned(v, line.end)); break;
      case kRssAnon: facts->rssAnon = KbToBytes(ParseSigned(v, line.end)); break;
      case kRssFile: facts->rssFile = KbToBytes(ParseSigned(v, line.end)); break;
      case kRssShmem: facts->rssShmem = KbToBytes(ParseSigned(v, line.end)); break;
      case kVmSwap: facts->swap = KbToBytes(ParseSigned(v, line.end)); break;
      case kUid: facts->uid = static_cast<uint32_t>(ParseUnsigned(v, line.end)); break;
    }
    return true;
  });
}

// The first line's words after the name's closing ')': word 0 is the state
// (field 3), so field N is word N - 3. Threads are field 20, the start time
// field 22, user and system time fields 14 and 15.
void TavoProcReader::ParseStat(const char* begin, const char* end, TavoProcFacts* facts) {
  if (begin == end) return;
  const char* nl = static_cast<const char*>(memchr(begin, '\n', static_cast<size_t>(end - begin)));
  if (nl != nullptr) end = nl;
  const char* close = nullptr;
  for (const char* p = begin; p < end; ++p) {
    if (*p == ')') close = p;
  }
  if (close == nullptr) return;
  constexpr int kWords = 20;
  const char* words[kWords];
  const char* wordEnds[kWords];
  int count = 0;
  for (const char* p = close + 1; p < end && count < kWords;) {
    while (p < end && *p == ' ') ++p;
    if (p == end) break;
    words[count] = p;
    while (p < end && *p != ' ') ++p;
    wordEnds[count++] = p;
  }
  if (count < kWords) return;
  auto field = [&](int n) { return ParseUnsigned(words[n - 3], wordEnds[n - 3]); };
  facts->hasStat = true;
  facts->threads = static_cast<uint32_t>(ClampInt(ParseSigned(words[17], wordEnds[17])));
  facts->startTicks = field(22);
  facts->cpuTicks = field(14) + field(15);
}

void TavoProcReader::ParseProcessInfo(const char* begin, const char* end, UpdateProcessExdata* out) {
  ForEachLine(begin, end, [out](const Line& line) {
    // Name and parent only; the order of the status prefixes decides.
    const int which = FirstMatch(line, kStatusPrefixes, kStatusPrefixCount);
    if (which == kName) {
      CopyComm(out->comm, ValueOf(line, TASK_COMM_PREFIX), line.end);
    } else if (which == kPPid) {
      out->ppid = ClampInt(ParseSigned(ValueOf(line, TASK_PPID_PREFIX), line.end));
    }
    return true;
  });
}

bool TavoProcReader::ReadProcess(const char* name, TavoProcFacts* facts) const {
  FileBuffer& file = ThreadBuffer();
  if (!file.Read(Path(name, TASK_STATUS_TEMPLATE))) return false;  // gone since it was listed
  ParseStatus(file.begin(), file.end(), facts);
  if (file.Read(Path(name, TASK_STAT_TEMPLATE))) ParseStat(file.begin(), file.end(), facts);
  return true;
}

bool TavoProcReader::ReadTaskInit(const char* name, int64_t basetime, long ticksPerSecond,
                                  tavo_task_init_event* record) const {
  TavoProcFacts facts;
  if (!ReadProcess(name, &facts)) return false;
  memcpy(record->comm, facts.comm, sizeof(record->comm));
  record->ppid = facts.ppid;
  record->uid = facts.uid;
  record->rss_file = facts.rssFile;
  record->rss_anon = facts.rssAnon;
  record->rss_shmem = facts.rssShmem;
  record->rss_swap = facts.swap;
  record->thread_num = facts.threads;
  const auto seconds = static_cast<int64_t>(ticksPerSecond > 0 ? facts.startTicks / ticksPerSecond : 0);
  record->start_time = facts.hasStat ? basetime + seconds : 0;
  return true;
}

int TavoProcReader::getProcessInfo(int pid, UpdateProcessExdata* out) const {
  FileBuffer& file = ThreadBuffer();
  if (!file.Read(root_ + StringPrintf(TASK_STATUS_PID_TEMPLATE, pid))) {
    TAVO_LOGW(kServiceTag, "[TavoBpfService][GPI] Task not exists, errno info: %s", strerror(errno));
    return -1;
  }
  ParseProcessInfo(file.begin(), file.end(), out);
  out->pid = pid;
  return 0;
}

bool TavoProcReader::ReadName(const char* name, std::string* value) const {
  FileBuffer& file = ThreadBuffer();
  if (!file.Read(Path(name, TASK_STATUS_TEMPLATE))) return false;
  bool found = false;
  ForEachLine(file.begin(), file.end(), [&](const Line& line) {
    if (FirstMatch(line, &TASK_COMM_PREFIX, 1) < 0) return true;
    char comm[TAVO_COMM_LEN];
    CopyComm(comm, ValueOf(line, TASK_COMM_PREFIX), line.end);
    value->assign(comm);
    found = true;
    return false;
  });
  return found;
}

void TavoProcReader::ForEachThread(const char* name, const std::function<void(int32_t)>& fn) const {
  DirPtr dir(opendir(Path(name, SUBTASK_PATH_TEMPLATE).c_str()));
  if (!dir) return;
  while (const dirent* entry = readdir(dir.get())) {
    if (IsDigits(entry->d_name)) fn(ClampInt(ParseSigned(entry->d_name, entry->d_name + strlen(entry->d_name))));
  }
}

bool TavoProcReader::ForEachFd(const char* name, const std::function<void(const char*)>& fn) const {
  DirPtr dir(opendir(Path(name, TASK_FD_TEMPLATE).c_str()));
  if (!dir) return false;
  while (const dirent* entry = readdir(dir.get())) {
    if (entry->d_name[0] != '.') fn(entry->d_name);
  }
  return true;
}

bool TavoProcReader::ReadFdTarget(const char* name, const char* fdName, std::string* target) const {
  return android::base::Readlink(Path(name, TASK_FD_TEMPLATE) + "/" + fdName, target);
}

std::string TavoProcReader::FdInfoPath(const char* name, const char* fdName) const {
  return root_ + StringPrintf(TASK_FDINFO_TEMPLATE, name, fdName);
}

long TavoProcReader::GetFdSize(const std::string& path) {
  return ReadFdInfoValue<long>(path, TASK_DMABUF_SIZE_PREFIX, ParseLong);
}

uint64_t TavoProcReader::GetFdInode(const std::string& path) {
  return ReadFdInfoValue<uint64_t>(path, TASK_DMABUF_INO_PREFIX, ParseUnsigned);
}

int64_t TavoProcReader::UptimeMs() const {
  FileBuffer& file = ThreadBuffer();
  if (!file.Read(root_ + "/uptime")) return -1;
  // "12345.67 ...": seconds and hundredths.
  const char* p = file.begin();
  const char* dot = static_cast<const char*>(memchr(p, '.', static_cast<size_t>(file.end() - p)));
  if (dot == nullptr || dot + 3 > file.end()) return -1;
  return ParseSigned(p, dot) * 1000 + ParseSigned(dot + 1, dot + 3) * 10;
}

std::string TavoProcReader::NetNamespace(const char* name) const {
  std::string target;
  android::base::Readlink(Path(name, TASK_NET_NS_TEMPLATE), &target);
  return target;
}

bool TavoProcReader::ParseUnixSockets(const std::string& table, const std::string& abstractName,
                                      std::set<unsigned long>* inodes, size_t* connected) {
  // Num RefCount Protocol Flags Type St Inode Path; St 03 is a connection,
  // 01 the listener.
  const std::string wanted = "@" + abstractName;
  *connected = 0;
  for (const std::string& line : android::base::Split(table, "\n")) {
    const std::vector<std::string> f = Split(line, " ");  // runs of blanks count as one
    unsigned long inode = 0;
    if (f.size() != 8 || f[7] != wanted || !android::base::ParseUint(f[6], &inode) || inode == 0) continue;
    inodes->insert(inode);
    *connected += f[5] == "03";
  }
  return true;
}

bool TavoProcReader::UnixSockets(const std::string& abstractName, std::set<unsigned long>* inodes,
                                 size_t* connected) const {
  std::string table;
  if (!android::base::ReadFileToString(root_ + "/net/unix", &table)) return false;
  return ParseUnixSockets(table, abstractName, inodes, connected);
}

bool TavoProcReader::HoldsSocket(const char* name, const std::set<unsigned long>& inodes) const {
  bool holds = false;
  std::string target;
  ForEachFd(name, [&](const char* fd) {
    unsigned long inode = 0;
    if (holds || !ReadFdTarget(name, fd, &target) || !android::base::StartsWith(target, "socket:[")) return;
    holds = android::base::ParseUint(target.substr(8, target.size() - 9), &inode) && inodes.count(inode) != 0;
  });
  return holds;
}

std::set<std::string> TavoProcReader::KernelFunctions() const {
  std::string text;
  std::set<std::string> names;
  if (!android::base::ReadFileToString(root_ + "/kallsyms", &text)) return names;
  for (const std::string& line : android::base::Split(text, "\n")) {
    const std::vector<std::string> f = android::base::Split(line, " ");
    if (f.size() >= 3 && (f[1] == "t" || f[1] == "T")) names.insert(f[2]);
  }
  return names;
}

std::set<std::string> TavoProcReader::Filesystems() const {
  std::string text;
  std::set<std::string> types;
  if (!android::base::ReadFileToString(root_ + "/filesystems", &text)) return types;
  // "nodev\tbpf" or "\text4": the type is the last field.
  for (const std::string& line : android::base::Split(text, "\n")) {
    const size_t tab = line.rfind('\t');
    if (tab != std::string::npos && tab + 1 < line.size()) types.insert(line.substr(tab + 1));
  }
  return types;
}

}  // namespace Tavo::Bpf
