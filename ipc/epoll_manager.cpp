#include "ipc/epoll_manager.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "util/tavo_log.h"

namespace {

constexpr const char* kDefaultName = "BpfUtils";

// The calling thread's affinity; an empty set when it cannot be read (the
// full constructor turns that into CPU 0).
cpu_set_t CurrentAffinity(const char* tag) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(gettid(), sizeof(set), &set) != 0) {
    TAVO_LOGE(tag, "[EpollManager] init cpu affinity failed! so use default affinity. %s",
              strerror(errno));
    CPU_ZERO(&set);
  }
  return set;
}

}  // namespace

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> startCallback,
                           const char* name, cpu_set_t cpus, int timeoutMs)
    : name(kDefaultName),
      maxEvents(maxEvents),
      timeoutMs(timeoutMs),
      startCallback(std::move(startCallback)),
      cpus(cpus),
      nameStorage(name != nullptr ? name : kDefaultName) {
  // Owned copy: callers may pass a temporary.
  this->name = nameStorage.c_str();
  if (CPU_COUNT(&this->cpus) == 0) {
    TAVO_LOGE(this->name, "[EpollManager] cpu affinity invalid!");
    CPU_SET(0, &this->cpus);
  }
  epollFd = epoll_create(size);
  if (epollFd < 0) {
    TAVO_LOGE(this->name, "[EpollManager] Create epoll failed: %d, message: %s", errno,
              strerror(errno));
  }
  if (maxEvents > 0) {
    events = static_cast<epoll_event*>(malloc(sizeof(epoll_event) * static_cast<size_t>(maxEvents)));
  }
  if (events == nullptr) {
    if (errno == 0 || maxEvents <= 0) errno = EINVAL;
    TAVO_LOGE(this->name, "[EpollManager] Allocate event queue failed: %d, message: %s", errno,
              strerror(errno));
  }
  controlFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (controlFd < 0) {
    TAVO_LOGE(this->name, "[EpollManager] Allocate control fd failed: %d, message: %s", errno,
              strerror(errno));
  }
  epoll_event control{};
  control.events = EPOLLIN;
  control.data.fd = controlFd;
  if (epoll_ctl(epollFd, EPOLL_CTL_ADD, controlFd, &control) != 0) {
    TAVO_LOGE(this->name, "[EpollManager] Setup control fd failed: %d, message: %s", errno,
              strerror(errno));
  }
}

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> startCallback,
                           const char* name, int timeoutMs)
    : EpollManager(size, maxEvents, std::move(startCallback), name,
                   CurrentAffinity(name != nullptr ? name : kDefaultName), timeoutMs) {}

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> startCallback,
                           int timeoutMs)
    : EpollManager(size, maxEvents, std::move(startCallback), kDefaultName,
                   CurrentAffinity(kDefaultName), timeoutMs) {}

EpollManager::~EpollManager() {
  join();
  free(events);
  events = nullptr;
  if (epollFd >= 0) close(epollFd);
  if (controlFd >= 0) close(controlFd);
  epollFd = -1;
  controlFd = -1;
  callbacks.clear();
  startCallback = nullptr;
}

void EpollManager::start() {
  TAVO_LOGI(name, "[EpollManager] main thread starting...");
  std::lock_guard<std::mutex> guard(lock);
  if (loopThread.joinable()) return;  // one loop thread per manager
  running = true;
  loopThread = std::thread(&EpollManager::mainThread, this);
}

void EpollManager::stop() {
  std::lock_guard<std::mutex> guard(lock);
  running = false;
  if (controlFd >= 0) eventfd_write(controlFd, 1);
}

void EpollManager::join() {
  stop();
  // A manager that never started has no thread to join.
  if (loopThread.joinable() && loopThread.get_id() != std::this_thread::get_id()) loopThread.join();
}

bool EpollManager::waitStopRequest(int timeoutMs) {
  if (controlFd < 0) {
    poll(nullptr, 0, timeoutMs);
    return !running;
  }
  pollfd control{controlFd, POLLIN, 0};
  // The control counter is left as it is: the loop reads it to end.
  const int ready = poll(&control, 1, timeoutMs);
  return ready > 0;
}

bool EpollManager::addMonitorFd(int fd, EpollCallback record) {
  uint32_t mask = 0;
  if (record.readable) mask |= EPOLLIN;
  if (record.close) mask |= EPOLLRDHUP | EPOLLHUP;
  std::lock_guard<std::mutex> guard(lock);
  epoll_event event{};
  event.events = mask;
  event.data.fd = fd;
  if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
    TAVO_LOGE(name, "[EpollManager] Epoll add monitor fd failed: %d, message: %s", errno,
              strerror(errno));
    return false;
  }
  record.events = mask;
  record.writeAgain = false;
  callbacks[fd] = std::move(record);
  return true;
}

bool EpollManager::delMonitorFd(int fd) {
  std::lock_guard<std::mutex> guard(lock);
  if (epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr) != 0) {
    TAVO_LOGE(name, "[EpollManager] Epoll del fd from epoll failed: %d, message: %s", errno,
              strerror(errno));
    return false;
  }
  callbacks.erase(fd);
  return true;
}

