// Listings of directories inside mounted archives: the children of a
// directory are found in the archives' sorted manifests, newest archive
// first, each name once.
#ifndef KEST2_SRC_ARCHIVE_ARCHIVE_DIRECTORY_H_
#define KEST2_SRC_ARCHIVE_ARCHIVE_DIRECTORY_H_

#include <cstdint>

#include "kest2.h"
#include "sched/chunk.h"

namespace kest2 {

// Fills the entry of a CHUNK_DH_READ on a directory handle bound to an
// archive: 0 with the next entry, ZUL_KEST_ERROR_EOF at the end (a bulk
// read takes no entries from archives).  REQUIRES: dearchiver mutex held.
int32_t ReadArchiveDirectory(ZulKestZorbaDearchiverContext* context, ChunkID read, bool bulk);

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_ARCHIVE_DIRECTORY_H_
