// What a socket manager is made with, and what its accept path counts.
#pragma once

#include <sched.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "ipc/ipc_handler_state.h"
#include "ipc/ipc_peer_policy.h"

struct UnixIpcOptions {
  bool isServer = true;
  // Capacity of each connection buffer, and its SO_SNDBUF and SO_RCVBUF.
  int bufferSize = 32768;
  std::string path;  // abstract socket name
  IpcHandlerState handlers;
  // The loop thread's name and the log tag.
  std::string name = "BpfUtils";
  std::optional<cpu_set_t> cpus;  // unset: the constructing thread's
  int epollSize = 10;
  int maxEvents = 32;
  // Server mode. Connections kept at once; a peer past the limit is
  // accepted and closed at once.
  size_t maxConnections = 1024;
  // Who may connect, checked at accept (everyone by default).
  IpcPeerPolicy peerPolicy;
  // When accept finds the process (or system) out of descriptors, the
  // listener is left unwatched this long instead of being retried at once.
  int acceptBackoffMs = 100;
};

// What the accept path refused, since the manager was made.
struct IpcAcceptStats {
  uint64_t refusedPeers = 0;   // not allowed by the peer policy
  uint64_t overLimit = 0;      // past maxConnections
  uint64_t pauses = 0;         // accept back-offs for want of descriptors
};
