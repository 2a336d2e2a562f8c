// The parts the service wires together, and who owns which thread and lock
// (docs/design.md has the picture and the lock order).
#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <condition_variable>

#include "event/tavo_client_hub.h"
#include "include/tavo_bpf_service.h"
#include "service/tavo_dump_worker.h"
#include "service/tavo_event_dispatcher.h"
#include "service/tavo_producer_thread.h"
#include "service/tavo_ring_pump.h"
#include "service/tavo_service_options.h"
#include "state/tavo_bpf_state.h"
#include "task/tavo_bpf_task_manager.h"
#include "task/tavo_dmabuf_accounting.h"
#include "task/tavo_proc_reader.h"
#include "task/tavo_task_tracker.h"
#include "util/tavo_mutex.h"

namespace Tavo::Bpf {

inline constexpr int kNormalRing = 0;
inline constexpr int kGplRing = 1;

struct TavoBpfService::Parts {
  explicit Parts(const TavoServiceOptions& options);

  const TavoServiceOptions options;
  TavoBpfDataState counters;
  TavoTaskManager registry;
  TavoProcReader reader;
  TavoClientHub hub;               // socket thread "BpfServiceTr"
  TavoEventDispatcher dispatcher;  // runs on the pump threads
  TavoTaskTracker tracker;
  TavoDmabufAccounting dmabuf;
  TavoRingPump pumps[2];           // run on the producer threads
  TavoProducerThread pollThread{"BpfServicePoll"};
  TavoProducerThread gplThread{"BpfServicePGpl"};
  TavoDumpWorker dumps;            // thread "BpfServiceDump"

  // Start, stop and the readiness wait. Ranks above every part's lock.
  Mutex servicelock;
  std::condition_variable_any wake;
  std::atomic<bool> running{false};
  std::atomic<bool> ready{false};  // "sys.tavo_bpf_ready" was seen
  // The kernel version the attach rows are chosen by, read once at
  // readiness ("ro.kernel.version", "persist.sys.tavo_bpf.dmabuf_rows").
  std::atomic<int> rowsVersion{0};
  std::atomic<bool> noTracepointSaid{false};
};

}  // namespace Tavo::Bpf
