// The schedulers' threads: start-up and shut-down, the loop that takes the
// first ready chunk, execution with the busy protocol, learning of the time
// model, and kicks.
//
// A thread holds its scheduler's mutex except while a chunk executes.  A
// chunk that answers busy (ZUL_KEST_ERROR_RETRY) is put back where it was
// taken, and `m_busySkip` counts the leading entries known to be blocked or
// busy so that the next scan starts after them; any completion that may
// have changed the picture kicks the schedulers concerned, which resets the
// count.  When everything queued stays busy and no kick comes, the thread
// looks again every 50 ms.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/disc_map.h"
#include "core/globals.h"
#include "debug/dump.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

constexpr int64_t kBusyBackOffMicroseconds = 50000;
constexpr ZulKestTime kSlowHandoverNanoseconds = 100001;
// Roots due within this long are handed to the callback thread at once
// (a few of the kernel's time slices).
constexpr ZulKestTime kUrgentHandOff = 20000000;  // 20 ms
constexpr int64_t kSeekLearnDistance = 32768;
constexpr ZulKestTime kSeekLearnMinimum = 10000;
constexpr int64_t kIdleWaitMaxMilliseconds = 1000;
constexpr uint32_t kDiscMapModuleId = 0xD7;

// The three schedulers live in static storage; the list links the running
// ones, newest first.  The list changes only at start-up and shut-down.
Scheduler g_callbackScheduler;
Scheduler g_allOtherScheduler;
Scheduler g_hddScheduler;
Scheduler* g_schedulerList;

bool g_unexpectedBusyReported;

bool PrefixMatch(const Scheduler* scheduler, const StoredPath* path, int64_t, int64_t) {
  return std::strncmp(GetPath(path), scheduler->pathPrefix, scheduler->prefixLength) == 0;
}

bool HardDiskMatch(const Scheduler*, const StoredPath* path, int64_t offset, int64_t length) {
  bool onHardDisk = false;
  return DiscMapQueryHardDisk(GetPath(path), offset, length, &onHardDisk) == 0 && onHardDisk;
}

void ClearExecuting(ChunkID id) {
  ChunkLocker lock;
  ChunkHeader* chunk = ChunkAt(id);
  StoreChunkFlags(chunk, static_cast<uint16_t>(LoadChunkFlags(chunk) & ~kChunkExecuting));
}

bool HasLinked(ChunkID id) { return ChunkAt(id)->linked != CHUNKID_INVALID; }

int32_t CallLinked(ChunkID id, int32_t event) {
  ChunkCallbackRecord* linked = ChunkRecord<ChunkCallbackRecord>(ChunkAt(id)->linked);
  return linked->callback != nullptr ? linked->callback(linked, event) : ZUL_KEST_OK;
}

// Puts a busy chunk back at the place it was taken from: into the known-busy
// prefix when knownBusy, otherwise where the next look finds it.
void PutBack(Scheduler* scheduler, ChunkID id, bool knownBusy) REQUIRES(scheduler->mutex) {
  const uint64_t at = scheduler->takePosition;
  QueueChunk(scheduler, at, id);  // named for another look when inside the prefix
  if (!knownBusy) return;
  if (at == scheduler->m_busySkip) {
    ++scheduler->m_busySkip;
  } else if (at < scheduler->m_busySkip) {
    TakeReadyHint(scheduler, id);
  }
}

// Exponential average with weight 1/20; never stalls short of the sample.
ZulKestTime LearnTypeEstimate(ZulKestTime estimate, ZulKestTime sample) {
  ZulKestTime next = (19 * estimate + sample) / 20;
  if (next == estimate) {
    if (sample > estimate) next = estimate + 1;
    if (sample < estimate) next = estimate - 1;
  }
  return next;
}

void LearnSeekEstimate(ZulKestTime* estimate, ZulKestTime sample) {
  if (sample > kSeekLearnMinimum) *estimate = (19 * *estimate + sample) / 20;
}

// What the time model learns from, taken before the chunk completes (a
// completed chunk may be freed at once by the thread that runs its root).
struct Measured {
  uint8_t type;
  uint32_t pieceCount;
  bool positioned;
  PositionKey key;
};

