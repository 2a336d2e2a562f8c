#include "task/tavo_task_tracker.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "util/tavo_log.h"
#include "util/tavo_time.h"

namespace Tavo::Bpf {

namespace {

// No thread or memory notice while a process is younger than this.
constexpr int64_t kSettlingNs = 3000000000LL;
constexpr int64_t kThreadStep = 11;
constexpr uint64_t kMemoryStep = 16384;
constexpr int32_t kLowPidFirst = 2;
constexpr int32_t kLowPidLast = 300;
constexpr int32_t kKernelThreadParent = 2;
constexpr int64_t kIdentityRefreshSeconds = 3;
constexpr uint32_t kMmIdMark = 1000;

// A handler reads its record only when the record holds its whole layout.
template <typename Record>
const Record* AsRecord(const char* data, long size) {
  if (data == nullptr || size < static_cast<long>(sizeof(Record))) {
    uint32_t type = 0;
    if (data != nullptr && size >= static_cast<long>(sizeof(type))) memcpy(&type, data, sizeof(type));
    TAVO_LOGE(kServiceTag, "[TavoBpfService] short task record! type: %u, size: %ld", type, size);
    return nullptr;
  }
  return reinterpret_cast<const Record*>(data);
}

bool MemoryNoticeAllowed(const TavoTask& task, uint64_t ts, uint64_t moved) {
  if (task.pid < 1 || (task.pid >= kLowPidFirst && task.pid <= kLowPidLast)) return false;
  if (task.ppid == kKernelThreadParent) return false;
  if (strncmp(task.comm, "dumpsys", 7) == 0 || strncmp(task.comm, "sh", 2) == 0) return false;
  if (static_cast<int64_t>(ts - task.createTimeNs) < kSettlingNs) return false;
  return moved >= kMemoryStep;
}

// Names a process carries before it has its final one.
bool HasPlaceholderName(const TavoTask& task) {
  const std::string_view comm(task.comm, strnlen(task.comm, sizeof(task.comm)));
  return comm == "main" || comm == "re-initialized>";
}

}  // namespace

TavoTaskTracker::TavoTaskTracker(TavoTaskManager& registry, const TavoProcReader& reader, TavoNoticeSink notices,
                                 Clock clock)
    : registry_(registry), reader_(reader), notices_(std::move(notices)), clock_(clock) {}

void TavoTaskTracker::HandleThreadChange(int32_t pid, uint64_t ts, int delta) {
  tavo_notice_thread_count notice{};
  bool due = false;
  registry_.WithTask(pid, [&](TavoTask& task) {
    // A record older than the task belongs to an earlier process of the pid.
    if (static_cast<int64_t>(task.createTimeNs) >= static_cast<int64_t>(ts)) return;
    task.threadNum += static_cast<uint32_t>(delta);
    const auto age = static_cast<int64_t>(ts - task.createTimeNs);
    const auto moved = static_cast<int32_t>(task.threadNum - task.oldThreadNum);
    if (age < kSettlingNs || std::llabs(static_cast<int64_t>(moved)) < kThreadStep) return;
    notice.code = TAVO_NOTICE_THREAD_COUNT;
    notice.pid = task.pid;
    notice.ppid = task.ppid;
    notice.uid = task.uid;
    notice.old_thread_num = task.oldThreadNum;
    notice.thread_num = task.threadNum;
    task.oldThreadNum = task.threadNum;
    due = true;
  });
  if (due) notices_(&notice, sizeof(notice));
}

int TavoTaskTracker::handleTavoTaskInitEvent(char* data, long size) {
  const auto* record = AsRecord<tavo_task_init_event>(data, size);
  if (record == nullptr) return 0;
  TavoTask task;
  task.pid = record->pid;
  task.ppid = record->ppid;
  task.uid = record->uid;
  task.threadNum = record->thread_num;
  task.oldThreadNum = record->thread_num;
  memcpy(task.comm, record->comm, sizeof(task.comm));
  // The record puts shared memory before swap; the task orders by member code.
  task.rssSize[TAVO_RSS_FILE] = record->rss_file;
  task.rssSize[TAVO_RSS_ANON] = record->rss_anon;
  task.rssSize[TAVO_RSS_SWAP] = record->rss_swap;
  task.rssSize[TAVO_RSS_SHMEM] = record->rss_shmem;
  memcpy(task.rssOldSize, task.rssSize, sizeof(task.rssOldSize));
  task.initTimeStamp = record->start_time;
  task.createTimeNs = record->hdr.ts;
  registry_.AddTavoTask(task.pid, task);
  return 0;
}

int TavoTaskTracker::handleSched_SchedProcessFork(char* data, long size) {
  const auto* record = AsRecord<tavo_task_create_event>(data, size);
  if (record == nullptr) return 0;
  const int32_t pid = record->pid;
  if (record->kind == TAVO_TASK_KIND_THREAD) {
    HandleThreadChange(pid, record->hdr.ts, +1);
    return 0;
  }
  if (record->kind != TAVO_TASK_KIND_PROCESS) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService] Task Create raw event (SCHED__TASK_CREATE) error!");
    return 0;
  }
  if (registry_.HasTask(pid)) return 0;

  TavoTask task;
  task.pid = pid;
  task.ppid = record->ppid;
  task.uid = record->uid;
  memcpy(task.comm, record->comm, sizeof(task.comm));
  task.threadNum = 1;
  task.oldThreadNum = 1;
  task.initTimeStamp = clock_();
  task.createTimeNs = record->hdr.ts;
  if (record->ppid == 0) {
    UpdateProcessExdata info;
    info.ppid = task.ppid;
    memcpy(info.comm, task.comm, sizeof(info.comm));
    if (reader_.getProcessInfo(pid, &info) == 0) {
      task.ppid = info.ppid;
      memcpy(task.comm, info.comm, sizeof(task.comm));
    }
  }
  // Registered by someone else while /proc was read: that record stands.
  if (!registry_.InsertTavoTask(pid, task)) return 0;

  tavo_notice_process_start notice{};
  notice.code = TAVO_NOTICE_PROCESS_START;
  notice.pid = pid;
  notice.ppid = task.ppid;
  notice.uid = task.uid;
  memcpy(notice.comm, task.comm, sizeof(notice.comm));
  notices_(&notice, sizeof(notice));
  return 0;
}

