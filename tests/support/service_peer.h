// Test access to the service singleton's private state.
#pragma once

#include <map>

#include "service/tavo_bpf_service.h"

namespace Tavo::Bpf {

class TavoBpfServiceTestPeer {
 public:
  static std::map<int, IpcPackageManager>& ClientQueues(TavoBpfService* s) { return s->clientQueues; }
  static std::map<uint64_t, uint64_t>& DmabufSizes(TavoBpfService* s) { return s->dmabufSizes; }
  static std::map<int32_t, std::map<uint64_t, uint32_t>>& ProcessDmabufRefs(TavoBpfService* s) {
    return s->processDmabufRefs;
  }
  static std::map<int32_t, int64_t>& ProcessDmabufTotals(TavoBpfService* s) {
    return s->processDmabufTotals;
  }
  static std::map<int32_t, std::map<uint64_t, uint64_t>>& ProcessDmabufMappings(TavoBpfService* s) {
    return s->processDmabufMappings;
  }
  static std::map<int32_t, BpfEventHandler>& EventHandlers(TavoBpfService* s) { return s->eventHandlers; }
  static android::base::unique_fd* RingbufFd(TavoBpfService* s) { return s->ringbufFd; }
  static android::base::unique_fd* StatusFd(TavoBpfService* s) { return s->statusFd; }
  static int64_t* LastStatusCheck(TavoBpfService* s) { return s->lastStatusCheck; }
  static void SetRunning(TavoBpfService* s, bool value) { s->running = value; }

  static std::unique_ptr<IpcPackageHandler>& PackageHandler(TavoBpfService* s) { return s->packageHandler; }

  // Adds a client queue for a fake fd (as onClientLibConnection would).
  static IpcPackageManager& AddClient(TavoBpfService* s, int fd) {
    return s->clientQueues.try_emplace(fd).first->second;
  }
};

}  // namespace Tavo::Bpf
