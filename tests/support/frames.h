// Frames as they travel on the socket: building them, draining a client's
// send queue, a raw peer on a real socket, and a fake subscribed client.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "event/tavo_bpf_event_manager.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/unix_ipc_manager.h"
#include "service/tavo_bpf_service.h"
#include "tests/support/service_peer.h"
#include "tests/support/wait.h"

namespace tavo_test {

// 8-byte length, command, data length, data.
inline std::string Frame(uint32_t command, const std::string& data) {
  std::string out(16, '\0');
  const int64_t length = static_cast<int64_t>(data.size()) + 8;
  const auto inner = static_cast<uint32_t>(data.size());
  memcpy(&out[0], &length, 8);
  memcpy(&out[8], &command, 4);
  memcpy(&out[12], &inner, 4);
  return out + data;
}

// A BufferState over a block the test owns, as the socket layer keeps one.
struct TestBuffer {
  explicit TestBuffer(size_t capacity) : bytes(capacity, 0) {
    state.capacity = static_cast<int64_t>(capacity);
    state.data = bytes.data();
  }
  void Put(const std::string& data) {
    memcpy(state.data + state.length, data.data(), data.size());
    state.length += static_cast<int64_t>(data.size());
  }
  std::string Written() const { return std::string(bytes.data(), static_cast<size_t>(state.length)); }
  std::vector<char> bytes;
  BufferState state{};
};

// The bytes a send queue puts on the wire now; takes them out.
inline std::string WireBytes(IpcPackageManager& queue) {
  TestBuffer buffer(1 << 16);
  queue.fillIpcPackageToBuffer(&buffer.state);
  return buffer.Written();
}

template <typename Record>
std::string AsString(const Record& r) {
  return std::string(reinterpret_cast<const char*>(&r), sizeof(r));
}

// Payloads of the command-3 frames waiting in a send queue; takes them out.
inline std::vector<std::string> DrainPayloads(IpcPackageManager& queue) {
  std::vector<std::string> out;
  const std::string block = WireBytes(queue);
  for (size_t pos = 0; pos + 16 <= block.size();) {
    int64_t frame;
    uint32_t command, length;
    memcpy(&frame, &block[pos], 8);
    memcpy(&command, &block[pos + 8], 4);
    memcpy(&length, &block[pos + 12], 4);
    if (frame != 8 + static_cast<int64_t>(length) || pos + 8 + frame > block.size()) {
      out.push_back("<malformed frame>");
      break;
    }
    if (command == 3) out.push_back(block.substr(pos + 16, length));
    pos += 8 + static_cast<size_t>(frame);
  }
  return out;
}

// A client queue on a fake descriptor, subscribed to the given codes.
class NoticeSink {
 public:
  explicit NoticeSink(std::initializer_list<int> codes, int fd = 90) {
    auto* service = Tavo::Bpf::TavoBpfService::GetInstance();
    queue = &Tavo::Bpf::TavoBpfServiceTestPeer::AddClient(service, fd);
    for (int code : codes) Tavo::Bpf::EventManager::GetInstance()->AddObserverEvent(fd, code);
  }
  // Payloads queued since the last call.
  std::vector<std::string> Take() { return DrainPayloads(*queue); }

 private:
  IpcPackageManager* queue;
};

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
  // Exactly n bytes; empty on time-out or end of stream.
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
  // True once the other end closed.
  bool SeesEnd(int timeoutMs = 3000) {
    char chunk[4096];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
      const ssize_t got = recv(fd, chunk, sizeof(chunk), 0);
      if (got == 0 || (got < 0 && errno != EAGAIN)) return true;
      pollfd p{fd, POLLIN, 0};
      poll(&p, 1, 50);
    }
    return false;
  }
  int fd;
};

}  // namespace tavo_test
