// Per-second counts of handled events and ring polls over the last 30 minutes.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace Tavo::Bpf {

class TavoBpfDataState {
 public:
  static constexpr int kSlotCount = 1800;
  static constexpr int kCounterCount = 16;  // 15 event types and the poll count
  static constexpr int kPollCounter = 15;
  static const char* const TAVOTASK_DUMP_PATH;
  static const char* const TAVOTASK_DUMP_FILE;  // the file's name inside the directory
  static const std::string TAVOTASK_DUMP_TEMPLATE;  // the service's own file: directory and name

  using Clock = int64_t (*)();

  // The service's recorder reads GetSystemSecondsTime; tests pass their own clock.
  explicit TavoBpfDataState(Clock clock);

  void RecordEvent(int type, int count);
  // Writes the CSV into dir (the service's dump directory).
  void DumpState(const std::string& dir);
  // The CSV text that DumpState writes.
  std::string FormatState() const;
  static const char* EventName(int type);

  int64_t getCurrentIndex() const { return currentIndex_.load(std::memory_order_relaxed); }
  int64_t getOldestIndex() const { return oldestIndex_.load(std::memory_order_relaxed); }
  uint32_t getCounter(int64_t slot, int type) const;

 private:
  Clock clock_;
  std::atomic<int64_t> lastTime_;
  std::atomic<int64_t> currentIndex_{0};
  std::atomic<int64_t> oldestIndex_{0};
  // Two pump threads record without a lock; relaxed atomics keep each
  // addition whole without ordering cost.
  std::atomic<uint32_t> slots_[kSlotCount][kCounterCount];
};

}  // namespace Tavo::Bpf
