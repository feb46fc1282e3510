#include "debug/trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/platform.h"
#include "debug/format.h"
#include "kest2.h"

namespace kest2 {

const char* TraceModuleTag(uint32_t module) {
  switch (module) {
    case kTraceApi: return "api";
    case kTraceSched: return "sched";
    case kTraceOp: return "op";
    case kTraceChunk: return "chunk";
    case kTraceIo: return "io";
    case kTraceCache: return "cache";
    case kTraceZorba: return "zorba";
    case kTraceOvrly: return "ovrly";
    default: return "?";
  }
}

void FormatTraceTime(int64_t nanoseconds, char* buffer, size_t size) {
  // Whole microseconds rounded up, and the seconds of that rounded value.
  const int64_t micros = (nanoseconds + 999) / 1000;
  const int64_t seconds = (nanoseconds + 999) / 1000000000;
  FormatBounded(buffer, size, "%lld.%06lld", static_cast<long long>(seconds),
                static_cast<long long>(micros - seconds * 1000000));
}

void TraceLine(uint32_t module, const char* function, const char* format, ...) {
  // The line's own text is formatted first so that the whole line reaches
  // the output sink in one call and lines from several threads interleave
  // only whole.
  char text[2048];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  char timestamp[16];
  zulKestTraceTimestamp(timestamp, sizeof(timestamp));
  // Texts that bring their own line end keep it; the others get one.
  const size_t length = std::strlen(text);
  const bool ended = length > 0 && text[length - 1] == '\n';
  zulKestPrintf("%s kest2/%-5s 0x%08llx %-15s %s%s", timestamp,
                TraceModuleTag(module),
                static_cast<unsigned long long>(CurrentThreadId()), function,
                text, ended ? "" : "\n");
}

}  // namespace kest2

extern "C" int32_t zulKestTraceTimestamp(char* buffer, size_t size) {
  kest2::FormatTraceTime(zulKestTimeToNanoseconds(zulKestTimeGetCurrent()), buffer, size);
  return 0;
}
