// Frames, send queues, command dispatch and request callbacks, byte for byte.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc_frame.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/ipc_req_callback_manager.h"
#include "tests/support/ipc_endpoint.h"
#include "tests/support/log_capture.h"

namespace {

using tavo_test::Frame;
using tavo_test::TestBuffer;

template <typename T>
std::string Le(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

TEST(IpcFrameTest, CompleteFramesAndFramesThatCanNeverFit) {
  struct Case {
    int64_t cursor, length, word;
    bool complete;
    IpcFrameStatus status;
  };
  const Case cases[] = {
      {0, 7, 100, false, IpcFrameStatus::kPartial},           // 7 bytes: no length word yet
      {10, 17, 100, false, IpcFrameStatus::kPartial},         // the same after the cursor
      {0, 28, 20, true, IpcFrameStatus::kComplete},           // exactly 8 + L
      {0, 27, 20, false, IpcFrameStatus::kPartial},           // one byte short
      {4, 12, 0, true, IpcFrameStatus::kComplete},            // empty payload
      {0, 64, 56, true, IpcFrameStatus::kComplete},           // the whole buffer
      {0, 64, 57, false, IpcFrameStatus::kNeverFits},         // one more than it holds
      {0, 64, INT64_MAX, false, IpcFrameStatus::kNeverFits},  // the sum must not wrap
      {0, 64, -5, false, IpcFrameStatus::kNeverFits},
  };
  for (const Case& c : cases) {
    TestBuffer b(64);
    memcpy(b.state.data + c.cursor, &c.word, 8);
    b.state.cursor = c.cursor;
    b.state.length = c.length;
    int64_t header = -1, body = -77;
    EXPECT_EQ(CheckIpcPackageComplete(&b.state, header, body), c.complete) << c.word;
    EXPECT_EQ(header, 8);
    EXPECT_EQ(body, c.length - c.cursor >= 8 ? c.word : -77) << c.word;
    IpcFrame frame;
    EXPECT_EQ(PeekIpcFrame(&b.state, &frame), c.status) << c.word;
  }
}

// The one writer's fit test, through the reply the service sends and both
// queue drains: a reply needs 28 bytes, a queued 12-byte payload 20.
TEST(IpcFrameTest, StrictAndLooseFit) {
  const uint32_t reqId = 7, zero = 0;
  const int32_t result = -1;
  const std::string reply = Le<int64_t>(20) + Le(1u) + Le(12u) + Le(7u) + Le(-1) + Le(0u);
  struct Case {
    int what;  // 0 reply, 1 fillNext (strict), 2 fillIpc (loose)
    int64_t room;
  };
  for (const Case& c : {Case{0, 28}, Case{0, 29}, Case{1, 20}, Case{1, 21}, Case{2, 19}, Case{2, 20}}) {
    TestBuffer b(100);
    b.state.length = 100 - c.room;
    IpcPackageManager queue;
    queue.buildAndAppendSecondIpcPackage(2, "abcd", 4);
    if (c.what == 0) AppendIpcCommandFrame(&b.state, IPC_COMMAND_RESPONSE, {{&reqId, 4}, {&result, 4}, {&zero, 4}}, true);
    if (c.what == 1) queue.fillNextIpcPackageToBuffer(&b.state);
    if (c.what == 2) {
      EXPECT_TRUE(queue.fillIpcPackageToBuffer(&b.state));  // not empty on entry
    }
    const bool fits = c.room == (c.what == 0 ? 29 : c.what == 1 ? 21 : 20);
    EXPECT_EQ(b.Written().substr(100 - c.room), fits ? (c.what == 0 ? reply : Frame(2, "abcd")) : "")
        << c.what << " room " << c.room;
  }
}

TEST(IpcPackageManagerTest, BuilderLayouts) {
  IpcPackageManager queue;
  EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(4, "x", 1));
  ASSERT_TRUE(queue.buildAndAppendSecondIpcPackage(3, "abc", 3));
  ASSERT_TRUE(queue.buildAndAppendIpcPackage("raw!", 4));
  char data[] = "hello";
  TavoReqIpcPackage request{};
  for (int i = 0; i < 32; ++i) request.header[i] = static_cast<char>(0x40 + i);
  request.word = 0xA1B2C3D4;
  request.dataLength = 5;
  request.data = data;
  TavoRespIpcPackage response{77, -9, 5, {'F', 'I', 'L', 'L'}, data};
  ASSERT_TRUE(queue.appendReqIpcPackage(&request));
  ASSERT_TRUE(queue.appendRespIpcPackage(&response));
  EXPECT_EQ(queue.getIpcPackageCount(), 4u);

  TestBuffer b(256);
  ASSERT_TRUE(queue.fillIpcPackageToBuffer(&b.state));
  // Request: L = D + 48, inner length D + 40, the 40-byte fixed part as it
  // stands. Response: L = D + 32, inner D + 24, the 24-byte record with
  // zeros for its data pointer.
  const std::string fixed(reinterpret_cast<const char*>(&request), 40);
  const std::string record = std::string(reinterpret_cast<const char*>(&response), 16) + std::string(8, '\0');
  EXPECT_EQ(b.Written(), std::string("\x0b\0\0\0\0\0\0\0\x03\0\0\0\x03\0\0\0abc", 19) +
                             Le<int64_t>(4) + "raw!" +
                             Le<int64_t>(53) + Le(0u) + Le(45u) + fixed + "hello" +
                             Le<int64_t>(37) + Le(1u) + Le(29u) + record + "hello");
  EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&b.state));  // empty
}

