// Finds the process that serves the event socket.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>

namespace Tavo::Cli {

// Inodes of the sockets bound to the abstract name (as /proc/net/unix lists
// them, "@" + path): the listening socket and the connections it accepted.
std::set<unsigned long> SocketInodes(const std::string& unixTable, const std::string& path);
// How many of them are connections (the clients the service accepted).
size_t ConnectedSockets(const std::string& unixTable, const std::string& path);
// The process holding the service's socket; failing that, one named
// tavo_bpfd or tavo_host in the same network namespace. -1 when none is found.
pid_t FindServicePid(const std::string& path);

}  // namespace Tavo::Cli
