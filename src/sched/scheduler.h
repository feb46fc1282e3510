// A scheduler: one queue of chunks, kept in the order that misses the fewest
// deadlines, and the threads that run them.
//
// There is one scheduler for operation roots and callback chunks and one or
// two for file-system chunks.  The queue is a fixed ring of chunk ids inside
// the record: logical index i (0 = front) lives at physical slot
// (queuePosition + i) mod kQueueSize; vacated slots hold 0 (the global
// root, which is never queued).  A new file-system chunk is placed by
// simulating the queue with a time model (per-type duration estimates and
// seek costs between media positions) and choosing the place with the
// fewest missed deadlines, then the earliest finish.
//
// Thread-safety: the fields marked GUARDED_BY are the mutex's; the rest are
// set before the threads start or changed atomically.  Lock order: see
// GlobalLocks (core/globals.h).
#ifndef KEST2_SRC_SCHED_SCHEDULER_H_
#define KEST2_SRC_SCHED_SCHEDULER_H_

#include <cstdint>

#include "core/platform.h"
#include "core/stored_path.h"
#include "sched/chunk.h"
#include "sched/execute.h"

namespace kest2 {

constexpr uint64_t kQueueSize = 8192;
// The queue is full above this count, so it holds at most 8191 entries.
constexpr uint64_t kQueueFullCount = 8190;
constexpr int kMaxSchedulerThreads = 3;
// Entries of the known-busy prefix of a queue named for another look.
constexpr uint32_t kReadyHints = 8;

// Lateness of a chunk that meets its deadline: below every priority.
constexpr int32_t kOnTime = -129;

struct Scheduler;
using MatchPathFunction = bool (*)(const Scheduler* scheduler, const StoredPath* path,
                                   int64_t offset, int64_t length);

// FindInsertPosition's working space, one entry per queue index (used under
// the scheduler mutex; see insert_position.cc).
struct InsertScratch {
  int64_t slack[kQueueSize];        // deadline minus simulated finish, as queued
  int64_t shift[kQueueSize];        // finish-time shift behind a candidate index
  uint32_t misses[kQueueSize];      // misses up to and including the entry there
  uint16_t order[kQueueSize];       // indices within reach of the shifts, by slack
  uint16_t rank[kQueueSize];        // place of such an index in `order`
  uint16_t counts[kQueueSize + 1];  // Fenwick tree over those ranks
  int16_t lateness[kQueueSize];     // the new chunk's lateness at a candidate
  int8_t priority[kQueueSize];      // the entry's priority
  uint8_t flags[kQueueSize];
  int64_t prioritySlack[512];  // minimum slack per priority, as a segment tree
};

// What placement needs to know of an I/O queue without walking it, kept in
// step by QueueChunk and UnqueueChunk and rebuilt by every full placement
// search.  It lets placement prove in O(1) the common case: every queued
// chunk and the new one meet their deadlines wherever it goes, no place
// saves a seek, so the back wins (see insert_position.cc).
constexpr uint32_t kStreamBuckets = 4096;
struct QueueSummary {
  uint64_t count;                          // entries accounted; != queue count: not in step
  uint32_t sameStreamPairs;                // neighbours both positioned on one stream
  uint32_t positioned;                     // positioned entries
  uint32_t unpositioned[kChunkTypeCount];  // the other entries, per type
  int64_t transferBytes[kChunkTypeCount];  // bytes of the positioned entries, per type
  ZulKestTime minDeadline;                 // no queued deadline is earlier
  uint16_t streams[kStreamBuckets];        // positioned entries per stream hash
};

struct Scheduler {
  int32_t threadCount;
  Scheduler* next;            // next in the global list
  HybPlatformMutex mutex;     // "ZulKestScheduler"
  HybPlatformCond wakeup;     // "ZulKestSchedulerWakeup"
  HybPlatformCond queueFull;  // "ZulKestSchedulerQueueFull"
  HybPlatformThreadStart threads[kMaxSchedulerThreads];
  const char* pathPrefix;  // "" or "/"
  uint64_t prefixLength;
  ChunkID queue[kQueueSize] GUARDED_BY(mutex);
  uint64_t queuePosition GUARDED_BY(mutex);  // physical slot of the front
  uint64_t m_queueCount GUARDED_BY(mutex);
  uint64_t queueHighWater GUARDED_BY(mutex);
  uint64_t m_busySkip GUARDED_BY(mutex);              // leading entries known blocked or busy,
  ChunkID readyHints[kReadyHints] GUARDED_BY(mutex);  // but for those named here
  uint32_t readyHintCount GUARDED_BY(mutex);
  int32_t kickCount GUARDED_BY(mutex);
  uint64_t busyCount GUARDED_BY(mutex);
  bool holdsBusy GUARDED_BY(mutex);  // a chunk answered busy since the last wake-up by a kick
  uint64_t takePosition GUARDED_BY(mutex);
  uint64_t removeHint GUARDED_BY(mutex);
  int32_t activeThreads;                  // chunks executing for this scheduler
  uint32_t wakeSequence;                  // bumped by every wake-up (atomic)
  // Callback scheduler: set when an I/O thread readies a root due soon,
  // cleared each time the callback thread looks for work (atomic).
  uint32_t urgentRootReady;
  bool threadSpinning GUARDED_BY(mutex);  // one idle thread watches wakeSequence
  bool initialized;
  bool shuttingDown;
  MatchPathFunction matchPath;
  ChunkRunner run;                       // the handler table
  int32_t lastHandle GUARDED_BY(mutex);  // position key of the chunk last started
  int64_t lastEnd GUARDED_BY(mutex);
  ZulKestTime runningFinish;  // estimated finish of that chunk, 0 idle
  ZulKestTime typeEstimate[kChunkTypeCount] GUARDED_BY(mutex);  // positioned: per 64 KiB
  ZulKestTime seekEstimate[2] GUARDED_BY(mutex);                // far seek; per 64 KiB of distance
  QueueSummary summary GUARDED_BY(mutex);
  InsertScratch insertScratch GUARDED_BY(mutex);
};

// Sets the time model to its initial estimates and empties the queue.
void ResetSchedulerModel(Scheduler* scheduler) REQUIRES(scheduler->mutex);

// --- The ring -------------------------------------------------------------

ChunkID QueueAt(const Scheduler* scheduler, uint64_t index) REQUIRES(scheduler->mutex);
// Moves logical entries start .. start+length-1 by shift places.
void ShiftQueue(Scheduler* scheduler, uint64_t start, uint64_t length, int64_t shift)
    REQUIRES(scheduler->mutex);
// Inserts at logical index, keeping the bookkeeping indexes in step.
void InsertIntoQueue(Scheduler* scheduler, uint64_t index, ChunkID id) REQUIRES(scheduler->mutex);
// Removes the entry at logical index; signals the queue-full condition when
// the count has just dropped to the full threshold.
void RemoveFromQueue(Scheduler* scheduler, uint64_t index) REQUIRES(scheduler->mutex);
// Traces the queue's occupied slots under "sched".
void PrintQueue(const Scheduler* scheduler) REQUIRES(scheduler->mutex);
// Names a chunk of the known-busy prefix for another look; false when the
// list is full (the caller then shortens the prefix instead).
bool AddReadyHint(Scheduler* scheduler, ChunkID id) REQUIRES(scheduler->mutex);
// Takes id off the list; false when it was not on it.
bool TakeReadyHint(Scheduler* scheduler, ChunkID id) REQUIRES(scheduler->mutex);

// --- The queue of chunks -------------------------------------------------

// InsertIntoQueue and RemoveFromQueue for I/O queues of live chunks: they
// keep the summary in step.
void QueueChunk(Scheduler* scheduler, uint64_t index, ChunkID id) REQUIRES(scheduler->mutex);
void UnqueueChunk(Scheduler* scheduler, uint64_t index) REQUIRES(scheduler->mutex);
// Recounts the summary from the queue.
void RebuildQueueSummary(Scheduler* scheduler) REQUIRES(scheduler->mutex);

// --- Placement ------------------------------------------------------------

// A positioned chunk's place on the media, for seek ordering.
struct PositionKey {
  int64_t handle;    // -2 once the media position is known, else the file handle
  int64_t position;  // media position, or the file offset
};

// The state of a simulated run of the queue.
struct EstimateState {
  ZulKestTime clock;
  PositionKey head;  // where the last positioned chunk ended
  uint32_t misses;
  uint32_t laterHigher;
  uint32_t laterEqual;
};

// A read or write that takes part in seek order.
bool IsPositionedTransfer(const ChunkHeader* chunk);
// Two keys of one stream: the same key handle and, for pseudo positions, the
// same file bits.
bool SameStream(const PositionKey& a, const PositionKey& b);
// Computes and stores a positioned chunk's media position.
void ComputeChunkPosition(ChunkID id);
PositionKey ChunkPositionKey(ChunkID id);
// The summary's stream bucket of a positioned chunk: keys of one stream
// share it.
uint32_t StreamBucket(ChunkID id);
// Advances the simulation by one chunk; returns its lateness (its priority
// when it misses its deadline, kOnTime otherwise).
int32_t EstimateStep(const Scheduler* scheduler, ChunkID id, int32_t referenceLateness,
                     EstimateState* state) REQUIRES(scheduler->mutex);
// The queue index at which the chunk misses the fewest deadlines.
uint64_t FindInsertPosition(Scheduler* scheduler, ChunkID id) REQUIRES(scheduler->mutex);

// Opt-in placement changes (ZUL_KEST_SCHEDULING_*), process-wide; 0, the
// default, is the placement described in insert_position.cc.
uint32_t PlacementOptions();
void SetPlacementOptions(uint32_t options);

// --- Scheduling (schedule.cc) ----------------------------------------------

// Chunk type codes of the profiling hook's scheduler events.
enum SchedulerEventKind : uint8_t {
  kEventScheduleTree = 9,
  kEventUnscheduleTree = 10,
  kEventAddToSchedule = 11,
  kEventRemoveFromSchedule = 12,
  kEventExecute = 13,
};

// Bit i set: the i-th scheduler of the list (0 for one not in it); a set of
// schedulers is a mask of these.
uint32_t PlaceBit(const Scheduler* wanted);
// Wakes one (all: every) idle thread of the scheduler, whether it sleeps or
// spins.
void WakeThreads(Scheduler* scheduler, bool all) REQUIRES(scheduler->mutex);

// The scheduler that runs the chunk (cached in the chunk's flags); null when
// none matches.
Scheduler* GetScheduler(ChunkID id);
// Adds a chunk tree to the queues, children before parents.  With
// permission, single steps run on the calling thread (the fast path) until
// the first one that has to be queued; opflags bit 0x1 lets opens, closes
// and stats take the fast path even when the queue is busy.
void ScheduleTree(ChunkID root, uint32_t opflags, bool fastPathPermission);
// Queues one chunk (or runs it on the fast path); true when it was executed
// there.
bool AddToSchedule(Scheduler* scheduler, ChunkID id, uint32_t opflags, bool fastPathPermission);
// Takes a tree's queued chunks out of the I/O queues.  With cancel, marks
// them cancelled and completes each removed one at once (without its I/O);
// a chunk shared with a parent that is not cancelled is left alone.
void UnscheduleTree(ChunkID id, bool cancel);
// Takes one queued chunk out of its scheduler's queue.
void RemoveFromSchedule(Scheduler* scheduler, ChunkID id);

// --- Threads and execution (scheduler_threads.cc) ------------------------

// Creates the callback scheduler, the all-other I/O scheduler and, with
// schedulerCount 2, the HDD I/O scheduler, each with its threads.  The I/O
// schedulers run their chunks with ioRunner (the native layer's handler
// table, handed down by initialisation).
int32_t StartSchedulers(ChunkRunner ioRunner);
// Waits until every queue is empty, then stops every scheduler.
void ShutdownSchedulers();
// True when every queue is empty.
bool SchedulersIdle();
// The global list, newest first; null before start-up.
Scheduler* SchedulerListHead();
// Calls visit(scheduler, its bit) for each scheduler of the set, in list
// order.
template <typename Visit>
void ForEachPlace(uint32_t places, Visit visit) {
  uint32_t bit = 1;
  for (Scheduler* s = SchedulerListHead(); s != nullptr && places != 0; s = s->next, bit <<= 1) {
    if ((places & bit) == 0) continue;
    places &= ~bit;
    visit(s, bit);
  }
}
Scheduler* CallbackScheduler();
Scheduler* AllOtherScheduler();
// Runs a taken chunk: entered and left with the scheduler mutex held, which
// is released while the chunk executes.  0, or ZUL_KEST_ERROR_RETRY when the
// chunk was busy and has been put back.
int32_t ExecuteChunk(Scheduler* scheduler, ChunkID id, bool fastPath);
// ExecuteChunk on a thread that is not one of the scheduler's own (the
// caller's fast path, a cancel): counted as active while it runs, and the
// scheduler's threads are woken afterwards, since one of them may have gone
// to sleep on a queued chunk because this execution filled the last slot.
int32_t ExecuteChunkOutsideThreads(Scheduler* scheduler, ChunkID id, bool fastPath)
    REQUIRES(scheduler->mutex);
// Wakes a scheduler's threads when its queue is not empty: something its
// chunks wait for may have changed.
void Kick(Scheduler* scheduler);
// A kick for queued chunks whose answer may have changed, and nothing
// else: when nothing of the queue is waiting for any change, only those
// chunks are looked at again.
void KickChunks(Scheduler* scheduler, const ChunkID* ids, uint32_t count);
inline void KickChunk(Scheduler* scheduler, ChunkID id) { KickChunks(scheduler, &id, 1); }
void KickAllSchedulers();
// Something a busy chunk waits for was given back: an I/O scheduler looks
// at its whole queue again, the callback scheduler only when one of its
// callbacks that does not kick itself answered busy.
void KickBusyChunks();
// True when the linked CHUNK_CALLBACK (or the chunk itself, when it is one)
// would answer busy now.
bool ChunkIsBusy(const Scheduler* scheduler, ChunkID id) REQUIRES(scheduler->mutex);

}  // namespace kest2

#endif  // KEST2_SRC_SCHED_SCHEDULER_H_
