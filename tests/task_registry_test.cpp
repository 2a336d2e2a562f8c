// The registry's operations, its order by memory and the dump text.
#include <gtest/gtest.h>

#include <android-base/file.h>
#include <android-base/strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include "task/tavo_bpf_task_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
#include "tests/support/test_env.h"

using namespace Tavo::Bpf;

namespace {

TavoTask Task(int pid, const char* comm, int64_t anon, int64_t file = 0) {
  TavoTask t;
  t.pid = pid;
  t.ppid = 1;
  t.threadNum = 3;
  t.oldThreadNum = 2;
  tavo_test::SetComm(t.comm, comm);
  t.rssSize[TAVO_RSS_ANON] = anon;
  t.rssSize[TAVO_RSS_FILE] = file;
  t.initTimeStamp = 1700000000;
  return t;
}

std::vector<std::string> Lines(const std::string& text) { return android::base::Split(text, "\n"); }
std::string Blanks(size_t n) { return std::string(n, ' '); }

}  // namespace

TEST(TaskRegistry, KeyedOperationsAndTheirErrors) {
  TavoTaskManager registry;
  registry.AddTavoTask(7, Task(7, "a", 1));
  registry.AddTavoTask(7, Task(7, "b", 2));  // replaces the whole record
  EXPECT_FALSE(registry.InsertTavoTask(7, Task(7, "c", 3)));
  EXPECT_TRUE(registry.WithTask(7, [](TavoTask& t) { t.threadNum = 9; }));
  TavoTask copy;
  ASSERT_TRUE(registry.GetTavoTask(7, &copy));
  EXPECT_STREQ(copy.comm, "b");
  EXPECT_EQ(copy.threadNum, 9u);
  EXPECT_FALSE(registry.WithTask(8, [](TavoTask&) { ADD_FAILURE(); }));

  registry.AddRssTempTask(1, Task(1, "temp", 0));
  registry.AddMmidIndex(1000, 7);
  ASSERT_TRUE(registry.GetTavoTaskByMmid(1000, &copy));
  EXPECT_EQ(copy.pid, 7);
  EXPECT_EQ(registry.GetTavoTaskCount(), 1u);  // the task map only

  EXPECT_EQ(registry.DelTavoTask(7), 0);
  EXPECT_FALSE(registry.GetTavoTaskByMmid(1000, &copy)) << "the index must not outlive its task";
  const struct {
    int result;
    int expected;
  } deletes[] = {{registry.DelTavoTask(7), -1}, {registry.DelMmidIndex(5), -1}, {registry.DelRssTempTask(5), 0}};
  for (const auto& d : deletes) EXPECT_EQ(d.result, d.expected);
  EXPECT_EQ(errno, ENOENT) << "the temporary map's delete still reports the absence";
}

TEST(TaskRegistry, OrderByTotalMemoryHoldsForSaturatedSizes) {
  TavoTask a = Task(1, "a", 10), b = Task(2, "b", 10), c = Task(3, "c", 11);
  EXPECT_FALSE(CompareTavoTask(a, b));
  EXPECT_FALSE(CompareTavoTask(b, a));
  EXPECT_TRUE(CompareTavoTask(c, a));
  // Sums past INT64_MAX must still order: a 64-bit difference would wrap.
  TavoTask huge = Task(4, "huge", INT64_MAX, INT64_MAX), negative = Task(5, "neg", INT64_MIN, INT64_MIN);
  EXPECT_TRUE(CompareTavoTask(huge, c));
  EXPECT_FALSE(CompareTavoTask(c, huge));
  EXPECT_TRUE(CompareTavoTask(c, negative));
  std::vector<TavoTask> tasks{negative, c, huge, a};
  std::sort(tasks.begin(), tasks.end(), CompareTavoTask);
  EXPECT_EQ(tasks.front().pid, 4);
  EXPECT_EQ(tasks.back().pid, 5);
}

