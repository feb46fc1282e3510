// The operation object: see operation.h.

#include "api/operation.h"

#include <cstring>

#include "core/globals.h"
#include "core/handletable.h"
#include "core/platform.h"
#include "debug/dump.h"
#include "debug/timeline.h"
#include "debug/trace.h"
#include "io/native_fs.h"
#include "io/overlay_dir_listing.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

HybPlatformMutex* WaitMutex() { return &g_locks.opWaitMutex; }
HybPlatformCond* WaitCond() { return &g_locks.opWaitCond; }

char* DumpOp(const Operation* op, char* buffer, size_t size) {
  return zulKestDebugDumpOp(op->h, buffer, size);
}

// The live operation named by handle, or null.
Operation* LiveOp(uint32_t handle) { return Lookup<Operation>(kOpTable, handle); }

// The common part of OpWait and OpWaitUntil.  REQUIRES: op live.
// deadline < 0 waits without limit.
int32_t WaitCommon(Operation* op, ZulKestTime deadline, const char* function) {
  const uint32_t handle = op->h;
  if (TraceEnabled(kTraceOp)) {
    char dump[kDumpBufferSize];
    if (deadline < 0) {
      TraceLine(kTraceOp, function, "blocking on %s", DumpOp(op, dump, sizeof(dump)));
    } else {
      TraceLine(kTraceOp, function, "blocking with deadline %lld on %s",
                static_cast<long long>(deadline), DumpOp(op, dump, sizeof(dump)));
    }
  }
  // A request that finishes within a few tens of microseconds is cheaper
  // to watch for than to sleep on.
  if (deadline < 0) SpinBeforeSleep([op] { return OpFinished(op); });
  MutexLock(WaitMutex());
  // Deletion releases the handle under this mutex once no waiter is left:
  // re-check that the operation is still ours before counting ourselves in.
  if (op->h != handle) {
    MutexUnlock(WaitMutex());
    return ZUL_KEST_ERROR_BAD_OP;
  }
  __atomic_add_fetch(&op->waiters, 1, __ATOMIC_ACQ_REL);
  bool blocked = false;
  bool finished = OpFinished(op);
  while (!finished) {
    if (deadline < 0) {
      CondWait(WaitCond());
    } else {
      const ZulKestTime now = zulKestTimeGetCurrent();
      if (deadline <= now) break;
      CondTimedWait(WaitCond(), NowMicroseconds() + (deadline - now) / 1000);
    }
    blocked = true;
    finished = OpFinished(op);
  }
  const int32_t result = finished ? op->err : ZUL_KEST_ERROR_TIMEOUT;
  if (__atomic_sub_fetch(&op->waiters, 1, __ATOMIC_ACQ_REL) == 0 &&
      __atomic_load_n(&op->deleted, __ATOMIC_ACQUIRE) != 0) {
    CondBroadcast(WaitCond());  // a deletion waits for the last waiter
  }
  if (TraceEnabled(kTraceOp)) {
    char dump[kDumpBufferSize];
    if (deadline < 0) {
      TraceLine(kTraceOp, function, "finished %sfor %s", blocked ? "" : "without blocking ",
                DumpOp(op, dump, sizeof(dump)));
    } else {
      TraceLine(kTraceOp, function, "%s %sfor %s", finished ? "finished" : "timed out",
                blocked ? "" : "without blocking ", DumpOp(op, dump, sizeof(dump)));
    }
  }
  MutexUnlock(WaitMutex());
  return result;
}

// The timeline's note of a completion.  A handle request has no path of
// its own; its file's tells what it worked on.
void NoteCompletionOnTimeline(const Operation* op) {
  const char* path = GetPath(&op->path);
  if (path[0] == '\0') {
    if (const FileHandle* file = Lookup<FileHandle>(kFhTable, op->targetHandle))
      path = GetPath(&file->path);
  }
  TimelineNoteCompletion(op->h, op->what, static_cast<int8_t>(op->attr.priority), op->attr.deadline,
                         op->err, __atomic_load_n(&op->actCount, __ATOMIC_ACQUIRE), path);
}

}  // namespace

Operation* OpCreate(const ZulKestOpAttr* attr, uint16_t type) {
  if (!LocksCreated()) return nullptr;
  const uint32_t handle = AllocateHandle(kOpTable);
  if (handle == 0) return nullptr;
  Operation* op = LiveOp(handle);
  if (attr != nullptr) {
    std::memcpy(&op->attr, attr, sizeof(op->attr));
  } else {
    zulKestGetDefaultOpAttr(&op->attr);
  }
  op->what = type;
  op->rootChunk = -1;
  ClearPath(&op->path);
  return op;
}

bool OpFinished(const Operation* op) { return OpFinishedForThisThread(op); }

