#include "ipc/ipc_connection_io.h"

#include <errno.h>
#include <sched.h>
#include <sys/socket.h>

#include <cstring>

#include "ipc/ipc_frame.h"
#include "util/tavo_log.h"

namespace {

// A full socket is met by yielding this many times before the send fails.
constexpr int kMaxSendTries = 11;

}  // namespace

IpcConnectionIo::IpcConnectionIo(const UnixIpcOptions& options, EpollManager& loop,
                                 IpcConnectionTable& connections, ClosedHook closed)
    : options_(options), loop_(loop), connections_(connections), closed_(std::move(closed)) {}

void IpcConnectionIo::setSocketBuffers(int fd) {
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

std::shared_ptr<IpcConnection> IpcConnectionIo::open(android::base::unique_fd fd, bool accepted) {
  const int number = fd.get();
  if (!accepted) setSocketBuffers(number);
  auto connection = std::make_shared<IpcConnection>(std::move(fd));
  {
    IpcConnection::Guard guard(*connection);
    const IpcHandlerState& handlers = options_.handlers;
    // A connection we accepted is useless without its buffers; our own
    // client connection goes on without the one it could not get.
    if (handlers.read && !connections_.allocate(*connection, true)) {
      TAVO_LOGE(tag(), "[UnixIpcManager] Allocate read buffer for server accept connection (%d) failed: %d, message: %s", number, errno, strerror(errno));
      if (accepted) return nullptr;
    }
    if (handlers.write && !connections_.allocate(*connection, false)) {
      TAVO_LOGE(tag(), "[UnixIpcManager] Allocate write buffer for server accept connection (%d) failed: %d, message: %s", number, errno, strerror(errno));
      if (accepted) return nullptr;
    }
  }
  if (accepted) setSocketBuffers(number);
  return connection;
}

bool IpcConnectionIo::watch(const std::shared_ptr<IpcConnection>& connection) {
  EpollCallback callbacks;
  {
    IpcConnection::Guard guard(*connection);
    // Without a receive buffer there is nothing to read into; watching
    // EPOLLIN would wake the loop for ever on unread data. Hang-ups still
    // arrive.
    if (connection->receive() != nullptr) {
      callbacks.readable = [this](epoll_event event) { return onReadable(event); };
    }
  }
  callbacks.writable = [this](epoll_event event) { return onWritable(event); };
  callbacks.close = [this](epoll_event event) { return onHangUp(event); };
  connections_.insert(connection);
  if (loop_.addMonitorFd(connection->fd(), std::move(callbacks))) return true;
  connections_.erase(connection);  // and with the last reference the descriptor closes
  return false;
}

bool IpcConnectionIo::close(const std::shared_ptr<IpcConnection>& connection, bool fromRead) {
  const int fd = connection->fd();
  loop_.delMonitorFd(fd);
  connections_.erase(connection);
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
  closed_(fd, fromRead);
  return closed;
}

int IpcConnectionIo::onHangUp(epoll_event event) {
  auto connection = connections_.find(event.data.fd);
  if (connection == nullptr) return kIpcCallbackOk;
  return close(connection, false) ? kIpcCallbackOk : kIpcCallbackFailed;
}

int IpcConnectionIo::missingBuffer(int fd, bool read) {
  TAVO_LOGE(tag(), read ? "[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(%d)!"
                        : "[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!",
            fd);
  return kIpcCallbackFailed;
}

int IpcConnectionIo::onReadable(epoll_event event) {
  const int fd = event.data.fd;
  auto connection = connections_.find(fd);
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
    close(connection, true);
    return kIpcCallbackClosed;
  }
  if (wantWrite) loop_.notifyWriteEventReady(fd);
  return result;
}