Measured Measure(ChunkID id) {
  const ChunkHeader* chunk = ChunkAt(id);
  Measured measured{chunk->type, chunk->pieceCount, false, PositionKey{0, 0}};
  measured.positioned = IsPositionedTransfer(chunk);
  if (measured.positioned) measured.key = ChunkPositionKey(id);
  return measured;
}

// Updates the time model from one measured execution.
void Learn(Scheduler* scheduler, const Measured& chunk, ZulKestTime elapsed,
           const PositionKey& before) REQUIRES(scheduler->mutex) {
  if (chunk.type >= kChunkTypeCount) return;
  const ZulKestTime per = chunk.pieceCount != 0 ? elapsed / chunk.pieceCount : elapsed;
  ZulKestTime& estimate = scheduler->typeEstimate[chunk.type];
  if (!chunk.positioned) {
    estimate = LearnTypeEstimate(estimate, per);
    return;
  }
  const PositionKey& key = chunk.key;
  if (key.position == before.position && key.handle != before.handle) {
    if (per >= kSlowHandoverNanoseconds) estimate = LearnTypeEstimate(estimate, per);
    return;
  }
  const ZulKestTime surplus = per - estimate;
  if (surplus <= 0) return;
  if (!SameStream(key, before)) {
    LearnSeekEstimate(&scheduler->seekEstimate[0], surplus);
    return;
  }
  const int64_t distance = std::llabs(key.position - before.position);
  if (distance < kSeekLearnDistance) return;
  const int64_t steps = distance / 65536 > 0 ? distance / 65536 : 1;
  LearnSeekEstimate(&scheduler->seekEstimate[1], surplus / steps);
}

// Whether the completion readied a root on the callback scheduler whose
// deadline falls within kUrgentHandOff of now.  Chunk lock held: the
// callback thread may free a root as soon as it is kicked.
bool ReadiedUrgentRoot(const ReadyParents& ready, ZulKestTime now) {
  if ((ready.places & PlaceBit(&g_callbackScheduler)) == 0) return false;
  for (uint32_t i = 0; i < ready.count && i < kReadyParentIds; ++i) {
    const ChunkHeader* parent = ChunkAt(ready.ids[i]);
    if (parent->type == CHUNK_ROOT && parent->deadline - now < kUrgentHandOff) return true;
  }
  return false;
}

// The schedulers to kick once the chunk has completed, gathered before: a
// completed chunk's parents may run, and be freed, at once.  The other I/O
// schedulers may hold a close or a read waiting on the handle this chunk
// used; the callback scheduler holds only roots and callbacks, which wait
// for their children (CompleteChunk tells when one became ready) or answer
// busy (KickAfterCompletion looks).
uint32_t SchedulersToKick(const Scheduler* scheduler, ChunkID id) {
  uint32_t kick = 0;
  for (uint32_t n = 0;; ++n) {
    const ChunkID parent = GetParent(id, n);
    if (parent == CHUNKID_INVALID) break;
    Scheduler* parentScheduler = GetScheduler(parent);
    if (parentScheduler != nullptr && parentScheduler != scheduler)
      kick |= PlaceBit(parentScheduler);
    for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) {
      if (s != scheduler && s != &g_callbackScheduler) kick |= PlaceBit(s);
    }
  }
  return kick;
}

// The threads look at the whole queue again.
void ForgetBusy(Scheduler* scheduler) REQUIRES(scheduler->mutex) {
  scheduler->m_busySkip = 0;
  scheduler->readyHintCount = 0;
  scheduler->busyCount = 0;
  scheduler->holdsBusy = false;
}

// A kick with the scheduler mutex held: counted always, and with wake,
// the threads look at the whole queue again.
void KickHeld(Scheduler* scheduler, bool wake) REQUIRES(scheduler->mutex) {
  if (scheduler->shuttingDown) return;
  // Counted even when nobody is woken: the chunk the kick is for may be
  // executing right now, and when it comes back busy it must not be
  // skipped as if nothing had changed.
  ++scheduler->kickCount;
  if (wake && scheduler->m_queueCount != 0) {
    ForgetBusy(scheduler);
    WakeThreads(scheduler, true);
  }
}

