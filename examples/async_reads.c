/* async_reads: asynchronous requests with deadlines and priorities.
 *
 * Writes four files into a fresh temporary directory, opens them, and then
 * reads one piece of each at once, every read with its own deadline and
 * priority.  The results are collected the three ways the library offers:
 * polling, a bounded wait, and a completion callback.  The synchronous twins
 * (the *Sync functions) do the set-up, a directory listing and the clean-up.
 * Exits 0 when every byte read matches what was written. */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "example_support.h"
#include "kest2.h"

#define FILE_COUNT 4
#define FILE_SIZE (256 * 1024)
#define PIECE (64 * 1024)
#define MILLISECONDS(n) zulKestTimeFromNanoseconds((int64_t)(n) * 1000000)

/* The byte at `offset` of file `index`: every file and offset differs, so a
 * piece read from the wrong place is noticed. */
static uint8_t pattern(int index, int64_t offset) {
  return (uint8_t)(offset * 7 + offset / 251 + index * 31);
}

static int matches(int index, const uint8_t* bytes, int64_t offset, int64_t length) {
  for (int64_t i = 0; i < length; ++i) {
    if (bytes[i] != pattern(index, offset + i)) return 0;
  }
  return 1;
}

/* The completion callback.  It runs on the library's callback thread (or on
 * the caller's thread when a request fails its argument checks at once), so
 * it only records the result and returns quickly. */
typedef struct Completion {
  atomic_int calls;
  atomic_int error;
} Completion;

static int32_t on_event(void* pCallbackContext, ZulKestOp op, uint8_t event, int32_t error) {
  Completion* completion = (Completion*)pCallbackContext;
  (void)op;
  if (event == ZUL_KEST_EVENT_COMPLETE) {
    atomic_store(&completion->error, error);
    atomic_fetch_add(&completion->calls, 1);
  }
  return 0; /* ignored by the library */
}

