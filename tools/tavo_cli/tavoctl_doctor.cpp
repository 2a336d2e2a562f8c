// tavoctl doctor: what this kernel and system offer the service, one line
// per requirement and per attach-table row, and an exit status that says
// whether the service can run fully (0), with rows missing (1) or not at all (2).
#include <bpf/libbpf.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bpf/tavo_bpf_attach_tables.h"
#include "bpf/tavo_bpf_pins.h"
#include "bpf/tavo_bpf_records.h"
#include "bpf/tavo_bpf_row_check.h"
#include "client/tavo_client.h"
#include "client/tavo_event_format.h"
#include "task/tavo_proc_reader.h"
#include "tools/tavo_cli/tavoctl_commands.h"
#include "tools/tavo_cli/tavoctl_service_finder.h"
#include "util/tavo_options.h"
#include "util/tavo_properties.h"
#include "util/tavo_service_contract.h"

namespace Tavo::Cli {

namespace {

using android::base::StringPrintf;
using Tavo::Bpf::BpfRowDecision;
using Tavo::Bpf::BpfRowVerdict;
using Tavo::Bpf::TavoBpfRowCheck;

constexpr const char* kBtfPath = "/sys/kernel/btf/vmlinux";
// bcc attaches through either mount point.
constexpr const char* kTracefsDirs[] = {Tavo::Bpf::kTracefsDir, "/sys/kernel/debug/tracing"};
constexpr const char* kKprobePmu = "/sys/bus/event_source/devices/kprobe";
constexpr const char* kDmabufStatsDir = "/sys/kernel/dmabuf/buffers";
constexpr const char* kDmabufStatsFunction = "dma_buf_stats_setup";
constexpr int kProbeTimeoutMs = 1000;

// What a row's hook feeds, by hook.
const struct {
  const char* hook;
  const char* feeds;
} kHookFeeds[] = {
    {"sched/sched_switch", "ring status and reader wake-ups"},
    {"sched/sched_process_exit", "thread and process ends (3), dma-buf totals at exit (4)"},
    {"sched/sched_process_fork", "thread and process starts (2)"},
    {"kmem/rss_stat", "memory sizes (1)"},
    {"cgroup/cgroup_attach_task", "cgroup moves (5)"},
    {"fd_install", "open-fd counts (6)"},
    {"filp_close", "open-fd counts (6)"},
    {"dma_buf_stats_setup", "dma-buf setups (7), allocation-charged totals (4)"},
    {"dma_buf_file_release", "dma-buf releases (8)"},
    {"dma_buf_attach", "dma-buf attaches (9)"},
    {"dma_buf_detach", "dma-buf detaches (10)"},
    {"dma_buf_vmap", "dma-buf kernel maps (11)"},
    {"dma_buf_vunmap", "dma-buf kernel unmaps (12)"},
    {"dma_buf_mmap_internal", "dma-buf maps (13)"},
    {"__vm_munmap", "dma-buf unmaps (14)"},
};

std::string Feeds(const std::string& hook) {
  for (const auto& h : kHookFeeds) {
    if (hook == h.hook) return h.feeds;
  }
  return "its records";
}

std::string VersionText(int version) { return StringPrintf("%d.%d", version / 1000, version % 1000); }

class Doctor {
 public:
  Doctor(bool json, std::string socket, std::string dir)
      : json_(json), socket_(std::move(socket)), dir_(std::move(dir)) {}

  int Run() {
    CheckRoot();
    CheckBtf();
    CheckTracefs();
    CheckBpffs();
    CheckKprobes();
    CheckRingbuf();
    CheckDmabufStats();
    CheckSocket();
    CheckDumpDir();
    CheckRows();
    if (!fatal_.empty()) {
      Line("missing", "verdict", "the service cannot run: " + android::base::Join(fatal_, ", "));
      return 2;
    }
    if (rowsMissing_ > 0) {
      Line("warn", "verdict", StringPrintf("the service runs with %d row(s) missing", rowsMissing_));
      return 1;
    }
    Line("ok", "verdict", "the service can run fully");
    return 0;
  }

