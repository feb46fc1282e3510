// What a fuzz target prints: a broken invariant (and then it stops), and,
// only when KEST2_FUZZ_VERBOSE is set (for replaying an artifact), the
// harness's steps and the library's own text.
#ifndef KEST2_TESTS_FUZZ_FUZZ_OUTPUT_H_
#define KEST2_TESTS_FUZZ_FUZZ_OUTPUT_H_

#include <cstdarg>

namespace kest2_fuzz {

// The target's name, which starts every line it prints; each target
// defines it ("archive_fuzz").
extern const char kTargetName[];

// KEST2_FUZZ_VERBOSE, read once.
bool Verbose();

// Reports a broken invariant, with the step it broke in when there is one,
// and stops the process so that libFuzzer keeps the input.
[[noreturn]] void Fail(const char* what, const char* during = nullptr);

// One line of the harness's own steps.
void Trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The library's print hook: the text is formatted (so that its arguments
// are used) but dropped unless verbose.
int QuietPrintf(const char* format, va_list args);

}  // namespace kest2_fuzz

#endif  // KEST2_TESTS_FUZZ_FUZZ_OUTPUT_H_
