#include "util/tavo_event_names.h"

#include <android-base/parseint.h>

#include <utility>

#include "util/tavo_strings.h"

namespace Tavo::Bpf {

namespace {

// Index = raw type.
constexpr const char* kRawNames[kRawEventCount] = {
    "tavo_task_init",   "kmem_rss_info",  "sched_task_create", "sched_task_exit",
    "dmabuf_size_info", "cgroup_attach_cpuset_info", "fd_update_info", "dmabuf_setup",
    "dmabuf_release",   "dambuf_attach",  "dmabuf_detach",     "dmabuf_vmap",
    "dmabuf_vunmap",    "dmabuf_mmap",    "dmabuf_munmap",
};

constexpr uint32_t kFirstNotice = 50001;
constexpr const char* kNoticeNames[] = {"start", "end", "threads", "memory", "dmabuf"};
constexpr uint32_t kNoticeCount = sizeof(kNoticeNames) / sizeof(kNoticeNames[0]);

constexpr std::pair<const char*, uint32_t> kRawAliases[] = {
    {"fork", 2},
    {"exit", 3},
    {"rss", 1},
    // The counter name keeps its historical misspelling; accept both.
    {"dmabuf_attach", 9},
};

}  // namespace

const char* RawEventName(int type) {
  return type >= 0 && type < kRawEventCount ? kRawNames[type] : "UNKNOW";
}

bool IsSubscribableCode(uint32_t code) {
  return code < kRawEventCount || (code >= kFirstNotice && code < kFirstNotice + kNoticeCount);
}

std::string EventName(uint32_t code) {
  if (code < kRawEventCount) return kRawNames[code];
  if (code >= kFirstNotice && code < kFirstNotice + kNoticeCount) return kNoticeNames[code - kFirstNotice];
  return std::to_string(code);
}

std::vector<uint32_t> AllEventCodes() {
  std::vector<uint32_t> codes;
  for (uint32_t code = 0; code < kRawEventCount; ++code) codes.push_back(code);
  for (uint32_t i = 0; i < kNoticeCount; ++i) codes.push_back(kFirstNotice + i);
  return codes;
}

bool ResolveEventArgument(const std::string& word, std::vector<uint32_t>* codes) {
  std::vector<uint32_t> all = AllEventCodes();
  if (word == "all") {
    codes->insert(codes->end(), all.begin(), all.end());
    return true;
  }
  if (word == "notices" || word == "raw") {
    for (uint32_t code : all) {
      if ((code < kRawEventCount) == (word == "raw")) codes->push_back(code);
    }
    return true;
  }
  for (uint32_t code : all) {
    if (word == EventName(code)) {
      codes->push_back(code);
      return true;
    }
  }
  for (const auto& [name, code] : kRawAliases) {
    if (word == name) {
      codes->push_back(code);
      return true;
    }
  }
  uint32_t code = 0;
  // Decimal digits only: ParseUint would also take "0x..." as hexadecimal.
  if (!IsDigits(word) || !android::base::ParseUint(word, &code) || !IsSubscribableCode(code)) {
    return false;
  }
  codes->push_back(code);
  return true;
}

}  // namespace Tavo::Bpf