// The callback scheduler's queue holds only roots and callbacks, which wait
// for their children or answer busy.  What a completion readied there is
// named, so the threads look at those chunks again rather than at the whole
// queue; unless a callback that does not kick itself answered busy, since
// anything may be what it waits for.
void KickReadiedHeld(Scheduler* scheduler, const ReadyParents& ready) REQUIRES(scheduler->mutex) {
  const bool readied = (ready.places & PlaceBit(scheduler)) != 0;
  if (scheduler->holdsBusy || (readied && !ready.AllNamed())) {
    KickHeld(scheduler, true);
    return;
  }
  KickHeld(scheduler, false);
  if (!readied || scheduler->shuttingDown || scheduler->m_queueCount == 0) return;
  for (uint32_t i = 0; i < ready.count; ++i) {
    if (!AddReadyHint(scheduler, ready.ids[i])) {
      ForgetBusy(scheduler);
      break;
    }
  }
  WakeThreads(scheduler, true);
}

// The kick of a chunk's completion: an I/O scheduler looks at its whole
// queue again (a close or a read there may wait on the handle).
void KickAfterCompletion(Scheduler* scheduler, const ReadyParents& ready) {
  MutexLock(&scheduler->mutex);
  if (scheduler == &g_callbackScheduler) {
    KickReadiedHeld(scheduler, ready);
  } else {
    KickHeld(scheduler, true);
  }
  MutexUnlock(&scheduler->mutex);
}

void KickPlaces(uint32_t places, const ReadyParents& ready) {
  ForEachPlace(places, [&ready](Scheduler* s, uint32_t) {
    KEST2_TRACE(kTraceSched, "ExecuteChunk", "%s", "kick");
    KickAfterCompletion(s, ready);
  });
}

// True when the queued chunk cannot go now: blocked, or busy (which is
// noted).
bool SkipAsBusy(Scheduler* scheduler, ChunkID c) REQUIRES(scheduler->mutex) {
  if (ChunkAt(c)->type == CHUNK_CALLBACK) {
    if (!DeferChunk(c, false)) return true;
    if (!ChunkIsBusy(scheduler, c)) return false;
    // One that kicks the scheduler itself needs no look at the queue for
    // other completions.
    if (!CallbackKicksItself(c)) scheduler->holdsBusy = true;
    return true;
  }
  if (!HasLinked(c)) return !DeferChunk(c, false);
  // Behind a busy linked chunk every linked one counts as busy, ready or
  // not (as ChunkIsBusy answers): a long queue of reads waiting for
  // buffers costs a test each.
  if (scheduler->busyCount == 0) {
    if (!DeferChunk(c, false)) return true;
    if (!ChunkIsBusy(scheduler, c)) return false;
  }
  ++scheduler->busyCount;
  scheduler->holdsBusy = true;
  return true;
}

// Takes the entry at index i out of the queue to execute it.
ChunkID Take(Scheduler* scheduler, uint64_t i) REQUIRES(scheduler->mutex) {
  const ChunkID c = QueueAt(scheduler, i);
  UnqueueChunk(scheduler, i);
  scheduler->takePosition = i;
  ChunkHeader* chunk = ChunkAt(c);
  StoreChunkFlags(chunk, static_cast<uint16_t>(LoadChunkFlags(chunk) | kChunkExecuting));
  return c;
}

// The first entry named for another look that can go now, taken out of the
// queue; the others the look finds busy stay in the prefix.  Every entry
// before it is known busy, so it is the first that can go.
ChunkID TakeHinted(Scheduler* scheduler) REQUIRES(scheduler->mutex) {
  for (uint64_t i = 0; i < scheduler->m_busySkip && scheduler->readyHintCount != 0; ++i) {
    const ChunkID c = QueueAt(scheduler, i);
    if (!TakeReadyHint(scheduler, c) || SkipAsBusy(scheduler, c)) continue;
    --scheduler->m_busySkip;
    return Take(scheduler, i);
  }
  scheduler->readyHintCount = 0;  // the rest name nothing queued there
  return CHUNKID_INVALID;
}

