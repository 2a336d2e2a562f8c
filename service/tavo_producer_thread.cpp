#include "service/tavo_producer_thread.h"

#include "util/tavo_log.h"

namespace Tavo::Bpf {

namespace {
constexpr int kMaxBackoffShift = 4;       // 16 periods
constexpr int kHealthyRunPeriods = 10;    // a run this long resets the back-off
}  // namespace

TavoProducerThread::TavoProducerThread(std::string name) : name_(std::move(name)) {}

TavoProducerThread::~TavoProducerThread() { Join(); }

bool TavoProducerThread::Launch(const std::function<void()>& body, std::chrono::milliseconds period) {
  MutexLock guard(lock_);
  const Clock::time_point now = Clock::now();
  if (thread_.joinable()) {
    if (!done_->load()) return false;  // still running
    if (notBefore_ == Clock::time_point()) {
      // First sight of this end: wait out the back-off from now.
      if (now - startedAt_ >= period * kHealthyRunPeriods) relaunches_ = 0;
      notBefore_ = now + period * (1 << (relaunches_ < kMaxBackoffShift ? relaunches_ : kMaxBackoffShift));
      TAVO_LOGW(kServiceTag, "[TavoBpfService][Wait] %s ended; relaunch in %lld ms", name_.c_str(),
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(notBefore_ - now).count()));
    }
    if (now < notBefore_) return false;
    thread_.join();
    ++relaunches_;
    TAVO_LOGW(kServiceTag, "[TavoBpfService][Wait] relaunching %s (relaunch %d)", name_.c_str(), relaunches_);
  }
  notBefore_ = Clock::time_point();
  startedAt_ = now;
  done_ = std::make_shared<std::atomic<bool>>(false);
  thread_ = std::thread([body, done = done_] {
    body();
    done->store(true);
  });
  return true;
}

void TavoProducerThread::Join() {
  std::thread thread;
  {
    MutexLock guard(lock_);
    thread.swap(thread_);
  }
  if (thread.joinable()) thread.join();
}

}  // namespace Tavo::Bpf
