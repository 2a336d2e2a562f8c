// Writing one of the service's diagnostic files: the directory is created
// (mode 0775, an existing one is fine), the old file deleted, and the text
// written to a fresh one.
#pragma once

#include <string>

namespace Tavo::Bpf {

// False with errno set when the file cannot be opened.
bool ReplaceDumpFile(const std::string& dir, const std::string& path, const std::string& text);

}  // namespace Tavo::Bpf
