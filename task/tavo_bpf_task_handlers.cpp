// Process, thread and memory events: keep the registry current and tell
// clients when a process starts, ends, or its threads or memory move far.
//
// Lock discipline: each handler works on the stored record only while it
// holds the registry lock, copies what a notice needs, and hands the notice
// to the event manager after releasing it. /proc is read with the lock
// released; the record is then looked up again, since it may have gone.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "bpf/tavo_bpf_records.h"
#include "event/tavo_bpf_event_manager.h"
#include "service/tavo_bpf_service.h"
#include "task/tavo_bpf_task_manager.h"
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

void SendNotice(const void* notice, unsigned long size) {
  EventManager::GetInstance()->AppendEvent(static_cast<char*>(const_cast<void*>(notice)), size);
}

// Thread count changed by delta (+1 or -1); fills the notice when due.
bool UpdateThreadCount(int32_t pid, uint64_t ts, int delta, tavo_notice_thread_count* notice) {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  TavoTask* task = TavoTaskManager::GetInstance()->GetTavoTask(pid);
  if (task == nullptr) return false;
  if (static_cast<int64_t>(task->createTimeNs) >= static_cast<int64_t>(ts)) return false;
  task->threadNum += static_cast<uint32_t>(delta);
  const auto age = static_cast<int64_t>(ts - task->createTimeNs);
  const auto moved = static_cast<int32_t>(task->threadNum - task->oldThreadNum);
  if (age < kSettlingNs || std::llabs(static_cast<int64_t>(moved)) < kThreadStep) return false;
  notice->code = TAVO_NOTICE_THREAD_COUNT;
  notice->pid = task->pid;
  notice->ppid = task->ppid;
  notice->uid = task->uid;
  notice->old_thread_num = task->oldThreadNum;
  notice->thread_num = task->threadNum;
  task->oldThreadNum = task->threadNum;
  return true;
}

void HandleThreadChange(int32_t pid, uint64_t ts, int delta) {
  tavo_notice_thread_count notice;
  memset(&notice, 0, sizeof(notice));
  if (UpdateThreadCount(pid, ts, delta, &notice)) SendNotice(&notice, sizeof(notice));
}

bool MemoryNoticeAllowed(const TavoTask& task, uint64_t ts, uint64_t moved) {
  if (task.pid < 1 || (task.pid >= kLowPidFirst && task.pid <= kLowPidLast)) return false;
  if (task.ppid == kKernelThreadParent) return false;
  if (strncmp(task.comm, "dumpsys", 7) == 0 || strncmp(task.comm, "sh", 2) == 0) return false;
  if (static_cast<int64_t>(ts - task.createTimeNs) < kSettlingNs) return false;
  return moved >= kMemoryStep;
}

}  // namespace

int TavoBpfService::handleTavoTaskInitEvent(char* data, long size) {
  const auto* record = AsRecord<tavo_task_init_event>(data, size);
  if (record == nullptr) return 0;
  TavoTask task;
  task.pid = record->pid;
  task.ppid = record->ppid;
  task.uid = record->uid;
  task.threadNum = record->thread_num;
  task.oldThreadNum = record->thread_num;
  memcpy(task.comm, record->comm, sizeof(task.comm));
  task.mmId = 0;
  // The record puts shared memory before swap; the task orders by member code.
  task.rssSize[TAVO_RSS_FILE] = record->rss_file;
  task.rssSize[TAVO_RSS_ANON] = record->rss_anon;
  task.rssSize[TAVO_RSS_SWAP] = record->rss_swap;
  task.rssSize[TAVO_RSS_SHMEM] = record->rss_shmem;
  memcpy(task.rssOldSize, task.rssSize, sizeof(task.rssOldSize));
  task.initTimeStamp = record->start_time;
  task.lastUpdateTime = 0;
  task.createTimeNs = record->hdr.ts;
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  TavoTaskManager::GetInstance()->AddTavoTask(task.pid, task);
  return 0;
}

