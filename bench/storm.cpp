// Fork or thread storm for the peer benchmark.
//   tavo_storm fork N     N times fork + _exit + waitpid
//   tavo_storm thread N   N times thread create + join
//   tavo_storm memory N [PAUSE_US]
//                         N times map, touch and unmap 256 KiB, then sleep
//                         PAUSE_US: memory records without any fork
// Prints "<kind> <count> <seconds> <per-second>". The process names itself
// "tavo_storm" so that observers can pick out its events.
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/parseint.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void* Nothing(void*) { return nullptr; }

}  // namespace

int main(int argc, char** argv) {
  long n = 0;
  long pauseUs = 0;
  if ((argc != 3 && argc != 4) || !android::base::ParseInt(argv[2], &n, 1L) ||
      (argc == 4 && !android::base::ParseInt(argv[3], &pauseUs, 0L))) {
    fprintf(stderr, "usage: tavo_storm fork|thread|memory N [PAUSE_US]\n");
    return 2;
  }
  const bool threads = strcmp(argv[1], "thread") == 0;
  const bool memory = strcmp(argv[1], "memory") == 0;
  if (!threads && !memory && strcmp(argv[1], "fork") != 0) return 2;
  constexpr size_t kChurnBytes = 256 << 10;
  prctl(PR_SET_NAME, "tavo_storm");
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < n; ++i) {
    if (memory) {
      void* p = mmap(nullptr, kChurnBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (p == MAP_FAILED) return 1;
      for (size_t off = 0; off < kChurnBytes; off += 4096) static_cast<volatile char*>(p)[off] = 1;
      munmap(p, kChurnBytes);
      if (pauseUs > 0) usleep(pauseUs);
    } else if (threads) {
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
  printf("%s %ld %.3f %.0f\n", argv[1], n, secs, n / secs);
  return 0;
}
