// tavoctl top: the process table at a glance, on a terminal or as frames.
#include <curses.h>
#include <langinfo.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "tools/tavo_cli/tavoctl_commands.h"
#include "tools/tavo_cli/tavoctl_top_format.h"
#include "tools/tavo_cli/tavoctl_top_model.h"
#include "tools/tavo_cli/tavoctl_top_proc.h"
#include "tools/tavo_cli/tavoctl_top_screen.h"
#include "util/tavo_options.h"
#include "client/tavo_client.h"

namespace Tavo::Cli {

namespace {

using Tavo::Client::TavoClient;

constexpr uint32_t kNotices[] = {50001, 50002, 50003, 50004, 50005};
constexpr int kTickMs = 250;           // housekeeping and key polling
constexpr int64_t kFrameMs = 1000;     // a frame at least this often
constexpr int64_t kClientsEveryMs = 2000;
constexpr size_t kIdentifyPerTick = 64;

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

struct Options {
  bool batch = false;
  bool json = false;
  uint64_t iterations = 0;  // 0: until interrupted
  ViewChoice view;
  std::string socket = Client::kServiceSocket;
};

// The service connection and the table it feeds; the work done between frames.
class Feed {
 public:
  explicit Feed(const std::string& socket)
      : model(&NowMs), socket_(socket), client([this](const Client::Event& e) { model.Apply(e); }, ClientOptions(socket)) {
    client.SetConnectionCallback([this](bool up) {
      model.SetConnected(up);
      // Notices were missed while away: read the table afresh.
      if (up) reseed = true;
    });
  }

  void Start() {
    client.Connect();  // with waitForService it only starts the socket thread
    // A listening service answers at once; otherwise show /proc right away.
    for (int i = 0; i < 30 && !client.IsConnected(); ++i) usleep(10 * 1000);
    Housekeep();
  }

  // Subscribes once connected, re-reads /proc after a (re)connection, reads
  // new processes once and counts the service's clients.
  void Housekeep() {
    const bool up = client.IsConnected();
    if (up && !subscribed) {
      subscribed = true;
      // The client renews these by itself after a reconnection.
      for (uint32_t code : kNotices) subscribed = subscribed && client.Subscribe(code) == 0;
      if (subscribed) reseed = true;
    }
    if (reseed.exchange(false) || !seeded) {
      seeded = true;
      model.Reseed([] { return TopProc::Scan(NowMs()); });
    }
    for (int32_t pid : model.TakeUnidentified(kIdentifyPerTick)) {
      ProcessRow row;
      model.Identify(pid, TopProc::Read(pid, NowMs(), &row) ? &row : nullptr);
    }
    const int64_t now = NowMs();
    if (now - clientsReadMs >= kClientsEveryMs || up != clientsUp) {
      clientsReadMs = now;
      clientsUp = up;
      model.SetClients(up ? TopProc::ServiceClients(socket_) : -1);
    }
  }

  void Stop() { client.Close(); }

  TopModel model;

 private:
  static TavoClient::Options ClientOptions(const std::string& socket) {
    TavoClient::Options options;
    options.socketPath = socket;
    options.waitForService = true;  // keeps trying every 5 s
    return options;
  }

  const std::string socket_;
  TavoClient client;
  std::atomic<bool> reseed{false};
  bool subscribed = false;
  bool seeded = false;
  int64_t clientsReadMs = 0;
  bool clientsUp = false;
};

// SIGINT and SIGTERM as a descriptor; blocked in every thread started later.
android::base::unique_fd StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGWINCH);  // only the terminal's thread takes it (below)
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  sigdelset(&set, SIGWINCH);
  return android::base::unique_fd(signalfd(-1, &set, SFD_CLOEXEC));
}