// The first ready, not busy chunk of the queue, taken out of it; or
// CHUNKID_INVALID.
ChunkID NextEligible(Scheduler* scheduler) REQUIRES(scheduler->mutex) {
  while (scheduler->m_busySkip != 0 && scheduler->readyHintCount == 0) {
    if (scheduler->m_busySkip != scheduler->m_queueCount) {
      if (scheduler->m_busySkip > scheduler->m_queueCount) {
        zulKestPrintf("Warning m_busySkip %lu, m_queueCount %lu\n",
                      static_cast<unsigned long>(scheduler->m_busySkip),
                      static_cast<unsigned long>(scheduler->m_queueCount));
      }
      break;
    }
    KEST2_TRACE(kTraceSched, "NextEligible",
                "sleeping up to 50ms after getting BUSY from all %d chunks",
                static_cast<int>(scheduler->m_busySkip));
    if (!CondTimedWait(&scheduler->wakeup, NowMicroseconds() + kBusyBackOffMicroseconds)) {
      if (!__atomic_exchange_n(&g_unexpectedBusyReported, true, __ATOMIC_ACQ_REL))
        zulKestPrintf("KEST2 WARNING: An unexpected busy state was hit while scheduling!\n");
      ForgetBusy(scheduler);
      break;
    }
  }

  ChunkLocker lock;
  ChunkID taken = scheduler->readyHintCount != 0 ? TakeHinted(scheduler) : CHUNKID_INVALID;
  for (uint64_t i = scheduler->m_busySkip; taken == CHUNKID_INVALID && i < scheduler->m_queueCount;
       ++i) {
    if (SkipAsBusy(scheduler, QueueAt(scheduler, i))) {
      ++scheduler->m_busySkip;
    } else {
      taken = Take(scheduler, i);
    }
  }
  if (TraceEnabled(kTraceSched)) {
    char dump[kDumpBufferSize];
    TraceLine(kTraceSched, "NextEligible", "%s", DumpChunk(taken, dump, sizeof(dump)));
    PrintQueue(scheduler);
  }
  return taken;
}

// Watches the wake-up sequence without the mutex, for a while; true when a
// wake-up came meanwhile.  A request stream that comes back within the
// window never pays for sleeping.  Only one thread of a scheduler spins, so
// the others sleep and leave the cores to the threads with work.
bool SpinForWakeUp(Scheduler* scheduler) REQUIRES(scheduler->mutex) {
  if (scheduler->threadSpinning) return false;
  scheduler->threadSpinning = true;
  const uint32_t seen = __atomic_load_n(&scheduler->wakeSequence, __ATOMIC_RELAXED);
  MutexUnlock(&scheduler->mutex);
  SpinBeforeSleep([scheduler, seen] {
    return __atomic_load_n(&scheduler->wakeSequence, __ATOMIC_ACQUIRE) != seen;
  });
  MutexLock(&scheduler->mutex);
  scheduler->threadSpinning = false;
  return __atomic_load_n(&scheduler->wakeSequence, __ATOMIC_RELAXED) != seen;
}

}  // namespace

void WakeThreads(Scheduler* scheduler, bool all) {
  __atomic_add_fetch(&scheduler->wakeSequence, 1, __ATOMIC_RELEASE);
  if (all) {
    CondBroadcast(&scheduler->wakeup);
  } else if (!scheduler->threadSpinning) {
    // A spinning thread takes the work without a sleeper woken for it.
    CondSignal(&scheduler->wakeup);
  }
}

