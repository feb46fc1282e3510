// Putting chunk trees into the queues and taking them out again.
//
// A tree is scheduled children first, so a parent enters its queue already
// marked scheduled and becomes ready the moment its last child completes.
// With the caller's permission single steps run on the caller's thread (the
// fast path) until the first step that has to wait in a queue; a tree that
// fans out into parallel chunks is queued as a whole.
//
// Unscheduling walks the tree under the chunk lock, clearing `scheduled` on
// every queued chunk it takes out (so no thread will take it meanwhile), and
// then removes each from its queue with the scheduler mutex, which must not
// be taken while the chunk lock is held.

#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/dump.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"
#include "sched/scheduler_event.h"

namespace kest2 {
namespace {

constexpr ZulKestTime kDefaultDeadlineDelay = 300000000000LL;  // 300 s

uint16_t LoadFlags(ChunkID id) { return LoadChunkFlags(ChunkAt(id)); }

// Sets or clears flag bits.
void ChangeFlags(ChunkID id, uint16_t set, uint16_t clear) REQUIRES(g_locks.chunk) {
  ChunkHeader* chunk = ChunkAt(id);
  StoreChunkFlags(chunk, static_cast<uint16_t>((LoadChunkFlags(chunk) | set) & ~clear));
}

Scheduler* SchedulerAt(int place) {
  Scheduler* scheduler = SchedulerListHead();
  for (int i = 0; scheduler != nullptr && i < place; ++i) scheduler = scheduler->next;
  return scheduler;
}

int SchedulerPlace(const Scheduler* wanted) {
  int place = 0;
  for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next, ++place) {
    if (s == wanted) return place;
  }
  return -1;
}

Scheduler* ChooseScheduler(ChunkID id) {
  const ChunkHeader* chunk = ChunkAt(id);
  if (chunk->type == CHUNK_NULL || chunk->type == CHUNK_ROOT || chunk->type == CHUNK_CALLBACK)
    return CallbackScheduler();
  int64_t offset = 0;
  int64_t length = 0;
  if (IsPositionedTransfer(chunk)) {
    const ChunkFhIoRecord* io = reinterpret_cast<const ChunkFhIoRecord*>(chunk);
    offset = io->offset;
    length = io->reqCount;
  }
  const uint32_t handle = GetChunkHandle(id);
  if (handle == 0) {
    const StoredPath* path = GetChunkPath(id);
    for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) {
      if (s->prefixLength == 0) return s;
      if (path != nullptr && s->matchPath(s, path, offset, length)) return s;
    }
    return nullptr;
  }
  for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) {
    const StoredPath* path = nullptr;
    if (const FileHandle* file = Lookup<FileHandle>(kFhTable, handle)) {
      path = &file->path;
    } else if (const DirHandle* dir = Lookup<DirHandle>(kDhTable, handle)) {
      path = &dir->path;
    } else {
      continue;
    }
    if (s->prefixLength == 0 || s->matchPath(s, path, offset, length)) return s;
  }
  return AllOtherScheduler();
}

// Runs a cancelled chunk at once, which completes it without its work.
void FinishCancelled(Scheduler* scheduler, ChunkID id) REQUIRES(scheduler->mutex) {
  {
    ChunkLocker lock;
    ChangeFlags(id, kChunkExecuting, 0);
  }
  const int32_t result = ExecuteChunkOutsideThreads(scheduler, id, false);
  if (result != ZUL_KEST_OK && result != ZUL_KEST_ERROR_CANCELLED) {
    zulKestPrintf("KEST2 WARNING: Unexpected return from Execute during cancel: %ld\n",
                  static_cast<long>(result));
  }
}

// Removes the entry at index i and, when the chunk was cancelled, completes
// it at once.
void RemoveAt(Scheduler* scheduler, uint64_t index, ChunkID id) REQUIRES(scheduler->mutex) {
  char dump[kDumpBufferSize];
  if (TraceEnabled(kTraceSched)) {
    TraceLine(kTraceSched, "RemoveFromSchedule", "removing chunk %d: %s", id,
              DumpChunk(id, dump, sizeof(dump)));
  }
  if (scheduler->m_busySkip != 0 && scheduler->m_busySkip >= index) --scheduler->m_busySkip;
  UnqueueChunk(scheduler, index);
  scheduler->removeHint = index;
  if ((LoadFlags(id) & kChunkCancelled) != 0) FinishCancelled(scheduler, id);
}

