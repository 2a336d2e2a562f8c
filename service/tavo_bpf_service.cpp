#include "service/tavo_bpf_service.h"

#include <android-base/no_destructor.h>
#include <android-base/parseint.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "bpf/tavo_bpf_attach_tables.h"
#include "include/tavo_bpf_service_main.h"
#include "util/tavo_log.h"
#include "util/tavo_properties.h"
#include "util/tavo_service_contract.h"
#include "util/tavo_time.h"

namespace Tavo::Bpf {

namespace {

constexpr const char* TAVO_BPF_READY = kReadyProperty;

void NameAndPinThread(const char* name, const char* affinityError) {
  prctl(PR_SET_NAME, name);
  const cpu_set_t cpus = TavoClientHubOptions::DefaultCpus();
  if (sched_setaffinity(gettid(), sizeof(cpus), &cpus) != 0) {
    TAVO_LOGE(kServiceTag, affinityError, strerror(errno));
  }
}

TavoRingPumpConfig PumpConfig(const TavoServiceOptions& options, int ring, std::atomic<bool>* noTracepointSaid) {
  TavoRingPumpConfig config;
  config.noTracepointSaid = noTracepointSaid;
  config.index = ring;
  config.pinDir = options.pinDir;
  if (ring == kNormalRing) {
    config.object = kNormalObject;
    config.table = &PROG_EVENT_MAP;
    config.logPrefix = "[TavoBpfService][eventMonitor]";
    config.stopMessage = "Stop Event Produce Thread...";
  } else {
    config.object = kGplObject;
    config.table = &PROG_GPL_EVENT_MAP;
    config.logPrefix = "[TavoBpfService][gpleventMonitor]";
    config.stopMessage = "Stop GPL Event Produce Thread...";
  }
  return config;
}

// Sleeps up to `period` under the service lock's condition; false once the
// service is stopped.
bool SleepWhileRunning(TavoBpfService::Parts& p, std::chrono::milliseconds period) {
  p.servicelock.lock();
  p.wake.wait_for(p.servicelock, period, [&p] { return !p.running; });
  p.servicelock.unlock();
  return p.running;
}

// Each drain of a ring is one batch for the clients: its records and the
// notices they cause go out in one send per client, from the pump's thread.
void BatchClientSends(TavoRingPump::Hooks& hooks, EventManager& events) {
  hooks.beforeConsume = [&events] { events.BeginBatch(); };
  hooks.afterConsume = [&events] { events.EndBatch(); };
}

}  // namespace

TavoBpfService::Parts::Parts(const TavoServiceOptions& options)
    : options(options),
      counters(&GetSystemSecondsTime),
      reader(options.procRoot),
      hub(options.hub),
      dispatcher(counters, [this](const char* data, unsigned long size) { return hub.AppendEvent(data, size); }),
      tracker(registry, reader,
              [this](const void* notice, size_t size) { hub.AppendEvent(static_cast<const char*>(notice), size); },
              &GetSystemSecondsTime),
      dmabuf(registry, reader,
             [this](const void* notice, size_t size) { hub.AppendEvent(static_cast<const char*>(notice), size); }),
      pumps{{PumpConfig(options, kNormalRing, &noTracepointSaid), &TavoEventDispatcher::handleBpfRingBuffEvent,
             &dispatcher, counters},
            {PumpConfig(options, kGplRing, &noTracepointSaid), &TavoEventDispatcher::handleBpfRingBuffEvent,
             &dispatcher, counters}},
      dumps([this](int signo) {
        const std::string& dir = this->options.dumpDir;
        switch (signo) {
          case kDumpSignalState: counters.DumpState(dir); break;
          case kDumpSignalTasks: registry.DumpTavoTaskInfo(dir); break;
          case kDumpSignalTasksNonKernel: registry.DumpTavoTaskIgnoreKernelTaskInfo(dir); break;
          case kDumpSignalTasksShort: registry.DumpTavoTaskInfoNormal(dir); break;
          case kDumpSignalTasksShortNonKernel: registry.DumpTavoTaskIgnoreKernelTaskInfoNormal(dir); break;
        }
      }) {
  using namespace std::placeholders;
  dispatcher.SetHandler(TAVO_EVENT_TASK_INIT, std::bind(&TavoTaskTracker::handleTavoTaskInitEvent, &tracker, _1, _2));
  dispatcher.SetHandler(TAVO_EVENT_SCHED_TASK_CREATE,
                        std::bind(&TavoTaskTracker::handleSched_SchedProcessFork, &tracker, _1, _2));
  dispatcher.SetHandler(TAVO_EVENT_SCHED_TASK_EXIT,
                        std::bind(&TavoTaskTracker::handleSched_SchedProcessExit, &tracker, _1, _2));
  dispatcher.SetHandler(TAVO_EVENT_KMEM_RSS_INFO, std::bind(&TavoTaskTracker::handleKmem_RssStat, &tracker, _1, _2));
  const std::pair<int, int (TavoDmabufAccounting::*)(char*, long)> dmabufHandlers[] = {
      {TAVO_EVENT_DMABUF_SETUP, &TavoDmabufAccounting::handleDmabuf_Setup},
      {TAVO_EVENT_DMABUF_RELEASE, &TavoDmabufAccounting::handleDmabuf_Release},
      {TAVO_EVENT_DMABUF_ATTACH, &TavoDmabufAccounting::handleDmabuf_Attach},
      {TAVO_EVENT_DMABUF_DETACH, &TavoDmabufAccounting::handleDmabuf_Detach},
      {TAVO_EVENT_DMABUF_VMAP, &TavoDmabufAccounting::handleDmabuf_Vmap},
      {TAVO_EVENT_DMABUF_VUNMAP, &TavoDmabufAccounting::handleDmabuf_Vunmap},
      {TAVO_EVENT_DMABUF_MMAP, &TavoDmabufAccounting::handleDmabuf_Mmap},
      {TAVO_EVENT_DMABUF_MUNMAP, &TavoDmabufAccounting::handleDmabuf_Munmap},
  };
  for (const auto& [type, handler] : dmabufHandlers) dispatcher.SetHandler(type, std::bind(handler, &dmabuf, _1, _2));
  // A process's dma-buf entries go with the process.
  tracker.SetExitObserver([this](int32_t pid, uint64_t ts) { dmabuf.NoteProcessExit(pid, ts); });
}

TavoServiceOptions TavoServiceOptions::FromProperties() {
  TavoServiceOptions options;
  uint64_t limit = 0;
  if (android::base::ParseUint(GetServiceProperty(kMaxConnectionsProperty, ""), &limit) && limit > 0) {
    options.hub.maxConnections = static_cast<size_t>(limit);
  }
  options.hub.allowedIds = GetServiceProperty(kAllowedIdsProperty, kDefaultAllowedIds);
  return options;
}

int BpfServiceMain() {
  if (GetServiceProperty(kDisableProperty, "0") == "1") {
    TAVO_LOGI(kServiceTag, "[BpfServiceMain] Starting TAVO Bpf Service disabled!");
    return 0;
  }
  TAVO_LOGI(kServiceTag, "[BpfServiceMain] Starting TAVO Bpf Service");
  TavoBpfService::GetInstance()->start();
  return 1;
}

TavoBpfService* TavoBpfService::GetInstance() {
  // Never destroyed: the host's threads may use it until the process ends.
  static android::base::NoDestructor<std::unique_ptr<TavoBpfService>> instance(
      Create(TavoServiceOptions::FromProperties()));
  return instance->get();
}

std::unique_ptr<TavoBpfService> TavoBpfService::Create(const TavoServiceOptions& options) {
  return std::make_unique<TavoBpfService>(Passkey(), options);
}

TavoBpfService::TavoBpfService(Passkey, const TavoServiceOptions& options)
    : parts_(std::make_unique<Parts>(options)) {}

TavoBpfService::~TavoBpfService() {
  stop();
  Wait();
}

int TavoBpfService::start() {
  Parts& p = *parts_;
  // A dump signal that arrives while the service still waits for the loader
  // must not end the host (their default action).
  TavoDumpWorker::InstallSignalHandlers();
  p.dumps.Start();
  MutexLock guard(p.servicelock);
  p.running = true;
  for (TavoRingPump& pump : p.pumps) pump.Reset();
  p.pollThread.Launch([this] { eventProduceThread(); }, p.options.supervisionPeriod);
  return 1;
}

int TavoBpfService::stop() {
  Parts& p = *parts_;
  {
    MutexLock guard(p.servicelock);
    p.hub.Stop();
    p.running = false;
    for (TavoRingPump& pump : p.pumps) pump.Stop();
  }
  p.wake.notify_all();
  return 0;
}

int TavoBpfService::Wait() {
  Parts& p = *parts_;
  while (p.running) {
    p.pollThread.Launch([this] { eventProduceThread(); }, p.options.supervisionPeriod);
    // The GPL pump needs the loader's maps: it runs only after readiness.
    if (p.ready) p.gplThread.Launch([this] { gpleventProduceThread(); }, p.options.supervisionPeriod);
    SleepWhileRunning(p, p.options.supervisionPeriod);
  }
  p.hub.Join();
  p.pollThread.Join();
  p.gplThread.Join();
  return 0;
}

bool TavoBpfService::enableCoreBpf(int ring, bool enable) {
  if (ring != kNormalRing && ring != kGplRing) return false;
  return enable ? parts_->pumps[ring].UpdateFlags(TAVO_STATUS_CORE_ENABLED, 0)
                : parts_->pumps[ring].UpdateFlags(0, TAVO_STATUS_CORE_ENABLED);
}

bool TavoBpfService::enableNormalBpf(int ring, bool enable) {
  if (ring != kNormalRing && ring != kGplRing) return false;
  return enable ? parts_->pumps[ring].UpdateFlags(TAVO_STATUS_NORMAL_ENABLED, 0)
                : parts_->pumps[ring].UpdateFlags(0, TAVO_STATUS_NORMAL_ENABLED);
}

int TavoBpfService::eventProduceThread() {
  Parts& p = *parts_;
  NameAndPinThread("BpfServicePoll", "[TavoBpfService][eventProduceThread] set thread affinity failed. %s");
  {
    // Under the lock, so that a stop racing this start either sees the
    // server started (and stops it) or finds the service stopped.
    MutexLock guard(p.servicelock);
    if (!p.running) return 0;
    p.hub.Start();
  }
  while (GetServiceProperty(TAVO_BPF_READY, "0") == "0") {
    if (!SleepWhileRunning(p, p.options.readinessPeriod)) return 0;
  }
  if (!InitBasetime()) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][eventProduceThread] Init base time failed! errMsg: %s",
              strerror(errno));
  }
  const std::string release = GetServiceProperty(kKernelVersionProperty, "0.0");
  const std::string dmabufRows = GetServiceProperty(kDmabufRowsProperty, "");
  const int kernel = convertVersionToInt(release);
  p.rowsVersion = AttachRowsVersion(kernel, dmabufRows);
  if (p.rowsVersion != kernel) {
    TAVO_LOGI(kServiceTag, "[TavoBpfService] kernel %s is newer than every line of the attach tables: rows of %s (%s)",
              release.c_str(), dmabufRows.c_str(), kDmabufRowsProperty);
  }
  p.ready = true;
  p.gplThread.Launch([this] { gpleventProduceThread(); }, p.options.supervisionPeriod);

  TavoRingPump& pump = p.pumps[kNormalRing];
  const int result = pump.Attach(p.rowsVersion);
  if (result != 0) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][eventProduceThread] Attach all tavo bpf error: %d", result);
  }
  TavoDumpWorker::InstallSignalHandlers();
  TavoRingPump::Hooks hooks;
  hooks.seed = [&p] {
    p.tracker.initTaskInfo(
        [&p](void* record, unsigned long size) { return p.dispatcher.Dispatch(record, size); }, p.counters);
  };
  hooks.seeded = [&p] { p.tracker.initFdBpfProg(PinnedMapPath(p.options.pinDir, kNormalObject, kOpenFdMap)); };
  BatchClientSends(hooks, p.hub.events());
  pump.Run(hooks);
  pump.Detach();
  return result;
}

int TavoBpfService::gpleventProduceThread() {
  Parts& p = *parts_;
  NameAndPinThread("BpfServicePGpl", "[TavoBpfService][gpleventProduceThread] set thread affinity failed. %s");
  TavoRingPump& pump = p.pumps[kGplRing];
  const int result = pump.Attach(p.rowsVersion);
  if (result != 0) {
    TAVO_LOGE(kServiceTag, "[TavoBpfService][gpleventProduceThread] Attach all tavo bpf error: %d", result);
  }
  TavoDumpWorker::InstallSignalHandlers();
  TavoRingPump::Hooks hooks;
  hooks.seed = [&p] {
    p.dmabuf.initDmabufBpfProg(PinnedMapPath(p.options.pinDir, kGplObject, kDmabufAllocateMap),
                               PinnedMapPath(p.options.pinDir, kGplObject, kDmabufSizeMap));
  };
  hooks.afterPoll = [&p] { p.dmabuf.ApplyExits(); };
  BatchClientSends(hooks, p.hub.events());
  pump.Run(hooks);
  pump.Detach();
  return result;
}

}  // namespace Tavo::Bpf
