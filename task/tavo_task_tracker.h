// Process, thread and memory events: keep the registry current and tell
// clients when a process starts, ends, or its threads or memory move far.
//
// Each handler changes the stored record inside the registry's lock, copies
// what a notice needs, and hands the notice on after the lock is released.
// /proc is read without the lock; the record is then looked up again.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "bpf/tavo_bpf_map.h"
#include "bpf/tavo_bpf_records.h"
#include "state/tavo_bpf_state.h"
#include "task/tavo_bpf_task_manager.h"
#include "task/tavo_notice_sink.h"
#include "task/tavo_proc_reader.h"

namespace Tavo::Bpf {

class TavoTaskTracker {
 public:
  // Where the start-up scan sends its records: the ring callback's path,
  // so they are counted and reach subscribers like kernel records.
  using RecordDispatch = std::function<int(void* record, unsigned long size)>;
  // Told of every process end (not thread end), after its notice.
  using ExitObserver = std::function<void(int32_t pid, uint64_t ts)>;
  using OpenFdMap = TavoBpfMap<int32_t, tavo_open_fd_value>;
  // Seconds on the service's wall-clock scale (GetSystemSecondsTime): a new
  // process's start time and the pace of /proc re-reads.
  using Clock = int64_t (*)();

  TavoTaskTracker(TavoTaskManager& registry, const TavoProcReader& reader, TavoNoticeSink notices, Clock clock);

  void SetExitObserver(ExitObserver observer) { onProcessExit_ = std::move(observer); }

  // Raw-event handlers (types 0 to 3); each returns 0.
  int handleTavoTaskInitEvent(char* data, long size);
  int handleSched_SchedProcessFork(char* data, long size);
  int handleSched_SchedProcessExit(char* data, long size);
  int handleKmem_RssStat(char* data, long size);

  // One synthetic type-0 record per process under the reader's root, sent
  // through dispatch; then `count` processes are added to counter 0.
  void initTaskInfo(const RecordDispatch& dispatch, TavoBpfDataState& counters);
  // Seeds the open-fd map with every process's descriptor count. 0, or -1
  // when the map cannot be opened.
  int initFdBpfProg(const std::string& mapPath);

 private:
  void HandleThreadChange(int32_t pid, uint64_t ts, int delta);

  TavoTaskManager& registry_;
  const TavoProcReader& reader_;
  TavoNoticeSink notices_;
  const Clock clock_;
  ExitObserver onProcessExit_;
};

}  // namespace Tavo::Bpf
