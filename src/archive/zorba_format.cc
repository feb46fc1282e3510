// Reading the archive layout described in zorba_format.h.  All arithmetic on
// file-supplied values is done in 64 bits, where no sum of 40-bit offsets and
// at most 2^32 rows of at most 2^32 - 1 bytes can wrap, and every count is
// compared with the bytes actually held before anything is read.
#include "archive/zorba_format.h"

#include "debug/format.h"
#include "kest2.h"

namespace kest2 {

namespace {

constexpr size_t kEntryFirstBlockOffset = 16;
constexpr size_t kEntrySizeOffset = 20;
constexpr size_t kEntryDataOffset = 25;
// MD5 is fed upper-cased path text in pieces of this size.
constexpr size_t kDigestChunk = 64;

uint32_t ReadBigEndian32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

uint64_t ReadBigEndian(const uint8_t* p, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = (value << 8) | p[i];
  return value;
}

void WriteBigEndian40(uint8_t* p, uint64_t value) {
  for (size_t i = kZorbaCheckpointSize; i > 0; --i) {
    p[i - 1] = static_cast<uint8_t>(value);
    value >>= 8;
  }
}

uint32_t MajorVersion(uint32_t version) { return version >> 16; }

// Offset of the block-size table inside the TOC region.
uint64_t TableStart(const ZorbaHeader& header) {
  return uint64_t{header.tocEntrySize} * header.tocEntryCount;
}

// Stored bytes of a block whose row holds `value` (0 stands for blockSize).
uint64_t StoredSizeOfRow(const ZorbaHeader& header, uint32_t value) {
  return value == 0 ? header.blockSize : value;
}

// Row of the entry's last block.  REQUIRES: the entry is not stored.
uint64_t LastRow(const ZorbaHeader& header, const uint8_t* entry) {
  return uint64_t{GetEntryFirstBlock(entry)} + GetEntryBlockCount(header, entry) - 1;
}

int CompareDigests(const void* a, const void* b) { return MemoryCompare(a, b, kMd5DigestSize); }

bool CheckpointIsSet(const uint8_t* index, uint64_t checkpoint) {
  const uint8_t* p = index + checkpoint * kZorbaCheckpointSize;
  return ReadBigEndian(p, kZorbaCheckpointSize) != 0;
}

}  // namespace

uint8_t SizeWidthForBlockSize(uint32_t blockSize) {
  if (blockSize <= 0x100u) return 1;
  if (blockSize <= 0x10000u) return 2;
  if (blockSize <= 0x1000000u) return 3;
  return 4;
}

void ParseHeader(const uint8_t* raw, ZorbaHeader* header) {
  header->magic = ReadBigEndian32(raw + 0);
  header->version = ReadBigEndian32(raw + 4);
  header->compression = ReadBigEndian32(raw + 8);
  header->tocLength = ReadBigEndian32(raw + 12);
  header->tocEntrySize = ReadBigEndian32(raw + 16);
  header->tocEntryCount = ReadBigEndian32(raw + 20);
  header->blockSize = ReadBigEndian32(raw + 24);
  header->archiveFlags = ReadBigEndian32(raw + 28);
  if (MajorVersion(header->version) >= 3) {
    header->tocOffset = ReadBigEndian(raw + 32, 8);
    header->tocSize = ReadBigEndian(raw + 40, 8);
  } else {
    // Version 1 counts the header in tocLength; drop it so that both
    // versions describe the TOC region alone.
    header->tocOffset = kZorbaHeaderV1Size;
    header->tocLength = header->tocLength > kZorbaHeaderV1Size
                            ? header->tocLength - static_cast<uint32_t>(kZorbaHeaderV1Size)
                            : 0;
    header->tocSize = header->tocLength;
  }
  header->sizeWidth = SizeWidthForBlockSize(header->blockSize);
  header->tocSorted = (header->archiveFlags & ZORBA_FLAG_TOC_SORTED) != 0 ? 1 : 0;
}

bool IsHeaderValid(const ZorbaHeader& header) {
  return header.tocLength != 0 && header.magic == kZorbaMagic &&
         (header.version & 0xFFFD0000u) == 0x00010000u && TableStart(header) <= header.tocLength &&
         header.blockSize > 255 && header.tocEntrySize >= kZorbaMinEntrySize;
}

int32_t CheckArchiveLayout(const ZorbaHeader& header, uint64_t archiveSize) {
  if (!IsHeaderValid(header) || header.compression != kZorbaCompressionZlib) {
    return ZUL_KEST_ERROR_BAD_ARCHIVE;
  }
  const uint64_t headerSize =
      MajorVersion(header.version) >= 3 ? kZorbaHeaderV3Size : kZorbaHeaderV1Size;
  if (archiveSize < headerSize || header.tocOffset < headerSize || header.tocOffset > archiveSize ||
      header.tocLength > archiveSize - header.tocOffset) {
    return ZUL_KEST_ERROR_BAD_ARCHIVE;
  }
  return ZUL_KEST_OK;
}

uint64_t BlockRowCount(const ZorbaHeader& header) {
  const uint64_t start = TableStart(header);
  if (header.sizeWidth == 0 || start > header.tocLength) return 0;
  return (header.tocLength - start) / header.sizeWidth;
}

uint64_t BlockIndexSize(const ZorbaHeader& header) {
  const uint64_t rows = BlockRowCount(header);
  return (rows + kZorbaIndexInterval - 1) / kZorbaIndexInterval * kZorbaCheckpointSize;
}

bool ReadBlockRow(const ZorbaHeader& header, const uint8_t* toc, uint64_t row, uint32_t* value) {
  if (row >= BlockRowCount(header)) return false;
  const uint8_t* p = toc + TableStart(header) + row * header.sizeWidth;
  *value = static_cast<uint32_t>(ReadBigEndian(p, header.sizeWidth));
  return true;
}

uint32_t GetEntryFirstBlock(const uint8_t* entry) {
  return ReadBigEndian32(entry + kEntryFirstBlockOffset);
}

uint64_t GetEntrySize(const uint8_t* entry) { return ReadBigEndian(entry + kEntrySizeOffset, 5); }

uint64_t GetEntryOffset(const uint8_t* entry) { return ReadBigEndian(entry + kEntryDataOffset, 5); }

bool IsEntryStored(const ZorbaHeader& /*header*/, const uint8_t* entry) {
  return GetEntryFirstBlock(entry) == ZORBA_STORED_FIRST_BLOCK;
}

uint64_t GetEntryBlockCount(const ZorbaHeader& header, const uint8_t* entry) {
  const uint64_t size = GetEntrySize(entry);
  if (size == 0 || header.blockSize == 0) return 1;
  return (size - 1) / header.blockSize + 1;
}

int32_t CheckEntry(const ZorbaHeader& header, const uint8_t* toc, const uint8_t* entry,
                   uint64_t archiveSize) {
  const uint64_t size = GetEntrySize(entry);
  const uint64_t dataOffset = GetEntryOffset(entry);
  if (dataOffset > archiveSize) return ZUL_KEST_ERROR_BAD_ARCHIVE;
  if (IsEntryStored(header, entry)) {
    return size <= archiveSize - dataOffset ? ZUL_KEST_OK : ZUL_KEST_ERROR_BAD_ARCHIVE;
  }
  const uint64_t first = GetEntryFirstBlock(entry);
  const uint64_t blocks = GetEntryBlockCount(header, entry);
  // first < 2^32 and blocks < 2^40: the sum cannot wrap.
  if (first + blocks > BlockRowCount(header)) return ZUL_KEST_ERROR_BAD_ARCHIVE;
  // An empty file has a row but no bytes to read; its row says nothing.
  if (size == 0) return ZUL_KEST_OK;
  uint64_t stored = 0;
  for (uint64_t row = first; row < first + blocks; ++row) {
    uint32_t value = 0;
    ReadBlockRow(header, toc, row, &value);  // inside the table, checked above
    stored += StoredSizeOfRow(header, value);
  }
  return stored <= archiveSize - dataOffset ? ZUL_KEST_OK : ZUL_KEST_ERROR_BAD_ARCHIVE;
}

int32_t CheckToc(const ZorbaHeader& header, const uint8_t* toc, uint64_t archiveSize) {
  for (uint32_t i = 0; i < header.tocEntryCount; ++i) {
    const int32_t rc =
        CheckEntry(header, toc, toc + uint64_t{i} * header.tocEntrySize, archiveSize);
    if (rc != ZUL_KEST_OK) return rc;
  }
  return ZUL_KEST_OK;
}

int32_t BuildBlockIndex(const ZorbaHeader& header, const uint8_t* toc, uint8_t* index) {
  MemoryFill(index, 0, static_cast<size_t>(BlockIndexSize(header)));
  const uint64_t rows = BlockRowCount(header);
  for (uint32_t i = 0; i < header.tocEntryCount; ++i) {
    const uint8_t* entry = toc + uint64_t{i} * header.tocEntrySize;
    const uint64_t size = GetEntrySize(entry);
    // A file of less than one block never needs a checkpoint.
    if (IsEntryStored(header, entry) || size < header.blockSize) continue;
    const uint64_t first = GetEntryFirstBlock(entry);
    const uint64_t last = LastRow(header, entry);
    if (last >= rows) return ZUL_KEST_ERROR_BAD_ARCHIVE;
    // Entries that share rows share checkpoints; the first one wrote them.
    if (CheckpointIsSet(index, first / kZorbaIndexInterval) &&
        CheckpointIsSet(index, last / kZorbaIndexInterval)) {
      continue;
    }
    uint64_t offset = GetEntryOffset(entry);
    for (uint64_t row = first; row <= last; ++row) {
      if (row % kZorbaIndexInterval == 0) {
        WriteBigEndian40(index + row / kZorbaIndexInterval * kZorbaCheckpointSize, offset);
      }
      uint32_t value = 0;
      ReadBlockRow(header, toc, row, &value);
      offset += StoredSizeOfRow(header, value);
    }
  }
  return ZUL_KEST_OK;
}

void SortToc(ZorbaHeader* header, uint8_t* toc) {
  if ((header->archiveFlags & ZORBA_FLAG_TOC_SORTED) == 0) {
    SortElements(toc, header->tocEntryCount, header->tocEntrySize, CompareDigests);
  }
  header->tocSorted = 1;
}

const uint8_t* FindEntryByDigest(const ZorbaHeader& header, const uint8_t* toc,
                                 const uint8_t* digest) {
  if (header.tocSorted) {
    return static_cast<const uint8_t*>(
        BinarySearch(digest, toc, header.tocEntryCount, header.tocEntrySize, CompareDigests));
  }
  for (uint32_t i = 0; i < header.tocEntryCount; ++i) {
    const uint8_t* entry = toc + uint64_t{i} * header.tocEntrySize;
    if (MemoryCompare(entry, digest, kMd5DigestSize) == 0) return entry;
  }
  return nullptr;
}

const uint8_t* FindManifestEntry(const ZorbaHeader& header, const uint8_t* toc) {
  static const uint8_t kZeroDigest[kMd5DigestSize] = {};
  return FindEntryByDigest(header, toc, kZeroDigest);
}

uint8_t* ZorbaPathDigest(const ZorbaHeader& header, const char* path, uint8_t* out16) {
  const size_t length = StringLength(path);
  if ((header.archiveFlags & ZORBA_FLAG_IGNORE_CASE) == 0) {
    return PathDigest(path, length, out16);
  }
  // Upper-case in small pieces so that no path length limit applies.
  Md5Context context;
  Md5Init(&context);
  uint8_t chunk[kDigestChunk];
  for (size_t done = 0; done < length;) {
    size_t n = length - done < kDigestChunk ? length - done : kDigestChunk;
    for (size_t i = 0; i < n; ++i) {
      uint8_t c = static_cast<uint8_t>(path[done + i]);
      chunk[i] = (c >= 'a' && c <= 'z') ? static_cast<uint8_t>(c - 'a' + 'A') : c;
    }
    Md5Update(&context, chunk, n);
    done += n;
  }
  Md5Final(&context, out16);
  return out16;
}

const uint8_t* FindEntryByPath(const ZorbaHeader& header, const uint8_t* toc, const char* path) {
  if (path == nullptr) return nullptr;
  uint8_t digest[kMd5DigestSize];
  ZorbaPathDigest(header, path, digest);
  return FindEntryByDigest(header, toc, digest);
}

int32_t LocateBlock(const ZorbaHeader& header, const uint8_t* toc, const uint8_t* entry,
                    const uint8_t* index, uint64_t blockNumber, ZorbaBlock* block) {
  if (blockNumber >= GetEntryBlockCount(header, entry)) return ZUL_KEST_ERROR_BAD_ARGUMENT;
  const uint64_t dataOffset = GetEntryOffset(entry);
  if (IsEntryStored(header, entry)) {
    block->offset = dataOffset + blockNumber * header.blockSize;  // < 2^41, no wrap
    block->storedSize = header.blockSize;
    block->compressed = false;
    return ZUL_KEST_OK;
  }
  const uint64_t first = GetEntryFirstBlock(entry);
  const uint64_t last = LastRow(header, entry);
  if (last >= BlockRowCount(header)) return ZUL_KEST_ERROR_BAD_ARCHIVE;
  const uint64_t target = first + blockNumber;

  // Nearest checkpoint: up to 8 rows either side of the target.
  uint64_t checkpoint =
      (target + kZorbaIndexInterval / 2) / kZorbaIndexInterval * kZorbaIndexInterval;
  if (checkpoint > last) checkpoint -= kZorbaIndexInterval;
  uint64_t row = first;
  uint64_t offset = dataOffset;
  if (index != nullptr && checkpoint > first) {
    // checkpoint <= last < rows, so it lies inside the index.  A zero
    // checkpoint was never written; the walk from the start is then used.
    const uint64_t stored = ReadBigEndian(
        index + checkpoint / kZorbaIndexInterval * kZorbaCheckpointSize, kZorbaCheckpointSize);
    if (stored != 0) {
      row = checkpoint;
      offset = stored;
    }
  }
  uint32_t value = 0;
  for (; row < target; ++row) {
    ReadBlockRow(header, toc, row, &value);  // first <= row <= last: inside
    offset += StoredSizeOfRow(header, value);
  }
  for (; row > target; --row) {
    ReadBlockRow(header, toc, row - 1, &value);
    const uint64_t size = StoredSizeOfRow(header, value);
    // The file starts at dataOffset; a walk back past it means the index
    // does not belong to these rows.
    if (offset < dataOffset || size > offset - dataOffset) return ZUL_KEST_ERROR_BAD_ARCHIVE;
    offset -= size;
  }
  ReadBlockRow(header, toc, target, &value);
  block->offset = offset;
  if (value == 0 || value == header.blockSize) {
    block->storedSize = header.blockSize;
    block->compressed = false;
  } else {
    block->storedSize = value;
    block->compressed = !(target == last && value == GetEntrySize(entry) % header.blockSize);
  }
  return ZUL_KEST_OK;
}

int32_t IsRangeStored(const ZorbaHeader& header, const uint8_t* toc, const uint8_t* entry,
                      uint64_t offset, uint64_t length, bool* stored) {
  *stored = false;
  const uint64_t size = GetEntrySize(entry);
  if (offset > size || length > size - offset) return ZUL_KEST_OK;
  if (IsEntryStored(header, entry)) {
    *stored = true;
    return ZUL_KEST_OK;
  }
  const uint64_t end = offset + length;
  const uint64_t firstBlock = offset / header.blockSize;
  uint64_t lastBlock = end / header.blockSize;
  if (end % header.blockSize == 0) {
    if (lastBlock == 0) {  // empty range at the start of the file
      *stored = true;
      return ZUL_KEST_OK;
    }
    --lastBlock;
  }
  if (firstBlock > lastBlock) {  // empty range at a block boundary
    *stored = true;
    return ZUL_KEST_OK;
  }
  // Whether a block is compressed follows from its row alone, so the rows
  // are read directly instead of locating each block.
  const uint64_t first = GetEntryFirstBlock(entry);
  const uint64_t lastRow = LastRow(header, entry);
  if (lastRow >= BlockRowCount(header)) return ZUL_KEST_ERROR_BAD_ARCHIVE;
  for (uint64_t row = first + firstBlock; row <= first + lastBlock; ++row) {
    uint32_t value = 0;
    ReadBlockRow(header, toc, row, &value);
    const bool raw = value == 0 || value == header.blockSize ||
                     (row == lastRow && value == size % header.blockSize);
    if (!raw) return ZUL_KEST_OK;
  }
  *stored = true;
  return ZUL_KEST_OK;
}

void ManifestBegin(const ZorbaHeader& header, const char* text, size_t length,
                   ZorbaManifestCursor* cursor) {
  cursor->text = text;
  cursor->length = text == nullptr ? 0 : length;
  cursor->position = 0;
  cursor->remaining = header.tocEntryCount > 0 ? header.tocEntryCount - 1 : 0;
}

bool ManifestNext(ZorbaManifestCursor* cursor, const char** path, size_t* pathLength) {
  while (cursor->remaining > 0 && cursor->position < cursor->length) {
    const size_t start = cursor->position;
    size_t end = start;
    while (end < cursor->length && cursor->text[end] != '\n') ++end;
    cursor->position = end < cursor->length ? end + 1 : end;
    if (end == start) continue;  // empty line
    --cursor->remaining;
    *path = cursor->text + start;
    *pathLength = end - start;
    return true;
  }
  return false;
}

}  // namespace kest2