int TavoTaskTracker::handleSched_SchedProcessExit(char* data, long size) {
  const auto* record = AsRecord<tavo_task_exit_event>(data, size);
  if (record == nullptr) return 0;
  if (record->kind == TAVO_TASK_KIND_THREAD) {
    HandleThreadChange(record->pid, record->hdr.ts, -1);
    return 0;
  }
  if (record->kind != TAVO_TASK_KIND_PROCESS) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!");
    return 0;
  }
  registry_.DelTavoTask(record->pid);
  // Sent for unknown pids too: the process ended either way.
  tavo_notice_process_exit notice{};
  notice.code = TAVO_NOTICE_PROCESS_EXIT;
  notice.pid = record->pid;
  memcpy(notice.comm, record->comm, sizeof(notice.comm));
  notices_(&notice, sizeof(notice));
  if (onProcessExit_) onProcessExit_(record->pid, record->hdr.ts);
  return 0;
}

int TavoTaskTracker::handleKmem_RssStat(char* data, long size) {
  const auto* record = AsRecord<tavo_rss_stat_event>(data, size);
  if (record == nullptr) return 0;
  const int32_t pid = record->pid;
  const int32_t member = record->member;
  if (record->size < 0 || member < 0 || member >= TAVO_RSS_MEMBERS) return 0;

  // Most records take one pass under the registry lock. A process still
  // carrying a placeholder name gets its identity re-read, at most every few
  // seconds, without the lock; the record is then applied in a second pass.
  tavo_notice_memory notice{};
  bool due = false;
  auto apply = [&](TavoTask& task) {
    task.mmId = kMmIdMark;
    task.rssSize[member] = record->size;
    uint64_t moved = 0;
    for (int i = 0; i < TAVO_RSS_MEMBERS; ++i) {
      moved += static_cast<uint64_t>(SubAbs(task.rssSize[i], task.rssOldSize[i]));
    }
    if (!MemoryNoticeAllowed(task, record->hdr.ts, moved)) return;
    notice.code = TAVO_NOTICE_MEMORY;
    notice.pid = task.pid;
    notice.ppid = task.ppid;
    notice.uid = task.uid;
    memcpy(notice.comm, task.comm, sizeof(notice.comm));
    memcpy(notice.current, task.rssSize, sizeof(notice.current));
    memcpy(notice.reported, task.rssOldSize, sizeof(notice.reported));
    memcpy(task.rssOldSize, task.rssSize, sizeof(task.rssOldSize));
    due = true;
  };

  bool refresh = false;
  UpdateProcessExdata info;
  registry_.WithTask(pid, [&](TavoTask& task) {
    if (HasPlaceholderName(task) &&
        clock_() - static_cast<int64_t>(task.lastUpdateTime) >= kIdentityRefreshSeconds) {
      info.ppid = task.ppid;
      memcpy(info.comm, task.comm, sizeof(info.comm));
      refresh = true;
      return;
    }
    apply(task);
  });
  if (refresh) {
    const bool reread = reader_.getProcessInfo(pid, &info) == 0;
    const int64_t updated = clock_();
    registry_.WithTask(pid, [&](TavoTask& task) {
      if (reread) {
        task.ppid = info.ppid;
        memcpy(task.comm, info.comm, sizeof(task.comm));
      }
      task.lastUpdateTime = static_cast<uint64_t>(updated);
      apply(task);
    });
  }
  if (due) notices_(&notice, sizeof(notice));
  return 0;
}

