#include "tests/support/test_env.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavo_test {

namespace {
TestEnv gEnv;

bool IsDir(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}
}  // namespace

const TestEnv& Env() { return gEnv; }

TestEnv SetUpIsolation() {
  TestEnv env;
  env.root = geteuid() == 0;
  if (!env.root) {
    env.whyNot = "needs root for private namespaces";
    return env;
  }
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
    env.whyNot = std::string("unshare failed: ") + strerror(errno);
    return env;
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    env.whyNot = std::string("making / private failed: ") + strerror(errno);
    return env;
  }
  env.isolated = true;
  if (mount("bpf", "/sys/fs/bpf", "bpf", 0, "mode=0700") == 0) {
    env.bpffs = true;
  } else {
    env.whyNot = std::string("mounting bpffs failed: ") + strerror(errno);
  }
  if (IsDir("/sys/kernel/tracing") &&
      (access("/sys/kernel/tracing/events", F_OK) == 0 ||
       mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr) == 0)) {
    env.tracefs = true;
  }
  // /data exists on a device; on a host the CTest fixture creates it.
  if (IsDir("/data") && mount("tmpfs", "/data", "tmpfs", 0, "mode=0755,size=64m") == 0) {
    env.dataTmpfs = true;
  } else if (env.whyNot.empty()) {
    env.whyNot = "no /data mount point (run through CTest, which creates it)";
  }
  gEnv = env;
  return env;
}

}  // namespace tavo_test
