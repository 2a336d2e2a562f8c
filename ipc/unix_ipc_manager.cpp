#include "ipc/unix_ipc_manager.h"

#include <errno.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstring>

#include "ipc/ipc_frame.h"
#include "util/tavo_log.h"

namespace {

constexpr int kReconnectWaitMs = 5000;
// A full socket is met by yielding this many times before the send fails.
constexpr int kMaxSendTries = 11;

UnixIpcOptions MakeOptions(bool isServer, int bufferSize, std::string path,
                           IpcHandlerState handlers, const char* name,
                           std::optional<cpu_set_t> cpus, int epollSize, int maxEvents) {
  UnixIpcOptions options;
  options.isServer = isServer;
  options.bufferSize = bufferSize;
  options.path = std::move(path);
  options.handlers = std::move(handlers);
  if (name != nullptr) options.name = name;
  options.cpus = cpus;
  options.epollSize = epollSize;
  options.maxEvents = maxEvents;
  return options;
}

}  // namespace

UnixIpcManager::UnixIpcManager(UnixIpcOptions options) : options_(std::move(options)) {
  EpollOptions loop;
  loop.size = options_.epollSize;
  loop.maxEvents = options_.maxEvents;
  // The socket is made on the loop thread when it starts.
  loop.startCallback = [this]() -> int { return options_.isServer ? createServer() : connect(); };
  loop.name = options_.name;
  loop.cpus = options_.cpus;
  epollManager_ = std::make_unique<EpollManager>(std::move(loop));
}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, const char* name, cpu_set_t cpus,
                               int epollSize, int maxEvents)
    : UnixIpcManager(MakeOptions(isServer, bufferSize, std::move(path), std::move(handlers), name,
                                 cpus, epollSize, maxEvents)) {}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, const char* name, int epollSize,
                               int maxEvents)
    : UnixIpcManager(MakeOptions(isServer, bufferSize, std::move(path), std::move(handlers), name,
                                 std::nullopt, epollSize, maxEvents)) {}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, int epollSize, int maxEvents)
    : UnixIpcManager(MakeOptions(isServer, bufferSize, std::move(path), std::move(handlers),
                                 nullptr, std::nullopt, epollSize, maxEvents)) {}

UnixIpcManager::~UnixIpcManager() {
  // The loop thread goes first: it is the one touching buffers and sockets.
  if (epollManager_) epollManager_->join();
  epollManager_.reset();
  clearAllBuffer();
  // The listener before the connections, so a peer that sees its
  // connection end cannot reconnect to a server that is going away.
  Tavo::MutexLock guard(lock_);
  socketFd_ = -1;
  listener_.reset();
  acceptTimer_.reset();
  connections_.clear();
}

void UnixIpcManager::start() {
  TAVO_LOGI(tag(), "[UnixIpcManager][start] Start epoll Manager...");
  if (options_.isServer) {
    TAVO_LOGI(tag(), "[UnixIpcManager][start] Create server: %s", options_.path.c_str());
  } else {
    TAVO_LOGI(tag(), "[UnixIpcManager][start] Connection to server: %s", options_.path.c_str());
  }
  if (!epollManager_) {
    TAVO_LOGE(tag(), "[UnixIpcManager] epoll manager not exists!");
    return;
  }
  epollManager_->start();
}

void UnixIpcManager::stop() {
  TAVO_LOGI(tag(), "[UnixIpcManager][stop] Stop epoll Manager...");
  if (epollManager_) epollManager_->stop();
}

void UnixIpcManager::join() {
  if (epollManager_) epollManager_->join();
}

bool UnixIpcManager::notifyNeedWriteData(int fd) {
  return epollManager_ && epollManager_->notifyWriteEventReady(fd);
}

