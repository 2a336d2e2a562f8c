// Loads the test BPF object (tests/bpf/tavo_pump_test.bpf.c) and pins its
// programs and maps under the names the service looks for, as the platform
// loader would. Pins are removed again when the object goes away.
#pragma once

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tavo_test {

inline constexpr const char* kTavoPinDir = "/sys/fs/bpf/tavo/";

class PumpTestObject {
 public:
  PumpTestObject() = default;
  ~PumpTestObject() {
    for (bpf_link* link : links) bpf_link__destroy(link);
    for (const std::string& path : pins) unlink(path.c_str());
    if (object != nullptr) bpf_object__close(object);
  }
  PumpTestObject(const PumpTestObject&) = delete;
  PumpTestObject& operator=(const PumpTestObject&) = delete;

  // Opens and loads the object; returns an empty string or the reason of the failure.
  std::string Load() {
    mkdir(kTavoPinDir, 0700);
    object = bpf_object__open_file(TAVO_PUMP_BPF_OBJECT, nullptr);
    if (object == nullptr) return "open " + std::string(TAVO_PUMP_BPF_OBJECT) + " failed";
    if (bpf_object__load(object) != 0) return "loading the test BPF object failed";
    return "";
  }

  bpf_program* Program(const char* name) const { return bpf_object__find_program_by_name(object, name); }
  bpf_map* Map(const char* name) const { return bpf_object__find_map_by_name(object, name); }
  int MapFd(const char* name) const { return bpf_map__fd(Map(name)); }

  // Pins under kTavoPinDir + fileName.
  bool PinProgram(const char* name, const std::string& fileName) {
    return Remember(bpf_program__pin(Program(name), (kTavoPinDir + fileName).c_str()), fileName);
  }
  bool PinMap(const char* name, const std::string& fileName) {
    return Remember(bpf_obj_pin(MapFd(name), (kTavoPinDir + fileName).c_str()), fileName);
  }

  // Attaches a program by its section name, for the object's lifetime.
  bool Attach(const char* name) {
    bpf_link* link = bpf_program__attach(Program(name));
    if (link == nullptr) return false;
    links.push_back(link);
    return true;
  }

  // The distinct flag words the pump thread's bpf() calls met, in order.
  std::vector<uint64_t> FlagTrace() const {
    std::vector<uint64_t> words;
    const int fd = MapFd("flag_trace");
    uint32_t key = 0;
    uint64_t count = 0;
    bpf_map_lookup_elem(fd, &key, &count);
    for (key = 1; key <= count; ++key) {
      uint64_t word = 0;
      bpf_map_lookup_elem(fd, &key, &word);
      words.push_back(word);
    }
    return words;
  }

  // Pins the ring and the status map under one object's names.
  bool PinRingMaps(const std::string& object) {
    return PinMap("ringbuf_map", "map_" + object + "_ringbuf_map") &&
           PinMap("ringbuf_status", "map_" + object + "_ringbuf_status");
  }

  // The producer writes records of this type for forks and getppid calls of tgid.
  bool Produce(uint32_t type, int32_t tgid) {
    struct {
      uint32_t type;
      int32_t tgid;
    } config = {type, tgid};
    uint32_t key = 0;
    return bpf_map_update_elem(MapFd("test_config"), &key, &config, BPF_ANY) == 0;
  }

  uint64_t Status(uint32_t key) const {
    uint64_t value = 0;
    bpf_map_lookup_elem(MapFd("ringbuf_status"), &key, &value);
    return value;
  }
  void SetStatus(uint32_t key, uint64_t value) {
    bpf_map_update_elem(MapFd("ringbuf_status"), &key, &value, BPF_ANY);
  }

 private:
  bool Remember(int result, const std::string& fileName) {
    if (result != 0) return false;
    pins.push_back(kTavoPinDir + fileName);
    return true;
  }

  bpf_object* object = nullptr;
  std::vector<std::string> pins;
  std::vector<bpf_link*> links;
};

}  // namespace tavo_test
