/*
 * Pieces shared by both kernel-side objects: the ring buffer and its status
 * map, the enable gates, record reservation with overflow bookkeeping, and
 * small task helpers. Each object includes this file once, so each object
 * gets its own ring, status map and counters.
 *
 * Everything that touches kernel structures goes through CO-RE
 * (vmlinux.h is generated from the build machine's BTF and every access is
 * relocated by libbpf against the running kernel's BTF), so one object
 * serves the 5.x and 6.x kernel lines.
 */
#ifndef TAVO_BPF_COMMON_BPF_H
#define TAVO_BPF_COMMON_BPF_H

#include "vmlinux.h"

#if defined(__TARGET_ARCH_arm64)
/*
 * Kprobe arguments on AArch64 come from the register block at the start of
 * struct pt_regs, which libbpf reads as struct user_pt_regs. vmlinux.h is
 * generated from the build machine's BTF and lacks it on an x86-64 build
 * machine; the layout is part of the user-space ABI, so it is spelled out
 * here under a name of its own.
 */
struct tavo_user_pt_regs {
  __u64 regs[31];
  __u64 sp;
  __u64 pc;
  __u64 pstate;
};
#define user_pt_regs tavo_user_pt_regs
#endif

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "bpf/tavo_bpf_records.h"

#ifndef TAVO_RING_BYTES
#define TAVO_RING_BYTES (1u << 20)
#endif

/* Refresh status keys 1..4 every this many reserved records (power of two). */
#define TAVO_STATUS_REFRESH_MASK 63u

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, TAVO_RING_BYTES);
} ringbuf_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, TAVO_STATUS_KEYS);
  __type(key, __u32);
  __type(value, __u64);
} ringbuf_status SEC(".maps");

static __always_inline void tavo_status_store(__u32 key, __u64 value) {
  __u64* slot = bpf_map_lookup_elem(&ringbuf_status, &key);
  if (slot) *slot = value;
}

/* Keys 1..4: available data, ring size, consumer and producer positions. */
static __always_inline void tavo_status_refresh(void) {
  tavo_status_store(TAVO_STATUS_AVAIL_DATA, bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA));
  tavo_status_store(TAVO_STATUS_RING_SIZE, bpf_ringbuf_query(&ringbuf_map, BPF_RB_RING_SIZE));
  tavo_status_store(TAVO_STATUS_CONS_POS, bpf_ringbuf_query(&ringbuf_map, BPF_RB_CONS_POS));
  tavo_status_store(TAVO_STATUS_PROD_POS, bpf_ringbuf_query(&ringbuf_map, BPF_RB_PROD_POS));
}

/* Records reserved per CPU; only used to spread the status refreshes. A
 * per-CPU slot needs no atomics, which 5.10 kernels lack for fetch ops. */
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} tavo_reserved_count SEC(".maps");

static __always_inline void tavo_count_reserved(void) {
  __u32 key = 0;
  __u64* count = bpf_map_lookup_elem(&tavo_reserved_count, &key);
  if (count && ((*count)++ & TAVO_STATUS_REFRESH_MASK) == 0) tavo_status_refresh();
}

/* Whether user space has switched on the given group (bit 1 core, bit 2 normal). */
static __always_inline bool tavo_enabled(__u64 bit) {
  __u32 key = TAVO_STATUS_FLAGS;
  __u64* flags = bpf_map_lookup_elem(&ringbuf_status, &key);
  return flags && (*flags & bit);
}

/*
 * Reserves a record of the given constant size and fills its header. On
 * failure marks the ring full (bit 0, cleared by the service once reported)
 * and refreshes the counters so the report shows the state at the time.
 * The flag update is a plain read-modify-write: the service clears bit 0
 * the same way, and a lost race only delays one report.
 */
#define TAVO_RESERVE(rec_type, type_code)                                          \
  ({                                                                               \
    rec_type* __r = bpf_ringbuf_reserve(&ringbuf_map, sizeof(rec_type), 0);        \
    if (!__r) {                                                                    \
      __u32 __k = TAVO_STATUS_FLAGS;                                               \
      __u64* __f = bpf_map_lookup_elem(&ringbuf_status, &__k);                     \
      if (__f) *__f |= TAVO_STATUS_RING_FULL;                                      \
      tavo_status_refresh();                                                       \
    } else {                                                                       \
      __r->hdr.type = (type_code);                                                 \
      __r->hdr.reserved = 0;                                                       \
      __r->hdr.ts = bpf_ktime_get_ns();                                            \
      tavo_count_reserved();                                                       \
    }                                                                              \
    __r;                                                                           \
  })

static __always_inline __u32 tavo_current_tgid(void) { return bpf_get_current_pid_tgid() >> 32; }

/*
 * Whether the current task is the last live thread of its group. The exit
 * path decrements signal->live before the sched_process_exit tracepoint,
 * so 0 here means the whole process is gone, whichever thread exits last
 * (the group leader may well have exited long before).
 */
static __always_inline bool tavo_group_dead(struct task_struct* task) {
  return BPF_CORE_READ(task, signal, live.counter) == 0;
}

/*
 * Whether this exit ends the process, as far as the record says. Kernels
 * whose record carries group_dead name exactly one thread; elsewhere every
 * thread that finds signal->live at 0 answers yes (two threads ending at
 * once both can), and the caller needs a claim of its own.
 */
static __always_inline bool tavo_exit_may_end_process(struct trace_event_raw_sched_process_exit* ctx,
                                                      struct task_struct* task) {
  if (bpf_core_field_exists(ctx->group_dead)) return ctx->group_dead;
  return tavo_group_dead(task);
}

#endif /* TAVO_BPF_COMMON_BPF_H */
