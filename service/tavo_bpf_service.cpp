#include "service/tavo_bpf_service.h"

#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>

#include "bpf/tavo_bpf_attach.h"
#include "event/tavo_bpf_event_manager.h"
#include "include/tavo_bpf_service_main.h"
#include "service/tavo_bpf_dump_requests.h"
#include "util/tavo_log.h"
#include "util/tavo_properties.h"
#include "util/tavo_time.h"

namespace Tavo::Bpf {

std::mutex TavoBpfService::servicelock;
TavoBpfService* TavoBpfService::instance = nullptr;

namespace {

constexpr const char* kDisableProperty = "persist.sys.stability.bpfframework.disable";
constexpr int kServerBufferSize = 32768;
constexpr int kEpollSize = 10;
constexpr int kEpollMaxEvents = 32;
constexpr int kSupervisionSeconds = 60;

// Wakes Wait() out of its supervision sleep as soon as stop() runs.
std::mutex gWaitLock;
std::condition_variable gWaitCond;

cpu_set_t ServiceCpus() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  for (int cpu = 0; cpu <= 2; ++cpu) CPU_SET(cpu, &cpus);
  return cpus;
}

void NameAndPinThread(const char* name, const char* affinityError) {
  prctl(PR_SET_NAME, name);
  cpu_set_t cpus = ServiceCpus();
  if (sched_setaffinity(gettid(), sizeof(cpus), &cpus) != 0) {
    TAVO_LOGE(kServiceTag, affinityError, strerror(errno));
  }
}

}  // namespace

int BpfServiceMain() {
  const std::string disabled = GetServiceProperty(kDisableProperty, "0");
  if (disabled == "1") {
    TAVO_LOGI(kServiceTag, "[BpfServiceMain] Starting TAVO Bpf Service disabled!");
    return 0;
  }
  TAVO_LOGI(kServiceTag, "[BpfServiceMain] Starting TAVO Bpf Service");
  TavoBpfService::GetInstance()->start();
  return 1;
}

TavoBpfService* TavoBpfService::GetInstance() {
  // call_once instead of holding servicelock across construction: the
  // constructor takes the event manager's lock, which ranks above servicelock.
  static std::once_flag once;
  std::call_once(once, [] {
    auto* service = new TavoBpfService();
    {
      std::lock_guard<std::mutex> guard(servicelock);
      instance = service;
    }
    EventManager::GetInstance()->SetClientQueues(&service->clientQueues);
  });
  return instance;
}

TavoBpfService::TavoBpfService() {
  IpcHandlerState handlers;
  handlers.read = [this](int fd, BufferState* receive, BufferState* send) {
    return onClientLibReadable(fd, receive, send);
  };
  handlers.write = [this](int fd, BufferState* send) { return onClientLibWriteable(fd, send); };
  handlers.connection = [this](int fd) { return onClientLibConnection(fd); };
  handlers.close = [this](int fd) { return onClientLibClose(fd); };
  ipcManager = std::make_unique<UnixIpcManager>(true, kServerBufferSize, SOCKET_PATH, handlers,
                                                "BpfServiceTr", ServiceCpus(), kEpollSize,
                                                kEpollMaxEvents);
  packageManager = std::make_unique<IpcPackageManager>();

  std::map<uint32_t, IpcCommandHandler> requests;
  requests[0] = [this](int fd, char* data, int64_t length, BufferState* send) {
    return onEventProvideReqCallBack(fd, data, length, send);
  };
  requests[1] = IpcCommandHandler();
  requests[2] = IpcCommandHandler();
  requests[3] = IpcCommandHandler();
  packageHandler = std::make_unique<IpcPackageHandler>(requests);

  uninitializedComms = {"main", "re-initialized>"};

  const std::pair<int, int (TavoBpfService::*)(char*, long)> table[] = {
      {0, &TavoBpfService::handleTavoTaskInitEvent},
      {2, &TavoBpfService::handleSched_SchedProcessFork},
      {3, &TavoBpfService::handleSched_SchedProcessExit},
      {1, &TavoBpfService::handleKmem_RssStat},
      {7, &TavoBpfService::handleDmabuf_Setup},
      {8, &TavoBpfService::handleDmabuf_Release},
      {9, &TavoBpfService::handleDmabuf_Attach},
      {10, &TavoBpfService::handleDmabuf_Detach},
      {11, &TavoBpfService::handleDmabuf_Vmap},
      {12, &TavoBpfService::handleDmabuf_Vunmap},
      {13, &TavoBpfService::handleDmabuf_Mmap},
      {14, &TavoBpfService::handleDmabuf_Munmap},
  };
  for (const auto& [type, handler] : table) {
    eventHandlers.insert_or_assign(type, [this, handler = handler](char* data, long size) {
      return (this->*handler)(data, size);
    });
  }
}

