#include "ipc/unix_ipc_manager.h"

#include <errno.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "util/tavo_log.h"

namespace {

constexpr const char* kDefaultName = "BpfUtils";
constexpr int kReconnectWaitMs = 5000;
// A full socket is met by yielding this many times before the send fails.
constexpr int kMaxSendTries = 11;

// Write locks held by this thread, innermost first. The loop thread takes a
// connection's write lock around its callbacks; a callback (or writeDataNow
// calling the write callback) may ask for the same lock again.
struct HeldWriteLock {
  std::mutex* lock;
  HeldWriteLock* outer;
};
thread_local HeldWriteLock* tlsHeldWriteLocks = nullptr;

class WriteGuard {
 public:
  explicit WriteGuard(std::mutex* lock) : held{lock, tlsHeldWriteLocks} {
    for (HeldWriteLock* it = tlsHeldWriteLocks; it != nullptr; it = it->outer) {
      if (it->lock == lock) return;
    }
    lock->lock();
    owns = true;
    tlsHeldWriteLocks = &held;
  }
  ~WriteGuard() {
    if (!owns) return;
    tlsHeldWriteLocks = held.outer;
    held.lock->unlock();
  }
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;

 private:
  HeldWriteLock held;
  bool owns = false;
};

// True when the frame at the cursor announces more than the whole buffer
// could ever hold: it would never become complete.
bool FrameCanNeverFit(const BufferState* buffer) {
  if (buffer->length - buffer->cursor < kIpcFrameHeaderSize) return false;
  int64_t frameLength = 0;
  memcpy(&frameLength, buffer->data + buffer->cursor, sizeof(frameLength));
  return frameLength < 0 || frameLength > buffer->capacity - kIpcFrameHeaderSize;
}

}  // namespace

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, const char* name, cpu_set_t cpus,
                               int epollSize, int maxEvents)
    : path(std::move(path)),
      isServer(isServer),
      handlers(std::move(handlers)),
      bufferSize(bufferSize),
      name(kDefaultName),
      nameStorage(name != nullptr ? name : kDefaultName) {
  init(true, true, cpus, epollSize, maxEvents);
}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, const char* name, int epollSize,
                               int maxEvents)
    : path(std::move(path)),
      isServer(isServer),
      handlers(std::move(handlers)),
      bufferSize(bufferSize),
      name(kDefaultName),
      nameStorage(name != nullptr ? name : kDefaultName) {
  cpu_set_t none;
  CPU_ZERO(&none);
  init(false, true, none, epollSize, maxEvents);
}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, int epollSize, int maxEvents)
    : path(std::move(path)),
      isServer(isServer),
      handlers(std::move(handlers)),
      bufferSize(bufferSize),
      name(kDefaultName),
      nameStorage(kDefaultName) {
  cpu_set_t none;
  CPU_ZERO(&none);
  init(false, false, none, epollSize, maxEvents);
}

void UnixIpcManager::init(bool withCpus, bool withName, cpu_set_t cpus, int epollSize,
                          int maxEvents) {
  name = nameStorage.c_str();
  // The socket is made on the loop thread when it starts.
  auto startCallback = [this]() -> int { return this->isServer ? createServer() : connect(); };
  if (withCpus) {
    epollManager =
        std::make_unique<EpollManager>(epollSize, maxEvents, startCallback, name, cpus, -1);
  } else if (withName) {
    epollManager = std::make_unique<EpollManager>(epollSize, maxEvents, startCallback, name, -1);
  } else {
    epollManager = std::make_unique<EpollManager>(epollSize, maxEvents, startCallback, -1);
  }
}

UnixIpcManager::~UnixIpcManager() {
  // The loop thread goes first: it is the one touching buffers and sockets,
  // and it may still use the manager while it ends.
  if (epollManager) epollManager->join();
  epollManager.reset();
  if (!clearAllBuffer()) {
    TAVO_LOGE(name, "[UnixIpcManager][~UnixIpcManager] Clear all buffer failed: %d, message: %s",
              errno, strerror(errno));
  }
  // The listener first, so a peer that sees its connection end cannot
  // reconnect to a server that is going away.
  const int own = socketFd.exchange(-1);
  if (own >= 0) close(own);
  for (int fd : connections) {
    if (fd != own) close(fd);
  }
  connections.clear();
}

