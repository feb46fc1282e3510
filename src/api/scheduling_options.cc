// The opt-in scheduling options: a process-wide word the I/O schedulers
// read each time they place a chunk.

#include "kest2_scheduling.h"
#include "sched/scheduler.h"

extern "C" {

int32_t zulKestSetSchedulingOptions(uint32_t options) {
  if ((options & ~ZUL_KEST_SCHEDULING_ALL) != 0) return ZUL_KEST_ERROR_BAD_ARGUMENT;
  constexpr uint32_t kOrders =
      ZUL_KEST_SCHEDULING_DEADLINE_ORDER | ZUL_KEST_SCHEDULING_PRIORITY_ORDER;
  if ((options & ZUL_KEST_SCHEDULING_ORDER_ONLY) != 0 && (options & kOrders) == 0)
    return ZUL_KEST_ERROR_BAD_ARGUMENT;
  kest2::SetPlacementOptions(options);
  return ZUL_KEST_OK;
}

uint32_t zulKestGetSchedulingOptions(void) { return kest2::PlacementOptions(); }

}  // extern "C"
