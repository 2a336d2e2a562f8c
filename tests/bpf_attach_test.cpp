// Which rows apply to which kernel, and what becomes of a row that cannot
// attach. (Attaching for real is covered by pump_test and kern_test.)
#include <gtest/gtest.h>

#include "bpf/tavo_bpf_attach.h"
#include "bpf/tavo_bpf_attach_tables.h"
#include "tests/support/log_capture.h"
#include "util/tavo_properties.h"
#include "util/tavo_service_contract.h"

using namespace Tavo::Bpf;

TEST(AttachRules, KernelVersionsAgainstRules) {
  for (const auto& [version, number] : std::vector<std::pair<std::string, int>>{
           {"5.10.198-android13", 5010}, {"6.1", 6001}, {"6.12.0-1-arm64", 6012}, {"6", 0}, {"x.y", 0}, {"", 0}}) {
    EXPECT_EQ(convertVersionToInt(version), number) << version;
  }
  const struct {
    const char* kernel;
    const char* rule;
    bool applies;
  } cases[] = {
      {"6.1.57", "5.0+", true},  {"6.1.57", "6.1", true},     {"6.1.57", "6.6", false}, {"6.1.57", "6.1-6.6", true},
      {"6.6.0", "6.1", false},   {"6.6.0", "6.6", true},      {"6.6.0", "6.1-6.6", true}, {"6.12.1", "6.1-6.6", false},
      {"5.15.0", "6.6-", true},  {"6.6.1", "6.6-", true},     {"6.7.0", "6.6-", false}, {"5.10.0", "6.1-6.6", false},
      {"0.0", "5.0+", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CheckBpfCompatibility(c.rule, convertVersionToInt(c.kernel)), c.applies) << c.kernel << " " << c.rule;
  }
  // The entry point's form reads the property.
  SetServiceProperty(kKernelVersionProperty, "6.6.0");
  EXPECT_TRUE(CheckBpfCompatibility("6.6"));
  EXPECT_FALSE(CheckBpfCompatibility("6.1"));
}

TEST(AttachRules, NewerKernelsTakeTheNamedLineOnlyWhenAskedAndOnlyPastTheTables) {
  const struct {
    const char* kernel;
    const char* dmabufRows;
    int rows;
  } cases[] = {
      {"6.12.9", "", 6012}, {"6.12.9", "6.6", 6006}, {"6.12.9", "6.1", 6001}, {"6.12.9", "6.3", 6012},
      {"6.6.0", "6.1", 6006}, {"6.1.0", "6.6", 6001}, {"5.10.0", "6.6", 5010}, {"6.12.9", "junk", 6012},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(AttachRowsVersion(convertVersionToInt(c.kernel), c.dmabufRows), c.rows) << c.kernel << " " << c.dmabufRows;
  }
}

TEST(AttachRules, EveryRowIsReportedAndMissingPinsAreLogged) {
  const BpfAttachTable table = {{"TavoTestObject",
                                 {{kAttachTracepoint, {{"sched_sched_switch", "sched", "sched_switch"}}},
                                  {kAttachKprobe, {{"enter_fd_install", "fd_install", "", "5.0+"},
                                                   {"enter_dma_buf_attach_6_1", "dma_buf_attach", "", "6.1"}}},
                                  {kAttachKretprobe, {{"return_filp_close", "filp_close", "", "5.0+"}}}}}};
  tavo_test::LogCapture log;
  BpfAttachments attached;
  BpfAttachReport report;
  EXPECT_EQ(AttachAllTavoBpfProgram("/nonexistent/", table, 5010, &attached, &report), 2) << "the two missing pins";
  EXPECT_TRUE(attached.empty());
  const std::string expected =
      "attach TavoTestObject tracepoint - bad 0\n"
      "attach TavoTestObject kprobe enter_fd_install failed 2\n"
      "attach TavoTestObject kprobe enter_dma_buf_attach_6_1 skipped 0\n"
      "attach TavoTestObject kretprobe return_filp_close failed 2\n";
  EXPECT_EQ(FormatAttachReport(report), expected);
  EXPECT_EQ(FormatAttachReport(ParseAttachReport("noise\n" + expected)), expected) << "the report reads back";
  tavo_test::ExpectLogged(log, {
      {"Error format!: TavoTestObject", ANDROID_LOG_ERROR, 1},
      {"Skip bpf prog: TavoTestObject, progName: enter_dma_buf_attach_6_1, kernelCompat: 6.1", ANDROID_LOG_WARN, 1},
      {"[AttachKProbeProgram] Retrieve kprobe prog failed: enter_fd_install, function: fd_install", ANDROID_LOG_ERROR, 1},
      {"Attach kprobe prog failed: TavoTestObject, progname: enter_fd_install, msg: ", ANDROID_LOG_ERROR, 1},
      {"[AttachKProbeProgram] Retrieve kretprobe prog failed: return_filp_close", ANDROID_LOG_ERROR, 1},
      {"Attach kretprobe prog failed: TavoTestObject, progname: return_filp_close, msg: ", ANDROID_LOG_ERROR, 1},
  });
  // Every row of the shipped tables has its four strings.
  for (const BpfAttachTable* shipped : {&PROG_EVENT_MAP, &PROG_GPL_EVENT_MAP}) {
    for (const auto& [object, byType] : *shipped) {
      for (const auto& [type, rows] : byType) {
        for (const auto& row : rows) EXPECT_EQ(row.size(), 4u) << object << " " << row[0];
      }
    }
  }
}
