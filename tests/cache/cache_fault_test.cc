// The system failing the RAM cache's fills: a fill whose read fails (or
// comes back short) must leave no block claiming bytes it does not hold,
// fail the readers that waited on it with the fill's code, and let the next
// read fill the block again with the file's bytes.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <fstream>
#include <string>
#include <vector>

#include "cache/ram_cache.h"
#include "core/system_faults.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2::CacheBlock;
using kest2::CacheHeader;
using kest2::HeaderOf;
using kest2_test::SystemFaults;

constexpr int64_t kBlock = 64 * 1024;
constexpr uint32_t kPiece = 16 * 1024;  // a fill is read in four pieces
// A read that ends inside its block (one ending on a boundary fills
// nothing): its miss fills the whole block and copies the read from it.
constexpr int64_t kLength = kBlock - 1;

std::vector<uint8_t> Pattern(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>((i * 131 + seed) ^ (i >> 9));
  return bytes;
}

class CacheFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = kest2_test::MakeParams(&storage_, 64, 16, 4, 1024, 8192);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.maxChunk = kPiece;
    params.ioThreadCount = 2;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    path_ = dir_.path() + "/data.bin";
    bytes_ = Pattern(5 * kBlock + 1234, 7);
    std::ofstream(path_, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes_.data()),
               static_cast<std::streamsize>(bytes_.size()));

    const uint64_t header = (1024 + 80) & ~7ull;
    work_.assign((header + 4 * (kBlock + 64)) / 8 + 1, 0);
    context_.sizeOfContext = sizeof(context_);
    context_.workBufferSize = work_.size() * 8;
    context_.blockSize = kBlock;
    context_.pWorkBuffer = work_.data();
    ASSERT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterCache, &context_), ZUL_KEST_OK);
    ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh_, path_.c_str(), nullptr), ZUL_KEST_OK);
    before_ = kest2_test::ResourceCounts::Settled();
  }
  void TearDown() override {
    EXPECT_EQ(zulKestFHCloseSync(nullptr, fh_), ZUL_KEST_OK);
    zulKestIOFilterRemove(0);
    zulKestTerminate();
    EXPECT_EQ(output_.text().find("still allocated"), std::string::npos) << output_.text();
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
    const CacheHeader* cache = HeaderOf(&context_);
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

  kest2_test::OutputCapture output_;
  kest2_test::TestStorage storage_;
  kest2_test::TempDir dir_;
  std::string path_;
  std::vector<uint8_t> bytes_;
  std::vector<uint64_t> work_;
  ZulKestRamCacheContext context_{};
  ZulKestFH fh_ = 0;
  kest2_test::ResourceCounts before_;
};

TEST_F(CacheFaultTest, AFillWhoseReadFailsLeavesTheBlockEmptyAndTheNextReadFillsIt) {
  // The first piece of the fill, a middle one and the last one.
  const uint64_t pieces[] = {1, 2, 4};
  for (int i = 0; i < 3; ++i) {
    const int64_t offset = i * kBlock;
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

TEST_F(CacheFaultTest, ReadersWaitingOnAFailingFillGetItsCode) {
  // Held back until all are queued, so that the later reads of the block
  // find the first one's fill running and wait on it.
  constexpr int kReaders = 4;
  SystemFaults faults;
  faults.Fail(SystemFaults::kPread, 2, EIO);
  zulKestSuspend();
  std::vector<std::vector<uint8_t>> buffers(kReaders);
  std::vector<ZulKestOp> ops;
  for (auto& buffer : buffers) {
    ops.push_back(StartRead(kBlock, &buffer));
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
      EXPECT_TRUE(MatchesFile(buffers[i], kBlock)) << i;
    }
    zulKestOpDelete(ops[i]);
  }
  EXPECT_GE(failed, 1);
  ExpectNoBlockClaimsWhatItDoesNotHold();
  std::vector<uint8_t> buffer;
  const ZulKestOp op = StartRead(kBlock, &buffer);
  EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_OK);
  zulKestOpDelete(op);
  EXPECT_TRUE(MatchesFile(buffer, kBlock));
  kest2_test::ExpectResourcesBack(before_);
}

TEST_F(CacheFaultTest, AShortPieceInAFillIsCompletedBeforeTheBlockIsValid) {
  SystemFaults faults;
  faults.ShortRead(3, 100);
  std::vector<uint8_t> buffer;
  const ZulKestOp op = StartRead(2 * kBlock, &buffer);
  EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_OK);
  EXPECT_EQ(zulKestOpGetActualCount(op), kLength);
  zulKestOpDelete(op);
  EXPECT_TRUE(MatchesFile(buffer, 2 * kBlock));
  EXPECT_EQ(Contains(2 * kBlock), ZUL_KEST_OK);
  ExpectNoBlockClaimsWhatItDoesNotHold();
  // A hit now serves the block whole.
  const ZulKestOp hit = StartRead(2 * kBlock, &buffer);
  EXPECT_EQ(zulKestOpWait(hit), ZUL_KEST_OK);
  zulKestOpDelete(hit);
  EXPECT_TRUE(MatchesFile(buffer, 2 * kBlock));
  kest2_test::ExpectResourcesBack(before_);
}

}  // namespace
