// The socket manager and the client library over real abstract local
// sockets and real loop threads. Every test uses socket names of its own.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/ipc_frame.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/unix_ipc_manager.h"
#include "tests/support/frames.h"
#include "tests/support/log_capture.h"
#include "tools/tavo_client/tavo_client.h"

using tavo_test::Frame;
using tavo_test::RawPeer;
using tavo_test::WaitFor;

namespace {

std::string SocketName(const std::string& suffix = "") {
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
    if (command < 0) return queues[fd].buildAndAppendIpcPackage(data.data(), data.size());
    return queues[fd].buildAndAppendSecondIpcPackage(command, data.data(), data.size());
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

TEST(UnixIpcManagerTest, FramesArriveWhateverTheReadsCut) {
  std::string stream;
  std::vector<std::string> want;
  for (int i = 0; i < 150; ++i) {
    want.push_back(std::string(static_cast<size_t>(i * 37 % 240), static_cast<char>('a' + i % 26)));
    stream += Frame(2, want.back());
  }
  struct Row {
    int bufferSize;
    bool saveUnused;
    size_t chunk;
  };
  for (const Row& row : {Row{32768, true, stream.size()}, Row{32768, true, 333}, Row{1024, true, 333},
                         Row{1024, false, 333}}) {
    Session s(SocketName(std::to_string(row.bufferSize) + std::to_string(row.saveUnused) + std::to_string(row.chunk)),
              Mode{row.bufferSize, true, false, 0, row.saveUnused, false});
    for (size_t at = 0; at < stream.size(); at += row.chunk) {
      ASSERT_TRUE(s.peer->Send(stream.substr(at, row.chunk)));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(WaitFor([&] { return s.server.FramesOf(s.fd).size() == want.size(); })) << row.chunk;
    EXPECT_EQ(s.server.FramesOf(s.fd), want);
    EXPECT_TRUE(s.server.Get(s.server.closed).empty());
  }
}

TEST(UnixIpcManagerTest, QueuedPackagesArriveInOrderIdleStaysQuietAndFlushRacesLoop) {
  Session s(SocketName());
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    ASSERT_TRUE(s.server.Queue(s.fd, "package-" + std::to_string(i)));
    ASSERT_TRUE(s.server.ipc->notifyNeedWriteData(s.fd));
    expected += Frame(3, "package-" + std::to_string(i));
  }
  EXPECT_EQ(s.peer->Recv(expected.size()), expected);
  // Idle and writable: write readiness is off, so the loop sleeps.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const int calls = s.server.writeCalls.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(s.server.writeCalls.load(), calls);

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

// Which connections end: a frame announcing more than the buffer holds and a
// reader that never consumes can never make progress; a failing read
// callback ends its connection only with closeOnError. Others are still
// served.
TEST(UnixIpcManagerTest, ConnectionsThatCannotProgressOrFailAreClosed) {
  const int64_t huge = 1 << 20;
  std::string smallFrames;
  while (smallFrames.size() < 6000) smallFrames += Frame(0, "0123456789");
  struct Row {
    Mode mode;
    std::string stream, logged;
    bool closes;
  };
  const Row rows[] = {
      {Mode{4096, true, false, 0, false, false}, std::string(reinterpret_cast<const char*>(&huge), 8) + std::string(40000, 'x'),
       "[UnixIpcManager] Frame larger than buffer, close fd(", true},
      {Mode{4096, false, false, 0, false, false}, smallFrames, "[UnixIpcManager] Receive buffer full, close fd(", true},
      {Mode{4096, true, true, -1, true, true}, Frame(0, "req"), "[UnixIpcManager] Callback ipc read handler failed: ", true},
      {Mode{4096, true, true, -1, true, false}, Frame(0, "req"), "[UnixIpcManager] Callback ipc read handler failed: ", false},
  };
  for (const Row& row : rows) {
    tavo_test::LogCapture log;
    Session s(SocketName(std::to_string(&row - rows)), row.mode);
    RawPeer other(s.server.ipc->getPath());
    ASSERT_TRUE(WaitFor([&] { return s.server.Get(s.server.connected).size() == 2; }));
    s.peer->Send(row.stream, 200);  // the server may close before taking all of it
    if (row.closes) {
      EXPECT_TRUE(s.peer->SeesEnd());
      ASSERT_TRUE(WaitFor([&] { return s.server.Get(s.server.closed) == std::vector<int>{s.fd}; }));
    } else {
      // Logged, still open, and the reply the callback left is sent.
      EXPECT_EQ(s.peer->Recv(Frame(3, "echo:req").size()), Frame(3, "echo:req"));
    }
    EXPECT_EQ(log.Count(row.logged, ANDROID_LOG_ERROR), 1) << row.logged;
    if (!row.mode.consume) continue;
    ASSERT_TRUE(other.Send(Frame(0, "still-here")));
    const int otherFd = s.server.Get(s.server.connected).at(1);
    EXPECT_TRUE(WaitFor([&] { return s.server.FramesOf(otherFd).size() == 1; }));
  }
}

// Far more than the socket holds while the peer does not read: 11 tries,
// then the bytes wait in the buffer and go out once the peer reads.
TEST(UnixIpcManagerTest, FullSocketRetriesElevenTimesThenResumes) {
  tavo_test::LogCapture log;
  Session s(SocketName());
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(s.server.Queue(s.fd, std::to_string(i) + std::string(16000, 'z')));
    expected += Frame(3, std::to_string(i) + std::string(16000, 'z'));
  }
  EXPECT_FALSE(s.server.ipc->writeDataNow(s.fd));
  EXPECT_EQ(s.peer->Recv(expected.size()), expected);
  tavo_test::ExpectLogged(log, {{"[UnixIpcManager] Socket buffer full! tryCount: ", ANDROID_LOG_WARN, 11},
                                {"[UnixIpcManager] Send data 10 times failed! leftSize: ", ANDROID_LOG_ERROR, 1},
                                {"[UnixIpcManager] Send ipc data failed: ", -1, 1}});
}

// Client mode: started before its server it waits and retries; it
// reconnects after losing the server; a stop during a retry wait ends it
// at once (a wait that did not end would hang the test). Wrong modes and a
// taken name are refused.
TEST(UnixIpcManagerTest, ClientRetriesReconnectsAndStops) {
  tavo_test::LogCapture log;
  auto client = std::make_unique<Endpoint>(false, SocketName());
  client->ipc->start();
  ASSERT_TRUE(WaitFor([&] { return log.Count("Wait 5 senconds") == 1; }));
  auto server = std::make_unique<Endpoint>(true, SocketName());
  EXPECT_FALSE(client->ipc->createServer());
  EXPECT_FALSE(server->ipc->connect());
  server->ipc->start();
  ASSERT_TRUE(WaitFor([&] { return client->ipc->getSocketFd() >= 0; }, 7000));
  EXPECT_FALSE(Endpoint(true, SocketName()).ipc->createServer());
  const int first = client->ipc->getSocketFd();

  server.reset();  // closes the listener and every connection
  ASSERT_TRUE(WaitFor([&] { return log.Count("Wait 5 senconds") == 2; }));
  EXPECT_EQ(client->Get(client->closed), std::vector<int>{first});
  server = std::make_unique<Endpoint>(true, SocketName(), Mode{32768, true, true, 0, true, false});
  server->ipc->start();
  ASSERT_TRUE(WaitFor([&] { return server->Get(server->connected).size() == 1; }, 15000));
  const int own = client->ipc->getSocketFd();
  ASSERT_TRUE(client->Queue(own, "back-1") && client->Queue(own, "back-2"));
  ASSERT_TRUE(client->ipc->notifyNeedWriteData(own));
  ASSERT_TRUE(WaitFor([&] { return client->FramesOf(own).size() == 2; }));
  EXPECT_EQ(client->FramesOf(own), (std::vector<std::string>{"echo:back-1", "echo:back-2"}));

  server.reset();
  ASSERT_TRUE(WaitFor([&] { return log.Count("Wait 5 senconds") == 3; }));
  client.reset();
  tavo_test::ExpectLogged(log, {
      {"[UnixIpcManager] Connect failed: 111, message: ", ANDROID_LOG_ERROR, 3},
      {"[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (", -1, 2},
      {"[UnixIpcManager] Create server in client manager", -1, 1},
      {"[UnixIpcManager] Create client in server manager", -1, 1},
      {"Create socket: " + SocketName() + " failed: ", ANDROID_LOG_WARN, 1}});
}

// The client library: replies, events in order with malformed packages
// skipped, and its subscriptions renewed after a lost connection.
TEST(TavoClientTest, RequestsEventsMalformedPackagesAndResubscription) {
  Tavo::Client::TavoClient::Options options;
  options.socketPath = SocketName();
  std::mutex lock;
  std::vector<std::string> raw;
  std::atomic<int> ups{0}, downs{0};
  Tavo::Client::TavoClient client(nullptr, options);
  client.SetRawCallback([&](const char* data, size_t n) {
    std::lock_guard<std::mutex> guard(lock);
    raw.emplace_back(data, n);
  });
  client.SetConnectionCallback([&](bool up) { ++(up ? ups : downs); });
  EXPECT_EQ(client.Connect(), -1);  // nobody listens yet
  EXPECT_EQ(client.Subscribe(5), -1);
  EXPECT_EQ(errno, ENOTCONN);

  Endpoint server(true, SocketName());
  server.ipc->start();
  ASSERT_TRUE(WaitFor([&] { return server.ipc->getSocketFd() >= 0; }));
  ASSERT_EQ(client.Connect(), 0);
  EXPECT_EQ(client.Subscribe(5), 0);
  EXPECT_EQ(client.Subscribe(666), -1);
  EXPECT_EQ(errno, EPROTO);
  EXPECT_EQ(client.Subscribe(7), 0);
  EXPECT_EQ(client.Unsubscribe(7), 0);
  const int fd = server.Get(server.connected).back();  // after Connect()'s probe

  // A package whose data length passes its frame, a response too short for
  // its record and one for no request are skipped.
  std::vector<std::string> want;
  for (int i = 0; i < 300; ++i) {
    want.push_back("event-" + std::to_string(i));
    if (i == 100) server.Queue(fd, std::string("\x03\0\0\0\xff\0\0\0abc", 11), -1);
    if (i == 200) server.Queue(fd, std::string(4, '\1'), IPC_COMMAND_RESPONSE);
    if (i == 250) server.Queue(fd, std::string(12, '\x7f'), IPC_COMMAND_RESPONSE);
    server.Queue(fd, want.back());
  }
  server.ipc->notifyNeedWriteData(fd);
  ASSERT_TRUE(WaitFor([&] { return std::lock_guard<std::mutex>(lock), raw.size() == want.size(); }));
  EXPECT_EQ(raw, want);
  EXPECT_EQ(client.ReceivedCount(), want.size());
  // The server drops the connection: the client connects again and renews
  // what it holds (5, not the refused or the unsubscribed code).
  shutdown(fd, SHUT_RDWR);
  ASSERT_TRUE(WaitFor([&] { return server.Get(server.arrivals).size() == 5; }));
  EXPECT_EQ(server.Get(server.arrivals),
            (std::vector<std::string>{"register-event-monitor 5", "register-event-monitor 666", "register-event-monitor 7",
                                      "unregister-event-monitor 7", "register-event-monitor 5"}));
  EXPECT_TRUE(WaitFor([&] { return ups == 2 && downs == 1 && client.IsConnected(); }));
}

}  // namespace