bool UnixIpcManager::writeDataNow(int fd) {
  if (!epollManager_) return false;
  // From one of the connection's own callbacks the guard is already held:
  // the manager sends what the callback leaves once it returns.
  auto connection = find(fd);
  if (connection != nullptr && connection->holderIsThisThread()) return notifyNeedWriteData(fd);
  return epollManager_->writeEventNow(fd);
}

bool UnixIpcManager::sendQueued(int fd) {
  auto connection = find(fd);
  if (connection == nullptr) return false;
  if (connection->holderIsThisThread()) return notifyNeedWriteData(fd);
  IpcConnection::Guard guard(*connection);
  BufferState* send = connection->send();
  if (!connection->isOpen() || send == nullptr) return false;
  for (;;) {
    if (send->cursor == send->length) {
      send->cursor = 0;
      send->length = 0;
      if (options_.handlers.write) options_.handlers.write(fd, send);
      if (send->length == 0) return true;
    }
    if (sendBuffer(fd, send, 0)) continue;
    // Full: the loop thread sends the rest when the socket drains. Any
    // other failure is the loop thread's to see and close on.
    const bool full = errno == EAGAIN;
    notifyNeedWriteData(fd);
    return full;
  }
}

std::shared_ptr<IpcConnection> UnixIpcManager::find(int fd) const {
  Tavo::MutexLock guard(lock_);
  auto it = connections_.find(fd);
  return it == connections_.end() ? nullptr : it->second;
}

size_t UnixIpcManager::getConnectionCount() const {
  Tavo::MutexLock guard(lock_);
  return connections_.size();
}

void UnixIpcManager::setSocketBuffers(int fd) {
  const int size = options_.bufferSize;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Set send buffer size failed: %d, message: %s, clientFd: %d",
              errno, strerror(errno), fd);
  }
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) != 0) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Set recv buffer size failed: %d, message: %s, clientFd: %d",
              errno, strerror(errno), fd);
  }
}

bool UnixIpcManager::allocate(IpcConnection& connection, bool read) {
  const int64_t capacity = options_.bufferSize > 0 ? options_.bufferSize : 0;
  if (read ? connection.allocateReceive(capacity) : connection.allocateSend(capacity)) return true;
  if (read) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Allocate read buffer for fd(%d) failed: %d, message: %s", connection.fd(), ENOMEM, strerror(ENOMEM));
  } else {
    TAVO_LOGE(tag(), "[UnixIpcManager] Allocate write buffer for fd(%d) failed: %d, message: %s", connection.fd(), ENOMEM, strerror(ENOMEM));
  }
  errno = ENOMEM;
  return false;
}

std::shared_ptr<IpcConnection> UnixIpcManager::openConnection(android::base::unique_fd fd,
                                                              bool accepted) {
  const int number = fd.get();
  if (!accepted) setSocketBuffers(number);
  auto connection = std::make_shared<IpcConnection>(std::move(fd));
  {
    IpcConnection::Guard guard(*connection);
    const IpcHandlerState& handlers = options_.handlers;
    // A connection we accepted is useless without its buffers; our own
    // client connection goes on without the one it could not get.
    if (handlers.read && !allocate(*connection, true)) {
      TAVO_LOGE(tag(), "[UnixIpcManager] Allocate read buffer for server accept connection (%d) failed: %d, message: %s", number, errno, strerror(errno));
      if (accepted) return nullptr;
    }
    if (handlers.write && !allocate(*connection, false)) {
      TAVO_LOGE(tag(), "[UnixIpcManager] Allocate write buffer for server accept connection (%d) failed: %d, message: %s", number, errno, strerror(errno));
      if (accepted) return nullptr;
    }
  }
  if (accepted) setSocketBuffers(number);
  return connection;
}

