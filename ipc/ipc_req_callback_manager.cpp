#include "ipc/ipc_req_callback_manager.h"

#include <cstring>

unsigned int IpcReqCallBackManager::getReqId() {
  std::lock_guard<std::mutex> guard(lock);
  return nextReqId++;  // wraps to 0 after 4294967295
}

bool IpcReqCallBackManager::addIpcReqCallBack(unsigned int reqId, IpcReqCallBack callback) {
  std::lock_guard<std::mutex> guard(lock);
  const bool fresh = callbacks.find(reqId) == callbacks.end();
  callbacks[reqId] = std::move(callback);
  return fresh;
}

bool IpcReqCallBackManager::delIpcReq(unsigned int reqId) {
  std::lock_guard<std::mutex> guard(lock);
  return callbacks.erase(reqId) > 0;
}

bool IpcReqCallBackManager::handleReqCallBack(TavoRespIpcPackage* response) {
  // The record is read as the receiving side lays it out: reqId at 0,
  // result at 4, dataLength at 8 and the data from offset 12.
  auto* record = reinterpret_cast<char*>(response);
  uint32_t reqId = 0;
  int32_t result = 0;
  uint32_t dataLength = 0;
  memcpy(&reqId, record, sizeof(reqId));
  memcpy(&result, record + 4, sizeof(result));
  memcpy(&dataLength, record + 8, sizeof(dataLength));
  std::lock_guard<std::mutex> guard(lock);
  auto it = callbacks.find(reqId);
  if (it == callbacks.end()) return false;
  if (it->second) it->second(reqId, result, record + 12, dataLength);
  callbacks.erase(reqId);
  return true;
}
