// Storage and queue statistics, and the time-stamp recorder, byte for byte.

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "common/library_storage.h"
#include "kest2.h"
#include "test_support.h"

namespace {

// The tag and value columns of a time-stamp row, as printed.
std::string Columns(const char* tag, unsigned value) {
  char text[64];
  std::snprintf(text, sizeof(text), " %-32s %8x ", tag, value);
  return text;
}

class StatisticsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (zulKestIsInitialized(nullptr)) zulKestTerminate();
    zulKestClearTimeStamps();
  }
  kest2_test::OutputCapture output_;
  kest2_common::LibraryStorage storage_;
};

TEST_F(StatisticsTest, BeforeInitialisationEverythingIsZero) {
  ZulKestStatistics statistics;
  std::memset(&statistics, 0xA5, sizeof(statistics));
  zulKestStatisticsGet(&statistics);
  const ZulKestStatistics zero{};
  EXPECT_EQ(std::memcmp(&statistics, &zero, sizeof(statistics)), 0);
  zulKestStatisticsGet(nullptr);
  zulKestStatisticsPrint();
  EXPECT_EQ(output_.text(), "Current KEST statistics:\nKEST is not initialized\n");
}

TEST_F(StatisticsTest, PoolsAndQueuesReportUseAndHighWater) {
  ZulKestParams params = storage_.MakeParams(64, 32, 16, 1024, 1024);
  params.pVprintf = kest2_test::OutputCapture::Hook();
  params.schedulerCount = 2;
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, "/dev/null", nullptr), ZUL_KEST_OK);
  ZulKestStatistics statistics;
  zulKestStatisticsGet(&statistics);
  EXPECT_EQ(statistics.opStorage.current, 0u);
  EXPECT_GE(statistics.opStorage.highWater, 1u);
  EXPECT_EQ(statistics.opStorage.maxAvailable, 64u);
  EXPECT_EQ(statistics.opStorage.bytesPerUnit, ZUL_KEST_OP_UNIT_SIZE(1024));
  EXPECT_EQ(statistics.fhStorage.current, 1u);
  EXPECT_EQ(statistics.fhStorage.maxAvailable, 32u);
  EXPECT_EQ(statistics.chunkStorage.bytesPerUnit, 16u);
  EXPECT_GE(statistics.chunkStorage.current, 1u);  // the global root
  EXPECT_EQ(statistics.ioQueue[1].maxAvailable, 8192u);
  EXPECT_EQ(statistics.ioQueue[1].bytesPerUnit, 2u);

  zulKestStatisticsReset();
  zulKestStatisticsGet(&statistics);
  EXPECT_EQ(statistics.opStorage.highWater, 0u);
  EXPECT_EQ(statistics.callbackQueue.highWater, 0u);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);

  output_.Clear();
  zulKestStatisticsPrint();
  const std::string& text = output_.text();
  const size_t hdd = text.find("        HDD IO queue    current       0 highWater        0 bytesPerUnit    2  max available     8192\n");
  const size_t other = text.find("  All other IO queue    current");
  const size_t callback = text.find("  schedCallbackQueue    current");
  EXPECT_EQ(text.rfind("Current KEST statistics:\n           opStorage    current       0 highWater  ", 0), 0u) << text;
  ASSERT_NE(hdd, std::string::npos) << text;
  ASSERT_NE(other, std::string::npos);
  ASSERT_NE(callback, std::string::npos);
  EXPECT_LT(hdd, other);
  EXPECT_LT(other, callback);
}

TEST_F(StatisticsTest, TimeStampsPrintAbsoluteAndDeltaMicroseconds) {
  zulKestPrintTimeStamps();
  EXPECT_EQ(output_.text(), "Time stamp dump: no entries\n");
  output_.Clear();
  zulKestSaveTimeStamp("first", 0x2a);
  // Lets time pass for the delta to measure; no other thread is involved.
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  zulKestSaveTimeStamp("second", 7);
  zulKestPrintTimeStamps();
  const std::string dashes = std::string(80, '-') + "\n";
  const std::string& text = output_.text();
  char header[128];
  std::snprintf(header, sizeof(header), "%-16s %-32s %8s %-16s %-6s\n", "    Thread", "    Tag",
                " Value", "   Absolute us", " Delta us");
  ASSERT_EQ(text.rfind(dashes + "Time stamp dump:\n" + header, 0), 0u) << text;
  const size_t first = text.find(Columns("first", 0x2a));
  const size_t second = text.find(Columns("second", 7));
  ASSERT_NE(first, std::string::npos) << text;
  ASSERT_NE(second, std::string::npos) << text;
  // The first delta is 0; the second at least the 2 ms slept.
  EXPECT_EQ(text.substr(text.find('\n', first) - 2, 2), " 0");
  const size_t secondEnd = text.find('\n', second);
  const long long delta = std::stoll(text.substr(text.rfind(' ', secondEnd - 1), secondEnd));
  EXPECT_GE(delta, 2000);
  EXPECT_EQ(text.substr(text.size() - dashes.size()), dashes);
  // Printing cleared the ring.
  output_.Clear();
  zulKestPrintTimeStamps();
  EXPECT_EQ(output_.text(), "Time stamp dump: no entries\n");
}

TEST_F(StatisticsTest, RingKeepsTheNewestStampsAfterAnOverflow) {
  for (uint32_t i = 0; i < 32768; ++i) zulKestSaveTimeStamp("fill", i);
  zulKestPrintTimeStamps();
  EXPECT_EQ(output_.text().find("Overflowed"), std::string::npos);
  EXPECT_NE(output_.text().find(Columns("fill", 0)), std::string::npos);
  output_.Clear();
  for (uint32_t i = 0; i < 32769; ++i) zulKestSaveTimeStamp("fill", i);
  zulKestPrintTimeStamps();
  const std::string& text = output_.text();
  ASSERT_NE(text.find("Overflowed while capturing timings\n"), std::string::npos);
  // Stamp 0 was overwritten; the dump starts at the oldest one left, 1.
  EXPECT_EQ(text.find(Columns("fill", 0)), std::string::npos);
  const size_t header = text.find("Delta us\n");
  const std::string oldest = Columns("fill", 1);
  EXPECT_EQ(text.substr(text.find('\n', header) + 1 + 16, oldest.size()), oldest);
}

}  // namespace