// Waits up to ms for a stop signal or input on stdin; true on a stop signal.
bool WaitForStop(int signals, bool watchStdin, int ms) {
  pollfd fds[2] = {{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  if (poll(fds, watchStdin ? 2 : 1, ms) <= 0) return false;
  return (fds[0].revents & POLLIN) != 0;
}

int RunBatch(Feed& feed, const Options& options, int signals) {
  const bool unicode = !options.json && strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  for (uint64_t frames = 0;;) {
    feed.Housekeep();
    const Snapshot frame = feed.model.Take();
    const auto rows = TopModel::Arrange(frame.rows, options.view.sort, options.view.filter);
    const std::string text = options.json ? TopFormat::JsonFrame(frame, rows, options.view.sort) + "\n"
                                          : TopFormat::TextFrame(frame, rows, options.view, unicode);
    // SIGPIPE is ignored by the socket layer: a reader that went away shows here.
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) return 1;
    if (++frames == options.iterations) return 0;
    for (int64_t waited = 0; waited < kFrameMs; waited += kTickMs) {
      if (WaitForStop(signals, false, kTickMs)) return 0;
      feed.Housekeep();
    }
  }
}

int RunScreen(Feed& feed, Options options, int signals) {
  TopScreen screen;
  sigset_t winch;
  sigemptyset(&winch);
  sigaddset(&winch, SIGWINCH);
  pthread_sigmask(SIG_UNBLOCK, &winch, nullptr);
  Snapshot shown;
  bool editing = false;
  std::string typed;
  int64_t drawnMs = -kFrameMs;
  bool redraw = true;
  for (;;) {
    for (int key = screen.NextKey(); key != -1; key = screen.NextKey()) {
      redraw = true;
      if (editing) {
        if (key == '\r' || key == '\n' || key == KEY_ENTER) {
          options.view.filter = typed;
          editing = false;
        } else if (key == 27) {  // Esc
          editing = false;
        } else if (key == KEY_BACKSPACE || key == 127 || key == 8) {
          if (!typed.empty()) typed.pop_back();
        } else if (key >= 0x20 && key < 0x7f) {
          typed += static_cast<char>(key);
        }
        continue;
      }
      SortKey sort;
      if (key == 'q' || key == 'Q') return 0;
      if (key == '/') {
        editing = true;
        typed = options.view.filter;
      } else if (key == ' ') {
        options.view.paused = !options.view.paused;
      } else if (key >= 0 && key < 0x80 && TopFormat::ParseSortKey(std::string(1, static_cast<char>(key)), &sort)) {
        options.view.sort = sort;
      }
    }
    const int64_t now = NowMs();
    if (!options.view.paused &&
        (now - drawnMs >= kFrameMs || (feed.model.Changed() && now - drawnMs >= kTickMs))) {
      shown = feed.model.Take();
      redraw = true;
    }
    if (redraw) {
      const auto rows = TopModel::Arrange(shown.rows, options.view.sort, options.view.filter);
      screen.Draw(shown, rows, options.view, editing ? "filter: " + typed : "");
      drawnMs = now;
      redraw = false;
    }
    if (WaitForStop(signals, true, kTickMs)) return 0;
    feed.Housekeep();
  }
}

Tavo::Bpf::TavoOptions TopOptions(Options* options) {
  Tavo::Bpf::TavoOptions parser("tavoctl top", "[--sort KEY] [--batch [--iterations N]] [--json] [--socket NAME]");
  parser
      .Value("--sort", [options](const std::string& v) { return TopFormat::ParseSortKey(v, &options->view.sort); },
             "KEY", "memory (default), dmabuf, threads, pid or swap", "memory, dmabuf, threads, pid or swap")
      .Flag("--batch", &options->batch, "plain-text frames on stdout, one a second, like top -b")
      .Number("--iterations", &options->iterations, "N", "with --batch or --json: stop after N frames", uint64_t{1})
      .Flag("--json", &options->json, "one JSON object per frame and line (sizes in bytes)")
      .Text("--socket", &options->socket, "NAME",
            std::string("the service's socket (default ") + Client::kServiceSocket + ")")
      .Epilog("Shows the processes as the service sees them: pid, ppid, uid, name,\n"
              "threads, resident memory (anonymous, file, shared), swap, dma-buf and\n"
              "age, with the service's notices per second over the last minute.\n"
              "The table starts from /proc and follows the service's notices.\n"
              "\n"
              "Keys: m memory, d dma-buf, t threads, p pid, s swap (sort), / filter by\n"
              "name (Enter applies, Esc cancels), space pause, q quit.\n"
              "\n"
              "Exit status: 0 after q, an interrupt or the last frame, 1 when stdout\n"
              "fails, 2 for bad arguments.\n");
  return parser;
}

}  // namespace

int TopCommand(int argc, char** argv) {
  Options options;
  if (const int status = TopOptions(&options).ParseOrStatus(argc, argv); status >= 0) return status;
  options.batch = options.batch || options.json;
  if (!options.batch && options.iterations != 0) {
    fprintf(stderr, "tavoctl: --iterations goes with --batch or --json\n");
    return 2;
  }
  if (!options.batch && (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO))) {
    fprintf(stderr, "tavoctl: top needs a terminal; use --batch or --json for a pipe\n");
    return 2;
  }
  setlocale(LC_ALL, "");
  android::base::unique_fd signals = StopSignals();
  Feed feed(options.socket);
  feed.Start();
  const int status = options.batch ? RunBatch(feed, options, signals.get()) : RunScreen(feed, options, signals.get());
  feed.Stop();
  return status;
}

}  // namespace Tavo::Cli
