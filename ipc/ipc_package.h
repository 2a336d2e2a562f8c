// In-memory request, response and queued package records.
#pragma once

#include <cstdint>
#include <memory>

#include "util/tavo_export.h"

enum IpcCommandCode : uint32_t {
  IPC_COMMAND_REQUEST = 0,
  IPC_COMMAND_RESPONSE = 1,
  IPC_COMMAND_RESERVED = 2,
  IPC_COMMAND_EVENT = 3,
  IPC_COMMAND_MAX = 3,
};

// Command 0. The first 40 bytes go on the stream as they stand.
struct TAVO_EXPORT TavoReqIpcPackage {
  char header[32];      // the user's request header (request id first)
  uint32_t word;        // a further header word of the user
  uint32_t dataLength;  // number of bytes at data
  char* data;           // owned by the caller
};

// Command 1. The whole 24-byte record goes on the stream.
struct TAVO_EXPORT TavoRespIpcPackage {
  uint32_t reqId;
  int32_t result;
  uint32_t dataLength;
  char filler[4];
  char* data;  // owned by the caller
};

// One entry of a send queue: L payload bytes in a block the entry owns.
struct TavoIpcPackage {
  uint64_t length;
  std::unique_ptr<char[]> data;
};

static_assert(sizeof(TavoReqIpcPackage) == 48, "request record");
static_assert(sizeof(TavoRespIpcPackage) == 24, "response record");
