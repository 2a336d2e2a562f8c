// Process, thread and memory handlers driven by records built here.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>

#include "task/tavo_bpf_task_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/task_records.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;
using namespace tavo_test;

namespace {

constexpr uint64_t kT0 = 1000000000000ULL;  // creation stamp of every task below
constexpr uint64_t kSec = 1000000000ULL;

TavoBpfService* Service() { return TavoBpfService::GetInstance(); }

TavoTask Snapshot(int pid) {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  TavoTask* task = TavoTaskManager::GetInstance()->GetTavoTask(pid);
  return task != nullptr ? *task : TavoTask{};
}

bool Registered(int pid) {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  return TavoTaskManager::GetInstance()->GetTavoTask(pid) != nullptr;
}

void Init(int pid, int ppid, const std::string& comm, uint32_t threads = 1) {
  auto r = InitRecord(pid, ppid, comm, kT0, threads);
  Service()->handleTavoTaskInitEvent(Bytes(r), sizeof(r));
}

void Rss(int pid, int member, int64_t size, uint64_t ts = kT0 + 5 * kSec) {
  auto r = RssRecord(pid, member, size, ts);
  Service()->handleKmem_RssStat(Bytes(r), sizeof(r));
}

int ReapedPid() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  return child;
}

}  // namespace

TEST(TaskHandlers, InitRecordFillsTaskWithSwapAndShmemReordered) {
  auto r = InitRecord(4321, 77, "initd", kT0, 9);
  r.uid = 1234;
  r.rss_file = 1 << 20;
  r.rss_anon = 2 << 20;
  r.rss_shmem = 3 << 20;
  r.rss_swap = 4 << 20;
  r.start_time = 1700000000;
  NoticeSink sink({50001, 50002, 50003, 50004});
  EXPECT_EQ(Service()->handleTavoTaskInitEvent(Bytes(r), sizeof(r)), 0);
  TavoTask t = Snapshot(4321);
  EXPECT_EQ(t.ppid, 77);
  EXPECT_EQ(t.uid, 1234u);
  EXPECT_EQ(t.threadNum, 9u);
  EXPECT_EQ(t.oldThreadNum, 9u);
  EXPECT_STREQ(t.comm, "initd");
  const int64_t expected[4] = {1 << 20, 2 << 20, 4 << 20, 3 << 20};  // file, anon, swap, shmem
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(t.rssSize[i], expected[i]) << i;
    EXPECT_EQ(t.rssOldSize[i], expected[i]) << i;
  }
  EXPECT_EQ(t.initTimeStamp, 1700000000);
  EXPECT_EQ(t.createTimeNs, kT0);
  EXPECT_EQ(t.lastUpdateTime, 0u);
  EXPECT_TRUE(sink.Take().empty());
}

TEST(TaskHandlers, ShortRecordsAreRefusedWithoutReading) {
  LogCapture log;
  auto init = InitRecord(10, 1, "x", kT0);
  auto create = CreateRecord(11, 1, "x", kT0, 1);
  auto exit = ExitRecord(10, "x", kT0, 1);
  auto rss = RssRecord(10, 1, 4096, kT0);
  Service()->handleTavoTaskInitEvent(Bytes(init), sizeof(init) - 1);
  Service()->handleSched_SchedProcessFork(Bytes(create), sizeof(create) - 1);
  Init(10, 1, "x");
  Service()->handleSched_SchedProcessExit(Bytes(exit), sizeof(exit) - 1);
  Service()->handleKmem_RssStat(Bytes(rss), sizeof(rss) - 1);
  EXPECT_EQ(log.Count("[TavoBpfService] short task record! type: 0, size: 87", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] short task record! type: 2, size: 47", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] short task record! type: 3, size: 39", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] short task record! type: 1, size: 31", ANDROID_LOG_ERROR), 1);
  EXPECT_FALSE(Registered(11));
  EXPECT_TRUE(Registered(10));
  EXPECT_EQ(Snapshot(10).rssSize[1], 0);
}

