#include "ipc/ipc_connector.h"

#include <errno.h>

#include <cstring>

#include "ipc/ipc_socket_functions.h"
#include "util/tavo_log.h"

namespace {

constexpr int kReconnectWaitMs = 5000;

}  // namespace

IpcConnector::IpcConnector(const UnixIpcOptions& options, EpollManager& loop, IpcConnectionIo& io,
                           std::atomic<int>& ownFd)
    : options_(options), loop_(loop), io_(io), ownFd_(ownFd) {}

bool IpcConnector::connect() {
  android::base::unique_fd fd(ConnectToServer(options_.path));
  while (fd < 0) {
    const int err = errno;
    TAVO_LOGE(options_.name.c_str(), "[UnixIpcManager] Connect failed: %d, message: %s, clientFd: %d, Wait 5 senconds",
              err, strerror(err), fd.get());
    // Sleeps on the control descriptor, so stop() ends the wait at once.
    if (loop_.waitStopRequest(kReconnectWaitMs)) return false;
    fd.reset(ConnectToServer(options_.path));
  }
  auto connection = io_.open(std::move(fd), false);
  if (!io_.watch(connection)) return false;
  ownFd_ = connection->fd();
  return true;
}

bool IpcConnector::lost(int fd, bool fromRead) {
  int own = fd;
  if (options_.isServer || !ownFd_.compare_exchange_strong(own, -1)) return false;
  TAVO_LOGE(options_.name.c_str(),
            fromRead ? "[UnixIpcManager] Server socket abnormal close!! (%s)"
                     : "[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (%s)",
            options_.path.c_str());
  return true;
}
