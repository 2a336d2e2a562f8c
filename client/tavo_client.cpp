#include "client/tavo_client.h"

#include <sched.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_callback_result.h"
#include "ipc/ipc_frame.h"
#include "ipc/ipc_package.h"
#include "ipc/unix_ipc_manager.h"
#include "util/tavo_service_contract.h"

namespace Tavo::Client {

namespace {

using Tavo::Bpf::kRegisterEventMonitor;
using Tavo::Bpf::kReplyRecordLength;
using Tavo::Bpf::kRequestCommandOffset;
using Tavo::Bpf::kRequestCommandWidth;
using Tavo::Bpf::kUnregisterEventMonitor;

// First wait for a reply before the request is sent again.
constexpr std::chrono::milliseconds kFirstResendWait{250};

}  // namespace

// The socket layer's own connect retries for ever; this tells "not
// running" at once.
bool ServiceListening(const std::string& path) {
  android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd < 0) return false;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() + 1 > sizeof(addr.sun_path)) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(addr.sun_path + 1, path.data(), path.size());  // sun_path[0] = 0: abstract
  const auto len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
  return ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), len) == 0;
}

// The socket layer in client mode; its connect() is the one place that knows
// a (re)connection has just been made.
class TavoClient::Ipc : public UnixIpcManager {
 public:
  Ipc(TavoClient* owner, IpcHandlerState handlers)
      : UnixIpcManager(SocketOptions(owner->options_, std::move(handlers))), owner_(owner) {}
  // The loop calls connect() on a lost connection: it must end before this
  // part of the object does.
  ~Ipc() override { join(); }

  bool connect() override {
    if (!UnixIpcManager::connect()) return false;
    owner_->onConnected(this, getSocketFd());
    return true;
  }

 private:
  static UnixIpcOptions SocketOptions(const Options& client, IpcHandlerState handlers) {
    UnixIpcOptions options;
    options.isServer = false;
    options.bufferSize = client.bufferSize;
    options.path = client.socketPath;
    options.handlers = std::move(handlers);
    options.name = "TavoClient";  // on the caller's CPUs
    options.epollSize = 4;
    options.maxEvents = 16;
    return options;
  }

  TavoClient* owner_;
};

TavoClient::TavoClient(EventCallback onEvent) : TavoClient(std::move(onEvent), Options()) {}

TavoClient::TavoClient(EventCallback onEvent, Options options)
    : onEvent_(std::move(onEvent)), options_(std::move(options)) {}

TavoClient::~TavoClient() { Close(); }

void TavoClient::SetRawCallback(RawCallback callback) { onRaw_ = std::move(callback); }

void TavoClient::SetConnectionCallback(ConnectionCallback callback) {
  onConnection_ = std::move(callback);
}

int TavoClient::Connect() {
  if (ipc_ != nullptr) {
    errno = EALREADY;
    return -1;
  }
  if (!options_.waitForService && !ServiceListening(options_.socketPath)) return -1;
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
  received_ = 0;
  ipc_ = std::make_unique<Ipc>(this, std::move(handlers));
  ipc_->start();
  return 0;
}

void TavoClient::Close() {
  if (ipc_ == nullptr) return;
  ipc_->stop();
  ipc_.reset();  // joins the socket thread
  connected_ = false;
}

int TavoClient::Subscribe(uint32_t code) {
  const int result = request(kRegisterEventMonitor, code);
  if (result == 0) {
    Tavo::MutexLock guard(subscriptionLock_);
    subscriptions_.insert(code);
  }
  return result;
}

int TavoClient::Unsubscribe(uint32_t code) {
  {
    Tavo::MutexLock guard(subscriptionLock_);
    subscriptions_.erase(code);
  }
  return request(kUnregisterEventMonitor, code);
}

bool TavoClient::queueRequest(const char* command, uint32_t code, uint32_t reqId) {
  TavoReqIpcPackage req{};
  memcpy(req.header, &reqId, sizeof(reqId));
  strncpy(req.header + kRequestCommandOffset, command, kRequestCommandWidth - 1);
  req.dataLength = sizeof(code);
  req.data = reinterpret_cast<char*>(&code);
  return outgoing_.appendReqIpcPackage(&req);
}

