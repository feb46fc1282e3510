// The chunk tree: chunk storage, links between chunks, readiness,
// preparation, completion and error propagation.
//
// Every operation is carried out as a tree of chunks under a root chunk; a
// chunk may run only once all its children have completed, so the tree
// encodes both the split of the work and the order of its steps.  All
// operation roots hang below one global root (a CHUNK_NULL chunk allocated at
// start-up), so chunk storage holds one forest under a single node.
//
// Links: a chunk has one inline parent slot and two inline child slots.  A
// second parent moves the parent slot into a CHUNK_PARENT overflow record (4
// slots, slot 0 chaining to a further record); a third child moves child1
// into a CHUNK_CHILD overflow record (its own child0/child1 plus 8 slots,
// slot 7 chaining to a further record).  Children enumerate in insertion
// order; parents do too until a parent record fills up, when its slot-0
// parent moves on into the next record and is enumerated after the full
// record's others.  Removal keeps both lists dense.
//
// Thread-safety: every function here that reads or changes links, flags,
// priority or deadline takes the chunk lock ("ZulKestChunk") itself.  The
// lock is recursive, so code that already holds it (the engine, filters)
// calls the same functions.  Allocation from the pool is lock-free.
#ifndef KEST2_SRC_SCHED_CHUNK_TREE_H_
#define KEST2_SRC_SCHED_CHUNK_TREE_H_

#include <cstddef>
#include <cstdint>

#include "core/globals.h"
#include "core/pool.h"
#include "core/thread_annotations.h"
#include "sched/chunk.h"

namespace kest2 {

constexpr uint32_t kChunkUnitSize = 16;
constexpr uint32_t kChunkMaxUnits = 65536;

// Sets up the pool over the caller's storage (the pool's errors for
// misaligned, null, too small or too large storage), then allocates the
// global root; ZUL_KEST_ERROR_BAD_SIZE when it does not fit.
int32_t InitializeChunkStorage(void* storage, uint64_t size);
// Frees the global root, tears the pool down (with its leak warning) and
// traces the high-water mark under "chunk".  Does nothing when chunk storage
// is not set up.
void TerminateChunkStorage();

ChunkID GlobalRootChunk();
// The chunk pool; set up by InitializeChunkStorage, read-only until
// TerminateChunkStorage.  Visible here so that ChunkAt, which every link
// walk calls at each step, inlines in every file.
extern Pool g_chunkPool;
inline Pool* ChunkPool() { return &g_chunkPool; }

// The record of a chunk (no checks).
inline ChunkHeader* ChunkAt(ChunkID id) {
  return reinterpret_cast<ChunkHeader*>(PoolUnitAddress(&g_chunkPool, id));
}
template <typename T>
T* ChunkRecord(ChunkID id) {
  return reinterpret_cast<T*>(ChunkAt(id));
}
// The id of a chunk record (the inverse of ChunkAt), for callbacks that are
// handed their record.
ChunkID ChunkIdOf(const void* record);
// True when id names an allocated chunk with its live mark.
bool ChunkIsLive(ChunkID id);

// REQUIRES for the rest: chunk storage is set up (ids are CHUNKID_INVALID
// otherwise).  Functions given CHUNKID_INVALID do nothing and answer
// CHUNKID_INVALID, false or null.

// Allocates a zeroed chunk of size bytes ((size + 15) / 16 units, never less
// than the type's footprint) with empty link slots; CHUNKID_INVALID when
// storage is exhausted or the type is unknown.  A CHUNK_BUFFER records the
// bytes beyond its footprint as its data size; other types must not ask for
// more than their footprint, which is all DeallocateChunk returns.  The
// second form uses the type's footprint.
ChunkID AllocateChunk(uint8_t type, uint32_t size);
ChunkID AllocateChunk(uint8_t type);
// Returns the chunk's units; does not touch links.  An id that does not
// name a live chunk is ignored.
void DeallocateChunk(ChunkID id);
// Allocates a chunk and links it under parent; frees it again when the link
// fails.
ChunkID AllocateChildChunk(ChunkID parent, uint8_t type);
// A CHUNK_CALLBACK chunk that will call function with context, or
// CHUNKID_INVALID when chunk storage is exhausted.
ChunkID AllocateCallbackChunk(ChunkCallbackFunction function, void* context);
// A CHUNK_BUFFER of dataSize bytes under parent, born scheduled and
// completed (it never runs).  Returns its data, or null.
void* AllocateBufferChunk(ChunkID parent, uint64_t dataSize);

// Appends child to parent's children and parent to child's parents; false
// (and nothing changed) when an overflow record cannot be had.
bool LinkChunks(ChunkID parent, ChunkID child);
// Removes the link both ways; frees only emptied overflow records.
void UnlinkChunks(ChunkID parent, ChunkID child);
// Moves every parent and child link of oldChunk to newChunk (each as an
// unlink, then a link appended at the end of the list); oldChunk stays
// allocated and unlinked.  A link that cannot be had for want of storage is
// dropped.
void ReplaceChunk(ChunkID oldChunk, ChunkID newChunk);
// Unlinks the chunk from its parents, releases its children (a child with
// another parent left is kept) and frees it.
void DeallocateTree(ChunkID id);

// Pins an operation's root so that its tree stays allocated while a thread
// outside the engine (cancel, reschedule) walks it.  False, and nothing
// pinned, when root is not that operation's root or has started to run
// (its operation is then being completed).
bool PinRoot(ChunkID root, uint32_t opHandle);
void UnpinRoot(ChunkID root);
// Frees the tree of a root that has run, or leaves that to its last unpin.
void ReleaseFinishedRoot(ChunkID root);

// The n-th parent / child in enumeration order, CHUNKID_INVALID past the end.
ChunkID GetParent(ChunkID id, uint32_t n);
ChunkID GetChild(ChunkID id, uint32_t n);
// The first `max` children in enumeration order, read under one hold of the
// chunk lock; returns how many were written.
uint32_t GetChildren(ChunkID id, ChunkID* out, uint32_t max);
// How many children have not completed, counting no further than `limit`.
uint32_t CountChildrenNotCompleted(ChunkID id, uint32_t limit);
// The file or directory handle a chunk works on, 0 when none.
uint32_t GetChunkHandle(ChunkID id);
// The path a chunk works on, null when none.
const StoredPath* GetChunkPath(ChunkID id);

bool AllChildrenCompleted(ChunkID id);
// The readiness test: true when the chunk may run now (scheduled or forced,
// every child completed, its handle open and, for a close, no I/O pending).
bool DeferChunk(ChunkID id, bool force);
// Stamps priority and deadline on every unprepared chunk of the subtree and
// counts pending I/O on the handles.
void PrepareChunk(ChunkID id, int8_t priority, ZulKestTime deadline);
// Re-derives deadline and priority of the subtree from its parents.
void RescheduleChunk(ChunkID id, ZulKestTime deadline, int8_t priority, ChunkID excluded);
// A CHUNK_CALLBACK chunk's callback probed with event 0 answers busy.
bool CallbackWouldBeBusy(ChunkID id);
// A CHUNK_CALLBACK chunk marked kCallbackKicksItself.
bool CallbackKicksItself(ChunkID id);
// The parents a completion left with every child completed, whose
// scheduler has been chosen: `places` has bit i for the i-th scheduler of
// the list, `ids` names the first kReadyParentIds of them, and `count`
// counts them all.
constexpr uint32_t kReadyParentIds = 4;
struct ReadyParents {
  uint32_t places = 0;
  uint32_t count = 0;
  ChunkID ids[kReadyParentIds] = {};

