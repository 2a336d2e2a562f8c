// The bpf() system call with a raw, zeroed 144-byte attribute block.
//
// The service talks to the kernel directly for pin opens and status-map
// look-ups/updates; the block is laid out by offset so the code does not
// depend on the size of the installed uapi header's union bpf_attr.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

namespace Tavo::Bpf {

class BpfAttrBlock {
 public:
  static constexpr size_t kSize = 144;
  static constexpr int kMapLookupElem = 1;
  static constexpr int kMapUpdateElem = 2;
  static constexpr int kObjGet = 7;
  static constexpr uint32_t kFileFlagsReadOnly = 8;  // BPF_F_RDONLY

  BpfAttrBlock() { memset(bytes, 0, sizeof(bytes)); }

  void put32(size_t offset, uint32_t value) { memcpy(bytes + offset, &value, sizeof(value)); }
  void put64(size_t offset, uint64_t value) { memcpy(bytes + offset, &value, sizeof(value)); }
  void putPtr(size_t offset, const void* ptr) { put64(offset, reinterpret_cast<uintptr_t>(ptr)); }

  // The raw result, -1 with errno on failure.
  long call(int cmd) { return syscall(__NR_bpf, cmd, bytes, kSize); }

 private:
  alignas(8) unsigned char bytes[kSize];
};

// Opens a pinned object read-only; a descriptor or a negative value.
inline int BpfObjGetReadOnly(const char* path) {
  BpfAttrBlock attr;
  attr.putPtr(0, path);             // pathname
  attr.put32(8, 0);                 // bpf_fd
  attr.put32(12, BpfAttrBlock::kFileFlagsReadOnly);  // file_flags
  return static_cast<int32_t>(attr.call(BpfAttrBlock::kObjGet));
}

// Map element access: map_fd at 0, key at 8, value at 16, flags at 24.
inline long BpfMapLookup(int fd, const void* key, void* value) {
  BpfAttrBlock attr;
  attr.put32(0, static_cast<uint32_t>(fd));
  attr.putPtr(8, key);
  attr.putPtr(16, value);
  return attr.call(BpfAttrBlock::kMapLookupElem);
}

inline long BpfMapUpdate(int fd, const void* key, const void* value) {
  BpfAttrBlock attr;
  attr.put32(0, static_cast<uint32_t>(fd));
  attr.putPtr(8, key);
  attr.putPtr(16, value);
  attr.put64(24, 0);  // BPF_ANY
  return attr.call(BpfAttrBlock::kMapUpdateElem);
}

}  // namespace Tavo::Bpf
