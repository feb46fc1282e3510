// Reads through a RAM cache: see ExecuteRead in ram_cache.h.
//
// A read R is served from the front: valid blocks are copied, busy blocks
// are waited for by linking a callback above their fill.  What remains is
// read from below; the block that holds R's last byte is filled on the way
// (one block per read, for the next sequential read), and R's tail comes
// out of it.  When R carries a `linked` callback K of its own (an archive
// block read, whose buffer K lends just before R runs) nothing can be copied
// at filter time: the copies are recorded and a pre-execute callback P,
// placed between K and R, makes them once K has run.
//
// The resulting trees, with "A > B" meaning A waits for B:
//   direct:   R > C > fill reads [> stat]     R > collector > linked fills > other fills
//   deferred: R > P > K > fill reads, other fills

#include <cstring>

#include "cache/ram_cache.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/dump.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

// Copies recorded for a read whose buffer is not known yet; a read of an
// archive block spans a few cache blocks at most.
constexpr int kMaxDeferredCopies = 32;
constexpr int kMaxHintDepth = 32;

struct DeferredCopy {
  int32_t block;
  int32_t offsetInBlock;
  int32_t offsetInBuffer;
  int32_t length;
};
static_assert(sizeof(DeferredCopy) == 16, "");

// Carried by a fill, in a CHUNK_BUFFER below it.
struct FillRecord {
  ZulKestRamCacheContext* context;
  CacheHeader* cache;
  int64_t filled;         // the fill reads' accumulator
  int64_t* readActCount;  // the read's, or null
  ZulKestDate knownDate;  // from another valid block of the file, or 0
  uint16_t flags;
  int32_t block;
  int64_t tailLength;
  const uint8_t* tailSource;
  uint8_t* tailDestination;  // null while the read has no buffer
  int64_t tailOffset;        // in the read's buffer
  ZulKestStat stat;          // filled by the stat chunk, when there is one
};
static_assert(sizeof(FillRecord) == 160, "");

// P's state, in its filter data.
struct PreExecState {
  int64_t frontBytes;
  ChunkID read;
  uint16_t copyCount;
  FillRecord* fill;
  DeferredCopy* copies;
};
static_assert(sizeof(PreExecState) <= sizeof(ChunkCallbackRecord::filterData), "");

// A linked fill callback's state, in its filter data.
struct LinkedFillState {
  uint8_t* destination;
  int32_t block;
  int32_t offsetInBlock;
  int32_t length;
  int64_t* actCount;
};
static_assert(sizeof(LinkedFillState) <= sizeof(ChunkCallbackRecord::filterData), "");

template <typename T>
T* StateOf(ChunkCallbackRecord* record) {
  return reinterpret_cast<T*>(record->filterData);
}

CacheHeader* CacheOf(ChunkCallbackRecord* record) {
  return static_cast<CacheHeader*>(record->context);
}

bool Cancelled(ChunkID id) { return (LoadChunkFlags(ChunkAt(id)) & kChunkCancelled) != 0; }

void AddActCount(int64_t* actCount, int64_t bytes) {
  if (actCount != nullptr && bytes != 0) __atomic_add_fetch(actCount, bytes, __ATOMIC_ACQ_REL);
}

char* Dump(const CacheBlock* block, char* buffer, size_t size) REQUIRES_SHARED(g_cacheLock) {
  return DumpCacheBlock(block, buffer, size);
}

ZulKestDate FillDate(const FillRecord* fill) {
  return fill->knownDate != 0 ? fill->knownDate : fill->stat.modificationDate;
}

// A finished fill's block takes what it is now: valid, or gone when it was
// purged meanwhile and nobody needs it.  A file that shrank behind the
// library's back gives a short fill: the block keeps only the bytes read.
void SettleFilledBlock(CacheHeader* cache, const FillRecord* fill) REQUIRES(g_cacheLock) {
  CacheBlock* block = &cache->table[fill->block];
  block->fillCallback = CHUNKID_INVALID;
  if (fill->filled < static_cast<int64_t>(block->length))
    block->length = static_cast<uint32_t>(fill->filled);
  if (AddBlockRef(block, -1) <= 0 &&
      (LoadBlockState(block) == kCACHE_PURGE || block->length == 0)) {
    ClearBlock(cache, fill->block);
    return;
  }
  if (block->length == 0) {
    StoreBlockState(block, kCACHE_PURGE);
    return;
  }
  if (block->modificationDate == 0) block->modificationDate = FillDate(fill);
  __atomic_store_n(&block->accessDate, zulKestDateGetCurrent(), __ATOMIC_RELAXED);
  if (LoadBlockState(block) == kCACHE_BUSY) StoreBlockState(block, kCACHE_VALID);
}

// The bytes of the fill's tail that its reads delivered (the block itself
// may be emptied already when it was purged meanwhile; its data stays
// until the lock is released).
int64_t TailBytesRead(const CacheHeader* cache, const FillRecord* fill) {
  const int64_t offsetInBlock = fill->tailSource - BlockData(cache, fill->block);
  const int64_t read = fill->filled - offsetInBlock;
  if (read <= 0) return 0;
  return read < fill->tailLength ? read : fill->tailLength;
}

