// Dma-buf accounting: record sequences in; totals, use counts and 50005
// notices out. Seeding reads a fixture /proc into real pinned maps.
#include <gtest/gtest.h>

#include <bpf/bpf.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "task/tavo_dmabuf_accounting.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
#include "tests/support/test_env.h"

using namespace Tavo::Bpf;

namespace {

constexpr uint32_t kExit = 100;  // a step that reports a process exit, not a record
constexpr uint32_t kPoll = 101;  // the end of one consume of the dma-buf ring
constexpr uint32_t S = TAVO_EVENT_DMABUF_SETUP, R = TAVO_EVENT_DMABUF_RELEASE;
constexpr uint32_t A = TAVO_EVENT_DMABUF_ATTACH, D = TAVO_EVENT_DMABUF_DETACH;
constexpr uint32_t V = TAVO_EVENT_DMABUF_VMAP, VU = TAVO_EVENT_DMABUF_VUNMAP;
constexpr uint32_t M = TAVO_EVENT_DMABUF_MMAP, MU = TAVO_EVENT_DMABUF_MUNMAP;

struct Step {
  uint32_t type;
  int32_t pid = 0;
  uint64_t size = 0, key = 0, buf = 0, ts = 0;
};
using Totals = std::vector<std::pair<int32_t, int64_t>>;

struct Fixture {
  Fixture() {
    TavoTask camera;
    camera.pid = 100;
    camera.uid = 10057;
    tavo_test::SetComm(camera.comm, "camera.provider");
    registry.AddTavoTask(100, camera);
  }

  void Apply(const Step& s) {
    if (s.type == kExit) return dmabuf.NoteProcessExit(s.pid, s.ts);
    if (s.type == kPoll) return dmabuf.ApplyExits();
    auto record = tavo_test::DmabufRecord(s.type, s.pid, s.size, s.key, s.buf, s.ts);
    using Handler = int (TavoDmabufAccounting::*)(char*, long);
    static const Handler handlers[] = {
        &TavoDmabufAccounting::handleDmabuf_Setup,  &TavoDmabufAccounting::handleDmabuf_Release,
        &TavoDmabufAccounting::handleDmabuf_Attach, &TavoDmabufAccounting::handleDmabuf_Detach,
        &TavoDmabufAccounting::handleDmabuf_Vmap,   &TavoDmabufAccounting::handleDmabuf_Vunmap,
        &TavoDmabufAccounting::handleDmabuf_Mmap,   &TavoDmabufAccounting::handleDmabuf_Munmap};
    EXPECT_EQ((dmabuf.*handlers[s.type - S])(tavo_test::Bytes(record), sizeof(record)), 0);
  }

  Totals Noticed() {
    Totals out;
    for (const auto& n : notices.Of<tavo_notice_dmabuf_total>(TAVO_NOTICE_DMABUF_TOTAL)) out.emplace_back(n.pid, n.total);
    return out;
  }

  tavo_test::TempDir proc;
  TavoProcReader reader{proc.path()};
  TavoTaskManager registry;
  tavo_test::NoticeLog notices;
  TavoDmabufAccounting dmabuf{registry, reader, notices.Sink()};
};

}  // namespace

