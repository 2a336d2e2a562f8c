#include "ipc/ipc_package_handler.h"

#include <cstring>

namespace {
// Unknown codes leave an empty entry behind; past this many entries they are
// ignored without one, so a peer cycling through codes cannot grow the map.
constexpr size_t kMaxHandlerEntries = 256;
}  // namespace

IpcPackageHandler::IpcPackageHandler(const std::map<uint32_t, IpcCommandHandler>& handlers)
    : handlers(handlers) {}

bool IpcPackageHandler::handleAllIpcPackageInBuffer(int fd, BufferState* receive,
                                                    BufferState* send) {
  while (receive->cursor < receive->length) {
    int64_t headerLength = 0;
    int64_t bodyLength = 0;
    if (!CheckIpcPackageComplete(receive, headerLength, bodyLength)) return true;
    const int result = handleSecondIpcPackage(fd, receive->data + receive->cursor + headerLength,
                                              static_cast<long>(bodyLength), send);
    if (result == -1) return false;
    receive->cursor += headerLength + bodyLength;
  }
  return true;
}

int IpcPackageHandler::handleSecondIpcPackage(int fd, char* payload, long length,
                                              BufferState* send) {
  // A payload too short for the command header carries no package.
  if (length < kIpcCommandHeaderSize) return 0;
  uint32_t command = 0;
  uint32_t dataLength = 0;
  memcpy(&command, payload, sizeof(command));
  memcpy(&dataLength, payload + 4, sizeof(dataLength));
  auto it = handlers.find(command);
  if (it == handlers.end()) {
    if (handlers.size() < kMaxHandlerEntries) handlers.emplace(command, IpcCommandHandler());
    return 0;
  }
  if (!it->second) return 0;
  // Never hand on more data than the frame holds.
  if (static_cast<int64_t>(dataLength) > length - kIpcCommandHeaderSize) return 0;
  return it->second(fd, payload + kIpcCommandHeaderSize, static_cast<int64_t>(dataLength), send);
}