// The bytes of [offsetInBlock, + length) that the block really holds.
int64_t HeldBytes(const CacheBlock* block, int64_t offsetInBlock, int64_t length)
    REQUIRES_SHARED(g_cacheLock) {
  const int64_t held = static_cast<int64_t>(block->length) - offsetInBlock;
  if (held <= 0) return 0;
  return held < length ? held : length;
}

// A fill that failed or was cancelled leaves nothing behind.
void AbandonFill(CacheHeader* cache, const FillRecord* fill) REQUIRES(g_cacheLock) {
  CacheBlock* block = &cache->table[fill->block];
  AddBlockRef(block, -1);
  block->fillCallback = CHUNKID_INVALID;
  if (block->refcount <= 0) {
    ClearBlock(cache, fill->block);
  } else {
    StoreBlockState(block, kCACHE_PURGE);
  }
}

// --- Callbacks ---------------------------------------------------------------

int32_t PreExecHandler(ChunkCallbackRecord* record, int32_t event) {
  if (event == 0) return ZUL_KEST_OK;
  const ChunkID self = ChunkIdOf(record);
  KEST2_TRACE(kTraceCache, "PreExecHandler", "Chunk %d starting, err = 0x%08x\n", self,
              static_cast<unsigned>(record->error));
  CacheHeader* cache = CacheOf(record);
  PreExecState* state = StateOf<PreExecState>(record);
  const bool cancelled = Cancelled(self);
  const bool failed = record->error != ZUL_KEST_OK || cancelled;
  ChunkFhIoRecord* read = ChunkRecord<ChunkFhIoRecord>(state->read);
  auto* buffer = static_cast<uint8_t*>(read->buffer);
  int64_t copied = 0;
  CacheWriteLock();
  {
    ChunkLocker lock;
    for (uint16_t i = 0; i < state->copyCount; ++i) {
      const DeferredCopy& copy = state->copies[i];
      if (!failed && buffer != nullptr) {
        std::memcpy(buffer + copy.offsetInBuffer, BlockData(cache, copy.block) + copy.offsetInBlock,
                    static_cast<size_t>(copy.length));
        copied += copy.length;
      }
      ReleaseBlock(cache, copy.block);
    }
    if (FillRecord* fill = state->fill) {
      if (failed || buffer == nullptr) {
        AbandonFill(cache, fill);
      } else {
        SettleFilledBlock(cache, fill);
        const int64_t held = TailBytesRead(cache, fill);
        std::memcpy(buffer + fill->tailOffset, fill->tailSource, static_cast<size_t>(held));
        copied += held;
      }
    }
  }
  CacheWriteUnlock();
  if (failed) return cancelled ? ZUL_KEST_OK : record->error;
  AddActCount(read->actCount, copied);
  if (buffer != nullptr) read->buffer = buffer + state->frontBytes;
  return ZUL_KEST_OK;
}

int32_t LinkedFillHandler(ChunkCallbackRecord* record, int32_t event) {
  if (event == 0) return ZUL_KEST_OK;
  const ChunkID self = ChunkIdOf(record);
  KEST2_TRACE(kTraceCache, "LinkedFillHandler", "Chunk %d Read finished, err = 0x%08x\n", self,
              static_cast<unsigned>(record->error));
  CacheHeader* cache = CacheOf(record);
  const LinkedFillState* state = StateOf<LinkedFillState>(record);
  const bool cancelled = Cancelled(self);
  CacheWriteLock();
  {
    ChunkLocker lock;
    CacheBlock* block = &cache->table[state->block];
    // A failed fill reports its error up to here, so without one the block
    // holds the bytes even when it was purged meanwhile.
    if (!cancelled && record->error == ZUL_KEST_OK) {
      const int64_t held = HeldBytes(block, state->offsetInBlock, state->length);
      std::memcpy(state->destination, BlockData(cache, state->block) + state->offsetInBlock,
                  static_cast<size_t>(held));
      if (TraceEnabled(kTraceCache)) {
        char dump[256];
        TraceLine(kTraceCache, "LinkedFillHandler", "filled block [%d] %s {%s}\n", state->block, "",
                  Dump(block, dump, sizeof(dump)));
      }
      AddActCount(state->actCount, held);
    }
    ReleaseBlock(cache, state->block);
  }
  CacheWriteUnlock();
  return cancelled ? ZUL_KEST_OK : record->error;
}

int32_t CallbackHandler(ChunkCallbackRecord* record, int32_t event) {
  if (event == 0) return ZUL_KEST_OK;
  const ChunkID self = ChunkIdOf(record);
  KEST2_TRACE(kTraceCache, "CallbackHandler", "Chunk %d Read finished, err = 0x%08x\n", self,
              static_cast<unsigned>(record->error));
  auto* fill = static_cast<FillRecord*>(record->context);
  CacheHeader* cache = fill->cache;
  // A cancelled fill may have been skipped: its block holds nothing.
  const bool failed = record->error != ZUL_KEST_OK || Cancelled(self);
  CacheWriteLock();
  {
    ChunkLocker lock;
    if (failed) {
      AbandonFill(cache, fill);
    } else {
      SettleFilledBlock(cache, fill);
      if (fill->tailLength > 0 && fill->tailDestination != nullptr) {
        const int64_t held = TailBytesRead(cache, fill);
        std::memcpy(fill->tailDestination, fill->tailSource, static_cast<size_t>(held));
        AddActCount(fill->readActCount, held);
      }
      if (TraceEnabled(kTraceCache)) {
        char dump[256];
        TraceLine(kTraceCache, "CallbackHandler", "read/filled block [%d] %s {%s}\n", fill->block,
                  "", Dump(&cache->table[fill->block], dump, sizeof(dump)));
      }
    }
  }
  CacheWriteUnlock();
  return Cancelled(self) ? ZUL_KEST_OK : record->error;
}

