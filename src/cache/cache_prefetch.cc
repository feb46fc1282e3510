// Prefetch into a RAM cache: the prefetch chunk becomes a callback that,
// once the file is open, fills the range's blocks a few at a time.  Blocks
// already cached or being filled count as done; when no block can be had
// (all busy or in use) the prefetch ends early without an error, as a
// cache that is full only serves less.

#include <cstring>

#include "cache/ram_cache.h"
#include "core/handletable.h"
#include "core/pool.h"
#include "core/records.h"
#include "debug/trace.h"
#include "io/filter_walk.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

// Fills in flight per prefetch: enough to keep the I/O threads busy without
// taking the whole cache's free blocks at once.
constexpr int kFillsInFlight = 4;
// A fill below an archive takes a hundred chunks or more; a prefetch issues
// no more fills while less than this share of chunk storage is free, so
// that prefetching never starves requests of chunks.
constexpr uint32_t kChunkReserveDivisor = 4;

bool ChunkStorageIsTight() {
  const Pool* pool = ChunkPool();
  return pool->capacity - PoolAllocatedCount(pool) < pool->capacity / kChunkReserveDivisor;
}

struct PrefetchState {
  uint32_t h;
  int64_t offset;
  int64_t reqCount;  // INT64_MAX: to the end of the file
  int64_t next;      // next block offset, -1 before the first run
  int64_t end;
  int64_t* actCount;
};
static_assert(sizeof(PrefetchState) <= sizeof(ChunkCallbackRecord::filterData), "");

PrefetchState* StateOf(ChunkCallbackRecord* record) { return reinterpret_cast<PrefetchState*>(record->filterData); }

// Frees the fills of the last round (and the finished open below a path
// prefetch): completed children are no longer needed.
void DropCompletedChildren(ChunkID id) {
  ChunkLocker lock;
  for (uint32_t n = 0;;) {
    const ChunkID child = GetChild(id, n);
    if (child == CHUNKID_INVALID) break;
    if ((LoadChunkFlags(ChunkAt(child)) & kChunkCompleted) == 0) {
      ++n;
      continue;
    }
    UnlinkChunks(id, child);
    if (GetParent(child, 0) == CHUNKID_INVALID) DeallocateTree(child);
  }
}

int64_t Overlap(int64_t blockOffset, int64_t blockLength, int64_t start, int64_t end) {
  const int64_t from = blockOffset > start ? blockOffset : start;
  const int64_t to = blockOffset + blockLength < end ? blockOffset + blockLength : end;
  return to > from ? to - from : 0;
}

int32_t PrefetchHandler(ChunkCallbackRecord* record, int32_t event) {
  if (event == 0) return ZUL_KEST_OK;
  const ChunkID self = ChunkIdOf(record);
  if ((LoadChunkFlags(&record->header) & kChunkCancelled) != 0) return ZUL_KEST_ERROR_CANCELLED;
  if (record->error != ZUL_KEST_OK) return record->error;
  auto* context = static_cast<ZulKestRamCacheContext*>(record->context);
  CacheHeader* cache = HeaderOf(context);
  PrefetchState* state = StateOf(record);
  const FileHandle* file = Lookup<FileHandle>(kFhTable, state->h);
  if (file == nullptr) return ZUL_KEST_ERROR_BAD_FH;
  DropCompletedChildren(self);
  if (cache->blockSize == 0) return ZUL_KEST_OK;
  const int64_t blockSize = cache->blockSize;
  if (state->next < 0) {
    const int64_t size = __atomic_load_n(&file->size, __ATOMIC_ACQUIRE);
    if (state->offset < 0) return ZUL_KEST_ERROR_BAD_OFFSET;
    state->end = state->reqCount > size - state->offset ? size : state->offset + state->reqCount;
    state->next = state->offset - state->offset % blockSize;
  }
  int issued = 0;
  while (issued < kFillsInFlight && state->next < state->end) {
    if (ChunkStorageIsTight()) {
      // With nothing of its own in flight it waits for other requests to
      // give chunks back, as a busy chunk.
      if (issued == 0) return ZUL_KEST_ERROR_RETRY;
      break;
    }
    const int64_t blockOffset = state->next;
    int64_t blockLength = 0;
    bool noVictim = false;
    ChunkID fill = StartPrefetchFill(cache, state->h, blockOffset, &blockLength, &noVictim);
    if (noVictim) {
      KEST2_TRACE(kTraceCache, "PrefetchHandler", "Chunk %d No free blocks available\n", self);
      state->next = state->end;
      break;
    }
    state->next += blockSize;
    if (state->actCount != nullptr) {
      __atomic_add_fetch(state->actCount, Overlap(blockOffset, blockLength, state->offset, state->end),
                         __ATOMIC_ACQ_REL);
    }
    if (fill == CHUNKID_INVALID) continue;  // cached or being filled already
    const ChunkID created = fill;
    const int32_t offered = OfferToLaterFilters(context, &fill, kTraceCache, "PrefetchHandler");
    if (offered != ZUL_KEST_OK) {
      AbortPrefetchFill(cache, created);
      return offered;
    }
    if (fill == CHUNKID_INVALID) fill = created;  // answered below: it carries on as is
    {
      ChunkLocker lock;
      if (!LinkChunks(self, fill)) {
        // Out of link records: the fill is dropped and the prefetch ends,
        // as with a full cache.
        AbortPrefetchFill(cache, fill);
        state->next = state->end;
        break;
      }
    }
    PrepareChunk(fill, record->header.priority, record->header.deadline);
    ScheduleTree(fill, 0, false);
    ++issued;
  }
  return issued > 0 ? ZUL_KEST_ERROR_RETRY : ZUL_KEST_OK;
}

}  // namespace

ChunkID CreatePrefetch(ZulKestRamCacheContext* context, ChunkID prefetch) {
  const ChunkID id = AllocateCallbackChunk(PrefetchHandler, context);
  if (id == CHUNKID_INVALID) return id;
  const ChunkPrefetchRecord* original = ChunkRecord<ChunkPrefetchRecord>(prefetch);
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(id);
  *StateOf(record) = PrefetchState{original->h, original->offset, original->reqCount, -1, 0, original->actCount};
  return id;
}

}  // namespace kest2
