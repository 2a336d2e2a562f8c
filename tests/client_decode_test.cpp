// Decoding of every record and notice layout, event names and line formats.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "client/tavo_event_decoder.h"
#include "client/tavo_event_format.h"
#include "util/tavo_event_names.h"

using namespace Tavo::Client;
using Tavo::Bpf::EventName;
using Tavo::Bpf::ResolveEventArgument;

namespace {

template <typename T>
std::string Bytes(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

template <typename T>
T WithHeader(uint32_t type) {
  T record{};
  record.hdr.type = type;
  record.hdr.ts = 123456789012ULL;
  return record;
}

// A full record with distinct field values, and its text line: the line
// names every field, so a field read from the wrong offset shows in it.
struct LayoutCase {
  const char* label;
  std::string bytes;
  std::string text;
};

void PrintTo(const LayoutCase& c, std::ostream* os) { *os << c.label; }

std::vector<LayoutCase> Layouts() {
  const std::string ts = " ts=123456789012";
  std::vector<LayoutCase> cases;
  auto init = WithHeader<tavo_task_init_event>(0);
  init.pid = 10, init.ppid = 1, init.uid = 1000, init.thread_num = 7;
  memcpy(init.comm, "0123456789abcdef", 16);  // full width, no NUL
  init.rss_file = 11, init.rss_anon = 12, init.rss_shmem = 13, init.rss_swap = 14, init.start_time = 15;
  cases.push_back({"TaskInit", Bytes(init),
                   "tavo_task_init pid=10 ppid=1 uid=1000 comm=0123456789abcdef threads=7 file=11 anon=12 "
                   "shmem=13 swap=14 start_time=15" + ts});
  auto rss = WithHeader<tavo_rss_stat_event>(1);
  rss.pid = 20, rss.member = 3, rss.size = -4096;
  cases.push_back({"RssStat", Bytes(rss), "kmem_rss_info pid=20 member=shmem size=-4096" + ts});
  auto create = WithHeader<tavo_task_create_event>(2);
  create.ppid = 30, create.pid = 31, create.uid = 32, create.kind = 2;
  memcpy(create.comm, "bash", 4);
  cases.push_back({"TaskCreate", Bytes(create), "sched_task_create pid=31 ppid=30 uid=32 comm=bash kind=thread" + ts});
  auto exit = WithHeader<tavo_task_exit_event>(3);
  exit.pid = 40, exit.kind = 1;
  memcpy(exit.comm, "gone", 4);
  cases.push_back({"TaskExit", Bytes(exit), "sched_task_exit pid=40 comm=gone kind=process" + ts});
  auto size = WithHeader<tavo_dmabuf_size_event>(4);
  size.pid = 50, size.total = 1ULL << 40;
  cases.push_back({"DmabufSize", Bytes(size), "dmabuf_size_info pid=50 total=1099511627776" + ts});
  auto cgroup = WithHeader<tavo_cgroup_attach_event>(5);
  cgroup.pid = 60, cgroup.tid = 61, cgroup.dst_root = 62, cgroup.dst_level = 63, cgroup.dst_id = 64;
  memcpy(cgroup.comm, "svc", 3);
  memcpy(cgroup.dst_path, "/top-app", 8);
  cases.push_back({"CgroupAttach", Bytes(cgroup),
                   "cgroup_attach_cpuset_info pid=60 tid=61 comm=svc root=62 level=63 cgroup_id=64 path=/top-app" +
                       ts});
  auto fd = WithHeader<tavo_fd_update_event>(6);
  fd.pid = 70, fd.fd = -1, fd.fd_count = 71;
  memcpy(fd.comm, "fds", 3);
  cases.push_back({"FdUpdate", Bytes(fd), "fd_update_info pid=70 fd=-1 fd_count=71 comm=fds" + ts});
  static const char* const kDmabuf[][2] = {
      {"DmabufSetup", "dmabuf_setup"}, {"DmabufRelease", "dmabuf_release"}, {"DmabufAttach", "dambuf_attach"},
      {"DmabufDetach", "dmabuf_detach"}, {"DmabufVmap", "dmabuf_vmap"}, {"DmabufVunmap", "dmabuf_vunmap"},
      {"DmabufMmap", "dmabuf_mmap"}, {"DmabufMunmap", "dmabuf_munmap"}};
  for (uint32_t type = 7; type <= 14; ++type) {
    auto r = WithHeader<tavo_dmabuf_event>(type);
    r.pid = 80, r.size = 81, r.map_key = 82, r.buf_id = 83;
    cases.push_back({kDmabuf[type - 7][0], Bytes(r),
                     std::string(kDmabuf[type - 7][1]) + " pid=80 size=81 map_key=82 buf_id=83" + ts});
  }
  tavo_notice_process_start start{TAVO_NOTICE_PROCESS_START, 90, 91, 92, {}};
  memcpy(start.comm, "app", 3);
  cases.push_back({"ProcessStart", Bytes(start), "start pid=90 ppid=91 uid=92 comm=app"});
  tavo_notice_process_exit end{TAVO_NOTICE_PROCESS_EXIT, 100, {}};
  memcpy(end.comm, "done", 4);
  cases.push_back({"ProcessExit", Bytes(end), "end pid=100 comm=done"});
  tavo_notice_thread_count threads{TAVO_NOTICE_THREAD_COUNT, 110, 111, 112, 3, 14};
  cases.push_back({"ThreadCount", Bytes(threads), "threads pid=110 ppid=111 uid=112 threads=14 old_threads=3"});
  tavo_notice_memory memory{TAVO_NOTICE_MEMORY, 120, 121, 122, {}, {1, 2, 3, 4}, {5, 6, 7, 8}};
  memcpy(memory.comm, "mem", 3);
  cases.push_back({"Memory", Bytes(memory),
                   "memory pid=120 ppid=121 uid=122 comm=mem file=1 anon=2 swap=3 shmem=4 old_file=5 old_anon=6 "
                   "old_swap=7 old_shmem=8"});
  tavo_notice_dmabuf_total total{TAVO_NOTICE_DMABUF_TOTAL, 130, 131, {}, 0, -8192};
  memcpy(total.comm, "gpu", 3);
  cases.push_back({"DmabufTotal", Bytes(total), "dmabuf pid=130 uid=131 comm=gpu total=-8192"});
  return cases;
}

class SubsDecodeLayout : public testing::TestWithParam<LayoutCase> {};

TEST_P(SubsDecodeLayout, FieldsComeFromTheirOffsetsAndShortIsReported) {
  const LayoutCase& c = GetParam();
  uint32_t code;
  memcpy(&code, c.bytes.data(), 4);
  EXPECT_EQ(EventLayoutLength(code), c.bytes.size());
  const Event event = DecodeEvent(c.bytes.data(), c.bytes.size());
  ASSERT_FALSE(std::holds_alternative<DecodeError>(event));
  EXPECT_EQ(EventCode(event), code);
  EXPECT_EQ(FormatEventText(event, "t"), "t " + c.text);
  // Trailing bytes beyond the layout are ignored.
  const std::string longer = c.bytes + std::string(9, '\x7f');
  EXPECT_EQ(FormatEventText(DecodeEvent(longer.data(), longer.size()), "t"), "t " + c.text);

  // One byte short is reported, not misread; the exact-size heap copy lets
  // the address sanitizer catch a read past it.
  std::vector<char> shorter(c.bytes.begin(), c.bytes.end() - 1);
  const Event cut = DecodeEvent(shorter.data(), shorter.size());
  const auto* error = std::get_if<DecodeError>(&cut);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->reason, DecodeError::Reason::kTooShort);
  EXPECT_EQ(error->length, c.bytes.size() - 1);
  EXPECT_EQ(error->expected, c.bytes.size());
  EXPECT_EQ(EventCode(cut), code);
}

INSTANTIATE_TEST_SUITE_P(Layouts, SubsDecodeLayout, testing::ValuesIn(Layouts()),
                         [](const testing::TestParamInfo<LayoutCase>& info) {
                           return std::string(info.param.label);
                         });

TEST(SubsDecode, UnknownCodesAndTinyInputsAreErrors) {
  for (uint32_t code : {15u, 16u, 50000u, 50006u, 0xffffffffu}) {
    std::string bytes(200, '\0');
    memcpy(&bytes[0], &code, 4);
    const Event event = DecodeEvent(bytes.data(), bytes.size());
    const auto* error = std::get_if<DecodeError>(&event);
    ASSERT_NE(error, nullptr) << code;
    EXPECT_EQ(error->reason, DecodeError::Reason::kUnknownCode);
    EXPECT_EQ(error->code, code);
  }
  const char three[3] = {2, 0, 0};
  const Event tiny = DecodeEvent(three, sizeof(three));
  EXPECT_EQ(std::get<DecodeError>(tiny).reason, DecodeError::Reason::kTooShort);
  EXPECT_EQ(std::get<DecodeError>(DecodeEvent(nullptr, 0)).reason, DecodeError::Reason::kTooShort);
}

TEST(SubsDecode, EventArgumentsResolveToCodes) {
  struct Case {
    const char* word;
    std::vector<uint32_t> codes;
  };
  const Case cases[] = {
      {"fork", {2}}, {"exit", {3}}, {"rss", {1}}, {"start", {50001}}, {"end", {50002}},
      {"threads", {50003}}, {"memory", {50004}}, {"dmabuf", {50005}},
      {"sched_task_create", {2}}, {"dambuf_attach", {9}}, {"dmabuf_attach", {9}},
      {"50004", {50004}}, {"14", {14}},
      {"notices", {50001, 50002, 50003, 50004, 50005}},
  };
  for (const Case& c : cases) {
    std::vector<uint32_t> codes;
    EXPECT_TRUE(ResolveEventArgument(c.word, &codes)) << c.word;
    EXPECT_EQ(codes, c.codes) << c.word;
  }
  std::vector<uint32_t> all;
  EXPECT_TRUE(ResolveEventArgument("all", &all));
  EXPECT_EQ(all.size(), 20u);
  for (const char* bad : {"", "15", "50006", "-1", "forks", "2x", "99999999999"}) {
    std::vector<uint32_t> codes;
    EXPECT_FALSE(ResolveEventArgument(bad, &codes)) << bad;
    EXPECT_TRUE(codes.empty()) << bad;
  }
  EXPECT_EQ(EventName(9), "dambuf_attach");
  EXPECT_EQ(EventName(50001), "start");
}

TEST(SubsDecode, LinesInTextAndJson) {
  tavo_notice_process_start n{TAVO_NOTICE_PROCESS_START, 123, 1, 0, {}};
  memcpy(n.comm, "bash", 4);
  const Event start = DecodeEvent(reinterpret_cast<const char*>(&n), sizeof(n));
  EXPECT_EQ(FormatEventText(start, "12:00:01.123"), "12:00:01.123 start pid=123 ppid=1 uid=0 comm=bash");
  EXPECT_EQ(FormatEventJson(start, "12:00:01.123"),
            "{\"time\":\"12:00:01.123\",\"event\":\"start\",\"code\":50001,\"pid\":123,\"ppid\":1,"
            "\"uid\":0,\"comm\":\"bash\"}");
  // Odd names stay on one line and valid JSON.
  tavo_notice_process_exit x{TAVO_NOTICE_PROCESS_EXIT, 7, {}};
  memcpy(x.comm, "a b\"\n\xff", 6);
  const Event end = DecodeEvent(reinterpret_cast<const char*>(&x), sizeof(x));
  EXPECT_EQ(FormatEventText(end, "t"), "t end pid=7 comm=\"a b\\\"\\u000a\\u00ff\"");
  EXPECT_EQ(FormatEventJson(end, "t"),
            "{\"time\":\"t\",\"event\":\"end\",\"code\":50002,\"pid\":7,\"comm\":\"a b\\\"\\u000a\\u00ff\"}");
  const char bogus[6] = {1, 0, 0, 0, 0, 0};
  EXPECT_EQ(FormatEventText(DecodeEvent(bogus, sizeof(bogus)), "t"),
            "t decode_error reason=short length=6 expected=32");
}

}  // namespace