TEST(IpcPackageManagerTest, BoundRefusesCountsAndHeadBlocksInOrder) {
  IpcPackageManager queue;
  std::vector<char> chunk(64 * 1024, 'q');
  int accepted = 0;
  for (int i = 0; i < 80; ++i) accepted += queue.buildAndAppendSecondIpcPackage(3, chunk.data(), chunk.size());
  EXPECT_EQ(accepted, static_cast<int>(IpcPackageManager::kMaxQueuedBytes / IpcQueueBudget::EntryCost(chunk.size() + 8)));
  EXPECT_EQ(queue.getDroppedCount(), 80u - accepted);
  EXPECT_LE(queue.getQueuedBytes(), IpcPackageManager::kMaxQueuedBytes);
  // Sizes that could never be queued are refused before any copy.
  EXPECT_FALSE(queue.buildAndAppendIpcPackage(chunk.data(), UINT64_MAX));
  TavoRespIpcPackage huge{};
  huge.dataLength = UINT32_MAX;
  EXPECT_FALSE(queue.appendRespIpcPackage(&huge));
  // A head larger than the buffer stays and blocks what is behind it.
  TestBuffer small(1024);
  EXPECT_TRUE(queue.fillIpcPackageToBuffer(&small.state));
  EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&small.state));
  EXPECT_EQ(small.state.length, 0);
  // Draining makes room again.
  TestBuffer b(128 * 1024);
  EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&b.state));
  EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(3, chunk.data(), chunk.size()));
}

// A queue full of small packages takes about its cap in heap, not several
// times it; queues sharing a budget stop together at the budget and give
// their share back as they drain or go.
TEST(IpcQueueBudgetTest, QueueCapIsRealMemoryAndBudgetIsShared) {
  const size_t heapBefore = mallinfo2().uordblks;
  {
    IpcPackageManager queue;
    while (queue.buildAndAppendSecondIpcPackage(3, "x", 1)) {
    }
    EXPECT_LE(mallinfo2().uordblks - heapBefore, IpcPackageManager::kMaxQueuedBytes * 11 / 10);
  }
  tavo_test::LogCapture log;
  auto budget = std::make_shared<IpcQueueBudget>(256 * 1024);
  {
    IpcPackageManager a(budget), b(budget);
    const std::string chunk(1000, 'b');
    uint64_t accepted = 0;
    for (int i = 0; i < 400; ++i) {
      accepted += a.buildAndAppendSecondIpcPackage(3, chunk.data(), chunk.size());
      accepted += b.buildAndAppendSecondIpcPackage(3, chunk.data(), chunk.size());
    }
    EXPECT_EQ(accepted, 256 * 1024 / IpcQueueBudget::EntryCost(1008));
    EXPECT_EQ(budget->usedBytes(), a.getQueuedBytes() + b.getQueuedBytes());
    EXPECT_EQ(a.getDroppedCount() + b.getDroppedCount(), 800 - accepted);
    EXPECT_EQ(budget->refusedCount(), 800 - accepted);
    TestBuffer out(4096);
    ASSERT_TRUE(a.fillNextIpcPackageToBuffer(&out.state));
    EXPECT_TRUE(b.buildAndAppendSecondIpcPackage(3, chunk.data(), chunk.size()));
  }
  EXPECT_EQ(budget->usedBytes(), 0u);
  EXPECT_EQ(log.Count("[IpcPackageManager] all client queues full (262144 bytes)"), 1);
}

