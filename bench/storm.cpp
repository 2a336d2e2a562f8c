// Fork or thread storm for the peer benchmark.
//   tavo_storm fork N     N times fork + _exit + waitpid
//   tavo_storm thread N   N times thread create + join
// Prints "<kind> <count> <seconds> <per-second>". The process names itself
// "tavo_storm" so that observers can pick out its events.
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void* Nothing(void*) { return nullptr; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: tavo_storm fork|thread N\n");
    return 2;
  }
  const bool threads = strcmp(argv[1], "thread") == 0;
  const long n = strtol(argv[2], nullptr, 10);
  if ((!threads && strcmp(argv[1], "fork") != 0) || n <= 0) return 2;
  prctl(PR_SET_NAME, "tavo_storm");
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < n; ++i) {
    if (threads) {
      pthread_t t;
      if (pthread_create(&t, nullptr, Nothing, nullptr) != 0) return 1;
      pthread_join(t, nullptr);
    } else {
      const pid_t child = fork();
      if (child < 0) return 1;
      if (child == 0) _exit(0);
      waitpid(child, nullptr, 0);
    }
  }
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  printf("%s %ld %.3f %.0f\n", threads ? "thread" : "fork", n, secs, n / secs);
  return 0;
}
