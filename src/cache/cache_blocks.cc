// The RAM caches' list, lock, path matching and block table: see ram_cache.h.

#include <cstdio>
#include <cstring>

#include "cache/ram_cache.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/platform.h"
#include "core/records.h"
#include "debug/trace.h"
#include "io/overlay_table.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

constexpr uint64_t kBlockEntrySize = sizeof(CacheBlock);
constexpr int64_t kToTheEnd = INT64_MAX;

// Guards the list head and the use count against installs and removals
// racing each other (filters are added outside the filter lock); the list
// itself is read under the cache lock.
HybPlatformStaticMutex g_installMutex;
CacheHeader* g_caches;
int32_t g_useCount;

bool SameDigest(const CacheBlock* block, const uint8_t* digest) {
  return std::memcmp(block->digest, digest, kMd5DigestSize) == 0;
}

void TouchBlock(CacheBlock* block) {
  __atomic_store_n(&block->accessDate, zulKestDateGetCurrent(), __ATOMIC_RELAXED);
}

ZulKestDate AccessDateOf(const CacheBlock* block) {
  return __atomic_load_n(&block->accessDate, __ATOMIC_RELAXED);
}

// The cache path covers `path` when it is a prefix ending at a component
// boundary (or is empty).
bool Covers(const char* cachePath, const char* path) {
  const size_t length = std::strlen(cachePath);
  if (length == 0) return true;
  if (std::strncmp(cachePath, path, length) != 0) return false;
  const char next = path[length];
  return next == 0 || next == '/' || next == '\\';
}

}  // namespace

HybPlatformRwlock g_cacheLock;

int32_t ResolveCachePath(const char* path, StoredPath* out) {
  const char* resolved = path;
  char buffer[kDefaultPathMax];
  if (OverlaysInstalled()) {
    const int32_t result = OverlayResolveSync(kThisProcess, 0, path, buffer, PathMax(), 0, 127);
    if (result != ZUL_KEST_OK) return result;
    resolved = buffer;
  }
  return SetPath(out, resolved, false) ? ZUL_KEST_OK : ZUL_KEST_ERROR_BAD_PATH;
}

uint64_t CacheHeaderAreaSize() { return (static_cast<uint64_t>(PathMax()) + 80) & ~uint64_t{7}; }

void CacheReadLock() { RwlockReadLock(&g_cacheLock); }
void CacheReadUnlock() { RwlockReadUnlock(&g_cacheLock); }
void CacheWriteLock() { RwlockWriteLock(&g_cacheLock); }
void CacheWriteUnlock() { RwlockWriteUnlock(&g_cacheLock); }

int32_t InstallCache(ZulKestRamCacheContext* context) {
  const uint64_t headerArea = CacheHeaderAreaSize();
  CacheHeader* cache = HeaderOf(context);
  std::memset(cache, 0, headerArea);
  ClearPath(&cache->path);
  if (context->pPath != nullptr && context->pPath[0] != 0) {
    const int32_t resolved = ResolveCachePath(context->pPath, &cache->path);
    if (resolved != ZUL_KEST_OK) return resolved;
  }

  MutexLocker guard(&g_installMutex);
  if (g_useCount++ == 0) RwlockInitialize(&g_cacheLock, "ZulKestRamcache");
  const uint64_t perBlock = context->blockSize + kBlockEntrySize;
  uint64_t count =
      context->workBufferSize > headerArea ? (context->workBufferSize - headerArea) / perBlock : 0;
  if (context->blockSize > UINT32_MAX) count = 0;
  if (count > INT32_MAX) count = INT32_MAX;
  auto* base = static_cast<uint8_t*>(context->pWorkBuffer);
  RwlockWriteLock(&g_cacheLock);
  cache->blockSize =
      static_cast<uint32_t>(context->blockSize > UINT32_MAX ? 0 : context->blockSize);
  cache->blockCount = static_cast<uint32_t>(count);
  cache->hand = -1;
  cache->table = reinterpret_cast<CacheBlock*>(base + headerArea);
  cache->data = base + headerArea + count * kBlockEntrySize;
  std::memset(cache->table, 0, count * kBlockEntrySize);
  // Deeper paths first: before the first cache whose path sorts lower over
  // the new path's length.
  const char* path = GetPath(&cache->path);
  const size_t length = std::strlen(path);
  CacheHeader** link = &g_caches;
  while (*link != nullptr && std::strncmp(GetPath(&(*link)->path), path, length) >= 0)
    link = &(*link)->next;
  cache->next = *link;
  *link = cache;
  RwlockWriteUnlock(&g_cacheLock);
  return ZUL_KEST_OK;
}

