// Arbitrary bytes through a receive buffer the way the socket manager feeds
// one: cut into reads, compacted (or reset) before each, handed to the
// package handler, checked with the frame test; then every payload the
// handler saw is written back with the writer and must read back the same.
//
// Input: byte 0 picks the buffer size, byte 1 the compaction and the length
// of each read; the rest is the stream.
#include <cstdint>
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "ipc/ipc_frame.h"
#include "ipc/ipc_package.h"
#include "ipc/ipc_package_handler.h"

namespace {

void Check(bool ok) {
  if (!ok) abort();
}

void CheckInvariant(const BufferState& b) {
  Check(0 <= b.cursor && b.cursor <= b.length && b.length <= b.capacity);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const auto capacity = static_cast<int64_t>(16 + data[0] * 4);
  const bool compact = data[1] & 1;
  const size_t readLength = 1 + data[1] / 2;
  std::vector<char> receiveBlock(static_cast<size_t>(capacity)), sendBlock(512);
  BufferState receive{0, 0, capacity, receiveBlock.data()};
  BufferState send{0, 0, static_cast<int64_t>(sendBlock.size()), sendBlock.data()};

  std::vector<std::string> seen;
  auto record = [&](int, char* bytes, int64_t length, BufferState* out) {
    Check(length >= 0 && out == &send);
    seen.emplace_back(bytes, static_cast<size_t>(length));
    const uint32_t id = static_cast<uint32_t>(seen.size()), zero = 0;
    if (!AppendIpcCommandFrame(out, IPC_COMMAND_RESPONSE, {{&id, 4}, {&id, 4}, {&zero, 4}}, true)) out->length = 0;
    CheckInvariant(*out);
    return length % 7 == 3 ? -1 : 0;  // some packages fail, leaving the cursor on them
  };
  IpcPackageHandler handler({{0, record}, {3, record}, {1, IpcCommandHandler()}});

  for (size_t at = 2; at < size;) {
    if (compact) {
      SaveUnuseBuffer(&receive);
    } else if (receive.cursor == receive.length) {
      receive.cursor = receive.length = 0;
    } else if (receive.length == receive.capacity) {
      SaveUnuseBuffer(&receive);
    }
    const auto room = static_cast<size_t>(receive.capacity - receive.length);
    if (room == 0) break;  // the manager closes such a connection
    const size_t chunk = std::min({room, size - at, readLength});
    std::copy(data + at, data + at + chunk, receiveBlock.data() + receive.length);
    receive.length += static_cast<int64_t>(chunk);
    at += chunk;

    const int64_t before = receive.cursor;
    const bool ok = handler.handleAllIpcPackageInBuffer(9, &receive, &send);
    CheckInvariant(receive);
    Check(receive.cursor >= before);
    IpcFrame frame;
    const IpcFrameStatus status = PeekIpcFrame(&receive, &frame);
    int64_t header = 0, body = 0;
    Check(CheckIpcPackageComplete(&receive, header, body) == (status == IpcFrameStatus::kComplete));
    Check(header == kIpcFrameHeaderSize);
    Check(ok || status == IpcFrameStatus::kComplete);  // a failed frame stays whole at the cursor
    if (status == IpcFrameStatus::kNeverFits) break;  // the manager closes here too
    if (!ok) receive.cursor += frame.headerLength + frame.bodyLength;  // skip it, as a lenient user would
  }
  Check(handler.getHandlerCount() <= 256);

  // Writer and reader agree on everything the handler was given.
  std::vector<char> block(64 * 1024);
  BufferState out{0, 0, static_cast<int64_t>(block.size()), block.data()};
  size_t written = 0;
  for (; written < seen.size(); ++written) {
    if (!AppendIpcCommandFrame(&out, 0, {{seen[written].data(), seen[written].size()}}, written % 2 == 0)) break;
  }
  size_t read = 0;
  Check(ForEachIpcFrame(&out, [&](const IpcFrame& f) {
    IpcCommand command;
    Check(ParseIpcCommand(f, &command) && command.dataFits() && command.code == 0);
    Check(std::string(command.data, command.dataLength) == seen[read++]);
    return true;
  }));
  Check(read == written && out.cursor == out.length);
  return 0;
}
