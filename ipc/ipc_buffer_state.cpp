#include "ipc/ipc_buffer_state.h"

#include <cstring>

bool CheckIpcPackageComplete(BufferState* buffer, int64_t& headerLength, int64_t& bodyLength) {
  headerLength = kIpcFrameHeaderSize;
  if (buffer->cursor + kIpcFrameHeaderSize > buffer->length) return false;
  memcpy(&bodyLength, buffer->data + buffer->cursor, sizeof(bodyLength));
  // A negative length can never describe a frame; report it incomplete so
  // the cursor never moves backwards.
  if (bodyLength < 0) return false;
  // Compared against the bytes present so a huge length word cannot
  // overflow the sum.
  return bodyLength <= buffer->length - buffer->cursor - kIpcFrameHeaderSize;
}

void SaveUnuseBuffer(BufferState* buffer) {
  if (buffer->cursor == 0) return;
  const int64_t left = buffer->length - buffer->cursor;
  if (left > 0) memmove(buffer->data, buffer->data + buffer->cursor, static_cast<size_t>(left));
  buffer->length = left;
  buffer->cursor = 0;
}
