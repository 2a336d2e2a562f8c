// A message endpoint on a local stream socket, server or client mode.
#pragma once

#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "ipc/epoll_manager.h"
#include "ipc/ipc_buffer_state.h"
#include "util/tavo_export.h"

struct TAVO_EXPORT IpcHandlerState {
  bool saveUnusedBuffer = false;
  bool closeOnError = false;
  std::function<int(int, BufferState*, BufferState*)> read;
  std::function<int(int, BufferState*)> write;
  std::function<int(int)> connection;
  std::function<int(int)> close;
};

TAVO_EXPORT int CreateNonblockingServerSocket(const std::string& path);
TAVO_EXPORT int ConnectToServer(const std::string& path);
TAVO_EXPORT bool Setnonblocking(int fd);
TAVO_EXPORT bool EpollCtlAdd(int epollFd, int fd, uint32_t events);
TAVO_EXPORT bool EpollCtlMod(int epollFd, int fd, uint32_t events);

class TAVO_EXPORT UnixIpcManager {
 public:
  UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                 const char* name, cpu_set_t cpus, int epollSize, int maxEvents);
  UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                 const char* name, int epollSize, int maxEvents);
  UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                 int epollSize, int maxEvents);
  UnixIpcManager(const UnixIpcManager&) = delete;
  UnixIpcManager& operator=(const UnixIpcManager&) = delete;

  virtual bool createServer();
  virtual bool connect();
  virtual void start();
  virtual void stop();
  virtual ~UnixIpcManager();
  // stop(), then waits for the loop thread to end. Call it holding no lock
  // that a socket callback may take.
  void join();

  bool notifyNeedWriteData(int fd);
  bool writeDataNow(int fd);

  int onServerReadableCallback(epoll_event event);
  int onServerCloseCallback(epoll_event event);
  int onClientReadableCallback(epoll_event event);
  int onCommWriteCallback(epoll_event event);
  int onClientCloseCallback(epoll_event event);

  bool allocateReadBufferForFd(int fd);
  bool allocateWriteBufferForFd(int fd);
  bool freeBufferForFd(int fd);
  bool clearAllBuffer();
  bool ensureDataSend(int fd, BufferState* buffer);

  int getSocketFd() const { return socketFd; }
  const std::string& getPath() const { return path; }

 protected:
  std::string path;
  bool isServer;
  std::mutex bufferLock;
  std::map<int, BufferState> readBuffers;
  std::map<int, BufferState> writeBuffers;
  std::mutex writeLocksLock;
  std::map<int, std::unique_ptr<std::mutex>> writeLocks;
  std::unique_ptr<EpollManager> epollManager;
  IpcHandlerState handlers;
  int bufferSize;
  std::atomic<int> socketFd{-1};
  const char* name;
  std::string nameStorage;
  // Accepted connections still open (bufferLock), closed at destruction.
  std::set<int> connections;

 private:
  void init(bool withCpus, bool withName, cpu_set_t cpus, int epollSize, int maxEvents);
  std::mutex* writeLockFor(int fd);
  BufferState* findBuffer(std::map<int, BufferState>& buffers, int fd);
  bool allocateBuffer(std::map<int, BufferState>& buffers, int fd, bool read);
  EpollCallback connectionCallbacks();
  void setSocketBuffers(int fd);
  int readLocked(int fd, bool& reconnect);
  int closeConnection(int fd, bool& reconnect, bool* failed = nullptr);
  int sendFailed(const epoll_event& event, int fd);
  void reconnect();
};
