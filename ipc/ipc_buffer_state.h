// A connection's receive or send buffer, and the two exported tests on it.
// Frames are cut out of and written into these buffers by ipc/ipc_frame.h.
#pragma once

#include <cstdint>

#include "util/tavo_export.h"

// Invariant: 0 <= cursor <= length <= capacity. The block belongs to the
// connection that hands the buffer out (IpcConnection); this struct only
// points into it, and its layout is part of the exported interface.
struct TAVO_EXPORT BufferState {
  int64_t cursor = 0;    // first byte not yet consumed (receive) or sent (send)
  int64_t length = 0;    // one past the last valid byte
  int64_t capacity = 0;  // size of the block at data
  char* data = nullptr;
};

// A frame starts with its payload length: a signed 64-bit word.
inline constexpr int64_t kIpcFrameHeaderSize = 8;
// A command package starts with its command code and data length.
inline constexpr int64_t kIpcCommandHeaderSize = 8;

// True when a whole frame starts at the cursor. headerLength is always set
// to 8; bodyLength only when the 8-byte length word is present. A negative
// length word is never complete.
TAVO_EXPORT bool CheckIpcPackageComplete(BufferState* buffer, int64_t& headerLength,
                                         int64_t& bodyLength);
// Moves the bytes [cursor, length) to the front of the block.
TAVO_EXPORT void SaveUnuseBuffer(BufferState* buffer);
