/* custom_filter: an I/O filter of your own.
 *
 * A filter is a function and a context pointer installed at an index of the
 * filter chain (0 to 255, lower indices see every operation first).  This
 * one passes everything on unchanged and only counts the events it
 * receives, which shows when the library calls a filter: once at
 * installation, once per new operation's chunk tree, for cache queries,
 * when asked to describe itself, and once at removal.  Exits 0 when the
 * counts are as expected. */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "example_support.h"
#include "kest2.h"

#define FILTER_INDEX 0

/* The filter's context.  The library only hands the pointer back; it must
 * stay valid while the filter is installed.  The filter may run on several
 * threads at once (every thread that issues requests), hence atomics. */
typedef struct CountingFilter {
  const char* name;
  atomic_int initialize;
  atomic_int terminate;
  atomic_int chunkTrees;
  atomic_int cacheQueries;
  atomic_int descriptions;
} CountingFilter;

static int32_t counting_filter(void* pFilterContext, int32_t event, void* pArgument) {
  CountingFilter* filter = (CountingFilter*)pFilterContext;
  switch (event) {
    case ZUL_KEST_IOFILTER_EVENT_INITIALIZE:
      /* Any result other than 0 or EVENT_NOT_HANDLED refuses installation. */
      atomic_fetch_add(&filter->initialize, 1);
      return ZUL_KEST_OK;
    case ZUL_KEST_IOFILTER_EVENT_TERMINATE:
      /* The slot is already free: no new operation will reach us. */
      atomic_fetch_add(&filter->terminate, 1);
      return ZUL_KEST_OK;
    case ZUL_KEST_IOFILTER_EVENT_FILTER_CHUNK:
      /* pArgument points at the 16-bit id of the root of a new operation's
       * chunk tree.  Leaving it unchanged passes the whole tree on to the
       * filters after us and then to the file system. */
      (void)pArgument;
      atomic_fetch_add(&filter->chunkTrees, 1);
      return ZUL_KEST_OK;
    case ZUL_KEST_IOFILTER_EVENT_GET_DESCRIPTION:
      /* Used in the library's warnings about this filter: at most 255
       * characters into a 256-byte buffer, which may be null. */
      atomic_fetch_add(&filter->descriptions, 1);
      if (pArgument == NULL) return ZUL_KEST_ERROR_BAD_PTR;
      snprintf((char*)pArgument, ZUL_KEST_IOFILTER_DESCRIPTION_SIZE, "%s, %d trees seen", filter->name,
               atomic_load(&filter->chunkTrees));
      return ZUL_KEST_OK;
    case ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS:
    case ZUL_KEST_IOFILTER_EVENT_CACHE_FLUSH: {
      /* Not a cache: anything but 0 passes the question on down the chain. */
      const ZulKestIOFilterRange* range = (const ZulKestIOFilterRange*)pArgument;
      (void)range; /* range->path, range->offset, range->length */
      atomic_fetch_add(&filter->cacheQueries, 1);
      return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
    }
    default:
      /* Events added in later versions: say so, never fail them. */
      return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
  }
}

int main(void) {
  if (example_make_temp_dir("filter") == NULL) return 1;
  /* 32 operations, 8 file handles, 2 directory handles, 512 chunks. */
  if (example_start_library(NULL, 32, 8, 2, 512) != ZUL_KEST_OK) return 1;
  int failures = 0;

  static CountingFilter filter = {"counting filter", 0, 0, 0, 0, 0};
  int32_t rc = zulKestIOFilterAdd(FILTER_INDEX, counting_filter, &filter);
  printf("installed at index %d: %s\n", FILTER_INDEX, zulKestDebugDumpError(rc, NULL, 0));
  if (rc != ZUL_KEST_OK) return 1;

  /* Seven requests, each one operation whose chunk tree the filter sees. */
  const char* path = example_path("notes.txt");
  const char text[] = "filters see every operation first";
  char back[sizeof(text)] = {0};
  ZulKestFH fh = 0;
  ZulKestStat stat;
  int requests = 0;
  failures += zulKestFileWriteSync(NULL, path, text, (int64_t)strlen(text), 0) != (int64_t)strlen(text);
  ++requests;
  failures += zulKestFHOpenSync(NULL, &fh, path, NULL) != ZUL_KEST_OK;
  ++requests;
  failures += zulKestFHReadSync(NULL, fh, back, (int64_t)sizeof(back)) != (int64_t)strlen(text);
  ++requests;
  failures += zulKestFHCloseSync(NULL, fh) != ZUL_KEST_OK;
  ++requests;
  failures += zulKestStatSync(NULL, path, &stat) != ZUL_KEST_OK;
  ++requests;
  failures += strcmp(back, text) != 0;
  printf("read back \"%s\" (%lld bytes by stat)\n", back, (long long)stat.fileSize);

  /* Cache queries go down the chain as events; with no cache installed no
   * filter answers, and the query reports ZUL_KEST_ERROR_BAD_INDEX. */
  rc = zulKestCacheContainsFileRangeSync(path, 0, 1);
  printf("cache contains query: %s\n", zulKestDebugDumpError(rc, NULL, 0));
  failures += rc != ZUL_KEST_ERROR_BAD_INDEX;

  /* The chain can be inspected: the function and context at an index. */
  ZulKestIOFilterCallback function = NULL;
  void* context = NULL;
  char description[ZUL_KEST_IOFILTER_DESCRIPTION_SIZE] = "";
  if (zulKestIOFilterGetInfo(FILTER_INDEX, &function, &context) == ZUL_KEST_OK && function != NULL) {
    function(context, ZUL_KEST_IOFILTER_EVENT_GET_DESCRIPTION, description);
  }
  printf("index %d holds: %s\n", FILTER_INDEX, description);

  failures += zulKestFileDeleteSync(NULL, path) != ZUL_KEST_OK;
  ++requests;
  failures += example_remove_temp_dir();
  ++requests;

  /* Removal clears the slot, then sends TERMINATE. */
  failures += zulKestIOFilterRemove(FILTER_INDEX) != ZUL_KEST_OK;
  printf("events: %d initialize, %d chunk trees for %d requests, %d cache queries, %d terminate\n",
         atomic_load(&filter.initialize), atomic_load(&filter.chunkTrees), requests,
         atomic_load(&filter.cacheQueries), atomic_load(&filter.terminate));
  failures += atomic_load(&filter.initialize) != 1 || atomic_load(&filter.terminate) != 1;
  failures += atomic_load(&filter.chunkTrees) != requests || atomic_load(&filter.cacheQueries) != 1;

  zulKestTerminate();
  printf("%s\n", failures == 0 ? "filter events as expected" : "FAILED");
  return failures == 0 ? 0 : 1;
}
