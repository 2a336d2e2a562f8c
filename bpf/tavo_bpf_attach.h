// Turning the rows of an attach table into live kernel attachments.
//
// Attach calls return the perf-event descriptor that holds the attachment
// (the caller owns it: closing it detaches the program) or -1 with errno.
// Pins are opened read-only through the raw bpf() layer; the attachments
// themselves go through bcc.
#pragma once

#include <android-base/unique_fd.h>

#include <map>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_attach_report.h"

namespace Tavo::Bpf {

// Program type codes of an attach table.
inline constexpr int kAttachTracepoint = 0;
inline constexpr int kAttachKprobe = 1;
inline constexpr int kAttachKretprobe = 2;

// {progName, subSystem or functionName, eventName or "", kernelCompat}
using BpfAttachRow = std::vector<std::string>;
// object name -> program type code -> rows, attached in that order.
using BpfAttachTable = std::map<std::string, std::map<int, std::vector<BpfAttachRow>>>;
// Descriptors that keep programs attached; closing them detaches.
using BpfAttachments = std::vector<android::base::unique_fd>;

int convertVersionToInt(const std::string& version);
// convertVersionToInt of "ro.kernel.version" ("0.0" when unset): what the
// entry points read; everything below takes the version as a value.
int KernelVersionFromProperty();
// Whether a kernel of that version satisfies a rule: "5.0+", "6.6-",
// "6.1-6.6" or a bare "6.1".
bool CheckBpfCompatibility(const std::string& kernelCompat, int kernelVersion);
// The same for the kernel in "ro.kernel.version".
bool CheckBpfCompatibility(const std::string& kernelCompat);
bool IsBpfProg(std::string& name);
// A read-only descriptor of a pinned program (the caller owns it), or -1.
int RetrieveProgramFd(const std::string& dir, const std::string& fileName);
int RetrieveProgramFd(const std::string& dir, const std::string& objName, const std::string& progType,
                      const std::string& progName);
int AttachTracepointProgram(const std::string& dir, const std::string& objName, const std::string& progName,
                            const std::string& subSystem, const std::string& eventName);
int AttachTracepointProgram(const std::string& dir, const std::string& fileName, const std::string& subSystem,
                            const std::string& eventName);
int AttachTracepointProgram(const std::string& dir, const std::string& objName, const std::string& progName);
int AttachKProbeProgram(const std::string& dir, const std::string& objName, const std::string& progName,
                        const std::string& functionName, bool isEntry);
int AttachKProbeProgram(const std::string& dir, const std::string& objName, const std::string& progName);
// Attaches every row a kernel of kernelVersion allows; returns how many
// failed. The attachments go into `attached`, which keeps them alive; what
// became of each row is appended to `report` (may be null).
int AttachAllTavoBpfProgram(const std::string& dir, const BpfAttachTable& table, int kernelVersion,
                            BpfAttachments* attached, BpfAttachReport* report);
// The same for the kernel in "ro.kernel.version", without a report.
int AttachAllTavoBpfProgram(const std::string& dir, const BpfAttachTable& table, BpfAttachments* attached);
// Every "prog_<object>_<type>_<name>" pin of dir (tracepoints and kprobes).
int AttachAllTavoBpfProgram(const std::string& dir, BpfAttachments* attached);

}  // namespace Tavo::Bpf
