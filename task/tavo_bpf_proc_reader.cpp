// Reads process facts from /proc: the start-up scan, one process's identity,
// and single values of fdinfo files.
//
// The scan opens two files for every process on the device, so it reads each
// file whole into one reused buffer and walks the lines in place: no string
// per line and no allocation per process once the buffer has grown.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "service/tavo_bpf_service.h"
#include "state/tavo_bpf_state.h"
#include "util/tavo_log.h"
#include "util/tavo_strings.h"
#include "util/tavo_time.h"

namespace Tavo::Bpf {

namespace {

// /proc status files are about 1.5 KB; a file larger than this is cut.
constexpr size_t kInitialBuffer = 4096;
constexpr size_t kMaxBuffer = 1 << 20;

// One file's text, read whole, NUL-terminated.
class ProcFileBuffer {
 public:
  ProcFileBuffer() : block(kInitialBuffer) {}

  // False (errno set) when the file cannot be opened or read.
  bool Read(const char* path) {
    length = 0;
    android::base::unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return false;
    for (;;) {
      if (length + 1 >= block.size()) {
        if (block.size() >= kMaxBuffer) break;
        block.resize(block.size() * 2);
      }
      const ssize_t n = read(fd.get(), block.data() + length, block.size() - 1 - length);
      if (n < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      if (n == 0) break;
      length += static_cast<size_t>(n);
    }
    block[length] = '\0';
    return true;
  }

  const char* begin() const { return block.data(); }
  const char* end() const { return block.data() + length; }

 private:
  std::vector<char> block;
  size_t length = 0;
};

struct Line {
  const char* begin;
  const char* end;  // the '\n' or the end of the text
};

// Calls fn(line) for each line; stops early when fn returns false.
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
// many characters after the line's start as the prefix is long.
const char* MatchValue(const Line& line, const std::string& prefix) {
  const size_t len = static_cast<size_t>(line.end - line.begin);
  if (len < prefix.size()) return nullptr;
  if (memmem(line.begin, len, prefix.data(), prefix.size()) == nullptr) return nullptr;
  return line.begin + prefix.size();
}

// Decimal conversion in the manner of strtoull, bounded by end: leading
// blanks, an optional sign, digits up to the first non-digit. Saturates
// instead of failing, so no input can make it throw or overflow.
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
      value = UINT64_MAX;
      while (p < end && *p >= '0' && *p <= '9') ++p;
      break;
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

int32_t ClampInt(int64_t v) {
  return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v);
}

// kB to bytes, saturating.
int64_t KbToBytes(int64_t kb) {
  if (kb > (INT64_MAX >> 10)) return INT64_MAX;
  if (kb < (INT64_MIN >> 10)) return INT64_MIN;
  return kb * 1024;
}

// At most 16 bytes of the value; the 16th byte is always NUL.
void CopyComm(char* comm, const char* value, const char* end) {
  const size_t len = value < end ? static_cast<size_t>(end - value) : 0;
  memcpy(comm, value, len < TAVO_COMM_LEN ? len : TAVO_COMM_LEN);
  comm[TAVO_COMM_LEN - 1] = '\0';
}

void FillFromStatus(const ProcFileBuffer& file, tavo_task_init_event* record) {
  ForEachLine(file.begin(), file.end(), [record](const Line& line) {
    const char* v;
    if ((v = MatchValue(line, TavoBpfService::TASK_COMM_PREFIX)) != nullptr) {
      CopyComm(record->comm, v, line.end);
    } else if ((v = MatchValue(line, TavoBpfService::TASK_PPID_PREFIX)) != nullptr) {
      record->ppid = ClampInt(ParseSigned(v, line.end));
    } else if ((v = MatchValue(line, TavoBpfService::TASK_RSS_ANON_PREFIX)) != nullptr) {
      record->rss_anon = KbToBytes(ParseSigned(v, line.end));
    } else if ((v = MatchValue(line, TavoBpfService::TASK_RSS_FILE_PREFIX)) != nullptr) {
      record->rss_file = KbToBytes(ParseSigned(v, line.end));
    } else if ((v = MatchValue(line, TavoBpfService::TASK_RSS_SHMEM_PREFIX)) != nullptr) {
      record->rss_shmem = KbToBytes(ParseSigned(v, line.end));
    } else if ((v = MatchValue(line, TavoBpfService::TASK_VM_SWAP_PREFIX)) != nullptr) {
      record->rss_swap = KbToBytes(ParseSigned(v, line.end));
    } else if ((v = MatchValue(line, TavoBpfService::TASK_PROC_UID_PREFIX)) != nullptr) {
      record->uid = static_cast<uint32_t>(ParseUnsigned(v, line.end));
    }
    return true;
  });
}

// First line of the stat file cut at blanks (empty pieces dropped): piece 19
// is the thread count, piece 21 the start time in clock ticks. A name with a
// blank shifts the pieces; that is accepted.
void FillFromStat(const ProcFileBuffer& file, long ticksPerSecond, tavo_task_init_event* record) {
  const char* p = file.begin();
  const char* nl = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(file.end() - p)));
  const char* end = nl != nullptr ? nl : file.end();
  const char* pieces[22];
  const char* pieceEnds[22];
  int count = 0;
  while (p < end && count < 22) {
    while (p < end && *p == ' ') ++p;
    if (p == end) break;
    pieces[count] = p;
    while (p < end && *p != ' ') ++p;
    pieceEnds[count++] = p;
  }
  if (count < 22) return;
  record->thread_num = static_cast<uint32_t>(ClampInt(ParseSigned(pieces[19], pieceEnds[19])));
  const int64_t startTicks = ParseSigned(pieces[21], pieceEnds[21]);
  record->start_time = GetBasetime() + (ticksPerSecond != 0 ? startTicks / ticksPerSecond : 0);
}