TEST(TaskHandlers, ForkAndExitOfProcessesSendNotices) {
  NoticeSink sink({50001, 50002});
  auto create = CreateRecord(5000, 42, "worker", kT0, 1);
  EXPECT_EQ(Service()->handleSched_SchedProcessFork(Bytes(create), sizeof(create)), 0);
  TavoTask t = Snapshot(5000);
  EXPECT_EQ(t.ppid, 42);
  EXPECT_EQ(t.uid, 10001u);
  EXPECT_EQ(t.threadNum, 1u);
  EXPECT_EQ(t.oldThreadNum, 1u);
  EXPECT_EQ(t.createTimeNs, kT0);
  EXPECT_NEAR(static_cast<double>(t.initTimeStamp), static_cast<double>(GetSystemSecondsTime()), 1.0);

  // Already registered: nothing changes, nothing is sent.
  auto again = CreateRecord(5000, 43, "other", kT0 + kSec, 1);
  Service()->handleSched_SchedProcessFork(Bytes(again), sizeof(again));
  EXPECT_EQ(Snapshot(5000).ppid, 42);

  auto exit = ExitRecord(5000, "worker-exit", kT0 + 2 * kSec, 1);
  Service()->handleSched_SchedProcessExit(Bytes(exit), sizeof(exit));
  EXPECT_FALSE(Registered(5000));
  auto unknown = ExitRecord(5999, "ghost", kT0, 1);
  Service()->handleSched_SchedProcessExit(Bytes(unknown), sizeof(unknown));

  const auto notices = sink.Take();
  ASSERT_EQ(notices.size(), 3u);
  std::string start(32, '\0');
  const uint32_t code = 50001;
  const int32_t pid = 5000, ppid = 42;
  const uint32_t uid = 10001;
  memcpy(&start[0], &code, 4);
  memcpy(&start[4], &pid, 4);
  memcpy(&start[8], &ppid, 4);
  memcpy(&start[12], &uid, 4);
  memcpy(&start[16], "worker", 6);
  EXPECT_EQ(notices[0], start);
  std::string end(24, '\0');
  const uint32_t exitCode = 50002;
  memcpy(&end[0], &exitCode, 4);
  memcpy(&end[4], &pid, 4);
  memcpy(&end[8], "worker-exit", 11);
  EXPECT_EQ(notices[1], end);
  auto ghost = As<tavo_notice_process_exit>(notices[2]);
  EXPECT_EQ(ghost.pid, 5999);
  EXPECT_STREQ(ghost.comm, "ghost");
}

TEST(TaskHandlers, ForkWithoutParentReadsProcOrFallsBack) {
  NoticeSink sink({50001});
  auto self = CreateRecord(getpid(), 0, "placeholder", kT0, 1);
  Service()->handleSched_SchedProcessFork(Bytes(self), sizeof(self));
  TavoTask t = Snapshot(getpid());
  EXPECT_EQ(t.ppid, getppid());
  EXPECT_STREQ(t.comm, std::string(program_invocation_short_name).substr(0, 15).c_str());

  LogCapture log;
  const int gone = ReapedPid();
  auto vanished = CreateRecord(gone, 0, "vanished", kT0, 1);
  Service()->handleSched_SchedProcessFork(Bytes(vanished), sizeof(vanished));
  t = Snapshot(gone);
  EXPECT_EQ(t.ppid, 0);
  EXPECT_STREQ(t.comm, "vanished");
  EXPECT_EQ(log.Count("[TavoBpfService][GPI] Task not exists, errno info: No such file or directory",
                      ANDROID_LOG_WARN),
            1);
  EXPECT_EQ(sink.Take().size(), 2u);
}

