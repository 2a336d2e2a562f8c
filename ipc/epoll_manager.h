// One event-loop thread over one epoll instance.
#pragma once

#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "util/tavo_export.h"

using EpollEventCallback = std::function<int(epoll_event)>;

struct TAVO_EXPORT EpollCallback {
  EpollEventCallback readable;
  EpollEventCallback writable;
  EpollEventCallback close;
  uint32_t events = 0;  // mask registered for the descriptor
};

class TAVO_EXPORT EpollManager {
 public:
  EpollManager(int size, int maxEvents, std::function<int()> startCallback, const char* name,
               cpu_set_t cpus, int timeoutMs);
  EpollManager(int size, int maxEvents, std::function<int()> startCallback, const char* name,
               int timeoutMs);
  EpollManager(int size, int maxEvents, std::function<int()> startCallback, int timeoutMs);
  ~EpollManager();
  EpollManager(const EpollManager&) = delete;
  EpollManager& operator=(const EpollManager&) = delete;

  void start();
  void stop();
  bool addMonitorFd(int fd, EpollCallback callbacks);
  bool delMonitorFd(int fd);
  bool notifyWriteEventReady(int fd);
  bool markWriteEventFinish(int fd);
  bool writeEventNow(int fd);
  void mainThread();

  const char* getName() const { return name; }

 private:
  const char* name;
  int eventCount = 0;
  int controlFd = -1;
  std::atomic<bool> running{false};
  std::mutex lock;
  std::thread loopThread;
  int epollFd = -1;
  int maxEvents;
  int timeoutMs;
  epoll_event* events = nullptr;
  std::map<int, EpollCallback> callbacks;
  std::function<int()> startCallback;
  cpu_set_t cpus;
};
