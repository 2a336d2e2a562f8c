// One ring's pump: attaches its object's programs, opens the ring and the
// status map beside it, raises the enable flags around the seeding steps,
// and hands every record to the sample callback until stopped.
//
// The pump waits on an epoll set of its own holding the ring's epoll
// descriptor and a stop eventfd, so Stop() ends it at once; what is still
// in the ring is then consumed before Run() returns.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <bpf/libbpf.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "bpf/tavo_bpf_attach.h"
#include "bpf/tavo_bpf_map.h"
#include "state/tavo_bpf_state.h"
#include "util/tavo_mutex.h"

namespace Tavo::Bpf {

struct TavoRingPumpConfig {
  int index = 0;                             // 0 normal, 1 GPL: the ring argument of the status calls
  std::string pinDir;                        // where the loader pinned the object
  std::string object;                        // the object's name
  const BpfAttachTable* table = nullptr;     // its programs
  std::string logPrefix;                     // "[TavoBpfService][eventMonitor]"
  std::string stopMessage;                   // logged when a stop ends the pump
  int failureWaitMs = 1000;                  // pause after a failed poll
  // Shared by a service's pumps: whether "no tracepoint attached" was said.
  std::atomic<bool>* noTracepointSaid = nullptr;
};

class TavoRingPump {
 public:
  struct Hooks {
    std::function<void()> seed;       // between the core and the normal enable flag
    std::function<void()> seeded;     // after the normal enable flag
    std::function<void()> afterPoll;  // after every successful wake-up
    // Around every drain of the ring, always in pairs.
    std::function<void()> beforeConsume;
    std::function<void()> afterConsume;
  };

  TavoRingPump(TavoRingPumpConfig config, ring_buffer_sample_fn callback, void* ctx, TavoBpfDataState& counters);
  ~TavoRingPump();
  TavoRingPump(const TavoRingPump&) = delete;
  TavoRingPump& operator=(const TavoRingPump&) = delete;

  // Attaches the object's programs (dropping earlier attachments first),
  // choosing rows by kernelVersion; returns the number of rows that failed.
  int Attach(int kernelVersion) EXCLUDES(lock_);
  // What the last Attach() did, row by row; false before the first one.
  bool AttachReport(BpfAttachReport* report) EXCLUDES(lock_);
  // Closes the attachments: the programs stop producing into the ring.
  void Detach();
  // Runs on the calling thread until Stop(): 0 after a stop, -1 when the
  // maps cannot be opened or six polls in a row failed.
  int Run(const Hooks& hooks);
  // Any thread; Run() returns promptly, also when called before it.
  void Stop();
  // Clears a stop, so that Run() may be entered again.
  void Reset();

  // False if the ring was found full (the mark is then cleared).
  bool checkBpfRingBuffStatus(bool force);
  // Read-modify-write of the low 32 bits of the flag word; false when the
  // status map is not open or the update failed.
  bool UpdateFlags(uint64_t setBits, uint64_t clearBits);

 private:
  using StatusMap = TavoBpfMap<uint32_t, uint64_t>;

  bool CheckStatusLocked(bool force) REQUIRES(lock_);
  uint64_t ReadStatus(uint32_t key) REQUIRES(lock_);
  bool WaitForStop(int timeoutMs);

  const TavoRingPumpConfig config_;
  const ring_buffer_sample_fn callback_;
  void* const ctx_;
  TavoBpfDataState& counters_;
  android::base::unique_fd stopFd_;
  std::atomic<bool> stopping_{false};
  BpfAttachments attachments_;

  Mutex lock_;
  StatusMap status_ GUARDED_BY(lock_);
  bool attachedOnce_ GUARDED_BY(lock_) = false;
  BpfAttachReport attachReport_ GUARDED_BY(lock_);
  int64_t lastStatusCheck_ GUARDED_BY(lock_) = 0;
};

}  // namespace Tavo::Bpf
