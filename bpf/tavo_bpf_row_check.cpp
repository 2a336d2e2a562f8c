#include "bpf/tavo_bpf_row_check.h"

#include <unistd.h>

#include <utility>

#include "bpf/tavo_bpf_attach_tables.h"

namespace Tavo::Bpf {

namespace {
constexpr const char* kVerdictWords[] = {"ok", "skipped", "missing"};
}  // namespace

TavoBpfRowCheck::TavoBpfRowCheck(std::string tracefsDir, bool kprobes, std::set<std::string> functions)
    : tracefsDir_(std::move(tracefsDir)), kprobes_(kprobes), functions_(std::move(functions)) {}

bool TavoBpfRowCheck::HookPresent(int type, const BpfAttachRow& row) const {
  if (type == kAttachTracepoint) {
    return !tracefsDir_.empty() && access((tracefsDir_ + "/events/" + row[1] + "/" + row[2]).c_str(), F_OK) == 0;
  }
  if (type == kAttachKprobe || type == kAttachKretprobe) return kprobes_ && functions_.count(row[1]) != 0;
  return false;
}

BpfRowDecision TavoBpfRowCheck::Decide(const std::string& object, int type, const BpfAttachRow& row,
                                       int rowsVersion) const {
  BpfRowDecision d;
  d.object = object;
  d.type = type;
  if (row.size() != 4) return d;  // the service refuses such a row
  d.progName = row[0];
  d.hook = type == kAttachTracepoint ? row[1] + "/" + row[2] : row[1];
  d.rule = row[3];
  if (!CheckBpfCompatibility(row[3], rowsVersion)) {
    d.verdict = BpfRowVerdict::kSkipped;
  } else if (HookPresent(type, row)) {
    d.verdict = BpfRowVerdict::kReady;
  }
  return d;
}

std::vector<BpfRowDecision> TavoBpfRowCheck::DecideAll(int rowsVersion) const {
  std::vector<BpfRowDecision> all;
  for (const BpfAttachTable* table : {&PROG_EVENT_MAP, &PROG_GPL_EVENT_MAP}) {
    for (const auto& [object, byType] : *table) {
      for (const auto& [type, rows] : byType) {
        for (const BpfAttachRow& row : rows) all.push_back(Decide(object, type, row, rowsVersion));
      }
    }
  }
  return all;
}

const char* TavoBpfRowCheck::VerdictWord(BpfRowVerdict verdict) { return kVerdictWords[static_cast<int>(verdict)]; }

bool TavoBpfRowCheck::ParseVerdictWord(const std::string& word, BpfRowVerdict* verdict) {
  for (int v = 0; v < 3; ++v) {
    if (word == kVerdictWords[v]) {
      *verdict = static_cast<BpfRowVerdict>(v);
      return true;
    }
  }
  return false;
}

bool TavoBpfRowCheck::Agrees(BpfRowVerdict predicted, BpfAttachVerdict actual) {
  switch (predicted) {
    case BpfRowVerdict::kReady:
      return actual == BpfAttachVerdict::kAttached;
    case BpfRowVerdict::kSkipped:
      return actual == BpfAttachVerdict::kSkipped;
    case BpfRowVerdict::kMissing:
      return actual == BpfAttachVerdict::kFailed || actual == BpfAttachVerdict::kBad;
  }
  return false;
}

}  // namespace Tavo::Bpf
