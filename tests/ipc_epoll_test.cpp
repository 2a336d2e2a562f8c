// The epoll loop over a real socket pair: which callbacks a pass calls,
// write readiness on demand, writeEventNow, construction.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <string>
#include <vector>

#include "ipc/epoll_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/tavo_harness.h"

using tavo_test::WaitFor;

namespace {

// A started loop watching one end of a socket pair; counts its callbacks.
struct Loop {
  explicit Loop(std::function<int()> onWrite, int readResult = kIpcCallbackOk) {
    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds);
    ours.reset(fds[0]);
    peer.reset(fds[1]);
    EpollCallback callbacks;
    callbacks.readable = [this, readResult](epoll_event event) {
      char buf[64];
      while (read(event.data.fd, buf, sizeof(buf)) > 0) {
      }
      manager.markWriteEventFinish(event.data.fd);  // the writer may run only in this pass
      return ++reads, readResult;
    };
    callbacks.writable = [this, onWrite](epoll_event) { return ++writes, onWrite(); };
    callbacks.close = [this](epoll_event event) { return manager.delMonitorFd(event.data.fd), ++closes; };
    EXPECT_TRUE(manager.addMonitorFd(ours, callbacks));
  }
  // Lets the loop run a few more passes, so a callback that should not come
  // again has had its chance.
  static void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }

  android::base::unique_fd ours, peer;
  std::atomic<int> reads{0}, writes{0}, closes{0};
  EpollManager manager{EpollOptions{10, 32, nullptr, "IpcEpollT", tavo_test::AllCpus(), -1}};
};

TEST(EpollManagerTest, ConstructionFormsAndStartCallback) {
  tavo_test::LogCapture log;
  cpu_set_t none;
  CPU_ZERO(&none);
  std::atomic<int> starts{0};
  std::string threadName(16, '\0');
  {
    EpollManager manager(10, 32, [&] { return prctl(PR_GET_NAME, &threadName[0], 0, 0, 0), ++starts; }, "IpcEpollT",
                         none, -1);
    manager.start();
    manager.start();  // one loop thread per manager
    ASSERT_TRUE(WaitFor([&] { return starts.load() == 1; }));
  }
  EXPECT_STREQ(threadName.c_str(), "IpcEpollT");
  EpollManager named(10, 32, nullptr, "Named", -1);
  EpollManager unnamed(10, 32, nullptr, -1);  // never started: destruction must not hang
  EXPECT_STREQ(named.getName(), "Named");
  EXPECT_STREQ(unnamed.getName(), "BpfUtils");
  tavo_test::ExpectLogged(log, {{"[EpollManager] cpu affinity invalid!", ANDROID_LOG_ERROR, 1},
                                {"[EpollManager] main thread starting...", ANDROID_LOG_INFO, 2}});
}

// Data and write readiness in one pass: the writable callback runs after
// the readable one only when it returned 0; a hang-up calls close alone.
TEST(EpollManagerTest, ReadableResultGatesWritableAndHangUpCallsOnlyClose) {
  for (int readResult : {kIpcCallbackOk, kIpcCallbackSkipWrite, kIpcCallbackFailed}) {
    Loop loop([] { return kIpcCallbackPeerClosed; }, readResult);
    ASSERT_TRUE(loop.manager.notifyWriteEventReady(loop.ours));
    ASSERT_EQ(write(loop.peer, "x", 1), 1);
    loop.manager.start();
    ASSERT_TRUE(WaitFor([&] { return loop.reads.load() == 1; }));
    Loop::Settle();
    EXPECT_EQ(loop.writes.load(), readResult == kIpcCallbackOk ? 1 : 0) << "read result " << readResult;
    shutdown(loop.peer, SHUT_RDWR);
    ASSERT_TRUE(WaitFor([&] { return loop.closes.load() == 1; }));
    Loop::Settle();
    EXPECT_EQ(loop.reads.load(), 1);
    EXPECT_EQ(loop.closes.load(), 1);
  }
}

TEST(EpollManagerTest, WriteReadinessArmedOnlyWhileWanted) {
  tavo_test::LogCapture log;
  std::atomic<int> zeroes{3};
  std::atomic<bool> renotifyOnce{false};
  Loop* self = nullptr;
  Loop loop([&] {
    // A producer that queues while the writer finishes must not be lost.
    if (renotifyOnce.exchange(false)) self->manager.notifyWriteEventReady(self->ours);
    return zeroes.fetch_sub(1) > 0 ? kIpcCallbackOk : kIpcCallbackPeerClosed;
  });
  self = &loop;
  loop.manager.start();
  Loop::Settle();
  EXPECT_EQ(loop.writes.load(), 0);  // writable socket, but nobody asked
  ASSERT_TRUE(loop.manager.notifyWriteEventReady(loop.ours));
  ASSERT_TRUE(loop.manager.notifyWriteEventReady(loop.ours));  // already on: no second change
  ASSERT_TRUE(WaitFor([&] { return loop.writes.load() >= 4; }));
  Loop::Settle();
  EXPECT_EQ(loop.writes.load(), 4);  // 0, 0, 0, then -3 turned it off
  renotifyOnce = true;
  ASSERT_TRUE(loop.manager.notifyWriteEventReady(loop.ours));
  ASSERT_TRUE(WaitFor([&] { return loop.writes.load() >= 6; }));
  Loop::Settle();
  EXPECT_EQ(loop.writes.load(), 6);

  EXPECT_FALSE(loop.manager.notifyWriteEventReady(999));
  EXPECT_FALSE(loop.manager.markWriteEventFinish(999));
  EXPECT_FALSE(loop.manager.addMonitorFd(-1, EpollCallback()));
  tavo_test::ExpectLogged(log, {{"[EpollManager][notifyWriteEventReady] the socket fd does not exist", -1, 1},
                                {"[EpollManager][markWriteEventFinish] the socket fd does not exist", -1, 1},
                                {"[EpollManager] Epoll add monitor fd failed: ", -1, 1}});
}

// writeEventNow calls the writable callback (mask 0) until it fails (false)
// or has nothing more to write (true).
TEST(EpollManagerTest, WriteEventNowRunsUntilDoneOrFailed) {
  struct Case {
    std::vector<int> results;
    bool want;
  };
  for (const Case& c : {Case{{0, 0, -3}, true}, Case{{5, -1}, false}, Case{{-3}, true}}) {
    size_t calls = 0;
    Loop loop([&] { return c.results[calls++]; });
    EXPECT_EQ(loop.manager.writeEventNow(loop.ours), c.want);
    EXPECT_EQ(calls, c.results.size());
    ASSERT_TRUE(loop.manager.delMonitorFd(loop.ours));
    EXPECT_FALSE(loop.manager.delMonitorFd(loop.ours));
    EXPECT_FALSE(loop.manager.writeEventNow(loop.ours));  // no longer registered
  }
}

}  // namespace
