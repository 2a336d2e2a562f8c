// Seeding of the pinned open-fd and dma-buf maps: real pinned maps read back
// byte for byte; the real /proc for descriptor counts, a fixture /proc for
// dma-bufs (no exporter here is reachable from user space).
#include <bpf/bpf.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "service/tavo_bpf_exit_queue.h"
#include "service/tavo_bpf_service.h"
#include "tests/support/children.h"
#include "tests/support/log_capture.h"
#include "tests/support/service_peer.h"
#include "tests/support/test_env.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;
using android::base::unique_fd;

namespace {

const std::string kOpenFdMap = "/sys/fs/bpf/tavo/map_TavoBpfDefineset_open_fd_caller_map";
const std::string kAllocateMap = "/sys/fs/bpf/tavo/map_TavoBpfGplDefineset_dmabuf_allocate_map";
const std::string kSizeMap = "/sys/fs/bpf/tavo/map_TavoBpfGplDefineset_dmabuf_size_map";

// A pinned hash map of the given key and value sizes; the pin keeps it.
bool PinHashMap(const std::string& path, uint32_t keySize, uint32_t valueSize) {
  mkdir("/sys/fs/bpf/tavo", 0700);
  LIBBPF_OPTS(bpf_map_create_opts, opts, .map_flags = BPF_F_NO_PREALLOC);
  unique_fd fd(bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, keySize, valueSize, 65536, &opts));
  return fd >= 0 && bpf_obj_pin(fd.get(), path.c_str()) == 0;
}

// The value under key, or empty when absent.
template <typename Key>
std::vector<char> Lookup(const std::string& path, Key key, size_t valueSize) {
  unique_fd fd(bpf_obj_get(path.c_str()));
  std::vector<char> value(valueSize);
  if (fd < 0 || bpf_map_lookup_elem(fd.get(), &key, value.data()) != 0) return {};
  return value;
}

std::vector<char> Bytes(const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  return std::vector<char>(p, p + size);
}

// A fake /proc in the test's tmpfs, bind-mounted over the real one while the
// object lives (the test runs in its own mount namespace).
class ProcFixture {
 public:
  static constexpr const char* kRoot = "/data/fixture/proc";

  ProcFixture() {
    mkdir("/data/fixture", 0755);
    mkdir(kRoot, 0755);
    symlink("4100", (std::string(kRoot) + "/self").c_str());
  }
  ~ProcFixture() {
    if (mounted) umount2("/proc", MNT_DETACH);
  }

  void AddProcess(int pid, const std::string& name, bool withFdDir = true) {
    const std::string dir = Dir(pid);
    mkdir(dir.c_str(), 0555);
    android::base::WriteStringToFile("Name:\t" + name + "\nUmask:\t0022\nState:\tS (sleeping)\nPPid:\t1\n",
                                     dir + "/status");
    if (withFdDir) {
      mkdir((dir + "/fd").c_str(), 0500);
      mkdir((dir + "/fdinfo").c_str(), 0500);
    }
  }
  void AddFd(int pid, int fd, const std::string& target, const std::string& fdinfo) {
    const std::string n = std::to_string(fd);
    symlink(target.c_str(), (Dir(pid) + "/fd/" + n).c_str());
    android::base::WriteStringToFile(fdinfo, Dir(pid) + "/fdinfo/" + n);
  }
  static std::string DmabufInfo(uint64_t size, uint64_t ino) {
    return "pos:\t0\nflags:\t02000002\nmnt_id:\t15\nino:\t" + std::to_string(ino) +
           "\nsize:\t" + std::to_string(size) + "\ncount:\t2\nexp_name:\tsystem\n";
  }
  // Entry names in the order the file system lists them.
  static std::vector<std::string> Order() {
    std::vector<std::string> names;
    DIR* dir = opendir(kRoot);
    while (dir != nullptr) {
      const dirent* entry = readdir(dir);
      if (entry == nullptr) break;
      names.push_back(entry->d_name);
    }
    if (dir != nullptr) closedir(dir);
    return names;
  }
  bool Mount() {
    mounted = mount(kRoot, "/proc", nullptr, MS_BIND, nullptr) == 0;
    return mounted;
  }

 private:
  static std::string Dir(int pid) { return std::string(kRoot) + "/" + std::to_string(pid); }
  bool mounted = false;
};

