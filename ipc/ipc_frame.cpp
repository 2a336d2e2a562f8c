#include "ipc/ipc_frame.h"

#include <cstring>

namespace {

uint64_t SumOf(std::initializer_list<IpcBytes> parts) {
  uint64_t sum = 0;
  for (const IpcBytes& part : parts) sum += part.size;
  return sum;
}

char* PutParts(char* out, std::initializer_list<IpcBytes> parts) {
  for (const IpcBytes& part : parts) {
    if (part.size > 0) memcpy(out, part.data, part.size);
    out += part.size;
  }
  return out;
}

// Writes the length word of a frame of `body` payload bytes and claims its
// room; the payload's place, or nullptr when the frame does not fit by the
// strict or loose test.
char* ClaimFrame(BufferState* buffer, uint64_t body, bool strict) {
  const int64_t room = buffer->capacity - buffer->length;
  if (room < 0 || body > static_cast<uint64_t>(room)) return nullptr;
  const int64_t needed = kIpcFrameHeaderSize + static_cast<int64_t>(body);
  if (strict ? !(needed < room) : !(needed <= room)) return nullptr;
  const auto length = static_cast<int64_t>(body);
  char* out = buffer->data + buffer->length;
  memcpy(out, &length, sizeof(length));
  buffer->length += needed;
  return out + kIpcFrameHeaderSize;
}

}  // namespace

IpcFrameStatus PeekIpcFrame(BufferState* buffer, IpcFrame* frame) {
  if (CheckIpcPackageComplete(buffer, frame->headerLength, frame->bodyLength)) {
    frame->payload = buffer->data + buffer->cursor + frame->headerLength;
    return IpcFrameStatus::kComplete;
  }
  if (buffer->length - buffer->cursor < kIpcFrameHeaderSize) return IpcFrameStatus::kPartial;
  const int64_t body = frame->bodyLength;
  return body < 0 || body > buffer->capacity - kIpcFrameHeaderSize ? IpcFrameStatus::kNeverFits
                                                                    : IpcFrameStatus::kPartial;
}

bool ParseIpcCommand(char* payload, int64_t length, IpcCommand* command) {
  if (length < kIpcCommandHeaderSize) return false;
  memcpy(&command->code, payload, sizeof(command->code));
  memcpy(&command->dataLength, payload + 4, sizeof(command->dataLength));
  command->data = payload + kIpcCommandHeaderSize;
  command->room = length - kIpcCommandHeaderSize;
  return true;
}

char* PutIpcCommand(char* out, uint32_t command, std::initializer_list<IpcBytes> parts) {
  const auto dataLength = static_cast<uint32_t>(SumOf(parts));
  memcpy(out, &command, 4);
  memcpy(out + 4, &dataLength, 4);
  return PutParts(out + kIpcCommandHeaderSize, parts);
}

bool AppendIpcFrame(BufferState* buffer, std::initializer_list<IpcBytes> parts, bool strict) {
  char* payload = ClaimFrame(buffer, SumOf(parts), strict);
  if (payload != nullptr) PutParts(payload, parts);
  return payload != nullptr;
}

bool AppendIpcCommandFrame(BufferState* buffer, uint32_t command,
                           std::initializer_list<IpcBytes> parts, bool strict) {
  char* payload = ClaimFrame(buffer, kIpcCommandHeaderSize + SumOf(parts), strict);
  if (payload != nullptr) PutIpcCommand(payload, command, parts);
  return payload != nullptr;
}
