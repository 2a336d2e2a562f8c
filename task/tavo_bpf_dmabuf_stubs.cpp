// Placeholder bodies until dma-buf accounting lands; delete with it.
#include "service/tavo_bpf_service.h"

namespace Tavo::Bpf {
int TavoBpfService::handleDmabuf_Setup(char*, long) { return 0; }
int TavoBpfService::handleDmabuf_Release(char*, long) { return 0; }
int TavoBpfService::handleDmabuf_Attach(char*, long) { return 0; }
int TavoBpfService::handleDmabuf_Detach(char*, long) { return 0; }
int TavoBpfService::handleDmabuf_Vmap(char*, long) { return 0; }
int TavoBpfService::handleDmabuf_Vunmap(char*, long) { return 0; }
int TavoBpfService::handleDmabuf_Mmap(char*, long) { return 0; }
int TavoBpfService::handleDmabuf_Munmap(char*, long) { return 0; }
}  // namespace Tavo::Bpf
