// Task dumps: exact text for a registry filled here, the file variants, and
// dumps requested by signal while two threads feed the handlers.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "service/tavo_bpf_dump_requests.h"
#include "task/tavo_bpf_task_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/task_records.h"
#include "tests/support/test_env.h"

using namespace Tavo::Bpf;

namespace {

const char* const kFile = "/data/tavolog/stability/tavobpfframework/DUMPTASK_INFO";
const std::string kFullHeading =
    "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         "
    "rssAnonOldSize      rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     "
    "rssSwapSize         rssSwapOldSize      initTimeStamp       \n";
const std::string kShortHeading =
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         rssFileSize         "
    "rssShmemSize        rssSwapSize         initTimeStamp       \n";

std::string Blanks(size_t n) { return std::string(n, ' '); }

TavoTask Task(int pid, const char* comm, int64_t anon, int64_t file = 0) {
  TavoTask t;
  t.pid = pid;
  t.ppid = 1;
  t.threadNum = 3;
  t.oldThreadNum = 2;
  tavo_test::SetComm(t.comm, comm);
  t.rssAnonSize() = anon;
  t.rssFileSize() = file;
  t.initTimeStamp = 1700000000;
  return t;
}

void Fill(std::initializer_list<TavoTask> tasks) {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  for (const TavoTask& t : tasks) TavoTaskManager::GetInstance()->AddTavoTask(t.pid, t);
}

std::string Format(bool ignoreKernel, bool normal) {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  return TavoTaskManager::GetInstance()->FormatDump(ignoreKernel, normal);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string ReadFile(const char* path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void MakeStabilityDir() { ASSERT_EQ(system("mkdir -p /data/tavolog/stability"), 0); }

}  // namespace

TEST(TaskDump, RowsAreFixedWidthAndSortedByTotalMemory) {
  // Empty: the title with count and time, and the heading of each variant.
  auto lines = Lines(Format(false, false));
  ASSERT_EQ(lines.size(), 2u);
  unsigned count;
  unsigned long when;
  ASSERT_EQ(sscanf(lines[0].c_str(), "============ DUMP ALL TAVO TASKS INFO (count: %u, time: %lu) ============",
                   &count, &when),
            2);
  EXPECT_EQ(count, 0u);
  EXPECT_NEAR(static_cast<double>(when), static_cast<double>(time(nullptr)), 2.0);
  EXPECT_EQ(lines[1] + "\n", kFullHeading);
  EXPECT_EQ(Lines(Format(false, true))[1] + "\n", kShortHeading);

  TavoTask app = Task(1234, "app", 4095, 1 << 20);
  app.mmId = 1000;
  app.rssOldSize[1] = 2048;
  app.rssSwapSize() = 10240;
  TavoTask kworker = Task(12, "kworker/0:1", 0);
  kworker.ppid = 2;
  TavoTask big = Task(99, "bigger", 8 << 20);
  Fill({app, kworker, big});

  lines = Lines(Format(false, false));
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0].rfind("============ DUMP ALL TAVO TASKS INFO (count: 3, time: ", 0), 0u);
  EXPECT_EQ(lines[2].substr(0, 6), "bigger");
  const std::string appRow = "app" + Blanks(13) + "   " + "1234" + Blanks(8) + "1" + Blanks(11) + "3" +
                             Blanks(11) + "2" + Blanks(12) + "1000" + Blanks(8) + Blanks(9) + "3 KB" +
                             Blanks(16) + "2 KB" + Blanks(13) + "1024 KB" + Blanks(16) + "0 KB" + Blanks(16) +
                             "0 KB" + Blanks(16) + "0 KB" + Blanks(15) + "10 KB" + Blanks(16) + "0 KB" +
                             Blanks(10) + "1700000000";
  EXPECT_EQ(lines[3], appRow);
  // 11 characters, 5 blanks to 16, then the three blanks of the numbers.
  EXPECT_EQ(lines[4].substr(0, 24), "kworker/0:1" + Blanks(8) + "12" + Blanks(3));

  const auto shortLines = Lines(Format(false, true));
  ASSERT_EQ(shortLines.size(), 5u);
  const std::string appShort = "app" + Blanks(13) + "   " + "1234" + Blanks(8) + "1" + Blanks(11) + "3" +
                               Blanks(11) + "1000" + Blanks(8) + Blanks(9) + "3 KB" + Blanks(13) + "1024 KB" +
                               Blanks(16) + "0 KB" + Blanks(15) + "10 KB" + Blanks(10) + "1700000000";
  EXPECT_EQ(shortLines[3], appShort);

  // Rows without memory are left out, but the title still counts them.
  for (bool normal : {false, true}) {
    const auto some = Lines(Format(true, normal));
    ASSERT_EQ(some.size(), 4u);
    EXPECT_NE(some[0].find("(count: 3,"), std::string::npos);
    EXPECT_EQ(some[3].substr(0, 3), "app");
  }
}

TEST(TaskDump, FullSixteenByteNameIsNotOverrun) {
  TavoTask t = Task(5, "", 1024);
  memcpy(t.comm, "abcdefghijklmnop", 16);  // no NUL inside the field
  Fill({t});
  const auto lines = Lines(Format(false, true));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2].substr(0, 20), "abcdefghijklmnop   5");
}

