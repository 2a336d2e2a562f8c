// Arbitrary text as a /proc status, stat and fdinfo file.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "task/tavo_proc_reader.h"

using namespace Tavo::Bpf;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Exactly the input's bytes, so a read past the end is caught.
  const std::vector<char> text(data, data + size);
  const char* begin = text.data();
  const char* end = begin + text.size();
  tavo_task_init_event record{};
  TavoProcReader::ParseStatus(begin, end, &record);
  TavoProcReader::ParseStat(begin, end, 1700000000, 100, &record);
  UpdateProcessExdata info;
  TavoProcReader::ParseProcessInfo(begin, end, &info);
  if (record.comm[15] != 0 || info.comm[15] != 0) __builtin_trap();  // names stay terminated
  return 0;
}
