// Kernel-side correctness straight from the rings: fork and exit records
// for processes, threads and early-exiting group leaders, rss attribution,
// and the ring-full mark.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>

#include "tests/kern_test_rings.h"
#include "tests/support/test_env.h"

using tavo_test::AttachPinnedTracepoint;
using tavo_test::RingCollector;
using Tavo::Loader::kNormalObject;

namespace {

class KernRingTest : public testing::Test {
 protected:
  void SetUp() override { TAVO_REQUIRE_BPFFS(); }
  void Load(Tavo::Loader::LoaderOptions options = {}) {
    Tavo::Loader::LoadReport report;
    ASSERT_TRUE(tavo_test::LoadForTest(options, &report));
    fork_ = AttachPinnedTracepoint(kNormalObject, "sched_sched_process_fork", "sched", "sched_process_fork");
    exit_ = AttachPinnedTracepoint(kNormalObject, "sched_sched_process_exit", "sched", "sched_process_exit");
    rss_ = AttachPinnedTracepoint(kNormalObject, "kmem_rss_stat", "kmem", "rss_stat");
    ASSERT_GE(fork_.get(), 0);
    ASSERT_GE(exit_.get(), 0);
    ASSERT_GE(rss_.get(), 0);
  }
  void Enable(uint64_t flags) { ASSERT_TRUE(tavo_test::SetStatusFlags(kNormalObject, flags)); }

  static std::string Comm(const char* field) { return std::string(field, strnlen(field, TAVO_COMM_LEN)); }

  android::base::unique_fd fork_, exit_, rss_;
};

template <typename T, typename Pred>
std::vector<T> Filter(const std::vector<T>& in, Pred pred) {
  std::vector<T> out;
  std::copy_if(in.begin(), in.end(), std::back_inserter(out), pred);
  return out;
}

// A forked child gives one kind-1 fork and exit; a new thread, kind 2 of its process.
TEST_F(KernRingTest, ForkedChildIsKindOneAndNewThreadKindTwo) {
  Load();
  Enable(TAVO_STATUS_CORE_ENABLED);
  RingCollector ring(kNormalObject);
  ASSERT_TRUE(ring.ok());
  char parentComm[TAVO_COMM_LEN] = {};
  prctl(PR_GET_NAME, parentComm);

  pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_NAME, "tavo_kchild");
    _exit(0);
  }
  ASSERT_GT(child, 0);
  waitpid(child, nullptr, 0);
  pid_t tid = 0;
  std::thread t([&] { tid = gettid(); });
  t.join();
  ring.Drain();

  // (A sanitizer runtime may start threads of its own in the child: kind 2.)
  auto forks = Filter(ring.Of<tavo_task_create_event>(TAVO_EVENT_SCHED_TASK_CREATE),
                      [&](const tavo_task_create_event& r) {
                        return r.pid == child && r.kind == TAVO_TASK_KIND_PROCESS;
                      });
  ASSERT_EQ(forks.size(), 1u);
  EXPECT_EQ(forks[0].ppid, getpid());
  EXPECT_EQ(forks[0].uid, getuid());
  EXPECT_EQ(Comm(forks[0].comm), Comm(parentComm));  // a child starts with its parent's name
  EXPECT_GT(forks[0].hdr.ts, 0u);

  auto exits = Filter(ring.Of<tavo_task_exit_event>(TAVO_EVENT_SCHED_TASK_EXIT),
                      [&](const tavo_task_exit_event& r) {
                        return r.pid == child && r.kind == TAVO_TASK_KIND_PROCESS;
                      });
  ASSERT_EQ(exits.size(), 1u);
  EXPECT_EQ(Comm(exits[0].comm), "tavo_kchild");
  EXPECT_GE(exits[0].hdr.ts, forks[0].hdr.ts);

  auto mine = Filter(ring.Of<tavo_task_create_event>(TAVO_EVENT_SCHED_TASK_CREATE),
                     [&](const tavo_task_create_event& r) { return r.pid == getpid() || r.pid == tid; });
  ASSERT_GE(mine.size(), 1u);  // a sanitizer runtime may add threads of its own
  for (const auto& r : mine) {
    EXPECT_EQ(r.pid, getpid());
    EXPECT_EQ(r.kind, (uint32_t)TAVO_TASK_KIND_THREAD);
  }
  auto threadExits = Filter(ring.Of<tavo_task_exit_event>(TAVO_EVENT_SCHED_TASK_EXIT),
                            [&](const tavo_task_exit_event& r) { return r.pid == getpid() || r.pid == tid; });
  ASSERT_GE(threadExits.size(), 1u);
  for (const auto& r : threadExits) EXPECT_EQ(r.kind, (uint32_t)TAVO_TASK_KIND_THREAD);
}

