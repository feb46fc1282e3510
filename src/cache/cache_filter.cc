// The RAM-cache filter: validates and installs caches, answers the contains
// and flush queries, and walks every new chunk tree children first: reads of
// a cache's files are served and filled through it, opens are wrapped so the
// file's cached blocks are checked against its modification date, writes,
// deletes, truncates and renames invalidate the file's blocks, and prefetches
// become fills.

#include <cstring>

#include "cache/ram_cache.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "io/filter_walk.h"
#include "kest2.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

constexpr uint64_t kContextSize = sizeof(ZulKestRamCacheContext);
constexpr uint64_t kMinimumWorkBuffer = 0x20000;
constexpr uintptr_t kWorkBufferAlignment = 8;

static_assert(sizeof(ZulKestRamCacheContext) == 72, "");

// One flag for all caches: a damaged context disables every one of them
// until the last is removed.
bool g_disabled;

bool Aligned(const void* p, uintptr_t alignment) {
  return reinterpret_cast<uintptr_t>(p) % alignment == 0;
}

int32_t Initialize(ZulKestRamCacheContext* context) {
  KEST2_TRACE(kTraceCache, "Initialize", "%s", "");
  if (context == nullptr || context->pWorkBuffer == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (context->sizeOfContext != kContextSize) {
    zulKestPrintf("KEST2 ERROR: sizeOfContext %lld != expected %lld.\n",
                  static_cast<long long>(context->sizeOfContext), static_cast<long long>(kContextSize));
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  if (context->workBufferSize < kMinimumWorkBuffer) {
    zulKestPrintf("KEST2 ERROR: Cache workBufferSize too small\n");
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  if (!Aligned(context->pWorkBuffer, kWorkBufferAlignment)) {
    zulKestPrintf("KEST2 ERROR: The cache's pWorkBuffer must be %d-byte aligned!\n",
                  static_cast<int>(kWorkBufferAlignment));
    return ZUL_KEST_ERROR_BAD_ALIGNMENT;
  }
  if (context->blockSize == 0) {
    zulKestPrintf("KEST2 ERROR: The cache blocksize has not been specified.\n");
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  return InstallCache(context);
}

int32_t Terminate(ZulKestRamCacheContext* context) {
  KEST2_TRACE(kTraceCache, "Terminate", "%s", "");
  if (context == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  bool wasLast = false;
  const int32_t result = UninstallCache(context, &wasLast);
  if (wasLast) __atomic_store_n(&g_disabled, false, __ATOMIC_RELEASE);
  return result;
}

// The context must still be what Initialize accepted; the application may
// have let it go out of scope.
bool StateIsSound(const ZulKestRamCacheContext* context) {
  if (__atomic_load_n(&g_disabled, __ATOMIC_ACQUIRE)) return false;
  const bool sound = context != nullptr && Aligned(context, 8) && context->sizeOfContext == kContextSize &&
                     context->workBufferSize >= kMinimumWorkBuffer && context->pWorkBuffer != nullptr &&
                     Aligned(context->pWorkBuffer, kWorkBufferAlignment) && context->reserved0 == 0;
  if (!sound) {
    zulKestPrintf("KEST2 ERROR: The ramcache's internal state is corrupt and it will be disabled!\n");
    zulKestPrintf(
        "KEST2 ERROR: A common cause of this problem is declaring the ZulKestRamCacheContext on the "
        "stack. Both the ZulKestRamCacheContext and pWorkBuffer must remain valid while the I/O filter is "
        "in place!\n");
    __atomic_store_n(&g_disabled, true, __ATOMIC_RELEASE);
  }
  return sound;
}

// --- Opens -----------------------------------------------------------------

// The wrapped open's copy, in the wrapping callback's filter data.
struct OpenWrap {
  ChunkID open;
};
static_assert(sizeof(OpenWrap) <= sizeof(ChunkCallbackRecord::filterData), "");

// Runs once the wrapped open has finished: blocks filled from another
// version of the file are dropped; blocks still in use take the new date.
int32_t OpenHandler(ChunkCallbackRecord* record, int32_t event) {
  if (event == 0) return ZUL_KEST_OK;
  KEST2_TRACE(kTraceCache, "OpenHandler", "Open finished, err = 0x%08x\n", static_cast<unsigned>(record->error));
  if (record->error != ZUL_KEST_OK || (LoadChunkFlags(&record->header) & kChunkCancelled) != 0)
    return record->error;
  auto* context = static_cast<ZulKestRamCacheContext*>(record->context);
  CacheHeader* cache = HeaderOf(context);
  const auto* wrap = reinterpret_cast<const OpenWrap*>(record->filterData);
  const ChunkFhOpenRecord* open = ChunkRecord<ChunkFhOpenRecord>(wrap->open);
  const StoredPath* path = open->path;
  if (path == nullptr) return ZUL_KEST_OK;
  const ZulKestDate date = open->modificationDate;
  CacheWriteLock();
  {
    ChunkLocker lock;
    for (uint32_t i = 0; i < cache->blockCount; ++i) {
      CacheBlock* block = &cache->table[i];
      const uint16_t state = LoadBlockState(block);
      if (state == kCACHE_EMPTY || state == kCACHE_PURGE) continue;
      if (std::memcmp(block->digest, path->digest, kMd5DigestSize) != 0) continue;
      if (__atomic_load_n(&block->refcount, __ATOMIC_ACQUIRE) > 0) {
        block->modificationDate = date;
      } else if (block->modificationDate != date) {
        if (TraceEnabled(kTraceCache)) {
          char dump[256];
          TraceLine(kTraceCache, "OpenHandler", "found stale block %d {%s}\n", static_cast<int>(i),
                    DumpCacheBlock(block, dump, sizeof(dump)));
        }
        StoreBlockState(block, kCACHE_EMPTY);
        block->modificationDate = 0;
      }
    }
  }
  CacheWriteUnlock();
  return ZUL_KEST_OK;
}

// A callback in the open's place with a copy of the open below it.
FilterOutcome WrapOpen(ZulKestRamCacheContext* context, ChunkID id, ChunkID* replacement) {
  const ChunkID callback = AllocateCallbackChunk(OpenHandler, context);
  const ChunkID copy = AllocateChunk(CHUNK_FH_OPEN);
  if (callback == CHUNKID_INVALID || copy == CHUNKID_INVALID) {
    DeallocateChunk(callback);
    DeallocateChunk(copy);
    return FilterOutcome::kDown;
  }
  const ChunkFhOpenRecord* original = ChunkRecord<ChunkFhOpenRecord>(id);
  ChunkFhOpenRecord* open = ChunkRecord<ChunkFhOpenRecord>(copy);
  open->h = original->h;
  open->path = original->path;
  open->mode = original->mode;
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(callback);
  reinterpret_cast<OpenWrap*>(record->filterData)->open = copy;
  ChunkLocker lock;
  if (!LinkChunks(callback, copy)) {
    DeallocateChunk(callback);
    DeallocateChunk(copy);
    return FilterOutcome::kDown;
  }
  // Children of the open (rare) stay below the copy.
  for (ChunkID child; (child = GetChild(id, 0)) != CHUNKID_INVALID;) {
    UnlinkChunks(id, child);
    LinkChunks(copy, child);
  }
  return ReplaceChunkWith(kTraceCache, id, callback, replacement);
}

// --- Changes ---------------------------------------------------------------

// The changing chunk below a purge callback, in its filter data.
struct PurgeWrap {
  ChunkID change;
};
static_assert(sizeof(PurgeWrap) <= sizeof(ChunkCallbackRecord::filterData), "");

// Runs once a write, delete, truncate or rename has been carried out: a
// read that was filled between the purge at filtering time and the change
// itself may hold the old bytes, so the file's blocks go once more.
int32_t PurgeAfterHandler(ChunkCallbackRecord* record, int32_t event) {
  if (event == 0) return ZUL_KEST_OK;
  auto* context = static_cast<ZulKestRamCacheContext*>(record->context);
  PurgeEntries(HeaderOf(context), reinterpret_cast<const PurgeWrap*>(record->filterData)->change);
  return record->error;
}

// Purges the file's blocks now and puts a callback in the chunk's place
// that purges them again after the chunk has run.
FilterOutcome PurgeAroundChange(ZulKestRamCacheContext* context, ChunkID id, ChunkID* replacement) {
  PurgeEntries(HeaderOf(context), id);
  const ChunkID callback = AllocateCallbackChunk(PurgeAfterHandler, context);
  if (callback == CHUNKID_INVALID) return FilterOutcome::kDown;
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(callback);
  reinterpret_cast<PurgeWrap*>(record->filterData)->change = id;
  ChunkLocker lock;
  // The callback takes the chunk's parents; the chunk keeps its children
  // and becomes the callback's only child.
  for (ChunkID parent; (parent = GetParent(id, 0)) != CHUNKID_INVALID;) {
    UnlinkChunks(parent, id);
    if (!LinkChunks(parent, callback)) {
      LinkChunks(parent, id);
      break;
    }
  }
  if (GetParent(id, 0) != CHUNKID_INVALID || !LinkChunks(callback, id)) {
    // Out of link records: undo, and rely on the first purge alone.
    for (ChunkID parent; (parent = GetParent(callback, 0)) != CHUNKID_INVALID;) {
      UnlinkChunks(parent, callback);
      LinkChunks(parent, id);
    }
    DeallocateChunk(callback);
    return FilterOutcome::kDown;
  }
  *replacement = callback;
  return FilterOutcome::kReplaced;
}

// --- The walk --------------------------------------------------------------

bool Matches(const CacheHeader* cache, ChunkID id) {
  CacheReadLock();
  const bool matched = MatchChunkToCache(cache, id);
  CacheReadUnlock();
  return matched;
}

bool MatchesPath(const CacheHeader* cache, const StoredPath* path) {
  CacheReadLock();
  const bool matched = MatchPathToCache(cache, GetPath(path));
  CacheReadUnlock();
  return matched;
}

// A rename also makes whatever this cache holds under the new name stale.
void PurgeRenameTarget(CacheHeader* cache, ChunkID id) {
  const char* newPath = ChunkRecord<ChunkRenameRecord>(id)->newPath;
  if (newPath == nullptr) return;
  alignas(8) uint8_t storage[StoredPathSize(kDefaultPathMax)];
  StoredPath* path = reinterpret_cast<StoredPath*>(storage);
  if (SetPath(path, newPath, false) && MatchesPath(cache, path)) CacheFlush(cache, path->digest, 0, INT64_MAX);
}

FilterOutcome FilterChunk(void* argument, ChunkID id, ChunkID* replacement) {
  auto* context = static_cast<ZulKestRamCacheContext*>(argument);
  CacheHeader* cache = HeaderOf(context);
  const uint8_t type = ChunkAt(id)->type;
  switch (type) {
    case CHUNK_FH_READ: {
      if (!Matches(cache, id)) return FilterOutcome::kDown;
      ChunkID read = id;
      const int32_t result = ExecuteRead(context, &read);
      if (result != ZUL_KEST_OK) return AnswerChunk(kTraceCache, id, result, replacement);
      // Served whole from valid blocks: nothing is left to go down, so the
      // read completes here rather than as an empty read on an I/O thread.
      const ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(id);
      if (io->reqCount == 0 && io->header.linked == CHUNKID_INVALID && GetChild(id, 0) == CHUNKID_INVALID)
        return AnswerChunk(kTraceCache, id, ZUL_KEST_OK, replacement);
      return FilterOutcome::kDown;
    }
    case CHUNK_FH_OPEN:
      if ((CacheHints(id, GetChunkHandle(id)) & kCacheHintMask) != 0 || !Matches(cache, id))
        return FilterOutcome::kDown;
      return WrapOpen(context, id, replacement);
    case CHUNK_RENAME:
      PurgeRenameTarget(cache, id);
      [[fallthrough]];
    case CHUNK_FH_WRITE:
    case CHUNK_FILE_DELETE:
    case CHUNK_DELETE:
    case CHUNK_TRUNCATE:
      if (!Matches(cache, id)) return FilterOutcome::kDown;
      return PurgeAroundChange(context, id, replacement);
    case CHUNK_PREFETCH: {
      if (!Matches(cache, id)) return FilterOutcome::kDown;
      const ChunkID prefetch = CreatePrefetch(context, id);
      if (prefetch == CHUNKID_INVALID) return AnswerChunk(kTraceCache, id, ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK, replacement);
      return ReplaceChunkWith(kTraceCache, id, prefetch, replacement);
    }
    default:
      return FilterOutcome::kDown;
  }
}

// Resolves the query's path and finds out whether this cache owns it.
bool OwnRange(CacheHeader* cache, const ZulKestIOFilterRange* range, StoredPath* path, int32_t* error) {
  *error = ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
  if (range == nullptr || range->path == nullptr) return false;
  const int32_t resolved = ResolveCachePath(range->path, path);
  if (resolved != ZUL_KEST_OK) {
    *error = resolved;
    return false;
  }
  return MatchesPath(cache, path);
}

}  // namespace
}  // namespace kest2

using namespace kest2;

extern "C" int32_t zulKestIOFilterCache(void* pFilterContext, int32_t event, void* pArgument) {
  KEST2_TRACE(kTraceCache, "zulKestIOFilterCache", "event = %d\n", event);
  auto* context = static_cast<ZulKestRamCacheContext*>(pFilterContext);
  if (event == ZUL_KEST_IOFILTER_EVENT_INITIALIZE) return Initialize(context);
  if (!StateIsSound(context)) {
    // Even a damaged cache leaves the list, or it would outlive its filter.
    if (event == ZUL_KEST_IOFILTER_EVENT_TERMINATE) Terminate(context);
    return ZUL_KEST_ERROR_BAD_PTR;
  }
  CacheHeader* cache = HeaderOf(context);
  switch (event) {
    case ZUL_KEST_IOFILTER_EVENT_TERMINATE:
      return Terminate(context);
    case ZUL_KEST_IOFILTER_EVENT_GET_DESCRIPTION:
      if (pArgument == nullptr) return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
      std::strcpy(static_cast<char*>(pArgument), "description not implemented");
      return ZUL_KEST_OK;
    case ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS:
    case ZUL_KEST_IOFILTER_EVENT_CACHE_FLUSH: {
      const auto* range = static_cast<const ZulKestIOFilterRange*>(pArgument);
      alignas(8) uint8_t storage[StoredPathSize(kDefaultPathMax)];
      StoredPath* path = reinterpret_cast<StoredPath*>(storage);
      int32_t error = ZUL_KEST_OK;
      if (!OwnRange(cache, range, path, &error)) return error;
      if (event == ZUL_KEST_IOFILTER_EVENT_CACHE_FLUSH) {
        CacheFlush(cache, path->digest, range->offset, range->length);
        return ZUL_KEST_OK;
      }
      return CacheContains(cache, path->digest, range->offset, range->length) ? ZUL_KEST_OK
                                                                               : ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
    }
    case ZUL_KEST_IOFILTER_EVENT_FILTER_CHUNK: {
      if (pArgument == nullptr) return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
      ChunkID* root = static_cast<ChunkID*>(pArgument);
      *root = WalkChildrenFirst(context, *root, FilterChunk);
      return ZUL_KEST_OK;
    }
    default:
      return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
  }
}
