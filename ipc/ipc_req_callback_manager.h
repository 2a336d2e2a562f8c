// Request ids and the callbacks waiting for their responses.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "ipc/ipc_package.h"
#include "util/tavo_export.h"
#include "util/tavo_mutex.h"

// (request id, result, data, data length).
using IpcReqCallBack = std::function<int(uint32_t, int, char*, uint32_t)>;

class TAVO_EXPORT IpcReqCallBackManager {
 public:
  IpcReqCallBackManager() = default;

  // 0, 1, 2, ... wrapping after 4294967295.
  unsigned int getReqId();
  // True when the id was new; a second callback replaces the first.
  bool addIpcReqCallBack(unsigned int reqId, IpcReqCallBack callback);
  bool delIpcReq(unsigned int reqId);
  // Runs (under the lock, so it must not call back into this manager) and
  // forgets the callback of the response's request; false for an unknown id.
  bool handleReqCallBack(TavoRespIpcPackage* response);

 private:
  Tavo::Mutex lock_;
  uint32_t nextReqId_ GUARDED_BY(lock_) = 0;
  std::map<uint32_t, IpcReqCallBack> callbacks_ GUARDED_BY(lock_);
};