 private:
  // One requirement; "missing" with fatal makes the service unable to run.
  void Line(const char* status, const std::string& name, const std::string& text, bool fatal = false,
            const BpfRowDecision* row = nullptr) {
    if (fatal) fatal_.push_back(name);
    if (!json_) {
      printf("%-8s %-15s %s\n", status, name.c_str(), text.c_str());
      return;
    }
    using Tavo::Client::JsonQuote;
    std::string out = "{\"status\":" + JsonQuote(status) + ",\"name\":" + JsonQuote(name);
    if (row != nullptr) {
      out += ",\"object\":" + JsonQuote(row->object) + ",\"prog\":" + JsonQuote(row->progName) +
             ",\"type\":" + JsonQuote(Tavo::Bpf::AttachTypeWord(row->type)) + ",\"hook\":" + JsonQuote(row->hook) +
             ",\"rule\":" + JsonQuote(row->rule);
    }
    printf("%s,\"detail\":%s}\n", out.c_str(), JsonQuote(text).c_str());
  }

  bool KnowsFilesystem(const char* type) {
    if (filesystems_.empty()) filesystems_ = proc_.Filesystems();
    return filesystems_.count(type) != 0;
  }

  void CheckRoot() {
    if (geteuid() == 0) return Line("ok", "root", "running as root, as the service does");
    Line("missing", "root", "not root: the service loads and attaches BPF programs as root; checks below may fail "
                            "for that alone", true);
  }

  void CheckBtf() {
    if (access(kBtfPath, R_OK) == 0) return Line("ok", "btf", std::string(kBtfPath) + ": CO-RE relocations work");
    Line("missing", "btf", std::string("no ") + kBtfPath + ": the objects' CO-RE relocations fail, nothing loads",
         true);
  }

  void CheckTracefs() {
    for (const char* dir : kTracefsDirs) {
      if (access((std::string(dir) + "/events").c_str(), F_OK) == 0) {
        tracefs_ = dir;
        return Line("ok", "tracefs", tracefs_ + ": tracepoints can attach");
      }
    }
    if (KnowsFilesystem("tracefs")) {
      return Line("missing", "tracefs",
                  StringPrintf("not mounted at %s (mount -t tracefs tracefs %s): no tracepoint attaches, no records",
                               Tavo::Bpf::kTracefsDir, Tavo::Bpf::kTracefsDir),
                  true);
    }
    Line("missing", "tracefs", "this kernel has no tracefs: no tracepoint attaches, no records", true);
  }

  void CheckBpffs() {
    struct statfs fs {};
    const char* dir = Tavo::Bpf::kBpfFsDir;
    if (statfs(dir, &fs) == 0 && static_cast<unsigned long>(fs.f_type) == BPF_FS_MAGIC) {
      return Line("ok", "bpffs", std::string(dir) + ": the objects' programs and maps can be pinned there");
    }
    if (KnowsFilesystem("bpf")) {
      return Line("warn", "bpffs", std::string("not mounted at ") + dir +
                                       ": tavo_bpfd's loader mounts it (on a device the platform's loader does)");
    }
    Line("missing", "bpffs", "this kernel has no bpffs: nothing can be pinned", true);
  }

  void CheckKprobes() {
    const std::string events = tracefs_.empty() ? "" : tracefs_ + "/kprobe_events";
    if (!events.empty() && access(events.c_str(), F_OK) == 0) {
      kprobes_ = true;
      return Line("ok", "kprobes", events + ": fd counts and dma-buf rows can attach");
    }
    if (access(kKprobePmu, F_OK) == 0) {
      kprobes_ = true;
      return Line("ok", "kprobes", std::string(kKprobePmu) + ": fd counts and dma-buf rows can attach");
    }
    Line("missing", "kprobes", "no kprobe_events in tracefs and no kprobe PMU: fd counts and dma-buf rows cannot attach");
  }

