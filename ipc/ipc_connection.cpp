#include "ipc/ipc_connection.h"

#include <unistd.h>

#include <new>

IpcConnection::IpcConnection(android::base::unique_fd socket)
    : fd_(socket.get()), socket_(std::move(socket)) {}

IpcConnection::Guard::Guard(IpcConnection& connection) : connection_(connection) {
  connection_.lock_.lock();
  connection_.holder_ = std::this_thread::get_id();
}

IpcConnection::Guard::~Guard() {
  connection_.holder_ = std::thread::id();
  connection_.lock_.unlock();
}

bool IpcConnection::Buffer::allocate(int64_t capacity) {
  if (capacity < 0) capacity = 0;
  // Not zeroed: an idle connection's buffers cost no memory until used. A
  // failed allocation is reported, not thrown.
  block.reset(new (std::nothrow) char[capacity > 0 ? capacity : 1]);
  state = BufferState{};
  if (block == nullptr) return false;
  state.capacity = capacity;
  state.data = block.get();
  return true;
}

void IpcConnection::freeBuffers() {
  for (Buffer* buffer : {&receive_, &send_}) {
    buffer->block.reset();
    buffer->state = BufferState{};
  }
}

bool IpcConnection::close() {
  if (socket_.get() < 0) return true;
  return ::close(socket_.release()) == 0;
}

bool IpcConnection::admitFullBurst(uint64_t* skipped) {
  if (!fullBursts_.admit()) {
    ++skippedBursts_;
    return false;
  }
  *skipped = skippedBursts_.exchange(0);
  return true;
}
