#include "service/tavo_ring_pump.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "bpf/tavo_bpf_pins.h"
#include "bpf/tavo_bpf_records.h"
#include "util/tavo_log.h"

namespace Tavo::Bpf {

namespace {

constexpr int64_t kStatusCheckSeconds = 30;
constexpr int kToleratedPollFailures = 5;
constexpr uint64_t kLow32 = 0xffffffffULL;
constexpr uint64_t kRingEvent = 0;
constexpr uint64_t kStopEvent = 1;

struct RingBufferFree {
  void operator()(ring_buffer* rb) const { ring_buffer__free(rb); }
};
using RingBufferPtr = std::unique_ptr<ring_buffer, RingBufferFree>;

// Only the low 32 bits of the flag word are ours to change.
uint64_t WithLowBits(uint64_t word, uint64_t setBits, uint64_t clearBits) {
  const uint64_t low = ((word & kLow32) | (setBits & kLow32)) & ~(clearBits & kLow32);
  return (word & ~kLow32) | low;
}

bool AddToEpoll(int epollFd, int fd, uint64_t tag) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = tag;
  return epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) == 0;
}

// Registers the calling thread as the ring's consumer for as long as it
// lives, so the programs wake it only when it sleeps. Objects without the
// map (the GPL one) keep the ring's own wake-ups.
class ConsumerRegistration {
 public:
  explicit ConsumerRegistration(const std::string& path) {
    auto map = ConsumerMap::OpenPinned(path);
    if (!map.ok()) return;
    tavo_ring_consumer self{};
    self.tid = static_cast<uint32_t>(gettid());
    self.state = TAVO_CONSUMER_RUNNING;
    if (map->Update(0, self).ok()) map_ = std::move(*map);
  }
  ~ConsumerRegistration() {
    if (map_.IsOpen()) (void)map_.Update(0, tavo_ring_consumer{});
  }
  ConsumerRegistration(const ConsumerRegistration&) = delete;
  ConsumerRegistration& operator=(const ConsumerRegistration&) = delete;

 private:
  using ConsumerMap = TavoBpfMap<uint32_t, tavo_ring_consumer>;
  ConsumerMap map_;
};

}  // namespace

TavoRingPump::TavoRingPump(TavoRingPumpConfig config, ring_buffer_sample_fn callback, void* ctx,
                           TavoBpfDataState& counters)
    : config_(std::move(config)),
      callback_(callback),
      ctx_(ctx),
      counters_(counters),
      stopFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

TavoRingPump::~TavoRingPump() = default;

int TavoRingPump::Attach(int kernelVersion) {
  attachments_.clear();
  BpfAttachReport report;
  const int failures = config_.table == nullptr ? 0
      : AttachAllTavoBpfProgram(config_.pinDir, *config_.table, kernelVersion, &attachments_, &report);
  // Without any tracepoint the object produces nothing at all; say why once.
  int tracepoints = 0, attached = 0, firstError = 0;
  for (const BpfAttachResult& row : report) {
    if (row.type != kAttachTracepoint || row.verdict == BpfAttachVerdict::kSkipped) continue;
    ++tracepoints;
    attached += row.verdict == BpfAttachVerdict::kAttached;
    if (firstError == 0) firstError = row.error;
  }
  if (tracepoints > 0 && attached == 0 &&
      (config_.noTracepointSaid == nullptr || !config_.noTracepointSaid->exchange(true))) {
    const std::string events = std::string(kTracefsDir) + "/events";
    TAVO_LOGE(kServiceTag, "[TavoBpfService] no tracepoint attached: %s",
              access(events.c_str(), F_OK) != 0 ? ("tracefs is not mounted at " + std::string(kTracefsDir)).c_str()
                                                : strerror(firstError));
  }
  MutexLock guard(lock_);
  attachedOnce_ = true;
  attachReport_ = std::move(report);
  return failures;
}

bool TavoRingPump::AttachReport(BpfAttachReport* report) {
  MutexLock guard(lock_);
  if (!attachedOnce_) return false;
  *report = attachReport_;
  return true;
}

void TavoRingPump::Detach() { attachments_.clear(); }

void TavoRingPump::Stop() {
  stopping_ = true;
  eventfd_write(stopFd_.get(), 1);
}

void TavoRingPump::Reset() {
  stopping_ = false;
  eventfd_t ignored;
  eventfd_read(stopFd_.get(), &ignored);
}

bool TavoRingPump::WaitForStop(int timeoutMs) {
  pollfd stop{stopFd_.get(), POLLIN, 0};
  poll(&stop, 1, timeoutMs);
  return stopping_;
}

