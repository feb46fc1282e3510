// The filter chain: see filter_chain.h.

#include "io/filter_chain.h"

#include "core/globals.h"
#include "debug/dump.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

constexpr int32_t kFilterSlots = ZUL_KEST_IOFILTER_MAX;

struct FilterSlot {
  ZulKestIOFilterCallback function;  // null when free
  void* context;
};

// Slots are written under the write lock; their function pointers are also
// read without it (the occupied test of add, the archive filter's offer), so
// every access to them is atomic.
FilterSlot g_filters[kFilterSlots];
int32_t g_filterCount;

ZulKestIOFilterCallback LoadFunction(int32_t index) {
  return __atomic_load_n(&g_filters[index].function, __ATOMIC_ACQUIRE);
}

void* LoadContext(int32_t index) {
  return __atomic_load_n(&g_filters[index].context, __ATOMIC_ACQUIRE);
}

void StoreSlot(int32_t index, ZulKestIOFilterCallback function, void* context) {
  __atomic_store_n(&g_filters[index].context, context, __ATOMIC_RELEASE);
  __atomic_store_n(&g_filters[index].function, function, __ATOMIC_RELEASE);
}

bool Accepted(int32_t result) {
  return result == ZUL_KEST_OK || result == ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
}

bool IndexInRange(int32_t index) { return index >= 0 && index < kFilterSlots; }

}  // namespace

int32_t AddFilter(int32_t index, ZulKestIOFilterCallback function, void* context) {
  if (function == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (!IndexInRange(index) || LoadFunction(index) != nullptr) return ZUL_KEST_ERROR_BAD_INDEX;
  const int32_t accepted = function(context, ZUL_KEST_IOFILTER_EVENT_INITIALIZE, nullptr);
  if (!Accepted(accepted)) return accepted;
  RwlockWriteLock(&g_locks.filter);
  if (LoadFunction(index) != nullptr) {
    // Another thread installed a filter at this index meanwhile.
    RwlockWriteUnlock(&g_locks.filter);
    function(context, ZUL_KEST_IOFILTER_EVENT_TERMINATE, nullptr);
    return ZUL_KEST_ERROR_BAD_INDEX;
  }
  StoreSlot(index, function, context);
  __atomic_add_fetch(&g_filterCount, 1, __ATOMIC_RELEASE);
  RwlockWriteUnlock(&g_locks.filter);
  return ZUL_KEST_OK;
}

int32_t GetFilterInfo(int32_t index, ZulKestIOFilterCallback* function, void** context) {
  if (!IndexInRange(index)) return ZUL_KEST_ERROR_BAD_INDEX;
  RwlockReadLock(&g_locks.filter);
  const ZulKestIOFilterCallback installed = LoadFunction(index);
  void* installedContext = LoadContext(index);
  RwlockReadUnlock(&g_locks.filter);
  if (installed == nullptr) return ZUL_KEST_ERROR_BAD_INDEX;
  if (function != nullptr) *function = installed;
  if (context != nullptr) *context = installedContext;
  return ZUL_KEST_OK;
}

int32_t RemoveFilter(int32_t index) {
  if (!IndexInRange(index)) return ZUL_KEST_ERROR_BAD_INDEX;
  RwlockWriteLock(&g_locks.filter);
  const ZulKestIOFilterCallback function = LoadFunction(index);
  void* context = LoadContext(index);
  if (function == nullptr) {
    RwlockWriteUnlock(&g_locks.filter);
    return ZUL_KEST_ERROR_BAD_INDEX;
  }
  StoreSlot(index, nullptr, nullptr);
  __atomic_sub_fetch(&g_filterCount, 1, __ATOMIC_RELEASE);
  RwlockWriteUnlock(&g_locks.filter);

  const int32_t result = function(context, ZUL_KEST_IOFILTER_EVENT_TERMINATE, nullptr);
  if (!Accepted(result)) {
    char dump[kDumpBufferSize];
    zulKestPrintf("KEST2 warning: %s returned error %d at termination\n",
                  DumpFilter(function, context, dump, sizeof(dump)), result);
  }
  return ZUL_KEST_OK;
}

void RemoveAllFilters() {
  for (int32_t index = 0; index < kFilterSlots; ++index) {
    if (LoadFunction(index) != nullptr) RemoveFilter(index);
  }
}

int32_t FilterCount() { return __atomic_load_n(&g_filterCount, __ATOMIC_ACQUIRE); }

ChunkID FilterNewTree(ChunkID root, bool* filtered) {
  *filtered = FilterCount() > 0;
  return *filtered ? FilterChunkTree(root) : root;
}

ChunkID FilterChunkTree(ChunkID root) {
  RwlockReadLock(&g_locks.filter);
  int32_t remaining = FilterCount();
  ChunkID current = root;
  for (int32_t index = 0; index < kFilterSlots && remaining > 0 && current != CHUNKID_INVALID;
       ++index) {
    const ZulKestIOFilterCallback function = LoadFunction(index);
    if (function == nullptr) continue;
    void* context = LoadContext(index);
    ChunkID offered = current;
    const int32_t result = function(context, ZUL_KEST_IOFILTER_EVENT_FILTER_CHUNK, &offered);
    current = offered;
    --remaining;
    if (!Accepted(result)) {
      char filterDump[kDumpBufferSize];
      char chunkDump[kDumpBufferSize];
      zulKestPrintf("KEST2 warning: %s returned error %d while filtering chunk tree %s\n",
                    DumpFilter(function, context, filterDump, sizeof(filterDump)), result,
                    DumpChunk(current, chunkDump, sizeof(chunkDump)));
    }
  }
  RwlockReadUnlock(&g_locks.filter);
  return current;
}

int32_t DispatchFilterEvent(int32_t event, void* argument) {
  RwlockReadLock(&g_locks.filter);
  int32_t remaining = FilterCount();
  int32_t answered = ZUL_KEST_ERROR_BAD_INDEX;
  for (int32_t index = 0; index < kFilterSlots && remaining > 0; ++index) {
    const ZulKestIOFilterCallback function = LoadFunction(index);
    if (function == nullptr) continue;
    if (function(LoadContext(index), event, argument) == ZUL_KEST_OK) {
      answered = index;
      break;
    }
    --remaining;
  }
  RwlockReadUnlock(&g_locks.filter);
  return answered;
}

ZulKestIOFilterCallback FilterFunctionAt(int32_t index) {
  return IndexInRange(index) ? LoadFunction(index) : nullptr;
}

void* FilterContextAt(int32_t index) { return IndexInRange(index) ? LoadContext(index) : nullptr; }

}  // namespace kest2

using namespace kest2;

extern "C" int32_t zulKestIOFilterAdd(int32_t index, ZulKestIOFilterCallback function,
                                      void* pFilterContext) {
  KEST2_TRACE_API("zulKestIOFilterAdd");
  return AddFilter(index, function, pFilterContext);
}

extern "C" int32_t zulKestIOFilterGetInfo(int32_t index, ZulKestIOFilterCallback* pFunction,
                                          void** ppFilterContext) {
  KEST2_TRACE_API("zulKestIOFilterGetInfo");
  return GetFilterInfo(index, pFunction, ppFilterContext);
}

extern "C" int32_t zulKestIOFilterRemove(int32_t index) {
  KEST2_TRACE_API("zulKestIOFilterRemove");
  return RemoveFilter(index);
}
