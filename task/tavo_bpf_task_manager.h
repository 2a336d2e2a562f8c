// The registry of tracked processes and the dumps of it.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

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
  int64_t rssOldSize[4] = {};  // last reported to clients
  int64_t initTimeStamp = 0;   // start time, seconds on the service's wall-clock scale
  uint64_t lastUpdateTime = 0; // seconds of the last /proc re-read; 0 = never
  uint64_t createTimeNs = 0;   // ts of the record that created the task

  int64_t& rssFileSize() { return rssSize[0]; }
  int64_t& rssAnonSize() { return rssSize[1]; }
  int64_t& rssSwapSize() { return rssSize[2]; }
  int64_t& rssShmemSize() { return rssSize[3]; }
  int64_t TotalSize() const { return rssSize[0] + rssSize[1] + rssSize[2] + rssSize[3]; }
};

// Largest total memory first.
bool CompareTavoTask(const TavoTask& a, const TavoTask& b);

class TavoTaskManager {
 public:
  static const char* const TAVOTASK_DUMP_PATH;
  static const char* const TAVOTASK_DUMP_TEMPLATE;
  // Guards the three maps: the two pumps and the dump worker all use them.
  // Pointers returned by the getters are valid only while it is held.
  static std::mutex tavoTaskManagerLock;

  static TavoTaskManager* GetInstance();

  int AddTavoTask(int pid, TavoTask task);
  TavoTask* GetTavoTask(int pid);
  int DelTavoTask(int pid);
  int AddMmidIndex(unsigned int mmId, TavoTask* task);
  TavoTask* GetTavoTaskByMmid(unsigned int mmId);
  int DelMmidIndex(unsigned int mmId);
  int AddRssTempTask(unsigned int key, TavoTask task);
  TavoTask* GetRssTempTask(unsigned int key);
  int DelRssTempTask(unsigned int key);
  unsigned int GetTavoTaskCount();
  // Drops every record (tests and restarts of the scan).
  void Clear();

  // Write the dump file; each takes tavoTaskManagerLock itself.
  void DumpTavoTaskInfo();
  void DumpTavoTaskIgnoreKernelTaskInfo();
  void DumpTavoTaskInfoNormal();
  void DumpTavoTaskIgnoreKernelTaskInfoNormal();
  // The dump text without the file (caller holds the lock).
  std::string FormatDump(bool ignoreKernelTasks, bool normal);

 private:
  TavoTaskManager() = default;

  std::map<int32_t, TavoTask> tasks;
  std::map<uint32_t, TavoTask*> mmidIndex;
  std::map<uint32_t, TavoTask> rssTempTasks;
  static TavoTaskManager* instance;
};

// Signals 51 to 54: note the request; the dump worker writes the file.
void HandleDumpSignal(int signo);
void HandleNonKernelDumpSignal(int signo);
void HandleDumpSignalNormal(int signo);
void HandleNonKernelDumpSignalNormal(int signo);

}  // namespace Tavo::Bpf
