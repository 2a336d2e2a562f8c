// What several benchmarks set up, on the shared harness: a private bpffs
// (and tracefs) that goes away with the process, sleeping children that
// fill /proc, and a wait.
#pragma once

#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "task/tavo_proc_reader.h"
#include "tests/support/tavo_harness.h"

namespace tavo_bench {

// A private bpffs (and tracefs), so pins never meet another process's;
// empty on success, else why not. Call before any thread starts.
inline std::string PrivateBpfFs() {
  const tavo_test::Isolation isolation = tavo_test::EnterPrivateNamespaces(false);
  return isolation.bpffs ? "" : isolation.whyNot;
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

// Fine enough for waits inside a measurement.
inline bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
  return tavo_test::WaitFor(done, timeoutMs, std::chrono::microseconds(200));
}

}  // namespace tavo_bench
