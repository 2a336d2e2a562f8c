#include "client/tavo_event_decoder.h"

#include <cstring>

#include "bpf/tavo_bpf_records.h"

namespace Tavo::Client {

namespace {

// Reads fields at fixed offsets; the caller has checked the length.
class Reader {
 public:
  explicit Reader(const char* data) : data(data) {}
  template <typename T>
  T at(size_t offset) const {
    T value;
    memcpy(&value, data + offset, sizeof(value));
    return value;
  }
  // A NUL-padded text field; stops at the first NUL or the field's end.
  std::string text(size_t offset, size_t width) const {
    const char* start = data + offset;
    return std::string(start, strnlen(start, width));
  }

 private:
  const char* data;
};

RecordHeader Header(const Reader& r) {
  RecordHeader h;
  h.type = r.at<uint32_t>(offsetof(tavo_event_header, type));
  h.ts = r.at<uint64_t>(offsetof(tavo_event_header, ts));
  return h;
}

Event DecodeKnown(uint32_t code, const Reader& r) {
  switch (code) {
    case TAVO_EVENT_TASK_INIT: {
      TaskInitRecord e;
      e.header = Header(r);
      e.pid = r.at<int32_t>(offsetof(tavo_task_init_event, pid));
      e.ppid = r.at<int32_t>(offsetof(tavo_task_init_event, ppid));
      e.uid = r.at<uint32_t>(offsetof(tavo_task_init_event, uid));
      e.threadNum = r.at<uint32_t>(offsetof(tavo_task_init_event, thread_num));
      e.comm = r.text(offsetof(tavo_task_init_event, comm), TAVO_COMM_LEN);
      e.rssFile = r.at<int64_t>(offsetof(tavo_task_init_event, rss_file));
      e.rssAnon = r.at<int64_t>(offsetof(tavo_task_init_event, rss_anon));
      e.rssShmem = r.at<int64_t>(offsetof(tavo_task_init_event, rss_shmem));
      e.rssSwap = r.at<int64_t>(offsetof(tavo_task_init_event, rss_swap));
      e.startTime = r.at<int64_t>(offsetof(tavo_task_init_event, start_time));
      return e;
    }
    case TAVO_EVENT_KMEM_RSS_INFO: {
      RssStatRecord e;
      e.header = Header(r);
      e.pid = r.at<int32_t>(offsetof(tavo_rss_stat_event, pid));
      e.member = r.at<int32_t>(offsetof(tavo_rss_stat_event, member));
      e.size = r.at<int64_t>(offsetof(tavo_rss_stat_event, size));
      return e;
    }
    case TAVO_EVENT_SCHED_TASK_CREATE: {
      TaskCreateRecord e;
      e.header = Header(r);
      e.ppid = r.at<int32_t>(offsetof(tavo_task_create_event, ppid));
      e.pid = r.at<int32_t>(offsetof(tavo_task_create_event, pid));
      e.uid = r.at<uint32_t>(offsetof(tavo_task_create_event, uid));
      e.comm = r.text(offsetof(tavo_task_create_event, comm), TAVO_COMM_LEN);
      e.kind = r.at<uint32_t>(offsetof(tavo_task_create_event, kind));
      return e;
    }
    case TAVO_EVENT_SCHED_TASK_EXIT: {
      TaskExitRecord e;
      e.header = Header(r);
      e.pid = r.at<int32_t>(offsetof(tavo_task_exit_event, pid));
      e.comm = r.text(offsetof(tavo_task_exit_event, comm), TAVO_COMM_LEN);
      e.kind = r.at<uint32_t>(offsetof(tavo_task_exit_event, kind));
      return e;
    }
    case TAVO_EVENT_DMABUF_SIZE_INFO: {
      DmabufSizeRecord e;
      e.header = Header(r);
      e.pid = r.at<int32_t>(offsetof(tavo_dmabuf_size_event, pid));
      e.total = r.at<uint64_t>(offsetof(tavo_dmabuf_size_event, total));
      return e;
    }
    case TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO: {
      CgroupAttachRecord e;
      e.header = Header(r);
      e.pid = r.at<int32_t>(offsetof(tavo_cgroup_attach_event, pid));
      e.tid = r.at<int32_t>(offsetof(tavo_cgroup_attach_event, tid));
      e.dstRoot = r.at<int32_t>(offsetof(tavo_cgroup_attach_event, dst_root));
      e.dstLevel = r.at<int32_t>(offsetof(tavo_cgroup_attach_event, dst_level));
      e.dstId = r.at<uint64_t>(offsetof(tavo_cgroup_attach_event, dst_id));
      e.comm = r.text(offsetof(tavo_cgroup_attach_event, comm), TAVO_COMM_LEN);
      e.dstPath = r.text(offsetof(tavo_cgroup_attach_event, dst_path), TAVO_CGROUP_PATH_LEN);
      return e;
    }
    case TAVO_EVENT_FD_UPDATE_INFO: {
      FdUpdateRecord e;
      e.header = Header(r);
      e.pid = r.at<int32_t>(offsetof(tavo_fd_update_event, pid));
      e.fd = r.at<int32_t>(offsetof(tavo_fd_update_event, fd));
      e.fdCount = r.at<uint64_t>(offsetof(tavo_fd_update_event, fd_count));
      e.comm = r.text(offsetof(tavo_fd_update_event, comm), TAVO_COMM_LEN);
      return e;
    }
    case TAVO_NOTICE_PROCESS_START: {
      ProcessStartNotice e;
      e.pid = r.at<int32_t>(offsetof(tavo_notice_process_start, pid));
      e.ppid = r.at<int32_t>(offsetof(tavo_notice_process_start, ppid));
      e.uid = r.at<uint32_t>(offsetof(tavo_notice_process_start, uid));
      e.comm = r.text(offsetof(tavo_notice_process_start, comm), TAVO_COMM_LEN);
      return e;
    }
    case TAVO_NOTICE_PROCESS_EXIT: {
      ProcessExitNotice e;
      e.pid = r.at<int32_t>(offsetof(tavo_notice_process_exit, pid));
      e.comm = r.text(offsetof(tavo_notice_process_exit, comm), TAVO_COMM_LEN);
      return e;
    }
    case TAVO_NOTICE_THREAD_COUNT: {
      ThreadCountNotice e;
      e.pid = r.at<int32_t>(offsetof(tavo_notice_thread_count, pid));
      e.ppid = r.at<int32_t>(offsetof(tavo_notice_thread_count, ppid));
      e.uid = r.at<uint32_t>(offsetof(tavo_notice_thread_count, uid));
      e.oldThreadNum = r.at<uint32_t>(offsetof(tavo_notice_thread_count, old_thread_num));
      e.threadNum = r.at<uint32_t>(offsetof(tavo_notice_thread_count, thread_num));
      return e;
    }
    case TAVO_NOTICE_MEMORY: {
      MemoryNotice e;
      e.pid = r.at<int32_t>(offsetof(tavo_notice_memory, pid));
      e.ppid = r.at<int32_t>(offsetof(tavo_notice_memory, ppid));
      e.uid = r.at<uint32_t>(offsetof(tavo_notice_memory, uid));
      e.comm = r.text(offsetof(tavo_notice_memory, comm), TAVO_COMM_LEN);
      for (size_t i = 0; i < 4; ++i) {
        e.current[i] = r.at<int64_t>(offsetof(tavo_notice_memory, current) + i * 8);
        e.reported[i] = r.at<int64_t>(offsetof(tavo_notice_memory, reported) + i * 8);
      }
      return e;
    }
    case TAVO_NOTICE_DMABUF_TOTAL: {
      DmabufTotalNotice e;
      e.pid = r.at<int32_t>(offsetof(tavo_notice_dmabuf_total, pid));
      e.uid = r.at<uint32_t>(offsetof(tavo_notice_dmabuf_total, uid));
      e.comm = r.text(offsetof(tavo_notice_dmabuf_total, comm), TAVO_COMM_LEN);
      e.total = r.at<int64_t>(offsetof(tavo_notice_dmabuf_total, total));
      return e;
    }
    default: {  // 7..14 share one layout
      DmabufRecord e;
      e.header = Header(r);
      e.pid = r.at<int32_t>(offsetof(tavo_dmabuf_event, pid));
      e.size = r.at<uint64_t>(offsetof(tavo_dmabuf_event, size));
      e.mapKey = r.at<uint64_t>(offsetof(tavo_dmabuf_event, map_key));
      e.bufId = r.at<uint64_t>(offsetof(tavo_dmabuf_event, buf_id));
      return e;
    }
  }
}

}  // namespace

size_t EventLayoutLength(uint32_t code) {
  switch (code) {
    case TAVO_EVENT_TASK_INIT: return sizeof(tavo_task_init_event);
    case TAVO_EVENT_KMEM_RSS_INFO: return sizeof(tavo_rss_stat_event);
    case TAVO_EVENT_SCHED_TASK_CREATE: return sizeof(tavo_task_create_event);
    case TAVO_EVENT_SCHED_TASK_EXIT: return sizeof(tavo_task_exit_event);
    case TAVO_EVENT_DMABUF_SIZE_INFO: return sizeof(tavo_dmabuf_size_event);
    case TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO: return sizeof(tavo_cgroup_attach_event);
    case TAVO_EVENT_FD_UPDATE_INFO: return sizeof(tavo_fd_update_event);
    case TAVO_NOTICE_PROCESS_START: return sizeof(tavo_notice_process_start);
    case TAVO_NOTICE_PROCESS_EXIT: return sizeof(tavo_notice_process_exit);
    case TAVO_NOTICE_THREAD_COUNT: return sizeof(tavo_notice_thread_count);
    case TAVO_NOTICE_MEMORY: return sizeof(tavo_notice_memory);
    case TAVO_NOTICE_DMABUF_TOTAL: return sizeof(tavo_notice_dmabuf_total);
    default:
      if (code >= TAVO_EVENT_DMABUF_SETUP && code <= TAVO_EVENT_DMABUF_MUNMAP) {
        return sizeof(tavo_dmabuf_event);
      }
      return 0;
  }
}

Event DecodeEvent(const char* data, size_t length) {
  DecodeError error;
  error.length = length;
  if (data == nullptr || length < sizeof(uint32_t)) {
    error.reason = DecodeError::Reason::kTooShort;
    error.expected = sizeof(uint32_t);
    return error;
  }
  memcpy(&error.code, data, sizeof(error.code));
  const size_t expected = EventLayoutLength(error.code);
  if (expected == 0) return error;
  if (length < expected) {
    error.reason = DecodeError::Reason::kTooShort;
    error.expected = expected;
    return error;
  }
  return DecodeKnown(error.code, Reader(data));
}

uint32_t EventCode(const Event& event) {
  struct Visitor {
    uint32_t operator()(const DecodeError& e) const { return e.code; }
    uint32_t operator()(const ProcessStartNotice&) const { return TAVO_NOTICE_PROCESS_START; }
    uint32_t operator()(const ProcessExitNotice&) const { return TAVO_NOTICE_PROCESS_EXIT; }
    uint32_t operator()(const ThreadCountNotice&) const { return TAVO_NOTICE_THREAD_COUNT; }
    uint32_t operator()(const MemoryNotice&) const { return TAVO_NOTICE_MEMORY; }
    uint32_t operator()(const DmabufTotalNotice&) const { return TAVO_NOTICE_DMABUF_TOTAL; }
    // Every raw record carries its header.
    uint32_t operator()(const TaskInitRecord& e) const { return e.header.type; }
    uint32_t operator()(const RssStatRecord& e) const { return e.header.type; }
    uint32_t operator()(const TaskCreateRecord& e) const { return e.header.type; }
    uint32_t operator()(const TaskExitRecord& e) const { return e.header.type; }
    uint32_t operator()(const DmabufSizeRecord& e) const { return e.header.type; }
    uint32_t operator()(const CgroupAttachRecord& e) const { return e.header.type; }
    uint32_t operator()(const FdUpdateRecord& e) const { return e.header.type; }
    uint32_t operator()(const DmabufRecord& e) const { return e.header.type; }
  };
  return std::visit(Visitor{}, event);
}

}  // namespace Tavo::Client
