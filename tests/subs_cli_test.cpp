// tavoctl as a child process against the service running in this process.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
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
#include "tests/support/test_env.h"
#include "tools/tavo_cli/tavoctl_service_finder.h"

using namespace Tavo::Bpf;
using subs_test::InProcessService;
using subs_test::Subscribers;
using subs_test::WaitFor;

namespace {

// A running tavoctl with its output on pipes.
class Child {
 public:
  explicit Child(std::vector<std::string> args) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    pid = fork();
    if (pid == 0) {
      dup2(out[1], 1);
      dup2(err[1], 2);
      std::vector<char*> argv;
      std::string path = TAVOCTL_PATH;
      argv.push_back(path.data());
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(path.c_str(), argv.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    stdoutFd.reset(out[0]);
    stderrFd.reset(err[0]);
  }
  ~Child() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }

  // Reads stdout until it holds `lines` line breaks or the time is up.
  std::vector<std::string> ReadLines(size_t lines, int timeoutMs = 5000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Count(out, '\n') < lines && std::chrono::steady_clock::now() < deadline) {
      ReadSome(stdoutFd.get(), &out, 50);  // a slow child may take longer than one poll
    }
    std::vector<std::string> result;
    size_t start = 0;
    for (size_t nl = out.find('\n'); nl != std::string::npos; nl = out.find('\n', start)) {
      result.push_back(out.substr(start, nl - start));
      start = nl + 1;
    }
    return result;
  }

  // Waits for the exit status; drains both pipes.
  int Finish(int timeoutMs = 10000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) return -1;
      ReadSome(stdoutFd.get(), &out, 20);
      ReadSome(stderrFd.get(), &err, 0);
    }
    while (ReadSome(stdoutFd.get(), &out, 0)) {
    }
    while (ReadSome(stderrFd.get(), &err, 0)) {
    }
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  void Signal(int sig) { kill(pid, sig); }
  const std::string& Out() const { return out; }
  const std::string& Err() const { return err; }

 private:
  static size_t Count(const std::string& s, char c) {
    size_t n = 0;
    for (char x : s) n += x == c;
    return n;
  }
  static bool ReadSome(int fd, std::string* into, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return false;
    char buf[4096];
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0) return false;
    into->append(buf, static_cast<size_t>(n));
    return true;
  }

  pid_t pid = -1;
  android::base::unique_fd stdoutFd, stderrFd;
  std::string out, err;
};

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
}

}  // namespace