int TavoRingPump::Run(const Hooks& hooks) {
  const char* prefix = config_.logPrefix.c_str();
  auto ring = BpfObjGet(PinnedMapPath(config_.pinDir, config_.object, kRingbufMap), 0);
  if (!ring.ok()) {
    TAVO_LOGE(kServiceTag, "%s TAVOBPF: get ringbuf failed: %s, map fd: %d", prefix,
              strerror(ring.error().code()), -1);
    errno = 0;
    return -1;
  }
  auto status = StatusMap::OpenPinned(PinnedMapPath(config_.pinDir, config_.object, kRingbufStatusMap));
  if (!status.ok()) {
    TAVO_LOGE(kServiceTag, "%s TAVOBPF: get ringbuf status map failed: %s, map fd: %d", prefix,
              strerror(status.error().code()), -1);
    errno = 0;
    return -1;
  }
  {
    // The host's enable calls use the status map under this lock.
    MutexLock guard(lock_);
    status_ = std::move(*status);
  }
  ConsumerRegistration consumer(PinnedMapPath(config_.pinDir, config_.object, kRingConsumerMap));
  RingBufferPtr rb(ring_buffer__new(ring->get(), callback_, ctx_, nullptr));
  android::base::unique_fd epollFd(epoll_create1(EPOLL_CLOEXEC));
  if (!rb || epollFd.get() < 0 || !AddToEpoll(epollFd.get(), ring_buffer__epoll_fd(rb.get()), kRingEvent) ||
      !AddToEpoll(epollFd.get(), stopFd_.get(), kStopEvent)) {
    TAVO_LOGE(kServiceTag, "%s TAVOBPF: Set up ringbuf failed: %s, ringbufMap fd: %d", prefix, strerror(errno),
              ring->get());
    errno = 0;
    return -1;
  }

  // Core events (process life cycle) may flow while user space seeds its
  // state; the rest only once that state exists.
  UpdateFlags(TAVO_STATUS_CORE_ENABLED, 0);
  if (hooks.seed) hooks.seed();
  UpdateFlags(TAVO_STATUS_NORMAL_ENABLED, 0);
  if (hooks.seeded) hooks.seeded();

  auto consume = [&] {
    if (hooks.beforeConsume) hooks.beforeConsume();
    const int count = ring_buffer__consume(rb.get());
    if (hooks.afterConsume) hooks.afterConsume();
    return count;
  };
  int failures = 0;
  for (;;) {
    if (stopping_) {
      TAVO_LOGW(kServiceTag, "%s %s", prefix, config_.stopMessage.c_str());
      consume();  // what the kernel wrote before the stop
      return 0;
    }
    // Like ring_buffer__poll(rb, -1), but a stop wakes it too.
    epoll_event events[2];
    int result = epoll_wait(epollFd.get(), events, 2, -1);
    if (result > 0) {
      bool ringReady = false;
      for (int i = 0; i < result; ++i) ringReady |= events[i].data.u64 == kRingEvent;
      result = ringReady ? consume() : 0;
    } else if (result < 0) {
      result = -errno;
    }
    if (result >= 0) {
      if (stopping_) continue;
      counters_.RecordEvent(TavoBpfDataState::kPollCounter, 1);
      checkBpfRingBuffStatus(false);
      if (hooks.afterPoll) hooks.afterPoll();
      failures = 0;
      continue;
    }
    const int pollErrno = errno;
    checkBpfRingBuffStatus(true);
    if (pollErrno == EINTR) continue;
    TAVO_LOGE(kServiceTag, "%s TAVOBPF: ret %d .Error ring buf poll. %s", prefix, result, strerror(pollErrno));
    errno = 0;
    WaitForStop(config_.failureWaitMs);
    if (failures >= kToleratedPollFailures) break;
    ++failures;
  }
  return -1;
}

uint64_t TavoRingPump::ReadStatus(uint32_t key) {
  auto value = status_.Lookup(key);
  return value.ok() ? *value : 0;  // a value that cannot be read counts as 0
}

bool TavoRingPump::checkBpfRingBuffStatus(bool force) {
  MutexLock guard(lock_);
  return CheckStatusLocked(force);
}

bool TavoRingPump::CheckStatusLocked(bool force) {
  const int64_t now = time(nullptr);
  if (!force && now - lastStatusCheck_ < kStatusCheckSeconds) return true;
  lastStatusCheck_ = now;

  const uint64_t avail = ReadStatus(TAVO_STATUS_AVAIL_DATA);
  const uint64_t flags = ReadStatus(TAVO_STATUS_FLAGS);
  if ((flags & TAVO_STATUS_RING_FULL) == 0) return true;

  TAVO_LOGW(kServiceTag, "[TavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!");
  const uint64_t size = ReadStatus(TAVO_STATUS_RING_SIZE);
  const uint64_t cons = ReadStatus(TAVO_STATUS_CONS_POS);
  const uint64_t prod = ReadStatus(TAVO_STATUS_PROD_POS);
  TAVO_LOGW(kServiceTag,
            "[TavoBpfService][checkBpfRingBuffStatus] avail data: %lu, ringbuf size: %lu, cons pos: %lu, prod pos: %lu",
            static_cast<unsigned long>(avail), static_cast<unsigned long>(size), static_cast<unsigned long>(cons),
            static_cast<unsigned long>(prod));
  // Acknowledged under the same lock as the host's enable calls, so the
  // write cannot undo one of them.
  status_.Update(TAVO_STATUS_FLAGS, WithLowBits(flags, 0, TAVO_STATUS_RING_FULL));
  return false;
}

bool TavoRingPump::UpdateFlags(uint64_t setBits, uint64_t clearBits) {
  MutexLock guard(lock_);
  if (!status_.IsOpen()) return false;
  const uint64_t flags = ReadStatus(TAVO_STATUS_FLAGS);
  return status_.Update(TAVO_STATUS_FLAGS, WithLowBits(flags, setBits, clearBits)).ok();
}

}  // namespace Tavo::Bpf
