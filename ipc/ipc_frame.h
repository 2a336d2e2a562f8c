// The one frame reader and the one frame writer of the project. Every place
// that cuts a frame out of a BufferState or writes one into it goes through
// here: the package handler, the socket manager, the service's read
// callback and reply, the send queues, and the client library.
//
// On the stream a frame is an 8-byte signed length L and then L payload
// bytes. Every payload this system makes is a command package: a 32-bit
// command code, a 32-bit data length D and the D data bytes (L = 8 + D).
// Integers are in host byte order.
//
// Reading a receive buffer:
//
//   // Each whole frame from the cursor on, the cursor moved past each one.
//   // Stops at a partial frame (result true) or when the visitor returns
//   // false (result false; the cursor stays on that frame).
//   bool ok = ForEachIpcFrame(receive, [&](const IpcFrame& frame) {
//     IpcCommand command;
//     if (!ParseIpcCommand(frame, &command)) return true;  // shorter than 8 bytes
//     if (!command.dataFits()) return true;  // D claims more than the frame holds
//     return handle(command.code, command.data, command.dataLength);
//   });
//
//   // One look at the cursor, nothing moved: kComplete, kPartial, or
//   // kNeverFits when the length word is negative or larger than the whole
//   // buffer could ever hold (the connection can never make progress).
//   IpcFrame frame;
//   IpcFrameStatus status = PeekIpcFrame(receive, &frame);
//
// Writing a send buffer:
//
//   // A frame whose payload is the parts back to back (L = their sum).
//   AppendIpcFrame(send, {{block, blockLength}}, strict);
//   // A command package: L = 8 + D, code, D, then the parts (D = their sum).
//   AppendIpcCommandFrame(send, IPC_COMMAND_RESPONSE, {{&reqId, 4}, {&result, 4}, {&zero, 4}}, true);
//
// Both write the whole frame or nothing. It fits when 8 + L is less than
// capacity - length (strict) or at most capacity - length (not strict); the
// send queue's fillNextIpcPackageToBuffer is strict and
// fillIpcPackageToBuffer is not. The subscription reply above is 28 bytes
// (length 20, command 1, data length 12, reqId, result, 0) and, being
// strict, is written only when capacity - length >= 29.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "ipc/ipc_buffer_state.h"

struct IpcFrame {
  int64_t headerLength = kIpcFrameHeaderSize;
  int64_t bodyLength = 0;   // L, once the length word is there
  char* payload = nullptr;  // the L payload bytes, inside the buffer
};

enum class IpcFrameStatus { kComplete, kPartial, kNeverFits };

IpcFrameStatus PeekIpcFrame(BufferState* buffer, IpcFrame* frame);

template <typename Visit>
bool ForEachIpcFrame(BufferState* buffer, Visit&& visit) {
  IpcFrame frame;
  while (PeekIpcFrame(buffer, &frame) == IpcFrameStatus::kComplete) {
    if (!visit(static_cast<const IpcFrame&>(frame))) return false;
    buffer->cursor += frame.headerLength + frame.bodyLength;
  }
  return true;
}

// The command package inside a payload.
struct IpcCommand {
  uint32_t code = 0;
  uint32_t dataLength = 0;  // D as the package states it
  char* data = nullptr;
  int64_t room = 0;  // payload bytes after the command header
  bool dataFits() const { return dataLength <= room; }
};

// False when the payload is shorter than the command header.
bool ParseIpcCommand(char* payload, int64_t length, IpcCommand* command);
inline bool ParseIpcCommand(const IpcFrame& frame, IpcCommand* command) {
  return ParseIpcCommand(frame.payload, frame.bodyLength, command);
}

struct IpcBytes {
  const void* data;
  size_t size;
};

bool AppendIpcFrame(BufferState* buffer, std::initializer_list<IpcBytes> parts, bool strict);
bool AppendIpcCommandFrame(BufferState* buffer, uint32_t command,
                           std::initializer_list<IpcBytes> parts, bool strict);
// The command header and parts of a command package written to `out`, which
// holds 8 + the parts' sum bytes; returns one past the last byte written.
char* PutIpcCommand(char* out, uint32_t command, std::initializer_list<IpcBytes> parts);
