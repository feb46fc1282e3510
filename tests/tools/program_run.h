// Runs the kest2 program as a user would, for the tests of its commands:
// its exit status and everything it wrote to standard output and standard
// error.
#ifndef KEST2_TESTS_TOOLS_PROGRAM_RUN_H_
#define KEST2_TESTS_TOOLS_PROGRAM_RUN_H_

#include <string>
#include <vector>

namespace kest2_test {

struct ProgramRun {
  int status = -1;  // the exit status; 128 + N when signal N ended it
  std::string out;
  std::string err;
};

// Whether the tests were built with the program (KEST2_PROGRAM).
bool HaveKest2Program();

// Runs `kest2 ARGUMENTS...` with standard input closed.
ProgramRun RunKest2(const std::vector<std::string>& arguments);

}  // namespace kest2_test

#endif  // KEST2_TESTS_TOOLS_PROGRAM_RUN_H_
