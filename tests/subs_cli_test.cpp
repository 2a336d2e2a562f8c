// tavoctl as a child process against the service running in this process.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "event/tavo_bpf_event_manager.h"
#include "service/tavo_bpf_dump_requests.h"
#include "service/tavo_bpf_service.h"
#include "task/tavo_bpf_task_manager.h"
#include "tests/subs_test_util.h"
#include "tests/support/task_records.h"
#include "tests/support/tavoctl_child.h"
#include "tests/support/test_env.h"
#include "tools/tavo_cli/tavoctl_service_finder.h"

using namespace Tavo::Bpf;
using subs_test::InProcessService;
using subs_test::Subscribers;
using subs_test::WaitFor;
using tavo_test::Child;

namespace {

// Two watchers at once: JSON lines ended by SIGTERM, a text line by SIGINT.
TEST(SubsCli, WatchPrintsJsonAndTextLinesAndEndsOnSignal) {
  TAVO_REQUIRE_ISOLATION();
  InProcessService service;
  ASSERT_TRUE(service.ok());
  Child watch({"watch", "--json", "start", "fork", "5"});
  Child text({"watch", "end"});
  ASSERT_TRUE(WaitFor([] {
    return Subscribers(TAVO_NOTICE_PROCESS_START) == 1 && Subscribers(2) == 1 && Subscribers(5) == 1 &&
           Subscribers(TAVO_NOTICE_PROCESS_EXIT) == 1;
  }, 5000));

  auto fork = tavo_test::CreateRecord(4242, 1, "my app", 5000, TAVO_TASK_KIND_PROCESS);
  // The fork handler registers the task and sends the start notice itself.
  TavoBpfService::handleBpfRingBuffEvent(nullptr, &fork, sizeof(fork));
  auto cgroup = subs_test::Record(5, 30, 0);  // shorter than its layout
  TavoBpfService::handleBpfRingBuffEvent(nullptr, cgroup.data(), cgroup.size());
  tavo_notice_process_exit end{TAVO_NOTICE_PROCESS_EXIT, 99, {}};
  memcpy(end.comm, "bash", 4);
  EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&end), sizeof(end));

  const auto lines = watch.ReadLines(3);
  ASSERT_EQ(lines.size(), 3u) << watch.Out();
  // "time" leads each line; compare what follows it.
  auto body = [](const std::string& line) { return line.substr(line.find(",\"event\"")); };
  EXPECT_EQ(body(lines[0]),
            ",\"event\":\"sched_task_create\",\"code\":2,\"pid\":4242,\"ppid\":1,\"uid\":10001,"
            "\"comm\":\"my app\",\"kind\":\"process\",\"ts\":5000}");
  EXPECT_EQ(body(lines[1]),
            ",\"event\":\"start\",\"code\":50001,\"pid\":4242,\"ppid\":1,\"uid\":10001,\"comm\":\"my app\"}");
  EXPECT_EQ(body(lines[2]),
            ",\"event\":\"decode_error\",\"code\":5,\"reason\":\"short\",\"length\":30,\"expected\":120}");
  EXPECT_EQ(lines[0].rfind("{\"time\":\"", 0), 0u);
  const auto textLines = text.ReadLines(1);
  ASSERT_EQ(textLines.size(), 1u) << text.Out();
  // "HH:MM:SS.mmm end pid=99 comm=bash"
  ASSERT_EQ(textLines[0].size(), 12 + 21u) << textLines[0];
  EXPECT_EQ(textLines[0][2], ':');
  EXPECT_EQ(textLines[0][8], '.');
  EXPECT_EQ(textLines[0].substr(12), " end pid=99 comm=bash");

  watch.Signal(SIGTERM);
  EXPECT_EQ(watch.Finish(), 0) << watch.Err();
  text.Signal(SIGINT);
  EXPECT_EQ(text.Finish(), 0) << text.Err();
  EXPECT_TRUE(WaitFor([] { return Subscribers(2) == 0 && Subscribers(TAVO_NOTICE_PROCESS_EXIT) == 0; }));
}

