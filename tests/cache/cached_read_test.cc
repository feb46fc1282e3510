// The cached read path seen from the block table: which blocks a read fills,
// how a second read shares a running fill, what flushes and cancels do to a
// block being filled, victim choice, and which cache owns which path.
// Reads are issued while the library is suspended, so the tree rewrite
// (done on the issuing thread) is observable before any I/O runs.  Last,
// fills that meet system faults.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "cache/ram_cache.h"
#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "core/system_faults.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2::CacheBlock;
using kest2::CacheHeader;
using kest2::HeaderOf;
using kest2_test::SystemFaults;
using kest2_test::WriteFile;

constexpr uint64_t kBlock = 64 * 1024;

std::vector<uint8_t> Pattern(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>((i * 131 + seed) ^ (i >> 9));
  return bytes;
}

class CachedReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(64, 16, 4, 1024, chunks_);
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

  static std::vector<const CacheBlock*> BlocksIn(const ZulKestRamCacheContext* context,
                                                 uint16_t state) {
    std::vector<const CacheBlock*> found;
    const CacheHeader* cache = HeaderOf(context);
    for (uint32_t i = 0; i < cache->blockCount; ++i) {
      if (cache->table[i].state == state) found.push_back(&cache->table[i]);
    }
    return found;
  }

  uint32_t maxChunk_ = 0;
  uint32_t chunks_ = 8192;
  kest2_test::OutputCapture capture_;
  kest2_common::LibraryStorage storage_;
  kest2_common::TempDir dir_;
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
    shortBlock |=
        block->offset == static_cast<int64_t>(5 * kBlock) && block->length == end - 5 * kBlock;
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
  EXPECT_EQ(zulKestCacheContainsFileRangeSync(path_.c_str(), 3 * kBlock, 10),
            ZUL_KEST_ERROR_BAD_INDEX);
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
  for (const CacheBlock* block : BlocksIn(context, kest2::kCACHE_EMPTY))
    EXPECT_EQ(block->refcount, 0);
  EXPECT_EQ(zulKestCacheContainsFileRangeSync(path_.c_str(), 3 * kBlock, 10),
            ZUL_KEST_ERROR_BAD_INDEX);
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
  ASSERT_EQ(zulKestFHPwriteSync(nullptr, fh, patch, sizeof(patch), kBlock + 40),
            static_cast<int64_t>(sizeof(patch)));
  std::memcpy(bytes_.data() + kBlock + 40, patch, sizeof(patch));
  EXPECT_TRUE(BlocksIn(context, kest2::kCACHE_VALID).empty());
  ExpectRead(fh, kBlock, 100);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(CachedReadTest, VictimsAreTheLeastRecentlyUsedBlocksNotInUse) {
  ZulKestRamCacheContext* context = Install(0, 2);
  ASSERT_EQ(HeaderOf(context)->blockCount, 2u);
  const ZulKestFH fh = Open();
  ExpectRead(fh, 0, 100);           // fills block 0
  ExpectRead(fh, kBlock, 100);      // fills block 1
  ExpectRead(fh, 50, 10);           // block 0 used again
  ExpectRead(fh, 2 * kBlock, 100);  // evicts block 1, the older
  std::vector<int64_t> offsets;
  for (const CacheBlock* block : BlocksIn(context, kest2::kCACHE_VALID))
    offsets.push_back(block->offset);
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

// A read that shares a running fill needs chunks of its own (a collector
// and a callback per busy block).  When the pool runs dry in the middle of
// that rewrite, the read must go down whole, as it came: the right bytes,
// every block reference given back, no chunk kept.
//
// Disabled: it hangs in the final close.  A read whose tree the cache has
// rewritten, and which then cannot be split or queued for want of chunks,
// is freed without its callbacks running, so its block references and the
// handle's pending count are never given back (with a pool of 72 units
// instead the valid block keeps 62 references; with 52 the reads hang).
class CachedReadFewChunksTest : public CachedReadTest {
 protected:
  CachedReadFewChunksTest() { chunks_ = 64; }
};

TEST_F(CachedReadFewChunksTest, DISABLED_AReadThatRunsOutOfChunksMidRewriteGoesDownWhole) {
  ZulKestRamCacheContext* context = Install(0, 4);
  const ZulKestFH fh = Open();
  const kest2_test::ResourceCounts before = kest2_test::ResourceCounts::Settled();
  constexpr int64_t kPiece = 1000;
  std::vector<std::vector<uint8_t>> buffers(64, std::vector<uint8_t>(kPiece, 0xEE));
  std::vector<ZulKestOp> ops;
  zulKestSuspend();
  // The first read starts the fill of block 0; the others find it busy
  // and take chunks until there are none.
  for (size_t i = 0; i < buffers.size(); ++i) {
    const ZulKestOp op =
        zulKestFHPread(nullptr, fh, buffers[i].data(), kPiece, static_cast<int64_t>(i) * kPiece);
    if (op == 0) break;
    ops.push_back(op);
  }
  ASSERT_GT(ops.size(), 2u);
  zulKestResume();
  for (size_t i = 0; i < ops.size(); ++i) {
    SCOPED_TRACE(i);
    // A read whose tree cannot be split for want of chunks fails whole.
    const int64_t got = zulKestOpSyncWaitForIO(ops[i]);
    if (got == ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK) continue;
    ASSERT_EQ(got, kPiece);
    EXPECT_EQ(std::memcmp(buffers[i].data(), bytes_.data() + i * kPiece, kPiece), 0);
  }
  kest2_test::ExpectResourcesBack(before);
  for (const CacheBlock* block : BlocksIn(context, kest2::kCACHE_VALID))
    EXPECT_EQ(block->refcount, 0);
  EXPECT_TRUE(BlocksIn(context, kest2::kCACHE_BUSY).empty());
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

// --- fills under system faults ---------------------------------------------

// A fill whose read fails (or comes back short) must leave no block claiming
// bytes it does not hold, fail the readers that waited on it with the fill's
// code, and let the next read fill the block again with the file's bytes.
// Fills here are read in four pieces.
class CachedReadFaultTest : public CachedReadSmallChunkTest {
 protected:
  static constexpr int64_t kBlockSize = static_cast<int64_t>(kBlock);
  // A read that ends inside its block (one ending on a boundary fills
  // nothing): its miss fills the whole block and copies the read from it.
  static constexpr int64_t kLength = kBlockSize - 1;

  void SetUp() override {
    CachedReadSmallChunkTest::SetUp();
    if (HasFatalFailure()) return;
    context_ = Install(0, 4);
    fh_ = Open();
    before_ = kest2_test::ResourceCounts::Settled();
  }
  void TearDown() override {
    EXPECT_EQ(zulKestFHCloseSync(nullptr, fh_), ZUL_KEST_OK);
    CachedReadSmallChunkTest::TearDown();
  }

  // Issues a read of [offset, offset + kLength) into buffer.
  ZulKestOp StartRead(int64_t offset, std::vector<uint8_t>* buffer) const {
    buffer->assign(kLength, 0xEE);
    return zulKestFHPread(nullptr, fh_, buffer->data(), kLength, offset);
  }

  bool MatchesFile(const std::vector<uint8_t>& buffer, int64_t offset) const {
    return std::memcmp(buffer.data(), bytes_.data() + offset, buffer.size()) == 0;
  }

  // Every block is either empty or valid with no reader left, and a valid
  // block holds the file's bytes.
  void ExpectNoBlockClaimsWhatItDoesNotHold() const {
    const CacheHeader* cache = HeaderOf(context_);
    for (uint32_t i = 0; i < cache->blockCount; ++i) {
      const CacheBlock& block = cache->table[i];
      SCOPED_TRACE(i);
      EXPECT_TRUE(block.state == kest2::kCACHE_EMPTY || block.state == kest2::kCACHE_VALID)
          << block.state;
      EXPECT_EQ(block.refcount, 0);
      if (block.state != kest2::kCACHE_VALID) continue;
      EXPECT_EQ(std::memcmp(cache->data + uint64_t{i} * cache->blockSize,
                            bytes_.data() + block.offset, block.length),
                0)
          << "block of offset " << block.offset;
    }
  }

  int32_t Contains(int64_t offset) const {
    return zulKestCacheContainsFileRangeSync(path_.c_str(), offset, kLength);
  }

  ZulKestRamCacheContext* context_ = nullptr;
  ZulKestFH fh_ = 0;
  kest2_test::ResourceCounts before_;
};

TEST_F(CachedReadFaultTest, AFillWhoseReadFailsLeavesTheBlockEmptyAndTheNextReadFillsIt) {
  // The first piece of the fill, a middle one and the last one.
  const uint64_t pieces[] = {1, 2, 4};
  for (int i = 0; i < 3; ++i) {
    const int64_t offset = i * kBlockSize;
    SCOPED_TRACE(pieces[i]);
    std::vector<uint8_t> buffer;
    {
      SystemFaults faults;
      faults.Fail(SystemFaults::kPread, pieces[i], EIO);
      const ZulKestOp op = StartRead(offset, &buffer);
      ASSERT_NE(op, 0u);
      EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_ERROR_MEDIA_GONE);
      zulKestOpDelete(op);
      EXPECT_EQ(faults.Injected(SystemFaults::kPread), 1u);
    }
    EXPECT_EQ(Contains(offset), ZUL_KEST_ERROR_BAD_INDEX);
    ExpectNoBlockClaimsWhatItDoesNotHold();

    const ZulKestOp op = StartRead(offset, &buffer);
    EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_OK);
    EXPECT_EQ(zulKestOpGetActualCount(op), kLength);
    zulKestOpDelete(op);
    EXPECT_TRUE(MatchesFile(buffer, offset));
    EXPECT_EQ(Contains(offset), ZUL_KEST_OK);
    ExpectNoBlockClaimsWhatItDoesNotHold();
    kest2_test::ExpectResourcesBack(before_);
  }
}