#define REQUIRE_FIXTURE_ENV()   \
  do {                          \
    TAVO_REQUIRE_ISOLATION();   \
    TAVO_REQUIRE_BPFFS();       \
    TAVO_REQUIRE_DATA();        \
  } while (0)

TEST(DmabufSeed, TwoDescriptorsOfOneBufferCountTwiceButUseOnce) {
  REQUIRE_FIXTURE_ENV();
  ASSERT_TRUE(PinHashMap(kAllocateMap, 8, 16));
  ASSERT_TRUE(PinHashMap(kSizeMap, 4, 16));
  ProcFixture proc;
  proc.AddProcess(4100, "composer");
  proc.AddFd(4100, 3, "/dmabuf:", ProcFixture::DmabufInfo(4096, 77));
  proc.AddFd(4100, 4, "/dmabuf:", ProcFixture::DmabufInfo(4096, 77));
  proc.AddFd(4100, 5, "/dev/null", "pos:\t0\nflags:\t02\nmnt_id:\t20\nino:\t5\n");
  proc.AddFd(4100, 6, "/dmabuf/buf1", ProcFixture::DmabufInfo(100, 78));
  proc.AddProcess(4101, "shell");
  proc.AddFd(4101, 0, "/dev/null", "pos:\t0\nflags:\t02\nmnt_id:\t20\nino:\t5\n");
  proc.AddProcess(4102, "noinode");
  proc.AddFd(4102, 9, "/dmabuf:", "pos:\t0\nsize:\t8192\n");
  if (TavoBpfService::GetFdInode(std::string(ProcFixture::kRoot) + "/4100/fdinfo/3") == 0) {
    GTEST_SKIP() << "the fdinfo reader is not in this build yet";
  }
  ASSERT_TRUE(proc.Mount());

  TavoBpfService* service = TavoBpfService::GetInstance();
  ASSERT_EQ(service->initDmabufBpfProg(), 0);

  tavo_dmabuf_size_value total{8192 + 100, 0};
  EXPECT_EQ(Lookup(kSizeMap, int32_t{4100}, 16), Bytes(&total, sizeof(total)));
  EXPECT_TRUE(Lookup(kSizeMap, int32_t{4101}, 16).empty()) << "no dma-buf, no size entry";
  EXPECT_TRUE(Lookup(kSizeMap, int32_t{4102}, 16).empty()) << "inode 0 is skipped";
  tavo_dmabuf_alloc_value allocation{4100, 0, 4096};
  EXPECT_EQ(Lookup(kAllocateMap, uint64_t{77}, 16), Bytes(&allocation, sizeof(allocation)));
  allocation.size = 100;
  EXPECT_EQ(Lookup(kAllocateMap, uint64_t{78}, 16), Bytes(&allocation, sizeof(allocation)));
  EXPECT_TRUE(Lookup(kAllocateMap, uint64_t{5}, 16).empty());

  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufTotals(service), (std::map<int32_t, int64_t>{{4100, 8292}}));
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufRefs(service),
            (std::map<int32_t, std::map<uint64_t, uint32_t>>{{4100, {{77, 1}, {78, 1}}}}));
  EXPECT_EQ(TavoBpfServiceTestPeer::DmabufSizes(service), (std::map<uint64_t, uint64_t>{{77, 4096}, {78, 100}}));

  // An exit from before the scan leaves the seeded entries; a later one takes them.
  NoteProcessExit(4100, 1);
  EXPECT_EQ(service->reapExitedDmabufProcesses(), 0);
  EXPECT_EQ(TavoBpfServiceTestPeer::ProcessDmabufTotals(service).count(4100), 1u);
  NoteProcessExit(4100, static_cast<uint64_t>(GetSystemBootNanosencondsTime()));
  EXPECT_EQ(service->reapExitedDmabufProcesses(), 1);
  EXPECT_TRUE(TavoBpfServiceTestPeer::ProcessDmabufTotals(service).empty());
  EXPECT_TRUE(TavoBpfServiceTestPeer::ProcessDmabufRefs(service).empty());
}