int main(void) {
  const char* dir = example_make_temp_dir("async");
  if (dir == NULL) return 1;
  /* Two I/O threads instead of the default one serve the reads in flight. */
  ZulKestParams params;
  memset(&params, 0, sizeof(params));
  params.ioThreadCount = 2;
  /* 64 operations, 16 file handles, 4 directory handles, 1024 chunks. */
  int32_t rc = example_start_library(&params, 64, 16, 4, 1024);
  if (rc != ZUL_KEST_OK) return 1;
  int failures = 0;
  char paths[FILE_COUNT][PATH_MAX_BYTES];
  static uint8_t bytes[FILE_SIZE];

  /* Set-up with the synchronous twins: each issues its request with the
   * default attributes, waits for it and deletes the operation. */
  for (int f = 0; f < FILE_COUNT; ++f) {
    snprintf(paths[f], sizeof(paths[f]), "%s/level%d.dat", dir, f);
    for (int64_t i = 0; i < FILE_SIZE; ++i) bytes[i] = pattern(f, i);
    failures += example_write_file(paths[f], bytes, FILE_SIZE);
  }
  printf("wrote %d files of %d KiB into %s\n", FILE_COUNT, FILE_SIZE / 1024, dir);

  ZulKestFH files[FILE_COUNT];
  for (int f = 0; f < FILE_COUNT; ++f) {
    rc = zulKestFHOpenSync(NULL, &files[f], paths[f], NULL); /* NULL params: read access */
    if (rc != ZUL_KEST_OK) {
      printf("open %s: %s\n", paths[f], zulKestDebugDumpError(rc, NULL, 0));
      return 1;
    }
  }

  /* Four reads in flight at once.  A deadline is a point of the library's
   * monotonic clock; the scheduler orders the pieces of all pending reads
   * so that as few deadlines as possible are missed, and the priority
   * (larger is more urgent) decides between reads that cannot all make it. */
  static uint8_t pieces[FILE_COUNT][PIECE];
  ZulKestOp reads[FILE_COUNT];
  Completion background = {0, 0};
  const ZulKestTime now = zulKestTimeGetCurrent();
  for (int f = 0; f < FILE_COUNT; ++f) {
    ZulKestOpAttr attr;
    memset(&attr, 0, sizeof(attr));
    attr.deadline = now + MILLISECONDS(10 * (f + 1)); /* 10, 20, 30, 40 ms */
    attr.priority = (int8_t)(FILE_COUNT - f);         /* the first is the most urgent */
    if (f == FILE_COUNT - 1) {
      /* The last one is background streaming: no deadline (the library
       * allows it 300 s), low priority, and a callback instead of a wait. */
      attr.deadline = 0;
      attr.priority = -10;
      attr.pCallback = on_event;
      attr.pCallbackContext = &background;
    }
    reads[f] = zulKestFHPread(&attr, files[f], pieces[f], PIECE, (int64_t)f * PIECE);
    if (reads[f] == 0) {
      printf("no operation storage left\n"); /* only a full op table returns 0 */
      return 1;
    }
  }

  /* The game decides the background read is needed now after all: move its
   * deadline and priority up.  (Nothing happens if it has finished.) */
  zulKestOpRescheduleWithPriority(reads[3], zulKestTimeGetCurrent() + MILLISECONDS(5), 20);

  /* 1. Polling, as a frame loop would: the call never blocks. */
  int frames = 0;
  while (!zulKestOpIsDone(reads[0])) ++frames;
  printf("read 0 finished after %d polls: %s\n", frames,
         zulKestDebugDumpError(zulKestOpGetError(reads[0]), NULL, 0));

  /* 2. A bounded wait: gives up with ZUL_KEST_ERROR_TIMEOUT at the time
   * given, leaving the operation running. */
  for (int f = 1; f < FILE_COUNT - 1; ++f) {
    rc = zulKestOpWaitUntil(reads[f], zulKestTimeGetCurrent() + MILLISECONDS(2000));
    printf("read %d waited for: %s\n", f, zulKestDebugDumpError(rc, NULL, 0));
  }

  /* 3. The callback: by the time zulKestOpWait returns the callback has run. */
  zulKestOpWait(reads[3]);
  printf("read 3 reported by its callback %d time(s): %s\n", atomic_load(&background.calls),
         zulKestDebugDumpError(atomic_load(&background.error), NULL, 0));
  if (atomic_load(&background.calls) != 1) ++failures;

  /* Results stay with the operation until it is deleted: the caller owns it. */
  for (int f = 0; f < FILE_COUNT; ++f) {
    const int64_t got = zulKestOpGetActualCount(reads[f]);
    if (zulKestOpGetError(reads[f]) != ZUL_KEST_OK || got != PIECE ||
        !matches(f, pieces[f], (int64_t)f * PIECE, PIECE)) {
      printf("read %d: wrong result (%lld bytes)\n", f, (long long)got);
      ++failures;
    }
    zulKestOpDelete(reads[f]);
  }

  /* The synchronous twins return the byte count (or a negative error). */
  const int64_t got = zulKestFHPreadSync(NULL, files[1], pieces[0], 100, FILE_SIZE - 60);
  printf("a read across the end of a file returns %lld bytes\n", (long long)got);
  if (got != 60 || !matches(1, pieces[0], FILE_SIZE - 60, 60)) ++failures;
  for (int f = 0; f < FILE_COUNT; ++f) {
    if (zulKestFHCloseSync(NULL, files[f]) != ZUL_KEST_OK) ++failures;
  }

  /* A directory listing keeps its state in memory the caller lends it:
   * 64 KiB of native state, then room for the entries.  When the buffer is
   * too small the open fails with ZUL_KEST_ERROR_BAD_SIZE and reports the
   * length it needs as the operation's actual count. */
  static uint64_t listingBuffer[0x20000 / 8]; /* 8-byte aligned */
  ZulKestDH listing;
  ZulKestDirEntry entry;
  int listed = 0;
  const ZulKestOp opening = zulKestDHOpen(NULL, &listing, dir, listingBuffer, sizeof(listingBuffer));
  rc = zulKestOpWait(opening);
  if (rc == ZUL_KEST_ERROR_BAD_SIZE) {
    printf("a listing of %s needs %lld bytes\n", dir, (long long)zulKestOpGetActualCount(opening));
  }
  zulKestOpDelete(opening);
  if (rc == ZUL_KEST_OK) {
    /* Entries, one per read, until ZUL_KEST_ERROR_EOF. */
    while ((rc = zulKestDHReadSync(NULL, listing, &entry)) == ZUL_KEST_OK) {
      printf("  listed %-12s %lld bytes\n", entry.fullPath + entry.offsetToName,
             (long long)entry.fileSize);
      ++listed;
    }
    zulKestDHCloseSync(NULL, listing);
  }
  if (listed != FILE_COUNT || rc != ZUL_KEST_ERROR_EOF) ++failures;

  /* Clean up through the library as well. */
  for (int f = 0; f < FILE_COUNT; ++f) {
    if (zulKestFileDeleteSync(NULL, paths[f]) != ZUL_KEST_OK) ++failures;
  }
  failures += example_remove_temp_dir();

  zulKestTerminate();
  printf("%s\n", failures == 0 ? "all reads matched" : "FAILED");
  return failures == 0 ? 0 : 1;
}
