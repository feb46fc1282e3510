/* archive_mount: serve the files of a ZORBA archive as loose files.
 *
 *   kest2_example_archive_mount PATH_OF_THE_KEST2_PROGRAM
 *
 * Writes a small asset tree into a temporary directory, packs it with
 * 'kest2 pack', installs a RAM cache and the archive dearchiver, mounts the
 * archive and reads its files through the mount point as if they were
 * loose files.  Because the cache sits at a lower filter index than the
 * dearchiver, it keeps the inflated bytes: the second pass over a file is
 * served from memory without inflating again.  Exits 0 when every byte read
 * from the archive matches what was packed. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "example_support.h"
#include "kest2.h"

#define ARCHIVE_BLOCK (64 * 1024) /* 'kest2 pack --block-size 64k' */
#define TEXTURE_SIZE (300 * 1000)
#define READ_SIZE (16 * 1024)

/* The filters' contexts and memory must stay valid and untouched while the
 * filters are installed.  The dearchiver splits its work buffer into three
 * buffers, each holding one archive block. */
static ZulKestZorbaDearchiverContext g_dearchiver;
static _Alignas(64) uint8_t g_dearchiverWork[3 * ARCHIVE_BLOCK];
static ZulKestRamCacheContext g_cache;
static uint64_t g_cacheMemory[(2 * 1024 * 1024) / 8];

#define CACHE_INDEX 0      /* sees every operation first: caches inflated bytes */
#define DEARCHIVER_INDEX 1 /* at index 0 instead, the cache would keep compressed blocks */

static int install_filters(const char* mountPoint) {
  g_cache.sizeOfContext = sizeof(g_cache);
  g_cache.workBufferSize = sizeof(g_cacheMemory);
  g_cache.blockSize = 128 * 1024; /* larger than the reads */
  g_cache.pWorkBuffer = g_cacheMemory;
  g_cache.pPath = mountPoint; /* cache the archived files only */
  int32_t rc = zulKestIOFilterAdd(CACHE_INDEX, zulKestIOFilterCache, &g_cache);
  if (rc != ZUL_KEST_OK) return rc;

  g_dearchiver.sizeOfContext = sizeof(g_dearchiver);
  g_dearchiver.workBufferSize = sizeof(g_dearchiverWork);
  g_dearchiver.pWorkBuffer = g_dearchiverWork;
  g_dearchiver.flags = 0; /* ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES: also loose files under the mount point */
  return zulKestIOFilterAdd(DEARCHIVER_INDEX, zulKestIOFilterZorbaDearchiver, &g_dearchiver);
}

/* Mounts `archive` at `mountPoint`.  The mount buffer holds the archive's
 * table of contents; it belongs to the library until the unmount. */
static int32_t mount(const char* archive, const char* mountPoint, ZulKestFH* pArchive, void** pBuffer) {
  const int64_t need = zulKestArchiveGetMountBufferSizeSync(NULL, archive, NULL);
  if (need < 0) return (int32_t)need;
  *pBuffer = malloc((size_t)need); /* malloc's alignment is enough (8 bytes) */
  if (*pBuffer == NULL) return ZUL_KEST_ERROR_BAD_PTR;
  printf("mount buffer: %lld bytes\n", (long long)need);
  return zulKestArchiveMountSync(NULL, pArchive, archive, mountPoint, *pBuffer, need, NULL);
}

/* The texture's bytes: text, so that it compresses. */
static void make_texture(char* bytes) {
  for (int i = 0; i < TEXTURE_SIZE; ++i) bytes[i] = "wall texel row "[i % 15] + (char)(i / 15000 % 3);
}

