// Process, thread and memory handlers driven by records built here, with a
// fixture /proc; notices are compared byte for byte.
#include <gtest/gtest.h>

#include <bpf/bpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "task/tavo_task_tracker.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
#include "tests/support/test_env.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;
using namespace tavo_test;

namespace {

constexpr uint64_t kT0 = 1000000000000ULL;  // creation stamp of the tasks below
constexpr uint64_t kSec = 1000000000ULL;

// The tracker's clock, in seconds; each test sets it.
int64_t gNow = 0;
int64_t FakeNow() { return gNow; }

template <typename Notice>
bool SameBytes(const Notice& a, const Notice& b) {
  return memcmp(&a, &b, sizeof(a)) == 0;
}

class Tracker : public ::testing::Test {
 protected:
  void SetUp() override {
    gNow = 1700000000;
    proc.Write("100/status", "Name:\treal_name\nPPid:\t42\n");
    proc.Write("100/fd/.keep", "");
    symlink("/dev/null", (proc.path() + "/100/fd/0").c_str());
    symlink("/dev/null", (proc.path() + "/100/fd/1").c_str());
    proc.Write("7/status", "Name:\tx\n");  // fd folder unreadable: no map update
  }

  TavoTask Stored(int pid) {
    TavoTask t;
    return registry.GetTavoTask(pid, &t) ? t : TavoTask{};
  }
  void Init(int pid, int ppid, const std::string& comm) {
    auto r = InitRecord(pid, ppid, comm, kT0);
    tracker.handleTavoTaskInitEvent(Bytes(r), sizeof(r));
  }
  void Fork(int pid, int ppid, const std::string& comm, uint64_t ts, uint32_t kind) {
    auto r = CreateRecord(pid, ppid, comm, ts, kind);
    tracker.handleSched_SchedProcessFork(Bytes(r), sizeof(r));
  }
  void Exit(int pid, const std::string& comm, uint64_t ts, uint32_t kind) {
    auto r = ExitRecord(pid, comm, ts, kind);
    tracker.handleSched_SchedProcessExit(Bytes(r), sizeof(r));
  }
  void Rss(int pid, int member, int64_t size, uint64_t ts = kT0 + 5 * kSec) {
    auto r = RssRecord(pid, member, size, ts);
    tracker.handleKmem_RssStat(Bytes(r), sizeof(r));
  }

  TempDir proc;
  TavoProcReader reader{proc.path()};
  TavoTaskManager registry;
  NoticeLog notices;
  TavoTaskTracker tracker{registry, reader, notices.Sink(), &FakeNow};
};

}  // namespace

