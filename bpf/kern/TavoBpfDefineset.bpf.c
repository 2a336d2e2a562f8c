/*
 * The normal object: process life cycle (fork, exit), resident-memory
 * counters and open-descriptor counts. Its ring feeds the service's
 * "BpfServicePoll" pump.
 */
/* Fork and exit storms come in bursts; leave the pump room to catch up. */
#define TAVO_RING_BYTES (4u << 20)
#include "tavo_bpf_common.bpf.h"

/*
 * Reading task_struct fields needs bpf_get_current_task and
 * bpf_probe_read_kernel, which the kernel offers to GPL-compatible
 * programs only, so the object carries a GPL-compatible dual licence.
 */
char LICENSE[] SEC("license") = "Dual BSD/GPL";

/* Least change of one rss counter, in bytes, that is worth a record. */
const volatile __s64 rss_step_bytes = 16384;
/* An fd-count record is sent each time the count crosses a multiple of this. */
const volatile __u64 fd_report_step = 32;
/* How many threads of the parent's group to look at when classifying a fork. */
#define TAVO_THREAD_SCAN 8
/* Refresh status keys from the scheduler path every this many switches per CPU. */
#define TAVO_SWITCH_REFRESH_MASK 4095u

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 32768);
  __type(key, __s32);
  __type(value, struct tavo_open_fd_value);
} open_fd_caller_map SEC(".maps");

struct tavo_rss_key {
  __u32 tgid;
  __u32 member;
};
struct tavo_rss_last {
  __s64 size;   /* bytes last sent for this (process, counter) */
  __u32 mm_id;  /* which mm that was: exec or pid reuse starts afresh */
  __u32 pad;
};
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 16384);
  __type(key, struct tavo_rss_key);
  __type(value, struct tavo_rss_last);
} rss_last_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} switch_count SEC(".maps");

/*
 * The fork tracepoint runs in the parent and names only the child's id.
 * A new thread has just been appended to the tail of the parent's
 * signal->thread_head list; a new process never appears there. Look at
 * the last few entries (a concurrent clone in the same group may have
 * landed behind ours).
 */
static __always_inline bool tavo_is_new_thread(struct task_struct* parent, pid_t child) {
  struct signal_struct* sig = BPF_CORE_READ(parent, signal);
  if (!sig) return false;
  struct list_head* head = __builtin_preserve_access_index(&sig->thread_head);
  struct list_head* pos = BPF_CORE_READ(sig, thread_head.prev);
  unsigned long node_off = bpf_core_field_offset(struct task_struct, thread_node);
#pragma unroll
  for (int i = 0; i < TAVO_THREAD_SCAN; i++) {
    if (!pos || pos == head) break;
    struct task_struct* t = (struct task_struct*)((char*)pos - node_off);
    if (BPF_CORE_READ(t, pid) == child) return true;
    pos = BPF_CORE_READ(pos, prev);
  }
  return false;
}

/*
 * Wake-ups. Waking the consumer costs the producing CPU an interrupt (on a
 * virtual machine an exit to the host), and each wake-up costs the consumer
 * a sleep and a context switch, so the consumer is woken only when it
 * sleeps, and only once per sleep.
 *
 * The pump registers its thread in ring_consumer; sched_switch follows it:
 * switched in, it is RUNNING and drains the ring before it sleeps again
 * (its epoll is level-triggered, so a record written meanwhile is seen);
 * switched out asleep, it is ASLEEP, and if data came in while it went to
 * sleep it is woken at once.
 *   - Fork records wake it when it sleeps; otherwise they keep the ring's
 *     own rule (wake if it has read all before them).
 *   - Everything else (exits, rss, open fds) never does: it rides on the
 *     next wake-up, or a CPU about to idle wakes it, or the next context
 *     switch anywhere once it has slept TAVO_LAZY_DEADLINE_NS. An exit
 *     that woke the pump at once would pull it in beside the exiting task
 *     and the parent that task is about to wake; its CPU idles, or the
 *     parent's next fork comes, a moment later.
 * The map is a plain array read and written without atomics (5.10 has no
 * BPF compare-and-exchange). A lost race costs at most a second wake-up or
 * a record's wait for the next idle CPU or the deadline, never a record.
 *
 * With no consumer registered (tid 0: another reader of the ring), a CPU
 * wakes the reader at most once per TAVO_WAKEUP_BATCH_NS and context
 * switches wake it for what was left; a CPU about to idle wakes it at once.
 */
