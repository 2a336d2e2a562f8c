#include "event/tavo_bpf_event_manager.h"

#include <algorithm>
#include <cstring>

#include "ipc/ipc_package_manager.h"
#include "service/tavo_bpf_service.h"

namespace Tavo::Bpf {

std::mutex EventManager::tavoRawEventManagerLock;
EventManager* EventManager::instance = nullptr;

EventManager* EventManager::GetInstance() {
  static std::once_flag once;
  std::call_once(once, [] { instance = new EventManager(); });
  return instance;
}

void EventManager::SetClientQueues(std::map<int, IpcPackageManager>* queues) {
  std::lock_guard<std::mutex> guard(tavoRawEventManagerLock);
  clientQueues = queues;
}

void EventManager::AddObserverEvent(int fd, int type) {
  std::lock_guard<std::mutex> guard(tavoRawEventManagerLock);
  auto& types = observerEvents[fd];
  if (std::find(types.begin(), types.end(), type) != types.end()) return;
  types.push_back(type);
  eventObservers[type].push_back(fd);
}

void EventManager::DelObserverEvent(int fd, int type) {
  std::lock_guard<std::mutex> guard(tavoRawEventManagerLock);
  auto& fds = eventObservers[type];
  fds.erase(std::remove(fds.begin(), fds.end(), fd), fds.end());
  auto& types = observerEvents[fd];
  types.erase(std::remove(types.begin(), types.end(), type), types.end());
}

void EventManager::EraseObserver(int fd) {
  std::lock_guard<std::mutex> guard(tavoRawEventManagerLock);
  auto it = observerEvents.find(fd);
  if (it == observerEvents.end()) return;
  for (int type : it->second) {
    auto& fds = eventObservers[type];
    auto pos = std::find(fds.begin(), fds.end(), fd);
    if (pos != fds.end()) fds.erase(pos);
  }
  observerEvents.erase(it);
}

int EventManager::AppendEvent(char* data, unsigned long size) {
  if (data == nullptr || size < sizeof(uint32_t)) return 0;
  uint32_t code;
  memcpy(&code, data, sizeof(code));
  // Fetched before the lock: creating the service takes this lock itself.
  UnixIpcManager* ipc = TavoBpfService::GetInstance()->getIpcManager();
  std::lock_guard<std::mutex> guard(tavoRawEventManagerLock);
  if (eventObservers.empty() || clientQueues == nullptr) return 0;
  auto it = eventObservers.find(static_cast<int>(code));
  if (it == eventObservers.end()) return 0;
  for (int fd : it->second) {
    auto queue = clientQueues->find(fd);
    if (queue != clientQueues->end()) queue->second.buildAndAppendSecondIpcPackage(3, data, size);
  }
  for (int fd : it->second) ipc->notifyNeedWriteData(fd);
  return 0;
}

std::vector<int> EventManager::GetObserverEvents(int fd) {
  std::lock_guard<std::mutex> guard(tavoRawEventManagerLock);
  auto it = observerEvents.find(fd);
  return it == observerEvents.end() ? std::vector<int>() : it->second;
}

std::vector<int> EventManager::GetEventObservers(int type) {
  std::lock_guard<std::mutex> guard(tavoRawEventManagerLock);
  auto it = eventObservers.find(type);
  return it == eventObservers.end() ? std::vector<int>() : it->second;
}

}  // namespace Tavo::Bpf
