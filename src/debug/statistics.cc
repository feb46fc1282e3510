// Storage and queue statistics: how full the caller's storage and the
// scheduler queues are now and at their worst since start-up or the last
// reset.  A snapshot for developers; reading it never blocks the engine for
// longer than one queue's mutex hold.

#include <cstring>
#include <initializer_list>

#include "cache/ram_cache.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/pool.h"
#include "debug/trace.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

void FillPoolEntry(const Pool* pool, ZulKestStatisticsEntry* entry) {
  entry->current = PoolAllocatedCount(pool);
  entry->highWater = PoolHighWater(pool);
  entry->maxAvailable = pool->capacity;
  entry->bytesPerUnit = pool->unit;
}

void FillQueueEntry(Scheduler* scheduler, ZulKestStatisticsEntry* entry) {
  MutexLock(&scheduler->mutex);
  entry->current = scheduler->m_queueCount;
  entry->highWater = scheduler->queueHighWater;
  MutexUnlock(&scheduler->mutex);
  entry->maxAvailable = kQueueSize;
  entry->bytesPerUnit = sizeof(ChunkID);
}

void PrintEntry(const char* label, const ZulKestStatisticsEntry& entry) {
  zulKestPrintf("  %18s    current   %5lld highWater  %7lld bytesPerUnit %4lld  max available %8lld\n",
                label, static_cast<long long>(entry.current),
                static_cast<long long>(entry.highWater),
                static_cast<long long>(entry.bytesPerUnit),
                static_cast<long long>(entry.maxAvailable));
}

}  // namespace
}  // namespace kest2

using namespace kest2;

extern "C" void zulKestStatisticsGet(ZulKestStatistics* pStatistics) {
  KEST2_TRACE_API("zulKestStatisticsGet");
  if (pStatistics == nullptr) return;
  std::memset(pStatistics, 0, sizeof(*pStatistics));
  if (!IsInitialized()) return;
  FillPoolEntry(&g_handleTables[kOpTable], &pStatistics->opStorage);
  FillPoolEntry(&g_handleTables[kFhTable], &pStatistics->fhStorage);
  FillPoolEntry(&g_handleTables[kDhTable], &pStatistics->dhStorage);
  FillPoolEntry(ChunkPool(), &pStatistics->chunkStorage);
  // The I/O queues in list order (the HDD queue first when it exists); the
  // callback scheduler ends the list.
  int queue = 0;
  for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) {
    if (s == CallbackScheduler()) {
      FillQueueEntry(s, &pStatistics->callbackQueue);
    } else if (queue < 2) {
      FillQueueEntry(s, &pStatistics->ioQueue[queue++]);
    }
  }
}

extern "C" void zulKestStatisticsReset(void) {
  KEST2_TRACE_API("zulKestStatisticsReset");
  if (!IsInitialized()) return;
  for (HandleTableId table : {kOpTable, kFhTable, kDhTable}) PoolResetHighWater(&g_handleTables[table]);
  PoolResetHighWater(ChunkPool());
  for (Scheduler* s = SchedulerListHead(); s != nullptr; s = s->next) {
    MutexLock(&s->mutex);
    s->queueHighWater = s->m_queueCount;
    MutexUnlock(&s->mutex);
  }
}

extern "C" void zulKestStatisticsPrint(void) {
  KEST2_TRACE_API("zulKestStatisticsPrint");
  zulKestPrintf("Current KEST statistics:\n");
  if (!IsInitialized()) {
    zulKestPrintf("KEST is not initialized\n");
    return;
  }
  ZulKestStatistics statistics;
  zulKestStatisticsGet(&statistics);
  PrintEntry("opStorage", statistics.opStorage);
  PrintEntry("fhStorage", statistics.fhStorage);
  PrintEntry("dhStorage", statistics.dhStorage);
  PrintEntry("chunkStorage", statistics.chunkStorage);
  // Labelled by position: the first of two I/O queues is the HDD queue, the
  // last always the all-other queue (so a single queue is that one).
  const int queues = static_cast<int>(g_KestParams.schedulerCount);
  for (int i = 0; i < queues && i < 2; ++i) {
    PrintEntry(i == queues - 1 ? "All other IO queue" : "HDD IO queue", statistics.ioQueue[i]);
  }
  PrintEntry("schedCallbackQueue", statistics.callbackQueue);
  PrintCacheStatistics();
}