#define TAVO_WAKEUP_BATCH_NS 50000ull
#define TAVO_LAZY_DEADLINE_NS 1000000ull
/* sched_switch's prev_state: a preempted task is reported as this, a
 * sleeping one as a lower state bit, a running one as 0. */
#define TAVO_TASK_REPORT_MAX 0x100

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} wakeup_time SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct tavo_ring_consumer);
} ring_consumer SEC(".maps");

static __always_inline bool tavo_wakeup_due(__u64 now, bool force) {
  __u32 key = 0;
  __u64* last = bpf_map_lookup_elem(&wakeup_time, &key);
  if (!last) return true;
  if (!force && now - *last < TAVO_WAKEUP_BATCH_NS) return false;
  *last = now;
  return true;
}

/* The registered consumer, or NULL when none is. */
static __always_inline struct tavo_ring_consumer* tavo_consumer(void) {
  __u32 key = 0;
  struct tavo_ring_consumer* c = bpf_map_lookup_elem(&ring_consumer, &key);
  return c && c->tid ? c : NULL;
}

/* Wakes the consumer for what is in the ring: a discarded reservation with a
 * forced wake-up delivers nothing but the wake-up. */
static __always_inline void tavo_nudge(void) {
  void* nudge = bpf_ringbuf_reserve(&ringbuf_map, 8, 0);
  if (nudge) bpf_ringbuf_discard(nudge, BPF_RB_FORCE_WAKEUP);
}

/*
 * A ring more than half full always wakes the consumer: unannounced records
 * must never fill it, or no reservation (and so no wake-up) could follow.
 */
static __always_inline void tavo_submit_as(void* rec, bool wake) {
  __u64 flags = BPF_RB_NO_WAKEUP;
  struct tavo_ring_consumer* c = tavo_consumer();
  if (bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA) >
      bpf_ringbuf_query(&ringbuf_map, BPF_RB_RING_SIZE) / 2) {
    flags = BPF_RB_FORCE_WAKEUP;
  } else if (!c) {
    if (tavo_wakeup_due(bpf_ktime_get_ns(), false)) flags = 0;
  } else if (wake) {
    flags = 0;
    if (c->state == TAVO_CONSUMER_ASLEEP) {
      c->state = TAVO_CONSUMER_WOKEN;
      flags = BPF_RB_FORCE_WAKEUP;
    }
  }
  bpf_ringbuf_submit(rec, flags);
}
#define tavo_submit_waking(rec) tavo_submit_as(rec, true)
#define tavo_submit_lazy(rec) tavo_submit_as(rec, false)

/*
 * Exactly one exit per process. Kernels whose exit tracepoint carries
 * group_dead name the thread that ended the group. On older ones the last
 * two threads of a group can both read signal->live == 0 when they exit at
 * once; the first to claim the tgid here reports the end, and the fork of a
 * new process under that pid drops the claim.
 */
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 8192);
  __type(key, __s32);
  __type(value, __u8);
} exit_claims SEC(".maps");

static __always_inline bool tavo_process_ended(struct trace_event_raw_sched_process_exit* ctx,
                                               struct task_struct* task, __s32 tgid) {
  if (!tavo_exit_may_end_process(ctx, task)) return false;
  if (bpf_core_field_exists(ctx->group_dead)) return true;
  __u8 one = 1;
  return bpf_map_update_elem(&exit_claims, &tgid, &one, BPF_NOEXIST) == 0;
}

