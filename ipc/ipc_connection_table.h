// The socket manager's open connections by descriptor, and the buffer calls
// made by descriptor. The map's lock is held only to look up, insert or
// erase, never while calling out; buffers change under their connection's
// guard.
#pragma once

#include <map>
#include <memory>

#include "ipc/ipc_connection.h"
#include "ipc/unix_ipc_options.h"
#include "util/tavo_mutex.h"

class IpcConnectionTable {
 public:
  explicit IpcConnectionTable(const UnixIpcOptions& options) : options_(options) {}

  std::shared_ptr<IpcConnection> find(int fd) const EXCLUDES(lock_);
  void insert(const std::shared_ptr<IpcConnection>& connection) EXCLUDES(lock_);
  // Unless its number already belongs to a newer connection.
  void erase(const std::shared_ptr<IpcConnection>& connection) EXCLUDES(lock_);
  size_t size() const EXCLUDES(lock_);

  // A fresh empty buffer of the manager's size; logged, errno ENOMEM, when
  // it cannot be had.
  bool allocate(IpcConnection& connection, bool read) REQUIRES(connection.lock());
  // The same for fd's connection; false when fd is none.
  bool allocate(int fd, bool read) EXCLUDES(lock_);
  void freeBuffers(int fd) EXCLUDES(lock_);
  void freeAllBuffers() EXCLUDES(lock_);

 private:
  const UnixIpcOptions& options_;
  mutable Tavo::Mutex lock_;
  std::map<int, std::shared_ptr<IpcConnection>> connections_ GUARDED_BY(lock_);
};
