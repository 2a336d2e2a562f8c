#include "service/tavo_dump_worker.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace Tavo::Bpf {

namespace {

// Signals are process-wide: the handlers feed the most recently started worker.
std::atomic<int> gRequestFd{-1};

void RequestDump(int signo) {
  const int saved = errno;
  const int fd = gRequestFd.load();
  if (fd >= 0) {
    const auto byte = static_cast<unsigned char>(signo);
    ssize_t ignored = write(fd, &byte, 1);  // dropped when the pipe is full
    (void)ignored;
  }
  errno = saved;
}

}  // namespace

TavoDumpWorker::TavoDumpWorker(Dump dump) : dump_(std::move(dump)) {}

TavoDumpWorker::~TavoDumpWorker() {
  int expected = writeEnd_.get();
  gRequestFd.compare_exchange_strong(expected, -1);
  writeEnd_.reset();  // the worker reads end of file and leaves
  if (thread_.joinable()) thread_.join();
}

void TavoDumpWorker::Start() {
  if (!thread_.joinable()) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    readEnd_.reset(fds[0]);
    writeEnd_.reset(fds[1]);
    // The handler side must never block.
    fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
    thread_ = std::thread(&TavoDumpWorker::Loop, this);
  }
  gRequestFd.store(writeEnd_.get());
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
  signal(50, DumpState);
  signal(51, HandleDumpSignal);
  signal(52, HandleNonKernelDumpSignal);
  signal(53, HandleDumpSignalNormal);
  signal(54, HandleNonKernelDumpSignalNormal);
}

void DumpState(int signo) { RequestDump(signo); }
void HandleDumpSignal(int signo) { RequestDump(signo); }
void HandleNonKernelDumpSignal(int signo) { RequestDump(signo); }
void HandleDumpSignalNormal(int signo) { RequestDump(signo); }
void HandleNonKernelDumpSignalNormal(int signo) { RequestDump(signo); }

}  // namespace Tavo::Bpf
