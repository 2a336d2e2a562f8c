// The /proc reader against a fixture folder, and once against the real /proc.
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <unistd.h>

#include <climits>
#include <set>
#include <string>

#include "task/tavo_proc_reader.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_env.h"

using namespace Tavo::Bpf;

namespace {

// A stat line of 52 fields: 19 is the thread count, 21 the start time.
std::string Stat(int pid, const char* comm, int threads, long startTicks) {
  std::string line = std::to_string(pid) + " (" + comm + ") S";
  for (int i = 3; i < 52; ++i) {
    line += " " + std::to_string(i == 19 ? threads : i == 21 ? startTicks : 0);
  }
  return line + "\n";
}

class ProcFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    dir.Write("100/status", "Name:\tzygote\nUmask:\t0022\nState:\tS\nPPid:\t1\nUid:\t1000\t1000\t1000\t1000\n"
                            "VmSwap:\t       0 kB\nRssAnon:\t    4096 kB\nRssFile:\t    2048 kB\nRssShmem:\t 16 kB\n");
    dir.Write("100/stat", Stat(100, "zy) (g ote", 12, 500));  // a name with blanks and brackets
    dir.Write("200/status", "Name:\tshort\nPPid:\t100\n");
    dir.Write("200/stat", "200 (short) S 1 2 3\n");  // 21 pieces or fewer: no threads, no start
    dir.Write("self/status", "Name:\tnot a pid\n");
    dir.Write("123abc/status", "Name:\tnot a pid\n");
    dir.Write("100/fdinfo/3", "pos:\t0\nsize:\t262144\nino:\t777\n");
    dir.Write("100/fd/.keep", "");  // the descriptor folder; dot entries are not descriptors
    symlink("/dmabuf:", (dir.path() + "/100/fd/3").c_str());
    symlink("/dev/null", (dir.path() + "/100/fd/4").c_str());
  }

  tavo_test::TempDir dir;
  TavoProcReader reader{dir.path()};
};

}  // namespace

TEST_F(ProcFixture, ScanReadsStatusAndStatOfPidFoldersOnly) {
  std::set<std::string> seen;
  reader.ForEachProcess([&](int32_t pid, const char* name) {
    seen.insert(name);
    EXPECT_EQ(std::to_string(pid), name);
  });
  EXPECT_EQ(seen, (std::set<std::string>{"100", "200"}));

  tavo_task_init_event r{};
  ASSERT_TRUE(reader.ReadTaskInit("100", 1700000000, 100, &r));
  EXPECT_STREQ(r.comm, "zygote");
  EXPECT_EQ(r.ppid, 1);
  EXPECT_EQ(r.uid, 1000u);
  EXPECT_EQ(r.rss_anon, 4096 << 10);
  EXPECT_EQ(r.rss_file, 2097152);
  EXPECT_EQ(r.rss_shmem, 16 << 10);
  EXPECT_EQ(r.rss_swap, 0);
  EXPECT_EQ(r.thread_num, 12u);
  EXPECT_EQ(r.start_time, 1700000005);

  tavo_task_init_event shortStat{};
  ASSERT_TRUE(reader.ReadTaskInit("200", 1700000000, 100, &shortStat));
  EXPECT_EQ(shortStat.thread_num, 0u);
  EXPECT_EQ(shortStat.start_time, 0);
  EXPECT_FALSE(reader.ReadTaskInit("300", 0, 100, &shortStat)) << "a vanished process is skipped";
}

