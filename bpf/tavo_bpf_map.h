// A pinned BPF map with fixed key and value types, owning its descriptor.
// Every call returns a Result whose error carries errno.
#pragma once

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <string>
#include <type_traits>

#include "bpf/tavo_bpf_syscall.h"

namespace Tavo::Bpf {

template <typename Key, typename Value>
class TavoBpfMap {
  static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>,
                "map keys and values are copied to and from the kernel byte for byte");

 public:
  TavoBpfMap() = default;
  explicit TavoBpfMap(android::base::unique_fd fd) : fd_(std::move(fd)) {}

  static android::base::Result<TavoBpfMap> OpenPinned(const std::string& path, uint32_t fileFlags = 0) {
    auto fd = BpfObjGet(path, fileFlags);
    if (!fd.ok()) return fd.error();
    return TavoBpfMap(std::move(*fd));
  }

  bool IsOpen() const { return fd_.get() >= 0; }
  int Fd() const { return fd_.get(); }

  android::base::Result<Value> Lookup(const Key& key) const {
    Value value{};
    auto result = BpfMapLookupElem(fd_.get(), &key, &value);
    if (!result.ok()) return result.error();
    return value;
  }

  android::base::Result<void> Update(const Key& key, const Value& value, uint64_t flags = kBpfAny) const {
    return BpfMapUpdateElem(fd_.get(), &key, &value, flags);
  }

 private:
  android::base::unique_fd fd_;
};

}  // namespace Tavo::Bpf
