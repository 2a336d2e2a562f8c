// tavoctl as a child process against a service running in this process.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <string>
#include <vector>

#include "service/tavo_bpf_service.h"
#include "tests/support/pump_object.h"
#include "tests/support/records.h"
#include "tests/support/test_env.h"
#include "tests/support/wait.h"
#include "tools/tavo_cli/tavoctl_service_finder.h"

using namespace Tavo::Bpf;

namespace {

// A running tavoctl with its output on pipes.
class Tavoctl {
 public:
  explicit Tavoctl(std::vector<std::string> args) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    std::string path = tavo_test::BesideExecutable("../tools/tavo_cli/tavoctl");
    std::vector<char*> argv{path.data()};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], 1);
      dup2(err[1], 2);
      execv(path.c_str(), argv.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    out_.reset(out[0]);
    err_.reset(err[0]);
  }
  ~Tavoctl() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    Finish();
  }

  // Reads stdout until it holds `lines` lines or the time is up.
  std::vector<std::string> Lines(size_t lines) {
    tavo_test::WaitFor([&] {
      Read(out_.get(), &stdout_, 20);
      return static_cast<size_t>(std::count(stdout_.begin(), stdout_.end(), '\n')) >= lines;
    }, 5000);
    std::vector<std::string> result;
    for (size_t start = 0, nl; (nl = stdout_.find('\n', start)) != std::string::npos; start = nl + 1) {
      result.push_back(stdout_.substr(start, nl - start));
    }
    return result;
  }
  // The exit status, once both pipes are drained.
  int Finish() {
    int status = 0;
    while (pid_ > 0 && waitpid(pid_, &status, WNOHANG) != pid_) {
      Read(out_.get(), &stdout_, 10);
      Read(err_.get(), &stderr_, 0);
    }
    pid_ = -1;
    while (Read(out_.get(), &stdout_, 0) || Read(err_.get(), &stderr_, 0)) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  void Signal(int sig) { kill(pid_, sig); }
  const std::string& Out() const { return stdout_; }
  const std::string& Err() const { return stderr_; }

 private:
  static bool Read(int fd, std::string* into, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    char buf[4096];
    if (fd < 0 || poll(&p, 1, timeoutMs) <= 0) return false;
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n > 0) into->append(buf, static_cast<size_t>(n));
    return n > 0;
  }

  pid_t pid_ = -1;
  android::base::unique_fd out_, err_;
  std::string stdout_, stderr_;
};

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

  const auto lines = json.Lines(3);
  ASSERT_EQ(lines.size(), 3u) << json.Out();
  auto body = [](const std::string& line) { return line.substr(line.find(",\"event\"")); };  // after "time"
  EXPECT_EQ(body(lines[0]), ",\"event\":\"sched_task_create\",\"code\":2,\"pid\":4242,\"ppid\":1,\"uid\":10001,"
                            "\"comm\":\"my app\",\"kind\":\"process\",\"ts\":5000}");
  EXPECT_EQ(body(lines[1]), ",\"event\":\"start\",\"code\":50001,\"pid\":4242,\"ppid\":1,\"uid\":10001,\"comm\":\"my app\"}");
  EXPECT_EQ(body(lines[2]), ",\"event\":\"decode_error\",\"code\":5,\"reason\":\"short\",\"length\":30,\"expected\":120}");
  const auto textLines = text.Lines(1);
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

TEST(CliAlone, ArgumentsHelpAndNoService) {
  const std::string socket = tavo_test::UniqueName("tavo_nobody");
  EXPECT_EQ(Tavo::Cli::SocketInodes("Num RefCount Protocol Flags Type St Inode Path\n"
                                    "0000: 00000002 00000000 00010000 0001 01 4711 @" + socket + "\n"
                                    "0000: 00000002 00000000 00000000 0001 03 4712\n"
                                    "0000: 00000002 00000000 00010000 0001 01 4713 @/other\n", socket),
            (std::set<unsigned long>{4711}));
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
      {{"watch", "--socket", socket, "all"}, 1, "tavoctl: service not running (no socket " + socket + ")\n"},
      {{"dump", "counters", "--socket", socket}, 1, "tavoctl: service not running (no socket " + socket + ")\n"},
  };
  for (const auto& c : cases) {
    Tavoctl tavoctl(c.args);
    EXPECT_EQ(tavoctl.Finish(), c.status) << c.text;
    EXPECT_NE((c.status == 0 ? tavoctl.Out() : tavoctl.Err()).find(c.text), std::string::npos) << tavoctl.Err();
  }
}
