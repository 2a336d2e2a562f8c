// Arbitrary bytes from a client, as the service's socket thread reads them:
// frames cut out of the receive buffer, requests dispatched, replies
// written into the send buffer.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "event/tavo_client_hub.h"

using namespace Tavo::Bpf;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static TavoClientHub* hub = [] {
    static TavoClientHubOptions options;
    options.socketPath = "tavo_fuzz_not_started";
    static TavoClientHub instance(options);  // never started: no socket, no thread
    return &instance;
  }();
  constexpr int kFd = 7;
  hub->onClientLibConnection(kFd);
  std::vector<char> receiveBlock(data, data + size), sendBlock(32768);
  BufferState receive{0, static_cast<int64_t>(size), static_cast<int64_t>(size), receiveBlock.data()};
  BufferState send{0, 0, static_cast<int64_t>(sendBlock.size()), sendBlock.data()};
  hub->onClientLibReadable(kFd, &receive, &send);
  const uint32_t code = 2;
  hub->AppendEvent(reinterpret_cast<const char*>(&code), sizeof(code));
  hub->onClientLibWriteable(kFd, &send);
  hub->onClientLibClose(kFd);
  return 0;
}
