// The service's client callbacks, called directly with buffers.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "event/tavo_bpf_event_manager.h"
#include "service/tavo_bpf_service.h"
#include "tests/subs_test_util.h"
#include "tests/support/log_capture.h"
#include "tests/support/service_peer.h"

using namespace Tavo::Bpf;
using subs_test::Frame;
using subs_test::Reply;
using subs_test::RequestRecord;

namespace {

using Buffer = tavo_test::TestBuffer;

TavoBpfService* Service() { return TavoBpfService::GetInstance(); }

struct CommandCase {
  const char* label;
  std::string command;  // bytes at offset 4, NULs included
  int32_t result;
  bool subscribed;
};

void PrintTo(const CommandCase& c, std::ostream* os) { *os << c.label; }

class SubsRequestCommand : public testing::TestWithParam<CommandCase> {};

TEST_P(SubsRequestCommand, ReplyIsTwentyEightBytesWithResult) {
  const CommandCase& c = GetParam();
  Buffer send(256);
  std::string record = RequestRecord(7, c.command, 2);
  EXPECT_EQ(Service()->onEventProvideReqCallBack(3, record.data(), static_cast<long>(record.size()),
                                                 &send.state),
            0);
  EXPECT_EQ(send.Written(), Reply(7, c.result));
  EXPECT_EQ(EventManager::GetInstance()->GetEventObservers(2).size(), c.subscribed ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, SubsRequestCommand,
    testing::Values(
        CommandCase{"Register", std::string("register-event-monitor") + '\0', 0, true},
        CommandCase{"RegisterThenJunkAfterNul", std::string("register-event-monitor") + '\0' + "xy", 0, true},
        CommandCase{"RegisterTrailingChar", "register-event-monitorX", -1, false},
        CommandCase{"RegisterNoTerminator", "register-event-monitor" + std::string(5, 'z'), -1, false},
        CommandCase{"RegisterPrefix", std::string("register-event-monito") + '\0', -1, false},
        CommandCase{"UnregisterUnknownPair", std::string("unregister-event-monitor") + '\0', 0, false},
        CommandCase{"UnregisterTrailingChar", "unregister-event-monitor!", -1, false},
        CommandCase{"Empty", std::string(), -1, false}),
    [](const testing::TestParamInfo<CommandCase>& info) { return std::string(info.param.label); });

TEST(SubsCallbacks, ShortRequestIsRefusedWithoutReadingOn) {
  // Only 43 bytes: the event type would lie past the end.
  std::string record = RequestRecord(9, std::string("register-event-monitor") + '\0', 2);
  record.resize(43);
  Buffer send(256);
  Service()->onEventProvideReqCallBack(3, record.data(), 43, &send.state);
  EXPECT_EQ(send.Written(), Reply(9, -1));
  EXPECT_TRUE(EventManager::GetInstance()->GetObserverEvents(3).empty());
  // Too short even for the request id.
  Buffer send2(256);
  Service()->onEventProvideReqCallBack(3, record.data(), 2, &send2.state);
  EXPECT_EQ(send2.Written(), Reply(0, -1));
}

TEST(SubsCallbacks, ReplyNeedsTwentyNineFreeBytes) {
  tavo_test::LogCapture log;
  std::string record = RequestRecord(1, std::string("register-event-monitor") + '\0', 4);
  Buffer tight(100);
  tight.state.length = 72;  // 28 free
  Service()->onEventProvideReqCallBack(3, record.data(), 44, &tight.state);
  EXPECT_EQ(tight.state.length, 72);
  EXPECT_EQ(log.Count("Send data size too big! ", ANDROID_LOG_ERROR), 1);
  // The request took effect all the same.
  EXPECT_EQ(EventManager::GetInstance()->GetObserverEvents(3), std::vector<int>{4});

  Buffer roomy(100);
  roomy.state.length = 71;  // 29 free
  Service()->onEventProvideReqCallBack(3, record.data(), 44, &roomy.state);
  EXPECT_EQ(roomy.state.length, 99);
  EXPECT_EQ(roomy.Written().substr(71), Reply(1, 0));
  EXPECT_EQ(log.Count("Send data size too big! "), 1);
}

TEST(SubsCallbacks, RejectedFrameIsLoggedWithHexdumpAndStops) {
  tavo_test::LogCapture log;
  // A dispatcher whose command-2 handler refuses every package.
  std::map<uint32_t, IpcCommandHandler> table;
  table[2] = [](int, char*, int64_t, BufferState*) { return -1; };
  TavoBpfServiceTestPeer::PackageHandler(Service()) = std::make_unique<IpcPackageHandler>(table);
  Buffer receive(64);
  Buffer send(64);
  receive.Put(Frame(2, "\x01\xff") + Frame(2, ""));
  EXPECT_EQ(Service()->onClientLibReadable(3, &receive.state, &send.state), -1);
  EXPECT_EQ(receive.state.cursor, 0);
  tavo_test::ExpectLogged(log, {
      {"[TavoBpfService] Resv event: bufferCursor (0), numSize (8), dataSize (10), readCount (34)", ANDROID_LOG_ERROR, 1},
      {"[TavoBpfService] BUFFER HEXDUMP: 0a 00 00 00 00 00 00 00 02 00 00 00 02 00 00 00 01 ff ", ANDROID_LOG_ERROR, 1},
  });
}

TEST(SubsCallbacks, EventsReachSubscribersInOrderAndCloseOrUnsubscribeDropsThem) {
  TavoBpfService* service = Service();
  auto& queues = TavoBpfServiceTestPeer::ClientQueues(service);
  for (int fd : {40, 41}) service->onClientLibConnection(fd);
  ASSERT_EQ(queues.size(), 2u);
  Buffer scratch(256);
  for (int fd : {41, 40}) {
    std::string record = RequestRecord(1, std::string("register-event-monitor") + '\0', 5);
    service->onEventProvideReqCallBack(fd, record.data(), 44, &scratch.state);
  }
  EXPECT_EQ(EventManager::GetInstance()->GetEventObservers(5), (std::vector<int>{41, 40}));

  auto record = subs_test::Record(5, 120, 0x33);
  EXPECT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, record.data(), record.size()), 0);
  const std::string expected = Frame(3, std::string(record.begin(), record.end()));
  for (int fd : {40, 41}) {
    Buffer send(4096);
    service->onClientLibWriteable(fd, &send.state);
    EXPECT_EQ(send.Written(), expected) << "fd " << fd;
  }

