// System properties, read and written through libbase.
//
// On a device properties live in shared memory and other processes write
// them. libbase's host build keeps them in an unlocked in-process map, so on a
// host a writer racing the poll thread's reads would corrupt it; every access
// from this code base goes through one lock.
#pragma once

#include <string>

namespace Tavo::Bpf {

std::string GetServiceProperty(const std::string& key, const std::string& defaultValue);
bool SetServiceProperty(const std::string& key, const std::string& value);

}  // namespace Tavo::Bpf
