// RecordEvent in the same second, and dispatch of a record nobody handles.
#include <benchmark/benchmark.h>

#include <cstring>

#include "service/tavo_bpf_service.h"
#include "state/tavo_bpf_state.h"

using namespace Tavo::Bpf;

static void BM_RecordEventSameSecond(benchmark::State& state) {
  TavoBpfDataState* counters = TavoBpfDataState::GetInstance();
  for (auto _ : state) counters->RecordEvent(3, 1);
}
BENCHMARK(BM_RecordEventSameSecond);

static void BM_DispatchUnhandledType(benchmark::State& state) {
  char record[40] = {};
  const uint32_t type = 5;  // no handler, no subscribers
  memcpy(record, &type, sizeof(type));
  TavoBpfService::GetInstance();
  for (auto _ : state) {
    benchmark::DoNotOptimize(TavoBpfService::handleBpfRingBuffEvent(nullptr, record, sizeof(record)));
  }
}
BENCHMARK(BM_DispatchUnhandledType);

BENCHMARK_MAIN();
