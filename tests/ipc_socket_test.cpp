// The socket manager over real abstract local sockets and its real loop thread.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/ipc_package_manager.h"
#include "ipc/unix_ipc_manager.h"
#include "tests/support/frames.h"
#include "tests/support/log_capture.h"

using tavo_test::Frame;
using tavo_test::RawPeer;
using tavo_test::WaitFor;

namespace {

std::string SocketName() {
  const auto* info = testing::UnitTest::GetInstance()->current_test_info();
  return std::string("/mnt/bpfframework/ipc-test-") + info->name() + "-" + std::to_string(getpid());
}

// One end (server or client) recording what it sees; sends what is queued.
struct Endpoint {
  enum class ReadMode { kFrames, kEcho, kNothing, kEchoThenFail };

  Endpoint(bool server, const std::string& path, int bufferSize = 32768,
           ReadMode mode = ReadMode::kFrames, bool saveUnused = true, bool closeOnError = false) {
    IpcHandlerState handlers;
    handlers.saveUnusedBuffer = saveUnused;
    handlers.closeOnError = closeOnError;
    handlers.read = [this, mode](int fd, BufferState* receive, BufferState* send) {
      if (mode == ReadMode::kNothing) return 0;
      int64_t header = 0;
      int64_t body = 0;
      while (CheckIpcPackageComplete(receive, header, body)) {
        std::string payload(receive->data + receive->cursor + header, static_cast<size_t>(body));
        receive->cursor += header + body;
        if ((mode == ReadMode::kEcho || mode == ReadMode::kEchoThenFail) && send != nullptr) {
          const std::string reply = Frame(3, "echo:" + payload.substr(8));
          memcpy(send->data + send->length, reply.data(), reply.size());
          send->length += static_cast<int64_t>(reply.size());
        }
        std::lock_guard<std::mutex> guard(lock);
        frames[fd].push_back(payload.substr(8));
      }
      return mode == ReadMode::kEchoThenFail ? -1 : 0;
    };
    handlers.write = [this](int fd, BufferState* send) {
      ++writeCalls;
      std::lock_guard<std::mutex> guard(lock);
      auto it = queues.find(fd);
      if (it == queues.end()) return 0;
      while (it->second->fillNextIpcPackageToBuffer(send)) {
      }
      return 0;
    };
    handlers.connection = [this](int fd) {
      std::lock_guard<std::mutex> guard(lock);
      connected.push_back(fd);
      queues[fd] = std::make_unique<IpcPackageManager>();
      return 0;
    };
    handlers.close = [this](int fd) {
      std::lock_guard<std::mutex> guard(lock);
      closed.push_back(fd);
      queues.erase(fd);
      return 0;
    };
    ipc = std::make_unique<UnixIpcManager>(server, bufferSize, path, handlers,
                                           server ? "IpcSrvT" : "IpcCliT", tavo_test::AllCpus(), 10, 32);
  }

  bool Queue(int fd, const std::string& data) {
    std::lock_guard<std::mutex> guard(lock);
    if (!queues[fd]) queues[fd] = std::make_unique<IpcPackageManager>();
    return queues[fd]->buildAndAppendSecondIpcPackage(3, data.data(), data.size());
  }
  std::vector<std::string> FramesOf(int fd) {
    std::lock_guard<std::mutex> guard(lock);
    return frames[fd];
  }
  // The i-th descriptor seen so far (or -1 past the end), and how many.
  int At(const std::vector<int>& list, size_t i) {
    std::lock_guard<std::mutex> guard(lock);
    return i < list.size() ? list[i] : -1;
  }
  size_t Count(const std::vector<int>& list) {
    std::lock_guard<std::mutex> guard(lock);
    return list.size();
  }