bool UnixIpcManager::registerConnection(const std::shared_ptr<IpcConnection>& connection) {
  const int fd = connection->fd();
  EpollCallback callbacks;
  {
    IpcConnection::Guard guard(*connection);
    // Without a receive buffer there is nothing to read into; watching
    // EPOLLIN would wake the loop for ever on unread data. Hang-ups still
    // arrive.
    if (connection->receive() != nullptr) {
      callbacks.readable = [this](epoll_event event) { return onClientReadableCallback(event); };
    }
  }
  callbacks.writable = [this](epoll_event event) { return onCommWriteCallback(event); };
  callbacks.close = [this](epoll_event event) { return onClientCloseCallback(event); };
  {
    Tavo::MutexLock guard(lock_);
    connections_[fd] = connection;
  }
  if (epollManager_->addMonitorFd(fd, std::move(callbacks))) return true;
  Tavo::MutexLock guard(lock_);
  connections_.erase(fd);  // and with the last reference the descriptor closes
  return false;
}

bool UnixIpcManager::createServer() {
  if (!options_.isServer) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Create server in client manager");
    return false;
  }
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
  if (!epollManager_->addMonitorFd(fd.get(), listenerCallbacks())) return false;
  bool haveTimer;
  {
    Tavo::MutexLock guard(lock_);
    haveTimer = acceptTimer_ >= 0;
  }
  android::base::unique_fd timer;
  if (!haveTimer) {
    timer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    EpollCallback callbacks;
    callbacks.readable = [this](epoll_event) { return onAcceptTimer(); };
    if (timer >= 0 && !epollManager_->addMonitorFd(timer.get(), std::move(callbacks))) timer.reset();
  }
  Tavo::MutexLock guard(lock_);
  if (timer >= 0) acceptTimer_ = std::move(timer);
  socketFd_ = fd.get();
  listener_ = std::move(fd);
  return true;
}

EpollCallback UnixIpcManager::listenerCallbacks() {
  EpollCallback callbacks;
  callbacks.readable = [this](epoll_event event) { return onServerReadableCallback(event); };
  callbacks.close = [this](epoll_event event) { return onServerCloseCallback(event); };
  return callbacks;
}

bool UnixIpcManager::connect() {
  if (options_.isServer) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Create client in server manager");
    return false;
  }
  android::base::unique_fd fd(ConnectToServer(options_.path));
  while (fd < 0) {
    const int err = errno;
    TAVO_LOGE(tag(), "[UnixIpcManager] Connect failed: %d, message: %s, clientFd: %d, Wait 5 senconds",
              err, strerror(err), fd.get());
    // Sleeps on the control descriptor, so stop() ends the wait at once.
    if (epollManager_->waitStopRequest(kReconnectWaitMs)) return false;
    fd.reset(ConnectToServer(options_.path));
  }
  auto connection = openConnection(std::move(fd), false);
  if (!registerConnection(connection)) return false;
  // Published once registered, so a user may ask for write readiness on it.
  socketFd_ = connection->fd();
  return true;
}