namespace {

void SchedulerThread(void* argument) {
  Scheduler* scheduler = static_cast<Scheduler*>(argument);
  KEST2_TRACE(kTraceSched, "Thread", "%s", "starting");
  MutexLock(&scheduler->mutex);
  for (;;) {
    if (scheduler->shuttingDown && scheduler->m_queueCount == 0) break;
    if (__atomic_load_n(&scheduler->activeThreads, __ATOMIC_ACQUIRE) < scheduler->threadCount &&
        SuspendCount() <= 0) {
      // The callback thread has a core: the urgent roots ready now are
      // about to run.
      if (__atomic_load_n(&scheduler->urgentRootReady, __ATOMIC_RELAXED) != 0)
        __atomic_store_n(&scheduler->urgentRootReady, 0u, __ATOMIC_RELAXED);
      const ChunkID c = NextEligible(scheduler);
      if (c != CHUNKID_INVALID) {
        __atomic_add_fetch(&scheduler->activeThreads, 1, __ATOMIC_ACQ_REL);
        ExecuteChunk(scheduler, c, false);
        __atomic_sub_fetch(&scheduler->activeThreads, 1, __ATOMIC_ACQ_REL);
        continue;
      }
    }
    if (scheduler->shuttingDown && scheduler->m_queueCount == 0) break;
    KEST2_TRACE(kTraceSched, "Thread", "%s", "waiting");
    if (SpinForWakeUp(scheduler)) {
      // Kicked while watching: look at the queue again.
    } else if (scheduler->m_busySkip == 0) {
      CondWait(&scheduler->wakeup);
    } else if (!CondTimedWait(&scheduler->wakeup, NowMicroseconds() + kBusyBackOffMicroseconds)) {
      // Chunks were skipped as busy or waiting.  Their kick normally wakes
      // this thread; should one have been missed (a chunk that came back
      // busy just as the thing it waited for was released), look again
      // rather than sleep on them forever.
      ForgetBusy(scheduler);
    }
    KEST2_TRACE(kTraceSched, "Thread", "%s", "woke up");
  }
  KEST2_TRACE(kTraceSched, "Thread", "%s", "shutting down");
  MutexUnlock(&scheduler->mutex);
}

void StopThreads(Scheduler* scheduler, int count) {
  MutexLock(&scheduler->mutex);
  scheduler->shuttingDown = true;
  WakeThreads(scheduler, true);
  MutexUnlock(&scheduler->mutex);
  for (int i = 0; i < count; ++i) JoinThread(&scheduler->threads[i]);
}

void DestroySchedulerLocks(Scheduler* scheduler) {
  CondDestroy(&scheduler->queueFull);
  CondDestroy(&scheduler->wakeup);
  MutexDestroy(&scheduler->mutex);
}

int32_t CreateScheduler(Scheduler* scheduler, const char* prefix, MatchPathFunction match,
                        ChunkRunner run) {
  if (scheduler->initialized) return ZUL_KEST_OK;
  const bool isCallback = scheduler == &g_callbackScheduler;
  scheduler->threadCount = isCallback ? 1 : static_cast<int32_t>(g_KestParams.ioThreadCount);
  scheduler->next = nullptr;
  scheduler->pathPrefix = prefix;
  scheduler->prefixLength = std::strlen(prefix);
  scheduler->activeThreads = 0;
  scheduler->shuttingDown = false;
  scheduler->matchPath = match;
  scheduler->run = run;
  MutexInitialize(&scheduler->mutex, 0, "ZulKestScheduler");
  CondInitialize(&scheduler->wakeup, &scheduler->mutex, "ZulKestSchedulerWakeup");
  CondInitialize(&scheduler->queueFull, &scheduler->mutex, "ZulKestSchedulerQueueFull");
  {
    // No thread can see the scheduler yet; the lock is for the analysis.
    MutexLocker lock(&scheduler->mutex);
    ResetSchedulerModel(scheduler);
    scheduler->queueHighWater = 0;
    scheduler->kickCount = 0;
    scheduler->busyCount = 0;
    scheduler->holdsBusy = false;
  }

  // I/O threads use the first entry of the thread parameters, the callback
  // thread the third.
  const int paramIndex = isCallback ? 2 : 0;
  HybPlatformThreadParams params;
  std::memset(&params, 0, sizeof(params));
  if (isCallback) {
    std::snprintf(params.name, sizeof(params.name), "ZulKestCallback");
  } else if (scheduler->prefixLength == 0) {
    std::snprintf(params.name, sizeof(params.name), "ZulKestIO");
  } else {
    std::snprintf(params.name, sizeof(params.name), "ZulKestIO %s", prefix);
  }
  params.stackSize = g_KestParams.threadStackSize[paramIndex];
  params.affinityMask = g_KestParams.threadAffinity[paramIndex];
  params.priority = g_KestParams.threadPriority[paramIndex];
  for (int i = 0; i < scheduler->threadCount; ++i) {
    const int32_t result =
        CreateThread(&scheduler->threads[i], &params, SchedulerThread, scheduler);
    if (result != ZUL_KEST_OK) {
      StopThreads(scheduler, i);
      DestroySchedulerLocks(scheduler);
      return result;
    }
  }
  scheduler->initialized = true;
  scheduler->next = g_schedulerList;
  __atomic_store_n(&g_schedulerList, scheduler, __ATOMIC_RELEASE);
  return ZUL_KEST_OK;
}

// Tells a running scheduler's threads to leave once its queue is empty.
void MarkShuttingDown(Scheduler* scheduler) {
  if (!scheduler->initialized) return;
  MutexLock(&scheduler->mutex);
  scheduler->shuttingDown = true;
  WakeThreads(scheduler, true);
  MutexUnlock(&scheduler->mutex);
}

void JoinSchedulerThreads(Scheduler* scheduler) {
  if (!scheduler->initialized) return;
  for (int i = 0; i < scheduler->threadCount; ++i) JoinThread(&scheduler->threads[i]);
}

// REQUIRES: the scheduler's threads have been joined.
void StopScheduler(Scheduler* scheduler) {
  if (!scheduler->initialized) return;
  DestroySchedulerLocks(scheduler);
  scheduler->initialized = false;
  __atomic_store_n(&g_schedulerList, scheduler->next, __ATOMIC_RELEASE);
}

// Start-up failures stop what was made so far, newest first.
void StopRunningScheduler(Scheduler* scheduler) {
  MarkShuttingDown(scheduler);
  JoinSchedulerThreads(scheduler);
  StopScheduler(scheduler);
}

// Nothing queued and nothing executing anywhere: a chunk that is running can
// still queue or kick work.
bool Quiescent() {
  for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) {
    MutexLock(&s->mutex);
    const bool quiet =
        s->m_queueCount == 0 && __atomic_load_n(&s->activeThreads, __ATOMIC_ACQUIRE) == 0;
    MutexUnlock(&s->mutex);
    if (!quiet) return false;
  }
  return true;
}

}  // namespace

