#include "ipc/ipc_req_callback_manager.h"

#include <cstring>

unsigned int IpcReqCallBackManager::getReqId() {
  Tavo::MutexLock guard(lock_);
  return nextReqId_++;
}

bool IpcReqCallBackManager::addIpcReqCallBack(unsigned int reqId, IpcReqCallBack callback) {
  Tavo::MutexLock guard(lock_);
  auto [it, fresh] = callbacks_.try_emplace(reqId);
  it->second = std::move(callback);
  return fresh;
}

bool IpcReqCallBackManager::delIpcReq(unsigned int reqId) {
  Tavo::MutexLock guard(lock_);
  return callbacks_.erase(reqId) > 0;
}

bool IpcReqCallBackManager::handleReqCallBack(TavoRespIpcPackage* response) {
  // Read as the receiving side lays the record out: reqId at 0, result at 4,
  // dataLength at 8 and the data from offset 12.
  auto* record = reinterpret_cast<char*>(response);
  uint32_t reqId = 0;
  int32_t result = 0;
  uint32_t dataLength = 0;
  memcpy(&reqId, record, sizeof(reqId));
  memcpy(&result, record + 4, sizeof(result));
  memcpy(&dataLength, record + 8, sizeof(dataLength));
  Tavo::MutexLock guard(lock_);
  auto it = callbacks_.find(reqId);
  if (it == callbacks_.end()) return false;
  if (it->second) it->second(reqId, result, record + 12, dataLength);
  callbacks_.erase(it);
  return true;
}