// --- ExecuteRead ---------------------------------------------------------------

// Everything ExecuteRead has built so far, for the steps and for undoing.
struct ReadRewrite {
  ZulKestRamCacheContext* context;
  CacheHeader* cache;
  ChunkID read;
  ChunkFhIoRecord* io;
  const FileHandle* file;
  const uint8_t* digest;
  int64_t fileSize;
  // deferred mode
  ChunkID linked;  // K
  ChunkID pre;     // P
  DeferredCopy copies[kMaxDeferredCopies];
  int copyCount;
  int64_t frontBytes;
  // direct mode
  ChunkID collector;
  int64_t copiedNow;
  // the tail's fill, once made
  FillRecord* fill;
  // the read as it came (after clamping to the file), for Undo
  int64_t cameOffset;
  int64_t cameCount;
  void* cameBuffer;
  bool deferred() const { return linked != CHUNKID_INVALID; }
};

void RecordCopy(ReadRewrite* rw, int32_t block, int64_t offsetInBlock, int64_t offsetInBuffer,
                int64_t length) {
  rw->copies[rw->copyCount++] =
      DeferredCopy{block, static_cast<int32_t>(offsetInBlock), static_cast<int32_t>(offsetInBuffer),
                   static_cast<int32_t>(length)};
  AddBlockRef(&rw->cache->table[block], 1);
}

// Gives back the references of linked fill callbacks and frees them.
void DropCollector(ReadRewrite* rw) {
  if (rw->collector == CHUNKID_INVALID) return;
  ChunkLocker lock;
  for (ChunkID child; (child = GetChild(rw->collector, 0)) != CHUNKID_INVALID;) {
    AddBlockRef(
        &rw->cache->table[StateOf<LinkedFillState>(ChunkRecord<ChunkCallbackRecord>(child))->block],
        -1);
    UnlinkChunks(rw->collector, child);
    DeallocateTree(child);
  }
  UnlinkChunks(rw->read, rw->collector);
  DeallocateTree(rw->collector);
  rw->collector = CHUNKID_INVALID;
}

// A callback below the read's collector that copies [offsetInBlock, +n)
// of a busy block to destination once its fill has finished.
bool LinkToRunningFill(ReadRewrite* rw, int32_t index, int64_t offsetInBlock, uint8_t* destination,
                       int64_t n) REQUIRES_SHARED(g_cacheLock) {
  CacheBlock* block = &rw->cache->table[index];
  if (rw->collector == CHUNKID_INVALID) {
    rw->collector = AllocateChunk(CHUNK_NULL);
    if (rw->collector == CHUNKID_INVALID) return false;
    if (!LinkChunks(rw->read, rw->collector)) {
      DeallocateChunk(rw->collector);
      rw->collector = CHUNKID_INVALID;
      return false;
    }
  }
  const ChunkID callback = AllocateChildChunk(rw->collector, CHUNK_CALLBACK);
  if (callback == CHUNKID_INVALID) return false;
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(callback);
  record->callback = LinkedFillHandler;
  record->context = rw->cache;
  *StateOf<LinkedFillState>(record) =
      LinkedFillState{destination, index, static_cast<int32_t>(offsetInBlock),
                      static_cast<int32_t>(n), rw->io->actCount};
  AddBlockRef(block, 1);
  if (!LinkChunks(callback, block->fillCallback)) {
    AddBlockRef(block, -1);
    UnlinkChunks(rw->collector, callback);
    DeallocateChunk(callback);
    return false;
  }
  return true;
}

// Unlinks every child of id, freeing those that no other chunk holds.
void DropChildren(ChunkID id) {
  for (ChunkID child; (child = GetChild(id, 0)) != CHUNKID_INVALID;) {
    UnlinkChunks(id, child);
    if (GetParent(child, 0) == CHUNKID_INVALID) DeallocateTree(child);
  }
}

// Frees an unused P and what was hung below K for it: K itself stays with
// its other parent (the archive lane); the fills of other reads stay with
// theirs; this read's own fill and copies go.
void FreePreExec(ChunkID pre, ChunkID linked) {
  ChunkLocker lock;
  DropChildren(linked);
  DropChildren(pre);
  DeallocateTree(pre);
}

// In deferred mode the fills a read waits for hang below K, not beside it:
// K lends the archive's work buffers when it runs, and a K that held them
// while its read still waited for fills of other reads (whose own K may be
// waiting for those very buffers) could leave every buffer lent and no read
// able to finish.  Below K, the buffers are taken only once every fill is
// done.  False when the link cannot be had.
bool LinkWaitForFill(ReadRewrite* rw, const CacheBlock* block) REQUIRES_SHARED(g_cacheLock) {
  return LinkChunks(rw->linked, block->fillCallback);
}

enum class FrontResult { kServed, kMiss, kUndo };

