/* diagnostics: what the library tells about itself.
 *
 * Sends all library text through the program's own print hook, switches
 * trace modules on and off at run time, receives one profiling record per
 * native call, dumps operations, handles, dates and error codes, and prints
 * the storage statistics and a table of time stamps.  Exits 0 when the hooks
 * saw what the requests did. */
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "example_support.h"
#include "kest2.h"

/* Print hook: every line the library writes (traces, warnings, reports)
 * arrives here instead of on standard output.  It may be called from any
 * of the library's threads. */
static atomic_int g_linesPrinted;
static int print_hook(const char* format, va_list args) {
  char line[1024];
  const int length = vsnprintf(line, sizeof(line), format, args);
  atomic_fetch_add(&g_linesPrinted, 1);
  printf("  | %s", line); /* one call per line keeps lines whole */
  return length;
}

/* Profiling hook: one record per native call (kinds 0-8) and per scheduler
 * step (kinds 9-13), on the thread that made it.  Keep it short. */
static atomic_int g_nativeCalls[14];
static atomic_llong g_nativeTicks;
static void event_hook(const ZulKestIOEvent* pEvent) {
  if (pEvent->kind < 14) atomic_fetch_add(&g_nativeCalls[pEvent->kind], 1);
  if (pEvent->kind <= 8) {
    /* pEvent->request describes the call: path, offset, length, deadline. */
    atomic_fetch_add(&g_nativeTicks, (long long)(pEvent->endTime - pEvent->startTime));
  }
}

/* Both hooks are fields of the parameters given to zulKestInitialize. */
static int32_t start_library(void) {
  ZulKestParams params;
  memset(&params, 0, sizeof(params));
  params.debugFlags = 0; /* no trace at first */
  params.pVprintf = print_hook;
  params.pEventCallback = event_hook;
  /* 32 operations, 8 file handles, 2 directory handles, 512 chunks. */
  return example_start_library(&params, 32, 8, 2, 512);
}

/* Trace modules can be switched while the library runs: take the active
 * parameters, change the flags, hand them back. */
static void set_trace(uint32_t debugFlags) {
  ZulKestParams active;
  if (zulKestIsInitialized(&active)) {
    active.debugFlags = debugFlags;
    zulKestUpdateParameters(&active);
  }
}

int main(void) {
  if (example_make_temp_dir("diag") == NULL || start_library() != ZUL_KEST_OK) return 1;
  int failures = 0;
  const char* path = example_path("log.txt");
  const char text[] = "diagnostics example";
  zulKestSaveTimeStamp("start", 0); /* the tag must live until printed */

  /* Trace the "api" and "io" modules for one write: each line carries the
   * time, the module, the thread and the function. */
  printf("trace of one write with ZUL_KEST_DEBUG_API | ZUL_KEST_DEBUG_IO:\n");
  const int before = atomic_load(&g_linesPrinted);
  set_trace(ZUL_KEST_DEBUG_API | ZUL_KEST_DEBUG_IO);
  if (zulKestFileWriteSync(NULL, path, text, sizeof(text) - 1, 0) != sizeof(text) - 1) ++failures;
  set_trace(0);
  const int traced = atomic_load(&g_linesPrinted) - before;
  if (traced == 0) ++failures;
  zulKestSaveTimeStamp("written", (uint32_t)traced);

  /* Dumps: one line of text per object, for logs and debuggers. */
  ZulKestFH fh;
  if (zulKestFHOpenSync(NULL, &fh, path, NULL) != ZUL_KEST_OK) {
    printf("open failed\n");
    return 1;
  }
  char buffer[64];
  ZulKestOp op = zulKestFHPread(NULL, fh, buffer, sizeof(buffer), 0);
  const int32_t rc = zulKestOpWait(op);
  printf("file handle: %s\n", zulKestDebugDumpFH(fh, NULL, 0));
  printf("operation:   %s\n", zulKestDebugDumpOp(op, NULL, 0));
  printf("its result:  %s\n", zulKestDebugDumpError(rc, NULL, 0));
  zulKestSaveTimeStamp("read", (uint32_t)zulKestOpGetActualCount(op)); /* values print in hex */
  zulKestOpDelete(op);
  printf("deleted:     %s\n", zulKestDebugDumpOp(op, NULL, 0)); /* the handle is stale now */

  ZulKestStat stat;
  if (zulKestFHStatSync(NULL, fh, &stat) != ZUL_KEST_OK) ++failures;
  printf("modified:    %s\n", zulKestDebugDumpDate(stat.modificationDate, NULL, 0));
  zulKestFHCloseSync(NULL, fh);

  /* Storage statistics: how full the caller's storage is now and at worst.
   * Size your storage from the high-water marks of a real session. */
  ZulKestStatistics statistics;
  zulKestStatisticsGet(&statistics);
  printf("operations: %llu in use, at most %llu of %llu\n", (unsigned long long)statistics.opStorage.current,
         (unsigned long long)statistics.opStorage.highWater,
         (unsigned long long)statistics.opStorage.maxAvailable);
  if (statistics.opStorage.current != 0 || statistics.opStorage.highWater == 0) ++failures;
  zulKestStatisticsPrint(); /* the same as text, through the print hook */

  failures += zulKestFileDeleteSync(NULL, path) != ZUL_KEST_OK;
  failures += example_remove_temp_dir();
  zulKestSaveTimeStamp("cleaned up", 0);
  zulKestPrintTimeStamps(); /* a table with absolute and delta times, then cleared */

  printf("profiling hook: %d opens, %d reads, %d writes, %d closes, %d stats, %d chunks executed\n",
         atomic_load(&g_nativeCalls[0]), atomic_load(&g_nativeCalls[1]), atomic_load(&g_nativeCalls[2]),
         atomic_load(&g_nativeCalls[3]), atomic_load(&g_nativeCalls[4]), atomic_load(&g_nativeCalls[13]));
  printf("              %lld time-stamp counter ticks inside native calls\n", (long long)atomic_load(&g_nativeTicks));
  if (atomic_load(&g_nativeCalls[1]) == 0 || atomic_load(&g_nativeCalls[2]) == 0) ++failures;

  zulKestTerminate();
  printf("%d library lines went through the print hook\n", atomic_load(&g_linesPrinted));
  printf("%s\n", failures == 0 ? "diagnostics as expected" : "FAILED");
  return failures == 0 ? 0 : 1;
}
