// Frames and peers for the IPC tests: frame bytes built by hand, a buffer the
// test owns, a raw peer on a real socket, and a socket-manager endpoint that
// records what it receives, answers subscription requests and sends what is
// queued, on a socket name of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/ipc_frame.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/unix_ipc_manager.h"
#include "tests/support/tavo_harness.h"

namespace tavo_test {

// 8-byte length, command, data length, data: written here by hand, not by
// the writer under test.
inline std::string Frame(uint32_t command, const std::string& data) {
  const int64_t length = static_cast<int64_t>(data.size()) + 8;
  const auto inner = static_cast<uint32_t>(data.size());
  std::string out(16, '\0');
  memcpy(&out[0], &length, 8);
  memcpy(&out[8], &command, 4);
  memcpy(&out[12], &inner, 4);
  return out + data;
}

// A BufferState over a block the test owns.
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

// A peer on a raw non-blocking socket, driven with poll().
class RawPeer {
 public:
  explicit RawPeer(const std::string& path) : fd_(ConnectToServer(path)) {}
  bool ok() const { return fd_ >= 0; }
  bool Send(const std::string& bytes, int timeoutMs = 3000) {
    for (size_t done = 0; done < bytes.size();) {
      const ssize_t n = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n > 0) done += static_cast<size_t>(n);
      if (n < 0 && (errno != EAGAIN || !Wait(POLLOUT, timeoutMs))) return false;
    }
    return true;
  }
  // Exactly n bytes; empty on time-out or end of stream.
  std::string Recv(size_t n, int timeoutMs = 3000) {
    std::string out(n, '\0');
    for (size_t got = 0; got < n;) {
      const ssize_t r = recv(fd_, &out[got], n - got, 0);
      if (r > 0) got += static_cast<size_t>(r);
      if (r == 0 || (r < 0 && (errno != EAGAIN || !Wait(POLLIN, timeoutMs)))) return std::string();
    }
    return out;
  }
  // True once the other end closed.
  bool SeesEnd(int timeoutMs = 3000) {
    return WaitFor([&] {
      char chunk[4096];
      const ssize_t r = recv(fd_, chunk, sizeof(chunk), 0);
      return r == 0 || (r < 0 && errno != EAGAIN);
    }, timeoutMs);
  }

 private:
  bool Wait(short events, int timeoutMs) {
    pollfd p{fd_.get(), events, 0};
    return poll(&p, 1, timeoutMs) > 0;
  }
  android::base::unique_fd fd_;
};

inline std::string SocketName(const std::string& suffix = "") {
  const auto* info = testing::UnitTest::GetInstance()->current_test_info();
  return std::string("/mnt/bpfframework/ipc-test-") + info->name() + suffix + "-" + std::to_string(getpid());
}

struct Mode {
  int bufferSize = 32768;
  bool consume = true;  // cut the frames out of the receive buffer
  bool echo = false;    // answer each frame with "echo:" and its data, flushing from the callback
  int readResult = kIpcCallbackOk;
  bool saveUnused = true;
  bool closeOnError = false;
  size_t maxConnections = 1024;
  IpcPeerPolicy policy{};
  std::shared_ptr<IpcQueueBudget> budget{};  // shared by the connections' queues
};

// One end, server or client: records the data of the frames it receives,
// answers subscription requests (code 666 refused) and sends what is queued.
struct Endpoint {
  Endpoint(bool server, const std::string& path, Mode mode = {}) {
    UnixIpcOptions options;
    options.isServer = server;
    options.bufferSize = mode.bufferSize;
    options.path = path;
    options.name = server ? "IpcSrvT" : "IpcCliT";
    options.handlers.saveUnusedBuffer = mode.saveUnused;
    options.handlers.closeOnError = mode.closeOnError;
    options.maxConnections = mode.maxConnections;
    options.peerPolicy = mode.policy;
    budget = mode.budget;
    options.handlers.read = [this, mode](int fd, BufferState* receive, BufferState* send) {
      if (!mode.consume) return mode.readResult;
      ForEachIpcFrame(receive, [&](const IpcFrame& frame) {
        IpcCommand command;
        ParseIpcCommand(frame, &command);
        std::string data(command.data, command.dataLength);
        if (mode.echo) AppendIpcCommandFrame(send, 3, {{"echo:", 5}, {data.data(), data.size()}}, false);
        if (command.code == IPC_COMMAND_REQUEST && data.size() == 44) {
          uint32_t code;
          memcpy(&code, &data[40], 4);
          const int32_t result = code == 666 ? -1 : 0;
          const uint32_t zero = 0;
          AppendIpcCommandFrame(send, IPC_COMMAND_RESPONSE, {{&data[0], 4}, {&result, 4}, {&zero, 4}}, true);
          data = std::string(&data[4]) + " " + std::to_string(code);
        }
        std::lock_guard<std::mutex> guard(lock);
        frames[fd].push_back(data);
        arrivals.push_back(data);
        return true;
      });
      if (mode.echo) ipc->writeDataNow(fd);  // must not wait on its own guard
      return mode.readResult;
    };
    options.handlers.write = [this](int fd, BufferState* send) {
      ++writeCalls;
      std::lock_guard<std::mutex> guard(lock);
      auto it = queues.find(fd);
      while (it != queues.end() && it->second.fillNextIpcPackageToBuffer(send)) {
      }
      return 0;
    };
    options.handlers.connection = [this](int fd) { return Note(&connected, fd); };
    options.handlers.close = [this](int fd) { return Note(&closed, fd); };
    ipc = std::make_unique<UnixIpcManager>(std::move(options));
  }

  int Note(std::vector<int>* list, int fd) {
    std::lock_guard<std::mutex> guard(lock);
    list->push_back(fd);
    return 0;
  }
  // A command package, or with command -1 the bytes as the whole payload.
  bool Queue(int fd, const std::string& data, int command = IPC_COMMAND_EVENT) {
    std::lock_guard<std::mutex> guard(lock);
    IpcPackageManager& queue = queues.try_emplace(fd, budget).first->second;
    if (command < 0) return queue.buildAndAppendIpcPackage(data.data(), data.size());
    return queue.buildAndAppendSecondIpcPackage(command, data.data(), data.size());
  }
  template <typename T>
  T Get(const T& member) {
    std::lock_guard<std::mutex> guard(lock);
    return member;
  }
  std::vector<std::string> FramesOf(int fd) {
    std::lock_guard<std::mutex> guard(lock);
    return frames[fd];
  }

  std::mutex lock;
  std::map<int, std::vector<std::string>> frames;
  std::vector<std::string> arrivals;  // of all connections, in order
  std::shared_ptr<IpcQueueBudget> budget;
  std::map<int, IpcPackageManager> queues;
  std::vector<int> connected, closed;
  std::atomic<int> writeCalls{0};
  std::unique_ptr<UnixIpcManager> ipc;  // last: its loop ends before the rest goes
};

// A started server and one raw peer it has accepted.
struct Session {
  explicit Session(const std::string& path, Mode mode = {}) : server(true, path, mode) {
    server.ipc->start();
    WaitFor([&] { return server.ipc->getSocketFd() >= 0; });
    peer = std::make_unique<RawPeer>(path);
    WaitFor([&] { return !server.Get(server.connected).empty(); });
    fd = server.Get(server.connected).at(0);
  }
  Endpoint server;
  std::unique_ptr<RawPeer> peer;
  int fd = -1;
};

}  // namespace tavo_test
