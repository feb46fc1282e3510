// The RAM-cache filter's entry point.  The cache itself is not part of this
// build yet: installing the filter is refused with
// ZUL_KEST_ERROR_UNIMPLEMENTED, and any other event is passed on.

#include "debug/trace.h"
#include "kest2.h"

extern "C" int32_t zulKestIOFilterCache(void*, int32_t event, void*) {
  return event == ZUL_KEST_IOFILTER_EVENT_INITIALIZE ? ZUL_KEST_ERROR_UNIMPLEMENTED
                                                      : ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
}
