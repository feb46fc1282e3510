// Chunk execution: the one place where a chunk's work is done.  A scheduler
// thread (or a caller on the fast path) hands Execute a chunk and a handler
// table; Execute runs the handler for the chunk's type and keeps the handles'
// bookkeeping (opened marks, pending-I/O counts) straight.  Also the base
// handler table of the callback scheduler, whose CHUNK_ROOT handler finishes
// an operation.
//
// Thread-safety: Execute runs concurrently for different chunks and holds no
// engine lock while a handler runs.
#ifndef KEST2_SRC_SCHED_EXECUTE_H_
#define KEST2_SRC_SCHED_EXECUTE_H_

#include <cstdint>

#include "sched/chunk.h"

namespace kest2 {

// A handler table, as one function: runs one chunk by its type and answers
// 0, an error code, or ZUL_KEST_ERROR_RETRY when the chunk is busy and must
// run again later.  The I/O schedulers use the native layer's
// (ExecuteNative), the callback scheduler ExecuteBase.
using ChunkRunner = int32_t (*)(ChunkID id);

// Runs the chunk through run unless it has completed (or was cancelled and
// is not a root, callback or close), then updates its handle's bookkeeping.
int32_t Execute(ChunkID id, ChunkRunner run);

// The callback scheduler's handlers: CHUNK_NULL succeeds, CHUNK_ROOT
// finishes the operation, CHUNK_CALLBACK calls its callback, the rest are
// unimplemented there.
int32_t ExecuteBase(ChunkID id);

// Installs what finishes an operation when its root chunk runs: the
// operation layer's completion, handed down at initialisation (the engine
// below it only knows that the tree is done).  Null restores the default,
// which answers ZUL_KEST_ERROR_UNIMPLEMENTED.
void SetRootCompletion(ChunkRunner complete);
// Runs the installed completion for the root's operation.
int32_t CompleteRoot(ChunkID root);

}  // namespace kest2

#endif  // KEST2_SRC_SCHED_EXECUTE_H_
