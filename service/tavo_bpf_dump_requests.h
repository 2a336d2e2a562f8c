// Dumps asked for by signal, written later by one worker thread.
//
// Writing a file allocates and locks; doing that inside a signal handler can
// deadlock the process. The handlers only write one byte to a pipe
// (async-signal-safe); the worker "BpfServiceDump" does the dump.
#pragma once

namespace Tavo::Bpf {

enum class DumpRequest : unsigned char {
  kCounters = 50,
  kAllTasks = 51,
  kNonKernelTasks = 52,
  kAllTasksNormal = 53,
  kNonKernelTasksNormal = 54,
};

// Starts the worker once; later calls do nothing.
void StartDumpWorker();
// Async-signal-safe. Dropped when the worker is not running or the pipe is full.
void RequestDump(DumpRequest request);
// Runs one dump on the calling thread.
void PerformDump(DumpRequest request);
// Installs the handlers of signals 50 to 54 with signal().
void InstallDumpSignalHandlers();

}  // namespace Tavo::Bpf
