// The service over its real socket, with raw peers and the client library.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <optional>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "event/tavo_bpf_event_manager.h"
#include "service/tavo_bpf_service.h"
#include "tests/subs_test_util.h"
#include "tests/support/service_peer.h"
#include "tests/support/task_records.h"
#include "tests/support/test_env.h"
#include "tools/tavo_client/tavo_client.h"

using namespace Tavo::Bpf;
using Tavo::Client::TavoClient;
using subs_test::Frame;
using subs_test::InProcessService;
using subs_test::RawPeer;
using subs_test::Register;
using subs_test::Reply;
using subs_test::Subscribers;
using subs_test::WaitFor;

namespace {

void Inject(uint32_t type, size_t size, uint8_t fill) {
  auto record = subs_test::Record(type, size, fill);
  TavoBpfService::handleBpfRingBuffEvent(nullptr, record.data(), record.size());
}

std::string EventFrame(uint32_t type, size_t size, uint8_t fill) {
  auto record = subs_test::Record(type, size, fill);
  return Frame(3, std::string(record.begin(), record.end()));
}

// Collects what a library client receives.
struct Collector {
  std::mutex lock;
  std::vector<std::string> raw;
  void Attach(TavoClient& client) {
    client.SetRawCallback([this](const char* data, size_t n) {
      std::lock_guard<std::mutex> guard(lock);
      raw.emplace_back(data, n);
    });
  }
  size_t Count() {
    std::lock_guard<std::mutex> guard(lock);
    return raw.size();
  }
};

// The service runs in this process for each test.
class SubsSocket : public testing::Test {
 protected:
  void SetUp() override {
    TAVO_REQUIRE_ISOLATION();
    service.emplace();
    ASSERT_TRUE(service->ok());
  }
  std::optional<InProcessService> service;
};

// Two requests in one write (the second refused), then events as command-3
// packages; a request cut in two is answered once complete.
TEST_F(SubsSocket, RawPeersGetRepliesThenEventsAndHalfARequestWaits) {
  RawPeer peer(subs_test::kSocket);
  ASSERT_TRUE(peer.ok());
  ASSERT_TRUE(peer.Send(Register(5, 5) + Frame(0, subs_test::RequestRecord(6, "nonsense", 5))));
  EXPECT_EQ(peer.Recv(56), Reply(5, 0) + Reply(6, -1));
  Inject(5, 120, 0xa1);
  Inject(5, 64, 0xa2);
  EXPECT_EQ(peer.Recv(2 * 16 + 120 + 64), EventFrame(5, 120, 0xa1) + EventFrame(5, 64, 0xa2));

  RawPeer half(subs_test::kSocket);
  const std::string frame = Register(9, 2);
  ASSERT_TRUE(half.Send(frame.substr(0, 21)));
  EXPECT_EQ(half.Recv(28, 200), "");
  ASSERT_TRUE(half.Send(frame.substr(21)));
  EXPECT_EQ(half.Recv(28), Reply(9, 0));
}

TEST_F(SubsSocket, TwoClientsReceiveInOrderAndUnsubscribeAndCloseTakeEffect) {
  Collector ca, cb;  // outlive the clients that feed them
  TavoClient a(nullptr), b(nullptr);
  ca.Attach(a);
  cb.Attach(b);
  ASSERT_EQ(a.Connect(), 0);
  ASSERT_EQ(b.Connect(), 0);
  ASSERT_EQ(a.Subscribe(5), 0);
  ASSERT_EQ(b.Subscribe(5), 0);
  ASSERT_EQ(b.Subscribe(TAVO_NOTICE_PROCESS_START), 0);
  for (int i = 0; i < 200; ++i) Inject(5, 48, static_cast<uint8_t>(i));
  ASSERT_TRUE(WaitFor([&] { return ca.Count() == 200 && cb.Count() == 200; }));
  for (int i = 0; i < 200; ++i) {
    const auto expected = subs_test::Record(5, 48, static_cast<uint8_t>(i));
    ASSERT_EQ(ca.raw[i], std::string(expected.begin(), expected.end())) << i;
    ASSERT_EQ(cb.raw[i], ca.raw[i]) << i;
  }

  ASSERT_EQ(a.Unsubscribe(5), 0);
  Inject(5, 48, 0xee);
  ASSERT_TRUE(WaitFor([&] { return cb.Count() == 201; }));
  EXPECT_EQ(ca.Count(), 200u);

  // Closing drops every subscription of the client.
  b.Close();
  ASSERT_TRUE(WaitFor([] { return Subscribers(5) == 0 && Subscribers(TAVO_NOTICE_PROCESS_START) == 0; }));
  EXPECT_TRUE(WaitFor([] {
    std::lock_guard<std::mutex> guard(EventManager::tavoRawEventManagerLock);
    return TavoBpfServiceTestPeer::ClientQueues(TavoBpfService::GetInstance()).size() == 1;
  }));
}

TEST(SubsClientLibrary, DecodesAndReportsRefusalsAndAbsentService) {
  TAVO_REQUIRE_ISOLATION();
  {
    TavoClient early(nullptr);
    EXPECT_EQ(early.Connect(), -1);  // nobody listens yet
    EXPECT_EQ(early.Subscribe(2), -1);
    EXPECT_EQ(errno, ENOTCONN);
  }
  InProcessService service;
  ASSERT_TRUE(service.ok());
  std::mutex lock;
  std::vector<Tavo::Client::Event> events;
  TavoClient client([&](const Tavo::Client::Event& e) {
    std::lock_guard<std::mutex> guard(lock);
    events.push_back(e);
  });
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_EQ(client.Subscribe(TAVO_EVENT_SCHED_TASK_EXIT), 0);
  auto exitRecord = tavo_test::ExitRecord(4321, "worker", 77, TAVO_TASK_KIND_THREAD);
  TavoBpfService::handleBpfRingBuffEvent(nullptr, &exitRecord, sizeof(exitRecord));
  TavoBpfService::handleBpfRingBuffEvent(nullptr, &exitRecord, 20);  // cut short
  ASSERT_TRUE(WaitFor([&] {
    std::lock_guard<std::mutex> guard(lock);
    return events.size() == 2;
  }));
  const auto* decoded = std::get_if<Tavo::Client::TaskExitRecord>(&events[0]);
  ASSERT_NE(decoded, nullptr);
  EXPECT_EQ(decoded->pid, 4321);
  EXPECT_EQ(decoded->comm, "worker");
  EXPECT_EQ(decoded->header.ts, 77u);
  const auto* error = std::get_if<Tavo::Client::DecodeError>(&events[1]);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->reason, Tavo::Client::DecodeError::Reason::kTooShort);
  EXPECT_EQ(error->length, 20u);
}