TEST(DmabufAccounting, SequencesChargeEachBufferOncePerProcess) {
  const struct {
    const char* name;
    std::vector<Step> steps;
    Totals notices;  // (pid, total) in order
    Totals totals;   // what the tables say afterwards
  } cases[] = {
      {"attach twice, detach twice",
       {{A, 100, 4096, 0, 1, 1}, {A, 100, 4096, 0, 1, 1}, {D, 100, 4096, 0, 1, 1}, {D, 100, 4096, 0, 1, 1}},
       {{100, 4096}, {100, 0}}, {{100, 0}}},
      {"two processes are both charged", {{A, 100, 4096, 0, 1, 1}, {A, 200, 4096, 0, 1, 1}},
       {{100, 4096}, {200, 4096}}, {{100, 4096}, {200, 4096}}},
      {"release uncharges every holder by the setup size",
       {{S, 0, 4096, 0, 1, 1}, {A, 200, 4096, 0, 1, 1}, {A, 100, 4096, 0, 1, 1}, {A, 100, 4096, 0, 1, 1},
        {A, 100, 10, 0, 2, 1}, {R, 0, 0, 0, 1, 1}, {D, 100, 4096, 0, 1, 1}},
       {{200, 4096}, {100, 4096}, {100, 4106}, {100, 10}, {200, 0}}, {{100, 10}, {200, 0}}},
      {"release of an unknown buffer subtracts 0", {{A, 100, 1000, 0, 9, 1}, {R, 0, 0, 0, 9, 1}},
       {{100, 1000}, {100, 1000}}, {{100, 1000}}},
      {"munmap through known, unknown and repeated keys",
       {{M, 100, 4096, 0xa, 1, 1}, {M, 100, 4096, 0xb, 1, 1}, {MU, 100, 4096, 0xc, 0, 1}, {MU, 300, 4096, 0xa, 0, 1},
        {MU, 100, 4096, 0xa, 0, 1}, {MU, 100, 4096, 0xa, 0, 1}, {MU, 100, 4096, 0xb, 0, 1}},
       {{100, 4096}}, {{100, 4096}}},
      {"mmap then munmap", {{M, 100, 8192, 0xa, 2, 1}, {MU, 100, 8192, 0xa, 0, 1}}, {{100, 8192}, {100, 0}},
       {{100, 0}}},
      {"a mismatched detach size stays", {{A, 100, 4096, 0, 1, 1}, {D, 100, 1024, 0, 1, 1}},
       {{100, 4096}, {100, 3072}}, {{100, 3072}}},
      {"vmap shares the count with attach",
       {{V, 100, 4096, 0, 1, 1}, {A, 100, 4096, 0, 1, 1}, {VU, 100, 4096, 0, 1, 1}, {VU, 100, 4096, 0, 1, 1}},
       {{100, 4096}, {100, 0}}, {{100, 0}}},
      {"an exit purges once the ring has been consumed past it, so a reused pid starts at 0",
       {{M, 100, 4096, 0xa, 1, 1}, {kExit, 100, 0, 0, 0, 20}, {kPoll}, {kPoll}, {D, 100, 4096, 0, 1, 25},
        {A, 100, 100, 0, 3, 30}},
       {{100, 4096}, {100, 100}}, {{100, 100}}},
      {"a drop the process made before it ended still finds its entries",
       {{M, 100, 4096, 0xa, 1, 1}, {kExit, 100, 0, 0, 0, 20}, {kPoll}, {MU, 100, 4096, 0xa, 0, 15}, {kPoll}},
       {{100, 4096}, {100, 0}}, {{100, 0}}},
      {"an exit older than a later use keeps the entries",
       {{A, 100, 4096, 0, 1, 50}, {kExit, 100, 0, 0, 0, 40}, {kPoll}, {kPoll}}, {{100, 4096}}, {{100, 4096}}},
  };
  for (const auto& c : cases) {
    Fixture f;
    for (const Step& s : c.steps) f.Apply(s);
    EXPECT_EQ(f.Noticed(), c.notices) << c.name;
    for (const auto& [pid, total] : c.totals) EXPECT_EQ(f.dmabuf.ProcessTotal(pid), total) << c.name;
  }
}

