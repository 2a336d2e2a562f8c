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

bool ParseNumber(const char* text, long* value) {
  char* end = nullptr;
  errno = 0;
  *value = strtol(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && *value > 0;
}

}  // namespace

void PrintDumpHelp(bool toStderr) {
  fprintf(toStderr ? stderr : stdout,
          "usage: tavoctl dump WHAT [--pid PID] [--timeout SECONDS] [--socket NAME] [--dir DIR]\n"
          "\n"
          "Makes the service write a dump and prints it. WHAT is one of:\n"
          "  tasks                  all tracked tasks, full columns        (signal 51)\n"
          "  tasks-nonkernel        tasks with memory, full columns        (signal 52)\n"
          "  tasks-short            all tracked tasks, short columns       (signal 53)\n"
          "  tasks-short-nonkernel  tasks with memory, short columns       (signal 54)\n"
          "  counters               per-second event counts, CSV           (signal 50)\n"
          "\n"
          "Task dumps are read from DIR/%s, counters from DIR/%s.\n"
          "\n"
          "Options:\n"
          "  --pid PID          the service's process (default: the holder of the\n"
          "                     socket, else a process named tavo_bpfd or tavo_host)\n"
          "  --timeout SECONDS  how long to wait for the file (default 5)\n"
          "  --socket NAME      the service's socket (default %s)\n"
          "  --dir DIR          the service's dump folder (default %s)\n",
          kTaskDump, kCounterDump, Tavo::Client::kServiceSocket, kDumpDir);
}

int DumpCommand(int argc, char** argv) {
  const DumpKind* kind = nullptr;
  long pid = -1;
  long timeoutSec = 5;
  std::string socket = Tavo::Client::kServiceSocket;
  std::string dir = kDumpDir;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      PrintDumpHelp(false);
      return 0;
    } else if ((arg == "--socket" || arg == "--dir") && i + 1 < argc) {
      (arg == "--socket" ? socket : dir) = argv[++i];
    } else if (arg == "--pid" || arg == "--timeout") {
      long value = 0;
      if (i + 1 >= argc || !ParseNumber(argv[i + 1], &value)) {
        fprintf(stderr, "tavoctl: %s wants a positive number\n", arg.c_str());
        return 2;
      }
      (arg == "--pid" ? pid : timeoutSec) = value;
      ++i;
    } else if (kind == nullptr) {
      for (const DumpKind& k : kKinds) {
        if (arg == k.name) kind = &k;
      }
      if (kind == nullptr) {
        fprintf(stderr, "tavoctl: unknown dump '%s'\n", arg.c_str());
        PrintDumpHelp(true);
        return 2;
      }
    } else {
      fprintf(stderr, "tavoctl: unexpected argument '%s'\n", arg.c_str());
      return 2;
    }
  }
  if (kind == nullptr) {
    PrintDumpHelp(true);
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
