// End to end on this machine's kernel: the real objects pinned by the
// loader, the real service in this process, a real client on the socket.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/properties.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "include/tavo_bpf_service_main.h"
#include "task/tavo_bpf_task_manager.h"
#include "tests/kern_test_rings.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_env.h"
#include "tools/tavo_client/tavo_client.h"
#include "tools/tavo_loader/tavo_bpf_pump_waker.h"

using namespace Tavo::Client;
using Tavo::Bpf::TavoBpfService;
using Tavo::Bpf::TavoTaskManager;

namespace {

constexpr const char* kNormal = "TavoBpfDefineset";
constexpr size_t kPage = 4096;

bool WaitForFile(const std::string& path, std::string* content) {
  for (int i = 0; i < 100; ++i) {
    if (android::base::ReadFileToString(path, content) && !content->empty()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

class KernE2eTest : public testing::Test {
 protected:
  void SetUp() override {
    TAVO_REQUIRE_BPFFS();
    TAVO_REQUIRE_DATA();
  }
  void TearDown() override {
    if (client_) client_->Close();
    if (!started_) return;
    TavoBpfService::GetInstance()->stop();
    Tavo::Loader::WakePumps("/sys/fs/bpf/tavo");
    TavoBpfService::GetInstance()->Wait();
  }

  // Loads, plays the platform's part and starts the service; returns once
  // both groups of programs are enabled (the start-up scan is done).
  void Start(Tavo::Loader::LoaderOptions options = {}, bool load = true) {
    Tavo::Loader::LoadReport report;
    if (load) {
      ASSERT_TRUE(tavo_test::LoadForTest(options, &report));
    }
    utsname uts{};
    uname(&uts);
    android::base::SetProperty("ro.kernel.version", uts.release);
    android::base::SetProperty("sys.tavo_bpf_ready", "1");
    ASSERT_EQ(Tavo::Bpf::BpfServiceMain(), 1);
    started_ = true;
    const uint64_t both = TAVO_STATUS_CORE_ENABLED | TAVO_STATUS_NORMAL_ENABLED;
    for (int i = 0; i < 100 && (tavo_test::StatusValue(kNormal, TAVO_STATUS_FLAGS) & both) != both; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_EQ(tavo_test::StatusValue(kNormal, TAVO_STATUS_FLAGS) & both, both);
  }

  void Connect(std::initializer_list<uint32_t> codes) {
    client_ = std::make_unique<TavoClient>([this](const Event& e) {
      std::lock_guard<std::mutex> guard(lock_);
      events_.push_back(e);
      cond_.notify_all();
    });
    int rc = -1;
    for (int i = 0; i < 60 && rc != 0; ++i) {
      rc = client_->Connect();
      if (rc != 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(rc, 0);
    for (uint32_t code : codes) ASSERT_EQ(client_->Subscribe(code), 0) << code;
  }

  // Waits until `done` holds for the events so far; returns a copy of them.
  std::vector<Event> WaitFor(const std::function<bool(const std::vector<Event>&)>& done, int ms = 5000) {
    std::unique_lock<std::mutex> guard(lock_);
    cond_.wait_for(guard, std::chrono::milliseconds(ms), [&] { return done(events_); });
    return events_;
  }

  template <typename T>
  static std::vector<T> All(const std::vector<Event>& events, const std::function<bool(const T&)>& keep) {
    std::vector<T> out;
    for (const Event& e : events) {
      const T* v = std::get_if<T>(&e);
      if (v && keep(*v)) out.push_back(*v);
    }
    return out;
  }

  bool started_ = false;
  std::unique_ptr<TavoClient> client_;
  std::mutex lock_;
  std::condition_variable cond_;
  std::vector<Event> events_;
};

// A process already running is registered by the start-up scan; a child
// forked afterwards gives its records and notices; signals 50 and 51 write
// the counter file and the task dump.
TEST_F(KernE2eTest, StartupScanForkedChildAndSignalledDumps) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t old = fork();
  if (old == 0) {
    close(fds[1]);
    prctl(PR_SET_NAME, "tavo_e2e_old");
    char c;
    (void)!read(fds[0], &c, 1);
    _exit(0);
  }
  close(fds[0]);
  usleep(50 * 1000);  // let the child take its name
  // The host creates the dump directory's parents, as tavo_bpfd does.
  mkdir("/data/tavolog", 0755);
  mkdir("/data/tavolog/stability", 0755);
  Start();
  {
    std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
    const Tavo::Bpf::TavoTask* task = TavoTaskManager::GetInstance()->GetTavoTask(old);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->ppid, getpid());
    EXPECT_STREQ(task->comm, "tavo_e2e_old");
  }
  close(fds[1]);
  waitpid(old, nullptr, 0);

  Connect({TAVO_EVENT_SCHED_TASK_CREATE, TAVO_NOTICE_PROCESS_START, TAVO_NOTICE_PROCESS_EXIT});
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_NAME, "tavo_e2e_kid");
    _exit(0);
  }
  ASSERT_GT(child, 0);
  waitpid(child, nullptr, 0);
  auto events = WaitFor([&](const std::vector<Event>& ev) {
    return !All<ProcessExitNotice>(ev, [&](const ProcessExitNotice& n) { return n.pid == child; }).empty();
  });
  auto forks = All<TaskCreateRecord>(events, [&](const TaskCreateRecord& r) { return r.pid == child; });
  ASSERT_EQ(forks.size(), 1u);
  EXPECT_EQ(forks[0].kind, 1u);
  EXPECT_EQ(forks[0].ppid, getpid());
  auto starts = All<ProcessStartNotice>(events, [&](const ProcessStartNotice& n) { return n.pid == child; });
  ASSERT_EQ(starts.size(), 1u);
  EXPECT_EQ(starts[0].ppid, getpid());
  char comm[16] = {};
  prctl(PR_GET_NAME, comm);
  EXPECT_EQ(starts[0].comm, comm);  // a fresh child carries its parent's name
  auto ends = All<ProcessExitNotice>(events, [&](const ProcessExitNotice& n) { return n.pid == child; });
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].comm, "tavo_e2e_kid");

  raise(50);
  std::string csv;
  ASSERT_TRUE(WaitForFile("/data/tavolog/stability/tavobpfframework/bpfservice_state.csv", &csv));
  EXPECT_NE(csv.find("sched_task_create"), std::string::npos);
  raise(51);
  std::string dump;
  ASSERT_TRUE(WaitForFile("/data/tavolog/stability/tavobpfframework/DUMPTASK_INFO", &dump));
  EXPECT_NE(dump.find(std::to_string(getpid())), std::string::npos);
}

TEST_F(KernE2eTest, NewThreadRaisesThreadCountAndNeverStartsAProcess) {
  Start();
  Connect({TAVO_EVENT_SCHED_TASK_CREATE, TAVO_NOTICE_PROCESS_START});
  auto threadNum = [] {
    std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
    const Tavo::Bpf::TavoTask* task = TavoTaskManager::GetInstance()->GetTavoTask(getpid());
    return task ? task->threadNum : 0u;
  };
  const uint32_t before = threadNum();
  ASSERT_GT(before, 0u) << "the start-up scan should have registered this process";
  std::mutex m;
  std::condition_variable cv;
  bool release = false;
  pid_t tid = 0;
  std::thread t([&] {
    std::unique_lock<std::mutex> guard(m);
    tid = gettid();
    cv.wait(guard, [&] { return release; });
  });
  auto mine = [&](const TaskCreateRecord& r) { return r.pid == getpid(); };
  auto events = WaitFor([&](const std::vector<Event>& ev) { return !All<TaskCreateRecord>(ev, mine).empty(); });
  for (int i = 0; i < 40 && threadNum() == before; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(25));
  // A sanitizer runtime may start a thread of its own meanwhile, whose
  // record may still be on its way to the client; every creation in this
  // process must still be a thread, never a process.
  events = WaitFor(
      [&](const std::vector<Event>& ev) { return before + All<TaskCreateRecord>(ev, mine).size() >= threadNum(); });
  auto created = All<TaskCreateRecord>(events, mine);
  EXPECT_GE(created.size(), 1u);
  for (const auto& record : created) EXPECT_EQ(record.kind, 2u);
  EXPECT_GE(threadNum(), before + 1);
  EXPECT_LE(threadNum(), before + created.size());
  {
    std::lock_guard<std::mutex> guard(m);
    release = true;
  }
  cv.notify_all();
  t.join();
  events = WaitFor([](const std::vector<Event>&) { return false; }, 200);
  EXPECT_TRUE(All<ProcessStartNotice>(events, [&](const ProcessStartNotice& n) {
                return n.pid == getpid() || n.pid == tid;
              }).empty());
}

TEST_F(KernE2eTest, ChildTouching64MiBAfterSettlingGivesMemoryNotices) {
  Tavo::Loader::LoaderOptions options;
  options.rssStepBytes = kPage;  // every page, so the notices are exact
  Start(options);
  Connect({TAVO_NOTICE_MEMORY});
  constexpr size_t kBytes = 64u << 20;
  int fds[2], report[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(pipe(report), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(fds[1]);
    close(report[0]);
    usleep(3200 * 1000);  // past the service's settling time
    const int64_t before = tavo_test::ChildRssAnonBytes();
    char* p = static_cast<char*>(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (p == MAP_FAILED) _exit(1);
    madvise(p, kBytes, MADV_NOHUGEPAGE);
    for (size_t i = 0; i < kBytes; i += kPage) p[i] = 1;
    const int64_t sizes[2] = {before, tavo_test::ChildRssAnonBytes()};
    if (write(report[1], sizes, sizeof(sizes)) != sizeof(sizes)) _exit(1);
    char c;
    (void)!read(fds[0], &c, 1);
    _exit(0);
  }
  close(fds[0]);
  close(report[1]);
  // What the child's own counters said before and after touching.
  int64_t sizes[2] = {0, 0};
  ASSERT_EQ(read(report[0], sizes, sizeof(sizes)), static_cast<ssize_t>(sizeof(sizes)));
  close(report[0]);
  ASSERT_GE(sizes[1] - sizes[0], static_cast<int64_t>(kBytes) - tavo_test::kRssBatchBytes);
  // Notices need 16 KiB of summed movement, so the last one may trail the
  // final size by up to that step.
  constexpr int64_t kNoticeStep = 16384;
  auto mine = [&](const MemoryNotice& n) { return n.pid == child; };
  auto caughtUp = [&](const std::vector<Event>& ev) {
    auto notes = All<MemoryNotice>(ev, mine);
    return !notes.empty() && notes.back().current[1] >= sizes[1] - kNoticeStep;
  };
  auto events = WaitFor(caughtUp, 8000);
  close(fds[1]);
  waitpid(child, nullptr, 0);
  auto notes = All<MemoryNotice>(events, mine);
  ASSERT_FALSE(notes.empty());
  // The notices follow the child's anonymous memory to within one notice
  // step, and each reports the previous one's sizes as the last reported.
  EXPECT_GE(notes.back().current[1], sizes[1] - kNoticeStep);
  EXPECT_LE(notes.back().current[1], sizes[1] + static_cast<int64_t>(kPage));
  EXPECT_GE(notes.back().current[1] - notes.front().current[1],
            static_cast<int64_t>(kBytes) - kNoticeStep - 2 * tavo_test::kRssBatchBytes);
  for (size_t i = 1; i < notes.size(); ++i) EXPECT_EQ(notes[i].reported, notes[i - 1].current);
}


TEST_F(KernE2eTest, TinyRingOverflowIsReportedByTheService) {
  tavo_test::LogCapture logs;
  Tavo::Loader::LoaderOptions options;
  options.normalRingBytes = 4096;
  Tavo::Loader::LoadReport report;
  ASSERT_TRUE(tavo_test::LoadForTest(options, &report));
  // A storm while nobody drains the ring: the kernel side marks it full.
  android::base::unique_fd fork = tavo_test::AttachPinnedTracepoint(kNormal, "sched_sched_process_fork", "sched",
                                                                     "sched_process_fork");
  ASSERT_GE(fork.get(), 0);
  ASSERT_TRUE(tavo_test::SetStatusFlags(kNormal, TAVO_STATUS_CORE_ENABLED));
  for (int i = 0; i < 200; ++i) {
    const pid_t child = ::fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
  }
  ASSERT_TRUE(tavo_test::StatusValue(kNormal, TAVO_STATUS_FLAGS) & TAVO_STATUS_RING_FULL);
  fork.reset();
  Start({}, /*load=*/false);
  // The figures come in a second line, after the warning.
  for (int i = 0; i < 100 && logs.Count("ringbuf size: 4096") == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_GE(logs.Count("[TavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!", ANDROID_LOG_WARN), 1);
  EXPECT_GE(logs.Count("ringbuf size: 4096", ANDROID_LOG_WARN), 1);
}

}  // namespace
