// The table behind `tavoctl top`, driven by notices and a hand-set clock.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/tavo_cli/tavoctl_top_format.h"
#include "tools/tavo_cli/tavoctl_top_model.h"

using namespace Tavo::Cli;
using namespace Tavo::Client;

namespace {

constexpr int64_t kMiB = 1 << 20;

ProcessRow Row(int32_t pid, const std::string& name, int64_t anon, int64_t swap, uint32_t threads,
               int64_t dmabuf) {
  ProcessRow row;
  row.pid = pid;
  row.name = name;
  row.anon = anon;
  row.file = row.shmem = 0;
  row.swap = swap;
  row.threads = threads;
  row.dmabuf = dmabuf;
  return row;
}

std::vector<int32_t> Pids(const std::vector<ViewRow>& rows) {
  std::vector<int32_t> pids;
  for (const ViewRow& row : rows) pids.push_back(row.process.pid);
  return pids;
}

// pid's row in the frame taken now.
std::optional<ViewRow> Find(TopModel& model, int32_t pid) {
  for (const ViewRow& row : model.Take().rows) {
    if (row.process.pid == pid) return row;
  }
  return std::nullopt;
}

std::string StateOf(TopModel& model, int32_t pid, std::string* name = nullptr) {
  const auto row = Find(model, pid);
  if (!row) return "gone";
  if (name != nullptr) *name = row->process.name;
  return row->state == RowState::kNew ? "new" : row->state == RowState::kEnded ? "ended" : "running";
}

TEST(TopModel, SortKeysAndNameFilter) {
  const std::vector<ViewRow> rows = {{Row(30, "Camera", 5 * kMiB, 0, 9, -1)},
                                     {Row(10, "surfaceflinger", 1 * kMiB, 3 * kMiB, 40, 64 * kMiB)},
                                     {Row(20, "camera.provider", 9 * kMiB, 1 * kMiB, 9, 0)},
                                     {Row(40, "logd", 5 * kMiB, 0, 2, 8 * kMiB)}};
  const struct {
    SortKey key;
    const char* filter;
    std::vector<int32_t> pids;
  } cases[] = {
      {SortKey::kMemory, "", {20, 30, 40, 10}},  // ties by pid
      {SortKey::kDmabuf, "", {10, 40, 20, 30}},  // unknown last
      {SortKey::kThreads, "", {10, 20, 30, 40}},
      {SortKey::kPid, "", {10, 20, 30, 40}},
      {SortKey::kSwap, "", {10, 20, 30, 40}},
      {SortKey::kMemory, "CAMERA", {20, 30}},
      {SortKey::kPid, "nothing", {}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Pids(TopModel::Arrange(rows, c.key, c.filter)), c.pids) << TopFormat::SortName(c.key) << c.filter;
  }
}

// New rows are highlighted for two seconds, ended rows dimmed for two, then
// dropped; a process known only from its start notice is read from /proc
// once, after half a second, and named by its end notice if it goes first.
// The notices are counted per second.
TEST(TopModel, StartAndEndTimingAndOneLookAtProc) {
  int64_t now = 100000;
  TopModel model([&now] { return now; });
  model.Apply(ProcessStartNotice{7, 1, 0, "parent"});
  model.Apply(ProcessStartNotice{8, 1, 0, "parent"});
  EXPECT_EQ(StateOf(model, 7), "new");
  EXPECT_TRUE(model.TakeUnidentified(10).empty());
  now += TopModel::kIdentifyAfterMs;
  model.Apply(ProcessExitNotice{8, "short_lived"});
  std::string name;
  EXPECT_EQ(StateOf(model, 8, &name), "ended");
  EXPECT_EQ(name, "short_lived");
  EXPECT_EQ(model.TakeUnidentified(10), std::vector<int32_t>{7});
  EXPECT_TRUE(model.TakeUnidentified(10).empty());
  ProcessRow read = Row(7, "exec_name", 3 * kMiB, 0, 4, -1);
  model.Identify(7, &read);
  EXPECT_EQ(StateOf(model, 7, &name), "new");
  EXPECT_EQ(name, "exec_name");
  now += TopModel::kFreshMs - TopModel::kIdentifyAfterMs;
  EXPECT_EQ(StateOf(model, 7), "running");
  EXPECT_EQ(StateOf(model, 8), "ended");
  now += TopModel::kIdentifyAfterMs;
  EXPECT_EQ(StateOf(model, 8), "gone");
  // Notices per complete second, oldest first: second 100 is 58 of 60.
  const Snapshot frame = model.Take();
  EXPECT_EQ(frame.rates[0][58], 2u);
  EXPECT_EQ(frame.rates[1][58], 1u);
  EXPECT_EQ(frame.rates[0][59], 0u);
  now = 161200;  // second 100's slot again
  model.Apply(ProcessStartNotice{9, 1, 0, "later"});
  now = 162000;
  EXPECT_EQ(model.Take().rates[0].back(), 1u);
}

// A memory notice takes the sizes that moved since the service's previous
// notice (it starts a forked child at zero); a /proc scan, run under the
// lock, keeps dma-buf totals and ended rows and drops what is gone.
TEST(TopModel, MemoryNoticesAndReseed) {
  int64_t now = 5000;
  TopModel model([&now] { return now; });
  ProcessRow app = Row(5, "app", 2 * kMiB, 0, 1, -1);
  app.file = 3 * kMiB;
  model.Reseed([&] { return std::vector<ProcessRow>{app, Row(6, "old", 0, 0, 1, -1)}; });
  model.Apply(MemoryNotice{5, 1, 0, "app", {0, 70 * kMiB, 0, 0}, {0, 2 * kMiB, 0, 0}});
  EXPECT_EQ(Find(model, 5)->process.anon, 70 * kMiB);
  EXPECT_EQ(Find(model, 5)->process.file, 3 * kMiB);
  model.Apply(DmabufTotalNotice{5, 0, "app", 4096});
  model.Apply(ProcessExitNotice{6, "old"});
  app.anon = 71 * kMiB;
  model.Reseed([&] { return std::vector<ProcessRow>{app, Row(6, "old", 0, 0, 1, -1)}; });
  EXPECT_EQ(Find(model, 5)->process.anon, 71 * kMiB);
  EXPECT_EQ(Find(model, 5)->process.dmabuf, 4096);
  EXPECT_EQ(StateOf(model, 6), "ended");
  model.Reseed([] { return std::vector<ProcessRow>{}; });
  EXPECT_EQ(StateOf(model, 5), "gone");
  EXPECT_EQ(StateOf(model, 6), "ended");
}

// Narrow terminals lose columns from the right, never cut one in half.
TEST(TopFormat, ColumnsDropFromTheRight) {
  ViewRow row{Row(1234, "system_server", 123 * kMiB, 0, 150, 5 * kMiB)};
  const struct {
    int width;
    const char* lastTitle;
  } cases[] = {{200, "AGE"}, {96, "AGE"}, {95, "DMABUF"}, {72, "SHMEM"}, {40, "NAME"}, {10, "PID"}};
  for (const auto& c : cases) {
    const std::string header = TopFormat::TableHeader(c.width);
    const std::string line = TopFormat::Row(row, 0, c.width);
    EXPECT_LE(line.size(), static_cast<size_t>(c.width));
    EXPECT_EQ(header.substr(header.rfind(' ') + 1), c.lastTitle) << c.width;
  }
  EXPECT_EQ(TopFormat::Row(row, 0, 95),
            "     1234       0      0 system_server    150  123 MiB        0        0        0  5.0 MiB");
  EXPECT_EQ(TopFormat::Size(123 * kMiB), "123 MiB");
  EXPECT_EQ(TopFormat::Size(1536 * kMiB), "1.5 GiB");
}

}  // namespace
