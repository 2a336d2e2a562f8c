#include "service/tavo_dump_worker.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "util/tavo_log.h"
#include "util/tavo_service_contract.h"

namespace Tavo::Bpf {

namespace {

// Signals are process-wide: every started worker of the process (tests and
// tools run several services) is told, and each dumps its own service.
// A slot holds a worker's write end plus one; 0 is free, so the table needs
// no initialisation before the first service starts.
constexpr int kMaxWorkers = 16;
std::atomic<int> gWorkerSlots[kMaxWorkers];
// Handlers between reading a descriptor and writing to it; a worker going
// away waits for them before it closes its pipe, so no byte lands on a
// descriptor number that was closed and reused.
std::atomic<int> gHandlersWriting{0};
static_assert(std::atomic<int>::is_always_lock_free, "used inside signal handlers");

void RequestDump(int signo) {
  const int saved = errno;
  gHandlersWriting.fetch_add(1);
  const auto byte = static_cast<unsigned char>(signo);
  for (auto& slot : gWorkerSlots) {
    const int fd = slot.load() - 1;
    if (fd < 0) continue;
    ssize_t ignored = write(fd, &byte, 1);  // dropped when the pipe is full
    (void)ignored;
  }
  gHandlersWriting.fetch_sub(1);
  errno = saved;
}

}  // namespace

TavoDumpWorker::TavoDumpWorker(Dump dump) : dump_(std::move(dump)) {}

TavoDumpWorker::~TavoDumpWorker() {
  const int fd = writeEnd_.get();
  for (auto& slot : gWorkerSlots) {
    int expected = fd + 1;
    if (fd >= 0 && slot.compare_exchange_strong(expected, 0)) break;
  }
  while (gHandlersWriting.load() != 0) std::this_thread::yield();
  writeEnd_.reset();  // the worker reads end of file and leaves
  if (thread_.joinable()) thread_.join();
}

void TavoDumpWorker::Start() {
  if (thread_.joinable()) return;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  readEnd_.reset(fds[0]);
  writeEnd_.reset(fds[1]);
  // The handler side must never block.
  fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
  thread_ = std::thread(&TavoDumpWorker::Loop, this);
  for (auto& slot : gWorkerSlots) {
    int expected = 0;
    if (slot.compare_exchange_strong(expected, fds[1] + 1)) return;
  }
  TAVO_LOGE(kServiceTag, "[TavoDumpWorker] more than %d services in one process: dump signals not routed",
            kMaxWorkers);
}

void TavoDumpWorker::Loop() {
  prctl(PR_SET_NAME, "BpfServiceDump");
  for (;;) {
    unsigned char signo;
    const ssize_t n = read(readEnd_.get(), &signo, 1);
    if (n == 1) {
      dump_(signo);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return;
    }
  }
}

void TavoDumpWorker::InstallSignalHandlers() {
  signal(kDumpSignalState, DumpState);
  signal(kDumpSignalTasks, HandleDumpSignal);
  signal(kDumpSignalTasksNonKernel, HandleNonKernelDumpSignal);
  signal(kDumpSignalTasksShort, HandleDumpSignalNormal);
  signal(kDumpSignalTasksShortNonKernel, HandleNonKernelDumpSignalNormal);
}

void DumpState(int signo) { RequestDump(signo); }
void HandleDumpSignal(int signo) { RequestDump(signo); }
void HandleNonKernelDumpSignal(int signo) { RequestDump(signo); }
void HandleDumpSignalNormal(int signo) { RequestDump(signo); }
void HandleNonKernelDumpSignalNormal(int signo) { RequestDump(signo); }

}  // namespace Tavo::Bpf
