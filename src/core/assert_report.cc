#include "core/assert_report.h"

#include "core/platform.h"
#include "kest2.h"

namespace kest2 {

void ReportAssertion(const char* file, int line, const char* expression) {
  zulKestPrintf("An assertion fired in: %s @ line: %d\n", file, line);
  zulKestPrintf("Assertion failed: %s\n", expression);
  if (DebuggerAttached()) BreakIntoDebugger();
}

}  // namespace kest2
