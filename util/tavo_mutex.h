// A mutex that clang's thread-safety analysis understands.
//
// libstdc++'s std::mutex carries no capability annotation, so GUARDED_BY and
// REQUIRES on it would check nothing. These two thin wrappers carry libbase's
// annotations; condition variables wait on them through
// std::condition_variable_any.
#pragma once

// The header's own helper for std::mutex has an unused parameter (GCC) and
// annotates a type that is no capability (clang); -Werror would stop on both.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-parameter"
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-attributes"
#endif
#include <android-base/thread_annotations.h>
#pragma GCC diagnostic pop

#include <mutex>

// Only clang reads these annotations. GCC would parse the arguments of
// attributes it does not know as plain names and reject `c.lock_`, so there
// they expand to nothing.
#if !defined(__clang__)
#undef THREAD_ANNOTATION_ATTRIBUTE__
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
#endif

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
