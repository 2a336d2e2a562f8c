#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/test_env.h"

int main(int argc, char** argv) {
  bool listing = false;
  for (int i = 1; i < argc; ++i) listing |= strncmp(argv[i], "--gtest_list_tests", 18) == 0;
  // Listing only names the tests: it must not touch namespaces.
  if (!listing) tavo_test::SetUpIsolation();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
