#include "ipc/epoll_manager.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>

#include "util/tavo_log.h"

namespace {

constexpr const char* kDefaultName = "BpfUtils";

// The calling thread's affinity; an empty set when it cannot be read.
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

EpollOptions MakeOptions(int size, int maxEvents, std::function<int()> startCallback,
                         const char* name, std::optional<cpu_set_t> cpus, int timeoutMs) {
  EpollOptions options;
  options.size = size;
  options.maxEvents = maxEvents;
  options.startCallback = std::move(startCallback);
  options.name = name != nullptr ? name : kDefaultName;
  options.cpus = cpus;
  options.timeoutMs = timeoutMs;
  return options;
}

}  // namespace

EpollManager::EpollManager(EpollOptions options)
    : name_(std::move(options.name)),
      timeoutMs_(options.timeoutMs),
      startCallback_(std::move(options.startCallback)),
      cpus_(options.cpus ? *options.cpus : CurrentAffinity(name_.c_str())) {
  const char* tag = name_.c_str();
  if (CPU_COUNT(&cpus_) == 0) {
    TAVO_LOGE(tag, "[EpollManager] cpu affinity invalid!");
    CPU_SET(0, &cpus_);
  }
  epollFd_.reset(epoll_create(options.size));
  if (epollFd_ < 0) {
    TAVO_LOGE(tag, "[EpollManager] Create epoll failed: %d, message: %s", errno, strerror(errno));
  }
  if (options.maxEvents > 0) {
    events_.resize(static_cast<size_t>(options.maxEvents));
  } else {
    TAVO_LOGE(tag, "[EpollManager] Allocate event queue failed: %d, message: %s", EINVAL,
              strerror(EINVAL));
  }
  controlFd_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (controlFd_ < 0) {
    TAVO_LOGE(tag, "[EpollManager] Allocate control fd failed: %d, message: %s", errno,
              strerror(errno));
  }
  epoll_event control{};
  control.events = EPOLLIN;
  control.data.fd = controlFd_.get();
  if (epoll_ctl(epollFd_.get(), EPOLL_CTL_ADD, controlFd_.get(), &control) != 0) {
    TAVO_LOGE(tag, "[EpollManager] Setup control fd failed: %d, message: %s", errno,
              strerror(errno));
  }
}

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> startCallback,
                           const char* name, cpu_set_t cpus, int timeoutMs)
    : EpollManager(MakeOptions(size, maxEvents, std::move(startCallback), name, cpus, timeoutMs)) {}

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> startCallback,
                           const char* name, int timeoutMs)
    : EpollManager(
          MakeOptions(size, maxEvents, std::move(startCallback), name, std::nullopt, timeoutMs)) {}

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> startCallback,
                           int timeoutMs)
    : EpollManager(MakeOptions(size, maxEvents, std::move(startCallback), nullptr, std::nullopt,
                               timeoutMs)) {}

EpollManager::~EpollManager() { join(); }

void EpollManager::start() {
  TAVO_LOGI(name_.c_str(), "[EpollManager] main thread starting...");
  Tavo::MutexLock guard(lock_);
  if (loopThread_.joinable()) return;  // one loop thread per manager
  running_ = true;
  loopThread_ = std::thread(&EpollManager::mainThread, this);
}

void EpollManager::stop() {
  Tavo::MutexLock guard(lock_);
  running_ = false;
  if (controlFd_ >= 0) eventfd_write(controlFd_.get(), 1);
}

void EpollManager::join() {
  stop();
  std::thread loop;
  {
    Tavo::MutexLock guard(lock_);
    if (loopThread_.joinable() && loopThread_.get_id() != std::this_thread::get_id()) {
      loop = std::move(loopThread_);
    }
  }
  // Joined without the lock: the loop's callbacks take it.
  if (loop.joinable()) loop.join();
}

bool EpollManager::waitStopRequest(int timeoutMs) {
  if (controlFd_ < 0) {
    poll(nullptr, 0, timeoutMs);
    return !running_;
  }
  // The control counter is left as it is: the loop reads it to end.
  pollfd control{controlFd_.get(), POLLIN, 0};
  return poll(&control, 1, timeoutMs) > 0;
}