TEST(DmabufSeed, MissingMapFailsWithTheErrorLine) {
  REQUIRE_FIXTURE_ENV();
  tavo_test::LogCapture log;
  TavoBpfService* service = TavoBpfService::GetInstance();
  EXPECT_EQ(service->initDmabufBpfProg(), -1);
  EXPECT_EQ(log.Count("[TavoBpfService][INIT] get dmabufAllocateMap(-1) or dmabufSizeMap(-1) failed! "
                      "No such file or directory",
                      ANDROID_LOG_ERROR),
            1);
  ASSERT_TRUE(PinHashMap(kAllocateMap, 8, 16));
  EXPECT_EQ(service->initDmabufBpfProg(), -1);
  EXPECT_EQ(log.Count("or dmabufSizeMap(-1) failed! No such file or directory", ANDROID_LOG_ERROR), 2);
  EXPECT_EQ(log.Count("get dmabufAllocateMap(-1) or"), 1);

  EXPECT_EQ(service->initFdBpfProg(), -1);
  EXPECT_EQ(log.Count("[TavoBpfService][INIT] update open_fd_caller_map !", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("[TavoBpfService][INIT] get map_TavoBpfDefineset_open_fd_caller_map(-1) failed! "
                      "No such file or directory",
                      ANDROID_LOG_ERROR),
            1);
}

// A child that holds exactly `extra` descriptors plus the one it waits on.
tavo_test::ParkedChild FdChild(int extra) {
  return tavo_test::ParkedChild([extra](int& hold, int& ready) {
    prctl(PR_SET_NAME, "tavofdchild");
    dup2(hold, 100);
    dup2(ready, 101);
    close_range(0, 99, 0);
    close_range(102, ~0U, 0);
    hold = 100, ready = 101;
    for (int i = 0; i < extra; ++i) open("/dev/null", O_RDONLY);
    return 0;
  });
}

TEST(OpenFdSeed, RealProcessesGetTheirDescriptorCountAndName) {
  TAVO_REQUIRE_ISOLATION();
  TAVO_REQUIRE_BPFFS();
  ASSERT_TRUE(PinHashMap(kOpenFdMap, 4, 48));
  tavo_test::ParkedChild one = FdChild(1), nine = FdChild(9);
  tavo_test::LogCapture log;
  ASSERT_EQ(TavoBpfService::GetInstance()->initFdBpfProg(), 0);
  EXPECT_EQ(log.Count("[TavoBpfService][INIT] update open_fd_caller_map !", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("update open_fd_caller_map failed!"), 0);
  for (const auto& [pid, count] : {std::pair<pid_t, uint64_t>{one.pid, 2}, {nine.pid, 10}}) {
    const auto value = Lookup(kOpenFdMap, int32_t{pid}, 48);
    ASSERT_EQ(value.size(), 48u) << "pid " << pid;
    tavo_open_fd_value expected{};
    expected.pid = pid;
    expected.fd_count = count;
    expected.fd_count_again = count;
    // pid, padding, both counts and the reserved word; the name is checked
    // up to its end, since the record is reused (a longer earlier name's
    // tail may follow).
    EXPECT_EQ(memcmp(value.data(), &expected, 32), 0) << "pid " << pid;
    EXPECT_EQ(std::string(value.data() + 32, 11), "tavofdchild");
    EXPECT_EQ(value[47], 0);
  }
  // The test process itself is there too.
  EXPECT_EQ(Lookup(kOpenFdMap, int32_t{getpid()}, 48).size(), 48u);
}

TEST(OpenFdSeed, UnreadableFdDirectoryGivesNoUpdateAndNamesAreNotCleared) {
  REQUIRE_FIXTURE_ENV();
  ASSERT_TRUE(PinHashMap(kOpenFdMap, 4, 48));
  ProcFixture proc;
  proc.AddProcess(4200, "init");
  for (int fd = 0; fd < 3; ++fd) proc.AddFd(4200, fd, "/dev/null", "");
  proc.AddProcess(4201, "surfaceflinger", false);
  const auto order = ProcFixture::Order();
  ASSERT_TRUE(proc.Mount());
  ASSERT_EQ(TavoBpfService::GetInstance()->initFdBpfProg(), 0);
  EXPECT_TRUE(Lookup(kOpenFdMap, int32_t{4201}, 48).empty());
  tavo_open_fd_value expected{};
  expected.pid = 4200;
  expected.fd_count = 3;
  expected.fd_count_again = 3;
  // Scanned after the longer name, "init" keeps that name's tail.
  const bool longerFirst = std::find(order.begin(), order.end(), "4201") < std::find(order.begin(), order.end(), "4200");
  memcpy(expected.comm, longerFirst ? "initaceflinger" : "init", longerFirst ? 14 : 4);
  EXPECT_EQ(Lookup(kOpenFdMap, int32_t{4200}, 48), Bytes(&expected, sizeof(expected)));
}

}  // namespace
