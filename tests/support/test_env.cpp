#include "tests/support/test_env.h"

#include <ftw.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android-base/file.h>

#include <atomic>
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

void SetUpIsolation() {
  if (geteuid() != 0) {
    gEnv.whyNot = "needs root for bpffs and tracefs";
    return;
  }
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    gEnv.whyNot = std::string("private namespaces: ") + strerror(errno);
    return;
  }
  gEnv.bpffs = mount("bpf", "/sys/fs/bpf", "bpf", 0, "mode=0700") == 0;
  if (!gEnv.bpffs) gEnv.whyNot = std::string("mounting bpffs: ") + strerror(errno);
  gEnv.tracefs = IsDir("/sys/kernel/tracing") && (access("/sys/kernel/tracing/events", F_OK) == 0 ||
                                                  mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr) == 0);
  if (!gEnv.tracefs && gEnv.whyNot.empty()) gEnv.whyNot = "no tracefs";
}

TempDir::TempDir() {
  char name[] = "/tmp/tavo_test.XXXXXX";
  if (mkdtemp(name) != nullptr) path_ = name;
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  nftw(path_.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); }, 16,
       FTW_DEPTH | FTW_PHYS);
}

void TempDir::Write(const std::string& relative, const std::string& text) const {
  const std::string full = path_ + "/" + relative;
  for (size_t pos = path_.size() + 1; (pos = full.find('/', pos)) != std::string::npos; ++pos) {
    mkdir(full.substr(0, pos).c_str(), 0755);
  }
  android::base::WriteStringToFile(text, full);
}

std::string UniqueName(const std::string& base) {
  static std::atomic<int> counter{0};
  return base + "." + std::to_string(getpid()) + "." + std::to_string(counter++);
}

}  // namespace tavo_test
