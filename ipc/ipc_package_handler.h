// Cuts frames out of a receive buffer and dispatches their command packages
// by command code. Used on the socket thread only; the map has no lock.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "ipc/ipc_buffer_state.h"
#include "util/tavo_export.h"

// (fd, data, data length, the connection's send buffer); -1 stops the
// processing of the receive buffer.
using IpcCommandHandler = std::function<int(int, char*, int64_t, BufferState*)>;

class TAVO_EXPORT IpcPackageHandler {
 public:
  explicit IpcPackageHandler(const std::map<uint32_t, IpcCommandHandler>& handlers);

  // Handles every whole frame from the cursor on. False when a handler
  // returned -1; the cursor then stays on that frame.
  bool handleAllIpcPackageInBuffer(int fd, BufferState* receive, BufferState* send);
  // One frame's payload. A payload shorter than its command header, an
  // unknown code, an empty handler or a data length past the payload is
  // consumed without a call (0).
  int handleSecondIpcPackage(int fd, char* payload, long length, BufferState* send);
  // Entries in the handler map, including the empty ones left by unknown codes.
  size_t getHandlerCount() const { return handlers_.size(); }

 private:
  std::map<uint32_t, IpcCommandHandler> handlers_;
};
