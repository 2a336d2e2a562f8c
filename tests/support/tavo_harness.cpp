#include "tests/support/tavo_harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "bpf/tavo_bpf_map.h"
#include "bpf/tavo_bpf_pins.h"
#include "bpf/tavo_bpf_records.h"
#include "task/tavo_proc_reader.h"

namespace tavo_test {

using Tavo::Bpf::TavoProcFacts;
using Tavo::Bpf::TavoProcReader;

bool WaitFor(const std::function<bool()>& done, int timeoutMs, std::chrono::microseconds poll) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return done();
    std::this_thread::sleep_for(poll);
  }
  return true;
}

Isolation EnterPrivateNamespaces(bool network) {
  Isolation isolation;
  if (geteuid() != 0) {
    isolation.whyNot = "needs root for bpffs and tracefs";
    return isolation;
  }
  if (unshare(CLONE_NEWNS | (network ? CLONE_NEWNET : 0)) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    isolation.whyNot = std::string("private namespaces: ") + strerror(errno);
    return isolation;
  }
  isolation.bpffs = mount("bpf", Tavo::Bpf::kBpfFsDir, "bpf", 0, "mode=0700") == 0;
  if (!isolation.bpffs) isolation.whyNot = std::string("mounting bpffs: ") + strerror(errno);
  const std::string events = std::string(Tavo::Bpf::kTracefsDir) + "/events";
  isolation.tracefs = access(events.c_str(), F_OK) == 0 ||
                      mount("tracefs", Tavo::Bpf::kTracefsDir, "tracefs", 0, nullptr) == 0;
  if (!isolation.tracefs && isolation.whyNot.empty()) {
    isolation.whyNot = std::string("mounting tracefs: ") + strerror(errno);
  }
  return isolation;
}

DaemonProcess::DaemonProcess(std::string path, std::string log, std::vector<std::string> args)
    : path_(std::move(path)), log_(std::move(log)), args_(std::move(args)) {}

DaemonProcess::~DaemonProcess() { Stop(); }

bool DaemonProcess::Start(int timeoutMs) {
  pid_ = fork();
  if (pid_ == 0) {
    android::base::unique_fd fd(open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (fd < 0) _exit(126);
    dup2(fd.get(), STDOUT_FILENO);
    dup2(fd.get(), STDERR_FILENO);
    std::vector<char*> argv{const_cast<char*>(path_.c_str())};
    for (const std::string& arg : args_) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(path_.c_str(), argv.data());
    _exit(127);
  }
  if (pid_ < 0) return false;
  auto enabled = [](const char* object) {
    auto status = Tavo::Bpf::TavoBpfMap<uint32_t, uint64_t>::OpenPinned(
        Tavo::Bpf::PinnedMapPath(Tavo::Bpf::kBpfPinDir, object, Tavo::Bpf::kRingbufStatusMap));
    const uint64_t both = TAVO_STATUS_CORE_ENABLED | TAVO_STATUS_NORMAL_ENABLED;
    return status.ok() && (status->Lookup(TAVO_STATUS_FLAGS).value_or(0) & both) == both;
  };
  return WaitFor([&] { return enabled(Tavo::Bpf::kNormalObject) && enabled(Tavo::Bpf::kGplObject); }, timeoutMs,
                 std::chrono::milliseconds(20));
}

bool DaemonProcess::Stop(int timeoutMs) {
  if (pid_ <= 0) return false;
  kill(pid_, SIGTERM);
  int status = 0;
  const bool exited = WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs,
                              std::chrono::milliseconds(20));
  if (!exited) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
  return exited && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

cpu_set_t AllCpus() {
  cpu_set_t set;
  CPU_ZERO(&set);
  sched_getaffinity(0, sizeof(set), &set);
  return set;
}

int FindThread(const std::string& name) {
  const TavoProcReader reader;
  int found = -1;
  std::string comm;
  reader.ForEachThread("self", [&](int32_t tid) {
    if (reader.ReadName(("self/task/" + std::to_string(tid)).c_str(), &comm) && comm == name) found = tid;
  });
  return found;
}

long ThreadCpuMs(int tid) {
  TavoProcFacts facts;
  if (!TavoProcReader().ReadProcess(("self/task/" + std::to_string(tid)).c_str(), &facts) || !facts.hasStat) {
    return -1;
  }
  return static_cast<long>(facts.cpuTicks * 1000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK)));
}

long SelfRssKiB() {
  TavoProcFacts facts;
  if (!TavoProcReader().ReadProcess("self", &facts)) return -1;
  return static_cast<long>((facts.rssAnon + facts.rssFile + facts.rssShmem) / 1024);
}

int SelfOpenFds() {
  int count = 0;
  TavoProcReader().ForEachFd("self", [&count](const char*) { ++count; });
  return count - 1;  // the reader's own, while it lists them
}

}  // namespace tavo_test