  std::mutex lock;
  std::map<int, std::vector<std::string>> frames;
  std::map<int, std::unique_ptr<IpcPackageManager>> queues;
  std::vector<int> connected;
  std::vector<int> closed;
  std::atomic<int> writeCalls{0};
  std::unique_ptr<UnixIpcManager> ipc;
};

// Starts a server and connects one raw peer, waiting for the accept.
struct Session {
  explicit Session(const std::string& path, int bufferSize = 32768,
                   Endpoint::ReadMode mode = Endpoint::ReadMode::kFrames, bool saveUnused = true,
                   bool closeOnError = false)
      : server(true, path, bufferSize, mode, saveUnused, closeOnError) {
    server.ipc->start();
    WaitFor([&] { return server.ipc->getSocketFd() >= 0; });
    peer = std::make_unique<RawPeer>(path);
    WaitFor([&] { return server.At(server.connected, 0) >= 0; });
    fd = server.At(server.connected, 0);
  }
  Endpoint server;
  std::unique_ptr<RawPeer> peer;
  int fd = -1;
};

TEST(UnixIpcManagerTest, FramesAcrossReads) {
  const std::string a = Frame(0, "alpha"), b = Frame(0, "bravo-bravo"), c = Frame(0, ""),
                    d = Frame(0, std::string(300, 'd'));
  const std::string all = a + b + c + d;
  // Each case cuts the same stream into different writes.
  const std::vector<std::vector<size_t>> cuts = {
      {all.size()},                                     // everything in one read
      {3, 10, a.size() - 13, all.size() - a.size()},    // first frame split, rest together
      {a.size() + b.size() + c.size() + 100, 7, 1000},  // half of the last frame left over
  };
  for (size_t i = 0; i < cuts.size(); ++i) {
    Session s(SocketName() + std::to_string(i));
    ASSERT_TRUE(s.peer->ok());
    size_t at = 0;
    for (size_t len : cuts[i]) {
      len = std::min(len, all.size() - at);
      ASSERT_TRUE(s.peer->Send(all.substr(at, len)));
      at += len;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(WaitFor([&] { return s.server.FramesOf(s.fd).size() == 4; })) << "case " << i;
    EXPECT_EQ(s.server.FramesOf(s.fd),
              (std::vector<std::string>{"alpha", "bravo-bravo", "", std::string(300, 'd')}));
  }
}

TEST(UnixIpcManagerTest, QueuedPackagesArriveInOrderIdleStaysQuietAndFlushRacesLoop) {
  Session s(SocketName());
  const int tid = tavo_test::FindThread("IpcSrvT");
  ASSERT_GT(tid, 0);
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    const std::string data = "package-" + std::to_string(i);
    ASSERT_TRUE(s.server.Queue(s.fd, data));
    ASSERT_TRUE(s.server.ipc->notifyNeedWriteData(s.fd));
    expected += Frame(3, data);
  }
  EXPECT_EQ(s.peer->Recv(expected.size()), expected);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  // Idle and writable: write readiness is off, so the loop sleeps.
  const int calls = s.server.writeCalls.load();
  const long cpu = tavo_test::ThreadCpuMs(tid);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(s.server.writeCalls.load(), calls);
  EXPECT_LT(tavo_test::ThreadCpuMs(tid) - cpu, 100);
  EXPECT_FALSE(s.server.ipc->notifyNeedWriteData(12345));

  // writeDataNow from another thread races the loop without loss or reorder.
  expected.clear();
  std::atomic<bool> done{false};
  std::thread flusher([&] {
    while (!done) s.server.ipc->writeDataNow(s.fd);
  });
  for (int i = 0; i < 3000; ++i) {
    ASSERT_TRUE(s.server.Queue(s.fd, "n" + std::to_string(i)));
    s.server.ipc->notifyNeedWriteData(s.fd);
    expected += Frame(3, "n" + std::to_string(i));
  }
  EXPECT_EQ(s.peer->Recv(expected.size()), expected);
  done = true;
  flusher.join();
}

TEST(UnixIpcManagerTest, FailedReadCallbackClosesOnlyWhenAsked) {
  for (bool closeOnError : {false, true}) {
    tavo_test::LogCapture log;
    Session s(SocketName() + (closeOnError ? "c" : "k"), 32768, Endpoint::ReadMode::kEchoThenFail,
              true, closeOnError);
    ASSERT_TRUE(s.peer->Send(Frame(0, "req")));
    if (closeOnError) {
      EXPECT_TRUE(s.peer->SeesEnd());
      EXPECT_TRUE(WaitFor([&] { return s.server.Count(s.server.closed) == 1; }));
    } else {
      // Logged, still open, and the reply the callback left is sent.
      EXPECT_EQ(s.peer->Recv(Frame(3, "echo:req").size()), Frame(3, "echo:req"));
      EXPECT_EQ(s.server.Count(s.server.closed), 0u);
    }
    EXPECT_EQ(log.Count("[UnixIpcManager] Callback ipc read handler failed: ", ANDROID_LOG_ERROR), 1);
  }
}

TEST(UnixIpcManagerTest, WriteCallbackResults) {
  tavo_test::LogCapture log;
  Session s(SocketName());
  epoll_event event{};
  event.data.fd = s.fd;
  EXPECT_EQ(s.server.ipc->onCommWriteCallback(event), -3);  // nothing queued, nothing added
  ASSERT_TRUE(s.server.Queue(s.fd, "one"));
  EXPECT_EQ(s.server.ipc->onCommWriteCallback(event), 0);  // sent, stays on
  EXPECT_EQ(s.peer->Recv(Frame(3, "one").size()), Frame(3, "one"));
  // writeDataNow sends from the caller's thread.
  ASSERT_TRUE(s.server.Queue(s.fd, "now"));
  EXPECT_TRUE(s.server.ipc->writeDataNow(s.fd));
  EXPECT_EQ(s.peer->Recv(Frame(3, "now").size()), Frame(3, "now"));
  EXPECT_FALSE(s.server.ipc->writeDataNow(777));
  EXPECT_EQ(log.Count("[EpollManager][notifyWriteEventReady] the socket fd does not exist"), 1);
  event.data.fd = 4321;
  EXPECT_EQ(s.server.ipc->onCommWriteCallback(event), -1);
  EXPECT_EQ(s.server.ipc->onClientReadableCallback(event), -1);
  EXPECT_EQ(log.Count("[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(4321)!"), 1);
  EXPECT_EQ(log.Count("[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(4321)!"), 1);
}

TEST(UnixIpcManagerTest, FullSocketRetriesElevenTimesThenResumes) {
  tavo_test::LogCapture log;
  Session s(SocketName());
  // Far more than the socket holds while the peer does not read.
  const std::string chunk(16000, 'z');
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    const std::string data = std::to_string(i) + chunk;
    ASSERT_TRUE(s.server.Queue(s.fd, data));
    expected += Frame(3, data);
  }
  EXPECT_FALSE(s.server.ipc->writeDataNow(s.fd));
  EXPECT_EQ(log.Count("[UnixIpcManager] Socket buffer full! tryCount: ", ANDROID_LOG_WARN), 11);
  EXPECT_EQ(log.Count("[UnixIpcManager] Socket buffer full! tryCount: 11, message: "), 1);
  EXPECT_EQ(log.Count("[UnixIpcManager] Send data 10 times failed! leftSize: ", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[UnixIpcManager] Send ipc data failed: "), 1);
  // Nothing is lost: once the peer reads, the loop sends the rest.
  EXPECT_EQ(s.peer->Recv(expected.size()), expected);
}

// The loop thread's CPU time over one second after a connection that can
// never make progress: it must be closed, not spun on.
long CpuOverOneSecond(int tid) {
  const long before = tavo_test::ThreadCpuMs(tid);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  return tavo_test::ThreadCpuMs(tid) - before;
}

TEST(UnixIpcManagerTest, OversizedFrameClosesWithoutSpin) {
  tavo_test::LogCapture log;
  Session s(SocketName());
  const int tid = tavo_test::FindThread("IpcSrvT");
  RawPeer other(SocketName());
  ASSERT_TRUE(WaitFor([&] { return s.server.Count(s.server.connected) == 2; }));

  const int64_t huge = 1 << 20;
  std::string frame(8, '\0');
  memcpy(&frame[0], &huge, 8);
  frame += std::string(40000, 'x');
  s.peer->Send(frame, 200);  // the server may close before taking all of it
  EXPECT_TRUE(s.peer->SeesEnd());
  ASSERT_TRUE(WaitFor([&] { return s.server.Count(s.server.closed) == 1; }));
  EXPECT_LT(CpuOverOneSecond(tid), 200);
  EXPECT_EQ(log.Count("[UnixIpcManager] Frame larger than buffer"), 1);
  // Others are still served.
  ASSERT_TRUE(other.Send(Frame(0, "still-here")));
  const int otherFd = s.server.At(s.server.connected, 1);
  ASSERT_TRUE(WaitFor([&] { return s.server.FramesOf(otherFd).size() == 1; }));
}

TEST(UnixIpcManagerTest, FullReceiveBufferClosesWithoutSpin) {
  tavo_test::LogCapture log;
  // A reader that never consumes: the buffer fills with valid small frames.
  Session s(SocketName(), 4096, Endpoint::ReadMode::kNothing, false);
  const int tid = tavo_test::FindThread("IpcSrvT");
  std::string stream;
  while (stream.size() < 6000) stream += Frame(0, "0123456789");
  s.peer->Send(stream, 200);
  EXPECT_TRUE(s.peer->SeesEnd());
  ASSERT_TRUE(WaitFor([&] { return s.server.Count(s.server.closed) == 1; }));
  EXPECT_EQ(log.Count("[UnixIpcManager] Receive buffer full"), 1);
  EXPECT_LT(CpuOverOneSecond(tid), 200);
}

TEST(UnixIpcManagerTest, UncompactedBufferOutlivesItsSize) {
  // saveUnusedBuffer off, 1 KiB buffer, 40 KiB of frames cut mid-frame.
  Session s(SocketName(), 1024, Endpoint::ReadMode::kFrames, false);
  std::string stream;
  std::vector<std::string> want;
  for (int i = 0; stream.size() < 40000; ++i) {
    want.push_back(std::string(static_cast<size_t>(37 + i % 200), static_cast<char>('a' + i % 26)));
    stream += Frame(0, want.back());
  }
  for (size_t at = 0; at < stream.size(); at += 333) {
    ASSERT_TRUE(s.peer->Send(stream.substr(at, 333)));
    if (at % 3330 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ASSERT_TRUE(WaitFor([&] { return s.server.FramesOf(s.fd).size() == want.size(); }));
  EXPECT_EQ(s.server.FramesOf(s.fd), want);
  EXPECT_EQ(s.server.Count(s.server.closed), 0u);
}

TEST(UnixIpcManagerTest, ClientStartedBeforeServerConnectsOnRetry) {
  tavo_test::LogCapture log;
  Endpoint client(false, SocketName());
  client.ipc->start();
  ASSERT_TRUE(WaitFor([&] { return log.Count("Wait 5 senconds") == 1; }));
  EXPECT_EQ(log.Count("[UnixIpcManager] Connect failed: 111, message: ", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("Failed to create socket: "), 1);
  Endpoint server(true, SocketName());
  server.ipc->start();
  ASSERT_TRUE(WaitFor([&] { return client.ipc->getSocketFd() >= 0; }, 7000));
  ASSERT_TRUE(WaitFor([&] { return server.Count(server.connected) == 1; }));
  EXPECT_EQ(log.Count("Wait 5 senconds"), 1);
}

TEST(UnixIpcManagerTest, ClientReconnectsAfterServerLoss) {
  tavo_test::LogCapture log;
  auto server = std::make_unique<Endpoint>(true, SocketName());
  server->ipc->start();
  ASSERT_TRUE(WaitFor([&] { return server->ipc->getSocketFd() >= 0; }));
  Endpoint client(false, SocketName());
  client.ipc->start();
  ASSERT_TRUE(WaitFor([&] { return server->Count(server->connected) == 1; }));
  ASSERT_TRUE(WaitFor([&] { return client.ipc->getSocketFd() >= 0; }));
  const int first = client.ipc->getSocketFd();

  server.reset();  // closes the listener and every connection
  ASSERT_TRUE(WaitFor([&] { return log.Count("Wait 5 senconds") >= 1; }));
  EXPECT_EQ(log.Count("[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! ("), 1);
  EXPECT_EQ(client.Count(client.closed), 1u);
  EXPECT_EQ(client.At(client.closed, 0), first);

  // The new server answers from its read callback; the client reads it.
  Endpoint again(true, SocketName(), 32768, Endpoint::ReadMode::kEcho);
  again.ipc->start();
  ASSERT_TRUE(WaitFor([&] { return again.Count(again.connected) == 1; }, 15000));
  const int own = client.ipc->getSocketFd();
  ASSERT_GE(own, 0);
  ASSERT_TRUE(client.Queue(own, "back-1"));
  ASSERT_TRUE(client.Queue(own, "back-2"));
  ASSERT_TRUE(client.ipc->notifyNeedWriteData(own));
  ASSERT_TRUE(WaitFor([&] { return client.FramesOf(own).size() == 2; }));
  EXPECT_EQ(client.FramesOf(own), (std::vector<std::string>{"echo:back-1", "echo:back-2"}));
}

TEST(UnixIpcManagerTest, StopEndsClientRetryWaitAtOnce) {
  tavo_test::LogCapture log;
  auto client = std::make_unique<Endpoint>(false, SocketName());
  client->ipc->start();
  ASSERT_TRUE(WaitFor([&] { return log.Count("Wait 5 senconds") == 1; }));
  const auto start = std::chrono::steady_clock::now();
  client->ipc->stop();
  client.reset();
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), 2000);
  EXPECT_EQ(log.Count("[UnixIpcManager][stop] Stop epoll Manager...", ANDROID_LOG_INFO), 1);
}

TEST(UnixIpcManagerTest, WrongModeAndTakenNameAreRefused) {
  tavo_test::LogCapture log;
  Endpoint server(true, SocketName());
  Endpoint client(false, SocketName());
  EXPECT_FALSE(client.ipc->createServer());
  EXPECT_FALSE(server.ipc->connect());
  EXPECT_EQ(log.Count("[UnixIpcManager] Create server in client manager"), 1);
  EXPECT_EQ(log.Count("[UnixIpcManager] Create client in server manager"), 1);
  server.ipc->start();
  ASSERT_TRUE(WaitFor([&] { return server.ipc->getSocketFd() >= 0; }));
  EXPECT_EQ(log.Count("[UnixIpcManager][start] Create server: " + SocketName()), 1);
  Endpoint second(true, SocketName());
  EXPECT_FALSE(second.ipc->createServer());
  EXPECT_EQ(log.Count("Create socket: " + SocketName() + " failed: ", ANDROID_LOG_WARN), 1);
  EXPECT_EQ(log.Count("[UnixIpcManager] Create server Socket failed: "), 1);
}

}  // namespace
