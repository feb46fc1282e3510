// Reading an archive file directly: see archive_reader.h.  Sizes taken from
// the file are compared in 64 bits with what the file holds before anything
// is allocated or read, so a damaged size can neither wrap nor ask for more
// memory than the file could fill (the manifest, which inflates, is capped).

#include "kest2/archive_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/md5.h"
#include "kest2.h"
#include "kest2/safe_names.h"

namespace kest2_cli {
namespace {

// A manifest inflates; one larger than this is taken for damage rather
// than held in memory.
constexpr uint64_t kMaxManifestSize = uint64_t{1} << 30;
// No zlib stream inflates to more than 1032 times its length (plus its
// header and a block's worth); a block that claims more is damaged, and is
// not given the memory it claims.
constexpr uint64_t kMaxInflateRatio = 1032;
constexpr uint64_t kInflateSlack = 1024;

bool Damaged(const std::string& what, ReadProblem* problem) {
  problem->damaged = true;
  problem->what = what;
  return false;
}

bool HostError(int code, ReadProblem* problem) {
  problem->damaged = false;
  problem->what = std::strerror(code);
  return false;
}

std::string Number(uint64_t value) { return std::to_string(value); }

std::string Hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", value);
  return text;
}

// "offset N: ", the start of a message about a header field.
std::string At(uint64_t offset) { return "offset " + Number(offset) + ": "; }

std::string FileEnd(uint64_t size) { return "the end of the file (" + Number(size) + " bytes)"; }

}  // namespace

ArchiveReader::~ArchiveReader() {
  if (m_inflaterReady) inflateEnd(&m_inflater);
  if (m_fd >= 0) ::close(m_fd);
}

