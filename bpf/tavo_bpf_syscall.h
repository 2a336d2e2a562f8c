// The three bpf() commands the service issues itself: open a pin, look up
// and update a map element. Each builds a zeroed 144-byte attribute block
// by offset, so the code does not depend on the size of the installed
// uapi's union bpf_attr. libbpf serves only the ring-buffer consumer and
// the host loader; bcc only the attach calls (docs/kernel.md).
#pragma once

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>

namespace Tavo::Bpf {

inline constexpr uint32_t kBpfReadOnly = 8;  // BPF_F_RDONLY
inline constexpr uint64_t kBpfAny = 0;       // BPF_ANY

// BPF_OBJ_GET of a pinned program or map; the error carries errno.
android::base::Result<android::base::unique_fd> BpfObjGet(const std::string& path, uint32_t fileFlags);
android::base::Result<void> BpfMapLookupElem(int mapFd, const void* key, void* value);
android::base::Result<void> BpfMapUpdateElem(int mapFd, const void* key, const void* value, uint64_t flags);

}  // namespace Tavo::Bpf