// Step through the read from its front while blocks are cached.
FrontResult FrontPass(ReadRewrite* rw) REQUIRES_SHARED(g_cacheLock) {
  ChunkFhIoRecord* io = rw->io;
  const int64_t blockSize = rw->cache->blockSize;
  const ChunkID id = rw->read;
  while (io->reqCount > 0) {
    const int64_t blockOffset = io->offset - io->offset % blockSize;
    const int32_t index = FindBlock(rw->cache, rw->digest, blockOffset);
    if (index < 0) {
      KEST2_TRACE(kTraceCache, "ExecuteRead", "Chunk %d offset %lld not found in cache\n", id,
                  static_cast<long long>(io->offset));
      return FrontResult::kMiss;
    }
    CacheBlock* block = &rw->cache->table[index];
    if (TraceEnabled(kTraceCache)) {
      char dump[256];
      TraceLine(kTraceCache, "ExecuteRead",
                "Chunk %d found in block[%d] {%s} refcnt %d callback %d\n", id, index,
                Dump(block, dump, sizeof(dump)),
                __atomic_load_n(&block->refcount, __ATOMIC_RELAXED), block->fillCallback);
    }
    const int64_t offsetInBlock = io->offset - blockOffset;
    int64_t n = static_cast<int64_t>(block->length) - offsetInBlock;
    if (n > io->reqCount) n = io->reqCount;
    if (n <= 0) return FrontResult::kMiss;  // the file has grown past a short block
    const int64_t offsetInBuffer = rw->frontBytes;
    if (LoadBlockState(block) == kCACHE_VALID) {
      if (rw->deferred()) {
        if (rw->copyCount == kMaxDeferredCopies) return FrontResult::kMiss;
        RecordCopy(rw, index, offsetInBlock, offsetInBuffer, n);
      } else {
        std::memcpy(io->buffer, BlockData(rw->cache, index) + offsetInBlock,
                    static_cast<size_t>(n));
        rw->copiedNow += n;
      }
    } else {
      ChunkLocker lock;
      const ChunkID fill = block->fillCallback;
      if (fill == CHUNKID_INVALID || Cancelled(fill)) {
        StoreBlockState(block, kCACHE_PURGE);
        return FrontResult::kMiss;
      }
      if (rw->deferred()) {
        if (rw->copyCount == kMaxDeferredCopies || !LinkWaitForFill(rw, block))
          return FrontResult::kMiss;
        if (TraceEnabled(kTraceCache)) {
          char dump[kDumpBufferSize];
          TraceLine(
              kTraceCache, "ExecuteRead",
              "Chunk %d block[%d] busy, linking pre-execute %d to existing callback chunk %d\n", id,
              index, rw->pre, fill);
          TraceLine(kTraceCache, "ExecuteRead", "%s\n", DumpChunk(fill, dump, sizeof(dump)));
        }
        RecordCopy(rw, index, offsetInBlock, offsetInBuffer, n);
      } else if (!LinkToRunningFill(rw, index, offsetInBlock, static_cast<uint8_t*>(io->buffer),
                                    n)) {
        return FrontResult::kUndo;
      }
    }
    io->offset += n;
    io->reqCount -= n;
    if (!rw->deferred()) io->buffer = static_cast<uint8_t*>(io->buffer) + n;
    rw->frontBytes += n;
    CountStat(&rw->cache->hits, 1);
    CountStat(&rw->cache->hitBytes, static_cast<uint64_t>(n));
  }
  return FrontResult::kServed;
}

// The part of what is left of the read that lies in its last block.
struct Tail {
  int64_t block;  // T: file offset of the block
  int64_t offsetInBlock;
  int64_t offsetInBuffer;  // from the read's original start
  int64_t length;
};

Tail TailOf(const ReadRewrite* rw) {
  const int64_t blockSize = rw->cache->blockSize;
  const int64_t end = rw->io->offset + rw->io->reqCount;
  Tail tail;
  tail.block = (end - 1) - (end - 1) % blockSize;
  const int64_t start = rw->io->offset > tail.block ? rw->io->offset : tail.block;
  tail.offsetInBlock = start - tail.block;
  tail.offsetInBuffer = rw->frontBytes + (start - rw->io->offset);
  tail.length = end - start;
  return tail;
}

// Another reader may have filled or started the tail block meanwhile.
// True when the block was found (no fill is made then).
bool SecondChance(ReadRewrite* rw, const Tail& tail) REQUIRES(g_cacheLock) {
  const int32_t index = FindBlock(rw->cache, rw->digest, tail.block);
  if (index < 0) return false;
  CacheBlock* block = &rw->cache->table[index];
  const ChunkID id = rw->read;
  if (TraceEnabled(kTraceCache)) {
    char dump[256];
    TraceLine(kTraceCache, "ExecuteRead", "Chunk %d 2nd chance found in cache block[%d] {%s}\n", id,
              index, Dump(block, dump, sizeof(dump)));
  }
  if (tail.offsetInBlock + tail.length > static_cast<int64_t>(block->length)) return true;
  const bool valid = LoadBlockState(block) == kCACHE_VALID;
  if (valid && !rw->deferred()) {
    std::memcpy(static_cast<uint8_t*>(rw->io->buffer) + (tail.offsetInBuffer - rw->frontBytes),
                BlockData(rw->cache, index) + tail.offsetInBlock, static_cast<size_t>(tail.length));
    rw->copiedNow += tail.length;
  } else if (rw->deferred()) {
    if (rw->copyCount == kMaxDeferredCopies) return true;
    if (!valid) {
      ChunkLocker lock;
      const ChunkID fill = block->fillCallback;
      if (fill == CHUNKID_INVALID || Cancelled(fill) || !LinkWaitForFill(rw, block)) {
        KEST2_TRACE(kTraceCache, "ExecuteRead",
                    "Chunk %d Error linking to existing callback chunk %d\n", id, fill);
        return true;
      }
      KEST2_TRACE(kTraceCache, "ExecuteRead",
                  "Chunk %d block[%d] busy, linking to existing callback chunk %d\n", id, index,
                  fill);
    }
    RecordCopy(rw, index, tail.offsetInBlock, tail.offsetInBuffer, tail.length);
  } else {
    return true;  // busy, direct: the read reads its tail itself
  }
  rw->io->reqCount -= tail.length;
  CountStat(&rw->cache->hits, 1);
  CountStat(&rw->cache->hitBytes, static_cast<uint64_t>(tail.length));
  return true;
}

