// Which pinned programs each object attaches, to which hook, on which kernels.
#pragma once

#include "bpf/tavo_bpf_attach.h"

namespace Tavo::Bpf {

extern const BpfAttachTable PROG_EVENT_MAP;      // TavoBpfDefineset
extern const BpfAttachTable PROG_GPL_EVENT_MAP;  // TavoBpfGplDefineset

// The version the rows are chosen by. By default the kernel's own. A kernel
// newer than the newest line the tables name for a row of its own (6.6)
// takes the rows of the line in dmabufRows instead, when that names one of
// the tables' lines ("6.6"): its dma-buf rows then attach instead of none.
int AttachRowsVersion(int kernelVersion, const std::string& dmabufRows);

}  // namespace Tavo::Bpf
