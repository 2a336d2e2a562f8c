// Captures what the code under test logs through the Android log.
#pragma once

#include <android/log.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace tavo_test {

struct LogLine {
  int priority;
  std::string tag;
  std::string message;
};

// Installs a logger for its lifetime; lines still reach stderr.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> Lines() const;
  // Lines whose message contains text (optionally of one priority).
  int Count(const std::string& text, int priority = -1) const;
  void Clear();
};

struct Logged {
  std::string text;
  int priority;  // -1: any
  int times;
};

// Each text was logged exactly `times` times at its priority.
inline void ExpectLogged(const LogCapture& log, std::initializer_list<Logged> expected) {
  for (const Logged& e : expected) EXPECT_EQ(log.Count(e.text, e.priority), e.times) << e.text;
}

}  // namespace tavo_test