Scheduler* SchedulerListHead() { return __atomic_load_n(&g_schedulerList, __ATOMIC_ACQUIRE); }
Scheduler* CallbackScheduler() { return &g_callbackScheduler; }
Scheduler* AllOtherScheduler() { return &g_allOtherScheduler; }

int32_t StartSchedulers(ChunkRunner ioRunner) {
  int32_t result = CreateScheduler(&g_callbackScheduler, "", PrefixMatch, ExecuteBase);
  if (result != ZUL_KEST_OK) return result;
  result = CreateScheduler(&g_allOtherScheduler, "", PrefixMatch, ioRunner);
  if (result != ZUL_KEST_OK) {
    StopRunningScheduler(&g_callbackScheduler);
    return result;
  }
  result = LoadSystemModule(kDiscMapModuleId);
  if (result != ZUL_KEST_OK) {
    StopRunningScheduler(&g_allOtherScheduler);
    StopRunningScheduler(&g_callbackScheduler);
    return result;
  }
  if (g_KestParams.schedulerCount >= 2) {
    result = CreateScheduler(&g_hddScheduler, "/", HardDiskMatch, ioRunner);
    if (result != ZUL_KEST_OK) {
      StopRunningScheduler(&g_allOtherScheduler);
      UnloadSystemModule(kDiscMapModuleId);
      StopRunningScheduler(&g_callbackScheduler);
      return result;
    }
  }
  return ZUL_KEST_OK;
}

