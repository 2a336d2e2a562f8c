// Thin wrappers over the Android log so call sites stay one line.
#pragma once

#include <android/log.h>

#define TAVO_LOGE(tag, ...) __android_log_print(ANDROID_LOG_ERROR, tag, __VA_ARGS__)
#define TAVO_LOGW(tag, ...) __android_log_print(ANDROID_LOG_WARN, tag, __VA_ARGS__)
#define TAVO_LOGI(tag, ...) __android_log_print(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define TAVO_LOGD(tag, ...) __android_log_print(ANDROID_LOG_DEBUG, tag, __VA_ARGS__)

namespace Tavo::Bpf {
inline constexpr const char* kServiceTag = "BpfService";
inline constexpr const char* kUtilsTag = "BpfUtils";
}  // namespace Tavo::Bpf
