/*
 * The GPL object: dma-buf life cycle and use, process dma-buf totals,
 * cgroup moves, and the dma-buf cleanup at process exit. Its ring feeds the
 * service's "BpfServicePGpl" pump.
 *
 * The dma-buf probes exist once per kernel line ("_6_1", "_6_6") because
 * the attach table picks them by version; with CO-RE the bodies are the
 * same, the kernel's own BTF fixes every field offset at load time.
 */
#include "tavo_bpf_common.bpf.h"

char LICENSE[] SEC("license") = "GPL";

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 16384);
  __type(key, __u64); /* dma-buf inode */
  __type(value, struct tavo_dmabuf_alloc_value);
} dmabuf_allocate_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 8192);
  __type(key, __s32); /* pid */
  __type(value, struct tavo_dmabuf_size_value);
} dmabuf_size_map SEC(".maps");

/* One user mapping of a dma-buf, so that __vm_munmap can name the buffer. */
struct tavo_mmap_key {
  __u64 start;
  __s32 tgid;
  __u32 pad;
};
struct tavo_mmap_value {
  __u64 buf_id;
  __u64 size;
};
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 8192);
  __type(key, struct tavo_mmap_key);
  __type(value, struct tavo_mmap_value);
} dmabuf_mmap_map SEC(".maps");

static __always_inline __u64 tavo_dmabuf_inode(struct dma_buf* dmabuf) {
  return BPF_CORE_READ(dmabuf, file, f_inode, i_ino);
}

static __always_inline void tavo_emit_dmabuf(__u32 type, __s32 pid, __u64 size, __u64 map_key, __u64 buf_id) {
  struct tavo_dmabuf_event* rec = TAVO_RESERVE(struct tavo_dmabuf_event, type);
  if (!rec) return;
  rec->pid = pid;
  rec->pad = 0;
  rec->size = size;
  rec->map_key = map_key;
  rec->buf_id = buf_id;
  bpf_ringbuf_submit(rec, 0);
}

/* Type 4: the kernel side's view of one process's dma-buf total. */
static __always_inline void tavo_emit_dmabuf_total(__s32 pid, __u64 total) {
  struct tavo_dmabuf_size_event* rec = TAVO_RESERVE(struct tavo_dmabuf_size_event, TAVO_EVENT_DMABUF_SIZE_INFO);
  if (!rec) return;
  rec->pid = pid;
  rec->pad = 0;
  rec->total = total;
  bpf_ringbuf_submit(rec, 0);
}

/* Charges (delta > 0) or uncharges a buffer to the process that allocated it. */
static __always_inline void tavo_charge(__s32 pid, __s64 delta) {
  struct tavo_dmabuf_size_value* val = bpf_map_lookup_elem(&dmabuf_size_map, &pid);
  __u64 total;
  if (!val) {
    if (delta <= 0) return;
    struct tavo_dmabuf_size_value init = {.total = (__u64)delta};
    bpf_map_update_elem(&dmabuf_size_map, &pid, &init, BPF_NOEXIST);
    total = (__u64)delta;
  } else {
    __sync_fetch_and_add(&val->total, delta);
    total = val->total;
  }
  if (tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) tavo_emit_dmabuf_total(pid, total);
}

/*
 * At the last thread's exit drop the process's total. When there was one,
 * say so on this ring (type 4, total 0). The process exit record itself
 * comes from the normal object only. Two threads ending at once may both
 * get here; the entry is the claim: only the one whose delete removes it
 * reports.
 */
SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(struct trace_event_raw_sched_process_exit* ctx) {
  struct task_struct* task = (struct task_struct*)bpf_get_current_task();
  if (!tavo_exit_may_end_process(ctx, task)) return 0;
  __s32 tgid = (__s32)tavo_current_tgid();
  if (bpf_map_delete_elem(&dmabuf_size_map, &tgid) != 0) return 0;
  if (tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) tavo_emit_dmabuf_total(tgid, 0);
  return 0;
}

