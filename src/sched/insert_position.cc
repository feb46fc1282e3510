// Where a new chunk goes in an I/O scheduler's queue.
//
// Design note: the queue is simulated with a small time model.  Each chunk
// costs its type's estimated duration (for reads and writes, per 64 KiB)
// plus a seek: nothing when it continues where the previous positioned
// chunk ended, a cost per 64 KiB of distance within the same stream, a far
// seek otherwise.  A chunk is late when the simulated clock passes its
// deadline; its lateness is then its priority.  Every queue index is tried:
// an index is refused when it makes a later chunk late with a higher
// lateness than the new chunk's own, and among the rest the one with the
// fewest misses, then the earliest finish, wins.  Sequential reads of one
// stream skip the simulation and are appended.

#include <climits>
#include <cstdlib>
#include <cstring>

#include "api/records.h"
#include "core/disc_map.h"
#include "core/handletable.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

constexpr ZulKestTime kDefaultDeadlineDelay = 300000000000LL;  // 300 s
constexpr ZulKestTime kIdleStartDelay = 10000;                 // 10 us
constexpr int64_t kStreamAppendDistance = 32768;
constexpr ZulKestTime kMaxSeekCost = 1000000000;               // 1 s
constexpr uint64_t kPseudoPositionMask = 0x6FFFFFF000000000ULL;
constexpr uint64_t kStreamMask = 0xEFFFFFF000000000ULL;

bool IsTransfer(const ChunkHeader* chunk) {
  return chunk->type == CHUNK_FH_READ || chunk->type == CHUNK_FH_WRITE;
}

bool IsPositioned(const ChunkHeader* chunk) {
  return (LoadChunkFlags(chunk) & kChunkPositioned) != 0 && IsTransfer(chunk);
}

ZulKestTime SeekCost(const Scheduler* scheduler, const PositionKey& head, const PositionKey& key) {
  if (!SameStream(head, key)) return scheduler->seekEstimate[0];
  if (key.position == head.position) return 0;
  const uint64_t distance =
      key.position > head.position ? static_cast<uint64_t>(key.position) - static_cast<uint64_t>(head.position)
                                   : static_cast<uint64_t>(head.position) - static_cast<uint64_t>(key.position);
  const uint64_t steps = distance / 65536;
  const uint64_t perStep = static_cast<uint64_t>(scheduler->seekEstimate[1]);
  if (perStep != 0 && steps > static_cast<uint64_t>(kMaxSeekCost) / perStep) return kMaxSeekCost;
  const uint64_t cost = steps * perStep;
  return cost > static_cast<uint64_t>(kMaxSeekCost) ? kMaxSeekCost : static_cast<ZulKestTime>(cost);
}

struct Candidate {
  bool found = false;
  uint64_t index = 0;
  uint32_t misses = 0;
  ZulKestTime clock = 0;
};

}  // namespace

bool SameStream(const PositionKey& a, const PositionKey& b) {
  if (a.handle != b.handle) return false;
  if (a.position < 0 || b.position < 0) {
    return (static_cast<uint64_t>(a.position) & kStreamMask) ==
           (static_cast<uint64_t>(b.position) & kStreamMask);
  }
  return true;
}

void ComputeChunkPosition(ChunkID id) {
  ChunkHeader* chunk = ChunkAt(id);
  if (!IsTransfer(chunk)) return;
  ChunkFhIoRecord* io = reinterpret_cast<ChunkFhIoRecord*>(chunk);
  const FileHandle* file = Lookup<FileHandle>(kFhTable, io->h);
  if (file == nullptr) {
    io->position = 1;
    return;
  }
  int64_t out[3] = {0, 0, 0};
  if (DiscMapQueryPosition(GetPath(&file->path), io->offset, io->reqCount, out) == 0) {
    io->position = out[1] << 16;
    return;
  }
  // A pseudo position: the path digest keeps different files apart in the
  // high bits, the offset orders a file's own pieces.
  uint64_t digestBits;
  std::memcpy(&digestBits, file->path.digest, sizeof(digestBits));
  io->position = static_cast<int64_t>(((digestBits & kPseudoPositionMask) +
                                       static_cast<uint64_t>(io->offset)) |
                                      (uint64_t{1} << 63));
}

