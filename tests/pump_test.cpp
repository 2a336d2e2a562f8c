#include <gtest/gtest.h>

#include <unistd.h>

#include "util/tavo_properties.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>

#include "bpf/tavo_bpf_attach.h"
#include "bpf/tavo_bpf_records.h"
#include "include/tavo_bpf_service_main.h"
#include "state/tavo_bpf_state.h"
#include "tests/support/children.h"
#include "tests/support/log_capture.h"
#include "tests/support/pump_test_object.h"
#include "tests/support/service_peer.h"
#include "tests/support/test_env.h"
#include "tests/support/wait.h"

using namespace Tavo::Bpf;
using Peer = TavoBpfServiceTestPeer;
using tavo_test::WaitFor;

namespace {

constexpr const char* kNormal = "TavoBpfDefineset";
constexpr const char* kGpl = "TavoBpfGplDefineset";
constexpr uint64_t kForeignBits = 0xab0000000008ULL;  // bits the pump must keep

// Each fork makes the test producer write one record.
void ForkOnce() { tavo_test::ReapedPid(); }

// Records of one type counted by the event recorder over the whole window.
uint64_t Counted(int type) {
  uint64_t sum = 0;
  for (int slot = 0; slot < TavoBpfDataState::kSlotCount; ++slot) {
    sum += TavoBpfDataState::GetInstance()->getCounter(slot, type);
  }
  return sum;
}

class Pump : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVO_REQUIRE_BPFFS();
    if (!tavo_test::Env().tracefs) GTEST_SKIP() << "no tracefs";
    ASSERT_EQ(object.Load(), "");
    service = TavoBpfService::GetInstance();
    // Fresh per process under CTest; reset for runs of several cases in one.
    for (int ring = 0; ring < 2; ++ring) {
      Peer::LastStatusCheck(service)[ring] = 0;
      Peer::StatusFd(service)[ring].reset();
      Peer::RingbufFd(service)[ring].reset();
    }
  }

  void TearDown() override {
    if (pump.joinable()) {
      // Never leave the pump blocked in its untimed poll.
      Peer::SetRunning(service, false);
      object.Produce(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO, getpid());
      WaitFor([this] {
        ForkOnce();
        return done.load();
      }, 10000);
      pump.join();
    }
  }

  // Pins the ring maps and the fork producer of one object and starts its pump.
  void StartPump(int index, uint32_t recordType = TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO) {
    const char* objectName = index == 0 ? kNormal : kGpl;
    ASSERT_TRUE(object.PinRingMaps(objectName));
    ASSERT_TRUE(object.PinProgram("fork_record", std::string("prog_") + objectName +
                                                     "_tracepoint_sched_sched_process_fork"));
    ASSERT_GE(AttachTracepointProgram(TavoBpfService::BPF_FS_PATH, objectName, "sched_sched_process_fork", "sched",
                                      "sched_process_fork"),
              0);
    ASSERT_TRUE(object.Produce(recordType, getpid()));
    Peer::SetRunning(service, true);
    pump = std::thread([this, index] {
      result = index == 0 ? service->eventMonitor() : service->gpleventMonitor();
      done = true;
    });
    ASSERT_TRUE(WaitFor([this] { return (object.Status(0) & 6) == 6; })) << std::hex << object.Status(0);
  }

  // Stop request, then the record that lets the pump see it.
  int StopPump() {
    Peer::SetRunning(service, false);
    ForkOnce();
    pump.join();
    return result;
  }

  tavo_test::PumpTestObject object;
  TavoBpfService* service = nullptr;
  std::thread pump;
  std::atomic<bool> done{false};
  int result = -2;
};

}  // namespace

TEST_F(Pump, EnablesBitsThenDeliversRecordsUntilStopped) {
  object.SetStatus(TAVO_STATUS_FLAGS, kForeignBits);
  ASSERT_TRUE(object.Attach("trace_flag_word"));
  tavo_test::LogCapture log;
  StartPump(0);
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 6);

  for (int i = 0; i < 3; ++i) ForkOnce();
  EXPECT_TRUE(WaitFor([] { return Counted(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO) >= 3; }));
  EXPECT_GE(Counted(TavoBpfDataState::kPollCounter), 1u);
  // Core first, on its own (the seeding runs then), normal after; the
  // first status check after a poll meets the final word.
  EXPECT_EQ(object.FlagTrace(), (std::vector<uint64_t>{kForeignBits, kForeignBits | 2, kForeignBits | 6}));

  EXPECT_EQ(StopPump(), 0);
  EXPECT_EQ(log.Count("[TavoBpfService][eventMonitor] Stop Event Produce Thread...", ANDROID_LOG_WARN), 1);
  EXPECT_EQ(Counted(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO), 4u);
  // A stopped pump leaves the flags up and its descriptors open.
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 6);
  EXPECT_GE(Peer::RingbufFd(service)[0].get(), 0);
  EXPECT_GE(Peer::StatusFd(service)[0].get(), 0);
}

