// Frames, send queues, command dispatch and request callbacks, byte for byte.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <tuple>
#include <thread>
#include <vector>

#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/ipc_req_callback_manager.h"
#include "tests/support/frames.h"

namespace {

using tavo_test::TestBuffer;

template <typename T>
T ReadAt(const char* p, size_t offset) {
  T value;
  memcpy(&value, p + offset, sizeof(T));
  return value;
}

TEST(IpcBufferTest, CheckIpcPackageCompleteEdges) {
  struct Case {
    const char* what;
    int64_t cursor, length, word;
    bool complete;
    bool bodySet;
  };
  const Case cases[] = {
      {"7 bytes at cursor", 0, 7, 100, false, false},
      {"7 bytes after cursor 10", 10, 17, 100, false, false},
      {"exactly 8 + L", 0, 8 + 20, 20, true, true},
      {"one byte short", 0, 8 + 19, 20, false, true},
      {"empty payload", 4, 12, 0, true, true},
      {"huge length word", 0, 64, INT64_MAX, false, true},
      {"negative length word", 0, 64, -5, false, true},
  };
  for (const Case& c : cases) {
    TestBuffer b(64);
    memcpy(b.state.data + c.cursor, &c.word, 8);
    b.state.cursor = c.cursor;
    b.state.length = c.length;
    int64_t header = -1;
    int64_t body = -77;
    EXPECT_EQ(CheckIpcPackageComplete(&b.state, header, body), c.complete) << c.what;
    EXPECT_EQ(header, 8) << c.what;
    EXPECT_EQ(body, c.bodySet ? c.word : -77) << c.what;
  }
}

TEST(IpcBufferTest, SaveUnuseBufferMovesTail) {
  struct Case {
    int64_t cursor, length, wantLength;
  };
  for (const Case& c : {Case{5, 5, 0}, Case{0, 9, 9}, Case{3, 9, 6}, Case{7, 7 + 9, 9}}) {
    TestBuffer b(32);
    for (int i = 0; i < 32; ++i) b.bytes[i] = static_cast<char>(i);
    b.state.cursor = c.cursor;
    b.state.length = c.length;
    SaveUnuseBuffer(&b.state);
    EXPECT_EQ(b.state.cursor, 0);
    EXPECT_EQ(b.state.length, c.wantLength);
    for (int64_t i = 0; i < c.wantLength; ++i) EXPECT_EQ(b.bytes[i], static_cast<char>(c.cursor + i));
  }
}

TEST(IpcPackageManagerTest, CommandPackageLayoutAndCodes) {
  IpcPackageManager queue;
  EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(4, "x", 1));
  EXPECT_EQ(queue.getIpcPackageCount(), 0u);
  EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(3, "abc", 3));
  TestBuffer b(64);
  ASSERT_TRUE(queue.fillNextIpcPackageToBuffer(&b.state));
  const std::string frame("\x0b\0\0\0\0\0\0\0\x03\0\0\0\x03\0\0\0abc", 19);
  EXPECT_EQ(b.Written(), frame);
  EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&b.state));  // empty queue
}

TEST(IpcPackageManagerTest, RequestAndResponseLayouts) {
  IpcPackageManager queue;
  char data[5] = {'h', 'e', 'l', 'l', 'o'};
  TavoReqIpcPackage request{};
  for (int i = 0; i < 32; ++i) request.header[i] = static_cast<char>(0x40 + i);
  request.word = 0xA1B2C3D4;
  request.dataLength = sizeof(data);
  request.data = data;
  TavoRespIpcPackage response{};
  response.reqId = 77;
  response.result = -9;
  response.dataLength = sizeof(data);
  memcpy(response.filler, "FILL", 4);
  response.data = data;
  ASSERT_TRUE(queue.appendReqIpcPackage(&request));
  ASSERT_TRUE(queue.appendRespIpcPackage(&response));

  TestBuffer b(256);
  ASSERT_TRUE(queue.fillIpcPackageToBuffer(&b.state));
  const char* p = b.state.data;
  // Request: L = D + 48, inner D + 40, fixed part at 8..47, dataLength at 44, data at 48.
  ASSERT_EQ(ReadAt<int64_t>(p, 0), 5 + 48);
  const char* req = p + 8;
  EXPECT_EQ(ReadAt<uint32_t>(req, 0), 0u);
  EXPECT_EQ(ReadAt<uint32_t>(req, 4), 5u + 40);
  EXPECT_EQ(memcmp(req + 8, request.header, 32), 0);
  EXPECT_EQ(ReadAt<uint32_t>(req, 40), 0xA1B2C3D4u);
  EXPECT_EQ(ReadAt<uint32_t>(req, 44), 5u);
  EXPECT_EQ(memcmp(req + 48, data, 5), 0);
  // Response: L = D + 32, inner D + 24, the whole 24-byte record, data at 32.
  const char* frame = p + 8 + 53;
  ASSERT_EQ(ReadAt<int64_t>(frame, 0), 5 + 32);
  const char* resp = frame + 8;
  EXPECT_EQ(ReadAt<uint32_t>(resp, 0), 1u);
  EXPECT_EQ(ReadAt<uint32_t>(resp, 4), 5u + 24);
  EXPECT_EQ(memcmp(resp + 8, &response, 24), 0);
  EXPECT_EQ(memcmp(resp + 32, data, 5), 0);
  EXPECT_EQ(b.state.length, 8 + 53 + 8 + 37);
}