void ShutdownSchedulers() {
  int64_t delay = 1;
  while (!SchedulersIdle()) {
    KEST2_TRACE(kTraceSched, "Shutdown", "waiting %dms for idle", static_cast<int>(delay));
    SleepMilliseconds(delay);
    delay = delay * 2 < kIdleWaitMaxMilliseconds ? delay * 2 : kIdleWaitMaxMilliseconds;
  }
  // The last chunks may still be running and kicking other schedulers: no
  // scheduler goes away before every thread of every one has left.
  while (!Quiescent()) SleepMilliseconds(1);
  Scheduler* const order[] = {&g_hddScheduler, &g_allOtherScheduler, &g_callbackScheduler};
  for (Scheduler* scheduler : order) MarkShuttingDown(scheduler);
  for (Scheduler* scheduler : order) JoinSchedulerThreads(scheduler);
  StopScheduler(&g_hddScheduler);
  StopScheduler(&g_allOtherScheduler);
  UnloadSystemModule(kDiscMapModuleId);
  StopScheduler(&g_callbackScheduler);
}

bool SchedulersIdle() {
  uint64_t queued = 0;
  for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) {
    MutexLock(&s->mutex);
    queued += s->m_queueCount;
    MutexUnlock(&s->mutex);
  }
  return queued == 0;
}

