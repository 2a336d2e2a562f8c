// One ring's pump against a stand-in object whose producer writes records
// on demand: flags around seeding, counting, the full mark, failures, stop.
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "service/tavo_event_dispatcher.h"
#include "service/tavo_ring_pump.h"
#include "tests/support/log_capture.h"
#include "tests/support/pump_object.h"
#include "tests/support/test_env.h"
#include "tests/support/tavo_harness.h"
#include "util/tavo_properties.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;

namespace {

constexpr const char* kObject = "TavoPumpTest";
constexpr const char* kDir = "/sys/fs/bpf/";
constexpr uint64_t kForeignBits = 0xab0000000008ULL;  // bits the pump must keep
const BpfAttachTable kTable = {{kObject, {{kAttachTracepoint, {{"emit", "syscalls", "sys_enter_getppid", "5.0+"}}}}}};

void Getppid(int times) {
  for (int i = 0; i < times; ++i) syscall(SYS_getppid);
}

class Pump : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVO_REQUIRE_KERNEL();
    ASSERT_TRUE(object.ok());
    utsname uts{};
    uname(&uts);
    SetServiceProperty("ro.kernel.version", uts.release);  // rows apply by kernel version
  }
  void TearDown() override {
    pump.Stop();
    if (runner.joinable()) runner.join();
  }

  void Run(TavoRingPump::Hooks hooks = {}) {
    ASSERT_EQ(pump.Attach(KernelVersionFromProperty()), 0);
    runner = std::thread([this, hooks] { result = pump.Run(hooks); });
  }
  uint32_t Counted(int type) {
    uint32_t sum = 0;
    for (int64_t slot = counters.getOldestIndex(); slot <= counters.getCurrentIndex(); ++slot) {
      sum += counters.getCounter(slot, type);
    }
    return sum;
  }

  tavo_test::PumpObject object{kDir, kObject};
  TavoBpfDataState counters{&GetSystemSecondsTime};
  std::atomic<int> delivered{0};
  TavoEventDispatcher dispatcher{counters, [this](const char*, unsigned long) { return ++delivered; }};
  TavoRingPumpConfig config{0, kDir, kObject, &kTable, "[TavoBpfService][eventMonitor]", "Stop Event Produce Thread...", 10};
  TavoRingPump pump{config, &TavoEventDispatcher::handleBpfRingBuffEvent, &dispatcher, counters};
  std::thread runner;
  std::atomic<int> result{1};
};

}  // namespace

TEST_F(Pump, FlagsRiseAroundSeedingAndRecordsFlowUntilStopped) {
  object.SetStatus(TAVO_STATUS_FLAGS, kForeignBits);
  std::atomic<uint64_t> atSeed{0}, atSeeded{0};
  TavoRingPump::Hooks hooks;
  hooks.seed = [&] { atSeed = object.Status(TAVO_STATUS_FLAGS); };
  hooks.seeded = [&] { atSeeded = object.Status(TAVO_STATUS_FLAGS); };
  tavo_test::LogCapture log;
  Run(hooks);
  ASSERT_TRUE(tavo_test::WaitFor([&] { return atSeeded != 0; }));
  EXPECT_EQ(atSeed, kForeignBits | TAVO_STATUS_CORE_ENABLED) << "core goes up before the scan";
  EXPECT_EQ(atSeeded, kForeignBits | TAVO_STATUS_CORE_ENABLED | TAVO_STATUS_NORMAL_ENABLED);

  object.Produce(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO, getpid());
  Getppid(50);
  ASSERT_TRUE(tavo_test::WaitFor([&] { return delivered == 50; }));
  EXPECT_EQ(Counted(TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO), 50u);
  EXPECT_GE(Counted(TavoBpfDataState::kPollCounter), 1u);
  EXPECT_TRUE(pump.UpdateFlags(0, TAVO_STATUS_CORE_ENABLED));  // the host switches core off
  Getppid(5);
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | TAVO_STATUS_NORMAL_ENABLED);

  // A stop wakes the pump at once; what is still in the ring is handled.
  pump.UpdateFlags(TAVO_STATUS_CORE_ENABLED, 0);
  Getppid(10);
  pump.Stop();
  runner.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(delivered, 60);
  EXPECT_EQ(log.Count("[TavoBpfService][eventMonitor] Stop Event Produce Thread...", ANDROID_LOG_WARN), 1);
}

TEST_F(Pump, FullMarkIsReportedThenCleared) {
  tavo_test::LogCapture log;
  Run();
  ASSERT_TRUE(tavo_test::WaitFor([&] { return object.Status(TAVO_STATUS_FLAGS) & TAVO_STATUS_NORMAL_ENABLED; }));
  const uint64_t values[] = {kForeignBits | TAVO_STATUS_RING_FULL | 6, 111, 4096, 7, 9};
  for (uint32_t key = 0; key < 5; ++key) object.SetStatus(key, values[key]);
  EXPECT_FALSE(pump.checkBpfRingBuffStatus(true));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), kForeignBits | 6) << "only the mark is cleared";
  EXPECT_EQ(log.Count("[TavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!", ANDROID_LOG_WARN), 1);
  EXPECT_EQ(log.Count("avail data: 111, ringbuf size: 4096, cons pos: 7, prod pos: 9", ANDROID_LOG_WARN), 1);
  // Within 30 seconds of a check, an unforced one does not look.
  object.SetStatus(TAVO_STATUS_FLAGS, TAVO_STATUS_RING_FULL);
  EXPECT_TRUE(pump.checkBpfRingBuffStatus(false));
  EXPECT_EQ(object.Status(TAVO_STATUS_FLAGS), TAVO_STATUS_RING_FULL);
}

TEST_F(Pump, SixFailedPollsInARowEndThePump) {
  tavo_test::LogCapture log;
  object.Produce(15, getpid());  // a type the dispatcher refuses: the poll fails
  Run();
  ASSERT_TRUE(tavo_test::WaitFor([&] { return object.Status(TAVO_STATUS_FLAGS) & TAVO_STATUS_CORE_ENABLED; }));
  for (int i = 0; i < 6; ++i) {
    Getppid(1);
    ASSERT_TRUE(tavo_test::WaitFor([&] { return log.Count(".Error ring buf poll.") > i; })) << i;
    if (i < 5) {
      EXPECT_EQ(result, 1) << "still running after " << i + 1 << " failures";
    }
  }
  runner.join();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log.Count("[TavoBpfService][eventMonitor] TAVOBPF: ret", ANDROID_LOG_ERROR), 6);
  EXPECT_EQ(log.Count("[TavoBpfService] handleEvent ERROR!!! Type: 15", ANDROID_LOG_ERROR), 6);
}

TEST_F(Pump, MissingMapsEndThePumpWithTheirLine) {
  tavo_test::LogCapture log;
  TavoRingPumpConfig missing = config;
  missing.object = "NoSuchObject";
  TavoRingPump other(missing, &TavoEventDispatcher::handleBpfRingBuffEvent, &dispatcher, counters);
  EXPECT_EQ(other.Run({}), -1);
  EXPECT_EQ(log.Count("[TavoBpfService][eventMonitor] TAVOBPF: get ringbuf failed: No such file or directory",
                      ANDROID_LOG_ERROR), 1);
  EXPECT_FALSE(other.UpdateFlags(TAVO_STATUS_CORE_ENABLED, 0)) << "no status map to update";
}
