// Pump throughput: a BPF program on syscalls/sys_enter_getppid writes one
// 24-byte record per getppid() of this process into a ring buffer; the
// benchmark thread fires getppid() in a tight loop while a consumer thread
// drains the ring either with the service's pump (TavoRingPump::Run: epoll
// on the ring and its stop eventfd, poll counting, then the dispatcher's
// counters, type check, fan-out and handler look-up) or with a bare libbpf
// poll loop whose callback only counts. Both consume the same ring in the
// same run; figures: records/s and consumer CPU ns per record.
//
// Needs root (loads BPF). The ring is pinned in a private bpffs, and tracefs
// mounted if missing, in a mount namespace of its own: it leaves no trace.
#include <benchmark/benchmark.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "bench/bench_support.h"
#include "bpf/tavo_bpf_pins.h"
#include "service/tavo_bpf_service.h"
#include "tests/support/pump_object.h"

using namespace Tavo::Bpf;

namespace {

constexpr uint32_t kRingBytes = 1u << 24;
constexpr int kBatch = 10000;
constexpr uint32_t kType = TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO;  // counted and forwarded, no handler
constexpr const char* kPinDir = "/sys/fs/bpf/";                   // the private bpffs
constexpr const char* kObject = "TavoPumpBench";

struct LinkDestroy {
  void operator()(bpf_link* link) const { bpf_link__destroy(link); }
};
struct RingFree {
  void operator()(ring_buffer* rb) const { ring_buffer__free(rb); }
};

// The pump tests' stand-in object with a larger ring, attached for the
// life of the process, its ring and status maps pinned where a pump looks.
struct Producer {
  std::unique_ptr<tavo_test::PumpObject> object;
  std::unique_ptr<bpf_link, LinkDestroy> link;
  std::string error;
};

std::string gNamespaceError = "not prepared";

Producer& GetProducer() {
  static Producer producer = [] {
    Producer p;
    if (!gNamespaceError.empty()) {
      p.error = gNamespaceError;
      return p;
    }
    p.object = std::make_unique<tavo_test::PumpObject>(
        kPinDir, kObject, tavo_test::BesideExecutable("../tests/bpf/tavo_pump_test.bpf.o"), kRingBytes);
    if (!p.object->ok()) {
      p.error = "cannot load and pin tests/bpf/tavo_pump_test.bpf.o (built with the tests)";
      return p;
    }
    p.link.reset(bpf_program__attach(bpf_object__find_program_by_name(p.object->get(), "emit")));
    if (!p.link) {
      p.error = "cannot attach to syscalls/sys_enter_getppid";
      return p;
    }
    p.object->SetStatus(TAVO_STATUS_FLAGS, TAVO_STATUS_CORE_ENABLED);  // the bare consumer raises nothing itself
    p.object->Produce(kType, getpid());
    return p;
  }();
  return producer;
}

// Not started: its dispatcher fans out to a hub without subscribers.
TavoBpfService::Parts& Service() {
  static const auto service = TavoBpfService::Create(TavoServiceOptions());
  return service->parts();
}

std::atomic<uint64_t> gBareCount{0};
int BareCallback(void*, void*, size_t) {
  gBareCount.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

uint64_t ServiceCount() {
  uint64_t sum = 0;
  for (int slot = 0; slot < TavoBpfDataState::kSlotCount; ++slot) sum += Service().counters.getCounter(slot, kType);
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
  if (!producer.error.empty()) {
    state.SkipWithError(producer.error.c_str());
    return;
  }
  TavoRingPumpConfig config;
  config.pinDir = kPinDir;
  config.object = kObject;
  config.logPrefix = "[pump_bench]";
  config.stopMessage = "consumer stopped";
  TavoRingPump pump(config, &TavoEventDispatcher::handleBpfRingBuffEvent, &Service().dispatcher, Service().counters);
  std::unique_ptr<ring_buffer, RingFree> rb(ring_buffer__new(producer.object->RingFd(), BareCallback, nullptr, nullptr));
  if (!rb) {
    state.SkipWithError("ring_buffer__new failed");
    return;
  }
  ring_buffer__consume(rb.get());  // leftovers of an earlier run
  auto consumed = [service] { return service ? ServiceCount() : gBareCount.load(); };
  const uint64_t before = consumed();

  std::atomic<bool> stop{false};
  std::atomic<int64_t> cpuNs{0};
  std::thread consumer([&] {
    const int64_t start = ThreadCpuNs();
    if (service) {
      pump.Run({});
    } else {
      while (!stop.load(std::memory_order_relaxed)) ring_buffer__poll(rb.get(), 20);
      ring_buffer__consume(rb.get());
    }
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
  pump.Stop();
  consumer.join();

  const uint64_t records = consumed() - before;
  // Acknowledge a full mark for the next run.
  producer.object->SetStatus(TAVO_STATUS_FLAGS, producer.object->Status(TAVO_STATUS_FLAGS) & ~TAVO_STATUS_RING_FULL);

  RunFigures& figures = gFigures[service ? 1 : 0];
  figures.recordsPerSecond = records / seconds;
  figures.cpuNsPerRecord = records == 0 ? 0 : static_cast<double>(cpuNs.load()) / records;
  state.counters["records"] = static_cast<double>(records);
  state.counters["lost"] = static_cast<double>(produced > records ? produced - records : 0);
  state.counters["records_per_s"] = figures.recordsPerSecond;
  state.counters["consumer_cpu_ns_per_record"] = figures.cpuNsPerRecord;
}

BENCHMARK_CAPTURE(BM_PumpConsumer, bare_libbpf, false)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK_CAPTURE(BM_PumpConsumer, service_pump, true)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  gNamespaceError = tavo_bench::PrivateBpfFs();  // before any thread
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
