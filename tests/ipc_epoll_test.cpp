// The epoll loop over real socket pairs: callback order, write readiness,
// writeEventNow, start and stop.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "ipc/epoll_manager.h"
#include "tests/support/wait.h"
#include "tests/support/log_capture.h"

using tavo_test::WaitFor;

namespace {

struct SocketPair {
  SocketPair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds); }
  ~SocketPair() {
    close(fds[0]);
    close(fds[1]);
  }
  int fds[2] = {-1, -1};
};

TEST(EpollManagerTest, ConstructionFormsAndStartCallback) {
  tavo_test::LogCapture log;
  cpu_set_t none;
  CPU_ZERO(&none);
  std::atomic<int> starts{0};
  std::string threadName;
  {
    EpollManager manager(10, 32, [&] {
      char buf[16] = {};
      prctl(PR_GET_NAME, buf, 0, 0, 0);
      threadName = buf;
      return ++starts;
    }, "IpcEpollT", none, -1);
    EXPECT_EQ(log.Count("[EpollManager] cpu affinity invalid!", ANDROID_LOG_ERROR), 1);
    EXPECT_STREQ(manager.getName(), "IpcEpollT");
    manager.start();
    manager.start();  // a second start does not start a second thread
    ASSERT_TRUE(WaitFor([&] { return starts.load() == 1; }));
  }
  EXPECT_EQ(threadName, "IpcEpollT");
  EXPECT_EQ(log.Count("[EpollManager] main thread starting...", ANDROID_LOG_INFO), 2);

  EpollManager named(10, 32, nullptr, "Named", -1);
  EpollManager unnamed(10, 32, nullptr, -1);  // never started: destruction must not hang
  EXPECT_STREQ(unnamed.getName(), "BpfUtils");
  EXPECT_EQ(log.Count("[EpollManager] cpu affinity invalid!"), 1);
}

