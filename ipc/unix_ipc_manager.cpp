#include "ipc/unix_ipc_manager.h"

#include "ipc/ipc_acceptor.h"
#include "ipc/ipc_connection_io.h"
#include "ipc/ipc_connection_table.h"
#include "ipc/ipc_connector.h"
#include "util/tavo_log.h"

namespace {

UnixIpcOptions MakeOptions(bool isServer, int bufferSize, std::string path,
                           IpcHandlerState handlers, const char* name,
                           std::optional<cpu_set_t> cpus, int epollSize, int maxEvents) {
  UnixIpcOptions options;
  options.isServer = isServer;
  options.bufferSize = bufferSize;
  options.path = std::move(path);
  options.handlers = std::move(handlers);
  if (name != nullptr) options.name = name;
  options.cpus = cpus;
  options.epollSize = epollSize;
  options.maxEvents = maxEvents;
  return options;
}

}  // namespace

UnixIpcManager::UnixIpcManager(UnixIpcOptions options) : options_(std::move(options)) {
  EpollOptions loop;
  loop.size = options_.epollSize;
  loop.maxEvents = options_.maxEvents;
  // The socket is made on the loop thread when it starts.
  loop.startCallback = [this]() -> int { return options_.isServer ? createServer() : connect(); };
  loop.name = options_.name;
  loop.cpus = options_.cpus;
  epollManager_ = std::make_unique<EpollManager>(std::move(loop));
  connections_ = std::make_unique<IpcConnectionTable>(options_);
  // A lost own connection (client mode) is made again through the virtual.
  io_ = std::make_unique<IpcConnectionIo>(
      options_, *epollManager_, *connections_,
      [this](int fd, bool fromRead) {
        if (connector_->lost(fd, fromRead)) connect();
      });
  connector_ = std::make_unique<IpcConnector>(options_, *epollManager_, *io_, socketFd_);
  EpollCallback listener;
  listener.readable = [this](epoll_event event) { return onServerReadableCallback(event); };
  listener.close = [this](epoll_event event) { return onServerCloseCallback(event); };
  acceptor_ = std::make_unique<IpcAcceptor>(options_, *epollManager_, *connections_, *io_,
                                            socketFd_, std::move(listener));
}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, const char* name, cpu_set_t cpus,
                               int epollSize, int maxEvents)
    : UnixIpcManager(MakeOptions(isServer, bufferSize, std::move(path), std::move(handlers), name,
                                 cpus, epollSize, maxEvents)) {}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, const char* name, int epollSize,
                               int maxEvents)
    : UnixIpcManager(MakeOptions(isServer, bufferSize, std::move(path), std::move(handlers), name,
                                 std::nullopt, epollSize, maxEvents)) {}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string path,
                               IpcHandlerState handlers, int epollSize, int maxEvents)
    : UnixIpcManager(MakeOptions(isServer, bufferSize, std::move(path), std::move(handlers),
                                 nullptr, std::nullopt, epollSize, maxEvents)) {}

UnixIpcManager::~UnixIpcManager() {
  // The loop thread goes first: it is the one touching buffers and sockets.
  epollManager_->join();
  clearAllBuffer();
  socketFd_ = -1;
}

void UnixIpcManager::start() {
  TAVO_LOGI(tag(), "[UnixIpcManager][start] Start epoll Manager...");
  if (options_.isServer) {
    TAVO_LOGI(tag(), "[UnixIpcManager][start] Create server: %s", options_.path.c_str());
  } else {
    TAVO_LOGI(tag(), "[UnixIpcManager][start] Connection to server: %s", options_.path.c_str());
  }
  if (!epollManager_) {
    TAVO_LOGE(tag(), "[UnixIpcManager] epoll manager not exists!");
    return;
  }
  epollManager_->start();
}

void UnixIpcManager::stop() {
  TAVO_LOGI(tag(), "[UnixIpcManager][stop] Stop epoll Manager...");
  epollManager_->stop();
}

void UnixIpcManager::join() { epollManager_->join(); }

bool UnixIpcManager::createServer() {
  if (!options_.isServer) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Create server in client manager");
    return false;
  }
  return acceptor_->listen();
}

bool UnixIpcManager::connect() {
  if (options_.isServer) {
    TAVO_LOGE(tag(), "[UnixIpcManager] Create client in server manager");
    return false;
  }
  return connector_->connect();
}

bool UnixIpcManager::notifyNeedWriteData(int fd) {
  return epollManager_->notifyWriteEventReady(fd);
}

bool UnixIpcManager::writeDataNow(int fd) { return io_->writeNow(fd); }

bool UnixIpcManager::sendQueued(int fd) { return io_->sendQueued(fd); }

size_t UnixIpcManager::getConnectionCount() const { return connections_->size(); }

IpcAcceptStats UnixIpcManager::getAcceptStats() const { return acceptor_->stats(); }

int UnixIpcManager::onServerReadableCallback(epoll_event event) {
  return acceptor_->accept(event.data.fd);
}

int UnixIpcManager::onServerCloseCallback(epoll_event event) {
  if (!acceptor_->closeListener(event.data.fd)) return io_->onHangUp(event);
  createServer();
  return kIpcCallbackOk;
}

int UnixIpcManager::onClientReadableCallback(epoll_event event) { return io_->onReadable(event); }

int UnixIpcManager::onCommWriteCallback(epoll_event event) { return io_->onWritable(event); }

int UnixIpcManager::onClientCloseCallback(epoll_event event) { return io_->onHangUp(event); }

bool UnixIpcManager::allocateReadBufferForFd(int fd) { return connections_->allocate(fd, true); }

bool UnixIpcManager::allocateWriteBufferForFd(int fd) { return connections_->allocate(fd, false); }

bool UnixIpcManager::freeBufferForFd(int fd) {
  connections_->freeBuffers(fd);
  return true;
}

bool UnixIpcManager::clearAllBuffer() {
  connections_->freeAllBuffers();
  return true;
}

bool UnixIpcManager::ensureDataSend(int fd, BufferState* buffer) { return io_->send(fd, buffer); }
