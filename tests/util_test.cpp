#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/test_env.h"
#include "util/tavo_strings.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;

TEST(Strings, DigitsHexPrintfAndSplit) {
  for (const auto& [text, digits] : std::vector<std::pair<std::string, bool>>{
           {"", false}, {"0", true}, {"123", true}, {"-1", false}, {" 1", false}, {"12a", false}}) {
    EXPECT_EQ(IsDigits(text), digits) << text;
  }
  const char bytes[] = {0x0A, static_cast<char>(0xFF), 0x00, static_cast<char>(0x80)};
  EXPECT_EQ(ConvertToHexString(bytes, 4), "0a ff 00 80 ");  // never sign-extended
  EXPECT_EQ(ConvertToHexString(bytes, -4), "");
  const std::string big(10000, 'q');
  EXPECT_EQ(StringPrintf("<%s>%d", big.c_str(), 7), "<" + big + ">7");

  using V = std::vector<std::string>;
  const struct {
    std::string s, delim;
    V pieces;
  } splits[] = {{"", ",", V{}},          {"a,,b,", ",", V{"a", "b"}}, {"5.10.101", ".", V{"5", "10", "101"}},
                {"a::b", "::", V{"a", "b"}}, {"a:b", "::", V{"a:b"}},   {"abc", "", V{"abc"}}};
  for (const auto& c : splits) EXPECT_EQ(Split(c.s, c.delim), c.pieces) << c.s << " / " << c.delim;
  EXPECT_EQ(SubAbs(3, 5), 2);
  EXPECT_EQ(SubAbs(5, 3), 2);
}

TEST(TimeBase, BtimeIsAddedToTheMonotonicClock) {
  tavo_test::TempDir dir;
  dir.Write("stat", "cpu  1 2 3\nbtime 1700000000\nprocesses 9\n");
  dir.Write("nobtime", "cpu 1\n");
  ASSERT_TRUE(InitBasetimeFrom((dir.path() + "/stat").c_str()));
  EXPECT_EQ(GetBasetime(), 1700000000);
  const int64_t boot = GetSystemBootNanosencondsTime();
  const int64_t offset = GetSystemNanosencondsTime() - boot;
  EXPECT_GE(offset, 1700000000LL * 1000000000LL);
  EXPECT_LT(offset, 1700000001LL * 1000000000LL);
  // A file without btime, or none at all, leaves the base as it was.
  EXPECT_TRUE(InitBasetimeFrom((dir.path() + "/nobtime").c_str()));
  EXPECT_FALSE(InitBasetimeFrom("/nonexistent/stat"));
  EXPECT_EQ(GetBasetime(), 1700000000);
}
