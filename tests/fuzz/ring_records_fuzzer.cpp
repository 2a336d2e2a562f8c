// Arbitrary ring records through the dispatcher, with the task registry,
// the task handlers and the dma-buf tables in play. The input is a list of
// records, each a length byte and that many bytes; a zero length reports
// the exit of the last record's pid instead.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "service/tavo_event_dispatcher.h"
#include "task/tavo_dmabuf_accounting.h"
#include "task/tavo_task_tracker.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;

namespace {

struct World {
  World() {
    using namespace std::placeholders;
    dispatcher.SetHandler(0, std::bind(&TavoTaskTracker::handleTavoTaskInitEvent, &tracker, _1, _2));
    dispatcher.SetHandler(1, std::bind(&TavoTaskTracker::handleKmem_RssStat, &tracker, _1, _2));
    dispatcher.SetHandler(2, std::bind(&TavoTaskTracker::handleSched_SchedProcessFork, &tracker, _1, _2));
    dispatcher.SetHandler(3, std::bind(&TavoTaskTracker::handleSched_SchedProcessExit, &tracker, _1, _2));
    int (TavoDmabufAccounting::*const dmabufHandlers[])(char*, long) = {
        &TavoDmabufAccounting::handleDmabuf_Setup,  &TavoDmabufAccounting::handleDmabuf_Release,
        &TavoDmabufAccounting::handleDmabuf_Attach, &TavoDmabufAccounting::handleDmabuf_Detach,
        &TavoDmabufAccounting::handleDmabuf_Vmap,   &TavoDmabufAccounting::handleDmabuf_Vunmap,
        &TavoDmabufAccounting::handleDmabuf_Mmap,   &TavoDmabufAccounting::handleDmabuf_Munmap};
    for (int type = 7; type <= 14; ++type) {
      dispatcher.SetHandler(type, std::bind(dmabufHandlers[type - 7], &dmabuf, _1, _2));
    }
    tracker.SetExitObserver([this](int32_t pid, uint64_t ts) { dmabuf.NoteProcessExit(pid, ts); });
  }

  // An empty root: no process is ever found, so nothing depends on this host.
  TavoProcReader reader{"/nonexistent"};
  TavoTaskManager registry;
  TavoBpfDataState counters{&GetSystemSecondsTime};
  TavoNoticeSink sink = [](const void*, size_t) {};
  TavoEventDispatcher dispatcher{counters, [](const char*, unsigned long) { return 0; }};
  TavoTaskTracker tracker{registry, reader, sink, &GetSystemSecondsTime};
  TavoDmabufAccounting dmabuf{registry, reader, sink};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  World world;
  std::vector<char> record;
  int32_t lastPid = 0;
  for (size_t at = 0; at < size;) {
    const size_t length = data[at++];
    if (length == 0) {
      world.dmabuf.NoteProcessExit(lastPid, at);
      continue;
    }
    const size_t take = length < size - at ? length : size - at;
    // A copy of exactly the record's bytes, so a read past it is caught.
    record.assign(data + at, data + at + take);
    at += take;
    if (take >= 20) memcpy(&lastPid, record.data() + 16, sizeof(lastPid));
    world.dispatcher.Dispatch(record.data(), record.size());
  }
  world.registry.FormatDump(false, false);
  return 0;
}