// Caller holds the mutex.
bool EpollManager::modifyWriteInterest(int fd, bool on, const char* who) {
  auto it = callbacks.find(fd);
  if (it == callbacks.end()) {
    TAVO_LOGE(name, "[EpollManager][%s] the socket fd does not exist", who);
    return false;
  }
  EpollCallback& record = it->second;
  if (on) {
    if (record.events & EPOLLOUT) {
      record.writeAgain = true;
      return true;
    }
    if (!record.writable) return false;
  }
  const uint32_t mask = on ? (record.events | EPOLLOUT) : (record.events & ~EPOLLOUT);
  epoll_event event{};
  event.events = mask;
  event.data.fd = fd;
  if (epoll_ctl(epollFd, EPOLL_CTL_MOD, fd, &event) != 0) {
    TAVO_LOGE(name, "[EpollManager][%s] Epoll mod monitor failed, fd: %d, message: %s", who, fd,
              strerror(errno));
    return false;
  }
  record.events = mask;
  record.writeAgain = false;
  return true;
}

bool EpollManager::notifyWriteEventReady(int fd) {
  std::lock_guard<std::mutex> guard(lock);
  return modifyWriteInterest(fd, true, "notifyWriteEventReady");
}

bool EpollManager::markWriteEventFinish(int fd) {
  std::lock_guard<std::mutex> guard(lock);
  return modifyWriteInterest(fd, false, "markWriteEventFinish");
}

// The writer said it is done; keep write readiness on if someone asked for
// it again while the writer ran.
bool EpollManager::finishWriteUnlessRequested(int fd) {
  std::lock_guard<std::mutex> guard(lock);
  auto it = callbacks.find(fd);
  if (it != callbacks.end() && it->second.writeAgain && (it->second.events & EPOLLOUT)) {
    it->second.writeAgain = false;
    return true;
  }
  return modifyWriteInterest(fd, false, "markWriteEventFinish");
}

bool EpollManager::writeEventNow(int fd) {
  EpollEventCallback writable;
  {
    std::lock_guard<std::mutex> guard(lock);
    auto it = callbacks.find(fd);
    if (it == callbacks.end()) {
      TAVO_LOGE(name, "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
      return false;
    }
    writable = it->second.writable;
  }
  if (!writable) return false;
  epoll_event event{};
  event.events = 0;
  event.data.fd = fd;
  for (;;) {
    const int result = writable(event);
    if (result == -1) return false;
    if (result == -3) return true;
  }
}

void EpollManager::handleEvent(const epoll_event& event) {
  const int fd = event.data.fd;
  const uint32_t mask = event.events;
  EpollEventCallback readable;
  EpollEventCallback writable;
  EpollEventCallback closed;
  {
    // Copied out: the callbacks themselves take this mutex (notify, mark,
    // delete), and other threads may change the map meanwhile.
    std::lock_guard<std::mutex> guard(lock);
    auto it = callbacks.find(fd);
    if (it == callbacks.end()) return;  // unregistered in an earlier callback
    if (mask & (EPOLLHUP | EPOLLRDHUP)) closed = it->second.close;
    if (mask & EPOLLIN) readable = it->second.readable;
    if (mask & EPOLLOUT) {
      writable = it->second.writable;
      it->second.writeAgain = false;
    }
  }
  if (closed) {
    closed(event);
    return;
  }
  if (readable) {
    const int result = readable(event);
    if (result == -3 || result == -2 || result == -1 || result == 1) return;
  }
  if (writable) {
    const int result = writable(event);
    if (result == -1 || result == -3) {
      if (!finishWriteUnlessRequested(fd)) {
        TAVO_LOGE(name, "[EpollManager][mainThread] mark write event finish failed!");
      }
    }
  }
}

void EpollManager::mainThread() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGQUIT, SIG_IGN);
  prctl(PR_SET_NAME, name, 0, 0, 0);
  if (sched_setaffinity(gettid(), sizeof(cpus), &cpus) != 0) {
    TAVO_LOGE(name, "[EpollManager][mainThread] init epoll manager thread affinity failed! %s",
              strerror(errno));
  }
  if (startCallback) startCallback();
  while (running) {
    const int count = epoll_wait(epollFd, events, maxEvents, timeoutMs);
    eventCount = count;
    if (count < 1) {
      // A broken epoll set or event array would fail at once for ever;
      // leave rather than spin.
      if (count < 0 && errno != EINTR) {
        TAVO_LOGE(name, "[EpollManager][mainThread] epoll wait failed: %d, message: %s", errno,
                  strerror(errno));
        return;
      }
      continue;
    }
    for (int i = 0; i < count; ++i) {
      if (events[i].data.fd == controlFd) {
        eventfd_t value = 0;
        eventfd_read(controlFd, &value);
        return;
      }
      handleEvent(events[i]);
    }
  }
}