  bool AllNamed() const { return count <= kReadyParentIds; }
};

// Marks the chunk completed (propagating a non-zero error); true when it is
// a CHUNK_ROOT.  With ready, gathers the parents this completion made
// ready: the schedulers that have work now.  A parent that kicks its
// scheduler itself and still says busy is left out.
bool CompleteChunk(ChunkID id, int32_t error, ReadyParents* ready = nullptr);
// Records error in every CHUNK_CALLBACK and operation above the chunk where
// none is recorded yet (or always, when forced).
void PropagateChunkError(ChunkID id, int32_t error, bool force);

// "chunk 12:{ type:CHUNK_FH_READ, ... }".
char* DumpChunk(ChunkID id, char* buffer, size_t size);

// Scoped hold of the chunk lock.  The lock is recursive, so the locker
// asserts it for the analysis rather than acquiring it (see
// core/thread_annotations.h).
class ChunkLocker {
 public:
  ChunkLocker() ASSERT_CAPABILITY(g_locks.chunk);
  ~ChunkLocker();
  ChunkLocker(const ChunkLocker&) = delete;
  ChunkLocker& operator=(const ChunkLocker&) = delete;

 private:
  bool m_held;
};

// While an active one exists, the calling thread works only on a tree that
// no other thread can reach yet (built and not yet linked under the global
// root), so the chunk functions it calls skip the chunk lock; nothing in
// the scope may reach other trees or call out.  Linking the tree under the
// global root, with the lock, publishes it.
class PrivateTreeScope {
 public:
  explicit PrivateTreeScope(bool active);
  ~PrivateTreeScope();
  PrivateTreeScope(const PrivateTreeScope&) = delete;
  PrivateTreeScope& operator=(const PrivateTreeScope&) = delete;

 private:
  bool m_active;
};

}  // namespace kest2

#endif  // KEST2_SRC_SCHED_CHUNK_TREE_H_
