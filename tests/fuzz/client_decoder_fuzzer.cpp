// The client library's decoder on arbitrary bytes, with both formatters over
// whatever it returns: no read past the bytes given, no undefined behaviour,
// no leak.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <variant>
#include <vector>

#include "client/tavo_event_decoder.h"
#include "client/tavo_event_format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact copy, so any read past the end lands outside the block.
  const std::vector<char> bytes(data, data + size);
  const Tavo::Client::Event event = Tavo::Client::DecodeEvent(bytes.data(), bytes.size());
  const std::string text = Tavo::Client::FormatEventText(event, "00:00:00.000");
  const std::string json = Tavo::Client::FormatEventJson(event, "00:00:00.000");
  if (text.empty() || json.empty() || json.front() != '{') abort();
  if (size >= 4 && Tavo::Client::EventLayoutLength(Tavo::Client::EventCode(event)) > size &&
      !std::holds_alternative<Tavo::Client::DecodeError>(event)) {
    abort();  // a record is decoded only when all its bytes are there
  }
  return 0;
}
