// Small helpers for the socket-level IPC tests: a raw peer, waits, thread CPU.
#pragma once

#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "ipc/unix_ipc_manager.h"

namespace ipc_test {

inline bool WaitFor(const std::function<bool()>& done, int timeoutMs = 3000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Frame bytes: 8-byte length, command, data length, data.
inline std::string Frame(uint32_t command, const std::string& data) {
  std::string out(16, '\0');
  const int64_t length = static_cast<int64_t>(data.size()) + 8;
  const auto inner = static_cast<uint32_t>(data.size());
  memcpy(&out[0], &length, 8);
  memcpy(&out[8], &command, 4);
  memcpy(&out[12], &inner, 4);
  return out + data;
}

// A peer on a raw non-blocking socket, driven with poll().
class RawPeer {
 public:
  explicit RawPeer(const std::string& path) : fd(ConnectToServer(path)) {}
  ~RawPeer() {
    if (fd >= 0) close(fd);
  }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  bool ok() const { return fd >= 0; }
  bool Send(const std::string& bytes, int timeoutMs = 3000) {
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n > 0) {
        done += static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno != EAGAIN) return false;
      pollfd p{fd, POLLOUT, 0};
      if (poll(&p, 1, timeoutMs) <= 0) return false;
    }
    return true;
  }
  // Reads exactly n bytes; empty on time-out or end of stream.
  std::string Recv(size_t n, int timeoutMs = 3000) {
    std::string out;
    char chunk[65536];
    while (out.size() < n) {
      const ssize_t got = recv(fd, chunk, std::min(sizeof(chunk), n - out.size()), 0);
      if (got > 0) {
        out.append(chunk, static_cast<size_t>(got));
        continue;
      }
      if (got == 0 || errno != EAGAIN) return std::string();
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, timeoutMs) <= 0) return std::string();
    }
    return out;
  }
  // True once the server closed its end.
  bool SeesEnd(int timeoutMs = 3000) {
    char chunk[4096];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
      const ssize_t got = recv(fd, chunk, sizeof(chunk), 0);
      if (got == 0) return true;
      if (got < 0 && errno != EAGAIN) return true;
      pollfd p{fd, POLLIN, 0};
      poll(&p, 1, 50);
    }
    return false;
  }
  int fd;
};

// Thread id of this process's thread named `name`, or -1.
inline int FindThread(const std::string& name) {
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  int found = -1;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string line;
    std::getline(comm, line);
    if (line == name) found = atoi(entry->d_name);
  }
  closedir(dir);
  return found;
}

// User plus system CPU time of one thread, in milliseconds.
inline long ThreadCpuMs(int tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const size_t paren = text.rfind(')');
  if (paren == std::string::npos) return -1;
  // Fields after the command: state is field 3; utime and stime are 14 and 15.
  unsigned long utime = 0;
  unsigned long stime = 0;
  if (sscanf(text.c_str() + paren + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime,
             &stime) != 2) {
    return -1;
  }
  return static_cast<long>((utime + stime) * 1000 / sysconf(_SC_CLK_TCK));
}

}  // namespace ipc_test
