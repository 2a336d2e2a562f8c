// Client of the service's event socket: connect, subscribe by event code,
// receive each event decoded.
//
//   Tavo::Client::TavoClient client([](const Tavo::Client::Event& e) { ... });
//   if (client.Connect() != 0) ...            // errno: ECONNREFUSED when absent
//   if (client.Subscribe(50001) != 0) ...      // the service's answer, or a time-out
//
// Events are delivered on the client's own socket thread, one at a time, in
// the order the service queued them. After a lost connection the socket layer
// reconnects (every 5 s) and the client subscribes its codes again.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "ipc/ipc_package_manager.h"
#include "ipc/ipc_req_callback_manager.h"
#include "client/tavo_event_decoder.h"
#include "util/tavo_mutex.h"
#include "util/tavo_service_contract.h"

class UnixIpcManager;
struct BufferState;

namespace Tavo::Client {

inline constexpr const char* kServiceSocket = Tavo::Bpf::kServiceSocketName;

// One plain connect to the abstract socket: whether a service listens there
// now (false with errno, e.g. ECONNREFUSED, when none does).
bool ServiceListening(const std::string& path = kServiceSocket);

class TavoClient {
 public:
  using EventCallback = std::function<void(const Event&)>;
  // Raw bytes of each event (the data of its command-3 package), before decoding.
  using RawCallback = std::function<void(const char*, size_t)>;
  // true on (re)connection, false when the connection was lost.
  using ConnectionCallback = std::function<void(bool)>;

  struct Options {
    std::string socketPath = kServiceSocket;
    // Connect() returns at once with -1 when the service is not listening,
    // unless this is set: then the socket layer keeps trying every 5 s.
    bool waitForService = false;
    // How long Subscribe() and Unsubscribe() wait for a reply, resends included.
    int requestTimeoutMs = 3000;
    // Receive/send buffer and socket buffer size; frames from the service
    // are at most 32 KiB, a larger buffer means fewer reads under load.
    int bufferSize = 256 * 1024;
  };

  explicit TavoClient(EventCallback onEvent);
  TavoClient(EventCallback onEvent, Options options);
  ~TavoClient();
  TavoClient(const TavoClient&) = delete;
  TavoClient& operator=(const TavoClient&) = delete;

  // Set before Connect(); called on the client's socket thread.
  void SetRawCallback(RawCallback callback);
  void SetConnectionCallback(ConnectionCallback callback);

  // 0, or -1 with errno (ECONNREFUSED/ENOENT when nobody listens, EALREADY).
  int Connect();
  // Sends the request and waits for the answer: 0 accepted, -1 with errno
  // EPROTO (refused by the service), ETIMEDOUT, ENOTCONN or ENOMEM. The
  // service drops a reply it has no room for, so an unanswered request is
  // sent again (after 250 ms, then waits doubling) within requestTimeoutMs.
  int Subscribe(uint32_t code);
  int Unsubscribe(uint32_t code);
  // Stops the socket thread; no callback runs after it returns.
  void Close();

  bool IsConnected() const { return connected_.load(); }
  // Events received and events that failed to decode, since Connect().
  uint64_t ReceivedCount() const { return received_.load(); }

 private:
  class Ipc;
  friend class Ipc;

  int request(const char* command, uint32_t code);
  bool queueRequest(const char* command, uint32_t code, uint32_t reqId);
  void flush();
  // On the socket thread, inside the layer's connect().
  void onConnected(UnixIpcManager* manager, int fd);
  int onReadable(int fd, BufferState* receive, BufferState* send);
  int onWritable(int fd, BufferState* send);
  int onClose(int fd);
  void deliver(const char* data, size_t length);

  EventCallback onEvent_;
  RawCallback onRaw_;
  ConnectionCallback onConnection_;
  Options options_;
  std::unique_ptr<Ipc> ipc_;
  IpcPackageManager outgoing_;
  IpcReqCallBackManager requests_;
  Tavo::Mutex subscriptionLock_;
  std::set<uint32_t> subscriptions_ GUARDED_BY(subscriptionLock_);
  std::atomic<bool> connected_{false};
  std::atomic<uint64_t> connections_{0};
  std::atomic<uint64_t> received_{0};
};

}  // namespace Tavo::Client
