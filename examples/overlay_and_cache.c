/* overlay_and_cache: path overlays of the four types, and a RAM cache.
 *
 * Builds a small "game" tree in a temporary directory: base/ with the
 * shipped files, patch/ with an update, saves/ for the player's files.
 * Overlays lay patch/ and saves/ over base/, so the program keeps using
 * base/ paths while the library picks the right layer.  Then a RAM cache
 * keeps blocks of a data file in memory the program owns.  Exits 0 when
 * every read returns the expected layer and the cache holds what it should. */
#define _POSIX_C_SOURCE 200809L /* utimensat */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "example_support.h"
#include "kest2.h"

static const char* g_dir; /* the temporary directory */
static int g_failures = 0;

static void write_text(const char* name, const char* text) {
  g_failures += example_write_file(example_path(name), text, (int64_t)strlen(text));
}

/* Reads `name` through the library and compares it with `expected` (NULL:
 * the read must fail). */
static void expect_text(const char* name, const char* expected) {
  char text[64] = {0};
  const int64_t got =
      zulKestFileReadSync(NULL, example_path(name), text, (int64_t)sizeof(text) - 1, 0);
  printf("  %-16s -> %s\n", name, got >= 0 ? text : zulKestDebugDumpError((int32_t)got, NULL, 0));
  if (expected == NULL ? got >= 0 : got < 0 || strcmp(text, expected) != 0) ++g_failures;
}

/* Moves a file's modification time an hour back. */
static void make_old(const char* name) {
  struct timespec times[2];
  times[0].tv_sec = times[1].tv_sec = time(NULL) - 3600;
  times[0].tv_nsec = times[1].tv_nsec = 0;
  if (utimensat(AT_FDCWD, example_path(name), times, 0) != 0) ++g_failures;
}

static void overlays(void) {
  zulKestDirectoryCreateSync(NULL, example_path("base"));
  zulKestDirectoryCreateSync(NULL, example_path("patch"));
  zulKestDirectoryCreateSync(NULL, example_path("saves"));
  write_text("base/config.txt", "shipped config");
  write_text("base/music.txt", "shipped music");
  write_text("patch/config.txt", "patched config");
  write_text("patch/new_level.txt", "level added by the patch");

  /* Translucent: patch/ wins wherever it has the file. */
  ZulKestOverlay patch;
  memset(&patch, 0, sizeof(patch));
  patch.type = ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT;
  patch.order = 10; /* lower orders are applied first */
  snprintf(patch.dst, sizeof(patch.dst), "%s", example_path("base")); /* the overlaid path */
  snprintf(patch.src, sizeof(patch.src), "%s", example_path("patch")); /* what takes its place */
  int32_t patchId = 0;
  if (zulKestOverlayAdd(&patch, &patchId) != ZUL_KEST_OK) ++g_failures;
  printf("translucent patch over base (overlay id %d):\n", (int)patchId);
  expect_text("base/config.txt", "patched config");
  expect_text("base/music.txt", "shipped music");
  expect_text("base/new_level.txt", "level added by the patch");

  /* A listing of an overlaid directory merges the layers: three names. */
  static uint64_t listingBuffer[0x20000 / 8]; /* the listing's state, lent to the library */
  ZulKestDH dh;
  ZulKestDirEntry entry;
  int names = 0;
  if (zulKestDHOpenSync(NULL, &dh, example_path("base"), listingBuffer, sizeof(listingBuffer)) ==
      ZUL_KEST_OK) {
    while (zulKestDHReadSync(NULL, dh, &entry) == ZUL_KEST_OK) ++names;
    zulKestDHCloseSync(NULL, dh);
  }
  printf("  listing base/ shows %d files\n", names);
  if (names != 3) ++g_failures;

  /* Opaque: patch/ always wins, so a file it lacks is missing. */
  patch.type = ZUL_KEST_OVERLAY_TYPE_OPAQUE;
  if (zulKestOverlayModify(patchId, &patch) != ZUL_KEST_OK) ++g_failures;
  printf("opaque:\n");
  expect_text("base/music.txt", NULL);

  /* Newer: patch/ wins only where its file is newer than the base one. */
  patch.type = ZUL_KEST_OVERLAY_TYPE_NEWER;
  if (zulKestOverlayModify(patchId, &patch) != ZUL_KEST_OK) ++g_failures;
  make_old("patch/config.txt");
  printf("newer (the patched config is now an hour older):\n");
  expect_text("base/config.txt", "shipped config");
  if (zulKestOverlayRemove(patchId) != ZUL_KEST_OK) ++g_failures;

  /* Writable: writes always land in saves/, reads find them there first
   * and fall through to base/ for everything else. */
  ZulKestOverlay saves;
  memset(&saves, 0, sizeof(saves));
  saves.type = ZUL_KEST_OVERLAY_TYPE_WRITABLE;
  snprintf(saves.dst, sizeof(saves.dst), "%s", example_path("base"));
  snprintf(saves.src, sizeof(saves.src), "%s", example_path("saves"));
  int32_t savesId = 0;
  if (zulKestOverlayAdd(&saves, &savesId) != ZUL_KEST_OK) ++g_failures;
  write_text("base/slot1.sav", "player at level 3");
  char where[PATH_MAX_BYTES];
  zulKestOverlayResolveSync(1, example_path("base/slot1.sav"), where, sizeof(where));
  printf("writable: base/slot1.sav is written to %s\n", where + strlen(g_dir) + 1);
  expect_text("base/slot1.sav", "player at level 3");
  expect_text("base/music.txt", "shipped music");
  if (zulKestOverlayRemove(savesId) != ZUL_KEST_OK) ++g_failures;
  /* Without overlays the save is only in saves/. */
  if (zulKestFileExistsSync(NULL, example_path("base/slot1.sav")) ||
      !zulKestFileExistsSync(NULL, example_path("saves/slot1.sav"))) {
    ++g_failures;
  }

  const char* files[] = {"base/config.txt", "base/music.txt", "patch/config.txt", "patch/new_level.txt",
                         "saves/slot1.sav"};
  for (size_t i = 0; i < sizeof(files) / sizeof(files[0]); ++i) {
    zulKestFileDeleteSync(NULL, example_path(files[i]));
  }
  zulKestDirectoryDeleteSync(NULL, example_path("base"));
  zulKestDirectoryDeleteSync(NULL, example_path("patch"));
  zulKestDirectoryDeleteSync(NULL, example_path("saves"));
}

