#include "service/tavo_bpf_dump_requests.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>

#include "state/tavo_bpf_state.h"
#include "task/tavo_bpf_task_manager.h"

namespace Tavo::Bpf {

namespace {

std::atomic<int> gRequestWriteFd{-1};

void DumpWorker(int readFd) {
  prctl(PR_SET_NAME, "BpfServiceDump");
  for (;;) {
    unsigned char request;
    const ssize_t n = read(readFd, &request, 1);
    if (n == 1) {
      PerformDump(static_cast<DumpRequest>(request));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return;
    }
  }
}

}  // namespace

void StartDumpWorker() {
  static std::once_flag once;
  std::call_once(once, [] {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    // The handler side must never block.
    fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
    std::thread(DumpWorker, fds[0]).detach();
    gRequestWriteFd.store(fds[1]);
  });
}

void RequestDump(DumpRequest request) {
  const int saved = errno;
  const int fd = gRequestWriteFd.load();
  if (fd >= 0) {
    const auto byte = static_cast<unsigned char>(request);
    ssize_t ignored = write(fd, &byte, 1);
    (void)ignored;
  }
  errno = saved;
}

void PerformDump(DumpRequest request) {
  switch (request) {
    case DumpRequest::kCounters:
      TavoBpfDataState::GetInstance()->DumpState();
      break;
    case DumpRequest::kAllTasks:
      TavoTaskManager::GetInstance()->DumpTavoTaskInfo();
      break;
    case DumpRequest::kNonKernelTasks:
      TavoTaskManager::GetInstance()->DumpTavoTaskIgnoreKernelTaskInfo();
      break;
    case DumpRequest::kAllTasksNormal:
      TavoTaskManager::GetInstance()->DumpTavoTaskInfoNormal();
      break;
    case DumpRequest::kNonKernelTasksNormal:
      TavoTaskManager::GetInstance()->DumpTavoTaskIgnoreKernelTaskInfoNormal();
      break;
  }
}

void InstallDumpSignalHandlers() {
  StartDumpWorker();
  signal(50, DumpState);
  signal(51, HandleDumpSignal);
  signal(52, HandleNonKernelDumpSignal);
  signal(53, HandleDumpSignalNormal);
  signal(54, HandleNonKernelDumpSignalNormal);
}

void DumpState(int) { RequestDump(DumpRequest::kCounters); }
void HandleDumpSignal(int) { RequestDump(DumpRequest::kAllTasks); }
void HandleNonKernelDumpSignal(int) { RequestDump(DumpRequest::kNonKernelTasks); }
void HandleDumpSignalNormal(int) { RequestDump(DumpRequest::kAllTasksNormal); }
void HandleNonKernelDumpSignalNormal(int) { RequestDump(DumpRequest::kNonKernelTasksNormal); }

}  // namespace Tavo::Bpf
