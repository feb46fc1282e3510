// Exported path comparisons: byte by byte on signed characters, like
// strcmp / strncmp (no normalisation; compare normalised paths).

#include "debug/format.h"
#include "debug/trace.h"
#include "kest2.h"

extern "C" int32_t zulKestPathcmp(const char* a, const char* b) {
  KEST2_TRACE_API("zulKestPathcmp");
  return kest2::StringCompare(a, b);
}

extern "C" int32_t zulKestPathncmp(const char* a, const char* b, size_t length) {
  KEST2_TRACE_API("zulKestPathncmp");
  return kest2::StringCompareN(a, b, length);
}
