#include "tests/support/log_capture.h"

#include <mutex>
#include <optional>

namespace tavo_test {

namespace {
std::mutex gLock;
std::optional<std::vector<LogLine>> gLines;

void CaptureLogger(const struct __android_logger_data* data, const char* message) {
  {
    std::lock_guard<std::mutex> guard(gLock);
    if (gLines) gLines->push_back(LogLine{data->priority, data->tag ? data->tag : "", message ? message : ""});
  }
  __android_log_stderr_logger(data, message);
}
}  // namespace

LogCapture::LogCapture() {
  {
    std::lock_guard<std::mutex> guard(gLock);
    gLines.emplace();
  }
  __android_log_set_logger(CaptureLogger);
}

LogCapture::~LogCapture() {
  __android_log_set_logger(__android_log_stderr_logger);
  std::lock_guard<std::mutex> guard(gLock);
  gLines.reset();
}

std::vector<LogLine> LogCapture::Lines() const {
  std::lock_guard<std::mutex> guard(gLock);
  return gLines ? *gLines : std::vector<LogLine>();
}

int LogCapture::Count(const std::string& text, int priority) const {
  std::lock_guard<std::mutex> guard(gLock);
  int n = 0;
  if (!gLines) return 0;
  for (const auto& line : *gLines) {
    if ((priority < 0 || line.priority == priority) && line.message.find(text) != std::string::npos) ++n;
  }
  return n;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> guard(gLock);
  if (gLines) gLines->clear();
}

}  // namespace tavo_test
