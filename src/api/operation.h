// The operation object: one request's arguments, attributes, result and
// completion state, kept in the operation table and named by its handle.
//
// Life: Create (allocated, attributes set) -> the request fills it and hands
// it to the engine -> completion (Fail, CompleteOk or the engine) runs the
// callback with ZUL_KEST_EVENT_COMPLETE, sets `done` and wakes every waiter
// -> the caller deletes it (callback with ZUL_KEST_EVENT_DELETE, handle
// released).
//
// Thread-safety: callers may use an operation from any thread.  All waits
// share the "ZulKestOpWait" mutex and condition; a completion or deletion
// broadcasts when a thread waits for that operation, and each waiter
// re-tests its own operation.  A waiter counts itself in and tests `done`
// under the mutex, and a completion sets `done` and looks for waiters
// under it, so neither misses the other; `done` is also read without the
// mutex by waiters that watch for it before they sleep.
// Deletion waits, under the mutex, until no thread is inside a wait on the
// operation, so a waiter never reads a released (and perhaps reused) unit.
#ifndef KEST2_SRC_API_OPERATION_H_
#define KEST2_SRC_API_OPERATION_H_

#include <cstdint>

#include "core/records.h"
#include "kest2.h"
#include "sched/chunk.h"

namespace kest2 {

// A new operation of the given type with the caller's attributes (copied
// whole) or, when attr is null, the calling thread's effective defaults.
// Null when the global locks do not exist or the table is full.
Operation* OpCreate(const ZulKestOpAttr* attr, uint16_t type);

// Hands a filled operation to the engine: builds its chunk tree and
// schedules it, or completes it at once (bad flags, no I/O needed, no chunk
// storage).  Returns the handle.
uint32_t OpAccept(Operation* op);
// Stores the request's path (and copies a rename's or mount's second path
// from arg for the duration of the call), then accepts.  Path errors
// complete the operation with ZUL_KEST_ERROR_BAD_PATH or
// ZUL_KEST_ERROR_PATH_TOO_LONG.
uint32_t OpAcceptWithPath(Operation* op, const char* path, bool forWrite);

// Completes the operation with an error or with success.  Both return the
// handle.  A handle private to the request goes either way; a handle the
// request created for the caller goes when it failed.
uint32_t OpFail(Operation* op, int32_t code);
uint32_t OpCompleteOk(Operation* op);

// Releases a file or directory handle from whichever table holds it, first
// closing a descriptor or listing still open on it; a handle no longer live
// is left alone.
void CloseAndReleaseHandle(uint32_t handle);

// Runs the callback for event, marks the operation done and wakes waiters.
uint32_t OpNotify(Operation* op, ZulKestOpEvent event);

// True when the operation is done, or its callback runs on this thread.
bool OpFinished(const Operation* op);

// Blocks until the operation is finished; returns its error.
// REQUIRES: op is live.
int32_t OpWait(Operation* op);
// As OpWait, but gives up at deadline with ZUL_KEST_ERROR_TIMEOUT.
int32_t OpWaitUntil(Operation* op, ZulKestTime deadline);

// Deletes a finished operation (once): DELETE callback, then the handle is
// released when no thread waits on it any more.
void OpDelete(Operation* op);

// Finishes the operation of a root chunk that has run: moves the file
// handle's size and position, releases the handles the operation owned and
// completes it (callback, waiters).  Always 0.  The engine calls it through
// SetRootCompletion.
int32_t CompleteOperation(ChunkID root);

// The sum of the lengths of all eight buffers.
int64_t OpRequestCount(const Operation* op);

}  // namespace kest2

#endif  // KEST2_SRC_API_OPERATION_H_
