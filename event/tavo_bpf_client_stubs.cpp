// Placeholder bodies until client connections land; delete with them.
#include "service/tavo_bpf_service.h"

namespace Tavo::Bpf {
int TavoBpfService::onClientLibConnection(int) { return 0; }
int TavoBpfService::onClientLibReadable(int, BufferState*, BufferState*) { return 0; }
int TavoBpfService::onClientLibWriteable(int, BufferState*) { return 0; }
int TavoBpfService::onClientLibClose(int) { return 0; }
int TavoBpfService::onEventProvideReqCallBack(int, char*, long, BufferState*) { return 0; }
}  // namespace Tavo::Bpf
