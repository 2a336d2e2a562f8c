// The service as a whole: start-up, readiness, supervision, dispatch and the
// dumps on signals. Its kernel side is covered by kern_test.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "include/tavo_bpf_service_main.h"
#include "ipc/ipc_peer_policy.h"
#include "service/tavo_bpf_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_env.h"
#include "tests/support/tavo_harness.h"
#include "util/tavo_properties.h"
#include "util/tavo_service_contract.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;
using tavo_test::FindThread;
using tavo_test::WaitFor;

namespace {

constexpr const char* kDisable = kDisableProperty;
constexpr const char* kReady = kReadyProperty;

TavoServiceOptions TestOptions(const tavo_test::TempDir& dir) {
  TavoServiceOptions options;
  options.pinDir = dir.path() + "/pins/";  // nothing pinned: the pumps fail and end
  options.dumpDir = dir.path() + "/dumps";
  options.hub.socketPath = tavo_test::UniqueName("tavo_service");
  options.supervisionPeriod = std::chrono::milliseconds(50);
  options.readinessPeriod = std::chrono::milliseconds(20);
  return options;
}

uint32_t Counted(TavoBpfDataState& counters, int type) {
  return counters.getCounter(counters.getCurrentIndex(), type);
}

}  // namespace

TEST(Service, DisabledOnlyByExactlyOne) {
  if (!tavo_test::Env().bpffs) GTEST_SKIP() << "the process's own service needs a private socket space";
  tavo_test::LogCapture log;
  SetServiceProperty(kDisable, "1");
  EXPECT_EQ(BpfServiceMain(), 0);
  EXPECT_EQ(log.Count("[BpfServiceMain] Starting TAVO Bpf Service disabled!", ANDROID_LOG_INFO), 1);
  for (const char* value : {"0", "true", "01", "1 ", ""}) {
    SetServiceProperty(kDisable, value);
    EXPECT_EQ(BpfServiceMain(), 1) << "'" << value << "'";
  }
  EXPECT_EQ(log.Count("[BpfServiceMain] Starting TAVO Bpf Service", ANDROID_LOG_INFO), 6);
  TavoBpfService* service = TavoBpfService::GetInstance();
  int tid = -1;
  ASSERT_TRUE(WaitFor([&] { return (tid = FindThread("BpfServicePoll")) > 0; }));
  cpu_set_t cpus;  // named and kept off CPUs 3 and up
  ASSERT_EQ(sched_getaffinity(tid, sizeof(cpus), &cpus), 0);
  for (int cpu = 3; cpu < CPU_SETSIZE; ++cpu) EXPECT_FALSE(CPU_ISSET(cpu, &cpus)) << cpu;
  EXPECT_EQ(service->stop(), 0);
  EXPECT_EQ(service->Wait(), 0);
  // A joined thread's /proc entry may outlive the join by a moment.
  EXPECT_TRUE(WaitFor([] { return FindThread("BpfServicePoll") == -1; }));
  SetServiceProperty(kDisable, "0");
}

// Unset, the allowed ids admit system and shell on a device (SELinux is the
// gate there) and nobody but root and the own uid on a Linux host.
TEST(Service, DefaultPeersPerPlatform) {
#ifdef __ANDROID__
  constexpr bool kDevice = true;
#else
  constexpr bool kDevice = false;
#endif
  SetServiceProperty(kAllowedIdsProperty, "");
  const IpcPeerPolicy policy = IpcPeerPolicy::FromAllowedIds(TavoServiceOptions::FromProperties().hub.allowedIds);
  const std::pair<uid_t, bool> cases[] = {{0, true}, {1000, kDevice}, {2000, kDevice}, {1001, false}, {10123, false}};
  for (auto [uid, allowed] : cases) EXPECT_EQ(policy.allows({1, uid, uid, {}}), allowed || uid == geteuid()) << uid;
}

