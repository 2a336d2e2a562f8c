// One event-loop thread over one epoll instance.
#pragma once

#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "util/tavo_export.h"

using EpollEventCallback = std::function<int(epoll_event)>;

struct TAVO_EXPORT EpollCallback {
  EpollEventCallback readable;
  EpollEventCallback writable;
  EpollEventCallback close;
  uint32_t events = 0;  // mask registered for the descriptor
  // Set when write readiness is asked for while it is already on, so a
  // writer that just reported "nothing left" does not turn it off under a
  // producer that queued data meanwhile.
  bool writeAgain = false;
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
  // stop(), then waits for the loop thread to end (if it was started).
  void join();
  bool addMonitorFd(int fd, EpollCallback callbacks);
  bool delMonitorFd(int fd);
  bool notifyWriteEventReady(int fd);
  bool markWriteEventFinish(int fd);
  bool writeEventNow(int fd);
  void mainThread();

  const char* getName() const { return name; }
  // Waits up to timeoutMs for stop() (or destruction); true when asked to
  // stop. Lets blocking start callbacks end with the manager.
  bool waitStopRequest(int timeoutMs);
  bool isRunning() const { return running.load(); }

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
  std::string nameStorage;

  bool finishWriteUnlessRequested(int fd);
  bool modifyWriteInterest(int fd, bool on, const char* who);
  void handleEvent(const epoll_event& event);
};