TavoBpfService::~TavoBpfService() {
  ipcManager.reset();
  packageManager.reset();
  packageHandler.reset();
  clientQueues.clear();
  statusFd[1].reset();
  statusFd[0].reset();
  ringbufFd[1].reset();
  ringbufFd[0].reset();
  eventHandlers.clear();
}

void TavoBpfService::launchThread(std::thread& handle, int (TavoBpfService::*body)()) {
  // An occupied handle means the thread was started already (by the poll
  // thread or by Wait); a handle is never overwritten.
  std::lock_guard<std::mutex> guard(dataLock);
  if (handle.joinable()) return;
  handle = std::thread([this, body] { (this->*body)(); });
}

int TavoBpfService::start() {
  // The pumps install these too; doing it here as well means a dump signal
  // that arrives while the service still waits for the loader does not
  // terminate the host (the default action of signals 50 to 54).
  InstallDumpSignalHandlers();
  std::lock_guard<std::mutex> guard(servicelock);
  running = true;
  launchThread(pollThread, &TavoBpfService::eventProduceThread);
  return 1;
}

int TavoBpfService::stop() {
  {
    std::lock_guard<std::mutex> guard(servicelock);
    ipcManager->stop();
    running = false;
  }
  std::lock_guard<std::mutex> guard(gWaitLock);
  gWaitCond.notify_all();
  return 0;
}

int TavoBpfService::Wait() {
  auto joinAll = [this] {
    ipcManager->join();
    for (std::thread* handle : {&pollThread, &gplThread}) {
      std::thread thread;
      {
        std::lock_guard<std::mutex> guard(dataLock);
        thread.swap(*handle);
      }
      if (thread.joinable()) thread.join();
    }
  };
  if (!running) {
    joinAll();
    return 0;
  }
  for (;;) {
    launchThread(pollThread, &TavoBpfService::eventProduceThread);
    launchThread(gplThread, &TavoBpfService::gpleventProduceThread);
    {
      std::unique_lock<std::mutex> guard(gWaitLock);
      gWaitCond.wait_for(guard, std::chrono::seconds(kSupervisionSeconds),
                         [this] { return !running; });
    }
    if (!running) {
      joinAll();
      return 0;
    }
  }
}

int TavoBpfService::eventProduceThread() {
  NameAndPinThread("BpfServicePoll", "[TavoBpfService][eventProduceThread] set thread affinity failed. %s");
  {
    // Under servicelock, so that a stop() racing this start either sees the
    // server started (and stops it) or finds running cleared (and the server
    // is never started, so no socket thread outlives Wait()).
    std::lock_guard<std::mutex> guard(servicelock);
    if (!running) return 0;
    ipcManager->start();
  }
  // A stop while waiting ends the thread instead of leaving it parked.
  while (GetServiceProperty(TAVO_BPF_READY, "0") == "0") {
    if (!running) return 0;
    sleep(1);
  }
  if (!InitBasetime()) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][eventProduceThread] Init base time failed! errMsg: %s",
              strerror(errno));
  }
  launchThread(gplThread, &TavoBpfService::gpleventProduceThread);
  const int result = AttachAllTavoBpfProgram(BPF_FS_PATH, PROG_EVENT_MAP);
  if (result != 0) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][eventProduceThread] Attach all tavo bpf error: %d", result);
  }
  eventMonitor();
  return result;
}

int TavoBpfService::gpleventProduceThread() {
  NameAndPinThread("BpfServicePGpl", "[TavoBpfService][gpleventProduceThread] set thread affinity failed. %s");
  const int result = AttachAllTavoBpfProgram(BPF_FS_PATH, PROG_GPL_EVENT_MAP);
  if (result != 0) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][gpleventProduceThread] Attach all tavo bpf error: %d", result);
  }
  gpleventMonitor();
  return result;
}

}  // namespace Tavo::Bpf
