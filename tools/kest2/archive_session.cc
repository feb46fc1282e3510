// An archive mounted for one command: see archive_session.h.

#include "kest2/archive_session.h"

#include <cstdio>
#include <cstring>

#include "archive/zorba_format.h"

namespace kest2_cli {
namespace {

constexpr uintptr_t kWorkAlignment = 64;

bool ReadHeader(const std::string& path, kest2::ZorbaHeader* header) {
  uint8_t raw[kest2::kZorbaHeaderReadSize] = {};
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  const size_t got = std::fread(raw, 1, sizeof(raw), file);
  std::fclose(file);
  if (got < kest2::kZorbaHeaderV1Size) return false;
  kest2::ParseHeader(raw, header);
  return kest2::IsHeaderValid(*header);
}

}  // namespace

bool LooksLikeArchive(const std::string& path) {
  kest2::ZorbaHeader header;
  return ReadHeader(path, &header);
}

int32_t ArchiveSession::Mount(const std::string& archive, const std::string& mountPoint) {
  kest2::ZorbaHeader header;
  if (!ReadHeader(archive, &header)) return ZUL_KEST_ERROR_BAD_ARCHIVE;
  // Three work buffers, each holding one block.
  const uint64_t size = 3 * static_cast<uint64_t>(header.blockSize);
  m_work.assign(size + kWorkAlignment, 0);
  const uintptr_t base = reinterpret_cast<uintptr_t>(m_work.data());
  m_context.sizeOfContext = sizeof(m_context);
  m_context.workBufferSize = size;
  m_context.pWorkBuffer = reinterpret_cast<void*>((base + kWorkAlignment - 1) & ~(kWorkAlignment - 1));
  int32_t result = zulKestIOFilterAdd(m_slot, zulKestIOFilterZorbaDearchiver, &m_context);
  if (result != ZUL_KEST_OK) return result;
  m_installed = true;
  const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive.c_str(), nullptr);
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
