// tavoctl wait: returns once the service's socket accepts connections, for
// scripts that start a daemon and go on when it serves.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "client/tavo_client.h"
#include "tools/tavo_cli/tavoctl_commands.h"
#include "util/tavo_options.h"

namespace Tavo::Cli {

namespace {

struct WaitArgs {
  int timeoutMs = 10000;
  std::string socket = Client::kServiceSocket;
};

Tavo::Bpf::TavoOptions WaitOptions(WaitArgs* args) {
  Tavo::Bpf::TavoOptions options("tavoctl wait", "[--timeout-ms MS] [--socket NAME]");
  options.Number("--timeout-ms", &args->timeoutMs, "MS", "give up after this long (default 10000)", 0)
      .Text("--socket", &args->socket, "NAME",
            std::string("the service's socket (default ") + Client::kServiceSocket + ")")
      .Epilog("Waits until the service accepts connections on its socket.\n"
              "Exit status: 0 once it does, 1 when the time ran out, 2 for bad arguments.\n");
  return options;
}

}  // namespace

int WaitCommand(int argc, char** argv) {
  WaitArgs args;
  if (const int status = WaitOptions(&args).ParseOrStatus(argc, argv); status >= 0) return status;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(args.timeoutMs);
  while (!Client::ServiceListening(args.socket)) {
    if (std::chrono::steady_clock::now() >= deadline) return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return 0;
}

}  // namespace Tavo::Cli
