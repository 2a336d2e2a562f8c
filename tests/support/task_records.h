// Builders for task records and a fake subscriber that collects notices.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "event/tavo_bpf_event_manager.h"
#include "ipc/ipc_package_manager.h"
#include "service/tavo_bpf_service.h"
#include "tests/support/service_peer.h"

namespace tavo_test {

inline void SetComm(char* dst, const std::string& name) {
  memset(dst, 0, TAVO_COMM_LEN);
  memcpy(dst, name.data(), name.size() < TAVO_COMM_LEN ? name.size() : TAVO_COMM_LEN);
}

inline tavo_task_init_event InitRecord(int pid, int ppid, const std::string& comm, uint64_t ts,
                                       uint32_t threads = 1) {
  tavo_task_init_event r;
  memset(&r, 0, sizeof(r));
  r.hdr.type = TAVO_EVENT_TASK_INIT;
  r.hdr.ts = ts;
  r.pid = pid;
  r.ppid = ppid;
  r.uid = 1000;
  r.thread_num = threads;
  SetComm(r.comm, comm);
  return r;
}

inline tavo_task_create_event CreateRecord(int pid, int ppid, const std::string& comm, uint64_t ts,
                                           uint32_t kind) {
  tavo_task_create_event r;
  memset(&r, 0, sizeof(r));
  r.hdr.type = TAVO_EVENT_SCHED_TASK_CREATE;
  r.hdr.ts = ts;
  r.ppid = ppid;
  r.pid = pid;
  r.uid = 10001;
  SetComm(r.comm, comm);
  r.kind = kind;
  return r;
}

inline tavo_task_exit_event ExitRecord(int pid, const std::string& comm, uint64_t ts, uint32_t kind) {
  tavo_task_exit_event r;
  memset(&r, 0, sizeof(r));
  r.hdr.type = TAVO_EVENT_SCHED_TASK_EXIT;
  r.hdr.ts = ts;
  r.pid = pid;
  SetComm(r.comm, comm);
  r.kind = kind;
  return r;
}

inline tavo_rss_stat_event RssRecord(int pid, int member, int64_t size, uint64_t ts) {
  tavo_rss_stat_event r;
  memset(&r, 0, sizeof(r));
  r.hdr.type = TAVO_EVENT_KMEM_RSS_INFO;
  r.hdr.ts = ts;
  r.pid = pid;
  r.member = member;
  r.size = size;
  return r;
}

template <typename Record>
char* Bytes(Record& r) {
  return reinterpret_cast<char*>(&r);
}

// A client queue on a fake descriptor, subscribed to the notice codes.
class NoticeSink {
 public:
  explicit NoticeSink(std::initializer_list<int> codes, int fd = 90) {
    auto* service = Tavo::Bpf::TavoBpfService::GetInstance();
    queue = &Tavo::Bpf::TavoBpfServiceTestPeer::AddClient(service, fd);
    for (int code : codes) Tavo::Bpf::EventManager::GetInstance()->AddObserverEvent(fd, code);
  }

  // Payloads of the command-3 frames queued since the last call.
  std::vector<std::string> Take() {
    std::vector<std::string> out;
    std::vector<char> block(1 << 16);
    BufferState buffer{0, 0, static_cast<int64_t>(block.size()), block.data()};
    queue->fillIpcPackageToBuffer(&buffer);
    size_t pos = 0;
    while (pos + 16 <= static_cast<size_t>(buffer.length)) {
      int64_t frame;
      uint32_t command, length;
      memcpy(&frame, block.data() + pos, 8);
      memcpy(&command, block.data() + pos + 8, 4);
      memcpy(&length, block.data() + pos + 12, 4);
      if (command == 3) out.emplace_back(block.data() + pos + 16, length);
      pos += 8 + static_cast<size_t>(frame);
    }
    return out;
  }

 private:
  IpcPackageManager* queue;
};

template <typename Notice>
Notice As(const std::string& payload) {
  Notice n;
  memset(&n, 0, sizeof(n));
  memcpy(&n, payload.data(), payload.size() < sizeof(n) ? payload.size() : sizeof(n));
  return n;
}

}  // namespace tavo_test
