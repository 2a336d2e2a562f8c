#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "util/tavo_strings.h"
#include "util/tavo_time.h"

using namespace Tavo::Bpf;

TEST(IsDigits, AcceptsOnlyPlainDigits) {
  const std::pair<std::string, bool> cases[] = {
      {"", false}, {"0", true}, {"123", true}, {"-1", false}, {" 1", false},
      {"12a", false}, {"self", false}, {"1 ", false}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(IsDigits(text), expected) << text;
}

TEST(ConvertToHexString, TwoDigitsAndABlankPerByte) {
  const char bytes[] = {0x0A, static_cast<char>(0xFF), 0x00, static_cast<char>(0x80)};
  EXPECT_EQ(ConvertToHexString(bytes, 3), "0a ff 00 ");
  EXPECT_EQ(ConvertToHexString(bytes + 3, 1), "80 ");
  EXPECT_EQ(ConvertToHexString(bytes, 0), "");
  EXPECT_EQ(ConvertToHexString(bytes, -4), "");
}

TEST(StringPrintf, FormatsWithoutLengthLimit) {
  EXPECT_EQ(StringPrintf("%d-%s", 7, "x"), "7-x");
  const std::string big(10000, 'q');
  EXPECT_EQ(StringPrintf("<%s>", big.c_str()), "<" + big + ">");
}

TEST(Split, DropsEmptyPiecesAndMatchesWholeDelimiter) {
  using V = std::vector<std::string>;
  const struct {
    std::string s, delim;
    V expected;
  } cases[] = {
      {"", ",", V{}},
      {",,,", ",", V{}},
      {"a,,b,", ",", V{"a", "b"}},
      {",a", ",", V{"a"}},
      {"whole", ",", V{"whole"}},
      {"5.10.101", ".", V{"5", "10", "101"}},
      {"a::b", "::", V{"a", "b"}},
      {"a:b", "::", V{"a:b"}},
      {"abc", "", V{"abc"}},
  };
  for (const auto& c : cases) EXPECT_EQ(Split(c.s, c.delim), c.expected) << c.s << " / " << c.delim;
}

// Reads the time base from a /proc/stat-like file holding text.
bool InitBasetimeFromText(const std::string& text) {
  const std::string path = testing::TempDir() + "tavo_stat";
  std::ofstream(path, std::ios::trunc) << text;
  const bool ok = InitBasetimeFrom(path.c_str());
  unlink(path.c_str());
  return ok;
}

TEST(TimeBase, ReadsBtimeAndAddsItToTheMonotonicClock) {
  ASSERT_TRUE(InitBasetimeFromText("cpu  1 2 3\nintr 5\nbtime 1700000000\nprocesses 9\n"));
  EXPECT_EQ(GetBasetime(), 1700000000);
  const int64_t boot = GetSystemBootNanosencondsTime();
  const int64_t sys = GetSystemNanosencondsTime();
  EXPECT_GE(sys - boot, 1700000000LL * 1000000000LL);
  EXPECT_LT(sys - boot, 1700000001LL * 1000000000LL);
  EXPECT_GE(GetSystemSecondsTime(), 1700000000);
  const int64_t precise = GetSystemMillisecondsTime(true);
  const int64_t coarse = GetSystemMillisecondsTime(false);
  EXPECT_LE(std::llabs(precise - coarse), 50);  // coarse clock resolution is a few ms
  EXPECT_FALSE(InitBasetimeFrom("/nonexistent/stat"));
  EXPECT_EQ(GetBasetime(), 1700000000);
}

TEST(TimeBase, MissingBtimeLeavesBaseUnchangedButSucceeds) {
  __basetime = 0;
  EXPECT_TRUE(InitBasetimeFromText("cpu 1\n"));
  EXPECT_EQ(GetBasetime(), 0);
  EXPECT_TRUE(InitBasetime());
  EXPECT_GT(GetBasetime(), 1000000000);  // the real /proc/stat has btime
}
