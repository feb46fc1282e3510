// What the library's result codes mean, in words for the person at the
// terminal.  Every error line of the program reads
//
//   kest2 COMMAND: PATH: WORDS (ZUL_KEST_ERROR_NAME)
//
// so that a person reads what happened and a script can still match the
// code.  zulKestDebugDumpError gives the code's name and is left as it is.
#ifndef KEST2_TOOLS_KEST2_ERROR_WORDS_H_
#define KEST2_TOOLS_KEST2_ERROR_WORDS_H_

#include <cstdint>
#include <string>

namespace kest2_cli {

// "no such file or directory" for ZUL_KEST_ERROR_BAD_PATH; "unknown error"
// for a code the table does not hold.
const char* ErrorWords(int64_t code);

// "ZUL_KEST_ERROR_BAD_PATH" for a result code.
std::string ErrorName(int64_t code);

// "no such file or directory (ZUL_KEST_ERROR_BAD_PATH)".
std::string DescribeError(int64_t code);

// Prints "kest2 COMMAND: PATH: WORDS (CODE)" to standard error and returns
// 1, the exit status of a failed operation.
int Fail(const char* command, const std::string& path, int64_t code);

// Prints "kest2 COMMAND: MESSAGE" and the pointer to the command's help to
// standard error and returns 2, the exit status of bad usage.
int UsageError(const char* command, const std::string& message);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_ERROR_WORDS_H_
