// The bare consumer's record, shared by its BPF program and its reader.
#pragma once

#ifdef __cplusplus
#include <cstdint>
#include <cstddef>
#define BARE_U32 uint32_t
#define BARE_S32 int32_t
#define BARE_U64 uint64_t
#else
#define BARE_U32 __u32
#define BARE_S32 __s32
#define BARE_U64 __u64
#endif

enum { BARE_FORK = 1, BARE_EXIT = 2 };

struct bare_record {
  BARE_U32 kind;
  BARE_S32 pid;
  BARE_S32 ppid;
  BARE_U32 pad;
  BARE_U64 ts;  // bpf_ktime_get_ns
  char comm[16];
};

#ifdef __cplusplus
static_assert(sizeof(bare_record) == 40, "one 40-byte record per event");
static_assert(offsetof(bare_record, ts) == 16 && offsetof(bare_record, comm) == 24, "record layout");
#endif
