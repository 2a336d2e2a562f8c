// Seeding of the pinned open-fd and dma-buf maps with the state that existed
// before the kernel-side programs started to count.
#include <bcc/libbpf.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "bpf/tavo_bpf_records.h"
#include "service/tavo_bpf_service.h"
#include "util/tavo_log.h"
#include "util/tavo_strings.h"
#include "util/tavo_time.h"

namespace Tavo::Bpf {

namespace {

constexpr const char* kOpenFdMapPath = "/sys/fs/bpf/tavo/map_TavoBpfDefineset_open_fd_caller_map";
constexpr const char* kDmabufAllocateMapPath = "/sys/fs/bpf/tavo/map_TavoBpfGplDefineset_dmabuf_allocate_map";
constexpr const char* kDmabufSizeMapPath = "/sys/fs/bpf/tavo/map_TavoBpfGplDefineset_dmabuf_size_map";
constexpr int kBpfMapUpdateElem = 2;
constexpr size_t kBpfAttrSize = 144;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// BPF_MAP_UPDATE_ELEM with BPF_ANY, straight through the system call.
int UpdateMapElem(int mapFd, const void* key, const void* value) {
  alignas(8) char attr[kBpfAttrSize] = {};
  const uint32_t fd = static_cast<uint32_t>(mapFd);
  const uint64_t keyPtr = reinterpret_cast<uintptr_t>(key);
  const uint64_t valuePtr = reinterpret_cast<uintptr_t>(value);
  const uint64_t flags = 0;
  memcpy(attr, &fd, sizeof(fd));
  memcpy(attr + 8, &keyPtr, sizeof(keyPtr));
  memcpy(attr + 16, &valuePtr, sizeof(valuePtr));
  memcpy(attr + 24, &flags, sizeof(flags));
  return static_cast<int>(syscall(__NR_bpf, kBpfMapUpdateElem, attr, kBpfAttrSize));
}

// A pinned object's descriptor, or -1 with errno set. The libbpf flavour of
// bpf_obj_get returns -errno instead of -1; logs and callers expect -1.
int OpenPinned(const char* path) {
  const int fd = bpf_obj_get(path);
  if (fd >= 0) return fd;
  if (fd < -1) errno = -fd;
  return -1;
}

// The whole file, or false when it cannot be opened.
bool ReadWholeFile(const std::string& path, std::string* out) {
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd < 0) return false;
  out->clear();
  char chunk[4096];
  for (;;) {
    const ssize_t n = read(fd.get(), chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out->append(chunk, static_cast<size_t>(n));
  }
  return true;
}

bool IsProcessEntry(const dirent* entry) {
  return entry->d_name[0] >= '0' && entry->d_name[0] <= '9' && IsDigits(entry->d_name);
}

}  // namespace

int TavoBpfService::initFdBpfProg() {
  TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] update open_fd_caller_map !");
  android::base::unique_fd mapFd(OpenPinned(kOpenFdMapPath));
  if (mapFd < 0) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] get map_TavoBpfDefineset_open_fd_caller_map(%d) failed! %s",
              mapFd.get(), strerror(errno));
    return -1;
  }
  DirPtr proc(opendir(PROC_FS_PATH.c_str()));
  if (!proc) return 0;
  // One record for every process, never cleared between them: a name
  // shorter than an earlier one keeps that name's tail.
  tavo_open_fd_value value{};
  std::string status;
  while (const dirent* entry = readdir(proc.get())) {
    if (!IsProcessEntry(entry)) continue;
    if (ReadWholeFile(StringPrintf(TASK_STATUS_TEMPLATE.c_str(), entry->d_name), &status)) {
      size_t begin = 0;
      while (begin < status.size()) {
        size_t end = status.find('\n', begin);
        if (end == std::string::npos) end = status.size();
        const std::string_view line(status.data() + begin, end - begin);
        if (line.find(TASK_COMM_PREFIX) != std::string_view::npos) {
          const size_t skip = std::min(TASK_COMM_PREFIX.size(), line.size());
          memcpy(value.comm, line.data() + skip, std::min(sizeof(value.comm), line.size() - skip));
          value.comm[sizeof(value.comm) - 1] = '\0';
        }
        begin = end + 1;
      }
    }
    DirPtr fds(opendir(StringPrintf(TASK_FD_TEMPLATE.c_str(), entry->d_name).c_str()));
    if (!fds) continue;
    uint64_t count = 0;
    while (const dirent* fd = readdir(fds.get())) {
      if (fd->d_name[0] != '.') ++count;
    }
    const int32_t pid = atoi(entry->d_name);
    value.pid = pid;
    value.fd_count = count;
    value.fd_count_again = count;
    if (UpdateMapElem(mapFd.get(), &pid, &value) == -1) {
      TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] update open_fd_caller_map failed! %s", strerror(errno));
    }
  }
  return 0;
}

