// Which pinned programs each object attaches, to which hook, on which kernels.
#pragma once

#include "bpf/tavo_bpf_attach.h"

namespace Tavo::Bpf {

extern const BpfAttachTable PROG_EVENT_MAP;      // TavoBpfDefineset
extern const BpfAttachTable PROG_GPL_EVENT_MAP;  // TavoBpfGplDefineset

}  // namespace Tavo::Bpf
