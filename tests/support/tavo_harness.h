// The small harness the tests, the benchmarks and the kernel matrix's check
// share: waiting for a condition, private namespaces with their own bpffs
// and tracefs, the daemon as a child process, and what /proc says of this
// process (through the project's /proc reader). No GoogleTest in here.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace tavo_test {

// Polls `done` every `poll` until it holds; false when timeoutMs ran out
// first (done is asked once more then).
bool WaitFor(const std::function<bool()>& done, int timeoutMs = 3000,
             std::chrono::microseconds poll = std::chrono::milliseconds(2));

// Moves this process into a mount namespace of its own (and a network
// namespace, for a socket-name space of its own, when `network`), with a
// fresh bpffs on /sys/fs/bpf and tracefs on /sys/kernel/tracing (an existing
// tracefs is kept). Call before any thread starts. Pins, sockets and mounts
// then go away with the process.
struct Isolation {
  bool bpffs = false;
  bool tracefs = false;
  std::string whyNot;  // why either is missing
};
Isolation EnterPrivateNamespaces(bool network);

// tavo_bpfd as a child process, its stdout and stderr in a log file.
class DaemonProcess {
 public:
  DaemonProcess(std::string path, std::string log, std::vector<std::string> args = {});
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // Starts it and waits until both objects' programs are enabled (their
  // status maps under /sys/fs/bpf/tavo/); false when that did not happen.
  bool Start(int timeoutMs);
  // SIGTERM, then waits (SIGKILL after timeoutMs); true when it exited 0.
  bool Stop(int timeoutMs = 30000);
  pid_t pid() const { return pid_; }
  const std::string& log() const { return log_; }

 private:
  const std::string path_;
  const std::string log_;
  const std::vector<std::string> args_;
  pid_t pid_ = -1;
};

// The CPUs this process may run on.
cpu_set_t AllCpus();
// Thread id of this process's thread named `name`, or -1.
int FindThread(const std::string& name);
// User plus system CPU time of one of this process's threads, in ms.
long ThreadCpuMs(int tid);
// Resident memory of this process in KiB, and its open descriptors.
long SelfRssKiB();
int SelfOpenFds();

}  // namespace tavo_test