int32_t UninstallCache(ZulKestRamCacheContext* context, bool* wasLast) {
  *wasLast = false;
  MutexLocker guard(&g_installMutex);
  if (g_caches == nullptr) return ZUL_KEST_ERROR_BAD_INDEX;
  // Found by address only: a damaged context's header is not read.
  const CacheHeader* cache = static_cast<const CacheHeader*>(context->pWorkBuffer);
  bool found = false;
  RwlockWriteLock(&g_cacheLock);
  for (CacheHeader** link = &g_caches; *link != nullptr; link = &(*link)->next) {
    if (*link == cache) {
      *link = (*link)->next;
      found = true;
      break;
    }
  }
  RwlockWriteUnlock(&g_cacheLock);
  if (!found) return ZUL_KEST_ERROR_BAD_INDEX;
  if (--g_useCount == 0) {
    RwlockDestroy(&g_cacheLock);
    *wasLast = true;
  }
  return ZUL_KEST_OK;
}

bool MatchPathToCache(const CacheHeader* cache, const char* path) {
  KEST2_TRACE(kTraceCache, "MatchPathToCache", "matching \"%s\" against ram caches..\n", path);
  for (const CacheHeader* c = g_caches; c != nullptr; c = c->next) {
    KEST2_TRACE(kTraceCache, "PathMatchCache", "checking \"%s\" (%p)..\n", GetPath(&c->path),
                static_cast<const void*>(c));
    if (!Covers(GetPath(&c->path), path)) continue;
    if (c == cache) {
      KEST2_TRACE(kTraceCache, "MatchPathToCache", "matched \"%s\" with cache \"%s\"\n", path,
                  GetPath(&c->path));
      return true;
    }
    KEST2_TRACE(kTraceCache, "MatchPathToCache", "%s", "Match is a different cache");
    return false;
  }
  KEST2_TRACE(kTraceCache, "MatchPathToCache", "%s", "no match found");
  return false;
}

const StoredPath* CachePathOfChunk(ChunkID id) {
  const ChunkHeader* chunk = ChunkAt(id);
  switch (chunk->type) {
    case CHUNK_FH_READ:
    case CHUNK_FH_WRITE:
    case CHUNK_PREFETCH: {
      const FileHandle* file = Lookup<FileHandle>(kFhTable, GetChunkHandle(id));
      return file != nullptr ? &file->path : nullptr;
    }
    case CHUNK_FH_OPEN:
    case CHUNK_FILE_DELETE:
    case CHUNK_DELETE:
    case CHUNK_TRUNCATE:
    case CHUNK_RENAME: {
      const StoredPath* path = GetChunkPath(id);
      if (path != nullptr && !PathIsEmpty(path)) return path;
      if (chunk->type != CHUNK_TRUNCATE) return nullptr;
      // A handle truncate names its file through the handle.
      const FileHandle* file = Lookup<FileHandle>(kFhTable, GetChunkHandle(id));
      return file != nullptr ? &file->path : nullptr;
    }
    case CHUNK_ROOT: {
      const Operation* op = Lookup<Operation>(kOpTable, ChunkRecord<ChunkRootRecord>(id)->op);
      if (op == nullptr) return nullptr;
      if (const FileHandle* file = Lookup<FileHandle>(kFhTable, op->targetHandle))
        return &file->path;
      return &op->path;
    }
    default:
      return nullptr;
  }
}

