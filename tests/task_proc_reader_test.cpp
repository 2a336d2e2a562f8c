// The /proc reader against processes whose facts the test sets up itself.
#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <pthread.h>

#include "state/tavo_bpf_state.h"
#include "task/tavo_bpf_task_manager.h"
#include "tests/support/children.h"
#include "tests/support/log_capture.h"
#include "tests/support/task_records.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;

namespace {

constexpr int kExtraThreads = 4;
constexpr size_t kTouched = 8 << 20;

// A child named "tavo_probe" with 1 + kExtraThreads threads and kTouched
// bytes of anonymous memory written. Instrumented builds may start helper
// threads of their own, so it reports the count the kernel lists for it.
tavo_test::ParkedChild ProbeChild() {
  return tavo_test::ParkedChild([](int& hold, int&) {
    prctl(PR_SET_NAME, "tavo_probe");
    void* block = mmap(nullptr, kTouched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    memset(block, 0x5a, kTouched);
    for (int i = 0; i < kExtraThreads; ++i) {
      pthread_t thread;
      if (pthread_create(&thread, nullptr, tavo_test::ParkOn, &hold) == 0) pthread_detach(thread);
    }
    int threads = -2;  // "." and ".."
    if (DIR* dir = opendir("/proc/self/task")) {
      while (readdir(dir) != nullptr) ++threads;
      closedir(dir);
    }
    return threads;
  });
}

int64_t BootSecondsNow() {
  timespec ts{};
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return ts.tv_sec;
}

uint32_t CounterTotal(int type) {
  auto* state = TavoBpfDataState::GetInstance();
  uint32_t total = 0;
  for (int64_t slot = state->getOldestIndex(); slot <= state->getCurrentIndex(); ++slot) {
    total += state->getCounter(slot, type);
  }
  return total;
}

}  // namespace

TEST(TaskProcReader, StartupScanRegistersAProcessWithItsKnownFacts) {
  ASSERT_TRUE(InitBasetime());
  tavo_test::ParkedChild child = ProbeChild();
  tavo_test::NoticeSink sink({0});
  TavoBpfService::GetInstance()->initTaskInfo();

  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  auto* manager = TavoTaskManager::GetInstance();
  TavoTask* t = manager->GetTavoTask(child.pid);
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->comm, "tavo_probe");
  EXPECT_EQ(t->ppid, getpid());
  EXPECT_EQ(t->uid, getuid());
  EXPECT_EQ(t->threadNum, static_cast<uint32_t>(child.report));
#if defined(__SANITIZE_THREAD__)
  EXPECT_GE(child.report, 1 + kExtraThreads);
#else
  EXPECT_EQ(child.report, 1 + kExtraThreads);
#endif
  EXPECT_EQ(t->oldThreadNum, t->threadNum);
  // The child also maps what it shares copy-on-write with the test.
  EXPECT_GE(t->rssAnonSize(), static_cast<int64_t>(kTouched));
  EXPECT_LT(t->rssAnonSize(), static_cast<int64_t>(kTouched) + (256 << 20));
  EXPECT_EQ(t->rssAnonSize() % 1024, 0);
  // Binaries on tmpfs (a VM's initramfs) are mapped as shared memory.
  EXPECT_GT(t->rssFileSize() + t->rssShmemSize(), 0);
  EXPECT_EQ(t->rssSwapSize(), 0);
  EXPECT_LE(std::llabs(t->initTimeStamp - (GetBasetime() + BootSecondsNow())), 2);
  EXPECT_EQ(t->mmId, 0u);

  ASSERT_NE(manager->GetTavoTask(1), nullptr);
  ASSERT_NE(manager->GetTavoTask(getpid()), nullptr);
  // One count per record as it is dispatched, then the total once more.
  const uint32_t count = manager->GetTavoTaskCount();
  EXPECT_EQ(CounterTotal(0), 2 * count);
  // Subscribers of type 0 see every 88-byte record.
  const auto records = sink.Take();
  EXPECT_EQ(records.size(), count);
  for (const auto& r : records) ASSERT_EQ(r.size(), 88u);
}

TEST(TaskProcReader, VanishedPidFailsAndLeavesResultAlone) {
  const pid_t child = tavo_test::ReapedPid();
  tavo_test::LogCapture log;
  UpdateProcessExdata info;
  info.pid = 7;
  info.ppid = 8;
  strcpy(info.comm, "keep");
  EXPECT_EQ(TavoBpfService::GetInstance()->getProcessInfo(child, &info), -1);
  EXPECT_EQ(info.pid, 7);
  EXPECT_EQ(info.ppid, 8);
  EXPECT_STREQ(info.comm, "keep");
  EXPECT_EQ(log.Count("[TavoBpfService][GPI] Task not exists, errno info: No such file or directory",
                      ANDROID_LOG_WARN),
            1);
}

struct FdInfoCase {
  const char* text;
  long size;
  uint64_t inode;
};

TEST(TaskProcReader, FdInfoValuesTolerateOddLines) {
  const FdInfoCase cases[] = {
      {"pos:\t0\nflags:\t02\nsize:\t4096\nino:\t1234\n", 4096, 1234},
      {"pos:\t0\nexp_name:\tsystem\n", 0, 0},                    // neither line
      {"size:\t  77 bytes\nino:\t18446744073709551615", 77, UINT64_MAX},  // blanks, tail, no newline
      {"size:\tnope\nino:\t-\n", 0, 0},                           // no digits: 0, nothing thrown
      {"size:\t99999999999999999999999\n", LONG_MAX, 0},          // saturates
      {"size:\t1\nsize:\t2\n", 1, 0},                             // first match wins
      // Matched anywhere in the line, value counted from the line's start.
      {"xsize:\t5\n ino:\t42\n", 5, 42},
      {"flags:\tsize:\t12\n", 0, 0},
  };
  const std::string path = testing::TempDir() + "tavo_fdinfo";
  for (const auto& c : cases) {
    std::ofstream(path, std::ios::trunc) << c.text;
    EXPECT_EQ(TavoBpfService::GetFdSize(path), c.size) << c.text;
    EXPECT_EQ(TavoBpfService::GetFdInode(path), c.inode) << c.text;
  }
  unlink(path.c_str());

  tavo_test::LogCapture log;
  EXPECT_EQ(TavoBpfService::GetFdSize("/nonexistent/fdinfo/3"), 0);
  EXPECT_EQ(TavoBpfService::GetFdInode("/nonexistent/fdinfo/3"), 0u);
  EXPECT_EQ(log.Count("Unable to open /nonexistent/fdinfo/3", ANDROID_LOG_WARN), 2);
}

TEST(TaskProcReader, RealFdInfoGivesTheInodeOfTheFile) {
  const std::string path = testing::TempDir() + "tavo_inode";
  std::ofstream(path) << "x";
  const int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  struct stat st {};
  ASSERT_EQ(fstat(fd, &st), 0);
  const std::string fdinfo = "/proc/self/fdinfo/" + std::to_string(fd);
  EXPECT_EQ(TavoBpfService::GetFdInode(fdinfo), static_cast<uint64_t>(st.st_ino));
  EXPECT_EQ(TavoBpfService::GetFdSize(fdinfo), 0) << "a regular file has no size line";
  close(fd);
  unlink(path.c_str());
}