int UnixIpcManager::onServerReadableCallback(epoll_event event) {
  android::base::unique_fd fd(accept4(event.data.fd, nullptr, nullptr, SOCK_CLOEXEC));
  if (fd < 0) {
    const int err = errno;
    // The peer stays queued and the listener readable: retrying at once
    // would spin on a full descriptor table.
    if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
      return pauseAccepting(event.data.fd, err);
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
  auto connection = openConnection(std::move(fd), true);
  if (connection == nullptr || !registerConnection(connection)) return kIpcCallbackFailed;
  if (options_.handlers.connection) options_.handlers.connection(connection->fd());
  return kIpcCallbackOk;
}

bool UnixIpcManager::admit(int fd) {
  if (getConnectionCount() >= options_.maxConnections) {
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

int UnixIpcManager::pauseAccepting(int listener, int err) {
  // One line per pause, not one per failed accept.
  TAVO_LOGE(tag(), "[UnixIpcManager] Accept client failed: %d, message: %s", err, strerror(err));
  ++pauses_;
  int timer;
  {
    Tavo::MutexLock guard(lock_);
    timer = acceptTimer_.get();
  }
  if (timer < 0 || !epollManager_->delMonitorFd(listener)) return kIpcCallbackFailed;
  itimerspec when{};
  when.it_value.tv_sec = options_.acceptBackoffMs / 1000;
  when.it_value.tv_nsec = static_cast<long>(options_.acceptBackoffMs % 1000) * 1000000 + 1;
  if (timerfd_settime(timer, 0, &when, nullptr) != 0) {
    // Without the timer the listener would stay unwatched for good.
    epollManager_->addMonitorFd(listener, listenerCallbacks());
  }
  return kIpcCallbackFailed;
}

int UnixIpcManager::onAcceptTimer() {
  int listener;
  {
    Tavo::MutexLock guard(lock_);
    uint64_t expirations = 0;
    if (read(acceptTimer_.get(), &expirations, sizeof(expirations)) < 0) return kIpcCallbackOk;
    listener = listener_.get();
  }
  if (listener >= 0) epollManager_->addMonitorFd(listener, listenerCallbacks());
  return kIpcCallbackOk;
}

IpcAcceptStats UnixIpcManager::getAcceptStats() const {
  return IpcAcceptStats{refusedPeers_.load(), overLimit_.load(), pauses_.load()};
}

int UnixIpcManager::onServerCloseCallback(epoll_event event) {
  const int fd = event.data.fd;
  android::base::unique_fd listener;
  {
    Tavo::MutexLock guard(lock_);
    if (fd == listener_.get()) listener = std::move(listener_);
  }
  if (listener < 0) {
    auto connection = find(fd);
    if (connection == nullptr) return kIpcCallbackOk;
    return closeConnection(connection, false) ? kIpcCallbackOk : kIpcCallbackFailed;
  }
  epollManager_->delMonitorFd(fd);
  socketFd_ = -1;
  if (close(listener.release()) != 0) {
    TAVO_LOGE(tag(), "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd,
              errno, strerror(errno));
  }
  TAVO_LOGE(tag(), "[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (%s)",
            options_.path.c_str());
  if (options_.handlers.close) options_.handlers.close(fd);
  createServer();
  return kIpcCallbackOk;
}

bool UnixIpcManager::closeConnection(const std::shared_ptr<IpcConnection>& connection,
                                     bool fromRead) {
  const int fd = connection->fd();
  epollManager_->delMonitorFd(fd);
  {
    Tavo::MutexLock guard(lock_);
    auto it = connections_.find(fd);
    if (it != connections_.end() && it->second == connection) connections_.erase(it);
  }
  bool closed;
  {
    // Waits out a writeDataNow still sending on it.
    IpcConnection::Guard guard(*connection);
    closed = connection->close();
    if (!closed) {
      TAVO_LOGE(tag(), "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s",
                fd, errno, strerror(errno));
    }
    connection->freeBuffers();
  }
  // User callbacks that may take their own locks run without the guard.
  if (options_.handlers.close) options_.handlers.close(fd);
  int own = fd;
  if (!options_.isServer && socketFd_.compare_exchange_strong(own, -1)) {
    if (fromRead) {
      TAVO_LOGE(tag(), "[UnixIpcManager] Server socket abnormal close!! (%s)", options_.path.c_str());
    } else {
      TAVO_LOGE(tag(), "[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (%s)", options_.path.c_str());
    }
    connect();
  }
  return closed;
}

int UnixIpcManager::missingBuffer(int fd, bool read) {
  if (read) {
    TAVO_LOGE(tag(), "[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(%d)!", fd);
  } else {
    TAVO_LOGE(tag(), "[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!", fd);
  }
  return kIpcCallbackFailed;
}

int UnixIpcManager::onClientReadableCallback(epoll_event event) {
  const int fd = event.data.fd;
  auto connection = find(fd);
  if (connection == nullptr) return missingBuffer(fd, true);
  bool closeIt = false;
  bool wantWrite = false;
  int result;
  {
    IpcConnection::Guard guard(*connection);
    if (connection->receive() == nullptr) return missingBuffer(fd, true);
    result = receive(*connection, &closeIt, &wantWrite);
  }
  if (closeIt) {
    closeConnection(connection, true);
    return kIpcCallbackClosed;
  }
  if (wantWrite) notifyNeedWriteData(fd);
  return result;
}

// One receive into the free tail of the buffer, then the user's read
// callback. Connections that can never make progress are closed rather
// than spun on: a level-triggered EPOLLIN with no room to read into would
// run a core at 100%.
int UnixIpcManager::receive(IpcConnection& connection, bool* closeIt, bool* wantWrite) {
  const int fd = connection.fd();
  const IpcHandlerState& handlers = options_.handlers;
  BufferState* buffer = connection.receive();
  if (handlers.saveUnusedBuffer) {
    SaveUnuseBuffer(buffer);
  } else if (buffer->cursor == buffer->length) {
    // Everything was consumed: start over at the front.
    buffer->cursor = 0;
    buffer->length = 0;
  } else if (buffer->length == buffer->capacity) {
    // Full, but part of it was consumed: make room rather than give up on
    // a connection that is still making progress.
    SaveUnuseBuffer(buffer);
  }
  const int64_t room = buffer->capacity - buffer->length;
  if (room <= 0) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Receive buffer full, close fd(%d), length: %lld", fd,
              static_cast<long long>(buffer->length));
    *closeIt = true;
    return kIpcCallbackClosed;
  }
  const ssize_t count =
      recvfrom(fd, buffer->data + buffer->length, static_cast<size_t>(room), 0, nullptr, nullptr);
  if (count == 0) return kIpcCallbackPeerClosed;
  if (count < 0) {
    const int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) return kIpcCallbackOk;
    TAVO_LOGE(tag(), "[UnixIpcManager] Recv data failed: %d, message: %s", err, strerror(err));
    *closeIt = handlers.closeOnError;
    return kIpcCallbackFailed;
  }
  buffer->length += count;
  BufferState* send = connection.send();
  if (handlers.read(fd, buffer, send) == kIpcCallbackFailed) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Callback ipc read handler failed: %d, message: %s", errno,
              strerror(errno));
    if (handlers.closeOnError) {
      *closeIt = true;
      return kIpcCallbackClosed;
    }
  }
  IpcFrame frame;
  if (PeekIpcFrame(buffer, &frame) == IpcFrameStatus::kNeverFits) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Frame larger than buffer, close fd(%d), size: %lld", fd,
              static_cast<long long>(frame.bodyLength));
    *closeIt = true;
    return kIpcCallbackClosed;
  }
  *wantWrite = send != nullptr && send->cursor != send->length;
  return kIpcCallbackOk;
}

