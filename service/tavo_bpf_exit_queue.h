// Hand-off of process exits from the normal pump to the dma-buf bookkeeping.
//
// The dma-buf tables belong to the GPL pump thread, but process exits arrive
// on the normal pump. The exit handler only notes the exit here; the GPL
// thread takes the pending exits before it applies its next dma-buf record
// and drops the dead processes' entries itself.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace Tavo::Bpf {

struct ProcessExitNote {
  int32_t pid = 0;
  uint64_t ts = 0;  // boot-time ns of the exit record
};

class ProcessExitQueue {
 public:
  // Exits held between two takes. Past it further exits are not stored; the
  // taker is told so and sweeps its tables for pids that no longer exist.
  static constexpr size_t kCapacity = 4096;

  static ProcessExitQueue* GetInstance();

  // Any thread.
  void Push(int32_t pid, uint64_t ts);
  // A cheap test without the lock, for the per-record fast path.
  bool HasPending() const { return pending.load(std::memory_order_acquire); }
  // Moves the held exits into out (cleared first). True when exits were
  // dropped for lack of room since the previous take.
  bool Take(std::vector<ProcessExitNote>& out);

 private:
  ProcessExitQueue();

  std::mutex lock;
  std::vector<ProcessExitNote> exits;
  bool overflowed = false;
  std::atomic<bool> pending{false};
};

// Called by the process-exit handler (kind: process, not thread) once per
// exit, after its exit notice: the pid's dma-buf entries go on the GPL thread.
void NoteProcessExit(int32_t pid, uint64_t ts);

}  // namespace Tavo::Bpf
