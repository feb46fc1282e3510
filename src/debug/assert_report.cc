#include "debug/assert_report.h"

#include <signal.h>

#include <cstdio>
#include <cstring>

#include "kest2.h"

namespace kest2 {
namespace {

// True when a tracer (a debugger) is attached to the process.
bool DebuggerAttached() {
  FILE* status = std::fopen("/proc/self/status", "r");
  if (status == nullptr) return false;
  char line[256];
  bool attached = false;
  while (std::fgets(line, sizeof(line), status) != nullptr) {
    if (std::strncmp(line, "TracerPid:", 10) == 0) {
      int pid = 0;
      attached = std::sscanf(line + 10, "%d", &pid) == 1 && pid != 0;
      break;
    }
  }
  std::fclose(status);
  return attached;
}

}  // namespace

void ReportAssertion(const char* file, int line, const char* expression) {
  zulKestPrintf("An assertion fired in: %s @ line: %d\n", file, line);
  zulKestPrintf("Assertion failed: %s\n", expression);
  if (DebuggerAttached()) raise(SIGTRAP);
}

}  // namespace kest2
