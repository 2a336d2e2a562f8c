#include "event/tavo_bpf_event_manager.h"

#include <algorithm>
#include <cstring>

#include "bpf/tavo_bpf_records.h"
#include "ipc/ipc_package.h"

namespace Tavo::Bpf {

namespace {
constexpr int kRawCodes = TAVO_EVENT_MAX_RAW + 1;
// The calling thread's batch: the manager it is open on, if any, and whether
// it queued anything. One thread-local, so one look-up in a shared library.
struct ThreadBatch {
  const EventManager* owner = nullptr;
  bool queued = false;
};
thread_local ThreadBatch tBatch;
}  // namespace

EventManager::EventManager(WriteNotifier notify, std::shared_ptr<IpcQueueBudget> budget, Sender send)
    : notify_(std::move(notify)), budget_(std::move(budget)), send_(send ? std::move(send) : notify_) {}

int EventManager::CodeSlot(int code) {
  if (code >= 0 && code < kRawCodes) return code;
  if (code >= TAVO_NOTICE_PROCESS_START && code <= TAVO_NOTICE_DMABUF_TOTAL) {
    return kRawCodes + (code - TAVO_NOTICE_PROCESS_START);
  }
  return -1;
}

EventManager::Client* EventManager::Find(int fd) {
  auto it = clients_.find(fd);
  return it == clients_.end() ? nullptr : it->second.get();
}

void EventManager::AddClient(int fd) {
  MutexLock guard(lock_);
  auto& slot = clients_[fd];
  if (slot) return;  // an existing queue is kept as it is
  slot = std::make_unique<Client>(fd, budget_);
}

void EventManager::RemoveClient(int fd) {
  MutexLock guard(lock_);
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  for (int slot = 0; slot < kKnownCodes; ++slot) Unsubscribe(*it->second, slot);
  clients_.erase(it);
}

void EventManager::Unsubscribe(Client& client, int slot) {
  if (!client.subscribed.test(slot)) return;
  observers_[slot].erase(client.positions[slot]);
  if (observers_[slot].empty()) observed_.fetch_and(~(uint32_t{1} << slot), std::memory_order_release);
  client.subscribed.reset(slot);
  client.order.erase(std::find(client.order.begin(), client.order.end(), slot));
}

bool EventManager::AddObserverEvent(int fd, int type) {
  const int slot = CodeSlot(type);
  if (slot < 0) return false;
  MutexLock guard(lock_);
  Client* client = Find(fd);
  if (client == nullptr) return false;
  if (client->subscribed.test(slot)) return true;  // a repeated subscription changes nothing
  client->positions[slot] = observers_[slot].insert(observers_[slot].end(), client);
  observed_.fetch_or(uint32_t{1} << slot, std::memory_order_release);
  client->subscribed.set(slot);
  client->order.push_back(slot);
  return true;
}

bool EventManager::DelObserverEvent(int fd, int type) {
  const int slot = CodeSlot(type);
  if (slot < 0) return false;
  MutexLock guard(lock_);
  Client* client = Find(fd);
  if (client == nullptr) return false;
  Unsubscribe(*client, slot);
  return true;
}

void EventManager::EraseObserver(int fd) {
  MutexLock guard(lock_);
  Client* client = Find(fd);
  if (client == nullptr) return;
  for (int slot = 0; slot < kKnownCodes; ++slot) Unsubscribe(*client, slot);
}

int EventManager::AppendEvent(const char* data, unsigned long size) {
  if (data == nullptr || size < sizeof(uint32_t)) return 0;
  uint32_t code;
  memcpy(&code, data, sizeof(code));
  const int slot = CodeSlot(static_cast<int>(code));
  // Most records have no subscriber: no lock for those.
  if (slot < 0 || (observed_.load(std::memory_order_acquire) & (uint32_t{1} << slot)) == 0) return 0;
  MutexLock guard(lock_);
  const std::list<Client*>& observers = observers_[slot];
  if (observers.empty()) return 0;
  // Every subscriber has its copy queued before the first is told.
  for (Client* client : observers) client->queue.buildAndAppendSecondIpcPackage(IPC_COMMAND_EVENT, data, size);
  if (ThreadBatch& batch = tBatch; batch.owner == this) {
    batch.queued = true;
    for (Client* client : observers) {
      if (!client->batched) batched_.push_back(client->fd);
      client->batched = true;
    }
    return 0;
  }
  for (Client* client : observers) notify_(client->fd);
  return 0;
}

void EventManager::BeginBatch() { tBatch = ThreadBatch{this, false}; }

void EventManager::EndBatch() {
  ThreadBatch& batch = tBatch;
  if (batch.owner != this) return;
  const bool queued = batch.queued;
  batch = ThreadBatch{};
  if (!queued) return;
  // Swapped with batched_, so the two buffers are reused batch after batch.
  thread_local std::vector<int> fds;
  fds.clear();
  {
    MutexLock guard(lock_);
    if (batched_.empty()) return;
    fds.swap(batched_);
    for (int fd : fds) {
      if (Client* client = Find(fd)) client->batched = false;
    }
  }
  // Outside the lock: sending takes the connection's lock, and the socket
  // thread takes that one before this one.
  for (int fd : fds) send_(fd);
}

void EventManager::FillSendBuffer(int fd, BufferState* send) {
  IpcPackageManager* queue;
  {
    MutexLock guard(lock_);
    Client* client = Find(fd);
    if (client == nullptr) return;
    queue = &client->queue;
  }
  // Drained without the table lock: queues are only destroyed on the socket
  // thread, which is the one draining them, and they lock themselves.
  while (queue->fillNextIpcPackageToBuffer(send)) {
  }
}

std::vector<int> EventManager::GetObserverEvents(int fd) {
  MutexLock guard(lock_);
  std::vector<int> codes;
  if (Client* client = Find(fd)) {
    for (int slot : client->order) {
      codes.push_back(slot < kRawCodes ? slot : TAVO_NOTICE_PROCESS_START + (slot - kRawCodes));
    }
  }
  return codes;
}

std::vector<int> EventManager::GetEventObservers(int type) {
  const int slot = CodeSlot(type);
  MutexLock guard(lock_);
  std::vector<int> fds;
  if (slot >= 0) {
    for (const Client* client : observers_[slot]) fds.push_back(client->fd);
  }
  return fds;
}

size_t EventManager::ClientCount() {
  MutexLock guard(lock_);
  return clients_.size();
}

}  // namespace Tavo::Bpf
