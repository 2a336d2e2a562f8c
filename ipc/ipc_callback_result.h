// What the socket layer's callbacks return. They keep returning int (the
// exported callback types say so); these are the values they use.
#pragma once

enum IpcCallbackResult : int {
  kIpcCallbackOk = 0,
  // A readable callback's "done with this descriptor for this pass": the
  // loop does not call the writable callback after it.
  kIpcCallbackSkipWrite = 1,
  kIpcCallbackFailed = -1,
  // This side closed the connection.
  kIpcCallbackClosed = -2,
  // Readable: the peer closed. Writable: nothing more to write, so the loop
  // turns write readiness off.
  kIpcCallbackPeerClosed = -3,
};
