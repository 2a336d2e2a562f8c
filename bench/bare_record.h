// The bare consumer's record, shared by its BPF program and its reader.
#pragma once

#ifdef __cplusplus
#include <linux/types.h>

#include <cstddef>
#endif

enum { BARE_FORK = 1, BARE_EXIT = 2 };

struct bare_record {
  __u32 kind;
  __s32 pid;
  __s32 ppid;
  __u32 pad;
  __u64 ts;  // bpf_ktime_get_ns
  char comm[16];
};

#ifdef __cplusplus
static_assert(sizeof(bare_record) == 40, "one 40-byte record per event");
static_assert(offsetof(bare_record, ts) == 16 && offsetof(bare_record, comm) == 24, "record layout");
#endif
