// Task tracking costs: the start-up scan of /proc against a minimal loop that
// reads the same two files per process, the memory handler's record rate,
// and the registry's memory per tracked task.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <cstdio>
#include <cstring>

#include "bench/bench_support.h"
#include "service/tavo_bpf_service.h"

using namespace Tavo::Bpf;

namespace {

constexpr int kSleepers = 2000;

// Not started: the start-up scan and the handlers run as the pumps would
// run them; notices go to a hub without subscribers.
TavoBpfService::Parts& Service() {
  static const auto service = TavoBpfService::Create(TavoServiceOptions());
  return service->parts();
}

void ClearRegistry(TavoTaskManager& registry) {
  for (const TavoTask& task : registry.Snapshot()) registry.DelTavoTask(task.pid);
}

// What the normal pump's seeding step runs.
void InitTaskInfo() {
  TavoBpfService::Parts& p = Service();
  p.tracker.initTaskInfo([&p](void* record, unsigned long size) { return p.dispatcher.Dispatch(record, size); },
                         p.counters);
}

void ReadWhole(const char* path, char* buf, size_t size) {
  android::base::unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (fd < 0) return;
  while (read(fd.get(), buf, size) > 0) {
  }
}

// The floor: list /proc, open and read status and stat of every process.
void ScanFloor() {
  char buf[4096];
  char path[300];
  TavoProcReader().ForEachProcess([&](int32_t, const char* name) {
    snprintf(path, sizeof(path), "/proc/%s/status", name);
    ReadWhole(path, buf, sizeof(buf));
    snprintf(path, sizeof(path), "/proc/%s/stat", name);
    ReadWhole(path, buf, sizeof(buf));
  });
}

void PerThousandProcesses(benchmark::State& state, size_t processes) {
  state.counters["processes"] = static_cast<double>(processes);
  // Seconds per 1000 processes.
  state.counters["s_per_1000"] = benchmark::Counter(
      static_cast<double>(processes) / 1000.0,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace

static void BM_ScanFloor(benchmark::State& state) {
  for (auto _ : state) ScanFloor();
  PerThousandProcesses(state, tavo_bench::CountProcesses());
}
BENCHMARK(BM_ScanFloor)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

static void BM_InitTaskInfo(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    ClearRegistry(Service().registry);
    state.ResumeTiming();
    InitTaskInfo();
  }
  PerThousandProcesses(state, tavo_bench::CountProcesses());
}
BENCHMARK(BM_InitTaskInfo)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

// The two alternated within each iteration, so that load from other work on
// the machine falls on both alike; reports scan / floor for wall and CPU time.
static void BM_ScanOverFloorRatio(benchmark::State& state) {
  double wall[2] = {0, 0}, cpu[2] = {0, 0};
  auto now = [](clockid_t id) {
    timespec ts{};
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
  };
  for (auto _ : state) {
    for (int which = 0; which < 2; ++which) {
      ClearRegistry(Service().registry);
      const double w0 = now(CLOCK_MONOTONIC), c0 = now(CLOCK_PROCESS_CPUTIME_ID);
      if (which == 0) {
        ScanFloor();
      } else {
        InitTaskInfo();
      }
      wall[which] += now(CLOCK_MONOTONIC) - w0;
      cpu[which] += now(CLOCK_PROCESS_CPUTIME_ID) - c0;
    }
  }
  state.counters["wall_ratio"] = wall[1] / wall[0];
  state.counters["cpu_ratio"] = cpu[1] / cpu[0];
}
BENCHMARK(BM_ScanOverFloorRatio)->Unit(benchmark::kMillisecond)->MinTime(4.0)->UseRealTime();

// Settled processes whose anonymous sizes keep moving; about one record in
// eight crosses the notice step (no subscribers). The argument is how many
// processes are registered: records visit them in a scattered order, as a
// device's processes do.
static void BM_RssStatHandler(benchmark::State& state) {
  TavoTaskTracker& tracker = Service().tracker;
  ClearRegistry(Service().registry);
  const int processes = static_cast<int>(state.range(0));
  constexpr int kFirstPid = 4242;
  tavo_task_init_event init;
  memset(&init, 0, sizeof(init));
  init.ppid = 1;
  memcpy(init.comm, "bench_app", 10);
  for (int i = 0; i < processes; ++i) {
    init.pid = kFirstPid + i;
    tracker.handleTavoTaskInitEvent(reinterpret_cast<char*>(&init), sizeof(init));
  }
  tavo_rss_stat_event rss;
  memset(&rss, 0, sizeof(rss));
  rss.hdr.type = TAVO_EVENT_KMEM_RSS_INFO;
  rss.hdr.ts = 10'000'000'000ULL;
  rss.member = TAVO_RSS_ANON;
  int64_t i = 0;
  for (auto _ : state) {
    ++i;
    rss.pid = kFirstPid + static_cast<int32_t>((i * 7919) % processes);
    rss.size = (i & 0xff) * 4096;
    benchmark::DoNotOptimize(tracker.handleKmem_RssStat(reinterpret_cast<char*>(&rss), sizeof(rss)));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RssStatHandler)->Arg(1)->Arg(1000);

static void BM_RegistryBytesPerTask(benchmark::State& state) {
  constexpr int kTasks = 10000;
  for (auto _ : state) {
    malloc_trim(0);
    const size_t before = mallinfo2().uordblks;
    TavoTaskManager registry;
    TavoTask task;
    for (int pid = 1; pid <= kTasks; ++pid) {
      task.pid = pid;
      registry.AddTavoTask(pid, task);
    }
    const size_t after = mallinfo2().uordblks;
    state.counters["bytes_per_task"] = static_cast<double>(after - before) / kTasks;
    state.counters["sizeof_TavoTask"] = sizeof(TavoTask);
  }
}
BENCHMARK(BM_RegistryBytesPerTask)->Iterations(1);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const tavo_bench::SleepingChildren sleepers(kSleepers);
  fprintf(stderr, "started %zu sleeping children; %zu processes under /proc\n", sleepers.size(),
          tavo_bench::CountProcesses());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