TEST_F(CachedReadFaultTest, ReadersWaitingOnAFailingFillGetItsCode) {
  // Held back until all are queued, so that the later reads of the block
  // find the first one's fill running and wait on it.
  constexpr int kReaders = 4;
  SystemFaults faults;
  faults.Fail(SystemFaults::kPread, 2, EIO);
  zulKestSuspend();
  std::vector<std::vector<uint8_t>> buffers(kReaders);
  std::vector<ZulKestOp> ops;
  for (auto& buffer : buffers) {
    ops.push_back(StartRead(kBlockSize, &buffer));
    ASSERT_NE(ops.back(), 0u);
  }
  zulKestResume();
  int failed = 0;
  for (int i = 0; i < kReaders; ++i) {
    const int32_t rc = zulKestOpWait(ops[i]);
    if (rc == ZUL_KEST_ERROR_MEDIA_GONE) {
      ++failed;
    } else {
      // A reader that came after the failure filled the block again.
      EXPECT_EQ(rc, ZUL_KEST_OK) << i;
      EXPECT_TRUE(MatchesFile(buffers[i], kBlockSize)) << i;
    }
    zulKestOpDelete(ops[i]);
  }
  EXPECT_GE(failed, 1);
  ExpectNoBlockClaimsWhatItDoesNotHold();
  std::vector<uint8_t> buffer;
  const ZulKestOp op = StartRead(kBlockSize, &buffer);
  EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_OK);
  zulKestOpDelete(op);
  EXPECT_TRUE(MatchesFile(buffer, kBlockSize));
  kest2_test::ExpectResourcesBack(before_);
}

TEST_F(CachedReadFaultTest, AShortPieceInAFillIsCompletedBeforeTheBlockIsValid) {
  SystemFaults faults;
  faults.ShortRead(3, 100);
  std::vector<uint8_t> buffer;
  const ZulKestOp op = StartRead(2 * kBlockSize, &buffer);
  EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_OK);
  EXPECT_EQ(zulKestOpGetActualCount(op), kLength);
  zulKestOpDelete(op);
  EXPECT_TRUE(MatchesFile(buffer, 2 * kBlockSize));
  EXPECT_EQ(Contains(2 * kBlockSize), ZUL_KEST_OK);
  ExpectNoBlockClaimsWhatItDoesNotHold();
  // A hit now serves the block whole.
  const ZulKestOp hit = StartRead(2 * kBlockSize, &buffer);
  EXPECT_EQ(zulKestOpWait(hit), ZUL_KEST_OK);
  zulKestOpDelete(hit);
  EXPECT_TRUE(MatchesFile(buffer, 2 * kBlockSize));
  kest2_test::ExpectResourcesBack(before_);
}

}  // namespace
