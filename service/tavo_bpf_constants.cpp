// Path templates and status-file prefixes of the service.
#include "service/tavo_bpf_service.h"

namespace Tavo::Bpf {

const char* const TavoBpfService::SOCKET_PATH = "/mnt/bpfframework/tavobpfdispatcher";
const std::string TavoBpfService::BPF_FS_PATH = "/sys/fs/bpf/tavo/";
const std::string TavoBpfService::TAVO_BPF_READY = "sys.tavo_bpf_ready";
const std::string TavoBpfService::PROC_FS_PATH = "/proc";
const std::string TavoBpfService::SUBTASK_PATH_TEMPLATE = PROC_FS_PATH + "/%s/task";
const std::string TavoBpfService::TASK_STATUS_TEMPLATE = PROC_FS_PATH + "/%s/status";
const std::string TavoBpfService::TASK_STATUS_PID_TEMPLATE = PROC_FS_PATH + "/%d/status";
const std::string TavoBpfService::TASK_STAT_TEMPLATE = PROC_FS_PATH + "/%s/stat";
const std::string TavoBpfService::TASK_MAPS_TEMPLATE = PROC_FS_PATH + "/%s/maps";
const std::string TavoBpfService::TASK_FD_TEMPLATE = PROC_FS_PATH + "/%s/fd";
const std::string TavoBpfService::TASK_FDINFO_TEMPLATE = PROC_FS_PATH + "/%s/fdinfo/%s";
const std::string TavoBpfService::TASK_COMM_PREFIX = "Name:\t";
const std::string TavoBpfService::TASK_PPID_PREFIX = "PPid:\t";
const std::string TavoBpfService::TASK_RSS_ANON_PREFIX = "RssAnon:\t";
const std::string TavoBpfService::TASK_RSS_FILE_PREFIX = "RssFile:\t";
const std::string TavoBpfService::TASK_RSS_SHMEM_PREFIX = "RssShmem:\t";
const std::string TavoBpfService::TASK_VM_SWAP_PREFIX = "VmSwap:\t";
const std::string TavoBpfService::TASK_PROC_UID_PREFIX = "Uid:\t";
const std::string TavoBpfService::TASK_DMABUF_PREFIX = "/dmabuf";
const std::string TavoBpfService::TASK_DMABUF_SIZE_PREFIX = "size:\t";
const std::string TavoBpfService::TASK_DMABUF_INO_PREFIX = "ino:\t";

}  // namespace Tavo::Bpf
