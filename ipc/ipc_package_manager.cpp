#include "ipc/ipc_package_manager.h"

#include <chrono>
#include <cstddef>
#include <cstring>
#include <new>

#include "util/tavo_log.h"

namespace {

constexpr const char* kTag = "BpfUtils";

// A failed allocation refuses the package instead of ending the process.
std::unique_ptr<char[]> NewBlock(uint64_t length) {
  return std::unique_ptr<char[]>(new (std::nothrow) char[length > 0 ? length : 1]);
}

}  // namespace

IpcPackageManager::IpcPackageManager() = default;

IpcPackageManager::IpcPackageManager(std::shared_ptr<IpcQueueBudget> budget)
    : budget_(std::move(budget)) {}

IpcPackageManager::~IpcPackageManager() {
  Tavo::MutexLock guard(lock_);
  if (budget_) budget_->release(queuedBytes_);
}

bool IpcPackageManager::refuse(bool byBudget) {
  uint64_t dropped;
  {
    Tavo::MutexLock guard(lock_);
    dropped = ++droppedCount_;
  }
  if (byBudget) {
    if (budget_->admitWarning()) {
      TAVO_LOGW(kTag, "[IpcPackageManager] all client queues full (%llu bytes), %llu packages refused so far",
                static_cast<unsigned long long>(budget_->maxBytes()),
                static_cast<unsigned long long>(budget_->refusedCount()));
    }
  } else if (dropWarnings_.admit()) {
    TAVO_LOGW(kTag, "[IpcPackageManager] queue full (%llu bytes), %llu packages refused so far",
              static_cast<unsigned long long>(kMaxQueuedBytes),
              static_cast<unsigned long long>(dropped));
  }
  return false;
}

bool IpcPackageManager::append(std::unique_ptr<char[]> block, uint64_t length) {
  if (block == nullptr) return false;
  const uint64_t cost = IpcQueueBudget::EntryCost(length);
  bool queueFull = false;
  bool budgetFull = false;
  bool wake = false;
  {
    Tavo::MutexLock guard(lock_);
    queueFull = cost > kMaxQueuedBytes - queuedBytes_;
    budgetFull = !queueFull && budget_ && !budget_->tryCharge(cost);
    if (!queueFull && !budgetFull) {
      queue_.push_back(TavoIpcPackage{length, std::move(block)});
      queuedBytes_ += cost;
      count_.store(queue_.size(), std::memory_order_relaxed);
      wake = waiters_ > 0;
    }
  }
  if (wake) wakeUp_.notify_all();
  return !(queueFull || budgetFull) || refuse(budgetFull);
}

// The parts are each checked against the bound before they are summed, so
// the sum cannot wrap and nothing is copied for a package that could never
// be queued.
bool IpcPackageManager::appendCommand(uint32_t command, std::initializer_list<IpcBytes> parts) {
  uint64_t length = kIpcCommandHeaderSize;
  for (const IpcBytes& part : parts) {
    if (part.size > kMaxQueuedBytes) return refuse();
    length += part.size;
  }
  if (length > kMaxQueuedBytes) return refuse();
  auto block = NewBlock(length);
  if (block == nullptr) return false;
  PutIpcCommand(block.get(), command, parts);
  return append(std::move(block), length);
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(uint32_t command, const char* data,
                                                       uint64_t length) {
  if (command > IPC_COMMAND_MAX) return false;
  return appendCommand(command, {{data, length}});
}

bool IpcPackageManager::buildAndAppendIpcPackage(const char* payload, uint64_t length) {
  if (length > kMaxQueuedBytes) return refuse();
  auto block = NewBlock(length);
  if (block == nullptr) return false;
  if (length > 0) memcpy(block.get(), payload, length);
  return append(std::move(block), length);
}

// The request's 40-byte fixed part (header, word, dataLength) goes on the
// stream as it stands, then its data.
bool IpcPackageManager::appendReqIpcPackage(TavoReqIpcPackage* request) {
  constexpr size_t kFixed = offsetof(TavoReqIpcPackage, data);
  return appendCommand(IPC_COMMAND_REQUEST,
                       {{request, kFixed}, {request->data, request->dataLength}});
}

// The 24-byte response record, then its data. The record's last 8 bytes
// hold the sender's data pointer; zeros go out in their place, so no heap
// address leaves the process.
bool IpcPackageManager::appendRespIpcPackage(TavoRespIpcPackage* response) {
  static constexpr char kNoPointer[sizeof(response->data)] = {};
  constexpr size_t kFixed = offsetof(TavoRespIpcPackage, data);
  return appendCommand(IPC_COMMAND_RESPONSE, {{response, kFixed},
                                              {kNoPointer, sizeof(kNoPointer)},
                                              {response->data, response->dataLength}});
}

bool IpcPackageManager::writeHead(BufferState* buffer, bool strict) {
  TavoIpcPackage& head = queue_.front();
  if (!AppendIpcFrame(buffer, {{head.data.get(), head.length}}, strict)) return false;
  const uint64_t cost = IpcQueueBudget::EntryCost(head.length);
  queuedBytes_ -= cost;
  if (budget_) budget_->release(cost);
  queue_.pop_front();
  count_.store(queue_.size(), std::memory_order_relaxed);
  return true;
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* buffer) {
  Tavo::MutexLock guard(lock_);
  return !queue_.empty() && writeHead(buffer, true);
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* buffer) {
  Tavo::MutexLock guard(lock_);
  if (queue_.empty()) return false;
  while (!queue_.empty() && writeHead(buffer, false)) {
  }
  return true;
}

void IpcPackageManager::waitEventReady(int milliseconds) {
  if (count_.load(std::memory_order_relaxed) > 0) return;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  Tavo::MutexLock guard(lock_);
  ++waiters_;
  while (queue_.empty() && std::chrono::steady_clock::now() < deadline) {
    wakeUp_.wait_until(lock_, deadline);
  }
  --waiters_;
}

void IpcPackageManager::notifyEventReady() { wakeUp_.notify_all(); }

size_t IpcPackageManager::getIpcPackageCount() const {
  return count_.load(std::memory_order_relaxed);
}

uint64_t IpcPackageManager::getDroppedCount() const {
  Tavo::MutexLock guard(lock_);
  return droppedCount_;
}

uint64_t IpcPackageManager::getQueuedBytes() const {
  Tavo::MutexLock guard(lock_);
  return queuedBytes_;
}
