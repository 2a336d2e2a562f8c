// One event-loop thread over one epoll instance. Descriptors register their
// callbacks; write readiness is watched only while someone asked for it.
#pragma once

#include <android-base/unique_fd.h>
#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ipc/epoll_callback.h"
#include "util/tavo_export.h"
#include "util/tavo_mutex.h"

struct EpollOptions {
  int size = 10;       // hint for epoll_create
  int maxEvents = 32;  // events per wait
  // Run once on the loop thread before its first wait.
  std::function<int()> startCallback;
  // The thread's name and the log tag.
  std::string name = "BpfUtils";
  // CPUs the loop thread binds to; unset: the constructing thread's. An
  // empty set is logged and replaced by CPU 0.
  std::optional<cpu_set_t> cpus;
  int timeoutMs = -1;  // wait time-out, -1 for none
};

class TAVO_EXPORT EpollManager {
 public:
  explicit EpollManager(EpollOptions options);
  EpollManager(int size, int maxEvents, std::function<int()> startCallback, const char* name,
               cpu_set_t cpus, int timeoutMs);
  EpollManager(int size, int maxEvents, std::function<int()> startCallback, const char* name,
               int timeoutMs);
  EpollManager(int size, int maxEvents, std::function<int()> startCallback, int timeoutMs);
  ~EpollManager();
  EpollManager(const EpollManager&) = delete;
  EpollManager& operator=(const EpollManager&) = delete;

  void start() EXCLUDES(lock_);
  // Asks the loop to end; it does at its next wake-up.
  void stop() EXCLUDES(lock_);
  // stop(), then waits for the loop thread to end (if it was started and is
  // not the calling thread).
  void join() EXCLUDES(lock_);
  bool addMonitorFd(int fd, EpollCallback callbacks) EXCLUDES(lock_);
  bool delMonitorFd(int fd) EXCLUDES(lock_);
  bool notifyWriteEventReady(int fd) EXCLUDES(lock_);
  bool markWriteEventFinish(int fd) EXCLUDES(lock_);
  // Runs the writable callback on the calling thread until it reports
  // failure (false) or nothing more to write (true).
  bool writeEventNow(int fd) EXCLUDES(lock_);
  void mainThread() EXCLUDES(lock_);

  const char* getName() const { return name_.c_str(); }
  // Waits up to timeoutMs for stop() (or destruction); true when asked to
  // stop. Lets blocking start callbacks end with the manager.
  bool waitStopRequest(int timeoutMs);
  bool isRunning() const { return running_.load(); }

 private:
  bool finishWriteUnlessRequested(int fd) EXCLUDES(lock_);
  bool modifyWriteInterest(int fd, bool on) REQUIRES(lock_);
  void handleEvent(const epoll_event& event) EXCLUDES(lock_);

  const std::string name_;
  const int timeoutMs_;
  std::function<int()> startCallback_;
  cpu_set_t cpus_;
  android::base::unique_fd epollFd_;
  android::base::unique_fd controlFd_;
  std::vector<epoll_event> events_;  // the loop thread's
  std::atomic<bool> running_{false};
  Tavo::Mutex lock_;
  std::thread loopThread_ GUARDED_BY(lock_);
  std::map<int, EpollCallback> callbacks_ GUARDED_BY(lock_);
};
