// Subscriptions and fan-out, then the client hub over a real socket with
// the client library on the other end.
#include <gtest/gtest.h>

#include <android-base/scopeguard.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "event/tavo_client_hub.h"
#include "ipc/ipc_frame.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
#include "tests/support/test_env.h"
#include "tests/support/tavo_harness.h"
#include "client/tavo_client.h"

using namespace Tavo::Bpf;

namespace {

// Whole frames in a send buffer: (command, data) of each.
std::vector<std::pair<uint32_t, std::string>> Frames(BufferState buffer) {
  std::vector<std::pair<uint32_t, std::string>> out;
  ForEachIpcFrame(&buffer, [&](const IpcFrame& frame) {
    IpcCommand command;
    if (ParseIpcCommand(frame, &command)) out.emplace_back(command.code, std::string(command.data, command.dataLength));
    return true;
  });
  return out;
}

struct Buffer {
  std::vector<char> block = std::vector<char>(4096);
  BufferState state{0, 0, 4096, block.data()};
};

}  // namespace

TEST(EventManager, SubscriptionsAreKnownCodesOnlyAndKeepTheirOrder) {
  std::vector<int> notified;
  EventManager events([&notified](int fd) {
    notified.push_back(fd);
    return true;
  });
  for (int fd : {5, 6}) events.AddClient(fd);
  EXPECT_TRUE(events.AddObserverEvent(6, 7));
  EXPECT_TRUE(events.AddObserverEvent(5, 7));
  EXPECT_TRUE(events.AddObserverEvent(5, 7));  // again: no change
  EXPECT_TRUE(events.AddObserverEvent(5, TAVO_NOTICE_DMABUF_TOTAL));
  for (int unknown : {15, -1, 49999, 50006, 0x7fffffff}) EXPECT_FALSE(events.AddObserverEvent(5, unknown)) << unknown;
  EXPECT_FALSE(events.AddObserverEvent(9, 7)) << "not a client";
  EXPECT_EQ(events.GetEventObservers(7), (std::vector<int>{6, 5}));
  EXPECT_EQ(events.GetObserverEvents(5), (std::vector<int>{7, TAVO_NOTICE_DMABUF_TOTAL}));

  auto setup = tavo_test::DmabufRecord(TAVO_EVENT_DMABUF_SETUP, 0, 4096, 0, 1);
  events.AppendEvent(tavo_test::Bytes(setup), sizeof(setup));
  EXPECT_EQ(notified, (std::vector<int>{6, 5}));
  Buffer buffer;
  events.FillSendBuffer(5, &buffer.state);
  const auto frames = Frames(buffer.state);
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].first, 3u);
  EXPECT_EQ(frames[0].second, std::string(tavo_test::Bytes(setup), sizeof(setup)));

  EXPECT_TRUE(events.DelObserverEvent(6, 7));
  EXPECT_EQ(events.GetEventObservers(7), (std::vector<int>{5}));
  notified.clear();
  events.AppendEvent(tavo_test::Bytes(setup), sizeof(setup));
  EXPECT_EQ(notified, (std::vector<int>{5})) << "the code keeps its other observer";
  events.RemoveClient(5);
  EXPECT_TRUE(events.GetEventObservers(7).empty());
  EXPECT_TRUE(events.GetEventObservers(TAVO_NOTICE_DMABUF_TOTAL).empty());
  notified.clear();
  events.AppendEvent(tavo_test::Bytes(setup), sizeof(setup));
  EXPECT_TRUE(notified.empty());
  EXPECT_EQ(events.ClientCount(), 1u);
}

