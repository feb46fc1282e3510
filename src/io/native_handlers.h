// The bottom of the filter stack: runs one chunk against the native file
// system.
//
// Every chunk that no filter served is executed by looking its type up in a
// table of handlers, one per chunk type.  A handler reads its arguments from
// the chunk's payload, makes one or two native calls (io/native_fs.h), maps
// the outcome with MapNativeError, updates the file handle it works on,
// reports each call to the profiling hook and writes its "io" trace lines.
// Chunk types that belong to other layers (the root's completion, the
// directory-handle chunks of the overlaid listing) are reached through
// function pointers those layers install; until then they answer
// ZUL_KEST_ERROR_UNIMPLEMENTED.
//
// Thread-safety: handlers run on the I/O threads, several at once, also for
// one file handle: transfers are positional, the handle's recorded size only
// grows through an atomic maximum, and byte counts are added atomically.
// The chunk tree orders open, truncate and close after or before the
// transfers of their handle.  The installable pointers are read and written
// atomically.
#ifndef KEST2_SRC_IO_NATIVE_HANDLERS_H_
#define KEST2_SRC_IO_NATIVE_HANDLERS_H_

#include <cstdint>

#include "sched/chunk.h"

namespace kest2 {

using NativeHandler = int32_t (*)(ChunkID chunk);

// Runs the handler of the chunk's type and returns its result code:
// 0 or a ZUL_KEST_ERROR_* code (never a kernel code).  Unknown types and
// the types served elsewhere (null, parent, child, buffer, bulk directory
// read, prefetch, archive chunks) answer ZUL_KEST_ERROR_UNIMPLEMENTED;
// CHUNKID_INVALID answers ZUL_KEST_ERROR_BAD_ARGUMENT.
int32_t ExecuteNative(ChunkID chunk);

// Installs the handlers of CHUNK_DH_OPEN, CHUNK_DH_READ and CHUNK_DH_CLOSE
// (the overlaid directory listing).  A null pointer restores the default,
// which answers ZUL_KEST_ERROR_UNIMPLEMENTED.
void SetDirectoryHandlers(NativeHandler open, NativeHandler read, NativeHandler close);

}  // namespace kest2

#endif  // KEST2_SRC_IO_NATIVE_HANDLERS_H_
