// What several benchmarks set up: a private bpffs (and tracefs) that goes
// away with the process, sleeping children that fill /proc, and a wait.
#pragma once

#include <errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "task/tavo_proc_reader.h"

namespace tavo_bench {

// Moves this process into a mount namespace of its own with a fresh bpffs
// on /sys/fs/bpf and tracefs on /sys/kernel/tracing (tracepoint ids are
// read there), so pins never meet another process's. Call before any
// thread starts. Empty on success, else why not; tracefs is best effort.
inline std::string PrivateBpfFs() {
  if (geteuid() != 0) return "needs root";
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("bpf", "/sys/fs/bpf", "bpf", 0, "mode=0700") != 0) {
    return std::string("private bpffs: ") + strerror(errno);
  }
  if (access("/sys/kernel/tracing/events", F_OK) != 0) mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr);
  return "";
}

// Children parked on a pipe; they leave when the object goes, or with
// the benchmark (the pipe then closes).
class SleepingChildren {
 public:
  explicit SleepingChildren(int count) {
    android::base::unique_fd hold;
    if (!android::base::Pipe(&hold, &release_)) return;
    for (int i = 0; i < count; ++i) {
      const pid_t pid = fork();
      if (pid < 0) break;
      if (pid == 0) {
        release_.reset();
        char byte;
        while (read(hold.get(), &byte, 1) < 0 && errno == EINTR) {
        }
        _exit(0);
      }
      pids_.push_back(pid);
    }
  }
  ~SleepingChildren() {
    release_.reset();  // end of file wakes every child
    for (pid_t pid : pids_) waitpid(pid, nullptr, 0);
  }
  SleepingChildren(const SleepingChildren&) = delete;
  SleepingChildren& operator=(const SleepingChildren&) = delete;

  size_t size() const { return pids_.size(); }

 private:
  android::base::unique_fd release_;
  std::vector<pid_t> pids_;
};

inline size_t CountProcesses() {
  size_t count = 0;
  Tavo::Bpf::TavoProcReader().ForEachProcess([&count](int32_t, const char*) { ++count; });
  return count;
}

// Polls `done` every 200 us (fine enough for waits inside a measurement);
// false when the time ran out first.
inline bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

}  // namespace tavo_bench
