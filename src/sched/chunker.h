// The Chunker: turns an accepted operation into its chunk tree.
//
// Below a CHUNK_ROOT for the operation it builds the file-system steps in
// dependency order (a chunk's children run before it: a read by path is an
// open below a read below a close), lets the installed filters rewrite the
// tree, splits reads and writes into pieces of at most maxChunk bytes,
// stamps priority and deadline, and hangs the tree under the global root.
// A tree that needs no I/O is finished at once.
//
// Thread-safety: runs on the submitting thread.  The new tree is reachable
// from nowhere else until it is linked under the global root, which happens
// together with Prepare under the chunk lock and publishes the tree.
#ifndef KEST2_SRC_SCHED_CHUNKER_H_
#define KEST2_SRC_SCHED_CHUNKER_H_

#include <cstdint>

#include "core/records.h"
#include "sched/chunk.h"

namespace kest2 {

// The operation's tree, ready to schedule; or CHUNKID_INVALID, with
// *finishedNow set when the operation has already been completed (its tree
// needed no I/O), and otherwise with the operation's err set (or, when a
// filter answered the whole tree, holding the filter's result).
ChunkID CreateChunkTree(Operation* op, bool* finishedNow);

// The installed filters' pass over a new tree, handed down by initialisation
// (the filter chain stands above the engine): sets *filtered when any filter
// was offered the tree, and returns the root that goes on (CHUNKID_INVALID
// when a filter answered or absorbed the whole tree).
using TreeFilter = ChunkID (*)(ChunkID root, bool* filtered);
// Installs the pass; null means no filters (trees go on unfiltered).
void SetTreeFilter(TreeFilter filter);

// The unfiltered, unsplit tree of an operation; CHUNKID_INVALID with the
// operation's err set on failure.
ChunkID CreateInitialChunks(Operation* op);

// Splits every read and write of the tree larger than maxChunk; 0 or
// ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK.
int32_t ChunkTree(ChunkID id);

}  // namespace kest2

#endif  // KEST2_SRC_SCHED_CHUNKER_H_
