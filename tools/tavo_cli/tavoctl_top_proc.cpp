#include "tools/tavo_cli/tavoctl_top_proc.h"

#include <unistd.h>

#include <algorithm>
#include <set>

#include "task/tavo_proc_reader.h"

namespace Tavo::Cli {

namespace {

using Tavo::Bpf::TavoProcFacts;
using Tavo::Bpf::TavoProcReader;

bool ReadAt(const TavoProcReader& reader, int32_t pid, const char* name, int64_t nowMs, int64_t uptimeMs,
            ProcessRow* row) {
  TavoProcFacts facts;
  if (!reader.ReadProcess(name, &facts) || !facts.hasStat) return false;
  row->pid = pid;
  row->ppid = facts.ppid;
  row->uid = facts.uid;
  row->name = facts.comm;
  row->threads = facts.threads;
  // Kernel threads have no memory lines: nothing resident.
  row->anon = facts.rssAnon;
  row->file = facts.rssFile;
  row->shmem = facts.rssShmem;
  row->swap = facts.swap;
  const auto startMs = static_cast<int64_t>(facts.startTicks * 1000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK)));
  row->startMs = uptimeMs < 0 ? nowMs : nowMs - std::max<int64_t>(uptimeMs - startMs, 0);
  return true;
}

}  // namespace

std::vector<ProcessRow> TopProc::Scan(int64_t nowMs) {
  const TavoProcReader reader;
  const int64_t uptimeMs = reader.UptimeMs();
  std::vector<ProcessRow> rows;
  reader.ForEachProcess([&](int32_t pid, const char* name) {
    ProcessRow row;
    if (ReadAt(reader, pid, name, nowMs, uptimeMs, &row)) rows.push_back(std::move(row));
  });
  return rows;
}

bool TopProc::Read(int32_t pid, int64_t nowMs, ProcessRow* row) {
  const TavoProcReader reader;
  return ReadAt(reader, pid, std::to_string(pid).c_str(), nowMs, reader.UptimeMs(), row);
}

int TopProc::ServiceClients(const std::string& path) {
  std::set<unsigned long> inodes;
  size_t connected = 0;
  return TavoProcReader().UnixSockets(path, &inodes, &connected) ? static_cast<int>(connected) : -1;
}

}  // namespace Tavo::Cli
