// Handing an operation to the engine, and taking it back: acceptance,
// cancellation and rescheduling.
//
// Accept builds the operation's chunk tree and schedules it; the operation
// then completes on the engine's threads (or at once, when the tree needs no
// I/O).  The root chunk id is published in the operation only once the tree
// is scheduled, so a cancel that races the acceptance marks the operation
// without walking a half-scheduled tree.
//
// Cancel and reschedule walk a live tree from outside the engine; they pin
// its root first so that the tree cannot be freed under them (the thread
// that runs the root leaves the freeing to the last unpin).

#include <cstring>

#include "api/operation.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/dump.h"
#include "debug/timeline.h"
#include "debug/trace.h"
#include "io/overlay_table.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "sched/chunker.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

Operation* LiveOp(uint32_t handle) { return Lookup<Operation>(kOpTable, handle); }

// Pins the root of a live, unfinished operation whose tree is scheduled;
// CHUNKID_INVALID when there is none (no tree yet, or it has run).
ChunkID PinUnfinishedRoot(const Operation* op) REQUIRES(g_locks.chunk) {
  if (OpFinished(op)) return CHUNKID_INVALID;
  const ChunkID root = static_cast<ChunkID>(op->rootChunk);
  if (op->rootChunk < 0 || !PinRoot(root, op->h)) return CHUNKID_INVALID;
  return root;
}

}  // namespace

uint32_t OpAccept(Operation* op) {
  if (TraceEnabled(kTraceOp)) {
    char dump[kDumpBufferSize];
    TraceLine(kTraceOp, "Accept", "%s", zulKestDebugDumpOp(op->h, dump, sizeof(dump)));
  }
  if (TimelineRecording()) TimelineNoteAccept(op->h);
  op->err = ZUL_KEST_OK;
  op->done = 0;
  const uint32_t opflags = op->attr.opflags;
  if (opflags > ZUL_KEST_OPFLAGS_VALID_MASK) return OpFail(op, ZUL_KEST_ERROR_BAD_FLAGS);

  bool finishedNow = false;
  const ChunkID root = CreateChunkTree(op, &finishedNow);
  if (root != CHUNKID_INVALID) {
    const uint32_t handle = op->h;
    ScheduleTree(root, opflags, (opflags & ZUL_KEST_OPFLAG_FAST_PATH) != 0);
    // The tree may have run to the end on this thread, and the operation
    // been deleted by its callback; publish the root only while it has not
    // started to run (the operation cannot be finished before).
    ChunkLocker lock;
    if (PinRoot(root, handle)) {
      op->rootChunk = static_cast<int16_t>(root);
      UnpinRoot(root);
    }
    return handle;
  }
  if (finishedNow) return op->h;
  const int32_t err = __atomic_load_n(&op->err, __ATOMIC_ACQUIRE);
  return err != ZUL_KEST_OK ? OpFail(op, err) : OpCompleteOk(op);
}

uint32_t OpAcceptWithPath(Operation* op, const char* path, bool forWrite) {
  if (path == nullptr || path[0] == '\0') return OpFail(op, ZUL_KEST_ERROR_BAD_PATH);
  if (!SetPath(&op->path, path, true)) return OpFail(op, ZUL_KEST_ERROR_PATH_TOO_LONG);
  // The second path of a rename or mount is copied for the duration of this
  // call; the Chunker keeps its own copy in the tree.
  char second[kDefaultPathMax + 2];
  const bool hasSecond = op->what == OP_RENAME || op->what == OP_ARCHIVE_MOUNT;
  if (hasSecond) {
    const char* source = reinterpret_cast<const char*>(op->arg);
    const uint32_t pathMax = PathMax();
    const size_t length = source != nullptr ? strnlen(source, pathMax) : 0;
    if (length == 0) return OpFail(op, ZUL_KEST_ERROR_BAD_PATH);
    if (length >= pathMax) return OpFail(op, ZUL_KEST_ERROR_PATH_TOO_LONG);
    std::memcpy(second, source, length);
    second[length] = '\0';
    op->arg = static_cast<int64_t>(reinterpret_cast<uintptr_t>(second));
  }
  // Listings merge the overlay layers themselves; every other request works
  // on the path the overlays resolve it to.
  int32_t overlays = 0;
  if (op->what != OP_DH_OPEN && OverlaysInstalled() &&
      OverlayGetList(kThisProcess, 0, 255, nullptr, 0, &overlays) == ZUL_KEST_OK && overlays > 0) {
    char resolved[kDefaultPathMax];
    const uint32_t pathMax = PathMax();
    int32_t result = OverlayResolveSync(kThisProcess, forWrite ? 1 : 0, GetPath(&op->path), resolved, pathMax, 0, 127);
    if (result != ZUL_KEST_OK) return OpFail(op, result);
    if (!SetPath(&op->path, resolved, true)) return OpFail(op, ZUL_KEST_ERROR_PATH_TOO_LONG);
    if (hasSecond) {
      char secondResolved[kDefaultPathMax];
      result = OverlayResolveSync(kThisProcess, op->what == OP_RENAME ? 1 : 0, second, secondResolved, pathMax, 0, 127);
      if (result != ZUL_KEST_OK) return OpFail(op, result);
      std::memcpy(second, secondResolved, std::strlen(secondResolved) + 1);
    }
  }
  return OpAccept(op);
}

}  // namespace kest2

using namespace kest2;

extern "C" void zulKestOpCancel(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpCancel");
  Operation* op = LiveOp(handle);
  if (op == nullptr) return;
  ChunkID root;
  {
    ChunkLocker lock;
    if (OpFinished(op)) return;
    root = PinUnfinishedRoot(op);
    // A root that has started to run is delivering the result: too late.
    if (root == CHUNKID_INVALID && op->rootChunk >= 0) return;
    __atomic_store_n(&op->err, ZUL_KEST_ERROR_CANCELLED, __ATOMIC_RELEASE);
    __atomic_or_fetch(&op->internalFlags, kOpCancelled, __ATOMIC_ACQ_REL);
  }
  if (root == CHUNKID_INVALID) return;
  UnscheduleTree(root, true);
  UnpinRoot(root);
}

extern "C" void zulKestOpRescheduleWithPriority(ZulKestOp handle, ZulKestTime deadline,
                                                int8_t priority) {
  KEST2_TRACE_API("zulKestOpRescheduleWithPriority");
  Operation* op = LiveOp(handle);
  if (op == nullptr || op->attr.deadline == deadline) return;
  ChunkID root;
  {
    ChunkLocker lock;
    root = PinUnfinishedRoot(op);
  }
  if (root == CHUNKID_INVALID) return;
  UnscheduleTree(root, false);
  RescheduleChunk(root, deadline, priority, CHUNKID_INVALID);
  ScheduleTree(root, 0, false);
  UnpinRoot(root);
}

extern "C" void zulKestOpReschedule(ZulKestOp handle, ZulKestTime deadline) {
  KEST2_TRACE_API("zulKestOpReschedule");
  const Operation* op = LiveOp(handle);
  if (op == nullptr) return;
  zulKestOpRescheduleWithPriority(handle, deadline, op->attr.priority);
}
