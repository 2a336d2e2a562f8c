// Placeholder bodies until the ring-buffer pumps land; delete with them.
#include "bpf/tavo_bpf_attach.h"
#include "service/tavo_bpf_dump_requests.h"
#include "service/tavo_bpf_service.h"

namespace Tavo::Bpf {
int TavoBpfService::eventMonitor() { InstallDumpSignalHandlers(); return 0; }
int TavoBpfService::gpleventMonitor() { InstallDumpSignalHandlers(); return 0; }
bool TavoBpfService::checkBpfRingBuffStatus(int, bool) { return false; }
bool TavoBpfService::enableCoreBpf(int, bool) { return false; }
bool TavoBpfService::enableNormalBpf(int, bool) { return false; }
int AttachAllTavoBpfProgram(const std::string&, const BpfAttachTable&) { return 0; }
}  // namespace Tavo::Bpf
