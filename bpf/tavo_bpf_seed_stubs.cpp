// Placeholder bodies until map seeding lands; delete with it.
#include "service/tavo_bpf_service.h"

namespace Tavo::Bpf {
int TavoBpfService::initFdBpfProg() { return 0; }
int TavoBpfService::initDmabufBpfProg() { return 0; }
}  // namespace Tavo::Bpf
