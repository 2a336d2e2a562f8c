// Dma-buf handler throughput, and the start-up seeding scans on the real /proc.
//
// The seeding benchmarks need root: they run in a private mount namespace
// with their own bpffs, create the pinned maps there, and add 2000 sleeping
// children to /proc, which are reaped before the program ends.
#include <benchmark/benchmark.h>
#include <bpf/bpf.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "bpf/tavo_bpf_pins.h"
#include "service/tavo_bpf_service.h"

using namespace Tavo::Bpf;

namespace {

constexpr int kProcesses = 1000;
constexpr int kBuffersPerProcess = 10;
constexpr int kChildren = 2000;
constexpr const char* kPinDir = "/sys/fs/bpf/";  // the private bpffs

// Not started: no socket, no pumps; notices and records go to a hub
// without subscribers.
TavoBpfService::Parts& Service() {
  static const auto service = TavoBpfService::Create(TavoServiceOptions());
  return service->parts();
}

void RegisterTasks(TavoTaskManager& registry) {
  for (int pid = 1; pid <= kProcesses; ++pid) {
    TavoTask task;
    task.pid = 10000 + pid;
    task.uid = 10000 + pid % 50;
    memcpy(task.comm, "com.example.app", 15);
    registry.AddTavoTask(task.pid, task);
  }
}

std::vector<tavo_dmabuf_event> Records(uint32_t type) {
  std::vector<tavo_dmabuf_event> records;
  records.reserve(kProcesses * kBuffersPerProcess);
  for (int pid = 1; pid <= kProcesses; ++pid) {
    for (int buf = 0; buf < kBuffersPerProcess; ++buf) {
      tavo_dmabuf_event record{};
      record.hdr.type = type;
      record.hdr.ts = 1;
      record.pid = 10000 + pid;
      record.size = 4096u << (buf % 8);
      record.buf_id = 500000u + static_cast<uint64_t>(pid) * kBuffersPerProcess + buf;
      records.push_back(record);
    }
  }
  return records;
}

// Every process attaches its ten buffers, then detaches them: each record
// changes a total and builds a notice that nobody subscribed to.
void BM_DmabufAttachDetachHandlers(benchmark::State& state) {
  TavoDmabufAccounting& dmabuf = Service().dmabuf;
  RegisterTasks(Service().registry);
  auto attach = Records(TAVO_EVENT_DMABUF_ATTACH);
  auto detach = Records(TAVO_EVENT_DMABUF_DETACH);
  for (auto _ : state) {
    for (auto& record : attach) dmabuf.handleDmabuf_Attach(reinterpret_cast<char*>(&record), sizeof(record));
    for (auto& record : detach) dmabuf.handleDmabuf_Detach(reinterpret_cast<char*>(&record), sizeof(record));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(attach.size() + detach.size()));
}
BENCHMARK(BM_DmabufAttachDetachHandlers)->Unit(benchmark::kMillisecond);

// The same through the ring callback: counting and raw fan-out included.
void BM_DmabufAttachDetachDispatch(benchmark::State& state) {
  TavoEventDispatcher* dispatcher = &Service().dispatcher;
  RegisterTasks(Service().registry);
  auto attach = Records(TAVO_EVENT_DMABUF_ATTACH);
  auto detach = Records(TAVO_EVENT_DMABUF_DETACH);
  for (auto _ : state) {
    for (auto& record : attach) TavoEventDispatcher::handleBpfRingBuffEvent(dispatcher, &record, sizeof(record));
    for (auto& record : detach) TavoEventDispatcher::handleBpfRingBuffEvent(dispatcher, &record, sizeof(record));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(attach.size() + detach.size()));
}
BENCHMARK(BM_DmabufAttachDetachDispatch)->Unit(benchmark::kMillisecond);

// Process exits while the dma-buf ring stays quiet, as on a device where no
// buffer moves: the exits wait for a drain that does not come, so the list
// of pending exits stays full and each new exit retires the oldest.
void BM_ExitsWithoutDmabufTraffic(benchmark::State& state) {
  TavoDmabufAccounting& dmabuf = Service().dmabuf;
  int32_t pid = 1;
  for (auto _ : state) dmabuf.NoteProcessExit(pid++ % 32768 + 1, 1);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ExitsWithoutDmabufTraffic);

// ---- Seeding on the real /proc ----

std::string gSeedingUnavailable = "not prepared";

bool PinHashMap(const std::string& path, uint32_t keySize, uint32_t valueSize) {
  LIBBPF_OPTS(bpf_map_create_opts, opts, .map_flags = BPF_F_NO_PREALLOC);
  android::base::unique_fd fd(bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, keySize, valueSize, 65536, &opts));
  return fd >= 0 && bpf_obj_pin(fd.get(), path.c_str()) == 0;
}

std::string PrepareSeeding() {
  const std::string why = tavo_bench::PrivateBpfFs();
  if (!why.empty()) return why;
  if (!PinHashMap(PinnedMapPath(kPinDir, kNormalObject, kOpenFdMap), sizeof(int32_t), sizeof(tavo_open_fd_value)) ||
      !PinHashMap(PinnedMapPath(kPinDir, kGplObject, kDmabufAllocateMap), sizeof(uint64_t),
                  sizeof(tavo_dmabuf_alloc_value)) ||
      !PinHashMap(PinnedMapPath(kPinDir, kGplObject, kDmabufSizeMap), sizeof(int32_t),
                  sizeof(tavo_dmabuf_size_value))) {
    return std::string("creating maps: ") + strerror(errno);
  }
  return "";
}

void RunSeeding(benchmark::State& state, const std::function<int()>& scan) {
  if (!gSeedingUnavailable.empty()) {
    state.SkipWithError(gSeedingUnavailable.c_str());
    return;
  }
  const double processes = static_cast<double>(tavo_bench::CountProcesses());
  double seconds = 0;
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(scan());
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  }
  state.counters["processes"] = processes;
  state.counters["ms_per_1000_processes"] =
      seconds * 1e3 / static_cast<double>(state.iterations()) / processes * 1000.0;
}

void BM_SeedOpenFdMap(benchmark::State& state) {
  RunSeeding(state, [] { return Service().tracker.initFdBpfProg(PinnedMapPath(kPinDir, kNormalObject, kOpenFdMap)); });
}
BENCHMARK(BM_SeedOpenFdMap)->Unit(benchmark::kMillisecond);

void BM_SeedDmabufMaps(benchmark::State& state) {
  RunSeeding(state, [] {
    return Service().dmabuf.initDmabufBpfProg(PinnedMapPath(kPinDir, kGplObject, kDmabufAllocateMap),
                                              PinnedMapPath(kPinDir, kGplObject, kDmabufSizeMap));
  });
}
BENCHMARK(BM_SeedDmabufMaps)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  gSeedingUnavailable = PrepareSeeding();
  std::unique_ptr<tavo_bench::SleepingChildren> children;
  if (gSeedingUnavailable.empty()) children = std::make_unique<tavo_bench::SleepingChildren>(kChildren);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
