// The task dumps: the registry as a fixed-width text table in one file.
//
// The text is built under the registry lock (a consistent snapshot) and
// written after the lock is released, so file I/O never holds up the pumps.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "task/tavo_bpf_task_manager.h"
#include "util/tavo_log.h"

namespace Tavo::Bpf {

const char* const TavoTaskManager::TAVOTASK_DUMP_PATH = "/data/tavolog/stability/tavobpfframework";
const char* const TavoTaskManager::TAVOTASK_DUMP_TEMPLATE =
    "/data/tavolog/stability/tavobpfframework/DUMPTASK_INFO";

namespace {

constexpr const char* kFullHeading[] = {
    "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         rssAnonOldSize      ",
    "rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     rssSwapSize         rssSwapOldSize      ",
    "initTimeStamp       \n",
};
constexpr const char* kShortHeading[] = {
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         ",
    "rssFileSize         rssShmemSize        rssSwapSize         ",
    "initTimeStamp       \n",
};

void AppendFormat(std::string* out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void AppendFormat(std::string* out, const char* fmt, ...) {
  char line[512];
  va_list args;
  va_start(args, fmt);
  const int n = vsnprintf(line, sizeof(line), fmt, args);
  va_end(args);
  if (n > 0) out->append(line, static_cast<size_t>(n) < sizeof(line) ? static_cast<size_t>(n) : sizeof(line) - 1);
}

void AppendRow(std::string* out, const TavoTask& t, bool normal) {
  // A full 16-byte name has no NUL; never read past the field.
  const size_t len = strnlen(t.comm, sizeof(t.comm));
  out->append(t.comm, len);
  if (len < 16) out->append(16 - len, ' ');
  if (normal) {
    AppendFormat(out, "   %-12d%-12d%-12d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%20ld\n", t.pid, t.ppid,
                 static_cast<int>(t.threadNum), t.mmId, static_cast<long>(t.rssSize[1] / 1024),
                 static_cast<long>(t.rssSize[0] / 1024), static_cast<long>(t.rssSize[3] / 1024),
                 static_cast<long>(t.rssSize[2] / 1024), static_cast<long>(t.initTimeStamp));
  } else {
    AppendFormat(out,
                 "   %-12d%-12d%-12d%-13d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%20ld\n",
                 t.pid, t.ppid, static_cast<int>(t.threadNum), static_cast<int>(t.oldThreadNum), t.mmId,
                 static_cast<long>(t.rssSize[1] / 1024), static_cast<long>(t.rssOldSize[1] / 1024),
                 static_cast<long>(t.rssSize[0] / 1024), static_cast<long>(t.rssOldSize[0] / 1024),
                 static_cast<long>(t.rssSize[3] / 1024), static_cast<long>(t.rssOldSize[3] / 1024),
                 static_cast<long>(t.rssSize[2] / 1024), static_cast<long>(t.rssOldSize[2] / 1024),
                 static_cast<long>(t.initTimeStamp));
  }
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

std::string TavoTaskManager::FormatDump(bool ignoreKernelTasks, bool normal) {
  std::vector<TavoTask> rows;
  rows.reserve(tasks.size());
  for (const auto& entry : tasks) {
    const TavoTask& t = entry.second;
    if (ignoreKernelTasks && t.rssSize[0] == 0 && t.rssSize[1] == 0 && t.rssSize[2] == 0 && t.rssSize[3] == 0) {
      continue;
    }
    rows.push_back(t);
  }
  std::sort(rows.begin(), rows.end(), CompareTavoTask);

  std::string out;
  out.reserve(256 + rows.size() * (normal ? 160 : 260));
  AppendFormat(&out, "============ DUMP ALL TAVO TASKS INFO (count: %u, time: %lu) ============\n",
               GetTavoTaskCount(), static_cast<unsigned long>(time(nullptr)));
  for (const char* piece : normal ? kShortHeading : kFullHeading) out.append(piece);
  for (const TavoTask& t : rows) AppendRow(&out, t, normal);
  return out;
}

namespace {

// Replaces the dump file with text; false (errno set) when it cannot be opened.
bool WriteDumpFile(const std::string& text) {
  mkdir(TavoTaskManager::TAVOTASK_DUMP_PATH, 0775);
  unlink(TavoTaskManager::TAVOTASK_DUMP_TEMPLATE);
  android::base::unique_fd fd(
      open(TavoTaskManager::TAVOTASK_DUMP_TEMPLATE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (fd.get() < 0) return false;
  WriteAll(fd.get(), text);
  return true;
}

std::string Snapshot(TavoTaskManager* manager, bool ignoreKernelTasks, bool normal) {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  return manager->FormatDump(ignoreKernelTasks, normal);
}

}  // namespace

void TavoTaskManager::DumpTavoTaskInfo() {
  if (!WriteDumpFile(Snapshot(this, false, false))) {
    TAVO_LOGE(kUtilsTag, "failed to dump tavo task, error: %s", strerror(errno));
  }
}

void TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfo() { WriteDumpFile(Snapshot(this, true, false)); }

void TavoTaskManager::DumpTavoTaskInfoNormal() {
  if (!WriteDumpFile(Snapshot(this, false, true))) {
    TAVO_LOGE(kUtilsTag, "failed to dump tavo task, error: %s", strerror(errno));
  }
}

void TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfoNormal() { WriteDumpFile(Snapshot(this, true, true)); }

}  // namespace Tavo::Bpf
