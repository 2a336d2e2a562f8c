#include "tools/tavo_client/tavo_client.h"

#include <sched.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <vector>

#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_package.h"
#include "ipc/unix_ipc_manager.h"

namespace Tavo::Client {

namespace {

constexpr const char* kRegister = "register-event-monitor";
constexpr const char* kUnregister = "unregister-event-monitor";
constexpr size_t kCommandOffset = 4;
constexpr size_t kCommandWidth = 28;
// The compact response record: reqId, result, data length.
constexpr uint32_t kResponseRecord = 12;

// One plain connect to the abstract socket, to tell "not running" at once
// (the socket layer's own connect retries for ever).
int ProbeService(const std::string& path) {
  android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd < 0) return -1;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() + 1 > sizeof(addr.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  memcpy(addr.sun_path + 1, path.data(), path.size());  // sun_path[0] = 0: abstract
  const auto len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
  return ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), len) == 0 ? 0 : -1;
}

cpu_set_t CallerCpus() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  if (sched_getaffinity(0, sizeof(cpus), &cpus) != 0) CPU_SET(0, &cpus);
  return cpus;
}

}  // namespace

// The socket layer in client mode; its connect() is the one place that knows
// a (re)connection has just been made.
class TavoClient::Ipc : public UnixIpcManager {
 public:
  Ipc(TavoClient* owner, IpcHandlerState handlers)
      : UnixIpcManager(false, owner->options.bufferSize, owner->options.socketPath,
                       std::move(handlers), "TavoClient", CallerCpus(), 4, 16),
        owner(owner) {}

  bool connect() override {
    if (!UnixIpcManager::connect()) return false;
    owner->onConnected(this, getSocketFd());
    return true;
  }

 private:
  TavoClient* owner;
};

TavoClient::TavoClient(EventCallback onEvent) : TavoClient(std::move(onEvent), Options()) {}

TavoClient::TavoClient(EventCallback onEvent, Options options)
    : onEvent(std::move(onEvent)), options(std::move(options)) {}

TavoClient::~TavoClient() { Close(); }

void TavoClient::SetRawCallback(RawCallback callback) { onRaw = std::move(callback); }

void TavoClient::SetConnectionCallback(ConnectionCallback callback) {
  onConnection = std::move(callback);
}

int TavoClient::Connect() {
  if (ipc != nullptr) {
    errno = EALREADY;
    return -1;
  }
  if (!options.waitForService && ProbeService(options.socketPath) != 0) return -1;
  IpcHandlerState handlers;
  // Partial frames move to the front before each read; a broken stream
  // closes the connection, and the layer connects anew.
  handlers.saveUnusedBuffer = true;
  handlers.closeOnError = true;
  handlers.read = [this](int fd, BufferState* receive, BufferState* send) {
    return onReadable(fd, receive, send);
  };
  handlers.write = [this](int fd, BufferState* send) { return onWritable(fd, send); };
  handlers.close = [this](int fd) { return onClose(fd); };
  received = 0;
  ipc = std::make_unique<Ipc>(this, std::move(handlers));
  ipc->start();
  return 0;
}

void TavoClient::Close() {
  if (ipc == nullptr) return;
  ipc->stop();
  // Joined before the object goes: the base destructor joins too, but only
  // after Ipc's part is gone, while the thread may still call its connect().
  ipc->join();
  ipc.reset();
  connected = false;
}

int TavoClient::Subscribe(uint32_t code) {
  const int result = request(kRegister, code);
  if (result == 0) {
    std::lock_guard<std::mutex> guard(subscriptionLock);
    subscriptions.insert(code);
  }
  return result;
}

int TavoClient::Unsubscribe(uint32_t code) {
  {
    std::lock_guard<std::mutex> guard(subscriptionLock);
    subscriptions.erase(code);
  }
  return request(kUnregister, code);
}

bool TavoClient::queueRequest(const char* command, uint32_t code, uint32_t reqId) {
  TavoReqIpcPackage req{};
  memcpy(req.header, &reqId, sizeof(reqId));
  strncpy(req.header + kCommandOffset, command, kCommandWidth - 1);
  req.dataLength = sizeof(code);
  req.data = reinterpret_cast<char*>(&code);
  return outgoing.appendReqIpcPackage(&req);
}