/* The cache's context and memory: both must stay valid and untouched while
 * the filter is installed. */
#define CACHE_BLOCK (64 * 1024)
#define READ_SIZE (16 * 1024)
#define DATA_SIZE (4 * CACHE_BLOCK)
static ZulKestRamCacheContext g_cache;
static uint64_t g_cacheMemory[(1024 * 1024) / 8]; /* about 15 blocks of 64 KiB */

static void ram_cache(void) {
  static uint8_t data[DATA_SIZE];
  for (int i = 0; i < DATA_SIZE; ++i) data[i] = (uint8_t)(i % 253);
  g_failures += example_write_file(example_path("data.bin"), data, DATA_SIZE);

  /* Blocks larger than the reads: a read that misses fills the block that
   * holds its last byte, and the next reads of that block are hits. */
  g_cache.sizeOfContext = sizeof(g_cache);
  g_cache.workBufferSize = sizeof(g_cacheMemory);
  g_cache.blockSize = CACHE_BLOCK;
  g_cache.pWorkBuffer = g_cacheMemory;
  g_cache.pPath = g_dir; /* only files below this directory */
  int32_t rc = zulKestIOFilterAdd(0, zulKestIOFilterCache, &g_cache);
  printf("RAM cache installed: %s\n", zulKestDebugDumpError(rc, NULL, 0));
  if (rc != ZUL_KEST_OK) {
    ++g_failures;
    return;
  }

  /* Only reads through an open handle use the cache. */
  ZulKestFH fh;
  static uint8_t piece[READ_SIZE];
  if (zulKestFHOpenSync(NULL, &fh, example_path("data.bin"), NULL) != ZUL_KEST_OK) {
    ++g_failures;
    return;
  }
  for (int64_t offset = 0; offset < CACHE_BLOCK; offset += READ_SIZE) {
    /* The first read misses and fills block 0; the other three are hits. */
    if (zulKestFHPreadSync(NULL, fh, piece, READ_SIZE, offset) != READ_SIZE ||
        memcmp(piece, data + offset, READ_SIZE) != 0) {
      ++g_failures;
    }
  }
  /* The contains queries answer with the index of the cache that holds the
   * range, or ZUL_KEST_ERROR_BAD_INDEX when no cache holds all of it. */
  const int32_t first = zulKestCacheContainsFileRangeSync(example_path("data.bin"), 0, CACHE_BLOCK);
  const int32_t second =
      zulKestCacheContainsFileRangeSync(example_path("data.bin"), CACHE_BLOCK, 1);
  printf("  after 4 reads of 16 KiB: block 0 %s, block 1 %s\n", first >= 0 ? "cached" : "not cached",
         second >= 0 ? "cached" : "not cached");
  if (first != 0 || second != ZUL_KEST_ERROR_BAD_INDEX) ++g_failures;

  /* Prefetch fills the cache ahead of need, here the rest of the file. */
  zulKestCachePrefetchFHRangeSync(NULL, fh, CACHE_BLOCK, DATA_SIZE - CACHE_BLOCK);
  int64_t cachedSize = 0;
  rc = zulKestCacheContainsFileSync(example_path("data.bin"), &cachedSize);
  printf("  after prefetching the rest: whole file %s (%lld bytes)\n", rc >= 0 ? "cached" : "not cached",
         (long long)cachedSize);
  if (rc != 0 || cachedSize != DATA_SIZE) ++g_failures;

  /* A request can stay away from the cache: neither served nor filling. */
  ZulKestOpAttr bypass;
  zulKestGetDefaultOpAttr(&bypass);
  bypass.opflags |= ZUL_KEST_OPFLAG_CACHE_BYPASS;
  if (zulKestFHPreadSync(&bypass, fh, piece, READ_SIZE, 0) != READ_SIZE) ++g_failures;

  /* Hits and misses of each cache are part of the statistics report. */
  zulKestStatisticsPrint();

  zulKestCacheFlushFileSync(example_path("data.bin"));
  rc = zulKestCacheContainsFileRangeSync(example_path("data.bin"), 0, 1);
  printf("  after a flush: block 0 %s\n", rc >= 0 ? "cached" : "not cached");
  if (rc != ZUL_KEST_ERROR_BAD_INDEX) ++g_failures;

  zulKestFHCloseSync(NULL, fh);
  /* Remove the filter before its memory goes away. */
  if (zulKestIOFilterRemove(0) != ZUL_KEST_OK) ++g_failures;
  zulKestFileDeleteSync(NULL, example_path("data.bin"));
}

int main(void) {
  g_dir = example_make_temp_dir("overlay");
  if (g_dir == NULL) return 1;
  /* 32 operations, 8 file handles, 4 directory handles, 1024 chunks. */
  if (example_start_library(NULL, 32, 8, 4, 1024) != ZUL_KEST_OK) return 1;
  overlays();
  ram_cache();
  g_failures += example_remove_temp_dir();
  zulKestTerminate();
  printf("%s\n", g_failures == 0 ? "overlays and cache behaved as expected" : "FAILED");
  return g_failures == 0 ? 0 : 1;
}
