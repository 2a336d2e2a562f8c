// Dma-buf accounting: record sequences in, totals, use counts and 50005
// notices out, as a subscribed client receives them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "event/tavo_bpf_event_manager.h"
#include "service/tavo_bpf_exit_queue.h"
#include "service/tavo_bpf_service.h"
#include "task/tavo_bpf_task_manager.h"
#include "tests/support/children.h"
#include "tests/support/frames.h"
#include "tests/support/log_capture.h"
#include "tests/support/service_peer.h"
#include "tests/support/task_records.h"

using namespace Tavo::Bpf;

namespace {

constexpr int kClientFd = 41;
constexpr uint32_t kExit = 100;  // step that notes a process exit, not a record

struct Step {
  uint32_t type;
  int32_t pid;
  uint64_t size;
  uint64_t key;
  uint64_t buf;
  uint64_t ts;
};
Step BufSetup(uint64_t buf, uint64_t size) { return {TAVO_EVENT_DMABUF_SETUP, 0, size, 0, buf, 1}; }
Step Release(uint64_t buf) { return {TAVO_EVENT_DMABUF_RELEASE, 0, 0, 0, buf, 1}; }
Step Use(uint32_t type, int32_t pid, uint64_t buf, uint64_t size, uint64_t ts = 1) {
  return {type, pid, size, 0, buf, ts};
}
Step Map(uint32_t type, int32_t pid, uint64_t key, uint64_t buf, uint64_t size) {
  return {type, pid, size, key, buf, 1};
}
Step Exit(int32_t pid, uint64_t ts) { return {kExit, pid, 0, 0, 0, ts}; }

using Notices = std::vector<std::pair<int32_t, int64_t>>;
using Refs = std::map<int32_t, std::map<uint64_t, uint32_t>>;

struct Case {
  std::string name;
  std::vector<Step> steps;
  Notices notices;                           // (pid, total) in order
  std::map<int32_t, int64_t> totals;         // processDmabufTotals afterwards
  Refs refs;                                 // processDmabufRefs afterwards
  std::map<int32_t, std::map<uint64_t, uint64_t>> mappings;
};

std::vector<char> Record(const Step& step) {
  tavo_dmabuf_event record{};
  record.hdr.type = step.type;
  record.hdr.ts = step.ts;
  record.pid = step.pid;
  record.size = step.size;
  record.map_key = step.key;
  record.buf_id = step.buf;
  const char* bytes = reinterpret_cast<const char*>(&record);
  return std::vector<char>(bytes, bytes + sizeof(record));
}

void Apply(const Step& step) {
  if (step.type == kExit) {
    // Through the process-exit handler, which hands the pid to the GPL side.
    auto exit = tavo_test::ExitRecord(step.pid, "", step.ts, TAVO_TASK_KIND_PROCESS);
    ASSERT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, &exit, sizeof(exit)), 0);
    return;
  }
  auto bytes = Record(step);
  ASSERT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, bytes.data(), bytes.size()), 0);
}

// (pid, total) of each 50005 notice a subscribed client got since the last call.
Notices Drain(tavo_test::NoticeSink& sink) {
  Notices out;
  for (const std::string& payload : sink.Take()) {
    tavo_notice_dmabuf_total notice{};
    EXPECT_EQ(payload.size(), sizeof(notice));
    memcpy(&notice, payload.data(), std::min(payload.size(), sizeof(notice)));
    out.emplace_back(notice.pid, notice.total);
  }
  return out;
}

void Register(int32_t pid, uint32_t uid, const char* comm) {
  TavoTask task;
  task.pid = pid;
  task.uid = uid;
  snprintf(task.comm, sizeof(task.comm), "%s", comm);
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  TavoTaskManager::GetInstance()->AddTavoTask(pid, task);
}

constexpr uint32_t A = TAVO_EVENT_DMABUF_ATTACH, D = TAVO_EVENT_DMABUF_DETACH;
constexpr uint32_t V = TAVO_EVENT_DMABUF_VMAP, VU = TAVO_EVENT_DMABUF_VUNMAP;
constexpr uint32_t M = TAVO_EVENT_DMABUF_MMAP, MU = TAVO_EVENT_DMABUF_MUNMAP;

