/* The public header must compile as plain C11 and give C callers the same
 * record layouts as C++ callers. */
#include <stddef.h>
#include <stdio.h>

#include "kest2.h"
#include "kest2_scheduling.h"
#include "kest2_timeline.h"

_Static_assert(sizeof(ZulKestParams) == 176, "ZulKestParams");
_Static_assert(sizeof(ZulKestOpAttr) == 48, "ZulKestOpAttr");
_Static_assert(sizeof(ZulKestOpenParams) == 24, "ZulKestOpenParams");
_Static_assert(sizeof(ZulKestBuffer) == 16, "ZulKestBuffer");
_Static_assert(sizeof(ZulKestStat) == 80, "ZulKestStat");
_Static_assert(sizeof(ZulKestDirEntry) == 1048, "ZulKestDirEntry");
_Static_assert(sizeof(ZulKestResolveRecord) == 1040, "ZulKestResolveRecord");
_Static_assert(sizeof(ZulKestOverlay) == 600, "ZulKestOverlay");
_Static_assert(sizeof(ZulKestRamCacheContext) == 72, "ZulKestRamCacheContext");
_Static_assert(sizeof(ZulKestZorbaDearchiverContext) == 56, "ZulKestZorbaDearchiverContext");
_Static_assert(sizeof(ZulKestStatistics) == 224, "ZulKestStatistics");
_Static_assert(offsetof(ZulKestParams, threadStackSize) == 160, "stack sizes");
_Static_assert(offsetof(ZulKestOpAttr, userTag) == 28, "userTag");
_Static_assert(sizeof(ZulKestTimelineInfo) == 48, "ZulKestTimelineInfo");

int main(void) {
  ZulKestParams params = {0};
  params.header = ZUL_KEST_PARAMS_HEADER(0);
  /* Calls through C linkage: the library answers before initialisation. */
  if (zulKestIsInitialized(NULL)) return 1;
  char text[64];
  zulKestDebugDumpError(ZUL_KEST_ERROR_BAD_PTR, text, sizeof(text));
  if (params.paramsSize != 176 || text[0] != 'Z') return 1;
  /* The timeline add-on answers through C linkage too. */
  ZulKestTimelineInfo info;
  if (zulKestTimelineStart(NULL, 0) != ZUL_KEST_ERROR_BAD_PTR) return 1;
  if (zulKestTimelineGetInfo(&info) != ZUL_KEST_ERROR_BAD_ARGUMENT || info.capacity != 0) return 1;
  /* So does the scheduling add-on. */
  if (zulKestSetSchedulingOptions(0x80000000u) != ZUL_KEST_ERROR_BAD_ARGUMENT) return 1;
  if (zulKestGetSchedulingOptions() != 0) return 1;
  printf("C header test passed: %s\n", text);
  return 0;
}
