#include "tools/tavo_cli/tavoctl_top_proc.h"

#include <dirent.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <algorithm>
#include <memory>

#include "tools/tavo_cli/tavoctl_service_finder.h"

namespace Tavo::Cli {

namespace {

using android::base::ParseInt;
using android::base::ParseUint;
using android::base::ReadFileToString;
using android::base::Split;

// Blank-separated words; runs of blanks count as one.
std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words = Split(text, " \t");
  words.erase(std::remove(words.begin(), words.end(), ""), words.end());
  return words;
}

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

int64_t UptimeMs() {
  std::string text;
  if (!ReadFileToString("/proc/uptime", &text)) return -1;
  const std::vector<std::string> fields = Split(text, ". ");
  uint64_t seconds = 0, hundredths = 0;
  if (fields.size() < 2 || !ParseUint(fields[0], &seconds) || !ParseUint(fields[1], &hundredths)) return -1;
  return static_cast<int64_t>(seconds * 1000 + hundredths * 10);
}

// "Name:\t  value kB" lines of /proc/PID/status: the real uid and the sizes.
void ParseStatus(const std::string& text, ProcessRow* row) {
  struct Size {
    const char* key;
    int64_t* bytes;
  } sizes[] = {{"RssAnon:", &row->anon}, {"RssFile:", &row->file}, {"RssShmem:", &row->shmem},
               {"VmSwap:", &row->swap}};
  // Kernel threads have no memory lines: nothing resident.
  for (const Size& s : sizes) *s.bytes = 0;
  for (const std::string& line : Split(text, "\n")) {
    const std::vector<std::string> fields = Words(line);
    if (fields.size() < 2) continue;
    if (fields[0] == "Uid:") ParseUint(fields[1], &row->uid);
    for (const Size& s : sizes) {
      int64_t kib = 0;
      if (fields[0] == s.key && ParseInt(fields[1], &kib)) *s.bytes = kib * 1024;
    }
  }
}

bool ReadAt(int32_t pid, int64_t nowMs, int64_t uptimeMs, ProcessRow* row) {
  const std::string dir = "/proc/" + std::to_string(pid);
  std::string stat, status;
  if (!ReadFileToString(dir + "/stat", &stat) || !ReadFileToString(dir + "/status", &status)) return false;
  uint64_t startTicks = 0;
  if (!ProcReader::ParseStat(stat, row, &startTicks)) return false;
  ParseStatus(status, row);
  row->pid = pid;
  const auto startMs = static_cast<int64_t>(startTicks * 1000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK)));
  row->startMs = uptimeMs < 0 ? nowMs : nowMs - std::max<int64_t>(uptimeMs - startMs, 0);
  return true;
}

}  // namespace

bool ProcReader::ParseStat(const std::string& text, ProcessRow* row, uint64_t* startTicks) {
  // "pid (name) state ppid ...": the name may hold blanks and parentheses,
  // so it ends at the last ')'.
  const size_t open = text.find('(');
  const size_t close = text.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return false;
  const std::vector<std::string> fields = Words(text.substr(close + 1));
  // After the name: state is field 3, ppid 4, num_threads 20, starttime 22.
  if (fields.size() < 20) return false;
  row->name = text.substr(open + 1, close - open - 1);
  return ParseInt(fields[1], &row->ppid) && ParseUint(fields[17], &row->threads) &&
         ParseUint(fields[19], startTicks);
}

std::vector<ProcessRow> ProcReader::Scan(int64_t nowMs) {
  std::vector<ProcessRow> rows;
  std::unique_ptr<DIR, DirCloser> proc(opendir("/proc"));
  if (proc == nullptr) return rows;
  const int64_t uptimeMs = UptimeMs();
  while (dirent* entry = readdir(proc.get())) {
    int32_t pid = 0;
    ProcessRow row;
    if (ParseInt(entry->d_name, &pid, 1) && ReadAt(pid, nowMs, uptimeMs, &row)) rows.push_back(std::move(row));
  }
  return rows;
}

bool ProcReader::Read(int32_t pid, int64_t nowMs, ProcessRow* row) {
  return ReadAt(pid, nowMs, UptimeMs(), row);
}

int ProcReader::ServiceClients(const std::string& path) {
  std::string table;
  if (!ReadFileToString("/proc/net/unix", &table)) return -1;
  return static_cast<int>(ConnectedSockets(table, path));
}

}  // namespace Tavo::Cli
