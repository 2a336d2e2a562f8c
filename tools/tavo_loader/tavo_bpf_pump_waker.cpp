#include "tools/tavo_loader/tavo_bpf_pump_waker.h"

#include <bpf/bpf.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include "bpf/tavo_bpf_records.h"

namespace Tavo::Loader {

int WakePumps(const std::string& pinDir) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  android::base::unique_fd readEnd(fds[0]), writeEnd(fds[1]);
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    prctl(PR_SET_NAME, "tavo_bpfd_wake");
    writeEnd.reset();
    char c;
    (void)!read(readEnd.get(), &c, 1);  // wait until the map entry is in place
    _exit(0);
  }
  readEnd.reset();
  android::base::unique_fd sizeMap(
      bpf_obj_get((pinDir + "/map_TavoBpfGplDefineset_dmabuf_size_map").c_str()));
  if (sizeMap >= 0) {
    const __s32 key = child;
    const tavo_dmabuf_size_value value{};
    bpf_map_update_elem(sizeMap.get(), &key, &value, BPF_ANY);
  }
  writeEnd.reset();  // EOF releases the child
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return 0;
}

}  // namespace Tavo::Loader
