// What the service and everything that talks to it agree on, said once: the
// socket name, the subscription request and its reply, the dump folder, its
// files and the signals that ask for them, and the properties.
#pragma once

#include <cstddef>

namespace Tavo::Bpf {

// The abstract local stream socket clients connect to ("@" + this name in
// /proc/net/unix).
inline constexpr const char* kServiceSocketName = "/mnt/bpfframework/tavobpfdispatcher";

// A subscription request is the data of a command-0 package: the request id,
// the command text with its NUL, two header words, then the event code.
inline constexpr char kRegisterEventMonitor[] = "register-event-monitor";      // 23 bytes with NUL
inline constexpr char kUnregisterEventMonitor[] = "unregister-event-monitor";  // 25 bytes with NUL
inline constexpr size_t kRequestIdOffset = 0;
inline constexpr size_t kRequestCommandOffset = 4;
inline constexpr size_t kRequestCommandWidth = 28;
inline constexpr size_t kRequestEventTypeOffset = 40;
inline constexpr size_t kRequestLength = kRequestEventTypeOffset + 4;
// The reply's record after its command header: request id, result (0 or
// -1) and a data length of 0.
inline constexpr size_t kReplyRecordLength = 12;

// Where the dumps go, and the signals that ask for them.
inline constexpr const char* kDumpDir = "/data/tavolog/stability/tavobpfframework";
inline constexpr const char* kTaskDumpFile = "DUMPTASK_INFO";
inline constexpr const char* kStateDumpFile = "bpfservice_state.csv";
enum TavoDumpSignal : int {
  kDumpSignalState = 50,                // the event counters
  kDumpSignalTasks = 51,                // every task
  kDumpSignalTasksNonKernel = 52,       // tasks with memory
  kDumpSignalTasksShort = 53,           // every task, without the last-reported columns
  kDumpSignalTasksShortNonKernel = 54,  // tasks with memory, short
};
inline constexpr int kFirstDumpSignal = kDumpSignalState;
inline constexpr int kLastDumpSignal = kDumpSignalTasksShortNonKernel;

// Properties the service reads (it never writes them).
inline constexpr const char* kDisableProperty = "persist.sys.stability.bpfframework.disable";
inline constexpr const char* kReadyProperty = "sys.tavo_bpf_ready";
inline constexpr const char* kKernelVersionProperty = "ro.kernel.version";
inline constexpr const char* kAllowedIdsProperty = "persist.sys.tavo_bpf.allowed_ids";
// Who may connect while that property is unset or empty, besides root and
// the service's own uid (admitted always). On a device: system (1000) and
// shell (2000), since SELinux already decides which domains reach the
// socket. On a Linux host: nobody else. A set property replaces this list.
#ifdef __ANDROID__
inline constexpr const char* kDefaultAllowedIds = "1000,2000";
#else
inline constexpr const char* kDefaultAllowedIds = "";
#endif
inline constexpr const char* kMaxConnectionsProperty = "persist.sys.tavo_bpf.max_connections";
// Opt-in: a kernel newer than the newest line of the attach tables takes
// the dma-buf rows of the line named here ("6.6").
inline constexpr const char* kDmabufRowsProperty = "persist.sys.tavo_bpf.dmabuf_rows";

}  // namespace Tavo::Bpf
