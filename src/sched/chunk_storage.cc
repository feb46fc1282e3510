// The chunk storage: chunks live in one pool of 16-byte units over the
// caller's chunk storage and name each other by unit index, so a tree costs
// no memory beyond its records, and the chunk lock that guards them.
//
// Locking.  Every public function that reads or writes links, flags,
// priority or deadline takes the recursive chunk lock for the whole of its
// work (so a tree is never seen half-rewritten) and calls the others
// freely; a thread building a tree nobody else can reach skips it
// (PrivateTreeScope).  Pool allocation needs no lock: a fresh chunk is
// known to nobody until it is linked.  The lock covers only record work;
// trace output is the slowest thing done under it, and only when chunk
// tracing is on.

#include "core/globals.h"
#include "debug/trace.h"
#include "sched/chunk_cursors.h"
#include "sched/chunk_tree.h"
#include "sched/chunk_types.h"

namespace kest2 {

Pool g_chunkPool;

namespace {

constexpr uint64_t kChunkAlignment = 8;

uint64_t g_chunkStorageSize;
ChunkID g_globalRoot = CHUNKID_INVALID;
thread_local int t_privateTreeDepth;  // PrivateTreeScope nesting

uint32_t UnitsFor(uint64_t bytes) {
  return static_cast<uint32_t>((bytes + kChunkUnitSize - 1) / kChunkUnitSize);
}

// Units a live chunk occupies: its type's footprint, and a buffer's data.
uint32_t ChunkUnits(const ChunkHeader* chunk) {
  uint64_t bytes = ChunkTypeOf(chunk->type).footprint;
  if (chunk->type == CHUNK_BUFFER)
    bytes += reinterpret_cast<const ChunkBufferRecord*>(chunk)->dataSize;
  return UnitsFor(bytes);
}

}  // namespace

ChunkLocker::ChunkLocker() : m_held(t_privateTreeDepth == 0 && LocksCreated()) {
  if (m_held) MutexLock(&g_locks.chunk);
}

ChunkLocker::~ChunkLocker() {
  if (m_held) MutexUnlock(&g_locks.chunk);
}

PrivateTreeScope::PrivateTreeScope(bool active) : m_active(active) {
  if (m_active) ++t_privateTreeDepth;
}

PrivateTreeScope::~PrivateTreeScope() {
  if (m_active) --t_privateTreeDepth;
}

bool IsLiveLocked(ChunkID id) {
  if (!g_chunkPool.initialised || id >= g_chunkPool.capacity) return false;
  if (!PoolUnitAllocated(&g_chunkPool, id)) return false;
  return (LoadChunkFlags(ChunkAt(id)) & kChunkLiveMarkMask) == kChunkLiveMark;
}

int32_t InitializeChunkStorage(void* storage, uint64_t size) {
  g_chunkPool.name = "chunk";
  const int32_t result =
      PoolSetUp(&g_chunkPool, storage, size, kChunkMaxUnits, kChunkUnitSize, kChunkAlignment);
  if (result != ZUL_KEST_OK) return result;
  g_chunkStorageSize = size;
  const ChunkID root = AllocateChunk(CHUNK_NULL);
  if (root == CHUNKID_INVALID) {
    PoolTearDown(&g_chunkPool);
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  g_globalRoot = root;
  return ZUL_KEST_OK;
}

void TerminateChunkStorage() {
  if (!g_chunkPool.initialised) return;
  DeallocateChunk(g_globalRoot);
  g_globalRoot = CHUNKID_INVALID;
  const uint64_t capacity = g_chunkPool.capacity;
  PoolTearDown(&g_chunkPool);
  const uint64_t bytes =
      uint64_t{kChunkUnitSize} * PoolHighWater(&g_chunkPool) + (capacity + 7) / 8;
  const uint64_t percent = g_chunkStorageSize != 0 ? bytes * 100 / g_chunkStorageSize : 0;
  KEST2_TRACE(kTraceChunk, "Terminate", "chunkStorage high water mark = %d bytes (%d%%)",
              static_cast<int>(bytes), static_cast<int>(percent));
}

ChunkID GlobalRootChunk() { return g_globalRoot; }

ChunkID ChunkIdOf(const void* record) {
  const uintptr_t offset =
      reinterpret_cast<uintptr_t>(record) - reinterpret_cast<uintptr_t>(g_chunkPool.base);
  return static_cast<ChunkID>(offset / g_chunkPool.unit);
}

bool ChunkIsLive(ChunkID id) {
  if (id == CHUNKID_INVALID) return false;
  ChunkLocker lock;
  return IsLiveLocked(id);
}

ChunkID AllocateChunk(uint8_t type, uint32_t size) {
  int64_t index = -1;
  if (type < kChunkTypeCount) {
    const uint64_t bytes = size > ChunkTypeOf(type).footprint ? size : ChunkTypeOf(type).footprint;
    const uint32_t units = UnitsFor(bytes);
    index = PoolAllocate(&g_chunkPool, units);
    if (index >= CHUNKID_INVALID) {  // cannot happen with two-unit minimum
      PoolFree(&g_chunkPool, static_cast<uint32_t>(index), units);
      index = -1;
    }
  }
  if (index < 0) {
    KEST2_TRACE(kTraceChunk, "Allocate", "%s", "(failed)");
    return CHUNKID_INVALID;
  }
  // The units come zeroed and nobody knows the id yet: no lock needed.
  const ChunkID id = static_cast<ChunkID>(index);
  ChunkHeader* chunk = ChunkAt(id);
  StoreChunkFlags(chunk, kChunkLiveMark);
  chunk->type = type;
  chunk->parent = CHUNKID_INVALID;
  chunk->child0 = CHUNKID_INVALID;
  chunk->child1 = CHUNKID_INVALID;
  chunk->linked = CHUNKID_INVALID;
  if (type == CHUNK_FH_READ || type == CHUNK_FH_WRITE) {
    ChunkRecord<ChunkFhIoRecord>(id)->position = INT64_MAX;
  } else if (type == CHUNK_BUFFER && size > kChunkTypes[CHUNK_BUFFER].footprint) {
    ChunkRecord<ChunkBufferRecord>(id)->dataSize = size - kChunkTypes[CHUNK_BUFFER].footprint;
  }
  KEST2_TRACE(kTraceChunk, "Allocate", "%s", DumpChunk(id, nullptr, 0));
  return id;
}

ChunkID AllocateChunk(uint8_t type) {
  return AllocateChunk(type, type < kChunkTypeCount ? ChunkTypeOf(type).footprint : 0);
}

void DeallocateChunk(ChunkID id) {
  if (id == CHUNKID_INVALID) return;
  ChunkLocker lock;
  // A chunk freed twice (or an id that never was one) is left alone rather
  // than returning units that may belong to someone else.
  if (!IsLiveLocked(id)) return;
  KEST2_TRACE(kTraceChunk, "Deallocate", "%s", DumpChunk(id, nullptr, 0));
  ChunkHeader* chunk = ChunkAt(id);
  const uint32_t units = ChunkUnits(chunk);
  StoreChunkFlags(chunk, static_cast<uint16_t>(LoadChunkFlags(chunk) & ~kChunkLiveMarkMask));
  PoolFree(&g_chunkPool, id, units);
}

ChunkID AllocateCallbackChunk(ChunkCallbackFunction function, void* context) {
  const ChunkID id = AllocateChunk(CHUNK_CALLBACK);
  if (id == CHUNKID_INVALID) return id;
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(id);
  record->callback = function;
  record->context = context;
  return id;
}

ChunkID AllocateChildChunk(ChunkID parent, uint8_t type) {
  if (parent == CHUNKID_INVALID) return CHUNKID_INVALID;
  KEST2_TRACE(kTraceChunk, "AllocateChild", "parent %d, type %d", parent, type);
  const ChunkID child = AllocateChunk(type);
  if (child == CHUNKID_INVALID) return CHUNKID_INVALID;
  if (!LinkChunks(parent, child)) {
    DeallocateChunk(child);
    return CHUNKID_INVALID;
  }
  return child;
}

void* AllocateBufferChunk(ChunkID parent, uint64_t dataSize) {
  if (parent == CHUNKID_INVALID) return nullptr;
  const uint64_t limit =
      uint64_t{kChunkMaxUnits} * kChunkUnitSize - kChunkTypes[CHUNK_BUFFER].footprint;
  if (dataSize > limit) {
    KEST2_TRACE(kTraceChunk, "Allocate", "%s", "(failed)");
    return nullptr;
  }
  const ChunkID id = AllocateChunk(
      CHUNK_BUFFER, static_cast<uint32_t>(kChunkTypes[CHUNK_BUFFER].footprint + dataSize));
  if (id == CHUNKID_INVALID) return nullptr;
  ChunkLocker lock;
  StoreChunkFlags(ChunkAt(id), LoadChunkFlags(ChunkAt(id)) | kChunkScheduled | kChunkCompleted);
  if (!LinkChunks(parent, id)) {
    DeallocateChunk(id);
    return nullptr;
  }
  return reinterpret_cast<uint8_t*>(ChunkAt(id)) + sizeof(ChunkBufferRecord);
}

uint32_t GetChunkHandle(ChunkID id) {
  if (id == CHUNKID_INVALID) return 0;
  return RecordHandle(ChunkAt(id));
}

const StoredPath* GetChunkPath(ChunkID id) {
  if (id == CHUNKID_INVALID) return nullptr;
  return RecordPath(ChunkAt(id));
}

}  // namespace kest2
