#include "util/tavo_properties.h"

#include <android-base/properties.h>

#include <mutex>

namespace Tavo::Bpf {

namespace {
std::mutex gPropertyLock;
}

std::string GetServiceProperty(const std::string& key, const std::string& defaultValue) {
  std::lock_guard<std::mutex> guard(gPropertyLock);
  return android::base::GetProperty(key, defaultValue);
}

bool SetServiceProperty(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> guard(gPropertyLock);
  return android::base::SetProperty(key, value);
}

}  // namespace Tavo::Bpf
