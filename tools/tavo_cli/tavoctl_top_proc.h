// What `tavoctl top` reads from /proc itself: the table's first scan, one
// look at each process a start notice announced, and the number of clients
// connected to the service's socket.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/tavo_cli/tavoctl_top_model.h"

namespace Tavo::Cli {

class ProcReader {
 public:
  // Every process in /proc; start times on the model's clock, given its now.
  static std::vector<ProcessRow> Scan(int64_t nowMs);
  // One process; false when it is gone.
  static bool Read(int32_t pid, int64_t nowMs, ProcessRow* row);
  // Clients connected to the abstract socket `path` in this network
  // namespace (each accepted connection is listed under the socket's name);
  // -1 when /proc/net/unix cannot be read.
  static int ServiceClients(const std::string& path);
  // The fields of a /proc/PID/stat line: ppid, name, threads and start
  // (clock ticks since boot). False for a malformed line.
  static bool ParseStat(const std::string& text, ProcessRow* row, uint64_t* startTicks);
};

}  // namespace Tavo::Cli
