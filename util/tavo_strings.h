// Small string helpers shared by every subsystem.
#pragma once

#include <string>
#include <vector>

namespace Tavo::Bpf {

// True for a non-empty string of '0'..'9' only.
bool IsDigits(const std::string& s);
// Two lower-case hex digits and a blank per byte.
std::string ConvertToHexString(const char* data, int len);
std::string StringPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Cuts at every whole occurrence of delim; empty pieces are dropped.
// An empty delimiter yields the whole string as one piece.
std::vector<std::string> Split(const std::string& s, const std::string& delim);

}  // namespace Tavo::Bpf
