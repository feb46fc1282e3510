/* timeline: a record of what the library did, for a trace viewer.
 *
 * Switches the timeline on over memory of the program's own, reads a file
 * four times with deadlines (one read due a nanosecond after it is asked
 * for, so that it surely misses), switches the timeline off and writes it as
 * Trace Event JSON, which trace viewers open and `kest2 timeline FILE --svg
 * OUT` draws.  Exits 0 when the timeline kept every record and the file was
 * written. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "example_support.h"
#include "kest2.h"
#include "kest2_timeline.h"

#define FILE_BYTES (256 * 1024)

int main(void) {
  /* The timeline's memory is the program's: a header, the thread and
   * acceptance tables, then a ring of 128-byte records (here 16384).  Start
   * it before or after the library; it records until it is stopped. */
  const uint64_t timelineSize = ZUL_KEST_TIMELINE_STORAGE_SIZE(16384);
  void* timelineStorage = malloc(timelineSize); /* malloc aligns to 8 bytes at least */
  if (timelineStorage == NULL || zulKestTimelineStart(timelineStorage, timelineSize) != ZUL_KEST_OK) {
    printf("the timeline did not start\n");
    return 1;
  }
  if (example_make_temp_dir("timeline") == NULL || example_start_library(NULL, 32, 8, 2, 512) != ZUL_KEST_OK)
    return 1;
  int failures = 0;
  static char data[FILE_BYTES];
  memset(data, 'k', sizeof(data));
  const char* path = example_path("data.bin");
  failures += example_write_file(path, data, sizeof(data));

  ZulKestOp ops[4];
  static char buffers[4][FILE_BYTES];
  for (int i = 0; i < 4; ++i) {
    ZulKestOpAttr attr;
    zulKestGetDefaultOpAttr(&attr);
    attr.priority = (int8_t)(i == 3 ? 10 : 0);
    /* Three reads due within a second; the last one a nanosecond after it
     * is asked for, so the timeline marks its deadline as missed. */
    attr.deadline = zulKestTimeGetCurrent() + (i == 3 ? 1 : 1000000000);
    ops[i] = zulKestFileRead(&attr, path, buffers[i], FILE_BYTES, 0);
  }
  for (int i = 0; i < 4; ++i) failures += zulKestOpSyncWait(ops[i]) != ZUL_KEST_OK;

  /* Stop, then write: the records stay until the next start. */
  zulKestTimelineStop();
  ZulKestTimelineInfo info;
  if (zulKestTimelineGetInfo(&info) != ZUL_KEST_OK || info.lost != 0) ++failures;
  printf("timeline: %llu records from %u threads, %llu lost\n", (unsigned long long)info.recorded,
         info.threads, (unsigned long long)info.lost);
  const char* json = example_path("timeline.json");
  const int32_t written = zulKestTimelineWrite(json);
  printf("written to %s: %s, %lld bytes\n", json, zulKestDebugDumpError(written, NULL, 0),
         (long long)zulKestFileGetSizeSync(NULL, json));
  if (written != ZUL_KEST_OK) ++failures;

  failures += zulKestFileDeleteSync(NULL, json) != ZUL_KEST_OK;
  failures += zulKestFileDeleteSync(NULL, path) != ZUL_KEST_OK;
  failures += example_remove_temp_dir();
  zulKestTerminate();
  free(timelineStorage); /* the timeline reads it until its last write */
  printf("%s\n", failures == 0 ? "timeline example passed" : "timeline example FAILED");
  return failures == 0 ? 0 : 1;
}
