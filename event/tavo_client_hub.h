// The service's side of its client socket: the socket server and its thread
// ("BpfServiceTr"), subscription requests and their replies, and the
// subscriptions and queues (EventManager) that every record and notice is
// fanned out to.
#pragma once

#include <sched.h>

#include <memory>
#include <string>

#include "event/tavo_bpf_event_manager.h"
#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_queue_budget.h"
#include "ipc/unix_ipc_manager.h"
#include "util/tavo_service_contract.h"

namespace Tavo::Bpf {

struct TavoClientHubOptions {
  std::string socketPath = kServiceSocketName;
  std::string threadName = "BpfServiceTr";
  int bufferSize = 32768;
  cpu_set_t cpus = DefaultCpus();
  // Clients connected at once; one more is closed at once.
  size_t maxConnections = 1024;
  // Besides root and the service's own uid, the uids and gids ("g:GID")
  // allowed to connect, comma separated.
  std::string allowedIds;
  // What all client queues may hold together.
  uint64_t queuedBytesCap = IpcQueueBudget::kDefaultMaxBytes;

  static cpu_set_t DefaultCpus();  // CPUs 0 to 2
};

class TavoClientHub {
 public:
  explicit TavoClientHub(const TavoClientHubOptions& options);
  ~TavoClientHub();
  TavoClientHub(const TavoClientHub&) = delete;
  TavoClientHub& operator=(const TavoClientHub&) = delete;

  // Starts the socket thread (once); it begins accepting at once.
  void Start();
  // Asks the socket thread to end; callable under any lock.
  void Stop();
  // Stop(), then waits for the socket thread. Call it holding no lock.
  void Join();
  // The listening socket is up.
  bool Listening() const { return ipc_->getSocketFd() >= 0; }

  // Any thread.
  int AppendEvent(const char* data, unsigned long size) { return events_.AppendEvent(data, size); }
  EventManager& events() { return events_; }

  // The socket manager's callbacks; socket thread only.
  int onClientLibConnection(int fd);
  int onClientLibReadable(int fd, BufferState* receive, BufferState* send);
  int onClientLibWriteable(int fd, BufferState* send);
  int onClientLibClose(int fd);
  // Command 0: "register-event-monitor" / "unregister-event-monitor" with
  // an event code; writes the 28-byte reply into send.
  int onEventProvideReqCallBack(int fd, char* data, long length, BufferState* send);

 private:

  EventManager events_;
  std::unique_ptr<IpcPackageHandler> packageHandler_;
  std::unique_ptr<UnixIpcManager> ipc_;
};

}  // namespace Tavo::Bpf
