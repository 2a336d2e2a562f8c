// Placeholder bodies until task tracking lands; delete with it.
#include "service/tavo_bpf_service.h"
#include "task/tavo_bpf_task_manager.h"

namespace Tavo::Bpf {
std::mutex TavoTaskManager::tavoTaskManagerLock;
TavoTaskManager* TavoTaskManager::instance = nullptr;
TavoTaskManager* TavoTaskManager::GetInstance() { static TavoTaskManager m; return &m; }
void TavoTaskManager::DumpTavoTaskInfo() {}
void TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfo() {}
void TavoTaskManager::DumpTavoTaskInfoNormal() {}
void TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfoNormal() {}
int TavoBpfService::handleTavoTaskInitEvent(char*, long) { return 0; }
int TavoBpfService::handleSched_SchedProcessFork(char*, long) { return 0; }
int TavoBpfService::handleSched_SchedProcessExit(char*, long) { return 0; }
int TavoBpfService::handleKmem_RssStat(char*, long) { return 0; }
}  // namespace Tavo::Bpf
