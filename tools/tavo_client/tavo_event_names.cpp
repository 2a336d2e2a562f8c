#include "tools/tavo_client/tavo_event_names.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "bpf/tavo_bpf_records.h"

namespace Tavo::Client {

namespace {

// Index = raw type; the names under which the service counts them.
const char* const kRawNames[] = {
    "tavo_task_init", "kmem_rss_info",  "sched_task_create", "sched_task_exit",
    "dmabuf_size_info", "cgroup_attach_cpuset_info", "fd_update_info", "dmabuf_setup",
    "dmabuf_release", "dambuf_attach", "dmabuf_detach", "dmabuf_vmap",
    "dmabuf_vunmap", "dmabuf_mmap", "dmabuf_munmap",
};

const std::pair<const char*, uint32_t> kNoticeNames[] = {
    {"start", TAVO_NOTICE_PROCESS_START},   {"end", TAVO_NOTICE_PROCESS_EXIT},
    {"threads", TAVO_NOTICE_THREAD_COUNT},  {"memory", TAVO_NOTICE_MEMORY},
    {"dmabuf", TAVO_NOTICE_DMABUF_TOTAL},
};

const std::pair<const char*, uint32_t> kRawAliases[] = {
    {"fork", TAVO_EVENT_SCHED_TASK_CREATE},
    {"exit", TAVO_EVENT_SCHED_TASK_EXIT},
    {"rss", TAVO_EVENT_KMEM_RSS_INFO},
    // The counter name keeps its historical misspelling; accept both.
    {"dmabuf_attach", TAVO_EVENT_DMABUF_ATTACH},
};

bool IsKnownCode(uint32_t code) {
  return code <= TAVO_EVENT_MAX_RAW ||
         (code >= TAVO_NOTICE_PROCESS_START && code <= TAVO_NOTICE_DMABUF_TOTAL);
}

}  // namespace

std::string EventName(uint32_t code) {
  if (code <= TAVO_EVENT_MAX_RAW) return kRawNames[code];
  for (const auto& [name, value] : kNoticeNames) {
    if (value == code) return name;
  }
  return std::to_string(code);
}

std::vector<uint32_t> AllEventCodes() {
  std::vector<uint32_t> codes;
  for (uint32_t code = 0; code <= TAVO_EVENT_MAX_RAW; ++code) codes.push_back(code);
  for (const auto& notice : kNoticeNames) codes.push_back(notice.second);
  return codes;
}

bool ResolveEventArgument(const std::string& word, std::vector<uint32_t>* codes) {
  if (word == "all") {
    for (uint32_t code : AllEventCodes()) codes->push_back(code);
    return true;
  }
  if (word == "notices") {
    for (const auto& notice : kNoticeNames) codes->push_back(notice.second);
    return true;
  }
  if (word == "raw") {
    for (uint32_t code = 0; code <= TAVO_EVENT_MAX_RAW; ++code) codes->push_back(code);
    return true;
  }
  for (uint32_t code = 0; code <= TAVO_EVENT_MAX_RAW; ++code) {
    if (word == kRawNames[code]) {
      codes->push_back(code);
      return true;
    }
  }
  for (const auto& [name, value] : kNoticeNames) {
    if (word == name) {
      codes->push_back(value);
      return true;
    }
  }
  for (const auto& [name, value] : kRawAliases) {
    if (word == name) {
      codes->push_back(value);
      return true;
    }
  }
  if (word.empty() || word.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long value = strtoul(word.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value > UINT32_MAX || !IsKnownCode(value)) return false;
  codes->push_back(static_cast<uint32_t>(value));
  return true;
}

}  // namespace Tavo::Client