void CloseAndReleaseHandle(uint32_t handle) {
  // The exchanges leave nothing for a second release to close.
  if (FileHandle* file = Lookup<FileHandle>(kFhTable, handle)) {
    const int32_t fd = __atomic_exchange_n(&file->nativeFH, -1, __ATOMIC_ACQ_REL);
    if (fd != -1) NativeClose(fd);
    ReleaseHandle(kFhTable, handle);
  } else if (DirHandle* dir = Lookup<DirHandle>(kDhTable, handle)) {
    const uint64_t listing = __atomic_exchange_n(&dir->nativeDH, uint64_t{0}, __ATOMIC_ACQ_REL);
    if (listing != 0) {
      CloseOverlaidDirectory(reinterpret_cast<OverlayDirListing*>(static_cast<uintptr_t>(listing)));
    }
    ReleaseHandle(kDhTable, handle);
  }
}

uint32_t OpFail(Operation* op, int32_t code) {
  op->err = code;
  // A handle created for the request, or private to it, goes with the
  // failure, whichever path the failure took (a refused argument, a path or
  // flag error at acceptance, no chunk storage, or the engine).  An open
  // that succeeded after all, because a cancel came while it ran, still has
  // its descriptor: that is closed too.
  if ((op->internalFlags & (kOpOwnsNewHandle | kOpTemporaryHandle)) != 0) {
    CloseAndReleaseHandle(op->targetHandle);
  }
  return OpNotify(op, ZUL_KEST_EVENT_COMPLETE);
}

uint32_t OpCompleteOk(Operation* op) {
  op->err = ZUL_KEST_OK;
  if ((op->internalFlags & kOpTemporaryHandle) != 0) CloseAndReleaseHandle(op->targetHandle);
  return OpNotify(op, ZUL_KEST_EVENT_COMPLETE);
}

uint32_t OpNotify(Operation* op, ZulKestOpEvent event) {
  const uint32_t handle = op->h;
  if (TraceEnabled(kTraceOp)) {
    char dump[kDumpBufferSize];
    TraceLine(kTraceOp, "Callback", "%s %s", event == ZUL_KEST_EVENT_COMPLETE ? "COMPLETE" : "DELETE",
              DumpOp(op, dump, sizeof(dump)));
  }
  if (event == ZUL_KEST_EVENT_COMPLETE && TimelineRecording()) NoteCompletionOnTimeline(op);
  if (op->attr.pCallback != nullptr) {
    // While its callback runs the operation counts as finished on this
    // thread, so the callback may read the result, wait and delete.
    const uint32_t outer = t_currentCallbackOp;
    t_currentCallbackOp = handle;
    op->attr.pCallback(op->attr.pCallbackContext, handle, static_cast<uint8_t>(event), op->err);
    t_currentCallbackOp = outer;
  }
  // Under the wait mutex: waiters count themselves in under it, and a
  // deletion releases the handle under it, so the unit is not reused while
  // it is looked at here (a caller that saw `done` may delete at once).
  MutexLock(WaitMutex());
  bool wake = true;
  if (LiveOp(handle) != nullptr) {
    __atomic_store_n(&op->done, 1, __ATOMIC_RELEASE);
    // Only a thread waiting for this operation needs waking: with many
    // requests in flight and the caller waiting for one of them, a
    // broadcast per completion would wake it for every other one.
    wake = __atomic_load_n(&op->waiters, __ATOMIC_ACQUIRE) != 0;
  }
  if (wake) CondBroadcast(WaitCond());
  MutexUnlock(WaitMutex());
  return handle;
}

int32_t OpWait(Operation* op) { return WaitCommon(op, -1, "Wait"); }

int32_t OpWaitUntil(Operation* op, ZulKestTime deadline) {
  // A negative deadline is long past: never block on it.
  return WaitCommon(op, deadline < 0 ? 0 : deadline, "WaitUntil");
}

void OpDelete(Operation* op) {
  if (__atomic_exchange_n(&op->deleted, uint8_t{1}, __ATOMIC_ACQ_REL) != 0) return;
  const uint32_t handle = op->h;
  OpNotify(op, ZUL_KEST_EVENT_DELETE);
  MutexLock(WaitMutex());
  while (__atomic_load_n(&op->waiters, __ATOMIC_ACQUIRE) > 0) CondWait(WaitCond());
  ReleaseHandle(kOpTable, handle);
  MutexUnlock(WaitMutex());
}

