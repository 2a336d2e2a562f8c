// One end per process and clean record tails, straight from the rings.
// Kernels whose sched_process_exit record has no group_dead (5.10, 6.1,
// 6.12) decide "last thread" from signal->live and a claim per tgid; these
// cases show their faults there (the kernel matrix runs them), and pass
// trivially where group_dead settles it.
#include <gtest/gtest.h>

#include <linux/sched.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>

#include "tests/kern_test_rings.h"
#include "tests/support/children.h"
#include "tests/support/test_env.h"
#include "tools/tavo_vmcheck/tavo_spinning_pair.h"

using tavo_test::RingCollector;
using Tavo::Loader::kGplObject;
using Tavo::Loader::kNormalObject;

namespace {

class KernExitTest : public testing::Test {
 protected:
  void SetUp() override { TAVO_REQUIRE_BPFFS(); }
  void Load(const char* object, const char* prog, Tavo::Loader::LoaderOptions options = {}) {
    Tavo::Loader::LoadReport report;
    ASSERT_TRUE(tavo_test::LoadForTest(options, &report));
    link_ = tavo_test::AttachPinnedTracepoint(object, prog, "sched", prog + strlen("sched_"));
    ASSERT_GE(link_.get(), 0) << prog;
  }
  android::base::unique_fd link_;
};

// A child made with a chosen pid (clone3 set_tid, 5.5+) that exits when the
// pipe's write end is closed. Raw system calls only: the parent is threaded.
pid_t ChildWithPid(pid_t pid, int holdRead, int holdWrite) {
  clone_args args{};
  args.exit_signal = SIGCHLD;
  args.set_tid = reinterpret_cast<uintptr_t>(&pid);
  args.set_tid_size = 1;
  const long child = syscall(SYS_clone3, &args, sizeof(args));
  if (child == 0) {
    char byte;
    syscall(SYS_close, holdWrite);
    syscall(SYS_read, holdRead, &byte, 1);
    syscall(SYS_exit_group, 0);
  }
  return static_cast<pid_t>(child);
}

// A process that starts while the core gate is off must still end as a
// process: its fork has to drop the claim its pid's previous owner left.
TEST_F(KernExitTest, ProcessForkedWhileCoreIsOffEndsAsAProcess) {
  Load(kNormalObject, "sched_sched_process_exit");
  android::base::unique_fd fork = tavo_test::AttachPinnedTracepoint(kNormalObject, "sched_sched_process_fork",
                                                                     "sched", "sched_process_fork");
  ASSERT_GE(fork.get(), 0);
  ASSERT_TRUE(tavo_test::SetStatusFlags(kNormalObject, TAVO_STATUS_CORE_ENABLED));
  RingCollector ring(kNormalObject);
  const pid_t pid = tavo_test::ReapedPid();  // its end claims the pid
  ASSERT_TRUE(tavo_test::SetStatusFlags(kNormalObject, 0));
  android::base::unique_fd holdRead, holdWrite;
  ASSERT_TRUE(android::base::Pipe(&holdRead, &holdWrite));
  const pid_t child = ChildWithPid(pid, holdRead.get(), holdWrite.get());
  if (child < 0) GTEST_SKIP() << "cannot start a child as pid " << pid << ": " << strerror(errno);
  ASSERT_TRUE(tavo_test::SetStatusFlags(kNormalObject, TAVO_STATUS_CORE_ENABLED));
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t released = now.tv_sec * 1000000000ull + now.tv_nsec;  // after the first owner's end
  holdWrite.reset();
  waitpid(child, nullptr, 0);
  ring.Drain();
  int ends = 0;
  for (const auto& r : ring.Of<tavo_task_exit_event>(TAVO_EVENT_SCHED_TASK_EXIT)) {
    if (r.pid == child && r.hdr.ts > released) ends += r.kind == TAVO_TASK_KIND_PROCESS ? 1 : 100;
  }
  EXPECT_EQ(ends, 1) << "one kind-1 end, no thread end, for pid " << child;
}

// The GPL exit program must report a process's dropped dma-buf total once,
// even when the last two threads end together.
TEST_F(KernExitTest, GroupEndingInTwoThreadsAtOnceDropsItsDmabufTotalOnce) {
  Load(kGplObject, "sched_sched_process_exit");
  ASSERT_TRUE(tavo_test::SetStatusFlags(kGplObject, TAVO_STATUS_NORMAL_ENABLED));
  android::base::unique_fd sizes = tavo_test::OpenPin(std::string("map_") + kGplObject + "_dmabuf_size_map");
  ASSERT_GE(sizes.get(), 0);
  RingCollector ring(kGplObject);
  std::map<pid_t, int> drops;
  for (int round = 0; round < 60; ++round) {
    const pid_t child = Tavo::VmCheck::SpinningPair();
    ASSERT_GT(child, 0) << "no child with two running threads";
    const tavo_dmabuf_size_value total{4096, 0};
    EXPECT_EQ(bpf_map_update_elem(sizes.get(), &child, &total, BPF_ANY), 0);
    drops[child] = 0;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ring.Drain(0);
  }
  ring.Drain();
  for (const auto& r : ring.Of<tavo_dmabuf_size_event>(TAVO_EVENT_DMABUF_SIZE_INFO)) {
    if (drops.count(r.pid) != 0 && r.total == 0) ++drops[r.pid];
  }
  for (const auto& [pid, count] : drops) EXPECT_EQ(count, 1) << "type-4 drops for pid " << pid;
}

// Names copied into ring records are padded with zeros: a short name must
// not carry the bytes of a longer one that used the same ring memory before.
TEST_F(KernExitTest, ExitRecordNamesAreZeroPaddedInAReusedRing) {
  Tavo::Loader::LoaderOptions options;
  options.normalRingBytes = 4096;  // wraps every few dozen processes
  Load(kNormalObject, "sched_sched_process_exit", options);
  ASSERT_TRUE(tavo_test::SetStatusFlags(kNormalObject, TAVO_STATUS_CORE_ENABLED));
  RingCollector ring(kNormalObject);
  for (int i = 0; i < 240; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_NAME, i % 3 == 0 ? "t" : "tavo_long_name_");
      _exit(0);
    }
    ASSERT_GT(child, 0);
    waitpid(child, nullptr, 0);
    if (i % 8 == 7) ring.Drain(0);
  }
  ring.Drain();
  int shortNames = 0;
  for (const auto& r : ring.Of<tavo_task_exit_event>(TAVO_EVENT_SCHED_TASK_EXIT)) {
    if (r.kind != TAVO_TASK_KIND_PROCESS || strcmp(r.comm, "t") != 0) continue;
    ++shortNames;
    const std::string tail(r.comm + 2, sizeof(r.comm) - 2);
    EXPECT_EQ(tail, std::string(tail.size(), '\0')) << "exit record of pid " << r.pid;
  }
  EXPECT_GE(shortNames, 60);
}

}  // namespace
