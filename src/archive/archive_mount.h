// Mounting, querying and unmounting archives.
//
// A mount (or a query of the mount buffer an archive needs) is a chain of
// chunks, each running after the one below it: open the archive file,
// stat it (mount), read the header, check it and read the TOC, check the
// TOC and read the manifest (mount), index the manifest and publish the
// archive.  A query ends by closing the archive file; a mount that fails
// closes it too.
#ifndef KEST2_SRC_ARCHIVE_ARCHIVE_MOUNT_H_
#define KEST2_SRC_ARCHIVE_ARCHIVE_MOUNT_H_

#include <cstdint>

#include "archive/archive_tracker.h"
#include "kest2.h"
#include "sched/chunk.h"

namespace kest2 {

// Replaces a CHUNK_ARCHIVE_MOUNT or CHUNK_ARCHIVE_QUERY by its chain;
// *replacement is the chain's top.  0 or CANT_ALLOCATE_CHUNK.
int32_t BuildMountChain(ZulKestZorbaDearchiverContext* context, ChunkID chunk,
                        ChunkID* replacement);

// Takes the archive whose file handle is h out of the list and gives the
// CHUNK_FH_CLOSE that replaces the unmount; BAD_FH when h is not a mounted
// archive's handle.
int32_t UnmountArchive(ZulKestZorbaDearchiverContext* context, uint32_t h, ChunkID* replacement)
    REQUIRES(DearchiverMutex());

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_ARCHIVE_MOUNT_H_
