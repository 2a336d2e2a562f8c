#include "util/tavo_strings.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

namespace Tavo::Bpf {

bool IsDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::string ConvertToHexString(const char* data, int len) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  if (len <= 0) return out;
  out.reserve(static_cast<size_t>(len) * 3);
  for (int i = 0; i < len; ++i) {
    const auto byte = static_cast<unsigned char>(data[i]);
    out.push_back(kDigits[byte >> 4]);
    out.push_back(kDigits[byte & 0xf]);
    out.push_back(' ');
  }
  return out;
}

std::string StringPrintf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list probe;
  va_copy(probe, ap);
  const int n = vsnprintf(nullptr, 0, fmt, probe);
  va_end(probe);
  std::string out;
  if (n > 0) {
    out.resize(static_cast<size_t>(n) + 1);
    vsnprintf(out.data(), out.size(), fmt, ap);
    out.resize(static_cast<size_t>(n));
  }
  va_end(ap);
  return out;
}

std::vector<std::string> Split(const std::string& s, const std::string& delim) {
  std::vector<std::string> pieces;
  if (delim.empty()) {
    if (!s.empty()) pieces.push_back(s);
    return pieces;
  }
  size_t start = 0;
  for (size_t pos; (pos = s.find(delim, start)) != std::string::npos; start = pos + delim.size()) {
    if (pos > start) pieces.emplace_back(s, start, pos - start);
  }
  if (start < s.size()) pieces.emplace_back(s, start);
  return pieces;
}

}  // namespace Tavo::Bpf
