// The one reader of the proc file system, under one root ("/proc" on a
// device; a fixture folder in tests). The service, tavoctl, the tests, the
// benchmarks and the matrix check all read /proc through it.
//
// Files are read whole into a reused per-thread buffer and parsed in place:
// no string per line and no allocation per process once the buffer has
// grown. Numbers are read like strtol but bounded by the line and
// saturating, so no file content can make a reader throw or overflow.
//
// One rule for names: a process's (or thread's) name is the value of the
// "Name:\t" line of its status file, at most 15 bytes. The fields of a stat
// line are counted after its last ')', so a name with blanks or brackets
// never shifts them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"

namespace Tavo::Bpf {

// Result of getProcessInfo.
struct UpdateProcessExdata {
  int32_t pid = 0;
  int32_t ppid = 0;
  char comm[16] = {};
};

// What a process's status and stat files say.
struct TavoProcFacts {
  char comm[16] = {};  // "Name:\t", NUL-terminated
  int32_t ppid = 0;
  uint32_t uid = 0;  // the real uid
  // Bytes: RssFile, RssAnon, RssShmem and VmSwap; 0 without the line.
  int64_t rssFile = 0;
  int64_t rssAnon = 0;
  int64_t rssShmem = 0;
  int64_t swap = 0;
  // From stat; all 0 (and hasStat false) when it cannot be read or is short.
  bool hasStat = false;
  uint32_t threads = 0;
  uint64_t startTicks = 0;  // clock ticks after boot
  uint64_t cpuTicks = 0;    // user + system time
};

class TavoProcReader {
 public:
  static constexpr const char* kDefaultRoot = "/proc";

  explicit TavoProcReader(std::string root = kDefaultRoot);

  const std::string& root() const { return root_; }

  // fn(pid, name) for every all-digit entry of the root, in directory order.
  void ForEachProcess(const std::function<void(int32_t pid, const char* name)>& fn) const;
  // fn(tid) for every thread of a process ("self" works too).
  void ForEachThread(const char* name, const std::function<void(int32_t tid)>& fn) const;
  // The status and stat files of <root>/<name> ("123", "self/task/456");
  // false when the status file cannot be read.
  bool ReadProcess(const char* name, TavoProcFacts* facts) const;
  // The start-up record of one process; false (nothing to register) when
  // the status file cannot be read. Start time is basetime + startTicks /
  // ticksPerSecond.
  bool ReadTaskInit(const char* name, int64_t basetime, long ticksPerSecond, tavo_task_init_event* record) const;
  // Parent and name from the status file; -1 with a warning when it cannot
  // be read. Fields whose line is missing keep what the caller put there.
  int getProcessInfo(int pid, UpdateProcessExdata* out) const;
  // The value of the status file's "Name:\t" line, or false.
  bool ReadName(const char* name, std::string* value) const;
  // fn(fdName) for every entry of <name>/fd not beginning with '.'; false
  // when the directory cannot be opened.
  bool ForEachFd(const char* name, const std::function<void(const char* fdName)>& fn) const;
  // Link target of <name>/fd/<fdName>, or false.
  bool ReadFdTarget(const char* name, const char* fdName, std::string* target) const;
  // <root>/<name>/fdinfo/<fd>.
  std::string FdInfoPath(const char* name, const char* fdName) const;
  // "size:\t" and "ino:\t" of an fdinfo file; 0 (and "Unable to open %s")
  // when it cannot be read, 0 when the line is missing.
  static long GetFdSize(const std::string& path);
  static uint64_t GetFdInode(const std::string& path);

  // Milliseconds since boot (<root>/uptime), or -1.
  int64_t UptimeMs() const;
  // Link target of <name>/ns/net ("net:[4026531840]"), or "".
  std::string NetNamespace(const char* name) const;
  // Inodes of the sockets bound to an abstract name ("@" + name in
  // <root>/net/unix): the listener and the connections it accepted;
  // `connected` counts the latter. False when the table cannot be read.
  bool UnixSockets(const std::string& abstractName, std::set<unsigned long>* inodes, size_t* connected) const;
  // Whether one of a process's descriptors is one of these sockets.
  bool HoldsSocket(const char* name, const std::set<unsigned long>& inodes) const;
  // Names of the kernel's text symbols (<root>/kallsyms): the functions a
  // kprobe can attach to.
  std::set<std::string> KernelFunctions() const;
  // The file system types this kernel knows (<root>/filesystems): "bpf",
  // "tracefs", whether mounted or not.
  std::set<std::string> Filesystems() const;

  // The parsers, on text in memory (fixtures and fuzzing).
  static void ParseStatus(const char* begin, const char* end, TavoProcFacts* facts);
  static void ParseStat(const char* begin, const char* end, TavoProcFacts* facts);
  static void ParseProcessInfo(const char* begin, const char* end, UpdateProcessExdata* out);
  static bool ParseUnixSockets(const std::string& table, const std::string& abstractName,
                               std::set<unsigned long>* inodes, size_t* connected);

 private:
  std::string Path(const char* name, const char* file) const;

  std::string root_;
};

}  // namespace Tavo::Bpf
