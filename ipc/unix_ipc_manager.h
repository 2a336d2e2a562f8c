// A message endpoint on a local stream socket, server or client mode, run by
// one epoll loop thread.
//
// Threads and locks: every callback runs on the loop thread. Other threads
// may call notifyNeedWriteData (takes the epoll manager's lock) and
// writeDataNow (takes the connection's lock). Locks are taken in the order
// connection, then the connection map, the listener's or the epoll
// manager's; those three are never held while calling out. The user's read
// and write callbacks run holding their connection's lock, the connection
// and close callbacks without it. Rule for callbacks: they never flush their
// own connection; bytes they leave in the send buffer are sent by the
// manager right after them (writeDataNow on the own connection from inside a
// callback only asks for write readiness). A user must not call writeDataNow
// while holding a lock its own read or write callback takes.
//
// The work is done by internal parts: IpcAcceptor (listener and admission),
// IpcConnectionIo (receive, flush, close), IpcConnector (client mode) and
// IpcConnectionTable (the connections and their buffers).
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <memory>
#include <string>

#include "ipc/epoll_manager.h"
#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_handler_state.h"
#include "ipc/ipc_socket_functions.h"
#include "ipc/unix_ipc_options.h"
#include "util/tavo_export.h"

class IpcAcceptor;
class IpcConnectionIo;
class IpcConnectionTable;
class IpcConnector;

class TAVO_EXPORT UnixIpcManager {
 public:
  explicit UnixIpcManager(UnixIpcOptions options);
  UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                 const char* name, cpu_set_t cpus, int epollSize, int maxEvents);
  UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                 const char* name, int epollSize, int maxEvents);
  UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                 int epollSize, int maxEvents);
  UnixIpcManager(const UnixIpcManager&) = delete;
  UnixIpcManager& operator=(const UnixIpcManager&) = delete;

  // Run on the loop thread when it starts (and again after a lost server or
  // connection); connect() retries every 5 s until the server is there or
  // the manager stops. A subclass that overrides them calls join() in its
  // own destructor, so the loop never calls into a half-destroyed object.
  virtual bool createServer();
  virtual bool connect();
  virtual void start();
  virtual void stop();
  virtual ~UnixIpcManager();
  // stop(), then waits for the loop thread to end. Call it holding no lock
  // that a socket callback may take.
  void join();

  bool notifyNeedWriteData(int fd);
  bool writeDataNow(int fd);
  // On the calling thread, without waiting: what is left in fd's send
  // buffer, then what its write handler adds, as far as the socket takes
  // it; a full socket hands the rest to the loop thread (write readiness).
  // Not from the connection's own callbacks. False when fd is no open
  // connection or the send failed.
  bool sendQueued(int fd);

  int onServerReadableCallback(epoll_event event);
  int onServerCloseCallback(epoll_event event);
  int onClientReadableCallback(epoll_event event);
  int onCommWriteCallback(epoll_event event);
  int onClientCloseCallback(epoll_event event);

  // Buffers of an open connection: a fresh one, or none (false for a
  // descriptor that is no connection of this manager).
  bool allocateReadBufferForFd(int fd);
  bool allocateWriteBufferForFd(int fd);
  bool freeBufferForFd(int fd);
  bool clearAllBuffer();
  // Sends [cursor, length); meets a full socket by yielding up to 11 times.
  bool ensureDataSend(int fd, BufferState* buffer);

  int getSocketFd() const { return socketFd_; }
  const std::string& getPath() const { return options_.path; }
  size_t getConnectionCount() const;
  IpcAcceptStats getAcceptStats() const;

 private:
  const char* tag() const { return options_.name.c_str(); }

  const UnixIpcOptions options_;
  std::atomic<int> socketFd_{-1};
  std::unique_ptr<EpollManager> epollManager_;
  // Destroyed from the last: the listener closes before the connections, so
  // a peer that sees its connection end cannot reconnect to a server that is
  // going away.
  std::unique_ptr<IpcConnectionTable> connections_;
  std::unique_ptr<IpcConnectionIo> io_;
  std::unique_ptr<IpcConnector> connector_;
  std::unique_ptr<IpcAcceptor> acceptor_;
};
