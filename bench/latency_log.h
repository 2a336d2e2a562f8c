// Latencies of one kind of record seen by a peer-benchmark consumer: kept
// up to a fixed count (no allocation while the storm runs), then summed up.
#pragma once

#include <android-base/stringprintf.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace tavo_bench {

class LatencyLog {
 public:
  LatencyLog() { ns_.reserve(1 << 20); }
  void Add(uint64_t ns) {
    if (ns_.size() < ns_.capacity()) ns_.push_back(ns);
  }
  // "p50 p99" in microseconds, once the storm is over.
  std::string Summary() {
    std::sort(ns_.begin(), ns_.end());
    return android::base::StringPrintf("%.1f %.1f", At(0.50), At(0.99));
  }

 private:
  double At(double p) const {
    return ns_.empty() ? 0.0 : ns_[std::min(ns_.size() - 1, static_cast<size_t>(p * ns_.size()))] / 1000.0;
  }
  std::vector<uint64_t> ns_;
};

}  // namespace tavo_bench
