// Handle tables: handle packing, stale and forged handles, enumeration and
// the report of a mismatching release.

#include <vector>

#include <gtest/gtest.h>

#include "core/handletable.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2::kDhTable;
using kest2::kFhTable;
using kest2::kOpTable;

class HandleTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int t = 0; t < kest2::kHandleTableCount; ++t) {
      storage_[t].assign(ZUL_KEST_STORAGE_SIZE(kUnits, 64) / 8, 0);
      ASSERT_EQ(kest2::HandleTableSetUp(static_cast<kest2::HandleTableId>(t), storage_[t].data(),
                                        storage_[t].size() * 8, 8, 64),
                ZUL_KEST_OK);
    }
  }
  void TearDown() override {
    kest2_test::OutputCapture quiet;  // leak warnings of the tests' leftovers
    for (int t = 0; t < kest2::kHandleTableCount; ++t)
      kest2::HandleTableTearDown(static_cast<kest2::HandleTableId>(t));
  }

  static constexpr uint32_t kUnits = 8;
  std::vector<uint64_t> storage_[3];
};

TEST_F(HandleTableTest, FirstHandlesOfEachTable) {
  EXPECT_EQ(kest2::AllocateHandle(kOpTable), 0x00014000u);
  EXPECT_EQ(kest2::AllocateHandle(kFhTable), 0x00018000u);
  EXPECT_EQ(kest2::AllocateHandle(kDhTable), 0x0001C000u);
  EXPECT_EQ(kest2::AllocateHandle(kOpTable), 0x00014001u);
}

TEST_F(HandleTableTest, ObjectsCarryTheirHandleAndLookUp) {
  uint32_t h = kest2::AllocateHandle(kFhTable);
  uint32_t* object = kest2::Lookup<uint32_t>(kFhTable, h);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(*object, h);
  EXPECT_EQ(kest2::Lookup<uint32_t>(kOpTable, h), nullptr);  // wrong table
  EXPECT_EQ(kest2::LookupHandle(kFhTable, 0), nullptr);
  EXPECT_EQ(kest2::LookupHandle(kFhTable, h | 0x80000000u), nullptr);  // negative
  EXPECT_EQ(kest2::LookupHandle(kFhTable, h & ~0xC000u), nullptr);    // table 0
  EXPECT_EQ(kest2::LookupHandle(kFhTable, h + 100), nullptr);         // beyond capacity
  EXPECT_EQ(kest2::LookupHandle(kFhTable, h + 1), nullptr);           // free slot
  EXPECT_EQ(kest2::LookupHandle(kFhTable, kest2::kFilenoHandleBase), nullptr);
}

TEST_F(HandleTableTest, ReusedSlotGetsANewGeneration) {
  std::vector<uint32_t> handles;
  for (uint32_t i = 0; i < kUnits; ++i) handles.push_back(kest2::AllocateHandle(kOpTable));
  EXPECT_EQ(kest2::AllocateHandle(kOpTable), 0u);  // full
  const uint32_t stale = handles[2];
  kest2::ReleaseHandle(kOpTable, stale);
  EXPECT_EQ(kest2::LookupHandle(kOpTable, stale), nullptr);
  const uint32_t reused = kest2::AllocateHandle(kOpTable);
  EXPECT_EQ(reused & 0x3FFFu, stale & 0x3FFFu);  // same slot
  EXPECT_NE(reused & 0x7FFF0000u, stale & 0x7FFF0000u);
  EXPECT_EQ(kest2::LookupHandle(kOpTable, stale), nullptr);
  EXPECT_NE(kest2::LookupHandle(kOpTable, reused), nullptr);
}

TEST_F(HandleTableTest, EnumerateFillsInSlotOrderAndCounts) {
  uint32_t a = kest2::AllocateHandle(kDhTable);
  uint32_t b = kest2::AllocateHandle(kDhTable);
  uint32_t c = kest2::AllocateHandle(kDhTable);
  kest2::ReleaseHandle(kDhTable, b);
  uint32_t out[4] = {9, 9, 9, 9};
  EXPECT_EQ(kest2::EnumerateHandles(kDhTable, out, 1), 2u);
  EXPECT_EQ(out[0], a);
  EXPECT_EQ(out[1], 9u);
  EXPECT_EQ(kest2::EnumerateHandles(kDhTable, out, 4), 2u);
  EXPECT_EQ(out[0], a);
  EXPECT_EQ(out[1], c);
  EXPECT_EQ(out[2], 0u);
  EXPECT_EQ(out[3], 0u);
  EXPECT_EQ(kest2::EnumerateHandles(kDhTable, nullptr, 4), 2u);
}

TEST_F(HandleTableTest, MismatchingReleaseIsReportedAndLeavesTheSlotAlone) {
  const uint32_t first = kest2::AllocateHandle(kFhTable);
  kest2::ReleaseHandle(kFhTable, first);
  // Fill every slot so that the first slot is reused under a new handle.
  std::vector<uint32_t> live;
  for (uint32_t i = 0; i < kUnits; ++i) live.push_back(kest2::AllocateHandle(kFhTable));
  const uint32_t owner = live.back();
  ASSERT_EQ(owner & 0x3FFFu, first & 0x3FFFu);
  kest2_test::OutputCapture out;
  kest2::ReleaseHandle(kFhTable, first);  // stale: a defect in the caller
  char expected[256];
  std::snprintf(expected, sizeof(expected),
                "KEST: Unexpected error while deallocating a handle\n"
                "KEST: pHandle->h 0x%08x, h 0x%08x\n"
                "KEST: could not find a handle matching h\n"
                "An assertion fired in: handletable @ line: 111\n"
                "Assertion failed: pHandle->h == h\n",
                owner, first);
  EXPECT_EQ(out.text(), expected);
  EXPECT_NE(kest2::LookupHandle(kFhTable, owner), nullptr);
}

}  // namespace