TEST_F(Pump, GplPumpRunsOnItsOwnMaps) {
  tavo_test::LogCapture log;
  StartPump(1);
  ForkOnce();
  EXPECT_TRUE(WaitFor([] { return Counted(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO) >= 1; }));
  EXPECT_EQ(StopPump(), 0);
  EXPECT_GE(Peer::StatusFd(service)[1].get(), 0);
  EXPECT_EQ(Peer::StatusFd(service)[0].get(), -1);
  EXPECT_EQ(log.Count("[TavoBpfService][gpleventMonitor] Stop GPL Event Produce Thread...", ANDROID_LOG_WARN), 1);
}

TEST_F(Pump, FullMarkReportedOnFirstPollAndCleared) {
  // Set before the pump starts: its first successful poll checks at once.
  object.SetStatus(TAVO_STATUS_FLAGS, kForeignBits | TAVO_STATUS_RING_FULL);
  object.SetStatus(TAVO_STATUS_AVAIL_DATA, 48);
  object.SetStatus(TAVO_STATUS_RING_SIZE, 65536);
  object.SetStatus(TAVO_STATUS_CONS_POS, 1000);
  object.SetStatus(TAVO_STATUS_PROD_POS, 1048);
  tavo_test::LogCapture log;
  StartPump(0);
  ForkOnce();
  EXPECT_TRUE(WaitFor([this] { return (object.Status(TAVO_STATUS_FLAGS) & TAVO_STATUS_RING_FULL) == 0; }));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 6);
  // Within 30 seconds a new mark waits for the next check.
  object.SetStatus(TAVO_STATUS_FLAGS, kForeignBits | 7);
  ForkOnce();
  EXPECT_TRUE(WaitFor([] { return Counted(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO) >= 2; }));
  EXPECT_EQ(StopPump(), 0);
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 7);
  EXPECT_EQ(log.Count("[TavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!", ANDROID_LOG_WARN), 1);
  EXPECT_EQ(log.Count("[TavoBpfService][checkBpfRingBuffStatus] avail data: 48, ringbuf size: 65536, cons pos: "
                      "1000, prod pos: 1048",
                      ANDROID_LOG_WARN),
            1);
}

TEST_F(Pump, StatusCheckThrottledUnlessForcedAndEnableFlags) {
  ASSERT_TRUE(object.PinRingMaps(kNormal));
  Peer::StatusFd(service)[0].reset(bpf_obj_get("/sys/fs/bpf/tavo/map_TavoBpfDefineset_ringbuf_status"));
  object.SetStatus(TAVO_STATUS_FLAGS, kForeignBits | 7);
  tavo_test::LogCapture log;
  const int64_t now = time(nullptr);
  Peer::LastStatusCheck(service)[0] = now;
  EXPECT_TRUE(service->checkBpfRingBuffStatus(0, false));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 7);
  Peer::LastStatusCheck(service)[0] = now - 31;
  EXPECT_FALSE(service->checkBpfRingBuffStatus(0, false));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 6);
  EXPECT_GE(Peer::LastStatusCheck(service)[0], now);
  EXPECT_TRUE(service->checkBpfRingBuffStatus(0, true));
  object.SetStatus(TAVO_STATUS_FLAGS, 1);
  EXPECT_FALSE(service->checkBpfRingBuffStatus(0, true));
  EXPECT_EQ(log.Count("bpf ringbuff full!", ANDROID_LOG_WARN), 2);

  // Each enable call changes its own bit only.
  object.SetStatus(TAVO_STATUS_FLAGS, kForeignBits | 1);
  EXPECT_TRUE(service->enableCoreBpf(0, true));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 3);
  EXPECT_TRUE(service->enableNormalBpf(0, true));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 7);
  EXPECT_TRUE(service->enableCoreBpf(0, false));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 5);
  EXPECT_TRUE(service->enableNormalBpf(0, false));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 1);
  // No status map open for the GPL ring.
  EXPECT_FALSE(service->enableCoreBpf(1, true));
}

