// What `tavoctl top` reads from /proc itself: the table's first scan, one
// look at each process a start notice announced, and the number of clients
// connected to the service's socket. All through the project's /proc reader.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/tavo_cli/tavoctl_top_model.h"

namespace Tavo::Cli {

class TopProc {
 public:
  // Every process in /proc; start times on the model's clock, given its now.
  static std::vector<ProcessRow> Scan(int64_t nowMs);
  // One process; false when it is gone.
  static bool Read(int32_t pid, int64_t nowMs, ProcessRow* row);
  // Clients connected to the abstract socket `path` in this network
  // namespace; -1 when /proc/net/unix cannot be read.
  static int ServiceClients(const std::string& path);
};

}  // namespace Tavo::Cli
