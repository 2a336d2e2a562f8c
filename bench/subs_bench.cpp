// Fan-out of records to subscribed clients over the real socket: records
// injected through the ring callback for a type without a handler, every
// record received by every client before the batch counts. The second
// argument is the drain size: 0 queues each record for the socket thread,
// N sends every N records from the injecting thread, as a ring pump does.
//
//   build/release/bench/subs_bench
//
// Runs the service's client hub in this process under a socket name of its
// own, so it cannot clash with a running service; no pumps.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "service/tavo_bpf_service.h"
#include "client/tavo_client.h"

using namespace Tavo::Bpf;
using Tavo::Client::TavoClient;

namespace {

constexpr uint32_t kType = 5;         // counted and forwarded, no handler
constexpr size_t kRecordSize = 48;    // 64 bytes on the wire
constexpr int kBatch = 40000;         // well under the 4 MiB queue bound

const std::string kSocket = "/mnt/bpfframework/subs-bench-" + std::to_string(getpid());

// The service with only its socket thread running; null when the socket
// did not come up.
TavoBpfService::Parts* Service() {
  static const auto service = [] {
    TavoServiceOptions options;
    options.hub.socketPath = kSocket;
    return TavoBpfService::Create(options);
  }();
  static const bool listening = [] {
    service->parts().hub.Start();
    return tavo_bench::WaitUntil([] { return service->parts().hub.Listening(); }, 5000);
  }();
  return listening ? &service->parts() : nullptr;
}

void BM_FanOut(benchmark::State& state) {
  TavoBpfService::Parts* service = Service();
  if (service == nullptr) {
    state.SkipWithError("service socket did not come up");
    return;
  }
  const int clients = static_cast<int>(state.range(0));
  const int drain = static_cast<int>(state.range(1));
  EventManager& events = service->hub.events();
  TavoClient::Options options;
  options.socketPath = kSocket;
  std::vector<std::unique_ptr<TavoClient>> subscribers;
  std::vector<std::unique_ptr<std::atomic<uint64_t>>> counts;
  for (int i = 0; i < clients; ++i) {
    counts.push_back(std::make_unique<std::atomic<uint64_t>>(0));
    subscribers.push_back(std::make_unique<TavoClient>(nullptr, options));
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
      if (drain > 0 && i % drain == 0) events.BeginBatch();
      TavoEventDispatcher::handleBpfRingBuffEvent(&service->dispatcher, record, sizeof(record));
      if (drain > 0 && (i % drain == drain - 1 || i == kBatch - 1)) events.EndBatch();
    }
    expected += kBatch;
    const bool all = tavo_bench::WaitUntil(
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

BENCHMARK(BM_FanOut)->Args({1, 0})->Args({8, 0})->Args({1, 16})->Args({8, 16})->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

BENCHMARK_MAIN();
