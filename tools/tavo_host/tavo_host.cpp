// Minimal host: loads the library, sets properties, runs the service until
// SIGINT or SIGTERM.
//   tavo_host [--prop name=value]...
#include <signal.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <android-base/properties.h>

#include <cstdio>
#include <string>

#include "tavo_bpf_service_main.h"
#include "util/tavo_options.h"
#include "util/tavo_service_contract.h"

namespace {
volatile sig_atomic_t gStop = 0;
void OnSignal(int) { gStop = 1; }
}  // namespace

int main(int argc, char** argv) {
  Tavo::Bpf::TavoOptions options("tavo_host", "[--prop NAME=VALUE]...");
  options.Properties();
  if (const int status = options.ParseOrStatus(argc, argv); status >= 0) return status;
  // Nobody sets the kernel version on a host; the version rules need it.
  if (android::base::GetProperty(Tavo::Bpf::kKernelVersionProperty, "").empty()) {
    utsname uts{};
    if (uname(&uts) == 0) android::base::SetProperty(Tavo::Bpf::kKernelVersionProperty, uts.release);
  }
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  const bool started = Tavo::Bpf::BpfServiceMain() != 0;
  // A disabled service still keeps its host until it is told to stop:
  // init restarts a host that ends, which would only read the property
  // again and end again.
  while (!gStop) pause();
  if (!started) return 0;
  auto* service = Tavo::Bpf::TavoBpfService::GetInstance();
  service->stop();
  return service->Wait();
}