void UnixIpcManager::start() {
  TAVO_LOGI(name, "[UnixIpcManager][start] Start epoll Manager...");
  if (isServer) {
    TAVO_LOGI(name, "[UnixIpcManager][start] Create server: %s", path.c_str());
  } else {
    TAVO_LOGI(name, "[UnixIpcManager][start] Connection to server: %s", path.c_str());
  }
  if (!epollManager) {
    TAVO_LOGE(name, "[UnixIpcManager] epoll manager not exists!");
    return;
  }
  epollManager->start();
}

void UnixIpcManager::stop() {
  TAVO_LOGI(name, "[UnixIpcManager][stop] Stop epoll Manager...");
  if (epollManager) epollManager->stop();
}

void UnixIpcManager::join() {
  if (epollManager) epollManager->join();
}

bool UnixIpcManager::notifyNeedWriteData(int fd) {
  return epollManager && epollManager->notifyWriteEventReady(fd);
}

bool UnixIpcManager::writeDataNow(int fd) {
  if (!epollManager) return false;
  WriteGuard guard(writeLockFor(fd));
  return epollManager->writeEventNow(fd);
}

std::mutex* UnixIpcManager::writeLockFor(int fd) {
  // Entries live until the manager is destroyed, so the pointer stays valid
  // for a thread that is blocked on it while the connection closes.
  std::lock_guard<std::mutex> guard(writeLocksLock);
  auto& slot = writeLocks[fd];
  if (!slot) slot = std::make_unique<std::mutex>();
  return slot.get();
}

BufferState* UnixIpcManager::findBuffer(std::map<int, BufferState>& buffers, int fd) {
  std::lock_guard<std::mutex> guard(bufferLock);
  auto it = buffers.find(fd);
  return it == buffers.end() ? nullptr : &it->second;
}

EpollCallback UnixIpcManager::connectionCallbacks() {
  EpollCallback callbacks;
  // Without a read handler there is no receive buffer; watching EPOLLIN then
  // would wake the loop for ever on unread data. Hang-ups still arrive.
  if (handlers.read) {
    callbacks.readable = [this](epoll_event event) { return onClientReadableCallback(event); };
  }
  callbacks.writable = [this](epoll_event event) { return onCommWriteCallback(event); };
  callbacks.close = [this](epoll_event event) { return onClientCloseCallback(event); };
  return callbacks;
}

void UnixIpcManager::setSocketBuffers(int fd) {
  const int size = bufferSize;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0) {
    TAVO_LOGE(name, "[UnixIpcManager] Set send buffer size failed: %d, message: %s, clientFd: %d",
              errno, strerror(errno), fd);
  }
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) != 0) {
    TAVO_LOGE(name, "[UnixIpcManager] Set recv buffer size failed: %d, message: %s, clientFd: %d",
              errno, strerror(errno), fd);
  }
}

bool UnixIpcManager::createServer() {
  if (!isServer) {
    TAVO_LOGE(name, "[UnixIpcManager] Create server in client manager");
    return false;
  }
  const int fd = CreateNonblockingServerSocket(path);
  if (fd < 0) {
    TAVO_LOGE(name, "[UnixIpcManager] Create server Socket failed: %d, message: %s", errno,
              strerror(errno));
    return false;
  }
  EpollCallback callbacks;
  callbacks.readable = [this](epoll_event event) { return onServerReadableCallback(event); };
  callbacks.close = [this](epoll_event event) { return onServerCloseCallback(event); };
  if (!epollManager->addMonitorFd(fd, callbacks)) {
    close(fd);
    return false;
  }
  socketFd = fd;
  return true;
}

