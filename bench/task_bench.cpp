// Task tracking costs: the start-up scan of /proc against a minimal loop that
// reads the same two files per process, the memory handler's record rate,
// and the registry's memory per tracked task.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "service/tavo_bpf_service.h"
#include "task/tavo_bpf_task_manager.h"

using namespace Tavo::Bpf;

namespace {

constexpr int kSleepers = 2000;

std::vector<pid_t> StartSleepers(int n) {
  std::vector<pid_t> pids;
  for (int i = 0; i < n; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive the benchmark
      for (;;) pause();
    }
    if (pid < 0) break;
    pids.push_back(pid);
  }
  return pids;
}

void StopSleepers(const std::vector<pid_t>& pids) {
  for (pid_t pid : pids) kill(pid, SIGKILL);
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
}

size_t CountProcesses() {
  size_t n = 0;
  DIR* dir = opendir("/proc");
  if (dir == nullptr) return 0;
  while (const dirent* e = readdir(dir)) {
    if (e->d_name[0] >= '0' && e->d_name[0] <= '9') ++n;
  }
  closedir(dir);
  return n;
}

void ReadWhole(const char* path, char* buf, size_t size) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  while (read(fd, buf, size) > 0) {
  }
  close(fd);
}

void ClearRegistry() {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  TavoTaskManager::GetInstance()->Clear();
}

void PerThousandProcesses(benchmark::State& state, size_t processes) {
  state.counters["processes"] = static_cast<double>(processes);
  // Seconds per 1000 processes.
  state.counters["s_per_1000"] = benchmark::Counter(
      static_cast<double>(processes) / 1000.0,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace

// The floor: list /proc, open and read status and stat of every process.
void ScanFloor() {
  char buf[4096];
  char path[300];
  DIR* dir = opendir("/proc");
  if (dir == nullptr) return;
  while (const dirent* e = readdir(dir)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    snprintf(path, sizeof(path), "/proc/%s/status", e->d_name);
    ReadWhole(path, buf, sizeof(buf));
    snprintf(path, sizeof(path), "/proc/%s/stat", e->d_name);
    ReadWhole(path, buf, sizeof(buf));
  }
  closedir(dir);
}

static void BM_ScanFloor(benchmark::State& state) {
  for (auto _ : state) ScanFloor();
  PerThousandProcesses(state, CountProcesses());
}
BENCHMARK(BM_ScanFloor)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

static void BM_InitTaskInfo(benchmark::State& state) {
  TavoBpfService* service = TavoBpfService::GetInstance();
  for (auto _ : state) {
    state.PauseTiming();
    ClearRegistry();
    state.ResumeTiming();
    service->initTaskInfo();
  }
  PerThousandProcesses(state, CountProcesses());
}
BENCHMARK(BM_InitTaskInfo)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

// The two alternated within each iteration, so that load from other work on
// the machine falls on both alike; reports scan / floor for wall and CPU time.
static void BM_ScanOverFloorRatio(benchmark::State& state) {
  TavoBpfService* service = TavoBpfService::GetInstance();
  double wall[2] = {0, 0}, cpu[2] = {0, 0};
  auto now = [](clockid_t id) {
    timespec ts{};
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
  };
  for (auto _ : state) {
    for (int which = 0; which < 2; ++which) {
      ClearRegistry();
      const double w0 = now(CLOCK_MONOTONIC), c0 = now(CLOCK_PROCESS_CPUTIME_ID);
      if (which == 0) {
        ScanFloor();
      } else {
        service->initTaskInfo();
      }
      wall[which] += now(CLOCK_MONOTONIC) - w0;
      cpu[which] += now(CLOCK_PROCESS_CPUTIME_ID) - c0;
    }
  }
  state.counters["wall_ratio"] = wall[1] / wall[0];
  state.counters["cpu_ratio"] = cpu[1] / cpu[0];
}
BENCHMARK(BM_ScanOverFloorRatio)->Unit(benchmark::kMillisecond)->MinTime(4.0)->UseRealTime();

// A registered, settled process whose anonymous size keeps moving; about one
// record in eight crosses the notice step (no subscribers).
static void BM_RssStatHandler(benchmark::State& state) {
  TavoBpfService* service = TavoBpfService::GetInstance();
  ClearRegistry();
  tavo_task_init_event init;
  memset(&init, 0, sizeof(init));
  init.pid = 4242;
  init.ppid = 1;
  memcpy(init.comm, "bench_app", 10);
  service->handleTavoTaskInitEvent(reinterpret_cast<char*>(&init), sizeof(init));
  tavo_rss_stat_event rss;
  memset(&rss, 0, sizeof(rss));
  rss.hdr.type = TAVO_EVENT_KMEM_RSS_INFO;
  rss.hdr.ts = 10'000'000'000ULL;
  rss.pid = 4242;
  rss.member = TAVO_RSS_ANON;
  int64_t i = 0;
  for (auto _ : state) {
    rss.size = (++i & 0xff) * 4096;
    benchmark::DoNotOptimize(service->handleKmem_RssStat(reinterpret_cast<char*>(&rss), sizeof(rss)));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RssStatHandler);

static void BM_RegistryBytesPerTask(benchmark::State& state) {
  constexpr int kTasks = 10000;
  for (auto _ : state) {
    ClearRegistry();
    malloc_trim(0);
    const size_t before = mallinfo2().uordblks;
    {
      std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
      TavoTask task;
      for (int pid = 1; pid <= kTasks; ++pid) {
        task.pid = pid;
        TavoTaskManager::GetInstance()->AddTavoTask(pid, task);
      }
    }
    const size_t after = mallinfo2().uordblks;
    state.counters["bytes_per_task"] = static_cast<double>(after - before) / kTasks;
    state.counters["sizeof_TavoTask"] = sizeof(TavoTask);
  }
  ClearRegistry();
}
BENCHMARK(BM_RegistryBytesPerTask)->Iterations(1);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const std::vector<pid_t> sleepers = StartSleepers(kSleepers);
  fprintf(stderr, "started %zu sleeping children; %zu processes under /proc\n", sleepers.size(),
          CountProcesses());
  benchmark::RunSpecifiedBenchmarks();
  StopSleepers(sleepers);
  benchmark::Shutdown();
  return 0;
}
