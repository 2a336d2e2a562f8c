#include "tools/tavo_cli/tavoctl_service_finder.h"

#include <dirent.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/strings.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <vector>

namespace Tavo::Cli {

namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

std::vector<pid_t> ListPids() {
  std::vector<pid_t> pids;
  DirPtr proc(opendir("/proc"));
  if (proc == nullptr) return pids;
  while (dirent* entry = readdir(proc.get())) {
    char* end = nullptr;
    const long pid = strtol(entry->d_name, &end, 10);
    if (*end == '\0' && pid > 0 && pid != getpid()) pids.push_back(static_cast<pid_t>(pid));
  }
  return pids;
}

bool HoldsSocket(pid_t pid, const std::set<unsigned long>& inodes) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  DirPtr fds(opendir(dir.c_str()));
  if (fds == nullptr) return false;
  while (dirent* entry = readdir(fds.get())) {
    std::string target;
    if (!android::base::Readlink(dir + "/" + entry->d_name, &target)) continue;
    if (!android::base::StartsWith(target, "socket:[")) continue;
    const unsigned long inode = strtoul(target.c_str() + 8, nullptr, 10);
    if (inodes.count(inode) != 0) return true;
  }
  return false;
}

}  // namespace

namespace {

// Calls `use(state, inode)` for each line of /proc/net/unix bound to the
// abstract name ("@" + path).
template <typename Use>
void ForEachSocket(const std::string& unixTable, const std::string& path, Use use) {
  // Num RefCount Protocol Flags Type St Inode Path
  std::istringstream lines(unixTable);
  std::string line;
  const std::string wanted = "@" + path;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string num, refs, protocol, flags, type, state, inode, name;
    if (!(fields >> num >> refs >> protocol >> flags >> type >> state >> inode >> name)) continue;
    if (name != wanted) continue;
    char* end = nullptr;
    const unsigned long value = strtoul(inode.c_str(), &end, 10);
    if (*end == '\0' && value != 0) use(state, value);
  }
}

}  // namespace

std::set<unsigned long> SocketInodes(const std::string& unixTable, const std::string& path) {
  std::set<unsigned long> inodes;
  ForEachSocket(unixTable, path, [&](const std::string&, unsigned long inode) { inodes.insert(inode); });
  return inodes;
}

size_t ConnectedSockets(const std::string& unixTable, const std::string& path) {
  size_t count = 0;
  // State 03 is SS_CONNECTED; the listener is 01.
  ForEachSocket(unixTable, path, [&](const std::string& state, unsigned long) { count += state == "03"; });
  return count;
}

pid_t FindServicePid(const std::string& path) {
  std::string table;
  const std::vector<pid_t> pids = ListPids();
  if (android::base::ReadFileToString("/proc/net/unix", &table)) {
    const std::set<unsigned long> inodes = SocketInodes(table, path);
    if (!inodes.empty()) {
      for (pid_t pid : pids) {
        if (HoldsSocket(pid, inodes)) return pid;
      }
    }
  }
  // A service in another network namespace serves another socket.
  std::string ownNet;
  android::base::Readlink("/proc/self/ns/net", &ownNet);
  for (pid_t pid : pids) {
    std::string net;
    const std::string base = "/proc/" + std::to_string(pid);
    if (!ownNet.empty() && android::base::Readlink(base + "/ns/net", &net) && net != ownNet) continue;
    std::string comm;
    if (!android::base::ReadFileToString(base + "/comm", &comm)) continue;
    comm = android::base::Trim(comm);
    if (comm == "tavo_bpfd" || comm == "tavo_host") return pid;
  }
  return -1;
}

}  // namespace Tavo::Cli
