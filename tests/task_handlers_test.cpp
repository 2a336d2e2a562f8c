// Process, thread and memory handlers driven by records built here; notices
// are compared byte for byte with what a subscribed client receives.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "task/tavo_bpf_task_manager.h"
#include "tests/support/children.h"
#include "tests/support/log_capture.h"
#include "tests/support/task_records.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;
using namespace tavo_test;

namespace {

constexpr uint64_t kT0 = 1000000000000ULL;  // creation stamp of the tasks below
constexpr uint64_t kSec = 1000000000ULL;

TavoBpfService* Service() { return TavoBpfService::GetInstance(); }

// Copy of the stored record; pid 0 when absent.
TavoTask Stored(int pid) {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  TavoTask* task = TavoTaskManager::GetInstance()->GetTavoTask(pid);
  return task != nullptr ? *task : TavoTask{};
}

void Init(int pid, int ppid, const std::string& comm) {
  auto r = InitRecord(pid, ppid, comm, kT0);
  Service()->handleTavoTaskInitEvent(Bytes(r), sizeof(r));
}
void Fork(int pid, int ppid, const std::string& comm, uint64_t ts, uint32_t kind) {
  auto r = CreateRecord(pid, ppid, comm, ts, kind);
  Service()->handleSched_SchedProcessFork(Bytes(r), sizeof(r));
}
void Exit(int pid, const std::string& comm, uint64_t ts, uint32_t kind) {
  auto r = ExitRecord(pid, comm, ts, kind);
  Service()->handleSched_SchedProcessExit(Bytes(r), sizeof(r));
}
void Rss(int pid, int member, int64_t size, uint64_t ts = kT0 + 5 * kSec) {
  auto r = RssRecord(pid, member, size, ts);
  Service()->handleKmem_RssStat(Bytes(r), sizeof(r));
}

const std::string kSelfName = std::string(program_invocation_short_name).substr(0, 15);

}  // namespace

TEST(TaskHandlers, InitRecordFillsTaskWithSwapAndShmemReordered) {
  auto r = InitRecord(4321, 77, "initd", kT0, 9);
  r.rss_file = 1;
  r.rss_anon = 2;
  r.rss_shmem = 3;
  r.rss_swap = 4;
  r.start_time = 1700000000;
  Service()->handleTavoTaskInitEvent(Bytes(r), sizeof(r));
  TavoTask t = Stored(4321);
  EXPECT_EQ(std::make_tuple(t.ppid, t.uid, t.threadNum, t.oldThreadNum, std::string(t.comm)),
            std::make_tuple(77, 1000u, 9u, 9u, std::string("initd")));
  EXPECT_EQ(std::vector<int64_t>(t.rssSize, t.rssSize + 4), (std::vector<int64_t>{1, 2, 4, 3}));
  EXPECT_EQ(std::vector<int64_t>(t.rssOldSize, t.rssOldSize + 4), (std::vector<int64_t>{1, 2, 4, 3}));
  EXPECT_EQ(std::make_tuple(t.initTimeStamp, t.createTimeNs, t.lastUpdateTime, t.mmId),
            std::make_tuple(int64_t{1700000000}, kT0, uint64_t{0}, 0u));
}

