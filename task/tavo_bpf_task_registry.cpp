// The registry's map operations; callers hold tavoTaskManagerLock.
#include <cerrno>
#include <mutex>

#include "task/tavo_bpf_task_manager.h"

namespace Tavo::Bpf {

std::mutex TavoTaskManager::tavoTaskManagerLock;
TavoTaskManager* TavoTaskManager::instance = nullptr;

bool CompareTavoTask(const TavoTask& a, const TavoTask& b) { return a.TotalSize() - b.TotalSize() > 0; }

TavoTaskManager* TavoTaskManager::GetInstance() {
  static std::once_flag once;
  std::call_once(once, [] { instance = new TavoTaskManager(); });
  return instance;
}

int TavoTaskManager::AddTavoTask(int pid, TavoTask task) {
  tasks.insert_or_assign(pid, task);
  return 0;
}

TavoTask* TavoTaskManager::GetTavoTask(int pid) {
  auto it = tasks.find(pid);
  return it == tasks.end() ? nullptr : &it->second;
}

int TavoTaskManager::DelTavoTask(int pid) {
  errno = 0;
  if (tasks.erase(pid) == 0) {
    errno = ENOENT;
    return -1;
  }
  return 0;
}

int TavoTaskManager::AddMmidIndex(unsigned int mmId, TavoTask* task) {
  mmidIndex.insert_or_assign(mmId, task);
  return 0;
}

TavoTask* TavoTaskManager::GetTavoTaskByMmid(unsigned int mmId) {
  auto it = mmidIndex.find(mmId);
  return it == mmidIndex.end() ? nullptr : it->second;
}

int TavoTaskManager::DelMmidIndex(unsigned int mmId) {
  errno = 0;
  if (mmidIndex.erase(mmId) == 0) {
    errno = ENOENT;
    return -1;
  }
  return 0;
}

int TavoTaskManager::AddRssTempTask(unsigned int key, TavoTask task) {
  rssTempTasks.insert_or_assign(key, task);
  return 0;
}

TavoTask* TavoTaskManager::GetRssTempTask(unsigned int key) {
  auto it = rssTempTasks.find(key);
  return it == rssTempTasks.end() ? nullptr : &it->second;
}

int TavoTaskManager::DelRssTempTask(unsigned int key) {
  errno = 0;
  if (rssTempTasks.erase(key) == 0) errno = ENOENT;  // still 0, unlike the other deletes
  return 0;
}

unsigned int TavoTaskManager::GetTavoTaskCount() { return static_cast<unsigned int>(tasks.size()); }

void TavoTaskManager::Clear() {
  tasks.clear();
  mmidIndex.clear();
  rssTempTasks.clear();
}

}  // namespace Tavo::Bpf
