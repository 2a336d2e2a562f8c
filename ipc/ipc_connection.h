// One connected socket of the socket manager: it owns the descriptor, the
// receive and send buffers and the lock that guards them.
//
// The manager holds the lock (through Guard) while it receives, sends and
// runs the user's read and write callbacks, and while it closes the
// descriptor; so a thread that flushes with writeDataNow never races the
// loop on a buffer, and never sends on a descriptor number that was closed
// and handed to someone else. The lock is not recursive: see
// holderIsThisThread().
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_log_limiter.h"
#include "util/tavo_mutex.h"

class IpcConnection {
 public:
  explicit IpcConnection(android::base::unique_fd socket);
  IpcConnection(const IpcConnection&) = delete;
  IpcConnection& operator=(const IpcConnection&) = delete;

  class SCOPED_CAPABILITY Guard {
   public:
    explicit Guard(IpcConnection& connection) ACQUIRE(connection.lock_);
    ~Guard() RELEASE();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    IpcConnection& connection_;
  };

  // Names the guard's lock in callers' annotations: REQUIRES(c.lock()).
  const Tavo::Mutex& lock() const RETURN_CAPABILITY(lock_) { return lock_; }

  // The descriptor's number; it stays readable after close() for logs.
  int fd() const { return fd_; }
  bool isOpen() const REQUIRES(lock_) { return socket_.get() >= 0; }
  // True on the thread that holds the guard: that thread must not wait for
  // the guard again.
  bool holderIsThisThread() const { return holder_.load() == std::this_thread::get_id(); }

  // nullptr when the connection has no such buffer.
  BufferState* receive() REQUIRES(lock_) { return receive_.state.data ? &receive_.state : nullptr; }
  BufferState* send() REQUIRES(lock_) { return send_.state.data ? &send_.state : nullptr; }
  // A fresh empty buffer of `capacity` bytes; false when it cannot be had.
  bool allocateReceive(int64_t capacity) REQUIRES(lock_) { return receive_.allocate(capacity); }
  bool allocateSend(int64_t capacity) REQUIRES(lock_) { return send_.allocate(capacity); }
  void freeBuffers() REQUIRES(lock_);
  // Closes the descriptor; false with errno when close() failed.
  bool close() REQUIRES(lock_);
  // Whether a send that met a full socket may log it: one such burst per
  // interval; the others are counted, and *skipped gets how many were since
  // the last one logged. Needs no guard.
  bool admitFullBurst(uint64_t* skipped);

 private:
  struct Buffer {
    bool allocate(int64_t capacity);
    std::unique_ptr<char[]> block;
    BufferState state;
  };

  const int fd_;
  Tavo::Mutex lock_;
  std::atomic<std::thread::id> holder_;
  android::base::unique_fd socket_ GUARDED_BY(lock_);
  Buffer receive_ GUARDED_BY(lock_);
  Buffer send_ GUARDED_BY(lock_);
  IpcLogLimiter fullBursts_;
  std::atomic<uint64_t> skippedBursts_{0};
};
