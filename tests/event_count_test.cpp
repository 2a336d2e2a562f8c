#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "state/tavo_bpf_state.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_env.h"

using namespace Tavo::Bpf;

namespace {
// A clock the test moves by hand.
int64_t gNow = 1000;
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

const char kHeading[] =
    "EventCount, tavo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, "
    "dmabuf_size_info, cgroup_attach_cpuset_info, fd_update_info, dmabuf_setup, dmabuf_release, "
    "dambuf_attach, dmabuf_detach, dmabuf_vmap, dmabuf_vunmap, dmabuf_mmap, dmabuf_munmap, "
    "PollCount, ";
}  // namespace

class EventCount : public ::testing::Test {
 protected:
  void SetUp() override { gNow = 1000; }
  TavoBpfDataState state{&FakeClock};
};

TEST_F(EventCount, OneSecondSumsItsTypesButNotPolls) {
  const struct {
    std::vector<std::pair<int, int>> records;  // (type, count)
    const char* line;
  } cases[] = {
      {{}, "0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, "},
      {{{3, 1}, {3, 1}, {15, 1}, {0, 5}}, "7, 5, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, "},
      // Out-of-range types change nothing.
      {{{16, 1}, {100, 1}, {-1, 1}, {-2147483647, 1}}, "0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, "},
  };
  for (const auto& c : cases) {
    TavoBpfDataState fresh(&FakeClock);
    for (const auto& [type, count] : c.records) fresh.RecordEvent(type, count);
    const auto lines = Lines(fresh.FormatState());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], std::string(kHeading) + "0, 0 ");
    EXPECT_EQ(lines[1], c.line);
  }
}

TEST_F(EventCount, GapLeavesZeroSlotsNewestFirst) {
  state.RecordEvent(2, 1);
  gNow += 5;
  state.RecordEvent(1, 4);
  const auto lines = Lines(state.FormatState());
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], std::string(kHeading) + "5, 0 ");
  EXPECT_EQ(lines[1], "4, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, ");
  for (int i = 2; i <= 5; ++i) EXPECT_EQ(lines[i].substr(0, 3), "0, ") << i;
  EXPECT_EQ(lines[6], "1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, ");
}

TEST_F(EventCount, WindowKeepsAtMost1800Slots) {
  for (int i = 0; i < 2000; ++i) {
    state.RecordEvent(i % 15, 1);
    ++gNow;
  }
  state.RecordEvent(0, 1);
  EXPECT_EQ(state.getCurrentIndex() - state.getOldestIndex(), 1799);
  EXPECT_EQ(Lines(state.FormatState()).size(), 1801u);
  // A jump longer than the window zeroes the whole ring once.
  gNow += 100000;
  state.RecordEvent(4, 2);
  EXPECT_EQ(state.getCurrentIndex() - state.getOldestIndex(), 1799);
  const auto lines = Lines(state.FormatState());
  EXPECT_EQ(lines[1], "2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, ");
  EXPECT_EQ(lines[2].substr(0, 3), "0, ");
}

TEST_F(EventCount, ClockSteppingBackKeepsCountingInTheCurrentSlot) {
  gNow = 2000;
  state.RecordEvent(1, 1);
  const int64_t index = state.getCurrentIndex();
  gNow = 1500;
  state.RecordEvent(1, 1);
  EXPECT_EQ(state.getCurrentIndex(), index);
  EXPECT_EQ(state.getCounter(index, 1), 2u);
  EXPECT_LE(state.getOldestIndex(), state.getCurrentIndex());
}

TEST(EventCountNames, UnknownNameIsSpeltAsShipped) {
  EXPECT_STREQ(TavoBpfDataState::EventName(9), "dambuf_attach");
  EXPECT_STREQ(TavoBpfDataState::EventName(15), "UNKNOW");
  EXPECT_STREQ(TavoBpfDataState::EventName(-1), "UNKNOW");
}

TEST(EventCountDump, LogsAnUnwritableDirectoryThenWritesTheCsvFileAndReplacesIt) {
  TAVO_REQUIRE_DATA();
  TavoBpfDataState state(&FakeClock);
  {
    // No /data/tavolog/stability: mkdir of the leaf fails and so does the open.
    tavo_test::LogCapture log;
    state.DumpState();
    EXPECT_EQ(log.Count("[TavoBpfDataState][DumpState] open file failed!", ANDROID_LOG_ERROR), 1);
  }
  ASSERT_EQ(system("mkdir -p /data/tavolog/stability"), 0);
  state.RecordEvent(2, 3);
  state.DumpState();
  state.RecordEvent(2, 1);
  state.DumpState();
  std::ifstream in(TavoBpfDataState::TAVOTASK_DUMP_TEMPLATE, std::ios::binary);
  ASSERT_TRUE(in.is_open());
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), state.FormatState());
  EXPECT_NE(text.str().find("\r\n4, 0, 0, 4, "), std::string::npos);
}
