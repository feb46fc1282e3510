// The cached read path seen from the block table: which blocks a read fills,
// how a second read shares a running fill, what flushes and cancels do to a
// block being filled, victim choice, and which cache owns which path.
// Reads are issued while the library is suspended, so the tree rewrite
// (done on the issuing thread) is observable before any I/O runs.

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cache/ram_cache.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2::CacheBlock;
using kest2::CacheHeader;
using kest2::HeaderOf;

constexpr uint64_t kBlock = 64 * 1024;

std::vector<uint8_t> Pattern(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>((i * 131 + seed) ^ (i >> 9));
  return bytes;
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

class CachedReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = kest2_test::MakeParams(&storage_, 64, 16, 4, 1024, 8192);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.maxChunk = maxChunk_;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    path_ = dir_.path() + "/data.bin";
    bytes_ = Pattern(5 * kBlock + 1234, 7);
    WriteFile(path_, bytes_);
  }
  void TearDown() override {
    while (zulKestIsSuspended()) zulKestResume();
    for (int i = 0; i < 4; ++i) zulKestIOFilterRemove(i);
    zulKestTerminate();
    EXPECT_EQ(capture_.text().find("leak"), std::string::npos) << capture_.text();
  }

  // A cache of `blocks` blocks of kBlock bytes at filter index `index`.
  ZulKestRamCacheContext* Install(int index, uint32_t blocks, const char* path = nullptr) {
    contexts_.emplace_back();
    works_.emplace_back();
    const uint64_t header = (1024 + 80) & ~7ull;
    std::vector<uint64_t>& work = works_.back();
    work.assign((header + blocks * (kBlock + 64)) / 8 + 1, 0);
    ZulKestRamCacheContext* context = &contexts_.back();
    *context = ZulKestRamCacheContext{};
    context->sizeOfContext = sizeof(*context);
    context->workBufferSize = work.size() * 8;
    context->blockSize = kBlock;
    context->pWorkBuffer = work.data();
    context->pPath = path;
    EXPECT_EQ(zulKestIOFilterAdd(index, zulKestIOFilterCache, context), ZUL_KEST_OK);
    return context;
  }

  ZulKestFH Open() {
    ZulKestFH fh = 0;
    EXPECT_EQ(zulKestFHOpenSync(nullptr, &fh, path_.c_str(), nullptr), ZUL_KEST_OK);
    return fh;
  }

  // Reads and checks [offset, offset + length) against the file.
  void ExpectRead(ZulKestFH fh, int64_t offset, int64_t length) {
    std::vector<uint8_t> buffer(static_cast<size_t>(length), 0xEE);
    const int64_t want = std::min<int64_t>(length, static_cast<int64_t>(bytes_.size()) - offset);
    ASSERT_EQ(zulKestFHPreadSync(nullptr, fh, buffer.data(), length, offset), want);
    EXPECT_EQ(std::memcmp(buffer.data(), bytes_.data() + offset, static_cast<size_t>(want)), 0)
        << "offset " << offset << " length " << length;
  }

  static std::vector<const CacheBlock*> BlocksIn(const ZulKestRamCacheContext* context, uint16_t state) {
    std::vector<const CacheBlock*> found;
    const CacheHeader* cache = HeaderOf(context);
    for (uint32_t i = 0; i < cache->blockCount; ++i) {
      if (cache->table[i].state == state) found.push_back(&cache->table[i]);
    }
    return found;
  }

  uint32_t maxChunk_ = 0;
  kest2_test::OutputCapture capture_;
  kest2_test::TestStorage storage_;
  kest2_test::TempDir dir_;
  std::string path_;
  std::vector<uint8_t> bytes_;
  // Deques: installed contexts must not move.
  std::deque<ZulKestRamCacheContext> contexts_;
  std::deque<std::vector<uint64_t>> works_;
};

