// Socket-manager figures over real abstract local sockets: single-connection
// throughput, fan-out to 8 connections, and memory per idle connection.
//
// A producer thread appends 48-byte command packages (8-byte command header
// + 40 data bytes, the first 8 a sequence number) to each connection's
// IpcPackageManager and asks for write readiness; the server's write
// callback drains the queue with fillNextIpcPackageToBuffer; raw client
// sockets read whole frames and check their order.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>

#include "bench/bench_support.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/unix_ipc_manager.h"

namespace {

constexpr uint32_t kDataBytes = 40;             // payload = 8 + 40 = 48 bytes
constexpr int64_t kFrameBytes = 8 + 8 + kDataBytes;
constexpr size_t kQueueHighWater = 20000;       // producer backs off above this

std::string Name(const char* what) {
  return std::string("/mnt/bpfframework/ipc-bench-") + what + "-" + std::to_string(getpid());
}

void RaiseFdLimit(rlim_t want) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur >= want) return;
  limit.rlim_cur = std::min(want, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

// A server whose write callback drains each connection's queue.
class QueueServer {
 public:
  QueueServer(const std::string& path, int bufferSize, bool echo) {
    IpcHandlerState handlers;
    handlers.saveUnusedBuffer = true;
    handlers.read = [echo](int, BufferState* receive, BufferState* send) {
      int64_t header = 0;
      int64_t body = 0;
      while (CheckIpcPackageComplete(receive, header, body)) {
        if (echo && send != nullptr && send->capacity - send->length >= header + body) {
          memcpy(send->data + send->length, receive->data + receive->cursor, header + body);
          send->length += header + body;
        }
        receive->cursor += header + body;
      }
      return 0;
    };
    handlers.write = [this](int fd, BufferState* send) {
      IpcPackageManager* queue = find(fd);
      if (queue != nullptr) {
        while (queue->fillNextIpcPackageToBuffer(send)) {
        }
      }
      return 0;
    };
    handlers.connection = [this](int fd) {
      std::lock_guard<std::mutex> guard(lock);
      queues[fd] = std::make_unique<IpcPackageManager>();
      fds.push_back(fd);
      return 0;
    };
    handlers.close = [this](int fd) {
      std::lock_guard<std::mutex> guard(lock);
      queues.erase(fd);
      return 0;
    };
    ipc = std::make_unique<UnixIpcManager>(true, bufferSize, path, handlers, "IpcBenchSrv", 10, 32);
    ipc->start();
    tavo_bench::WaitUntil([this] { return ipc->getSocketFd() >= 0; }, 3000);
  }

  IpcPackageManager* find(int fd) {
    std::lock_guard<std::mutex> guard(lock);
    auto it = queues.find(fd);
    return it == queues.end() ? nullptr : it->second.get();
  }
  size_t connectionCount() {
    std::lock_guard<std::mutex> guard(lock);
    return fds.size();
  }
  std::vector<int> connectedFds() {
    std::lock_guard<std::mutex> guard(lock);
    return fds;
  }

 private:
  std::mutex lock;
  std::map<int, std::unique_ptr<IpcPackageManager>> queues;
  std::vector<int> fds;

 public:
  // Last, so its loop thread ends before the queues it drains go away.
  std::unique_ptr<UnixIpcManager> ipc;
};

// Reads frames from several sockets until each delivered `count` packages;
// false on a frame out of order or malformed.
bool ReadAll(const std::vector<android::base::unique_fd>& sockets, uint64_t count) {
  struct Reader {
    std::vector<char> buffer = std::vector<char>(256 * 1024);
    size_t have = 0;
    uint64_t next = 0;
  };
  std::vector<Reader> readers(sockets.size());
  std::vector<pollfd> polls;
  for (const auto& fd : sockets) polls.push_back(pollfd{fd.get(), POLLIN, 0});
  size_t finished = 0;
  while (finished < sockets.size()) {
    if (poll(polls.data(), polls.size(), 5000) <= 0) return false;
    for (size_t i = 0; i < sockets.size(); ++i) {
      Reader& r = readers[i];
      if (!(polls[i].revents & POLLIN) || r.next == count) continue;
      const ssize_t got = recv(sockets[i].get(), r.buffer.data() + r.have, r.buffer.size() - r.have, 0);
      if (got <= 0) {
        if (got < 0 && errno == EAGAIN) continue;
        return false;
      }
      r.have += static_cast<size_t>(got);
      size_t at = 0;
      while (r.have - at >= static_cast<size_t>(kFrameBytes)) {
        const char* frame = r.buffer.data() + at;
        int64_t length = 0;
        uint32_t command = 0;
        uint64_t sequence = 0;
        memcpy(&length, frame, 8);
        memcpy(&command, frame + 8, 4);
        memcpy(&sequence, frame + 16, 8);
        if (length != kFrameBytes - 8 || command != 3 || sequence != r.next) return false;
        ++r.next;
        at += kFrameBytes;
      }
      memmove(r.buffer.data(), r.buffer.data() + at, r.have - at);
      r.have -= at;
      if (r.next == count) {
        ++finished;
        polls[i].events = 0;
      }
    }
  }
  return true;
}

// One producer feeding `connections` clients every package; packages/s per
// connection.
void RunFanOut(benchmark::State& state, int connections) {
  const auto count = static_cast<uint64_t>(state.range(0));
  const int bufferSize = static_cast<int>(state.range(1));
  const std::string path = Name("fan");
  QueueServer server(path, bufferSize, false);
  std::vector<android::base::unique_fd> sockets;
  for (int i = 0; i < connections; ++i) sockets.emplace_back(ConnectToServer(path));
  if (!tavo_bench::WaitUntil([&] { return server.connectionCount() == static_cast<size_t>(connections); }, 5000)) {
    state.SkipWithError("clients not accepted");
    return;
  }
  std::vector<int> fds = server.connectedFds();
  std::vector<IpcPackageManager*> queues;
  for (int fd : fds) queues.push_back(server.find(fd));
  UnixIpcManager* ipc = server.ipc.get();

  uint64_t base = 0;
  double total = 0;
  bool ordered = true;
  for (auto _ : state) {
    std::atomic<bool> readOk{false};
    const auto start = std::chrono::steady_clock::now();
    std::thread reader([&] {
      // Each round continues the sequence where the last one ended.
      readOk = ReadAll(sockets, count);
    });
    char data[kDataBytes] = {};
    for (uint64_t i = 0; i < count; ++i) {
      const uint64_t sequence = i;
      memcpy(data, &sequence, sizeof(sequence));
      for (size_t c = 0; c < queues.size(); ++c) {
        while (queues[c]->getIpcPackageCount() > kQueueHighWater) sched_yield();
        queues[c]->buildAndAppendSecondIpcPackage(3, data, kDataBytes);
        ipc->notifyNeedWriteData(fds[c]);
      }
    }
    reader.join();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(seconds);
    total += seconds;
    ordered = ordered && readOk;
    base += count;
  }
  if (!ordered) state.SkipWithError("packages lost or out of order");
  state.counters["pkgs_per_conn/s"] = total > 0 ? static_cast<double>(base) / total : 0;
  state.counters["connections"] = connections;
}

void BM_Throughput1Connection(benchmark::State& state) { RunFanOut(state, 1); }
void BM_FanOut8Connections(benchmark::State& state) { RunFanOut(state, 8); }

// 1000 clients connect, each sends one frame and gets it echoed; RSS growth
// per connection.
void BM_IdleConnectionMemory(benchmark::State& state) {
  const int connections = static_cast<int>(state.range(0));
  RaiseFdLimit(static_cast<rlim_t>(connections) * 2 + 256);
  for (auto _ : state) {
    const std::string path = Name("mem");
    QueueServer server(path, 32768, true);
    std::vector<android::base::unique_fd> sockets;
    const long before = tavo_test::SelfRssKiB();
    const std::string frame = [] {
      std::string f(16 + 8, '\0');
      const int64_t length = 16;
      const uint32_t command = 0;
      const uint32_t inner = 8;
      memcpy(&f[0], &length, 8);
      memcpy(&f[8], &command, 4);
      memcpy(&f[12], &inner, 4);
      return f;
    }();
    for (int i = 0; i < connections; ++i) {
      android::base::unique_fd fd(ConnectToServer(path));
      if (fd < 0) break;
      send(fd.get(), frame.data(), frame.size(), MSG_NOSIGNAL);
      sockets.push_back(std::move(fd));
    }
    bool served = tavo_bench::WaitUntil([&] { return server.connectionCount() == sockets.size(); }, 10000);
    for (const auto& fd : sockets) {
      pollfd p{fd.get(), POLLIN, 0};
      char reply[64];
      if (poll(&p, 1, 3000) <= 0 || recv(fd.get(), reply, sizeof(reply), 0) != static_cast<ssize_t>(frame.size())) {
        served = false;
      }
    }
    const long after = tavo_test::SelfRssKiB();
    if (!served || sockets.size() != static_cast<size_t>(connections)) {
      state.SkipWithError("not every connection was accepted and served");
    }
    state.counters["connections"] = static_cast<double>(sockets.size());
    state.counters["rss_growth_KiB"] = static_cast<double>(after - before);
    state.counters["KiB_per_conn"] =
        static_cast<double>(after - before) / static_cast<double>(std::max<size_t>(1, sockets.size()));
  }
}

}  // namespace

// Arguments: packages per connection per round, server buffer size.
BENCHMARK(BM_Throughput1Connection)
    ->Args({1000000, 32768})
    ->Args({1000000, 262144})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(BM_FanOut8Connections)
    ->Args({250000, 32768})
    ->Args({250000, 262144})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(BM_IdleConnectionMemory)->Arg(1000)->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK_MAIN();
