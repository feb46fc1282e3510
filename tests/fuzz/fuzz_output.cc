// What a fuzz target prints: see fuzz_output.h.

#include "fuzz_output.h"

#include <cstdio>
#include <cstdlib>

namespace kest2_fuzz {

bool Verbose() {
  static const bool verbose = std::getenv("KEST2_FUZZ_VERBOSE") != nullptr;
  return verbose;
}

void Fail(const char* what, const char* during) {
  std::fprintf(stderr, "%s: invariant broken: %s\n", kTargetName, what);
  if (during != nullptr) std::fprintf(stderr, "  during: %s\n", during);
  std::fflush(stderr);
  __builtin_trap();
}

void Trace(const char* format, ...) {
  if (!Verbose()) return;
  va_list args;
  va_start(args, format);
  std::fprintf(stderr, "%s: ", kTargetName);
  std::vfprintf(stderr, format, args);
  va_end(args);
}

int QuietPrintf(const char* format, va_list args) {
  char line[2048];
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(line, sizeof(line), format, copy);
  va_end(copy);
  if (Verbose()) std::fputs(line, stderr);
  return n;
}

}  // namespace kest2_fuzz