bool MatchChunkToCache(const CacheHeader* cache, ChunkID id) {
  const StoredPath* path = CachePathOfChunk(id);
  if (path == nullptr || PathIsEmpty(path)) return false;
  return MatchPathToCache(cache, GetPath(path));
}

int32_t FindBlock(CacheHeader* cache, const uint8_t* digest, int64_t blockOffset) {
  for (uint32_t i = 0; i < cache->usedLimit; ++i) {
    CacheBlock* block = &cache->table[i];
    const uint16_t state = LoadBlockState(block);
    if (state != kCACHE_VALID && state != kCACHE_BUSY) continue;
    if (block->offset != blockOffset) continue;
    if (digest != nullptr && !SameDigest(block, digest)) continue;
    TouchBlock(block);
    return static_cast<int32_t>(i);
  }
  return -1;
}

ZulKestDate FindFileDate(const CacheHeader* cache, const uint8_t* digest) {
  for (uint32_t i = 0; i < cache->usedLimit; ++i) {
    const CacheBlock* block = &cache->table[i];
    if (LoadBlockState(block) == kCACHE_VALID && SameDigest(block, digest))
      return block->modificationDate;
  }
  return 0;
}

int32_t ChooseVictim(CacheHeader* cache) {
  const uint32_t count = cache->blockCount;
  if (count == 0) return -1;
  int32_t best = -1;
  ZulKestDate bestDate = 0;
  uint32_t i = static_cast<uint32_t>(cache->hand + 1) % count;
  for (uint32_t visited = 0; visited < count; ++visited, i = (i + 1) % count) {
    const CacheBlock* block = &cache->table[i];
    const uint16_t state = LoadBlockState(block);
    if (state == kCACHE_BUSY || state == kCACHE_PURGE) continue;
    if (__atomic_load_n(&block->refcount, __ATOMIC_ACQUIRE) != 0) continue;
    if (best >= 0 && AccessDateOf(block) >= bestDate) continue;
    best = static_cast<int32_t>(i);
    bestDate = AccessDateOf(block);
    if (state == kCACHE_EMPTY) break;
  }
  if (best >= 0) cache->hand = best;
  return best;
}

void ClearBlock(CacheHeader* cache, int32_t index) {
  CacheBlock* block = &cache->table[index];
  StoreBlockState(block, kCACHE_EMPTY);
  block->offset = 0;
  block->length = 0;
  std::memset(block->digest, 0, sizeof(block->digest));
}

void InvalidateBlock(CacheHeader* cache, int32_t index) {
  CacheBlock* block = &cache->table[index];
  StoreBlockState(block, LoadBlockState(block) == kCACHE_BUSY ? kCACHE_PURGE : kCACHE_EMPTY);
}

void ReleaseBlock(CacheHeader* cache, int32_t index) {
  CacheBlock* block = &cache->table[index];
  if (AddBlockRef(block, -1) <= 0 && LoadBlockState(block) == kCACHE_PURGE)
    ClearBlock(cache, index);
}

bool CacheContains(CacheHeader* cache, const uint8_t* digest, int64_t offset, int64_t length) {
  if (length <= 0 || offset < 0 || cache->blockCount == 0) return false;
  const int64_t blockSize = cache->blockSize;
  const int64_t end = length > kToTheEnd - offset ? kToTheEnd : offset + length;
  RwlockReadLock(&g_cacheLock);
  bool contained = true;
  // Each block of the range in turn must be valid and hold the bytes the
  // range wants of it (the last block of a file is short).
  for (int64_t block = offset - offset % blockSize; contained && block < end; block += blockSize) {
    contained = false;
    for (uint32_t i = 0; i < cache->blockCount; ++i) {
      const CacheBlock* entry = &cache->table[i];
      if (LoadBlockState(entry) != kCACHE_VALID || entry->offset != block ||
          !SameDigest(entry, digest))
        continue;
      const int64_t wantedEnd = end - block < blockSize ? end - block : blockSize;
      contained = static_cast<int64_t>(entry->length) >= wantedEnd;
      break;
    }
  }
  RwlockReadUnlock(&g_cacheLock);
  return contained;
}