  // Queued and not yet written: the close throws it away with the queue.
  TavoBpfService::handleBpfRingBuffEvent(nullptr, record.data(), record.size());
  EXPECT_EQ(queues.at(40).getIpcPackageCount(), 1u);
  service->onClientLibClose(40);
  EXPECT_EQ(queues.count(40), 0u);
  EXPECT_EQ(EventManager::GetInstance()->GetEventObservers(5), std::vector<int>{41});
  EXPECT_TRUE(EventManager::GetInstance()->GetObserverEvents(40).empty());
  // Unknown fd: only its subscriptions (none) are dropped.
  service->onClientLibClose(99);
  EXPECT_EQ(queues.size(), 1u);

  // A repeated register changes nothing; unregister stops delivery.
  service->onClientLibConnection(60);
  Buffer send(256);
  std::string reg = RequestRecord(1, std::string("register-event-monitor") + '\0', 6);
  std::string unreg = RequestRecord(2, std::string("unregister-event-monitor") + '\0', 6);
  service->onEventProvideReqCallBack(60, reg.data(), 44, &send.state);
  service->onEventProvideReqCallBack(60, reg.data(), 44, &send.state);
  service->onEventProvideReqCallBack(60, unreg.data(), 44, &send.state);
  EXPECT_EQ(send.Written(), Reply(1, 0) + Reply(1, 0) + Reply(2, 0));
  auto other = subs_test::Record(6, 48, 1);
  TavoBpfService::handleBpfRingBuffEvent(nullptr, other.data(), other.size());
  EXPECT_EQ(queues.at(60).getIpcPackageCount(), 0u);
}

TEST(SubsCallbacks, WriteMovesOnlyWholePackagesThatFit) {
  TavoBpfService* service = Service();
  service->onClientLibConnection(50);
  service->onClientLibConnection(50);  // an existing queue is kept
  auto& queue = TavoBpfServiceTestPeer::ClientQueues(service).at(50);
  const std::string data(40, 'a');
  for (int i = 0; i < 3; ++i) queue.buildAndAppendSecondIpcPackage(3, data.data(), data.size());
  // Each frame is 56 bytes; 120 free holds two under the strict test.
  Buffer send(120);
  EXPECT_EQ(service->onClientLibWriteable(50, &send.state), 0);
  EXPECT_EQ(send.state.length, 112);
  EXPECT_EQ(queue.getIpcPackageCount(), 1u);
  Buffer none(8);
  EXPECT_EQ(service->onClientLibWriteable(77, &none.state), 0);
}

}  // namespace
