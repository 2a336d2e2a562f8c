// Cuts frames out of a receive buffer and dispatches them by command code.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "ipc/ipc_buffer_state.h"
#include "util/tavo_export.h"

using IpcCommandHandler = std::function<int(int, char*, int64_t, BufferState*)>;

class TAVO_EXPORT IpcPackageHandler {
 public:
  explicit IpcPackageHandler(const std::map<uint32_t, IpcCommandHandler>& handlers);

  bool handleAllIpcPackageInBuffer(int fd, BufferState* receive, BufferState* send);
  int handleSecondIpcPackage(int fd, char* payload, long length, BufferState* send);
  // Entries in the handler map, including the empty ones left by unknown codes.
  size_t getHandlerCount() const { return handlers.size(); }

 private:
  std::map<uint32_t, IpcCommandHandler> handlers;
};
