// The socket manager's user: what it does with a connection's bytes.
#pragma once

#include <functional>

#include "ipc/ipc_buffer_state.h"
#include "util/tavo_export.h"

// Any callable may be empty. A connection gets a receive buffer only when
// read is set and a send buffer only when write is set. The callables
// return IpcCallbackResult values.
struct TAVO_EXPORT IpcHandlerState {
  // Move the unconsumed bytes to the front of the receive buffer before
  // every receive.
  bool saveUnusedBuffer = false;
  // A failed receive or a read callback returning -1 closes the connection.
  bool closeOnError = false;
  std::function<int(int fd, BufferState* receive, BufferState* send)> read;
  std::function<int(int fd, BufferState* send)> write;
  std::function<int(int fd)> connection;
  std::function<int(int fd)> close;
};
