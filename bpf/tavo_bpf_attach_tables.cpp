// Which pinned programs each object attaches, to which hook, on which kernels.
#include "bpf/tavo_bpf_attach_tables.h"

#include <algorithm>

#include "bpf/tavo_bpf_pins.h"

namespace Tavo::Bpf {

const BpfAttachTable PROG_EVENT_MAP = {
    {kNormalObject,
     {
         {kAttachTracepoint,
          {
              {"sched_sched_switch", "sched", "sched_switch", "5.0+"},
              {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
              {"sched_sched_process_fork", "sched", "sched_process_fork", "5.0+"},
              {"kmem_rss_stat", "kmem", "rss_stat", "5.0+"},
          }},
         {kAttachKprobe, {{"enter_fd_install", "fd_install", "", "5.0+"}}},
         {kAttachKretprobe, {{"return_filp_close", "filp_close", "", "5.0+"}}},
     }},
};

const BpfAttachTable PROG_GPL_EVENT_MAP = {
    {kGplObject,
     {
         {kAttachTracepoint,
          {
              {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
              {"cgroup_cgroup_attach_task", "cgroup", "cgroup_attach_task", "5.0+"},
          }},
         {kAttachKprobe,
          {
              {"enter_dma_buf_file_release0_6_1", "dma_buf_file_release", "", "6.1"},
              {"enter_dma_buf_stats_setup0_6_1", "dma_buf_stats_setup", "", "6.1"},
              {"enter_dma_buf_file_release0_6_6", "dma_buf_file_release", "", "6.6"},
              {"enter_dma_buf_stats_setup0_6_6", "dma_buf_stats_setup", "", "6.6"},
              {"enter_dma_buf_file_release_6_1", "dma_buf_file_release", "", "6.1"},
              {"enter_dma_buf_file_release_6_6", "dma_buf_file_release", "", "6.6"},
              {"enter_dma_buf_stats_setup_6_1", "dma_buf_stats_setup", "", "6.1"},
              {"enter_dma_buf_stats_setup_6_6", "dma_buf_stats_setup", "", "6.6"},
              {"enter_dma_buf_attach_6_1", "dma_buf_attach", "", "6.1"},
              {"enter_dma_buf_attach_6_6", "dma_buf_attach", "", "6.6"},
              {"enter_dma_buf_detach_6_1", "dma_buf_detach", "", "6.1"},
              {"enter_dma_buf_detach_6_6", "dma_buf_detach", "", "6.6"},
              {"enter_dma_buf_vmap_6_1", "dma_buf_vmap", "", "6.1"},
              {"enter_dma_buf_vmap_6_6", "dma_buf_vmap", "", "6.6"},
              {"enter_dma_buf_vunmap_6_1", "dma_buf_vunmap", "", "6.1"},
              {"enter_dma_buf_vunmap_6_6", "dma_buf_vunmap", "", "6.6"},
              {"enter_dma_buf_mmap_internal_6_1", "dma_buf_mmap_internal", "", "6.1"},
              {"enter_dma_buf_mmap_internal_6_6", "dma_buf_mmap_internal", "", "6.6"},
              {"enter___vm_munmap", "__vm_munmap", "", "6.1-6.6"},
          }},
     }},
};

int AttachRowsVersion(int kernelVersion, const std::string& dmabufRows) {
  if (dmabufRows.empty()) return kernelVersion;
  // The lines the tables name by themselves ("6.1", "6.6"): bare rules.
  int newest = 0;
  bool named = false;
  const int wanted = convertVersionToInt(dmabufRows);
  for (const BpfAttachTable* table : {&PROG_EVENT_MAP, &PROG_GPL_EVENT_MAP}) {
    for (const auto& [object, byType] : *table) {
      for (const auto& [type, rows] : byType) {
        for (const BpfAttachRow& row : rows) {
          if (row.size() != 4 || row[3].empty() || row[3].find_first_of("+-") != std::string::npos) continue;
          const int line = convertVersionToInt(row[3]);
          newest = std::max(newest, line);
          named |= line == wanted;
        }
      }
    }
  }
  return named && kernelVersion > newest ? wanted : kernelVersion;
}

}  // namespace Tavo::Bpf
