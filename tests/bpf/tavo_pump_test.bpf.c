/*
 * Stand-in for the platform's BPF objects in tests and benchmarks: the two
 * maps a pump opens, a producer that writes test records into the ring, and
 * programs of every kind the attach tables name.
 */
#include <linux/bpf.h>
#include <linux/types.h>
#include <bpf/bpf_helpers.h>

#include "bpf/tavo_bpf_records.h"

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, 1 << 16);
} ringbuf_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, TAVO_STATUS_KEYS);
  __type(key, __u32);
  __type(value, __u64);
} ringbuf_status SEC(".maps");

/* What the producer writes, and for whom (0 = nobody). */
struct test_config {
  __u32 record_type;
  __s32 tgid;
};

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct test_config);
} test_config SEC(".maps");

struct test_record {
  struct tavo_event_header hdr;
  __u64 seq;
};

static __always_inline int emit(void) {
  __u32 zero = 0;
  __u64 *flags = bpf_map_lookup_elem(&ringbuf_status, &zero);
  if (!flags || !(*flags & TAVO_STATUS_CORE_ENABLED)) return 0;
  struct test_config *cfg = bpf_map_lookup_elem(&test_config, &zero);
  if (!cfg || cfg->tgid == 0 || (__s32)(bpf_get_current_pid_tgid() >> 32) != cfg->tgid) return 0;
  struct test_record *rec = bpf_ringbuf_reserve(&ringbuf_map, sizeof(*rec), 0);
  if (!rec) {
    *flags |= TAVO_STATUS_RING_FULL;
    return 0;
  }
  rec->hdr.type = cfg->record_type;
  rec->hdr.reserved = 0;
  rec->hdr.ts = bpf_ktime_get_ns();
  rec->seq = 0;
  bpf_ringbuf_submit(rec, 0);
  return 0;
}

SEC("tracepoint/sched/sched_process_fork")
int fork_record(void *ctx) { return emit(); }

SEC("tracepoint/syscalls/sys_enter_getppid")
int getppid_record(void *ctx) { return emit(); }

/* Attach targets only; they do nothing. */
SEC("tracepoint/sched/sched_switch")
int noop_tracepoint(void *ctx) { return 0; }

SEC("kprobe/fd_install")
int noop_kprobe(void *ctx) { return 0; }

char LICENSE[] SEC("license") = "GPL";
