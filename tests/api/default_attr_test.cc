// Default attributes: the thread's set wins over the process's, an all-zero
// record clears the process's set but is a real setting for a thread, and
// each thread sees only its own set.

#include <atomic>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "kest2.h"

namespace {

ZulKestOpAttr MakeAttr(int8_t priority, uint32_t userTag) {
  ZulKestOpAttr attr{};
  attr.priority = priority;
  attr.userTag = userTag;
  return attr;
}

class DefaultAttrTest : public ::testing::Test {
 protected:
  void SetUp() override { zulKestDataInit(); }
  void TearDown() override {
    zulKestSetGlobalDefaultOpAttr(nullptr);
    zulKestSetThreadDefaultOpAttr(nullptr);
    zulKestDataTerm();
  }
};

TEST_F(DefaultAttrTest, NothingSetGivesZero) {
  ZulKestOpAttr out = MakeAttr(5, 5);
  EXPECT_FALSE(zulKestGetGlobalDefaultOpAttr(&out));
  EXPECT_EQ(out.userTag, 0u);
  zulKestGetDefaultOpAttr(&out);
  EXPECT_EQ(out.priority, 0);
  EXPECT_FALSE(zulKestGetThreadDefaultOpAttr(&out));
}

TEST_F(DefaultAttrTest, ThreadSetWinsEvenWhenAllZero) {
  ZulKestOpAttr global = MakeAttr(3, 0x1111);
  zulKestSetGlobalDefaultOpAttr(&global);
  ZulKestOpAttr out{};
  zulKestGetDefaultOpAttr(&out);
  EXPECT_EQ(out.userTag, 0x1111u);

  ZulKestOpAttr zero{};
  zulKestSetThreadDefaultOpAttr(&zero);
  EXPECT_TRUE(zulKestGetThreadDefaultOpAttr(&out));
  zulKestGetDefaultOpAttr(&out);
  EXPECT_EQ(out.userTag, 0u);
  EXPECT_EQ(out.priority, 0);

  zulKestSetThreadDefaultOpAttr(nullptr);
  zulKestGetDefaultOpAttr(&out);
  EXPECT_EQ(out.userTag, 0x1111u);
}

TEST_F(DefaultAttrTest, AllZeroRecordClearsGlobalDefaults) {
  ZulKestOpAttr global = MakeAttr(-1, 7);
  zulKestSetGlobalDefaultOpAttr(&global);
  ZulKestOpAttr zero{};
  zulKestSetGlobalDefaultOpAttr(&zero);
  ZulKestOpAttr out = MakeAttr(1, 1);
  EXPECT_FALSE(zulKestGetGlobalDefaultOpAttr(&out));
  EXPECT_EQ(out.userTag, 0u);
}

TEST_F(DefaultAttrTest, ThreadDefaultsArePerThread) {
  ZulKestOpAttr mine = MakeAttr(9, 0xAAAA);
  zulKestSetThreadDefaultOpAttr(&mine);
  ZulKestOpAttr global = MakeAttr(1, 0xBBBB);
  zulKestSetGlobalDefaultOpAttr(&global);
  uint32_t seenByOther = 0;
  bool otherHadOwn = true;
  std::thread other([&] {
    ZulKestOpAttr out{};
    otherHadOwn = zulKestGetThreadDefaultOpAttr(&out);
    zulKestGetDefaultOpAttr(&out);
    seenByOther = out.userTag;
  });
  other.join();
  EXPECT_FALSE(otherHadOwn);
  EXPECT_EQ(seenByOther, 0xBBBBu);
  ZulKestOpAttr out{};
  zulKestGetDefaultOpAttr(&out);
  EXPECT_EQ(out.userTag, 0xAAAAu);
}

TEST_F(DefaultAttrTest, ConcurrentGlobalSettersAndReadersSeeWholeRecords) {
  // Readers must never see a record mixed from two writers.
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::thread writers[2];
  for (int w = 0; w < 2; ++w) {
    writers[w] = std::thread([w, &stop] {
      ZulKestOpAttr attr = MakeAttr(static_cast<int8_t>(w + 1), w == 0 ? 0x1111 : 0x2222);
      attr.reserved = w == 0 ? 0x1111 : 0x2222;
      while (!stop.load()) zulKestSetGlobalDefaultOpAttr(&attr);
    });
  }
  for (int i = 0; i < 20000; ++i) {
    ZulKestOpAttr out{};
    if (zulKestGetGlobalDefaultOpAttr(&out) && out.reserved != out.userTag) ++torn;
  }
  stop = true;
  for (std::thread& t : writers) t.join();
  EXPECT_EQ(torn.load(), 0);
}

}  // namespace
