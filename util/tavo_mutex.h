// A mutex that clang's thread-safety analysis understands.
//
// libstdc++'s std::mutex carries no capability annotation, so GUARDED_BY and
// REQUIRES on it would check nothing. These two thin wrappers carry libbase's
// annotations; condition variables wait on them through
// std::condition_variable_any.
#pragma once

#include <android-base/thread_annotations.h>

#include <mutex>

namespace Tavo {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  std::mutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace Tavo
