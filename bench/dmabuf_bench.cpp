// Dma-buf handler throughput, and the start-up seeding scans on the real /proc.
//
// The seeding benchmarks need root: they run in a private mount namespace
// with their own bpffs, create the pinned maps there, and add 2000 sleeping
// children to /proc, which are reaped before the program ends.
#include <benchmark/benchmark.h>
#include <bpf/bpf.h>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "service/tavo_bpf_service.h"
#include "task/tavo_bpf_task_manager.h"

using namespace Tavo::Bpf;

namespace {

constexpr int kProcesses = 1000;
constexpr int kBuffersPerProcess = 10;
constexpr int kChildren = 2000;

void RegisterTasks() {
  std::lock_guard<std::mutex> guard(TavoTaskManager::tavoTaskManagerLock);
  for (int pid = 1; pid <= kProcesses; ++pid) {
    TavoTask task;
    task.pid = 10000 + pid;
    task.uid = 10000 + pid % 50;
    memcpy(task.comm, "com.example.app", 15);
    TavoTaskManager::GetInstance()->AddTavoTask(task.pid, task);
  }
}

std::vector<tavo_dmabuf_event> Records(uint32_t type) {
  std::vector<tavo_dmabuf_event> records;
  records.reserve(kProcesses * kBuffersPerProcess);
  for (int pid = 1; pid <= kProcesses; ++pid) {
    for (int buf = 0; buf < kBuffersPerProcess; ++buf) {
      tavo_dmabuf_event record{};
      record.hdr.type = type;
      record.hdr.ts = 1;
      record.pid = 10000 + pid;
      record.size = 4096u << (buf % 8);
      record.buf_id = 500000u + static_cast<uint64_t>(pid) * kBuffersPerProcess + buf;
      records.push_back(record);
    }
  }
  return records;
}

// Every process attaches its ten buffers, then detaches them: each record
// changes a total and builds a notice that nobody subscribed to.
void BM_DmabufAttachDetachHandlers(benchmark::State& state) {
  TavoBpfService* service = TavoBpfService::GetInstance();
  RegisterTasks();
  auto attach = Records(TAVO_EVENT_DMABUF_ATTACH);
  auto detach = Records(TAVO_EVENT_DMABUF_DETACH);
  for (auto _ : state) {
    for (auto& record : attach) service->handleDmabuf_Attach(reinterpret_cast<char*>(&record), sizeof(record));
    for (auto& record : detach) service->handleDmabuf_Detach(reinterpret_cast<char*>(&record), sizeof(record));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(attach.size() + detach.size()));
}
BENCHMARK(BM_DmabufAttachDetachHandlers)->Unit(benchmark::kMillisecond);

// The same through the ring callback: counting and raw fan-out included.
void BM_DmabufAttachDetachDispatch(benchmark::State& state) {
  TavoBpfService::GetInstance();
  RegisterTasks();
  auto attach = Records(TAVO_EVENT_DMABUF_ATTACH);
  auto detach = Records(TAVO_EVENT_DMABUF_DETACH);
  for (auto _ : state) {
    for (auto& record : attach) TavoBpfService::handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
    for (auto& record : detach) TavoBpfService::handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(attach.size() + detach.size()));
}
BENCHMARK(BM_DmabufAttachDetachDispatch)->Unit(benchmark::kMillisecond);

// ---- Seeding on the real /proc ----

std::string gSeedingUnavailable;
std::vector<pid_t> gChildren;
android::base::unique_fd gChildrenRelease;

bool PinHashMap(const char* path, uint32_t keySize, uint32_t valueSize) {
  LIBBPF_OPTS(bpf_map_create_opts, opts, .map_flags = BPF_F_NO_PREALLOC);
  android::base::unique_fd fd(bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, keySize, valueSize, 65536, &opts));
  return fd >= 0 && bpf_obj_pin(fd.get(), path) == 0;
}

void PrepareSeeding() {
  if (geteuid() != 0) {
    gSeedingUnavailable = "needs root";
    return;
  }
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("bpf", "/sys/fs/bpf", "bpf", 0, "mode=0700") != 0) {
    gSeedingUnavailable = std::string("private bpffs: ") + strerror(errno);
    return;
  }
  mkdir("/sys/fs/bpf/tavo", 0700);
  if (!PinHashMap("/sys/fs/bpf/tavo/map_TavoBpfDefineset_open_fd_caller_map", 4, 48) ||
      !PinHashMap("/sys/fs/bpf/tavo/map_TavoBpfGplDefineset_dmabuf_allocate_map", 8, 16) ||
      !PinHashMap("/sys/fs/bpf/tavo/map_TavoBpfGplDefineset_dmabuf_size_map", 4, 16)) {
    gSeedingUnavailable = std::string("creating maps: ") + strerror(errno);
    return;
  }
  int release[2];
  if (pipe2(release, O_CLOEXEC) != 0) return;
  for (int i = 0; i < kChildren; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      close(release[1]);
      char byte;
      while (read(release[0], &byte, 1) < 0 && errno == EINTR) {
      }
      _exit(0);
    }
    if (pid > 0) gChildren.push_back(pid);
  }
  close(release[0]);
  gChildrenRelease.reset(release[1]);
}

void ReapChildren() {
  gChildrenRelease.reset();  // end of file wakes every child
  for (pid_t pid : gChildren) waitpid(pid, nullptr, 0);
  gChildren.clear();
}

int CountProcesses() {
  int count = 0;
  DIR* proc = opendir("/proc");
  while (proc != nullptr) {
    const dirent* entry = readdir(proc);
    if (entry == nullptr) break;
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') ++count;
  }
  if (proc != nullptr) closedir(proc);
  return count;
}

void RunSeeding(benchmark::State& state, int (TavoBpfService::*scan)()) {
  if (!gSeedingUnavailable.empty()) {
    state.SkipWithError(gSeedingUnavailable.c_str());
    return;
  }
  TavoBpfService* service = TavoBpfService::GetInstance();
  const int processes = CountProcesses();
  double seconds = 0;
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize((service->*scan)());
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  }
  state.counters["processes"] = processes;
  state.counters["ms_per_1000_processes"] =
      seconds * 1e3 / static_cast<double>(state.iterations()) / processes * 1000.0;
}

void BM_SeedOpenFdMap(benchmark::State& state) { RunSeeding(state, &TavoBpfService::initFdBpfProg); }
BENCHMARK(BM_SeedOpenFdMap)->Unit(benchmark::kMillisecond);

void BM_SeedDmabufMaps(benchmark::State& state) { RunSeeding(state, &TavoBpfService::initDmabufBpfProg); }
BENCHMARK(BM_SeedDmabufMaps)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  PrepareSeeding();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  ReapChildren();
  return 0;
}
