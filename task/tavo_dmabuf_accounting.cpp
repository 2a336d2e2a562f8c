#include "task/tavo_dmabuf_accounting.h"

#include <climits>
#include <cstring>

#include "util/tavo_log.h"
#include "util/tavo_time.h"

namespace Tavo::Bpf {

namespace {

constexpr const char* TASK_DMABUF_PREFIX = "/dmabuf";

// Totals move by sizes the kernel reports; a nonsense size saturates the
// total instead of overflowing it.
int64_t AddSize(int64_t& total, uint64_t size, bool add) {
  const int64_t delta = size > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(size);
  if (add ? __builtin_add_overflow(total, delta, &total) : __builtin_sub_overflow(total, delta, &total)) {
    total = add ? INT64_MAX : INT64_MIN;
  }
  return total;
}

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

}  // namespace

TavoDmabufAccounting::TavoDmabufAccounting(TavoTaskManager& registry, const TavoProcReader& reader,
                                           TavoNoticeSink notices)
    : registry_(registry), reader_(reader), notices_(std::move(notices)) {}

void TavoDmabufAccounting::Send(const Changes& changes) {
  for (const TotalChange& change : changes) {
    tavo_notice_dmabuf_total notice{};
    notice.code = TAVO_NOTICE_DMABUF_TOTAL;
    notice.pid = change.pid;
    TavoTask task;
    if (registry_.GetTavoTask(change.pid, &task)) {
      notice.uid = task.uid;
      memcpy(notice.comm, task.comm, sizeof(notice.comm));
    }
    notice.total = change.total;
    notices_(&notice, sizeof(notice));
  }
}

// True when this use is the process's first of the buffer (it was charged).
bool TavoDmabufAccounting::TakeUse(const tavo_dmabuf_event& record, Changes* changes) {
  auto [use, inserted] = processDmabufRefs_[record.pid].try_emplace(record.buf_id, 1);
  if (!inserted) {
    if (use->second != UINT32_MAX) ++use->second;  // saturates instead of wrapping to 0
    return false;
  }
  const int64_t total = AddSize(processDmabufTotals_[record.pid], record.size, true);
  changes->push_back({record.pid, total});
  return true;
}

void TavoDmabufAccounting::DropUse(int32_t pid, uint64_t bufId, uint64_t size, Changes* changes) {
  auto process = processDmabufRefs_.find(pid);
  if (process == processDmabufRefs_.end()) return;
  auto use = process->second.find(bufId);
  if (use == process->second.end()) return;
  if (--use->second > 0) return;
  process->second.erase(use);
  // The record's size, not the one from setup: a mismatch stays in the total.
  const int64_t total = AddSize(processDmabufTotals_[pid], size, false);
  changes->push_back({pid, total});
}

// Only uses count: drops and releases arrive for a dying process after its
// exit, while its descriptors close, and must not keep its entries alive.
void TavoDmabufAccounting::NoteLatestUse(const tavo_dmabuf_event& record) {
  uint64_t& lastUse = processDmabufLastUseTs_[record.pid];
  if (record.hdr.ts > lastUse) lastUse = record.hdr.ts;
}

int TavoDmabufAccounting::handleDmabuf_Setup(char* data, long size) {
  tavo_dmabuf_event record;
  if (!ReadDmabufRecord(data, size, &record)) return 0;
  MutexLock guard(lock_);
  dmabufSizes_.insert_or_assign(record.buf_id, record.size);
  return 0;
}

template <typename Apply>
int TavoDmabufAccounting::ApplyRecord(char* data, long size, Apply apply) {
  tavo_dmabuf_event record;
  if (!ReadDmabufRecord(data, size, &record)) return 0;
  Changes changes;
  {
    MutexLock guard(lock_);
    apply(record, &changes);
  }
  Send(changes);
  return 0;
}

int TavoDmabufAccounting::handleDmabuf_Release(char* data, long size) {
  return ApplyRecord(data, size, [this](const tavo_dmabuf_event& record, Changes* changes) REQUIRES(lock_) {
    for (auto& [pid, uses] : processDmabufRefs_) {
      auto use = uses.find(record.buf_id);
      if (use == uses.end()) continue;
      // Gone whatever its use count; an unknown buffer subtracts 0.
      uses.erase(use);
      const int64_t total = AddSize(processDmabufTotals_[pid], dmabufSizes_[record.buf_id], false);
      changes->push_back({pid, total});
    }
    dmabufSizes_.erase(record.buf_id);
  });
}

int TavoDmabufAccounting::UseHandler(char* data, long size, bool mapping) {
  return ApplyRecord(data, size, [this, mapping](const tavo_dmabuf_event& record, Changes* changes) REQUIRES(lock_) {
    NoteLatestUse(record);
    // A mapping of a buffer already in use only counts up; its key is then
    // not recorded.
    if (TakeUse(record, changes) && mapping) {
      processDmabufMappings_[record.pid].insert_or_assign(record.map_key, record.buf_id);
    }
  });
}

int TavoDmabufAccounting::DropHandler(char* data, long size) {
  return ApplyRecord(data, size, [this](const tavo_dmabuf_event& record, Changes* changes) REQUIRES(lock_) {
    DropUse(record.pid, record.buf_id, record.size, changes);
  });
}

int TavoDmabufAccounting::handleDmabuf_Attach(char* data, long size) { return UseHandler(data, size, false); }
int TavoDmabufAccounting::handleDmabuf_Detach(char* data, long size) { return DropHandler(data, size); }
int TavoDmabufAccounting::handleDmabuf_Vmap(char* data, long size) { return UseHandler(data, size, false); }
int TavoDmabufAccounting::handleDmabuf_Vunmap(char* data, long size) { return DropHandler(data, size); }
int TavoDmabufAccounting::handleDmabuf_Mmap(char* data, long size) { return UseHandler(data, size, true); }

int TavoDmabufAccounting::handleDmabuf_Munmap(char* data, long size) {
  return ApplyRecord(data, size, [this](const tavo_dmabuf_event& record, Changes* changes) REQUIRES(lock_) {
    auto process = processDmabufMappings_.find(record.pid);
    if (process == processDmabufMappings_.end()) return;
    auto mapping = process->second.find(record.map_key);
    if (mapping == process->second.end()) return;
    DropUse(record.pid, mapping->second, record.size, changes);
    // The key goes whether or not the use count reached 0.
    process->second.erase(mapping);
  });
}

void TavoDmabufAccounting::NoteProcessExit(int32_t pid, uint64_t ts) {
  MutexLock guard(lock_);
  // Bounded: when the dma-buf ring is not drained, the oldest exit is
  // applied at once rather than kept.
  if (pendingExits_.size() >= kMaxPendingExits) {
    PurgeLocked(pendingExits_.front().pid, pendingExits_.front().ts);
    pendingExits_.pop_front();
  }
  pendingExits_.push_back({pid, ts, generation_});
}

void TavoDmabufAccounting::ApplyExits() {
  MutexLock guard(lock_);
  size_t applied = 0;
  while (applied < pendingExits_.size() && pendingExits_[applied].generation < generation_) {
    PurgeLocked(pendingExits_[applied].pid, pendingExits_[applied].ts);
    ++applied;
  }
  pendingExits_.erase(pendingExits_.begin(), pendingExits_.begin() + static_cast<long>(applied));
  ++generation_;
}

void TavoDmabufAccounting::PurgeLocked(int32_t pid, uint64_t ts) {
  // A use taken after the exit can only come from a later process with the
  // same pid; its entries stay (with whatever the dead one left).
  auto last = processDmabufLastUseTs_.find(pid);
  if (last != processDmabufLastUseTs_.end() && last->second > ts) return;
  processDmabufRefs_.erase(pid);
  processDmabufTotals_.erase(pid);
  processDmabufMappings_.erase(pid);
  processDmabufLastUseTs_.erase(pid);
}

int TavoDmabufAccounting::initDmabufBpfProg(const std::string& allocatePath, const std::string& sizePath) {
  auto allocateMap = AllocateMap::OpenPinned(allocatePath);
  auto sizeMap = SizeMap::OpenPinned(sizePath);
  if (!allocateMap.ok() || !sizeMap.ok()) {
    const int err = !allocateMap.ok() ? allocateMap.error().code() : sizeMap.error().code();
    TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] get dmabufAllocateMap(%d) or dmabufSizeMap(%d) failed! %s",
              allocateMap.ok() ? allocateMap->Fd() : -1, sizeMap.ok() ? sizeMap->Fd() : -1, strerror(err));
    return -1;
  }
  struct Found {
    uint64_t inode;
    uint64_t size;
  };
  std::vector<Found> found;
  std::string target;
  reader_.ForEachProcess([&](int32_t pid, const char* name) {
    found.clear();
    int64_t total = 0;
    // An exit before this moment belongs to an earlier process of the pid.
    const auto seenAt = static_cast<uint64_t>(GetSystemBootNanosencondsTime());
    reader_.ForEachFd(name, [&](const char* fdName) {
      if (!reader_.ReadFdTarget(name, fdName, &target) || target.find(TASK_DMABUF_PREFIX) == std::string::npos) return;
      const std::string fdinfo = reader_.FdInfoPath(name, fdName);
      const long size = TavoProcReader::GetFdSize(fdinfo);
      const uint64_t inode = TavoProcReader::GetFdInode(fdinfo);
      if (inode == 0) return;
      found.push_back({inode, static_cast<uint64_t>(size)});
      tavo_dmabuf_alloc_value allocation{};
      allocation.pid = pid;
      allocation.size = static_cast<uint64_t>(size);
      if (auto updated = allocateMap->Update(inode, allocation); !updated.ok()) {
        TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] update dmabuf allocate map failed! %s",
                  strerror(updated.error().code()));
      }
      // Every descriptor counts, so a buffer open twice counts twice.
      if (__builtin_add_overflow(total, static_cast<int64_t>(size), &total)) total = size < 0 ? INT64_MIN : INT64_MAX;
    });
    if (found.empty()) return;
    {
      MutexLock guard(lock_);
      for (const Found& buffer : found) {
        // A second descriptor of a buffer does not raise the process's use.
        processDmabufRefs_[pid].try_emplace(buffer.inode, 1);
        dmabufSizes_.insert_or_assign(buffer.inode, buffer.size);
      }
      processDmabufLastUseTs_.insert_or_assign(pid, seenAt);
      if (total != 0) processDmabufTotals_.insert_or_assign(pid, total);
    }
    if (total == 0) return;
    tavo_dmabuf_size_value sizeValue{};
    sizeValue.total = static_cast<uint64_t>(total);
    if (auto updated = sizeMap->Update(pid, sizeValue); !updated.ok()) {
      TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] update process - dmabuf size map failed! %s",
                strerror(updated.error().code()));
    }
  });
  return 0;
}

int64_t TavoDmabufAccounting::ProcessTotal(int32_t pid) {
  MutexLock guard(lock_);
  auto it = processDmabufTotals_.find(pid);
  return it == processDmabufTotals_.end() ? 0 : it->second;
}

uint32_t TavoDmabufAccounting::UseCount(int32_t pid, uint64_t bufId) {
  MutexLock guard(lock_);
  auto process = processDmabufRefs_.find(pid);
  if (process == processDmabufRefs_.end()) return 0;
  auto use = process->second.find(bufId);
  return use == process->second.end() ? 0 : use->second;
}

bool TavoDmabufAccounting::Tracks(int32_t pid) {
  MutexLock guard(lock_);
  return processDmabufRefs_.count(pid) != 0 || processDmabufTotals_.count(pid) != 0 ||
         processDmabufMappings_.count(pid) != 0;
}

}  // namespace Tavo::Bpf