const Case kCases[] = {
    {"AttachTwiceDetachTwice",
     {Use(A, 100, 1, 4096), Use(A, 100, 1, 4096), Use(D, 100, 1, 4096), Use(D, 100, 1, 4096)},
     {{100, 4096}, {100, 0}}, {{100, 0}}, {{100, {}}}, {}},
    {"TwoProcessesAreBothCharged", {Use(A, 100, 1, 4096), Use(A, 200, 1, 4096)},
     {{100, 4096}, {200, 4096}}, {{100, 4096}, {200, 4096}}, {{100, {{1, 1}}}, {200, {{1, 1}}}}, {}},
    {"ReleaseOfDoublyAttachedBufferUnchargesOnce",
     {BufSetup(1, 4096), Use(A, 100, 1, 4096), Use(A, 100, 1, 4096), Release(1), Use(D, 100, 1, 4096)},
     {{100, 4096}, {100, 0}}, {{100, 0}}, {{100, {}}}, {}},
    {"ReleaseUnchargesEveryHolderByTheSetupSize",
     {BufSetup(1, 4096), Use(A, 200, 1, 4096), Use(A, 100, 1, 4096), Use(A, 100, 2, 10), Release(1)},
     {{200, 4096}, {100, 4096}, {100, 4106}, {100, 10}, {200, 0}}, {{100, 10}, {200, 0}},
     {{100, {{2, 1}}}, {200, {}}}, {}},
    {"ReleaseOfUnknownBufferSubtractsZeroAndNotifiesEveryHolder",
     {Use(A, 100, 9, 1000), Use(A, 200, 9, 1000), Release(9)},
     {{100, 1000}, {200, 1000}, {100, 1000}, {200, 1000}}, {{100, 1000}, {200, 1000}}, {{100, {}}, {200, {}}}, {}},
    {"MunmapWithUnknownAndRepeatedKeys",
     {Map(M, 100, 0xa, 1, 4096), Map(M, 100, 0xb, 1, 4096), Map(MU, 100, 0xc, 0, 4096),
      Map(MU, 300, 0xa, 0, 4096), Map(MU, 100, 0xa, 0, 4096), Map(MU, 100, 0xa, 0, 4096),
      Map(MU, 100, 0xb, 0, 4096)},
     {{100, 4096}}, {{100, 4096}}, {{100, {{1, 1}}}}, {{100, {}}}},
    {"MmapThenMunmapUnchargesThroughTheKey", {Map(M, 100, 0xa, 2, 8192), Map(MU, 100, 0xa, 0, 8192)},
     {{100, 8192}, {100, 0}}, {{100, 0}}, {{100, {}}}, {{100, {}}}},
    {"MismatchedDetachSizeStaysInTheTotal", {Use(A, 100, 1, 4096), Use(D, 100, 1, 1024)},
     {{100, 4096}, {100, 3072}}, {{100, 3072}}, {{100, {}}}, {}},
    {"VmapSharesTheUseCountWithAttach",
     {Use(V, 100, 1, 4096), Use(A, 100, 1, 4096), Use(VU, 100, 1, 4096), Use(VU, 100, 1, 4096)},
     {{100, 4096}, {100, 0}}, {{100, 0}}, {{100, {}}}, {}},
    {"DropWithoutUseChangesNothing",
     {Use(D, 300, 1, 4096), Use(VU, 300, 1, 4096), Use(A, 100, 1, 4096), Use(D, 100, 2, 4096)},
     {{100, 4096}}, {{100, 4096}}, {{100, {{1, 1}}}}, {}},
    {"ExitPurgesSoAReusedPidStartsAtZero",
     {Map(M, 100, 0xa, 1, 4096), Use(A, 100, 2, 10, 5), Exit(100, 20), Use(A, 100, 3, 100, 30)},
     {{100, 4096}, {100, 4106}, {100, 100}}, {{100, 100}}, {{100, {{3, 1}}}}, {}},
    {"ExitOlderThanALaterUseKeepsTheEntries", {Use(A, 100, 1, 4096, 50), Exit(100, 40), Use(A, 200, 2, 1, 60)},
     {{100, 4096}, {200, 1}}, {{100, 4096}, {200, 1}}, {{100, {{1, 1}}}, {200, {{2, 1}}}}, {}},
    {"DropAfterExitIsIgnoredWithoutANotice", {Use(A, 100, 1, 4096, 10), Exit(100, 20), Use(D, 100, 1, 4096, 30)},
     {{100, 4096}}, {}, {}, {}},
};

class DmabufSequence : public testing::TestWithParam<Case> {};

