// Shared filter walks and rewrites: see filter_walk.h.

#include "io/filter_walk.h"

#include <cstddef>

#include "debug/dump.h"
#include "debug/trace.h"
#include "io/filter_chain.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

constexpr size_t kMaxWalkedChildren = 64;
// The last slot whose filter is offered a filter's own chunks.
constexpr int32_t kLastOfferSlot = 254;

// The slot of the filter installed with ownContext, or -1; *seen counts
// the installed filters up to and including it.  The walks below stop once
// they have seen as many filters as are installed, as the chain's own walk
// does, rather than read every slot on each block an archive reads.
int32_t OwnSlot(const void* ownContext, int32_t* seen) {
  *seen = 0;
  const int32_t installed = FilterCount();
  for (int32_t i = 0; i <= kLastOfferSlot && *seen < installed; ++i) {
    if (FilterFunctionAt(i) == nullptr) continue;
    ++*seen;
    if (FilterContextAt(i) == ownContext) return i;
  }
  return -1;
}

}  // namespace

ChunkID WalkChildrenFirst(void* context, ChunkID id, FilterStep step) {
  ChunkID children[kMaxWalkedChildren];
  size_t count = 0;
  for (uint32_t n = 0; count < kMaxWalkedChildren; ++n) {
    const ChunkID child = GetChild(id, n);
    if (child == CHUNKID_INVALID) break;
    children[count++] = child;
  }
  for (size_t i = 0; i < count; ++i) WalkChildrenFirst(context, children[i], step);
  for (ChunkID current = id;;) {
    if ((LoadChunkFlags(ChunkAt(current)) & kChunkCompleted) != 0) return current;
    ChunkID replacement = CHUNKID_INVALID;
    switch (step(context, current, &replacement)) {
      case FilterOutcome::kDown:
        return current;
      case FilterOutcome::kAnswered:
        return CHUNKID_INVALID;
      case FilterOutcome::kReplaced:
        current = replacement;
        break;
    }
  }
}

FilterOutcome AnswerChunk(uint32_t module, ChunkID id, int32_t result, ChunkID* replacement) {
  if (result != ZUL_KEST_OK) {
    char name[64];
    KEST2_TRACE(module, "FilterChunk", "failed with %s\n", zulKestDebugDumpError(result, name, sizeof(name)));
  }
  if (AllChildrenCompleted(id)) {
    CompleteChunk(id, result);
    return FilterOutcome::kAnswered;
  }
  const ChunkID placeholder = AllocateChunk(CHUNK_NULL);
  if (placeholder == CHUNKID_INVALID) {
    PropagateChunkError(id, ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK, false);
    return FilterOutcome::kDown;
  }
  if (result != ZUL_KEST_OK) PropagateChunkError(id, result, false);
  ReplaceChunk(id, placeholder);
  DeallocateChunk(id);
  *replacement = placeholder;
  return FilterOutcome::kReplaced;
}

FilterOutcome ReplaceChunkWith(uint32_t module, ChunkID id, ChunkID by, ChunkID* replacement) {
  if (TraceEnabled(module)) {
    char dump[kDumpBufferSize];
    TraceLine(module, "FilterChunk", "replacing %d with %s\n", id, DumpChunk(by, dump, sizeof(dump)));
  }
  ReplaceChunk(id, by);
  DeallocateChunk(id);
  *replacement = by;
  return FilterOutcome::kReplaced;
}

bool LaterFiltersInstalled(const void* ownContext) {
  int32_t seen;
  const int32_t own = OwnSlot(ownContext, &seen);
  if (own < 0) return false;
  const int32_t installed = FilterCount();
  for (int32_t i = own + 1; i <= kLastOfferSlot && seen < installed; ++i) {
    if (FilterFunctionAt(i) != nullptr) return true;
  }
  return false;
}

int32_t OfferToLaterFilters(const void* ownContext, ChunkID* chunk, uint32_t module,
                            const char* function) {
  int32_t seen;
  const int32_t own = OwnSlot(ownContext, &seen);
  if (own < 0) return ZUL_KEST_OK;
  const int32_t installed = FilterCount();
  for (int32_t i = own + 1; i <= kLastOfferSlot && seen < installed; ++i) {
    const ZulKestIOFilterCallback filter = FilterFunctionAt(i);
    if (filter == nullptr) continue;
    ++seen;
    KEST2_TRACE(module, function, "applying filter %d to dynamic read chunk %d\n", i, *chunk);
    ChunkID offered = *chunk;
    const int32_t result = filter(FilterContextAt(i), ZUL_KEST_IOFILTER_EVENT_FILTER_CHUNK, &offered);
    if (result != ZUL_KEST_OK && result != ZUL_KEST_ERROR_EVENT_NOT_HANDLED) {
      char filterDump[kDumpBufferSize], chunkDump[kDumpBufferSize];
      zulKestPrintf("KEST2 warning: %s returned error %d while filtering chunk tree %s\n",
                    DumpFilter(filter, FilterContextAt(i), filterDump, sizeof(filterDump)), result,
                    DumpChunk(offered, chunkDump, sizeof(chunkDump)));
      return result;
    }
    *chunk = offered;
    if (offered == CHUNKID_INVALID) {
      KEST2_TRACE(module, function, "%s", "filtering eliminated dynamic read\n");
      break;
    }
  }
  return ZUL_KEST_OK;
}

}  // namespace kest2
