// tavoctl dump: signal the service to write a dump, wait for it, print it.
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <android-base/file.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/tavo_cli/tavoctl_commands.h"
#include "tools/tavo_cli/tavoctl_service_finder.h"
#include "client/tavo_client.h"
#include "util/tavo_options.h"
#include "util/tavo_service_contract.h"

namespace Tavo::Cli {

namespace {

using Tavo::Bpf::kDumpDir;
constexpr const char* kTaskDump = Tavo::Bpf::kTaskDumpFile;
constexpr const char* kCounterDump = Tavo::Bpf::kStateDumpFile;
constexpr long kPollMs = 20;

struct DumpKind {
  const char* name;
  int signal;
  const char* file;  // in the dump folder
};

const DumpKind kKinds[] = {
    {"tasks", Tavo::Bpf::kDumpSignalTasks, kTaskDump},
    {"tasks-nonkernel", Tavo::Bpf::kDumpSignalTasksNonKernel, kTaskDump},
    {"tasks-short", Tavo::Bpf::kDumpSignalTasksShort, kTaskDump},
    {"tasks-short-nonkernel", Tavo::Bpf::kDumpSignalTasksShortNonKernel, kTaskDump},
    {"counters", Tavo::Bpf::kDumpSignalState, kCounterDump},
};

struct FileStamp {
  bool exists = false;
  ino_t inode = 0;
  timespec mtime{};
  off_t size = 0;
};

FileStamp Stamp(const char* path) {
  FileStamp stamp;
  struct stat st {};
  if (stat(path, &st) == 0) {
    stamp.exists = true;
    stamp.inode = st.st_ino;
    stamp.mtime = st.st_mtim;
    stamp.size = st.st_size;
  }
  return stamp;
}

bool Newer(const FileStamp& now, const FileStamp& before) {
  if (!now.exists) return false;
  if (!before.exists || now.inode != before.inode) return true;
  return now.mtime.tv_sec > before.mtime.tv_sec ||
         (now.mtime.tv_sec == before.mtime.tv_sec && now.mtime.tv_nsec > before.mtime.tv_nsec);
}

void SleepMs(long ms) {
  timespec ts{ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

struct DumpArgs {
  std::vector<std::string> what;
  long pid = -1;
  long timeoutSec = 5;
  std::string socket = Tavo::Client::kServiceSocket;
  std::string dir = kDumpDir;
};

Tavo::Bpf::TavoOptions DumpOptions(DumpArgs* args) {
  Tavo::Bpf::TavoOptions options("tavoctl dump", "WHAT [--pid PID] [--timeout SECONDS] [--socket NAME] [--dir DIR]");
  options.Number("--pid", &args->pid, "PID",
                 "the service's process (default: the holder of the socket, else a process named tavo_bpfd or tavo_host)",
                 1L)
      .Number("--timeout", &args->timeoutSec, "SECONDS", "how long to wait for the file (default 5)", 1L)
      .Text("--socket", &args->socket, "NAME",
            std::string("the service's socket (default ") + Tavo::Client::kServiceSocket + ")")
      .Text("--dir", &args->dir, "DIR", std::string("the service's dump folder (default ") + kDumpDir + ")")
      .Positionals(&args->what)
      .Epilog(std::string("Makes the service write a dump and prints it. WHAT is one of:\n"
                          "  tasks                  all tracked tasks, full columns        (signal 51)\n"
                          "  tasks-nonkernel        tasks with memory, full columns        (signal 52)\n"
                          "  tasks-short            all tracked tasks, short columns       (signal 53)\n"
                          "  tasks-short-nonkernel  tasks with memory, short columns       (signal 54)\n"
                          "  counters               per-second event counts, CSV           (signal 50)\n"
                          "\n"
                          "Task dumps are read from DIR/") +
              kTaskDump + ", counters from DIR/" + kCounterDump + ".\n");
  return options;
}

}  // namespace

int DumpCommand(int argc, char** argv) {
  DumpArgs args;
  Tavo::Bpf::TavoOptions parser = DumpOptions(&args);
  if (const int status = parser.ParseOrStatus(argc, argv); status >= 0) return status;
  const DumpKind* kind = nullptr;
  for (const std::string& word : args.what) {
    if (kind != nullptr) {
      fprintf(stderr, "tavoctl: unexpected argument '%s'\n", word.c_str());
      return 2;
    }
    for (const DumpKind& k : kKinds) {
      if (word == k.name) kind = &k;
    }
    if (kind == nullptr) {
      fprintf(stderr, "tavoctl: unknown dump '%s'\n", word.c_str());
      parser.PrintUsage(stderr);
      return 2;
    }
  }
  long pid = args.pid;
  const long timeoutSec = args.timeoutSec;
  const std::string& socket = args.socket;
  const std::string& dir = args.dir;
  if (kind == nullptr) {
    parser.PrintUsage(stderr);
    return 2;
  }
  if (pid < 0) pid = FindServicePid(socket);
  if (pid < 0) {
    fprintf(stderr, "tavoctl: service not running (no socket %s)\n", socket.c_str());
    return 1;
  }
  const std::string file = dir + "/" + kind->file;
  const FileStamp before = Stamp(file.c_str());
  if (kill(static_cast<pid_t>(pid), kind->signal) != 0) {
    fprintf(stderr, "tavoctl: cannot signal process %ld: %s\n", pid, strerror(errno));
    return 1;
  }
  const long deadlinePolls = timeoutSec * 1000 / kPollMs;
  FileStamp now;
  long polls = 0;
  for (; polls < deadlinePolls; ++polls) {
    SleepMs(kPollMs);
    now = Stamp(file.c_str());
    if (Newer(now, before)) break;
  }
  if (polls == deadlinePolls) {
    // The service installs its dump handlers only once its pumps run; before
    // that the signal ends the process.
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
      fprintf(stderr, "tavoctl: process %ld ended on signal %d (no dump handler installed)\n", pid,
              kind->signal);
      return 1;
    }
    fprintf(stderr, "tavoctl: process %ld wrote no %s within %ld s\n", pid, file.c_str(), timeoutSec);
    return 1;
  }
  // The writer may still be at it: wait until the file stops changing.
  for (; polls < deadlinePolls; ++polls) {
    SleepMs(kPollMs);
    const FileStamp later = Stamp(file.c_str());
    if (later.exists && later.size == now.size && later.mtime.tv_sec == now.mtime.tv_sec &&
        later.mtime.tv_nsec == now.mtime.tv_nsec) {
      break;
    }
    now = later;
  }
  std::string content;
  if (!android::base::ReadFileToString(file, &content)) {
    fprintf(stderr, "tavoctl: cannot read %s: %s\n", file.c_str(), strerror(errno));
    return 1;
  }
  fwrite(content.data(), 1, content.size(), stdout);
  return 0;
}

}  // namespace Tavo::Cli