TEST(IpcPackageManagerTest, FitTestsStrictAndNonStrict) {
  // Payload of 8 + 4 = 12 bytes needs 20 bytes of room.
  struct Case {
    int64_t room;
    bool next, all;
  };
  for (const Case& c : {Case{19, false, false}, Case{20, false, true}, Case{21, true, true}}) {
    for (bool strict : {true, false}) {
      IpcPackageManager queue;
      ASSERT_TRUE(queue.buildAndAppendSecondIpcPackage(2, "abcd", 4));
      TestBuffer b(100);
      b.state.length = 100 - c.room;
      const bool wrote = strict ? queue.fillNextIpcPackageToBuffer(&b.state)
                                : (queue.fillIpcPackageToBuffer(&b.state), queue.getIpcPackageCount() == 0);
      EXPECT_EQ(wrote, strict ? c.next : c.all) << "room " << c.room << " strict " << strict;
      EXPECT_EQ(b.state.length, 100 - c.room + (wrote ? 20 : 0));
    }
  }
}

TEST(IpcPackageManagerTest, HeadTooLargeBlocksQueueInOrder) {
  IpcPackageManager queue;
  std::string big(100, 'B');
  ASSERT_TRUE(queue.buildAndAppendSecondIpcPackage(3, big.data(), big.size()));
  ASSERT_TRUE(queue.buildAndAppendSecondIpcPackage(3, "s", 1));
  TestBuffer b(64);
  EXPECT_TRUE(queue.fillIpcPackageToBuffer(&b.state));  // not empty on entry
  EXPECT_EQ(b.state.length, 0);
  EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&b.state));
  EXPECT_EQ(queue.getIpcPackageCount(), 2u);
  EXPECT_FALSE(IpcPackageManager().fillIpcPackageToBuffer(&b.state));  // empty on entry
}

TEST(IpcPackageManagerTest, QueueBoundRefusesAndCounts) {
  IpcPackageManager queue;
  std::vector<char> chunk(64 * 1024, 'q');
  int accepted = 0;
  for (int i = 0; i < 80; ++i) {
    if (queue.buildAndAppendSecondIpcPackage(3, chunk.data(), chunk.size())) ++accepted;
  }
  EXPECT_EQ(accepted, static_cast<int>(IpcPackageManager::kMaxQueuedBytes / (chunk.size() + 8)));
  EXPECT_EQ(queue.getDroppedCount(), 80u - accepted);
  EXPECT_LE(queue.getQueuedBytes(), IpcPackageManager::kMaxQueuedBytes);
  // Sizes that could never be queued are refused before any copy.
  EXPECT_FALSE(queue.buildAndAppendIpcPackage(chunk.data(), UINT64_MAX));
  TavoRespIpcPackage huge{};
  huge.dataLength = UINT32_MAX;
  EXPECT_FALSE(queue.appendRespIpcPackage(&huge));
  // Draining frees room again.
  TestBuffer b(128 * 1024);
  EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&b.state));
  EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(3, chunk.data(), chunk.size()));
}

TEST(IpcPackageManagerTest, WaitEventReadyWakesOnAppend) {
  // A wait that missed the append would sit out its whole 60 seconds.
  using Clock = std::chrono::steady_clock;
  IpcPackageManager queue;
  std::thread producer([&queue] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    queue.buildAndAppendSecondIpcPackage(3, "x", 1);
  });
  const auto start = Clock::now();
  queue.waitEventReady(60000);
  producer.join();
  queue.waitEventReady(-1);  // not empty: returns at once
  EXPECT_LT(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count(), 30);
}