// A chunk is marked scheduled before it is queued (a tree is queued in
// batches), and a cancel in between unschedules it while the removal finds
// nothing in the queue.  Such a chunk is finished here, cancelled, as the
// removal would have; one that still waits for children is queued as
// scheduled again and completes after them.  True when it was finished.
bool FinishCancelledOnTheWay(Scheduler* scheduler, ChunkID id) REQUIRES(scheduler->mutex) {
  const uint16_t flags = LoadFlags(id);
  if ((flags & kChunkScheduled) != 0 || (flags & kChunkCancelled) == 0) return false;
  if (!DeferChunk(id, true)) {
    ChunkLocker lock;
    ChangeFlags(id, kChunkScheduled, 0);
    return false;
  }
  FinishCancelled(scheduler, id);
  return true;
}

// Puts a chunk into its queue.  An I/O scheduler's wake-up is owed rather
// than done here: its bit goes into *owedWakes.
void InsertHeld(Scheduler* scheduler, ChunkID id, uint32_t* owedWakes) REQUIRES(scheduler->mutex) {
  if (FinishCancelledOnTheWay(scheduler, id)) return;
  KEST2_TRACE(kTraceSched, "AddToSchedule", "inserting chunk %d", id);
  ChunkHeader* chunk = ChunkAt(id);
  uint64_t index;
  if (scheduler == CallbackScheduler()) {
    // Chunks below may already run and read it (under the chunk lock).
    ChunkLocker lock;
    if (chunk->deadline == 0) chunk->deadline = zulKestTimeGetCurrent() + kDefaultDeadlineDelay;
    index = scheduler->m_queueCount;
  } else {
    index = FindInsertPosition(scheduler, id);
  }
  QueueChunk(scheduler, index, id);
  if (scheduler != CallbackScheduler()) {
    *owedWakes |= PlaceBit(scheduler);
  } else if (DeferChunk(id, false)) {
    // A root or callback still waiting for its children is woken by the
    // completion that makes it ready, which sees it scheduled.
    WakeThreads(scheduler, true);
  }
}

// What every queued chunk goes through first: its media position, and the
// wait for room in a full queue.
void PrepareToQueue(Scheduler* scheduler, ChunkID id) REQUIRES(scheduler->mutex) {
  if ((LoadChunkFlags(ChunkAt(id)) & kChunkPositioned) != 0) ComputeChunkPosition(id);
  while (scheduler->m_queueCount > kQueueFullCount) {
    zulKestPrintf("KEST2 scheduler queue is full, waiting...\n");
    CondWait(&scheduler->queueFull);
    zulKestPrintf("KEST2 scheduler queue is available again\n");
  }
}

// Queues one chunk, or runs it on the fast path (true).
bool QueueOrRun(Scheduler* scheduler, ChunkID id, uint32_t opflags, bool fastPathPermission,
                uint32_t* owedWakes) {
  SchedulerEvent event(kEventAddToSchedule, id);
  MutexLock(&scheduler->mutex);
  PrepareToQueue(scheduler, id);
  ChunkHeader* chunk = ChunkAt(id);
  bool ranNow = false;
  if (fastPathPermission && SuspendCount() <= 0) {
    const bool quickStep = (chunk->type == CHUNK_FH_OPEN || chunk->type == CHUNK_FH_CLOSE ||
                            chunk->type == CHUNK_STAT) &&
                           (opflags & ZUL_KEST_OPFLAG_FAST_PATH_ALWAYS) != 0;
    const bool threadFree =
        scheduler->m_queueCount == 0 &&
        __atomic_load_n(&scheduler->activeThreads, __ATOMIC_ACQUIRE) < scheduler->threadCount;
    if ((quickStep || threadFree) && DeferChunk(id, false)) {
      KEST2_TRACE(kTraceSched, "AddToSchedule", "fast-path chunk %d", id);
      {
        ChunkLocker lock;
        ChangeFlags(id, kChunkExecuting, 0);
      }
      ranNow = ExecuteChunkOutsideThreads(scheduler, id, true) == ZUL_KEST_OK;
    }
  }
  // (A chunk that ran here woke the threads already, and may be gone.)
  if (!ranNow) InsertHeld(scheduler, id, owedWakes);
  MutexUnlock(&scheduler->mutex);
  return ranNow;
}

