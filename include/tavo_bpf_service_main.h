// What a host process needs to run the service.
#pragma once

#include "tavo_bpf_service.h"

namespace Tavo::Bpf {

// Starts the service unless "persist.sys.stability.bpfframework.disable"
// is "1". Returns 1 when started, 0 when disabled.
TAVO_BPF_SERVICE_EXPORT int BpfServiceMain();

}  // namespace Tavo::Bpf
