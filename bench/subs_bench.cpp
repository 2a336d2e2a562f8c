// Fan-out of records to subscribed clients over the real socket: records
// injected through the ring callback for a type without a handler, every
// record received by every client before the batch counts.
//
//   build/release/bench/subs_bench
//
// Runs the service in this process; as root it first moves into a private
// network namespace so the socket name cannot clash with a running service.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <android-base/properties.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "include/tavo_bpf_service_main.h"
#include "service/tavo_bpf_service.h"
#include "tools/tavo_client/tavo_client.h"

using namespace Tavo::Bpf;
using Tavo::Client::TavoClient;

namespace {

constexpr uint32_t kType = 5;         // counted and forwarded, no handler
constexpr size_t kRecordSize = 48;    // 64 bytes on the wire
constexpr int kBatch = 40000;         // well under the 4 MiB queue bound

bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

bool StartService() {
  static bool started = [] {
    if (unshare(CLONE_NEWNET) != 0) {
      fprintf(stderr, "subs_bench: no private network namespace (%s); using the host's\n",
              strerror(errno));
    }
    android::base::SetProperty("sys.tavo_bpf_ready", "0");  // no pumps: records come from here
    BpfServiceMain();
    return WaitUntil(
        [] {
          TavoClient probe(nullptr);
          return probe.Connect() == 0;
        },
        5000);
  }();
  return started;
}

void BM_FanOut(benchmark::State& state) {
  if (!StartService()) {
    state.SkipWithError("service socket did not come up");
    return;
  }
  const int clients = static_cast<int>(state.range(0));
  std::vector<std::unique_ptr<TavoClient>> subscribers;
  std::vector<std::unique_ptr<std::atomic<uint64_t>>> counts;
  for (int i = 0; i < clients; ++i) {
    counts.push_back(std::make_unique<std::atomic<uint64_t>>(0));
    subscribers.push_back(std::make_unique<TavoClient>(nullptr));
    std::atomic<uint64_t>* count = counts.back().get();
    subscribers.back()->SetRawCallback([count](const char*, size_t) {
      count->fetch_add(1, std::memory_order_relaxed);
    });
    if (subscribers.back()->Connect() != 0 || subscribers.back()->Subscribe(kType) != 0) {
      state.SkipWithError("client could not subscribe");
      return;
    }
  }
  char record[kRecordSize] = {};
  memcpy(record, &kType, sizeof(kType));
  uint64_t expected = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      TavoBpfService::handleBpfRingBuffEvent(nullptr, record, sizeof(record));
    }
    expected += kBatch;
    const bool all = WaitUntil(
        [&] {
          for (auto& count : counts) {
            if (count->load(std::memory_order_relaxed) < expected) return false;
          }
          return true;
        },
        20000);
    if (!all) {
      state.SkipWithError("records were lost");
      break;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(expected));  // records/s, each to every client
  state.counters["clients"] = clients;
  state.counters["deliveries/s"] =
      benchmark::Counter(static_cast<double>(expected) * clients, benchmark::Counter::kIsRate);
  for (auto& subscriber : subscribers) subscriber->Close();
}

}  // namespace

BENCHMARK(BM_FanOut)->Arg(1)->Arg(8)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

BENCHMARK_MAIN();
