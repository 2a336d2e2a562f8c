// Per-process accounting of dma-buf memory from the kernel's dma-buf events.
//
// A buffer is charged to a process once, however many uses (attachments,
// kernel or user mappings) the process holds: the use count says how many
// are open, the size goes on with the first and off with the last. Clients
// hear of every change of a process's total (notice 50005).
//
// The tables have their own lock: the GPL pump applies dma-buf records and
// the normal pump reports process exits. Notices are sent after the lock is
// released.
#pragma once

#include <android-base/thread_annotations.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_map.h"
#include "bpf/tavo_bpf_records.h"
#include "task/tavo_bpf_task_manager.h"
#include "task/tavo_notice_sink.h"
#include "task/tavo_proc_reader.h"
#include "util/tavo_mutex.h"

namespace Tavo::Bpf {

class TavoDmabufAccounting {
 public:
  using AllocateMap = TavoBpfMap<uint64_t, tavo_dmabuf_alloc_value>;
  using SizeMap = TavoBpfMap<int32_t, tavo_dmabuf_size_value>;

  TavoDmabufAccounting(TavoTaskManager& registry, const TavoProcReader& reader, TavoNoticeSink notices);

  // Raw-event handlers (types 7 to 14); each returns 0.
  int handleDmabuf_Setup(char* data, long size) EXCLUDES(lock_);
  int handleDmabuf_Release(char* data, long size) EXCLUDES(lock_);
  int handleDmabuf_Attach(char* data, long size) EXCLUDES(lock_);
  int handleDmabuf_Detach(char* data, long size) EXCLUDES(lock_);
  int handleDmabuf_Vmap(char* data, long size) EXCLUDES(lock_);
  int handleDmabuf_Vunmap(char* data, long size) EXCLUDES(lock_);
  int handleDmabuf_Mmap(char* data, long size) EXCLUDES(lock_);
  int handleDmabuf_Munmap(char* data, long size) EXCLUDES(lock_);

  // A process ended at ts (boot-time ns): its entries go, unless a use
  // newer than ts shows that the pid already belongs to a new process.
  // No notice: the exit notice has been sent. The purge waits for
  // ApplyExits(): records the process wrote before it ended may still be
  // in the dma-buf ring and must find its entries.
  void NoteProcessExit(int32_t pid, uint64_t ts) EXCLUDES(lock_);
  // Exits waiting for ApplyExits(); past it the oldest is applied at once.
  static constexpr size_t kMaxPendingExits = 4096;
  // Called by the dma-buf ring's pump after each full consume: applies the
  // exits noted before the previous call, whose records that consume has
  // taken.
  void ApplyExits() EXCLUDES(lock_);

  // Seeds the pinned allocation and size maps, and these tables, with the
  // dma-bufs that processes hold now. 0, or -1 when a map cannot be opened.
  int initDmabufBpfProg(const std::string& allocatePath, const std::string& sizePath) EXCLUDES(lock_);

  // What the tables say of a process (0 when untracked).
  int64_t ProcessTotal(int32_t pid) EXCLUDES(lock_);
  uint32_t UseCount(int32_t pid, uint64_t bufId) EXCLUDES(lock_);
  bool Tracks(int32_t pid) EXCLUDES(lock_);

 private:
  struct PendingExit {
    int32_t pid;
    uint64_t ts;
    uint64_t generation;
  };
  struct TotalChange {
    int32_t pid;
    int64_t total;
  };
  using Changes = std::vector<TotalChange>;

  bool TakeUse(const tavo_dmabuf_event& record, Changes* changes) REQUIRES(lock_);
  void DropUse(int32_t pid, uint64_t bufId, uint64_t size, Changes* changes) REQUIRES(lock_);
  void NoteLatestUse(const tavo_dmabuf_event& record) REQUIRES(lock_);
  void PurgeLocked(int32_t pid, uint64_t ts) REQUIRES(lock_);
  void Send(const Changes& changes) EXCLUDES(lock_);
  // Reads a record, lets apply change the tables under the lock, then sends
  // the totals it changed without it.
  template <typename Apply>
  int ApplyRecord(char* data, long size, Apply apply) EXCLUDES(lock_);
  int UseHandler(char* data, long size, bool mapping) EXCLUDES(lock_);
  int DropHandler(char* data, long size) EXCLUDES(lock_);

  TavoTaskManager& registry_;
  const TavoProcReader& reader_;
  TavoNoticeSink notices_;

  Mutex lock_;
  std::map<uint64_t, uint64_t> dmabufSizes_ GUARDED_BY(lock_);
  std::map<int32_t, std::map<uint64_t, uint32_t>> processDmabufRefs_ GUARDED_BY(lock_);
  std::map<int32_t, int64_t> processDmabufTotals_ GUARDED_BY(lock_);
  std::map<int32_t, std::map<uint64_t, uint64_t>> processDmabufMappings_ GUARDED_BY(lock_);
  // Time stamp of the latest use taken for a pid: an exit older than it
  // belongs to an earlier process with that pid.
  std::map<int32_t, uint64_t> processDmabufLastUseTs_ GUARDED_BY(lock_);
  // Oldest first; a full list drops its front on every exit.
  std::deque<PendingExit> pendingExits_ GUARDED_BY(lock_);
  uint64_t generation_ GUARDED_BY(lock_) = 0;
};

}  // namespace Tavo::Bpf
