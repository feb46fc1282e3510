// Links between chunks: see chunk_cursors.h for how they are kept.

#include "debug/trace.h"
#include "sched/chunk_cursors.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

// Sets a new overflow record's slots to empty.
void ClearSlots(ChunkID* slots, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) slots[i] = CHUNKID_INVALID;
}

// Appends child to parent's children; false when a CHUNK_CHILD record is
// needed and cannot be had (nothing changed then).
bool AddChild(ChunkID parent, ChunkID child) REQUIRES(g_locks.chunk) {
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
bool RemoveChild(ChunkID parent, ChunkID child, bool lastOccurrence) REQUIRES(g_locks.chunk) {
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
bool AddParent(ChunkID child, ChunkID newParent) REQUIRES(g_locks.chunk) {
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
bool RemoveParent(ChunkID child, ChunkID parent) REQUIRES(g_locks.chunk) {
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

}  // namespace

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

}  // namespace kest2
