// Pump throughput: a BPF program on syscalls/sys_enter_getppid writes one
// 24-byte record per getppid() of this process into a ring buffer; the
// benchmark thread fires getppid() in a tight loop while a consumer thread
// drains the ring either through the service's sample callback
// (handleBpfRingBuffEvent: counters, type check, fan-out, handler look-up)
// or through a bare libbpf callback that only counts. Both consume the same
// ring in the same run; figures: records/s and consumer CPU ns per record.
//
// Needs root (loads BPF). Nothing is pinned and tracefs is mounted in a
// private mount namespace, so it leaves no trace.
#include <benchmark/benchmark.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "bpf/tavo_bpf_records.h"
#include "service/tavo_bpf_service.h"
#include "state/tavo_bpf_state.h"

using namespace Tavo::Bpf;

// The object is built with the tests (tests/pump_objects.tests.cmake).
#ifndef TAVO_PUMP_BPF_OBJECT
#define TAVO_PUMP_BPF_OBJECT "tavo_pump_test.bpf.o (configure with tests on)"
#endif

namespace {

constexpr uint32_t kRingBytes = 1u << 24;
constexpr int kBatch = 10000;

struct Producer {
  bpf_object* object = nullptr;
  bpf_link* link = nullptr;
  int ringFd = -1;
  int statusFd = -1;
  const char* error = nullptr;
};

// Loaded once and attached for the life of the process.
Producer& GetProducer() {
  static Producer producer = [] {
    Producer p;
    p.object = bpf_object__open_file(TAVO_PUMP_BPF_OBJECT, nullptr);
    if (p.object == nullptr) {
      p.error = "cannot open the BPF object";
      return p;
    }
    bpf_map__set_max_entries(bpf_object__find_map_by_name(p.object, "ringbuf_map"), kRingBytes);
    if (bpf_object__load(p.object) != 0) {
      p.error = "cannot load the BPF object (root needed)";
      return p;
    }
    p.link = bpf_program__attach(bpf_object__find_program_by_name(p.object, "getppid_record"));
    if (p.link == nullptr) {
      p.error = "cannot attach to syscalls/sys_enter_getppid";
      return p;
    }
    p.ringFd = bpf_map__fd(bpf_object__find_map_by_name(p.object, "ringbuf_map"));
    p.statusFd = bpf_map__fd(bpf_object__find_map_by_name(p.object, "ringbuf_status"));
    uint32_t key = 0;
    uint64_t flags = TAVO_STATUS_CORE_ENABLED;
    bpf_map_update_elem(p.statusFd, &key, &flags, BPF_ANY);
    struct {
      uint32_t type;
      int32_t tgid;
    } config = {TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO, getpid()};
    const int configFd = bpf_map__fd(bpf_object__find_map_by_name(p.object, "test_config"));
    bpf_map_update_elem(configFd, &key, &config, BPF_ANY);
    return p;
  }();
  return producer;
}

std::atomic<uint64_t> gBareCount{0};
int BareCallback(void*, void*, size_t) {
  gBareCount.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

uint64_t ServiceCount() {
  uint64_t sum = 0;
  for (int slot = 0; slot < TavoBpfDataState::kSlotCount; ++slot) {
    sum += TavoBpfDataState::GetInstance()->getCounter(slot, TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO);
  }
  return sum;
}

int64_t ThreadCpuNs() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

struct RunFigures {
  double recordsPerSecond = 0;
  double cpuNsPerRecord = 0;
};
RunFigures gFigures[2];  // 0 = bare, 1 = service

void BM_PumpConsumer(benchmark::State& state, bool service) {
  Producer& producer = GetProducer();
  if (producer.error != nullptr) {
    state.SkipWithError(producer.error);
    return;
  }
  if (service) TavoBpfService::GetInstance();  // built outside the measured consumer
  ring_buffer* rb = ring_buffer__new(producer.ringFd, service ? TavoBpfService::handleBpfRingBuffEvent : BareCallback,
                                     nullptr, nullptr);
  if (rb == nullptr) {
    state.SkipWithError("ring_buffer__new failed");
    return;
  }
  auto consumed = [service] { return service ? ServiceCount() : gBareCount.load(); };
  ring_buffer__consume(rb);  // leftovers of an earlier run
  const uint64_t before = consumed();

  std::atomic<bool> stop{false};
  std::atomic<int64_t> cpuNs{0};
  std::thread consumer([&] {
    const int64_t start = ThreadCpuNs();
    while (!stop.load(std::memory_order_relaxed)) ring_buffer__poll(rb, 20);
    ring_buffer__consume(rb);
    cpuNs = ThreadCpuNs() - start;
  });

  const auto begin = std::chrono::steady_clock::now();
  uint64_t produced = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) syscall(SYS_getppid);
    produced += kBatch;
  }
  // Drain: wait until every record arrived or nothing moves for 200 ms.
  uint64_t last = consumed();
  auto still = std::chrono::steady_clock::now();
  while (consumed() - before < produced &&
         std::chrono::steady_clock::now() - still < std::chrono::milliseconds(200)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (consumed() != last) {
      last = consumed();
      still = std::chrono::steady_clock::now();
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  stop = true;
  consumer.join();
  ring_buffer__free(rb);

  const uint64_t records = consumed() - before;
  uint32_t key = 0;
  uint64_t flags = 0;
  bpf_map_lookup_elem(producer.statusFd, &key, &flags);
  flags &= ~TAVO_STATUS_RING_FULL;  // acknowledge a full mark for the next run
  bpf_map_update_elem(producer.statusFd, &key, &flags, BPF_ANY);

  RunFigures& figures = gFigures[service ? 1 : 0];
  figures.recordsPerSecond = records / seconds;
  figures.cpuNsPerRecord = records == 0 ? 0 : static_cast<double>(cpuNs.load()) / records;
  state.counters["records"] = static_cast<double>(records);
  state.counters["lost"] = static_cast<double>(produced > records ? produced - records : 0);
  state.counters["records_per_s"] = figures.recordsPerSecond;
  state.counters["consumer_cpu_ns_per_record"] = figures.cpuNsPerRecord;
}

BENCHMARK_CAPTURE(BM_PumpConsumer, bare_libbpf, false)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK_CAPTURE(BM_PumpConsumer, service_callback, true)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // Tracepoint ids are read from tracefs, which a host may not mount.
  if (access("/sys/kernel/tracing/events", F_OK) != 0 && unshare(CLONE_NEWNS) == 0 &&
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
    mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (gFigures[0].cpuNsPerRecord > 0 && gFigures[1].cpuNsPerRecord > 0) {
    printf("consumer CPU per record: bare %.1f ns, service %.1f ns, ratio %.2fx (target <= 1.30x)\n",
           gFigures[0].cpuNsPerRecord, gFigures[1].cpuNsPerRecord,
           gFigures[1].cpuNsPerRecord / gFigures[0].cpuNsPerRecord);
    printf("records/s: bare %.0f, service %.0f\n", gFigures[0].recordsPerSecond, gFigures[1].recordsPerSecond);
  }
  return 0;
}
