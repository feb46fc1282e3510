// Archives written byte by byte for the tests of the tools that read them:
// any name at all in the manifest (the packer writes only names it found on
// disk, never "../x" or a name with an escape sequence), TOC entries whose
// digests are the MD5 of those names, names without entries and entries
// without names, and the layout handed back so that a test can damage a
// chosen byte.
#ifndef KEST2_TESTS_TOOLS_CRAFTED_ARCHIVE_H_
#define KEST2_TESTS_TOOLS_CRAFTED_ARCHIVE_H_

#include <cstdint>
#include <string>
#include <vector>

namespace kest2_test {

struct CraftedFile {
  std::string name;  // in the manifest, and hashed (every byte) for the digest
  std::string content;
  bool inToc = true;       // false: a manifest name with no entry
  bool inManifest = true;  // false: an entry with no name
};

struct CraftedArchive {
  std::vector<CraftedFile> files;
  uint32_t blockSize = 4096;
  uint32_t flags = 0;  // ZORBA_FLAG_*; the TOC is written unsorted
};

// Where things went: a version 3 header, the TOC region at offset 48 (the
// manifest's entry first, then the files' in the order given), the rows,
// then the data: the manifest, then the files.
struct CraftedLayout {
  uint64_t tocOffset = 0;
  uint64_t rowsOffset = 0;  // the block-size table
  uint32_t sizeWidth = 0;
  uint64_t manifestOffset = 0;
  std::vector<uint64_t> entryOffset;  // per file: its TOC entry (0 when not in the TOC)
  std::vector<uint64_t> dataOffset;   // per file: its first block (0 when not in the TOC)
  std::vector<uint64_t> firstRow;     // per file: its first row (0 when stored or not in the TOC)
  uint64_t size = 0;
};

// Blocks are zlib streams when that makes them smaller, else raw; an empty
// file is a stored entry.  Throws std::runtime_error when the file cannot
// be written.
CraftedLayout WriteCraftedArchive(const std::string& path, const CraftedArchive& archive);

}  // namespace kest2_test

#endif  // KEST2_TESTS_TOOLS_CRAFTED_ARCHIVE_H_
