#include <gtest/gtest.h>

#include "util/tavo_properties.h"

#include <unistd.h>

#include <cctype>
#include <string>

#include "bpf/tavo_bpf_attach.h"
#include "tests/support/log_capture.h"
#include "tests/support/pump_test_object.h"
#include "tests/support/test_env.h"

using namespace Tavo::Bpf;

namespace {

constexpr const char* kNormal = "TavoBpfDefineset";
constexpr const char* kGpl = "TavoBpfGplDefineset";

class AttachWithObject : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVO_REQUIRE_BPFFS();
    if (!tavo_test::Env().tracefs) GTEST_SKIP() << "no tracefs";
    ASSERT_EQ(object.Load(), "");
  }
  // Every tracepoint row of the normal table, pinned as the loader would.
  void PinNormalTracepoints() {
    for (const auto& row : TavoBpfService::PROG_EVENT_MAP.at(kNormal).at(0)) {
      ASSERT_TRUE(object.PinProgram("noop_tracepoint", std::string("prog_") + kNormal + "_tracepoint_" + row[0]));
    }
  }
  tavo_test::PumpTestObject object;
};

}  // namespace

TEST(ConvertVersion, Table) {
  const struct {
    const char* version;
    int expected;
  } cases[] = {
      {"5.10.198-android13", 5010}, {"6.1", 6001}, {"6.6.30-android15-8", 6006}, {"6.18.44-fc-v657", 6018},
      {"5.0", 5000}, {"0.0", 0}, {"6.12abc", 6012}, {"6", 0}, {"", 0}, {"abc.def", 0}, {"6.x", 0},
      {"99999999999.1", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(convertVersionToInt(c.version), c.expected) << c.version;
}

// One kernel version per process: the property is process-wide.
struct VersionCase {
  const char* version;  // nullptr: property absent
  int gplAttempted;     // GPL rows tried (none is pinned, so each fails)
  int gplSkipped;
  bool sixSixOrOlder;   // "6.6-"
  bool sixOneToSixSix;  // "6.1-6.6"
};

class AttachByVersion : public ::testing::TestWithParam<VersionCase> {};

TEST_P(AttachByVersion, RowsSkippedOrTried) {
  TAVO_REQUIRE_BPFFS();
  const VersionCase& c = GetParam();
  // An empty value reads as absent.
  Tavo::Bpf::SetServiceProperty("ro.kernel.version", c.version == nullptr ? "" : c.version);
  EXPECT_EQ(CheckBpfCompatibility("6.6-"), c.sixSixOrOlder);
  EXPECT_EQ(CheckBpfCompatibility("6.1-6.6"), c.sixOneToSixSix);

  tavo_test::LogCapture log;
  EXPECT_EQ(AttachAllTavoBpfProgram(TavoBpfService::BPF_FS_PATH, TavoBpfService::PROG_GPL_EVENT_MAP),
            c.gplAttempted);
  EXPECT_EQ(log.Count("Skip bpf prog: TavoBpfGplDefineset, progName: ", ANDROID_LOG_WARN), c.gplSkipped);
  EXPECT_EQ(log.Count("Attach bpf prog start: TavoBpfGplDefineset", ANDROID_LOG_INFO), c.gplAttempted);
  const int kernel = convertVersionToInt(c.version == nullptr ? "0.0" : c.version);
  // The 6.1 and 6.6 dma-buf rows exclude each other.
  EXPECT_EQ(log.Count("_6_1, kernelCompat: 6.1", ANDROID_LOG_WARN), kernel == 6001 ? 0 : 9);
  EXPECT_EQ(log.Count("_6_6, kernelCompat: 6.6", ANDROID_LOG_WARN), kernel == 6006 ? 0 : 9);
  EXPECT_EQ(log.Count("Error format!", -1), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Kernels, AttachByVersion,
    ::testing::Values(VersionCase{nullptr, 0, 21, true, false}, VersionCase{"6.1.75", 12, 9, true, true},
                      VersionCase{"6.6.30", 12, 9, true, true}, VersionCase{"6.12.1", 2, 19, false, false},
                      VersionCase{"5.10.198-android13", 2, 19, true, false},
                      VersionCase{"5.15.0", 2, 19, true, false}, VersionCase{"6.7", 2, 19, false, false}),
    [](const ::testing::TestParamInfo<VersionCase>& info) {
      std::string name = info.param.version == nullptr ? "absent" : info.param.version;
      for (char& ch : name) {
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
      }
      return name;
    });

TEST(AttachTable, MalformedAndUnknownRowsAreNotCounted) {
  TAVO_REQUIRE_BPFFS();
  Tavo::Bpf::SetServiceProperty("ro.kernel.version", "6.6");
  tavo_test::LogCapture log;
  EXPECT_EQ(AttachAllTavoBpfProgram(TavoBpfService::BPF_FS_PATH, BpfAttachTable{}), 0);
  const BpfAttachTable table = {
      {kNormal, {{0, {{"sched_sched_switch", "sched", "sched_switch"}}}, {7, {{"odd", "x", "", "5.0+"}}}}}};
  EXPECT_EQ(AttachAllTavoBpfProgram(TavoBpfService::BPF_FS_PATH, table), 0);
  EXPECT_EQ(log.Count("Error format!: TavoBpfDefineset", ANDROID_LOG_ERROR), 1);
  EXPECT_EQ(log.Count("(UNKNOW TYPE) attach prog failed: TavoBpfDefineset, type: odd", ANDROID_LOG_ERROR), 1);
}

TEST_F(AttachWithObject, NormalTableOnThisKernel) {
  Tavo::Bpf::SetServiceProperty("ro.kernel.version", "6.18.44");
  PinNormalTracepoints();
  tavo_test::LogCapture log;
  // Only the two probe rows fail: their programs are not pinned.
  EXPECT_EQ(AttachAllTavoBpfProgram(TavoBpfService::BPF_FS_PATH, TavoBpfService::PROG_EVENT_MAP), 2);
  tavo_test::ExpectLogged(log, {
      {"Attach bpf prog start: TavoBpfDefineset, progName: ", ANDROID_LOG_INFO, 6},
      {"Attach tracepoint prog failed", -1, 0},
      {"[AttachKProbeProgram] Retrieve kprobe prog failed: enter_fd_install, function: fd_install",
       ANDROID_LOG_ERROR, 1},
      {"Attach kprobe prog failed: TavoBpfDefineset, progname: enter_fd_install, msg: No such file "
       "or directory", ANDROID_LOG_ERROR, 1},
      {"[AttachKProbeProgram] Retrieve kretprobe prog failed: return_filp_close, function: "
       "filp_close", ANDROID_LOG_ERROR, 1},
      {"Attach kretprobe prog failed: TavoBpfDefineset, progname: return_filp_close, msg: No such "
       "file or directory", ANDROID_LOG_ERROR, 1},
  });
  int errors = 0;
  for (const auto& line : log.Lines()) errors += line.priority == ANDROID_LOG_ERROR && line.tag == "BpfUtils";
  EXPECT_EQ(errors, 4);
}

// Whether this kernel offers kprobes (tracefs is mounted for each test).
bool HaveKprobes() { return access("/sys/kernel/tracing/kprobe_events", F_OK) == 0; }

TEST_F(AttachWithObject, PinnedProbesFailWithoutKprobes) {
  if (HaveKprobes()) GTEST_SKIP() << "this kernel has kprobes";
  Tavo::Bpf::SetServiceProperty("ro.kernel.version", "6.18.44");
  ASSERT_TRUE(object.PinProgram("noop_kprobe", std::string("prog_") + kNormal + "_kprobe_enter_fd_install"));
  ASSERT_TRUE(object.PinProgram("noop_kprobe", std::string("prog_") + kNormal + "_kretprobe_return_filp_close"));
  const BpfAttachTable table = {{kNormal, {{1, {{"enter_fd_install", "fd_install", "", "5.0+"}}},
                                           {2, {{"return_filp_close", "filp_close", "", "5.0+"}}}}}};
  tavo_test::LogCapture log;
  EXPECT_EQ(AttachAllTavoBpfProgram(TavoBpfService::BPF_FS_PATH, table), 2);
  tavo_test::ExpectLogged(log, {
      {"[AttachKProbeProgram] Attach kprobe prog: enter: progName: enter_fd_install, functionName: "
       "fd_install", ANDROID_LOG_INFO, 1},
      {"[AttachKProbeProgram] Attach kretprobe prog: return: progName: return_filp_close, "
       "functionName: filp_close", ANDROID_LOG_INFO, 1},
      {"Attach kprobe prog failed: TavoBpfDefineset, progname: enter_fd_install, msg: ", ANDROID_LOG_ERROR, 1},
      {"Attach kretprobe prog failed: TavoBpfDefineset, progname: return_filp_close, msg: ", ANDROID_LOG_ERROR, 1},
      {"Retrieve", -1, 0},
  });
}

TEST_F(AttachWithObject, TracepointForms) {
  ASSERT_TRUE(object.PinProgram("noop_tracepoint", "prog_custom_switch"));
  ASSERT_TRUE(object.PinProgram("noop_tracepoint", std::string("prog_") + kGpl + "_tracepoint_sched_sched_switch"));
  ASSERT_TRUE(object.PinProgram("noop_tracepoint", std::string("prog_") + kGpl + "_tracepoint_sched_sched_waking"));
  const std::string dir = TavoBpfService::BPF_FS_PATH;
  EXPECT_GE(AttachTracepointProgram(dir, kGpl, "sched_sched_switch", "sched", "sched_switch"), 0);
  EXPECT_GE(AttachTracepointProgram(dir, "prog_custom_switch", "sched", "sched_wakeup"), 0);
  // Three strings: the name found first by pattern, else as a whole file name.
  EXPECT_GE(AttachTracepointProgram(dir, kGpl, "sched_sched_waking"), 0);
  EXPECT_GE(AttachTracepointProgram(dir, "prog_custom_switch", "sched_sched_process_exec"), 0);
  // The kernel refuses the same program twice on one tracepoint (EEXIST,
  // though bcc's own error print may leave another errno behind).
  EXPECT_EQ(AttachTracepointProgram(dir, kGpl, "sched_sched_switch", "sched", "sched_switch"), -1);
  tavo_test::LogCapture log;
  EXPECT_EQ(AttachTracepointProgram(dir, kGpl, "sched_absent", "sched", "absent"), -1);
  EXPECT_EQ(AttachTracepointProgram(dir, "prog_absent", "sched", "absent"), -1);
  EXPECT_EQ(AttachTracepointProgram(dir, "prog_absent", "sched_absent"), -1);
  tavo_test::ExpectLogged(log, {
      {"[AttachTracepointProgram] Retrieve tracepoint prog failed: sched_absent", ANDROID_LOG_ERROR, 2},
      {"[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: sched, eventName: "
       "absent", ANDROID_LOG_ERROR, 1},
  });
}

TEST_F(AttachWithObject, DirectoryForm) {
  ASSERT_TRUE(object.PinProgram("noop_tracepoint", std::string("prog_") + kNormal + "_tracepoint_sched_sched_switch"));
  ASSERT_TRUE(object.PinProgram("noop_kprobe", std::string("prog_") + kNormal + "_kprobe_enter_fd_install"));
  ASSERT_TRUE(object.PinProgram("noop_kprobe", std::string("prog_") + kNormal + "_kretprobe_return_filp_close"));
  ASSERT_TRUE(object.PinProgram("noop_tracepoint", "prog_short_name"));
  ASSERT_TRUE(object.PinRingMaps(kNormal));
  tavo_test::LogCapture log;
  // The kprobe attaches only where the kernel has kprobes; the kretprobe
  // type is unknown to this form.
  const int probeFailures = HaveKprobes() ? 0 : 1;
  EXPECT_EQ(AttachAllTavoBpfProgram(TavoBpfService::BPF_FS_PATH), probeFailures);
  tavo_test::ExpectLogged(log, {
      {"Attach bpf prog (prog_TavoBpfDefineset_tracepoint_sched_sched_switch, type: tracepoint) to "
       "sched_sched_switch", ANDROID_LOG_INFO, 1},
      {"Attach tracepoint prog failed", -1, 0},
      {"[AttachKProbeProgram] Attach kprobe prog: enter: eventType: enter, eventName: fd_install", ANDROID_LOG_INFO, 1},
      {"Attach kprobe prog failed: prog_TavoBpfDefineset_kprobe_enter_fd_install, type: kprobe, msg: ", ANDROID_LOG_ERROR,
       probeFailures},
      {"(UNKNOW TYPE) attach prog failed: prog_TavoBpfDefineset_kretprobe_return_filp_close, type: "
       "kretprobe", ANDROID_LOG_ERROR, 1},
      {"prog_short_name", -1, 0},
      {"map_", -1, 0},
  });
}

TEST(AttachKProbe, UnknownKindInDerivedForm) {
  TAVO_REQUIRE_BPFFS();
  tavo_test::PumpTestObject object;
  ASSERT_EQ(object.Load(), "");
  ASSERT_TRUE(object.PinProgram("noop_kprobe", "prog_obj_kprobe_odd_function"));
  tavo_test::LogCapture log;
  EXPECT_EQ(AttachKProbeProgram(TavoBpfService::BPF_FS_PATH, "obj", "odd_function"), -1);
  EXPECT_EQ(log.Count("[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: odd_function, prog: obj",
                      ANDROID_LOG_ERROR),
            1);
  EXPECT_EQ(AttachKProbeProgram(TavoBpfService::BPF_FS_PATH, "obj", "enter_absent"), -1);
  EXPECT_EQ(log.Count("[AttachKProbeProgram] Retrieve kprobe prog failed: enter_absent, prog: obj",
                      ANDROID_LOG_ERROR),
            1);
}