int TavoBpfService::handleSched_SchedProcessFork(char* data, long size) {
  const auto* record = AsRecord<tavo_task_create_event>(data, size);
  if (record == nullptr) return 0;
  const int32_t pid = record->pid;
  const uint64_t ts = record->hdr.ts;
  if (record->kind == TAVO_TASK_KIND_THREAD) {
    HandleThreadChange(pid, ts, +1);
    return 0;
  }
  if (record->kind != TAVO_TASK_KIND_PROCESS) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService] Task Create raw event (SCHED__TASK_CREATE) error!");
    return 0;
  }
  TavoTaskManager* manager = TavoTaskManager::GetInstance();
  {
    std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
    if (manager->GetTavoTask(pid) != nullptr) return 0;
  }
  const int64_t now = GetSystemSecondsTime();
  UpdateProcessExdata info;
  info.ppid = record->ppid;
  memcpy(info.comm, record->comm, sizeof(info.comm));
  if (record->ppid == 0) {
    UpdateProcessExdata read = info;
    if (getProcessInfo(pid, &read) == 0) info = read;
  }

  TavoTask task;
  task.pid = pid;
  task.ppid = info.ppid;
  task.uid = record->uid;
  memcpy(task.comm, info.comm, sizeof(task.comm));
  task.threadNum = 1;
  task.oldThreadNum = 1;
  task.initTimeStamp = now;
  task.createTimeNs = ts;
  {
    std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
    // Registered by someone else while /proc was read: that record stands.
    if (manager->GetTavoTask(pid) != nullptr) return 0;
    manager->AddTavoTask(pid, task);
  }
  tavo_notice_process_start notice;
  memset(&notice, 0, sizeof(notice));
  notice.code = TAVO_NOTICE_PROCESS_START;
  notice.pid = pid;
  notice.ppid = task.ppid;
  notice.uid = task.uid;
  memcpy(notice.comm, task.comm, sizeof(notice.comm));
  SendNotice(&notice, sizeof(notice));
  return 0;
}

int TavoBpfService::handleSched_SchedProcessExit(char* data, long size) {
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
  {
    std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
    TavoTaskManager::GetInstance()->DelTavoTask(record->pid);
  }
  // Sent for unknown pids too: the process ended either way.
  tavo_notice_process_exit notice;
  memset(&notice, 0, sizeof(notice));
  notice.code = TAVO_NOTICE_PROCESS_EXIT;
  notice.pid = record->pid;
  memcpy(notice.comm, record->comm, sizeof(notice.comm));
  SendNotice(&notice, sizeof(notice));
  return 0;
}

int TavoBpfService::handleKmem_RssStat(char* data, long size) {
  const auto* record = AsRecord<tavo_rss_stat_event>(data, size);
  if (record == nullptr) return 0;
  const int32_t pid = record->pid;
  const int32_t member = record->member;
  if (record->size < 0 || member < 0 || member >= TAVO_RSS_MEMBERS) return 0;
  TavoTaskManager* manager = TavoTaskManager::GetInstance();

  std::unique_lock<std::mutex> lock(TavoTaskManager::tavoTaskManagerLock);
  TavoTask* task = manager->GetTavoTask(pid);
  if (task == nullptr) return 0;

  // A process still carrying a placeholder name gets its identity re-read,
  // at most every few seconds.
  const std::string comm(task->comm, strnlen(task->comm, sizeof(task->comm)));
  if (uninitializedComms.count(comm) != 0 &&
      GetSystemSecondsTime() - static_cast<int64_t>(task->lastUpdateTime) >= kIdentityRefreshSeconds) {
    UpdateProcessExdata info;
    info.ppid = task->ppid;
    memcpy(info.comm, task->comm, sizeof(info.comm));
    lock.unlock();
    const bool read = getProcessInfo(pid, &info) == 0;
    const int64_t updated = GetSystemSecondsTime();
    lock.lock();
    task = manager->GetTavoTask(pid);
    if (task == nullptr) return 0;
    if (read) {
      task->ppid = info.ppid;
      memcpy(task->comm, info.comm, sizeof(task->comm));
    }
    task->lastUpdateTime = static_cast<uint64_t>(updated);
  }

  task->mmId = kMmIdMark;
  task->rssSize[member] = record->size;
  uint64_t moved = 0;
  for (int i = 0; i < TAVO_RSS_MEMBERS; ++i) {
    moved += static_cast<uint64_t>(SubAbs(task->rssSize[i], task->rssOldSize[i]));
  }
  if (!MemoryNoticeAllowed(*task, record->hdr.ts, moved)) return 0;

  tavo_notice_memory notice;
  memset(&notice, 0, sizeof(notice));
  notice.code = TAVO_NOTICE_MEMORY;
  notice.pid = task->pid;
  notice.ppid = task->ppid;
  notice.uid = task->uid;
  memcpy(notice.comm, task->comm, sizeof(notice.comm));
  memcpy(notice.current, task->rssSize, sizeof(notice.current));
  memcpy(notice.reported, task->rssOldSize, sizeof(notice.reported));
  memcpy(task->rssOldSize, task->rssSize, sizeof(task->rssOldSize));
  lock.unlock();
  SendNotice(&notice, sizeof(notice));
  return 0;
}

}  // namespace Tavo::Bpf
