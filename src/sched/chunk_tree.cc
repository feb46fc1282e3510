// The chunk tree: see chunk_tree.h.
//
// Design.  Chunks live in one pool of 16-byte units over the caller's chunk
// storage and name each other by unit index, so a tree costs no memory
// beyond its records and survives being read from any thread that holds the
// chunk lock.  A chunk's links are three inline slots (one parent, two
// children); fan-in above one parent or fan-out above two children, which
// is rare, spills into overflow records allocated from the same pool:
//
//   parents:  chunk.parent -> [P0 P1 P2 P3] (CHUNK_PARENT)
//             slot 0 either holds a parent or links the next record, whose
//             header.parent points back at the record (or chunk) linking it.
//   children: chunk.child0, chunk.child1 -> [c0 c1 | s0 .. s7] (CHUNK_CHILD)
//             slot 7 either holds a child or links the next record.
//
// Overflow records are recognised by their type, which no ordinary chunk
// takes.  Both lists stay dense: there is never an empty slot before a full
// one inside a record, and every overflow record holds at least two
// entries (a record left with one is freed and the entry moves into the
// slot that linked it).  Children come out in insertion order; a parent
// record that fills up hands its slot-0 parent to the new record, so from
// the sixth parent on the enumeration order differs from insertion order.
//
// Locking.  Every public function that reads or writes links, flags,
// priority or deadline takes the recursive chunk lock for the whole of its
// work (so a tree is never seen half-rewritten) and calls the others
// freely; a thread building a tree nobody else can reach skips it
// (PrivateTreeScope).  Pool allocation needs no lock: a fresh chunk is
// known to nobody until it is linked.  The lock covers only record work;
// trace output is the slowest thing done under it, and only when chunk
// tracing is on.

#include "sched/chunk_tree.h"

#include "core/globals.h"
#include "core/handletable.h"
#include "core/platform.h"
#include "core/records.h"
#include "core/stored_path.h"
#include "debug/dump.h"
#include "debug/format.h"
#include "debug/trace.h"
#include "kest2.h"
#include "sched/chunk_types.h"

namespace kest2 {
namespace {

constexpr uint64_t kChunkAlignment = 8;
constexpr uint32_t kParentSlots = 4;
constexpr uint32_t kChildSlots = 8;
constexpr uint32_t kChildLinkSlot = kChildSlots - 1;
constexpr int64_t kPieceSize = 65536;

// Set up by InitializeChunkStorage; read-only until TerminateChunkStorage.
Pool g_chunkPool;
uint64_t g_chunkStorageSize;
ChunkID g_globalRoot = CHUNKID_INVALID;

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

// True when id names an overflow record of the given type.
// REQUIRES: chunk lock held (or the record is not shared yet).
bool IsRecordOf(ChunkID id, uint8_t type) {
  return id != CHUNKID_INVALID && id < g_chunkPool.capacity && ChunkAt(id)->type == type;
}

bool IsParentRecord(ChunkID id) { return IsRecordOf(id, CHUNK_PARENT); }
bool IsChildRecord(ChunkID id) { return IsRecordOf(id, CHUNK_CHILD); }

// REQUIRES: chunk lock held.
bool IsLiveLocked(ChunkID id) {
  if (!g_chunkPool.initialised || id >= g_chunkPool.capacity) return false;
  if (!PoolUnitAllocated(&g_chunkPool, id)) return false;
  return (LoadChunkFlags(ChunkAt(id)) & kChunkLiveMarkMask) == kChunkLiveMark;
}

// One cell of a child list, with where it lives: `record` is the CHUNK_CHILD
// record holding the cell (CHUNKID_INVALID for the owner's inline cells) and
// `link` the cell that points at that record.
struct ChildCell {
  ChunkID* cell;
  ChunkID record;
  ChunkID* link;
};

// Walks the cells holding a chunk's children, in insertion order.  Cells
// before the current one may be rewritten while walking; links are read
// only when they are reached.
// REQUIRES: chunk lock held for the cursor's whole life.
class ChildCursor {
 public:
  explicit ChildCursor(ChunkID owner) : m_owner(ChunkAt(owner)) {}

