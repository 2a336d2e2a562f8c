// Dumps asked for by signals 50 to 54, written by one worker thread.
//
// Writing a file allocates and locks; doing that inside a signal handler can
// deadlock the process. The handlers only write the signal number, as one
// byte, to a non-blocking pipe (async-signal-safe); the worker
// "BpfServiceDump" reads it and runs the dump.
#pragma once

#include <android-base/unique_fd.h>

#include <functional>
#include <thread>

namespace Tavo::Bpf {

class TavoDumpWorker {
 public:
  using Dump = std::function<void(int signo)>;

  explicit TavoDumpWorker(Dump dump);
  // Ends the worker; signals that arrive afterwards are dropped.
  ~TavoDumpWorker();
  TavoDumpWorker(const TavoDumpWorker&) = delete;
  TavoDumpWorker& operator=(const TavoDumpWorker&) = delete;

  // Starts the thread once. From then on the handlers feed every started
  // worker of the process, so each service dumps into its own folder.
  void Start();
  // Installs the handlers of signals 50 to 54 with signal().
  static void InstallSignalHandlers();

 private:
  void Loop();

  Dump dump_;
  android::base::unique_fd readEnd_;
  android::base::unique_fd writeEnd_;
  std::thread thread_;
};

// The handlers: each asks the current worker for its dump.
void DumpState(int signo);                        // 50: event counters
void HandleDumpSignal(int signo);                 // 51: all tasks
void HandleNonKernelDumpSignal(int signo);        // 52: tasks with memory
void HandleDumpSignalNormal(int signo);           // 53: all tasks, short
void HandleNonKernelDumpSignalNormal(int signo);  // 54: tasks with memory, short

}  // namespace Tavo::Bpf
