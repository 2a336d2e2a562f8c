// Local-socket helpers shared by the socket manager and its users. Sockets
// live in the abstract namespace; failures are logged with the tag
// "BpfUtils" and return -1 or false.
#pragma once

#include <cstdint>
#include <string>

#include "util/tavo_export.h"

// A listening, non-blocking, close-on-exec stream socket.
TAVO_EXPORT int CreateNonblockingServerSocket(const std::string& path);
// A connected, non-blocking, close-on-exec stream socket.
TAVO_EXPORT int ConnectToServer(const std::string& path);
TAVO_EXPORT bool Setnonblocking(int fd);
TAVO_EXPORT bool EpollCtlAdd(int epollFd, int fd, uint32_t events);
TAVO_EXPORT bool EpollCtlMod(int epollFd, int fd, uint32_t events);
