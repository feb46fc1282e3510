// Internal helpers of the time base; the exported time and date functions
// are declared in kest2.h.
#ifndef KEST2_SRC_CORE_TIME_DATE_H_
#define KEST2_SRC_CORE_TIME_DATE_H_

#include <cstddef>
#include <cstdint>

namespace kest2 {

// Writes a monotonic time as "seconds.microseconds", rounded up to whole
// microseconds, within size bytes.
void FormatTraceTime(int64_t nanoseconds, char* buffer, size_t size);

}  // namespace kest2

#endif  // KEST2_SRC_CORE_TIME_DATE_H_
