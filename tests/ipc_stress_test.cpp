// Bounded stress of the socket manager, with figures printed: 1,000 clients
// at once, 10,000 connect/close cycles, a client that never reads, and
// accept while the process is out of descriptors.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "tests/support/ipc_endpoint.h"
#include "tests/support/log_capture.h"

using tavo_test::Endpoint;
using tavo_test::Frame;
using tavo_test::Mode;
using tavo_test::RawPeer;
using tavo_test::SocketName;
using tavo_test::WaitFor;

namespace {

bool SetFdLimit(rlim_t soft) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (soft > limit.rlim_max) return false;
  limit.rlim_cur = soft;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// ASan keeps freed blocks in quarantine and TSan keeps shadow memory, so RSS
// says nothing about leaks there (ASan's own leak check does).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kRssMeaningful = false;
#elif defined(__has_feature)
constexpr bool kRssMeaningful = !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#else
constexpr bool kRssMeaningful = true;
#endif

#define FIGURE(...) std::printf("[ figures  ] " __VA_ARGS__), std::fflush(stdout)

struct Server : Endpoint {
  explicit Server(Mode mode = {}) : Endpoint(true, SocketName(), mode) {
    ipc->start();
    WaitFor([&] { return ipc->getSocketFd() >= 0; });
  }
};

TEST(IpcStressTest, ThousandConcurrentClientsAllServed) {
  if (!SetFdLimit(4096)) GTEST_SKIP() << "descriptor limit below 4096";
  Mode echo;
  echo.echo = true;
  Server server(echo);
  const long rss = tavo_test::SelfRssKiB();
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int i = 0; i < 1000; ++i) {
    peers.push_back(std::make_unique<RawPeer>(server.ipc->getPath()));
    ASSERT_TRUE(peers.back()->ok()) << i;
    ASSERT_TRUE(peers.back()->Send(Frame(2, "c" + std::to_string(i))));
  }
  int served = 0;
  for (int i = 0; i < 1000; ++i) served += peers[i]->Recv(Frame(3, "echo:c" + std::to_string(i)).size()) == Frame(3, "echo:c" + std::to_string(i));
  EXPECT_EQ(served, 1000);
  EXPECT_EQ(server.ipc->getConnectionCount(), 1000u);
  FIGURE("%d of 1000 concurrent clients served, RSS +%ld KiB\n", served, tavo_test::SelfRssKiB() - rss);
}

TEST(IpcStressTest, TenThousandConnectCloseCyclesLeaveNoDescriptorOrMemory) {
  Server server;
  auto cycles = [&](int count) {
    for (int i = 0; i < count; ++i) RawPeer(server.ipc->getPath()).Send(Frame(2, "x"));
  };
  cycles(200);  // what is made once (log buffers, map nodes) exists before measuring
  ASSERT_TRUE(WaitFor([&] { return server.Get(server.closed).size() == 200; }));
  const int fds = tavo_test::SelfOpenFds();
  const long rss = tavo_test::SelfRssKiB();
  cycles(10000);
  ASSERT_TRUE(WaitFor([&] { return server.Get(server.closed).size() == 10200; }, 60000));
  EXPECT_EQ(server.ipc->getConnectionCount(), 0u);
  EXPECT_EQ(tavo_test::SelfOpenFds(), fds);
  if (kRssMeaningful) {
    EXPECT_LT(tavo_test::SelfRssKiB() - rss, 16 * 1024);  // the recorder's own lists grow a little
  }
  FIGURE("10000 cycles: descriptors %d -> %d, RSS %ld -> %ld KiB\n", fds, tavo_test::SelfOpenFds(), rss, tavo_test::SelfRssKiB());
}

