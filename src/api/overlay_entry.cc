// The overlay entry points.  Path overlays are not part of this build yet:
// every call answers ZUL_KEST_ERROR_UNIMPLEMENTED and changes nothing, and
// paths resolve to themselves.

#include "debug/trace.h"
#include "kest2.h"

extern "C" int32_t zulKestOverlayAdd(const ZulKestOverlay*, int32_t* pId) {
  KEST2_TRACE_API("zulKestOverlayAdd");
  if (pId != nullptr) *pId = -1;
  return ZUL_KEST_ERROR_UNIMPLEMENTED;
}

extern "C" int32_t zulKestOverlayRemove(int32_t) {
  KEST2_TRACE_API("zulKestOverlayRemove");
  return ZUL_KEST_ERROR_UNIMPLEMENTED;
}

extern "C" int32_t zulKestOverlayGetInfo(int32_t, ZulKestOverlay* pOut) {
  KEST2_TRACE_API("zulKestOverlayGetInfo");
  return pOut == nullptr ? ZUL_KEST_ERROR_BAD_PTR : ZUL_KEST_ERROR_UNIMPLEMENTED;
}

extern "C" int32_t zulKestOverlayModify(int32_t, const ZulKestOverlay* overlay) {
  KEST2_TRACE_API("zulKestOverlayModify");
  return overlay == nullptr ? ZUL_KEST_ERROR_BAD_PTR : ZUL_KEST_ERROR_UNIMPLEMENTED;
}

extern "C" int32_t zulKestOverlayGetList(int32_t*, int32_t, int32_t* pCount) {
  KEST2_TRACE_API("zulKestOverlayGetList");
  if (pCount != nullptr) *pCount = 0;
  return ZUL_KEST_ERROR_UNIMPLEMENTED;
}

extern "C" int32_t zulKestOverlayResolveSync(uint32_t, const char*, char*, uint64_t) {
  KEST2_TRACE_API("zulKestOverlayResolveSync");
  return ZUL_KEST_ERROR_UNIMPLEMENTED;
}