SEC("tracepoint/cgroup/cgroup_attach_task")
int cgroup_cgroup_attach_task(struct trace_event_raw_cgroup_migrate* ctx) {
  if (!tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;
  struct tavo_cgroup_attach_event* rec =
      TAVO_RESERVE(struct tavo_cgroup_attach_event, TAVO_EVENT_CGROUP_ATTACH_CPUSET_INFO);
  if (!rec) return 0;
  /* The tracepoint names the moved task (the leader when a whole process
   * moves) by its thread id; pid carries the same id. */
  rec->tid = ctx->pid;
  rec->pid = ctx->pid;
  rec->dst_root = ctx->dst_root;
  rec->dst_level = ctx->dst_level;
  rec->dst_id = ctx->dst_id;
  __u32 path_loc = ctx->__data_loc_dst_path;
  __u32 comm_loc = ctx->__data_loc_comm;
  /* The string reads stop at the NUL; the ring memory after it is stale. */
  __builtin_memset(rec->dst_path, 0, sizeof(rec->dst_path));
  __builtin_memset(rec->comm, 0, sizeof(rec->comm));
  bpf_probe_read_kernel_str(rec->dst_path, sizeof(rec->dst_path), (char*)ctx + (path_loc & 0xffff));
  bpf_probe_read_kernel_str(rec->comm, sizeof(rec->comm), (char*)ctx + (comm_loc & 0xffff));
  bpf_ringbuf_submit(rec, 0);
  return 0;
}

/* --- dma-buf creation and release ------------------------------------- */

/* "0" probes keep the allocation map and the per-process totals. */
static __always_inline int tavo_setup_account(struct dma_buf* dmabuf, struct file* file) {
  __u64 ino = BPF_CORE_READ(file, f_inode, i_ino);
  if (!ino) return 0;
  struct tavo_dmabuf_alloc_value alloc = {.pid = (__s32)tavo_current_tgid(), .size = BPF_CORE_READ(dmabuf, size)};
  bpf_map_update_elem(&dmabuf_allocate_map, &ino, &alloc, BPF_ANY);
  tavo_charge(alloc.pid, (__s64)alloc.size);
  return 0;
}

static __always_inline int tavo_release_account(struct inode* inode) {
  __u64 ino = BPF_CORE_READ(inode, i_ino);
  struct tavo_dmabuf_alloc_value* alloc = bpf_map_lookup_elem(&dmabuf_allocate_map, &ino);
  if (!alloc) return 0;
  __s32 pid = alloc->pid;
  __s64 size = (__s64)alloc->size;
  bpf_map_delete_elem(&dmabuf_allocate_map, &ino);
  tavo_charge(pid, -size);
  return 0;
}

/* Plain probes publish the event itself. */
static __always_inline int tavo_setup_event(struct dma_buf* dmabuf, struct file* file) {
  if (!tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;
  tavo_emit_dmabuf(TAVO_EVENT_DMABUF_SETUP, (__s32)tavo_current_tgid(), BPF_CORE_READ(dmabuf, size), 0,
                   BPF_CORE_READ(file, f_inode, i_ino));
  return 0;
}

static __always_inline int tavo_release_event(struct inode* inode, struct file* file) {
  if (!tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;
  struct dma_buf* dmabuf = BPF_CORE_READ(file, private_data);
  tavo_emit_dmabuf(TAVO_EVENT_DMABUF_RELEASE, (__s32)tavo_current_tgid(), dmabuf ? BPF_CORE_READ(dmabuf, size) : 0,
                   0, BPF_CORE_READ(inode, i_ino));
  return 0;
}

/* Attach, detach, vmap and vunmap: one use more or fewer by the current process. */
static __always_inline int tavo_use_event(struct dma_buf* dmabuf, __u32 type) {
  if (!tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;
  tavo_emit_dmabuf(type, (__s32)tavo_current_tgid(), BPF_CORE_READ(dmabuf, size), 0, tavo_dmabuf_inode(dmabuf));
  return 0;
}

static __always_inline int tavo_mmap_event(struct file* file, struct vm_area_struct* vma) {
  if (!tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;
  struct dma_buf* dmabuf = BPF_CORE_READ(file, private_data);
  if (!dmabuf) return 0;
  struct tavo_mmap_key key = {.start = BPF_CORE_READ(vma, vm_start), .tgid = (__s32)tavo_current_tgid()};
  struct tavo_mmap_value val = {.buf_id = BPF_CORE_READ(file, f_inode, i_ino), .size = BPF_CORE_READ(dmabuf, size)};
  bpf_map_update_elem(&dmabuf_mmap_map, &key, &val, BPF_ANY);
  tavo_emit_dmabuf(TAVO_EVENT_DMABUF_MMAP, key.tgid, val.size, key.start, val.buf_id);
  return 0;
}

#define TAVO_SETUP_PROBES(ver)                                                          \
  SEC("kprobe/enter_dma_buf_stats_setup0_" #ver)                                       \
  int BPF_KPROBE(enter_dma_buf_stats_setup0_##ver, struct dma_buf* dmabuf, struct file* file) { \
    return tavo_setup_account(dmabuf, file);                                            \
  }                                                                                     \
  SEC("kprobe/enter_dma_buf_stats_setup_" #ver)                                        \
  int BPF_KPROBE(enter_dma_buf_stats_setup_##ver, struct dma_buf* dmabuf, struct file* file) { \
    return tavo_setup_event(dmabuf, file);                                              \
  }                                                                                     \
  SEC("kprobe/enter_dma_buf_file_release0_" #ver)                                      \
  int BPF_KPROBE(enter_dma_buf_file_release0_##ver, struct inode* inode, struct file* file) { \
    return tavo_release_account(inode);                                                 \
  }                                                                                     \
  SEC("kprobe/enter_dma_buf_file_release_" #ver)                                       \
  int BPF_KPROBE(enter_dma_buf_file_release_##ver, struct inode* inode, struct file* file) { \
    return tavo_release_event(inode, file);                                             \
  }

#define TAVO_USE_PROBE(fn, ver, type)                                                   \
  SEC("kprobe/enter_" #fn "_" #ver)                                                    \
  int BPF_KPROBE(enter_##fn##_##ver, struct dma_buf* dmabuf) { return tavo_use_event(dmabuf, type); }

#define TAVO_MMAP_PROBE(ver)                                                            \
  SEC("kprobe/enter_dma_buf_mmap_internal_" #ver)                                      \
  int BPF_KPROBE(enter_dma_buf_mmap_internal_##ver, struct file* file, struct vm_area_struct* vma) { \
    return tavo_mmap_event(file, vma);                                                  \
  }

#define TAVO_VERSION_PROBES(ver)                                \
  TAVO_SETUP_PROBES(ver)                                        \
  TAVO_USE_PROBE(dma_buf_attach, ver, TAVO_EVENT_DMABUF_ATTACH) \
  TAVO_USE_PROBE(dma_buf_detach, ver, TAVO_EVENT_DMABUF_DETACH) \
  TAVO_USE_PROBE(dma_buf_vmap, ver, TAVO_EVENT_DMABUF_VMAP)     \
  TAVO_USE_PROBE(dma_buf_vunmap, ver, TAVO_EVENT_DMABUF_VUNMAP) \
  TAVO_MMAP_PROBE(ver)

TAVO_VERSION_PROBES(6_1)
TAVO_VERSION_PROBES(6_6)

/* Only unmaps of a mapping that dma_buf_mmap_internal recorded are reported. */
SEC("kprobe/enter___vm_munmap")
int BPF_KPROBE(enter___vm_munmap, unsigned long start, size_t len) {
  struct tavo_mmap_key key = {.start = start, .tgid = (__s32)tavo_current_tgid()};
  struct tavo_mmap_value* val = bpf_map_lookup_elem(&dmabuf_mmap_map, &key);
  if (!val) return 0;
  struct tavo_mmap_value found = *val;
  bpf_map_delete_elem(&dmabuf_mmap_map, &key);
  if (!tavo_enabled(TAVO_STATUS_NORMAL_ENABLED)) return 0;
  tavo_emit_dmabuf(TAVO_EVENT_DMABUF_MUNMAP, key.tgid, found.size, start, found.buf_id);
  return 0;
}
