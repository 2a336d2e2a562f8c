#include "tools/tavo_cli/tavoctl_service_finder.h"

#include <unistd.h>

#include <set>

#include "task/tavo_proc_reader.h"

namespace Tavo::Cli {

pid_t FindServicePid(const std::string& path) {
  const Tavo::Bpf::TavoProcReader reader;
  std::set<unsigned long> inodes;
  size_t connected = 0;
  pid_t found = -1;
  if (reader.UnixSockets(path, &inodes, &connected) && !inodes.empty()) {
    reader.ForEachProcess([&](int32_t pid, const char* name) {
      if (found < 0 && pid != getpid() && reader.HoldsSocket(name, inodes)) found = pid;
    });
    if (found >= 0) return found;
  }
  // A service in another network namespace serves another socket.
  const std::string ownNet = reader.NetNamespace("self");
  std::string comm;
  reader.ForEachProcess([&](int32_t pid, const char* name) {
    if (found >= 0 || pid == getpid()) return;
    if (!ownNet.empty() && reader.NetNamespace(name) != ownNet) return;
    if (reader.ReadName(name, &comm) && (comm == "tavo_bpfd" || comm == "tavo_host")) found = pid;
  });
  return found;
}

}  // namespace Tavo::Cli
