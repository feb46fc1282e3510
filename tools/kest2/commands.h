// The subcommands of the kest2 program.  Each runs inside an initialised
// library session, does its work through the library, writes its output to
// standard output and its errors to standard error as one line naming the
// path and the library's error, and returns the process exit code: 0 on
// success, 1 when an operation failed.
#ifndef KEST2_TOOLS_KEST2_COMMANDS_H_
#define KEST2_TOOLS_KEST2_COMMANDS_H_

#include <string>
#include <vector>

namespace kest2_cli {

using Arguments = std::vector<std::string>;

struct Command {
  const char* name;
  const char* usage;     // the arguments, for the usage line
  const char* summary;   // one line for the command list
  const char* help;      // what --help prints below the usage line
  size_t minArguments;
  size_t maxArguments;   // SIZE_MAX: any number
  int (*run)(const Arguments& arguments);
};

// The commands, in the order the help lists them; ends with a null name.
const Command* Commands();
const Command* FindCommand(const std::string& name);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_COMMANDS_H_