bool EpollManager::addMonitorFd(int fd, EpollCallback record) {
  uint32_t mask = 0;
  if (record.readable) mask |= EPOLLIN;
  if (record.close) mask |= EPOLLRDHUP | EPOLLHUP;
  Tavo::MutexLock guard(lock_);
  epoll_event event{};
  event.events = mask;
  event.data.fd = fd;
  if (epoll_ctl(epollFd_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    TAVO_LOGE(name_.c_str(), "[EpollManager] Epoll add monitor fd failed: %d, message: %s", errno,
              strerror(errno));
    return false;
  }
  record.events = mask;
  record.writeAgain = false;
  callbacks_[fd] = std::move(record);
  return true;
}

bool EpollManager::delMonitorFd(int fd) {
  Tavo::MutexLock guard(lock_);
  if (epoll_ctl(epollFd_.get(), EPOLL_CTL_DEL, fd, nullptr) != 0) {
    TAVO_LOGE(name_.c_str(), "[EpollManager] Epoll del fd from epoll failed: %d, message: %s",
              errno, strerror(errno));
    return false;
  }
  callbacks_.erase(fd);
  return true;
}

bool EpollManager::modifyWriteInterest(int fd, bool on) {
  const char* tag = name_.c_str();
  auto it = callbacks_.find(fd);
  if (it == callbacks_.end()) {
    if (on) {
      TAVO_LOGE(tag, "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
    } else {
      TAVO_LOGE(tag, "[EpollManager][markWriteEventFinish] the socket fd does not exist");
    }
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
  if (epoll_ctl(epollFd_.get(), EPOLL_CTL_MOD, fd, &event) != 0) {
    if (on) {
      TAVO_LOGE(tag, "[EpollManager][notifyWriteEventReady] Epoll mod monitor failed, fd: %d, message: %s", fd, strerror(errno));
    } else {
      TAVO_LOGE(tag, "[EpollManager][markWriteEventFinish] Epoll mod monitor failed, fd: %d, message: %s", fd, strerror(errno));
    }
    return false;
  }
  record.events = mask;
  record.writeAgain = false;
  return true;
}

bool EpollManager::notifyWriteEventReady(int fd) {
  Tavo::MutexLock guard(lock_);
  return modifyWriteInterest(fd, true);
}

bool EpollManager::markWriteEventFinish(int fd) {
  Tavo::MutexLock guard(lock_);
  return modifyWriteInterest(fd, false);
}

// The writer said it is done; keep write readiness on if someone asked for
// it again while the writer ran.
bool EpollManager::finishWriteUnlessRequested(int fd) {
  Tavo::MutexLock guard(lock_);
  auto it = callbacks_.find(fd);
  if (it != callbacks_.end() && it->second.writeAgain && (it->second.events & EPOLLOUT)) {
    it->second.writeAgain = false;
    return true;
  }
  return modifyWriteInterest(fd, false);
}

bool EpollManager::writeEventNow(int fd) {
  EpollEventCallback writable;
  {
    Tavo::MutexLock guard(lock_);
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end()) {
      TAVO_LOGE(name_.c_str(), "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
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
    if (result == kIpcCallbackFailed) return false;
    if (result == kIpcCallbackPeerClosed) return true;
  }
}

void EpollManager::handleEvent(const epoll_event& event) {
  const int fd = event.data.fd;
  const uint32_t mask = event.events;
  EpollEventCallback readable;
  EpollEventCallback writable;
  EpollEventCallback closed;
  {
    // Copied out: the callbacks themselves take this lock (notify, mark,
    // delete), and other threads may change the map meanwhile.
    Tavo::MutexLock guard(lock_);
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end()) return;  // unregistered in an earlier callback
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
    if (result == kIpcCallbackPeerClosed || result == kIpcCallbackClosed ||
        result == kIpcCallbackFailed || result == kIpcCallbackSkipWrite) {
      return;
    }
  }
  if (writable) {
    const int result = writable(event);
    if ((result == kIpcCallbackFailed || result == kIpcCallbackPeerClosed) &&
        !finishWriteUnlessRequested(fd)) {
      TAVO_LOGE(name_.c_str(), "[EpollManager][mainThread] mark write event finish failed!");
    }
  }
}

void EpollManager::mainThread() {
  const char* tag = name_.c_str();
  signal(SIGPIPE, SIG_IGN);
  signal(SIGQUIT, SIG_IGN);
  prctl(PR_SET_NAME, tag, 0, 0, 0);
  if (sched_setaffinity(gettid(), sizeof(cpus_), &cpus_) != 0) {
    TAVO_LOGE(tag, "[EpollManager][mainThread] init epoll manager thread affinity failed! %s",
              strerror(errno));
  }
  if (startCallback_) startCallback_();
  while (running_) {
    const int count = epoll_wait(epollFd_.get(), events_.data(), static_cast<int>(events_.size()),
                                 timeoutMs_);
    if (count < 1) {
      // A broken epoll set or event array would fail at once for ever;
      // leave rather than spin.
      if (count < 0 && errno != EINTR) {
        TAVO_LOGE(tag, "[EpollManager][mainThread] epoll wait failed: %d, message: %s", errno,
                  strerror(errno));
        return;
      }
      continue;
    }
    for (int i = 0; i < count; ++i) {
      if (events_[i].data.fd == controlFd_.get()) {
        eventfd_t value = 0;
        eventfd_read(controlFd_.get(), &value);
        return;
      }
      handleEvent(events_[i]);
    }
  }
}
