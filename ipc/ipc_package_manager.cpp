#include "ipc/ipc_package_manager.h"

#include <time.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "util/tavo_log.h"

namespace {

constexpr const char* kTag = "BpfUtils";
constexpr int64_t kDropWarningIntervalSec = 10;

int64_t MonotonicSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return ts.tv_sec;
}

// A block holding a command header followed by the given parts.
char* BuildCommandBlock(uint32_t command, uint32_t innerLength, const void* fixed, size_t fixedLen,
                        const char* data, size_t dataLen) {
  auto* block = static_cast<char*>(malloc(kIpcCommandHeaderSize + fixedLen + dataLen));
  if (block == nullptr) return nullptr;
  memcpy(block, &command, 4);
  memcpy(block + 4, &innerLength, 4);
  if (fixedLen > 0) memcpy(block + kIpcCommandHeaderSize, fixed, fixedLen);
  if (dataLen > 0) memcpy(block + kIpcCommandHeaderSize + fixedLen, data, dataLen);
  return block;
}

}  // namespace

IpcPackageManager::IpcPackageManager() = default;

IpcPackageManager::~IpcPackageManager() {
  for (auto& package : queue) free(package.data);
}

bool IpcPackageManager::refuse(std::unique_lock<std::mutex>& guard) {
  ++droppedCount;
  const int64_t now = MonotonicSeconds();
  const bool warn = now - lastDropWarning >= kDropWarningIntervalSec;
  if (warn) lastDropWarning = now;
  const uint64_t dropped = droppedCount;
  guard.unlock();
  if (warn) {
    TAVO_LOGW(kTag, "[IpcPackageManager] queue full (%llu bytes), %llu packages refused so far",
              static_cast<unsigned long long>(kMaxQueuedBytes),
              static_cast<unsigned long long>(dropped));
  }
  return false;
}

bool IpcPackageManager::append(char* block, uint64_t length) {
  if (block == nullptr) return false;
  std::unique_lock<std::mutex> guard(queueLock);
  if (length > kMaxQueuedBytes - queuedBytes) {
    free(block);
    return refuse(guard);
  }
  queue.push_back(TavoIpcPackage{length, block});
  queuedBytes += length;
  count.store(queue.size(), std::memory_order_relaxed);
  guard.unlock();
  cond.notify_all();
  return true;
}

// Refuses a payload that could never be queued before copying it, which
// also keeps the size sums below from wrapping.
bool IpcPackageManager::tooLarge() {
  std::unique_lock<std::mutex> guard(queueLock);
  return refuse(guard);
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(uint32_t command, const char* data,
                                                       uint64_t length) {
  if (command > IPC_COMMAND_MAX) return false;
  if (length > kMaxQueuedBytes) return tooLarge();
  const auto inner = static_cast<uint32_t>(length);
  return append(BuildCommandBlock(command, inner, nullptr, 0, data, length),
                length + kIpcCommandHeaderSize);
}

bool IpcPackageManager::buildAndAppendIpcPackage(const char* payload, uint64_t length) {
  if (length > kMaxQueuedBytes) return tooLarge();
  auto* block = static_cast<char*>(malloc(length > 0 ? length : 1));
  if (block == nullptr) return false;
  if (length > 0) memcpy(block, payload, length);
  return append(block, length);
}

bool IpcPackageManager::appendReqIpcPackage(TavoReqIpcPackage* request) {
  constexpr size_t kFixed = 40;
  const uint64_t dataLen = request->dataLength;
  if (dataLen > kMaxQueuedBytes) return tooLarge();
  return append(BuildCommandBlock(IPC_COMMAND_REQUEST, static_cast<uint32_t>(dataLen + kFixed),
                                  request, kFixed, request->data, dataLen),
                dataLen + kFixed + kIpcCommandHeaderSize);
}

bool IpcPackageManager::appendRespIpcPackage(TavoRespIpcPackage* response) {
  constexpr size_t kFixed = sizeof(TavoRespIpcPackage);
  const uint64_t dataLen = response->dataLength;
  if (dataLen > kMaxQueuedBytes) return tooLarge();
  return append(BuildCommandBlock(IPC_COMMAND_RESPONSE, static_cast<uint32_t>(dataLen + kFixed),
                                  response, kFixed, response->data, dataLen),
                dataLen + kFixed + kIpcCommandHeaderSize);
}

bool IpcPackageManager::writeHead(BufferState* buffer, bool strict) {
  const TavoIpcPackage& head = queue.front();
  const int64_t needed = static_cast<int64_t>(head.length) + kIpcFrameHeaderSize;
  const int64_t room = buffer->capacity - buffer->length;
  if (strict ? !(needed < room) : !(needed <= room)) return false;
  const auto frameLength = static_cast<int64_t>(head.length);
  memcpy(buffer->data + buffer->length, &frameLength, sizeof(frameLength));
  buffer->length += kIpcFrameHeaderSize;
  if (head.length > 0) memcpy(buffer->data + buffer->length, head.data, head.length);
  buffer->length += static_cast<int64_t>(head.length);
  queuedBytes -= head.length;
  free(head.data);
  queue.pop_front();
  count.store(queue.size(), std::memory_order_relaxed);
  return true;
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* buffer) {
  std::lock_guard<std::mutex> guard(queueLock);
  if (queue.empty()) return false;
  return writeHead(buffer, true);
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* buffer) {
  std::lock_guard<std::mutex> guard(queueLock);
  if (queue.empty()) return false;
  while (!queue.empty() && writeHead(buffer, false)) {
  }
  return true;
}

void IpcPackageManager::waitEventReady(int milliseconds) {
  if (count.load(std::memory_order_relaxed) > 0) return;
  std::unique_lock<std::mutex> guard(queueLock);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (queue.empty() && std::chrono::steady_clock::now() < deadline) {
    cond.wait_until(guard, deadline);
  }
}

void IpcPackageManager::notifyEventReady() { cond.notify_all(); }

size_t IpcPackageManager::getIpcPackageCount() const {
  return count.load(std::memory_order_relaxed);
}

uint64_t IpcPackageManager::getDroppedCount() const {
  std::lock_guard<std::mutex> guard(queueLock);
  return droppedCount;
}

uint64_t IpcPackageManager::getQueuedBytes() const {
  std::lock_guard<std::mutex> guard(queueLock);
  return queuedBytes;
}
