// tavoctl as a child process against a service running in this process.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "service/tavo_bpf_service.h"
#include "tests/support/pump_object.h"
#include "tests/support/records.h"
#include "tests/support/tavoctl_child.h"
#include "tests/support/test_env.h"
#include "tests/support/tavo_harness.h"
#include "tools/tavo_cli/tavoctl_service_finder.h"

using namespace Tavo::Bpf;

namespace {

using Tavoctl = tavo_test::Child;

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    options.hub.socketPath = tavo_test::UniqueName("tavo_cli");
    options.dumpDir = dir.path();
    options.pinDir = dir.path();  // no pins: only the socket and the dumps are in play
    service = TavoBpfService::Create(options);
    service->start();
    ASSERT_TRUE(tavo_test::WaitFor([&] { return service->parts().hub.Listening(); }));
  }
  void Dispatch(void* record, size_t size) { service->parts().dispatcher.Dispatch(record, size); }
  size_t Subscribers(int code) { return service->parts().hub.events().GetEventObservers(code).size(); }

  tavo_test::TempDir dir;
  TavoServiceOptions options;
  std::unique_ptr<TavoBpfService> service;
};

}  // namespace

TEST_F(Cli, WatchPrintsJsonAndTextLinesAndEndsOnSignal) {
  Tavoctl json({"watch", "--socket", options.hub.socketPath, "--json", "start", "fork", "5"});
  Tavoctl text({"watch", "--socket", options.hub.socketPath, "end"});
  ASSERT_TRUE(tavo_test::WaitFor([&] { return Subscribers(5) == 1 && Subscribers(TAVO_NOTICE_PROCESS_EXIT) == 1; }));

  auto fork = tavo_test::CreateRecord(4242, 1, "my app", 5000, TAVO_TASK_KIND_PROCESS);
  Dispatch(&fork, sizeof(fork));  // the raw record, then the start notice of its handler
  std::vector<char> cgroup(30, 0);
  cgroup[0] = 5;  // shorter than its layout
  Dispatch(cgroup.data(), cgroup.size());
  auto exit = tavo_test::ExitRecord(99, "bash", 6000, TAVO_TASK_KIND_PROCESS);
  Dispatch(&exit, sizeof(exit));

  const auto lines = json.ReadLines(3);
  ASSERT_EQ(lines.size(), 3u) << json.Out();
  auto body = [](const std::string& line) { return line.substr(line.find(",\"event\"")); };  // after "time"
  EXPECT_EQ(body(lines[0]), ",\"event\":\"sched_task_create\",\"code\":2,\"pid\":4242,\"ppid\":1,\"uid\":10001,"
                            "\"comm\":\"my app\",\"kind\":\"process\",\"ts\":5000}");
  EXPECT_EQ(body(lines[1]), ",\"event\":\"start\",\"code\":50001,\"pid\":4242,\"ppid\":1,\"uid\":10001,\"comm\":\"my app\"}");
  EXPECT_EQ(body(lines[2]), ",\"event\":\"decode_error\",\"code\":5,\"reason\":\"short\",\"length\":30,\"expected\":120}");
  const auto textLines = text.ReadLines(1);
  ASSERT_EQ(textLines.size(), 1u) << text.Out();
  EXPECT_EQ(textLines[0].substr(12), " end pid=99 comm=bash");  // after "HH:MM:SS.mmm"

  json.Signal(SIGTERM);
  EXPECT_EQ(json.Finish(), 0) << json.Err();
  text.Signal(SIGINT);
  EXPECT_EQ(text.Finish(), 0) << text.Err();
  EXPECT_TRUE(tavo_test::WaitFor([&] { return Subscribers(2) == 0 && Subscribers(TAVO_NOTICE_PROCESS_EXIT) == 0; }));
}

