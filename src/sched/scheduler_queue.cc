// The scheduler's ring of chunk ids: see scheduler.h.

#include <cstring>
#include <initializer_list>

#include "debug/trace.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

inline uint64_t Slot(const Scheduler* scheduler, uint64_t index) REQUIRES(scheduler->mutex) {
  return (scheduler->queuePosition + index) % kQueueSize;
}

}  // namespace

void ResetSchedulerModel(Scheduler* scheduler) REQUIRES(scheduler->mutex) {
  for (ZulKestTime& estimate : scheduler->typeEstimate) estimate = 100000;
  for (uint8_t type : {CHUNK_FH_READ, CHUNK_FH_WRITE, CHUNK_FH_BARRIER, CHUNK_FH_SYNC})
    scheduler->typeEstimate[type] = 6250000;
  scheduler->seekEstimate[0] = 1000000;
  scheduler->seekEstimate[1] = 50000;
  scheduler->lastHandle = -1;
  scheduler->lastEnd = 0;
  scheduler->runningFinish = 0;
  std::memset(scheduler->queue, 0, sizeof(scheduler->queue));
  scheduler->queuePosition = 0;
  scheduler->m_queueCount = 0;
  scheduler->m_busySkip = 0;
  scheduler->readyHintCount = 0;
  scheduler->takePosition = 0;
  scheduler->removeHint = 0;
  RebuildQueueSummary(scheduler);
}

ChunkID QueueAt(const Scheduler* scheduler, uint64_t index) {
  return scheduler->queue[Slot(scheduler, index)];
}

void ShiftQueue(Scheduler* scheduler, uint64_t start, uint64_t length, int64_t shift) {
  if (length == 0 || shift == 0) return;
  const char* how;
  const uint64_t from = Slot(scheduler, start);
  const uint64_t to = (from + kQueueSize + static_cast<uint64_t>(shift % static_cast<int64_t>(kQueueSize))) % kQueueSize;
  if (length == 1) {
    scheduler->queue[to] = scheduler->queue[from];
    how = "single";
  } else if (from + length <= kQueueSize && to + length <= kQueueSize) {
    std::memmove(&scheduler->queue[to], &scheduler->queue[from], length * sizeof(ChunkID));
    how = "memmove";
  } else if (shift > 0) {
    for (uint64_t i = length; i-- > 0;) {
      scheduler->queue[(to + i) % kQueueSize] = scheduler->queue[(from + i) % kQueueSize];
    }
    how = "item-by-item right shift";
  } else {
    for (uint64_t i = 0; i < length; ++i) {
      scheduler->queue[(to + i) % kQueueSize] = scheduler->queue[(from + i) % kQueueSize];
    }
    how = "item-by-item left shift";
  }
  KEST2_TRACE(kTraceSched, "Shift", "start=%d, len=%d, shift=%d (%s)", static_cast<int>(start),
              static_cast<int>(length), static_cast<int>(shift), how);
  PrintQueue(scheduler);
}

void InsertIntoQueue(Scheduler* scheduler, uint64_t index, ChunkID id) {
  const uint64_t count = scheduler->m_queueCount;
  if (index == 0 && count != 0) {
    // The front moves back one slot.
    scheduler->queuePosition = (scheduler->queuePosition + kQueueSize - 1) % kQueueSize;
  } else {
    ShiftQueue(scheduler, index, count - index, +1);
  }
  scheduler->queue[Slot(scheduler, index)] = id;
  scheduler->m_queueCount = count + 1;
  if (scheduler->m_queueCount > scheduler->queueHighWater)
    scheduler->queueHighWater = scheduler->m_queueCount;
  if (index < scheduler->takePosition) ++scheduler->takePosition;
  if (index < scheduler->m_busySkip) {
    // Not known busy: the prefix keeps its entries and names this one.
    ++scheduler->m_busySkip;
    if (!AddReadyHint(scheduler, id)) scheduler->m_busySkip = index;
  }
}

void RemoveFromQueue(Scheduler* scheduler, uint64_t index) {
  // The entries before it move one place back, so the front advances.
  ShiftQueue(scheduler, 0, index, +1);
  scheduler->queue[scheduler->queuePosition] = 0;
  scheduler->queuePosition = (scheduler->queuePosition + 1) % kQueueSize;
  scheduler->m_queueCount -= 1;
  // Every thread waiting for room is woken: the count passes the mark once
  // on its way down, and a waiter left asleep then would sleep for good.
  if (scheduler->m_queueCount == kQueueFullCount) CondBroadcast(&scheduler->queueFull);
}

bool AddReadyHint(Scheduler* scheduler, ChunkID id) {
  if (scheduler->m_busySkip == 0) return true;  // the next look sees everything
  for (uint32_t i = 0; i < scheduler->readyHintCount; ++i) {
    if (scheduler->readyHints[i] == id) return true;
  }
  if (scheduler->readyHintCount == kReadyHints) return false;
  scheduler->readyHints[scheduler->readyHintCount++] = id;
  return true;
}

bool TakeReadyHint(Scheduler* scheduler, ChunkID id) {
  for (uint32_t i = 0; i < scheduler->readyHintCount; ++i) {
    if (scheduler->readyHints[i] != id) continue;
    scheduler->readyHints[i] = scheduler->readyHints[--scheduler->readyHintCount];
    return true;
  }
  return false;
}

void PrintQueue(const Scheduler* scheduler) {
  if (!TraceEnabled(kTraceSched)) return;
  TraceLine(kTraceSched, "PrintQueue", "queueCount=%d, queuePosition=%d, QUEUE_SIZE=%d",
            static_cast<int>(scheduler->m_queueCount), static_cast<int>(scheduler->queuePosition),
            static_cast<int>(kQueueSize));
  for (uint64_t block = 0; block < kQueueSize; block += 16) {
    const ChunkID* q = &scheduler->queue[block];
    bool used = false;
    for (int i = 0; i < 16; ++i) used = used || q[i] != 0;
    if (!used) continue;
    TraceLine(kTraceSched, "PrintQueue",
              "[%d-%d]  %d %d %d %d  %d %d %d %d  %d %d %d %d  %d %d %d %d",
              static_cast<int>(block), static_cast<int>(block + 15), q[0], q[1], q[2], q[3], q[4],
              q[5], q[6], q[7], q[8], q[9], q[10], q[11], q[12], q[13], q[14], q[15]);
  }
}

}  // namespace kest2