  bool Next(ChildCell* out) {
    for (;;) {
      if (m_position == kDone) return false;
      if (m_record == CHUNKID_INVALID) {
        // Inline cells: child0, then child1 unless it links a record.
        ChunkID* cell = m_position == 0 ? &m_owner->child0 : &m_owner->child1;
        const uint32_t position = m_position;
        m_position = position == 0 ? 1 : kDone;
        if (*cell == CHUNKID_INVALID) return Finish();
        if (position == 1 && IsChildRecord(*cell)) {
          Enter(cell);
          continue;
        }
        *out = ChildCell{cell, CHUNKID_INVALID, nullptr};
        return true;
      }
      // Record cells: child0, child1, then slots 0..7; slot 7 may link on.
      ChunkChildRecord* record = ChunkRecord<ChunkChildRecord>(m_record);
      const uint32_t position = m_position++;
      ChunkID* cell = position == 0   ? &record->header.child0
                      : position == 1 ? &record->header.child1
                                      : &record->slots[position - 2];
      if (*cell == CHUNKID_INVALID) return Finish();
      if (position == 2 + kChildLinkSlot) {
        if (IsChildRecord(*cell)) {
          Enter(cell);
          continue;
        }
        m_position = kDone;
      }
      *out = ChildCell{cell, m_record, m_link};
      return true;
    }
  }

  // The next child, CHUNKID_INVALID at the end.
  ChunkID NextChild() {
    ChildCell cell;
    return Next(&cell) ? *cell.cell : CHUNKID_INVALID;
  }

 private:
  static constexpr uint32_t kDone = 0xFFFFFFFFu;

  bool Finish() {
    m_position = kDone;
    return false;
  }
  void Enter(ChunkID* link) {
    m_link = link;
    m_record = *link;
    m_position = 0;
  }

  ChunkHeader* m_owner;
  ChunkID m_record = CHUNKID_INVALID;  // record being walked
  ChunkID* m_link = nullptr;           // cell that links m_record
  uint32_t m_position = 0;             // next cell inside the owner or record
};

// Walks a chunk's parents in enumeration order: the inline slot when it
// holds a parent, else each CHUNK_PARENT record's slots up to the first
// empty one (slot 0 skipped when it links the next record), record after
// record.
// REQUIRES: chunk lock held and no link changes while walking.
class ParentCursor {
 public:
  explicit ParentCursor(ChunkID child) {
    const ChunkID first = ChunkAt(child)->parent;
    if (IsParentRecord(first)) {
      m_record = first;
    } else {
      m_single = first;
    }
  }

  ChunkID Next() {
    if (m_single != CHUNKID_INVALID) {
      const ChunkID parent = m_single;
      m_single = CHUNKID_INVALID;
      return parent;
    }
    while (m_record != CHUNKID_INVALID) {
      const ChunkParentRecord* record = ChunkRecord<ChunkParentRecord>(m_record);
      while (m_slot < kParentSlots) {
        const uint32_t slot = m_slot++;
        const ChunkID entry = record->slots[slot];
        if (entry == CHUNKID_INVALID) break;
        if (slot == 0 && IsParentRecord(entry)) {
          m_next = entry;
          continue;
        }
        return entry;
      }
      m_record = m_next;
      m_next = CHUNKID_INVALID;
      m_slot = 0;
    }
    return CHUNKID_INVALID;
  }

