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
#include <vector>

#include "bpf/loader/tavo_bpf_loader.h"
#include "util/tavo_service_contract.h"

int main(int argc, char** argv) {
  Tavo::Loader::LoaderOptions options;
  Tavo::Bpf::TavoOptions parser("tavo_loader", "load|unload [OPTION]...");
  parser.Text("--pin-dir", &options.pinDir, "DIR", "where the pins go (default /sys/fs/bpf/tavo/)")
      .Flag("--verbose", &options.verbose, "pass libbpf's messages (verifier logs) through");
  Tavo::Loader::AddObjectOptions(&parser, &options);
  std::vector<std::string> verbs;
  parser.Positionals(&verbs);
  if (const int status = parser.ParseOrStatus(argc, argv); status >= 0) return status;
  if (verbs.size() != 1 || (verbs[0] != "load" && verbs[0] != "unload")) {
    parser.PrintUsage(stderr);
    return 2;
  }
  const std::string& verb = verbs[0];
  if (verb == "unload") {
    const int removed = Tavo::Loader::UnloadAll(options.pinDir);
    if (removed < 0) {
      fprintf(stderr, "tavo_loader: %s: %s\n", options.pinDir.c_str(), strerror(errno));
      return 1;
    }
    printf("removed %d pins\n", removed);
    return 0;
  }
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
