// tavo_loader: loads and pins the kernel-side objects, or removes the pins.
//   tavo_loader load [--obj-dir DIR] [--pin-dir DIR] [--ring-bytes N]
//                    [--gpl-ring-bytes N] [--rss-step BYTES] [--verbose]
//   tavo_loader unload [--pin-dir DIR]
// On a device it is the platform's loader for these objects: once both are
// pinned it sets "sys.tavo_bpf_ready", which the service waits for.
#include <android-base/properties.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/tavo_loader/tavo_bpf_loader.h"
#include "util/tavo_service_contract.h"

namespace {

int Usage() {
  fprintf(stderr,
          "usage: tavo_loader load [--obj-dir DIR] [--pin-dir DIR] [--ring-bytes N]\n"
          "                        [--gpl-ring-bytes N] [--rss-step BYTES] [--verbose]\n"
          "       tavo_loader unload [--pin-dir DIR]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  const std::string verb = argv[1];
  Tavo::Loader::LoaderOptions options;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--verbose") {
      options.verbose = true;
    } else if (arg == "--pin-dir" && hasValue) {
      options.pinDir = argv[++i];
    } else if (!Tavo::Loader::ParseObjectOption(argc, argv, &i, &options)) {
      return Usage();
    }
  }
  if (verb == "unload") {
    const int removed = Tavo::Loader::UnloadAll(options.pinDir);
    if (removed < 0) {
      fprintf(stderr, "tavo_loader: %s: %s\n", options.pinDir.c_str(), strerror(errno));
      return 1;
    }
    printf("removed %d pins\n", removed);
    return 0;
  }
  if (verb != "load") return Usage();
  // Loading mounts bpffs itself; the service attaches through tracefs.
  Tavo::Loader::MountTraceFs();
  Tavo::Loader::LoadReport report;
  if (Tavo::Loader::LoadAndPin(options, &report) != 0) {
    fprintf(stderr, "tavo_loader: load failed: %s\n", strerror(errno));
    return 1;
  }
  for (const std::string& pin : report.pins) printf("pinned %s\n", pin.c_str());
  for (const std::string& prog : report.skipped) printf("skipped %s\n", prog.c_str());
  if (!android::base::SetProperty(Tavo::Bpf::kReadyProperty, "1")) {
    fprintf(stderr, "tavo_loader: cannot set %s\n", Tavo::Bpf::kReadyProperty);
    return 1;
  }
  return 0;
}
