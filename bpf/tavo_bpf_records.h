/*
 * Record layouts shared by the kernel-side programs and the service.
 * Every layout is little-endian and fixed: the asserts at the end pin
 * each size and offset, so the two sides cannot drift apart.
 */
#ifndef TAVO_BPF_RECORDS_H
#define TAVO_BPF_RECORDS_H

#if !defined(__bpf__)
#include <linux/types.h>
#include <stddef.h>
#endif

#ifdef __cplusplus
#define TAVO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define TAVO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#define TAVO_COMM_LEN 16

/* Raw event types (the header's type field). */
enum tavo_event_type {
  TAVO_EVENT_TASK_INIT = 0,
  TAVO_EVENT_KMEM_RSS_INFO = 1,
  TAVO_EVENT_SCHED_TASK_CREATE = 2,
  TAVO_EVENT_SCHED_TASK_EXIT = 3,
  TAVO_EVENT_DMABUF_SIZE_INFO = 4,
  TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO = 5,
  TAVO_EVENT_FD_UPDATE_INFO = 6,
  TAVO_EVENT_DMABUF_SETUP = 7,
  TAVO_EVENT_DMABUF_RELEASE = 8,
  TAVO_EVENT_DMABUF_ATTACH = 9,
  TAVO_EVENT_DMABUF_DETACH = 10,
  TAVO_EVENT_DMABUF_VMAP = 11,
  TAVO_EVENT_DMABUF_VUNMAP = 12,
  TAVO_EVENT_DMABUF_MMAP = 13,
  TAVO_EVENT_DMABUF_MUNMAP = 14,
  TAVO_EVENT_MAX_RAW = 14,
};

/* Notices built by the service, in the same 32-bit type space. */
enum tavo_notice_code {
  TAVO_NOTICE_PROCESS_START = 50001,
  TAVO_NOTICE_PROCESS_EXIT = 50002,
  TAVO_NOTICE_THREAD_COUNT = 50003,
  TAVO_NOTICE_MEMORY = 50004,
  TAVO_NOTICE_DMABUF_TOTAL = 50005,
};

/* Kinds carried by the creation and exit records. */
enum tavo_task_kind {
  TAVO_TASK_KIND_PROCESS = 1,
  TAVO_TASK_KIND_THREAD = 2,
};

/* rss_stat member codes, the order of TavoTask's size arrays. */
enum tavo_rss_member {
  TAVO_RSS_FILE = 0,
  TAVO_RSS_ANON = 1,
  TAVO_RSS_SWAP = 2,
  TAVO_RSS_SHMEM = 3,
  TAVO_RSS_MEMBERS = 4,
};

/* Status map: keys and the bits of the flag word at key 0. */
enum tavo_status_key {
  TAVO_STATUS_FLAGS = 0,
  TAVO_STATUS_AVAIL_DATA = 1,
  TAVO_STATUS_RING_SIZE = 2,
  TAVO_STATUS_CONS_POS = 3,
  TAVO_STATUS_PROD_POS = 4,
  TAVO_STATUS_KEYS = 5,
};
#define TAVO_STATUS_RING_FULL 0x1ULL
#define TAVO_STATUS_CORE_ENABLED 0x2ULL
#define TAVO_STATUS_NORMAL_ENABLED 0x4ULL

/*
 * Consumer map of the normal object (one entry): the pump registers its
 * thread so the programs wake it only when it sleeps.
 */
struct tavo_ring_consumer {
  __u32 tid;   /* the pump's thread id; 0: none, batch by time */
  __u32 state; /* enum tavo_consumer_state */
  __u64 since; /* ktime of its last sleep */
};
enum tavo_consumer_state {
  TAVO_CONSUMER_RUNNING = 0, /* will drain the ring before it sleeps */
  TAVO_CONSUMER_ASLEEP = 1,  /* asleep and nobody has woken it */
  TAVO_CONSUMER_WOKEN = 2,   /* a wake-up is on its way */
};

struct tavo_event_header {
  __u32 type;
  __u32 reserved;
  __u64 ts; /* nanoseconds since boot (CLOCK_MONOTONIC) */
};