TEST_F(SubsSocket, ClientSubscribesAgainAfterLosingItsConnection) {
  std::atomic<int> ups{0}, downs{0};
  Collector collected;
  TavoClient client(nullptr);
  collected.Attach(client);
  client.SetConnectionCallback([&](bool up) { ++(up ? ups : downs); });
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_EQ(client.Subscribe(4), 0);
  const std::vector<int> before = EventManager::GetInstance()->GetEventObservers(4);
  ASSERT_EQ(before.size(), 1u);
  // The service side of the connection goes away under the client.
  shutdown(before[0], SHUT_RDWR);
  ASSERT_TRUE(WaitFor([&] { return downs == 1 && ups == 2; }, 5000));
  // Records reach the client again once its renewed subscription is in.
  EXPECT_TRUE(WaitFor([&] {
    Inject(4, 32, 9);
    return collected.Count() > 0;
  }));
  EXPECT_EQ(Subscribers(4), 1u);
}

TEST_F(SubsSocket, ClientThatNeverReadsIsBoundedAndOthersCarryOn) {
  RawPeer stuck(subs_test::kSocket);
  ASSERT_TRUE(stuck.ok());
  ASSERT_TRUE(stuck.Send(Register(1, 5)));
  EXPECT_EQ(stuck.Recv(28), Reply(1, 0));
  Collector collected;
  TavoClient reader(nullptr);
  collected.Attach(reader);
  ASSERT_EQ(reader.Connect(), 0);
  ASSERT_EQ(reader.Subscribe(5), 0);
  // Far more than socket buffers and the 4 MiB queue bound hold.
  constexpr int kRecords = 40000;
  for (int i = 0; i < kRecords; ++i) {
    Inject(5, 240, 1);
    if (i % 2000 == 0) WaitFor([&] { return collected.Count() + 2000 > static_cast<size_t>(i); });
  }
  ASSERT_TRUE(WaitFor([&] { return collected.Count() == kRecords; }, 10000)) << collected.Count();
  std::lock_guard<std::mutex> guard(EventManager::tavoRawEventManagerLock);
  uint64_t dropped = 0;
  for (auto& [fd, queue] : TavoBpfServiceTestPeer::ClientQueues(TavoBpfService::GetInstance())) {
    EXPECT_LE(queue.getQueuedBytes(), IpcPackageManager::kMaxQueuedBytes) << fd;
    dropped += queue.getDroppedCount();
  }
  // Only the stuck client's queue hit the bound.
  EXPECT_GT(dropped, 0u);
}

}  // namespace
