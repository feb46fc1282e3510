// Object pools: capacity arithmetic, next-fit allocation with generation
// wraps, failure paths, and lock-free use from many threads.

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/random.h"
#include "core/pool.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2::Pool;

class PoolTest : public ::testing::Test {
 protected:
  // Sets up a pool of 16-byte units over `bytes` bytes of fresh storage.
  int32_t SetUp16(uint64_t bytes, uint32_t maxUnits = 65536) {
    storage_.assign((bytes + 7) / 8 + 1, 0);
    pool_ = Pool{};
    pool_.name = "chunk";
    return kest2::PoolSetUp(&pool_, storage_.data(), bytes, maxUnits, 16, 8);
  }

  std::vector<uint64_t> storage_;
  Pool pool_{};
};

TEST_F(PoolTest, CapacityArithmetic) {
  EXPECT_EQ(SetUp16(17), ZUL_KEST_ERROR_BAD_SIZE);  // one unit plus one bit: 0 units
  EXPECT_EQ(SetUp16(16), ZUL_KEST_ERROR_BAD_SIZE);
  ASSERT_EQ(SetUp16(1032), ZUL_KEST_OK);
  EXPECT_EQ(pool_.capacity, 64u);
  EXPECT_EQ(pool_.bitmap, reinterpret_cast<uint8_t*>(storage_.data()) + 1024);
  ASSERT_EQ(SetUp16(1040), ZUL_KEST_OK);
  EXPECT_EQ(pool_.capacity, 64u);  // 65 units would need a second bitmap word
  ASSERT_EQ(SetUp16(24 + 8), ZUL_KEST_OK);
  EXPECT_EQ(pool_.capacity, 1u);
  // The bitmap never overlaps a unit, whatever the size.
  for (uint64_t bytes = 25; bytes < 3000; bytes += 7) {
    if (SetUp16(bytes) != ZUL_KEST_OK) continue;
    EXPECT_LE(pool_.capacity * 16u, static_cast<uint64_t>(pool_.bitmap - pool_.base)) << bytes;
    EXPECT_LE(static_cast<uint64_t>(pool_.bitmap - pool_.base) + (pool_.capacity + 7) / 8, bytes);
  }
}

TEST_F(PoolTest, StorageLargerThanMaxUnitsMustBeExact) {
  EXPECT_EQ(SetUp16(1032, 64), ZUL_KEST_OK);           // exactly 64 units
  EXPECT_EQ(SetUp16(2000, 64), ZUL_KEST_ERROR_BAD_SIZE);  // room for more
  EXPECT_EQ(SetUp16(1040, 64), ZUL_KEST_ERROR_BAD_SIZE);  // 64 units, not exact
}

TEST_F(PoolTest, SetUpChecksAlignmentBeforeNull) {
  storage_.assign(200, 0);
  Pool pool{};
  EXPECT_EQ(kest2::PoolSetUp(&pool, reinterpret_cast<char*>(storage_.data()) + 4, 1024, 100, 16, 8),
            ZUL_KEST_ERROR_BAD_ALIGNMENT);
  EXPECT_EQ(kest2::PoolSetUp(&pool, nullptr, 1024, 100, 16, 8), ZUL_KEST_ERROR_BAD_PTR);
  EXPECT_EQ(pool.unit, 16u);
  EXPECT_EQ(kest2::PoolSetUp(&pool, storage_.data(), 1024, 100, 20, 8), ZUL_KEST_OK);
  EXPECT_EQ(pool.unit, 24u);  // rounded up to the alignment
}

TEST_F(PoolTest, NextFitRunsAndExhaustion) {
  ASSERT_EQ(SetUp16(1032), ZUL_KEST_OK);
  std::memset(storage_.data(), 0xCD, 64 * 16);  // allocation must zero units
  EXPECT_EQ(kest2::PoolAllocate(&pool_, 3), 0);
  EXPECT_EQ(kest2::PoolAllocate(&pool_, 1), 3);
  EXPECT_EQ(pool_.base[16 * 3], 0);
  EXPECT_EQ(kest2::PoolAllocate(&pool_, 60), 4);
  EXPECT_EQ(pool_.allocated, 64u);
  EXPECT_EQ(kest2::PoolAllocate(&pool_, 1), -1);
  EXPECT_TRUE(kest2::PoolIsAllocated(&pool_, pool_.base, 64));
  kest2::PoolFree(&pool_, 1, 2);
  EXPECT_FALSE(kest2::PoolIsAllocated(&pool_, pool_.base, 2));
  EXPECT_FALSE(kest2::PoolIsAllocated(&pool_, pool_.base + 8, 1));  // not a unit boundary
  EXPECT_EQ(kest2::PoolAllocate(&pool_, 3), -1);  // no run of three
  EXPECT_EQ(kest2::PoolAllocate(&pool_, 2), 1);
  EXPECT_EQ(pool_.highWater, 64u);
}

TEST_F(PoolTest, WrapToStartBumpsGeneration) {
  ASSERT_EQ(SetUp16(1032), ZUL_KEST_OK);
  ASSERT_EQ(kest2::PoolAllocate(&pool_, 62), 0);
  kest2::PoolFree(&pool_, 0, 3);
  EXPECT_EQ(pool_.generation, 1u);
  // Only two free units remain at the end: the search wraps to unit 0.
  EXPECT_EQ(kest2::PoolAllocate(&pool_, 3), 0);
  EXPECT_EQ(pool_.generation, 2u);
}