// Ends the whole process (exit_group), so that helper threads of a
// sanitizer runtime do not keep it alive after the leader is gone.
void* LingeringThread(void*) {
  usleep(200 * 1000);
  _exit(0);
}

TEST_F(KernRingTest, LeaderExitingFirstStillYieldsOneProcessExitAtTheEnd) {
  Load();
  Enable(TAVO_STATUS_CORE_ENABLED);
  RingCollector ring(kNormalObject);
  pid_t child = fork();
  if (child == 0) {
    pthread_t t;
    if (pthread_create(&t, nullptr, LingeringThread, nullptr) != 0) _exit(1);
    // The leader goes first; the process lives on. A raw thread exit, since
    // pthread_exit would unwind through the test framework's frames.
    syscall(SYS_exit, 0);
  }
  ASSERT_GT(child, 0);
  int status = 0;
  waitpid(child, &status, 0);
  ring.Drain();
  // A sanitizer runtime in a child forked from a threaded parent may fail
  // to start the thread; then there is nothing to check.
  if (WIFEXITED(status) && WEXITSTATUS(status) == 1) GTEST_SKIP() << "the child could not start its thread";

  // The leader's exit and any other thread exits are kind 2; exactly one
  // kind 1 comes, with the end of the lingering thread, long after the
  // leader's. (Two threads ending at once may put a kind 2 after it.)
  auto exits = Filter(ring.Of<tavo_task_exit_event>(TAVO_EVENT_SCHED_TASK_EXIT),
                      [&](const tavo_task_exit_event& r) { return r.pid == child; });
  ASSERT_GE(exits.size(), 2u);
  EXPECT_EQ(exits.front().kind, (uint32_t)TAVO_TASK_KIND_THREAD);
  auto ends = Filter(exits, [](const tavo_task_exit_event& r) { return r.kind == TAVO_TASK_KIND_PROCESS; });
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_GE(ends[0].hdr.ts - exits.front().hdr.ts, 100u * 1000 * 1000);
  auto forks = Filter(ring.Of<tavo_task_create_event>(TAVO_EVENT_SCHED_TASK_CREATE),
                      [&](const tavo_task_create_event& r) { return r.pid == child; });
  ASSERT_GE(forks.size(), 2u);
  EXPECT_EQ(forks[0].kind, (uint32_t)TAVO_TASK_KIND_PROCESS);
  for (size_t i = 1; i < forks.size(); ++i) EXPECT_EQ(forks[i].kind, (uint32_t)TAVO_TASK_KIND_THREAD);
}

TEST_F(KernRingTest, CoreGateHoldsBackLifeCycleRecords) {
  Load();
  Enable(TAVO_STATUS_NORMAL_ENABLED);  // bit 1 clear
  RingCollector ring(kNormalObject);
  pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  ring.Drain();
  EXPECT_TRUE(ring.Of<tavo_task_create_event>(TAVO_EVENT_SCHED_TASK_CREATE).empty());
  EXPECT_TRUE(ring.Of<tavo_task_exit_event>(TAVO_EVENT_SCHED_TASK_EXIT).empty());
}

