// Record builders, and a notice sink that keeps what it is given.
#pragma once

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "task/tavo_notice_sink.h"

namespace tavo_test {

inline void SetComm(char* dst, const std::string& name) {
  memset(dst, 0, TAVO_COMM_LEN);
  memcpy(dst, name.data(), std::min<size_t>(name.size(), TAVO_COMM_LEN));
}

inline tavo_task_init_event InitRecord(int pid, int ppid, const std::string& comm, uint64_t ts, uint32_t threads = 1) {
  tavo_task_init_event r{{TAVO_EVENT_TASK_INIT, 0, ts}, pid, ppid, 1000, threads, {}, 0, 0, 0, 0, 0};
  SetComm(r.comm, comm);
  return r;
}

inline tavo_task_create_event CreateRecord(int pid, int ppid, const std::string& comm, uint64_t ts, uint32_t kind) {
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

inline tavo_dmabuf_event DmabufRecord(uint32_t type, int pid, uint64_t size, uint64_t mapKey, uint64_t bufId,
                                      uint64_t ts = 0) {
  return tavo_dmabuf_event{{type, 0, ts}, pid, 0, size, mapKey, bufId};
}

template <typename Record>
char* Bytes(Record& r) {
  return reinterpret_cast<char*>(&r);
}

// Keeps every notice handed to Sink(), any thread.
class NoticeLog {
 public:
  Tavo::Bpf::TavoNoticeSink Sink() {
    return [this](const void* notice, size_t size) {
      std::lock_guard<std::mutex> guard(lock_);
      const char* bytes = static_cast<const char*>(notice);
      notices_.emplace_back(bytes, bytes + size);
    };
  }

  // The notices of one code, as their record type.
  template <typename Notice>
  std::vector<Notice> Of(uint32_t code) {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<Notice> out;
    for (const auto& bytes : notices_) {
      uint32_t c;
      memcpy(&c, bytes.data(), sizeof(c));
      if (c != code) continue;
      Notice n{};
      memcpy(&n, bytes.data(), std::min(bytes.size(), sizeof(n)));
      out.push_back(n);
    }
    return out;
  }

  size_t Count() {
    std::lock_guard<std::mutex> guard(lock_);
    return notices_.size();
  }

  void Clear() {
    std::lock_guard<std::mutex> guard(lock_);
    notices_.clear();
  }

 private:
  std::mutex lock_;
  std::vector<std::vector<char>> notices_;
};

}  // namespace tavo_test