TEST(PumpBadRing, OutOfRangeIndexTouchesNothing) {
  TavoBpfService* service = TavoBpfService::GetInstance();
  for (int ring : {2, 3, -1}) {
    EXPECT_FALSE(service->checkBpfRingBuffStatus(ring, true)) << ring;
    EXPECT_FALSE(service->checkBpfRingBuffStatus(ring, false)) << ring;
    EXPECT_FALSE(service->enableCoreBpf(ring, true)) << ring;
    EXPECT_FALSE(service->enableNormalBpf(ring, true)) << ring;
  }
}

TEST(PumpMissingMaps, EndsWithOneErrorLine) {
  TAVO_REQUIRE_BPFFS();
  TavoBpfService* service = TavoBpfService::GetInstance();
  Peer::SetRunning(service, true);
  tavo_test::LogCapture log;
  errno = 0;
  EXPECT_EQ(service->eventMonitor(), -1);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(log.Count("[TavoBpfService][eventMonitor] TAVOBPF: get ringbuf failed: No such file or directory, map "
                      "fd: -1",
                      ANDROID_LOG_ERROR),
            1);
  EXPECT_EQ(service->gpleventMonitor(), -1);
  EXPECT_EQ(log.Count("[TavoBpfService][gpleventMonitor] TAVOBPF: get ringbuf failed: ", ANDROID_LOG_ERROR), 1);

  // The ring alone is not enough.
  tavo_test::PumpTestObject object;
  ASSERT_EQ(object.Load(), "");
  ASSERT_TRUE(object.PinMap("ringbuf_map", "map_TavoBpfDefineset_ringbuf_map"));
  EXPECT_EQ(service->eventMonitor(), -1);
  EXPECT_EQ(log.Count("[TavoBpfService][eventMonitor] TAVOBPF: get ringbuf status map failed: No such file or "
                      "directory, map fd: -1",
                      ANDROID_LOG_ERROR),
            1);
  EXPECT_EQ(log.Lines().size(), 3u);
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), 0u);
}

// Each bad record makes one poll fail (1 s pause each): five are tolerated,
// the sixth ends the pump.
TEST_F(Pump, SixthPollFailureInARowEndsThePump) {
  tavo_test::LogCapture log;
  StartPump(0, 99);
  for (int i = 0; i < 6; ++i) ForkOnce();
  ASSERT_TRUE(WaitFor([this] { return done.load(); }, 9000));
  pump.join();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log.Count("[TavoBpfService] handleEvent ERROR!!! Type: 99", ANDROID_LOG_ERROR), 6);
  EXPECT_EQ(log.Count("[TavoBpfService][eventMonitor] TAVOBPF: ret -1 .Error ring buf poll. ", ANDROID_LOG_ERROR), 6);
  EXPECT_EQ(log.Count("Stop Event Produce Thread", -1), 0);
}

// The whole path on this kernel: the service attaches the pinned programs of
// the normal table, its pump raises the flags, a fork reaches the handler.
TEST_F(Pump, ServiceAttachesAndPumpsEndToEnd) {
  Tavo::Bpf::SetServiceProperty("ro.kernel.version", "6.18.44");
  Tavo::Bpf::SetServiceProperty("sys.tavo_bpf_ready", "1");
  for (const auto& row : TavoBpfService::PROG_EVENT_MAP.at(kNormal).at(0)) {
    const char* program = row[0] == "sched_sched_process_fork" ? "fork_record" : "noop_tracepoint";
    ASSERT_TRUE(object.PinProgram(program, std::string("prog_") + kNormal + "_tracepoint_" + row[0]));
  }
  ASSERT_TRUE(object.PinRingMaps(kNormal));
  ASSERT_TRUE(object.Produce(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO, getpid()));
  tavo_test::LogCapture log;
  ASSERT_EQ(BpfServiceMain(), 1);
  ASSERT_TRUE(WaitFor([this] { return (object.Status(TAVO_STATUS_FLAGS) & 6) == 6; }));
  ForkOnce();
  EXPECT_TRUE(WaitFor([] { return Counted(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO) >= 1; }));

  service->stop();
  EXPECT_TRUE(WaitFor([&log] {
    ForkOnce();
    return log.Count("[TavoBpfService][eventMonitor] Stop Event Produce Thread...", ANDROID_LOG_WARN) == 1;
  }));
  EXPECT_EQ(service->Wait(), 0);
  // Only the two probe rows fail here; the GPL object is not pinned at all.
  EXPECT_EQ(log.Count("[TavoBpfService][eventProduceThread] Attach all tavo bpf error: 2", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService][gpleventMonitor] TAVOBPF: get ringbuf failed: ", ANDROID_LOG_ERROR), 1);
}