// The GPL pump needs the loader's maps: Wait() must not start it before
// readiness (it would end at once), and must relaunch a pump that ended.
TEST(Service, PumpsStartAfterReadinessAndComeBackAfterTheyEnd) {
  tavo_test::TempDir dir;
  auto service = TavoBpfService::Create(TestOptions(dir));
  tavo_test::LogCapture log;
  SetServiceProperty(kReady, "0");
  service->start();
  std::thread waiter([&] { service->Wait(); });
  ASSERT_TRUE(WaitFor([] { return FindThread("BpfServiceTr") > 0; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // six supervision rounds
  EXPECT_GT(FindThread("BpfServicePoll"), 0) << "waiting for readiness";
  EXPECT_EQ(log.Count("get ringbuf failed"), 0) << "no pump before readiness";
  EXPECT_FALSE(service->enableCoreBpf(0, true)) << "no status map yet";
  EXPECT_FALSE(service->enableCoreBpf(2, true));
  EXPECT_FALSE(service->enableNormalBpf(-1, true));

  SetServiceProperty(kReady, "00");  // any value but "0"
  for (const char* prefix : {"[TavoBpfService][eventMonitor]", "[TavoBpfService][gpleventMonitor]"}) {
    EXPECT_TRUE(WaitFor([&] { return log.Count(std::string(prefix) + " TAVOBPF: get ringbuf failed") >= 2; }))
        << prefix << ": a pump that ended is relaunched";
  }
  EXPECT_GE(log.Count("[TavoBpfService][Wait] relaunching BpfServicePGpl", ANDROID_LOG_WARN), 1);
  const auto stopped = std::chrono::steady_clock::now();
  service->stop();
  waiter.join();
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(1));
  EXPECT_TRUE(WaitFor([] { return FindThread("BpfServiceTr") == -1; }));
  SetServiceProperty(kReady, "0");
}

TEST(Service, DispatchCountsChecksFansOutThenHandles) {
  TavoBpfDataState counters(&GetSystemSecondsTime);
  std::vector<std::string> fannedOut, handled;
  TavoEventDispatcher dispatcher(counters, [&](const char* data, unsigned long size) {
    fannedOut.emplace_back(data, size);
    return 0;
  });
  dispatcher.SetHandler(2, [&](char* data, long size) {
    handled.emplace_back(data, size);
    EXPECT_EQ(fannedOut.size(), handled.size()) << "subscribers see the record before the handler";
    return 7;
  });
  auto record = [](uint32_t type, size_t size) {
    std::vector<char> r(size, 0x5a);
    memcpy(r.data(), &type, sizeof(type));
    return r;
  };
  tavo_test::LogCapture log;
  const struct {
    uint32_t type;
    size_t size;
    int result;
    int countedAt;  // -1: nowhere
  } cases[] = {{2, 48, 7, 2}, {5, 40, 0, 5}, {15, 24, -1, 15}, {16, 24, -1, -1}, {2, 15, 0, -1}};
  for (const auto& c : cases) {
    auto r = record(c.type, c.size);
    const uint32_t before = c.countedAt >= 0 ? Counted(counters, c.countedAt) : 0;
    EXPECT_EQ(TavoEventDispatcher::handleBpfRingBuffEvent(&dispatcher, r.data(), r.size()), c.result) << c.type;
    if (c.countedAt >= 0) {
      EXPECT_EQ(Counted(counters, c.countedAt), before + 1) << c.type;
    }
  }
  EXPECT_EQ(fannedOut.size(), 2u);
  EXPECT_EQ(handled.size(), 1u);
  EXPECT_EQ(log.Count("[TavoBpfService] handleEvent ERROR!!! Type: 15", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] handleEvent ERROR!!! Type: 16", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] handleEvent short record! size: 15", ANDROID_LOG_ERROR), 1);
}

// Signals reach the process: each of its services dumps into its own folder.
TEST(Service, EveryServiceOfTheProcessDumpsIntoItsOwnFolder) {
  SetServiceProperty(kReady, "0");
  tavo_test::TempDir first, second;
  auto a = TavoBpfService::Create(TestOptions(first));
  auto b = TavoBpfService::Create(TestOptions(second));
  a->start();
  b->start();
  raise(kDumpSignalTasks);
  for (const auto* dir : {&first, &second}) {
    const std::string file = dir->path() + "/dumps/" + kTaskDumpFile;
    EXPECT_TRUE(WaitFor([&] { return access(file.c_str(), F_OK) == 0; })) << file;
  }
}