// Moves the recorded copies below P and puts P between K and the read.
// False (nothing changed) when the copies cannot be kept.
bool AttachDeferredCopies(ReadRewrite* rw, FillRecord* fill) {
  ChunkCallbackRecord* pre = ChunkRecord<ChunkCallbackRecord>(rw->pre);
  PreExecState* state = StateOf<PreExecState>(pre);
  state->frontBytes = rw->frontBytes;
  state->read = rw->read;
  state->copyCount = static_cast<uint16_t>(rw->copyCount);
  state->fill = fill;
  state->copies = nullptr;
  if (rw->copyCount > 0) {
    const size_t bytes = sizeof(DeferredCopy) * static_cast<size_t>(rw->copyCount);
    void* copies = AllocateBufferChunk(rw->pre, bytes);
    if (copies == nullptr) return false;
    std::memcpy(copies, rw->copies, bytes);
    state->copies = static_cast<DeferredCopy*>(copies);
  }
  ChunkLocker lock;
  if (!LinkChunks(rw->read, rw->pre)) return false;
  rw->io->header.linked = CHUNKID_INVALID;
  ChunkHeader* linked = ChunkAt(rw->linked);
  StoreChunkFlags(
      linked, static_cast<uint16_t>(LoadChunkFlags(linked) & ~(kChunkScheduled | kChunkCompleted)));
  KEST2_TRACE(kTraceCache, "ExecuteRead",
              "Chunk %d %d deferred copies, linking callback %d to pre-exec callback %d\n",
              rw->read, rw->copyCount, rw->pre, rw->linked);
  return true;
}

// Sets the victim up for the tail block and builds its fill: the reads,
// the fill record and, when the file's date is unknown, a stat.  The fill's
// root, or CHUNKID_INVALID (the victim then stays empty).
ChunkID BuildFill(CacheHeader* cache, ZulKestRamCacheContext* context, uint32_t h,
                  const uint8_t* digest, int64_t fileSize, int64_t blockOffset, int32_t victim,
                  FillRecord** fillOut, ChunkID traceId) REQUIRES(g_cacheLock) {
  CacheBlock* block = &cache->table[victim];
  if (LoadBlockState(block) != kCACHE_EMPTY) {
    KEST2_TRACE(kTraceCache, "ExecuteRead", "Chunk %d Flushing cache block[%d]\n", traceId, victim);
    ClearBlock(cache, victim);
  }
  const int64_t blockSize = cache->blockSize;
  const int64_t length = fileSize - blockOffset < blockSize ? fileSize - blockOffset : blockSize;
  block->offset = blockOffset;
  std::memcpy(block->digest, digest, kMd5DigestSize);
  block->length = static_cast<uint32_t>(length);
  block->modificationDate = 0;
  __atomic_store_n(&block->accessDate, ZulKestDate{0}, __ATOMIC_RELAXED);
  const ZulKestDate known = FindFileDate(cache, digest);

  const uint32_t maxChunk = __atomic_load_n(&g_KestParams.maxChunk, __ATOMIC_RELAXED);
  const int64_t piece = maxChunk != 0 && maxChunk < length ? maxChunk : length;
  const int64_t pieces = (length + piece - 1) / piece;
  const ChunkID fill = AllocateChunk(pieces == 1 ? CHUNK_FH_READ : CHUNK_NULL);
  if (fill == CHUNKID_INVALID) return CHUNKID_INVALID;
  auto* record = static_cast<FillRecord*>(AllocateBufferChunk(fill, sizeof(FillRecord)));
  if (record == nullptr) {
    DeallocateTree(fill);
    return CHUNKID_INVALID;
  }
  std::memset(record, 0, sizeof(*record));
  record->context = context;
  record->cache = cache;
  record->knownDate = known;
  record->block = victim;
  for (int64_t i = 0; i < pieces; ++i) {
    ChunkID read = fill;
    if (pieces > 1) {
      read = AllocateChildChunk(fill, CHUNK_FH_READ);
      if (read == CHUNKID_INVALID) {
        DeallocateTree(fill);
        return CHUNKID_INVALID;
      }
    }
    ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(read);
    io->h = h;
    io->offset = blockOffset + i * piece;
    io->position = INT64_MAX;
    io->reqCount = length - i * piece < piece ? length - i * piece : piece;
    io->buffer = BlockData(cache, victim) + i * piece;
    io->actCount = &record->filled;
  }
  const bool withStat = known == 0;
  if (withStat) {
    const ChunkID stat = AllocateChildChunk(fill, CHUNK_STAT);
    if (stat == CHUNKID_INVALID) {
      DeallocateTree(fill);
      return CHUNKID_INVALID;
    }
    ChunkStatRecord* statRecord = ChunkRecord<ChunkStatRecord>(stat);
    statRecord->h = h;
    statRecord->stat = &record->stat;
  }
  KEST2_TRACE(kTraceCache, "ExecuteRead",
              "Chunk %d created callback chunk with %d read chunk(s) (%d ...) %s\n", traceId,
              static_cast<int>(pieces), fill, withStat ? "and a stat chunk" : " ");
  *fillOut = record;
  return fill;
}

