#include <gtest/gtest.h>

#include <unistd.h>



#include <chrono>
#include <string>
#include <thread>

#include "include/tavo_bpf_service_main.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"
#include "util/tavo_properties.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;
using tavo_test::FindThread;
using tavo_test::WaitFor;

namespace {

constexpr const char* kDisable = "persist.sys.stability.bpfframework.disable";
constexpr const char* kReady = "sys.tavo_bpf_ready";

void StopAndJoin() {
  TavoBpfService* service = TavoBpfService::GetInstance();
  EXPECT_EQ(service->stop(), 0);
  EXPECT_EQ(service->Wait(), 0);
}

}  // namespace

TEST(Lifecycle, DisabledOnlyByExactlyOne) {
  tavo_test::LogCapture log;
  SetServiceProperty(kDisable, "1");
  EXPECT_EQ(BpfServiceMain(), 0);
  EXPECT_EQ(log.Count("[BpfServiceMain] Starting TAVO Bpf Service disabled!", ANDROID_LOG_INFO), 1);
  EXPECT_EQ(FindThread("BpfServicePoll"), -1);
}

class LifecycleEnabled : public ::testing::TestWithParam<const char*> {};

TEST_P(LifecycleEnabled, OtherValuesStartTheService) {
  tavo_test::LogCapture log;
  if (GetParam() != nullptr) SetServiceProperty(kDisable, GetParam());
  EXPECT_EQ(BpfServiceMain(), 1);
  EXPECT_EQ(log.Count("[BpfServiceMain] Starting TAVO Bpf Service", ANDROID_LOG_INFO), 1);
  int tid = -1;
  ASSERT_TRUE(WaitFor([&] { return (tid = FindThread("BpfServicePoll")) > 0; }, 2000));
  // The poll thread is named and kept off CPUs 3 and up.
  cpu_set_t cpus;
  ASSERT_EQ(sched_getaffinity(tid, sizeof(cpus), &cpus), 0);
  for (int cpu = 3; cpu < CPU_SETSIZE; ++cpu) EXPECT_FALSE(CPU_ISSET(cpu, &cpus)) << cpu;
  StopAndJoin();
  // A joined thread's /proc entry may outlive the join by a moment.
  EXPECT_TRUE(WaitFor([] { return FindThread("BpfServicePoll") == -1; }, 2000));
}

INSTANTIATE_TEST_SUITE_P(Values, LifecycleEnabled,
                         ::testing::Values(nullptr, "0", "true", "01", "1 ", ""));

TEST(Lifecycle, WaitsForReadinessInOneSecondSteps) {
  SetServiceProperty(kReady, "0");
  __basetime = 0;
  ASSERT_EQ(BpfServiceMain(), 1);
  // The time base is set only once the loader said it is ready.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(GetBasetime(), 0);
  const auto released = std::chrono::steady_clock::now();
  SetServiceProperty(kReady, "00");
  EXPECT_TRUE(WaitFor([] { return GetBasetime() != 0; }, 2500));
  EXPECT_LE(std::chrono::steady_clock::now() - released, std::chrono::milliseconds(1500));
  StopAndJoin();
}

TEST(Lifecycle, WaitReturnsAtOnceWhenStopped) {
  TavoBpfService* service = TavoBpfService::GetInstance();
  EXPECT_EQ(service->Wait(), 0);
  EXPECT_EQ(service->stop(), 0);
  EXPECT_EQ(service->Wait(), 0);
}
