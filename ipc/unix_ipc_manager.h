// A message endpoint on a local stream socket, server or client mode, run by
// one epoll loop thread.
//
// Threads and locks: every callback runs on the loop thread. Other threads
// may call notifyNeedWriteData (takes the epoll manager's lock) and
// writeDataNow (takes the connection's lock). Locks are taken in the order
// connection, then connection map or epoll manager; the map and epoll locks
// are never held while calling out. The user's read and write callbacks run
// holding their connection's lock, the connection and close callbacks
// without it. Rule for callbacks: they never flush their own connection;
// bytes they leave in the send buffer are sent by the manager right after
// them (writeDataNow on the own connection from inside a callback only asks
// for write readiness). A user must not call writeDataNow while holding a
// lock its own read or write callback takes.
#pragma once

#include <android-base/unique_fd.h>
#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ipc/epoll_manager.h"
#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_connection.h"
#include "ipc/ipc_handler_state.h"
#include "ipc/ipc_log_limiter.h"
#include "ipc/ipc_peer_policy.h"
#include "ipc/ipc_socket_functions.h"
#include "util/tavo_export.h"
#include "util/tavo_mutex.h"

struct UnixIpcOptions {
  bool isServer = true;
  // Capacity of each connection buffer, and its SO_SNDBUF and SO_RCVBUF.
  int bufferSize = 32768;
  std::string path;  // abstract socket name
  IpcHandlerState handlers;
  // The loop thread's name and the log tag.
  std::string name = "BpfUtils";
  std::optional<cpu_set_t> cpus;  // unset: the constructing thread's
  int epollSize = 10;
  int maxEvents = 32;
  // Server mode. Connections kept at once; a peer past the limit is
  // accepted and closed at once.
  size_t maxConnections = 1024;
  // Who may connect, checked at accept (everyone by default).
  IpcPeerPolicy peerPolicy;
  // When accept finds the process (or system) out of descriptors, the
  // listener is left unwatched this long instead of being retried at once.
  int acceptBackoffMs = 100;
};

// What the accept path refused, since the manager was made.
struct IpcAcceptStats {
  uint64_t refusedPeers = 0;   // not allowed by the peer policy
  uint64_t overLimit = 0;      // past maxConnections
  uint64_t pauses = 0;         // accept back-offs for want of descriptors
};

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
  std::shared_ptr<IpcConnection> find(int fd) const;
  bool allocate(IpcConnection& connection, bool read) REQUIRES(connection.lock());
  // A connection with the buffers its handlers need, set up for the socket;
  // nullptr (logged) when an accepted one cannot get its buffers.
  std::shared_ptr<IpcConnection> openConnection(android::base::unique_fd fd, bool accepted);
  bool registerConnection(const std::shared_ptr<IpcConnection>& connection);
  EpollCallback listenerCallbacks();
  // Whether an accepted peer may stay: the connection limit, then the peer
  // policy. A refusal is counted and logged (rate-limited).
  bool admit(int fd);
  // Out of descriptors: the listener is unwatched and a timer brings it back.
  int pauseAccepting(int listener, int err);
  int onAcceptTimer();
  void setSocketBuffers(int fd);
  int receive(IpcConnection& connection, bool* closeIt, bool* wantWrite)
      REQUIRES(connection.lock());
  int flush(IpcConnection& connection, const epoll_event& event) REQUIRES(connection.lock());
  int sendFailed(const epoll_event& event, int fd);
  // Sends [cursor, length); a full socket is met by yielding up to
  // fullTries times, or at once (errno EAGAIN) when fullTries is 0.
  bool sendBuffer(int fd, BufferState* buffer, int fullTries);
  // Logs "Not allocate read/write buffer"; -1.
  int missingBuffer(int fd, bool read);
  // Unregisters, closes and frees the connection, tells the user, and in
  // client mode connects again. False when closing failed.
  bool closeConnection(const std::shared_ptr<IpcConnection>& connection, bool fromRead);

  const UnixIpcOptions options_;
  std::unique_ptr<EpollManager> epollManager_;
  std::atomic<int> socketFd_{-1};
  mutable Tavo::Mutex lock_;
  android::base::unique_fd listener_ GUARDED_BY(lock_);
  // Made with the first listener, before descriptors can run out.
  android::base::unique_fd acceptTimer_ GUARDED_BY(lock_);
  std::atomic<uint64_t> refusedPeers_{0};
  std::atomic<uint64_t> overLimit_{0};
  std::atomic<uint64_t> pauses_{0};
  IpcLogLimiter refusalWarnings_;
  IpcLogLimiter limitWarnings_;
  std::map<int, std::shared_ptr<IpcConnection>> connections_ GUARDED_BY(lock_);
};