TEST(TaskHandlers, UnknownKindsAreLogged) {
  LogCapture log;
  auto create = CreateRecord(6000, 1, "x", kT0, 3);
  auto exit = ExitRecord(6000, "x", kT0, 0);
  Service()->handleSched_SchedProcessFork(Bytes(create), sizeof(create));
  Service()->handleSched_SchedProcessExit(Bytes(exit), sizeof(exit));
  EXPECT_EQ(log.Count("[TavoBpfService] Task Create raw event (SCHED__TASK_CREATE) error!", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!", ANDROID_LOG_ERROR), 1);
  EXPECT_FALSE(Registered(6000));
}

TEST(TaskHandlers, ThreadNoticesNeedSettlingTimeAndStepOfEleven) {
  NoticeSink sink({50003});
  Init(7000, 1, "threads");
  auto thread = [](uint64_t ts, bool created) {
    if (created) {
      auto r = CreateRecord(7000, 1, "threads", ts, 2);
      Service()->handleSched_SchedProcessFork(Bytes(r), sizeof(r));
    } else {
      auto r = ExitRecord(7000, "threads", ts, 2);
      Service()->handleSched_SchedProcessExit(Bytes(r), sizeof(r));
    }
  };
  thread(kT0, true);  // not after creation: ignored
  EXPECT_EQ(Snapshot(7000).threadNum, 1u);
  for (int i = 0; i < 10; ++i) thread(kT0 + kSec, true);
  EXPECT_EQ(Snapshot(7000).threadNum, 11u);
  EXPECT_TRUE(sink.Take().empty()) << "within the first three seconds";
  thread(kT0 + 3 * kSec, true);
  for (int i = 0; i < 10; ++i) thread(kT0 + 4 * kSec, false);
  EXPECT_EQ(sink.Take().size(), 1u);
  thread(kT0 + 4 * kSec, false);

  const auto notices = sink.Take();
  ASSERT_EQ(notices.size(), 1u);
  auto n = As<tavo_notice_thread_count>(notices[0]);
  EXPECT_EQ(n.code, 50003u);
  EXPECT_EQ(n.pid, 7000);
  EXPECT_EQ(n.ppid, 1);
  EXPECT_EQ(n.uid, 1000u);
  EXPECT_EQ(n.old_thread_num, 12u);
  EXPECT_EQ(n.thread_num, 1u);
  EXPECT_EQ(Snapshot(7000).oldThreadNum, 1u);

  auto stranger = CreateRecord(7999, 1, "x", kT0 + 5 * kSec, 2);
  Service()->handleSched_SchedProcessFork(Bytes(stranger), sizeof(stranger));
  EXPECT_FALSE(Registered(7999));
}

struct MemoryCase {
  const char* what;
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
  EXPECT_EQ(Snapshot(c.pid).rssSize[1], 16384) << "stored either way";
  EXPECT_EQ(Snapshot(c.pid).mmId, 1000u);
  EXPECT_EQ(sink.Take().size(), c.notice ? 1u : 0u) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MemoryNoticeRule,
    testing::Values(MemoryCase{"pid 1 is reported", 1, 0, "init", 3 * kSec, true},
                    MemoryCase{"pid 2", 2, 0, "kthreadd", 3 * kSec, false},
                    MemoryCase{"pid 250", 250, 1, "low", 3 * kSec, false},
                    MemoryCase{"pid 300", 300, 1, "low", 3 * kSec, false},
                    MemoryCase{"pid 301", 301, 1, "app", 3 * kSec, true},
                    MemoryCase{"kernel thread", 4000, 2, "kworker", 3 * kSec, false},
                    MemoryCase{"sh", 4001, 1, "sh", 3 * kSec, false},
                    MemoryCase{"shell_helper", 4002, 1, "shell_helper", 3 * kSec, false},
                    MemoryCase{"dumpsys", 4003, 1, "dumpsys", 3 * kSec, false},
                    MemoryCase{"dumpsys-like", 4004, 1, "dumpsysd", 3 * kSec, false},
                    MemoryCase{"s alone", 4005, 1, "s", 3 * kSec, true},
                    MemoryCase{"dump", 4006, 1, "dump", 3 * kSec, true},
                    MemoryCase{"still settling", 4007, 1, "young", 3 * kSec - 1, false}));

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
  Rss(8000, 0, (100 << 10) - 1);  // the absolute changes add up to 16384
  auto notices = sink.Take();
  ASSERT_EQ(notices.size(), 1u);
  ASSERT_EQ(notices[0].size(), 96u);
  auto n = As<tavo_notice_memory>(notices[0]);
  EXPECT_EQ(n.code, 50004u);
  EXPECT_EQ(n.pid, 8000);
  EXPECT_EQ(n.ppid, 1);
  EXPECT_EQ(n.uid, 1000u);
  EXPECT_STREQ(n.comm, "grower");
  const int64_t current[4] = {(100 << 10) - 1, (200 << 10) + 16383, 400 << 10, 300 << 10};
  const int64_t reported[4] = {100 << 10, 200 << 10, 400 << 10, 300 << 10};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(n.current[i], current[i]) << i;
    EXPECT_EQ(n.reported[i], reported[i]) << i;
    EXPECT_EQ(Snapshot(8000).rssOldSize[i], current[i]) << i;
  }
  Rss(8000, 1, (200 << 10) + 16383 + 100);
  EXPECT_TRUE(sink.Take().empty()) << "measured from what was reported";
}