bool UnixIpcManager::connect() {
  if (isServer) {
    TAVO_LOGE(name, "[UnixIpcManager] Create client in server manager");
    return false;
  }
  int fd = -1;
  while ((fd = ConnectToServer(path)) < 0) {
    const int err = errno;
    TAVO_LOGE(name, "[UnixIpcManager] Connect failed: %d, message: %s, clientFd: %d, Wait 5 senconds",
              err, strerror(err), fd);
    // Sleeps on the control descriptor, so stop() ends the wait at once.
    if (epollManager->waitStopRequest(kReconnectWaitMs)) return false;
  }
  setSocketBuffers(fd);
  if (handlers.read && !allocateReadBufferForFd(fd)) {
    TAVO_LOGE(name,
              "[UnixIpcManager] Allocate read buffer for server accept connection (%d) failed: %d, message: %s",
              fd, errno, strerror(errno));
  }
  if (handlers.write && !allocateWriteBufferForFd(fd)) {
    TAVO_LOGE(name,
              "[UnixIpcManager] Allocate write buffer for server accept connection (%d) failed: %d, message: %s",
              fd, errno, strerror(errno));
  }
  EpollCallback callbacks = connectionCallbacks();
  if (findBuffer(readBuffers, fd) == nullptr) callbacks.readable = nullptr;
  {
    std::lock_guard<std::mutex> guard(bufferLock);
    connections.insert(fd);
  }
  if (!epollManager->addMonitorFd(fd, callbacks)) {
    freeBufferForFd(fd);
    {
      std::lock_guard<std::mutex> guard(bufferLock);
      connections.erase(fd);
    }
    close(fd);
    return false;
  }
  // Published once registered, so a user may ask for write readiness on it.
  socketFd = fd;
  return true;
}

void UnixIpcManager::reconnect() {
  TAVO_LOGE(name, "[UnixIpcManager] Server socket abnormal close!! (%s)", path.c_str());
  connect();
}

int UnixIpcManager::onServerReadableCallback(epoll_event event) {
  const int fd = accept4(event.data.fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    TAVO_LOGE(name, "[UnixIpcManager] Accept client failed: %d, message: %s", errno,
              strerror(errno));
    return -1;
  }
  if (!Setnonblocking(fd)) {
    const int err = errno;
    close(fd);
    TAVO_LOGE(name, "[UnixIpcManager] Setnonblocking (client) failed: %d, message: %s", err,
              strerror(err));
    return -1;
  }
  if (handlers.read && !allocateReadBufferForFd(fd)) {
    const int err = errno;
    close(fd);
    TAVO_LOGE(name,
              "[UnixIpcManager] Allocate read buffer for server accept connection (%d) failed: %d, message: %s",
              fd, err, strerror(err));
    return -1;
  }
  if (handlers.write && !allocateWriteBufferForFd(fd)) {
    const int err = errno;
    close(fd);
    freeBufferForFd(fd);
    TAVO_LOGE(name,
              "[UnixIpcManager] Allocate write buffer for server accept connection (%d) failed: %d, message: %s",
              fd, err, strerror(err));
    return -1;
  }
  setSocketBuffers(fd);
  {
    std::lock_guard<std::mutex> guard(bufferLock);
    connections.insert(fd);
  }
  if (!epollManager->addMonitorFd(fd, connectionCallbacks())) {
    freeBufferForFd(fd);
    {
      std::lock_guard<std::mutex> guard(bufferLock);
      connections.erase(fd);
    }
    close(fd);
    return -1;
  }
  if (handlers.connection) handlers.connection(fd);
  return 0;
}

int UnixIpcManager::onServerCloseCallback(epoll_event event) {
  const int fd = event.data.fd;
  int result = 0;
  epollManager->delMonitorFd(fd);
  if (close(fd) != 0) {
    TAVO_LOGE(name, "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd,
              errno, strerror(errno));
    result = -1;
  }
  if (fd == socketFd) {
    socketFd = -1;
    TAVO_LOGE(name, "[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (%s)",
              path.c_str());
    if (handlers.close) handlers.close(fd);
    createServer();
    return 0;
  }
  if (handlers.close) handlers.close(fd);
  if (!freeBufferForFd(fd)) {
    TAVO_LOGE(name, "[UnixIpcManager][ServerCallback] free buffer failed: %d, message: %s", errno,
              strerror(errno));
    result = -1;
  }
  return result;
}

// The connection's end as seen from our side: unregister, close, free.
// Returns -2; the caller tells the user (close callback) and, when
// `reconnect` is set (client mode, own connection), connects again, both
// after it has let go of the write lock.
int UnixIpcManager::closeConnection(int fd, bool& reconnect, bool* failed) {
  epollManager->delMonitorFd(fd);
  {
    std::lock_guard<std::mutex> guard(bufferLock);
    connections.erase(fd);
  }
  bool ok = true;
  if (close(fd) != 0) {
    TAVO_LOGE(name, "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd,
              errno, strerror(errno));
    ok = false;
  }
  if (!freeBufferForFd(fd)) {
    TAVO_LOGE(name, "[UnixIpcManager][ServerCallback] free buffer failed: %d, message: %s", errno,
              strerror(errno));
    ok = false;
  }
  if (failed != nullptr) *failed = !ok;
  if (!isServer && fd == socketFd) {
    socketFd = -1;
    reconnect = true;
  }
  return -2;
}

