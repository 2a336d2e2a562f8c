#include "util/tavo_time.h"

#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>

namespace Tavo::Bpf {

std::atomic<int64_t> __basetime{0};

bool InitBasetimeFrom(const char* statPath) {
  std::ifstream in(statPath);
  if (!in.is_open()) return false;
  std::string line;
  while (std::getline(in, line)) {
    if (line.find("btime ") == std::string::npos) continue;
    // The kernel writes "btime " at the start of the line. A value without
    // digits would throw in std::stol; strtol reads it as 0 instead.
    const char* value = line.size() > 6 ? line.c_str() + 6 : "";
    __basetime = std::strtol(value, nullptr, 10);
    break;
  }
  return true;
}

bool InitBasetime() { return InitBasetimeFrom("/proc/stat"); }

int64_t GetBasetime() { return __basetime.load(std::memory_order_relaxed); }

static timespec ReadClock(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return ts;
}

int64_t GetSystemBootNanosencondsTime() {
  timespec ts = ReadClock(CLOCK_MONOTONIC);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t GetSystemNanosencondsTime() {
  timespec ts = ReadClock(CLOCK_MONOTONIC);
  return (ts.tv_sec + GetBasetime()) * 1000000000LL + ts.tv_nsec;
}

int64_t GetSystemMicrosencondsTime() {
  timespec ts = ReadClock(CLOCK_MONOTONIC);
  return (ts.tv_sec + GetBasetime()) * 1000000LL + ts.tv_nsec / 1000;
}

int64_t GetSystemMillisecondsTime(bool precise) {
  timespec ts = ReadClock(precise ? CLOCK_MONOTONIC : CLOCK_MONOTONIC_COARSE);
  return (ts.tv_sec + GetBasetime()) * 1000LL + ts.tv_nsec / 1000000;
}

int64_t GetSystemSecondsTime() {
  timespec ts = ReadClock(CLOCK_MONOTONIC_COARSE);
  return ts.tv_sec + GetBasetime();
}

// Taken wide: sizes from the kernel or /proc can be anything, and a 64-bit
// difference of extreme values overflows. Saturates at INT64_MAX.
int64_t SubAbs(long long a, long long b) {
  __int128 d = static_cast<__int128>(a) - b;
  if (d < 0) d = -d;
  return d > INT64_MAX ? INT64_MAX : static_cast<int64_t>(d);
}

void TestHandleEvent(char*, long) {}

}  // namespace Tavo::Bpf