TEST_F(CachedReadTest, AMissFillsTheTailBlockOnlyAndTheNextReadsHit) {
  ZulKestRamCacheContext* context = Install(0, 8);
  const ZulKestFH fh = Open();
  // Ends on a block boundary: nothing is filled.
  ExpectRead(fh, 0, kBlock);
  EXPECT_TRUE(BlocksIn(context, kest2::kCACHE_VALID).empty());
  // Ends inside block 1: block 1 is filled, block 0 is not.
  ExpectRead(fh, 1000, kBlock + 5000);
  auto valid = BlocksIn(context, kest2::kCACHE_VALID);
  ASSERT_EQ(valid.size(), 1u);
  EXPECT_EQ(valid[0]->offset, static_cast<int64_t>(kBlock));
  EXPECT_EQ(valid[0]->length, kBlock);
  EXPECT_NE(valid[0]->modificationDate, 0u);
  // A read wholly inside block 1 is served without the file.
  const uint32_t hitsBefore = HeaderOf(context)->hits;
  const uint32_t missesBefore = HeaderOf(context)->misses;
  ExpectRead(fh, kBlock + 100, 30000);
  EXPECT_EQ(HeaderOf(context)->hits, hitsBefore + 1);
  EXPECT_EQ(HeaderOf(context)->misses, missesBefore);
  // The last block of the file is short and serves only its bytes.
  ExpectRead(fh, 5 * kBlock, 100);
  ExpectRead(fh, 5 * kBlock + 50, 5000);
  const int64_t end = static_cast<int64_t>(bytes_.size());
  bool shortBlock = false;
  for (const CacheBlock* block : BlocksIn(context, kest2::kCACHE_VALID))
    shortBlock |= block->offset == static_cast<int64_t>(5 * kBlock) && block->length == end - 5 * kBlock;
  EXPECT_TRUE(shortBlock);
  // Past the end: EOF (which the synchronous form reports as 0 bytes);
  // across the end: short.
  char byte;
  const ZulKestOp pastEnd = zulKestFHPread(nullptr, fh, &byte, 1, end + 10);
  EXPECT_EQ(zulKestOpWait(pastEnd), ZUL_KEST_ERROR_EOF);
  zulKestOpDelete(pastEnd);
  EXPECT_EQ(zulKestFHPreadSync(nullptr, fh, &byte, 1, end), 0);
  ExpectRead(fh, end - 10, 100);
  // Opflags that keep reads away from the cache neither use nor fill it.
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  attr.opflags |= ZUL_KEST_OPFLAG_CACHE_BYPASS;
  const uint32_t hits = HeaderOf(context)->hits;
  const uint32_t misses = HeaderOf(context)->misses;
  std::vector<uint8_t> buffer(3000);
  ASSERT_EQ(zulKestFHPreadSync(&attr, fh, buffer.data(), 3000, 2 * kBlock + 17), 3000);
  EXPECT_EQ(std::memcmp(buffer.data(), bytes_.data() + 2 * kBlock + 17, 3000), 0);
  EXPECT_EQ(HeaderOf(context)->hits, hits);
  EXPECT_EQ(HeaderOf(context)->misses, misses);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(CachedReadTest, ASecondReadSharesTheRunningFillAndAFlushDuringTheFillPurgesTheBlock) {
  ZulKestRamCacheContext* context = Install(0, 8);
  const ZulKestFH fh = Open();
  std::vector<uint8_t> first(4000), second(4000);
  zulKestSuspend();
  const ZulKestOp a = zulKestFHPread(nullptr, fh, first.data(), 4000, 3 * kBlock + 10);
  const ZulKestOp b = zulKestFHPread(nullptr, fh, second.data(), 4000, 3 * kBlock + 2000);
  auto busy = BlocksIn(context, kest2::kCACHE_BUSY);
  ASSERT_EQ(busy.size(), 1u);
  EXPECT_EQ(busy[0]->offset, static_cast<int64_t>(3 * kBlock));
  EXPECT_EQ(busy[0]->refcount, 2);  // the fill and the second reader
  // Contains does not count a block being filled.
  EXPECT_EQ(zulKestCacheContainsFileRangeSync(path_.c_str(), 3 * kBlock, 10), ZUL_KEST_ERROR_BAD_INDEX);
  zulKestCacheFlushFileSync(path_.c_str());
  EXPECT_EQ(BlocksIn(context, kest2::kCACHE_PURGE).size(), 1u);
  zulKestResume();
  ASSERT_EQ(zulKestOpWait(a), ZUL_KEST_OK);
  ASSERT_EQ(zulKestOpWait(b), ZUL_KEST_OK);
  EXPECT_EQ(zulKestOpGetActualCount(a), 4000);
  EXPECT_EQ(zulKestOpGetActualCount(b), 4000);
  EXPECT_EQ(std::memcmp(first.data(), bytes_.data() + 3 * kBlock + 10, 4000), 0);
  EXPECT_EQ(std::memcmp(second.data(), bytes_.data() + 3 * kBlock + 2000, 4000), 0);
  zulKestOpDelete(a);
  zulKestOpDelete(b);
  // The purged block is emptied once both are done, and is not served.
  EXPECT_TRUE(BlocksIn(context, kest2::kCACHE_PURGE).empty());
  EXPECT_TRUE(BlocksIn(context, kest2::kCACHE_VALID).empty());
  for (const CacheBlock* block : BlocksIn(context, kest2::kCACHE_EMPTY)) EXPECT_EQ(block->refcount, 0);
  EXPECT_EQ(zulKestCacheContainsFileRangeSync(path_.c_str(), 3 * kBlock, 10), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(CachedReadTest, AReadFindingACancelledFillGoesToTheFile) {
  ZulKestRamCacheContext* context = Install(0, 8);
  const ZulKestFH fh = Open();
  std::vector<uint8_t> first(4000), second(4000);
  zulKestSuspend();
  const ZulKestOp a = zulKestFHPread(nullptr, fh, first.data(), 4000, kBlock + 10);
  ASSERT_EQ(BlocksIn(context, kest2::kCACHE_BUSY).size(), 1u);
  zulKestOpCancel(a);
  const ZulKestOp b = zulKestFHPread(nullptr, fh, second.data(), 4000, kBlock + 20);
  // The second read found the fill cancelled: the block is purged, and the
  // second read fills a block of its own.
  EXPECT_EQ(BlocksIn(context, kest2::kCACHE_PURGE).size(), 1u);
  zulKestResume();
  EXPECT_EQ(zulKestOpWait(a), ZUL_KEST_ERROR_CANCELLED);
  ASSERT_EQ(zulKestOpWait(b), ZUL_KEST_OK);
  EXPECT_EQ(std::memcmp(second.data(), bytes_.data() + kBlock + 20, 4000), 0);
  zulKestOpDelete(a);
  zulKestOpDelete(b);
  EXPECT_TRUE(BlocksIn(context, kest2::kCACHE_PURGE).empty());
  auto valid = BlocksIn(context, kest2::kCACHE_VALID);
  ASSERT_EQ(valid.size(), 1u);
  EXPECT_EQ(valid[0]->refcount, 0);
  ExpectRead(fh, kBlock, kBlock);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(CachedReadTest, StaleBlocksAreDroppedWhenTheFileIsOpenedAgain) {
  ZulKestRamCacheContext* context = Install(0, 8);
  ZulKestFH fh = Open();
  ExpectRead(fh, 10, 2 * kBlock);
  ASSERT_EQ(BlocksIn(context, kest2::kCACHE_VALID).size(), 1u);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
  // Reopening the unchanged file keeps the block.
  fh = Open();
  EXPECT_EQ(BlocksIn(context, kest2::kCACHE_VALID).size(), 1u);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
  // New bytes with another modification time behind the library's back.
  bytes_ = Pattern(bytes_.size(), 99);
  WriteFile(path_, bytes_);
  struct timespec times[2] = {{0, UTIME_OMIT}, {1700000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
  fh = Open();
  EXPECT_TRUE(BlocksIn(context, kest2::kCACHE_VALID).empty());
  ExpectRead(fh, kBlock + 5, 1000);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(CachedReadTest, WritesThroughAHandlePurgeTheFileBeforeTheyGoDown) {
  ZulKestRamCacheContext* context = Install(0, 8);
  ZulKestOpenParams params{};
  params.openFlags = ZUL_KEST_O_READ | ZUL_KEST_O_WRITE;
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, path_.c_str(), &params), ZUL_KEST_OK);
  ExpectRead(fh, 10, 2 * kBlock);
  ASSERT_EQ(BlocksIn(context, kest2::kCACHE_VALID).size(), 1u);
  const char patch[] = "patched bytes";
  ASSERT_EQ(zulKestFHPwriteSync(nullptr, fh, patch, sizeof(patch), kBlock + 40), static_cast<int64_t>(sizeof(patch)));
  std::memcpy(bytes_.data() + kBlock + 40, patch, sizeof(patch));
  EXPECT_TRUE(BlocksIn(context, kest2::kCACHE_VALID).empty());
  ExpectRead(fh, kBlock, 100);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(CachedReadTest, VictimsAreTheLeastRecentlyUsedBlocksNotInUse) {
  ZulKestRamCacheContext* context = Install(0, 2);
  ASSERT_EQ(HeaderOf(context)->blockCount, 2u);
  const ZulKestFH fh = Open();
  ExpectRead(fh, 0, 100);          // fills block 0
  ExpectRead(fh, kBlock, 100);     // fills block 1
  ExpectRead(fh, 50, 10);          // block 0 used again
  ExpectRead(fh, 2 * kBlock, 100); // evicts block 1, the older
  std::vector<int64_t> offsets;
  for (const CacheBlock* block : BlocksIn(context, kest2::kCACHE_VALID)) offsets.push_back(block->offset);
  std::sort(offsets.begin(), offsets.end());
  EXPECT_EQ(offsets, (std::vector<int64_t>{0, static_cast<int64_t>(2 * kBlock)}));
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(CachedReadTest, EachFileBelongsToTheDeepestCacheThatCoversIt) {
  const std::string root = dir_.path() + "/data";
  const std::string sub = root + "/sub";
  ZulKestRamCacheContext* parent = Install(0, 2, root.c_str());
  ZulKestRamCacheContext* child = Install(1, 2, sub.c_str());
  ZulKestRamCacheContext* rest = Install(2, 2, nullptr);
  const CacheHeader* order = HeaderOf(child);
  ASSERT_EQ(order->next, HeaderOf(parent));
  EXPECT_EQ(HeaderOf(parent)->next, HeaderOf(rest));
  EXPECT_TRUE(kest2::MatchPathToCache(HeaderOf(child), (sub + "/f").c_str()));
  EXPECT_FALSE(kest2::MatchPathToCache(HeaderOf(parent), (sub + "/f").c_str()));
  EXPECT_TRUE(kest2::MatchPathToCache(HeaderOf(parent), (root + "/subway/f").c_str()));
  EXPECT_TRUE(kest2::MatchPathToCache(HeaderOf(rest), "/elsewhere/f"));
  EXPECT_FALSE(kest2::MatchPathToCache(HeaderOf(rest), (root + "/x").c_str()));
  // Queries go to the owning cache: its index answers.
  const ZulKestFH fh = Open();
  ExpectRead(fh, 10, kBlock);
  EXPECT_EQ(zulKestCacheContainsFileRangeSync(path_.c_str(), kBlock + 5, 1000), 2);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

class CachedReadSmallChunkTest : public CachedReadTest {
 protected:
  CachedReadSmallChunkTest() { maxChunk_ = 16 * 1024; }
};

TEST_F(CachedReadSmallChunkTest, AFillLargerThanMaxChunkIsReadInPieces) {
  ZulKestRamCacheContext* context = Install(0, 4);
  const ZulKestFH fh = Open();
  kest2_test::SetDebugFlags(0x20);
  ExpectRead(fh, 3, kBlock + 7);
  kest2_test::SetDebugFlags(0);
  EXPECT_NE(capture_.text().find("created callback chunk with 4 read chunk(s)"), std::string::npos);
  ASSERT_EQ(BlocksIn(context, kest2::kCACHE_VALID).size(), 1u);
  ExpectRead(fh, kBlock, kBlock);
  EXPECT_EQ(zulKestCacheContainsFileRangeSync(path_.c_str(), kBlock, kBlock), 0);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

}  // namespace