// Wakes the threads of an I/O scheduler for its queued work: as many as
// there are chunks ready to run, when all are idle (a tree's chunks mostly
// wait for one another); one, when some are busy.  Readiness is looked at
// in the front of the queue only; past that a deep queue wakes them all.
// A ready chunk that turns out busy still wakes a thread, which notes it
// so that the chunk's release wakes the threads again.
void WakeForQueued(Scheduler* scheduler) REQUIRES(scheduler->mutex) {
  constexpr uint64_t kLookedAt = 16;
  if (scheduler->m_queueCount == 0) return;
  const int32_t active = __atomic_load_n(&scheduler->activeThreads, __ATOMIC_ACQUIRE);
  if (active >= scheduler->threadCount) return;
  if (active != 0) {
    WakeThreads(scheduler, false);
    return;
  }
  int ready = 0;
  for (uint64_t i = 0; i < scheduler->m_queueCount && i < kLookedAt && ready < 2; ++i) {
    if (DeferChunk(QueueAt(scheduler, i), false)) ++ready;
  }
  if (ready >= 2 || (ready == 0 && scheduler->m_queueCount > kLookedAt)) {
    WakeThreads(scheduler, true);
  } else if (ready == 1) {
    WakeThreads(scheduler, false);
  }
}

void WakeOwed(uint32_t owedWakes) {
  ForEachPlace(owedWakes, [](Scheduler* s, uint32_t) {
    MutexLock(&s->mutex);
    WakeForQueued(s);
    MutexUnlock(&s->mutex);
  });
}

// The chunks of a tree to be queued, gathered children first (the order
// they would be queued in one by one) so that each run of chunks bound for
// one scheduler is queued under one hold of its mutex: the submitting
// thread competes for the I/O threads' mutex once per tree instead of once
// per chunk and once more for the wake-up.  The I/O threads are woken once
// the whole tree is queued: woken for its first chunk, an idle thread would
// run that and fall asleep again before the next one arrived.
class TreeBatch {
 public:
  ~TreeBatch() { Flush(true); }

  // Wake-ups owed by chunks queued one by one on the fast path's way.
  uint32_t* owedWakes() { return &m_owedWakes; }

  void Add(Scheduler* scheduler, ChunkID id) {
    if (m_count == kCapacity) Flush(false);
    m_entries[m_count++] = Entry{scheduler, id};
  }

 private:
  struct Entry {
    Scheduler* scheduler;
    ChunkID id;
  };
  static constexpr uint32_t kCapacity = 64;

  bool LaterRunFor(const Scheduler* scheduler, uint32_t from) const {
    for (uint32_t i = from; i < m_count; ++i) {
      if (m_entries[i].scheduler == scheduler) return true;
    }
    return false;
  }

  // last: nothing more of the tree follows, so a scheduler that this run
  // is the last one for is woken while its mutex is still held.
  void Flush(bool last) {
    for (uint32_t begin = 0; begin < m_count;) {
      Scheduler* scheduler = m_entries[begin].scheduler;
      uint32_t end = begin;
      MutexLock(&scheduler->mutex);
      for (; end < m_count && m_entries[end].scheduler == scheduler; ++end) {
        SchedulerEvent event(kEventAddToSchedule, m_entries[end].id);
        PrepareToQueue(scheduler, m_entries[end].id);
        InsertHeld(scheduler, m_entries[end].id, &m_owedWakes);
      }
      const uint32_t bit = PlaceBit(scheduler);
      if (last && (m_owedWakes & bit) != 0 && !LaterRunFor(scheduler, end)) {
        m_owedWakes &= ~bit;
        WakeForQueued(scheduler);
      }
      MutexUnlock(&scheduler->mutex);
      begin = end;
    }
    m_count = 0;
    if (last) WakeOwed(m_owedWakes);
  }

  Entry m_entries[kCapacity];
  uint32_t m_count = 0;
  uint32_t m_owedWakes = 0;
};

