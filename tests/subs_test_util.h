// Helpers for the subscription tests: request bytes, reply parsing, an
// in-process service and a raw socket peer.
#pragma once

#include <poll.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <android-base/properties.h>
#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "include/tavo_bpf_service_main.h"
#include "service/tavo_bpf_service.h"

namespace subs_test {

inline constexpr const char* kSocket = "/mnt/bpfframework/tavobpfdispatcher";

inline bool WaitFor(const std::function<bool()>& done, int timeoutMs = 3000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The 44-byte request record: reqId, command text (28 bytes), two spare
// words, event type. `command` is copied as given, NULs included.
inline std::string RequestRecord(uint32_t reqId, const std::string& command, int32_t type) {
  std::string record(44, '\0');
  memcpy(&record[0], &reqId, 4);
  memcpy(&record[4], command.data(), std::min<size_t>(command.size(), 28));
  const uint32_t dataLength = 4;
  memcpy(&record[36], &dataLength, 4);
  memcpy(&record[40], &type, 4);
  return record;
}

// A whole frame holding a command package.
inline std::string Frame(uint32_t command, const std::string& data) {
  std::string out(16, '\0');
  const int64_t length = static_cast<int64_t>(data.size()) + 8;
  const auto inner = static_cast<uint32_t>(data.size());
  memcpy(&out[0], &length, 8);
  memcpy(&out[8], &command, 4);
  memcpy(&out[12], &inner, 4);
  return out + data;
}

inline std::string Register(uint32_t reqId, int32_t type) {
  return Frame(0, RequestRecord(reqId, std::string("register-event-monitor") + '\0', type));
}

inline std::string Unregister(uint32_t reqId, int32_t type) {
  return Frame(0, RequestRecord(reqId, std::string("unregister-event-monitor") + '\0', type));
}

// The 28 bytes the service answers with.
inline std::string Reply(uint32_t reqId, int32_t result) {
  std::string out(28, '\0');
  const int64_t frame = 20;
  const uint32_t command = 1, dataLength = 12, respLength = 0;
  memcpy(&out[0], &frame, 8);
  memcpy(&out[8], &command, 4);
  memcpy(&out[12], &dataLength, 4);
  memcpy(&out[16], &reqId, 4);
  memcpy(&out[20], &result, 4);
  memcpy(&out[24], &respLength, 4);
  return out;
}

inline std::vector<char> Record(uint32_t type, size_t size, uint8_t fill) {
  std::vector<char> record(size, static_cast<char>(fill));
  memcpy(record.data(), &type, 4);
  return record;
}

inline bool SocketListening() {
  android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const size_t n = strlen(kSocket);
  memcpy(addr.sun_path + 1, kSocket, n);
  return connect(fd.get(), reinterpret_cast<sockaddr*>(&addr),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n)) == 0;
}

// The service as a host runs it, with the pumps held back (readiness "0"),
// so records come only from the test.
class InProcessService {
 public:
  InProcessService() {
    android::base::SetProperty("sys.tavo_bpf_ready", "0");
    Tavo::Bpf::BpfServiceMain();
    listening = WaitFor(SocketListening, 5000);
  }
  ~InProcessService() {
    auto* service = Tavo::Bpf::TavoBpfService::GetInstance();
    service->stop();
    service->Wait();
  }
  bool ok() const { return listening; }

 private:
  bool listening = false;
};

// A blocking peer on a plain socket.
class RawClient {
 public:
  RawClient() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const size_t n = strlen(kSocket);
    memcpy(addr.sun_path + 1, kSocket, n);
    connected = connect(fd.get(), reinterpret_cast<sockaddr*>(&addr),
                        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n)) == 0;
  }
  bool ok() const { return connected; }
  bool Send(const std::string& bytes) {
    return send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // Exactly n bytes, or what came before the time-out.
  std::string Receive(size_t n, int timeoutMs = 3000) {
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (out.size() < n) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      pollfd p{fd.get(), POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
      char buf[4096];
      const ssize_t got = recv(fd.get(), buf, std::min(sizeof(buf), n - out.size()), 0);
      if (got <= 0) break;
      out.append(buf, static_cast<size_t>(got));
    }
    return out;
  }
  void Close() { fd.reset(); }

 private:
  android::base::unique_fd fd;
  bool connected = false;
};

}  // namespace subs_test
