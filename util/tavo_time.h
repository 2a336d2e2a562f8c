// Time base: boot time in wall-clock seconds added to the monotonic clocks.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tavo::Bpf {

// Seconds since the epoch at which the system booted; 0 until InitBasetime().
// Written once by the poll thread and read everywhere; atomic (relaxed) so
// threads started before it was set read it without a race.
extern std::atomic<int64_t> __basetime;

// Reads "btime " from /proc/stat; false when the file cannot be opened.
bool InitBasetime();
bool InitBasetimeFrom(const char* statPath);  // same, from another file (tests)
int64_t GetBasetime();
int64_t GetSystemBootNanosencondsTime();
int64_t GetSystemNanosencondsTime();
int64_t GetSystemMicrosencondsTime();
int64_t GetSystemMillisecondsTime(bool precise);
int64_t GetSystemSecondsTime();
int64_t SubAbs(long long a, long long b);
void TestHandleEvent(char* data, long size);

}  // namespace Tavo::Bpf