int TavoBpfService::initDmabufBpfProg() {
  android::base::unique_fd allocateFd(OpenPinned(kDmabufAllocateMapPath));
  int openErrno = allocateFd < 0 ? errno : 0;
  android::base::unique_fd sizeFd(OpenPinned(kDmabufSizeMapPath));
  if (sizeFd < 0 && openErrno == 0) openErrno = errno;
  if (allocateFd < 0 || sizeFd < 0) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] get dmabufAllocateMap(%d) or dmabufSizeMap(%d) failed! %s",
              allocateFd.get(), sizeFd.get(), strerror(openErrno));
    return -1;
  }
  DirPtr proc(opendir(PROC_FS_PATH.c_str()));
  if (!proc) return 0;
  char target[PATH_MAX];
  while (const dirent* entry = readdir(proc.get())) {
    if (!IsProcessEntry(entry)) continue;
    const int32_t pid = atoi(entry->d_name);
    int64_t total = 0;
    // An exit noted before this moment belongs to an earlier process with
    // this pid and must not take the entries found now.
    const uint64_t seenAt = static_cast<uint64_t>(GetSystemBootNanosencondsTime());
    DirPtr fds(opendir(StringPrintf(TASK_FD_TEMPLATE.c_str(), entry->d_name).c_str()));
    if (!fds) continue;
    while (const dirent* fd = readdir(fds.get())) {
      if (fd->d_name[0] == '.') continue;
      const ssize_t length = readlinkat(dirfd(fds.get()), fd->d_name, target, sizeof(target) - 1);
      if (length < 0) continue;
      target[length] = '\0';
      if (strstr(target, TASK_DMABUF_PREFIX.c_str()) == nullptr) continue;
      const std::string fdinfo = StringPrintf(TASK_FDINFO_TEMPLATE.c_str(), entry->d_name, fd->d_name);
      const long size = GetFdSize(fdinfo);
      const uint64_t inode = GetFdInode(fdinfo);
      if (inode == 0) continue;
      // A second descriptor of a buffer does not raise the process's use.
      processDmabufRefs[pid].try_emplace(inode, 1);
      processDmabufLastUseTs.insert_or_assign(pid, seenAt);
      dmabufSizes.insert_or_assign(inode, static_cast<uint64_t>(size));
      tavo_dmabuf_alloc_value allocation{};
      allocation.pid = pid;
      allocation.size = static_cast<uint64_t>(size);
      if (UpdateMapElem(allocateFd.get(), &inode, &allocation) == -1) {
        TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] update dmabuf allocate map failed! %s", strerror(errno));
      }
      // Every descriptor counts, so a buffer open twice counts twice.
      total += size;
    }
    if (total == 0) continue;
    tavo_dmabuf_size_value sizeValue{};
    sizeValue.total = static_cast<uint64_t>(total);
    if (UpdateMapElem(sizeFd.get(), &pid, &sizeValue) == -1) {
      TAVO_LOGE(kServiceTag, "[TavoBpfService][INIT] update process - dmabuf size map failed! %s",
                strerror(errno));
    }
    processDmabufTotals.insert_or_assign(pid, total);
  }
  return 0;
}

}  // namespace Tavo::Bpf
