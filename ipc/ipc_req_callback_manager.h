// Request ids and the callbacks waiting for their responses.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

#include "ipc/ipc_package.h"
#include "util/tavo_export.h"

using IpcReqCallBack = std::function<int(uint32_t, int, char*, uint32_t)>;

class TAVO_EXPORT IpcReqCallBackManager {
 public:
  IpcReqCallBackManager() = default;

  unsigned int getReqId();
  bool addIpcReqCallBack(unsigned int reqId, IpcReqCallBack callback);
  bool delIpcReq(unsigned int reqId);
  bool handleReqCallBack(TavoRespIpcPackage* response);

 private:
  uint32_t nextReqId = 0;
  std::mutex lock;
  std::map<uint32_t, IpcReqCallBack> callbacks;
};
