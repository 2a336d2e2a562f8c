// One client of the peer benchmark: subscribes to fork and exit records and
// the start and end notices, writes one line per event to a file, and on
// SIGINT/SIGTERM prints what it saw of the process named "tavo_storm":
//   fork_proc fork_thread exit_proc exit_thread start end p50_us p99_us received
//   exit_p50_us exit_p99_us
// Latency is the record's kernel time stamp against CLOCK_MONOTONIC when the
// client's callback runs; p50/p99 are the fork records', exit_ the exits'.
//   tavo_bench_subscriber OUT_FILE
#include <signal.h>
#include <time.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "bench/latency_log.h"
#include "bpf/tavo_bpf_records.h"
#include "client/tavo_client.h"
#include "util/tavo_time.h"

using namespace Tavo::Client;

namespace {

constexpr const char* kStorm = "tavo_storm";

struct Tally {
  std::mutex lock;
  unsigned long forkProc = 0, forkThread = 0, exitProc = 0, exitThread = 0, start = 0, end = 0;
  tavo_bench::LatencyLog forkLatency, exitLatency;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: tavo_bench_subscriber OUT_FILE\n");
    return 2;
  }
  std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(argv[1], "we"), fclose);
  if (!file) return 1;
  FILE* out = file.get();
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  Tally tally;
  TavoClient client([&](const Event& e) {
    const uint64_t now = Tavo::Bpf::GetSystemBootNanosencondsTime();
    std::lock_guard<std::mutex> guard(tally.lock);
    if (const auto* r = std::get_if<TaskCreateRecord>(&e)) {
      fprintf(out, "fork %llu pid=%d ppid=%d kind=%u comm=%s\n", (unsigned long long)r->header.ts, r->pid, r->ppid,
              r->kind, r->comm.c_str());
      if (r->comm != kStorm) return;
      (r->kind == TAVO_TASK_KIND_PROCESS ? tally.forkProc : tally.forkThread)++;
      tally.forkLatency.Add(now - r->header.ts);
    } else if (const auto* x = std::get_if<TaskExitRecord>(&e)) {
      fprintf(out, "exit %llu pid=%d kind=%u comm=%s\n", (unsigned long long)x->header.ts, x->pid, x->kind,
              x->comm.c_str());
      if (x->comm != kStorm) return;
      (x->kind == TAVO_TASK_KIND_PROCESS ? tally.exitProc : tally.exitThread)++;
      tally.exitLatency.Add(now - x->header.ts);
    } else if (const auto* s = std::get_if<ProcessStartNotice>(&e)) {
      fprintf(out, "start pid=%d ppid=%d comm=%s\n", s->pid, s->ppid, s->comm.c_str());
      if (s->comm == kStorm) tally.start++;
    } else if (const auto* d = std::get_if<ProcessExitNotice>(&e)) {
      fprintf(out, "end pid=%d comm=%s\n", d->pid, d->comm.c_str());
      if (d->comm == kStorm) tally.end++;
    }
  });
  if (client.Connect() != 0) {
    perror("connect");
    return 1;
  }
  for (uint32_t code : {2u, 3u, 50001u, 50002u}) {
    if (client.Subscribe(code) != 0) {
      perror("subscribe");
      return 1;
    }
  }
  printf("ready\n");
  fflush(stdout);
  int sig = 0;
  sigwait(&stop, &sig);
  // Report first: the figures must not wait for the socket thread to wind down.
  std::unique_lock<std::mutex> guard(tally.lock);
  printf("%lu %lu %lu %lu %lu %lu %s %llu %s\n", tally.forkProc, tally.forkThread, tally.exitProc, tally.exitThread,
         tally.start, tally.end, tally.forkLatency.Summary().c_str(), (unsigned long long)client.ReceivedCount(),
         tally.exitLatency.Summary().c_str());
  fflush(stdout);
  fflush(out);
  _exit(0);  // skips Close(): the process ends and the kernel drops the socket
}