// One receive into the free tail of the buffer, then the user's read
// callback. Connections that can never make progress are closed rather
// than spun on: a level-triggered EPOLLIN with no room to read into would
// run a core at 100%.
int IpcConnectionIo::receive(IpcConnection& connection, bool* closeIt, bool* wantWrite) {
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

int IpcConnectionIo::onWritable(epoll_event event) {
  const int fd = event.data.fd;
  auto connection = connections_.find(fd);
  if (connection == nullptr) return missingBuffer(fd, false);
  IpcConnection::Guard guard(*connection);
  if (connection->send() == nullptr) return missingBuffer(fd, false);
  return flush(*connection, event);
}

// What was left unsent first, then what the user's write callback adds.
int IpcConnectionIo::flush(IpcConnection& connection, const epoll_event& event) {
  const int fd = connection.fd();
  // Closed while this thread waited for the guard: the number may already
  // belong to someone else.
  if (!connection.isOpen()) return kIpcCallbackFailed;
  BufferState* send = connection.send();
  bool quiet = false;
  if (send->cursor != send->length) {
    if (!sendBuffer(fd, &connection, send, kMaxSendTries, &quiet)) return sendFailed(event, fd, quiet);
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
  if (!sendBuffer(fd, &connection, send, kMaxSendTries, &quiet)) return sendFailed(event, fd, quiet);
  return kIpcCallbackOk;
}

int IpcConnectionIo::sendFailed(const epoll_event& event, int fd, bool quiet) {
  const int err = errno;
  if (!quiet) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Send ipc data failed: %d, message: %s", err, strerror(err));
  }
  if (err != EAGAIN && err != EWOULDBLOCK) return kIpcCallbackFailed;
  // The socket is only full: the unsent bytes stay in the buffer and go out
  // when the socket drains, so write readiness must stay on.
  if (event.events & EPOLLOUT) return kIpcCallbackOk;
  loop_.notifyWriteEventReady(fd);
  errno = err;
  return kIpcCallbackFailed;
}

bool IpcConnectionIo::writeNow(int fd) {
  // From one of the connection's own callbacks the guard is already held:
  // the manager sends what the callback leaves once it returns.
  auto connection = connections_.find(fd);
  if (connection != nullptr && connection->holderIsThisThread()) return loop_.notifyWriteEventReady(fd);
  return loop_.writeEventNow(fd);
}

bool IpcConnectionIo::sendQueued(int fd) {
  auto connection = connections_.find(fd);
  if (connection == nullptr) return false;
  if (connection->holderIsThisThread()) return loop_.notifyWriteEventReady(fd);
  IpcConnection::Guard guard(*connection);
  BufferState* send = connection->send();
  if (!connection->isOpen() || send == nullptr) return false;
  bool quiet = false;
  for (;;) {
    if (send->cursor == send->length) {
      send->cursor = 0;
      send->length = 0;
      if (options_.handlers.write) options_.handlers.write(fd, send);
      if (send->length == 0) return true;
    }
    if (sendBuffer(fd, connection.get(), send, 0, &quiet)) continue;
    // Full: the loop thread sends the rest when the socket drains. Any
    // other failure is the loop thread's to see and close on.
    const bool full = errno == EAGAIN;
    loop_.notifyWriteEventReady(fd);
    return full;
  }
}

bool IpcConnectionIo::send(int fd, BufferState* buffer) {
  bool quiet = false;
  return sendBuffer(fd, connections_.find(fd).get(), buffer, kMaxSendTries, &quiet);
}

// A connection that stops reading would log a burst of full-socket lines on
// every wake-up: one burst per interval is logged, and the next one logged
// says how many were held back meanwhile.
bool IpcConnectionIo::admitFullBurst(IpcConnection* connection, int fd) {
  uint64_t skipped = 0;
  if (connection != nullptr && !connection->admitFullBurst(&skipped)) return false;
  if (skipped > 0) {
    TAVO_LOGW(tag(), "[UnixIpcManager] fd(%d): %llu more full-socket bursts not logged", fd,
              static_cast<unsigned long long>(skipped));
  }
  return true;
}

bool IpcConnectionIo::sendBuffer(int fd, IpcConnection* connection, BufferState* buffer,
                                 int fullTries, bool* quiet) {
  int tries = 0;
  bool loud = true;
  *quiet = false;
  while (buffer->cursor < buffer->length) {
    const ssize_t left = static_cast<ssize_t>(buffer->length - buffer->cursor);
    if (tries >= fullTries && fullTries > 0) {
      *quiet = !loud;
      if (loud) {
        TAVO_LOGE(tag(),
                  "[UnixIpcManager] Send data 10 times failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
                  left, EAGAIN, strerror(EAGAIN), fd);
      }
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
      // The burst is let through or held back as a whole.
      if (tries++ == 0) loud = admitFullBurst(connection, fd);
      if (loud) {
        TAVO_LOGW(tag(), "[UnixIpcManager] Socket buffer full! tryCount: %d, message: %s", tries,
                  strerror(err));
      }
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