int32_t ExecuteChunk(Scheduler* scheduler, ChunkID id, bool fastPath) REQUIRES(scheduler->mutex) {
  const PositionKey before{scheduler->lastHandle, scheduler->lastEnd};
  int32_t result = ZUL_KEST_OK;
  if (HasLinked(id)) {
    result = CallLinked(id, 1);
    if (result == ZUL_KEST_ERROR_CANCELLED) {
      // Refused as cancelled: the chunk goes the way of a cancelled one,
      // through Execute's skip, which keeps its handle's count of pending
      // I/O right.
      ChunkLocker lock;
      StoreChunkFlags(ChunkAt(id), LoadChunkFlags(ChunkAt(id)) | kChunkCancelled);
    } else if (result == ZUL_KEST_ERROR_RETRY) {
      ++scheduler->busyCount;
    } else if (result == ZUL_KEST_OK && scheduler->takePosition != 0 && scheduler->busyCount != 0) {
      // Chunks ahead of this one are busy: give the claim back and let
      // them go first.
      CallLinked(id, 2);
      if (!fastPath) PutBack(scheduler, id, true);
      ++scheduler->busyCount;
      scheduler->holdsBusy = true;
      __atomic_store_n(&scheduler->runningFinish, ZulKestTime{0}, __ATOMIC_RELAXED);
      ClearExecuting(id);
      return ZUL_KEST_ERROR_RETRY;
    }
  }

  const ZulKestTime start = zulKestTimeGetCurrent();
  EstimateState state{};
  state.clock = start;
  state.head = before;
  EstimateStep(scheduler, id, kOnTime, &state);
  __atomic_store_n(&scheduler->runningFinish, state.clock, __ATOMIC_RELAXED);
  scheduler->lastHandle = static_cast<int32_t>(state.head.handle);
  scheduler->lastEnd = state.head.position;
  const int32_t kicksBefore = scheduler->kickCount;
  const bool kicksItself = CallbackKicksItself(id);
  const bool readiesOnlyByCompleting =
      kicksItself || ChunkAt(id)->type == CHUNK_ROOT || ChunkAt(id)->type == CHUNK_NULL;
  MutexUnlock(&scheduler->mutex);

  if (result == ZUL_KEST_OK || (result == ZUL_KEST_ERROR_CANCELLED &&
                                (LoadChunkFlags(ChunkAt(id)) & kChunkCancelled) != 0)) {
    result = Execute(id, scheduler->run);
    if (result == ZUL_KEST_OK && HasLinked(id)) CallLinked(id, kLinkedEventRan);
  }
  if (__atomic_load_n(&scheduler->activeThreads, __ATOMIC_ACQUIRE) < 2)
    __atomic_store_n(&scheduler->runningFinish, ZulKestTime{0}, __ATOMIC_RELAXED);

  if (result == ZUL_KEST_ERROR_RETRY) {
    MutexLock(&scheduler->mutex);
    if (!kicksItself) scheduler->holdsBusy = true;
    if (!fastPath) {
      // Known busy unless a kick came meanwhile, or a callback's children
      // have all completed already (it may have linked finished ones: no
      // completion will name it).
      const bool waitsForChildren =
          ChunkAt(id)->type != CHUNK_CALLBACK || !AllChildrenCompleted(id);
      PutBack(scheduler, id, scheduler->kickCount == kicksBefore && waitsForChildren);
    }
    ClearExecuting(id);
    return ZUL_KEST_ERROR_RETRY;
  }

  // One hold of the chunk lock for everything the completion reads and
  // changes in the tree (the calls below take it again, cheaply).
  uint32_t kick = 0;
  ReadyParents ready;
  Measured measured;
  ZulKestTime elapsed;
  {
    ChunkLocker lock;
    if (!fastPath) kick = SchedulersToKick(scheduler, id);
    measured = Measure(id);
    const bool isRoot = CompleteChunk(id, result, &ready);
    const ZulKestTime now = zulKestTimeGetCurrent();
    elapsed = now - start;
    if (isRoot) ReleaseFinishedRoot(id);
    if (!fastPath && scheduler != &g_callbackScheduler && ReadiedUrgentRoot(ready, now))
      __atomic_store_n(&g_callbackScheduler.urgentRootReady, 1u, __ATOMIC_RELAXED);
  }
  // A caller's chunk kicks only the queues it made ready (its own is
  // kicked below); a thread's kicks those that may wait on it.
  KickPlaces(fastPath ? ready.places & ~PlaceBit(scheduler) : kick, ready);

  MutexLock(&scheduler->mutex);
  Learn(scheduler, measured, elapsed, before);
  if (scheduler == &g_callbackScheduler && readiesOnlyByCompleting) {
    // A root, or a callback that kicks itself, readies nothing but through
    // its completion, which named what it readied.
    KickReadiedHeld(scheduler, ready);
  } else {
    ForgetBusy(scheduler);
    // A chunk run by a caller may have readied queued ones (an open, say).
    if (fastPath) KickHeld(scheduler, true);
  }
  // An I/O thread with more work queued would keep its core while the
  // callback thread waits for one: with as many busy I/O threads as cores,
  // the kernel lets the running thread finish its time slice first
  // (milliseconds), and every operation completed meanwhile waits as long.
  // While a root due within a few time slices is ready, every I/O thread
  // that finishes a chunk hands its core over (the callback thread may be
  // queued behind either).  Not for the others: a yield per completion
  // costs the callback thread its batching (at 1024 reads in flight, a
  // third of the throughput).  With nothing queued the I/O thread is about
  // to go idle anyway.
  if (!fastPath && scheduler != &g_callbackScheduler &&
      __atomic_load_n(&g_callbackScheduler.urgentRootReady, __ATOMIC_RELAXED) != 0 &&
      scheduler->m_queueCount != 0) {
    MutexUnlock(&scheduler->mutex);
    YieldProcessor();
    MutexLock(&scheduler->mutex);
  }
  return ZUL_KEST_OK;
}

int32_t ExecuteChunkOutsideThreads(Scheduler* scheduler, ChunkID id, bool fastPath) {
  __atomic_add_fetch(&scheduler->activeThreads, 1, __ATOMIC_ACQ_REL);
  const int32_t result = ExecuteChunk(scheduler, id, fastPath);
  __atomic_sub_fetch(&scheduler->activeThreads, 1, __ATOMIC_ACQ_REL);
  if (scheduler->m_queueCount != 0) WakeThreads(scheduler, true);
  return result;
}

void Kick(Scheduler* scheduler) {
  MutexLock(&scheduler->mutex);
  KickHeld(scheduler, true);
  MutexUnlock(&scheduler->mutex);
}

void KickChunks(Scheduler* scheduler, const ChunkID* ids, uint32_t count) {
  ReadyParents ready;
  ready.places = PlaceBit(scheduler);
  ready.count = count;
  for (uint32_t i = 0; i < count && i < kReadyParentIds; ++i) ready.ids[i] = ids[i];
  KickAfterCompletion(scheduler, ready);
}

void KickAllSchedulers() {
  for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) Kick(s);
}

void KickBusyChunks() {
  const ReadyParents none;
  for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) KickAfterCompletion(s, none);
}

}  // namespace kest2
