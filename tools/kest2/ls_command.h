// "kest2 ls": directories listed through the library, loose or inside an
// archive (mounted at its own path for the command), one level or, with
// -R, the whole tree below.
#ifndef KEST2_TOOLS_KEST2_LS_COMMAND_H_
#define KEST2_TOOLS_KEST2_LS_COMMAND_H_

#include "kest2/commands.h"

namespace kest2_cli {

extern const char kLsHelp[];

// Runs inside a library session.  0 when every directory was listed, 1
// when one could not be, 2 on bad usage.
int Ls(const Arguments& arguments);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_LS_COMMAND_H_