int UnixIpcManager::onCommWriteCallback(epoll_event event) {
  const int fd = event.data.fd;
  auto connection = find(fd);
  if (connection == nullptr) return missingBuffer(fd, false);
  IpcConnection::Guard guard(*connection);
  if (connection->send() == nullptr) return missingBuffer(fd, false);
  return flush(*connection, event);
}

// What was left unsent first, then what the user's write callback adds.
int UnixIpcManager::flush(IpcConnection& connection, const epoll_event& event) {
  const int fd = connection.fd();
  // Closed while this thread waited for the guard: the number may already
  // belong to someone else.
  if (!connection.isOpen()) return kIpcCallbackFailed;
  BufferState* send = connection.send();
  if (send->cursor != send->length) {
    if (!ensureDataSend(fd, send)) return sendFailed(event, fd);
  } else {
    send->cursor = 0;
    send->length = 0;
  }
  if (options_.handlers.write && options_.handlers.write(fd, send) == kIpcCallbackFailed) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Callback ipc write handler failed: %d, message: %s", errno,
              strerror(errno));
    return kIpcCallbackFailed;
  }
  if (send->cursor == send->length) return kIpcCallbackPeerClosed;
  if (!ensureDataSend(fd, send)) return sendFailed(event, fd);
  return kIpcCallbackOk;
}

