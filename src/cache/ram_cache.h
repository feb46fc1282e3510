// RAM caches: fixed tables of equal-sized blocks over application memory,
// each block holding one block-aligned piece of one file, keyed by the MD5
// digest of the file's path and the block's file offset.
//
// Work buffer layout: a header area of (pathMax + 80) & ~7 bytes holding
// CacheHeader, then the block table of N 64-byte CacheBlock entries, then N
// data blocks of blockSize bytes.
//
// Thread-safety: one read-write lock ("ZulKestRamcache") guards the list of
// caches, every block table and the counters.  Lookups that only copy hold
// it for reading and may still bump access dates, refcounts and counters,
// which are therefore changed atomically; every state change holds it for
// writing.  Lock order: see GlobalLocks (core/globals.h).
#ifndef KEST2_SRC_CACHE_RAM_CACHE_H_
#define KEST2_SRC_CACHE_RAM_CACHE_H_

#include <cstddef>
#include <cstdint>

#include "core/platform.h"
#include "core/stored_path.h"
#include "kest2.h"
#include "sched/chunk.h"

namespace kest2 {

// "ZulKestRamcache": guards the list of caches and every block table.
extern HybPlatformRwlock g_cacheLock;

enum CacheBlockState : uint16_t {
  kCACHE_EMPTY = 0,
  kCACHE_VALID = 1,
  kCACHE_BUSY = 2,   // being filled; readers link to its fill callback
  kCACHE_PURGE = 3,  // invalidated while busy or in use
};

struct CacheBlock {
  ZulKestDate accessDate;                                // last hit or completed fill; LRU key
  ZulKestDate modificationDate GUARDED_BY(g_cacheLock);  // the file's; 0 while unknown
  int64_t offset GUARDED_BY(g_cacheLock);        // file offset, a multiple of the block size
  uint32_t length GUARDED_BY(g_cacheLock);       // valid bytes (short at the end of a file)
  int32_t refcount;                              // readers that still need the data
  uint16_t state;                                // CacheBlockState
  ChunkID fillCallback GUARDED_BY(g_cacheLock);  // while busy: the chunk that ends the fill
  uint8_t digest[kMd5DigestSize] GUARDED_BY(g_cacheLock);
  uint8_t unused[12];
};
static_assert(sizeof(CacheBlock) == 64, "");

struct CacheHeader {
  CacheHeader* next GUARDED_BY(g_cacheLock);  // next cache in the list
  uint32_t blockSize;
  uint32_t blockCount;
  int32_t hand GUARDED_BY(g_cacheLock);  // last victim; -1: the first search starts at 0
  uint32_t hits;                         // blocks served
  uint32_t hitBytes;
  uint32_t misses;  // reads that went on to the fill stage
  uint32_t missBytes;
  uint32_t usedLimit GUARDED_BY(g_cacheLock);  // no block at or past this index was filled
  CacheBlock* table;
  uint8_t* data;
  StoredPath path;  // pathMax bytes of text follow
};

// The fixed fields must leave pathMax + 16 bytes of the header area to the
// path, the area being (pathMax + 80) rounded down to 8.
static_assert(offsetof(CacheHeader, path) == 56, "");

// The path as the overlays resolve it (for reading), normalised into out.
int32_t ResolveCachePath(const char* path, StoredPath* out);

// Bytes before the block table for the current pathMax.
uint64_t CacheHeaderAreaSize();

inline CacheHeader* HeaderOf(const ZulKestRamCacheContext* context) {
  return static_cast<CacheHeader*>(context->pWorkBuffer);
}
inline uint8_t* BlockData(const CacheHeader* cache, int32_t index) {
  return cache->data + static_cast<uint64_t>(index) * cache->blockSize;
}

// The block state as other threads may see it.
inline uint16_t LoadBlockState(const CacheBlock* block) {
  return __atomic_load_n(&block->state, __ATOMIC_ACQUIRE);
}
inline void StoreBlockState(CacheBlock* block, uint16_t state) {
  __atomic_store_n(&block->state, state, __ATOMIC_RELEASE);
}
inline int32_t AddBlockRef(CacheBlock* block, int32_t delta) {
  return __atomic_add_fetch(&block->refcount, delta, __ATOMIC_ACQ_REL);
}
inline void CountStat(uint32_t* counter, uint64_t amount) {
  __atomic_add_fetch(counter, static_cast<uint32_t>(amount), __ATOMIC_RELAXED);
}

// --- The library-wide cache list and its lock -----------------------------

void CacheReadLock() ACQUIRE_SHARED(g_cacheLock);
void CacheReadUnlock() RELEASE_SHARED(g_cacheLock);
void CacheWriteLock() ACQUIRE(g_cacheLock);
void CacheWriteUnlock() RELEASE(g_cacheLock);

// Sets up the header and block table, creates the lock on first use and
// puts the cache in the list (deeper paths before their parents).
// REQUIRES: the context passed validation.
int32_t InstallCache(ZulKestRamCacheContext* context);
// Takes the cache out of the list; the last one destroys the lock and sets
// *wasLast.  ZUL_KEST_ERROR_BAD_INDEX when the cache is not installed.
int32_t UninstallCache(ZulKestRamCacheContext* context, bool* wasLast);

// True when the first cache (in list order) whose path covers `path` at a
// component boundary is this one.
bool MatchPathToCache(const CacheHeader* cache, const char* path) REQUIRES_SHARED(g_cacheLock);
// The same for the path a chunk concerns (a handle's or its own).
bool MatchChunkToCache(const CacheHeader* cache, ChunkID id) REQUIRES_SHARED(g_cacheLock);
// The path a chunk concerns, null when none: the handle's for reads and
// writes, the chunk's own for opens, deletes, truncates and renames (the old
// name), the operation's handle or path for a root.
const StoredPath* CachePathOfChunk(ChunkID id);

// --- Block table (the cache lock: each says how) -------------------------

// The first valid or busy block at blockOffset (of the file with digest, or
// of any file when digest is null); its access date becomes now.  -1: none.
int32_t FindBlock(CacheHeader* cache, const uint8_t* digest, int64_t blockOffset)
    REQUIRES_SHARED(g_cacheLock);
// The modification date of the file's first valid block, 0 when none.
ZulKestDate FindFileDate(const CacheHeader* cache, const uint8_t* digest)
    REQUIRES_SHARED(g_cacheLock);
// The least recently used block that is neither busy nor in use, searching
// from the hand (an empty block ends the search); -1 when none.  Write lock.
int32_t ChooseVictim(CacheHeader* cache) REQUIRES(g_cacheLock);
// Empties the block and forgets its offset, length and digest.  Write lock.
void ClearBlock(CacheHeader* cache, int32_t index) REQUIRES(g_cacheLock);
// Busy blocks become kCACHE_PURGE, the rest kCACHE_EMPTY.  Write lock.
void InvalidateBlock(CacheHeader* cache, int32_t index) REQUIRES(g_cacheLock);
// Lets go of one reference; a purged block nobody needs any more is
// emptied.  Write lock.
void ReleaseBlock(CacheHeader* cache, int32_t index) REQUIRES(g_cacheLock);

// Whether [offset, offset + length) is wholly in valid blocks.  Read lock
// taken inside.
bool CacheContains(CacheHeader* cache, const uint8_t* digest, int64_t offset, int64_t length);
// Invalidates the blocks of the file that meet [offset, offset + length).
// Write lock taken inside.
void CacheFlush(CacheHeader* cache, const uint8_t* digest, int64_t offset, int64_t length);
// Invalidates every block of the file the chunk concerns (writes, deletes,
// truncates, renames).  Write lock taken inside.
void PurgeEntries(CacheHeader* cache, ChunkID id);

// "accessDate: ... modificationDate: ... offset: %lld - %lld".
char* DumpCacheBlock(const CacheBlock* block, char* buffer, size_t size)
    REQUIRES_SHARED(g_cacheLock);

// Prints the hit and miss counters of every installed cache.
void PrintCacheStatistics();

// --- Reads (cached_read.cc) -----------------------------------------------

// Serves what it can of the read from the cache and rewrites the tree so
// the rest is read from below and the read's tail block is filled.  0: the
// (possibly trimmed) read goes on down; else the read is to be completed
// with the error (*read is then CHUNKID_INVALID for an answered read).
int32_t ExecuteRead(ZulKestRamCacheContext* context, ChunkID* read);

// The cache hints of a chunk: bits 0x2, 0x4 and 0x200 of its file handle's
// opflags and of every operation above it.
uint32_t CacheHints(ChunkID id, uint32_t handle);
constexpr uint32_t kCacheHintMask =
    ZUL_KEST_OPFLAG_CACHE_BYPASS | ZUL_KEST_OPFLAG_CACHE_STREAM | ZUL_KEST_OPFLAG_CACHE_TRUST;
constexpr uint32_t kCacheHintsLeaveReads =
    ZUL_KEST_OPFLAG_CACHE_BYPASS | ZUL_KEST_OPFLAG_CACHE_STREAM;

// Starts the fill of the block at blockOffset of the open file h for a
// prefetch: a callback chunk whose subtree reads the block, or
// CHUNKID_INVALID when the block is cached or busy already, or no block is
// free.  *covered receives the bytes the block holds or will hold.
ChunkID StartPrefetchFill(CacheHeader* cache, uint32_t h, int64_t blockOffset, int64_t* covered,
                          bool* noVictim);

// Drops a fill that StartPrefetchFill made and that never ran: its block is
// freed and its chunks too.
void AbortPrefetchFill(CacheHeader* cache, ChunkID fill);

// Replaces a CHUNK_PREFETCH with a callback that fills the range's blocks
// a few at a time once the file is open.  The callback chunk, or
// CHUNKID_INVALID when none could be had.
ChunkID CreatePrefetch(ZulKestRamCacheContext* context, ChunkID prefetch);

}  // namespace kest2

#endif  // KEST2_SRC_CACHE_RAM_CACHE_H_
