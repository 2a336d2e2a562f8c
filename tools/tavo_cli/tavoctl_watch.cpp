// tavoctl watch: subscribe to event codes and print one line per event.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/tavo_cli/tavoctl_commands.h"
#include "client/tavo_client.h"
#include "client/tavo_event_format.h"
#include "util/tavo_event_names.h"
#include "util/tavo_options.h"

namespace Tavo::Cli {

namespace {

using Tavo::Client::TavoClient;

// Waits up to ms for SIGINT or SIGTERM (blocked in every thread); true if one came.
bool StopRequested(const sigset_t& stopSignals, long ms) {
  timespec timeout{ms / 1000, (ms % 1000) * 1000000L};
  for (;;) {
    const int sig = sigtimedwait(&stopSignals, nullptr, &timeout);
    if (sig > 0) return true;
    if (errno != EINTR) return false;
  }
}

}  // namespace

namespace {

struct WatchArgs {
  bool json = false;
  bool wait = false;
  std::vector<std::string> events;
  TavoClient::Options client;
};

Tavo::Bpf::TavoOptions WatchOptions(WatchArgs* args) {
  // The raw type names, from the one table, wrapped at about 76 columns.
  std::string rawNames;
  size_t column = 28;
  for (int type = 0; type < Tavo::Bpf::kRawEventCount; ++type) {
    const std::string name = Tavo::Bpf::RawEventName(type);
    if (column + 1 + name.size() > 76) {
      rawNames += "\n ";
      column = 1;
    }
    rawNames += " " + name;
    column += 1 + name.size();
  }
  Tavo::Bpf::TavoOptions options("tavoctl watch", "[--json] [--wait] [--socket NAME]");
  options.Flag("--json", &args->json, "one JSON object per line instead of text")
      .Flag("--wait", &args->wait, "keep trying to connect (every 5 s) instead of failing at once")
      .Text("--socket", &args->client.socketPath, "NAME",
            std::string("the service's socket (default ") + Tavo::Client::kServiceSocket + ")")
      .Positionals(&args->events, "[EVENT...]")
      .Epilog("Subscribes to the given events and prints one line per event until\n"
              "interrupted (SIGINT or SIGTERM). Without EVENT, watches the notices.\n"
              "\n"
              "EVENT is a code or a name:\n"
              "  start (50001)  end (50002)  threads (50003)  memory (50004)  dmabuf (50005)\n"
              "  fork (2)  exit (3)  rss (1)\n"
              "  the raw type names 0..14:" + rawNames + "\n"
              "  notices (all 5000x), raw (0..14), all\n"
              "\n"
              "Exit status: 0 after an interrupt, 1 when the service is not running or\n"
              "refuses a subscription, 2 for bad arguments.\n");
  return options;
}

}  // namespace

int WatchCommand(int argc, char** argv) {
  WatchArgs args;
  Tavo::Bpf::TavoOptions parser = WatchOptions(&args);
  if (const int status = parser.ParseOrStatus(argc, argv); status >= 0) return status;
  std::vector<uint32_t> codes;
  for (const std::string& word : args.events) {
    if (!Tavo::Bpf::ResolveEventArgument(word, &codes)) {
      fprintf(stderr, "tavoctl: unknown event '%s'\n", word.c_str());
      parser.PrintUsage(stderr);
      return 2;
    }
  }
  const bool json = args.json;
  TavoClient::Options& options = args.client;
  if (codes.empty()) Tavo::Bpf::ResolveEventArgument("notices", &codes);
  std::vector<uint32_t> unique;
  for (uint32_t code : codes) {
    bool seen = false;
    for (uint32_t u : unique) seen = seen || u == code;
    if (!seen) unique.push_back(code);
  }

  // Blocked before the client's thread exists, so only sigtimedwait sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  setvbuf(stdout, nullptr, _IOLBF, 0);

  options.waitForService = args.wait;
  TavoClient client(
      [json](const Tavo::Client::Event& event) {
        const std::string clock = Tavo::Client::ClockNow();
        const std::string line = json ? Tavo::Client::FormatEventJson(event, clock)
                                      : Tavo::Client::FormatEventText(event, clock);
        printf("%s\n", line.c_str());
        // SIGPIPE is ignored process-wide by the socket layer; a reader that
        // went away (| head) ends the watch like an interrupt.
        if (ferror(stdout)) kill(getpid(), SIGTERM);
      },
      options);
  bool everConnected = false;
  client.SetConnectionCallback([&everConnected](bool up) {
    // Only changes after the first connection are news.
    if (!up) {
      fprintf(stderr, "tavoctl: connection to the service lost, reconnecting\n");
    } else if (everConnected) {
      fprintf(stderr, "tavoctl: reconnected\n");
    }
    everConnected = everConnected || up;
  });
  if (client.Connect() != 0) {
    fprintf(stderr, "tavoctl: service not running (no socket %s)\n", options.socketPath.c_str());
    return 1;
  }
  if (args.wait) {
    while (!client.IsConnected()) {
      if (StopRequested(stopSignals, 200)) return 0;
    }
  }
  for (uint32_t code : unique) {
    if (client.Subscribe(code) != 0) {
      fprintf(stderr, "tavoctl: subscribing to %s failed: %s\n",
              Tavo::Bpf::EventName(code).c_str(), strerror(errno));
      return 1;
    }
  }
  while (!StopRequested(stopSignals, 1000)) {
  }
  client.Close();
  return 0;
}

}  // namespace Tavo::Cli