// Per-thread buffer for the readers that run on the pump threads.
ProcFileBuffer& ThreadBuffer() {
  thread_local ProcFileBuffer buffer;
  return buffer;
}

template <typename T, typename Parse>
T ReadFdInfoValue(const std::string& path, const std::string& prefix, Parse parse) {
  ProcFileBuffer& file = ThreadBuffer();
  if (!file.Read(path.c_str())) {
    TAVO_LOGW(kServiceTag, "Unable to open %s", path.c_str());
    return 0;
  }
  T result = 0;
  ForEachLine(file.begin(), file.end(), [&](const Line& line) {
    const char* v = MatchValue(line, prefix);
    if (v == nullptr) return true;
    result = parse(v, line.end);
    return false;
  });
  return result;
}

}  // namespace

void TavoBpfService::initTaskInfo() {
  int count = 0;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(PROC_FS_PATH.c_str()), closedir);
  if (dir != nullptr) {
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    ProcFileBuffer file;
    char path[64];
    while (const dirent* entry = readdir(dir.get())) {
      // Names are short: the string stays in its inline storage.
      const std::string name(entry->d_name);
      if (!IsDigits(name)) continue;
      tavo_task_init_event record;
      memset(&record, 0, sizeof(record));
      record.hdr.type = TAVO_EVENT_TASK_INIT;
      record.hdr.ts = static_cast<uint64_t>(GetSystemBootNanosencondsTime());
      record.pid = ClampInt(ParseSigned(name.data(), name.data() + name.size()));

      snprintf(path, sizeof(path), TASK_STATUS_TEMPLATE.c_str(), name.c_str());
      if (!file.Read(path)) continue;  // gone since the directory was listed
      FillFromStatus(file, &record);
      snprintf(path, sizeof(path), TASK_STAT_TEMPLATE.c_str(), name.c_str());
      if (file.Read(path)) FillFromStat(file, ticksPerSecond, &record);

      ++count;
      handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
    }
  }
  TavoBpfDataState::GetInstance()->RecordEvent(TAVO_EVENT_TASK_INIT, count);
}

int TavoBpfService::getProcessInfo(int pid, UpdateProcessExdata* out) {
  char path[64];
  snprintf(path, sizeof(path), TASK_STATUS_PID_TEMPLATE.c_str(), pid);
  ProcFileBuffer& file = ThreadBuffer();
  if (!file.Read(path)) {
    TAVO_LOGW(kServiceTag, "[TavoBpfService][GPI] Task not exists, errno info: %s", strerror(errno));
    return -1;
  }
  ForEachLine(file.begin(), file.end(), [out](const Line& line) {
    const char* v;
    if ((v = MatchValue(line, TASK_COMM_PREFIX)) != nullptr) {
      CopyComm(out->comm, v, line.end);
    } else if ((v = MatchValue(line, TASK_PPID_PREFIX)) != nullptr) {
      out->ppid = ClampInt(ParseSigned(v, line.end));
    }
    return true;
  });
  out->pid = pid;
  return 0;
}

long TavoBpfService::GetFdSize(const std::string& path) {
  return ReadFdInfoValue<long>(path, TASK_DMABUF_SIZE_PREFIX,
                               [](const char* v, const char* end) { return static_cast<long>(ParseSigned(v, end)); });
}

uint64_t TavoBpfService::GetFdInode(const std::string& path) {
  return ReadFdInfoValue<uint64_t>(path, TASK_DMABUF_INO_PREFIX, ParseUnsigned);
}

}  // namespace Tavo::Bpf
