// Per-connection byte buffers and the frame test on them.
#pragma once

#include <cstdint>

#include "util/tavo_export.h"

// One connection's receive or send buffer. Invariant:
// 0 <= cursor <= length <= capacity.
struct TAVO_EXPORT BufferState {
  int64_t cursor = 0;    // first byte not yet consumed (read) or sent (write)
  int64_t length = 0;    // one past the last valid byte
  int64_t capacity = 0;  // size of data
  char* data = nullptr;  // malloc'd block of capacity bytes
};

// Length of the frame header: a signed 64-bit payload length.
inline constexpr int64_t kIpcFrameHeaderSize = 8;
// Command package header inside a frame: command code and data length.
inline constexpr int64_t kIpcCommandHeaderSize = 8;

// True when a whole frame starts at the cursor. headerLength is always set
// to 8; bodyLength only when the 8-byte length word is present.
TAVO_EXPORT bool CheckIpcPackageComplete(BufferState* buffer, int64_t& headerLength,
                                         int64_t& bodyLength);
// Moves the bytes [cursor, length) to the front of the block.
TAVO_EXPORT void SaveUnuseBuffer(BufferState* buffer);
