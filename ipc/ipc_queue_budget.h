// A cap on the memory that all send queues sharing it hold together, so many
// slow clients cannot add up to more than one bound. Give the same budget
// to every client's IpcPackageManager.
#pragma once

#include <atomic>
#include <cstdint>

#include "ipc/ipc_log_limiter.h"
#include "util/tavo_export.h"

class TAVO_EXPORT IpcQueueBudget {
 public:
  static constexpr uint64_t kDefaultMaxBytes = 64u << 20;

  explicit IpcQueueBudget(uint64_t maxBytes = kDefaultMaxBytes);
  IpcQueueBudget(const IpcQueueBudget&) = delete;
  IpcQueueBudget& operator=(const IpcQueueBudget&) = delete;

  // Memory one queued package of `length` bytes really takes: its heap
  // block as the allocator rounds it (an 8-byte chunk header, 16-byte
  // granules, 32 bytes at least, whole pages for blocks it maps) plus the
  // queue's entry for it. Small events cost about twice their length.
  static uint64_t EntryCost(uint64_t length);

  // Takes `bytes` from the budget; false (and counted) when that would pass
  // the cap.
  bool tryCharge(uint64_t bytes);
  void release(uint64_t bytes);
  // True at most once per 10 s: the caller logs the refusal then.
  bool admitWarning() { return warnings_.admit(); }

  uint64_t maxBytes() const { return maxBytes_; }
  uint64_t usedBytes() const { return used_.load(std::memory_order_relaxed); }
  uint64_t refusedCount() const { return refused_.load(std::memory_order_relaxed); }

 private:
  const uint64_t maxBytes_;
  std::atomic<uint64_t> used_{0};
  std::atomic<uint64_t> refused_{0};
  IpcLogLimiter warnings_;
};