void CacheFlush(CacheHeader* cache, const uint8_t* digest, int64_t offset, int64_t length) {
  if (length <= 0) return;
  const int64_t end = length > kToTheEnd - offset ? kToTheEnd : offset + length;
  RwlockWriteLock(&g_cacheLock);
  for (uint32_t i = 0; i < cache->blockCount; ++i) {
    const CacheBlock* block = &cache->table[i];
    const uint16_t state = LoadBlockState(block);
    if (state == kCACHE_EMPTY || state == kCACHE_PURGE || !SameDigest(block, digest)) continue;
    const int64_t blockEnd = block->offset + static_cast<int64_t>(cache->blockSize);
    if (block->offset < end && blockEnd > offset) InvalidateBlock(cache, static_cast<int32_t>(i));
  }
  RwlockWriteUnlock(&g_cacheLock);
}

void PurgeEntries(CacheHeader* cache, ChunkID id) {
  const StoredPath* path = CachePathOfChunk(id);
  if (path == nullptr) return;
  RwlockWriteLock(&g_cacheLock);
  KEST2_TRACE(kTraceCache, "PurgeEntries", "purging entries in \"%s\" cache for %s\n",
              GetPath(&cache->path), GetPath(path));
  for (uint32_t i = 0; i < cache->blockCount; ++i) {
    CacheBlock* block = &cache->table[i];
    const uint16_t state = LoadBlockState(block);
    if (state == kCACHE_EMPTY || state == kCACHE_PURGE || !SameDigest(block, path->digest))
      continue;
    if (TraceEnabled(kTraceCache)) {
      char dump[256];
      TraceLine(kTraceCache, "PurgeEntries", "found block %d {%s}\n", static_cast<int>(i),
                DumpCacheBlock(block, dump, sizeof(dump)));
    }
    InvalidateBlock(cache, static_cast<int32_t>(i));
  }
  RwlockWriteUnlock(&g_cacheLock);
}

char* DumpCacheBlock(const CacheBlock* block, char* buffer, size_t size) {
  char access[64];
  char modified[64];
  std::snprintf(buffer, size, "accessDate: %s modificationDate: %s offset: %lld - %lld",
                zulKestDebugDumpDate(AccessDateOf(block), access, sizeof(access)),
                zulKestDebugDumpDate(block->modificationDate, modified, sizeof(modified)),
                static_cast<long long>(block->offset),
                static_cast<long long>(block->offset + static_cast<int64_t>(block->length)));
  return buffer;
}

void PrintCacheStatistics() {
  MutexLocker guard(&g_installMutex);
  if (g_caches == nullptr) return;
  RwlockReadLock(&g_cacheLock);
  for (const CacheHeader* c = g_caches; c != nullptr; c = c->next) {
    zulKestPrintf(
        "RamCache \"%s\" statistics:\n  Cache hits:   %-8lu (%8lu)\n  Cache misses: %-8lu (%8lu)\n",
        GetPath(&c->path), static_cast<unsigned long>(__atomic_load_n(&c->hits, __ATOMIC_RELAXED)),
        static_cast<unsigned long>(__atomic_load_n(&c->hitBytes, __ATOMIC_RELAXED)),
        static_cast<unsigned long>(__atomic_load_n(&c->misses, __ATOMIC_RELAXED)),
        static_cast<unsigned long>(__atomic_load_n(&c->missBytes, __ATOMIC_RELAXED)));
  }
  RwlockReadUnlock(&g_cacheLock);
}

}  // namespace kest2
