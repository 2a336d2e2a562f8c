// The registry of tracked processes, and the dumps of it.
//
// The registry owns its lock. Callers never hold a pointer into it outside
// a call: they change a record inside WithTask() or read a copy.
#pragma once

#include <android-base/thread_annotations.h>

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "util/tavo_mutex.h"

namespace Tavo::Bpf {

struct TavoTask {
  int32_t pid = 0;
  int32_t ppid = 0;  // 2: a kernel thread
  uint32_t uid = 0;
  uint32_t threadNum = 0;
  uint32_t oldThreadNum = 0;  // last reported to clients
  char comm[16] = {};
  uint32_t mmId = 0;
  // Indexed by the kernel's rss member code: file, anon, swap, shmem.
  int64_t rssSize[4] = {};
  int64_t rssOldSize[4] = {};   // last reported to clients
  int64_t initTimeStamp = 0;    // start time, seconds on the service's wall-clock scale
  uint64_t lastUpdateTime = 0;  // seconds of the last /proc re-read; 0 = never
  uint64_t createTimeNs = 0;    // ts of the record that created the task
};

// Largest total memory first. Sums are taken wide, so saturated sizes
// still give a strict weak order.
bool CompareTavoTask(const TavoTask& a, const TavoTask& b);

class TavoTaskManager {
 public:
  static const char* const TAVOTASK_DUMP_PATH;
  static const char* const TAVOTASK_DUMP_FILE;  // name of the one dump file in it
  static const std::string TAVOTASK_DUMP_TEMPLATE;  // the service's own file: directory and name

  int AddTavoTask(int pid, const TavoTask& task) EXCLUDES(lock_);
  // Registers the record only if the pid is absent; true when it did.
  bool InsertTavoTask(int pid, const TavoTask& task) EXCLUDES(lock_);
  bool HasTask(int pid) EXCLUDES(lock_);
  // Runs fn on the stored record under the registry lock; false when the
  // pid is not registered. fn must not call back into the registry. (A
  // template, so the handlers' lambdas cost no std::function per record.)
  template <typename Fn>
  bool WithTask(int pid, Fn&& fn) EXCLUDES(lock_) {
    MutexLock guard(lock_);
    auto it = tasks_.find(pid);
    if (it == tasks_.end()) return false;
    fn(it->second);
    return true;
  }
  // A copy of the record, or false.
  bool GetTavoTask(int pid, TavoTask* out) EXCLUDES(lock_);
  // 0, or -1 with errno ENOENT when absent.
  int DelTavoTask(int pid) EXCLUDES(lock_);
  unsigned int GetTavoTaskCount() EXCLUDES(lock_);

  // Look-ups by memory-descriptor id and a parking place for records keyed
  // otherwise; the index holds pids, so an erased task never dangles.
  int AddMmidIndex(unsigned int mmId, int pid) EXCLUDES(lock_);
  bool GetTavoTaskByMmid(unsigned int mmId, TavoTask* out) EXCLUDES(lock_);
  int DelMmidIndex(unsigned int mmId) EXCLUDES(lock_);
  int AddRssTempTask(unsigned int key, const TavoTask& task) EXCLUDES(lock_);
  bool GetRssTempTask(unsigned int key, TavoTask* out) EXCLUDES(lock_);
  // Always 0; errno ENOENT when absent.
  int DelRssTempTask(unsigned int key) EXCLUDES(lock_);

  // A copy of every record, in no particular order.
  std::vector<TavoTask> Snapshot() EXCLUDES(lock_);

  // The four dumps, written to <dir>/TAVOTASK_DUMP_FILE. "IgnoreKernelTask"
  // leaves out rows without memory, "Normal" the last-reported columns.
  void DumpTavoTaskInfo(const std::string& dir) EXCLUDES(lock_);
  void DumpTavoTaskIgnoreKernelTaskInfo(const std::string& dir) EXCLUDES(lock_);
  void DumpTavoTaskInfoNormal(const std::string& dir) EXCLUDES(lock_);
  void DumpTavoTaskIgnoreKernelTaskInfoNormal(const std::string& dir) EXCLUDES(lock_);
  // The dump text, from one consistent look at the registry.
  std::string FormatDump(bool ignoreKernelTasks, bool normal) EXCLUDES(lock_);

 private:
  Mutex lock_;
  // Hashed: every ring record looks its process up.
  std::unordered_map<int32_t, TavoTask> tasks_ GUARDED_BY(lock_);
  std::map<uint32_t, int32_t> mmidIndex_ GUARDED_BY(lock_);
  std::map<uint32_t, TavoTask> rssTempTasks_ GUARDED_BY(lock_);
};

}  // namespace Tavo::Bpf