// The fill callback C ("CallbackHandler") linked above the fill's root, or
// CHUNKID_INVALID with nothing left allocated.
ChunkID NewFillCallback(FillRecord* fill, ChunkID fillRoot) {
  const ChunkID callback = AllocateCallbackChunk(CallbackHandler, fill);
  if (callback == CHUNKID_INVALID) return callback;
  ChunkLocker lock;
  if (LinkChunks(callback, fillRoot)) return callback;
  DeallocateChunk(callback);
  return CHUNKID_INVALID;
}

// Marks the victim busy with its fill callback and takes the fill's
// reference.
void StartFill(CacheHeader* cache, int32_t victim, ChunkID callback) REQUIRES(g_cacheLock) {
  CacheBlock* block = &cache->table[victim];
  block->fillCallback = callback;
  __atomic_store_n(&block->refcount, 1, __ATOMIC_RELEASE);
  StoreBlockState(block, kCACHE_BUSY);
  // Lookups stop at the last block ever filled: a cold or lightly used
  // cache is not scanned whole on every miss.
  if (static_cast<uint32_t>(victim) >= cache->usedLimit)
    cache->usedLimit = static_cast<uint32_t>(victim) + 1;
}

// Hangs a direct read's fill beside it: R > C > fill.  C, or
// CHUNKID_INVALID with nothing of C left.
ChunkID HangFillBesideRead(ReadRewrite* rw, FillRecord* fill, ChunkID fillRoot, const Tail& tail)
    REQUIRES_SHARED(g_cacheLock) {
  fill->tailDestination =
      static_cast<uint8_t*>(rw->io->buffer) + (tail.offsetInBuffer - rw->frontBytes);
  const ChunkID callback = NewFillCallback(fill, fillRoot);
  if (callback == CHUNKID_INVALID) return callback;
  ChunkLocker lock;
  if (LinkChunks(rw->read, callback)) return callback;
  UnlinkChunks(callback, fillRoot);
  DeallocateChunk(callback);
  return CHUNKID_INVALID;
}

// Hangs a deferred read's fill below K; P settles it.  P, or
// CHUNKID_INVALID when the link cannot be had.
ChunkID HangFillBelowLinked(ReadRewrite* rw, ChunkID fillRoot) {
  ChunkLocker lock;
  return LinkChunks(rw->linked, fillRoot) ? rw->pre : CHUNKID_INVALID;
}

// Fills the tail block; the tail then comes out of it.  Nothing is left
// behind when the fill cannot be had.
void FillTail(ReadRewrite* rw, const Tail& tail) REQUIRES(g_cacheLock) {
  const ChunkID id = rw->read;
  const int32_t victim = ChooseVictim(rw->cache);
  if (victim < 0) {
    KEST2_TRACE(kTraceCache, "ExecuteRead", "Chunk %d No free blocks available\n", id);
    return;
  }
  if (TraceEnabled(kTraceCache)) {
    TraceLine(kTraceCache, "ExecuteRead",
              "Chunk %d filling RAM cache block[%d] with %s (%lld-%lld)\n", id, victim,
              GetPath(&rw->file->path), static_cast<long long>(tail.block),
              static_cast<long long>(tail.block +
                                     (rw->fileSize - tail.block < rw->cache->blockSize
                                          ? rw->fileSize - tail.block
                                          : rw->cache->blockSize) -
                                     1));
  }
  FillRecord* fill = nullptr;
  const ChunkID fillRoot = BuildFill(rw->cache, rw->context, rw->io->h, rw->digest, rw->fileSize,
                                     tail.block, victim, &fill, id);
  ChunkID fillCallback = CHUNKID_INVALID;
  if (fillRoot != CHUNKID_INVALID) {
    fill->readActCount = rw->io->actCount;
    fill->tailLength = tail.length;
    fill->tailSource = BlockData(rw->cache, victim) + tail.offsetInBlock;
    fill->tailOffset = tail.offsetInBuffer;
    fillCallback = rw->deferred() ? HangFillBelowLinked(rw, fillRoot)
                                  : HangFillBesideRead(rw, fill, fillRoot, tail);
    if (fillCallback == CHUNKID_INVALID) DeallocateTree(fillRoot);
  }
  if (fillCallback == CHUNKID_INVALID) {
    ClearBlock(rw->cache, victim);
    return;
  }
  KEST2_TRACE(kTraceCache, "ExecuteRead", "Chunk %d Fill callback %d\n", id, fillCallback);
  StartFill(rw->cache, victim, fillCallback);
  rw->io->reqCount -= tail.length;
  rw->fill = fill;
}

