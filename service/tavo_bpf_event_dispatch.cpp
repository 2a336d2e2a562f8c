// The one sample callback of both rings: count, check, fan out, handle.
#include <cstring>

#include "bpf/tavo_bpf_records.h"
#include "event/tavo_bpf_event_manager.h"
#include "service/tavo_bpf_service.h"
#include "state/tavo_bpf_state.h"
#include "util/tavo_log.h"

namespace Tavo::Bpf {

int TavoBpfService::handleBpfRingBuffEvent(void*, void* data, unsigned long size) {
  // A sample shorter than the header cannot be typed; reading it would run
  // past the end of the record.
  if (data == nullptr || size < sizeof(tavo_event_header)) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService] handleEvent short record! size: %lu", size);
    return 0;
  }
  uint32_t type;
  memcpy(&type, data, sizeof(type));
  TavoBpfDataState::GetInstance()->RecordEvent(static_cast<int>(type), 1);
  if (type > TAVO_EVENT_MAX_RAW) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService] handleEvent ERROR!!! Type: %u", type);
    return -1;
  }
  TavoBpfService* service = GetInstance();
  EventManager::GetInstance()->AppendEvent(static_cast<char*>(data), size);
  auto it = service->eventHandlers.find(static_cast<int32_t>(type));
  if (it == service->eventHandlers.end()) return 0;
  return it->second(static_cast<char*>(data), static_cast<long>(size));
}

int TavoBpfService::handleBpfPassthrough(void*, void* data, unsigned long size) {
  if (data == nullptr || size < sizeof(uint32_t)) return 0;
  GetInstance();
  EventManager::GetInstance()->AppendEvent(static_cast<char*>(data), size);
  return 0;
}

}  // namespace Tavo::Bpf
