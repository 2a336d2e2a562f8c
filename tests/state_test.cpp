#include <gtest/gtest.h>

#include <android-base/file.h>

#include <string>
#include <vector>

#include "state/tavo_bpf_state.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_env.h"

using namespace Tavo::Bpf;

namespace {
int64_t gNow = 1000;  // a clock the test moves by hand
int64_t FakeClock() { return gNow; }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t pos; (pos = text.find("\r\n", start)) != std::string::npos; start = pos + 2) {
    out.push_back(text.substr(start, pos - start));
  }
  EXPECT_EQ(start, text.size()) << "every line ends in CR LF";
  return out;
}

std::string Zeros(int n) {
  std::string s;
  for (int i = 0; i < n; ++i) s += "0, ";
  return s;
}

const char kHeading[] =
    "EventCount, tavo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, dmabuf_size_info, "
    "cgroup_attach_cpuset_info, fd_update_info, dmabuf_setup, dmabuf_release, dambuf_attach, dmabuf_detach, "
    "dmabuf_vmap, dmabuf_vunmap, dmabuf_mmap, dmabuf_munmap, PollCount, ";
}  // namespace

TEST(EventCount, SecondsSumTypesButNotPolls) {
  gNow = 1000;
  TavoBpfDataState state(&FakeClock);
  for (int type : {3, 3, 15, 16, -1}) state.RecordEvent(type, 1);  // 16 and -1 change nothing
  state.RecordEvent(0, 5);
  gNow += 5;
  state.RecordEvent(1, 4);
  const auto lines = Lines(state.FormatState());
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], std::string(kHeading) + "5, 0 ");
  EXPECT_EQ(lines[1], "4, 0, 4, " + Zeros(14));
  for (int i = 2; i <= 5; ++i) EXPECT_EQ(lines[i], Zeros(17)) << "empty second " << i;
  EXPECT_EQ(lines[6], "7, 5, 0, 0, 2, " + Zeros(11) + "1, ");
  EXPECT_STREQ(TavoBpfDataState::EventName(9), "dambuf_attach");
  EXPECT_STREQ(TavoBpfDataState::EventName(15), "UNKNOW");
}

TEST(EventCount, WindowKeepsAtMost1800SlotsAndSurvivesClockJumps) {
  gNow = 1000;
  TavoBpfDataState state(&FakeClock);
  for (int i = 0; i < 2000; ++i, ++gNow) state.RecordEvent(i % 15, 1);
  EXPECT_EQ(state.getCurrentIndex() - state.getOldestIndex(), 1799);
  EXPECT_EQ(Lines(state.FormatState()).size(), 1801u);
  gNow += 100000;  // longer than the window: the ring is zeroed once
  state.RecordEvent(4, 2);
  EXPECT_EQ(Lines(state.FormatState())[2], Zeros(17));
  const int64_t index = state.getCurrentIndex();
  gNow -= 500;  // backwards: counting goes on in the current slot
  state.RecordEvent(4, 1);
  EXPECT_EQ(state.getCurrentIndex(), index);
  EXPECT_EQ(state.getCounter(index, 4), 3u);
}

TEST(EventCount, DumpReplacesTheCsvOrLogsWhyNot) {
  TavoBpfDataState state(&FakeClock);
  tavo_test::TempDir dir;
  {
    tavo_test::LogCapture log;
    state.DumpState(dir.path() + "/missing/parent");
    EXPECT_EQ(log.Count("[TavoBpfDataState][DumpState] open file failed!", ANDROID_LOG_ERROR), 1);
  }
  state.RecordEvent(2, 3);
  state.DumpState(dir.path() + "/out");
  state.RecordEvent(2, 1);
  state.DumpState(dir.path() + "/out");
  std::string text;
  ASSERT_TRUE(android::base::ReadFileToString(dir.path() + "/out/bpfservice_state.csv", &text));
  EXPECT_EQ(text, state.FormatState());
  EXPECT_NE(text.find("\r\n4, 0, 0, 4, "), std::string::npos);
}
