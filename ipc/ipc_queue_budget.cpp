#include "ipc/ipc_queue_budget.h"

#include "ipc/ipc_package.h"

namespace {
// glibc's malloc: 16-byte granules after an 8-byte size word, 32 bytes at
// least; blocks from 128 KiB up are mapped whole pages with a 16-byte header.
constexpr uint64_t kChunkHeader = 8;
constexpr uint64_t kGranule = 16;
constexpr uint64_t kMinChunk = 32;
constexpr uint64_t kMapThreshold = 128 * 1024;
constexpr uint64_t kPage = 4096;
}  // namespace

IpcQueueBudget::IpcQueueBudget(uint64_t maxBytes) : maxBytes_(maxBytes) {}

uint64_t IpcQueueBudget::EntryCost(uint64_t length) {
  uint64_t block;
  if (length >= kMapThreshold) {
    block = (length + 2 * kChunkHeader + kPage - 1) / kPage * kPage;
  } else {
    block = (length + kChunkHeader + kGranule - 1) / kGranule * kGranule;
    if (block < kMinChunk) block = kMinChunk;
  }
  return block + sizeof(TavoIpcPackage);
}

bool IpcQueueBudget::tryCharge(uint64_t bytes) {
  uint64_t used = used_.load(std::memory_order_relaxed);
  do {
    if (bytes > maxBytes_ - used) {
      refused_.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
  } while (!used_.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
  return true;
}

void IpcQueueBudget::release(uint64_t bytes) { used_.fetch_sub(bytes, std::memory_order_relaxed); }
