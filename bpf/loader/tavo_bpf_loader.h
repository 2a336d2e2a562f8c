// Host-side BPF loader: loads the two kernel-side objects with libbpf and
// pins their programs and maps under the platform's names, so the service
// finds them exactly as it would on a device:
//   <pinDir>/prog_<object>_<tracepoint|kprobe|kretprobe>_<progName>
//   <pinDir>/map_<object>_<mapName>
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "util/tavo_options.h"

#include "bpf/tavo_bpf_pins.h"

namespace Tavo::Loader {

using Tavo::Bpf::kGplObject;
using Tavo::Bpf::kNormalObject;
inline constexpr const char* kDefaultPinDir = Tavo::Bpf::kBpfPinDir;
inline constexpr const char* kBpfFsRoot = "/sys/fs/bpf";
inline constexpr const char* kTraceFsRoot = "/sys/kernel/tracing";

struct LoaderOptions {
  std::string objectDir;            // holds <object>.bpf.o; empty: the build's own
  std::string pinDir = kDefaultPinDir;
  uint32_t normalRingBytes = 0;     // 0: the object's default ring size
  uint32_t gplRingBytes = 0;
  int64_t rssStepBytes = -1;        // < 0: the object's default
  bool verbose = false;             // pass libbpf's messages (verifier logs) through
};

// Declares the options that place and size the objects, shared by the
// loader and the daemon: --obj-dir DIR, --ring-bytes N, --gpl-ring-bytes N,
// --rss-step BYTES.
void AddObjectOptions(Tavo::Bpf::TavoOptions* parser, LoaderOptions* options);

struct LoadReport {
  std::vector<std::string> pins;     // every path pinned, programs and maps
  std::vector<std::string> skipped;  // "<object>/<progName>" that did not load here
};

// Mounts bpffs at /sys/fs/bpf unless one is there. 0 or -1 with errno.
int MountBpfFs();
// Mounts tracefs at /sys/kernel/tracing unless one is there: attaching a
// tracepoint, or a kprobe where the kernel has no kprobe PMU, goes through
// it. 0 or -1 with errno.
int MountTraceFs();

// Loads and pins both objects. Pins left by an earlier run of the same
// objects are removed first. Programs that the running kernel refuses are
// skipped with a log line. 0, or -1 with errno when an object cannot be
// opened or pinned at all.
int LoadAndPin(const LoaderOptions& options, LoadReport* report);

// Removes exactly these pins (those a LoadAndPin reported), then the
// directory if it is empty. Returns the number of pins that could not go.
int RemovePins(const std::vector<std::string>& pins, const std::string& pinDir = kDefaultPinDir);

// Removes every pin of both objects under pinDir, then the directory if
// it is empty. Returns the number removed, or -1 when pinDir is unreadable.
int UnloadAll(const std::string& pinDir = kDefaultPinDir);

// $TAVO_BPF_OBJECT_DIR when set, else the nearest "bpf" folder holding the
// objects in the executable's folder or one of its two parents.
std::string DefaultObjectDir();

}  // namespace Tavo::Loader