TEST(TaskHandlers, ShortRecordsAndUnknownKindsAreRefused) {
  LogCapture log;
  Init(10, 1, "x");
  auto init = InitRecord(11, 1, "x", kT0);
  auto create = CreateRecord(11, 1, "x", kT0, 1);
  auto exit = ExitRecord(10, "x", kT0, 1);
  auto rss = RssRecord(10, 1, 4096, kT0);
  Service()->handleTavoTaskInitEvent(Bytes(init), sizeof(init) - 1);
  Service()->handleSched_SchedProcessFork(Bytes(create), sizeof(create) - 1);
  Service()->handleSched_SchedProcessExit(Bytes(exit), sizeof(exit) - 1);
  Service()->handleKmem_RssStat(Bytes(rss), sizeof(rss) - 1);
  for (const char* text : {"type: 0, size: 87", "type: 2, size: 47", "type: 3, size: 39", "type: 1, size: 31"}) {
    EXPECT_EQ(log.Count(std::string("[TavoBpfService] short task record! ") + text, ANDROID_LOG_ERROR), 1);
  }
  EXPECT_EQ(Stored(11).pid, 0);
  EXPECT_EQ(Stored(10).pid, 10);
  EXPECT_EQ(Stored(10).rssSize[1], 0);

  // Unknown kinds are logged and change nothing.
  Fork(6000, 1, "x", kT0, 3);
  Exit(10, "x", kT0, 0);
  EXPECT_EQ(log.Count("[TavoBpfService] Task Create raw event (SCHED__TASK_CREATE) error!", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(Stored(6000).pid, 0);
  EXPECT_EQ(Stored(10).pid, 10);
}

TEST(TaskHandlers, ProcessForkAndExitSendNotices) {
  NoticeSink sink({50001, 50002});
  Fork(5000, 42, "worker", kT0, 1);
  TavoTask t = Stored(5000);
  EXPECT_EQ(std::make_tuple(t.ppid, t.uid, t.threadNum, t.oldThreadNum, t.createTimeNs),
            std::make_tuple(42, 10001u, 1u, 1u, kT0));
  EXPECT_NEAR(static_cast<double>(t.initTimeStamp), static_cast<double>(GetSystemSecondsTime()), 1.0);
  Fork(5000, 43, "other", kT0 + kSec, 1);  // already registered: ignored
  EXPECT_EQ(Stored(5000).ppid, 42);
  Exit(5000, "worker-exit", kT0 + 2 * kSec, 1);
  EXPECT_EQ(Stored(5000).pid, 0);
  Exit(5999, "ghost", kT0, 1);  // unknown pids are reported too

  const auto notices = sink.Take();
  ASSERT_EQ(notices.size(), 3u);
  EXPECT_EQ(notices[0], AsString(tavo_notice_process_start{50001, 5000, 42, 10001, "worker"}));
  EXPECT_EQ(notices[1], AsString(tavo_notice_process_exit{50002, 5000, "worker-exit"}));
  EXPECT_EQ(notices[2], AsString(tavo_notice_process_exit{50002, 5999, "ghost"}));
}

TEST(TaskHandlers, ForkWithoutParentReadsProcOrFallsBack) {
  NoticeSink sink({50001});
  Fork(getpid(), 0, "placeholder", kT0, 1);
  EXPECT_EQ(Stored(getpid()).ppid, getppid());
  EXPECT_EQ(std::string(Stored(getpid()).comm), kSelfName);

  LogCapture log;
  const int gone = tavo_test::ReapedPid();
  Fork(gone, 0, "vanished", kT0, 1);
  EXPECT_EQ(Stored(gone).ppid, 0);
  EXPECT_STREQ(Stored(gone).comm, "vanished");
  EXPECT_EQ(log.Count("[TavoBpfService][GPI] Task not exists, errno info: No such file or directory",
                      ANDROID_LOG_WARN),
            1);
  const auto notices = sink.Take();
  ASSERT_EQ(notices.size(), 2u);
  EXPECT_EQ(notices[1], AsString(tavo_notice_process_start{50001, gone, 0, 10001, "vanished"}));
}

TEST(TaskHandlers, ThreadNoticesNeedSettlingTimeAndStepOfEleven) {
  NoticeSink sink({50003});
  Init(7000, 1, "threads");
  Fork(7000, 1, "threads", kT0, 2);  // not after the task's creation: ignored
  for (int i = 0; i < 10; ++i) Fork(7000, 1, "threads", kT0 + kSec, 2);
  EXPECT_EQ(Stored(7000).threadNum, 11u);
  EXPECT_TRUE(sink.Take().empty()) << "within the first three seconds";
  Fork(7000, 1, "threads", kT0 + 3 * kSec, 2);  // 12: eleven away from 1
  for (int i = 0; i < 10; ++i) Exit(7000, "threads", kT0 + 4 * kSec, 2);
  Exit(7000, "threads", kT0 + 4 * kSec, 2);  // 1: eleven away from 12
  Fork(7999, 1, "x", kT0 + 5 * kSec, 2);     // thread of an unknown process

  const auto notices = sink.Take();
  ASSERT_EQ(notices.size(), 2u);
  EXPECT_EQ(notices[0], AsString(tavo_notice_thread_count{50003, 7000, 1, 1000, 1, 12}));
  EXPECT_EQ(notices[1], AsString(tavo_notice_thread_count{50003, 7000, 1, 1000, 12, 1}));
  EXPECT_EQ(Stored(7000).oldThreadNum, 1u);
  EXPECT_EQ(Stored(7999).pid, 0);
}

struct MemoryCase {
  int pid;
  int ppid;
  const char* comm;
  uint64_t age;
  bool notice;
};

class MemoryNoticeRule : public testing::TestWithParam<MemoryCase> {};

TEST_P(MemoryNoticeRule, DecidesWhetherToNotify) {
  const MemoryCase& c = GetParam();
  NoticeSink sink({50004});
  Init(c.pid, c.ppid, c.comm);
  Rss(c.pid, 1, 16384, kT0 + c.age);
  EXPECT_EQ(Stored(c.pid).rssSize[1], 16384) << "stored either way";
  EXPECT_EQ(Stored(c.pid).mmId, 1000u);
  EXPECT_EQ(sink.Take().size(), c.notice ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MemoryNoticeRule,
    testing::Values(MemoryCase{1, 0, "init", 3 * kSec, true}, MemoryCase{2, 0, "kthreadd", 3 * kSec, false},
                    MemoryCase{250, 1, "low", 3 * kSec, false}, MemoryCase{300, 1, "low", 3 * kSec, false},
                    MemoryCase{301, 1, "app", 3 * kSec, true}, MemoryCase{4000, 2, "kworker", 3 * kSec, false},
                    MemoryCase{4001, 1, "sh", 3 * kSec, false},
                    MemoryCase{4002, 1, "shell_helper", 3 * kSec, false},
                    MemoryCase{4003, 1, "dumpsys", 3 * kSec, false},
                    MemoryCase{4004, 1, "dumpsysd", 3 * kSec, false}, MemoryCase{4005, 1, "s", 3 * kSec, true},
                    MemoryCase{4006, 1, "dump", 3 * kSec, true},
                    MemoryCase{4007, 1, "young", 3 * kSec - 1, false}));

TEST(TaskHandlers, MemoryNoticeCarriesSizesLastReported) {
  NoticeSink sink({50004});
  auto init = InitRecord(8000, 1, "grower", kT0);
  init.rss_file = 100 << 10;
  init.rss_anon = 200 << 10;
  init.rss_shmem = 300 << 10;
  init.rss_swap = 400 << 10;
  Service()->handleTavoTaskInitEvent(Bytes(init), sizeof(init));
  Rss(8000, 1, (200 << 10) + 16383);
  EXPECT_TRUE(sink.Take().empty()) << "16383 bytes is below the step";
  Rss(8000, 0, (100 << 10) - 1);  // the absolute changes now add up to 16384
  Rss(8000, 1, (200 << 10) + 16483);  // measured from what was just reported

  const auto notices = sink.Take();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0], AsString(tavo_notice_memory{50004, 8000, 1, 1000, "grower",
                                                    {(100 << 10) - 1, (200 << 10) + 16383, 400 << 10, 300 << 10},
                                                    {100 << 10, 200 << 10, 400 << 10, 300 << 10}}));
  EXPECT_EQ(Stored(8000).rssOldSize[1], (200 << 10) + 16383);
}

TEST(TaskHandlers, BadMemberCodesSizesAndUnknownPidsAreDropped) {
  NoticeSink sink({50004});
  Init(8100, 1, "app");
  for (int member : {4, -1, 100}) Rss(8100, member, 1 << 20);
  Rss(8100, 1, -4096);
  TavoTask t = Stored(8100);
  EXPECT_EQ(std::vector<int64_t>(t.rssSize, t.rssSize + 4), std::vector<int64_t>(4, 0));
  EXPECT_EQ(t.mmId, 0u);
  Rss(8199, 1, 1 << 20);
  EXPECT_EQ(Stored(8199).pid, 0);
  EXPECT_TRUE(sink.Take().empty());
}

TEST(TaskHandlers, PlaceholderNamesAreRefreshedAtMostEveryThreeSeconds) {
  for (const char* placeholder : {"main", "re-initialized>"}) {
    auto reset = [&](int64_t secondsAgo) {
      std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
      TavoTask* task = TavoTaskManager::GetInstance()->GetTavoTask(getpid());
      SetComm(task->comm, placeholder);
      task->ppid = 0;
      task->lastUpdateTime = static_cast<uint64_t>(GetSystemSecondsTime() - secondsAgo);
    };
    Init(getpid(), 0, placeholder);
    Rss(getpid(), 1, 4096);  // never read before (lastUpdateTime 0)
    EXPECT_EQ(std::string(Stored(getpid()).comm), kSelfName);
    EXPECT_EQ(Stored(getpid()).ppid, getppid());
    EXPECT_NEAR(static_cast<double>(Stored(getpid()).lastUpdateTime), GetSystemSecondsTime(), 1.0);
    reset(2);
    Rss(getpid(), 1, 8192);
    EXPECT_STREQ(Stored(getpid()).comm, placeholder) << "only two seconds since the last read";
    reset(3);
    Rss(getpid(), 1, 4096);
    EXPECT_EQ(std::string(Stored(getpid()).comm), kSelfName);
  }
  // A placeholder whose process has gone keeps its name; the time still moves.
  const int gone = tavo_test::ReapedPid();
  Init(gone, 1, "main");
  Rss(gone, 1, 4096);
  EXPECT_STREQ(Stored(gone).comm, "main");
  EXPECT_NE(Stored(gone).lastUpdateTime, 0u);
}
