// Placeholder bodies until the IPC transport lands; delete with it.
#include "ipc/epoll_manager.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_req_callback_manager.h"
#include "ipc/unix_ipc_manager.h"

EpollManager::EpollManager(int, int maxEvents, std::function<int()> cb, const char* name, cpu_set_t cpus, int timeoutMs)
    : name(name), maxEvents(maxEvents), timeoutMs(timeoutMs), startCallback(std::move(cb)), cpus(cpus) {}
EpollManager::~EpollManager() = default;
void EpollManager::start() {}
void EpollManager::stop() {}
bool EpollManager::addMonitorFd(int, EpollCallback) { return false; }
bool EpollManager::delMonitorFd(int) { return false; }
bool EpollManager::notifyWriteEventReady(int) { return false; }
bool EpollManager::markWriteEventFinish(int) { return false; }
bool EpollManager::writeEventNow(int) { return false; }

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                               const char* name, cpu_set_t, int, int)
    : path(std::move(path)), isServer(isServer), handlers(std::move(handlers)), bufferSize(bufferSize), name(name) {}
UnixIpcManager::~UnixIpcManager() = default;
bool UnixIpcManager::createServer() { return false; }
bool UnixIpcManager::connect() { return false; }
void UnixIpcManager::start() {}
void UnixIpcManager::stop() {}
bool UnixIpcManager::notifyNeedWriteData(int) { return false; }

IpcPackageHandler::IpcPackageHandler(const std::map<uint32_t, IpcCommandHandler>& h) : handlers(h) {}
int IpcPackageHandler::handleSecondIpcPackage(int, char*, long, BufferState*) { return 0; }