SEC("tracepoint/sched/sched_process_fork")
int sched_sched_process_fork(struct trace_event_raw_sched_process_fork* ctx) {
  struct task_struct* parent = (struct task_struct*)bpf_get_current_task();
  pid_t child = ctx->child_pid;
  __s32 tgid = (__s32)tavo_current_tgid();
  bool thread = tavo_is_new_thread(parent, child);

  /*
   * Bookkeeping first, whatever the gate and the ring say: a claim left by
   * the pid's previous owner would turn this process's end into a thread
   * end, and the child inherits the parent's descriptors.
   */
  if (!thread) {
    bpf_map_delete_elem(&exit_claims, &child);
    struct tavo_open_fd_value* fds = bpf_map_lookup_elem(&open_fd_caller_map, &tgid);
    if (fds) {
      struct tavo_open_fd_value copy = *fds;
      copy.pid = child;
      bpf_map_update_elem(&open_fd_caller_map, &child, &copy, BPF_ANY);
    }
  }
  if (!tavo_enabled(TAVO_STATUS_CORE_ENABLED)) return 0;

  struct tavo_task_create_event* rec =
      TAVO_RESERVE(struct tavo_task_create_event, TAVO_EVENT_SCHED_TASK_CREATE);
  if (!rec) return 0;
  if (thread) {
    rec->pid = tgid;
    rec->ppid = BPF_CORE_READ(parent, real_parent, tgid);
    rec->kind = TAVO_TASK_KIND_THREAD;
  } else {
    rec->pid = child;
    rec->ppid = tgid;
    rec->kind = TAVO_TASK_KIND_PROCESS;
  }
  rec->uid = (__u32)bpf_get_current_uid_gid();
  /* The child starts with the parent's name. */
  bpf_get_current_comm(rec->comm, sizeof(rec->comm));
  tavo_submit_waking(rec);
  return 0;
}

SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(struct trace_event_raw_sched_process_exit* ctx) {
  struct task_struct* task = (struct task_struct*)bpf_get_current_task();
  __s32 tgid = (__s32)tavo_current_tgid();
  bool dead = tavo_process_ended(ctx, task, tgid);
  if (dead) bpf_map_delete_elem(&open_fd_caller_map, &tgid);
  if (!tavo_enabled(TAVO_STATUS_CORE_ENABLED)) return 0;

  struct tavo_task_exit_event* rec =
      TAVO_RESERVE(struct tavo_task_exit_event, TAVO_EVENT_SCHED_TASK_EXIT);
  if (!rec) return 0;
  rec->pid = tgid;
  if (dead) {
    /* The process's name is its leader's, whichever thread ends last. The
     * string read stops at the NUL; the ring memory after it is stale. */
    __builtin_memset(rec->comm, 0, sizeof(rec->comm));
    BPF_CORE_READ_STR_INTO(&rec->comm, task, group_leader, comm);
    rec->kind = TAVO_TASK_KIND_PROCESS;
  } else {
    bpf_get_current_comm(rec->comm, sizeof(rec->comm));
    rec->kind = TAVO_TASK_KIND_THREAD;
  }
  tavo_submit_lazy(rec);
  return 0;
}

/*
 * rss_stat fires on every counter change, for any mm: only changes of the
 * current task's own mm (curr) are charged, to the current process. A
 * record goes out when the counter moved by at least rss_step_bytes since
 * the last record for that (process, counter), which bounds ring traffic
 * while every record still carries the exact current size.
 */
/*
 * rss_stat fires on every page of a process's memory, dozens of times per
 * short-lived process. A per-CPU copy of the last sizes sent for the process
 * that ran last on this CPU answers most events without the LRU hash.
 */
struct tavo_rss_cache {
  __u32 tgid;
  __u32 mm_id;
  __u32 known; /* bit per member: size[member] holds what was last sent */
  __u32 pad;
  __s64 size[TAVO_RSS_MEMBERS];
};
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct tavo_rss_cache);
} rss_cache SEC(".maps");

