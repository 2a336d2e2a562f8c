// Finds the process that serves the event socket.
#pragma once

#include <sys/types.h>

#include <string>

namespace Tavo::Cli {

// The process holding the service's socket (its inodes from /proc/net/unix,
// matched against every process's descriptors); failing that, one named
// tavo_bpfd or tavo_host in the same network namespace. -1 when none is
// found.
pid_t FindServicePid(const std::string& path);

}  // namespace Tavo::Cli