int UnixIpcManager::onClientReadableCallback(epoll_event event) {
  const int fd = event.data.fd;
  bool again = false;
  int result;
  {
    WriteGuard guard(writeLockFor(fd));
    result = readLocked(fd, again);
  }
  if (result == -2 && handlers.close) handlers.close(fd);
  if (again) reconnect();
  return result;
}

int UnixIpcManager::readLocked(int fd, bool& again) {
  BufferState* receive = findBuffer(readBuffers, fd);
  if (receive == nullptr) {
    TAVO_LOGE(name, "[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(%d)!",
              fd);
    return -1;
  }
  if (handlers.saveUnusedBuffer) {
    SaveUnuseBuffer(receive);
  } else if (receive->cursor == receive->length) {
    // Everything was consumed: start over at the front.
    receive->cursor = 0;
    receive->length = 0;
  } else if (receive->length == receive->capacity) {
    // Full, but part of it was consumed: make room rather than give up on
    // a connection that is still making progress.
    SaveUnuseBuffer(receive);
  }
  const int64_t room = receive->capacity - receive->length;
  if (room <= 0) {
    // A receive of 0 bytes would look like a hang-up while the socket stays
    // readable for ever; the connection cannot make progress, so end it.
    TAVO_LOGE(name, "[UnixIpcManager] Receive buffer full, close fd(%d), length: %lld", fd,
              static_cast<long long>(receive->length));
    return closeConnection(fd, again);
  }
  const ssize_t count =
      recvfrom(fd, receive->data + receive->length, static_cast<size_t>(room), 0, nullptr, nullptr);
  if (count == 0) return -3;
  if (count < 0) {
    const int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) return 0;
    TAVO_LOGE(name, "[UnixIpcManager] Recv data failed: %d, message: %s", err, strerror(err));
    if (handlers.closeOnError) return closeConnection(fd, again);
    return -1;
  }
  receive->length += count;
  BufferState* send = findBuffer(writeBuffers, fd);
  if (handlers.read && handlers.read(fd, receive, send) == -1) {
    TAVO_LOGE(name, "[UnixIpcManager] Callback ipc read handler failed: %d, message: %s", errno,
              strerror(errno));
    if (handlers.closeOnError) return closeConnection(fd, again);
  }
  if (FrameCanNeverFit(receive)) {
    int64_t frameLength = 0;
    memcpy(&frameLength, receive->data + receive->cursor, sizeof(frameLength));
    TAVO_LOGE(name, "[UnixIpcManager] Frame larger than buffer, close fd(%d), size: %lld", fd,
              static_cast<long long>(frameLength));
    return closeConnection(fd, again);
  }
  if (send != nullptr && send->cursor != send->length) notifyNeedWriteData(fd);
  return 0;
}

int UnixIpcManager::sendFailed(const epoll_event& event, int fd) {
  const int err = errno;
  TAVO_LOGE(name, "[UnixIpcManager] Send ipc data failed: %d, message: %s", err, strerror(err));
  if (err != EAGAIN && err != EWOULDBLOCK) return -1;
  // The socket is only full: the unsent bytes stay in the buffer and go
  // out when the socket drains, so write readiness must stay on.
  if (event.events & EPOLLOUT) return 0;
  notifyNeedWriteData(fd);
  errno = err;
  return -1;
}

int UnixIpcManager::onCommWriteCallback(epoll_event event) {
  const int fd = event.data.fd;
  WriteGuard guard(writeLockFor(fd));
  BufferState* send = findBuffer(writeBuffers, fd);
  if (send == nullptr) {
    TAVO_LOGE(name, "[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!",
              fd);
    return -1;
  }
  if (send->cursor != send->length) {
    if (!ensureDataSend(fd, send)) return sendFailed(event, fd);
  } else {
    send->cursor = 0;
    send->length = 0;
  }
  if (handlers.write && handlers.write(fd, send) == -1) {
    TAVO_LOGE(name, "[UnixIpcManager] Callback ipc write handler failed: %d, message: %s", errno,
              strerror(errno));
    return -1;
  }
  if (send->cursor == send->length) return -3;
  if (!ensureDataSend(fd, send)) return sendFailed(event, fd);
  return 0;
}