SEC("tracepoint/kmem/rss_stat")
int kmem_rss_stat(struct trace_event_raw_rss_stat* ctx) {
  if (!ctx->curr) return 0;
  int member = ctx->member;
  if (member < 0 || member >= TAVO_RSS_MEMBERS) return 0;
  __s64 size = ctx->size;
  __u32 mm_id = ctx->mm_id;
  __u32 tgid = tavo_current_tgid();

  __u32 zero = 0;
  struct tavo_rss_cache* cache = bpf_map_lookup_elem(&rss_cache, &zero);
  if (!cache) return 0;
  if (cache->tgid != tgid || cache->mm_id != mm_id) {
    cache->tgid = tgid;
    cache->mm_id = mm_id;
    cache->known = 0;
  }
  if (cache->known & (1u << member)) {
    __s64 delta = size - cache->size[member];
    if (delta < 0) delta = -delta;
    if (delta < rss_step_bytes) return 0;
  }
  if (!tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;

  struct tavo_rss_key key = {.tgid = tgid, .member = (__u32)member};
  struct tavo_rss_last* last = bpf_map_lookup_elem(&rss_last_map, &key);
  if (last && last->mm_id == mm_id) {
    __s64 delta = size - last->size;
    if (delta < 0) delta = -delta;
    if (delta < rss_step_bytes) {
      /* Sent from another CPU: remember it here too. */
      cache->size[member] = last->size;
      cache->known |= 1u << member;
      return 0;
    }
  }
  struct tavo_rss_stat_event* rec = TAVO_RESERVE(struct tavo_rss_stat_event, TAVO_EVENT_KMEM_RSS_INFO);
  if (!rec) return 0;
  rec->pid = (__s32)tgid;
  rec->member = member;
  rec->size = size;
  tavo_submit_lazy(rec);

  struct tavo_rss_last now = {.size = size, .mm_id = mm_id};
  bpf_map_update_elem(&rss_last_map, &key, &now, BPF_ANY);
  cache->size[member] = size;
  cache->known |= 1u << member;
  return 0;
}

/*
 * Keeps the status keys fresh while the ring is quiet, follows the
 * registered consumer's sleeps, and wakes it for records submitted without
 * a wake-up (see Wake-ups above).
 */
SEC("tracepoint/sched/sched_switch")
int sched_sched_switch(struct trace_event_raw_sched_switch* ctx) {
  __u32 key = 0;
  __u64* count = bpf_map_lookup_elem(&switch_count, &key);
  if (count && ((*count)++ & TAVO_SWITCH_REFRESH_MASK) == 0) tavo_status_refresh();
  struct tavo_ring_consumer* c = tavo_consumer();
  if (!c) {
    if (bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA) == 0) return 0;
    if (tavo_wakeup_due(bpf_ktime_get_ns(), ctx->next_pid == 0)) tavo_nudge();
    return 0;
  }
  if (ctx->next_pid == (pid_t)c->tid) {
    c->state = TAVO_CONSUMER_RUNNING;
    return 0;
  }
  bool own = ctx->prev_pid == (pid_t)c->tid;
  if (own) {
    if (ctx->prev_state == 0 || ctx->prev_state >= TAVO_TASK_REPORT_MAX) return 0; /* preempted */
    c->since = bpf_ktime_get_ns();
    c->state = TAVO_CONSUMER_ASLEEP;
  }
  if (c->state != TAVO_CONSUMER_ASLEEP || bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA) == 0) return 0;
  if (!own && ctx->next_pid != 0 && bpf_ktime_get_ns() - c->since < TAVO_LAZY_DEADLINE_NS) return 0;
  c->state = TAVO_CONSUMER_WOKEN;
  tavo_nudge();
  return 0;
}

/* Applies one descriptor more or fewer to the current process's count. */
static __always_inline int tavo_fd_change(__s64 delta, __s32 fd) {
  __s32 tgid = (__s32)tavo_current_tgid();
  struct tavo_open_fd_value* val = bpf_map_lookup_elem(&open_fd_caller_map, &tgid);
  __u64 count;
  if (!val) {
    if (delta < 0) return 0; /* not seeded: nothing sensible to lower */
    struct tavo_open_fd_value init = {.pid = tgid, .fd_count = 1, .fd_count_again = 1};
    bpf_get_current_comm(init.comm, sizeof(init.comm));
    bpf_map_update_elem(&open_fd_caller_map, &tgid, &init, BPF_NOEXIST);
    count = 1;
  } else {
    if (delta < 0 && val->fd_count == 0) return 0;
    __sync_fetch_and_add(&val->fd_count, delta);
    count = val->fd_count;
    val->fd_count_again = count;
  }
  __u64 step = fd_report_step ? fd_report_step : 1;
  if (count % step != 0) return 0;

  struct tavo_fd_update_event* rec = TAVO_RESERVE(struct tavo_fd_update_event, TAVO_EVENT_FD_UPDATE_INFO);
  if (!rec) return 0;
  rec->pid = tgid;
  rec->fd = fd;
  rec->fd_count = count;
  bpf_get_current_comm(rec->comm, sizeof(rec->comm));
  tavo_submit_lazy(rec);
  return 0;
}

SEC("kprobe/enter_fd_install")
int BPF_KPROBE(enter_fd_install, unsigned int fd, struct file* file) {
  if (!tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;
  return tavo_fd_change(1, (__s32)fd);
}

SEC("kretprobe/return_filp_close")
int BPF_KRETPROBE(return_filp_close, int ret) {
  if (ret != 0 || !tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;
  return tavo_fd_change(-1, -1);
}