TEST_F(ProcFixture, ProcessInfoNamesAndDescriptors) {
  UpdateProcessExdata info;
  ASSERT_EQ(reader.getProcessInfo(200, &info), 0);
  EXPECT_EQ(info.pid, 200);
  EXPECT_EQ(info.ppid, 100);
  EXPECT_STREQ(info.comm, "short");
  {
    tavo_test::LogCapture log;
    UpdateProcessExdata kept{7, 8, "keep"};
    EXPECT_EQ(reader.getProcessInfo(300, &kept), -1);
    EXPECT_EQ(kept.pid, 7);
    EXPECT_STREQ(kept.comm, "keep");
    EXPECT_EQ(log.Count("[TavoBpfService][GPI] Task not exists, errno info: No such file or directory",
                        ANDROID_LOG_WARN), 1);
  }
  std::set<std::string> fds;
  EXPECT_TRUE(reader.ForEachFd("100", [&](const char* fd) { fds.insert(fd); }));
  EXPECT_EQ(fds, (std::set<std::string>{"3", "4"}));
  EXPECT_FALSE(reader.ForEachFd("200", [](const char*) {}));
  std::string target;
  ASSERT_TRUE(reader.ReadFdTarget("100", "3", &target));
  EXPECT_EQ(target, "/dmabuf:");
  EXPECT_EQ(reader.FdInfoPath("100", "3"), dir.path() + "/100/fdinfo/3");
  EXPECT_EQ(TavoProcReader::GetFdInode(reader.FdInfoPath("100", "3")), 777u);

  // The service's socket: its listener and one accepted connection.
  dir.Write("net/unix", "Num RefCount Protocol Flags Type St Inode Path\n"
                        "0000: 00000002 00000000 00010000 0001 01 4711 @/svc\n"
                        "0000: 00000003 00000000 00000000 0001 03 4712 @/svc\n"
                        "0000: 00000002 00000000 00000000 0001 03 4713\n"
                        "0000: 00000002 00000000 00010000 0001 01 4714 @/other\n");
  std::set<unsigned long> inodes;
  size_t connected = 0;
  ASSERT_TRUE(reader.UnixSockets("/svc", &inodes, &connected));
  EXPECT_EQ(inodes, (std::set<unsigned long>{4711, 4712}));
  EXPECT_EQ(connected, 1u);
  dir.Write("filesystems", "nodev\tbpf\n\text4\nnodev\ttracefs\n");
  EXPECT_EQ(reader.Filesystems(), (std::set<std::string>{"bpf", "ext4", "tracefs"}));
}

TEST(ProcParsers, OddLinesNeverThrowOrOverrun) {
  const struct {
    const char* text;
    long size;
    uint64_t inode;
  } fdinfo[] = {
      {"pos:\t0\nexp_name:\tsystem\n", 0, 0},                              // neither line
      {"size:\t  77 bytes\nino:\t18446744073709551615", 77, UINT64_MAX},  // blanks, a tail, no newline
      {"size:\tnope\nino:\t-\n", 0, 0},                                   // no digits
      {"size:\t99999999999999999999999\n", LONG_MAX, 0},                  // saturates
      {"size:\t1\nsize:\t2\n", 1, 0},                                     // the first line wins
      {"xsize:\t5\n ino:\t42\n", 5, 42},  // matched anywhere, value counted from the line's start
  };
  tavo_test::TempDir dir;
  for (const auto& c : fdinfo) {
    dir.Write("fdinfo", c.text);
    EXPECT_EQ(TavoProcReader::GetFdSize(dir.path() + "/fdinfo"), c.size) << c.text;
    EXPECT_EQ(TavoProcReader::GetFdInode(dir.path() + "/fdinfo"), c.inode) << c.text;
  }
  tavo_test::LogCapture log;
  EXPECT_EQ(TavoProcReader::GetFdSize("/nonexistent/fdinfo/3"), 0);
  EXPECT_EQ(log.Count("Unable to open /nonexistent/fdinfo/3", ANDROID_LOG_WARN), 1);

  TavoProcFacts r;
  const std::string status = "Name:\tabcdefghijklmnopqrstuvwxyz\nRssAnon:\t9223372036854775807 kB\nPPid:\t-5\n";
  TavoProcReader::ParseStatus(status.data(), status.data() + status.size(), &r);
  EXPECT_STREQ(r.comm, "abcdefghijklmno") << "at most 15 characters and a NUL";
  EXPECT_EQ(r.rssAnon, INT64_MAX);
  EXPECT_EQ(r.ppid, -5);
}

TEST(ProcReader, ReadsThisProcessFromTheRealProc) {
  prctl(PR_SET_NAME, "tavo_reader");
  TavoProcReader reader;
  UpdateProcessExdata info;
  ASSERT_EQ(reader.getProcessInfo(getpid(), &info), 0);
  EXPECT_STREQ(info.comm, "tavo_reader");
  EXPECT_EQ(info.ppid, getppid());
}
