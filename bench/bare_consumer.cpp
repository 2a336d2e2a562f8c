// The peer benchmark's floor: loads bare_consumer.bpf.o, attaches its fork
// and exit tracepoints and reads the ring the way ring_buffer__poll(-1) does
// (one epoll wait, then consume), doing no work per record beyond counting
// those of "tavo_storm" and noting the records' latency. A signalfd in
// the same wait ends it. Prints "ready" once attached; on SIGINT/SIGTERM:
//   forks exits p50_us p99_us received exit_p50_us exit_p99_us
//   tavo_bare_consumer OBJECT
#include <bpf/libbpf.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "bench/bare_record.h"
#include "bench/latency_log.h"
#include "util/tavo_time.h"

namespace {

struct Tally {
  unsigned long forks = 0, exits = 0, received = 0;
  tavo_bench::LatencyLog forkLatency, exitLatency;
};

int OnRecord(void* ctx, void* data, size_t size) {
  auto* tally = static_cast<Tally*>(ctx);
  ++tally->received;
  if (size < sizeof(bare_record)) return 0;
  bare_record rec;
  memcpy(&rec, data, sizeof(rec));
  if (strncmp(rec.comm, "tavo_storm", sizeof(rec.comm)) != 0) return 0;
  if (rec.kind == BARE_FORK) {
    ++tally->forks;
    tally->forkLatency.Add(Tavo::Bpf::GetSystemBootNanosencondsTime() - rec.ts);
  } else if (rec.kind == BARE_EXIT) {
    ++tally->exits;
    tally->exitLatency.Add(Tavo::Bpf::GetSystemBootNanosencondsTime() - rec.ts);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: tavo_bare_consumer OBJECT\n");
    return 2;
  }
  std::unique_ptr<bpf_object, void (*)(bpf_object*)> object(bpf_object__open_file(argv[1], nullptr),
                                                           bpf_object__close);
  if (!object || bpf_object__load(object.get()) != 0) {
    perror("load");
    return 1;
  }
  std::vector<std::unique_ptr<bpf_link, int (*)(bpf_link*)>> links;
  bpf_program* program;
  bpf_object__for_each_program(program, object.get()) {
    links.emplace_back(bpf_program__attach(program), bpf_link__destroy);
    if (!links.back()) {
      perror("attach");
      return 1;
    }
  }
  Tally tally;
  std::unique_ptr<ring_buffer, void (*)(ring_buffer*)> ring(
      ring_buffer__new(bpf_object__find_map_fd_by_name(object.get(), "bare_ring"), OnRecord, &tally, nullptr),
      ring_buffer__free);
  if (!ring) {
    perror("ring");
    return 1;
  }
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  android::base::unique_fd signals(signalfd(-1, &stop, SFD_CLOEXEC));
  android::base::unique_fd poller(epoll_create1(EPOLL_CLOEXEC));
  epoll_event watch{};
  watch.events = EPOLLIN;
  watch.data.fd = ring_buffer__epoll_fd(ring.get());
  epoll_ctl(poller.get(), EPOLL_CTL_ADD, watch.data.fd, &watch);
  watch.data.fd = signals.get();
  epoll_ctl(poller.get(), EPOLL_CTL_ADD, signals.get(), &watch);
  printf("ready\n");
  fflush(stdout);
  for (bool running = true; running;) {
    epoll_event ready[2];
    const int count = epoll_wait(poller.get(), ready, 2, -1);
    for (int i = 0; i < count; ++i) running = running && ready[i].data.fd != signals.get();
    ring_buffer__consume(ring.get());
  }
  printf("%lu %lu %s %lu %s\n", tally.forks, tally.exits, tally.forkLatency.Summary().c_str(), tally.received,
         tally.exitLatency.Summary().c_str());
  fflush(stdout);
  _exit(0);
}
