#include "bpf/tavo_bpf_attach_report.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>

namespace Tavo::Bpf {

namespace {
constexpr const char* kTypeWords[] = {"tracepoint", "kprobe", "kretprobe"};
constexpr const char* kVerdictWords[] = {"attached", "skipped", "failed", "bad"};
}  // namespace

const char* AttachTypeWord(int type) { return type >= 0 && type < 3 ? kTypeWords[type] : "unknown"; }

const char* AttachVerdictWord(BpfAttachVerdict verdict) { return kVerdictWords[static_cast<int>(verdict)]; }

std::string FormatAttachResult(const BpfAttachResult& r) {
  return "attach " + r.object + " " + AttachTypeWord(r.type) + " " + (r.progName.empty() ? "-" : r.progName) + " " +
         AttachVerdictWord(r.verdict) + " " + std::to_string(r.error);
}

bool ParseAttachResult(const std::string& line, BpfAttachResult* r) {
  const std::vector<std::string> f = android::base::Split(android::base::Trim(line), " ");
  if (f.size() != 6 || f[0] != "attach") return false;
  r->object = f[1];
  r->type = -1;
  for (int type = 0; type < 3; ++type) {
    if (f[2] == kTypeWords[type]) r->type = type;
  }
  r->progName = f[3] == "-" ? "" : f[3];
  for (int v = 0; v < 4; ++v) {
    if (f[4] == kVerdictWords[v]) {
      r->verdict = static_cast<BpfAttachVerdict>(v);
      return android::base::ParseInt(f[5], &r->error);
    }
  }
  return false;
}

BpfAttachReport ParseAttachReport(const std::string& text) {
  BpfAttachReport report;
  BpfAttachResult result;
  for (const std::string& line : android::base::Split(text, "\n")) {
    if (ParseAttachResult(line, &result)) report.push_back(result);
  }
  return report;
}

std::string FormatAttachReport(const BpfAttachReport& report) {
  std::string text;
  for (const BpfAttachResult& r : report) text += FormatAttachResult(r) + "\n";
  return text;
}

}  // namespace Tavo::Bpf
