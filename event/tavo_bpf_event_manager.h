// Which client wants which event types, and the fan-out to them.
#pragma once

#include <map>
#include <mutex>
#include <vector>

class IpcPackageManager;

namespace Tavo::Bpf {

class EventManager {
 public:
  // Guards the subscriptions and the service's client-queue map.
  // Taken before TavoBpfService::servicelock where both are held.
  static std::mutex tavoRawEventManagerLock;

  static EventManager* GetInstance();

  void SetClientQueues(std::map<int, IpcPackageManager>* queues);
  void AddObserverEvent(int fd, int type);
  void DelObserverEvent(int fd, int type);
  void EraseObserver(int fd);
  int AppendEvent(char* data, unsigned long size);

  // Snapshot of one client's subscriptions (diagnostics and tests).
  std::vector<int> GetObserverEvents(int fd);
  std::vector<int> GetEventObservers(int type);

 private:
  EventManager() = default;

  std::map<int, IpcPackageManager>* clientQueues = nullptr;
  std::map<int, std::vector<int>> observerEvents;
  std::map<int, std::vector<int>> eventObservers;
  static EventManager* instance;
};

}  // namespace Tavo::Bpf
