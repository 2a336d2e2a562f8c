#include "ipc/ipc_acceptor.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstring>

#include "ipc/ipc_socket_functions.h"
#include "util/tavo_log.h"

IpcAcceptor::IpcAcceptor(const UnixIpcOptions& options, EpollManager& loop,
                         IpcConnectionTable& connections, IpcConnectionIo& io,
                         std::atomic<int>& ownFd, EpollCallback callbacks)
    : options_(options), loop_(loop), connections_(connections), io_(io), ownFd_(ownFd),
      callbacks_(std::move(callbacks)) {}

bool IpcAcceptor::listen() {
  {
    // Started again after a stop: the listener and its registration are
    // still there, and a second socket on the name would be refused.
    Tavo::MutexLock guard(lock_);
    if (listener_ >= 0) return true;
  }
  android::base::unique_fd fd(CreateNonblockingServerSocket(options_.path));
  if (fd < 0) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Create server Socket failed: %d, message: %s", errno,
              strerror(errno));
    return false;
  }
  if (!loop_.addMonitorFd(fd.get(), callbacks_)) return false;
  bool haveTimer;
  {
    Tavo::MutexLock guard(lock_);
    haveTimer = timer_ >= 0;
  }
  android::base::unique_fd timer;
  if (!haveTimer) {
    timer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    EpollCallback callbacks;
    callbacks.readable = [this](epoll_event) { return onTimer(); };
    if (timer >= 0 && !loop_.addMonitorFd(timer.get(), std::move(callbacks))) timer.reset();
  }
  Tavo::MutexLock guard(lock_);
  if (timer >= 0) timer_ = std::move(timer);
  ownFd_ = fd.get();
  listener_ = std::move(fd);
  return true;
}

int IpcAcceptor::accept(int listener) {
  android::base::unique_fd fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  if (fd < 0) {
    const int err = errno;
    // The peer stays queued and the listener readable: retrying at once
    // would spin on a full descriptor table.
    if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
      return pause(listener, err);
    }
    TAVO_LOGE(tag(), "[UnixIpcManager] Accept client failed: %d, message: %s", err, strerror(err));
    return kIpcCallbackFailed;
  }
  if (!admit(fd.get())) return kIpcCallbackOk;
  if (!Setnonblocking(fd.get())) {
    const int err = errno;
    fd.reset();
    TAVO_LOGE(tag(), "[UnixIpcManager] Setnonblocking (client) failed: %d, message: %s", err,
              strerror(err));
    return kIpcCallbackFailed;
  }
  auto connection = io_.open(std::move(fd), true);
  if (connection == nullptr || !io_.watch(connection)) return kIpcCallbackFailed;
  if (options_.handlers.connection) options_.handlers.connection(connection->fd());
  return kIpcCallbackOk;
}

bool IpcAcceptor::admit(int fd) {
  if (connections_.size() >= options_.maxConnections) {
    const uint64_t closed = ++overLimit_;
    if (limitWarnings_.admit()) {
      TAVO_LOGW(tag(), "[UnixIpcManager] Connection limit %zu reached, %llu new peers closed so far",
                options_.maxConnections, static_cast<unsigned long long>(closed));
    }
    return false;
  }
  const IpcPeerPolicy& policy = options_.peerPolicy;
  if (!policy.restricted()) return true;
  IpcPeerPolicy::Peer peer;
  peer.pid = -1;
  peer.uid = static_cast<uid_t>(-1);
  if (IpcPeerPolicy::ReadPeer(fd, &peer) && policy.allows(peer)) return true;
  const uint64_t refused = ++refusedPeers_;
  if (refusalWarnings_.admit()) {
    TAVO_LOGW(tag(), "[UnixIpcManager] Refused peer pid %d uid %d, %llu refused so far",
              static_cast<int>(peer.pid), static_cast<int>(peer.uid),
              static_cast<unsigned long long>(refused));
  }
  return false;
}

int IpcAcceptor::pause(int listener, int err) {
  // One line per pause, not one per failed accept.
  TAVO_LOGE(tag(), "[UnixIpcManager] Accept client failed: %d, message: %s", err, strerror(err));
  ++pauses_;
  int timer;
  {
    Tavo::MutexLock guard(lock_);
    timer = timer_.get();
  }
  if (timer < 0 || !loop_.delMonitorFd(listener)) return kIpcCallbackFailed;
  itimerspec when{};
  when.it_value.tv_sec = options_.acceptBackoffMs / 1000;
  when.it_value.tv_nsec = static_cast<long>(options_.acceptBackoffMs % 1000) * 1000000 + 1;
  if (timerfd_settime(timer, 0, &when, nullptr) != 0) {
    // Without the timer the listener would stay unwatched for good.
    loop_.addMonitorFd(listener, callbacks_);
  }
  return kIpcCallbackFailed;
}

int IpcAcceptor::onTimer() {
  int listener;
  {
    Tavo::MutexLock guard(lock_);
    uint64_t expirations = 0;
    if (read(timer_.get(), &expirations, sizeof(expirations)) < 0) return kIpcCallbackOk;
    listener = listener_.get();
  }
  if (listener >= 0) loop_.addMonitorFd(listener, callbacks_);
  return kIpcCallbackOk;
}

IpcAcceptStats IpcAcceptor::stats() const {
  return IpcAcceptStats{refusedPeers_.load(), overLimit_.load(), pauses_.load()};
}

bool IpcAcceptor::closeListener(int fd) {
  android::base::unique_fd listener;
  {
    Tavo::MutexLock guard(lock_);
    if (fd == listener_.get()) listener = std::move(listener_);
  }
  if (listener < 0) return false;
  loop_.delMonitorFd(fd);
  ownFd_ = -1;
  if (close(listener.release()) != 0) {
    TAVO_LOGE(tag(), "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd,
              errno, strerror(errno));
  }
  TAVO_LOGE(tag(), "[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (%s)",
            options_.path.c_str());
  if (options_.handlers.close) options_.handlers.close(fd);
  return true;
}
