// The I/O queue's summary: see QueueSummary in scheduler.h.
//
// Every count is exact for the chunks as they were when queued; a queued
// chunk's type, size, position and deadline do not change until it is
// taken out again (a reschedule takes the tree out and queues it anew).

#include <climits>
#include <cstring>

#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

// Both positioned and on one stream: the only neighbours whose seek is not
// the far seek.
bool SameStreamPair(ChunkID a, ChunkID b) {
  if (a == CHUNKID_INVALID || b == CHUNKID_INVALID) return false;
  if (!IsPositionedTransfer(ChunkAt(a)) || !IsPositionedTransfer(ChunkAt(b))) return false;
  return SameStream(ChunkPositionKey(a), ChunkPositionKey(b));
}

ChunkID EntryOrNone(const Scheduler* scheduler, uint64_t index, uint64_t count) REQUIRES(scheduler->mutex) {
  return index < count ? QueueAt(scheduler, index) : CHUNKID_INVALID;
}

// Adds (sign 1) or takes away (sign -1) one chunk's own counts.
void Account(QueueSummary* summary, ChunkID id, int sign) {
  const ChunkHeader* chunk = ChunkAt(id);
  if (IsPositionedTransfer(chunk)) {
    summary->positioned += sign;
    summary->transferBytes[chunk->type] += sign * ChunkRecord<ChunkFhIoRecord>(id)->reqCount;
    summary->streams[StreamBucket(id)] += sign;
  } else if (chunk->type < kChunkTypeCount) {
    summary->unpositioned[chunk->type] += sign;
  }
  if (sign > 0 && chunk->deadline < summary->minDeadline) summary->minDeadline = chunk->deadline;
  summary->count += sign;
}

}  // namespace

void QueueChunk(Scheduler* scheduler, uint64_t index, ChunkID id) {
  QueueSummary* summary = &scheduler->summary;
  const uint64_t count = scheduler->m_queueCount;
  if (summary->count == count) {
    const ChunkID before = index > 0 ? QueueAt(scheduler, index - 1) : CHUNKID_INVALID;
    const ChunkID after = EntryOrNone(scheduler, index, count);
    summary->sameStreamPairs += SameStreamPair(before, id) + SameStreamPair(id, after);
    summary->sameStreamPairs -= SameStreamPair(before, after);
    Account(summary, id, 1);
  }
  InsertIntoQueue(scheduler, index, id);
}

void UnqueueChunk(Scheduler* scheduler, uint64_t index) {
  QueueSummary* summary = &scheduler->summary;
  const uint64_t count = scheduler->m_queueCount;
  if (summary->count == count) {
    const ChunkID id = QueueAt(scheduler, index);
    const ChunkID before = index > 0 ? QueueAt(scheduler, index - 1) : CHUNKID_INVALID;
    const ChunkID after = EntryOrNone(scheduler, index + 1, count);
    summary->sameStreamPairs -= SameStreamPair(before, id) + SameStreamPair(id, after);
    summary->sameStreamPairs += SameStreamPair(before, after);
    Account(summary, id, -1);
    if (summary->count == 0) summary->minDeadline = LLONG_MAX;
  }
  RemoveFromQueue(scheduler, index);
}

void RebuildQueueSummary(Scheduler* scheduler) {
  QueueSummary* summary = &scheduler->summary;
  std::memset(summary, 0, sizeof(*summary));
  summary->minDeadline = LLONG_MAX;
  const uint64_t count = scheduler->m_queueCount;
  ChunkID before = CHUNKID_INVALID;
  for (uint64_t i = 0; i < count; ++i) {
    const ChunkID id = QueueAt(scheduler, i);
    summary->sameStreamPairs += SameStreamPair(before, id);
    Account(summary, id, 1);
    before = id;
  }
}

}  // namespace kest2
