// Request and reply bytes of the subscription protocol, and the service run
// in this process as a host runs it.
#pragma once

#include <android-base/properties.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "event/tavo_bpf_event_manager.h"
#include "include/tavo_bpf_service_main.h"
#include "service/tavo_bpf_service.h"
#include "tests/support/frames.h"

namespace subs_test {

using tavo_test::Frame;
using tavo_test::RawPeer;
using tavo_test::WaitFor;

inline constexpr const char* kSocket = "/mnt/bpfframework/tavobpfdispatcher";

// The 44-byte request record: reqId, command text (28 bytes), two spare
// words, event type. `command` is copied as given, NULs included.
inline std::string RequestRecord(uint32_t reqId, const std::string& command, int32_t type) {
  std::string record(44, '\0');
  memcpy(&record[0], &reqId, 4);
  memcpy(&record[4], command.data(), std::min<size_t>(command.size(), 28));
  const uint32_t dataLength = 4;
  memcpy(&record[36], &dataLength, 4);
  memcpy(&record[40], &type, 4);
  return record;
}

inline std::string Register(uint32_t reqId, int32_t type) {
  return Frame(0, RequestRecord(reqId, std::string("register-event-monitor") + '\0', type));
}

// The 28 bytes the service answers with.
inline std::string Reply(uint32_t reqId, int32_t result) {
  std::string out(28, '\0');
  const int64_t frame = 20;
  const uint32_t command = 1, dataLength = 12, respLength = 0;
  memcpy(&out[0], &frame, 8);
  memcpy(&out[8], &command, 4);
  memcpy(&out[12], &dataLength, 4);
  memcpy(&out[16], &reqId, 4);
  memcpy(&out[20], &result, 4);
  memcpy(&out[24], &respLength, 4);
  return out;
}

// Clients subscribed to one event type.
inline size_t Subscribers(int type) { return Tavo::Bpf::EventManager::GetInstance()->GetEventObservers(type).size(); }

inline std::vector<char> Record(uint32_t type, size_t size, uint8_t fill) {
  std::vector<char> record(size, static_cast<char>(fill));
  memcpy(record.data(), &type, 4);
  return record;
}

// The service as a host runs it, with the pumps held back (readiness "0"),
// so records come only from the test.
class InProcessService {
 public:
  InProcessService() {
    android::base::SetProperty("sys.tavo_bpf_ready", "0");
    Tavo::Bpf::BpfServiceMain();
    listening = WaitFor([] { return RawPeer(kSocket).ok(); }, 5000);
  }
  ~InProcessService() {
    auto* service = Tavo::Bpf::TavoBpfService::GetInstance();
    service->stop();
    service->Wait();  // joins the socket thread too
  }
  bool ok() const { return listening; }

 private:
  bool listening = false;
};

}  // namespace subs_test
