#include "event/tavo_client_hub.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "ipc/ipc_frame.h"
#include "ipc/ipc_package.h"

#include "util/tavo_log.h"
#include "util/tavo_service_contract.h"
#include "util/tavo_strings.h"

namespace Tavo::Bpf {

namespace {

constexpr int kEpollSize = 10;
constexpr int kEpollMaxEvents = 32;


}  // namespace

cpu_set_t TavoClientHubOptions::DefaultCpus() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  for (int cpu = 0; cpu <= 2; ++cpu) CPU_SET(cpu, &cpus);
  return cpus;
}

TavoClientHub::TavoClientHub(const TavoClientHubOptions& options)
    : events_([this](int fd) { return ipc_->notifyNeedWriteData(fd); },
              std::make_shared<IpcQueueBudget>(options.queuedBytesCap),
              [this](int fd) { return ipc_->sendQueued(fd); }) {
  std::map<uint32_t, IpcCommandHandler> requests;
  requests[0] = [this](int fd, char* data, int64_t length, BufferState* send) {
    return onEventProvideReqCallBack(fd, data, static_cast<long>(length), send);
  };
  requests[1] = IpcCommandHandler();
  requests[2] = IpcCommandHandler();
  requests[3] = IpcCommandHandler();
  packageHandler_ = std::make_unique<IpcPackageHandler>(requests);

  IpcHandlerState handlers;
  handlers.read = [this](int fd, BufferState* receive, BufferState* send) {
    return onClientLibReadable(fd, receive, send);
  };
  handlers.write = [this](int fd, BufferState* send) { return onClientLibWriteable(fd, send); };
  handlers.connection = [this](int fd) { return onClientLibConnection(fd); };
  handlers.close = [this](int fd) { return onClientLibClose(fd); };
  UnixIpcOptions ipc;
  ipc.isServer = true;
  ipc.bufferSize = options.bufferSize;
  ipc.path = options.socketPath;
  ipc.handlers = std::move(handlers);
  ipc.name = options.threadName;
  ipc.cpus = options.cpus;
  ipc.epollSize = kEpollSize;
  ipc.maxEvents = kEpollMaxEvents;
  ipc.maxConnections = options.maxConnections;
  ipc.peerPolicy = IpcPeerPolicy::FromAllowedIds(options.allowedIds);
  ipc_ = std::make_unique<UnixIpcManager>(std::move(ipc));
}

TavoClientHub::~TavoClientHub() { Join(); }

void TavoClientHub::Start() { ipc_->start(); }

void TavoClientHub::Stop() { ipc_->stop(); }

void TavoClientHub::Join() { ipc_->join(); }

int TavoClientHub::onClientLibConnection(int fd) {
  events_.AddClient(fd);
  return 0;
}

int TavoClientHub::onClientLibReadable(int fd, BufferState* receive, BufferState* send) {
  int64_t failedLength = 0;
  const bool ok = ForEachIpcFrame(receive, [&](const IpcFrame& frame) {
    if (packageHandler_->handleSecondIpcPackage(fd, frame.payload, static_cast<long>(frame.bodyLength), send) != -1) {
      return true;
    }
    failedLength = frame.headerLength + frame.bodyLength;
    return false;
  });
  if (ok) return 0;
  TAVO_LOGE(kServiceTag, "[TavoBpfService] Resv event: bufferCursor (%zd), numSize (%ld), dataSize (%ld), readCount (%zd)",
            static_cast<ssize_t>(receive->cursor), static_cast<long>(kIpcFrameHeaderSize),
            static_cast<long>(failedLength - kIpcFrameHeaderSize), static_cast<ssize_t>(receive->length));
  // Never dump past the bytes actually received.
  const int64_t dumpLength = std::min(failedLength, receive->length - receive->cursor);
  TAVO_LOGE(kServiceTag, "[TavoBpfService] BUFFER HEXDUMP: %s",
            ConvertToHexString(receive->data + receive->cursor, static_cast<int>(dumpLength)).c_str());
  return -1;
}

int TavoClientHub::onClientLibWriteable(int fd, BufferState* send) {
  events_.FillSendBuffer(fd, send);
  return 0;
}

int TavoClientHub::onClientLibClose(int fd) {
  // Subscriptions go first, so no producer queues for this fd any more.
  events_.RemoveClient(fd);
  return 0;
}

int TavoClientHub::onEventProvideReqCallBack(int fd, char* data, long length, BufferState* send) {
  uint32_t reqId = 0;
  if (data != nullptr && length >= static_cast<long>(sizeof(reqId))) memcpy(&reqId, data, sizeof(reqId));
  int32_t result = -1;
  // A request too short for its event type is refused without reading on;
  // so is a code nobody can subscribe to.
  if (data != nullptr && length >= static_cast<long>(kRequestLength)) {
    int32_t eventType = 0;
    memcpy(&eventType, data + kRequestEventTypeOffset, sizeof(eventType));
    const char* command = data + kRequestCommandOffset;
    if (memcmp(command, kRegisterEventMonitor, sizeof(kRegisterEventMonitor)) == 0) {
      if (events_.AddObserverEvent(fd, eventType)) result = 0;
    } else if (memcmp(command, kUnregisterEventMonitor, sizeof(kUnregisterEventMonitor)) == 0) {
      if (events_.DelObserverEvent(fd, eventType)) result = 0;
    }
  }
  // The compact 12-byte response record: reqId, result, its data length 0.
  const uint32_t replyDataLength = 0;
  if (!AppendIpcCommandFrame(send, IPC_COMMAND_RESPONSE, {{&reqId, 4}, {&result, 4}, {&replyDataLength, 4}}, true)) {
    TAVO_LOGE(kServiceTag, "Send data size too big! ");
  }
  return 0;
}

}  // namespace Tavo::Bpf
