// Per-process isolation for tests that touch the kernel's fixed paths.
//
// When run as root, each test process gets private mount and network
// namespaces: a fresh bpffs on /sys/fs/bpf, tracefs on /sys/kernel/tracing
// and its own abstract-socket space. Test binaries that run in parallel
// therefore never see each other's pins or sockets, and nothing is left
// behind. Everything else a test writes goes to a temporary folder.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/support/tavo_harness.h"

namespace tavo_test {

struct TestEnv {
  bool bpffs = false;    // private bpffs at /sys/fs/bpf
  bool tracefs = false;  // tracefs at /sys/kernel/tracing
  std::string whyNot;    // reason when either is missing
};

// Set up once by the test main, before any thread exists.
const TestEnv& Env();
void SetUpIsolation();

// A folder of its own under /tmp, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  // Writes text to path() + "/" + relative, creating folders on the way.
  void Write(const std::string& relative, const std::string& text) const;

 private:
  std::string path_;
};

// A name no other test process uses (for abstract sockets).
std::string UniqueName(const std::string& base);

}  // namespace tavo_test

#define TAVO_REQUIRE_KERNEL()                                                                       \
  do {                                                                                              \
    if (!::tavo_test::Env().bpffs || !::tavo_test::Env().tracefs) GTEST_SKIP() << ::tavo_test::Env().whyNot; \
  } while (0)
