// The service singleton: lifecycle, handler table, pumps and client callbacks.
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc_buffer_state.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/unix_ipc_manager.h"
#include "service/tavo_bpf_exit_queue.h"
#include "util/tavo_export.h"

namespace Tavo::Bpf {

// Result of getProcessInfo.
struct UpdateProcessExdata {
  int32_t pid = 0;
  int32_t ppid = 0;
  char comm[16] = {};
};

using BpfEventHandler = std::function<int(char*, long)>;
using BpfAttachRow = std::vector<std::string>;
// object name -> program type (0 tracepoint, 1 kprobe, 2 kretprobe) -> rows
using BpfAttachTable = std::map<std::string, std::map<int, std::vector<BpfAttachRow>>>;

class TavoBpfService {
 public:
  TAVO_EXPORT static TavoBpfService* GetInstance();

  TAVO_EXPORT int start();
  TAVO_EXPORT int stop();
  TAVO_EXPORT int Wait();
  TAVO_EXPORT bool enableCoreBpf(int ring, bool enable);
  TAVO_EXPORT bool enableNormalBpf(int ring, bool enable);

  int eventProduceThread();
  int gpleventProduceThread();

  // Ring-buffer pumps (index 0 normal, 1 GPL).
  int eventMonitor();
  int gpleventMonitor();
  bool checkBpfRingBuffStatus(int ring, bool force);

  // Sample callback of both rings.
  static int handleBpfRingBuffEvent(void* ctx, void* data, unsigned long size);
  static int handleBpfPassthrough(void* ctx, void* data, unsigned long size);

  // /proc reader.
  void initTaskInfo();
  int getProcessInfo(int pid, UpdateProcessExdata* out);
  static long GetFdSize(const std::string& path);
  static uint64_t GetFdInode(const std::string& path);

  // Seeding of the pinned maps.
  int initFdBpfProg();
  int initDmabufBpfProg();

  // Raw-event handlers.
  int handleTavoTaskInitEvent(char* data, long size);
  int handleSched_SchedProcessFork(char* data, long size);
  int handleSched_SchedProcessExit(char* data, long size);
  int handleKmem_RssStat(char* data, long size);
  int handleDmabuf_Setup(char* data, long size);
  int handleDmabuf_Release(char* data, long size);
  int handleDmabuf_Attach(char* data, long size);
  int handleDmabuf_Detach(char* data, long size);
  int handleDmabuf_Vmap(char* data, long size);
  int handleDmabuf_Vunmap(char* data, long size);
  int handleDmabuf_Mmap(char* data, long size);
  int handleDmabuf_Munmap(char* data, long size);
  // Drops the dma-buf entries of processes noted by NoteProcessExit. Runs at
  // the start of every dma-buf handler; GPL pump thread only. Returns the
  // number of processes whose entries went.
  int reapExitedDmabufProcesses();

  // Client connections (socket thread).
  int onClientLibConnection(int fd);
  int onClientLibReadable(int fd, BufferState* receive, BufferState* send);
  int onClientLibWriteable(int fd, BufferState* send);
  int onClientLibClose(int fd);
  int onEventProvideReqCallBack(int fd, char* data, long length, BufferState* send);
  void notifyClientEventReady(const std::vector<int>& fds);

  UnixIpcManager* getIpcManager() const { return ipcManager.get(); }
  bool isRunning() const { return running.load(); }

  static std::mutex servicelock;
  static TavoBpfService* instance;

  static const char* const SOCKET_PATH;
  static const std::string BPF_FS_PATH;
  static const std::string TAVO_BPF_READY;
  static const std::string PROC_FS_PATH;
  static const std::string SUBTASK_PATH_TEMPLATE;
  static const std::string TASK_STATUS_TEMPLATE;
  static const std::string TASK_STATUS_PID_TEMPLATE;
  static const std::string TASK_STAT_TEMPLATE;
  static const std::string TASK_MAPS_TEMPLATE;
  static const std::string TASK_FD_TEMPLATE;
  static const std::string TASK_FDINFO_TEMPLATE;
  static const std::string TASK_COMM_PREFIX;
  static const std::string TASK_PPID_PREFIX;
  static const std::string TASK_RSS_ANON_PREFIX;
  static const std::string TASK_RSS_FILE_PREFIX;
  static const std::string TASK_RSS_SHMEM_PREFIX;
  static const std::string TASK_VM_SWAP_PREFIX;
  static const std::string TASK_PROC_UID_PREFIX;
  static const std::string TASK_DMABUF_PREFIX;
  static const std::string TASK_DMABUF_SIZE_PREFIX;
  static const std::string TASK_DMABUF_INO_PREFIX;
  static const BpfAttachTable PROG_EVENT_MAP;
  static const BpfAttachTable PROG_GPL_EVENT_MAP;

 private:
  TavoBpfService();
  ~TavoBpfService();
  TavoBpfService(const TavoBpfService&) = delete;
  TavoBpfService& operator=(const TavoBpfService&) = delete;
  friend class TavoBpfServiceTestPeer;

  // Shared body of the two pumps.
  int runMonitor(int index);
  bool updateStatusFlags(int ring, uint64_t setBits, uint64_t clearBits);
  // Launches a producer thread unless its handle is occupied.
  void launchThread(std::thread& handle, int (TavoBpfService::*body)());

  std::map<int32_t, BpfEventHandler> eventHandlers;
  std::atomic<bool> running{false};
  int64_t lastStatusCheck[2] = {0, 0};
  android::base::unique_fd ringbufFd[2];
  android::base::unique_fd statusFd[2];
  // Dma-buf bookkeeping; touched on the GPL pump thread only.
  std::map<uint64_t, uint64_t> dmabufSizes;
  std::map<int32_t, std::map<uint64_t, uint32_t>> processDmabufRefs;
  std::map<int32_t, int64_t> processDmabufTotals;
  std::map<int32_t, std::map<uint64_t, uint64_t>> processDmabufMappings;
  // Time stamp of the latest record that took a use for the pid: an exit
  // older than it belongs to an earlier process with that pid.
  std::map<int32_t, uint64_t> processDmabufLastUseTs;
  std::vector<ProcessExitNote> exitNotes;
  std::set<std::string> uninitializedComms;
  // Guards the two thread handles.
  std::mutex dataLock;
  std::thread pollThread;
  std::thread gplThread;
  std::unique_ptr<UnixIpcManager> ipcManager;
  std::unique_ptr<IpcPackageManager> packageManager;
  std::unique_ptr<IpcPackageHandler> packageHandler;
  // Per-client outgoing queues; changed on the socket thread under
  // EventManager::tavoRawEventManagerLock, read by producers under it.
  std::map<int, IpcPackageManager> clientQueues;
};

}  // namespace Tavo::Bpf
