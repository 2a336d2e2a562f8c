// Per-process dma-buf accounting from the kernel's dma-buf events.
//
// A buffer is charged to a process once, however many uses (attachments,
// kernel or user mappings) the process holds: the use count says how many are
// open, the size goes on with the first and off with the last. Everything
// here runs on the GPL pump thread, so the tables take no lock.
#include <signal.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "bpf/tavo_bpf_records.h"
#include "event/tavo_bpf_event_manager.h"
#include "service/tavo_bpf_exit_queue.h"
#include "service/tavo_bpf_service.h"
#include "task/tavo_bpf_task_manager.h"
#include "util/tavo_log.h"

namespace Tavo::Bpf {

namespace {

using RefTable = std::map<int32_t, std::map<uint64_t, uint32_t>>;
using TotalTable = std::map<int32_t, int64_t>;

// Copies the record out, or refuses it when it is shorter than the layout.
bool ReadDmabufRecord(const char* data, long size, tavo_dmabuf_event* out) {
  if (data == nullptr || size < static_cast<long>(sizeof(tavo_dmabuf_event))) {
    uint32_t type = 0;
    if (data != nullptr && size >= static_cast<long>(sizeof(type))) memcpy(&type, data, sizeof(type));
    TAVO_LOGE(kServiceTag, "[TavoBpfService] short dmabuf record! type: %u, size: %ld", type, size);
    return false;
  }
  memcpy(out, data, sizeof(*out));
  return true;
}

void SendDmabufTotal(int32_t pid, int64_t total) {
  tavo_notice_dmabuf_total notice{};
  notice.code = TAVO_NOTICE_DMABUF_TOTAL;
  notice.pid = pid;
  {
    // Copy out under the registry lock; the event manager takes its own.
    std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
    const TavoTask* task = TavoTaskManager::GetInstance()->GetTavoTask(pid);
    if (task != nullptr) {
      notice.uid = task->uid;
      memcpy(notice.comm, task->comm, sizeof(notice.comm));
    }
  }
  notice.total = total;
  EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&notice), sizeof(notice));
}

// True when this use is the process's first of the buffer (it was charged).
bool TakeUse(RefTable& refs, TotalTable& totals, const tavo_dmabuf_event& record) {
  auto [use, inserted] = refs[record.pid].try_emplace(record.buf_id, 1);
  if (!inserted) {
    if (use->second != UINT32_MAX) ++use->second;
    return false;
  }
  const int64_t total = totals[record.pid] += static_cast<int64_t>(record.size);
  SendDmabufTotal(record.pid, total);
  return true;
}

void DropUse(RefTable& refs, TotalTable& totals, int32_t pid, uint64_t bufId, uint64_t size) {
  auto process = refs.find(pid);
  if (process == refs.end()) return;
  auto use = process->second.find(bufId);
  if (use == process->second.end()) return;
  if (--use->second > 0) return;
  process->second.erase(use);
  // The record's size, not the one from setup: a mismatch stays in the total.
  const int64_t total = totals[pid] -= static_cast<int64_t>(size);
  SendDmabufTotal(pid, total);
}

}  // namespace

int TavoBpfService::reapExitedDmabufProcesses() {
  ProcessExitQueue* queue = ProcessExitQueue::GetInstance();
  if (!queue->HasPending()) return 0;
  const bool lost = queue->Take(exitNotes);
  int reaped = 0;
  auto purge = [this, &reaped](int32_t pid) {
    const size_t erased = processDmabufRefs.erase(pid) + processDmabufTotals.erase(pid) +
                          processDmabufMappings.erase(pid) + processDmabufLastUseTs.erase(pid);
    if (erased > 0) ++reaped;
  };
  for (const ProcessExitNote& exit : exitNotes) {
    // A use taken after the exit can only come from a later process with the
    // same pid; its entries stay (with whatever the dead one left).
    auto last = processDmabufLastUseTs.find(exit.pid);
    if (last != processDmabufLastUseTs.end() && last->second > exit.ts) continue;
    purge(exit.pid);
  }
  if (lost) {
    // Exits were not recorded: drop every tracked pid that no longer exists.
    std::vector<int32_t> gone;
    for (const auto& entry : processDmabufRefs) {
      if (entry.first > 0 && kill(entry.first, 0) != 0 && errno == ESRCH) gone.push_back(entry.first);
    }
    for (const auto& entry : processDmabufMappings) {
      if (entry.first > 0 && kill(entry.first, 0) != 0 && errno == ESRCH) gone.push_back(entry.first);
    }
    for (int32_t pid : gone) purge(pid);
    errno = 0;
  }
  return reaped;
}

