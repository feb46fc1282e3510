// Listings of directories inside mounted archives: the children of a
// directory are found in the archives' sorted manifests, newest archive
// first, each name once.
#ifndef KEST2_SRC_ARCHIVE_ARCHIVE_DIRECTORY_H_
#define KEST2_SRC_ARCHIVE_ARCHIVE_DIRECTORY_H_

#include <cstdint>

#include "archive/archive_tracker.h"
#include "kest2.h"
#include "sched/chunk.h"

namespace kest2 {

// Fills the entry of a CHUNK_DH_READ on a directory handle bound to an
// archive: 0 with the next entry, ZUL_KEST_ERROR_EOF once every archive is
// listed (a bulk read takes no entries from archives).
int32_t ReadArchiveDirectory(ZulKestZorbaDearchiverContext* context, ChunkID read, bool bulk)
    REQUIRES(DearchiverMutex());

// With loose files, an archive listing goes on in the native directory of
// the same path.  The open of a bound listing is replaced by a native open
// below a callback that drops the native listing when the directory does
// not exist natively; once the archives are listed, a read is replaced by a
// native read below a callback that skips the names the archives hold.
// Both give 0 or CANT_ALLOCATE_CHUNK / CANT_ALLOCATE_DH with *replacement
// set.
int32_t BuildLooseOpen(ZulKestZorbaDearchiverContext* context, ChunkID open, ChunkID* replacement)
    REQUIRES(DearchiverMutex());
int32_t BuildLooseRead(ZulKestZorbaDearchiverContext* context, ChunkID read, ChunkID* replacement)
    REQUIRES(DearchiverMutex());
// The native listing behind a bound handle, 0 when none.
uint32_t LooseListing(uint32_t dh);

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_ARCHIVE_DIRECTORY_H_
