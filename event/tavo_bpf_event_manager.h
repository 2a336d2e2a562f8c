// Which client wants which event codes, each client's queue of outgoing
// packages, and the fan-out of every record and notice to its subscribers.
//
// Only the known codes can be subscribed (raw types 0 to 14 and notices
// 50001 to 50005), so the tables hold at most clients x codes entries.
// Subscribing and unsubscribing cost O(1); a code's subscribers keep their
// subscription order.
#pragma once

#include <android-base/thread_annotations.h>

#include <array>
#include <atomic>
#include <bitset>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <vector>

#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/ipc_queue_budget.h"
#include "util/tavo_mutex.h"

namespace Tavo::Bpf {

class EventManager {
 public:
  static constexpr int kKnownCodes = 20;
  // Asks the socket layer to flush a client's queue; may run under the lock.
  using WriteNotifier = std::function<bool(int fd)>;
  // Sends a client's queue on the calling thread, as far as its socket takes
  // it at once; never called under the lock.
  using Sender = std::function<bool(int fd)>;

  // Every client's queue draws on `budget` (null: each queue's own cap only).
  // Without `send`, batches end by notifying as well.
  explicit EventManager(WriteNotifier notify, std::shared_ptr<IpcQueueBudget> budget = nullptr,
                        Sender send = nullptr);

  // Index of a subscribable code, or -1.
  static int CodeSlot(int code);

  // Socket thread: a client's queue lives from AddClient to RemoveClient.
  void AddClient(int fd) EXCLUDES(lock_);
  // Drops the client's subscriptions first, then its queue and what is in it.
  void RemoveClient(int fd) EXCLUDES(lock_);
  // False (nothing changed) for an unknown code or client.
  bool AddObserverEvent(int fd, int type) EXCLUDES(lock_);
  bool DelObserverEvent(int fd, int type) EXCLUDES(lock_);
  void EraseObserver(int fd) EXCLUDES(lock_);

  // Any thread: one command-3 package with the record for every subscriber
  // of its code, then a flush request for each. Always 0.
  int AppendEvent(const char* data, unsigned long size) EXCLUDES(lock_);
  // A batch on the calling thread: until EndBatch, what this thread appends
  // is only queued; EndBatch sends each touched client's queue from this
  // thread. A ring pump wraps each drain of its ring in one, so a burst of
  // records costs one send per client instead of a socket-thread wake-up
  // per record. Other threads keep the immediate path.
  void BeginBatch();
  void EndBatch() EXCLUDES(lock_);

  // Socket thread: moves whole queued packages of fd into its send buffer.
  void FillSendBuffer(int fd, BufferState* send) EXCLUDES(lock_);

  // Diagnostics and tests.
  std::vector<int> GetObserverEvents(int fd) EXCLUDES(lock_);
  std::vector<int> GetEventObservers(int type) EXCLUDES(lock_);
  size_t ClientCount() EXCLUDES(lock_);

 private:
  struct Client {
    Client(int fd, std::shared_ptr<IpcQueueBudget> budget) : fd(fd), queue(std::move(budget)) {}
    int fd;
    IpcPackageManager queue;
    std::bitset<kKnownCodes> subscribed;
    std::array<std::list<Client*>::iterator, kKnownCodes> positions;
    std::vector<int> order;  // codes in subscription order
    bool batched = false;    // queued in a batch, not sent yet
  };

  void Unsubscribe(Client& client, int slot) REQUIRES(lock_);
  Client* Find(int fd) REQUIRES(lock_);

  const WriteNotifier notify_;
  const std::shared_ptr<IpcQueueBudget> budget_;
  const Sender send_;
  Mutex lock_;
  std::vector<int> batched_ GUARDED_BY(lock_);  // clients with Client::batched set
  std::map<int, std::unique_ptr<Client>> clients_ GUARDED_BY(lock_);
  std::array<std::list<Client*>, kKnownCodes> observers_ GUARDED_BY(lock_);
  // Bit per slot whose observer list is not empty; written under lock_.
  std::atomic<uint32_t> observed_{0};
  static_assert(kKnownCodes <= 32, "one bit per slot");
};

}  // namespace Tavo::Bpf
