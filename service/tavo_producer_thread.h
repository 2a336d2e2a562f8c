// One producer thread of the service ("BpfServicePoll" or "BpfServicePGpl"),
// which Wait() relaunches when it has ended.
#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "util/tavo_mutex.h"

namespace Tavo::Bpf {

class TavoProducerThread {
 public:
  using Clock = std::chrono::steady_clock;

  explicit TavoProducerThread(std::string name);
  ~TavoProducerThread();

  // Starts body unless a thread is running, so there is never a second
  // thread for one ring. A thread that has ended is joined and relaunched,
  // but not before its back-off has passed: one period after the first
  // end, doubling with each further relaunch up to 16 periods, and back to
  // one period after a run of ten periods. True when a thread was started.
  bool Launch(const std::function<void()>& body, std::chrono::milliseconds period) EXCLUDES(lock_);
  // Waits for a started thread to end.
  void Join() EXCLUDES(lock_);

 private:
  const std::string name_;
  Mutex lock_;
  std::thread thread_ GUARDED_BY(lock_);
  std::shared_ptr<std::atomic<bool>> done_ GUARDED_BY(lock_);
  int relaunches_ GUARDED_BY(lock_) = 0;
  Clock::time_point startedAt_ GUARDED_BY(lock_);
  Clock::time_point notBefore_ GUARDED_BY(lock_);
};

}  // namespace Tavo::Bpf