TEST_F(Cli, DumpsSignalTheServiceAndPrintTheFile) {
  auto fork = tavo_test::CreateRecord(4242, 1, "my app", 5000, TAVO_TASK_KIND_PROCESS);
  Dispatch(&fork, sizeof(fork));
  const std::string pid = std::to_string(getpid());
  const struct {
    std::vector<std::string> args;
    const char *starts, *holds;
  } cases[] = {
      {{"dump", "counters", "--pid", pid, "--dir", dir.path()}, "EventCount, tavo_task_init, ", "\r\n1, 0, 0, 1, "},
      {{"dump", "tasks-short", "--pid", pid, "--dir", dir.path()}, "============ DUMP ALL TAVO TASKS INFO (count: 1,",
       "my app"},
  };
  for (const auto& c : cases) {
    Tavoctl dump(c.args);
    ASSERT_EQ(dump.Finish(), 0) << dump.Err();
    EXPECT_EQ(dump.Out().rfind(c.starts, 0), 0u) << dump.Out();
    EXPECT_NE(dump.Out().find(c.holds), std::string::npos) << dump.Out();
  }
}

TEST_F(Cli, DoctorSaysWhatThisKernelOffersAndWhetherRowsAreMissing) {
  TAVO_REQUIRE_KERNEL();
  const bool kprobes = access("/sys/bus/event_source/devices/kprobe", F_OK) == 0 ||
                       access("/sys/kernel/tracing/kprobe_events", F_OK) == 0;
  Tavoctl doctor({"doctor", "--socket", options.hub.socketPath, "--dir", dir.path()});
  const int status = doctor.Finish();
  const std::string& out = doctor.Out();
  const std::vector<std::string> lines = {
      "ok       btf ", kprobes ? "ok       kprobes " : "missing  kprobes ",
      "ok       socket          @" + options.hub.socketPath + " is served by pid ",
      kprobes ? "" : "missing  TavoBpfDefineset/enter_fd_install kprobe on fd_install"};
  for (const std::string& line : lines) EXPECT_NE(out.find("\n" + line), std::string::npos) << line << "\n" << out;
  // At most 1; exactly 1 without kprobes: their rows apply but cannot attach.
  EXPECT_EQ(status, kprobes ? std::min(status, 1) : 1) << out;
}

TEST(CliAlone, ArgumentsHelpAndNoService) {
  const std::string socket = tavo_test::UniqueName("tavo_nobody");
  const struct {
    std::vector<std::string> args;
    int status;
    std::string text;  // in stdout (status 0) or stderr
  } cases[] = {
      {{"--help"}, 0, "usage: tavoctl COMMAND"},
      {{"help", "dump"}, 0, "usage: tavoctl dump"},
      {{"watch", "nonsense"}, 2, "tavoctl: unknown event 'nonsense'"},
      {{"dump", "everything"}, 2, "tavoctl: unknown dump 'everything'"},
      {{"dump", "tasks", "--pid", "x"}, 2, "--pid wants a positive number"},
      {{"frobnicate"}, 2, "tavoctl: unknown command 'frobnicate'"},
      {{"help", "top"}, 0, "usage: tavoctl top"},
      {{"doctor", "--bogus"}, 2, "usage: tavoctl doctor"},
      {{"top", "--sort", "cpu"}, 2, "--sort wants memory, dmabuf, threads, pid or swap"},
      {{"top", "--batch", "--iterations", "0"}, 2, "--iterations wants a positive number"},
      {{"top", "--iterations", "1"}, 2, "--iterations goes with --batch or --json"},
      {{"top"}, 2, "top needs a terminal"},
      {{"watch", "--socket", socket, "all"}, 1, "tavoctl: service not running (no socket " + socket + ")\n"},
      {{"dump", "counters", "--socket", socket}, 1, "tavoctl: service not running (no socket " + socket + ")\n"},
  };
  for (const auto& c : cases) {
    Tavoctl tavoctl(c.args);
    EXPECT_EQ(tavoctl.Finish(), c.status) << c.text;
    EXPECT_NE((c.status == 0 ? tavoctl.Out() : tavoctl.Err()).find(c.text), std::string::npos) << tavoctl.Err();
  }
  // top shows /proc without the service, and says so.
  Tavoctl top({"top", "--socket", socket, "--batch", "--iterations", "1"});
  EXPECT_EQ(top.Finish(), 0) << top.Err();
  EXPECT_NE(top.Out().find("\nservice: NOT REACHABLE, reconnecting"), std::string::npos) << top.Out();
}
