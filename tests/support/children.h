// Child processes whose facts a test sets up itself.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace tavo_test {

// The pid of a child that has exited and been reaped: a pid that is gone.
inline pid_t ReapedPid() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  if (child > 0) waitpid(child, nullptr, 0);
  return child;
}

// Blocks on fd until its writer closes it.
inline void* ParkOn(void* fd) {
  char byte;
  while (read(*static_cast<int*>(fd), &byte, 1) < 0 && errno == EINTR) {
  }
  return nullptr;
}

// A child that runs setup(holdFd, readyFd), reports the int setup returns,
// and stays until the object goes away. Setup may move both descriptors
// (it gets them by reference) and must keep to system calls: the parent may
// hold locks at fork time.
class ParkedChild {
 public:
  template <typename Setup>
  explicit ParkedChild(Setup setup) {
    int hold[2], ready[2];
    if (pipe2(hold, O_CLOEXEC) != 0 || pipe2(ready, O_CLOEXEC) != 0) abort();
    pid = fork();
    if (pid == 0) {
      close(hold[1]);
      close(ready[0]);
      int holdFd = hold[0], readyFd = ready[1];
      const int value = setup(holdFd, readyFd);
      if (write(readyFd, &value, sizeof(value)) != sizeof(value)) _exit(1);
      close(readyFd);
      ParkOn(&holdFd);
      _exit(0);
    }
    close(hold[0]);
    close(ready[1]);
    release = hold[1];
    if (read(ready[0], &report, sizeof(report)) != sizeof(report)) abort();
    // EOF: the child has closed its end too, so its descriptors are final.
    char eof;
    while (read(ready[0], &eof, 1) > 0) {
    }
    close(ready[0]);
  }
  ~ParkedChild() {
    close(release);
    waitpid(pid, nullptr, 0);
  }
  ParkedChild(const ParkedChild&) = delete;
  ParkedChild& operator=(const ParkedChild&) = delete;

  pid_t pid = -1;
  int report = 0;

 private:
  int release = -1;
};

}  // namespace tavo_test