  void CheckRingbuf() {
    libbpf_set_print(nullptr);
    const int probe = libbpf_probe_bpf_map_type(BPF_MAP_TYPE_RINGBUF, nullptr);
    if (probe == 1) return Line("ok", "ringbuf", "BPF ring-buffer maps can be created: the objects' rings load");
    if (probe == 0) {
      return Line("missing", "ringbuf", "this kernel has no BPF ring-buffer maps (5.8 on): the objects do not load",
                  true);
    }
    Line("missing", "ringbuf",
         StringPrintf("creating a ring-buffer map failed: %s%s", strerror(-probe), geteuid() == 0 ? "" : " (not root)"),
         true);
  }

  void CheckDmabufStats() {
    functions_ = proc_.KernelFunctions();
    const bool sysfs = access(kDmabufStatsDir, F_OK) == 0;
    if (sysfs || functions_.count(kDmabufStatsFunction) != 0) {
      return Line("ok", "dmabuf-stats",
                  std::string("CONFIG_DMABUF_SYSFS_STATS (") + (sysfs ? kDmabufStatsDir : kDmabufStatsFunction) +
                      "): the stats_setup rows have their function, setup records (7) can come");
    }
    Line("warn", "dmabuf-stats",
         std::string("no CONFIG_DMABUF_SYSFS_STATS (no ") + kDmabufStatsDir + ", no " + kDmabufStatsFunction +
             "): no setup records (7) nor allocation-charged totals (4), whatever the version");
  }

  void CheckSocket() {
    std::set<unsigned long> inodes;
    size_t connected = 0;
    if (!proc_.UnixSockets(socket_, &inodes, &connected)) {
      return Line("warn", "socket", "cannot read /proc/net/unix: cannot tell whether @" + socket_ + " is free");
    }
    if (inodes.empty()) return Line("ok", "socket", "@" + socket_ + " is free: the service can bind it");
    const pid_t pid = FindServicePid(socket_);
    std::string holder = "an unknown process";
    std::string comm;
    if (pid > 0) {
      holder = StringPrintf("pid %d", pid);
      if (proc_.ReadName(std::to_string(pid).c_str(), &comm)) holder += " (" + comm + ")";
    }
    Tavo::Client::TavoClient::Options options;
    options.socketPath = socket_;
    options.requestTimeoutMs = kProbeTimeoutMs;
    Tavo::Client::TavoClient client([](const Tavo::Client::Event&) {}, options);
    const bool answers = client.Connect() == 0 && client.Subscribe(TAVO_NOTICE_PROCESS_START) == 0;
    client.Close();
    if (answers) return Line("ok", "socket", "@" + socket_ + " is served by " + holder + ": the service answers");
    Line("warn", "socket", "@" + socket_ + " is held by " + holder +
                               ", which does not answer as the service does: the service cannot bind it");
  }

  void CheckDumpDir() {
    struct stat st {};
    if (stat(dir_.c_str(), &st) != 0) {
      const std::string parent = dir_.substr(0, dir_.find_last_of('/'));
      if (!parent.empty() && access(parent.c_str(), W_OK) == 0) {
        return Line("ok", "dumps", dir_ + " does not exist yet: the service creates it at the first dump");
      }
      return Line("warn", "dumps", dir_ + " does not exist and " + parent +
                                   " is not a writable folder: signal dumps (50 to 54) are lost");
    }
    std::string probe = dir_ + "/.tavoctl_doctor.XXXXXX";
    const android::base::unique_fd fd(S_ISDIR(st.st_mode) ? mkstemp(probe.data()) : -1);
    const int error = errno;
    if (fd.get() >= 0) {
      unlink(probe.c_str());
      return Line("ok", "dumps", dir_ + " is writable: signal dumps land there");
    }
    Line("warn", "dumps", dir_ + " is not a writable folder (" + strerror(S_ISDIR(st.st_mode) ? error : ENOTDIR) +
                              "): signal dumps (50 to 54) are lost");
  }

