// Decoding of every record and notice layout, event names and line formats.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "tools/tavo_client/tavo_event_decoder.h"
#include "tools/tavo_client/tavo_event_format.h"
#include "tools/tavo_client/tavo_event_names.h"

using namespace Tavo::Client;

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

struct LayoutCase {
  const char* label;
  std::string bytes;  // a full record with distinct field values
  std::function<void(const Event&)> check;
};

void PrintTo(const LayoutCase& c, std::ostream* os) { *os << c.label; }

std::vector<LayoutCase> Layouts() {
  std::vector<LayoutCase> cases;
  {
    auto r = WithHeader<tavo_task_init_event>(0);
    r.pid = 10, r.ppid = 1, r.uid = 1000, r.thread_num = 7;
    memcpy(r.comm, "0123456789abcdef", 16);  // full width, no NUL
    r.rss_file = 11, r.rss_anon = 12, r.rss_shmem = 13, r.rss_swap = 14, r.start_time = 15;
    cases.push_back({"TaskInit", Bytes(r), [](const Event& e) {
                       auto& v = std::get<TaskInitRecord>(e);
                       EXPECT_EQ(v.header.ts, 123456789012ULL);
                       EXPECT_EQ(v.pid, 10);
                       EXPECT_EQ(v.ppid, 1);
                       EXPECT_EQ(v.uid, 1000u);
                       EXPECT_EQ(v.threadNum, 7u);
                       EXPECT_EQ(v.comm, "0123456789abcdef");
                       EXPECT_EQ(v.rssFile, 11);
                       EXPECT_EQ(v.rssAnon, 12);
                       EXPECT_EQ(v.rssShmem, 13);
                       EXPECT_EQ(v.rssSwap, 14);
                       EXPECT_EQ(v.startTime, 15);
                     }});
  }
  {
    auto r = WithHeader<tavo_rss_stat_event>(1);
    r.pid = 20, r.member = 3, r.size = -4096;
    cases.push_back({"RssStat", Bytes(r), [](const Event& e) {
                       auto& v = std::get<RssStatRecord>(e);
                       EXPECT_EQ(v.pid, 20);
                       EXPECT_EQ(v.member, 3);
                       EXPECT_EQ(v.size, -4096);
                     }});
  }
  {
    auto r = WithHeader<tavo_task_create_event>(2);
    r.ppid = 30, r.pid = 31, r.uid = 32, r.kind = 2;
    memcpy(r.comm, "bash", 4);
    cases.push_back({"TaskCreate", Bytes(r), [](const Event& e) {
                       auto& v = std::get<TaskCreateRecord>(e);
                       EXPECT_EQ(v.ppid, 30);
                       EXPECT_EQ(v.pid, 31);
                       EXPECT_EQ(v.uid, 32u);
                       EXPECT_EQ(v.comm, "bash");
                       EXPECT_EQ(v.kind, 2u);
                     }});
  }
  {
    auto r = WithHeader<tavo_task_exit_event>(3);
    r.pid = 40, r.kind = 1;
    memcpy(r.comm, "gone", 4);
    cases.push_back({"TaskExit", Bytes(r), [](const Event& e) {
                       auto& v = std::get<TaskExitRecord>(e);
                       EXPECT_EQ(v.pid, 40);
                       EXPECT_EQ(v.comm, "gone");
                       EXPECT_EQ(v.kind, 1u);
                     }});
  }
  {
    auto r = WithHeader<tavo_dmabuf_size_event>(4);
    r.pid = 50, r.total = 1ULL << 40;
    cases.push_back({"DmabufSize", Bytes(r), [](const Event& e) {
                       auto& v = std::get<DmabufSizeRecord>(e);
                       EXPECT_EQ(v.pid, 50);
                       EXPECT_EQ(v.total, 1ULL << 40);
                     }});
  }
  {
    auto r = WithHeader<tavo_cgroup_attach_event>(5);
    r.pid = 60, r.tid = 61, r.dst_root = 62, r.dst_level = 63, r.dst_id = 64;
    memcpy(r.comm, "svc", 3);
    memcpy(r.dst_path, "/top-app", 8);
    cases.push_back({"CgroupAttach", Bytes(r), [](const Event& e) {
                       auto& v = std::get<CgroupAttachRecord>(e);
                       EXPECT_EQ(v.pid, 60);
                       EXPECT_EQ(v.tid, 61);
                       EXPECT_EQ(v.dstRoot, 62);
                       EXPECT_EQ(v.dstLevel, 63);
                       EXPECT_EQ(v.dstId, 64u);
                       EXPECT_EQ(v.comm, "svc");
                       EXPECT_EQ(v.dstPath, "/top-app");
                     }});
  }
  {
    auto r = WithHeader<tavo_fd_update_event>(6);
    r.pid = 70, r.fd = -1, r.fd_count = 71;
    memcpy(r.comm, "fds", 3);
    cases.push_back({"FdUpdate", Bytes(r), [](const Event& e) {
                       auto& v = std::get<FdUpdateRecord>(e);
                       EXPECT_EQ(v.pid, 70);
                       EXPECT_EQ(v.fd, -1);
                       EXPECT_EQ(v.fdCount, 71u);
                       EXPECT_EQ(v.comm, "fds");
                     }});
  }
  for (uint32_t type = 7; type <= 14; ++type) {
    auto r = WithHeader<tavo_dmabuf_event>(type);
    r.pid = 80, r.size = 81, r.map_key = 82, r.buf_id = 83;
    static const char* const kLabels[] = {"DmabufSetup", "DmabufRelease", "DmabufAttach", "DmabufDetach",
                                          "DmabufVmap",  "DmabufVunmap",  "DmabufMmap",   "DmabufMunmap"};
    cases.push_back({kLabels[type - 7], Bytes(r), [type](const Event& e) {
                       auto& v = std::get<DmabufRecord>(e);
                       EXPECT_EQ(v.header.type, type);
                       EXPECT_EQ(v.pid, 80);
                       EXPECT_EQ(v.size, 81u);
                       EXPECT_EQ(v.mapKey, 82u);
                       EXPECT_EQ(v.bufId, 83u);
                     }});
  }
  {
    tavo_notice_process_start n{TAVO_NOTICE_PROCESS_START, 90, 91, 92, {}};
    memcpy(n.comm, "app", 3);
    cases.push_back({"ProcessStart", Bytes(n), [](const Event& e) {
                       auto& v = std::get<ProcessStartNotice>(e);
                       EXPECT_EQ(v.pid, 90);
                       EXPECT_EQ(v.ppid, 91);
                       EXPECT_EQ(v.uid, 92u);
                       EXPECT_EQ(v.comm, "app");
                     }});
  }
  {
    tavo_notice_process_exit n{TAVO_NOTICE_PROCESS_EXIT, 100, {}};
    memcpy(n.comm, "done", 4);
    cases.push_back({"ProcessExit", Bytes(n), [](const Event& e) {
                       auto& v = std::get<ProcessExitNotice>(e);
                       EXPECT_EQ(v.pid, 100);
                       EXPECT_EQ(v.comm, "done");
                     }});
  }
  {
    tavo_notice_thread_count n{TAVO_NOTICE_THREAD_COUNT, 110, 111, 112, 3, 14};
    cases.push_back({"ThreadCount", Bytes(n), [](const Event& e) {
                       auto& v = std::get<ThreadCountNotice>(e);
                       EXPECT_EQ(v.pid, 110);
                       EXPECT_EQ(v.ppid, 111);
                       EXPECT_EQ(v.uid, 112u);
                       EXPECT_EQ(v.oldThreadNum, 3u);
                       EXPECT_EQ(v.threadNum, 14u);
                     }});
  }
  {
    tavo_notice_memory n{TAVO_NOTICE_MEMORY, 120, 121, 122, {}, {1, 2, 3, 4}, {5, 6, 7, 8}};
    memcpy(n.comm, "mem", 3);
    cases.push_back({"Memory", Bytes(n), [](const Event& e) {
                       auto& v = std::get<MemoryNotice>(e);
                       EXPECT_EQ(v.pid, 120);
                       EXPECT_EQ(v.ppid, 121);
                       EXPECT_EQ(v.uid, 122u);
                       EXPECT_EQ(v.comm, "mem");
                       EXPECT_EQ(v.current, (std::array<int64_t, 4>{1, 2, 3, 4}));
                       EXPECT_EQ(v.reported, (std::array<int64_t, 4>{5, 6, 7, 8}));
                     }});
  }
  {
    tavo_notice_dmabuf_total n{TAVO_NOTICE_DMABUF_TOTAL, 130, 131, {}, 0, -8192};
    memcpy(n.comm, "gpu", 3);
    cases.push_back({"DmabufTotal", Bytes(n), [](const Event& e) {
                       auto& v = std::get<DmabufTotalNotice>(e);
                       EXPECT_EQ(v.pid, 130);
                       EXPECT_EQ(v.uid, 131u);
                       EXPECT_EQ(v.comm, "gpu");
                       EXPECT_EQ(v.total, -8192);
                     }});
  }
  return cases;
}

