#include "task/tavo_bpf_task_manager.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "util/tavo_dump_file.h"
#include "util/tavo_log.h"
#include "util/tavo_service_contract.h"
#include "util/tavo_strings.h"

namespace Tavo::Bpf {

const char* const TavoTaskManager::TAVOTASK_DUMP_PATH = kDumpDir;
const char* const TavoTaskManager::TAVOTASK_DUMP_FILE = kTaskDumpFile;
const std::string TavoTaskManager::TAVOTASK_DUMP_TEMPLATE = std::string(kDumpDir) + "/" + kTaskDumpFile;

namespace {

__int128 TotalSize(const TavoTask& t) {
  return static_cast<__int128>(t.rssSize[0]) + t.rssSize[1] + t.rssSize[2] + t.rssSize[3];
}

bool HasMemory(const TavoTask& t) {
  return t.rssSize[0] != 0 || t.rssSize[1] != 0 || t.rssSize[2] != 0 || t.rssSize[3] != 0;
}

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

long Kb(int64_t bytes) { return static_cast<long>(bytes / 1024); }

void AppendRow(std::string* out, const TavoTask& t, bool normal) {
  // A full 16-byte name has no NUL; never read past the field.
  const size_t len = strnlen(t.comm, sizeof(t.comm));
  out->append(t.comm, len);
  if (len < 16) out->append(16 - len, ' ');
  if (normal) {
    *out += StringPrintf("   %-12d%-12d%-12d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%20ld\n", t.pid, t.ppid,
                         static_cast<int>(t.threadNum), t.mmId, Kb(t.rssSize[1]), Kb(t.rssSize[0]),
                         Kb(t.rssSize[3]), Kb(t.rssSize[2]), static_cast<long>(t.initTimeStamp));
    return;
  }
  *out += StringPrintf(
      "   %-12d%-12d%-12d%-13d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%20ld\n", t.pid,
      t.ppid, static_cast<int>(t.threadNum), static_cast<int>(t.oldThreadNum), t.mmId, Kb(t.rssSize[1]),
      Kb(t.rssOldSize[1]), Kb(t.rssSize[0]), Kb(t.rssOldSize[0]), Kb(t.rssSize[3]), Kb(t.rssOldSize[3]),
      Kb(t.rssSize[2]), Kb(t.rssOldSize[2]), static_cast<long>(t.initTimeStamp));
}

template <typename Map, typename Key>
bool CopyOut(const Map& map, const Key& key, TavoTask* out) {
  auto it = map.find(key);
  if (it == map.end()) return false;
  *out = it->second;
  return true;
}

}  // namespace

bool CompareTavoTask(const TavoTask& a, const TavoTask& b) { return TotalSize(a) > TotalSize(b); }

int TavoTaskManager::AddTavoTask(int pid, const TavoTask& task) {
  MutexLock guard(lock_);
  tasks_.insert_or_assign(pid, task);
  return 0;
}

bool TavoTaskManager::InsertTavoTask(int pid, const TavoTask& task) {
  MutexLock guard(lock_);
  return tasks_.try_emplace(pid, task).second;
}

bool TavoTaskManager::HasTask(int pid) {
  MutexLock guard(lock_);
  return tasks_.count(pid) != 0;
}

bool TavoTaskManager::GetTavoTask(int pid, TavoTask* out) {
  MutexLock guard(lock_);
  return CopyOut(tasks_, pid, out);
}

int TavoTaskManager::DelTavoTask(int pid) {
  MutexLock guard(lock_);
  errno = 0;
  if (tasks_.erase(pid) == 0) {
    errno = ENOENT;
    return -1;
  }
  return 0;
}

unsigned int TavoTaskManager::GetTavoTaskCount() {
  MutexLock guard(lock_);
  return static_cast<unsigned int>(tasks_.size());
}

int TavoTaskManager::AddMmidIndex(unsigned int mmId, int pid) {
  MutexLock guard(lock_);
  mmidIndex_.insert_or_assign(mmId, pid);
  return 0;
}

bool TavoTaskManager::GetTavoTaskByMmid(unsigned int mmId, TavoTask* out) {
  MutexLock guard(lock_);
  auto it = mmidIndex_.find(mmId);
  return it != mmidIndex_.end() && CopyOut(tasks_, it->second, out);
}

int TavoTaskManager::DelMmidIndex(unsigned int mmId) {
  MutexLock guard(lock_);
  errno = 0;
  if (mmidIndex_.erase(mmId) == 0) {
    errno = ENOENT;
    return -1;
  }
  return 0;
}

int TavoTaskManager::AddRssTempTask(unsigned int key, const TavoTask& task) {
  MutexLock guard(lock_);
  rssTempTasks_.insert_or_assign(key, task);
  return 0;
}

bool TavoTaskManager::GetRssTempTask(unsigned int key, TavoTask* out) {
  MutexLock guard(lock_);
  return CopyOut(rssTempTasks_, key, out);
}

int TavoTaskManager::DelRssTempTask(unsigned int key) {
  MutexLock guard(lock_);
  errno = 0;
  if (rssTempTasks_.erase(key) == 0) errno = ENOENT;  // still 0, unlike the other deletes
  return 0;
}

std::vector<TavoTask> TavoTaskManager::Snapshot() {
  MutexLock guard(lock_);
  std::vector<TavoTask> rows;
  rows.reserve(tasks_.size());
  for (const auto& entry : tasks_) rows.push_back(entry.second);
  return rows;
}

std::string TavoTaskManager::FormatDump(bool ignoreKernelTasks, bool normal) {
  // The title counts every task, also those the variant leaves out.
  std::vector<TavoTask> rows = Snapshot();
  const size_t count = rows.size();
  if (ignoreKernelTasks) rows.erase(std::remove_if(rows.begin(), rows.end(), [](const TavoTask& t) {
                                      return !HasMemory(t);
                                    }), rows.end());
  std::sort(rows.begin(), rows.end(), CompareTavoTask);

  std::string out = StringPrintf("============ DUMP ALL TAVO TASKS INFO (count: %u, time: %lu) ============\n",
                                 static_cast<unsigned>(count), static_cast<unsigned long>(time(nullptr)));
  for (const char* piece : normal ? kShortHeading : kFullHeading) out += piece;
  for (const TavoTask& t : rows) AppendRow(&out, t, normal);
  return out;
}

namespace {
bool WriteTaskDump(const std::string& dir, const std::string& text) {
  return ReplaceDumpFile(dir, dir + "/" + TavoTaskManager::TAVOTASK_DUMP_FILE, text);
}
}  // namespace

void TavoTaskManager::DumpTavoTaskInfo(const std::string& dir) {
  if (!WriteTaskDump(dir, FormatDump(false, false))) {
    TAVO_LOGE(kUtilsTag, "failed to dump tavo task, error: %s", strerror(errno));
  }
}

void TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfo(const std::string& dir) {
  WriteTaskDump(dir, FormatDump(true, false));
}

void TavoTaskManager::DumpTavoTaskInfoNormal(const std::string& dir) {
  if (!WriteTaskDump(dir, FormatDump(false, true))) {
    TAVO_LOGE(kUtilsTag, "failed to dump tavo task, error: %s", strerror(errno));
  }
}

void TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfoNormal(const std::string& dir) {
  WriteTaskDump(dir, FormatDump(true, true));
}

}  // namespace Tavo::Bpf
