// tavo_bpfd: the service on a Linux host.
//   tavo_bpfd [--use-existing-pins] [--keep-pins] [--prop name=value]...
//             [--obj-dir DIR] [--ring-bytes N] [--gpl-ring-bytes N] [--rss-step BYTES]
//             [--attach-report FILE]
// Loads and pins the BPF objects (unless told to use existing pins), plays
// the platform's part (kernel version and readiness properties), runs the
// service until SIGINT or SIGTERM, then stops it and removes its pins.
#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <android-base/properties.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <android-base/file.h>

#include <chrono>

#include "include/tavo_bpf_service_main.h"
#include "service/tavo_bpf_service.h"
#include "bpf/loader/tavo_bpf_loader.h"
#include "util/tavo_log.h"
#include "util/tavo_options.h"
#include "util/tavo_service_contract.h"

namespace {

constexpr const char* kTag = "TavoBpfd";
constexpr const char* kDumpParent = "/data/tavolog/stability";

// mkdir -p
void MakeDirs(const std::string& path) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    mkdir(path.substr(0, pos).c_str(), 0755);
  }
}

// Once both pumps have attached their objects, writes what became of each
// row (bpf/tavo_bpf_attach_report.h) to path, whole or not at all, and logs
// the totals.
void WriteAttachReport(const std::string& path, const std::atomic<bool>& stopped) {
  Tavo::Bpf::TavoBpfService::Parts& parts = Tavo::Bpf::TavoBpfService::GetInstance()->parts();
  Tavo::Bpf::BpfAttachReport report, ring;
  for (Tavo::Bpf::TavoRingPump& pump : parts.pumps) {
    while (!pump.AttachReport(&ring)) {
      if (stopped) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    report.insert(report.end(), ring.begin(), ring.end());
  }
  int counts[4] = {};
  for (const auto& row : report) ++counts[static_cast<int>(row.verdict)];
  const std::string partial = path + ".partial";
  if (!android::base::WriteStringToFile(Tavo::Bpf::FormatAttachReport(report), partial) ||
      rename(partial.c_str(), path.c_str()) != 0) {
    TAVO_LOGE(kTag, "[tavo_bpfd] cannot write the attach report %s: %s", path.c_str(), strerror(errno));
    return;
  }
  TAVO_LOGI(kTag, "[tavo_bpfd] attach report %s: %d attached, %d skipped by version, %d failed, %d bad", path.c_str(),
            counts[0], counts[1], counts[2], counts[3]);
}

}  // namespace

int main(int argc, char** argv) {
  Tavo::Loader::LoaderOptions options;
  bool useExisting = false;
  bool keepPins = false;
  std::string attachReport;
  Tavo::Bpf::TavoOptions parser("tavo_bpfd", "[OPTION]...");
  parser.Flag("--use-existing-pins", &useExisting, "run on the pins a loader made; load nothing")
      .Flag("--keep-pins", &keepPins, "leave the pins made here when stopping")
      .Text("--attach-report", &attachReport, "FILE", "write what became of each attach-table row")
      .Properties();
  Tavo::Loader::AddObjectOptions(&parser, &options);
  if (const int status = parser.ParseOrStatus(argc, argv); status >= 0) return status;

  // Every thread the service starts inherits this mask, so only the
  // watcher below ever sees SIGINT and SIGTERM.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  MakeDirs(kDumpParent);
  Tavo::Loader::MountBpfFs();
  Tavo::Loader::MountTraceFs();

  Tavo::Loader::LoadReport report;
  if (!useExisting && Tavo::Loader::LoadAndPin(options, &report) != 0) {
    TAVO_LOGE(kTag, "[tavo_bpfd] loading the BPF objects failed: %s", strerror(errno));
    Tavo::Loader::RemovePins(report.pins, options.pinDir);
    return 1;
  }
  if (android::base::GetProperty(Tavo::Bpf::kKernelVersionProperty, "").empty()) {
    utsname uts{};
    if (uname(&uts) == 0) android::base::SetProperty(Tavo::Bpf::kKernelVersionProperty, uts.release);
  }
  android::base::SetProperty(Tavo::Bpf::kReadyProperty, "1");
  TAVO_LOGI(kTag, "[tavo_bpfd] kernel %s, %zu pins, %zu programs skipped",
            android::base::GetProperty(Tavo::Bpf::kKernelVersionProperty, "").c_str(), report.pins.size(),
            report.skipped.size());

  if (Tavo::Bpf::BpfServiceMain() == 0) {
    if (!keepPins) Tavo::Loader::RemovePins(report.pins, options.pinDir);
    return 0;
  }

  std::atomic<bool> joined{false};
  std::thread reporter;
  if (!attachReport.empty()) reporter = std::thread(WriteAttachReport, attachReport, std::cref(joined));
  std::thread watcher([&] {
    int sig = 0;
    sigwait(&stopSignals, &sig);
    if (joined) return;  // Wait() ended on its own and woke us
    TAVO_LOGW(kTag, "[tavo_bpfd] signal %d: stopping", sig);
    Tavo::Bpf::TavoBpfService::GetInstance()->stop();
  });

  const int rc = Tavo::Bpf::TavoBpfService::GetInstance()->Wait();
  joined = true;
  kill(getpid(), SIGTERM);  // releases the watcher if no signal came
  watcher.join();
  if (reporter.joinable()) reporter.join();
  if (!keepPins && Tavo::Loader::RemovePins(report.pins, options.pinDir) != 0)
    TAVO_LOGW(kTag, "[tavo_bpfd] some pins could not be removed");
  TAVO_LOGI(kTag, "[tavo_bpfd] stopped");
  return rc;
}