TEST_P(DmabufSequence, TotalsUseCountsAndNotices) {
  const Case& c = GetParam();
  tavo_test::NoticeSink sink({TAVO_NOTICE_DMABUF_TOTAL}, kClientFd);
  for (const Step& step : c.steps) Apply(step);
  TavoBpfService* service = TavoBpfService::GetInstance();
  EXPECT_EQ(Drain(sink), c.notices);
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufTotals(service), c.totals);
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufRefs(service), c.refs);
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufMappings(service), c.mappings);
  // Releases always end with the buffer forgotten.
  for (const Step& step : c.steps) {
    if (step.type == TAVO_EVENT_DMABUF_RELEASE) {
      EXPECT_EQ(TavoBpfServiceTestPeer::DmabufSizes(service).count(step.buf), 0u);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Handlers, DmabufSequence, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

TEST(DmabufNotice, CarriesUidAndCommOfRegisteredTasksAndZerosOtherwise) {
  tavo_test::NoticeSink sink({TAVO_NOTICE_DMABUF_TOTAL}, kClientFd);
  Register(100, 10057, "camera.provider");
  Apply(Use(A, 100, 1, 0x123456789));
  Apply(Use(A, 200, 1, 4096));
  // Byte for byte, as the client receives them.
  EXPECT_EQ(sink.Take(), (std::vector<std::string>{
                             tavo_test::AsString(tavo_notice_dmabuf_total{50005, 100, 10057, "camera.provider", 0,
                                                                          0x123456789}),
                             tavo_test::AsString(tavo_notice_dmabuf_total{50005, 200, 0, {}, 0, 4096})}));
}

TEST(DmabufRecord, ShortRecordsAreRefusedWithAnErrorLine) {
  tavo_test::LogCapture log;
  TavoBpfService* service = TavoBpfService::GetInstance();
  auto& handlers = TavoBpfServiceTestPeer::EventHandlers(service);
  for (uint32_t type = TAVO_EVENT_DMABUF_SETUP; type <= TAVO_EVENT_DMABUF_MUNMAP; ++type) {
    auto bytes = Record(Use(type, 100, 1, 4096));
    EXPECT_EQ(handlers.at(static_cast<int>(type))(bytes.data(), 47), 0);
    EXPECT_EQ(log.Count("[TavoBpfService] short dmabuf record! type: " + std::to_string(type) + ", size: 47",
                        ANDROID_LOG_ERROR),
              1);
  }
  EXPECT_EQ(handlers.at(TAVO_EVENT_DMABUF_ATTACH)(nullptr, 0), 0);
  EXPECT_EQ(log.Count("short dmabuf record! type: 0, size: 0"), 1);
  EXPECT_TRUE(TavoBpfServiceTestPeer::ProcessDmabufRefs(service).empty());
  EXPECT_TRUE(TavoBpfServiceTestPeer::ProcessDmabufTotals(service).empty());
  EXPECT_TRUE(TavoBpfServiceTestPeer::DmabufSizes(service).empty());
}

// When more exits arrive between two records than the hand-off holds, the
// tables are swept for pids that no longer exist.
TEST(DmabufExit, OverflowSweepsDeadPidsAndKeepsLiveOnes) {
  const pid_t dead = tavo_test::ReapedPid();
  ASSERT_GT(dead, 0);
  const int32_t alive = getpid();
  Apply(Use(A, dead, 1, 4096));
  Apply(Map(M, alive, 0xa, 2, 8192));
  for (size_t i = 0; i <= ProcessExitQueue::kCapacity; ++i) NoteProcessExit(-1, 1);
  Apply(BufSetup(3, 1));
  TavoBpfService* service = TavoBpfService::GetInstance();
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufTotals(service), (std::map<int32_t, int64_t>{{alive, 8192}}));
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufRefs(service).count(dead), 0u);
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufMappings(service).count(alive), 1u);
  // Once drained, the hand-off takes exits again.
  NoteProcessExit(alive, 10);
  Apply(BufSetup(4, 1));
  EXPECT_TRUE(TavoBpfServiceTestPeer::ProcessDmabufTotals(service).empty());
}

// Exits noted from another thread while records are applied (run under TSan).
TEST(DmabufExit, ExitsNotedConcurrentlyAreAllApplied) {
  constexpr int kPids = 500;
  for (int pid = 1; pid <= kPids; ++pid) Apply(Use(A, pid, 1, 1, 1));
  std::thread noter([] {
    for (int pid = 1; pid <= kPids; ++pid) NoteProcessExit(pid, 2);
  });
  for (int i = 0; i < 2000; ++i) Apply(Use(A, kPids + 1, 2, 1, 3));
  noter.join();
  Apply(BufSetup(5, 1));
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufTotals(TavoBpfService::GetInstance()),
            (std::map<int32_t, int64_t>{{kPids + 1, 1}}));
}

}  // namespace