void TavoClient::flush() {
  if (ipc == nullptr) return;
  const int fd = ipc->getSocketFd();
  // Not connected yet: onConnected() flushes once the connection is made.
  if (fd >= 0) ipc->notifyNeedWriteData(fd);
}

int TavoClient::request(const char* command, uint32_t code) {
  if (ipc == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  struct Waiter {
    std::mutex lock;
    std::condition_variable cond;
    bool done = false;
    int result = 0;
  };
  auto waiter = std::make_shared<Waiter>();
  const uint32_t reqId = requests.getReqId();
  requests.addIpcReqCallBack(reqId, [waiter](uint32_t, int result, char*, uint32_t) {
    std::lock_guard<std::mutex> guard(waiter->lock);
    waiter->done = true;
    waiter->result = result;
    waiter->cond.notify_all();
    return 0;
  });
  if (!queueRequest(command, code, reqId)) {
    requests.delIpcReq(reqId);
    errno = ENOMEM;
    return -1;
  }
  flush();
  std::unique_lock<std::mutex> guard(waiter->lock);
  waiter->cond.wait_for(guard, std::chrono::milliseconds(options.requestTimeoutMs),
                        [&] { return waiter->done; });
  if (!waiter->done) {
    guard.unlock();
    // The response callback runs under the manager's lock, so once this
    // returns it has either run completely or never will.
    requests.delIpcReq(reqId);
    guard.lock();
    if (!waiter->done) {
      errno = connected ? ETIMEDOUT : ENOTCONN;
      return -1;
    }
  }
  if (waiter->result != 0) {
    errno = EPROTO;
    return -1;
  }
  return 0;
}

void TavoClient::onConnected(UnixIpcManager* manager, int fd) {
  connected = true;
  if (++connections > 1) {
    // A new connection knows nothing of us: ask again for what we had.
    std::lock_guard<std::mutex> guard(subscriptionLock);
    for (uint32_t code : subscriptions) {
      const uint32_t reqId = requests.getReqId();
      requests.addIpcReqCallBack(reqId, IpcReqCallBack());  // answer consumed unseen
      if (!queueRequest(kRegister, code, reqId)) requests.delIpcReq(reqId);
    }
  }
  if (onConnection) onConnection(true);
  manager->notifyNeedWriteData(fd);
}

int TavoClient::onClose(int) {
  connected = false;
  if (onConnection) onConnection(false);
  return 0;
}

int TavoClient::onWritable(int, BufferState* send) {
  while (outgoing.fillNextIpcPackageToBuffer(send)) {
  }
  return 0;
}

int TavoClient::onReadable(int, BufferState* receive, BufferState*) {
  while (receive->cursor < receive->length) {
    int64_t headerLength = 0;
    int64_t bodyLength = 0;
    if (!CheckIpcPackageComplete(receive, headerLength, bodyLength)) return 0;
    if (bodyLength < 0) return -1;  // not a stream from the service
    const char* payload = receive->data + receive->cursor + headerLength;
    if (bodyLength >= kIpcCommandHeaderSize) {
      uint32_t command = 0;
      uint32_t dataLength = 0;
      memcpy(&command, payload, sizeof(command));
      memcpy(&dataLength, payload + 4, sizeof(dataLength));
      const char* data = payload + kIpcCommandHeaderSize;
      // A package claiming more than its frame holds is skipped, not read.
      if (dataLength <= bodyLength - kIpcCommandHeaderSize) {
        if (command == IPC_COMMAND_RESPONSE && dataLength >= kResponseRecord) {
          TavoRespIpcPackage response{};
          memcpy(&response.reqId, data, 4);
          memcpy(&response.result, data + 4, 4);
          requests.handleReqCallBack(&response);
        } else if (command == IPC_COMMAND_EVENT) {
          deliver(data, dataLength);
        }
      }
    }
    receive->cursor += headerLength + bodyLength;
  }
  return 0;
}

void TavoClient::deliver(const char* data, size_t length) {
  ++received;
  if (onRaw) onRaw(data, length);
  if (onEvent) onEvent(DecodeEvent(data, length));
}

}  // namespace Tavo::Client
