// The library's report of a failed internal assertion: where it fired and
// what failed, then a break into the debugger when one is attached.  The
// process goes on otherwise; callers leave the state they were about to
// damage untouched.
#ifndef KEST2_SRC_CORE_ASSERT_REPORT_H_
#define KEST2_SRC_CORE_ASSERT_REPORT_H_

namespace kest2 {

void ReportAssertion(const char* file, int line, const char* expression);

}  // namespace kest2

#endif  // KEST2_SRC_CORE_ASSERT_REPORT_H_