  void CheckRows() {
    utsname uts{};
    uname(&uts);
    const std::string property = Tavo::Bpf::GetServiceProperty(Tavo::Bpf::kKernelVersionProperty, "");
    const std::string release = property.empty() ? uts.release : property;
    const std::string dmabufRows = Tavo::Bpf::GetServiceProperty(Tavo::Bpf::kDmabufRowsProperty, "");
    const int kernel = Tavo::Bpf::convertVersionToInt(release);
    const int rowsVersion = Tavo::Bpf::AttachRowsVersion(kernel, dmabufRows);
    std::string text = release + (property.empty() ? " (uname; " : " (") +
                       std::string(Tavo::Bpf::kKernelVersionProperty) + (property.empty() ? " unset)" : ")");
    if (kernel == 0) {
      Line("warn", "kernel", text + ": no version in it, every row is skipped");
    } else if (rowsVersion != kernel) {
      Line("ok", "kernel", text + ": rows of " + VersionText(rowsVersion) + " (" + Tavo::Bpf::kDmabufRowsProperty +
                               "=" + dmabufRows + ")");
    } else {
      Line("ok", "kernel", text + ": rows of " + VersionText(rowsVersion));
    }
    const TavoBpfRowCheck check(tracefs_, kprobes_, functions_);
    for (const BpfRowDecision& row : check.DecideAll(rowsVersion)) {
      const bool tracepoint = row.type == Tavo::Bpf::kAttachTracepoint;
      std::string what = std::string(Tavo::Bpf::AttachTypeWord(row.type)) + (tracepoint ? " " : " on ") + row.hook;
      switch (row.verdict) {
        case BpfRowVerdict::kReady:
          what += ", rule " + row.rule + ": " + Feeds(row.hook);
          break;
        case BpfRowVerdict::kSkipped:
          what += ": rule " + row.rule + " leaves out " + VersionText(rowsVersion) + ", skipped by version";
          break;
        case BpfRowVerdict::kMissing:
          ++rowsMissing_;
          what += tracepoint ? (tracefs_.empty() ? " (no tracefs)" : " not in tracefs")
                             : (!kprobes_ ? " (no kprobes)" : " not among the kernel's text symbols");
          what += ", rule " + row.rule + ": no " + Feeds(row.hook);
          break;
      }
      Line(TavoBpfRowCheck::VerdictWord(row.verdict), row.object + "/" + row.progName, what, false, &row);
    }
  }

  const bool json_;
  const std::string socket_;
  const std::string dir_;
  const Tavo::Bpf::TavoProcReader proc_;
  std::set<std::string> filesystems_;
  std::set<std::string> functions_;
  std::string tracefs_;
  bool kprobes_ = false;
  std::vector<std::string> fatal_;
  int rowsMissing_ = 0;
};

}  // namespace

int DoctorCommand(int argc, char** argv) {
  bool json = false;
  std::string socket = Tavo::Client::kServiceSocket;
  std::string dir = Tavo::Bpf::kDumpDir;
  Tavo::Bpf::TavoOptions options("tavoctl doctor", "[--json] [--socket NAME] [--dir DIR] [--prop NAME=VALUE]...");
  options.Flag("--json", &json, "one JSON object per line")
      .Text("--socket", &socket, "NAME", std::string("the service's socket (default ") + Tavo::Client::kServiceSocket + ")")
      .Text("--dir", &dir, "DIR", std::string("the service's dump folder (default ") + Tavo::Bpf::kDumpDir + ")")
      .Properties()
      .Epilog(std::string("Checks what this kernel and system offer the service: BTF, tracefs, bpffs,\n"
                          "kprobes, BPF ring buffers, the dma-buf statistics option, the socket and the\n"
                          "dump folder, then every attach-table row: whether the kernel version takes it\n"
                          "(\"") + Tavo::Bpf::kKernelVersionProperty + "\", else uname; \"" +
              Tavo::Bpf::kDmabufRowsProperty +
              "\") and whether its tracepoint\n"
              "or function exists. One line each: ok, warn, missing, or skipped (a row the\n"
              "version leaves out), the name (rows as object/program) and what it means.\n"
              "\n"
              "Exit status: 0 the service can run fully, 1 it runs with rows missing,\n"
              "2 it cannot run (no BTF, tracefs, bpffs or ring buffers, or not root).\n");
  if (const int status = options.ParseOrStatus(argc, argv); status >= 0) return status;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  return Doctor(json, socket, dir).Run();
}

}  // namespace Tavo::Cli