bool ScheduleTreeRecurse(ChunkID id, uint32_t opflags, bool permission, TreeBatch* batch) {
  KEST2_TRACE(kTraceSched, "ScheduleTreeRecurse", "called for chunk %d", id);
  bool add = false;
  // The children that still need scheduling, read under the same hold as
  // the chunk's own mark; a wide tree is walked again from where this
  // list ends.
  constexpr uint32_t kListed = 16;
  ChunkID children[kListed];
  uint32_t listed = 0;
  bool more = false;
  {
    ChunkLocker lock;
    if (permission && CountChildrenNotCompleted(id, 2) >= 2) {
      KEST2_TRACE(kTraceSched, "ScheduleTreeRecurse", "%s",
                  "parallel chunks caused switch to queueing");
      permission = false;
    }
    if ((LoadFlags(id) & kChunkScheduled) == 0) {
      // Its scheduler is chosen again when it is queued (or by a child
      // that completes first).
      ChangeFlags(id, kChunkScheduled, kChunkSchedulerIndexMask);
      add = true;
    }
    listed = GetChildren(id, children, kListed);
    more = listed == kListed;
  }
  // The subtree cannot finish before this chunk is queued, so its children
  // stay allocated while they are walked without the lock.
  auto visit = [&](ChunkID child) {
    if ((LoadFlags(child) & kChunkCompleted) != 0) return;
    if (!ScheduleTreeRecurse(child, opflags, permission, batch)) permission = false;
  };
  for (uint32_t n = 0; n < listed; ++n) visit(children[n]);
  for (uint32_t n = listed; more; ++n) {
    const ChunkID child = GetChild(id, n);
    more = child != CHUNKID_INVALID;
    if (more) visit(child);
  }
  if (add) {
    Scheduler* scheduler = GetScheduler(id);
    if (!permission) {
      if (scheduler != nullptr) batch->Add(scheduler, id);
    } else if (scheduler == nullptr ||
               !QueueOrRun(scheduler, id, opflags, true, batch->owedWakes())) {
      KEST2_TRACE(kTraceSched, "ScheduleTreeRecurse", "chunk %d caused switch to queueing", id);
      permission = false;
    }
  }
  return permission;
}

}  // namespace

uint32_t PlaceBit(const Scheduler* wanted) {
  const int place = SchedulerPlace(wanted);
  return place < 0 ? 0 : 1u << place;
}

Scheduler* GetScheduler(ChunkID id) {
  if (id == CHUNKID_INVALID) return nullptr;
  const uint16_t flags = LoadFlags(id);
  const int cached = (flags & kChunkSchedulerIndexMask) >> kChunkSchedulerIndexShift;
  if (cached != 0) {
    if (Scheduler* scheduler = SchedulerAt(cached - 1)) return scheduler;
  }
  Scheduler* scheduler = ChooseScheduler(id);
  const int place = SchedulerPlace(scheduler);
  if (place >= 0) {
    ChunkLocker lock;
    const uint16_t index = static_cast<uint16_t>((place + 1) << kChunkSchedulerIndexShift);
    ChangeFlags(id, index, static_cast<uint16_t>(kChunkSchedulerIndexMask & ~index));
  }
  return scheduler;
}

bool ChunkIsBusy(const Scheduler* scheduler, ChunkID id) {
  const ChunkHeader* chunk = ChunkAt(id);
  if (chunk->type == CHUNK_CALLBACK) return CallbackWouldBeBusy(id);
  if (chunk->linked == CHUNKID_INVALID) return false;
  if (scheduler->busyCount != 0) return true;
  return CallbackWouldBeBusy(chunk->linked);
}

bool AddToSchedule(Scheduler* scheduler, ChunkID id, uint32_t opflags, bool fastPathPermission) {
  uint32_t owedWakes = 0;
  const bool ranNow = QueueOrRun(scheduler, id, opflags, fastPathPermission, &owedWakes);
  WakeOwed(owedWakes);
  return ranNow;
}

void ScheduleTree(ChunkID root, uint32_t opflags, bool fastPathPermission) {
  SchedulerEvent event(kEventScheduleTree, root);
  TreeBatch batch;
  ScheduleTreeRecurse(root, opflags, fastPathPermission, &batch);
}

