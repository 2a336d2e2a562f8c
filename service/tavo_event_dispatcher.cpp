#include "service/tavo_event_dispatcher.h"

#include <bpf/libbpf.h>

#include <cstring>
#include <type_traits>

#include "util/tavo_log.h"

namespace Tavo::Bpf {

// The sample callback is handed to libbpf as it is.
static_assert(std::is_same_v<decltype(&TavoEventDispatcher::handleBpfRingBuffEvent), ring_buffer_sample_fn>,
              "handleBpfRingBuffEvent must match libbpf's sample callback");

TavoEventDispatcher::TavoEventDispatcher(TavoBpfDataState& counters, FanOut fanOut)
    : counters_(counters), fanOut_(std::move(fanOut)) {}

void TavoEventDispatcher::SetHandler(int type, Handler handler) {
  if (type >= 0 && type <= TAVO_EVENT_MAX_RAW) handlers_[type] = std::move(handler);
}

int TavoEventDispatcher::handleBpfRingBuffEvent(void* ctx, void* data, unsigned long size) {
  return static_cast<TavoEventDispatcher*>(ctx)->Dispatch(data, size);
}

int TavoEventDispatcher::handleBpfPassthrough(void* ctx, void* data, unsigned long size) {
  if (data == nullptr || size < sizeof(uint32_t)) return 0;
  static_cast<TavoEventDispatcher*>(ctx)->fanOut_(static_cast<const char*>(data), size);
  return 0;
}

int TavoEventDispatcher::Dispatch(void* data, unsigned long size) {
  // A sample shorter than the header cannot be typed; reading it would run
  // past the end of the record.
  if (data == nullptr || size < sizeof(tavo_event_header)) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService] handleEvent short record! size: %lu", size);
    return 0;
  }
  uint32_t type;
  memcpy(&type, data, sizeof(type));
  counters_.RecordEvent(static_cast<int>(type), 1);
  if (type > TAVO_EVENT_MAX_RAW) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService] handleEvent ERROR!!! Type: %u", type);
    return -1;
  }
  // Subscribers get the raw record before the service's own handler runs.
  fanOut_(static_cast<const char*>(data), size);
  const Handler& handler = handlers_[type];
  return handler ? handler(static_cast<char*>(data), static_cast<long>(size)) : 0;
}

}  // namespace Tavo::Bpf
