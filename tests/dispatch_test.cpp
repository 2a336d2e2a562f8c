#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "event/tavo_bpf_event_manager.h"
#include "service/tavo_bpf_service.h"
#include "state/tavo_bpf_state.h"
#include "tests/support/frames.h"
#include "tests/support/log_capture.h"
#include "tests/support/service_peer.h"

using namespace Tavo::Bpf;

namespace {

std::vector<char> Record(uint32_t type, size_t size) {
  std::vector<char> record(size, 0x5a);
  memcpy(record.data(), &type, sizeof(type));
  return record;
}

uint32_t CountNow(int type) {
  auto* state = TavoBpfDataState::GetInstance();
  return state->getCounter(state->getCurrentIndex(), type);
}

std::string Frame3(const std::vector<char>& record) {
  return tavo_test::Frame(3, std::string(record.begin(), record.end()));
}

}  // namespace

TEST(Dispatch, TypeAboveFourteenAndShortRecordsAreLoggedAndRefused) {
  tavo_test::LogCapture log;
  auto r15 = Record(15, 24);
  auto r16 = Record(16, 24);
  const uint32_t polls = CountNow(15);
  EXPECT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, r15.data(), r15.size()), -1);
  EXPECT_EQ(CountNow(15), polls + 1) << "type 15 lands in the poll counter";
  EXPECT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, r16.data(), r16.size()), -1);
  EXPECT_EQ(log.Count("[TavoBpfService] handleEvent ERROR!!! Type: 15", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService] handleEvent ERROR!!! Type: 16", ANDROID_LOG_ERROR), 1);
  auto big = Record(0x80000001u, 24);
  EXPECT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, big.data(), big.size()), -1);
  EXPECT_EQ(log.Count("Type: 2147483649"), 1);

  // A record shorter than its header is refused before it is read.
  auto record = Record(2, 15);
  const uint32_t before = CountNow(2);
  EXPECT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, record.data(), record.size()), 0);
  EXPECT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, nullptr, 0), 0);
  EXPECT_EQ(CountNow(2), before);
  EXPECT_EQ(log.Count("[TavoBpfService] handleEvent short record! size: 15", ANDROID_LOG_ERROR), 1);
}

TEST(Dispatch, TypesWithoutHandlerAreCountedAndForwarded) {
  TavoBpfService* service = TavoBpfService::GetInstance();
  IpcPackageManager& queue = TavoBpfServiceTestPeer::AddClient(service, 77);
  EventManager::GetInstance()->AddObserverEvent(77, 5);
  for (uint32_t type : {4u, 5u, 6u}) {
    auto record = Record(type, 40);
    const uint32_t before = CountNow(static_cast<int>(type));
    EXPECT_EQ(TavoBpfService::handleBpfRingBuffEvent(nullptr, record.data(), record.size()), 0);
    EXPECT_EQ(CountNow(static_cast<int>(type)), before + 1);
  }
  // Only the subscribed type reaches the client: one command-3 frame.
  EXPECT_EQ(tavo_test::WireBytes(queue), Frame3(Record(5, 40)));
}

TEST(Dispatch, PassthroughOnlyForwards) {
  TavoBpfService* service = TavoBpfService::GetInstance();
  IpcPackageManager& queue = TavoBpfServiceTestPeer::AddClient(service, 78);
  EventManager::GetInstance()->AddObserverEvent(78, 99);
  auto record = Record(99, 20);
  const uint32_t before = CountNow(15);
  EXPECT_EQ(TavoBpfService::handleBpfPassthrough(nullptr, record.data(), record.size()), 0);
  EXPECT_EQ(CountNow(15), before);
  EXPECT_EQ(tavo_test::WireBytes(queue), Frame3(record));
}