namespace {

// One chunk of UnscheduleTree's walk, reached from `parent`
// (CHUNKID_INVALID at the top).  The pinned root keeps the tree's inner
// chunks, but a filter may drop a finished leaf of a running tree (a
// lane's old block read) while the walk is under way, and the id read
// from the child list may by then name a chunk of another tree: only a
// chunk still linked below `parent` is touched.
void UnscheduleBelow(ChunkID id, ChunkID parent, bool cancel) {
  SchedulerEvent event(kEventUnscheduleTree, id);
  KEST2_TRACE(kTraceSched, "UnscheduleTree", "called for chunk %d", id);
  bool remove = false;
  {
    ChunkLocker lock;
    bool linked = parent == CHUNKID_INVALID;
    bool shared = false;
    for (uint32_t n = 0;; ++n) {
      const ChunkID p = GetParent(id, n);
      if (p == CHUNKID_INVALID) break;
      linked = linked || p == parent;
      // A chunk shared with a tree that goes on is left alone by a cancel.
      shared = shared || (p != GlobalRootChunk() && (LoadFlags(p) & kChunkCancelled) == 0);
    }
    if (!linked || (cancel && shared)) return;
    const uint16_t flags = LoadFlags(id);
    if ((flags & (kChunkCompleted | kChunkExecuting)) == 0) {
      if (cancel) {
        ChangeFlags(id, kChunkCancelled, 0);
        const ChunkID linkedCallback = ChunkAt(id)->linked;
        if (linkedCallback != CHUNKID_INVALID) ChangeFlags(linkedCallback, kChunkCancelled, 0);
      }
      if ((flags & kChunkScheduled) != 0 && GetScheduler(id) != CallbackScheduler()) {
        ChangeFlags(id, 0, kChunkScheduled);
        remove = true;
      }
    }
    if ((flags & kChunkCompleted) != 0 && AllChildrenCompleted(id)) return;
  }
  for (uint32_t n = 0;; ++n) {
    const ChunkID child = GetChild(id, n);
    if (child == CHUNKID_INVALID) break;
    if ((LoadFlags(child) & kChunkCompleted) == 0) UnscheduleBelow(child, id, cancel);
  }
  if (remove) {
    if (Scheduler* scheduler = GetScheduler(id)) RemoveFromSchedule(scheduler, id);
  }
}

}  // namespace

void UnscheduleTree(ChunkID id, bool cancel) { UnscheduleBelow(id, CHUNKID_INVALID, cancel); }

void RemoveFromSchedule(Scheduler* scheduler, ChunkID id) {
  SchedulerEvent event(kEventRemoveFromSchedule, id);
  MutexLock(&scheduler->mutex);
  const uint64_t count = scheduler->m_queueCount;
  const uint64_t start = scheduler->removeHint < count ? scheduler->removeHint : 0;
  uint64_t index = count;
  for (uint64_t step = 0; step < count; ++step) {
    const uint64_t i = (start + step) % count;
    if (QueueAt(scheduler, i) == id) {
      index = i;
      break;
    }
  }
  char dump[kDumpBufferSize];
  if (index == count) {
    zulKestPrintf("Scheduler::RemoveFromSchedule could not find chunk! chunk = %d\n", id);
    zulKestPrintf("%s\n", DumpChunk(id, dump, sizeof(dump)));
  } else if ((LoadFlags(id) & kChunkScheduled) != 0) {
    // Scheduled again since it was unscheduled: it was on its way into the
    // queue and was queued there to wait for its children, or finished
    // there and its id now names another chunk.  Not this removal's.
  } else if ((LoadFlags(id) & kChunkCancelled) != 0 && !DeferChunk(id, true)) {
    // It waits for children that still run; it stays queued until they
    // have finished and then completes as cancelled.
    if (TraceEnabled(kTraceSched)) {
      TraceLine(kTraceSched, "RemoveFromSchedule",
                "chunk %d not removed, cancelled but not eligible: %s", id,
                DumpChunk(id, dump, sizeof(dump)));
    }
    {
      ChunkLocker lock;
      ChangeFlags(id, kChunkScheduled, 0);
    }
    scheduler->m_busySkip = 0;
  } else {
    RemoveAt(scheduler, index, id);
  }
  MutexUnlock(&scheduler->mutex);
}

}  // namespace kest2