PositionKey ChunkPositionKey(ChunkID id) {
  const ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(id);
  if (io->position != INT64_MAX) return PositionKey{-2, io->position};
  return PositionKey{static_cast<int64_t>(io->h), io->offset};
}

int32_t EstimateStep(const Scheduler* scheduler, ChunkID id, int32_t referenceLateness,
                     EstimateState* state) {
  const ChunkHeader* chunk = ChunkAt(id);
  if (!IsPositioned(chunk)) {
    state->clock += scheduler->typeEstimate[chunk->type];
    state->head.handle = -1;
  } else {
    const PositionKey key = ChunkPositionKey(id);
    const int64_t reqCount = reinterpret_cast<const ChunkFhIoRecord*>(chunk)->reqCount;
    // Per-64-KiB estimate, split so that large requests cannot overflow.
    const ZulKestTime perPiece = scheduler->typeEstimate[chunk->type];
    state->clock += (reqCount / 65536) * perPiece + ((reqCount % 65536) * perPiece) / 65536 +
                    SeekCost(scheduler, state->head, key);
    state->head = PositionKey{key.handle, key.position + reqCount};
  }
  int32_t lateness = kOnTime;
  if (chunk->deadline < state->clock) {
    ++state->misses;
    lateness = chunk->priority;
  }
  if (lateness > referenceLateness) ++state->laterHigher;
  if (lateness == referenceLateness) ++state->laterEqual;
  return lateness;
}

uint64_t FindInsertPosition(Scheduler* scheduler, ChunkID id) {
  ChunkHeader* chunk = ChunkAt(id);
  const ZulKestTime now = zulKestTimeGetCurrent();
  {
    ChunkLocker lock;  // chunks below may already run and read it
    if (chunk->deadline == 0) chunk->deadline = now + kDefaultDeadlineDelay;
  }
  const uint64_t count = scheduler->m_queueCount;
  if (count == 0) return 0;

  // Stream append: the next piece of the read or write at the back.
  const ChunkID last = QueueAt(scheduler, count - 1);
  const ChunkHeader* lastChunk = ChunkAt(last);
  if (IsTransfer(chunk) && IsTransfer(lastChunk)) {
    const PositionKey key = ChunkPositionKey(id);
    const PositionKey lastKey = ChunkPositionKey(last);
    const int64_t lastEnd = lastKey.position + ChunkRecord<ChunkFhIoRecord>(last)->reqCount;
    if (key.handle == lastKey.handle && chunk->priority == lastChunk->priority &&
        lastChunk->deadline <= chunk->deadline &&
        std::llabs(key.position - lastEnd) < kStreamAppendDistance) {
      return count;
    }
  }

  EstimateState prefix{};
  const ZulKestTime running = __atomic_load_n(&scheduler->runningFinish, __ATOMIC_RELAXED);
  prefix.clock = running != 0 ? running : now + kIdleStartDelay;
  prefix.head = PositionKey{scheduler->lastHandle, scheduler->lastEnd};
  int32_t previousLateness = 128;
  Candidate best;
  for (uint64_t c = 0; c <= count; ++c) {
    EstimateState trial = prefix;
    const ZulKestTime before = trial.clock;
    const int32_t lateness = EstimateStep(scheduler, id, INT32_MAX, &trial);
    const ZulKestTime ownDuration = trial.clock - before;
    trial.laterHigher = 0;
    trial.laterEqual = 0;
    for (uint64_t i = c; i < count; ++i) EstimateStep(scheduler, QueueAt(scheduler, i), lateness, &trial);
    const bool rejected = trial.laterHigher != 0;
    const bool eligible = lateness <= previousLateness || trial.laterEqual != 0 || c == 0;
    if (!rejected && eligible) {
      const bool better = !best.found || trial.misses < best.misses ||
                          (trial.misses == best.misses && trial.clock < best.clock);
      const bool tie = best.found && trial.misses == best.misses && trial.clock == best.clock;
      // On an exact tie the later place wins (behind its equals), except
      // that an unpositioned chunk that costs nothing stays in front.
      const bool takeTie = tie && (IsPositioned(chunk) || ownDuration > 0);
      if (better || takeTie) best = Candidate{true, c, trial.misses, trial.clock};
    }
    if (c < count) previousLateness = EstimateStep(scheduler, QueueAt(scheduler, c), 128, &prefix);
  }
  return best.found ? best.index : count;
}

}  // namespace kest2
