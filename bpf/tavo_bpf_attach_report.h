// What attaching an attach table came to, row by row, as data: the service
// keeps it beside its log lines (whose texts stay as they are), tavo_bpfd
// prints it, and the kernel matrix and the tests read it instead of logs.
//
// One line per row, fields separated by blanks:
//   attach <object> <type> <progName> <verdict> <errno>
// where <type> is tracepoint, kprobe, kretprobe or unknown, <verdict> is
// attached, skipped (by kernel version), failed or bad (not a row of four
// strings), and <errno> is the failed attach's error number, 0 otherwise.
#pragma once

#include <string>
#include <vector>

namespace Tavo::Bpf {

enum class BpfAttachVerdict { kAttached, kSkipped, kFailed, kBad };

struct BpfAttachResult {
  std::string object;
  int type = 0;          // the table's program type code
  std::string progName;  // "" for a bad row
  std::string hook;      // the tracepoint category or the probed function
  std::string rule;      // kernelCompat
  BpfAttachVerdict verdict = BpfAttachVerdict::kBad;
  int error = 0;  // errno of a failed attach
};

using BpfAttachReport = std::vector<BpfAttachResult>;

// The word of a program type code: tracepoint, kprobe, kretprobe, unknown.
const char* AttachTypeWord(int type);
const char* AttachVerdictWord(BpfAttachVerdict verdict);
std::string FormatAttachResult(const BpfAttachResult& result);
// False for a line that is not an attach line.
bool ParseAttachResult(const std::string& line, BpfAttachResult* result);
// Every attach line of a text; other lines are ignored.
BpfAttachReport ParseAttachReport(const std::string& text);
std::string FormatAttachReport(const BpfAttachReport& report);

}  // namespace Tavo::Bpf
