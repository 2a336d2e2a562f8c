// Attaching the programs that the loader pinned, row by row, by kernel version.
#include "bpf/tavo_bpf_attach.h"

#include <bcc/libbpf.h>
#include <dirent.h>
#include <unistd.h>

#include <android-base/strings.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bpf/tavo_bpf_pins.h"
#include "bpf/tavo_bpf_syscall.h"
#include "util/tavo_log.h"
#include "util/tavo_properties.h"
#include "util/tavo_service_contract.h"
#include "util/tavo_strings.h"

namespace Tavo::Bpf {

namespace {

constexpr const char* kProgPrefix = "prog_";
constexpr const char* kEventSuffix = "_tavobpf";

// Logging may touch errno; callers report the errno of the failed call.
#define TAVO_LOG_KEEP_ERRNO(level, ...) \
  do {                                  \
    const int savedErrno = errno;       \
    level(kUtilsTag, __VA_ARGS__);      \
    errno = savedErrno;                 \
  } while (0)

// Leading number of a version piece as strtol reads it; false without digits.
bool ParseVersionPiece(const std::string& piece, long* out) {
  const char* begin = piece.c_str();
  char* end = nullptr;
  errno = 0;
  const long value = strtol(begin, &end, 10);
  if (end == begin || errno == ERANGE) return false;
  *out = value;
  return true;
}

// The program's own descriptor is only needed for the attach call; the
// attachment holds its own reference.
int AttachKProbe(android::base::unique_fd prog, bool isEntry, const std::string& progName,
                 const std::string& functionName) {
  const std::string eventName = progName + kEventSuffix;
  return bpf_attach_kprobe(prog.get(), isEntry ? BPF_PROBE_ENTRY : BPF_PROBE_RETURN, eventName.c_str(),
                           functionName.c_str(), 0, 0);
}

int AttachTracepoint(android::base::unique_fd prog, const std::string& subSystem, const std::string& eventName) {
  return bpf_attach_tracepoint(prog.get(), subSystem.c_str(), eventName.c_str());
}

int OpenProgram(const std::string& path) {
  auto fd = BpfObjGet(path, kBpfReadOnly);
  if (!fd.ok()) {
    errno = fd.error().code();
    return -1;
  }
  return fd->release();
}

// Keeps a successful attachment; passes the result through.
int Keep(int fd, BpfAttachments* attached) {
  if (fd >= 0 && attached != nullptr) attached->emplace_back(fd);
  return fd;
}

}  // namespace

int convertVersionToInt(const std::string& version) {
  const std::vector<std::string> pieces = Split(version, ".");
  long major = 0;
  long minor = 0;
  const int savedErrno = errno;
  // A version without a minor part or without digits matches no rule but
  // "N-" ones; 0 keeps such a kernel on the safe side of every "+" rule.
  const bool parsed = pieces.size() >= 2 && ParseVersionPiece(pieces[0], &major) &&
                      ParseVersionPiece(pieces[1], &minor);
  errno = savedErrno;
  if (!parsed) return 0;
  const long long number = static_cast<long long>(major) * 1000 + minor;
  if (number > INT_MAX || number < INT_MIN) return 0;
  return static_cast<int>(number);
}

int KernelVersionFromProperty() {
  return convertVersionToInt(GetServiceProperty(kKernelVersionProperty, "0.0"));
}

bool CheckBpfCompatibility(const std::string& kernelCompat) {
  return CheckBpfCompatibility(kernelCompat, KernelVersionFromProperty());
}

bool CheckBpfCompatibility(const std::string& kernelCompat, int kernel) {
  if (kernelCompat.empty()) return kernel == convertVersionToInt(kernelCompat);
  const char last = kernelCompat.back();
  const std::string head = kernelCompat.substr(0, kernelCompat.size() - 1);
  if (last == '-') return kernel <= convertVersionToInt(head);
  if (last == '+') return kernel >= convertVersionToInt(head);
  const size_t dash = kernelCompat.find('-');
  if (dash != std::string::npos) {
    if (kernel < convertVersionToInt(kernelCompat.substr(0, dash))) return false;
    return kernel <= convertVersionToInt(kernelCompat.substr(dash + 1));
  }
  return kernel == convertVersionToInt(kernelCompat);
}

bool IsBpfProg(std::string& name) { return android::base::StartsWith(name, kProgPrefix); }

int RetrieveProgramFd(const std::string& dir, const std::string& fileName) {
  return OpenProgram(dir + "/" + fileName);
}

int RetrieveProgramFd(const std::string& dir, const std::string& objName, const std::string& progType,
                      const std::string& progName) {
  // The directory keeps its trailing slash: "/sys/fs/bpf/tavo//prog_..." is
  // the name the loader's pins are reached by.
  return OpenProgram(PinnedProgramPath(dir, objName, progType, progName));
}

int AttachTracepointProgram(const std::string& dir, const std::string& objName, const std::string& progName,
                            const std::string& subSystem, const std::string& eventName) {
  const int fd = RetrieveProgramFd(dir, objName, kProgTypeTracepoint, progName);
  if (fd < 0) {
    TAVO_LOG_KEEP_ERRNO(TAVO_LOGE, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s",
                        progName.c_str());
    return -1;
  }
  return AttachTracepoint(android::base::unique_fd(fd), subSystem, eventName);
}

int AttachTracepointProgram(const std::string& dir, const std::string& fileName, const std::string& subSystem,
                            const std::string& eventName) {
  const int fd = RetrieveProgramFd(dir, fileName);
  if (fd < 0) {
    TAVO_LOG_KEEP_ERRNO(TAVO_LOGE,
                        "[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: %s, eventName: %s",
                        subSystem.c_str(), eventName.c_str());
    return -1;
  }
  return AttachTracepoint(android::base::unique_fd(fd), subSystem, eventName);
}

int AttachTracepointProgram(const std::string& dir, const std::string& objName, const std::string& progName) {
  int fd = RetrieveProgramFd(dir, objName, kProgTypeTracepoint, progName);
  if (fd < 0) fd = RetrieveProgramFd(dir, objName);
  if (fd < 0) {
    TAVO_LOG_KEEP_ERRNO(TAVO_LOGE, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s",
                        progName.c_str());
    return -1;
  }
  const size_t underscore = progName.find('_');
  const std::string subSystem = underscore == std::string::npos ? progName : progName.substr(0, underscore);
  const std::string eventName = underscore == std::string::npos ? progName : progName.substr(underscore + 1);
  return AttachTracepoint(android::base::unique_fd(fd), subSystem, eventName);
}

int AttachKProbeProgram(const std::string& dir, const std::string& objName, const std::string& progName,
                        const std::string& functionName, bool isEntry) {
  const int fd = RetrieveProgramFd(dir, objName, isEntry ? kProgTypeKprobe : kProgTypeKretprobe, progName);
  if (fd < 0) {
    if (isEntry) {
      TAVO_LOG_KEEP_ERRNO(TAVO_LOGE, "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, function: %s",
                          progName.c_str(), functionName.c_str());
    } else {
      TAVO_LOG_KEEP_ERRNO(TAVO_LOGE, "[AttachKProbeProgram] Retrieve kretprobe prog failed: %s, function: %s",
                          progName.c_str(), functionName.c_str());
    }
    return -1;
  }
  if (isEntry) {
    TAVO_LOGI(kUtilsTag, "[AttachKProbeProgram] Attach kprobe prog: enter: progName: %s, functionName: %s",
              progName.c_str(), functionName.c_str());
  } else {
    TAVO_LOGI(kUtilsTag, "[AttachKProbeProgram] Attach kretprobe prog: return: progName: %s, functionName: %s",
              progName.c_str(), functionName.c_str());
  }
  return AttachKProbe(android::base::unique_fd(fd), isEntry, progName, functionName);
}

int AttachKProbeProgram(const std::string& dir, const std::string& objName, const std::string& progName) {
  // Both kinds are pinned under the "kprobe" type word in this form.
  const int fd = RetrieveProgramFd(dir, objName, kProgTypeKprobe, progName);
  if (fd < 0) {
    TAVO_LOG_KEEP_ERRNO(TAVO_LOGE, "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, prog: %s",
                        progName.c_str(), objName.c_str());
    return -1;
  }
  const size_t underscore = progName.find('_');
  const std::string eventType = underscore == std::string::npos ? progName : progName.substr(0, underscore);
  const std::string eventName = underscore == std::string::npos ? std::string() : progName.substr(underscore + 1);
  if (eventType.find("enter") != std::string::npos) {
    TAVO_LOGI(kUtilsTag, "[AttachKProbeProgram] Attach kprobe prog: enter: eventType: %s, eventName: %s",
              eventType.c_str(), eventName.c_str());
    return AttachKProbe(android::base::unique_fd(fd), true, progName, eventName);
  }
  if (eventType.find("return") != std::string::npos) {
    TAVO_LOGI(kUtilsTag, "[AttachKProbeProgram] Attach kprobe prog: return: eventType: %s, eventName: %s",
              eventType.c_str(), eventName.c_str());
    return AttachKProbe(android::base::unique_fd(fd), false, progName, eventName);
  }
  TAVO_LOGE(kUtilsTag, "[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: %s, prog: %s", progName.c_str(),
            objName.c_str());
  close(fd);
  errno = EINVAL;
  return -1;
}

int AttachAllTavoBpfProgram(const std::string& dir, const BpfAttachTable& table, BpfAttachments* attached) {
  return AttachAllTavoBpfProgram(dir, table, KernelVersionFromProperty(), attached, nullptr);
}

int AttachAllTavoBpfProgram(const std::string& dir, const BpfAttachTable& table, int kernelVersion,
                            BpfAttachments* attached, BpfAttachReport* report) {
  if (table.empty()) return 0;
  int failures = 0;
  for (const auto& [object, byType] : table) {
    for (const auto& [type, rows] : byType) {
      for (const BpfAttachRow& row : rows) {
        BpfAttachResult result;
        result.object = object;
        result.type = type;
        if (row.size() != 4) {
          TAVO_LOGE(kUtilsTag, "Error format!: %s", object.c_str());
          if (report != nullptr) report->push_back(result);
          continue;
        }
        result.progName = row[0];
        result.hook = row[1];
        result.rule = row[3];
        auto note = [&](BpfAttachVerdict verdict) {
          result.verdict = verdict;
          result.error = verdict == BpfAttachVerdict::kFailed ? errno : 0;
          if (report != nullptr) report->push_back(result);
        };
        if (!CheckBpfCompatibility(row[3], kernelVersion)) {
          TAVO_LOGW(kUtilsTag, "Skip bpf prog: %s, progName: %s, kernelCompat: %s", object.c_str(),
                    row[0].c_str(), row[3].c_str());
          note(BpfAttachVerdict::kSkipped);
          continue;
        }
        TAVO_LOGI(kUtilsTag, "Attach bpf prog start: %s, progName: %s", object.c_str(), row[0].c_str());
        int fd;
        switch (type) {
          case kAttachTracepoint:
            fd = Keep(AttachTracepointProgram(dir, object, row[0], row[1], row[2]), attached);
            break;
          case kAttachKprobe:
          case kAttachKretprobe:
            fd = Keep(AttachKProbeProgram(dir, object, row[0], row[1], type == kAttachKprobe), attached);
            break;
          default:
            TAVO_LOGE(kUtilsTag, "(UNKNOW TYPE) attach prog failed: %s, type: %s", object.c_str(),
                      row[0].c_str());
            note(BpfAttachVerdict::kBad);
            continue;
        }
        if (fd != -1) {
          note(BpfAttachVerdict::kAttached);
          continue;
        }
        const int err = errno;
        note(BpfAttachVerdict::kFailed);
        ++failures;
        // "progname" in the probe failures, "type" for tracepoints: kept as they are.
        if (type == kAttachTracepoint) {
          TAVO_LOGE(kUtilsTag, "Attach tracepoint prog failed: %s, type: %s, msg: %s", object.c_str(),
                    row[0].c_str(), strerror(err));
        } else {
          TAVO_LOGE(kUtilsTag, "Attach %s prog failed: %s, progname: %s, msg: %s", AttachTypeWord(type),
                    object.c_str(), row[0].c_str(), strerror(err));
        }
      }
    }
  }
  return failures;
}

int AttachAllTavoBpfProgram(const std::string& dir, BpfAttachments* attached) {
  std::unique_ptr<DIR, int (*)(DIR*)> handle(opendir(dir.c_str()), closedir);
  if (!handle) return 0;
  int failures = 0;
  while (dirent* entry = readdir(handle.get())) {
    std::string name = entry->d_name;
    if (!IsBpfProg(name)) continue;
    const std::vector<std::string> pieces = android::base::Split(name, "_");
    if (pieces.size() < 4) continue;
    const std::string& object = pieces[1];
    const std::string& type = pieces[2];
    const std::string progName =
        android::base::Join(std::vector<std::string>(pieces.begin() + 3, pieces.end()), "_");
    TAVO_LOGI(kUtilsTag, "Attach bpf prog (%s, type: %s) to %s", name.c_str(), type.c_str(), progName.c_str());
    if (type == kProgTypeTracepoint) {
      if (Keep(AttachTracepointProgram(dir, object, progName), attached) == -1 && errno != EEXIST) {
        TAVO_LOGE(kUtilsTag, "Attach tracepoint prog failed: %s, type: %s, msg: %s", name.c_str(), type.c_str(),
                  strerror(errno));
        ++failures;
      }
    } else if (type == kProgTypeKprobe) {
      if (Keep(AttachKProbeProgram(dir, object, progName), attached) == -1 && errno != EEXIST) {
        TAVO_LOGE(kUtilsTag, "Attach kprobe prog failed: %s, type: %s, msg: %s", name.c_str(), type.c_str(),
                  strerror(errno));
        ++failures;
      }
    } else {
      TAVO_LOGE(kUtilsTag, "(UNKNOW TYPE) attach prog failed: %s, type: %s", name.c_str(), type.c_str());
    }
  }
  return failures;
}

}  // namespace Tavo::Bpf
