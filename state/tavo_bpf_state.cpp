#include "state/tavo_bpf_state.h"

#include "util/tavo_dump_file.h"
#include "util/tavo_event_names.h"
#include "util/tavo_log.h"
#include "util/tavo_service_contract.h"
#include "util/tavo_strings.h"
#include "util/tavo_time.h"

namespace Tavo::Bpf {

const char* const TavoBpfDataState::TAVOTASK_DUMP_PATH = kDumpDir;
const char* const TavoBpfDataState::TAVOTASK_DUMP_FILE = kStateDumpFile;
const std::string TavoBpfDataState::TAVOTASK_DUMP_TEMPLATE = std::string(kDumpDir) + "/" + kStateDumpFile;

TavoBpfDataState::TavoBpfDataState(Clock clock) : clock_(clock), lastTime_(clock()) {
  for (auto& slot : slots_) {
    for (auto& counter : slot) counter.store(0, std::memory_order_relaxed);
  }
}

const char* TavoBpfDataState::EventName(int type) { return RawEventName(type); }

uint32_t TavoBpfDataState::getCounter(int64_t slot, int type) const {
  if (type < 0 || type >= kCounterCount || slot < 0) return 0;
  return slots_[slot % kSlotCount][type].load(std::memory_order_relaxed);
}

void TavoBpfDataState::RecordEvent(int type, int count) {
  const int64_t now = clock_();
  if (type < 0 || type >= kCounterCount) return;
  int64_t last = lastTime_.load(std::memory_order_relaxed);
  // Only the thread that wins the exchange moves the window; a clock that
  // stepped back keeps counting into the current slot.
  if (now > last && lastTime_.compare_exchange_strong(last, now, std::memory_order_relaxed)) {
    const int64_t current = currentIndex_.load(std::memory_order_relaxed);
    int64_t elapsed = now - last;
    if (elapsed > kSlotCount) elapsed = kSlotCount;  // zeroing more than the ring is moot
    const int64_t next = current + (now - last);
    const int64_t oldest = oldestIndex_.load(std::memory_order_relaxed);
    if (next - oldest >= kSlotCount) {
      oldestIndex_.store(next - (kSlotCount - 1), std::memory_order_relaxed);
    }
    for (int64_t i = next - elapsed + 1; i <= next; ++i) {
      for (auto& counter : slots_[i % kSlotCount]) counter.store(0, std::memory_order_relaxed);
    }
    currentIndex_.store(next, std::memory_order_relaxed);
  }
  const int64_t index = currentIndex_.load(std::memory_order_relaxed);
  slots_[index % kSlotCount][type].fetch_add(static_cast<uint32_t>(count), std::memory_order_relaxed);
}

std::string TavoBpfDataState::FormatState() const {
  const int64_t current = currentIndex_.load(std::memory_order_relaxed);
  const int64_t oldest = oldestIndex_.load(std::memory_order_relaxed);
  std::string out = "EventCount, ";
  for (int i = 0; i < kRawEventCount; ++i) {
    out += RawEventName(i);
    out += ", ";
  }
  out += "PollCount, ";
  out += StringPrintf("%lld, %lld \r\n", static_cast<long long>(current),
                      static_cast<long long>(oldest));
  for (int64_t slot = current; slot >= oldest; --slot) {
    uint32_t values[kCounterCount];
    int sum = 0;
    for (int k = 0; k < kCounterCount; ++k) {
      values[k] = slots_[slot % kSlotCount][k].load(std::memory_order_relaxed);
      if (k < kRawEventCount) sum += static_cast<int>(values[k]);
    }
    out += StringPrintf("%d, ", sum);
    for (uint32_t value : values) out += StringPrintf("%d, ", static_cast<int>(value));
    out += "\r\n";
  }
  return out;
}

void TavoBpfDataState::DumpState(const std::string& dir) {
  if (!ReplaceDumpFile(dir, dir + "/" + TAVOTASK_DUMP_FILE, FormatState())) {
    TAVO_LOGE(kUtilsTag, "[TavoBpfDataState][DumpState] open file failed!");
  }
}

}  // namespace Tavo::Bpf
