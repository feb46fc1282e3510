/* example_support: the set-up that the kest2 examples share (see
 * example_support.h). */
#define _POSIX_C_SOURCE 200809L /* mkdtemp */
#include "example_support.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The most units any example asks for.  The library allocates nothing for
 * its objects: these arrays are all the memory its operations and handles
 * will use, and each example lends it the part it asked for. */
#define MAX_OP_UNITS 64
#define MAX_FH_UNITS 16
#define MAX_DH_UNITS 4
#define MAX_CHUNK_UNITS 1024

static uint64_t g_opStorage[ZUL_KEST_STORAGE_SIZE(MAX_OP_UNITS, ZUL_KEST_OP_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_fhStorage[ZUL_KEST_STORAGE_SIZE(MAX_FH_UNITS, ZUL_KEST_FH_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_dhStorage[ZUL_KEST_STORAGE_SIZE(MAX_DH_UNITS, ZUL_KEST_DH_UNIT_SIZE(PATH_MAX_BYTES)) / 8];
static uint64_t g_chunkStorage[ZUL_KEST_STORAGE_SIZE(MAX_CHUNK_UNITS, ZUL_KEST_CHUNK_UNIT_SIZE) / 8];

int32_t example_start_library(ZulKestParams* params, uint32_t opUnits, uint32_t fhUnits, uint32_t dhUnits,
                              uint32_t chunkUnits) {
  if (opUnits > MAX_OP_UNITS || fhUnits > MAX_FH_UNITS || dhUnits > MAX_DH_UNITS ||
      chunkUnits > MAX_CHUNK_UNITS) {
    printf("example_start_library: more units than example_support.c has storage for\n");
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  ZulKestParams defaults;
  if (params == NULL) {
    memset(&defaults, 0, sizeof(defaults));
    params = &defaults;
  }
  /* The header tells the library the size of the record and the pathMax;
   * the storage sizes tell it how many units of each kind it has. */
  params->header = ZUL_KEST_PARAMS_HEADER(PATH_MAX_BYTES);
  params->opStorage = g_opStorage;
  params->opStorageSize = ZUL_KEST_STORAGE_SIZE(opUnits, ZUL_KEST_OP_UNIT_SIZE(PATH_MAX_BYTES));
  params->fhStorage = g_fhStorage;
  params->fhStorageSize = ZUL_KEST_STORAGE_SIZE(fhUnits, ZUL_KEST_FH_UNIT_SIZE(PATH_MAX_BYTES));
  params->dhStorage = g_dhStorage;
  params->dhStorageSize = ZUL_KEST_STORAGE_SIZE(dhUnits, ZUL_KEST_DH_UNIT_SIZE(PATH_MAX_BYTES));
  params->chunkStorage = g_chunkStorage;
  params->chunkStorageSize = ZUL_KEST_STORAGE_SIZE(chunkUnits, ZUL_KEST_CHUNK_UNIT_SIZE);
  /* -1 keeps each thread's default priority; 0 would be a real priority. */
  params->threadPriority[0] = params->threadPriority[1] = params->threadPriority[2] = -1;
  const int32_t rc = zulKestInitialize(params);
  if (rc != ZUL_KEST_OK) printf("zulKestInitialize: %s\n", zulKestDebugDumpError(rc, NULL, 0));
  return rc;
}

static char g_dir[256]; /* /tmp/kest2-NAME-XXXXXX */

const char* example_make_temp_dir(const char* name) {
  snprintf(g_dir, sizeof(g_dir), "/tmp/kest2-%s-XXXXXX", name);
  if (mkdtemp(g_dir) == NULL) {
    perror("mkdtemp");
    return NULL;
  }
  return g_dir;
}

int example_remove_temp_dir(void) {
  return zulKestDirectoryDeleteSync(NULL, g_dir) != ZUL_KEST_OK;
}

const char* example_path(const char* name) {
  static char paths[4][PATH_MAX_BYTES];
  static int next = 0;
  char* path = paths[next++ % 4];
  snprintf(path, PATH_MAX_BYTES, "%s/%s", g_dir, name);
  return path;
}

int example_write_file(const char* path, const void* bytes, int64_t length) {
  return zulKestFileWriteSync(NULL, path, bytes, length, 0) != length;
}