TEST(DmabufAccounting, NoticesUseCountsAndShortRecords) {
  Fixture f;
  f.Apply({A, 100, 0x123456789, 0, 1, 1});
  f.Apply({A, 100, 0x123456789, 0, 1, 1});
  f.Apply({A, 200, 4096, 0, 1, 1});
  EXPECT_EQ(f.dmabuf.UseCount(100, 1), 2u);
  const auto notices = f.notices.Of<tavo_notice_dmabuf_total>(TAVO_NOTICE_DMABUF_TOTAL);
  ASSERT_EQ(notices.size(), 2u);
  const tavo_notice_dmabuf_total registered{50005, 100, 10057, "camera.provider", 0, 0x123456789};
  const tavo_notice_dmabuf_total unknown{50005, 200, 0, {}, 0, 4096};
  EXPECT_EQ(memcmp(&notices[0], &registered, sizeof(registered)), 0);
  EXPECT_EQ(memcmp(&notices[1], &unknown, sizeof(unknown)), 0);

  tavo_test::LogCapture log;
  auto record = tavo_test::DmabufRecord(D, 100, 1, 0, 1);
  EXPECT_EQ(f.dmabuf.handleDmabuf_Detach(tavo_test::Bytes(record), sizeof(record) - 1), 0);
  EXPECT_EQ(log.Count("[TavoBpfService] short dmabuf record! type: 10, size: 47", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(f.dmabuf.UseCount(100, 1), 2u);
}

TEST(DmabufAccounting, ExitsFromAnotherThreadWhileRecordsApply) {
  Fixture f;
  constexpr int kPids = 500;
  for (int pid = 1; pid <= kPids; ++pid) f.Apply({A, pid, 1, 0, 1, 1});
  std::thread exits([&f] {
    for (int pid = 1; pid <= kPids; ++pid) f.dmabuf.NoteProcessExit(pid, 2);
  });
  for (int i = 0; i < 2000; ++i) f.Apply({A, kPids + 1, 1, 0, 2, 3});
  exits.join();
  f.dmabuf.ApplyExits();
  f.dmabuf.ApplyExits();
  for (int pid = 1; pid <= kPids; ++pid) ASSERT_FALSE(f.dmabuf.Tracks(pid)) << pid;
  EXPECT_EQ(f.dmabuf.UseCount(kPids + 1, 2), 2000u);
}

// A dma-buf ring that is never drained must not hold exits without bound,
// nor retire them newest first.
TEST(DmabufAccounting, AFullListOfExitsRetiresTheOldestAtOnce) {
  Fixture f;
  for (int pid : {1, 2}) f.Apply({A, pid, 1, 0, 1, 1});
  for (int32_t pid = 1; pid <= static_cast<int32_t>(TavoDmabufAccounting::kMaxPendingExits); ++pid) {
    f.dmabuf.NoteProcessExit(pid, 2);
  }
  EXPECT_TRUE(f.dmabuf.Tracks(1));
  f.dmabuf.NoteProcessExit(5000, 2);
  EXPECT_FALSE(f.dmabuf.Tracks(1));
  EXPECT_TRUE(f.dmabuf.Tracks(2));
}

TEST(DmabufAccounting, SeedingCountsEveryDescriptorButChargesOneUse) {
  if (!tavo_test::Env().bpffs) GTEST_SKIP() << tavo_test::Env().whyNot;
  Fixture f;
  f.proc.Write("100/fd/.keep", "");
  f.proc.Write("200/fd/.keep", "");
  for (const char* fd : {"3", "4"}) {
    symlink("/dmabuf:", (f.proc.path() + "/100/fd/" + fd).c_str());
    f.proc.Write(std::string("100/fdinfo/") + fd, "size:\t4096\nino:\t55\n");
  }
  symlink("/dev/null", (f.proc.path() + "/200/fd/0").c_str());  // no dma-buf: no size entry
  const std::string allocatePin = "/sys/fs/bpf/tavo_test_alloc", sizePin = "/sys/fs/bpf/tavo_test_size";
  const int allocate = bpf_map_create(BPF_MAP_TYPE_HASH, "alloc", 8, sizeof(tavo_dmabuf_alloc_value), 64, nullptr);
  const int size = bpf_map_create(BPF_MAP_TYPE_HASH, "size", 4, sizeof(tavo_dmabuf_size_value), 64, nullptr);
  ASSERT_EQ(bpf_obj_pin(allocate, allocatePin.c_str()), 0);
  ASSERT_EQ(bpf_obj_pin(size, sizePin.c_str()), 0);
  close(allocate);
  close(size);

  EXPECT_EQ(f.dmabuf.initDmabufBpfProg(allocatePin, sizePin), 0);
  EXPECT_EQ(f.dmabuf.ProcessTotal(100), 8192);
  EXPECT_EQ(f.dmabuf.UseCount(100, 55), 1u);
  EXPECT_FALSE(f.dmabuf.Tracks(200));
  auto allocations = TavoDmabufAccounting::AllocateMap::OpenPinned(allocatePin);
  auto totals = TavoDmabufAccounting::SizeMap::OpenPinned(sizePin);
  ASSERT_TRUE(allocations.ok() && totals.ok());
  EXPECT_EQ(allocations->Lookup(55)->pid, 100);
  EXPECT_EQ(allocations->Lookup(55)->size, 4096u);
  EXPECT_EQ(totals->Lookup(100)->total, 8192u);
  EXPECT_FALSE(totals->Lookup(200).ok());
  // The seeded use is released like any other; a notice follows.
  f.Apply({D, 100, 4096, 0, 55, 1});
  EXPECT_EQ(f.Noticed(), (Totals{{100, 4096}}));

  unlink(sizePin.c_str());
  tavo_test::LogCapture log;
  EXPECT_EQ(f.dmabuf.initDmabufBpfProg(allocatePin, sizePin), -1);
  EXPECT_EQ(log.Count("or dmabufSizeMap(-1) failed! No such file or directory"), 1);
  unlink(allocatePin.c_str());
}
