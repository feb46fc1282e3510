/* A program built against an installed kest2, the way a user builds one:
 * it initialises the library over storage it owns, writes a file with the
 * C library, reads it back through zulKestFileReadSync, compares the bytes,
 * terminates the library and exits 0.  Any failure exits 1.
 *   kest2_consumer [DIRECTORY]   (default: $TMPDIR, else /tmp) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <kest2.h>

#define PATH_MAX_BYTES 1024
#define OP_UNITS 16
#define FH_UNITS 8
#define DH_UNITS 4
#define CHUNK_UNITS 1024
#define FILE_BYTES 200000 /* spans several chunks */

static uint64_t g_opStorage[ZUL_KEST_STORAGE_SIZE(OP_UNITS, ZUL_KEST_OP_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_fhStorage[ZUL_KEST_STORAGE_SIZE(FH_UNITS, ZUL_KEST_FH_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_dhStorage[ZUL_KEST_STORAGE_SIZE(DH_UNITS, ZUL_KEST_DH_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_chunkStorage[ZUL_KEST_STORAGE_SIZE(CHUNK_UNITS, ZUL_KEST_CHUNK_UNIT_SIZE) / 8];

static unsigned char g_written[FILE_BYTES];
static unsigned char g_read[FILE_BYTES + 16];

static int fail(const char* what, int64_t code) {
  fprintf(stderr, "kest2_consumer: %s: %s\n", what,
          code < 0 ? zulKestDebugDumpError((int32_t)code, NULL, 0) : "failed");
  return 1;
}

int main(int argc, char** argv) {
  const char* dir = argc > 1 ? argv[1] : getenv("TMPDIR");
  if (dir == NULL || dir[0] == '\0') dir = "/tmp";
  char path[PATH_MAX_BYTES];
  snprintf(path, sizeof(path), "%s/kest2_consumer.XXXXXX", dir);
  int fd = mkstemp(path);
  if (fd < 0) {
    perror("kest2_consumer: mkstemp");
    return 1;
  }

  /* Known bytes, written with the C library. */
  uint32_t state = 0x12345678u;
  for (size_t i = 0; i < FILE_BYTES; i++) {
    state = state * 1664525u + 1013904223u;
    g_written[i] = (unsigned char)(state >> 24);
  }
  FILE* out = fdopen(fd, "wb");
  if (out == NULL || fwrite(g_written, 1, FILE_BYTES, out) != FILE_BYTES ||
      fclose(out) != 0) {
    perror("kest2_consumer: writing the file");
    unlink(path);
    return 1;
  }

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

  int status = 0;
  int32_t rc = zulKestInitialize(&params);
  if (rc != ZUL_KEST_OK) {
    unlink(path);
    return fail("zulKestInitialize", rc);
  }
  if (!zulKestIsInitialized(NULL)) status = fail("zulKestIsInitialized", 0);
  /* The installed header and the library linked in are the same release. */
  if (zulKestGetVersion() != KEST2_VERSION) {
    fprintf(stderr, "kest2_consumer: library version 0x%x, header 0x%x\n",
            (unsigned)zulKestGetVersion(), (unsigned)KEST2_VERSION);
    status = 1;
  }

  /* Ask for more than the file holds: the count says where it ended. */
  int64_t got = zulKestFileReadSync(NULL, path, g_read, sizeof(g_read), 0);
  if (got != FILE_BYTES) {
    fprintf(stderr, "kest2_consumer: read %lld bytes of %d\n", (long long)got, FILE_BYTES);
    status = got < 0 ? fail("zulKestFileReadSync", got) : 1;
  } else if (memcmp(g_read, g_written, FILE_BYTES) != 0) {
    fprintf(stderr, "kest2_consumer: the bytes read differ from the bytes written\n");
    status = 1;
  }

  /* A read at an offset, through the same call. */
  if (status == 0) {
    got = zulKestFileReadSync(NULL, path, g_read, 4096, 100000);
    if (got != 4096 || memcmp(g_read, g_written + 100000, 4096) != 0) {
      status = got < 0 ? fail("zulKestFileReadSync at an offset", got) : 1;
      if (got >= 0) fprintf(stderr, "kest2_consumer: the read at an offset differs\n");
    }
  }

  zulKestTerminate();
  if (zulKestIsInitialized(NULL)) status = fail("zulKestTerminate", 0);
  unlink(path);
  if (status == 0) {
    printf("kest2 %s: read %d bytes back through zulKestFileReadSync: OK\n",
           KEST2_VERSION_STRING, FILE_BYTES);
  }
  return status;
}