int32_t CompleteOperation(ChunkID root) {
  const uint32_t handle = ChunkRecord<ChunkRootRecord>(root)->op;
  Operation* op = Lookup<Operation>(kOpTable, handle);
  if (op == nullptr) {
    zulKestPrintf("KEST2 unexpected NULL value for op pointer\n");
    return ZUL_KEST_OK;
  }
  // A cancel may set the error and the cancelled bit until the root starts
  // to run; from here on both are stable.
  const int32_t err = __atomic_load_n(&op->err, __ATOMIC_ACQUIRE);
  const uint16_t internalFlags = __atomic_load_n(&op->internalFlags, __ATOMIC_ACQUIRE);
  FileHandle* file = Lookup<FileHandle>(kFhTable, op->targetHandle);
  if ((internalFlags & kOpUpdatesPosition) != 0 && file != nullptr) {
    const bool movesPosition = op->what != OP_FH_PWRITEV;
    if (err == ZUL_KEST_OK) {
      const int64_t end = op->offset + op->actCount;
      int64_t size = __atomic_load_n(&file->size, __ATOMIC_ACQUIRE);
      while (end > size && !__atomic_compare_exchange_n(&file->size, &size, end, false,
                                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
      }
      if (movesPosition) __atomic_store_n(&file->offset, end, __ATOMIC_RELEASE);
    } else if (movesPosition) {
      const int64_t position =
          err == ZUL_KEST_ERROR_EOF ? __atomic_load_n(&file->size, __ATOMIC_ACQUIRE) : -1;
      __atomic_store_n(&file->offset, position, __ATOMIC_RELEASE);
    }
  }
  // Completion releases the handles the operation owned.
  if (err == ZUL_KEST_OK) {
    OpCompleteOk(op);
  } else {
    OpFail(op, err);
  }
  return ZUL_KEST_OK;
}

int64_t OpRequestCount(const Operation* op) {
  int64_t total = 0;
  for (const ZulKestBuffer& buffer : op->buffers) total += buffer.length;
  return total;
}

}  // namespace kest2

using namespace kest2;

extern "C" int32_t zulKestOpWait(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpWait");
  Operation* op = LiveOp(handle);
  if (op == nullptr) return ZUL_KEST_ERROR_BAD_OP;
  return OpFinished(op) ? op->err : OpWait(op);
}

extern "C" int32_t zulKestOpWaitUntil(ZulKestOp handle, ZulKestTime deadline) {
  KEST2_TRACE_API("zulKestOpWaitUntil");
  Operation* op = LiveOp(handle);
  if (op == nullptr) return ZUL_KEST_ERROR_BAD_OP;
  return OpFinished(op) ? op->err : OpWaitUntil(op, deadline);
}

extern "C" int32_t zulKestOpSyncWait(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpSyncWait");
  if (handle == 0) return ZUL_KEST_ERROR_CANT_ALLOCATE_OP;
  Operation* op = LiveOp(handle);
  if (op == nullptr) return ZUL_KEST_ERROR_BAD_OP;
  const int32_t result = OpFinished(op) ? op->err : OpWait(op);
  OpDelete(op);
  return result;
}

extern "C" int64_t zulKestOpSyncWaitForIO(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpSyncWaitForIO");
  Operation* op = LiveOp(handle);
  if (op == nullptr) return ZUL_KEST_ERROR_BAD_OP;
  const int32_t result = OpFinished(op) ? op->err : OpWait(op);
  const int64_t count = op->actCount;
  OpDelete(op);
  // A transfer cut short by the end of the file still reports its bytes.
  return (result == ZUL_KEST_OK || result == ZUL_KEST_ERROR_EOF) ? count : result;
}

extern "C" void zulKestOpDelete(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpDelete");
  Operation* op = LiveOp(handle);
  if (op == nullptr) {
    zulKestPrintf("zulKestOpDelete: called with an invalid op 0x%08X.\n", handle);
    return;
  }
  if (!OpFinished(op)) OpWait(op);
  OpDelete(op);
}

extern "C" bool zulKestOpIsCancelled(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpIsCancelled");
  const Operation* op = LiveOp(handle);
  return op != nullptr && (op->internalFlags & kOpCancelled) != 0;
}

extern "C" bool zulKestOpIsDone(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpIsDone");
  const Operation* op = LiveOp(handle);
  return op == nullptr || OpFinished(op);
}

extern "C" int32_t zulKestOpGetError(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpGetError");
  const Operation* op = LiveOp(handle);
  if (op == nullptr) return ZUL_KEST_ERROR_BAD_OP;
  return OpFinished(op) ? op->err : ZUL_KEST_IN_PROGRESS;
}

extern "C" const ZulKestOpAttr* zulKestOpGetAttr(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpGetAttr");
  const Operation* op = LiveOp(handle);
  return op != nullptr ? &op->attr : nullptr;
}

extern "C" const char* zulKestOpGetPath(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpGetPath");
  const Operation* op = LiveOp(handle);
  return op != nullptr ? GetPath(&op->path) : nullptr;
}

extern "C" const ZulKestBuffer* zulKestOpGetBuffer(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpGetBuffer");
  const Operation* op = LiveOp(handle);
  return op != nullptr ? op->buffers : nullptr;
}

extern "C" int64_t zulKestOpGetOffset(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpGetOffset");
  const Operation* op = LiveOp(handle);
  return op != nullptr ? op->offset : 0;
}

extern "C" int64_t zulKestOpGetRequestCount(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpGetRequestCount");
  const Operation* op = LiveOp(handle);
  return op != nullptr ? OpRequestCount(op) : 0;
}

extern "C" int64_t zulKestOpGetActualCount(ZulKestOp handle) {
  KEST2_TRACE_API("zulKestOpGetActualCount");
  const Operation* op = LiveOp(handle);
  return op != nullptr ? op->actCount : 0;
}
