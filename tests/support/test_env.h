// Per-process isolation for tests that touch fixed system paths.
//
// When run as root, each test process gets private mount and network
// namespaces: a fresh bpffs on /sys/fs/bpf, tracefs on /sys/kernel/tracing,
// a tmpfs on /data and its own abstract-socket space. Tests that run in
// parallel therefore never see each other's pins, sockets or dump files, and
// nothing is left behind on the machine.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace tavo_test {

struct TestEnv {
  bool root = false;
  bool isolated = false;    // private mount + network namespaces
  bool bpffs = false;       // private bpffs mounted at /sys/fs/bpf
  bool tracefs = false;     // tracefs reachable at /sys/kernel/tracing
  bool dataTmpfs = false;   // tmpfs mounted at /data
  std::string whyNot;       // reason when something is missing
};

// Set up once by the test main.
const TestEnv& Env();
TestEnv SetUpIsolation();

}  // namespace tavo_test

// Skips the current test with the reason when isolation is not available.
#define TAVO_REQUIRE_ISOLATION()                                                      \
  do {                                                                                \
    if (!::tavo_test::Env().isolated) GTEST_SKIP() << ::tavo_test::Env().whyNot;      \
  } while (0)
#define TAVO_REQUIRE_BPFFS()                                                          \
  do {                                                                                \
    if (!::tavo_test::Env().bpffs) GTEST_SKIP() << "no private bpffs: " << ::tavo_test::Env().whyNot; \
  } while (0)
#define TAVO_REQUIRE_DATA()                                                           \
  do {                                                                                \
    if (!::tavo_test::Env().dataTmpfs) GTEST_SKIP() << "no private /data: " << ::tavo_test::Env().whyNot; \
  } while (0)
