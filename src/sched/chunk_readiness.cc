// Readiness: preparation and rescheduling of a tree's priority and
// deadline, the test that a chunk may run (Defer), completion with error
// propagation, and the pins that keep a finished root's tree alive.

#include "core/records.h"
#include "debug/trace.h"
#include "sched/chunk_cursors.h"
#include "sched/chunk_tree.h"
#include "sched/chunk_types.h"

namespace kest2 {
namespace {

constexpr int64_t kPieceSize = 65536;

bool AllChildrenCompletedLocked(ChunkID id) REQUIRES(g_locks.chunk) {
  ChildCursor cursor(id);
  for (ChunkID child = cursor.NextChild(); child != CHUNKID_INVALID; child = cursor.NextChild()) {
    if ((LoadChunkFlags(ChunkAt(child)) & kChunkCompleted) == 0) return false;
  }
  return true;
}

// 64 KiB pieces of a transfer, rounded up, at least one.
uint32_t PieceCount(int64_t reqCount) {
  if (reqCount <= 0) return 1;
  const int64_t pieces = reqCount / kPieceSize + (reqCount % kPieceSize != 0 ? 1 : 0);
  return pieces > 0xFFFFFFFFll ? 0xFFFFFFFFu : static_cast<uint32_t>(pieces);
}

void PrepareLocked(ChunkID id, int8_t priority, ZulKestTime deadline) REQUIRES(g_locks.chunk) {
  ChunkHeader* chunk = ChunkAt(id);
  if ((LoadChunkFlags(chunk) & kChunkPrepared) != 0) return;
  chunk->priority = priority;
  chunk->deadline = deadline;
  StoreChunkFlags(
      chunk, static_cast<uint16_t>((LoadChunkFlags(chunk) | kChunkPrepared) & ~kChunkPositioned));
  chunk->pieceCount = 1;
  if (chunk->type == CHUNK_FH_READ || chunk->type == CHUNK_FH_WRITE) {
    StoreChunkFlags(chunk, LoadChunkFlags(chunk) | kChunkPositioned);
    chunk->pieceCount = PieceCount(ChunkRecord<ChunkFhIoRecord>(id)->reqCount);
  }
  // A chunk already completed (answered by a filter) never executes, so it
  // must not hold back its handle's close.
  if ((LoadChunkFlags(chunk) & kChunkCompleted) == 0 &&
      ChunkTypeOf(chunk->type).role == HandleRole::kUses) {
    const HandleMarks marks = RecordHandleMarks(chunk);
    if (marks.pending != nullptr) {
      const int32_t pending = __atomic_add_fetch(marks.pending, 1, __ATOMIC_ACQ_REL);
      KEST2_TRACE(kTraceChunk, marks.tag, "Chunk %d incremented m_pendingIO = %d", id, pending);
    }
  }
  ChildCursor cursor(id);
  for (ChunkID child = cursor.NextChild(); child != CHUNKID_INVALID; child = cursor.NextChild())
    PrepareLocked(child, priority, deadline);
}

void RescheduleLocked(ChunkID id, ZulKestTime deadline, int8_t priority, ChunkID excluded)
    REQUIRES(g_locks.chunk) {
  ChunkHeader* chunk = ChunkAt(id);
  if ((LoadChunkFlags(chunk) & kChunkCompleted) == 0) {
    ZulKestTime effectiveDeadline = deadline;
    int8_t effectivePriority = priority;
    ParentCursor parents(id);
    for (ChunkID parent = parents.Next(); parent != CHUNKID_INVALID; parent = parents.Next()) {
      if (parent == GlobalRootChunk() || parent == excluded) continue;
      const ChunkHeader* above = ChunkAt(parent);
      effectiveDeadline = above->deadline < deadline ? above->deadline : deadline;
      effectivePriority = above->priority > priority ? above->priority : priority;
    }
    chunk->deadline = effectiveDeadline;
    chunk->priority = effectivePriority;
  }
  ChildCursor cursor(id);
  for (ChunkID child = cursor.NextChild(); child != CHUNKID_INVALID; child = cursor.NextChild())
    RescheduleLocked(child, deadline, priority, excluded);
}

void PropagateErrorLocked(ChunkID id, int32_t error, bool force) REQUIRES(g_locks.chunk) {
  ParentCursor parents(id);
  for (ChunkID parent = parents.Next(); parent != CHUNKID_INVALID; parent = parents.Next()) {
    ChunkHeader* above = ChunkAt(parent);
    if (above->type == CHUNK_CALLBACK) {
      ChunkCallbackRecord* callback = ChunkRecord<ChunkCallbackRecord>(parent);
      if (force || callback->error == 0) callback->error = error;
    } else if (above->type == CHUNK_ROOT) {
      const uint32_t handle = ChunkRecord<ChunkRootRecord>(parent)->op;
      Operation* op = handle != 0 ? Lookup<Operation>(kOpTable, handle) : nullptr;
      if (op != nullptr && (force || __atomic_load_n(&op->err, __ATOMIC_ACQUIRE) == 0))
        __atomic_store_n(&op->err, error, __ATOMIC_RELEASE);
    }
    PropagateErrorLocked(parent, error, force);
  }
}

}  // namespace

bool AllChildrenCompleted(ChunkID id) {
  if (id == CHUNKID_INVALID) return false;
  ChunkLocker lock;
  return AllChildrenCompletedLocked(id);
}

namespace {

// The handle part of the readiness test: the handle's open has executed
// and, for a close, no prepared I/O is still outstanding on it.  An unknown
// handle never holds a chunk back (the caller checks that).
bool HandleAllowsRun(ChunkID id, const uint32_t* opened, const int32_t* pending, bool isClose,
                     const char* kind) {
  if (__atomic_load_n(opened, __ATOMIC_ACQUIRE) == 0) {
    KEST2_TRACE(kTraceChunk, "Defer", "%s not open yet: %s", kind, DumpChunk(id, nullptr, 0));
    return false;
  }
  if (isClose) {
    const int32_t outstanding = __atomic_load_n(pending, __ATOMIC_ACQUIRE);
    if (outstanding > 0) {
      KEST2_TRACE(kTraceChunk, "Defer", "%d pending I/Os: %s", outstanding,
                  DumpChunk(id, nullptr, 0));
      return false;
    }
  }
  return true;
}

}  // namespace

bool DeferChunk(ChunkID id, bool force) {
  if (id == CHUNKID_INVALID) return false;
  ChunkLocker lock;
  const ChunkHeader* chunk = ChunkAt(id);
  if ((LoadChunkFlags(chunk) & kChunkScheduled) == 0 && !force) return false;
  if (!AllChildrenCompletedLocked(id)) return false;
  const HandleRole role = ChunkTypeOf(chunk->type).role;
  if (role != HandleRole::kUses && role != HandleRole::kCloses) return true;
  const HandleMarks marks = RecordHandleMarks(chunk);
  return marks.opened == nullptr ||
         HandleAllowsRun(id, marks.opened, marks.pending, role == HandleRole::kCloses, marks.kind);
}

void PrepareChunk(ChunkID id, int8_t priority, ZulKestTime deadline) {
  if (id == CHUNKID_INVALID) return;
  ChunkLocker lock;
  PrepareLocked(id, priority, deadline);
}

void RescheduleChunk(ChunkID id, ZulKestTime deadline, int8_t priority, ChunkID excluded) {
  if (id == CHUNKID_INVALID) return;
  ChunkLocker lock;
  RescheduleLocked(id, deadline, priority, excluded);
}

bool CallbackWouldBeBusy(ChunkID id) {
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(id);
  return record->callback != nullptr && record->callback(record, 0) == ZUL_KEST_ERROR_RETRY;
}

bool CallbackKicksItself(ChunkID id) {
  return ChunkAt(id)->type == CHUNK_CALLBACK &&
         (ChunkRecord<ChunkCallbackRecord>(id)->options & kCallbackKicksItself) != 0;
}

bool CompleteChunk(ChunkID id, int32_t error, ReadyParents* ready) {
  if (id == CHUNKID_INVALID) return false;
  ChunkLocker lock;
  KEST2_TRACE(kTraceChunk, "Complete", "%s", DumpChunk(id, nullptr, 0));
  ChunkHeader* chunk = ChunkAt(id);
  StoreChunkFlags(
      chunk, static_cast<uint16_t>((LoadChunkFlags(chunk) | kChunkCompleted) & ~kChunkExecuting));
  if (error != 0) PropagateErrorLocked(id, error, false);
  if (ready != nullptr) {
    // Decided under the lock that marks the chunk completed, so of two
    // children finishing together exactly the last one sees its parent
    // ready.  A parent without a chosen scheduler is not queued yet; its
    // own queueing wakes a thread for it.
    ParentCursor parents(id);
    for (ChunkID parent = parents.Next(); parent != CHUNKID_INVALID; parent = parents.Next()) {
      if (parent == GlobalRootChunk()) continue;
      const int place =
          (LoadChunkFlags(ChunkAt(parent)) & kChunkSchedulerIndexMask) >> kChunkSchedulerIndexShift;
      if (place != 0 && AllChildrenCompletedLocked(parent) &&
          !(CallbackKicksItself(parent) && CallbackWouldBeBusy(parent))) {
        ready->places |= 1u << (place - 1);
        if (ready->count < kReadyParentIds) ready->ids[ready->count] = parent;
        ++ready->count;
      }
    }
  }
  return chunk->type == CHUNK_ROOT;
}

void PropagateChunkError(ChunkID id, int32_t error, bool force) {
  if (id == CHUNKID_INVALID) return;
  ChunkLocker lock;
  PropagateErrorLocked(id, error, force);
}

bool PinRoot(ChunkID root, uint32_t opHandle) {
  ChunkLocker lock;
  if (!ChunkIsLive(root)) return false;
  ChunkRootRecord* record = ChunkRecord<ChunkRootRecord>(root);
  if (record->header.type != CHUNK_ROOT || record->op != opHandle ||
      (LoadChunkFlags(&record->header) & (kChunkExecuting | kChunkCompleted)) != 0) {
    return false;
  }
  ++record->pins;
  return true;
}

void UnpinRoot(ChunkID root) {
  ChunkLocker lock;
  ChunkRootRecord* record = ChunkRecord<ChunkRootRecord>(root);
  if (--record->pins == 0 && record->freeWhenUnpinned != 0) DeallocateTree(root);
}

void ReleaseFinishedRoot(ChunkID root) {
  ChunkLocker lock;
  ChunkRootRecord* record = ChunkRecord<ChunkRootRecord>(root);
  if (record->pins != 0) {
    record->freeWhenUnpinned = 1;
  } else {
    DeallocateTree(root);
  }
}

}  // namespace kest2
