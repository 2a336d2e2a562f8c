// Whether each attach-table row can attach on a kernel, decided before the
// service tries: first by the same version rule the service applies, then by
// what the kernel offers (the tracepoint under tracefs; for a probe, kprobes
// at all and the function among the kernel's text symbols). The rows carry
// the names of the daemon's attach report (object and progName), so a
// prediction and what the daemon did compare row by row.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_attach.h"
#include "bpf/tavo_bpf_attach_report.h"

namespace Tavo::Bpf {

// kReady: the row applies and its hook exists; kSkipped: the version rule
// leaves it out; kMissing: it applies but its hook is not there.
enum class BpfRowVerdict { kReady, kSkipped, kMissing };

struct BpfRowDecision {
  std::string object;
  int type = 0;
  std::string progName;
  std::string hook;  // "sched/sched_switch" for a tracepoint, the function for a probe
  std::string rule;  // kernelCompat
  BpfRowVerdict verdict = BpfRowVerdict::kMissing;
};

class TavoBpfRowCheck {
 public:
  // tracefsDir: where tracefs is mounted, "" when nowhere. kprobes: whether
  // the kernel can make kprobes (kprobe_events or the kprobe PMU).
  // functions: the kernel's text symbols.
  TavoBpfRowCheck(std::string tracefsDir, bool kprobes, std::set<std::string> functions);

  BpfRowDecision Decide(const std::string& object, int type, const BpfAttachRow& row, int rowsVersion) const;
  // Every row of both attach tables, in the order the service attaches them.
  std::vector<BpfRowDecision> DecideAll(int rowsVersion) const;

  // "ok", "skipped", "missing", and back.
  static const char* VerdictWord(BpfRowVerdict verdict);
  static bool ParseVerdictWord(const std::string& word, BpfRowVerdict* verdict);
  // Whether what the daemon did with a row is what was predicted: ready and
  // attached, skipped and skipped, missing and failed (or a bad row).
  static bool Agrees(BpfRowVerdict predicted, BpfAttachVerdict actual);

 private:
  bool HookPresent(int type, const BpfAttachRow& row) const;

  std::string tracefsDir_;
  bool kprobes_;
  std::set<std::string> functions_;
};

}  // namespace Tavo::Bpf