// A fill is made only under the write lock (FillTail), so whoever undoes
// one holds it; the analysis cannot tie the lock to rw->fill.
void AbandonTailFill(ReadRewrite* rw) NO_THREAD_SAFETY_ANALYSIS {
  if (rw->fill != nullptr) AbandonFill(rw->cache, rw->fill);
  rw->fill = nullptr;
}

// Puts the read back as it came, to go down whole: every block reference
// taken is given back, the tail's fill is abandoned, P (with what hangs
// below K for it) and the collector are freed.
void Undo(ReadRewrite* rw) REQUIRES_SHARED(g_cacheLock) {
  for (int i = 0; i < rw->copyCount; ++i) AddBlockRef(&rw->cache->table[rw->copies[i].block], -1);
  rw->copyCount = 0;
  AbandonTailFill(rw);
  DropCollector(rw);
  if (rw->pre != CHUNKID_INVALID) FreePreExec(rw->pre, rw->linked);
  rw->pre = CHUNKID_INVALID;
  rw->io->offset = rw->cameOffset;
  rw->io->reqCount = rw->cameCount;
  rw->io->buffer = rw->cameBuffer;
}

// Whether the read is the cache's to serve: an open file, no hint that
// leaves reads alone, a cache with blocks, a read of at least a byte.
bool CacheServes(const CacheHeader* cache, ChunkID id, const ChunkFhIoRecord* io,
                 const FileHandle* file) {
  return file != nullptr && __atomic_load_n(&file->opened, __ATOMIC_ACQUIRE) != 0 &&
         (CacheHints(id, io->h) & kCacheHintsLeaveReads) == 0 && cache->blockSize != 0 &&
         io->reqCount > 0 && io->offset >= 0;
}

ReadRewrite NewRewrite(ZulKestRamCacheContext* context, ChunkID id, const FileHandle* file) {
  ReadRewrite rw{};
  rw.context = context;
  rw.cache = HeaderOf(context);
  rw.read = id;
  rw.io = ChunkRecord<ChunkFhIoRecord>(id);
  rw.file = file;
  rw.digest = file->path.digest;
  rw.fileSize = __atomic_load_n(&file->size, __ATOMIC_ACQUIRE);
  rw.linked = rw.io->header.linked;
  rw.pre = CHUNKID_INVALID;
  rw.collector = CHUNKID_INVALID;
  return rw;
}

// A read past the end is trimmed to it; false for one that starts there.
// What it then is, is what Undo puts back.
bool ClampToFile(ReadRewrite* rw) {
  ChunkFhIoRecord* io = rw->io;
  if (io->offset + io->reqCount > rw->fileSize) {
    const int64_t clamped = rw->fileSize - io->offset;
    if (clamped < 1) return false;
    io->reqCount = clamped;
  }
  rw->cameOffset = io->offset;
  rw->cameCount = io->reqCount;
  rw->cameBuffer = io->buffer;
  return true;
}

// Counts the miss of what is left of the read; true when its tail block
// deserves a second look under the write lock.  A read that ends on a
// block boundary fills nothing.  When the block it missed is its tail,
// which the front pass has just looked up, only a fill started in this
// instant could serve it: the read goes to the file without taking the
// write lock (which would stall every other reader of the cache) for a
// second look.
bool CountMissAndLookAgain(ReadRewrite* rw, bool endsOnBoundary) {
  CountStat(&rw->cache->misses, 1);
  CountStat(&rw->cache->missBytes, static_cast<uint64_t>(rw->io->reqCount));
  const int64_t blockSize = rw->cache->blockSize;
  const bool tailJustMissed = rw->io->offset - rw->io->offset % blockSize == TailOf(rw).block;
  return !endsOnBoundary || !tailJustMissed || rw->deferred();
}

// Puts P between K and the read's K link.  False (nothing changed) when
// it cannot be had.
bool HangPreExec(ReadRewrite* rw) {
  const ChunkID pre = AllocateCallbackChunk(PreExecHandler, rw->cache);
  if (pre == CHUNKID_INVALID) return false;
  ChunkLocker lock;
  if (!LinkChunks(pre, rw->linked)) {
    DeallocateChunk(pre);
    return false;
  }
  rw->pre = pre;
  return true;
}

// After the passes: a deferred read keeps its copies and fill through P,
// or goes down whole; a direct read counts what it copied.
void Settle(ReadRewrite* rw, bool missed, bool endsOnBoundary) REQUIRES_SHARED(g_cacheLock) {
  if (!rw->deferred()) {
    AddActCount(rw->io->actCount, rw->copiedNow);
    return;
  }
  if (rw->copyCount == 0 && rw->fill == nullptr) {
    if (missed && !endsOnBoundary)
      KEST2_TRACE(kTraceCache, "ExecuteRead",
                  "Chunk %d unlinking and restoring pre-exec callback\n", rw->read);
    Undo(rw);
    return;
  }
  if (!AttachDeferredCopies(rw, rw->fill)) {
    Undo(rw);
    return;
  }
  if (rw->copyCount == 0)
    KEST2_TRACE(kTraceCache, "ExecuteRead",
                "Chunk %d no deferred copies, linking fill callback %d to original read %d\n",
                rw->read, rw->pre, rw->read);
}

}  // namespace

