// The pump tests' stand-in object (tests/bpf/tavo_pump_test.bpf.c), loaded
// and pinned under an object name of the test's choosing.
#pragma once

#include <android-base/file.h>
#include <bpf/libbpf.h>

#include <memory>
#include <string>

#include "bpf/tavo_bpf_pins.h"
#include "bpf/tavo_bpf_records.h"

namespace tavo_test {

// A file in the folder of the running executable.
inline std::string BesideExecutable(const std::string& relative) {
  return android::base::GetExecutableDirectory() + "/" + relative;
}

class PumpObject {
 public:
  // Pins ringbuf_map and ringbuf_status as <dir>/map_<object>_..., and the
  // producer as <dir>/prog_<object>_tracepoint_emit. ringBytes 0 keeps the
  // object's ring size.
  PumpObject(const std::string& dir, const std::string& object,
             const std::string& path = BesideExecutable("bpf/tavo_pump_test.bpf.o"), uint32_t ringBytes = 0)
      : dir_(dir), object_(object) {
    obj_.reset(bpf_object__open_file(path.c_str(), nullptr));
    if (!obj_) return;
    if (ringBytes != 0) bpf_map__set_max_entries(Map(Tavo::Bpf::kRingbufMap), ringBytes);
    if (bpf_object__load(obj_.get()) != 0) return;
    for (const char* map : {Tavo::Bpf::kRingbufMap, Tavo::Bpf::kRingbufStatusMap}) {
      if (bpf_map__pin(bpf_object__find_map_by_name(obj_.get(), map),
                       Tavo::Bpf::PinnedMapPath(dir, object, map).c_str()) != 0) return;
    }
    ok_ = bpf_program__pin(bpf_object__find_program_by_name(obj_.get(), "emit"),
                           Tavo::Bpf::PinnedProgramPath(dir, object, Tavo::Bpf::kProgTypeTracepoint, "emit").c_str()) == 0;
  }
  ~PumpObject() {
    for (const char* map : {Tavo::Bpf::kRingbufMap, Tavo::Bpf::kRingbufStatusMap}) {
      unlink(Tavo::Bpf::PinnedMapPath(dir_, object_, map).c_str());
    }
    unlink(Tavo::Bpf::PinnedProgramPath(dir_, object_, Tavo::Bpf::kProgTypeTracepoint, "emit").c_str());
  }

  bool ok() const { return ok_; }
  bpf_object* get() const { return obj_.get(); }
  int RingFd() { return bpf_map__fd(Map(Tavo::Bpf::kRingbufMap)); }
  // From now on each getppid() of tgid writes one record of this type.
  void Produce(uint32_t type, int32_t tgid) {
    const uint32_t config[2] = {type, static_cast<uint32_t>(tgid)};
    const uint32_t zero = 0;
    bpf_map__update_elem(bpf_object__find_map_by_name(obj_.get(), "test_config"), &zero, sizeof(zero), config,
                         sizeof(config), BPF_ANY);
  }
  uint64_t Status(uint32_t key) {
    uint64_t value = 0;
    bpf_map__lookup_elem(Map(Tavo::Bpf::kRingbufStatusMap), &key, sizeof(key), &value, sizeof(value), 0);
    return value;
  }
  void SetStatus(uint32_t key, uint64_t value) {
    bpf_map__update_elem(Map(Tavo::Bpf::kRingbufStatusMap), &key, sizeof(key), &value, sizeof(value), BPF_ANY);
  }

 private:
  struct Closer {
    void operator()(bpf_object* obj) const { bpf_object__close(obj); }
  };
  bpf_map* Map(const char* name) const { return bpf_object__find_map_by_name(obj_.get(), name); }

  std::string dir_, object_;
  std::unique_ptr<bpf_object, Closer> obj_;
  bool ok_ = false;
};

}  // namespace tavo_test