TEST_F(Tracker, InitRecordsShortRecordsAndUnknownKinds) {
  auto r = InitRecord(4321, 77, "initd", kT0, 9);
  r.rss_file = 1;
  r.rss_anon = 2;
  r.rss_shmem = 3;
  r.rss_swap = 4;
  tracker.handleTavoTaskInitEvent(Bytes(r), sizeof(r));
  const TavoTask t = Stored(4321);
  EXPECT_EQ(std::make_tuple(t.ppid, t.uid, t.threadNum, t.oldThreadNum, std::string(t.comm), t.createTimeNs),
            std::make_tuple(77, 1000u, 9u, 9u, std::string("initd"), kT0));
  // The record puts shared memory before swap; the task orders by member code.
  EXPECT_EQ(std::vector<int64_t>(t.rssSize, t.rssSize + 4), (std::vector<int64_t>{1, 2, 4, 3}));
  EXPECT_EQ(std::vector<int64_t>(t.rssOldSize, t.rssOldSize + 4), (std::vector<int64_t>{1, 2, 4, 3}));

  LogCapture log;
  auto init = InitRecord(11, 1, "x", kT0);
  auto create = CreateRecord(11, 1, "x", kT0, 1);
  auto exit = ExitRecord(4321, "x", kT0, 1);
  auto rss = RssRecord(4321, 1, 4096, kT0);
  tracker.handleTavoTaskInitEvent(Bytes(init), sizeof(init) - 1);
  tracker.handleSched_SchedProcessFork(Bytes(create), sizeof(create) - 1);
  tracker.handleSched_SchedProcessExit(Bytes(exit), sizeof(exit) - 1);
  tracker.handleKmem_RssStat(Bytes(rss), sizeof(rss) - 1);
  for (const char* text : {"type: 0, size: 87", "type: 2, size: 47", "type: 3, size: 39", "type: 1, size: 31"}) {
    EXPECT_EQ(log.Count(std::string("[TavoBpfService] short task record! ") + text, ANDROID_LOG_ERROR), 1);
  }
  Fork(6000, 1, "x", kT0, 3);
  Exit(4321, "x", kT0, 0);
  EXPECT_EQ(log.Count("[TavoBpfService] Task Create raw event (SCHED__TASK_CREATE) error!", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(registry.GetTavoTaskCount(), 1u);
  EXPECT_EQ(Stored(4321).rssSize[TAVO_RSS_ANON], 2);
  EXPECT_EQ(notices.Count(), 0u);
}

TEST_F(Tracker, ProcessStartsAndEndsAreNoticed) {
  std::vector<std::pair<int32_t, uint64_t>> exits;
  tracker.SetExitObserver([&](int32_t pid, uint64_t ts) { exits.emplace_back(pid, ts); });
  Fork(5000, 42, "worker", kT0, 1);
  EXPECT_EQ(Stored(5000).initTimeStamp, gNow);
  Fork(5000, 43, "other", kT0 + kSec, 1);  // already registered: ignored
  Fork(100, 0, "placeholder", kT0, 1);     // no parent in the record: read from /proc
  Fork(300, 0, "vanished", kT0, 1);        // and when /proc has nothing, the record stands
  Exit(5000, "worker-exit", kT0 + 2 * kSec, 1);
  Exit(5999, "ghost", kT0, 1);  // unknown pids are reported too

  const auto starts = notices.Of<tavo_notice_process_start>(TAVO_NOTICE_PROCESS_START);
  ASSERT_EQ(starts.size(), 3u);
  EXPECT_TRUE(SameBytes(starts[0], tavo_notice_process_start{50001, 5000, 42, 10001, "worker"}));
  EXPECT_TRUE(SameBytes(starts[1], tavo_notice_process_start{50001, 100, 42, 10001, "real_name"}));
  EXPECT_TRUE(SameBytes(starts[2], tavo_notice_process_start{50001, 300, 0, 10001, "vanished"}));
  const auto ends = notices.Of<tavo_notice_process_exit>(TAVO_NOTICE_PROCESS_EXIT);
  ASSERT_EQ(ends.size(), 2u);
  EXPECT_TRUE(SameBytes(ends[0], tavo_notice_process_exit{50002, 5000, "worker-exit"}));
  EXPECT_TRUE(SameBytes(ends[1], tavo_notice_process_exit{50002, 5999, "ghost"}));
  EXPECT_EQ(Stored(5000).pid, 0);
  EXPECT_EQ(exits, (std::vector<std::pair<int32_t, uint64_t>>{{5000, kT0 + 2 * kSec}, {5999, kT0}}));
}

TEST_F(Tracker, ThreadNoticesNeedSettlingTimeAndStepOfEleven) {
  Init(7000, 1, "threads");
  Fork(7000, 1, "threads", kT0, 2);  // not after the task's creation: ignored
  for (int i = 0; i < 10; ++i) Fork(7000, 1, "threads", kT0 + kSec, 2);
  EXPECT_EQ(Stored(7000).threadNum, 11u);
  Fork(7000, 1, "threads", kT0 + 3 * kSec, 2);  // 12: eleven away from 1
  for (int i = 0; i < 11; ++i) Exit(7000, "threads", kT0 + 4 * kSec, 2);  // 1: eleven away from 12
  Fork(7999, 1, "x", kT0 + 5 * kSec, 2);  // a thread of an unknown process
  const auto counts = notices.Of<tavo_notice_thread_count>(TAVO_NOTICE_THREAD_COUNT);
  ASSERT_EQ(counts.size(), 2u);
  EXPECT_TRUE(SameBytes(counts[0], tavo_notice_thread_count{50003, 7000, 1, 1000, 1, 12}));
  EXPECT_TRUE(SameBytes(counts[1], tavo_notice_thread_count{50003, 7000, 1, 1000, 12, 1}));
  EXPECT_EQ(Stored(7999).pid, 0);
}

TEST_F(Tracker, MemoryNoticeRule) {
  const struct {
    int pid, ppid;
    const char* comm;
    uint64_t age;
    bool notice;
  } cases[] = {
      {1, 0, "init", 3 * kSec, true},        {2, 0, "kthreadd", 3 * kSec, false},
      {300, 1, "low", 3 * kSec, false},      {301, 1, "app", 3 * kSec, true},
      {4000, 2, "kworker", 3 * kSec, false}, {4001, 1, "shell_helper", 3 * kSec, false},
      {4003, 1, "dumpsysd", 3 * kSec, false}, {4005, 1, "s", 3 * kSec, true},
      {4006, 1, "dump", 3 * kSec, true},     {4007, 1, "young", 3 * kSec - 1, false},
  };
  for (const auto& c : cases) {
    notices.Clear();
    Init(c.pid, c.ppid, c.comm);
    Rss(c.pid, TAVO_RSS_ANON, 16384, kT0 + c.age);
    EXPECT_EQ(Stored(c.pid).rssSize[TAVO_RSS_ANON], 16384) << "stored either way";
    EXPECT_EQ(Stored(c.pid).mmId, 1000u);
    EXPECT_EQ(notices.Count(), c.notice ? 1u : 0u) << c.pid << " " << c.comm;
  }
}

TEST_F(Tracker, MemoryNoticeCarriesTheSizesLastReported) {
  auto init = InitRecord(8000, 1, "grower", kT0);
  init.rss_file = 100 << 10;
  init.rss_anon = 200 << 10;
  init.rss_shmem = 300 << 10;
  init.rss_swap = 400 << 10;
  tracker.handleTavoTaskInitEvent(Bytes(init), sizeof(init));
  Rss(8000, TAVO_RSS_ANON, (200 << 10) + 16383);  // below the step
  for (int member : {4, -1}) Rss(8000, member, 1 << 20);
  Rss(8000, TAVO_RSS_FILE, -4096);
  Rss(8000, TAVO_RSS_FILE, (100 << 10) - 1);  // the changes now add up to 16384
  Rss(8000, TAVO_RSS_ANON, (200 << 10) + 16483);  // measured from what was just reported
  const auto memory = notices.Of<tavo_notice_memory>(TAVO_NOTICE_MEMORY);
  ASSERT_EQ(memory.size(), 1u);
  EXPECT_TRUE(SameBytes(memory[0], tavo_notice_memory{50004, 8000, 1, 1000, "grower",
                                                      {(100 << 10) - 1, (200 << 10) + 16383, 400 << 10, 300 << 10},
                                                      {100 << 10, 200 << 10, 400 << 10, 300 << 10}}));
}

TEST_F(Tracker, PlaceholderNamesAreRefreshedAtMostEveryThreeSeconds) {
  for (const char* placeholder : {"main", "re-initialized>"}) {
    Init(100, 0, placeholder);
    Rss(100, TAVO_RSS_ANON, 4096);  // never read before
    EXPECT_STREQ(Stored(100).comm, "real_name");
    EXPECT_EQ(Stored(100).ppid, 42);
    for (const auto& [secondsLater, refreshed] : {std::pair<int64_t, bool>{2, false}, {1, true}}) {
      registry.WithTask(100, [p = placeholder](TavoTask& t) { SetComm(t.comm, p); });
      gNow += secondsLater;
      Rss(100, TAVO_RSS_ANON, 8192);
      EXPECT_STREQ(Stored(100).comm, refreshed ? "real_name" : placeholder) << secondsLater;
    }
  }
  Init(300, 1, "main");  // gone from /proc: keeps its name, the time still moves
  Rss(300, TAVO_RSS_ANON, 4096);
  EXPECT_STREQ(Stored(300).comm, "main");
  EXPECT_NE(Stored(300).lastUpdateTime, 0u);
}

TEST_F(Tracker, StartupScanAndOpenFdSeeding) {
  std::vector<tavo_task_init_event> records;
  TavoBpfDataState counters(&GetSystemSecondsTime);
  tracker.initTaskInfo(
      [&](void* record, unsigned long size) {
        EXPECT_EQ(size, sizeof(tavo_task_init_event));
        records.push_back(*static_cast<tavo_task_init_event*>(record));
        return 0;
      },
      counters);
  ASSERT_EQ(records.size(), 2u);  // 100 and 7
  uint32_t counted = 0;
  for (int64_t slot = counters.getOldestIndex(); slot <= counters.getCurrentIndex(); ++slot) {
    counted += counters.getCounter(slot, TAVO_EVENT_TASK_INIT);
  }
  EXPECT_EQ(counted, 2u);

  if (!Env().bpffs) GTEST_SKIP() << Env().whyNot;
  const std::string pin = "/sys/fs/bpf/tavo_test_open_fd";
  unlink(pin.c_str());
  const int map = bpf_map_create(BPF_MAP_TYPE_HASH, "open_fd", sizeof(int32_t), sizeof(tavo_open_fd_value), 64, nullptr);
  ASSERT_GE(map, 0);
  ASSERT_EQ(bpf_obj_pin(map, pin.c_str()), 0);
  close(map);
  EXPECT_EQ(tracker.initFdBpfProg(pin), 0);
  auto opened = TavoTaskTracker::OpenFdMap::OpenPinned(pin);
  ASSERT_TRUE(opened.ok());
  auto value = opened->Lookup(100);
  ASSERT_TRUE(value.ok());
  EXPECT_EQ(std::make_tuple(value->pid, value->fd_count, value->fd_count_again, value->reserved),
            std::make_tuple(100, uint64_t{2}, uint64_t{2}, uint64_t{0}));
  EXPECT_STREQ(value->comm, "real_name");
  EXPECT_FALSE(opened->Lookup(7).ok()) << "no descriptor folder, no entry";
  unlink(pin.c_str());
  LogCapture log;
  EXPECT_EQ(tracker.initFdBpfProg(pin), -1);
  EXPECT_EQ(log.Count("get map_TavoBpfDefineset_open_fd_caller_map(-1) failed! No such file or directory"), 1);
}