int TavoBpfService::handleDmabuf_Setup(char* data, long size) {
  reapExitedDmabufProcesses();
  tavo_dmabuf_event record;
  if (!ReadDmabufRecord(data, size, &record)) return 0;
  dmabufSizes.insert_or_assign(record.buf_id, record.size);
  return 0;
}

int TavoBpfService::handleDmabuf_Release(char* data, long size) {
  reapExitedDmabufProcesses();
  tavo_dmabuf_event record;
  if (!ReadDmabufRecord(data, size, &record)) return 0;
  for (auto& [pid, uses] : processDmabufRefs) {
    auto use = uses.find(record.buf_id);
    if (use == uses.end()) continue;
    // Gone whatever its use count; an unknown buffer subtracts 0.
    uses.erase(use);
    const int64_t total = processDmabufTotals[pid] -= static_cast<int64_t>(dmabufSizes[record.buf_id]);
    SendDmabufTotal(pid, total);
  }
  dmabufSizes.erase(record.buf_id);
  return 0;
}

namespace {
// A use newer than a noted exit marks the pid as a live (possibly new) process.
void NoteLatestUse(std::map<int32_t, uint64_t>& lastUseTs, const tavo_dmabuf_event& record) {
  uint64_t& lastUse = lastUseTs[record.pid];
  if (record.hdr.ts > lastUse) lastUse = record.hdr.ts;
}
}  // namespace

int TavoBpfService::handleDmabuf_Attach(char* data, long size) {
  reapExitedDmabufProcesses();
  tavo_dmabuf_event record;
  if (!ReadDmabufRecord(data, size, &record)) return 0;
  NoteLatestUse(processDmabufLastUseTs, record);
  TakeUse(processDmabufRefs, processDmabufTotals, record);
  return 0;
}

int TavoBpfService::handleDmabuf_Detach(char* data, long size) {
  reapExitedDmabufProcesses();
  tavo_dmabuf_event record;
  if (!ReadDmabufRecord(data, size, &record)) return 0;
  DropUse(processDmabufRefs, processDmabufTotals, record.pid, record.buf_id, record.size);
  return 0;
}

int TavoBpfService::handleDmabuf_Vmap(char* data, long size) { return handleDmabuf_Attach(data, size); }

int TavoBpfService::handleDmabuf_Vunmap(char* data, long size) { return handleDmabuf_Detach(data, size); }

int TavoBpfService::handleDmabuf_Mmap(char* data, long size) {
  reapExitedDmabufProcesses();
  tavo_dmabuf_event record;
  if (!ReadDmabufRecord(data, size, &record)) return 0;
  NoteLatestUse(processDmabufLastUseTs, record);
  // A buffer already in use only counts up; the key is then not recorded.
  if (TakeUse(processDmabufRefs, processDmabufTotals, record)) {
    processDmabufMappings[record.pid].insert_or_assign(record.map_key, record.buf_id);
  }
  return 0;
}

int TavoBpfService::handleDmabuf_Munmap(char* data, long size) {
  reapExitedDmabufProcesses();
  tavo_dmabuf_event record;
  if (!ReadDmabufRecord(data, size, &record)) return 0;
  auto process = processDmabufMappings.find(record.pid);
  if (process == processDmabufMappings.end()) return 0;
  auto mapping = process->second.find(record.map_key);
  if (mapping == process->second.end()) return 0;
  DropUse(processDmabufRefs, processDmabufTotals, record.pid, mapping->second, record.size);
  // The key goes whether or not the use count reached 0.
  process->second.erase(mapping);
  return 0;
}

}  // namespace Tavo::Bpf