TEST_F(KernRingTest, RssRecordsAreChargedToTheTouchingChild) {
  Tavo::Loader::LoaderOptions options;
  options.rssStepBytes = 4096;  // every page, so the last record is exact
  Load(options);
  Enable(TAVO_STATUS_CORE_ENABLED | TAVO_STATUS_NORMAL_ENABLED);
  RingCollector ring(kNormalObject);
  constexpr size_t kBytes = 64u << 20;
  int fds[2], report[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(pipe(report), 0);
  pid_t child = fork();
  if (child == 0) {
    close(fds[1]);
    close(report[0]);
    char* p = static_cast<char*>(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (p == MAP_FAILED) _exit(1);
    madvise(p, kBytes, MADV_NOHUGEPAGE);
    for (size_t i = 0; i < kBytes; i += 4096) p[i] = 1;
    const int64_t final = tavo_test::ChildRssAnonBytes();
    if (write(report[1], &final, sizeof(final)) != sizeof(final)) _exit(1);
    char c = 0;
    if (read(fds[0], &c, 1) < 0) _exit(1);  // hold the memory until the parent has looked
    _exit(0);
  }
  close(fds[0]);
  close(report[1]);
  // The child's own count once it has touched everything.
  int64_t final = 0;
  ASSERT_EQ(read(report[0], &final, sizeof(final)), static_cast<ssize_t>(sizeof(final)));
  close(report[0]);
  std::vector<tavo_rss_stat_event> anon;
  for (int i = 0; i < 100; ++i) {
    ring.Drain(50);
    anon = Filter(ring.Of<tavo_rss_stat_event>(TAVO_EVENT_KMEM_RSS_INFO), [&](const tavo_rss_stat_event& r) {
      return r.pid == child && r.member == TAVO_RSS_ANON;
    });
    if (!anon.empty() && anon.back().size >= final - 4096) break;
  }
  close(fds[1]);
  waitpid(child, nullptr, 0);
  ASSERT_FALSE(anon.empty());
  // The first record came with the first touched pages; the last one holds
  // all of them, as the child's own counter says (within a page; older
  // kernels batch at either end).
  EXPECT_GE(anon.back().size - anon.front().size, (int64_t)kBytes - 2 * 4096 - 2 * tavo_test::kRssBatchBytes);
  EXPECT_GE(anon.back().size, final - 4096);
  // A sanitizer runtime in the child still maps a few shadow pages after it
  // read its counter, and an older kernel may flush a batch after the read.
  EXPECT_LE(anon.back().size,
            final + 4096 + tavo_test::kRssBatchBytes + std::min<int64_t>(tavo_test::kSanitizerSlack, 1 << 20));
  // Nothing of it was charged to the parent.
  auto parent = Filter(ring.Of<tavo_rss_stat_event>(TAVO_EVENT_KMEM_RSS_INFO), [&](const tavo_rss_stat_event& r) {
    return r.pid == getpid() && r.member == TAVO_RSS_ANON && r.size >= (int64_t)kBytes;
  });
  EXPECT_TRUE(parent.empty());
}

TEST_F(KernRingTest, TinyRingUnderForkStormSetsTheFullBit) {
  Tavo::Loader::LoaderOptions options;
  options.normalRingBytes = 4096;
  Load(options);
  Enable(TAVO_STATUS_CORE_ENABLED);
  EXPECT_EQ(tavo_test::StatusValue(kNormalObject, TAVO_STATUS_RING_SIZE), 4096u);
  for (int i = 0; i < 200; ++i) {  // ~20 KiB of records, nobody reading
    pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
  }
  EXPECT_TRUE(tavo_test::StatusValue(kNormalObject, TAVO_STATUS_FLAGS) & TAVO_STATUS_RING_FULL);
  EXPECT_GT(tavo_test::StatusValue(kNormalObject, TAVO_STATUS_AVAIL_DATA), 0u);
  EXPECT_GT(tavo_test::StatusValue(kNormalObject, TAVO_STATUS_PROD_POS), 0u);
}

}  // namespace