/* Reads the whole file through an open handle in READ_SIZE pieces. */
static int64_t read_in_pieces(const char* path, char* out, int64_t size) {
  ZulKestFH fh;
  if (zulKestFHOpenSync(NULL, &fh, path, NULL) != ZUL_KEST_OK) return -1;
  int64_t total = 0;
  for (int64_t got = 1; got > 0 && total < size; total += got) {
    got = zulKestFHPreadSync(NULL, fh, out + total, READ_SIZE, total);
    if (got < 0) total = got;
  }
  zulKestFHCloseSync(NULL, fh);
  return total;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s PATH_OF_THE_KEST2_PROGRAM\n", argv[0]);
    return 2;
  }
  if (example_make_temp_dir("archive") == NULL) return 1;
  /* 32 operations, 8 file handles, 4 directory handles, 1024 chunks. */
  if (example_start_library(NULL, 32, 8, 4, 1024) != ZUL_KEST_OK) return 1;
  int32_t rc;
  int failures = 0;

  /* The tree to pack: two files, one in a subdirectory. */
  static char texture[TEXTURE_SIZE];
  static char back[TEXTURE_SIZE];
  const char readme[] = "assets packed by kest2";
  make_texture(texture);
  zulKestDirectoryCreateSync(NULL, example_path("tree"));
  zulKestDirectoryCreateSync(NULL, example_path("tree/textures"));
  failures += example_write_file(example_path("tree/readme.txt"), readme, sizeof(readme) - 1);
  failures += example_write_file(example_path("tree/textures/wall.txt"), texture, TEXTURE_SIZE);

  char command[3 * PATH_MAX_BYTES];
  snprintf(command, sizeof(command), "'%s' pack --block-size 64k '%s' '%s'", argv[1],
           example_path("tree"), example_path("assets.zorba"));
  if (system(command) != 0) {
    printf("packing failed: %s\n", command);
    return 1;
  }
  printf("packed %s into assets.zorba (%lld bytes)\n", example_path("tree"),
         (long long)zulKestFileGetSizeSync(NULL, example_path("assets.zorba")));

  /* The mount point need not exist on disk: paths below it are answered by
   * the dearchiver. */
  char mountPoint[PATH_MAX_BYTES];
  snprintf(mountPoint, sizeof(mountPoint), "%s", example_path("assets"));
  ZulKestFH archive = 0;
  void* mountBuffer = NULL;
  if ((rc = install_filters(mountPoint)) != ZUL_KEST_OK ||
      (rc = mount(example_path("assets.zorba"), mountPoint, &archive, &mountBuffer)) != ZUL_KEST_OK) {
    printf("mounting failed: %s\n", zulKestDebugDumpError(rc, NULL, 0));
    return 1;
  }
  printf("mounted at %s\n", mountPoint);

  /* Archived files read like loose files: whole-file reads, stat, listing. */
  char text[64] = {0};
  int64_t got =
      zulKestFileReadSync(NULL, example_path("assets/readme.txt"), text, sizeof(text) - 1, 0);
  printf("assets/readme.txt: \"%s\"\n", got >= 0 ? text : zulKestDebugDumpError((int32_t)got, NULL, 0));
  failures += strcmp(text, readme) != 0;

  ZulKestStat stat;
  rc = zulKestStatSync(NULL, example_path("assets/textures/wall.txt"), &stat);
  printf("assets/textures/wall.txt: %lld bytes\n", rc == ZUL_KEST_OK ? (long long)stat.fileSize : -1LL);
  failures += rc != ZUL_KEST_OK || stat.fileSize != TEXTURE_SIZE;

  static uint64_t listingBuffer[0x20000 / 8]; /* the listing's state, lent to the library */
  ZulKestDH dh;
  ZulKestDirEntry entry;
  int names = 0;
  if (zulKestDHOpenSync(NULL, &dh, mountPoint, listingBuffer, sizeof(listingBuffer)) == ZUL_KEST_OK) {
    while (zulKestDHReadSync(NULL, dh, &entry) == ZUL_KEST_OK) {
      printf("  listed %c %s\n", entry.statFlags & ZUL_KEST_STAT_DIRECTORY ? 'd' : '-',
             entry.fullPath + entry.offsetToName);
      ++names;
    }
    zulKestDHCloseSync(NULL, dh);
  }
  failures += names != 2; /* readme.txt and textures */

  /* Reads through a handle: the first pass inflates blocks and fills the
   * cache, the second is served from the cache. */
  for (int pass = 1; pass <= 2; ++pass) {
    memset(back, 0, sizeof(back));
    const ZulKestTime start = zulKestTimeGetCurrent();
    got = read_in_pieces(example_path("assets/textures/wall.txt"), back, TEXTURE_SIZE);
    const int64_t micros = zulKestTimeToNanoseconds(zulKestTimeGetCurrent() - start) / 1000;
    printf("pass %d: read %lld bytes in %lld us, %s\n", pass, (long long)got, (long long)micros,
           got == TEXTURE_SIZE && memcmp(back, texture, TEXTURE_SIZE) == 0 ? "bytes match" : "MISMATCH");
    failures += got != TEXTURE_SIZE || memcmp(back, texture, TEXTURE_SIZE) != 0;
  }
  rc = zulKestCacheContainsFileSync(example_path("assets/textures/wall.txt"), NULL);
  printf("inflated texture held by the cache at index %d\n", (int)rc);
  failures += rc != CACHE_INDEX;

  /* Unmount before the mount buffer is freed; remove the filters before
   * their memory goes away (zulKestTerminate would remove them too). */
  failures += zulKestArchiveUnmountSync(NULL, archive) != ZUL_KEST_OK;
  free(mountBuffer);
  failures += zulKestIOFilterRemove(DEARCHIVER_INDEX) != ZUL_KEST_OK;
  failures += zulKestIOFilterRemove(CACHE_INDEX) != ZUL_KEST_OK;

  const char* files[] = {"tree/readme.txt", "tree/textures/wall.txt", "assets.zorba"};
  for (size_t i = 0; i < sizeof(files) / sizeof(files[0]); ++i) {
    failures += zulKestFileDeleteSync(NULL, example_path(files[i])) != ZUL_KEST_OK;
  }
  failures += zulKestDirectoryDeleteSync(NULL, example_path("tree/textures")) != ZUL_KEST_OK;
  failures += zulKestDirectoryDeleteSync(NULL, example_path("tree")) != ZUL_KEST_OK;
  failures += example_remove_temp_dir();

  zulKestTerminate();
  printf("%s\n", failures == 0 ? "archive served every byte" : "FAILED");
  return failures == 0 ? 0 : 1;
}
