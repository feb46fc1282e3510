// Packing a directory tree into a ZORBA archive: see archive_writer.h.
//
// The TOC region sits between the header and the data, but its length is
// known only at the end: files that turn out incompressible under
// storeIncompressible give up their rows.  So the data is written behind
// room for the largest TOC the files can need (every non-empty file with
// rows), and moved down over the unused room at the end, which happens only
// when rows were given up.

#include "kest2/archive_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "archive/zorba_format.h"
#include "core/md5.h"

namespace kest2_cli {
namespace {

namespace fs = std::filesystem;

// Readers look at the first 30 bytes of an entry only; nothing to pad.
constexpr uint32_t kEntrySize = kest2::kZorbaMinEntrySize;
// Uncompressed bytes a thread takes at a time (at least one block).
constexpr uint64_t kPieceBytes = 1u << 20;
// Sizes and offsets in the TOC are 40-bit.
constexpr uint64_t kLimit40 = uint64_t{1} << 40;
constexpr size_t kMoveBytes = 1u << 20;

std::string SystemError(const std::string& path, int code) {
  return path + ": " + std::strerror(code);
}

void PutBigEndian(uint8_t* p, uint64_t value, size_t width) {
  for (size_t i = width; i > 0; --i) {
    p[i - 1] = static_cast<uint8_t>(value);
    value >>= 8;
  }
}

bool WriteAll(int fd, const uint8_t* data, size_t length, uint64_t offset, const std::string& name,
              std::string* error) {
  while (length > 0) {
    const ssize_t n = ::pwrite(fd, data, length, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = SystemError(name, n < 0 ? errno : EIO);
      return false;
    }
    data += n;
    length -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

// Reads up to `length` bytes; fewer only at the end of the file.
bool ReadAll(int fd, uint8_t* data, size_t length, uint64_t offset, size_t* got) {
  *got = 0;
  while (*got < length) {
    const ssize_t n = ::pread(fd, data + *got, length - *got, static_cast<off_t>(offset + *got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    *got += static_cast<size_t>(n);
  }
  return true;
}

// One file of the archive, the manifest included, in data order.
struct Source {
  std::string diskPath;  // where its bytes are read; what errors name
  std::string name;      // its path inside the archive
  uint64_t size = 0;
  uint8_t digest[kest2::kMd5DigestSize] = {};
  const std::string* text = nullptr;  // the manifest's bytes, held in memory
};

// Consecutive blocks of one source: what a thread compresses at a time.
struct Piece {
  size_t source;
  uint64_t firstBlock;
  uint64_t blockCount;  // 0 only for an empty source
  bool last;            // the source's last piece
};

// A compressed piece, waiting for the writer.
struct PieceOutput {
  std::vector<uint8_t> bytes;  // the blocks as stored, back to back
  std::vector<uint32_t> rows;
  bool allRaw = true;
  std::string error;
  bool ready = false;
};

// Where a source's rows and data ended up.
struct Placed {
  uint64_t firstRow = 0;
  bool stored = false;
  uint64_t offset = 0;  // from the start of the data
};

// A deflate stream kept for every block one thread compresses: after
// deflateReset it gives the bytes compress2 would at the same level, without
// allocating the state per block.
class Deflater {
 public:
  explicit Deflater(int level)
      : m_ok(deflateInit2(&m_stream, level, Z_DEFLATED, 15, 8, Z_DEFAULT_STRATEGY) == Z_OK) {}
  ~Deflater() {
    if (m_ok) deflateEnd(&m_stream);
  }
  Deflater(const Deflater&) = delete;
  Deflater& operator=(const Deflater&) = delete;

  bool ok() const { return m_ok; }

  // A zlib stream of the input in at most `room` bytes; its length, or 0
  // when it does not fit.
  size_t Compress(const uint8_t* in, size_t length, uint8_t* out, size_t room) {
    deflateReset(&m_stream);
    m_stream.next_in = const_cast<Bytef*>(in);
    m_stream.avail_in = static_cast<uInt>(length);
    m_stream.next_out = out;
    m_stream.avail_out = static_cast<uInt>(room);
    if (deflate(&m_stream, Z_FINISH) != Z_STREAM_END) return 0;
    return room - m_stream.avail_out;
  }

 private:
  z_stream m_stream{};
  bool m_ok;
};

// Appends one block as the archive stores it and returns its row.  A zlib
// stream as long as the block would read as raw bytes, so compression must
// win by a byte; otherwise the block goes in raw, with row 0 when full and
// its length when it is a partial last block.
uint32_t AppendBlock(Deflater* deflater, const uint8_t* data, size_t length, uint32_t blockSize,
                     std::vector<uint8_t>* out, bool* raw) {
  const size_t at = out->size();
  if (length > 1) {
    out->resize(at + length - 1);
    const size_t packed = deflater->Compress(data, length, out->data() + at, length - 1);
    if (packed != 0) {
      out->resize(at + packed);
      *raw = false;
      return static_cast<uint32_t>(packed);
    }
  }
  out->resize(at);
  out->insert(out->end(), data, data + length);
  *raw = true;
  return length == blockSize ? 0 : static_cast<uint32_t>(length);
}

// Reads a piece of a source.  The last piece asks for a byte more than the
// size seen by the walk, so that a file that grew is caught like one that
// shrank: its size is already in the TOC.
bool ReadPiece(const Source& source, uint64_t offset, size_t length, bool last,
               std::vector<uint8_t>* data, std::string* error) {
  if (source.text != nullptr) {
    data->assign(source.text->begin() + static_cast<ptrdiff_t>(offset),
                 source.text->begin() + static_cast<ptrdiff_t>(offset + length));
    return true;
  }
  const int fd = ::open(source.diskPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = SystemError(source.diskPath, errno);
    return false;
  }
  data->resize(length + (last ? 1 : 0));
  size_t got = 0;
  const bool read = ReadAll(fd, data->data(), data->size(), offset, &got);
  const int code = errno;
  ::close(fd);
  if (!read) {
    *error = SystemError(source.diskPath, code);
    return false;
  }
  if (got != length) {
    *error = source.diskPath + ": changed size while being packed";
    return false;
  }
  data->resize(length);
  return true;
}

PieceOutput CompressPiece(const Piece& piece, const Source& source, uint32_t blockSize,
                          Deflater* deflater) {
  PieceOutput output;
  const uint64_t start = piece.firstBlock * blockSize;
  const uint64_t end = std::min(source.size, start + piece.blockCount * blockSize);
  std::vector<uint8_t> data;
  if (!ReadPiece(source, start, static_cast<size_t>(end - start), piece.last, &data,
                 &output.error)) {
    return output;
  }
  output.bytes.reserve(data.size());
  for (size_t at = 0; at < data.size(); at += blockSize) {
    const size_t length = std::min<size_t>(blockSize, data.size() - at);
    bool raw = false;
    output.rows.push_back(
        AppendBlock(deflater, data.data() + at, length, blockSize, &output.bytes, &raw));
    output.allRaw = output.allRaw && raw;
  }
  return output;
}

// The order the mount sorts manifest paths in (signed bytes, or bytes
// lower-cased when case is ignored), so the manifest is written already
// sorted and each directory's files lie together in the data.
bool ManifestLess(const std::string& a, const std::string& b, bool ignoreCase) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    int ca, cb;
    if (ignoreCase) {
      ca = static_cast<unsigned char>(a[i]);
      cb = static_cast<unsigned char>(b[i]);
      if (ca >= 'A' && ca <= 'Z') ca += 'a' - 'A';
      if (cb >= 'A' && cb <= 'Z') cb += 'a' - 'A';
    } else {
      ca = static_cast<signed char>(a[i]);
      cb = static_cast<signed char>(b[i]);
    }
    if (ca != cb) return ca < cb;
  }
  return a.size() < b.size();
}

struct FileId {
  dev_t device;
  ino_t inode;
};

// The temporary archive: removed unless Commit renamed it into place.
class TempFile {
 public:
  TempFile() = default;
  ~TempFile() {
    if (m_fd >= 0) ::close(m_fd);
    if (!m_path.empty()) ::unlink(m_path.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  bool Create(const std::string& archive, std::string* error) {
    std::string name = archive + ".XXXXXX";
    m_fd = ::mkstemp(name.data());
    if (m_fd < 0) {
      *error = SystemError(archive, errno);
      return false;
    }
    m_path = name;
    // mkstemp makes the file private; an archive gets the usual mode.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(m_fd, 0666 & ~mask);
    return true;
  }

  int fd() const { return m_fd; }

  bool Commit(const std::string& archive, std::string* error) {
    const int closed = ::close(m_fd);
    m_fd = -1;
    if (closed != 0 || ::rename(m_path.c_str(), archive.c_str()) != 0) {
      *error = SystemError(archive, errno);
      return false;
    }
    m_path.clear();
    return true;
  }

 private:
  int m_fd = -1;
  std::string m_path;
};

class Packer {
 public:
  Packer(const std::string& archive, const PackOptions& options)
      : m_archive(archive), m_options(options) {
    m_flags = (options.ignoreCase ? kest2::ZORBA_FLAG_IGNORE_CASE : 0u) |
              (options.absolutePaths ? kest2::ZORBA_FLAG_ABSOLUTE_PATHS : 0u) |
              (options.unsorted ? 0u : kest2::ZORBA_FLAG_TOC_SORTED);
    m_headerSize = options.version == 1 ? kest2::kZorbaHeaderV1Size : kest2::kZorbaHeaderV3Size;
    m_sizeWidth = kest2::SizeWidthForBlockSize(options.blockSize);
  }

  bool Run(const std::string& directory, PackSummary* summary, std::string* error);

 private:
  bool Collect(const std::string& directory, const std::vector<FileId>& skip, std::string* error);
  bool CheckNames(std::string* error);
  void PlanPieces();
  bool WriteData(std::string* error);
  bool Place(const Piece& piece, const PieceOutput& output, std::string* error);
  bool Finish(std::string* error);

  const std::string& m_archive;
  const PackOptions& m_options;
  uint32_t m_flags;
  size_t m_headerSize;
  uint8_t m_sizeWidth;

  std::string m_manifest;
  std::vector<Source> m_sources;  // the manifest, then the files in manifest order
  std::vector<Piece> m_pieces;
  std::vector<Placed> m_placed;  // per source
  std::vector<uint32_t> m_rows;  // the block-size table
  bool m_allRaw = true;          // of the source being placed
  uint64_t m_dataStart = 0;      // where the data is written while packing
  uint64_t m_dataLength = 0;
  uint64_t m_archiveSize = 0;
  TempFile m_file;
};

bool Packer::Collect(const std::string& directory, const std::vector<FileId>& skip,
                     std::string* error) {
  struct stat st;
  if (::stat(directory.c_str(), &st) != 0) {
    *error = SystemError(directory, errno);
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    *error = directory + ": not a directory";
    return false;
  }
  // The walk names entries DIR + "/" + relative path.
  const size_t prefix = directory.size() + (directory.back() == '/' ? 0 : 1);
  try {
    for (fs::recursive_directory_iterator it(directory), end; it != end; ++it) {
      if (it->symlink_status().type() == fs::file_type::directory) continue;
      const std::string path = it->path().string();
      if (::stat(path.c_str(), &st) != 0) {
        if (it->symlink_status().type() == fs::file_type::symlink) continue;  // dangling
        *error = SystemError(path, errno);
        return false;
      }
      if (!S_ISREG(st.st_mode)) continue;
      const bool isSkipped = std::any_of(skip.begin(), skip.end(), [&](const FileId& id) {
        return id.device == st.st_dev && id.inode == st.st_ino;
      });
      if (isSkipped) continue;
      Source file;
      file.diskPath = path;
      file.name = (m_options.absolutePaths ? "/" : "") + path.substr(prefix);
      file.size = static_cast<uint64_t>(st.st_size);
      if (file.name.find('\n') != std::string::npos) {
        *error = path + ": the manifest cannot hold a name with a newline";
        return false;
      }
      if (file.size >= kLimit40) {
        *error = path + ": larger than an archive entry can be (2^40 bytes)";
        return false;
      }
      m_sources.push_back(std::move(file));
    }
  } catch (const fs::filesystem_error& e) {
    *error = e.path1().string() + ": " + e.code().message();
    return false;
  }
  if (m_sources.empty()) {
    // A mount refuses an empty manifest.
    *error = directory + ": no regular files to pack";
    return false;
  }
  const bool ignoreCase = m_options.ignoreCase;
  std::sort(m_sources.begin(), m_sources.end(), [ignoreCase](const Source& a, const Source& b) {
    return ManifestLess(a.name, b.name, ignoreCase);
  });
  for (const Source& file : m_sources) m_manifest += file.name + '\n';
  Source manifest;
  manifest.diskPath = m_archive + " (manifest)";
  manifest.size = m_manifest.size();
  manifest.text = &m_manifest;
  m_sources.insert(m_sources.begin(), std::move(manifest));
  return true;
}

// Computes the digests and refuses names that two files would share.
bool Packer::CheckNames(std::string* error) {
  kest2::ZorbaHeader keys{};
  keys.archiveFlags = m_flags;
  for (size_t i = 1; i < m_sources.size(); ++i) {
    kest2::ZorbaPathDigest(keys, m_sources[i].name.c_str(), m_sources[i].digest);
  }
  std::vector<const Source*> byDigest;
  for (const Source& source : m_sources) byDigest.push_back(&source);
  std::sort(byDigest.begin(), byDigest.end(), [](const Source* a, const Source* b) {
    return std::memcmp(a->digest, b->digest, kest2::kMd5DigestSize) < 0;
  });
  for (size_t i = 1; i < byDigest.size(); ++i) {
    const Source& a = *byDigest[i - 1];
    const Source& b = *byDigest[i];
    if (std::memcmp(a.digest, b.digest, kest2::kMd5DigestSize) != 0) continue;
    const bool sameName = !ManifestLess(a.name, b.name, m_options.ignoreCase) &&
                          !ManifestLess(b.name, a.name, m_options.ignoreCase);
    *error = b.diskPath + (sameName ? ": same name as " + a.diskPath + " when case is ignored"
                                    : ": name digest collides with " + a.diskPath);
    return false;
  }
  return true;
}

void Packer::PlanPieces() {
  const uint64_t blockSize = m_options.blockSize;
  const uint64_t perPiece = std::max<uint64_t>(1, kPieceBytes / blockSize);
  for (size_t s = 0; s < m_sources.size(); ++s) {
    const uint64_t size = m_sources[s].size;
    const uint64_t blocks = size == 0 ? 0 : (size - 1) / blockSize + 1;
    if (blocks == 0) m_pieces.push_back(Piece{s, 0, 0, true});
    for (uint64_t b = 0; b < blocks; b += perPiece) {
      const uint64_t count = std::min(perPiece, blocks - b);
      m_pieces.push_back(Piece{s, b, count, b + count == blocks});
    }
  }
}

// Writes a piece's blocks behind the data so far and keeps its rows; at a
// source's last piece decides whether it keeps its rows.
bool Packer::Place(const Piece& piece, const PieceOutput& output, std::string* error) {
  Placed& placed = m_placed[piece.source];
  if (piece.firstBlock == 0) {
    placed.firstRow = m_rows.size();
    placed.offset = m_dataLength;
    m_allRaw = true;
  }
  if (!WriteAll(m_file.fd(), output.bytes.data(), output.bytes.size(), m_dataStart + m_dataLength,
                m_archive, error)) {
    return false;
  }
  m_dataLength += output.bytes.size();
  m_rows.insert(m_rows.end(), output.rows.begin(), output.rows.end());
  m_allRaw = m_allRaw && output.allRaw;
  if (piece.last &&
      (m_sources[piece.source].size == 0 || (m_options.storeIncompressible && m_allRaw))) {
    // Raw blocks back to back are the file's bytes as they are.
    m_rows.resize(placed.firstRow);
    placed.stored = true;
  }
  return true;
}

// Compresses the pieces on the worker threads, at most `window` ahead of
// the writer, and places them strictly in order.
bool Packer::WriteData(std::string* error) {
  std::mutex mutex;
  std::condition_variable changed;
  size_t next = 0;      // next piece to hand out
  size_t consumed = 0;  // pieces placed
  bool stop = false;
  std::vector<PieceOutput> outputs(m_pieces.size());
  const size_t window = size_t{m_options.jobs} * 2 + 2;

  auto work = [&] {
    Deflater deflater(m_options.level);
    for (;;) {
      size_t i;
      {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock,
                     [&] { return stop || next >= m_pieces.size() || next < consumed + window; });
        if (stop || next >= m_pieces.size()) return;
        i = next++;
      }
      PieceOutput output;
      if (deflater.ok()) {
        const Piece& piece = m_pieces[i];
        output = CompressPiece(piece, m_sources[piece.source], m_options.blockSize, &deflater);
      } else {
        output.error =
            m_archive + ": zlib could not start at level " + std::to_string(m_options.level);
      }
      {
        std::lock_guard<std::mutex> lock(mutex);
        outputs[i] = std::move(output);
        outputs[i].ready = true;
      }
      changed.notify_all();
    }
  };
  std::vector<std::thread> workers;
  const size_t threads = std::min<size_t>(std::max(1u, m_options.jobs), m_pieces.size());
  for (size_t t = 0; t < threads; ++t) workers.emplace_back(work);

  PackProgress progress;
  for (size_t s = 1; s < m_sources.size(); ++s) progress.totalBytes += m_sources[s].size;
  progress.totalFiles = m_sources.size() - 1;
  bool ok = true;
  for (size_t i = 0; ok && i < m_pieces.size(); ++i) {
    PieceOutput output;
    {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait(lock, [&] { return outputs[i].ready; });
      output = std::move(outputs[i]);
    }
    if (!output.error.empty()) {
      *error = output.error;
      ok = false;
    } else {
      ok = Place(m_pieces[i], output, error);
    }
    const Piece& piece = m_pieces[i];
    if (ok && piece.source != 0 && m_options.progress) {
      const uint64_t begin = piece.firstBlock * m_options.blockSize;
      const uint64_t end = (piece.firstBlock + piece.blockCount) * m_options.blockSize;
      progress.bytes += std::min(end, m_sources[piece.source].size) - begin;
      progress.files += piece.last ? 1 : 0;
      m_options.progress(progress);
    }
    {
      std::lock_guard<std::mutex> lock(mutex);
      consumed = i + 1;
      stop = !ok;
    }
    changed.notify_all();
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  changed.notify_all();
  for (std::thread& worker : workers) worker.join();
  return ok;
}

// Writes the header and the TOC in front of the data, closing the gap left
// by rows that were given up.
bool Packer::Finish(std::string* error) {
  const uint64_t count = m_sources.size();
  const uint64_t region = kEntrySize * count + m_sizeWidth * uint64_t{m_rows.size()};
  const uint64_t tocLength = m_options.version == 1 ? region + m_headerSize : region;
  if (count > UINT32_MAX || tocLength > UINT32_MAX) {
    *error = m_archive + ": too many files or blocks for one table of contents";
    return false;
  }
  const uint64_t dataStart = m_headerSize + region;
  const uint64_t archiveSize = dataStart + m_dataLength;
  m_archiveSize = archiveSize;
  if (archiveSize > kLimit40) {
    *error = m_archive + ": larger than an archive can address (2^40 bytes)";
    return false;
  }

  if (dataStart < m_dataStart) {
    std::vector<uint8_t> buffer(kMoveBytes);
    for (uint64_t done = 0; done < m_dataLength;) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(kMoveBytes, m_dataLength - done));
      size_t got = 0;
      if (!ReadAll(m_file.fd(), buffer.data(), n, m_dataStart + done, &got)) {
        *error = SystemError(m_archive, errno);
        return false;
      }
      if (got != n) {
        *error = SystemError(m_archive, EIO);
        return false;
      }
      if (!WriteAll(m_file.fd(), buffer.data(), n, dataStart + done, m_archive, error)) {
        return false;
      }
      done += n;
    }
  }

  std::vector<size_t> order(count);
  for (size_t i = 0; i < count; ++i) order[i] = i;  // manifest first either way
  if (!m_options.unsorted) {
    std::sort(order.begin(), order.end(), [this](size_t a, size_t b) {
      return std::memcmp(m_sources[a].digest, m_sources[b].digest, kest2::kMd5DigestSize) < 0;
    });
  }

  std::vector<uint8_t> head(static_cast<size_t>(dataStart), 0);
  uint8_t* h = head.data();
  PutBigEndian(h + 0, kest2::kZorbaMagic, 4);
  PutBigEndian(h + 4, uint64_t{m_options.version} << 16, 4);
  PutBigEndian(h + 8, kest2::kZorbaCompressionZlib, 4);
  PutBigEndian(h + 12, tocLength, 4);
  PutBigEndian(h + 16, kEntrySize, 4);
  PutBigEndian(h + 20, count, 4);
  PutBigEndian(h + 24, m_options.blockSize, 4);
  PutBigEndian(h + 28, m_flags, 4);
  if (m_options.version != 1) {
    PutBigEndian(h + 32, m_headerSize, 8);
    PutBigEndian(h + 40, region, 8);
  }
  uint8_t* entry = h + m_headerSize;
  for (size_t s : order) {
    const Placed& placed = m_placed[s];
    std::memcpy(entry, m_sources[s].digest, kest2::kMd5DigestSize);
    PutBigEndian(entry + 16, placed.stored ? kest2::ZORBA_STORED_FIRST_BLOCK : placed.firstRow, 4);
    PutBigEndian(entry + 20, m_sources[s].size, 5);
    PutBigEndian(entry + 25, dataStart + placed.offset, 5);
    entry += kEntrySize;
  }
  for (uint32_t row : m_rows) {
    PutBigEndian(entry, row, m_sizeWidth);
    entry += m_sizeWidth;
  }
  if (!WriteAll(m_file.fd(), head.data(), head.size(), 0, m_archive, error)) return false;
  if (::ftruncate(m_file.fd(), static_cast<off_t>(archiveSize)) != 0) {
    *error = SystemError(m_archive, errno);
    return false;
  }
  return m_file.Commit(m_archive, error);
}

bool Packer::Run(const std::string& directory, PackSummary* summary, std::string* error) {
  if (!m_file.Create(m_archive, error)) return false;
  // Neither the archive being replaced nor the one being written is packed
  // when they lie inside the tree.
  std::vector<FileId> skip;
  struct stat st;
  if (::fstat(m_file.fd(), &st) == 0) skip.push_back(FileId{st.st_dev, st.st_ino});
  if (::stat(m_archive.c_str(), &st) == 0) skip.push_back(FileId{st.st_dev, st.st_ino});
  if (!Collect(directory, skip, error) || !CheckNames(error)) return false;

  PlanPieces();
  m_placed.resize(m_sources.size());
  uint64_t maxRows = 0;
  for (const Piece& piece : m_pieces) maxRows += piece.blockCount;
  m_dataStart = m_headerSize + kEntrySize * uint64_t{m_sources.size()} + m_sizeWidth * maxRows;
  if (!WriteData(error) || !Finish(error)) return false;

  summary->files = m_sources.size() - 1;
  summary->inputBytes = 0;
  for (size_t i = 1; i < m_sources.size(); ++i) summary->inputBytes += m_sources[i].size;
  summary->archiveBytes = m_archiveSize;
  return true;
}

}  // namespace

bool PackDirectory(const std::string& directory, const std::string& archive,
                   const PackOptions& options, PackSummary* summary, std::string* error) {
  if (options.blockSize < kest2::kZorbaMinBlockSize || options.blockSize > kMaxPackBlockSize) {
    *error = archive + ": block size " + std::to_string(options.blockSize) + " is not between " +
             std::to_string(kest2::kZorbaMinBlockSize) + " and " +
             std::to_string(kMaxPackBlockSize);
    return false;
  }
  if ((options.version != 1 && options.version != 3) || options.level < 0 || options.level > 9 ||
      options.jobs == 0) {
    *error = archive + ": version must be 1 or 3, level 0 to 9 and jobs at least 1";
    return false;
  }
  if (directory.empty()) {
    *error = "'': not a directory";
    return false;
  }
  Packer packer(archive, options);
  return packer.Run(directory, summary, error);
}

}  // namespace kest2_cli
