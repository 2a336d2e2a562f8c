#include "ipc/ipc_buffer_state.h"

#include <cstring>

bool CheckIpcPackageComplete(BufferState* buffer, int64_t& headerLength, int64_t& bodyLength) {
  headerLength = kIpcFrameHeaderSize;
  if (buffer->length - buffer->cursor < kIpcFrameHeaderSize) return false;
  memcpy(&bodyLength, buffer->data + buffer->cursor, sizeof(bodyLength));
  // Negative lengths would move the cursor backwards; comparing against the
  // bytes present keeps a huge length word from overflowing the sum.
  return bodyLength >= 0 && bodyLength <= buffer->length - buffer->cursor - kIpcFrameHeaderSize;
}

void SaveUnuseBuffer(BufferState* buffer) {
  if (buffer->cursor == 0) return;
  const int64_t left = buffer->length - buffer->cursor;
  if (left > 0) memmove(buffer->data, buffer->data + buffer->cursor, static_cast<size_t>(left));
  buffer->length = left;
  buffer->cursor = 0;
}