TEST(SubsCli, BadArgumentsAndHelp) {
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* text;  // expected in stdout (status 0) or stderr
  };
  const Case cases[] = {
      {{"--help"}, 0, "usage: tavoctl COMMAND"},
      {{"watch", "--help"}, 0, "usage: tavoctl watch"},
      {{"dump", "--help"}, 0, "usage: tavoctl dump"},
      {{"help", "dump"}, 0, "usage: tavoctl dump"},
      {{"watch", "nonsense"}, 2, "tavoctl: unknown event 'nonsense'"},
      {{"dump", "everything"}, 2, "tavoctl: unknown dump 'everything'"},
      {{"dump", "tasks", "--pid", "x"}, 2, "--pid wants a positive number"},
      {{"frobnicate"}, 2, "tavoctl: unknown command 'frobnicate'"},
      {{"help", "top"}, 0, "usage: tavoctl top"},
      {{"top", "--sort", "cpu"}, 2, "--sort wants memory, dmabuf, threads, pid or swap"},
      {{"top", "--batch", "--iterations", "0"}, 2, "--iterations wants a positive number"},
      {{"top", "--iterations", "1"}, 2, "--iterations goes with --batch or --json"},
      {{"top"}, 2, "top needs a terminal"},
      {{}, 2, "usage: tavoctl COMMAND"},
  };
  for (const Case& c : cases) {
    Child child(c.args);
    EXPECT_EQ(child.Finish(), c.status) << c.text;
    const std::string& where = c.status == 0 ? child.Out() : child.Err();
    EXPECT_NE(where.find(c.text), std::string::npos) << where;
  }
}

// tavoctl finds the socket holder, signals it and prints the file it writes.
TEST(SubsCli, DumpsSignalTheSocketHolderAndPrintTheFile) {
  TAVO_REQUIRE_ISOLATION();
  TAVO_REQUIRE_DATA();
  InProcessService service;
  ASSERT_TRUE(service.ok());
  // The dumps create only their last directory, as on a device.
  mkdir("/data/tavolog", 0775);
  mkdir("/data/tavolog/stability", 0775);
  InstallDumpSignalHandlers();
  auto record = subs_test::Record(4, 32, 0);
  TavoBpfService::handleBpfRingBuffEvent(nullptr, record.data(), record.size());
  const struct {
    std::vector<std::string> args;
    const char* starts;
    const char* holds;
  } cases[] = {
      {{"dump", "counters"}, "EventCount, tavo_task_init, ", "\r\n1, 0, 0, 0, 0, 1, "},
      {{"dump", "tasks-short", "--pid", std::to_string(getpid())}, "============ DUMP ALL TAVO TASKS INFO (count: ",
       ""},
  };
  for (const auto& c : cases) {
    Child dump(c.args);
    ASSERT_EQ(dump.Finish(), 0) << dump.Err();
    EXPECT_EQ(dump.Out().rfind(c.starts, 0), 0u) << dump.Out();
    EXPECT_NE(dump.Out().find(c.holds), std::string::npos) << dump.Out();
  }
}

TEST(SubsCli, WatchAndDumpWithoutServiceSaySoAtOnce) {
  TAVO_REQUIRE_ISOLATION();
  EXPECT_TRUE(Tavo::Cli::SocketInodes("Num RefCount Protocol Flags Type St Inode Path\n"
                                      "0000: 00000002 00000000 00010000 0001 01 4711 @/mnt/bpfframework/tavobpfdispatcher\n"
                                      "0000: 00000002 00000000 00000000 0001 03 4712\n"
                                      "0000: 00000002 00000000 00010000 0001 01 4713 @/other\n",
                                      subs_test::kSocket) == std::set<unsigned long>{4711});
  // Processes named like the service elsewhere on the machine live in other
  // network namespaces and are passed over.
  EXPECT_EQ(Tavo::Cli::FindServicePid(subs_test::kSocket), -1);
  for (const auto& args : {std::vector<std::string>{"dump", "counters"}, {"watch", "all"}}) {
    Child child(args);
    EXPECT_EQ(child.Finish(3000), 1) << args[0];
    EXPECT_EQ(child.Err(), "tavoctl: service not running (no socket /mnt/bpfframework/tavobpfdispatcher)\n");
    EXPECT_EQ(child.Out(), "");
  }
  // top shows /proc without the service, and says so.
  Child top({"top", "--batch", "--iterations", "1"});
  EXPECT_EQ(top.Finish(), 0) << top.Err();
  EXPECT_NE(top.Out().find("\nservice: NOT REACHABLE, reconnecting"), std::string::npos) << top.Out();
}

}  // namespace
