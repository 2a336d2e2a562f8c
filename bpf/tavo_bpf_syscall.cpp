#include "bpf/tavo_bpf_syscall.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Tavo::Bpf {

namespace {

constexpr int kMapLookupElem = 1;
constexpr int kMapUpdateElem = 2;
constexpr int kObjGet = 7;
constexpr size_t kAttrSize = 144;

struct AttrBlock {
  alignas(8) unsigned char bytes[kAttrSize] = {};

  void Put32(size_t offset, uint32_t value) { memcpy(bytes + offset, &value, sizeof(value)); }
  void Put64(size_t offset, uint64_t value) { memcpy(bytes + offset, &value, sizeof(value)); }
  void PutPtr(size_t offset, const void* ptr) { Put64(offset, reinterpret_cast<uintptr_t>(ptr)); }
  long Call(int cmd) { return syscall(__NR_bpf, cmd, bytes, kAttrSize); }
};

// Map element commands: map_fd at 0, key at 8, value at 16, flags at 24.
AttrBlock ElemAttr(int mapFd, const void* key, const void* value) {
  AttrBlock attr;
  attr.Put32(0, static_cast<uint32_t>(mapFd));
  attr.PutPtr(8, key);
  attr.PutPtr(16, value);
  return attr;
}

}  // namespace

android::base::Result<android::base::unique_fd> BpfObjGet(const std::string& path, uint32_t fileFlags) {
  AttrBlock attr;
  attr.PutPtr(0, path.c_str());  // pathname
  attr.Put32(8, 0);              // bpf_fd
  attr.Put32(12, fileFlags);     // file_flags
  const auto fd = static_cast<int32_t>(attr.Call(kObjGet));
  if (fd < 0) return android::base::ErrnoError() << "BPF_OBJ_GET " << path;
  return android::base::unique_fd(fd);
}

android::base::Result<void> BpfMapLookupElem(int mapFd, const void* key, void* value) {
  AttrBlock attr = ElemAttr(mapFd, key, value);
  if (attr.Call(kMapLookupElem) != 0) return android::base::ErrnoError() << "BPF_MAP_LOOKUP_ELEM";
  return {};
}

android::base::Result<void> BpfMapUpdateElem(int mapFd, const void* key, const void* value, uint64_t flags) {
  AttrBlock attr = ElemAttr(mapFd, key, value);
  attr.Put64(24, flags);
  if (attr.Call(kMapUpdateElem) != 0) return android::base::ErrnoError() << "BPF_MAP_UPDATE_ELEM";
  return {};
}

}  // namespace Tavo::Bpf