TEST(IpcPackageManagerTest, WaitEventReadyWakesOnAppend) {
  // A wait that missed the append would sit out its whole 60 seconds.
  IpcPackageManager queue;
  std::thread producer([&queue] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    queue.buildAndAppendSecondIpcPackage(3, "x", 1);
  });
  const auto start = std::chrono::steady_clock::now();
  queue.waitEventReady(60000);
  producer.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

TEST(IpcPackageHandlerTest, DispatchesWholeFramesStopsOnFailureAndBoundsUnknownCodes) {
  std::vector<std::string> seen;
  std::map<uint32_t, IpcCommandHandler> table;
  table[0] = [&seen](int fd, char* data, int64_t length, BufferState* send) {
    EXPECT_EQ(fd, 7);
    EXPECT_EQ(send, nullptr);
    seen.emplace_back(data, static_cast<size_t>(length));
    return seen.back() == "fail" ? -1 : 0;
  };
  table[1] = IpcCommandHandler();
  IpcPackageHandler handler(table);
  TestBuffer b(256);
  // A package claiming more data than its frame holds is skipped unread.
  const std::string lying = Le<int64_t>(12) + Le(0u) + Le(100u) + "abcd";
  b.Put(Frame(0, "first") + Frame(1, "ignored") + Frame(2, "unknown") + lying + Le<int64_t>(3) + "abc" +
        Frame(0, "fail") + Frame(0, "after"));
  const int64_t failed = b.state.length - static_cast<int64_t>(Frame(0, "fail").size() + Frame(0, "after").size());
  EXPECT_FALSE(handler.handleAllIpcPackageInBuffer(7, &b.state, nullptr));
  EXPECT_EQ(b.state.cursor, failed);
  EXPECT_EQ(seen, (std::vector<std::string>{"first", "fail"}));
  EXPECT_EQ(handler.getHandlerCount(), 3u);  // code 2 left an empty entry

  // Half a frame waits for the rest.
  TestBuffer half(64);
  half.Put(Frame(0, "second") + Frame(0, "third").substr(0, 11));
  EXPECT_TRUE(handler.handleAllIpcPackageInBuffer(7, &half.state, nullptr));
  EXPECT_EQ(half.state.cursor, static_cast<int64_t>(Frame(0, "second").size()));
  EXPECT_EQ(seen.back(), "second");

  for (uint32_t code = 10; code < 5000; ++code) {
    const std::string payload = Le(code) + Le(0u);
    handler.handleSecondIpcPackage(3, const_cast<char*>(payload.data()), 8, nullptr);
  }
  EXPECT_LE(handler.getHandlerCount(), 256u);
}

TEST(IpcReqCallBackManagerTest, IdsAndCallbacks) {
  IpcReqCallBackManager manager;
  EXPECT_EQ(manager.getReqId(), 0u);
  EXPECT_EQ(manager.getReqId(), 1u);
  // A second callback for the same id replaces the first; each runs once.
  std::vector<std::tuple<int, uint32_t, int, char*, uint32_t>> seen;
  auto record = [&seen](int which) {
    return [&seen, which](uint32_t id, int result, char* data, uint32_t length) {
      return seen.emplace_back(which, id, result, data, length), 0;
    };
  };
  EXPECT_TRUE(manager.addIpcReqCallBack(5, record(1)));
  EXPECT_FALSE(manager.addIpcReqCallBack(5, record(2)));
  EXPECT_TRUE(manager.addIpcReqCallBack(6, IpcReqCallBack()));
  EXPECT_TRUE(manager.addIpcReqCallBack(8, record(3)));
  TavoRespIpcPackage response{5, -4, 9, {}, nullptr};
  EXPECT_TRUE(manager.handleReqCallBack(&response));
  EXPECT_FALSE(manager.handleReqCallBack(&response));
  response.reqId = 6;
  EXPECT_TRUE(manager.handleReqCallBack(&response));  // empty: forgotten, not called
  EXPECT_FALSE(manager.delIpcReq(6));
  EXPECT_TRUE(manager.delIpcReq(8));
  EXPECT_EQ(seen, (std::vector<std::tuple<int, uint32_t, int, char*, uint32_t>>{
                      {2, 5u, -4, reinterpret_cast<char*>(&response) + 12, 9u}}));
}

}  // namespace
