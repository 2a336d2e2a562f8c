// Arbitrary text as a /proc status, stat and net/unix file.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "task/tavo_proc_reader.h"

using namespace Tavo::Bpf;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Exactly the input's bytes, so a read past the end is caught.
  const std::vector<char> text(data, data + size);
  const char* begin = text.data();
  const char* end = begin + text.size();
  TavoProcFacts facts;
  TavoProcReader::ParseStatus(begin, end, &facts);
  TavoProcReader::ParseStat(begin, end, &facts);
  UpdateProcessExdata info;
  TavoProcReader::ParseProcessInfo(begin, end, &info);
  std::set<unsigned long> inodes;
  size_t connected = 0;
  TavoProcReader::ParseUnixSockets(std::string(begin, end), "/x", &inodes, &connected);
  if (facts.comm[15] != 0 || info.comm[15] != 0) __builtin_trap();  // names stay terminated
  return 0;
}
