#include "ipc/ipc_package_handler.h"

#include "ipc/ipc_callback_result.h"
#include "ipc/ipc_frame.h"

namespace {
// Unknown codes leave an empty entry behind; past this many entries they are
// ignored without one, so a peer cycling through codes cannot grow the map.
constexpr size_t kMaxHandlerEntries = 256;
}  // namespace

IpcPackageHandler::IpcPackageHandler(const std::map<uint32_t, IpcCommandHandler>& handlers)
    : handlers_(handlers) {}

bool IpcPackageHandler::handleAllIpcPackageInBuffer(int fd, BufferState* receive,
                                                    BufferState* send) {
  return ForEachIpcFrame(receive, [&](const IpcFrame& frame) {
    return handleSecondIpcPackage(fd, frame.payload, static_cast<long>(frame.bodyLength), send) !=
           kIpcCallbackFailed;
  });
}

int IpcPackageHandler::handleSecondIpcPackage(int fd, char* payload, long length,
                                              BufferState* send) {
  IpcCommand command;
  if (!ParseIpcCommand(payload, length, &command)) return kIpcCallbackOk;
  auto it = handlers_.find(command.code);
  if (it == handlers_.end()) {
    if (handlers_.size() < kMaxHandlerEntries) handlers_.emplace(command.code, IpcCommandHandler());
    return kIpcCallbackOk;
  }
  if (!it->second || !command.dataFits()) return kIpcCallbackOk;
  return it->second(fd, command.data, command.dataLength, send);
}
