// Per-module trace lines.
//
// A trace line is written only when its module's bit is set in debugFlags at
// the moment of the call, so tracing can be switched at run time.  Every line
// has the same prefix: the time stamp, "kest2/" and the module tag padded to
// five columns, the calling thread's id and the function name padded to 15
// columns; then the line's own text and a newline.
#ifndef KEST2_SRC_DEBUG_TRACE_H_
#define KEST2_SRC_DEBUG_TRACE_H_

#include <cstddef>
#include <cstdint>

#include "core/globals.h"

namespace kest2 {

enum TraceModule : uint32_t {
  kTraceApi = 0x01,
  kTraceSched = 0x02,
  kTraceOp = 0x04,
  kTraceChunk = 0x08,
  kTraceIo = 0x10,
  kTraceCache = 0x20,
  kTraceZorba = 0x40,
  kTraceOvrly = 0x80,
};

// Writes a monotonic time as "seconds.microseconds", rounded up to whole
// microseconds, within size bytes: the time stamp of every trace line.
void FormatTraceTime(int64_t nanoseconds, char* buffer, size_t size);

// "api", "sched", ... for one module bit; "?" for anything else.
const char* TraceModuleTag(uint32_t module);

inline bool TraceEnabled(uint32_t module) { return (DebugFlags() & module) != 0; }

// Writes one line: prefix, the formatted text, newline.  Does not test the
// module bit; use KEST2_TRACE.
void TraceLine(uint32_t module, const char* function, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace kest2

#define KEST2_TRACE(module, function, ...)                        \
  do {                                                            \
    if (::kest2::TraceEnabled(module))                            \
      ::kest2::TraceLine((module), (function), __VA_ARGS__);      \
  } while (0)

// The entry line of an exported function: its own name, empty text.
#define KEST2_TRACE_API(function) KEST2_TRACE(::kest2::kTraceApi, (function), "%s", "")

#endif  // KEST2_SRC_DEBUG_TRACE_H_
