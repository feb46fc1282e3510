// Archive layout reading over hand-built archives.  Each test copies the TOC
// region into a buffer of exactly tocLength bytes and the index into one of
// exactly BlockIndexSize bytes, so that a read past either is caught by the
// address sanitizer rather than landing in neighbouring test bytes.

#include "archive/zorba_format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "core/md5.h"
#include "kest2.h"

namespace {

using kest2::ZorbaBlock;
using kest2::ZorbaHeader;

using Bytes = std::vector<uint8_t>;

void PutBigEndian(Bytes* out, size_t at, uint64_t value, size_t width) {
  if (out->size() < at + width) out->resize(at + width);
  for (size_t i = 0; i < width; ++i)
    (*out)[at + i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
}

Bytes Digest(const std::string& path) {
  Bytes d(16);
  kest2::PathDigest(path.data(), path.size(), d.data());
  return d;
}

// Writes an archive: header, entries, block-size rows, then zero bytes up to
// the requested archive size.  Every field can be overridden to build
// corrupt archives.
struct ArchiveBuilder {
  uint32_t version = 0x00030000;
  uint32_t magic = 0x5A4F5242;
  uint32_t compression = 0x7A6C6962;
  uint32_t blockSize = 256;
  uint32_t flags = 0;
  uint32_t entrySize = 30;
  int64_t tocLengthOverride = -1;  // raw header field when >= 0
  int64_t entryCountOverride = -1;
  Bytes entries;
  uint32_t entryCount = 0;
  Bytes rows;

  size_t HeaderSize() const { return (version >> 16) >= 3 ? 48 : 32; }

  void AddEntry(const Bytes& digest, uint32_t firstBlock, uint64_t size, uint64_t offset) {
    size_t at = entries.size();
    entries.resize(at + entrySize, 0xEE);  // bytes past 30 must be ignored
    std::memcpy(&entries[at], digest.data(), 16);
    PutBigEndian(&entries, at + 16, firstBlock, 4);
    PutBigEndian(&entries, at + 20, size, 5);
    PutBigEndian(&entries, at + 25, offset, 5);
    ++entryCount;
  }
  void AddRow(uint32_t value) {
    PutBigEndian(&rows, rows.size(), value, kest2::SizeWidthForBlockSize(blockSize));
  }

  Bytes Build(size_t archiveSize) const {
    Bytes out(HeaderSize(), 0);
    const uint64_t region = entries.size() + rows.size();
    uint64_t tocLength = (version >> 16) >= 3 ? region : region + 32;
    if (tocLengthOverride >= 0) tocLength = static_cast<uint64_t>(tocLengthOverride);
    PutBigEndian(&out, 0, magic, 4);
    PutBigEndian(&out, 4, version, 4);
    PutBigEndian(&out, 8, compression, 4);
    PutBigEndian(&out, 12, tocLength, 4);
    PutBigEndian(&out, 16, entrySize, 4);
    PutBigEndian(&out, 20, entryCountOverride >= 0 ? entryCountOverride : entryCount, 4);
    PutBigEndian(&out, 24, blockSize, 4);
    PutBigEndian(&out, 28, flags, 4);
    if ((version >> 16) >= 3) {
      PutBigEndian(&out, 32, 48, 8);
      PutBigEndian(&out, 40, region, 8);
    }
    out.insert(out.end(), entries.begin(), entries.end());
    out.insert(out.end(), rows.begin(), rows.end());
    if (out.size() < archiveSize) out.resize(archiveSize, 0);
    if (out.size() < kest2::kZorbaHeaderReadSize) out.resize(kest2::kZorbaHeaderReadSize, 0);
    return out;
  }
};

// Parses an archive and holds its TOC region and index in exact-size buffers.
class ZorbaFormatTest : public testing::Test {
 protected:
  // archiveSize is the size the checks are told; only the header and TOC
  // bytes are materialised.
  int32_t Load(const ArchiveBuilder& builder, uint64_t archiveSize) {
    archive_ = builder.Build(0);
    archiveSize_ = archiveSize;
    kest2::ParseHeader(archive_.data(), &header_);
    int32_t rc = kest2::CheckArchiveLayout(header_, archiveSize);
    if (rc != ZUL_KEST_OK) return rc;
    toc_.assign(archive_.begin() + header_.tocOffset,
                archive_.begin() + header_.tocOffset + header_.tocLength);
    index_.assign(kest2::BlockIndexSize(header_), 0xCC);
    return ZUL_KEST_OK;
  }
  const uint8_t* Entry(uint32_t i) const { return toc_.data() + i * header_.tocEntrySize; }
  const uint8_t* Find(const std::string& path) const {
    return kest2::FindEntryByPath(header_, toc_.data(), path.c_str());
  }
  ZorbaBlock Locate(uint32_t entry, uint64_t k, bool useIndex) {
    ZorbaBlock block{};
    EXPECT_EQ(kest2::LocateBlock(header_, toc_.data(), Entry(entry),
                                 useIndex ? index_.data() : nullptr, k, &block),
              ZUL_KEST_OK)
        << "block " << k;
    return block;
  }
  bool RangeStored(uint32_t entry, uint64_t offset, uint64_t length) {
    bool stored = true;
    EXPECT_EQ(kest2::IsRangeStored(header_, toc_.data(), Entry(entry), offset, length, &stored),
              ZUL_KEST_OK);
    return stored;
  }

  Bytes archive_;
  uint64_t archiveSize_ = 0;
  ZorbaHeader header_{};
  Bytes toc_;
  Bytes index_;
};

ZorbaHeader ParseBytes(const Bytes& bytes) {
  ZorbaHeader header{};
  kest2::ParseHeader(bytes.data(), &header);
  return header;
}

// --- Header ---------------------------------------------------------------

TEST_F(ZorbaFormatTest, Version1CountsHeaderInTocLength) {
  ArchiveBuilder b;
  b.version = 0x00010000;
  b.flags = kest2::ZORBA_FLAG_TOC_SORTED | 0x80;
  b.AddEntry(Bytes(16, 0), 0, 10, 100);
  b.AddRow(10);
  ASSERT_EQ(Load(b, 110), ZUL_KEST_OK);
  EXPECT_EQ(kest2::FindManifestEntry(header_, toc_.data()), Entry(0));
  EXPECT_EQ(Locate(0, 0, false).offset, 100u);
  EXPECT_EQ(kest2::CheckToc(header_, toc_.data(), 110), ZUL_KEST_OK);
  const ZorbaHeader& h = header_;
  EXPECT_EQ(h.tocOffset, 32u);
  EXPECT_EQ(h.tocLength, 31u);
  EXPECT_EQ(h.tocSize, 31u);
  EXPECT_EQ(h.sizeWidth, 1);
  EXPECT_EQ(h.tocSorted, 1);
  EXPECT_TRUE(kest2::IsHeaderValid(h));
  EXPECT_EQ(kest2::BlockRowCount(h), 1u);
}

TEST(ZorbaHeaderTest, Version3ReadsTocOffsetAndSize) {
  Bytes raw(48, 0);
  PutBigEndian(&raw, 0, 0x5A4F5242, 4);
  PutBigEndian(&raw, 4, 0x00030002, 4);
  PutBigEndian(&raw, 12, 0x1234, 4);
  PutBigEndian(&raw, 24, 65537, 4);
  PutBigEndian(&raw, 32, 0x0102030405060708ull, 8);
  PutBigEndian(&raw, 40, 0x1122334455667788ull, 8);
  ZorbaHeader h = ParseBytes(raw);
  EXPECT_EQ(h.tocLength, 0x1234u);
  EXPECT_EQ(h.tocOffset, 0x0102030405060708ull);
  EXPECT_EQ(h.tocSize, 0x1122334455667788ull);
  EXPECT_EQ(h.sizeWidth, 3);
  EXPECT_EQ(h.tocSorted, 0);
}

TEST(ZorbaHeaderTest, Version1IgnoresBytesAt32) {
  Bytes raw(48, 0xFF);
  PutBigEndian(&raw, 4, 0x00010000, 4);
  PutBigEndian(&raw, 12, 32, 4);
  ZorbaHeader h = ParseBytes(raw);
  EXPECT_EQ(h.tocOffset, 32u);
  EXPECT_EQ(h.tocLength, 0u);  // 32 or less leaves no TOC
  EXPECT_FALSE(kest2::IsHeaderValid(h));
  PutBigEndian(&raw, 12, 20, 4);
  h = ParseBytes(raw);
  EXPECT_EQ(h.tocLength, 0u);
  EXPECT_EQ(h.tocSize, 0u);
  EXPECT_FALSE(kest2::IsHeaderValid(h));
}

TEST(ZorbaHeaderTest, VersionsAccepted) {
  const struct {
    uint32_t version;
    bool valid;
  } cases[] = {{0x00010000, true},  {0x00010007, true},  {0x00030000, true},  {0x00020000, false},
               {0x00040000, false}, {0x00000000, false}, {0x00050000, false}, {0x00110000, false}};
  for (const auto& c : cases) {
    ArchiveBuilder b;
    b.version = c.version;
    b.AddEntry(Bytes(16, 0), 0, 1, 100);
    b.AddRow(1);
    EXPECT_EQ(kest2::IsHeaderValid(ParseBytes(b.Build(200))), c.valid) << std::hex << c.version;
  }
}

TEST(ZorbaHeaderTest, FieldLimits) {
  auto valid = [](void (*edit)(ArchiveBuilder*)) {
    ArchiveBuilder b;
    b.AddEntry(Bytes(16, 0), 0, 1, 100);
    b.AddRow(1);
    edit(&b);
    return kest2::IsHeaderValid(ParseBytes(b.Build(200)));
  };
  EXPECT_TRUE(valid([](ArchiveBuilder*) {}));
  EXPECT_FALSE(valid([](ArchiveBuilder* b) { b->magic = 0x5A4F5243; }));
  EXPECT_FALSE(valid([](ArchiveBuilder* b) { b->blockSize = 255; }));
  EXPECT_TRUE(valid([](ArchiveBuilder* b) { b->blockSize = 256; }));
  EXPECT_FALSE(valid([](ArchiveBuilder* b) { b->entrySize = 29; }));
  EXPECT_FALSE(valid([](ArchiveBuilder* b) { b->tocLengthOverride = 0; }));
  EXPECT_FALSE(valid([](ArchiveBuilder* b) { b->tocLengthOverride = 29; }));  // entries overrun
  // The codec is the layout check's business, not the header test's.
  EXPECT_TRUE(valid([](ArchiveBuilder* b) { b->compression = 0x6C7A3420; }));
}

TEST(ZorbaHeaderTest, RowWidthFollowsBlockSize) {
  EXPECT_EQ(kest2::SizeWidthForBlockSize(256), 1);
  EXPECT_EQ(kest2::SizeWidthForBlockSize(257), 2);
  EXPECT_EQ(kest2::SizeWidthForBlockSize(65536), 2);
  EXPECT_EQ(kest2::SizeWidthForBlockSize(65537), 3);
  EXPECT_EQ(kest2::SizeWidthForBlockSize(16777216), 3);
  EXPECT_EQ(kest2::SizeWidthForBlockSize(16777217), 4);
  EXPECT_EQ(kest2::SizeWidthForBlockSize(0xFFFFFFFFu), 4);
}

// Regression: 0x10000 entries of 0x10000 bytes is 0 in 32 bits, which
// would pass "tocLength >= size * count" and let readers run off the TOC.
TEST(ZorbaHeaderTest, EntryCountWrappingIn32BitsIsInvalid) {
  ArchiveBuilder b;
  b.entrySize = 0x10000;
  b.entryCountOverride = 0x10000;
  b.tocLengthOverride = 64;
  ZorbaHeader h = ParseBytes(b.Build(200));
  EXPECT_FALSE(kest2::IsHeaderValid(h));
  EXPECT_EQ(kest2::BlockRowCount(h), 0u);
  EXPECT_EQ(kest2::CheckArchiveLayout(h, 1u << 20), ZUL_KEST_ERROR_BAD_ARCHIVE);
}

TEST_F(ZorbaFormatTest, LayoutRejectsWrongCodec) {
  ArchiveBuilder b;
  b.compression = 0x6C7A3420;
  b.AddEntry(Bytes(16, 0), 0, 1, 100);
  b.AddRow(1);
  EXPECT_EQ(Load(b, 200), ZUL_KEST_ERROR_BAD_ARCHIVE);
}

TEST_F(ZorbaFormatTest, TruncatedTocIsBadArchive) {
  ArchiveBuilder b;
  b.AddEntry(Bytes(16, 0), 0, 1, 100);
  b.AddEntry(Digest("a"), 1, 1, 101);
  b.AddRow(1);
  b.AddRow(1);
  const size_t tocEnd = 48 + 2 * 30 + 2;
  EXPECT_EQ(Load(b, tocEnd), ZUL_KEST_OK);
  EXPECT_EQ(kest2::CheckArchiveLayout(header_, tocEnd - 1), ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_EQ(kest2::CheckArchiveLayout(header_, 40), ZUL_KEST_ERROR_BAD_ARCHIVE);
}

TEST(ZorbaHeaderTest, TocOffsetNearTopOfRangeDoesNotWrap) {
  ArchiveBuilder b;
  b.AddEntry(Bytes(16, 0), 0, 1, 100);
  b.AddRow(1);
  Bytes raw = b.Build(200);
  PutBigEndian(&raw, 32, 0xFFFFFFFFFFFFFFF0ull, 8);
  EXPECT_EQ(kest2::CheckArchiveLayout(ParseBytes(raw), 200), ZUL_KEST_ERROR_BAD_ARCHIVE);
  PutBigEndian(&raw, 32, 16, 8);  // inside the header
  EXPECT_EQ(kest2::CheckArchiveLayout(ParseBytes(raw), 200), ZUL_KEST_ERROR_BAD_ARCHIVE);
}

// --- Lookup ---------------------------------------------------------------

const char* const kPaths[] = {"readme.txt", "data/level1.bin", "data/level2.bin", "Sound/Music.ogg",
                              "x"};

ArchiveBuilder PathArchive(uint32_t flags, bool digestOrder) {
  ArchiveBuilder b;
  b.flags = flags;
  b.entrySize = 32;
  std::vector<Bytes> digests;
  digests.push_back(Bytes(16, 0));
  for (const char* p : kPaths) {
    std::string s = p;
    if (flags & kest2::ZORBA_FLAG_IGNORE_CASE) {
      for (char& c : s) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
    }
    digests.push_back(Digest(s));
  }
  if (digestOrder) {
    std::sort(digests.begin(), digests.end());
  } else {
    std::sort(digests.rbegin(), digests.rend());  // manifest last
  }
  for (size_t i = 0; i < digests.size(); ++i) {
    b.AddEntry(digests[i], kest2::ZORBA_STORED_FIRST_BLOCK, 1, 1000 + i);
  }
  return b;
}

TEST_F(ZorbaFormatTest, FindsPathsInSortedToc) {
  ASSERT_EQ(Load(PathArchive(kest2::ZORBA_FLAG_TOC_SORTED, true), 2000), ZUL_KEST_OK);
  ASSERT_TRUE(header_.tocSorted);
  EXPECT_EQ(kest2::FindManifestEntry(header_, toc_.data()), Entry(0));
  for (const char* p : kPaths) {
    const uint8_t* e = Find(p);
    ASSERT_NE(e, nullptr) << p;
    EXPECT_EQ(std::memcmp(e, Digest(p).data(), 16), 0) << p;
  }
  EXPECT_EQ(Find("README.TXT"), nullptr);
  EXPECT_EQ(Find("/readme.txt"), nullptr);
  EXPECT_EQ(Find("readme.tx"), nullptr);
  EXPECT_EQ(kest2::FindEntryByPath(header_, toc_.data(), nullptr), nullptr);
}

TEST_F(ZorbaFormatTest, UnsortedTocFoundBeforeAndAfterSort) {
  ASSERT_EQ(Load(PathArchive(0, false), 2000), ZUL_KEST_OK);
  ASSERT_FALSE(header_.tocSorted);
  EXPECT_EQ(kest2::FindManifestEntry(header_, toc_.data()), Entry(5));
  for (const char* p : kPaths) EXPECT_NE(Find(p), nullptr) << p;  // linear scan

  kest2::SortToc(&header_, toc_.data());
  EXPECT_TRUE(header_.tocSorted);
  EXPECT_EQ(kest2::FindManifestEntry(header_, toc_.data()), Entry(0));
  for (uint32_t i = 1; i < header_.tocEntryCount; ++i) {
    EXPECT_LT(std::memcmp(Entry(i - 1), Entry(i), 16), 0) << i;
  }
  for (const char* p : kPaths) {
    const uint8_t* e = Find(p);
    ASSERT_NE(e, nullptr) << p;
    // The entry moved with its digest: its fields still belong to it.
    EXPECT_EQ(std::memcmp(e, Digest(p).data(), 16), 0);
    EXPECT_GE(kest2::GetEntryOffset(e), 1000u);
    EXPECT_EQ(kest2::GetEntrySize(e), 1u);
  }
}

TEST_F(ZorbaFormatTest, IgnoreCaseUpperCasesOnlyLetters) {
  ASSERT_EQ(Load(PathArchive(kest2::ZORBA_FLAG_IGNORE_CASE, false), 2000), ZUL_KEST_OK);
  kest2::SortToc(&header_, toc_.data());
  EXPECT_NE(Find("sound/music.ogg"), nullptr);
  EXPECT_EQ(Find("SOUND/MUSIC.OGG"), Find("Sound/Music.ogg"));
  EXPECT_NE(Find("DATA/LEVEL1.BIN"), nullptr);
  EXPECT_EQ(Find("data\\level1.bin"), nullptr);
}

TEST(ZorbaDigestTest, LongPathUpperCasedAcrossChunks) {
  ZorbaHeader h{};
  h.archiveFlags = kest2::ZORBA_FLAG_IGNORE_CASE;
  std::string lower, upper;
  for (int i = 0; i < 300; ++i) {
    lower += static_cast<char>('a' + i % 26);
    upper += static_cast<char>('A' + i % 26);
    if (i % 7 == 0) {
      lower += "/_{";
      upper += "/_{";
    }
  }
  uint8_t got[16];
  kest2::ZorbaPathDigest(h, lower.c_str(), got);
  EXPECT_EQ(Bytes(got, got + 16), Digest(upper));
}

// --- Blocks ---------------------------------------------------------------

// Reference offset of block k: dataOffset plus the stored sizes before it.
uint64_t ReferenceOffset(const std::vector<uint32_t>& rows, uint32_t first, uint64_t dataOffset,
                         uint64_t k, uint32_t blockSize) {
  uint64_t offset = dataOffset;
  for (uint64_t r = first; r < first + k; ++r) offset += rows[r] == 0 ? blockSize : rows[r];
  return offset;
}

TEST_F(ZorbaFormatTest, RowsOfEveryWidth) {
  const struct {
    uint32_t blockSize;
    uint32_t row;
  } cases[] = {{256, 0xAB}, {65536, 0xABCD}, {65537, 0xABCDEF}, {16777217, 0xABCDEF01}};
  for (const auto& c : cases) {
    ArchiveBuilder b;
    b.blockSize = c.blockSize;
    // Two-block file: block 0 compressed (row c.row), block 1 a raw tail.
    b.AddEntry(Digest("f"), 0, uint64_t{c.blockSize} + 7, 128);
    b.AddRow(c.row);
    b.AddRow(7);
    b.AddRow(0);
    ASSERT_EQ(Load(b, 128ull + c.row + 7), ZUL_KEST_OK) << c.blockSize;
    EXPECT_EQ(kest2::BlockRowCount(header_), 3u);
    uint32_t v = 1;
    ASSERT_TRUE(kest2::ReadBlockRow(header_, toc_.data(), 0, &v));
    EXPECT_EQ(v, c.row);
    ASSERT_TRUE(kest2::ReadBlockRow(header_, toc_.data(), 2, &v));
    EXPECT_EQ(v, 0u);
    EXPECT_FALSE(kest2::ReadBlockRow(header_, toc_.data(), 3, &v));
    ZorbaBlock k1 = Locate(0, 1, false);
    EXPECT_EQ(k1.offset, 128u + c.row);
    EXPECT_EQ(k1.storedSize, 7u);
    EXPECT_FALSE(k1.compressed);
    EXPECT_EQ(kest2::CheckEntry(header_, toc_.data(), Entry(0), archiveSize_), ZUL_KEST_OK);
    EXPECT_EQ(kest2::CheckEntry(header_, toc_.data(), Entry(0), archiveSize_ - 1),
              ZUL_KEST_ERROR_BAD_ARCHIVE);
  }
}

TEST_F(ZorbaFormatTest, OneByteZeroRowStandsFor256) {
  ArchiveBuilder b;
  b.AddEntry(Digest("f"), 0, 600, 100);
  b.AddRow(0);
  b.AddRow(0);
  b.AddRow(88);
  ASSERT_EQ(Load(b, 100 + 256 + 256 + 88), ZUL_KEST_OK);
  ZorbaBlock k0 = Locate(0, 0, false);
  EXPECT_EQ(k0.storedSize, 256u);
  EXPECT_FALSE(k0.compressed);
  EXPECT_EQ(Locate(0, 2, false).offset, 612u);
  EXPECT_FALSE(Locate(0, 2, false).compressed);  // 600 % 256 == 88
}

// A 45-block file starting at a row that is not a checkpoint, behind a
// 3-block file, so that the index has checkpoints written mid-file.
class ZorbaIndexTest : public ZorbaFormatTest {
 protected:
  void SetUp() override {
    ArchiveBuilder b;
    b.blockSize = 1000;
    b.AddEntry(Digest("small"), 0, 2500, 48 + 3 * 30 + 2 * 50);
    for (uint32_t r = 0; r < 3; ++r) rows_.push_back(r == 2 ? 500 : 0);
    big_ = 44 * 1000 + 321;
    b.AddEntry(Digest("big"), 3, big_, 20000);
    for (uint32_t r = 0; r < 45; ++r) rows_.push_back(r == 44 ? 321 : (r % 3 == 0 ? 0 : 400 + r));
    // A third file owns rows 48-49, so checkpoint 3 (row 48) belongs to it:
    // a block of the big file must never start from that checkpoint.
    b.AddEntry(Digest("tail"), 48, 1500, 60000);
    rows_.push_back(0);
    rows_.push_back(500);
    for (uint32_t v : rows_) b.AddRow(v);
    ASSERT_EQ(Load(b, 100000), ZUL_KEST_OK);
    ASSERT_EQ(kest2::CheckToc(header_, toc_.data(), archiveSize_), ZUL_KEST_OK);
    ASSERT_EQ(index_.size(), 4u * 5);  // 50 rows
    ASSERT_EQ(kest2::BuildBlockIndex(header_, toc_.data(), index_.data()), ZUL_KEST_OK);
  }
  std::vector<uint32_t> rows_;
  uint64_t big_ = 0;
};

TEST_F(ZorbaIndexTest, IndexHoldsCheckpointOffsets) {
  for (uint32_t c = 1; c < 3; ++c) {
    uint64_t stored = 0;
    for (int i = 0; i < 5; ++i) stored = (stored << 8) | index_[c * 5 + i];
    EXPECT_EQ(stored, ReferenceOffset(rows_, 3, 20000, c * 16 - 3, 1000)) << c;
  }
  // Checkpoint 0 (row 0) belongs to the small file, which has 3 blocks.
  EXPECT_NE(Bytes(index_.begin(), index_.begin() + 5), Bytes(5, 0));
  EXPECT_EQ(Bytes(index_.begin() + 15, index_.end()), (Bytes{0, 0, 0, 0xEA, 0x60}));  // 60000
}

TEST_F(ZorbaIndexTest, EveryBlockSameWithAndWithoutIndex) {
  for (uint64_t k = 0; k < 45; ++k) {
    ZorbaBlock walked = Locate(1, k, false);
    ZorbaBlock indexed = Locate(1, k, true);
    EXPECT_EQ(walked.offset, ReferenceOffset(rows_, 3, 20000, k, 1000)) << k;
    EXPECT_EQ(indexed.offset, walked.offset) << k;
    EXPECT_EQ(indexed.storedSize, walked.storedSize) << k;
    EXPECT_EQ(indexed.compressed, walked.compressed) << k;
    EXPECT_EQ(walked.compressed, k % 3 != 0 && k != 44) << k;
  }
  ZorbaBlock block{};
  EXPECT_EQ(kest2::LocateBlock(header_, toc_.data(), Entry(1), index_.data(), 45, &block),
            ZUL_KEST_ERROR_BAD_ARGUMENT);
}

TEST_F(ZorbaIndexTest, UnwrittenCheckpointFallsBackToWalk) {
  std::fill(index_.begin(), index_.end(), 0);
  for (uint64_t k : {13u, 14u, 28u, 29u, 44u}) {
    EXPECT_EQ(Locate(1, k, true).offset, ReferenceOffset(rows_, 3, 20000, k, 1000)) << k;
  }
}

TEST_F(ZorbaIndexTest, BackwardWalkBelowFileStartIsBadArchive) {
  // Block 12 is row 15; its nearest checkpoint is row 16, one row ahead.
  // A checkpoint pointing before the file cannot be walked back from.
  for (int i = 0; i < 5; ++i) index_[5 + i] = 0;
  index_[9] = 1;
  ZorbaBlock block{};
  EXPECT_EQ(kest2::LocateBlock(header_, toc_.data(), Entry(1), index_.data(), 12, &block),
            ZUL_KEST_ERROR_BAD_ARCHIVE);
  // Block 13 is the checkpoint row itself: the stored offset is taken as is.
  EXPECT_EQ(kest2::LocateBlock(header_, toc_.data(), Entry(1), index_.data(), 13, &block),
            ZUL_KEST_OK);
  EXPECT_EQ(block.offset, 1u);
}

TEST_F(ZorbaIndexTest, RangeStoredFollowsRows) {
  EXPECT_TRUE(RangeStored(1, 0, 1000));       // block 0, row 0
  EXPECT_FALSE(RangeStored(1, 0, 1001));      // reaches block 1, compressed
  EXPECT_TRUE(RangeStored(1, 3000, 1000));    // block 3 exactly
  EXPECT_TRUE(RangeStored(1, 1000, 0));       // empty, at a boundary
  EXPECT_TRUE(RangeStored(1, 44000, 321));    // raw tail
  EXPECT_FALSE(RangeStored(1, 44000, 322));   // past the end
  EXPECT_FALSE(RangeStored(1, big_ + 1, 0));  // starts past the end
  EXPECT_FALSE(RangeStored(1, 5, ~0ull));     // length would wrap
  EXPECT_TRUE(RangeStored(0, 0, 2500));       // small: rows 0, 0, tail 500
}

TEST_F(ZorbaFormatTest, TailRowOnlyRawOnLastBlock) {
  ArchiveBuilder b;
  // S = 3 * 256 + 100: a row of 100 is raw only on block 3.
  b.AddEntry(Digest("f"), 0, 868, 200);
  for (uint32_t v : {100u, 256u, 0u, 100u}) b.AddRow(v);
  ASSERT_EQ(Load(b, 200 + 100 + 256 + 256 + 100), ZUL_KEST_OK);
  EXPECT_TRUE(Locate(0, 0, false).compressed);
  EXPECT_FALSE(Locate(0, 1, false).compressed);
  EXPECT_EQ(Locate(0, 1, false).storedSize, 256u);
  ZorbaBlock tail = Locate(0, 3, false);
  EXPECT_FALSE(tail.compressed);
  EXPECT_EQ(tail.offset, 200u + 100 + 256 + 256);
  EXPECT_EQ(tail.storedSize, 100u);
  EXPECT_FALSE(RangeStored(0, 0, 868));
  EXPECT_TRUE(RangeStored(0, 256, 612));
}

TEST_F(ZorbaFormatTest, ZeroLengthAndStoredEntries) {
  ArchiveBuilder b;
  b.AddEntry(Digest("empty"), 1, 0, 300);
  b.AddEntry(Digest("raw"), kest2::ZORBA_STORED_FIRST_BLOCK, 700, 300);
  b.AddRow(0);
  b.AddRow(0);
  ASSERT_EQ(Load(b, 1000), ZUL_KEST_OK);
  EXPECT_EQ(kest2::GetEntryBlockCount(header_, Entry(0)), 1u);
  EXPECT_EQ(Locate(0, 0, false).offset, 300u);
  ZorbaBlock block{};
  EXPECT_EQ(kest2::LocateBlock(header_, toc_.data(), Entry(0), nullptr, 1, &block),
            ZUL_KEST_ERROR_BAD_ARGUMENT);
  EXPECT_TRUE(RangeStored(0, 0, 0));
  EXPECT_FALSE(RangeStored(0, 0, 1));

  EXPECT_TRUE(kest2::IsEntryStored(header_, Entry(1)));
  ZorbaBlock k2 = Locate(1, 2, false);
  EXPECT_EQ(k2.offset, 812u);
  EXPECT_FALSE(k2.compressed);
  EXPECT_TRUE(RangeStored(1, 10, 690));
  EXPECT_EQ(kest2::CheckToc(header_, toc_.data(), 1000), ZUL_KEST_OK);
  EXPECT_EQ(kest2::CheckToc(header_, toc_.data(), 999), ZUL_KEST_ERROR_BAD_ARCHIVE);
}

// --- Corrupt archives -----------------------------------------------------

TEST_F(ZorbaFormatTest, RowsPastTableAreBadArchive) {
  ArchiveBuilder b;
  b.AddEntry(Digest("f"), 1, 3 * 256, 100);  // needs rows 1..3, table has 3
  b.AddRow(0);
  b.AddRow(0);
  b.AddRow(0);
  ASSERT_EQ(Load(b, 5000), ZUL_KEST_OK);
  EXPECT_EQ(kest2::CheckEntry(header_, toc_.data(), Entry(0), 5000), ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_EQ(kest2::BuildBlockIndex(header_, toc_.data(), index_.data()),
            ZUL_KEST_ERROR_BAD_ARCHIVE);
  ZorbaBlock block{};
  EXPECT_EQ(kest2::LocateBlock(header_, toc_.data(), Entry(0), nullptr, 0, &block),
            ZUL_KEST_ERROR_BAD_ARCHIVE);
  bool stored = true;
  EXPECT_EQ(kest2::IsRangeStored(header_, toc_.data(), Entry(0), 0, 10, &stored),
            ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_FALSE(stored);
}

TEST_F(ZorbaFormatTest, HugeFirstBlockAndSizeDoNotWrap) {
  ArchiveBuilder b;
  b.AddEntry(Digest("a"), 0xFFFFFFFEu, 0xFFFFFFFFFFull, 100);  // 40-bit maximum size
  b.AddEntry(Digest("b"), 0, 0xFFFFFFFFFFull, 0xFFFFFFFFFFull);
  b.AddEntry(Digest("c"), kest2::ZORBA_STORED_FIRST_BLOCK, 0xFFFFFFFFFFull, 0xFFFFFFFFFFull);
  b.AddRow(0);
  ASSERT_EQ(Load(b, 5000), ZUL_KEST_OK);
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(kest2::CheckEntry(header_, toc_.data(), Entry(i), 5000), ZUL_KEST_ERROR_BAD_ARCHIVE)
        << i;
  }
  EXPECT_EQ(kest2::BuildBlockIndex(header_, toc_.data(), index_.data()),
            ZUL_KEST_ERROR_BAD_ARCHIVE);
  ZorbaBlock block{};
  EXPECT_EQ(kest2::LocateBlock(header_, toc_.data(), Entry(0), index_.data(), 7, &block),
            ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_EQ(kest2::LocateBlock(header_, toc_.data(), Entry(1), index_.data(), 0, &block),
            ZUL_KEST_ERROR_BAD_ARCHIVE);
}

TEST_F(ZorbaFormatTest, EntryDataPastArchiveEnd) {
  ArchiveBuilder b;
  b.AddEntry(Digest("f"), 0, 300, 500);  // rows 0, 1: 256 + 44 = 300 bytes
  b.AddEntry(Digest("g"), kest2::ZORBA_STORED_FIRST_BLOCK, 10, 6000);
  b.AddRow(0);
  b.AddRow(44);
  ASSERT_EQ(Load(b, 800), ZUL_KEST_OK);
  EXPECT_EQ(kest2::CheckEntry(header_, toc_.data(), Entry(0), 800), ZUL_KEST_OK);
  EXPECT_EQ(kest2::CheckEntry(header_, toc_.data(), Entry(0), 799), ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_EQ(kest2::CheckEntry(header_, toc_.data(), Entry(1), 800), ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_EQ(kest2::CheckToc(header_, toc_.data(), 800), ZUL_KEST_ERROR_BAD_ARCHIVE);
}

// --- Manifest -------------------------------------------------------------

TEST(ZorbaManifestTest, PathsPerLineCappedByEntryCount) {
  ZorbaHeader h{};
  h.tocEntryCount = 4;  // manifest + 3 files
  const std::string text = "a/b\n\nc\nd/e/f\nextra\n";
  kest2::ZorbaManifestCursor cursor;
  kest2::ManifestBegin(h, text.data(), text.size(), &cursor);
  std::vector<std::string> got;
  const char* path;
  size_t length;
  while (kest2::ManifestNext(&cursor, &path, &length)) got.emplace_back(path, length);
  EXPECT_EQ(got, (std::vector<std::string>{"a/b", "c", "d/e/f"}));

  const std::string noNewline = "x\ny";
  kest2::ManifestBegin(h, noNewline.data(), noNewline.size(), &cursor);
  got.clear();
  while (kest2::ManifestNext(&cursor, &path, &length)) got.emplace_back(path, length);
  EXPECT_EQ(got, (std::vector<std::string>{"x", "y"}));
}

}  // namespace