TEST(IpcStressTest, ClientThatNeverReadsStaysWithinItsCapWhileOthersReceive) {
  Mode mode;
  mode.budget = std::make_shared<IpcQueueBudget>();
  Server server(mode);
  RawPeer stuck(server.ipc->getPath()), reader(server.ipc->getPath());
  ASSERT_TRUE(WaitFor([&] { return server.Get(server.connected).size() == 2; }));
  const int stuckFd = server.Get(server.connected)[0], readerFd = server.Get(server.connected)[1];
  constexpr int kRecords = 40000;
  const std::string record(240, 'r');
  server.Queue(stuckFd, record);
  server.Queue(readerFd, record);
  // Map entries stay put, and a queue is safe to use from any thread.
  IpcPackageManager& stuckQueue = server.queues.at(stuckFd);
  IpcPackageManager& readerQueue = server.queues.at(readerFd);
  std::string received;
  std::thread consumer([&] { received = reader.Recv(kRecords * Frame(3, record).size(), 20000); });
  uint64_t highWater = 0;
  for (int i = 1; i < kRecords; ++i) {
    stuckQueue.buildAndAppendSecondIpcPackage(3, record.data(), record.size());
    readerQueue.buildAndAppendSecondIpcPackage(3, record.data(), record.size());
    server.ipc->notifyNeedWriteData(stuckFd);
    server.ipc->notifyNeedWriteData(readerFd);
    highWater = std::max(highWater, stuckQueue.getQueuedBytes());
    while (readerQueue.getQueuedBytes() > (1u << 20)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  server.ipc->notifyNeedWriteData(readerFd);
  consumer.join();
  EXPECT_EQ(received.size(), kRecords * Frame(3, record).size());
  EXPECT_LE(highWater, IpcPackageManager::kMaxQueuedBytes);
  EXPECT_GT(stuckQueue.getDroppedCount(), 0u);
  EXPECT_EQ(readerQueue.getDroppedCount(), 0u);
  FIGURE("never-reading client: queue high-water %llu bytes (cap %llu), %llu refused; reader got all %d\n",
         static_cast<unsigned long long>(highWater), static_cast<unsigned long long>(IpcPackageManager::kMaxQueuedBytes),
         static_cast<unsigned long long>(stuckQueue.getDroppedCount()), kRecords);
}

// 20 peers knock while the process has no descriptor left to accept them
// with: the socket thread pauses accepting instead of spinning on a
// readable listener, and takes them all once descriptors are back.
TEST(IpcStressTest, AcceptBacksOffWhileOutOfDescriptors) {
  tavo_test::LogCapture log;
  Server server;
  const int tid = tavo_test::FindThread("IpcSrvT");
  std::vector<android::base::unique_fd> clients, fillers;
  for (int i = 0; i < 20; ++i) clients.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string path = server.ipc->getPath();
  memcpy(addr.sun_path + 1, path.data(), path.size());  // abstract: leading NUL
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
  // The threads start before the limit is lowered and end after it is back:
  // the sanitizers' checks when a thread starts or ends want a descriptor.
  std::atomic<int> phase{0}, started{0};
  auto waitFor = [&](int p) {
    while (phase < p) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  std::vector<std::thread> connecting;
  for (auto& client : clients) {
    connecting.emplace_back([&] {
      ++started;
      waitFor(1);
      connect(client.get(), reinterpret_cast<sockaddr*>(&addr), length);
      waitFor(2);
    });
  }
  ASSERT_TRUE(WaitFor([&] { return started == 20; }));
  rlimit old{};
  getrlimit(RLIMIT_NOFILE, &old);
  const long cpuBefore = tavo_test::ThreadCpuMs(tid);
  ASSERT_TRUE(SetFdLimit(static_cast<rlim_t>(tavo_test::SelfOpenFds())));
  for (int fd; (fd = dup(clients[0].get())) >= 0;) fillers.emplace_back(fd);  // fill every hole
  phase = 1;
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const int lines = log.Count("[UnixIpcManager] Accept client failed: 24");
  fillers.clear();
  setrlimit(RLIMIT_NOFILE, &old);
  phase = 2;
  const long cpu = tavo_test::ThreadCpuMs(tid) - cpuBefore;
  for (auto& thread : connecting) thread.join();
  EXPECT_TRUE(WaitFor([&] { return server.Get(server.connected).size() == 20; }));
  EXPECT_GE(lines, 1);
  EXPECT_LE(lines, 20);  // one per 100 ms pause; a spinning loop logs hundreds of thousands
  EXPECT_GE(server.ipc->getAcceptStats().pauses, static_cast<uint64_t>(lines));
  FIGURE("descriptor flood, 20 pending peers, 1 s: %d log lines, %ld ms CPU of the socket thread\n", lines, cpu);
}

}  // namespace