TEST(IpcPackageHandlerTest, DispatchesWholeFramesAndKeepsPartial) {
  std::vector<std::string> seen;
  std::map<uint32_t, IpcCommandHandler> table;
  table[0] = [&seen](int fd, char* data, int64_t length, BufferState* send) {
    EXPECT_EQ(fd, 7);
    EXPECT_EQ(send, nullptr);
    seen.emplace_back(data, static_cast<size_t>(length));
    return 0;
  };
  table[1] = IpcCommandHandler();
  IpcPackageHandler handler(table);
  TestBuffer b(256);
  b.Put(tavo_test::Frame(0, "first"));
  b.Put(tavo_test::Frame(1, "ignored"));
  b.Put(tavo_test::Frame(0, "second"));
  const int64_t third = b.state.length;
  b.Put(tavo_test::Frame(0, "third"));
  b.state.length = third + 11;  // half of the third frame
  EXPECT_TRUE(handler.handleAllIpcPackageInBuffer(7, &b.state, nullptr));
  EXPECT_EQ(seen, (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(b.state.cursor, third);
}

TEST(IpcPackageHandlerTest, FailureStopsAndUnknownCodesLeaveEntry) {
  int calls = 0;
  std::map<uint32_t, IpcCommandHandler> table;
  table[0] = [&calls](int, char*, int64_t, BufferState*) { return ++calls == 1 ? -1 : 0; };
  IpcPackageHandler handler(table);
  TestBuffer b(128);
  b.Put(tavo_test::Frame(0, "a"));
  b.Put(tavo_test::Frame(0, "b"));
  EXPECT_FALSE(handler.handleAllIpcPackageInBuffer(3, &b.state, nullptr));
  EXPECT_EQ(b.state.cursor, 0);
  EXPECT_EQ(calls, 1);

  char unknown[8] = {2, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(handler.getHandlerCount(), 1u);
  EXPECT_EQ(handler.handleSecondIpcPackage(3, unknown, 8, nullptr), 0);
  EXPECT_EQ(handler.getHandlerCount(), 2u);
  // A data length beyond the frame or a payload shorter than its header is ignored.
  char lying[12] = {0, 0, 0, 0, 100, 0, 0, 0};
  EXPECT_EQ(handler.handleSecondIpcPackage(3, lying, sizeof(lying), nullptr), 0);
  EXPECT_EQ(handler.handleSecondIpcPackage(3, lying, 3, nullptr), 0);
  EXPECT_EQ(calls, 1);
  // Unknown codes cannot grow the map without bound.
  for (uint32_t code = 10; code < 5000; ++code) {
    memcpy(unknown, &code, 4);
    handler.handleSecondIpcPackage(3, unknown, 8, nullptr);
  }
  EXPECT_LE(handler.getHandlerCount(), 256u);
}

TEST(IpcReqCallBackManagerTest, IdsAndCallbacks) {
  IpcReqCallBackManager manager;
  EXPECT_EQ(manager.getReqId(), 0u);
  EXPECT_EQ(manager.getReqId(), 1u);

  // A second callback for the same id replaces the first; each runs once.
  int firstCalls = 0, calls = 0;
  std::tuple<uint32_t, int, char*, uint32_t> seen;
  EXPECT_TRUE(manager.addIpcReqCallBack(5, [&](uint32_t, int, char*, uint32_t) { return ++firstCalls; }));
  EXPECT_FALSE(manager.addIpcReqCallBack(5, [&](uint32_t id, int result, char* data, uint32_t length) {
    seen = {id, result, data, length};
    return ++calls, 0;
  }));
  TavoRespIpcPackage response{5, -4, 9, {}, nullptr};
  EXPECT_TRUE(manager.handleReqCallBack(&response));
  EXPECT_FALSE(manager.handleReqCallBack(&response));
  EXPECT_EQ(std::make_tuple(firstCalls, calls), std::make_tuple(0, 1));
  EXPECT_EQ(seen, std::make_tuple(5u, -4, reinterpret_cast<char*>(&response) + 12, 9u));

  EXPECT_TRUE(manager.addIpcReqCallBack(6, IpcReqCallBack()));
  response.reqId = 6;
  EXPECT_TRUE(manager.handleReqCallBack(&response));  // empty callback: erased, not called
  EXPECT_FALSE(manager.delIpcReq(6));
  EXPECT_TRUE(manager.addIpcReqCallBack(8, IpcReqCallBack()));
  EXPECT_TRUE(manager.delIpcReq(8));
}

}  // namespace
