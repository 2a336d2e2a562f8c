// The one sample callback of both rings: count the record, check its type,
// fan it out to subscribers, then run its handler.
#pragma once

#include <array>
#include <functional>

#include "bpf/tavo_bpf_records.h"
#include "state/tavo_bpf_state.h"

namespace Tavo::Bpf {

class TavoEventDispatcher {
 public:
  using Handler = std::function<int(char* data, long size)>;
  using FanOut = std::function<int(const char* data, unsigned long size)>;

  TavoEventDispatcher(TavoBpfDataState& counters, FanOut fanOut);

  // Set while the service is wired, before any ring runs.
  void SetHandler(int type, Handler handler);

  // libbpf's sample callback; ctx is the dispatcher.
  static int handleBpfRingBuffEvent(void* ctx, void* data, unsigned long size);
  // Forwards to subscribers only; nothing registers it.
  static int handleBpfPassthrough(void* ctx, void* data, unsigned long size);

  int Dispatch(void* data, unsigned long size);

 private:
  TavoBpfDataState& counters_;
  FanOut fanOut_;
  std::array<Handler, TAVO_EVENT_MAX_RAW + 1> handlers_;
};

}  // namespace Tavo::Bpf
