// Everything the service reads from the proc file system, under one root
// ("/proc" on a device; a fixture folder in tests).
//
// Files are read whole into a reused per-thread buffer and parsed in place:
// no string per line and no allocation per process once the buffer has
// grown. Numbers are read like strtol but bounded by the line and
// saturating, so no file content can make a reader throw or overflow.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "bpf/tavo_bpf_records.h"

namespace Tavo::Bpf {

// Result of getProcessInfo.
struct UpdateProcessExdata {
  int32_t pid = 0;
  int32_t ppid = 0;
  char comm[16] = {};
};

class TavoProcReader {
 public:
  static constexpr const char* kDefaultRoot = "/proc";

  explicit TavoProcReader(std::string root = kDefaultRoot);

  const std::string& root() const { return root_; }

  // fn(pid, name) for every all-digit entry of the root, in directory order.
  void ForEachProcess(const std::function<void(int32_t pid, const char* name)>& fn) const;
  // The start-up record of one process from its status and stat files.
  // False (nothing to register) when the status file cannot be read; an
  // unreadable stat leaves thread count and start time at 0.
  bool ReadTaskInit(const char* name, int64_t basetime, long ticksPerSecond, tavo_task_init_event* record) const;
  // Parent and name from the status file; -1 with a warning when it cannot
  // be read. Fields whose line is missing keep what the caller put there.
  int getProcessInfo(int pid, UpdateProcessExdata* out) const;
  // The value of the status file's "Name:\t" line, or false.
  bool ReadName(const char* name, std::string* value) const;
  // fn(fdName) for every entry of <pid>/fd not beginning with '.'; false
  // when the directory cannot be opened.
  bool ForEachFd(const char* name, const std::function<void(const char* fdName)>& fn) const;
  // Link target of <pid>/fd/<fdName>, or false.
  bool ReadFdTarget(const char* name, const char* fdName, std::string* target) const;
  // <root>/<pid>/fdinfo/<fd>.
  std::string FdInfoPath(const char* name, const char* fdName) const;
  // "size:\t" and "ino:\t" of an fdinfo file; 0 (and "Unable to open %s")
  // when it cannot be read, 0 when the line is missing.
  static long GetFdSize(const std::string& path);
  static uint64_t GetFdInode(const std::string& path);

  // The parsers, on text in memory (fixtures and fuzzing).
  static void ParseStatus(const char* begin, const char* end, tavo_task_init_event* record);
  static void ParseStat(const char* begin, const char* end, int64_t basetime, long ticksPerSecond,
                        tavo_task_init_event* record);
  static void ParseProcessInfo(const char* begin, const char* end, UpdateProcessExdata* out);

 private:
  std::string Path(const char* name, const char* file) const;

  std::string root_;
};

}  // namespace Tavo::Bpf
