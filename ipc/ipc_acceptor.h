// The server side's accepting and admission: the listening socket, the
// timer that puts it back after an accept found no descriptors left, the
// connection limit and the peer policy. Its lock guards the listener and
// the timer and is never held while calling out.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/epoll.h>

#include <atomic>

#include "ipc/epoll_manager.h"
#include "ipc/ipc_connection_io.h"
#include "ipc/ipc_log_limiter.h"
#include "util/tavo_mutex.h"

class IpcAcceptor {
 public:
  // The listener is watched with `callbacks` and published in `ownFd`.
  IpcAcceptor(const UnixIpcOptions& options, EpollManager& loop, IpcConnectionTable& connections,
              IpcConnectionIo& io, std::atomic<int>& ownFd, EpollCallback callbacks);

  // Makes and watches the listener; one made before (a restart) is kept.
  bool listen() EXCLUDES(lock_);
  // Accepts one peer; an admitted one becomes a connection.
  int accept(int listener) EXCLUDES(lock_);
  // When fd is the listener: unwatches and closes it and tells the user.
  bool closeListener(int fd) EXCLUDES(lock_);
  IpcAcceptStats stats() const;

 private:
  const char* tag() const { return options_.name.c_str(); }
  // The connection limit, then the peer policy; a refusal is counted and
  // logged (rate-limited).
  bool admit(int fd);
  // Out of descriptors: the listener is unwatched and the timer brings it back.
  int pause(int listener, int err) EXCLUDES(lock_);
  int onTimer() EXCLUDES(lock_);

  const UnixIpcOptions& options_;
  EpollManager& loop_;
  IpcConnectionTable& connections_;
  IpcConnectionIo& io_;
  std::atomic<int>& ownFd_;
  const EpollCallback callbacks_;
  Tavo::Mutex lock_;
  android::base::unique_fd listener_ GUARDED_BY(lock_);
  // Made with the first listener, before descriptors can run out.
  android::base::unique_fd timer_ GUARDED_BY(lock_);
  std::atomic<uint64_t> refusedPeers_{0};
  std::atomic<uint64_t> overLimit_{0};
  std::atomic<uint64_t> pauses_{0};
  IpcLogLimiter refusalWarnings_;
  IpcLogLimiter limitWarnings_;
};
