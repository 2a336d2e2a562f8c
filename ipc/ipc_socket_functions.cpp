// Local-socket helpers shared by the socket manager and its users.
#include <cutils/sockets.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "ipc/unix_ipc_manager.h"
#include "util/tavo_log.h"

namespace {
constexpr const char* kTag = "BpfUtils";

bool SetCloseOnExec(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  return flags >= 0 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0;
}

bool EpollCtl(int epollFd, int op, int fd, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epollFd, op, fd, &event) == 0;
}
}  // namespace

int CreateNonblockingServerSocket(const std::string& path) {
  const int fd = socket_local_server(path.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
  if (fd < 0) {
    TAVO_LOGW(kTag, "Create socket: %s failed: %d, message: %s", path.c_str(), errno,
              strerror(errno));
    return -1;
  }
  if (!SetCloseOnExec(fd) || !Setnonblocking(fd)) {
    const int err = errno;
    close(fd);
    TAVO_LOGE(kTag, "Setnonblocking (%s) failed: %d, message: %s", path.c_str(), err,
              strerror(err));
    errno = err;
    return -1;
  }
  return fd;
}

int ConnectToServer(const std::string& path) {
  const int fd = socket_local_client(path.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
  if (fd < 0) {
    TAVO_LOGE(kTag, "Failed to create socket: %d, message: %s", errno, strerror(errno));
    return -1;
  }
  if (!SetCloseOnExec(fd) || !Setnonblocking(fd)) {
    const int err = errno;
    close(fd);
    TAVO_LOGE(kTag, "Setnonblocking %s path failed: %d, message: %s", path.c_str(), err,
              strerror(err));
    errno = err;
    return -1;
  }
  return fd;
}

bool Setnonblocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return false;
  return fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool EpollCtlAdd(int epollFd, int fd, uint32_t events) {
  return EpollCtl(epollFd, EPOLL_CTL_ADD, fd, events);
}

bool EpollCtlMod(int epollFd, int fd, uint32_t events) {
  return EpollCtl(epollFd, EPOLL_CTL_MOD, fd, events);
}