TEST(TaskDump, EachVariantWritesTheFileAndOnlyTheFullOnesLogAFailure) {
  TAVO_REQUIRE_DATA();
  using Dump = void (TavoTaskManager::*)();
  const struct {
    Dump dump;
    bool ignoreKernel;
    bool normal;
  } variants[] = {
      {&TavoTaskManager::DumpTavoTaskInfo, false, false},
      {&TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfo, true, false},
      {&TavoTaskManager::DumpTavoTaskInfoNormal, false, true},
      {&TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfoNormal, true, true},
  };
  // No /data/tavolog/stability yet: the directory cannot be made.
  tavo_test::LogCapture log;
  for (const auto& v : variants) (TavoTaskManager::GetInstance()->*v.dump)();
  EXPECT_EQ(log.Count("failed to dump tavo task, error: No such file or directory", ANDROID_LOG_ERROR), 2);
  for (const auto& line : log.Lines()) {
    if (line.message.find("failed to dump") != std::string::npos) {
      EXPECT_EQ(line.tag, "BpfUtils");
    }
  }

  MakeStabilityDir();
  Fill({Task(400, "withmem", 4096), Task(401, "kthread", 0)});
  for (const auto& v : variants) {
    (TavoTaskManager::GetInstance()->*v.dump)();
    const auto written = Lines(ReadFile(kFile));
    const auto expected = Lines(Format(v.ignoreKernel, v.normal));
    ASSERT_EQ(written.size(), expected.size());
    // The title carries the time of its own dump; the rest is identical.
    EXPECT_EQ(written[0].substr(0, 50), expected[0].substr(0, 50));
    for (size_t i = 1; i < written.size(); ++i) EXPECT_EQ(written[i], expected[i]);
  }
  struct stat st {};
  ASSERT_EQ(stat("/data/tavolog/stability/tavobpfframework", &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0775u & ~umask(022));
}

// Signals 51 to 54 while two threads feed fork, exit and memory records: no
// deadlock, no crash, and the file left behind is a whole dump.
TEST(TaskDump, SignalledDumpsDuringEventStreamLeaveWellFormedFile) {
  TAVO_REQUIRE_DATA();
  MakeStabilityDir();
  InstallDumpSignalHandlers();
  std::atomic<bool> stop{false};
  auto feed = [&stop](int base) {
    uint64_t ts = 10'000'000'000ULL;
    while (!stop.load()) {
      for (int i = 0; i < 200; ++i) {
        const int pid = base + i;
        auto create = tavo_test::CreateRecord(pid, 1, "feeder", ts, 1);
        TavoBpfService::handleBpfRingBuffEvent(nullptr, &create, sizeof(create));
        auto thread = tavo_test::CreateRecord(pid, 1, "feeder", ts + 4'000'000'000ULL, 2);
        TavoBpfService::handleBpfRingBuffEvent(nullptr, &thread, sizeof(thread));
        auto rss = tavo_test::RssRecord(pid, i % 4, (i + 1) * 65536, ts + 4'000'000'000ULL);
        TavoBpfService::handleBpfRingBuffEvent(nullptr, &rss, sizeof(rss));
        if (i % 3 == 0) {
          auto exit = tavo_test::ExitRecord(pid, "feeder", ts, 1);
          TavoBpfService::handleBpfRingBuffEvent(nullptr, &exit, sizeof(exit));
        }
      }
      ts += 1000;
    }
  };
  tavo_test::NoticeSink sink({50001, 50002, 50004});
  std::thread a(feed, 10000);
  std::thread b(feed, 20000);
  for (int round = 0; round < 50; ++round) {
    for (int signo = 51; signo <= 54; ++signo) kill(getpid(), signo);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (round % 10 == 0) sink.Take();
  }
  stop = true;
  a.join();
  b.join();

  // A last full dump; wait for the worker to finish a complete file.
  unlink(kFile);
  kill(getpid(), 51);
  std::vector<std::string> lines;
  unsigned count = 0;
  for (int tries = 0; tries < 500; ++tries) {
    lines = Lines(ReadFile(kFile));
    unsigned long when;
    if (lines.size() >= 2 &&
        sscanf(lines[0].c_str(), "============ DUMP ALL TAVO TASKS INFO (count: %u, time: %lu) ============",
               &count, &when) == 2 &&
        lines.size() == count + 2 && lines[1] + "\n" == kFullHeading) {
      break;  // earlier requests may still be queued ahead of this one
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(lines.size(), count + 2u);
  EXPECT_GT(count, 0u);
  EXPECT_EQ(lines[1] + "\n", kFullHeading);
  int64_t previousTotal = INT64_MAX;
  for (size_t i = 2; i < lines.size(); ++i) {
    char comm[17] = {};
    int pid, ppid, threads, oldThreads;
    unsigned mmId;
    long kb[8], start;
    const int fields = sscanf(lines[i].c_str(),
                              "%16s %d %d %d %d %u %ld KB %ld KB %ld KB %ld KB %ld KB %ld KB %ld KB %ld KB %ld",
                              comm, &pid, &ppid, &threads, &oldThreads, &mmId, &kb[0], &kb[1], &kb[2], &kb[3],
                              &kb[4], &kb[5], &kb[6], &kb[7], &start);
    ASSERT_EQ(fields, 15) << lines[i];
    const int64_t total = kb[0] + kb[2] + kb[4] + kb[6];
    EXPECT_LE(total, previousTotal) << "sorted by total memory, largest first";
    previousTotal = total;
  }
}
