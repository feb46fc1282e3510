// The walks over a chunk's links, shared by the chunk tree's own files
// (storage, links, readiness, dumps); nothing outside them uses this header.
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
#ifndef KEST2_SRC_SCHED_CHUNK_CURSORS_H_
#define KEST2_SRC_SCHED_CHUNK_CURSORS_H_

#include <cstdint>

#include "sched/chunk_tree.h"

namespace kest2 {

constexpr uint32_t kParentSlots = 4;
constexpr uint32_t kChildSlots = 8;
constexpr uint32_t kChildLinkSlot = kChildSlots - 1;

// True when id names an overflow record of the given type.
// REQUIRES: chunk lock held (or the record is not shared yet).
inline bool IsRecordOf(ChunkID id, uint8_t type) {
  return id != CHUNKID_INVALID && id < ChunkPool()->capacity && ChunkAt(id)->type == type;
}

inline bool IsParentRecord(ChunkID id) { return IsRecordOf(id, CHUNK_PARENT); }
inline bool IsChildRecord(ChunkID id) { return IsRecordOf(id, CHUNK_CHILD); }

// True when id names an allocated chunk with its live mark.
bool IsLiveLocked(ChunkID id) REQUIRES(g_locks.chunk);

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
  explicit ChildCursor(ChunkID owner) REQUIRES(g_locks.chunk) : m_owner(ChunkAt(owner)) {}

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
  explicit ParentCursor(ChunkID child) REQUIRES(g_locks.chunk) {
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

}  // namespace kest2

#endif  // KEST2_SRC_SCHED_CHUNK_CURSORS_H_
