// Builders for task records; frames.h brings the fake subscriber.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "tests/support/frames.h"

namespace tavo_test {

inline void SetComm(char* dst, const std::string& name) {
  memset(dst, 0, TAVO_COMM_LEN);
  memcpy(dst, name.data(), std::min<size_t>(name.size(), TAVO_COMM_LEN));
}

// uid 1000 for registered tasks, 10001 in creation records.
inline tavo_task_init_event InitRecord(int pid, int ppid, const std::string& comm, uint64_t ts,
                                       uint32_t threads = 1) {
  tavo_task_init_event r{{TAVO_EVENT_TASK_INIT, 0, ts}, pid, ppid, 1000, threads, {}, 0, 0, 0, 0, 0};
  SetComm(r.comm, comm);
  return r;
}

inline tavo_task_create_event CreateRecord(int pid, int ppid, const std::string& comm, uint64_t ts,
                                           uint32_t kind) {
  tavo_task_create_event r{{TAVO_EVENT_SCHED_TASK_CREATE, 0, ts}, ppid, pid, 10001, {}, kind};
  SetComm(r.comm, comm);
  return r;
}

inline tavo_task_exit_event ExitRecord(int pid, const std::string& comm, uint64_t ts, uint32_t kind) {
  tavo_task_exit_event r{{TAVO_EVENT_SCHED_TASK_EXIT, 0, ts}, pid, {}, kind};
  SetComm(r.comm, comm);
  return r;
}

inline tavo_rss_stat_event RssRecord(int pid, int member, int64_t size, uint64_t ts) {
  return tavo_rss_stat_event{{TAVO_EVENT_KMEM_RSS_INFO, 0, ts}, pid, member, size};
}

template <typename Record>
char* Bytes(Record& r) {
  return reinterpret_cast<char*>(&r);
}

}  // namespace tavo_test
