// The socket manager's connection I/O: opening a connection and watching
// it, receiving into it, flushing it and closing it. The loop thread runs
// the callbacks; other threads call sendQueued and writeNow. The user's
// read and write callbacks run under the connection's guard; the close
// callback and the `closed` hook (where client mode connects again) run
// without it.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/epoll.h>

#include <functional>
#include <memory>

#include "ipc/epoll_manager.h"
#include "ipc/ipc_connection_table.h"

class IpcConnectionIo {
 public:
  using ClosedHook = std::function<void(int fd, bool fromRead)>;
  IpcConnectionIo(const UnixIpcOptions& options, EpollManager& loop,
                  IpcConnectionTable& connections, ClosedHook closed);

  // A connection with the buffers its handlers need, set up for the socket;
  // nullptr (logged) when an accepted one cannot get its buffers.
  std::shared_ptr<IpcConnection> open(android::base::unique_fd fd, bool accepted);
  // Into the table and the loop; false (and forgotten) when the loop refuses it.
  bool watch(const std::shared_ptr<IpcConnection>& connection);

  int onReadable(epoll_event event);
  int onWritable(epoll_event event);
  int onHangUp(epoll_event event);

  bool writeNow(int fd);
  bool sendQueued(int fd);
  // Sends [cursor, length); meets a full socket by yielding up to 11 times.
  bool send(int fd, BufferState* buffer);

 private:
  const char* tag() const { return options_.name.c_str(); }
  void setSocketBuffers(int fd);
  int receive(IpcConnection& connection, bool* closeIt, bool* wantWrite)
      REQUIRES(connection.lock());
  int flush(IpcConnection& connection, const epoll_event& event) REQUIRES(connection.lock());
  int sendFailed(const epoll_event& event, int fd, bool quiet);
  // Sends [cursor, length); a full socket is met by yielding up to
  // fullTries times, or at once (errno EAGAIN) when fullTries is 0. Its
  // lines are logged when the connection's limiter lets the burst through
  // (always without a connection); *quiet is set when the send gave up on a
  // full socket without logging it.
  bool sendBuffer(int fd, IpcConnection* connection, BufferState* buffer, int fullTries,
                  bool* quiet);
  bool admitFullBurst(IpcConnection* connection, int fd);
  // Logs "Not allocate read/write buffer"; -1.
  int missingBuffer(int fd, bool read);
  // Unregisters, closes and frees the connection, tells the user, then the
  // hook. False when closing failed.
  bool close(const std::shared_ptr<IpcConnection>& connection, bool fromRead);

  const UnixIpcOptions& options_;
  EpollManager& loop_;
  IpcConnectionTable& connections_;
  const ClosedHook closed_;
};
