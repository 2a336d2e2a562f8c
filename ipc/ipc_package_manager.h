// One connection's queue of outgoing packages: producers on any thread
// append, the connection's write callback drains into its send buffer.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <memory>

#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_frame.h"
#include "ipc/ipc_log_limiter.h"
#include "ipc/ipc_package.h"
#include "ipc/ipc_queue_budget.h"
#include "util/tavo_export.h"
#include "util/tavo_mutex.h"

class TAVO_EXPORT IpcPackageManager {
 public:
  // Most memory one queue's packages may take, counted as the allocator and
  // the queue really spend it (IpcQueueBudget::EntryCost); past it new
  // packages are refused, so a peer that stops reading cannot exhaust the
  // process's memory.
  static constexpr uint64_t kMaxQueuedBytes = 4u << 20;

  IpcPackageManager();
  // Every package queued here is also charged to `budget`, which the queues
  // of all clients share.
  explicit IpcPackageManager(std::shared_ptr<IpcQueueBudget> budget);
  ~IpcPackageManager();
  IpcPackageManager(const IpcPackageManager&) = delete;
  IpcPackageManager& operator=(const IpcPackageManager&) = delete;

  // Command package: code (0..3), data length, data. False for a code above
  // 3, a failed allocation or a full queue.
  bool buildAndAppendSecondIpcPackage(uint32_t command, const char* data, uint64_t length);
  // A ready payload whose command header the caller supplies.
  bool buildAndAppendIpcPackage(const char* payload, uint64_t length);
  bool appendReqIpcPackage(TavoReqIpcPackage* request);
  bool appendRespIpcPackage(TavoRespIpcPackage* response);

  // At most one package, strict fit test; true if one was written.
  bool fillNextIpcPackageToBuffer(BufferState* buffer);
  // As many as fit, non-strict fit test; true if the queue was not empty.
  bool fillIpcPackageToBuffer(BufferState* buffer);

  void waitEventReady(int milliseconds);
  void notifyEventReady();
  // A hint, read without the lock.
  size_t getIpcPackageCount() const;
  // Packages refused because the queue (or the shared budget) was full.
  uint64_t getDroppedCount() const;
  // What the queued packages cost, as counted against kMaxQueuedBytes.
  uint64_t getQueuedBytes() const;

 private:
  bool appendCommand(uint32_t command, std::initializer_list<IpcBytes> parts);
  bool append(std::unique_ptr<char[]> block, uint64_t length);
  // Counts a refused package; logs it at most every 10 s (per queue, or per
  // budget when the budget refused it). Always false.
  bool refuse(bool byBudget = false);
  bool writeHead(BufferState* buffer, bool strict) REQUIRES(lock_);

  const std::shared_ptr<IpcQueueBudget> budget_;
  mutable Tavo::Mutex lock_;
  std::condition_variable_any wakeUp_;
  std::deque<TavoIpcPackage> queue_ GUARDED_BY(lock_);
  uint64_t queuedBytes_ GUARDED_BY(lock_) = 0;
  uint64_t droppedCount_ GUARDED_BY(lock_) = 0;
  int waiters_ GUARDED_BY(lock_) = 0;
  std::atomic<size_t> count_{0};
  IpcLogLimiter dropWarnings_;
};
