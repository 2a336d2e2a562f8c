// tavoctl: command-line client of the process-monitoring service.
#include <android/log.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/tavo_cli/tavoctl_commands.h"

namespace {

void PrintHelp(FILE* out) {
  fprintf(out,
          "usage: tavoctl COMMAND [ARGS]\n"
          "\n"
          "Commands:\n"
          "  watch [--json] [--wait] [EVENT...]   print events as the service reports them\n"
          "  dump WHAT [--pid PID] [--timeout S]  make the service write a dump and print it\n"
          "  top [--sort KEY] [--batch] [--json]  the processes at a glance, kept current\n"
          "  wait [--timeout-ms MS]               return once the service accepts connections\n"
          "  doctor [--json]                      what this kernel and system offer the service\n"
          "  help [COMMAND]                       this text, or a command's help\n"
          "\n"
          "'tavoctl COMMAND --help' tells more. Set TAVOCTL_DEBUG=1 to see the socket\n"
          "layer's log on stderr.\n");
}

// The socket layer logs every retry and hang-up; a command-line tool says
// what matters itself.
void DropLog(const __android_logger_data*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
  const char* debug = getenv("TAVOCTL_DEBUG");
  if (debug == nullptr || strcmp(debug, "1") != 0) __android_log_set_logger(DropLog);
  const struct {
    const char* name;
    int (*run)(int, char**);
  } commands[] = {
      {"watch", Tavo::Cli::WatchCommand},
      {"dump", Tavo::Cli::DumpCommand},
      {"top", Tavo::Cli::TopCommand},
      {"wait", Tavo::Cli::WaitCommand},
      {"doctor", Tavo::Cli::DoctorCommand},
  };
  if (argc < 2) {
    PrintHelp(stderr);
    return 2;
  }
  const char* command = argv[1];
  if (strcmp(command, "--help") == 0 || strcmp(command, "-h") == 0) {
    PrintHelp(stdout);
    return 0;
  }
  if (strcmp(command, "help") == 0) {
    // "help COMMAND" is "COMMAND --help".
    for (const auto& c : commands) {
      if (argc > 2 && strcmp(argv[2], c.name) == 0) {
        char help[] = "--help";
        char* args[] = {argv[2], help, nullptr};
        return c.run(2, args);
      }
    }
    PrintHelp(stdout);
    return 0;
  }
  for (const auto& c : commands) {
    if (strcmp(command, c.name) == 0) return c.run(argc - 1, argv + 1);
  }
  fprintf(stderr, "tavoctl: unknown command '%s'\n", command);
  PrintHelp(stderr);
  return 2;
}
