// The library's single output sink.  Every message, warning, trace line and
// report goes through zulKestVprintf, which hands it to the application's
// pVprintf hook when one is set and to standard output otherwise.  No lock of
// its own: lines interleave only as the sink allows.

#include <cstdio>

#include "core/globals.h"
#include "kest2.h"

extern "C" int zulKestVprintf(const char* format, va_list args) {
  ZulKestVprintfHook hook = kest2::VprintfHook();
  if (hook != nullptr) return hook(format, args);
  int written = std::vprintf(format, args);
  std::fflush(stdout);
  return written;
}

extern "C" int32_t zulKestPrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int written = zulKestVprintf(format, args);
  va_end(args);
  return written;
}
