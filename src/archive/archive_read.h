// Reads of archived files: a read of a range of an archived file becomes a
// small chunk tree that reads the archive's blocks and inflates them.
//
// Up to four lanes (callback chunks) run per read.  A lane owns one block
// read at a time; when its block is in and inflated, it takes the next
// unread block from a shared counter and re-arms itself with a new read,
// until no block is left.  Compressed bytes (and a partial block's inflated
// bytes) pass through the three work buffers of the dearchiver context; a
// block read that finds no free buffer is held back by the scheduler (it
// answers busy) and retried once a buffer comes back.  A range stored raw
// becomes one plain read of the archive file.
//
// Thread-safety: a lane runs on the callback thread until its block is
// handed to the codec; the codec's thread that inflated the block carries
// the lane on (counts it, arms the next read or finishes the lane), and the
// callback thread wakes once per read, when its last lane is finished.  The
// lane's stage, the next-block counter and the actual count change
// atomically; the work buffers' busy mask changes under the dearchiver
// mutex.
#ifndef KEST2_SRC_ARCHIVE_ARCHIVE_READ_H_
#define KEST2_SRC_ARCHIVE_ARCHIVE_READ_H_

#include <cstdint>

#include "archive/archive_tracker.h"
#include "sched/chunk.h"

namespace kest2 {

// Builds the chunk that replaces a read of `length` bytes at `offset` of
// the entry's file into `destination`, adding the bytes delivered to
// *actCount.  *out is CHUNKID_INVALID when nothing needs reading (length
// 0).  Returns 0 or the error (BAD_ARCHIVE, BAD_OFFSET, EOF,
// DECOMPRESSION, CANT_ALLOCATE_CHUNK).
int32_t CreateReadChunksUnlocked(ZulKestZorbaDearchiverContext* context, ChunkID* out,
                                 ArchiveTracker* tracker, const uint8_t* entry, void* destination,
                                 int64_t offset, int64_t length, int64_t* actCount)
    REQUIRES(DearchiverMutex());

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_ARCHIVE_READ_H_
