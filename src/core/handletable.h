// Handle tables: the operation, file-handle and directory-handle pools whose
// objects callers know only by 32-bit handles.
//
// A handle packs the slot index (bits 0-13), the table number (bits 14-15:
// 1 operations, 2 file handles, 3 directory handles) and the pool's
// generation at allocation (bits 16-30), so a stale or forged handle is
// refused instead of reaching a reused object.  Every object in a table
// begins with its own handle `h` (0 once released).
//
// Thread-safety: allocation and release are as lock-free as the pool.
// Lookup takes no lock: `h` is written only after the unit is marked
// allocated and cleared before it is freed.  The object behind a handle is
// guarded by the locks of the code that owns it.
#ifndef KEST2_SRC_CORE_HANDLETABLE_H_
#define KEST2_SRC_CORE_HANDLETABLE_H_

#include <cstdint>

#include "core/pool.h"

namespace kest2 {

enum HandleTableId : int {
  kOpTable = 0,  // "op"
  kFhTable = 1,  // "FH"
  kDhTable = 2,  // "DH"
  kHandleTableCount = 3,
};

constexpr uint32_t kHandleMaxUnits = 16384;  // 14-bit slot index
constexpr uint32_t kHandleSlotMask = 0x3FFF;

// Descriptor-backed file handles wrap an operating-system descriptor:
// generation 32767 with table 2, plus a slot 0..255.
constexpr uint32_t kFilenoHandleBase = 0x7FFF8000u;
constexpr uint32_t kFilenoHandleMask = 0x7FFFC000u;
inline bool IsFilenoHandle(uint32_t handle) {
  return (handle & kFilenoHandleMask) == kFilenoHandleBase;
}

// The table number (1..3) in a handle's bits 14-15.
inline uint32_t HandleTableNumber(uint32_t handle) { return (handle >> 14) & 3; }

// The three pools, in table order.
extern Pool g_handleTables[kHandleTableCount];

int32_t HandleTableSetUp(HandleTableId table, void* storage, uint64_t size,
                         uint64_t alignment, uint64_t unitSize);
// Tears the pool down (printing its leak warning); always ZUL_KEST_OK.
int32_t HandleTableTearDown(HandleTableId table);

// A new zeroed object's handle, or 0 when the table is full.
uint32_t AllocateHandle(HandleTableId table);
// The live object named by handle, or null.
void* LookupHandle(HandleTableId table, uint32_t handle);
template <typename T>
T* Lookup(HandleTableId table, uint32_t handle) {
  return static_cast<T*>(LookupHandle(table, handle));
}
// The object at the handle's slot whatever its state, or null when the table
// number does not match or the slot does not exist.  For diagnostics only.
void* LookupHandleUnchecked(HandleTableId table, uint32_t handle);
// The handle stored in an object's first word.
uint32_t ObjectHandle(const void* object);
// Writes up to maxCount live handles in slot order, zeroes the rest of the
// array and returns the number of live objects (array may be null).
uint32_t EnumerateHandles(HandleTableId table, uint32_t* array,
                          uint32_t maxCount);
// Calls visit for every live handle in slot order (no copy of the list);
// visit may release the handle it is given.
void ForEachHandle(HandleTableId table, void (*visit)(uint32_t handle, void* context),
                   void* context);
void ReleaseHandle(HandleTableId table, uint32_t handle);

}  // namespace kest2

#endif  // KEST2_SRC_CORE_HANDLETABLE_H_
