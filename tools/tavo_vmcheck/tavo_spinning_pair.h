// A child process whose two threads spin on two CPUs until it is killed.
// Killed from outside, both threads run their exit path at once, so both
// can find signal->live at 0 when the sched_process_exit tracepoint fires:
// the race that the exit programs' claims have to settle.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

namespace Tavo::VmCheck {

// Spins without touching memory, so no sanitizer runtime is involved.
inline int Spin(void*) {
  for (;;) asm volatile("" ::: "memory");
  return 0;
}

// The child's pid once both of its threads run, or -1. Raw system calls
// only in the child: the caller may be threaded.
inline pid_t SpinningPair() {
  android::base::unique_fd readyRead, readyWrite;
  if (!android::base::Pipe(&readyRead, &readyWrite)) return -1;
  const pid_t child = fork();
  if (child == 0) {
    static char stack[64 * 1024];
    if (clone(Spin, stack + sizeof(stack), CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD,
              nullptr) < 0)
      syscall(SYS_exit_group, 1);
    syscall(SYS_write, readyWrite.get(), "r", 1);
    Spin(nullptr);
  }
  readyWrite.reset();
  char byte = 0;
  if (child > 0 && read(readyRead.get(), &byte, 1) != 1) waitpid(child, nullptr, 0);
  return byte == 'r' ? child : -1;
}

}  // namespace Tavo::VmCheck
