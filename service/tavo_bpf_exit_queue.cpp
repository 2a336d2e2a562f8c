#include "service/tavo_bpf_exit_queue.h"

namespace Tavo::Bpf {

ProcessExitQueue::ProcessExitQueue() { exits.reserve(kCapacity); }

ProcessExitQueue* ProcessExitQueue::GetInstance() {
  static std::once_flag once;
  static ProcessExitQueue* instance = nullptr;
  std::call_once(once, [] { instance = new ProcessExitQueue(); });
  return instance;
}

void ProcessExitQueue::Push(int32_t pid, uint64_t ts) {
  std::lock_guard<std::mutex> guard(lock);
  if (exits.size() >= kCapacity) {
    overflowed = true;
  } else {
    exits.push_back({pid, ts});
  }
  pending.store(true, std::memory_order_release);
}

bool ProcessExitQueue::Take(std::vector<ProcessExitNote>& out) {
  out.clear();
  std::lock_guard<std::mutex> guard(lock);
  // Swapping hands the caller's emptied block back, so neither side allocates
  // once both have grown to their working size.
  out.swap(exits);
  if (exits.capacity() < kCapacity) exits.reserve(kCapacity);
  const bool lost = overflowed;
  overflowed = false;
  pending.store(false, std::memory_order_release);
  return lost;
}

void NoteProcessExit(int32_t pid, uint64_t ts) { ProcessExitQueue::GetInstance()->Push(pid, ts); }

}  // namespace Tavo::Bpf