int UnixIpcManager::onClientCloseCallback(epoll_event event) {
  const int fd = event.data.fd;
  int result = 0;
  bool again = false;
  {
    WriteGuard guard(writeLockFor(fd));
    bool failed = false;
    closeConnection(fd, again, &failed);
    if (failed) result = -1;
  }
  // User callbacks that may take their own locks run without the write lock.
  if (handlers.close) handlers.close(fd);
  if (again) {
    TAVO_LOGE(name, "[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (%s)",
              path.c_str());
    connect();
  }
  return result;
}

bool UnixIpcManager::allocateBuffer(std::map<int, BufferState>& buffers, int fd, bool read) {
  const int64_t capacity = bufferSize > 0 ? bufferSize : 0;
  auto* data = static_cast<char*>(malloc(static_cast<size_t>(capacity > 0 ? capacity : 1)));
  if (data == nullptr) {
    if (read) {
      TAVO_LOGE(name, "[UnixIpcManager] Allocate read buffer for fd(%d) failed: %d, message: %s", fd, errno, strerror(errno));
    } else {
      TAVO_LOGE(name, "[UnixIpcManager] Allocate write buffer for fd(%d) failed: %d, message: %s", fd, errno, strerror(errno));
    }
    return false;
  }
  std::lock_guard<std::mutex> guard(bufferLock);
  BufferState& buffer = buffers[fd];
  free(buffer.data);  // a stale entry of an earlier connection on this fd
  buffer.cursor = 0;
  buffer.length = 0;
  buffer.capacity = capacity;
  buffer.data = data;
  return true;
}

bool UnixIpcManager::allocateReadBufferForFd(int fd) {
  return allocateBuffer(readBuffers, fd, true);
}

bool UnixIpcManager::allocateWriteBufferForFd(int fd) {
  return allocateBuffer(writeBuffers, fd, false);
}

bool UnixIpcManager::freeBufferForFd(int fd) {
  // The write lock waits out a writeDataNow caller still using the buffer.
  WriteGuard writeGuard(writeLockFor(fd));
  std::lock_guard<std::mutex> guard(bufferLock);
  for (auto* buffers : {&readBuffers, &writeBuffers}) {
    auto it = buffers->find(fd);
    if (it == buffers->end()) continue;
    free(it->second.data);
    buffers->erase(it);
  }
  return true;
}

bool UnixIpcManager::clearAllBuffer() {
  std::lock_guard<std::mutex> guard(bufferLock);
  for (auto* buffers : {&readBuffers, &writeBuffers}) {
    for (auto& entry : *buffers) free(entry.second.data);
    buffers->clear();
  }
  std::lock_guard<std::mutex> locks(writeLocksLock);
  writeLocks.clear();
  return true;
}

bool UnixIpcManager::ensureDataSend(int fd, BufferState* buffer) {
  int tries = 0;
  while (buffer->cursor < buffer->length) {
    const ssize_t left = static_cast<ssize_t>(buffer->length - buffer->cursor);
    if (tries >= kMaxSendTries) {
      TAVO_LOGE(name,
                "[UnixIpcManager] Send data 10 times failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
                left, EAGAIN, strerror(EAGAIN), fd);
      errno = EAGAIN;
      return false;
    }
    // MSG_NOSIGNAL: a vanished peer must not kill a host that has not
    // ignored SIGPIPE yet.
    const ssize_t sent = sendto(fd, buffer->data + buffer->cursor, static_cast<size_t>(left),
                                MSG_NOSIGNAL, nullptr, 0);
    if (sent >= 0) {
      buffer->cursor += sent;
      continue;
    }
    const int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK) {
      ++tries;
      TAVO_LOGW(name, "[UnixIpcManager] Socket buffer full! tryCount: %d, message: %s", tries,
                strerror(err));
      sched_yield();
      continue;
    }
    if (err == EINTR) continue;
    TAVO_LOGE(name,
              "[UnixIpcManager] Send data failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
              left, err, strerror(err), fd);
    errno = err;
    return false;
  }
  buffer->cursor = 0;
  buffer->length = 0;
  return true;
}