bool ArchiveReader::ReadAt(uint64_t offset, size_t length, uint8_t* out, const std::string& what,
                           ReadProblem* problem) {
  size_t done = 0;
  while (done < length) {
    const ssize_t n = ::pread(m_fd, out + done, length - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return HostError(errno, problem);
    // The size was checked at open: a file that ends early changed since.
    if (n == 0)
      return Damaged(what + ": the file ends at offset " + Number(offset + done), problem);
    done += static_cast<size_t>(n);
  }
  return true;
}

bool ArchiveReader::Open(const std::string& path, ReadProblem* problem) {
  m_path = path;
  m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (m_fd < 0) return HostError(errno, problem);
  struct stat st;
  if (::fstat(m_fd, &st) != 0) return HostError(errno, problem);
  if (S_ISDIR(st.st_mode)) return HostError(EISDIR, problem);
  if (!S_ISREG(st.st_mode)) {
    problem->damaged = false;
    problem->what = "not a regular file";
    return false;
  }
  m_fileSize = static_cast<uint64_t>(st.st_size);
  if (m_fileSize < kest2::kZorbaHeaderV1Size) {
    return Damaged("the file is " + Number(m_fileSize) +
                       " bytes long, shorter than an archive header (32 bytes)",
                   problem);
  }
  uint8_t raw[kest2::kZorbaHeaderReadSize] = {};
  const size_t headerBytes = static_cast<size_t>(std::min<uint64_t>(sizeof(raw), m_fileSize));
  if (!ReadAt(0, headerBytes, raw, "the header", problem)) return false;
  kest2::ParseHeader(raw, &m_header);
  const kest2::ZorbaHeader& h = m_header;
  if (h.magic != kest2::kZorbaMagic) return Damaged(At(0) + "no archive magic (\"ZORB\")", problem);
  if ((h.version & 0xFFFD0000u) != 0x00010000u) {
    return Damaged(At(4) + "version " + Hex(h.version) + " is neither 1 nor 3", problem);
  }
  const uint64_t headerSize =
      (h.version >> 16) >= 3 ? kest2::kZorbaHeaderV3Size : kest2::kZorbaHeaderV1Size;
  if (m_fileSize < headerSize) {
    return Damaged("the file is " + Number(m_fileSize) +
                       " bytes long, shorter than a version 3 header (48 bytes)",
                   problem);
  }
  if (h.compression != kest2::kZorbaCompressionZlib) {
    const std::string codec(reinterpret_cast<const char*>(raw + 8), 4);
    return Damaged(At(8) + "compression \"" + EscapeName(codec) + "\" is not zlib", problem);
  }
  if (h.tocEntrySize < kest2::kZorbaMinEntrySize) {
    return Damaged(At(16) + "TOC entries of " + Number(h.tocEntrySize) +
                       " bytes, fewer than an entry needs (30)",
                   problem);
  }
  if (h.blockSize < kest2::kZorbaMinBlockSize) {
    return Damaged(At(24) + "block size " + Number(h.blockSize) + ", below the smallest (256)",
                   problem);
  }
  const uint64_t entryBytes = uint64_t{h.tocEntrySize} * h.tocEntryCount;
  if (h.tocLength == 0 || entryBytes > h.tocLength) {
    return Damaged(At(12) + "a TOC region of " + Number(h.tocLength) + " bytes cannot hold " +
                       Number(h.tocEntryCount) + " entries of " + Number(h.tocEntrySize) + " bytes",
                   problem);
  }
  if (h.tocOffset < headerSize) {
    return Damaged(
        At(32) + "the TOC region starts at offset " + Number(h.tocOffset) + ", inside the header",
        problem);
  }
  if (h.tocOffset > m_fileSize || h.tocLength > m_fileSize - h.tocOffset) {
    return Damaged("the TOC region (" + Number(h.tocLength) + " bytes at offset " +
                       Number(h.tocOffset) + ") runs past " + FileEnd(m_fileSize),
                   problem);
  }
  // The checks above are the library's, spelt out; this one keeps the two
  // from drifting apart.
  if (kest2::CheckArchiveLayout(h, m_fileSize) != ZUL_KEST_OK) {
    return Damaged("the header does not describe an archive of this size", problem);
  }
  m_toc.resize(h.tocLength);
  if (!ReadAt(h.tocOffset, h.tocLength, m_toc.data(), "the TOC region", problem)) return false;
  const int64_t manifest = FindManifest();
  for (uint32_t i = 0; i < entryCount(); ++i) {
    std::array<uint8_t, kest2::kMd5DigestSize> digest;
    std::memcpy(digest.data(), Entry(i), digest.size());
    if (i != manifest) m_byDigest.emplace(digest, i);
  }
  return true;
}

const uint8_t* ArchiveReader::Entry(uint32_t i) const {
  return m_toc.data() + uint64_t{i} * m_header.tocEntrySize;
}

uint64_t ArchiveReader::EntryOffset(uint32_t i) const {
  return m_header.tocOffset + uint64_t{i} * m_header.tocEntrySize;
}

int64_t ArchiveReader::FindManifest() const {
  static const uint8_t kZero[kest2::kMd5DigestSize] = {};
  for (uint32_t i = 0; i < entryCount(); ++i) {
    if (std::memcmp(Entry(i), kZero, sizeof(kZero)) == 0) return i;
  }
  return -1;
}

void ArchiveReader::NameDigest(const std::string& name,
                               uint8_t digest[kest2::kMd5DigestSize]) const {
  std::string keyed = name;
  if ((m_header.archiveFlags & kest2::ZORBA_FLAG_IGNORE_CASE) != 0) {
    for (char& c : keyed) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
  }
  kest2::PathDigest(keyed.data(), keyed.size(), digest);
}

int64_t ArchiveReader::FindByName(const std::string& name) const {
  std::array<uint8_t, kest2::kMd5DigestSize> digest;
  NameDigest(name, digest.data());
  const auto found = m_byDigest.find(digest);
  return found == m_byDigest.end() ? -1 : int64_t{found->second};
}

bool ArchiveReader::CheckEntry(uint32_t i, const std::string& label, ReadProblem* problem) const {
  const uint8_t* entry = Entry(i);
  const std::string who =
      label + " (TOC entry " + Number(i + 1) + " at offset " + Number(EntryOffset(i)) + "): ";
  const uint64_t size = kest2::GetEntrySize(entry);
  const uint64_t dataOffset = kest2::GetEntryOffset(entry);
  uint64_t stored = size;
  if (!kest2::IsEntryStored(m_header, entry)) {
    const uint64_t first = kest2::GetEntryFirstBlock(entry);
    const uint64_t blocks = kest2::GetEntryBlockCount(m_header, entry);
    const uint64_t rows = kest2::BlockRowCount(m_header);
    if (first + blocks > rows) {
      return Damaged(who + "its " + Number(blocks) + " blocks take rows " + Number(first) + " to " +
                         Number(first + blocks - 1) + " of a block-size table of " + Number(rows) +
                         " rows",
                     problem);
    }
    stored = 0;
    if (size != 0) {
      for (uint64_t row = first; row < first + blocks; ++row) {
        uint32_t value = 0;
        kest2::ReadBlockRow(m_header, m_toc.data(), row, &value);
        stored += value == 0 ? m_header.blockSize : value;
      }
    }
  }
  if (dataOffset > m_fileSize || stored > m_fileSize - dataOffset) {
    return Damaged(who + "its " + Number(stored) + " stored bytes at offset " + Number(dataOffset) +
                       " run past " + FileEnd(m_fileSize),
                   problem);
  }
  return true;
}

void ArchiveReader::ForEachBlock(uint32_t i,
                                 const std::function<bool(const StoredBlock&)>& visit) const {
  const uint8_t* entry = Entry(i);
  const uint64_t size = kest2::GetEntrySize(entry);
  const uint64_t blockSize = m_header.blockSize;
  if (size == 0) return;
  const uint64_t blocks = kest2::GetEntryBlockCount(m_header, entry);
  const bool stored = kest2::IsEntryStored(m_header, entry);
  const uint64_t first = kest2::GetEntryFirstBlock(entry);
  uint64_t offset = kest2::GetEntryOffset(entry);
  for (uint64_t k = 0; k < blocks; ++k) {
    StoredBlock block;
    block.number = k;
    block.offset = offset;
    block.length = static_cast<uint32_t>(std::min(blockSize, size - k * blockSize));
    if (stored) {
      block.storedSize = block.length;
      block.compressed = false;
      offset += blockSize;
    } else {
      // The rules of the block-size table: 0 or blockSize is a raw full
      // block, a last row equal to the tail's length a raw tail, anything
      // else a zlib stream of that many bytes.
      uint32_t value = 0;
      kest2::ReadBlockRow(m_header, m_toc.data(), first + k, &value);
      const bool last = k + 1 == blocks;
      block.storedSize = value == 0 ? m_header.blockSize : value;
      block.compressed =
          !(value == 0 || value == m_header.blockSize || (last && value == size % blockSize));
      offset += block.storedSize;
    }
    if (!visit(block)) return;
  }
}

bool ArchiveReader::ReadBlock(const StoredBlock& block, const std::string& label,
                              std::vector<uint8_t>* out, ReadProblem* problem) {
  const std::string where =
      "block " + Number(block.number) + " of " + label + " at offset " + Number(block.offset);
  if (!block.compressed) {
    out->resize(block.length);
    return ReadAt(block.offset, block.length, out->data(), where, problem);
  }
  if (block.length > uint64_t{block.storedSize} * kMaxInflateRatio + kInflateSlack) {
    return Damaged(where + ": " + Number(block.storedSize) + " stored bytes cannot inflate to " +
                       Number(block.length),
                   problem);
  }
  m_stored.resize(block.storedSize);
  if (!ReadAt(block.offset, block.storedSize, m_stored.data(), where, problem)) return false;
  if (!m_inflaterReady) {
    if (inflateInit(&m_inflater) != Z_OK) return HostError(ENOMEM, problem);
    m_inflaterReady = true;
  } else {
    inflateReset(&m_inflater);
  }
  // One byte of room more than wanted tells a stream that inflates too far
  // from one that fits.
  out->resize(uint64_t{block.length} + 1);
  m_inflater.next_in = m_stored.data();
  m_inflater.avail_in = block.storedSize;
  m_inflater.next_out = out->data();
  m_inflater.avail_out = static_cast<uInt>(out->size());
  const int rc = inflate(&m_inflater, Z_FINISH);
  const uint64_t produced = m_inflater.total_out;
  out->resize(block.length);
  const std::string wanted = Number(block.length);
  if (rc == Z_STREAM_END) {
    if (produced == block.length) return true;
    return Damaged(where + ": inflates to " + Number(produced) + " bytes, not " + wanted, problem);
  }
  if (rc == Z_DATA_ERROR || rc == Z_NEED_DICT) {
    const char* reason = m_inflater.msg != nullptr ? m_inflater.msg : "bad data";
    return Damaged(where + ": the zlib stream is damaged (" + reason + ")", problem);
  }
  if (rc == Z_MEM_ERROR) return HostError(ENOMEM, problem);
  if (m_inflater.avail_out == 0) {
    return Damaged(where + ": inflates to more than " + wanted + " bytes", problem);
  }
  return Damaged(
      where + ": the zlib stream stops after " + Number(produced) + " of " + wanted + " bytes",
      problem);
}

bool ArchiveReader::ReadEntry(uint32_t i, const std::string& label,
                              const std::function<bool(const uint8_t*, size_t)>& sink,
                              ReadProblem* problem) {
  if (!CheckEntry(i, label, problem)) return false;
  std::vector<uint8_t> bytes;
  bool ok = true;
  ForEachBlock(i, [&](const StoredBlock& block) {
    ok = ReadBlock(block, label, &bytes, problem) && sink(bytes.data(), bytes.size());
    return ok;
  });
  return ok;
}

bool ArchiveReader::ReadManifest(std::vector<std::string>* names, ReadProblem* problem) {
  names->clear();
  const int64_t manifest = FindManifest();
  if (manifest < 0) return Damaged("no manifest: no TOC entry has the all-zero digest", problem);
  const uint32_t index = static_cast<uint32_t>(manifest);
  const uint64_t size = kest2::GetEntrySize(Entry(index));
  if (size > kMaxManifestSize) {
    return Damaged("the manifest (TOC entry " + Number(index + 1) + " at offset " +
                       Number(EntryOffset(index)) + ") claims " + Number(size) +
                       " bytes, more than kest2 reads (1 GiB)",
                   problem);
  }
  std::string text;
  const bool read = ReadEntry(
      index, "the manifest",
      [&](const uint8_t* bytes, size_t length) {
        text.append(reinterpret_cast<const char*>(bytes), length);
        return true;
      },
      problem);
  if (!read) return false;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    names->push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return true;
}

}  // namespace kest2_cli
