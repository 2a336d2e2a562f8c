/*
 * Stand-in for the platform's objects in the pump tests and the pump
 * benchmark: the ring and status maps a pump opens, and a program that
 * writes one record of a chosen type for each getppid() of a chosen process.
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

struct test_config {
  __u32 record_type;
  __s32 tgid; /* 0: nobody */
};

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct test_config);
} test_config SEC(".maps");

SEC("tracepoint/syscalls/sys_enter_getppid")
int emit(void *ctx) {
  __u32 zero = 0;
  __u64 *flags = bpf_map_lookup_elem(&ringbuf_status, &zero);
  struct test_config *cfg = bpf_map_lookup_elem(&test_config, &zero);
  if (!flags || !(*flags & TAVO_STATUS_CORE_ENABLED) || !cfg || cfg->tgid == 0 ||
      (__s32)(bpf_get_current_pid_tgid() >> 32) != cfg->tgid)
    return 0;
  struct tavo_event_header *rec = bpf_ringbuf_reserve(&ringbuf_map, sizeof(*rec) + 8, 0);
  if (!rec) {
    *flags |= TAVO_STATUS_RING_FULL;
    return 0;
  }
  rec->type = cfg->record_type;
  rec->reserved = 0;
  rec->ts = bpf_ktime_get_ns();
  bpf_ringbuf_submit(rec, 0);
  return 0;
}

char LICENSE[] SEC("license") = "GPL";
