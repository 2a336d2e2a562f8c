// RecordEvent in the same second, and dispatch of a record nobody handles.
#include <benchmark/benchmark.h>

#include <cstring>

#include "service/tavo_bpf_service.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;

static void BM_RecordEventSameSecond(benchmark::State& state) {
  TavoBpfDataState counters(&GetSystemSecondsTime);
  for (auto _ : state) counters.RecordEvent(3, 1);
}
BENCHMARK(BM_RecordEventSameSecond);

// Through the service's ring callback: counted, forwarded to a hub without
// subscribers, no handler.
static void BM_DispatchUnhandledType(benchmark::State& state) {
  char record[40] = {};
  const uint32_t type = 5;
  memcpy(record, &type, sizeof(type));
  static const auto service = TavoBpfService::Create(TavoServiceOptions());
  TavoEventDispatcher* dispatcher = &service->parts().dispatcher;
  for (auto _ : state) {
    benchmark::DoNotOptimize(TavoEventDispatcher::handleBpfRingBuffEvent(dispatcher, record, sizeof(record)));
  }
}
BENCHMARK(BM_DispatchUnhandledType);

BENCHMARK_MAIN();