void TavoTaskTracker::initTaskInfo(const RecordDispatch& dispatch, TavoBpfDataState& counters) {
  int count = 0;
  const long ticksPerSecond = sysconf(_SC_CLK_TCK);
  const int64_t basetime = GetBasetime();
  reader_.ForEachProcess([&](int32_t pid, const char* name) {
    tavo_task_init_event record{};
    record.hdr.type = TAVO_EVENT_TASK_INIT;
    record.hdr.ts = static_cast<uint64_t>(GetSystemBootNanosencondsTime());
    record.pid = pid;
    if (!reader_.ReadTaskInit(name, basetime, ticksPerSecond, &record)) return;
    ++count;
    dispatch(&record, sizeof(record));
  });
  counters.RecordEvent(TAVO_EVENT_TASK_INIT, count);
}

int TavoTaskTracker::initFdBpfProg(const std::string& mapPath) {
  TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] update open_fd_caller_map !");
  auto map = OpenFdMap::OpenPinned(mapPath);
  if (!map.ok()) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] get map_TavoBpfDefineset_open_fd_caller_map(%d) failed! %s", -1,
              strerror(map.error().code()));
    return -1;
  }
  // One record for every process, never cleared between them: a name
  // shorter than an earlier one keeps that name's tail.
  tavo_open_fd_value value{};
  std::string name;
  reader_.ForEachProcess([&](int32_t pid, const char* dirName) {
    if (reader_.ReadName(dirName, &name)) {
      memcpy(value.comm, name.data(), std::min(sizeof(value.comm), name.size()));
      value.comm[sizeof(value.comm) - 1] = '\0';
    }
    uint64_t count = 0;
    if (!reader_.ForEachFd(dirName, [&count](const char*) { ++count; })) return;
    value.pid = pid;
    value.fd_count = count;
    value.fd_count_again = count;
    auto updated = map->Update(pid, value);
    if (!updated.ok()) {
      TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] update open_fd_caller_map failed! %s",
                strerror(updated.error().code()));
    }
  });
  return 0;
}

}  // namespace Tavo::Bpf
