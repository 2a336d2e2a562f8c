// The service's side of a client connection: queues, subscription requests,
// replies and the flushing of queued events. Runs on the socket thread.
#include <sys/types.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "event/tavo_bpf_event_manager.h"
#include "ipc/ipc_package_manager.h"
#include "service/tavo_bpf_service.h"
#include "util/tavo_log.h"
#include "util/tavo_strings.h"

namespace Tavo::Bpf {

namespace {

constexpr char kRegisterCommand[] = "register-event-monitor";      // 23 bytes with NUL
constexpr char kUnregisterCommand[] = "unregister-event-monitor";  // 25 bytes with NUL
constexpr long kCommandOffset = 4;
constexpr long kEventTypeOffset = 40;
// reqId, command text, further header words, then the 32-bit event type.
constexpr long kRequestLength = kEventTypeOffset + 4;

// Frame length, command code and data length, then reqId, result and the
// response's own data length.
constexpr int64_t kReplyFrameLength = 20;
constexpr uint32_t kReplyCommand = 1;
constexpr uint32_t kReplyDataLength = 12;
constexpr int64_t kReplySize = 8 + kReplyFrameLength;

struct FreeDeleter {
  void operator()(void* block) const { free(block); }
};

}  // namespace

int TavoBpfService::onClientLibConnection(int fd) {
  // Producers look queues up under this lock; inserting under it keeps the
  // map consistent for them. An existing queue is kept as it is.
  std::lock_guard<std::mutex> guard(EventManager::tavoRawEventManagerLock);
  clientQueues.try_emplace(fd);
  return 0;
}

int TavoBpfService::onClientLibReadable(int fd, BufferState* receive, BufferState* send) {
  if (receive->cursor >= receive->length) return 0;
  for (;;) {
    int64_t numSize = 0;
    int64_t dataSize = 0;
    if (!CheckIpcPackageComplete(receive, numSize, dataSize)) return 0;
    const int result = dataSize < 0 ? -1
                                    : packageHandler->handleSecondIpcPackage(
                                          fd, receive->data + receive->cursor + numSize,
                                          static_cast<long>(dataSize), send);
    if (result == -1) {
      TAVO_LOGE(kServiceTag,
                "[TavoBpfService] Resv event: bufferCursor (%zd), numSize (%ld), dataSize (%ld), "
                "readCount (%zd)",
                static_cast<ssize_t>(receive->cursor), static_cast<long>(numSize),
                static_cast<long>(dataSize), static_cast<ssize_t>(receive->length));
      // Never dump past the bytes actually received.
      int64_t dumpLength = numSize + (dataSize < 0 ? 0 : dataSize);
      if (dumpLength > receive->length - receive->cursor) dumpLength = receive->length - receive->cursor;
      TAVO_LOGE(kServiceTag, "[TavoBpfService] BUFFER HEXDUMP: %s",
                ConvertToHexString(receive->data + receive->cursor, static_cast<int>(dumpLength)).c_str());
      return -1;
    }
    receive->cursor += numSize + dataSize;
    if (receive->cursor >= receive->length) return 0;
  }
}

int TavoBpfService::onClientLibWriteable(int fd, BufferState* send) {
  // Only this thread changes the map, so reading it here needs no lock.
  auto it = clientQueues.find(fd);
  if (it == clientQueues.end()) return 0;
  while (it->second.fillNextIpcPackageToBuffer(send)) {
  }
  return 0;
}

int TavoBpfService::onClientLibClose(int fd) {
  // Subscriptions first, so no producer queues for this fd any more.
  EventManager::GetInstance()->EraseObserver(fd);
  std::lock_guard<std::mutex> guard(EventManager::tavoRawEventManagerLock);
  clientQueues.erase(fd);
  return 0;
}

int TavoBpfService::onEventProvideReqCallBack(int fd, char* data, long length, BufferState* send) {
  uint32_t reqId = 0;
  if (data != nullptr && length >= static_cast<long>(sizeof(reqId))) memcpy(&reqId, data, sizeof(reqId));
  int32_t result = -1;
  // A request too short for its event type is refused without reading on.
  if (data != nullptr && length >= kRequestLength) {
    int32_t eventType = 0;
    memcpy(&eventType, data + kEventTypeOffset, sizeof(eventType));
    const char* command = data + kCommandOffset;
    if (memcmp(command, kRegisterCommand, sizeof(kRegisterCommand)) == 0) {
      EventManager::GetInstance()->AddObserverEvent(fd, eventType);
      result = 0;
    } else if (memcmp(command, kUnregisterCommand, sizeof(kUnregisterCommand)) == 0) {
      EventManager::GetInstance()->DelObserverEvent(fd, eventType);
      result = 0;
    }
  }
  if (send->capacity - send->length >= kReplySize + 1) {
    std::unique_ptr<char, FreeDeleter> reply(static_cast<char*>(malloc(kReplyFrameLength)));
    if (reply == nullptr) return 0;
    const uint32_t replyDataLength = 0;
    memcpy(reply.get(), &kReplyCommand, 4);
    memcpy(reply.get() + 4, &kReplyDataLength, 4);
    memcpy(reply.get() + 8, &reqId, 4);
    memcpy(reply.get() + 12, &result, 4);
    memcpy(reply.get() + 16, &replyDataLength, 4);
    char* out = send->data + send->length;
    memcpy(out, &kReplyFrameLength, 8);
    memcpy(out + 8, reply.get(), kReplyFrameLength);
    send->length += kReplySize;
  } else {
    TAVO_LOGE(kServiceTag, "Send data size too big! ");
  }
  return 0;
}

void TavoBpfService::notifyClientEventReady(const std::vector<int>& fds) {
  for (int fd : fds) ipcManager->notifyNeedWriteData(fd);
}

}  // namespace Tavo::Bpf
