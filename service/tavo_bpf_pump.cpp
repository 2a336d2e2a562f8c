// The two ring-buffer pumps and the status-map flags they share with the
// kernel-side programs.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <type_traits>

#include "bpf/tavo_bpf_attr_block.h"
#include "bpf/tavo_bpf_records.h"
#include "service/tavo_bpf_dump_requests.h"
#include "service/tavo_bpf_service.h"
#include "state/tavo_bpf_state.h"
#include "util/tavo_log.h"

namespace Tavo::Bpf {

namespace {

// The sample callback is handed to libbpf as it is.
static_assert(std::is_same_v<decltype(&TavoBpfService::handleBpfRingBuffEvent), ring_buffer_sample_fn>,
              "handleBpfRingBuffEvent must match libbpf's sample callback");

constexpr int kRingCount = 2;
constexpr int64_t kStatusCheckSeconds = 30;
constexpr int kToleratedPollFailures = 5;
constexpr uint64_t kLow32 = 0xffffffffULL;

struct PumpSetup {
  const char* prefix;  // log prefix with class and method
  const char* ringbufPath;
  const char* statusPath;
  const char* stopMessage;
};

const PumpSetup kPumps[kRingCount] = {
    {"[TavoBpfService][eventMonitor]", "/sys/fs/bpf/tavo/map_TavoBpfDefineset_ringbuf_map",
     "/sys/fs/bpf/tavo/map_TavoBpfDefineset_ringbuf_status", "Stop Event Produce Thread..."},
    {"[TavoBpfService][gpleventMonitor]", "/sys/fs/bpf/tavo/map_TavoBpfGplDefineset_ringbuf_map",
     "/sys/fs/bpf/tavo/map_TavoBpfGplDefineset_ringbuf_status", "Stop GPL Event Produce Thread..."},
};

struct RingBufferFree {
  void operator()(ring_buffer* rb) const { ring_buffer__free(rb); }
};
using RingBufferPtr = std::unique_ptr<ring_buffer, RingBufferFree>;

bool ValidRing(int ring) { return ring >= 0 && ring < kRingCount; }

// A value that cannot be read (no map, no entry) reads as 0.
uint64_t ReadStatus(int fd, uint32_t key) {
  uint64_t value = 0;
  if (BpfMapLookup(fd, &key, &value) != 0) value = 0;
  return value;
}

bool WriteStatus(int fd, uint32_t key, uint64_t value) { return BpfMapUpdate(fd, &key, &value) == 0; }

// Only the low 32 bits of the flag word are ours to change.
uint64_t WithLowBits(uint64_t word, uint64_t setBits, uint64_t clearBits) {
  const uint64_t low = ((word & kLow32) | (setBits & kLow32)) & ~(clearBits & kLow32);
  return (word & ~kLow32) | (low & kLow32);
}

// Opens a pinned map into slot; false (slot left at -1) on failure.
bool OpenPinnedMap(const char* path, android::base::unique_fd& slot) {
  const int fd = bpf_obj_get(path);
  slot.reset(fd >= 0 ? fd : -1);
  return fd >= 0;
}

}  // namespace

int TavoBpfService::eventMonitor() { return runMonitor(0); }

int TavoBpfService::gpleventMonitor() { return runMonitor(1); }

int TavoBpfService::runMonitor(int index) {
  const PumpSetup& setup = kPumps[index];
  InstallDumpSignalHandlers();

  if (!OpenPinnedMap(setup.ringbufPath, ringbufFd[index])) {
    TAVO_LOGE(kServiceTag, "%s TAVOBPF: get ringbuf failed: %s, map fd: %d", setup.prefix, strerror(errno),
              ringbufFd[index].get());
    errno = 0;
    return -1;
  }
  android::base::unique_fd status;
  const bool statusOpened = OpenPinnedMap(setup.statusPath, status);
  {
    // The host's enable calls read the slot under the same lock.
    const int savedErrno = errno;
    std::lock_guard<std::mutex> guard(servicelock);
    statusFd[index] = std::move(status);
    errno = savedErrno;
  }
  if (!statusOpened) {
    TAVO_LOGE(kServiceTag, "%s TAVOBPF: get ringbuf status map failed: %s, map fd: %d", setup.prefix,
              strerror(errno), statusFd[index].get());
    errno = 0;
    return -1;
  }
  RingBufferPtr rb(ring_buffer__new(ringbufFd[index].get(), handleBpfRingBuffEvent, nullptr, nullptr));
  if (!rb) {
    TAVO_LOGE(kServiceTag, "%s TAVOBPF: Set up ringbuf failed: %s, ringbufMap fd: %d", setup.prefix,
              strerror(errno), ringbufFd[index].get());
    errno = 0;
    return -1;
  }

  // Core events (process life cycle) may flow while user space seeds its
  // state; the rest only once that state exists.
  updateStatusFlags(index, TAVO_STATUS_CORE_ENABLED, 0);
  if (index == 0) {
    initTaskInfo();
  } else {
    initDmabufBpfProg();
  }
  updateStatusFlags(index, TAVO_STATUS_NORMAL_ENABLED, 0);
  if (index == 0) initFdBpfProg();

  int failures = 0;
  for (;;) {
    if (!running.load()) {
      TAVO_LOGW(kServiceTag, "%s %s", setup.prefix, setup.stopMessage);
      return 0;
    }
    const int result = ring_buffer__poll(rb.get(), -1);
    if (result >= 0) {
      TavoBpfDataState::GetInstance()->RecordEvent(TavoBpfDataState::kPollCounter, 1);
      checkBpfRingBuffStatus(index, false);
      failures = 0;
      continue;
    }
    const int pollErrno = errno;
    checkBpfRingBuffStatus(index, true);
    if (pollErrno == EINTR) continue;
    TAVO_LOGE(kServiceTag, "%s TAVOBPF: ret %d .Error ring buf poll. %s", setup.prefix, result,
              strerror(pollErrno));
    errno = 0;
    sleep(1);
    if (failures >= kToleratedPollFailures) break;
    ++failures;
  }
  return -1;
}

bool TavoBpfService::checkBpfRingBuffStatus(int ring, bool force) {
  if (!ValidRing(ring)) return false;
  const int64_t now = time(nullptr);
  if (!force && now - lastStatusCheck[ring] < kStatusCheckSeconds) return true;
  lastStatusCheck[ring] = now;

  const int fd = statusFd[ring].get();
  const uint64_t avail = ReadStatus(fd, TAVO_STATUS_AVAIL_DATA);
  const uint64_t flags = ReadStatus(fd, TAVO_STATUS_FLAGS);
  if ((flags & TAVO_STATUS_RING_FULL) == 0) return true;

  TAVO_LOGW(kServiceTag, "[TavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!");
  const uint64_t size = ReadStatus(fd, TAVO_STATUS_RING_SIZE);
  const uint64_t cons = ReadStatus(fd, TAVO_STATUS_CONS_POS);
  const uint64_t prod = ReadStatus(fd, TAVO_STATUS_PROD_POS);
  TAVO_LOGW(kServiceTag,
            "[TavoBpfService][checkBpfRingBuffStatus] avail data: %lu, ringbuf size: %lu, cons pos: %lu, "
            "prod pos: %lu",
            static_cast<unsigned long>(avail), static_cast<unsigned long>(size),
            static_cast<unsigned long>(cons), static_cast<unsigned long>(prod));
  // Acknowledge the mark. Done without servicelock, so this write can undo
  // a host's enable/disable racing with it; the host may simply repeat it.
  WriteStatus(fd, TAVO_STATUS_FLAGS, WithLowBits(flags, 0, TAVO_STATUS_RING_FULL));
  return false;
}

bool TavoBpfService::updateStatusFlags(int ring, uint64_t setBits, uint64_t clearBits) {
  if (!ValidRing(ring)) return false;
  std::lock_guard<std::mutex> guard(servicelock);
  const int fd = statusFd[ring].get();
  const uint64_t flags = ReadStatus(fd, TAVO_STATUS_FLAGS);
  return WriteStatus(fd, TAVO_STATUS_FLAGS, WithLowBits(flags, setBits, clearBits));
}

bool TavoBpfService::enableCoreBpf(int ring, bool enable) {
  return enable ? updateStatusFlags(ring, TAVO_STATUS_CORE_ENABLED, 0)
                : updateStatusFlags(ring, 0, TAVO_STATUS_CORE_ENABLED);
}

bool TavoBpfService::enableNormalBpf(int ring, bool enable) {
  return enable ? updateStatusFlags(ring, TAVO_STATUS_NORMAL_ENABLED, 0)
                : updateStatusFlags(ring, 0, TAVO_STATUS_NORMAL_ENABLED);
}

}  // namespace Tavo::Bpf