TEST_F(PoolTest, GenerationCyclesWithoutZeroOr32767) {
  ASSERT_EQ(SetUp16(1032), ZUL_KEST_OK);
  uint64_t seen = 0;
  for (int i = 0; i < 32766 * 2 + 5; ++i) {
    // A run of the whole pool always wraps to unit 0.
    ASSERT_EQ(kest2::PoolAllocate(&pool_, 64), 0);
    kest2::PoolFree(&pool_, 0, 64);
    ASSERT_GE(pool_.generation, 1u);
    ASSERT_LE(pool_.generation, 32766u);
    if (pool_.generation == 32766u) ++seen;
  }
  EXPECT_EQ(seen, 2u);
}

TEST_F(PoolTest, FreeOfUnallocatedRangeIsReportedAndChangesNothing) {
  ASSERT_EQ(SetUp16(1032 * 2 - 8), ZUL_KEST_OK);  // more than one bitmap word
  ASSERT_EQ(kest2::PoolAllocate(&pool_, 70), 0);
  kest2::PoolFree(&pool_, 69, 1);
  kest2_test::OutputCapture out;
  // Units 60..70 span two words; 69 and 70 are free: the first word's bits
  // must be restored.
  kest2::PoolFree(&pool_, 60, 11);
  EXPECT_EQ(out.text(), "KEST: unexpected failure during deallocation in AtomicToggleBits\n");
  EXPECT_EQ(pool_.allocated, 69u);
  EXPECT_TRUE(kest2::PoolIsAllocated(&pool_, pool_.base, 69));
  out.Clear();
  kest2::PoolFree(&pool_, 200, 1);  // out of range: ignored silently
  kest2::PoolFree(&pool_, 0, 1000);
  EXPECT_EQ(out.text(), "");
}

TEST_F(PoolTest, TearDownReportsLeaksAndKeepsHighWater) {
  std::vector<uint64_t> storage(ZUL_KEST_STORAGE_SIZE(4, 1272) / 8);
  Pool pool{};
  pool.name = "op";
  ASSERT_EQ(kest2::PoolSetUp(&pool, storage.data(), storage.size() * 8, 16384, 1272, 8), ZUL_KEST_OK);
  ASSERT_EQ(pool.capacity, 4u);
  kest2::PoolAllocate(&pool, 1);
  kest2::PoolAllocate(&pool, 1);
  kest2_test::OutputCapture out;
  kest2::PoolTearDown(&pool);
  EXPECT_EQ(out.text(), "kest2 warning: terminated with 2544 bytes (2 units) of ops still allocated\n");
  EXPECT_EQ(pool.highWater, 2u);
  EXPECT_EQ(pool.capacity, 0u);
  EXPECT_EQ(kest2::PoolAllocate(&pool, 1), -1);
  EXPECT_TRUE(std::all_of(storage.begin(), storage.end(), [](uint64_t w) { return w == 0; }));
}

TEST_F(PoolTest, ConcurrentAllocateAndFreeNeverHandOutAUnitTwice) {
  constexpr uint32_t kUnits = 256;
  storage_.assign(ZUL_KEST_STORAGE_SIZE(kUnits, 16) / 8, 0);
  pool_ = Pool{};
  pool_.name = "chunk";
  ASSERT_EQ(kest2::PoolSetUp(&pool_, storage_.data(), storage_.size() * 8, 65536, 16, 8), ZUL_KEST_OK);
  ASSERT_EQ(pool_.capacity, kUnits);
  std::vector<std::atomic<int>> owners(kUnits);
  std::atomic<int> doubleHandouts{0};
  constexpr int kThreads = 4;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      kest2_common::Random rng(1234 + t);
      std::vector<std::pair<uint32_t, uint32_t>> held;
      for (int i = 0; i < 20000; ++i) {
        if (held.size() < 20 && rng() % 2 == 0) {
          uint32_t n = 1 + rng() % 3;
          int64_t index = kest2::PoolAllocate(&pool_, n);
          if (index < 0) continue;
          for (uint32_t u = 0; u < n; ++u) {
            if (owners[index + u].fetch_add(1) != 0) ++doubleHandouts;
          }
          held.emplace_back(static_cast<uint32_t>(index), n);
        } else if (!held.empty()) {
          auto [index, n] = held.back();
          held.pop_back();
          for (uint32_t u = 0; u < n; ++u) owners[index + u].fetch_sub(1);
          kest2::PoolFree(&pool_, index, n);
        }
      }
      for (auto [index, n] : held) {
        for (uint32_t u = 0; u < n; ++u) owners[index + u].fetch_sub(1);
        kest2::PoolFree(&pool_, index, n);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(doubleHandouts.load(), 0);
  EXPECT_EQ(pool_.allocated, 0u);
  EXPECT_LE(pool_.highWater, kUnits);
  for (uint32_t u = 0; u < kUnits; ++u) EXPECT_FALSE(kest2::PoolUnitAllocated(&pool_, u));
}

}  // namespace