class SubsDecodeLayout : public testing::TestWithParam<LayoutCase> {};

TEST_P(SubsDecodeLayout, FieldsComeFromTheirOffsets) {
  const LayoutCase& c = GetParam();
  uint32_t code;
  memcpy(&code, c.bytes.data(), 4);
  EXPECT_EQ(EventLayoutLength(code), c.bytes.size());
  const Event event = DecodeEvent(c.bytes.data(), c.bytes.size());
  ASSERT_FALSE(std::holds_alternative<DecodeError>(event));
  EXPECT_EQ(EventCode(event), code);
  c.check(event);
  // Trailing bytes beyond the layout are ignored.
  const std::string longer = c.bytes + std::string(9, '\x7f');
  c.check(DecodeEvent(longer.data(), longer.size()));
}

TEST_P(SubsDecodeLayout, OneByteShortIsReportedNotMisread) {
  const LayoutCase& c = GetParam();
  // Copied into an exact-size heap block so a read past it would be caught
  // by the address sanitizer.
  std::vector<char> shorter(c.bytes.begin(), c.bytes.end() - 1);
  const Event event = DecodeEvent(shorter.data(), shorter.size());
  const auto* error = std::get_if<DecodeError>(&event);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->reason, DecodeError::Reason::kTooShort);
  EXPECT_EQ(error->length, c.bytes.size() - 1);
  EXPECT_EQ(error->expected, c.bytes.size());
  EXPECT_EQ(EventCode(event), EventCode(DecodeEvent(c.bytes.data(), c.bytes.size())));
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
