#include "ipc/ipc_socket_functions.h"

#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstring>

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

// Close-on-exec and non-blocking, or -1 with the socket closed and errno kept.
int Prepare(android::base::unique_fd fd) {
  if (!SetCloseOnExec(fd.get()) || !Setnonblocking(fd.get())) {
    const int err = errno;
    fd.reset();
    errno = err;
    return -1;
  }
  return fd.release();
}

}  // namespace

int CreateNonblockingServerSocket(const std::string& path) {
  android::base::unique_fd fd(
      socket_local_server(path.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));
  if (fd < 0) {
    TAVO_LOGW(kTag, "Create socket: %s failed: %d, message: %s", path.c_str(), errno,
              strerror(errno));
    return -1;
  }
  const int ready = Prepare(std::move(fd));
  if (ready < 0) {
    TAVO_LOGE(kTag, "Setnonblocking (%s) failed: %d, message: %s", path.c_str(), errno,
              strerror(errno));
  }
  return ready;
}

int ConnectToServer(const std::string& path) {
  android::base::unique_fd fd(
      socket_local_client(path.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));
  if (fd < 0) {
    TAVO_LOGE(kTag, "Failed to create socket: %d, message: %s", errno, strerror(errno));
    return -1;
  }
  const int ready = Prepare(std::move(fd));
  if (ready < 0) {
    TAVO_LOGE(kTag, "Setnonblocking %s path failed: %d, message: %s", path.c_str(), errno,
              strerror(errno));
  }
  return ready;
}

bool Setnonblocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool EpollCtlAdd(int epollFd, int fd, uint32_t events) {
  return EpollCtl(epollFd, EPOLL_CTL_ADD, fd, events);
}

bool EpollCtlMod(int epollFd, int fd, uint32_t events) {
  return EpollCtl(epollFd, EPOLL_CTL_MOD, fd, events);
}