 private:
  ChunkID m_single = CHUNKID_INVALID;  // the inline parent, until taken
  ChunkID m_record = CHUNKID_INVALID;  // record being walked
  ChunkID m_next = CHUNKID_INVALID;    // record linked from its slot 0
  uint32_t m_slot = 0;
};

// Sets a new overflow record's slots to empty.
void ClearSlots(ChunkID* slots, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) slots[i] = CHUNKID_INVALID;
}

// Appends child to parent's children; false when a CHUNK_CHILD record is
// needed and cannot be had (nothing changed then).
// REQUIRES: chunk lock held.
bool AddChild(ChunkID parent, ChunkID child) {
  ChunkHeader* owner = ChunkAt(parent);
  if (owner->child0 == CHUNKID_INVALID) {
    owner->child0 = child;
    return true;
  }
  if (owner->child1 == CHUNKID_INVALID) {
    owner->child1 = child;
    return true;
  }
  ChunkID* link = &owner->child1;
  while (IsChildRecord(*link)) {
    ChunkChildRecord* record = ChunkRecord<ChunkChildRecord>(*link);
    link = &record->slots[kChildLinkSlot];
    for (uint32_t i = 0; i <= kChildLinkSlot; ++i) {
      if (record->slots[i] == CHUNKID_INVALID) {
        record->slots[i] = child;
        return true;
      }
    }
  }
  // *link holds an ordinary child: a new record takes its place and holds
  // it as its own child0, the new child as child1.
  const ChunkID id = AllocateChunk(CHUNK_CHILD);
  if (id == CHUNKID_INVALID) {
    KEST2_TRACE(kTraceChunk, "AddChild", "failed (parent %d, newChild %d)", parent, child);
    return false;
  }
  ChunkChildRecord* record = ChunkRecord<ChunkChildRecord>(id);
  ClearSlots(record->slots, kChildSlots);
  record->header.child0 = *link;
  record->header.child1 = child;
  *link = id;
  return true;
}

// Removes one occurrence of child from parent's children (the first, or
// the last when lastOccurrence is set), shifting the later ones forward;
// frees a record left with a single entry.
// REQUIRES: chunk lock held.
bool RemoveChild(ChunkID parent, ChunkID child, bool lastOccurrence) {
  uint32_t skip = 0;  // matches to pass over before the one removed
  if (lastOccurrence) {
    ChildCursor counter(parent);
    for (ChunkID id = counter.NextChild(); id != CHUNKID_INVALID; id = counter.NextChild()) {
      if (id == child) ++skip;
    }
    if (skip == 0) return false;
    --skip;
  }
  ChildCursor cursor(parent);
  ChildCell cell;
  ChildCell last{nullptr, CHUNKID_INVALID, nullptr};
  bool found = false;
  while (cursor.Next(&cell)) {
    if (found) {
      *last.cell = *cell.cell;
      last = cell;
    } else if (*cell.cell == child && skip-- == 0) {
      found = true;
      last = cell;
    }
  }
  if (!found) return false;
  *last.cell = CHUNKID_INVALID;
  if (last.record != CHUNKID_INVALID) {
    ChunkChildRecord* record = ChunkRecord<ChunkChildRecord>(last.record);
    if (record->header.child1 == CHUNKID_INVALID) {
      *last.link = record->header.child0;
      record->header.child0 = CHUNKID_INVALID;
      DeallocateChunk(last.record);
    }
  }
  return true;
}

// Appends newParent to child's parents; false when a CHUNK_PARENT record is
// needed and cannot be had (nothing changed then).
// REQUIRES: chunk lock held.
bool AddParent(ChunkID child, ChunkID newParent) {
  ChunkHeader* owner = ChunkAt(child);
  if (owner->parent == CHUNKID_INVALID) {
    owner->parent = newParent;
    return true;
  }
  // The cell the new record will take, and whom the record then links from.
  ChunkID* cell = &owner->parent;
  ChunkID backLink = child;
  if (IsParentRecord(owner->parent)) {
    ChunkID id = owner->parent;
    for (;;) {
      ChunkParentRecord* record = ChunkRecord<ChunkParentRecord>(id);
      for (uint32_t i = 1; i < kParentSlots; ++i) {
        if (record->slots[i] == CHUNKID_INVALID) {
          record->slots[i] = newParent;
          return true;
        }
      }
      if (!IsParentRecord(record->slots[0])) {
        cell = &record->slots[0];
        backLink = id;
        break;
      }
      id = record->slots[0];
    }
  }
  const ChunkID id = AllocateChunk(CHUNK_PARENT);
  if (id == CHUNKID_INVALID) {
    KEST2_TRACE(kTraceChunk, "AddParent", "failed (child %d, newParent %d)", child, newParent);
    return false;
  }
  ChunkParentRecord* record = ChunkRecord<ChunkParentRecord>(id);
  ClearSlots(record->slots, kParentSlots);
  record->slots[0] = *cell;
  record->slots[1] = newParent;
  record->header.parent = backLink;
  *cell = id;
  return true;
}

// Removes one occurrence of parent from child's parents, shifting the later
// slots of its record down; a record left with only slot 0 is freed and
// its slot-0 entry takes its place.
// REQUIRES: chunk lock held.
bool RemoveParent(ChunkID child, ChunkID parent) {
  ChunkHeader* owner = ChunkAt(child);
  if (!IsParentRecord(owner->parent)) {
    if (owner->parent != parent || parent == CHUNKID_INVALID) return false;
    owner->parent = CHUNKID_INVALID;
    return true;
  }
  ChunkID* link = &owner->parent;
  while (IsParentRecord(*link)) {
    const ChunkID id = *link;
    ChunkParentRecord* record = ChunkRecord<ChunkParentRecord>(id);
    const bool chained = IsParentRecord(record->slots[0]);
    for (uint32_t i = chained ? 1 : 0; i < kParentSlots; ++i) {
      if (record->slots[i] == CHUNKID_INVALID) break;
      if (record->slots[i] != parent) continue;
      for (uint32_t j = i; j + 1 < kParentSlots; ++j) record->slots[j] = record->slots[j + 1];
      record->slots[kParentSlots - 1] = CHUNKID_INVALID;
      if (record->slots[1] == CHUNKID_INVALID) {
        const ChunkID rest = record->slots[0];
        *link = rest;
        if (IsParentRecord(rest)) ChunkAt(rest)->parent = record->header.parent;
        record->slots[0] = CHUNKID_INVALID;
        record->header.parent = CHUNKID_INVALID;
        DeallocateChunk(id);
      }
      return true;
    }
    if (!chained) break;
    link = &record->slots[0];
  }
  return false;
}

// REQUIRES: chunk lock held.
bool AllChildrenCompletedLocked(ChunkID id) {
  ChildCursor cursor(id);
  for (ChunkID child = cursor.NextChild(); child != CHUNKID_INVALID; child = cursor.NextChild()) {
    if ((LoadChunkFlags(ChunkAt(child)) & kChunkCompleted) == 0) return false;
  }
  return true;
}

// 64 KiB pieces of a transfer, rounded up, at least one.
uint32_t PieceCount(int64_t reqCount) {
  if (reqCount <= 0) return 1;
  const int64_t pieces = reqCount / kPieceSize + (reqCount % kPieceSize != 0 ? 1 : 0);
  return pieces > 0xFFFFFFFFll ? 0xFFFFFFFFu : static_cast<uint32_t>(pieces);
}

// REQUIRES: chunk lock held.
void PrepareLocked(ChunkID id, int8_t priority, ZulKestTime deadline) {
  ChunkHeader* chunk = ChunkAt(id);
  if ((LoadChunkFlags(chunk) & kChunkPrepared) != 0) return;
  chunk->priority = priority;
  chunk->deadline = deadline;
  StoreChunkFlags(
      chunk, static_cast<uint16_t>((LoadChunkFlags(chunk) | kChunkPrepared) & ~kChunkPositioned));
  chunk->pieceCount = 1;
  if (chunk->type == CHUNK_FH_READ || chunk->type == CHUNK_FH_WRITE) {
    StoreChunkFlags(chunk, LoadChunkFlags(chunk) | kChunkPositioned);
    chunk->pieceCount = PieceCount(ChunkRecord<ChunkFhIoRecord>(id)->reqCount);
  }
  // A chunk already completed (answered by a filter) never executes, so it
  // must not hold back its handle's close.
  if ((LoadChunkFlags(chunk) & kChunkCompleted) == 0 &&
      ChunkTypeOf(chunk->type).role == HandleRole::kUses) {
    const HandleMarks marks = RecordHandleMarks(chunk);
    if (marks.pending != nullptr) {
      const int32_t pending = __atomic_add_fetch(marks.pending, 1, __ATOMIC_ACQ_REL);
      KEST2_TRACE(kTraceChunk, marks.tag, "Chunk %d incremented m_pendingIO = %d", id, pending);
    }
  }
  ChildCursor cursor(id);
  for (ChunkID child = cursor.NextChild(); child != CHUNKID_INVALID; child = cursor.NextChild())
    PrepareLocked(child, priority, deadline);
}

// REQUIRES: chunk lock held.
void RescheduleLocked(ChunkID id, ZulKestTime deadline, int8_t priority, ChunkID excluded) {
  ChunkHeader* chunk = ChunkAt(id);
  if ((LoadChunkFlags(chunk) & kChunkCompleted) == 0) {
    ZulKestTime effectiveDeadline = deadline;
    int8_t effectivePriority = priority;
    ParentCursor parents(id);
    for (ChunkID parent = parents.Next(); parent != CHUNKID_INVALID; parent = parents.Next()) {
      if (parent == g_globalRoot || parent == excluded) continue;
      const ChunkHeader* above = ChunkAt(parent);
      effectiveDeadline = above->deadline < deadline ? above->deadline : deadline;
      effectivePriority = above->priority > priority ? above->priority : priority;
    }
    chunk->deadline = effectiveDeadline;
    chunk->priority = effectivePriority;
  }
  ChildCursor cursor(id);
  for (ChunkID child = cursor.NextChild(); child != CHUNKID_INVALID; child = cursor.NextChild())
    RescheduleLocked(child, deadline, priority, excluded);
}

// REQUIRES: chunk lock held.
void PropagateErrorLocked(ChunkID id, int32_t error, bool force) {
  ParentCursor parents(id);
  for (ChunkID parent = parents.Next(); parent != CHUNKID_INVALID; parent = parents.Next()) {
    ChunkHeader* above = ChunkAt(parent);
    if (above->type == CHUNK_CALLBACK) {
      ChunkCallbackRecord* callback = ChunkRecord<ChunkCallbackRecord>(parent);
      if (force || callback->error == 0) callback->error = error;
    } else if (above->type == CHUNK_ROOT) {
      const uint32_t handle = ChunkRecord<ChunkRootRecord>(parent)->op;
      Operation* op = handle != 0 ? Lookup<Operation>(kOpTable, handle) : nullptr;
      if (op != nullptr && (force || __atomic_load_n(&op->err, __ATOMIC_ACQUIRE) == 0))
        __atomic_store_n(&op->err, error, __ATOMIC_RELEASE);
    }
    PropagateErrorLocked(parent, error, force);
  }
}

// Appends ", label:none" or ", label:{a,b,...}" with the ids next() gives.
template <typename NextFunction>
void AppendLinks(char* buffer, size_t size, const char* label, NextFunction next) {
  ChunkID id = next();
  if (id == CHUNKID_INVALID) {
    AppendFormat(buffer, size, ", %s:none", label);
    return;
  }
  AppendFormat(buffer, size, ", %s:{%d", label, id);
  while ((id = next()) != CHUNKID_INVALID) AppendFormat(buffer, size, ",%d", id);
  AppendFormat(buffer, size, "}");
}

// ", h:0x%08X" and, for a live file or directory handle with a path,
// ", path:"%s"".
void AppendHandle(char* buffer, size_t size, uint32_t handle) {
  if (handle == 0) return;
  AppendFormat(buffer, size, ", h:0x%08X", handle);
  const StoredPath* path = nullptr;
  if (const FileHandle* fh = Lookup<FileHandle>(kFhTable, handle)) {
    path = &fh->path;
  } else if (const DirHandle* dh = Lookup<DirHandle>(kDhTable, handle)) {
    path = &dh->path;
  }
  if (path != nullptr && !PathIsEmpty(path))
    AppendFormat(buffer, size, ", path:\"%s\"", GetPath(path));
}

void AppendTransfer(char* buffer, size_t size, int64_t offset, int64_t reqCount,
                    const int64_t* actCount) {
  AppendFormat(buffer, size, ", offset:%lld, reqCount:%lld", static_cast<long long>(offset),
               static_cast<long long>(reqCount));
  if (actCount != nullptr) {
    // The accumulator belongs to the operation and grows on I/O threads.
    AppendFormat(buffer, size, ", actCount:%lld",
                 static_cast<long long>(__atomic_load_n(actCount, __ATOMIC_RELAXED)));
  }
}

// The by-type tail of a live chunk's dump.
void AppendTypeFields(char* buffer, size_t size, ChunkID id) {
  const ChunkHeader* chunk = ChunkAt(id);
  switch (chunk->type) {
    case CHUNK_ROOT: {
      const uint32_t op = ChunkRecord<ChunkRootRecord>(id)->op;
      if (op != 0) {
        char text[kDumpBufferSize];
        AppendFormat(buffer, size, ", %s", zulKestDebugDumpOp(op, text, sizeof(text)));
      }
      break;
    }
    case CHUNK_FH_OPEN:
    case CHUNK_FH_CLOSE:
    case CHUNK_DH_OPEN:
    case CHUNK_DH_CLOSE:
    case CHUNK_DH_READ:  // its record has no offset or counts
      AppendHandle(buffer, size, RecordHandle(chunk));
      break;
    case CHUNK_FH_READ:
    case CHUNK_FH_WRITE: {
      const ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(id);
      AppendHandle(buffer, size, io->h);
      AppendTransfer(buffer, size, io->offset, io->reqCount, io->actCount);
      break;
    }
    case CHUNK_PREFETCH: {
      const ChunkPrefetchRecord* prefetch = ChunkRecord<ChunkPrefetchRecord>(id);
      AppendHandle(buffer, size, prefetch->h);
      AppendTransfer(buffer, size, prefetch->offset, prefetch->reqCount, prefetch->actCount);
      break;
    }
    default:
      break;
  }
}

}  // namespace

