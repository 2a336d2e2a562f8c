// Waiting for a condition, and watching this process's threads in /proc.
#pragma once

#include <dirent.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace tavo_test {

// Polls `done` every 2 ms; false when the time ran out first.
inline bool WaitFor(const std::function<bool()>& done, int timeoutMs = 3000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The CPUs this process may run on.
inline cpu_set_t AllCpus() {
  cpu_set_t set;
  CPU_ZERO(&set);
  sched_getaffinity(0, sizeof(set), &set);
  return set;
}

// Thread id of this process's thread named `name`, or -1.
inline int FindThread(const std::string& name) {
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  int found = -1;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string line;
    std::getline(comm, line);
    if (line == name) found = atoi(entry->d_name);
  }
  closedir(dir);
  return found;
}

// User plus system CPU time of one thread, in milliseconds.
inline long ThreadCpuMs(int tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const size_t paren = text.rfind(')');
  if (paren == std::string::npos) return -1;
  // After the command: state is field 3; utime and stime are 14 and 15.
  unsigned long utime = 0, stime = 0;
  if (sscanf(text.c_str() + paren + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime,
             &stime) != 2) {
    return -1;
  }
  return static_cast<long>((utime + stime) * 1000 / sysconf(_SC_CLK_TCK));
}

}  // namespace tavo_test
