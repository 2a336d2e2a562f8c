#include "util/tavo_dump_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

namespace Tavo::Bpf {

bool ReplaceDumpFile(const std::string& dir, const std::string& path, const std::string& text) {
  mkdir(dir.c_str(), 0775);
  unlink(path.c_str());
  android::base::unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (fd.get() < 0) return false;
  // Write errors are not reported: the file is diagnostic.
  android::base::WriteStringToFd(text, fd.get());
  return true;
}

}  // namespace Tavo::Bpf