/* Type 0: built by the service's start-up scan of /proc. */
struct tavo_task_init_event {
  struct tavo_event_header hdr;
  __s32 pid;
  __s32 ppid;
  __u32 uid;
  __u32 thread_num;
  char comm[TAVO_COMM_LEN];
  __s64 rss_file;
  __s64 rss_anon;
  __s64 rss_shmem;
  __s64 rss_swap;
  __s64 start_time; /* seconds, boot time + monotonic */
};

/* Type 1: one resident-memory counter of a process changed. */
struct tavo_rss_stat_event {
  struct tavo_event_header hdr;
  __s32 pid;
  __s32 member; /* enum tavo_rss_member */
  __s64 size;   /* bytes */
};

/* Type 2: a process or a thread was created. */
struct tavo_task_create_event {
  struct tavo_event_header hdr;
  __s32 ppid; /* 0 when the kernel side could not tell */
  __s32 pid;  /* thread-group id */
  __u32 uid;
  char comm[TAVO_COMM_LEN];
  __u32 kind; /* enum tavo_task_kind */
};

/* Type 3: a process or one of its threads ended. */
struct tavo_task_exit_event {
  struct tavo_event_header hdr;
  __s32 pid; /* thread-group id */
  char comm[TAVO_COMM_LEN];
  __u32 kind; /* enum tavo_task_kind */
};

/* Type 4: a process's dma-buf total as the kernel side accounts it. */
struct tavo_dmabuf_size_event {
  struct tavo_event_header hdr;
  __s32 pid;
  __u32 pad;
  __u64 total; /* bytes */
};

/* Type 5: a task moved to another cgroup (e.g. cpuset). */
#define TAVO_CGROUP_PATH_LEN 64
struct tavo_cgroup_attach_event {
  struct tavo_event_header hdr;
  __s32 pid; /* thread-group id */
  __s32 tid;
  __s32 dst_root;
  __s32 dst_level;
  __u64 dst_id;
  char comm[TAVO_COMM_LEN];
  char dst_path[TAVO_CGROUP_PATH_LEN]; /* NUL-terminated, truncated */
};

/* Type 6: a process's number of open descriptors changed. */
struct tavo_fd_update_event {
  struct tavo_event_header hdr;
  __s32 pid;
  __s32 fd; /* the descriptor installed or closed; -1 when unknown */
  __u64 fd_count;
  char comm[TAVO_COMM_LEN];
};

/* Types 7 to 14: dma-buf operations. */
struct tavo_dmabuf_event {
  struct tavo_event_header hdr;
  __s32 pid;
  __u32 pad;
  __u64 size;    /* bytes */
  __u64 map_key; /* one user mapping of the buffer (mmap, munmap) */
  __u64 buf_id;  /* inode number of the dma-buf file */
};

/* Notices (no common header: the code comes first). */
struct tavo_notice_process_start { /* 50001 */
  __u32 code;
  __s32 pid;
  __s32 ppid;
  __u32 uid;
  char comm[TAVO_COMM_LEN];
};

struct tavo_notice_process_exit { /* 50002 */
  __u32 code;
  __s32 pid;
  char comm[TAVO_COMM_LEN];
};

struct tavo_notice_thread_count { /* 50003 */
  __u32 code;
  __s32 pid;
  __s32 ppid;
  __u32 uid;
  __u32 old_thread_num;
  __u32 thread_num;
};

struct tavo_notice_memory { /* 50004 */
  __u32 code;
  __s32 pid;
  __s32 ppid;
  __u32 uid;
  char comm[TAVO_COMM_LEN];
  __s64 current[TAVO_RSS_MEMBERS];  /* file, anon, swap, shmem */
  __s64 reported[TAVO_RSS_MEMBERS]; /* file, anon, swap, shmem */
};

struct tavo_notice_dmabuf_total { /* 50005 */
  __u32 code;
  __s32 pid;
  __u32 uid;
  char comm[TAVO_COMM_LEN];
  __u32 zero;
  __s64 total;
};

/* Values of the pinned maps that the service seeds. */
struct tavo_open_fd_value { /* map_TavoBpfDefineset_open_fd_caller_map, key __s32 pid */
  __s32 pid;
  __u32 pad;
  __u64 fd_count;
  __u64 fd_count_again;
  __u64 reserved;
  char comm[TAVO_COMM_LEN];
};

