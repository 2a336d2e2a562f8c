// Where task tracking hands the notices it derives (codes 50001 to 50005):
// the service points it at the client hub. Called without any task lock.
#pragma once

#include <cstddef>
#include <functional>

namespace Tavo::Bpf {

using TavoNoticeSink = std::function<void(const void* notice, size_t size)>;

}  // namespace Tavo::Bpf
