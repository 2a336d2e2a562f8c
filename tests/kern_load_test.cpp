// Loading and pinning on this machine's kernel: every program of both
// attach tables and every map is pinned under the platform's name,
// tracepoints attach, kprobes only where the kernel has them, stale pins
// are replaced and unload leaves nothing.
#include <gtest/gtest.h>

#include <bpf/bpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "service/tavo_bpf_service.h"
#include "tests/kern_test_rings.h"
#include "tests/support/test_env.h"

extern "C" int bpf_attach_kprobe(int progfd, int attach_type, const char* ev_name, const char* fn_name,
                                 uint64_t fn_offset, int maxactive);

using Tavo::Bpf::BpfAttachTable;
using Tavo::Bpf::TavoBpfService;
using tavo_test::OpenPin;

namespace {

const char* const kTypeWords[] = {"tracepoint", "kprobe", "kretprobe"};

// "prog_<object>_<type>_<progName>" for every row of a table.
std::vector<std::string> ExpectedProgramPins(const BpfAttachTable& table) {
  std::vector<std::string> pins;
  for (const auto& [object, byType] : table)
    for (const auto& [type, rows] : byType)
      for (const auto& row : rows) pins.push_back("prog_" + object + "_" + kTypeWords[type] + "_" + row[0]);
  return pins;
}

bool Exists(const std::string& name) {
  struct stat st {};
  return stat(tavo_test::PinPath(name).c_str(), &st) == 0;
}

// Facts of a pinned map; all zero when it cannot be read.
bpf_map_info MapInfo(const std::string& name) {
  android::base::unique_fd fd = OpenPin(name);
  bpf_map_info info{};
  uint32_t len = sizeof(info);
  if (fd < 0 || bpf_obj_get_info_by_fd(fd.get(), &info, &len) != 0) return bpf_map_info{};
  return info;
}

class KernLoadTest : public testing::Test {
 protected:
  void SetUp() override { TAVO_REQUIRE_BPFFS(); }
  void Load(Tavo::Loader::LoaderOptions options = {}) {
    ASSERT_TRUE(tavo_test::LoadForTest(options, &report_));
  }
  Tavo::Loader::LoadReport report_;
};

TEST_F(KernLoadTest, EveryTableRowAndServiceMapIsPinned) {
  Load();
  EXPECT_TRUE(report_.skipped.empty()) << report_.skipped.front();
  for (const BpfAttachTable* table : {&TavoBpfService::PROG_EVENT_MAP, &TavoBpfService::PROG_GPL_EVENT_MAP}) {
    for (const std::string& pin : ExpectedProgramPins(*table)) EXPECT_TRUE(Exists(pin)) << pin;
  }
  struct MapShape {
    const char* name;
    uint32_t key, value;
  };
  const MapShape maps[] = {
      {"map_TavoBpfDefineset_ringbuf_status", 4, 8},
      {"map_TavoBpfDefineset_open_fd_caller_map", 4, sizeof(tavo_open_fd_value)},
      {"map_TavoBpfGplDefineset_ringbuf_status", 4, 8},
      {"map_TavoBpfGplDefineset_dmabuf_allocate_map", 8, sizeof(tavo_dmabuf_alloc_value)},
      {"map_TavoBpfGplDefineset_dmabuf_size_map", 4, sizeof(tavo_dmabuf_size_value)},
  };
  for (const MapShape& m : maps) {
    const bpf_map_info info = MapInfo(m.name);
    ASSERT_NE(info.id, 0u) << m.name;
    EXPECT_EQ(info.key_size, m.key) << m.name;
    EXPECT_EQ(info.value_size, m.value) << m.name;
  }
  EXPECT_EQ(MapInfo("map_TavoBpfDefineset_ringbuf_status").max_entries, (uint32_t)TAVO_STATUS_KEYS);
  EXPECT_TRUE(Exists("map_TavoBpfDefineset_ringbuf_map"));
  EXPECT_TRUE(Exists("map_TavoBpfGplDefineset_ringbuf_map"));
}

TEST_F(KernLoadTest, TracepointsAttachAndKprobesOnlyWhereTheKernelHasThem) {
  Load();
  const bool haveKprobes = access("/sys/kernel/tracing/kprobe_events", F_OK) == 0;
  for (const BpfAttachTable* table : {&TavoBpfService::PROG_EVENT_MAP, &TavoBpfService::PROG_GPL_EVENT_MAP}) {
    for (const auto& [object, byType] : *table) {
      for (const auto& [type, rows] : byType) {
        for (const auto& row : rows) {
          if (type == 0) {
            android::base::unique_fd link = tavo_test::AttachPinnedTracepoint(object, row[0], row[1].c_str(),
                                                                               row[2].c_str());
            EXPECT_GE(link.get(), 0) << row[0];
            continue;
          }
          android::base::unique_fd prog = OpenPin("prog_" + object + "_" + kTypeWords[type] + "_" + row[0]);
          ASSERT_GE(prog.get(), 0) << row[0];
          if (haveKprobes) continue;  // attaching depends on the function existing in this build
          const std::string event = row[0] + "_tavobpf";
          int fd = bpf_attach_kprobe(prog.get(), type == 1 ? 0 : 1, event.c_str(), row[1].c_str(), 0, 0);
          EXPECT_LT(fd, 0) << row[0] << " attached on a kernel without kprobes";
          if (fd >= 0) close(fd);
        }
      }
    }
  }
}

TEST_F(KernLoadTest, SecondLoadReplacesStalePinsAndTinyRingIsHonoured) {
  Load();
  const uint32_t firstRing = MapInfo("map_TavoBpfDefineset_ringbuf_map").id;
  Tavo::Loader::LoaderOptions options;
  options.normalRingBytes = 4096;
  Tavo::Loader::LoadReport second;
  ASSERT_TRUE(tavo_test::LoadForTest(options, &second));
  EXPECT_NE(MapInfo("map_TavoBpfDefineset_ringbuf_map").id, firstRing);
  EXPECT_EQ(MapInfo("map_TavoBpfDefineset_ringbuf_map").max_entries, 4096u);
  EXPECT_EQ(tavo_test::StatusValue("TavoBpfDefineset", TAVO_STATUS_RING_SIZE), 4096u);
  EXPECT_EQ(second.pins.size(), report_.pins.size());
}

TEST_F(KernLoadTest, UnloadRemovesEveryPinAndTheDirectory) {
  Load();
  ASSERT_FALSE(report_.pins.empty());
  EXPECT_EQ(Tavo::Loader::UnloadAll(), (int)report_.pins.size());
  EXPECT_FALSE(Exists(""));
  // Removing exactly the reported pins works the same way.
  Load();
  EXPECT_EQ(Tavo::Loader::RemovePins(report_.pins), 0);
  EXPECT_FALSE(Exists(""));
}

}  // namespace
