/*
 * The peer benchmark's floor: one 40-byte record per fork and per exit into
 * a ring buffer with the ring's default wake-up, and nothing else.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "bench/bare_record.h"

char LICENSE[] SEC("license") = "GPL";

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, 1u << 20);
} bare_ring SEC(".maps");

static __always_inline int bare_emit(__u32 kind, __s32 pid, __s32 ppid) {
  struct bare_record* rec = bpf_ringbuf_reserve(&bare_ring, sizeof(*rec), 0);
  if (!rec) return 0;
  rec->kind = kind;
  rec->pid = pid;
  rec->ppid = ppid;
  rec->pad = 0;
  rec->ts = bpf_ktime_get_ns();
  bpf_get_current_comm(rec->comm, sizeof(rec->comm));
  bpf_ringbuf_submit(rec, 0);
  return 0;
}

SEC("tracepoint/sched/sched_process_fork")
int bare_fork(struct trace_event_raw_sched_process_fork* ctx) {
  return bare_emit(BARE_FORK, ctx->child_pid, ctx->parent_pid);
}

SEC("tracepoint/sched/sched_process_exit")
int bare_exit(void* ctx) {
  return bare_emit(BARE_EXIT, (__s32)bpf_get_current_pid_tgid(), 0);
}
