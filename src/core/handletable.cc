// Handle tables over object pools: see handletable.h.

#include "core/handletable.h"

#include "core/assert_report.h"
#include "kest2.h"

namespace kest2 {

Pool g_handleTables[kHandleTableCount] = {
    {"op", 0, 0, 0xFFFFFFFFu, 0, 1, 0, 0, nullptr, nullptr, 0},
    {"FH", 0, 0, 0xFFFFFFFFu, 0, 1, 0, 0, nullptr, nullptr, 0},
    {"DH", 0, 0, 0xFFFFFFFFu, 0, 1, 0, 0, nullptr, nullptr, 0},
};

namespace {

inline uint32_t* HandleWord(void* object) { return static_cast<uint32_t*>(object); }

inline uint32_t LoadHandleWord(const void* object) {
  return __atomic_load_n(static_cast<const uint32_t*>(object), __ATOMIC_ACQUIRE);
}

}  // namespace

int32_t HandleTableSetUp(HandleTableId table, void* storage, uint64_t size,
                         uint64_t alignment, uint64_t unitSize) {
  return PoolSetUp(&g_handleTables[table], storage, size, kHandleMaxUnits,
                   unitSize, alignment);
}

int32_t HandleTableTearDown(HandleTableId table) {
  PoolTearDown(&g_handleTables[table]);
  return ZUL_KEST_OK;
}

uint32_t AllocateHandle(HandleTableId table) {
  Pool* pool = &g_handleTables[table];
  const int64_t index = PoolAllocate(pool, 1);
  if (index < 0) return 0;
  const uint64_t generation =
      __atomic_load_n(&pool->generation, __ATOMIC_RELAXED);
  const uint32_t handle =
      (static_cast<uint32_t>(index) & kHandleSlotMask) |
      ((static_cast<uint32_t>(table + 1) << 14) & 0xFFFFu) |
      (static_cast<uint32_t>(generation << 16) & 0x7FFF0000u);
  __atomic_store_n(HandleWord(PoolUnitAddress(pool, static_cast<uint32_t>(index))),
                   handle, __ATOMIC_RELEASE);
  return handle;
}

void* LookupHandle(HandleTableId table, uint32_t handle) {
  if (static_cast<int32_t>(handle) <= 0) return nullptr;
  if (HandleTableNumber(handle) != static_cast<uint32_t>(table) + 1) return nullptr;
  const Pool* pool = &g_handleTables[table];
  if (!pool->initialised || pool->capacity == 0) return nullptr;
  const uint32_t index = handle & kHandleSlotMask;
  if (index >= pool->capacity || !PoolUnitAllocated(pool, index)) return nullptr;
  void* object = PoolUnitAddress(pool, index);
  return LoadHandleWord(object) == handle ? object : nullptr;
}

void* LookupHandleUnchecked(HandleTableId table, uint32_t handle) {
  if (HandleTableNumber(handle) != static_cast<uint32_t>(table) + 1) return nullptr;
  const Pool* pool = &g_handleTables[table];
  const uint32_t index = handle & kHandleSlotMask;
  if (pool->base == nullptr || index >= pool->capacity) return nullptr;
  return PoolUnitAddress(pool, index);
}

uint32_t ObjectHandle(const void* object) { return LoadHandleWord(object); }

uint32_t EnumerateHandles(HandleTableId table, uint32_t* array,
                          uint32_t maxCount) {
  const Pool* pool = &g_handleTables[table];
  if (array == nullptr) maxCount = 0;
  uint32_t written = 0;
  if (pool->initialised) {
    const uint32_t live = PoolAllocatedCount(pool);
    for (uint32_t index = 0;
         index < pool->capacity && written < maxCount && written < live;
         ++index) {
      if (PoolUnitAllocated(pool, index))
        array[written++] = LoadHandleWord(PoolUnitAddress(pool, index));
    }
  }
  for (uint32_t i = written; i < maxCount; ++i) array[i] = 0;
  return PoolAllocatedCount(pool);
}

void ForEachHandle(HandleTableId table, void (*visit)(uint32_t handle, void* context),
                   void* context) {
  const Pool* pool = &g_handleTables[table];
  if (!pool->initialised) return;
  for (uint32_t index = 0; index < pool->capacity; ++index) {
    if (!PoolUnitAllocated(pool, index)) continue;
    const uint32_t handle = LoadHandleWord(PoolUnitAddress(pool, index));
    if (handle != 0) visit(handle, context);
  }
}

void ReleaseHandle(HandleTableId table, uint32_t handle) {
  Pool* pool = &g_handleTables[table];
  const uint32_t index = handle & kHandleSlotMask;
  void* object = index < pool->capacity ? PoolUnitAddress(pool, index) : nullptr;
  if (object != nullptr && LoadHandleWord(object) == handle) {
    __atomic_store_n(HandleWord(object), 0u, __ATOMIC_RELEASE);
    PoolFree(pool, index, 1);
    return;
  }
  // Every release inside the library follows a successful lookup, so this
  // is a defect.  Report it and leave the slot alone: it may belong to
  // another live object now.
  zulKestPrintf("KEST: Unexpected error while deallocating a handle\n");
  zulKestPrintf("KEST: pHandle->h 0x%08x, h 0x%08x\n",
                object != nullptr ? LoadHandleWord(object) : 0u, handle);
  const uint32_t number = HandleTableNumber(handle);
  if (static_cast<int32_t>(handle) > 0 && number >= 1 &&
      LookupHandle(static_cast<HandleTableId>(number - 1), handle) != nullptr) {
    char dump[512];
    if (number == 1) {
      zulKestDebugDumpOp(handle, dump, sizeof(dump));
    } else if (number == 2) {
      zulKestDebugDumpFH(handle, dump, sizeof(dump));
    } else {
      zulKestDebugDumpDH(handle, dump, sizeof(dump));
    }
    zulKestPrintf("%s\n", dump);
  } else {
    zulKestPrintf("KEST: could not find a handle matching h\n");
  }
  ReportAssertion("handletable", 111, "pHandle->h == h");
}

}  // namespace kest2