namespace {
thread_local int t_privateTreeDepth;
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

Pool* ChunkPool() { return &g_chunkPool; }

ChunkHeader* ChunkAt(ChunkID id) {
  return reinterpret_cast<ChunkHeader*>(PoolUnitAddress(&g_chunkPool, id));
}

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

bool LinkChunks(ChunkID parent, ChunkID child) {
  if (parent == CHUNKID_INVALID || child == CHUNKID_INVALID) return false;
  KEST2_TRACE(kTraceChunk, "Link", "parent %d, newChild %d", parent, child);
  ChunkLocker lock;
  if (!AddChild(parent, child)) return false;
  if (AddParent(child, parent)) return true;
  // The entry just appended is the last occurrence (the child may have been
  // linked before); removing it restores the list as it was.
  RemoveChild(parent, child, true);
  return false;
}

void UnlinkChunks(ChunkID parent, ChunkID child) {
  if (parent == CHUNKID_INVALID || child == CHUNKID_INVALID) return;
  KEST2_TRACE(kTraceChunk, "Unlink", "parent %d, child %d", parent, child);
  ChunkLocker lock;
  RemoveChild(parent, child, false);
  RemoveParent(child, parent);
}

void ReplaceChunk(ChunkID oldChunk, ChunkID newChunk) {
  if (oldChunk == CHUNKID_INVALID || newChunk == CHUNKID_INVALID || oldChunk == newChunk) return;
  KEST2_TRACE(kTraceChunk, "Replace", "oldChunk %d, newChunk %d", oldChunk, newChunk);
  ChunkLocker lock;
  // Each link is moved by an unlink that frees what it empties before the
  // link that may need a record; a link that still cannot be had is
  // dropped (and traced by AddChild or AddParent).
  for (ChunkID parent = GetParent(oldChunk, 0); parent != CHUNKID_INVALID;
       parent = GetParent(oldChunk, 0)) {
    UnlinkChunks(parent, oldChunk);
    LinkChunks(parent, newChunk);
  }
  for (ChunkID child = GetChild(oldChunk, 0); child != CHUNKID_INVALID;
       child = GetChild(oldChunk, 0)) {
    UnlinkChunks(oldChunk, child);
    LinkChunks(newChunk, child);
  }
}

void DeallocateTree(ChunkID id) {
  if (id == CHUNKID_INVALID) return;
  ChunkLocker lock;
  for (ChunkID parent = GetParent(id, 0); parent != CHUNKID_INVALID; parent = GetParent(id, 0))
    UnlinkChunks(parent, id);
  // Depth first without recursion: a chunk being released has no parent
  // left, so its empty parent slot remembers the chunk to return to.
  ChunkID current = id;
  for (;;) {
    const ChunkID child = ChunkAt(current)->child0;
    if (child != CHUNKID_INVALID) {
      UnlinkChunks(current, child);
      if (ChunkAt(child)->parent != CHUNKID_INVALID) continue;  // kept by another parent
      ChunkAt(child)->parent = current;
      current = child;
      continue;
    }
    const ChunkID up = current == id ? CHUNKID_INVALID : ChunkAt(current)->parent;
    ChunkAt(current)->parent = CHUNKID_INVALID;
    DeallocateChunk(current);
    if (up == CHUNKID_INVALID) return;
    current = up;
  }
}

ChunkID GetParent(ChunkID id, uint32_t n) {
  if (id == CHUNKID_INVALID) return CHUNKID_INVALID;
  ChunkLocker lock;
  ParentCursor cursor(id);
  ChunkID parent = cursor.Next();
  for (uint32_t i = 0; i < n && parent != CHUNKID_INVALID; ++i) parent = cursor.Next();
  return parent;
}

ChunkID GetChild(ChunkID id, uint32_t n) {
  if (id == CHUNKID_INVALID) return CHUNKID_INVALID;
  ChunkLocker lock;
  ChildCursor cursor(id);
  ChunkID child = cursor.NextChild();
  for (uint32_t i = 0; i < n && child != CHUNKID_INVALID; ++i) child = cursor.NextChild();
  return child;
}

uint32_t GetChildren(ChunkID id, ChunkID* out, uint32_t max) {
  if (id == CHUNKID_INVALID) return 0;
  ChunkLocker lock;
  ChildCursor cursor(id);
  uint32_t count = 0;
  for (ChunkID child; count < max && (child = cursor.NextChild()) != CHUNKID_INVALID;)
    out[count++] = child;
  return count;
}

uint32_t CountChildrenNotCompleted(ChunkID id, uint32_t limit) {
  if (id == CHUNKID_INVALID) return 0;
  ChunkLocker lock;
  ChildCursor cursor(id);
  uint32_t count = 0;
  for (ChunkID child = cursor.NextChild(); child != CHUNKID_INVALID && count < limit;
       child = cursor.NextChild()) {
    if ((LoadChunkFlags(ChunkAt(child)) & kChunkCompleted) == 0) ++count;
  }
  return count;
}

uint32_t GetChunkHandle(ChunkID id) {
  if (id == CHUNKID_INVALID) return 0;
  return RecordHandle(ChunkAt(id));
}

const StoredPath* GetChunkPath(ChunkID id) {
  if (id == CHUNKID_INVALID) return nullptr;
  return RecordPath(ChunkAt(id));
}

bool AllChildrenCompleted(ChunkID id) {
  if (id == CHUNKID_INVALID) return false;
  ChunkLocker lock;
  return AllChildrenCompletedLocked(id);
}

namespace {

// The handle part of the readiness test: the handle's open has executed
// and, for a close, no prepared I/O is still outstanding on it.  An unknown
// handle never holds a chunk back (the caller checks that).
bool HandleAllowsRun(ChunkID id, const uint32_t* opened, const int32_t* pending, bool isClose,
                     const char* kind) {
  if (__atomic_load_n(opened, __ATOMIC_ACQUIRE) == 0) {
    KEST2_TRACE(kTraceChunk, "Defer", "%s not open yet: %s", kind, DumpChunk(id, nullptr, 0));
    return false;
  }
  if (isClose) {
    const int32_t outstanding = __atomic_load_n(pending, __ATOMIC_ACQUIRE);
    if (outstanding > 0) {
      KEST2_TRACE(kTraceChunk, "Defer", "%d pending I/Os: %s", outstanding,
                  DumpChunk(id, nullptr, 0));
      return false;
    }
  }
  return true;
}

}  // namespace

bool DeferChunk(ChunkID id, bool force) {
  if (id == CHUNKID_INVALID) return false;
  ChunkLocker lock;
  const ChunkHeader* chunk = ChunkAt(id);
  if ((LoadChunkFlags(chunk) & kChunkScheduled) == 0 && !force) return false;
  if (!AllChildrenCompletedLocked(id)) return false;
  const HandleRole role = ChunkTypeOf(chunk->type).role;
  if (role != HandleRole::kUses && role != HandleRole::kCloses) return true;
  const HandleMarks marks = RecordHandleMarks(chunk);
  return marks.opened == nullptr ||
         HandleAllowsRun(id, marks.opened, marks.pending, role == HandleRole::kCloses, marks.kind);
}

void PrepareChunk(ChunkID id, int8_t priority, ZulKestTime deadline) {
  if (id == CHUNKID_INVALID) return;
  ChunkLocker lock;
  PrepareLocked(id, priority, deadline);
}

void RescheduleChunk(ChunkID id, ZulKestTime deadline, int8_t priority, ChunkID excluded) {
  if (id == CHUNKID_INVALID) return;
  ChunkLocker lock;
  RescheduleLocked(id, deadline, priority, excluded);
}

bool CallbackWouldBeBusy(ChunkID id) {
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(id);
  return record->callback != nullptr && record->callback(record, 0) == ZUL_KEST_ERROR_RETRY;
}

bool CallbackKicksItself(ChunkID id) {
  return ChunkAt(id)->type == CHUNK_CALLBACK &&
         (ChunkRecord<ChunkCallbackRecord>(id)->options & kCallbackKicksItself) != 0;
}

bool CompleteChunk(ChunkID id, int32_t error, ReadyParents* ready) {
  if (id == CHUNKID_INVALID) return false;
  ChunkLocker lock;
  KEST2_TRACE(kTraceChunk, "Complete", "%s", DumpChunk(id, nullptr, 0));
  ChunkHeader* chunk = ChunkAt(id);
  StoreChunkFlags(
      chunk, static_cast<uint16_t>((LoadChunkFlags(chunk) | kChunkCompleted) & ~kChunkExecuting));
  if (error != 0) PropagateErrorLocked(id, error, false);
  if (ready != nullptr) {
    // Decided under the lock that marks the chunk completed, so of two
    // children finishing together exactly the last one sees its parent
    // ready.  A parent without a chosen scheduler is not queued yet; its
    // own queueing wakes a thread for it.
    ParentCursor parents(id);
    for (ChunkID parent = parents.Next(); parent != CHUNKID_INVALID; parent = parents.Next()) {
      if (parent == g_globalRoot) continue;
      const int place =
          (LoadChunkFlags(ChunkAt(parent)) & kChunkSchedulerIndexMask) >> kChunkSchedulerIndexShift;
      if (place != 0 && AllChildrenCompletedLocked(parent) &&
          !(CallbackKicksItself(parent) && CallbackWouldBeBusy(parent))) {
        ready->places |= 1u << (place - 1);
        if (ready->count < kReadyParentIds) ready->ids[ready->count] = parent;
        ++ready->count;
      }
    }
  }
  return chunk->type == CHUNK_ROOT;
}

void PropagateChunkError(ChunkID id, int32_t error, bool force) {
  if (id == CHUNKID_INVALID) return;
  ChunkLocker lock;
  PropagateErrorLocked(id, error, force);
}

char* DumpChunk(ChunkID id, char* buffer, size_t size) {
  if (!SelectDumpBuffer(&buffer, &size)) return buffer;
  if (id == CHUNKID_INVALID) {
    FormatBounded(buffer, size, "%s", "CHUNKID_INVALID");
    return buffer;
  }
  ChunkLocker lock;
  if (!IsLiveLocked(id)) {
    FormatBounded(buffer, size, "chunk %d:{ state:%s }", id,
                  id >= g_chunkPool.capacity ? "BOGUS" : "DELETED");
    return buffer;
  }
  const ChunkHeader* chunk = ChunkAt(id);
  const uint16_t flags = LoadChunkFlags(chunk);
  FormatBounded(buffer, size,
                "chunk %d:{ type:%s, scheduled:%d, completed:%d, executing:%d, prepared:%d", id,
                ChunkTypeName(chunk->type), (flags & kChunkScheduled) != 0 ? 1 : 0,
                (flags & kChunkCompleted) != 0 ? 1 : 0, (flags & kChunkExecuting) != 0 ? 1 : 0,
                (flags & kChunkPrepared) != 0 ? 1 : 0);
  if ((flags & kChunkCancelled) != 0) AppendFormat(buffer, size, ", cancelled:%d", 1);
  ParentCursor parents(id);
  AppendLinks(buffer, size, "parents", [&parents] { return parents.Next(); });
  ChildCursor children(id);
  AppendLinks(buffer, size, "children", [&children] { return children.NextChild(); });
  AppendTypeFields(buffer, size, id);
  AppendFormat(buffer, size, " }");
  return buffer;
}

bool PinRoot(ChunkID root, uint32_t opHandle) {
  ChunkLocker lock;
  if (!ChunkIsLive(root)) return false;
  ChunkRootRecord* record = ChunkRecord<ChunkRootRecord>(root);
  if (record->header.type != CHUNK_ROOT || record->op != opHandle ||
      (LoadChunkFlags(&record->header) & (kChunkExecuting | kChunkCompleted)) != 0) {
    return false;
  }
  ++record->pins;
  return true;
}

void UnpinRoot(ChunkID root) {
  ChunkLocker lock;
  ChunkRootRecord* record = ChunkRecord<ChunkRootRecord>(root);
  if (--record->pins == 0 && record->freeWhenUnpinned != 0) DeallocateTree(root);
}

void ReleaseFinishedRoot(ChunkID root) {
  ChunkLocker lock;
  ChunkRootRecord* record = ChunkRecord<ChunkRootRecord>(root);
  if (record->pins != 0) {
    record->freeWhenUnpinned = 1;
  } else {
    DeallocateTree(root);
  }
}

}  // namespace kest2
