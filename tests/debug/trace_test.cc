// Trace lines: the fixed prefix, module switches tested at every call, and
// the "api" line of exported functions.

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "api/globals.h"
#include "debug/trace.h"
#include "kest2.h"
#include "test_support.h"

namespace {

class TraceTest : public ::testing::Test {
 protected:
  void TearDown() override { kest2_test::SetDebugFlags(0); }
};

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
