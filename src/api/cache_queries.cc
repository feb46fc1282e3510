// The cache queries: flush a file range out of the RAM caches, or ask
// whether one holds it.  Both send a range record down the filter table,
// which stops at the first filter that answers; the answer is that filter's
// index (or ZUL_KEST_ERROR_BAD_INDEX when no filter took it).

#include "io/filter_chain.h"
#include "debug/trace.h"
#include "kest2.h"

using namespace kest2;

namespace {

constexpr int64_t kToTheEnd = INT64_MAX;

int32_t SendRange(int32_t event, const char* path, int64_t offset, int64_t length) {
  ZulKestIOFilterRange range{path, offset, length};
  return DispatchFilterEvent(event, &range);
}

}  // namespace

extern "C" void zulKestCacheFlushSync(void) { KEST2_TRACE_API("zulKestCacheFlushSync"); }

extern "C" void zulKestCacheFlushFileRangeSync(const char* path, int64_t offset, int64_t length) {
  KEST2_TRACE_API("zulKestCacheFlushFileRangeSync");
  SendRange(ZUL_KEST_IOFILTER_EVENT_CACHE_FLUSH, path, offset, length);
}

extern "C" void zulKestCacheFlushFileSync(const char* path) {
  KEST2_TRACE_API("zulKestCacheFlushFileSync");
  zulKestCacheFlushFileRangeSync(path, 0, kToTheEnd);
}

extern "C" int32_t zulKestCacheContainsFileRangeSync(const char* path, int64_t offset,
                                                     int64_t length) {
  KEST2_TRACE_API("zulKestCacheContainsFileRangeSync");
  return SendRange(ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS, path, offset, length);
}

extern "C" int32_t zulKestCacheContainsFileSync(const char* path, int64_t* pSize) {
  KEST2_TRACE_API("zulKestCacheContainsFileSync");
  if (pSize != nullptr) *pSize = 0;
  const int64_t size = zulKestFileGetSizeSync(nullptr, path);
  if (size < 0) return static_cast<int32_t>(size);
  const int32_t result = zulKestCacheContainsFileRangeSync(path, 0, size);
  if (result >= 0 && pSize != nullptr) *pSize = size;
  return result;
}