TEST(EventManager, ABatchSendsEachTouchedClientOnceWhenItEnds) {
  std::vector<int> notified, sent;
  EventManager events([&](int fd) { notified.push_back(fd); return true; }, nullptr,
                      [&](int fd) { sent.push_back(fd); return true; });
  for (int fd : {5, 6, 7}) events.AddClient(fd);
  events.AddObserverEvent(5, 7);
  events.AddObserverEvent(6, 7);
  events.AddObserverEvent(6, 8);
  auto setup = tavo_test::DmabufRecord(TAVO_EVENT_DMABUF_SETUP, 0, 4096, 0, 1);
  events.BeginBatch();
  for (int i = 0; i < 3; ++i) events.AppendEvent(tavo_test::Bytes(setup), sizeof(setup));
  EXPECT_TRUE(notified.empty());
  EXPECT_TRUE(sent.empty());
  events.EndBatch();
  EXPECT_EQ(sent, (std::vector<int>{5, 6}));
  // Outside a batch, and on a thread that is not in one, nothing waits.
  events.AppendEvent(tavo_test::Bytes(setup), sizeof(setup));
  events.BeginBatch();
  std::thread([&] { events.AppendEvent(tavo_test::Bytes(setup), sizeof(setup)); }).join();
  events.EndBatch();
  EXPECT_EQ(notified, (std::vector<int>{5, 6, 5, 6}));
  EXPECT_EQ(sent.size(), 2u);
  Buffer buffer;
  events.FillSendBuffer(6, &buffer.state);
  EXPECT_EQ(Frames(buffer.state).size(), 5u);
}

