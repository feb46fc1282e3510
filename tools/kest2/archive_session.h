// An archive mounted for one command: `kest2 ls ARCHIVE` and
// `kest2 cat ARCHIVE PATH...` mount the archive at its own path, so that
// its files read as ARCHIVE/PATH through the library.
#ifndef KEST2_TOOLS_KEST2_ARCHIVE_SESSION_H_
#define KEST2_TOOLS_KEST2_ARCHIVE_SESSION_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kest2.h"

namespace kest2_cli {

// Whether the file at path begins with the archive magic.
bool LooksLikeArchive(const std::string& path);

// ARCHIVE/PATH where ARCHIVE is an archive file: the first leading part of
// `path` that is not a directory must be a file that looks like one.  False
// when no part is (a loose path).
bool SplitArchivePath(const std::string& path, std::string* archive, std::string* inside);

class ArchiveSession {
 public:
  // The dearchiver goes into filter slot `slot`.
  explicit ArchiveSession(int slot = 0) : m_slot(slot) {}
  ~ArchiveSession();  // unmounts and removes the filter
  ArchiveSession(const ArchiveSession&) = delete;
  ArchiveSession& operator=(const ArchiveSession&) = delete;

  // Installs the dearchiver and mounts the archive at mountPoint (its own
  // path when empty).  0, or the library's error; ZUL_KEST_ERROR_BAD_ARCHIVE
  // also for a header that does not fit the file or asks for more memory
  // than an intact archive can need.
  int32_t Mount(const std::string& archive, const std::string& mountPoint = "");

 private:
  ZulKestZorbaDearchiverContext m_context{};
  std::unique_ptr<uint8_t[]> m_work;  // scratch: left uninitialised
  std::vector<uint64_t> m_mountBuffer;
  ZulKestFH m_archive = 0;
  bool m_installed = false;
  int m_slot;
};

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_ARCHIVE_SESSION_H_
