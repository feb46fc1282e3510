// The on-disk layout of a ZORBA archive and the pure functions that read it
// from bytes already in memory.
//
// An archive is one read-only file holding many files, each cut into blocks
// of `blockSize` uncompressed bytes that are stored either zlib-compressed or
// raw.  Every multi-byte integer is big-endian.
//
//   header      at offset 0: 32 bytes (version 1) or 48 bytes (version 3)
//   TOC region  at `tocOffset`, `tocLength` bytes:
//                 tocEntryCount entries of tocEntrySize bytes, then
//                 the block-size table (rows of sizeWidth bytes) to the end
//   file data   anywhere behind the TOC, addressed by 40-bit offsets
//
// A TOC entry (only its first 30 bytes are read):
//   0  16  MD5 of the entry's path (all zero for the manifest)
//   16  4  first row in the block-size table, or ZORBA_STORED_FIRST_BLOCK
//          for a file stored raw and contiguous (it has no rows)
//   20  5  uncompressed size S
//   25  5  archive offset of the first block
//
// A file of S bytes has (S - 1) / blockSize + 1 blocks (one when S is 0),
// described by consecutive rows and stored back to back.  A row of 0 means
// blockSize bytes.  A block is raw when its row is 0 or blockSize, or when it
// is the file's last block and its row equals S % blockSize; any other row is
// the length of a zlib stream.
//
// The manifest is the entry with the zero digest; its content is the paths of
// the other entries, one per line, used only for directory queries.
//
// The block offset index holds one 5-byte checkpoint per 16 rows: the archive
// offset of the block that row 16 * c describes, so that finding any block
// of a large file walks at most 8 rows.
//
// Safety contract: the header fields are untrusted.  Every function that
// takes the TOC assumes only that the caller holds header.tocLength bytes of
// it (CheckArchiveLayout verifies that the archive has them) and that the
// header passed IsHeaderValid; a row or checkpoint that would lie outside
// the TOC region or the index makes the function answer
// ZUL_KEST_ERROR_BAD_ARCHIVE rather than read it.  Nothing here allocates,
// does I/O or takes a lock; every function may run on any thread, and only
// SortToc and BuildBlockIndex write (to caller memory).
#ifndef KEST2_SRC_ARCHIVE_ZORBA_FORMAT_H_
#define KEST2_SRC_ARCHIVE_ZORBA_FORMAT_H_

#include <cstddef>
#include <cstdint>

#include "core/md5.h"

