// Client mode: connecting to the server, and noticing when the own
// connection is lost so that the manager connects again.
#pragma once

#include <atomic>

#include "ipc/epoll_manager.h"
#include "ipc/ipc_connection_io.h"

class IpcConnector {
 public:
  // The connection is published in `ownFd` once it is watched, so a user
  // may ask for write readiness on it.
  IpcConnector(const UnixIpcOptions& options, EpollManager& loop, IpcConnectionIo& io,
               std::atomic<int>& ownFd);

  // Retries every 5 s until the server is there; false when the loop is
  // asked to stop meanwhile (the wait ends at once) or watching fails.
  bool connect();
  // True (logged) when fd was the own connection; the caller connects again.
  bool lost(int fd, bool fromRead);

 private:
  const UnixIpcOptions& options_;
  EpollManager& loop_;
  IpcConnectionIo& io_;
  std::atomic<int>& ownFd_;
};