struct tavo_dmabuf_alloc_value { /* map_TavoBpfGplDefineset_dmabuf_allocate_map, key __u64 inode */
  __s32 pid;
  __u32 pad;
  __u64 size;
};

struct tavo_dmabuf_size_value { /* map_TavoBpfGplDefineset_dmabuf_size_map, key __s32 pid */
  __u64 total;
  __u64 reserved;
};

#define TAVO_CHECK_LAYOUT(type, field, off) \
  TAVO_STATIC_ASSERT(__builtin_offsetof(struct type, field) == (off), #type "." #field)
#define TAVO_CHECK_SIZE(type, size) TAVO_STATIC_ASSERT(sizeof(struct type) == (size), #type " size")

TAVO_CHECK_SIZE(tavo_event_header, 16);
TAVO_CHECK_LAYOUT(tavo_event_header, type, 0);
TAVO_CHECK_LAYOUT(tavo_event_header, ts, 8);

TAVO_CHECK_SIZE(tavo_task_init_event, 88);
TAVO_CHECK_LAYOUT(tavo_task_init_event, pid, 16);
TAVO_CHECK_LAYOUT(tavo_task_init_event, ppid, 20);
TAVO_CHECK_LAYOUT(tavo_task_init_event, uid, 24);
TAVO_CHECK_LAYOUT(tavo_task_init_event, thread_num, 28);
TAVO_CHECK_LAYOUT(tavo_task_init_event, comm, 32);
TAVO_CHECK_LAYOUT(tavo_task_init_event, rss_file, 48);
TAVO_CHECK_LAYOUT(tavo_task_init_event, rss_anon, 56);
TAVO_CHECK_LAYOUT(tavo_task_init_event, rss_shmem, 64);
TAVO_CHECK_LAYOUT(tavo_task_init_event, rss_swap, 72);
TAVO_CHECK_LAYOUT(tavo_task_init_event, start_time, 80);

TAVO_CHECK_SIZE(tavo_rss_stat_event, 32);
TAVO_CHECK_SIZE(tavo_ring_consumer, 16);
TAVO_CHECK_LAYOUT(tavo_ring_consumer, state, 4);
TAVO_CHECK_LAYOUT(tavo_ring_consumer, since, 8);
TAVO_CHECK_LAYOUT(tavo_rss_stat_event, pid, 16);
TAVO_CHECK_LAYOUT(tavo_rss_stat_event, member, 20);
TAVO_CHECK_LAYOUT(tavo_rss_stat_event, size, 24);

TAVO_CHECK_SIZE(tavo_task_create_event, 48);
TAVO_CHECK_LAYOUT(tavo_task_create_event, ppid, 16);
TAVO_CHECK_LAYOUT(tavo_task_create_event, pid, 20);
TAVO_CHECK_LAYOUT(tavo_task_create_event, uid, 24);
TAVO_CHECK_LAYOUT(tavo_task_create_event, comm, 28);
TAVO_CHECK_LAYOUT(tavo_task_create_event, kind, 44);

TAVO_CHECK_SIZE(tavo_task_exit_event, 40);
TAVO_CHECK_LAYOUT(tavo_task_exit_event, pid, 16);
TAVO_CHECK_LAYOUT(tavo_task_exit_event, comm, 20);
TAVO_CHECK_LAYOUT(tavo_task_exit_event, kind, 36);

TAVO_CHECK_SIZE(tavo_dmabuf_size_event, 32);
TAVO_CHECK_LAYOUT(tavo_dmabuf_size_event, pid, 16);
TAVO_CHECK_LAYOUT(tavo_dmabuf_size_event, total, 24);

TAVO_CHECK_SIZE(tavo_cgroup_attach_event, 120);
TAVO_CHECK_LAYOUT(tavo_cgroup_attach_event, pid, 16);
TAVO_CHECK_LAYOUT(tavo_cgroup_attach_event, tid, 20);
TAVO_CHECK_LAYOUT(tavo_cgroup_attach_event, dst_root, 24);
TAVO_CHECK_LAYOUT(tavo_cgroup_attach_event, dst_level, 28);
TAVO_CHECK_LAYOUT(tavo_cgroup_attach_event, dst_id, 32);
TAVO_CHECK_LAYOUT(tavo_cgroup_attach_event, comm, 40);
TAVO_CHECK_LAYOUT(tavo_cgroup_attach_event, dst_path, 56);

TAVO_CHECK_SIZE(tavo_fd_update_event, 48);
TAVO_CHECK_LAYOUT(tavo_fd_update_event, pid, 16);
TAVO_CHECK_LAYOUT(tavo_fd_update_event, fd, 20);
TAVO_CHECK_LAYOUT(tavo_fd_update_event, fd_count, 24);
TAVO_CHECK_LAYOUT(tavo_fd_update_event, comm, 32);

TAVO_CHECK_SIZE(tavo_dmabuf_event, 48);
TAVO_CHECK_LAYOUT(tavo_dmabuf_event, pid, 16);
TAVO_CHECK_LAYOUT(tavo_dmabuf_event, size, 24);
TAVO_CHECK_LAYOUT(tavo_dmabuf_event, map_key, 32);
TAVO_CHECK_LAYOUT(tavo_dmabuf_event, buf_id, 40);

TAVO_CHECK_SIZE(tavo_notice_process_start, 32);
TAVO_CHECK_LAYOUT(tavo_notice_process_start, pid, 4);
TAVO_CHECK_LAYOUT(tavo_notice_process_start, ppid, 8);
TAVO_CHECK_LAYOUT(tavo_notice_process_start, uid, 12);
TAVO_CHECK_LAYOUT(tavo_notice_process_start, comm, 16);

TAVO_CHECK_SIZE(tavo_notice_process_exit, 24);
TAVO_CHECK_LAYOUT(tavo_notice_process_exit, pid, 4);
TAVO_CHECK_LAYOUT(tavo_notice_process_exit, comm, 8);

TAVO_CHECK_SIZE(tavo_notice_thread_count, 24);
TAVO_CHECK_LAYOUT(tavo_notice_thread_count, pid, 4);
TAVO_CHECK_LAYOUT(tavo_notice_thread_count, ppid, 8);
TAVO_CHECK_LAYOUT(tavo_notice_thread_count, uid, 12);
TAVO_CHECK_LAYOUT(tavo_notice_thread_count, old_thread_num, 16);
TAVO_CHECK_LAYOUT(tavo_notice_thread_count, thread_num, 20);

TAVO_CHECK_SIZE(tavo_notice_memory, 96);
TAVO_CHECK_LAYOUT(tavo_notice_memory, pid, 4);
TAVO_CHECK_LAYOUT(tavo_notice_memory, ppid, 8);
TAVO_CHECK_LAYOUT(tavo_notice_memory, uid, 12);
TAVO_CHECK_LAYOUT(tavo_notice_memory, comm, 16);
TAVO_CHECK_LAYOUT(tavo_notice_memory, current, 32);
TAVO_CHECK_LAYOUT(tavo_notice_memory, reported, 64);

TAVO_CHECK_SIZE(tavo_notice_dmabuf_total, 40);
TAVO_CHECK_LAYOUT(tavo_notice_dmabuf_total, pid, 4);
TAVO_CHECK_LAYOUT(tavo_notice_dmabuf_total, uid, 8);
TAVO_CHECK_LAYOUT(tavo_notice_dmabuf_total, comm, 12);
TAVO_CHECK_LAYOUT(tavo_notice_dmabuf_total, zero, 28);
TAVO_CHECK_LAYOUT(tavo_notice_dmabuf_total, total, 32);

TAVO_CHECK_SIZE(tavo_open_fd_value, 48);
TAVO_CHECK_LAYOUT(tavo_open_fd_value, pid, 0);
TAVO_CHECK_LAYOUT(tavo_open_fd_value, fd_count, 8);
TAVO_CHECK_LAYOUT(tavo_open_fd_value, fd_count_again, 16);
TAVO_CHECK_LAYOUT(tavo_open_fd_value, reserved, 24);
TAVO_CHECK_LAYOUT(tavo_open_fd_value, comm, 32);

TAVO_CHECK_SIZE(tavo_dmabuf_alloc_value, 16);
TAVO_CHECK_LAYOUT(tavo_dmabuf_alloc_value, size, 8);
TAVO_CHECK_SIZE(tavo_dmabuf_size_value, 16);

#endif /* TAVO_BPF_RECORDS_H */
