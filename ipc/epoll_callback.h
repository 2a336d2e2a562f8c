// The callbacks one descriptor registers with the epoll manager.
#pragma once

#include <sys/epoll.h>

#include <cstdint>
#include <functional>

#include "ipc/ipc_callback_result.h"
#include "util/tavo_export.h"

// Returns an IpcCallbackResult value.
using EpollEventCallback = std::function<int(epoll_event)>;

// An empty callable means the event is not wanted.
struct TAVO_EXPORT EpollCallback {
  EpollEventCallback readable;
  EpollEventCallback writable;
  EpollEventCallback close;
  uint32_t events = 0;  // mask registered for the descriptor (kept by the manager)
  // Set when write readiness is asked for while it is already on, so a
  // writer that just reported "nothing left" does not turn it off under a
  // producer that queued data meanwhile.
  bool writeAgain = false;
};
