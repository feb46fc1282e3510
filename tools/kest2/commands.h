// The subcommands of the kest2 program.  Each writes its output to
// standard output and its errors to standard error as one line naming the
// path and the reason, and returns the process exit code: 0 on success, 1
// when an operation failed.  The file commands run inside an initialised
// library session and do their work through the library; pack works on the
// host's files directly and parses its own options.
#ifndef KEST2_TOOLS_KEST2_COMMANDS_H_
#define KEST2_TOOLS_KEST2_COMMANDS_H_

#include <initializer_list>
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
  bool usesLibrary = true;  // run inside a library session
};

// An on/off option of a command, under one or two spellings.
struct Flag {
  const char* name;
  const char* alias;  // nullptr: none
  bool* value;        // set when the option is given
};

// Splits a command's arguments into operands and the flags it knows: "--"
// ends the options, and "-" alone is an operand.  Returns 0, or the exit
// status of the usage error it printed for an unknown option.
int ParseFlags(const char* command, const Arguments& arguments, std::initializer_list<Flag> flags,
               std::vector<std::string>* operands);

// The commands, in the order the help lists them; ends with a null name.
const Command* Commands();
const Command* FindCommand(const std::string& name);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_COMMANDS_H_