TEST(TaskHandlers, BadMemberCodesSizesAndUnknownPidsAreDropped) {
  NoticeSink sink({50004});
  Init(8100, 1, "app");
  for (int member : {4, -1, 100}) Rss(8100, member, 1 << 20);
  Rss(8100, 1, -4096);
  TavoTask t = Snapshot(8100);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(t.rssSize[i], 0) << i;
  EXPECT_EQ(t.mmId, 0u);
  Rss(8199, 1, 1 << 20);
  EXPECT_FALSE(Registered(8199));
  EXPECT_TRUE(sink.Take().empty());
}

TEST(TaskHandlers, PlaceholderNamesAreRefreshedAtMostEveryThreeSeconds) {
  const std::string real = std::string(program_invocation_short_name).substr(0, 15);
  for (const char* placeholder : {"main", "re-initialized>"}) {
    Init(getpid(), 0, placeholder);
    Rss(getpid(), 1, 4096);  // never refreshed before: refreshed now
    TavoTask t = Snapshot(getpid());
    EXPECT_STREQ(t.comm, real.c_str());
    EXPECT_EQ(t.ppid, getppid());
    EXPECT_NEAR(static_cast<double>(t.lastUpdateTime), static_cast<double>(GetSystemSecondsTime()), 1.0);

    auto setIdentity = [&](uint64_t lastUpdate) {
      std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
      TavoTask* task = TavoTaskManager::GetInstance()->GetTavoTask(getpid());
      SetComm(task->comm, placeholder);
      task->ppid = 0;
      task->lastUpdateTime = lastUpdate;
    };
    setIdentity(static_cast<uint64_t>(GetSystemSecondsTime() - 2));
    Rss(getpid(), 1, 8192);
    EXPECT_STREQ(Snapshot(getpid()).comm, placeholder) << "only two seconds since the last read";
    setIdentity(static_cast<uint64_t>(GetSystemSecondsTime() - 3));
    Rss(getpid(), 1, 4096);
    EXPECT_STREQ(Snapshot(getpid()).comm, real.c_str());
  }

  // A placeholder whose process has gone keeps its name; the time still moves.
  LogCapture log;
  const int gone = ReapedPid();
  Init(gone, 1, "main");
  Rss(gone, 1, 4096);
  EXPECT_STREQ(Snapshot(gone).comm, "main");
  EXPECT_NE(Snapshot(gone).lastUpdateTime, 0u);
  EXPECT_EQ(log.Count("Task not exists"), 1);
}
