// An archive mounted for one command: see archive_session.h.

#include "kest2/archive_session.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "archive/zorba_format.h"
#include "kest2/archive_writer.h"

namespace kest2_cli {
namespace {

constexpr uintptr_t kWorkAlignment = 64;

// Reads the header and the file's size and checks the one against the
// other: a valid header, the zlib codec, and the TOC region inside the file.
bool ReadHeader(const std::string& path, kest2::ZorbaHeader* header) {
  uint8_t raw[kest2::kZorbaHeaderReadSize] = {};
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  const size_t got = std::fread(raw, 1, sizeof(raw), file);
  const long size = std::fseek(file, 0, SEEK_END) == 0 ? std::ftell(file) : -1;
  std::fclose(file);
  if (got < kest2::kZorbaHeaderV1Size || size < 0) return false;
  kest2::ParseHeader(raw, header);
  return kest2::CheckArchiveLayout(*header, static_cast<uint64_t>(size)) == ZUL_KEST_OK;
}

}  // namespace

// The magic alone decides, so that a damaged archive is reported as one
// rather than read as a plain file.
bool LooksLikeArchive(const std::string& path) {
  uint8_t magic[4] = {};
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  const size_t got = std::fread(magic, 1, sizeof(magic), file);
  std::fclose(file);
  const uint32_t value =
      uint32_t{magic[0]} << 24 | uint32_t{magic[1]} << 16 | uint32_t{magic[2]} << 8 | magic[3];
  return got == sizeof(magic) && value == kest2::kZorbaMagic;
}

bool SplitArchivePath(const std::string& path, std::string* archive, std::string* inside) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    struct stat st;
    if (::stat(prefix.c_str(), &st) != 0) return false;
    if (S_ISDIR(st.st_mode)) continue;
    if (!S_ISREG(st.st_mode) || !LooksLikeArchive(prefix)) return false;
    *archive = prefix;
    *inside = path.substr(slash + 1);
    return true;
  }
  return false;
}

int32_t ArchiveSession::Mount(const std::string& archive, const std::string& mountPoint) {
  kest2::ZorbaHeader header;
  if (!ReadHeader(archive, &header)) return ZUL_KEST_ERROR_BAD_ARCHIVE;
  // Three work buffers, each holding one block.  The block size comes from
  // the file: beyond what pack writes it is taken for damage rather than
  // met with gigabytes of buffers.
  if (header.blockSize > kMaxPackBlockSize) return ZUL_KEST_ERROR_BAD_ARCHIVE;
  const uint64_t size = 3 * static_cast<uint64_t>(header.blockSize);
  m_work.reset(new uint8_t[size + kWorkAlignment]);
  const uintptr_t base = reinterpret_cast<uintptr_t>(m_work.get());
  m_context.sizeOfContext = sizeof(m_context);
  m_context.workBufferSize = size;
  m_context.pWorkBuffer = reinterpret_cast<void*>((base + kWorkAlignment - 1) & ~(kWorkAlignment - 1));
  int32_t result = zulKestIOFilterAdd(m_slot, zulKestIOFilterZorbaDearchiver, &m_context);
  if (result != ZUL_KEST_OK) return result;
  m_installed = true;
  const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive.c_str(), nullptr);
  // The library refuses size fields that do not fit the file, so `need` is
  // in proportion to the archive (its manifest text may still be several
  // times larger than the file when it compressed well).
  if (need < 0) return static_cast<int32_t>(need);
  m_mountBuffer.assign(static_cast<size_t>(need + 7) / 8, 0);
  const std::string& at = mountPoint.empty() ? archive : mountPoint;
  return zulKestArchiveMountSync(nullptr, &m_archive, archive.c_str(), at.c_str(),
                                 m_mountBuffer.data(), need, nullptr);
}

ArchiveSession::~ArchiveSession() {
  if (m_archive != 0) zulKestArchiveUnmountSync(nullptr, m_archive);
  if (m_installed) zulKestIOFilterRemove(m_slot);
}

}  // namespace kest2_cli
