#include "tests/support/test_env.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android-base/file.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace tavo_test {

namespace {
TestEnv gEnv;
}  // namespace

const TestEnv& Env() { return gEnv; }

void SetUpIsolation() {
  const Isolation isolation = EnterPrivateNamespaces(true);
  gEnv.bpffs = isolation.bpffs;
  gEnv.tracefs = isolation.tracefs;
  gEnv.whyNot = isolation.whyNot;
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
