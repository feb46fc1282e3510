/* The smallest kest2 program: initialise the library over storage the
 * program owns, print a few of the diagnostics it offers, read a file
 * through the scheduler (the file named on the command line, or the program
 * itself), and terminate. */
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "kest2.h"

#define PATH_MAX_BYTES 1024
#define OP_UNITS 64
#define FH_UNITS 32
#define DH_UNITS 8
#define CHUNK_UNITS 4096

/* The library allocates nothing for its objects: these arrays are all the
 * memory its operations and handles will ever use. */
static uint64_t g_opStorage[ZUL_KEST_STORAGE_SIZE(OP_UNITS, ZUL_KEST_OP_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_fhStorage[ZUL_KEST_STORAGE_SIZE(FH_UNITS, ZUL_KEST_FH_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_dhStorage[ZUL_KEST_STORAGE_SIZE(DH_UNITS, ZUL_KEST_DH_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_chunkStorage[ZUL_KEST_STORAGE_SIZE(CHUNK_UNITS, ZUL_KEST_CHUNK_UNIT_SIZE) / 8];

int main(int argc, char** argv) {
  ZulKestParams params;
  memset(&params, 0, sizeof(params));
  params.header = ZUL_KEST_PARAMS_HEADER(PATH_MAX_BYTES);
  params.opStorage = g_opStorage;
  params.opStorageSize = sizeof(g_opStorage);
  params.fhStorage = g_fhStorage;
  params.fhStorageSize = sizeof(g_fhStorage);
  params.dhStorage = g_dhStorage;
  params.dhStorageSize = sizeof(g_dhStorage);
  params.chunkStorage = g_chunkStorage;
  params.chunkStorageSize = sizeof(g_chunkStorage);
  params.threadPriority[0] = params.threadPriority[1] = params.threadPriority[2] = -1;

  int32_t rc = zulKestInitialize(&params);
  if (rc != ZUL_KEST_OK) {
    printf("zulKestInitialize failed: %s\n", zulKestDebugDumpError(rc, NULL, 0));
    return 1;
  }
  printf("kest2 %s initialised\n", KEST2_VERSION_STRING);

  ZulKestParams active;
  zulKestIsInitialized(&active);
  printf("pathMax %u, I/O schedulers %u x %u threads, maxChunk 0x%x\n",
         (unsigned)active.pathMax, (unsigned)active.schedulerCount,
         (unsigned)active.ioThreadCount, (unsigned)active.maxChunk);

  ZulKestDate now = zulKestDateGetCurrent();
  struct tm fields;
  zulKestDateToComponents(now, &fields);
  printf("now: %s (round trip %s)\n", zulKestDebugDumpDate(now, NULL, 0),
         zulKestDateFromComponents(&fields) == now / 1000000000u * 1000000000u
             ? "exact to the second" : "MISMATCH");

  char timestamp[32];
  zulKestTraceTimestamp(timestamp, sizeof(timestamp));
  printf("monotonic clock: %s s\n", timestamp);

  char normal[64];
  zulKestPathNormalize(normal, "./assets//textures/../sounds/./boom.wav", sizeof(normal));
  printf("normalised path: %s\n", normal);

  printf("error 0x80820004 is %s\n",
         zulKestDebugDumpError(ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK, NULL, 0));
  printf("a stale operation handle dumps as %s\n", zulKestDebugDumpOp(0x00014000, NULL, 0));
  printf("live handles: %d ops, %d files, %d directories\n", zulKestGetAllOps(NULL, 0),
         zulKestGetAllFHs(NULL, 0), zulKestGetAllDHs(NULL, 0));

  /* A whole-file read becomes open, read and close steps on the library's
   * I/O thread; the operation finishes on its callback thread and the
   * synchronous wait hands back the byte count (or a negative error). */
  static char buffer[1 << 16];
  const char* path = argc > 1 ? argv[1] : argv[0];
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  attr.priority = 10;
  attr.deadline = zulKestTimeGetCurrent() + 50000000; /* 50 ms from now */
  int64_t got = zulKestOpSyncWaitForIO(zulKestFileRead(&attr, path, buffer, sizeof(buffer), 0));
  ZulKestTime finished = zulKestTimeGetCurrent();
  if (got < 0) {
    printf("reading %s failed: %s\n", path, zulKestDebugDumpError((int32_t)got, NULL, 0));
  } else {
    printf("read the first %lld bytes of %s through the scheduler, %s its 50 ms deadline\n",
           (long long)got, path, finished <= attr.deadline ? "within" : "after");
  }

  zulKestTerminate();
  printf("terminated: %s\n", zulKestIsInitialized(NULL) ? "no" : "yes");
  return 0;
}