TEST(ClientHub, RepliesAreTwentyEightBytesWhenThereIsRoom) {
  TavoClientHubOptions options;
  options.socketPath = tavo_test::UniqueName("tavo_hub");
  TavoClientHub hub(options);
  hub.events().AddClient(3);
  // reqId, the command text in 28 bytes, then the event code at 40.
  auto request = [](uint32_t reqId, const char* command, int32_t code, size_t size = 44) {
    std::vector<char> r(std::max<size_t>(size, 44));
    memcpy(r.data(), &reqId, 4);
    memcpy(r.data() + 4, command, strlen(command) + 1);
    memcpy(r.data() + 40, &code, 4);
    r.resize(size);
    return r;
  };
  const struct {
    std::vector<char> data;
    int32_t result;
  } cases[] = {
      {request(1, "register-event-monitor", 2), 0},
      {request(2, "register-event-monitor", 15), -1},  // not a code anyone can subscribe to
      {request(3, "register-event-monitorX", 2), -1},
      {request(4, "unregister-event-monitor", 2), 0},
      {request(5, "register-event-monitor", 2, 43), -1},  // too short for its code
  };
  Buffer buffer;
  for (const auto& c : cases) {
    auto data = c.data;
    buffer.state.length = 0;
    EXPECT_EQ(hub.onEventProvideReqCallBack(3, data.data(), static_cast<long>(data.size()), &buffer.state), 0);
    ASSERT_EQ(buffer.state.length, 28);
    int64_t frameLength;
    int32_t words[5];
    memcpy(&frameLength, buffer.state.data, 8);
    memcpy(words, buffer.state.data + 8, sizeof(words));
    uint32_t reqId;
    memcpy(&reqId, data.data(), 4);
    EXPECT_EQ(frameLength, 20);
    EXPECT_EQ(std::vector<int32_t>(words, words + 5),
              (std::vector<int32_t>{1, 12, static_cast<int32_t>(reqId), c.result, 0}));
  }
  EXPECT_TRUE(hub.events().GetEventObservers(2).empty()) << "the unregister took effect";
  // 28 bytes free is one short: the request still takes effect, no reply.
  tavo_test::LogCapture log;
  auto data = request(6, "register-event-monitor", 2);
  buffer.state.length = buffer.state.capacity - 28;
  hub.onEventProvideReqCallBack(3, data.data(), 44, &buffer.state);
  EXPECT_EQ(buffer.state.length, buffer.state.capacity - 28);
  EXPECT_EQ(log.Count("Send data size too big! ", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(hub.events().GetEventObservers(2), (std::vector<int>{3}));
}

TEST(ClientHub, ClientsGetTheirEventsInOrderUntilTheyLeave) {
  TavoClientHubOptions options;
  options.socketPath = tavo_test::UniqueName("tavo_hub");
  TavoClientHub hub(options);
  hub.Start();
  ASSERT_TRUE(tavo_test::WaitFor([&] { return hub.Listening(); }));
  std::mutex lock;
  std::vector<std::string> received;
  Tavo::Client::TavoClient::Options clientOptions;
  clientOptions.socketPath = options.socketPath;
  Tavo::Client::TavoClient client(nullptr, clientOptions);
  client.SetRawCallback([&](const char* data, size_t size) {
    std::lock_guard<std::mutex> guard(lock);
    received.emplace_back(data, size);
  });
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_EQ(client.Subscribe(TAVO_EVENT_SCHED_TASK_CREATE), 0);
  ASSERT_EQ(client.Subscribe(TAVO_NOTICE_PROCESS_START), 0);
  EXPECT_EQ(client.Subscribe(49999), -1);
  EXPECT_EQ(errno, EPROTO);

  // One at a time, then in batches as a ring pump sends them; the last
  // batches outgrow the socket, whose rest the socket thread sends.
  std::vector<std::string> sent;
  for (int pid = 1; pid <= 4000; ++pid) {
    const bool batched = pid > 200;
    if (batched && pid % 600 == 1) hub.events().BeginBatch();
    auto fork = tavo_test::CreateRecord(pid, 1, "child", pid, TAVO_TASK_KIND_PROCESS);
    tavo_notice_process_start start{TAVO_NOTICE_PROCESS_START, pid, 1, 0, "child"};
    auto exit = tavo_test::ExitRecord(pid, "child", pid, TAVO_TASK_KIND_PROCESS);  // nobody wants these
    for (const auto& bytes : {std::string(tavo_test::Bytes(fork), sizeof(fork)),
                              std::string(reinterpret_cast<char*>(&start), sizeof(start)),
                              std::string(tavo_test::Bytes(exit), sizeof(exit))}) {
      hub.AppendEvent(bytes.data(), bytes.size());
      if (bytes.size() != sizeof(exit)) sent.push_back(bytes);
    }
    if (batched && (pid % 600 == 0 || pid == 4000)) hub.events().EndBatch();
  }
  ASSERT_TRUE(tavo_test::WaitFor([&] {
    std::lock_guard<std::mutex> guard(lock);
    return received.size() >= sent.size();
  }, 10000));
  {
    std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(received, sent);
  }
  ASSERT_EQ(client.Unsubscribe(TAVO_EVENT_SCHED_TASK_CREATE), 0);
  EXPECT_EQ(hub.events().GetEventObservers(TAVO_EVENT_SCHED_TASK_CREATE).size(), 0u);
  client.Close();
  EXPECT_TRUE(tavo_test::WaitFor([&] { return hub.events().ClientCount() == 0; }));
  EXPECT_TRUE(hub.events().GetEventObservers(TAVO_NOTICE_PROCESS_START).empty());
}

TEST(ClientHub, ASubscriptionWhoseReplyFoundNoRoomIsAnsweredWhenSentAgain) {
  tavo_test::LogCapture log;
  TavoClientHubOptions options;
  options.socketPath = tavo_test::UniqueName("tavo_hub");
  TavoClientHub hub(options);
  hub.Start();
  ASSERT_TRUE(tavo_test::WaitFor([&] { return hub.Listening(); }));
  Tavo::Client::TavoClient::Options clientOptions;
  clientOptions.socketPath = options.socketPath;
  // Small reads: the hub's full socket takes nothing more before the
  // client's request is there.
  clientOptions.bufferSize = 4096;
  // The first event holds the client's socket thread: nothing more is read
  // and the request for B waits unsent.
  std::promise<void> go;
  std::shared_future<void> released = go.get_future().share();
  std::atomic<bool> held{false};
  Tavo::Client::TavoClient client(nullptr, clientOptions);
  client.SetRawCallback([&](const char*, size_t) { held = true; released.wait(); });
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_EQ(client.Subscribe(TAVO_EVENT_SCHED_TASK_CREATE), 0);
  // Bare codes: 20-byte frames leave less room than a reply takes.
  const uint32_t a = TAVO_EVENT_SCHED_TASK_CREATE;
  auto flood = [&] { hub.AppendEvent(reinterpret_cast<const char*>(&a), sizeof(a)); };
  int result = -1;
  std::thread subscriber;
  {
    auto release = android::base::make_scope_guard([&] { go.set_value(); });
    flood();
    ASSERT_TRUE(tavo_test::WaitFor([&] { return held.load(); }));
    subscriber = std::thread([&] { result = client.Subscribe(TAVO_NOTICE_PROCESS_START); });
    // One batch, sent from here: whole send buffers until the socket is
    // full, the last one left in the send buffer, the queue full behind it.
    hub.events().BeginBatch();
    while (log.Count("queue full") == 0) flood();
    hub.events().EndBatch();
  }
  subscriber.join();
  EXPECT_EQ(result, 0);
  EXPECT_GE(log.Count("Send data size too big! ", ANDROID_LOG_ERROR), 1);
}
