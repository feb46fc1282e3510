// The overlay entry points: thin layers over the overlay table for the
// calling process, keeping the library's overlay count.

#include <cstring>

#include "core/globals.h"
#include "debug/trace.h"
#include "io/overlay_table.h"
#include "kest2.h"

using namespace kest2;

namespace {

constexpr uint8_t kFirstOrder = 0;
constexpr uint8_t kLastOrder = 127;

// The visible entry with this id: GetInfo's error when there is none.
int32_t FindVisible(int32_t id, OverlayEntry* entry) {
  const int32_t found = OverlayGetInfo(kThisProcess, id, entry);
  if (found != ZUL_KEST_OK) return found;
  if (entry->order < 0 || entry->pid != kThisProcess) return ZUL_KEST_ERROR_BAD_OVERLAY;
  return ZUL_KEST_OK;
}

}  // namespace

extern "C" int32_t zulKestOverlayAdd(const ZulKestOverlay* overlay, int32_t* pId) {
  KEST2_TRACE_API("zulKestOverlayAdd");
  // The record is converted first; the table's add judges the id pointer.
  OverlayEntry entry;
  const int32_t converted = OverlayFromPublic(overlay, &entry);
  if (converted != ZUL_KEST_OK) return converted;
  const int32_t added = OverlayAdd(kThisProcess, &entry, pId);
  if (added == ZUL_KEST_OK) __atomic_add_fetch(&g_overlayCount, 1, __ATOMIC_ACQ_REL);
  return added;
}

extern "C" int32_t zulKestOverlayRemove(int32_t id) {
  KEST2_TRACE_API("zulKestOverlayRemove");
  OverlayEntry entry;
  const int32_t found = FindVisible(id, &entry);
  if (found != ZUL_KEST_OK) return found;
  const int32_t removed = OverlayRemove(kThisProcess, id);
  if (removed == ZUL_KEST_OK) __atomic_sub_fetch(&g_overlayCount, 1, __ATOMIC_ACQ_REL);
  return removed;
}

extern "C" int32_t zulKestOverlayGetInfo(int32_t id, ZulKestOverlay* pOut) {
  KEST2_TRACE_API("zulKestOverlayGetInfo");
  if (pOut == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  OverlayEntry entry;
  const int32_t found = FindVisible(id, &entry);
  if (found != ZUL_KEST_OK) return found;
  std::memset(pOut, 0, sizeof(*pOut));
  pOut->type = entry.type;
  pOut->order = entry.order;
  pOut->id = entry.id;
  std::memcpy(pOut->dst, entry.dst, sizeof(pOut->dst));
  std::memcpy(pOut->src, entry.src, sizeof(pOut->src));
  return ZUL_KEST_OK;
}

extern "C" int32_t zulKestOverlayModify(int32_t id, const ZulKestOverlay* overlay) {
  KEST2_TRACE_API("zulKestOverlayModify");
  if (overlay == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  OverlayEntry entry;
  const int32_t found = FindVisible(id, &entry);
  if (found != ZUL_KEST_OK) return found;
  const int32_t converted = OverlayFromPublic(overlay, &entry);
  if (converted != ZUL_KEST_OK) return converted;
  return OverlayModify(kThisProcess, id, &entry);
}

extern "C" int32_t zulKestOverlayGetList(int32_t* pIds, int32_t length, int32_t* pCount) {
  KEST2_TRACE_API("zulKestOverlayGetList");
  return OverlayGetList(kThisProcess, kFirstOrder, kLastOrder, pIds, length, pCount);
}

extern "C" int32_t zulKestOverlayResolveSync(uint32_t forWrite, const char* path, char* out, uint64_t outSize) {
  KEST2_TRACE_API("zulKestOverlayResolveSync");
  return OverlayResolveSync(kThisProcess, forWrite, path, out, outSize, kFirstOrder, kLastOrder);
}