TEST(TaskRegistry, DumpTextIsFixedWidthSortedAndCountsEveryTask) {
  TavoTaskManager registry;
  TavoTask app = Task(1234, "app", 4095, 1 << 20);
  app.mmId = 1000;
  app.rssOldSize[TAVO_RSS_ANON] = 2048;
  app.rssSize[TAVO_RSS_SWAP] = 10240;
  TavoTask kworker = Task(12, "kworker/0:1", 0);
  TavoTask full = Task(99, "", 8 << 20);
  memcpy(full.comm, "abcdefghijklmnop", 16);  // no NUL inside the field
  for (const TavoTask& t : {app, kworker, full}) registry.AddTavoTask(t.pid, t);

  auto lines = Lines(registry.FormatDump(false, false));
  ASSERT_EQ(lines.size(), 6u);  // title, heading, three rows, and the empty tail
  unsigned count;
  unsigned long when;
  ASSERT_EQ(sscanf(lines[0].c_str(), "============ DUMP ALL TAVO TASKS INFO (count: %u, time: %lu) ============",
                   &count, &when), 2);
  EXPECT_EQ(count, 3u);
  EXPECT_NEAR(static_cast<double>(when), static_cast<double>(time(nullptr)), 2.0);
  EXPECT_EQ(lines[1], "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         "
                      "rssAnonOldSize      rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     "
                      "rssSwapSize         rssSwapOldSize      initTimeStamp       ");
  EXPECT_EQ(lines[2].substr(0, 20), "abcdefghijklmnop   9");
  EXPECT_EQ(lines[3], "app" + Blanks(13) + "   1234" + Blanks(8) + "1" + Blanks(11) + "3" + Blanks(11) + "2" +
                          Blanks(12) + "1000" + Blanks(17) + "3 KB" + Blanks(16) + "2 KB" + Blanks(13) + "1024 KB" +
                          Blanks(16) + "0 KB" + Blanks(16) + "0 KB" + Blanks(16) + "0 KB" + Blanks(15) + "10 KB" +
                          Blanks(16) + "0 KB" + Blanks(10) + "1700000000");
  EXPECT_EQ(lines[4].substr(0, 24), "kworker/0:1" + Blanks(8) + "12" + Blanks(3));

  const auto shortLines = Lines(registry.FormatDump(false, true));
  EXPECT_EQ(shortLines[3], "app" + Blanks(13) + "   1234" + Blanks(8) + "1" + Blanks(11) + "3" + Blanks(11) +
                               "1000" + Blanks(17) + "3 KB" + Blanks(13) + "1024 KB" + Blanks(16) + "0 KB" +
                               Blanks(15) + "10 KB" + Blanks(10) + "1700000000");
  // Without the task that has no memory; the title still counts it.
  const auto some = Lines(registry.FormatDump(true, true));
  EXPECT_EQ(some.size(), 5u);
  EXPECT_NE(some[0].find("(count: 3,"), std::string::npos);
}

TEST(TaskRegistry, DumpFilesAndTheFailuresOnlyTheFullVariantsLog) {
  TavoTaskManager registry;
  registry.AddTavoTask(400, Task(400, "withmem", 4096));
  registry.AddTavoTask(401, Task(401, "kthread", 0));
  using Dump = void (TavoTaskManager::*)(const std::string&);
  const struct {
    Dump dump;
    bool ignoreKernel, normal, logsFailure;
  } variants[] = {
      {&TavoTaskManager::DumpTavoTaskInfo, false, false, true},
      {&TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfo, true, false, false},
      {&TavoTaskManager::DumpTavoTaskInfoNormal, false, true, true},
      {&TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfoNormal, true, true, false},
  };
  tavo_test::TempDir dir;
  for (const auto& v : variants) {
    tavo_test::LogCapture log;
    (registry.*v.dump)(dir.path() + "/no/such/parent");
    EXPECT_EQ(log.Count("failed to dump tavo task, error: No such file or directory", ANDROID_LOG_ERROR),
              v.logsFailure ? 1 : 0);
    (registry.*v.dump)(dir.path() + "/dumps");
    std::string written;
    ASSERT_TRUE(android::base::ReadFileToString(dir.path() + "/dumps/DUMPTASK_INFO", &written));
    // The title carries its own dump's time; the rest is identical.
    const std::string expected = registry.FormatDump(v.ignoreKernel, v.normal);
    EXPECT_EQ(written.substr(written.find('\n')), expected.substr(expected.find('\n')));
  }
}