TEST(EpollManagerTest, ReadableResultGatesWritableInSamePass) {
  // The readable callback turns write readiness off; the writable callback
  // still runs in this pass only when readable returned 0.
  for (int readResult : {0, 1, -1}) {
    SocketPair pair;
    EpollManager manager(10, 32, nullptr, "IpcEpollT", tavo_test::AllCpus(), -1);
    std::atomic<int> reads{0};
    std::atomic<int> writes{0};
    EpollCallback callbacks;
    callbacks.readable = [&](epoll_event event) {
      char buf[64];
      while (read(event.data.fd, buf, sizeof(buf)) > 0) {
      }
      manager.markWriteEventFinish(event.data.fd);
      ++reads;
      return readResult;
    };
    callbacks.writable = [&](epoll_event) {
      ++writes;
      return -3;
    };
    ASSERT_TRUE(manager.addMonitorFd(pair.fds[0], callbacks));
    ASSERT_TRUE(manager.notifyWriteEventReady(pair.fds[0]));
    ASSERT_EQ(write(pair.fds[1], "x", 1), 1);
    manager.start();
    ASSERT_TRUE(WaitFor([&] { return reads.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(writes.load(), readResult == 0 ? 1 : 0) << "read result " << readResult;
  }
}

TEST(EpollManagerTest, WriteReadinessArmedOnlyWhileWanted) {
  tavo_test::LogCapture log;
  SocketPair pair;
  const int fd = pair.fds[0];
  EpollManager manager(10, 32, nullptr, "IpcEpollT", tavo_test::AllCpus(), -1);
  std::atomic<int> writes{0};
  std::atomic<int> zeroes{3};
  std::atomic<bool> renotifyOnce{false};
  EpollCallback callbacks;
  callbacks.writable = [&](epoll_event event) {
    ++writes;
    // A producer that queues while the writer finishes must not be lost.
    if (renotifyOnce.exchange(false)) {
      manager.notifyWriteEventReady(event.data.fd);
      return -3;
    }
    return zeroes.fetch_sub(1) > 0 ? 0 : -3;
  };
  ASSERT_TRUE(manager.addMonitorFd(fd, callbacks));
  manager.start();
  const int tid = tavo_test::FindThread("IpcEpollT");
  const long cpuBefore = tavo_test::ThreadCpuMs(tid);

  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(writes.load(), 0);  // writable socket, but nobody asked
  ASSERT_TRUE(manager.notifyWriteEventReady(fd));
  ASSERT_TRUE(WaitFor([&] { return writes.load() >= 4; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(writes.load(), 4);  // 0, 0, 0, then -3 turned it off

  renotifyOnce = true;
  ASSERT_TRUE(manager.notifyWriteEventReady(fd));
  ASSERT_TRUE(WaitFor([&] { return writes.load() >= 6; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(writes.load(), 6);
  EXPECT_LT(tavo_test::ThreadCpuMs(tid) - cpuBefore, 200);

  EXPECT_TRUE(manager.markWriteEventFinish(fd));
  EXPECT_FALSE(manager.notifyWriteEventReady(999));
  EXPECT_FALSE(manager.markWriteEventFinish(999));
  EXPECT_EQ(log.Count("[EpollManager][notifyWriteEventReady] the socket fd does not exist"), 1);
  EXPECT_EQ(log.Count("[EpollManager][markWriteEventFinish] the socket fd does not exist"), 1);
  EXPECT_TRUE(manager.delMonitorFd(fd));
  EXPECT_FALSE(manager.delMonitorFd(fd));
  EXPECT_EQ(log.Count("[EpollManager] Epoll del fd from epoll failed: "), 1);
}

TEST(EpollManagerTest, NotifyTwiceIsOneChange) {
  SocketPair pair;
  EpollManager manager(10, 32, nullptr, "IpcEpollT", tavo_test::AllCpus(), -1);
  std::atomic<int> writes{0};
  EpollCallback callbacks;
  callbacks.writable = [&](epoll_event) { return ++writes, -3; };
  ASSERT_TRUE(manager.addMonitorFd(pair.fds[0], callbacks));
  ASSERT_TRUE(manager.notifyWriteEventReady(pair.fds[0]));
  ASSERT_TRUE(manager.notifyWriteEventReady(pair.fds[0]));
  manager.start();
  ASSERT_TRUE(WaitFor([&] { return writes.load() >= 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(writes.load(), 1);
}

TEST(EpollManagerTest, WriteEventNowRunsUntilDoneOrFailed) {
  tavo_test::LogCapture log;
  SocketPair pair;
  EpollManager manager(10, 32, nullptr, "IpcEpollT", tavo_test::AllCpus(), -1);
  EXPECT_FALSE(manager.writeEventNow(pair.fds[0]));
  EXPECT_EQ(log.Count("[EpollManager][notifyWriteEventReady] the socket fd does not exist"), 1);

  struct Case {
    std::vector<int> results;
    bool want;
  };
  for (const Case& c : {Case{{0, 0, -3}, true}, Case{{5, -1}, false}, Case{{-3}, true}}) {
    size_t calls = 0;
    uint32_t mask = 1;
    EpollCallback callbacks;
    callbacks.writable = [&](epoll_event event) {
      mask = event.events;
      EXPECT_EQ(event.data.fd, pair.fds[0]);
      return c.results[calls++];
    };
    ASSERT_TRUE(manager.addMonitorFd(pair.fds[0], callbacks));
    EXPECT_EQ(manager.writeEventNow(pair.fds[0]), c.want);
    EXPECT_EQ(calls, c.results.size());
    EXPECT_EQ(mask, 0u);
    ASSERT_TRUE(manager.delMonitorFd(pair.fds[0]));
  }
  EpollCallback readOnly;
  readOnly.readable = [](epoll_event) { return 0; };
  ASSERT_TRUE(manager.addMonitorFd(pair.fds[0], readOnly));
  EXPECT_FALSE(manager.writeEventNow(pair.fds[0]));
  EXPECT_FALSE(manager.notifyWriteEventReady(pair.fds[0]));
  EXPECT_FALSE(manager.addMonitorFd(-1, readOnly));
  EXPECT_EQ(log.Count("[EpollManager] Epoll add monitor fd failed: "), 1);
}

TEST(EpollManagerTest, HangUpCallsOnlyClose) {
  SocketPair pair;
  EpollManager manager(10, 32, nullptr, "IpcEpollT", tavo_test::AllCpus(), -1);
  std::atomic<int> closes{0};
  std::atomic<int> reads{0};
  EpollCallback callbacks;
  callbacks.readable = [&](epoll_event event) {
    char buf[16];
    while (read(event.data.fd, buf, sizeof(buf)) > 0) {
    }
    return ++reads, 0;
  };
  callbacks.close = [&](epoll_event event) {
    manager.delMonitorFd(event.data.fd);
    return ++closes, 0;
  };
  ASSERT_TRUE(manager.addMonitorFd(pair.fds[0], callbacks));
  manager.start();
  ASSERT_EQ(write(pair.fds[1], "bye", 3), 3);
  shutdown(pair.fds[1], SHUT_RDWR);
  ASSERT_TRUE(WaitFor([&] { return closes.load() == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(closes.load(), 1);
  EXPECT_LE(reads.load(), 1);  // data and hang-up may arrive in separate passes
  manager.stop();
}

}  // namespace
