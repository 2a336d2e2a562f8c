#include "ipc/ipc_connection_table.h"

#include <errno.h>

#include <cstring>

#include "util/tavo_log.h"

std::shared_ptr<IpcConnection> IpcConnectionTable::find(int fd) const {
  Tavo::MutexLock guard(lock_);
  auto it = connections_.find(fd);
  return it == connections_.end() ? nullptr : it->second;
}

void IpcConnectionTable::insert(const std::shared_ptr<IpcConnection>& connection) {
  Tavo::MutexLock guard(lock_);
  connections_[connection->fd()] = connection;
}

void IpcConnectionTable::erase(const std::shared_ptr<IpcConnection>& connection) {
  Tavo::MutexLock guard(lock_);
  auto it = connections_.find(connection->fd());
  if (it != connections_.end() && it->second == connection) connections_.erase(it);
}

size_t IpcConnectionTable::size() const {
  Tavo::MutexLock guard(lock_);
  return connections_.size();
}

bool IpcConnectionTable::allocate(IpcConnection& connection, bool read) {
  const int64_t capacity = options_.bufferSize > 0 ? options_.bufferSize : 0;
  if (read ? connection.allocateReceive(capacity) : connection.allocateSend(capacity)) return true;
  TAVO_LOGE(options_.name.c_str(),
            read ? "[UnixIpcManager] Allocate read buffer for fd(%d) failed: %d, message: %s"
                 : "[UnixIpcManager] Allocate write buffer for fd(%d) failed: %d, message: %s",
            connection.fd(), ENOMEM, strerror(ENOMEM));
  errno = ENOMEM;
  return false;
}

bool IpcConnectionTable::allocate(int fd, bool read) {
  auto connection = find(fd);
  if (connection == nullptr) return false;
  IpcConnection::Guard guard(*connection);
  return allocate(*connection, read);
}

void IpcConnectionTable::freeBuffers(int fd) {
  auto connection = find(fd);
  if (connection == nullptr) return;
  IpcConnection::Guard guard(*connection);
  connection->freeBuffers();
}

void IpcConnectionTable::freeAllBuffers() {
  std::map<int, std::shared_ptr<IpcConnection>> connections;
  {
    Tavo::MutexLock guard(lock_);
    connections = connections_;
  }
  for (auto& entry : connections) {
    IpcConnection::Guard guard(*entry.second);
    entry.second->freeBuffers();
  }
}