void TavoClient::flush() {
  if (ipc_ == nullptr) return;
  const int fd = ipc_->getSocketFd();
  // Not connected yet: onConnected() flushes once the connection is made.
  if (fd >= 0) ipc_->notifyNeedWriteData(fd);
}

int TavoClient::request(const char* command, uint32_t code) {
  if (ipc_ == nullptr) {
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
  const IpcReqCallBack answered = [waiter](uint32_t, int result, char*, uint32_t) {
    std::lock_guard<std::mutex> guard(waiter->lock);
    if (!waiter->done) waiter->result = result;
    waiter->done = true;
    waiter->cond.notify_all();
    return 0;
  };
  // A service with no room for a reply drops it, though the request took
  // effect; (un)subscribing twice changes nothing, so an unanswered request
  // is sent again, each time with a fresh id and a wait twice as long. Every
  // id stays answerable until the end: the first reply to any of them counts.
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(options_.requestTimeoutMs);
  auto wait = kFirstResendWait;
  std::vector<uint32_t> sent;
  for (;;) {
    // Not connected: what is queued goes out with the connection.
    if (sent.empty() || connected_) {
      const uint32_t reqId = requests_.getReqId();
      requests_.addIpcReqCallBack(reqId, answered);
      if (queueRequest(command, code, reqId)) {
        sent.push_back(reqId);
        flush();
      } else {
        requests_.delIpcReq(reqId);
        if (sent.empty()) {
          errno = ENOMEM;
          return -1;
        }
      }
    }
    const auto until = std::min(Clock::now() + wait, deadline);
    {
      std::unique_lock<std::mutex> guard(waiter->lock);
      if (waiter->cond.wait_until(guard, until, [&] { return waiter->done; })) break;
    }
    if (until == deadline) break;
    wait *= 2;
  }
  // A response callback runs under the manager's lock, so once the ids are
  // gone it has either run completely or never will.
  for (uint32_t reqId : sent) requests_.delIpcReq(reqId);
  std::lock_guard<std::mutex> guard(waiter->lock);
  if (!waiter->done) {
    errno = connected_ ? ETIMEDOUT : ENOTCONN;
    return -1;
  }
  if (waiter->result != 0) {
    errno = EPROTO;
    return -1;
  }
  return 0;
}

void TavoClient::onConnected(UnixIpcManager* manager, int fd) {
  connected_ = true;
  if (++connections_ > 1) {
    // A new connection knows nothing of us: ask again for what we had.
    Tavo::MutexLock guard(subscriptionLock_);
    for (uint32_t code : subscriptions_) {
      const uint32_t reqId = requests_.getReqId();
      requests_.addIpcReqCallBack(reqId, IpcReqCallBack());  // answer consumed unseen
      if (!queueRequest(kRegisterEventMonitor, code, reqId)) requests_.delIpcReq(reqId);
    }
  }
  if (onConnection_) onConnection_(true);
  manager->notifyNeedWriteData(fd);
}

int TavoClient::onClose(int) {
  connected_ = false;
  if (onConnection_) onConnection_(false);
  return 0;
}

int TavoClient::onWritable(int, BufferState* send) {
  while (outgoing_.fillNextIpcPackageToBuffer(send)) {
  }
  return 0;
}

int TavoClient::onReadable(int, BufferState* receive, BufferState*) {
  ForEachIpcFrame(receive, [this](const IpcFrame& frame) {
    IpcCommand command;
    // A package claiming more than its frame holds is skipped, not read.
    if (!ParseIpcCommand(frame, &command) || !command.dataFits()) return true;
    if (command.code == IPC_COMMAND_RESPONSE && command.dataLength >= kReplyRecordLength) {
      TavoRespIpcPackage response{};
      memcpy(&response.reqId, command.data, 4);
      memcpy(&response.result, command.data + 4, 4);
      requests_.handleReqCallBack(&response);
    } else if (command.code == IPC_COMMAND_EVENT) {
      deliver(command.data, command.dataLength);
    }
    return true;
  });
  return kIpcCallbackOk;
}

void TavoClient::deliver(const char* data, size_t length) {
  ++received_;
  if (onRaw_) onRaw_(data, length);
  if (onEvent_) onEvent_(DecodeEvent(data, length));
}

}  // namespace Tavo::Client
