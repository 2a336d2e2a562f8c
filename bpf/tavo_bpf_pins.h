// Names under which the platform's loader pins the two objects' programs and
// maps. The service, the host loader, the tools and the tests all take them
// from here.
#pragma once

#include <string>

namespace Tavo::Bpf {

// Directory of every pin; the trailing slash is part of the name the
// service reaches pins by ("/sys/fs/bpf/tavo//prog_..." for programs).
inline constexpr const char* kBpfPinDir = "/sys/fs/bpf/tavo/";
// Where bpffs and tracefs are mounted (attaching tracepoints needs tracefs).
inline constexpr const char* kBpfFsDir = "/sys/fs/bpf";
inline constexpr const char* kTracefsDir = "/sys/kernel/tracing";
inline constexpr const char* kNormalObject = "TavoBpfDefineset";
inline constexpr const char* kGplObject = "TavoBpfGplDefineset";

// Program type words of pinned program names.
inline constexpr const char* kProgTypeTracepoint = "tracepoint";
inline constexpr const char* kProgTypeKprobe = "kprobe";
inline constexpr const char* kProgTypeKretprobe = "kretprobe";

// Map names inside the objects (the part after "map_<object>_").
inline constexpr const char* kRingbufMap = "ringbuf_map";
inline constexpr const char* kRingbufStatusMap = "ringbuf_status";
inline constexpr const char* kRingConsumerMap = "ring_consumer";
inline constexpr const char* kOpenFdMap = "open_fd_caller_map";
inline constexpr const char* kDmabufAllocateMap = "dmabuf_allocate_map";
inline constexpr const char* kDmabufSizeMap = "dmabuf_size_map";

// "<dir>/map_<object>_<map>" without doubling a trailing slash of dir.
inline std::string PinnedMapPath(const std::string& dir, const std::string& object, const std::string& map) {
  std::string path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  return path + "map_" + object + "_" + map;
}

// "<dir>/prog_<object>_<type>_<prog>", the directory kept as given.
inline std::string PinnedProgramPath(const std::string& dir, const std::string& object, const std::string& type,
                                     const std::string& prog) {
  return dir + "/prog_" + object + "_" + type + "_" + prog;
}

}  // namespace Tavo::Bpf