// The hints of the operations whose roots lie above id.
static uint32_t CacheHintsAbove(ChunkID id, int depth) REQUIRES(g_locks.chunk) {
  if (depth > kMaxHintDepth) return 0;
  uint32_t hints = 0;
  const ChunkHeader* chunk = ChunkAt(id);
  if (chunk->type == CHUNK_ROOT) {
    if (const Operation* op =
            Lookup<Operation>(kOpTable, reinterpret_cast<const ChunkRootRecord*>(chunk)->op))
      hints |= op->attr.opflags & kCacheHintMask;
  }
  for (uint32_t n = 0;; ++n) {
    const ChunkID parent = GetParent(id, n);
    if (parent == CHUNKID_INVALID || parent == GlobalRootChunk()) break;
    hints |= CacheHintsAbove(parent, depth + 1);
  }
  return hints;
}

uint32_t CacheHints(ChunkID id, uint32_t handle) {
  uint32_t hints = 0;
  if (const FileHandle* file = Lookup<FileHandle>(kFhTable, handle))
    hints = file->openParams.opflags & kCacheHintMask;
  ChunkLocker lock;
  return hints | CacheHintsAbove(id, 0);
}

int32_t ExecuteRead(ZulKestRamCacheContext* context, ChunkID* readId) {
  const ChunkID id = *readId;
  KEST2_TRACE(kTraceCache, "ExecuteRead", "Chunk %d looking in cache \n", id);
  ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(id);
  const FileHandle* file = Lookup<FileHandle>(kFhTable, io->h);
  CacheHeader* cache = HeaderOf(context);
  if (!CacheServes(cache, id, io, file)) return ZUL_KEST_OK;
  const int64_t blockSize = cache->blockSize;
  const bool endsOnBoundary = (io->offset + io->reqCount) % blockSize == 0;

  ReadRewrite rw = NewRewrite(context, id, file);

  CacheReadLock();
  KEST2_TRACE(kTraceCache, "ExecuteRead", "Chunk %d looking for  %s (%lld-%lld) in cache\n", id,
              GetPath(&file->path), static_cast<long long>(io->offset),
              static_cast<long long>(io->offset + io->reqCount - 1));
  if (!ClampToFile(&rw)) {
    CacheReadUnlock();
    *readId = CHUNKID_INVALID;
    return ZUL_KEST_ERROR_EOF;
  }
  if (rw.deferred() && !HangPreExec(&rw)) {
    CacheReadUnlock();
    return ZUL_KEST_OK;
  }

  const FrontResult front = FrontPass(&rw);
  if (front == FrontResult::kUndo) {
    Undo(&rw);
    CacheReadUnlock();
    return ZUL_KEST_OK;
  }
  const bool missed = front == FrontResult::kMiss;
  if (!missed || io->reqCount == 0 || !CountMissAndLookAgain(&rw, endsOnBoundary)) {
    Settle(&rw, missed, endsOnBoundary);
    CacheReadUnlock();
    return ZUL_KEST_OK;
  }
  CacheReadUnlock();
  CacheWriteLock();
  const Tail tail = TailOf(&rw);
  if (!SecondChance(&rw, tail) && !endsOnBoundary) FillTail(&rw, tail);
  Settle(&rw, missed, endsOnBoundary);
  CacheWriteUnlock();
  return ZUL_KEST_OK;
}

ChunkID StartPrefetchFill(CacheHeader* cache, uint32_t h, int64_t blockOffset, int64_t* covered,
                          bool* noVictim) {
  *covered = 0;
  *noVictim = false;
  const FileHandle* file = Lookup<FileHandle>(kFhTable, h);
  if (file == nullptr) return CHUNKID_INVALID;
  const int64_t fileSize = __atomic_load_n(&file->size, __ATOMIC_ACQUIRE);
  const int64_t blockSize = cache->blockSize;
  *covered = fileSize - blockOffset < blockSize ? fileSize - blockOffset : blockSize;
  CacheWriteLock();
  ChunkID callback = CHUNKID_INVALID;
  if (FindBlock(cache, file->path.digest, blockOffset) < 0) {
    const int32_t victim = ChooseVictim(cache);
    if (victim < 0) {
      *noVictim = true;
    } else {
      FillRecord* fill = nullptr;
      const ChunkID fillRoot = BuildFill(cache, nullptr, h, file->path.digest, fileSize,
                                         blockOffset, victim, &fill, CHUNKID_INVALID);
      if (fillRoot != CHUNKID_INVALID) callback = NewFillCallback(fill, fillRoot);
      if (callback != CHUNKID_INVALID) {
        StartFill(cache, victim, callback);
      } else {
        if (fillRoot != CHUNKID_INVALID) DeallocateTree(fillRoot);
        ClearBlock(cache, victim);
        *noVictim = true;  // out of chunks: stop as if the cache were full
      }
    }
  }
  CacheWriteUnlock();
  return callback;
}

void AbortPrefetchFill(CacheHeader* cache, ChunkID fill) {
  CacheWriteLock();
  AbandonFill(cache, static_cast<FillRecord*>(ChunkRecord<ChunkCallbackRecord>(fill)->context));
  CacheWriteUnlock();
  DeallocateTree(fill);
}

}  // namespace kest2
