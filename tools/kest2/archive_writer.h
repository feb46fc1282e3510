// Writing ZORBA archives from a directory tree: the packer behind
// "kest2 pack".  The layout it writes is the one archive/zorba_format.h
// reads:
//
//   header        32 bytes (version 1) or 48 bytes (version 3)
//   TOC region    30-byte entries (manifest first), then the block-size rows
//   file data     the manifest, then the files in manifest order, each
//                 file's blocks back to back
//
// A block is stored as a zlib stream when that is smaller than the block,
// else raw: a raw full block has row 0, a raw last block that is partial has
// row S % blockSize.  Empty files, and under storeIncompressible files none
// of whose blocks compress, are stored entries: raw, contiguous, no rows.
//
// Blocks are compressed on `jobs` threads in pieces of about 1 MiB and
// written in order, so the archive does not depend on the thread count.
// The archive is written to a temporary file beside it and renamed into
// place only when complete.
#ifndef KEST2_TOOLS_KEST2_ARCHIVE_WRITER_H_
#define KEST2_TOOLS_KEST2_ARCHIVE_WRITER_H_

#include <cstdint>
#include <functional>
#include <string>

namespace kest2_cli {

constexpr uint32_t kDefaultPackBlockSize = 65536;
// Pieces of up to a block are held in memory per thread; this keeps that
// bounded while still allowing four-byte rows.
constexpr uint32_t kMaxPackBlockSize = 64u << 20;

// Input packed so far, reported after each piece is written; the manifest
// is not counted.
struct PackProgress {
  uint64_t bytes = 0;
  uint64_t totalBytes = 0;
  uint64_t files = 0;
  uint64_t totalFiles = 0;
};

struct PackOptions {
  uint32_t blockSize = kDefaultPackBlockSize;  // 256 to kMaxPackBlockSize
  int level = 9;                               // zlib level, 0 to 9
  uint32_t version = 3;                        // archive major version, 1 or 3
  bool ignoreCase = false;                     // ZORBA_FLAG_IGNORE_CASE
  bool absolutePaths = false;                  // names begin with "/"
  bool unsorted = false;                       // TOC in file order, sorted flag clear
  bool storeIncompressible = false;            // no rows for files that do not compress
  unsigned jobs = 1;                           // compression threads, at least 1
  std::function<void(const PackProgress&)> progress;  // on the calling thread; may be empty
};

struct PackSummary {
  uint64_t files = 0;       // manifest not counted
  uint64_t inputBytes = 0;  // sum of the file sizes
  uint64_t archiveBytes = 0;
};

// Packs the regular files below `directory` (links to files are followed,
// links to directories are not; other file types are skipped) into
// `archive`.  On failure returns false with *error set to one line, "PATH:
// reason", and leaves no file behind.
bool PackDirectory(const std::string& directory, const std::string& archive,
                   const PackOptions& options, PackSummary* summary, std::string* error);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_ARCHIVE_WRITER_H_
