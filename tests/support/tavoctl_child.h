// tavoctl (or another program) as a child process with its output on
// pipes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/pump_object.h"

namespace tavo_test {

// The tools of this build, found from the test's own folder.
inline std::string TavoctlPath() { return BesideExecutable("../tools/tavo_cli/tavoctl"); }
inline std::string TavoBpfdPath() { return BesideExecutable("../tools/tavo_bpfd/tavo_bpfd"); }

// A program (tavoctl unless told otherwise) with its output on pipes.
class Child {
 public:
  explicit Child(std::vector<std::string> args, std::string path = TavoctlPath()) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    pid = fork();
    if (pid == 0) {
      dup2(out[1], 1);
      dup2(err[1], 2);
      std::vector<char*> argv;
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

  // Reads what stdout has, waiting up to ms for the first bytes.
  void Poll(int ms) {
    while (ReadSome(stdoutFd.get(), &out, ms)) ms = 0;
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

}  // namespace tavo_test