int UnixIpcManager::sendFailed(const epoll_event& event, int fd) {
  const int err = errno;
  TAVO_LOGE(tag(), "[UnixIpcManager] Send ipc data failed: %d, message: %s", err, strerror(err));
  if (err != EAGAIN && err != EWOULDBLOCK) return kIpcCallbackFailed;
  // The socket is only full: the unsent bytes stay in the buffer and go out
  // when the socket drains, so write readiness must stay on.
  if (event.events & EPOLLOUT) return kIpcCallbackOk;
  notifyNeedWriteData(fd);
  errno = err;
  return kIpcCallbackFailed;
}

int UnixIpcManager::onClientCloseCallback(epoll_event event) {
  auto connection = find(event.data.fd);
  if (connection == nullptr) return kIpcCallbackOk;
  return closeConnection(connection, false) ? kIpcCallbackOk : kIpcCallbackFailed;
}

bool UnixIpcManager::allocateReadBufferForFd(int fd) {
  auto connection = find(fd);
  if (connection == nullptr) return false;
  IpcConnection::Guard guard(*connection);
  return allocate(*connection, true);
}

bool UnixIpcManager::allocateWriteBufferForFd(int fd) {
  auto connection = find(fd);
  if (connection == nullptr) return false;
  IpcConnection::Guard guard(*connection);
  return allocate(*connection, false);
}

bool UnixIpcManager::freeBufferForFd(int fd) {
  auto connection = find(fd);
  if (connection != nullptr) {
    IpcConnection::Guard guard(*connection);
    connection->freeBuffers();
  }
  return true;
}

bool UnixIpcManager::clearAllBuffer() {
  std::map<int, std::shared_ptr<IpcConnection>> connections;
  {
    Tavo::MutexLock guard(lock_);
    connections = connections_;
  }
  for (auto& entry : connections) {
    IpcConnection::Guard guard(*entry.second);
    entry.second->freeBuffers();
  }
  return true;
}

bool UnixIpcManager::ensureDataSend(int fd, BufferState* buffer) {
  return sendBuffer(fd, buffer, kMaxSendTries);
}

bool UnixIpcManager::sendBuffer(int fd, BufferState* buffer, int fullTries) {
  int tries = 0;
  while (buffer->cursor < buffer->length) {
    const ssize_t left = static_cast<ssize_t>(buffer->length - buffer->cursor);
    if (tries >= fullTries && fullTries > 0) {
      TAVO_LOGE(tag(),
                "[UnixIpcManager] Send data 10 times failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
                left, EAGAIN, strerror(EAGAIN), fd);
      errno = EAGAIN;
      return false;
    }
    // MSG_NOSIGNAL: a vanished peer must not kill a host that has not
    // ignored SIGPIPE yet. Without tries the call must not wait whatever
    // mode the socket is in.
    const int flags = MSG_NOSIGNAL | (fullTries == 0 ? MSG_DONTWAIT : 0);
    const ssize_t sent = sendto(fd, buffer->data + buffer->cursor, static_cast<size_t>(left), flags, nullptr, 0);
    if (sent >= 0) {
      buffer->cursor += sent;
      continue;
    }
    const int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK) {
      if (fullTries == 0) {
        errno = EAGAIN;
        return false;
      }
      ++tries;
      TAVO_LOGW(tag(), "[UnixIpcManager] Socket buffer full! tryCount: %d, message: %s", tries,
                strerror(err));
      sched_yield();
      continue;
    }
    if (err == EINTR) continue;
    TAVO_LOGE(tag(),
              "[UnixIpcManager] Send data failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
              left, err, strerror(err), fd);
    errno = err;
    return false;
  }
  buffer->cursor = 0;
  buffer->length = 0;
  return true;
}