namespace kest2 {

// "ZORB" and "zlib" read as big-endian words.
constexpr uint32_t kZorbaMagic = 0x5A4F5242u;
constexpr uint32_t kZorbaCompressionZlib = 0x7A6C6962u;

// Archive flags.  Other bits are ignored.
constexpr uint32_t ZORBA_FLAG_IGNORE_CASE = 1u;     // names hashed upper-cased
constexpr uint32_t ZORBA_FLAG_ABSOLUTE_PATHS = 2u;  // names begin with "/"
constexpr uint32_t ZORBA_FLAG_TOC_SORTED = 4u;      // entries in digest order

// firstBlock of an entry stored raw and contiguous.
constexpr uint32_t ZORBA_STORED_FIRST_BLOCK = 0xFFFFFFFFu;

constexpr size_t kZorbaHeaderV1Size = 32;
constexpr size_t kZorbaHeaderV3Size = 48;
// Bytes ParseHeader reads; a mount reads at least this many.
constexpr size_t kZorbaHeaderReadSize = 48;
constexpr uint32_t kZorbaMinEntrySize = 30;
constexpr uint32_t kZorbaMinBlockSize = 256;
// Rows per checkpoint of the block offset index, and bytes per checkpoint.
constexpr uint32_t kZorbaIndexInterval = 16;
constexpr size_t kZorbaCheckpointSize = 5;

// The parsed header.  After ParseHeader both versions read alike: tocOffset
// is where the TOC region starts and tocLength is its length (header not
// included).
struct ZorbaHeader {
  uint32_t magic;
  uint32_t version;  // major in the high 16 bits, minor in the low 16
  uint32_t compression;
  uint32_t tocLength;  // length of the TOC region; sizes every read
  uint32_t tocEntrySize;
  uint32_t tocEntryCount;  // manifest included
  uint32_t blockSize;
  uint32_t archiveFlags;
  uint64_t tocOffset;
  uint64_t tocSize;   // kept for reference; tocLength is authoritative
  uint8_t sizeWidth;  // bytes per block-size row, 1 to 4
  uint8_t tocSorted;  // entries are in increasing digest order
};

// Where a block of a file lies and how it is stored.
struct ZorbaBlock {
  uint64_t offset;      // absolute archive offset
  uint32_t storedSize;  // bytes in the archive
  bool compressed;      // a zlib stream rather than raw bytes
};

// Bytes per block-size row for a block size: 1 up to 256, 2 up to 65,536,
// 3 up to 16,777,216, else 4.
uint8_t SizeWidthForBlockSize(uint32_t blockSize);

// Converts kZorbaHeaderReadSize raw bytes.  The fields at 32 and 40 are read
// only for major versions 3 and up; a version 1 header gets tocOffset 32 and
// tocLength = tocSize = stored tocLength - 32 (0 when that is 32 or less).
void ParseHeader(const uint8_t* raw, ZorbaHeader* header);

// True when: tocLength is not 0, the magic is "ZORB", the major version is 1
// or 3 (any minor), the entries fit in tocLength (the product is taken in
// 64 bits so that a huge count cannot wrap past the test), blockSize > 255
// and tocEntrySize >= 30.  Does not look at the compression.
bool IsHeaderValid(const ZorbaHeader& header);

// Checks a parsed header against the size of the whole archive: the header
// is valid, the codec is "zlib", and the TOC region lies behind the header
// and inside the archive.  Returns ZUL_KEST_OK or ZUL_KEST_ERROR_BAD_ARCHIVE.
int32_t CheckArchiveLayout(const ZorbaHeader& header, uint64_t archiveSize);

// Rows in the block-size table (0 when the entries overrun the region).
uint64_t BlockRowCount(const ZorbaHeader& header);
// Bytes of the block offset index: 5 per started group of 16 rows.
uint64_t BlockIndexSize(const ZorbaHeader& header);

// Reads row `row` of the block-size table into *value (raw row value, 0 not
// replaced).  False, with *value untouched, when the row lies outside the
// table.
bool ReadBlockRow(const ZorbaHeader& header, const uint8_t* toc, uint64_t row, uint32_t* value);

// Entry fields.  `entry` points at the entry's first byte in the TOC.
inline const uint8_t* EntryDigest(const uint8_t* entry) { return entry; }
uint32_t GetEntryFirstBlock(const uint8_t* entry);
uint64_t GetEntrySize(const uint8_t* entry);
uint64_t GetEntryOffset(const uint8_t* entry);
bool IsEntryStored(const ZorbaHeader& header, const uint8_t* entry);
// Number of blocks of the entry's file: one when its size is 0.
uint64_t GetEntryBlockCount(const ZorbaHeader& header, const uint8_t* entry);

// Checks that the entry's rows lie inside the block-size table and that its
// data (offset plus all stored sizes) lies behind the header and inside the
// archive.  Returns ZUL_KEST_OK or ZUL_KEST_ERROR_BAD_ARCHIVE.
int32_t CheckEntry(const ZorbaHeader& header, const uint8_t* toc, const uint8_t* entry,
                   uint64_t archiveSize);
// CheckEntry over every entry of the TOC.
int32_t CheckToc(const ZorbaHeader& header, const uint8_t* toc, uint64_t archiveSize);

// Fills the block offset index (BlockIndexSize(header) bytes at `index`)
// from the TOC in file order; run it before SortToc.  Returns
// ZUL_KEST_ERROR_BAD_ARCHIVE, leaving the index partly filled, when an entry's
// rows run past the table.
int32_t BuildBlockIndex(const ZorbaHeader& header, const uint8_t* toc, uint8_t* index);

// Sorts the entries by digest (unsigned bytes) unless the archive says they
// already are, then sets header->tocSorted.  The manifest sorts first.
void SortToc(ZorbaHeader* header, uint8_t* toc);

// Finds the entry with this 16-byte digest: binary search when tocSorted,
// else a linear scan.  Returns null when there is none.
const uint8_t* FindEntryByDigest(const ZorbaHeader& header, const uint8_t* toc,
                                 const uint8_t* digest);
// The entry with the all-zero digest, or null.
const uint8_t* FindManifestEntry(const ZorbaHeader& header, const uint8_t* toc);
// Digest of a path as the archive keys it: MD5 of its bytes without the
// terminator, with "a".."z" upper-cased first when ZORBA_FLAG_IGNORE_CASE
// is set (no other byte changes; "\" stays).  Returns out16.
uint8_t* ZorbaPathDigest(const ZorbaHeader& header, const char* path, uint8_t* out16);
// FindEntryByDigest with ZorbaPathDigest(path).  The caller decides whether
// the path keeps its leading "/".  Null for a null path or no match.
const uint8_t* FindEntryByPath(const ZorbaHeader& header, const uint8_t* toc, const char* path);

// Locates block `blockNumber` of the entry's file.  `index` may be null
// (then the walk starts at the entry's first row); with an index the walk
// starts at the nearest checkpoint and covers at most 8 rows.  Returns
// ZUL_KEST_OK; ZUL_KEST_ERROR_BAD_ARGUMENT when the file has no such block;
// ZUL_KEST_ERROR_BAD_ARCHIVE when a row it needs lies outside the table or
// the index contradicts the entry.  *block is written only on success.
int32_t LocateBlock(const ZorbaHeader& header, const uint8_t* toc, const uint8_t* entry,
                    const uint8_t* index, uint64_t blockNumber, ZorbaBlock* block);

// Sets *stored to whether bytes [offset, offset + length) of the file can be
// read without decompression (false when the range leaves the file).
// Returns ZUL_KEST_OK, or ZUL_KEST_ERROR_BAD_ARCHIVE when a row of the range
// lies outside the table (then *stored is false).
int32_t IsRangeStored(const ZorbaHeader& header, const uint8_t* toc, const uint8_t* entry,
                      uint64_t offset, uint64_t length, bool* stored);

// Walks the manifest text: the paths of the other entries, each ended by a
// newline (a last one without is accepted).  Empty lines are skipped, and at
// most tocEntryCount - 1 paths are returned.  Plain data over caller memory.
struct ZorbaManifestCursor {
  const char* text;
  size_t length;
  size_t position;     // next byte to read
  uint32_t remaining;  // paths still allowed
};

void ManifestBegin(const ZorbaHeader& header, const char* text, size_t length,
                   ZorbaManifestCursor* cursor);
// Gives the next path (not terminated) and its length; false at the end.
bool ManifestNext(ZorbaManifestCursor* cursor, const char** path, size_t* pathLength);

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_ZORBA_FORMAT_H_
