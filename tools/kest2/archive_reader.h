// Reading an archive file directly, without the library: the header, the
// TOC region, each entry's blocks read and inflated with zlib, and the
// manifest.  verify checks archives with it, and unpack reads the manifest
// and the few names the library cannot look up.
//
// The file is untrusted.  Open checks the header against the file's size
// before anything else is read; every row is read inside the TOC region;
// CheckEntry proves an entry's rows and blocks lie inside the table and the
// file before its blocks are walked; and a block must inflate to exactly its
// length.  Every failure is described in words with the archive offset it
// concerns, e.g.
//
//   block 3 of textures/wall.txt at offset 123456: inflates to 100 bytes,
//   not 65536
#ifndef KEST2_TOOLS_KEST2_ARCHIVE_READER_H_
#define KEST2_TOOLS_KEST2_ARCHIVE_READER_H_

#include <zlib.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "archive/zorba_format.h"

namespace kest2_cli {

struct ReadProblem {
  bool damaged = false;  // the archive is damaged; else the host could not read it
  std::string what;      // words: the damage, or the host's error text
};

// One block of an entry as the archive stores it.
struct StoredBlock {
  uint64_t number;      // within the entry, from 0
  uint64_t offset;      // in the archive
  uint32_t storedSize;  // bytes in the archive
  uint32_t length;      // bytes of the file it holds
  bool compressed;      // a zlib stream; else `length` raw bytes at offset
};

class ArchiveReader {
 public:
  ArchiveReader() = default;
  ~ArchiveReader();
  ArchiveReader(const ArchiveReader&) = delete;
  ArchiveReader& operator=(const ArchiveReader&) = delete;

  // Opens the archive, checks its header against the file and reads the
  // TOC region.
  bool Open(const std::string& path, ReadProblem* problem);

  const kest2::ZorbaHeader& header() const { return m_header; }
  uint64_t fileSize() const { return m_fileSize; }
  uint32_t entryCount() const { return m_header.tocEntryCount; }
  // Entry i in file order, and where it lies in the archive.
  const uint8_t* Entry(uint32_t i) const;
  uint64_t EntryOffset(uint32_t i) const;
  // The index of the entry with the zero digest, or -1.
  int64_t FindManifest() const;
  // The entry (not the manifest) keyed by the digest of `name` as the
  // archive hashes names (every byte, a NUL too); the first of several; -1
  // when there is none.
  int64_t FindByName(const std::string& name) const;

  // Checks that the entry's rows lie inside the block-size table and its
  // blocks inside the file.  `label` names the entry in the words.
  bool CheckEntry(uint32_t i, const std::string& label, ReadProblem* problem) const;
  // Calls visit for each block of the entry in order (none for an empty
  // file), until it returns false.  REQUIRES: CheckEntry passed.
  void ForEachBlock(uint32_t i, const std::function<bool(const StoredBlock&)>& visit) const;
  // Reads a block and inflates it when compressed: `out` gets exactly
  // block.length bytes.
  bool ReadBlock(const StoredBlock& block, const std::string& label, std::vector<uint8_t>* out,
                 ReadProblem* problem);
  // CheckEntry, then every block, handed to `sink` in order; a sink that
  // returns false stops the read (and *problem is left as it was).
  bool ReadEntry(uint32_t i, const std::string& label,
                 const std::function<bool(const uint8_t*, size_t)>& sink, ReadProblem* problem);
  // The manifest's names in order; names[k] is name k + 1.  Every newline
  // ends a name, so an empty line gives an empty name; text after the last
  // newline is a name too.
  bool ReadManifest(std::vector<std::string>* names, ReadProblem* problem);

 private:
  void NameDigest(const std::string& name, uint8_t digest[kest2::kMd5DigestSize]) const;
  bool ReadAt(uint64_t offset, size_t length, uint8_t* out, const std::string& what,
              ReadProblem* problem);

  std::string m_path;
  int m_fd = -1;
  uint64_t m_fileSize = 0;
  kest2::ZorbaHeader m_header{};
  std::vector<uint8_t> m_toc;
  std::map<std::array<uint8_t, kest2::kMd5DigestSize>, uint32_t> m_byDigest;
  std::vector<uint8_t> m_stored;  // a compressed block as read
  z_stream m_inflater{};
  bool m_inflaterReady = false;
};

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_ARCHIVE_READER_H_
