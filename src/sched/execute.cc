// Chunk execution and root completion: see execute.h.

#include "sched/execute.h"

#include "core/handletable.h"
#include "core/records.h"
#include "debug/dump.h"
#include "debug/timeline.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"
#include "sched/chunk_types.h"
#include "sched/scheduler.h"
#include "sched/scheduler_event.h"

namespace kest2 {
namespace {

// The opened mark is read under the chunk lock by the readiness test.
void MarkOpened(uint32_t* mark) { __atomic_store_n(mark, 1u, __ATOMIC_RELEASE); }

// Drops a handle's pending-I/O count by one when it is above 0.
void DecrementPending(int32_t* pending, ChunkID id, const char* kind, const char* format) {
  int32_t current = __atomic_load_n(pending, __ATOMIC_ACQUIRE);
  while (current > 0) {
    if (__atomic_compare_exchange_n(pending, &current, current - 1, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      KEST2_TRACE(kTraceChunk, kind, format, static_cast<int>(id), current - 1);
      return;
    }
  }
}

void UpdateHandleBookkeeping(ChunkID id, const ChunkHeader* chunk) {
  const HandleRole role = ChunkTypeOf(chunk->type).role;
  if (role != HandleRole::kOpens && role != HandleRole::kUses) return;
  const HandleMarks marks = RecordHandleMarks(chunk);
  if (marks.opened == nullptr) return;
  if (role == HandleRole::kOpens) {
    MarkOpened(marks.opened);
  } else {
    DecrementPending(marks.pending, id, marks.tag, marks.decremented);
  }
}

// What the timeline shows of a chunk, read before it runs (its operation
// may be gone once a root has run).  begin is 0 when no timeline records.
struct ChunkSpan {
  int64_t begin = 0;
  uint32_t op = 0;
  int8_t priority = 0;
  ZulKestTime deadline = 0;
};

ChunkSpan BeginChunkSpan(ChunkID id) {
  ChunkSpan span;
  if (!TimelineRecording()) return span;
  {
    // Priority, deadline and links change under the chunk lock.
    ChunkLocker lock;
    const ChunkHeader* chunk = ChunkAt(id);
    span.priority = chunk->priority;
    span.deadline = chunk->deadline;
    // The operation is the root above the chunk's first parents.
    for (ChunkID at = id; at != CHUNKID_INVALID && at != GlobalRootChunk(); at = GetParent(at, 0)) {
      if (ChunkAt(at)->type == CHUNK_ROOT) {
        span.op = ChunkRecord<ChunkRootRecord>(at)->op;
        break;
      }
    }
  }
  span.begin = MonotonicNanoseconds();
  return span;
}

void EndChunkSpan(const ChunkSpan& span, ChunkID id, uint8_t type, int32_t result) {
  if (span.begin == 0) return;
  const char* name = type < kChunkTypeCount ? ChunkTypeOf(type).name : nullptr;
  TimelineNoteChunk(span.begin, id, name, span.op, span.priority, span.deadline, result);
}

}  // namespace

int32_t ExecuteBase(ChunkID id) {
  switch (ChunkAt(id)->type) {
    case CHUNK_NULL:
      return ZUL_KEST_OK;
    case CHUNK_ROOT:
      return CompleteRoot(id);
    case CHUNK_CALLBACK: {
      ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(id);
      return record->callback != nullptr ? record->callback(record, 1)
                                         : ZUL_KEST_ERROR_UNIMPLEMENTED;
    }
    default:
      return ZUL_KEST_ERROR_UNIMPLEMENTED;
  }
}

int32_t Execute(ChunkID id, ChunkRunner run) {
  ChunkHeader* chunk = ChunkAt(id);
  const uint16_t flags = LoadChunkFlags(chunk);
  const uint8_t type = chunk->type;
  char dump[kDumpBufferSize];
  int32_t result = ZUL_KEST_OK;
  if ((flags & kChunkCompleted) != 0) {
    if (TraceEnabled(kTraceChunk))
      TraceLine(kTraceChunk, "Execute", "completed: %s", DumpChunk(id, dump, sizeof(dump)));
  } else if ((flags & kChunkCancelled) != 0 && type != CHUNK_ROOT && type != CHUNK_CALLBACK &&
             type != CHUNK_FH_CLOSE) {
    // Roots still finish their operation, callbacks still run and files are
    // still closed; everything else of a cancelled tree is skipped.
    if (TraceEnabled(kTraceChunk))
      TraceLine(kTraceChunk, "Execute", "skipped/cancelled: %s", DumpChunk(id, dump, sizeof(dump)));
  } else {
    if (TraceEnabled(kTraceChunk))
      TraceLine(kTraceChunk, "Execute", "starting: %s", DumpChunk(id, dump, sizeof(dump)));
    const ChunkSpan span = BeginChunkSpan(id);
    {
      // The profiling event covers the handler call only: skipped chunks
      // ran nothing and report nothing.
      SchedulerEvent event(kEventExecute, id);
      result = run(id);
    }
    EndChunkSpan(span, id, type, result);
    if (TraceEnabled(kTraceChunk)) {
      TraceLine(kTraceChunk, "Execute", "finished: err=%d, %s", result,
                DumpChunk(id, dump, sizeof(dump)));
    }
  }
  UpdateHandleBookkeeping(id, chunk);
  return result;
}

namespace {

int32_t Unimplemented(ChunkID) { return ZUL_KEST_ERROR_UNIMPLEMENTED; }

ChunkRunner g_rootCompletion = Unimplemented;

}  // namespace

void SetRootCompletion(ChunkRunner complete) {
  __atomic_store_n(&g_rootCompletion, complete == nullptr ? Unimplemented : complete,
                   __ATOMIC_RELEASE);
}

int32_t CompleteRoot(ChunkID root) {
  return __atomic_load_n(&g_rootCompletion, __ATOMIC_ACQUIRE)(root);
}

}  // namespace kest2
