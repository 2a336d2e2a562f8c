// The socket manager and the client library over real abstract local
// sockets and real loop threads. Every test uses socket names of its own.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/ipc_endpoint.h"
#include "tests/support/log_capture.h"
#include "client/tavo_client.h"

using tavo_test::Endpoint;
using tavo_test::Frame;
using tavo_test::Mode;
using tavo_test::RawPeer;
using tavo_test::Session;
using tavo_test::SocketName;
using tavo_test::WaitFor;

namespace {

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
// then the bytes wait in the buffer and go out once the peer reads. A second
// burst soon after logs nothing.
TEST(UnixIpcManagerTest, FullSocketRetriesElevenTimesThenResumes) {
  tavo_test::LogCapture log;
  Session s(SocketName());
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(s.server.Queue(s.fd, std::to_string(i) + std::string(16000, 'z')));
    expected += Frame(3, std::to_string(i) + std::string(16000, 'z'));
  }
  EXPECT_FALSE(s.server.ipc->writeDataNow(s.fd));
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
  // The server may accept before the client has registered its side.
  ASSERT_TRUE(WaitFor([&] { return client->ipc->getSocketFd() >= 0; }));
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

TEST(IpcPeerPolicyTest, ParsesListsAndMatchesUidGidAndGroups) {
  tavo_test::LogCapture log;
  const IpcPeerPolicy policy = IpcPeerPolicy::FromAllowedIds(" 4242, g:4343 ,bogus,g:x,,-1");
  struct Case {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
    bool allowed;
  };
  const Case cases[] = {{0, 9, {}, true},         {geteuid() == 0 ? 1u : geteuid(), 9, {}, geteuid() != 0},
                        {4242, 9, {}, true},      {9, 4343, {}, true},
                        {9, 9, {7, 4343}, true},  {9, 9, {4242}, false},
                        {4343, 4242, {}, false}};
  for (const Case& c : cases) {
    EXPECT_EQ(policy.allows({1, c.uid, c.gid, c.groups}), c.allowed) << c.uid << " " << c.gid;
    EXPECT_TRUE(IpcPeerPolicy().allows({1, c.uid, c.gid, c.groups}));
  }
  EXPECT_EQ(log.Count("[IpcPeerPolicy] ignoring allowed id \""), 3);  // bogus, g:x, -1
}

// Past the connection limit a peer is accepted and closed at once; a
// restricted policy closes peers whose credentials it does not list. Peers
// take other ids on a thread of their own (raw system calls change only the
// calling thread's credentials).
TEST(UnixIpcManagerTest, ConnectionLimitAndPeerPolicyCloseAtAccept) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to connect under other ids";
  tavo_test::LogCapture log;
  Mode mode;
  mode.maxConnections = 5;
  mode.policy = IpcPeerPolicy::FromAllowedIds("4242,g:4343");
  Session s(SocketName(), mode);
  auto connectAs = [&](uid_t uid, gid_t gid, std::vector<gid_t> groups) {
    std::unique_ptr<RawPeer> peer;
    std::thread([&] {
      syscall(SYS_setgroups, groups.size(), groups.data());
      syscall(SYS_setresgid, -1, gid, -1);
      syscall(SYS_setresuid, -1, uid, -1);
      peer = std::make_unique<RawPeer>(s.server.ipc->getPath());
    }).join();
    return peer;
  };
  std::vector<std::unique_ptr<RawPeer>> peers;
  peers.push_back(connectAs(65534, 65534, {}));  // refused
  peers.push_back(connectAs(4242, 65534, {}));
  peers.push_back(connectAs(65534, 4343, {}));
  peers.push_back(connectAs(65534, 65534, {4343}));
  peers.push_back(connectAs(0, 0, {}));
  peers.push_back(connectAs(0, 0, {}));  // 6th and 7th: past the limit of 5
  peers.push_back(connectAs(0, 0, {}));
  for (size_t i = 0; i < peers.size(); ++i) {
    ASSERT_TRUE(peers[i]->ok());
    ASSERT_TRUE(peers[i]->Send(Frame(2, "p" + std::to_string(i)), 1000) || i == 0 || i > 4);
  }
  EXPECT_TRUE(peers[0]->SeesEnd());
  EXPECT_TRUE(peers[5]->SeesEnd());
  EXPECT_TRUE(peers[6]->SeesEnd());
  ASSERT_TRUE(WaitFor([&] { return s.server.Get(s.server.arrivals).size() == 4; }));
  EXPECT_EQ(s.server.Get(s.server.arrivals), (std::vector<std::string>{"p1", "p2", "p3", "p4"}));
  const IpcAcceptStats stats = s.server.ipc->getAcceptStats();
  EXPECT_EQ(stats.refusedPeers, 1u);
  EXPECT_EQ(stats.overLimit, 2u);
  tavo_test::ExpectLogged(
      log, {{"[UnixIpcManager] Refused peer pid " + std::to_string(getpid()) + " uid 65534, 1 refused so far", -1, 1},
            {"[UnixIpcManager] Connection limit 5 reached, ", ANDROID_LOG_WARN, 1}});
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
