// Placeholder bodies until task tracking lands; delete with it.
#include "service/tavo_bpf_service.h"
#include "task/tavo_bpf_task_manager.h"

namespace Tavo::Bpf {
void TavoTaskManager::DumpTavoTaskInfo() {}
void TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfo() {}
void TavoTaskManager::DumpTavoTaskInfoNormal() {}
void TavoTaskManager::DumpTavoTaskIgnoreKernelTaskInfoNormal() {}
std::string TavoTaskManager::FormatDump(bool, bool) { return {}; }
void TavoBpfService::initTaskInfo() {}
int TavoBpfService::getProcessInfo(int, UpdateProcessExdata*) { return -1; }
long TavoBpfService::GetFdSize(const std::string&) { return 0; }
uint64_t TavoBpfService::GetFdInode(const std::string&) { return 0; }
int TavoBpfService::handleTavoTaskInitEvent(char*, long) { return 0; }
int TavoBpfService::handleSched_SchedProcessFork(char*, long) { return 0; }
int TavoBpfService::handleSched_SchedProcessExit(char*, long) { return 0; }
int TavoBpfService::handleKmem_RssStat(char*, long) { return 0; }
}  // namespace Tavo::Bpf
