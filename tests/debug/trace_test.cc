// Trace lines: the fixed prefix, module switches tested at every call, and
// the "api" line of exported functions.

#include "debug/trace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>

#include "core/globals.h"
#include "kest2.h"
#include "test_support.h"

namespace {

class TraceTest : public ::testing::Test {
 protected:
  void TearDown() override { kest2_test::SetDebugFlags(0); }
};

TEST(TraceTimeTest, TraceTimestampFormatAndTruncation) {
  char text[32];
  EXPECT_EQ(zulKestTraceTimestamp(text, sizeof(text)), 0);
  char* dot = std::strchr(text, '.');
  ASSERT_NE(dot, nullptr);
  EXPECT_EQ(std::strlen(dot + 1), 6u);
  char tiny[5];
  EXPECT_EQ(zulKestTraceTimestamp(tiny, sizeof(tiny)), 0);
  EXPECT_EQ(std::strlen(tiny), 4u);
  EXPECT_EQ(std::strncmp(tiny, text, 2), 0);
}

TEST(TraceTimeTest, TraceTimeRoundsUpToMicroseconds) {
  struct Case {
    int64_t nanoseconds;
    const char* text;
  };
  const Case cases[] = {{0, "0.000000"},          {1, "0.000001"},
                        {1000, "0.000001"},       {1001, "0.000002"},
                        {999999999, "1.000000"},  {12345678901, "12.345679"},
                        {5999999500, "6.000000"}, {86400000000000, "86400.000000"}};
  for (const Case& c : cases) {
    char text[16];
    kest2::FormatTraceTime(c.nanoseconds, text, sizeof(text));
    EXPECT_STREQ(text, c.text) << c.nanoseconds;
  }
  char small[5];
  kest2::FormatTraceTime(12345678901, small, sizeof(small));
  EXPECT_STREQ(small, "12.3");
}

TEST_F(TraceTest, LineHasTheFixedPrefix) {
  kest2_test::SetDebugFlags(kest2::kTraceSched);
  kest2_test::OutputCapture out;
  KEST2_TRACE(kest2::kTraceSched, "NextEligible", "queue %d of %s", 3, "io");
  const std::regex line(
      R"(\d+\.\d{6} kest2/sched 0x[0-9a-f]{8,} NextEligible    queue 3 of io\n)");
  EXPECT_TRUE(std::regex_match(out.text(), line)) << out.text();
}

TEST_F(TraceTest, OnlyModulesWhoseBitIsSetAreTraced) {
  kest2_test::OutputCapture out;
  kest2_test::SetDebugFlags(kest2::kTraceIo);
  KEST2_TRACE(kest2::kTraceCache, "Fill", "nothing");
  EXPECT_EQ(out.text(), "");
  KEST2_TRACE(kest2::kTraceIo, "zulKestNativeRead", "x");
  EXPECT_NE(out.text().find("kest2/io    0x"), std::string::npos);
  out.Clear();
  kest2_test::SetDebugFlags(0);  // switched at run time
  KEST2_TRACE(kest2::kTraceIo, "zulKestNativeRead", "x");
  EXPECT_EQ(out.text(), "");
}

TEST_F(TraceTest, ExportedFunctionsTraceTheirName) {
  kest2_test::SetDebugFlags(kest2::kTraceApi);
  kest2_test::OutputCapture out;
  zulKestGetAllOps(nullptr, 0);
  const std::regex line(R"(\d+\.\d{6} kest2/api   0x[0-9a-f]+ zulKestGetAllOps \n)");
  EXPECT_TRUE(std::regex_match(out.text(), line)) << out.text();
}

TEST_F(TraceTest, ModuleTags) {
  const char* expected[] = {"api", "sched", "op", "chunk", "io", "cache", "zorba", "ovrly"};
  for (int bit = 0; bit < 8; ++bit)
    EXPECT_STREQ(kest2::TraceModuleTag(1u << bit), expected[bit]);
}

}  // namespace
