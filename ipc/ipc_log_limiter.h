// Lets one log line through per interval, so a peer that repeats a fault
// cannot flood the log. Safe to share between threads.
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>

class IpcLogLimiter {
 public:
  explicit IpcLogLimiter(int64_t intervalSec = 10) : intervalSec_(intervalSec) {}

  // True when a line may be logged now; the first call always may.
  bool admit() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    int64_t last = last_.load(std::memory_order_relaxed);
    if (last != kNever && now.tv_sec - last < intervalSec_) return false;
    return last_.compare_exchange_strong(last, now.tv_sec, std::memory_order_relaxed);
  }

 private:
  static constexpr int64_t kNever = INT64_MIN;
  const int64_t intervalSec_;
  std::atomic<int64_t> last_{kNever};
};
