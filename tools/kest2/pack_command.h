// "kest2 pack": the command-line side of the archive writer, which parses
// its own options (they follow the command name) and reports the result.
#ifndef KEST2_TOOLS_KEST2_PACK_COMMAND_H_
#define KEST2_TOOLS_KEST2_PACK_COMMAND_H_

#include "kest2/commands.h"

namespace kest2_cli {

extern const char kPackHelp[];

// Returns 0 when the archive was written, 1 when packing failed (one error
// line naming the path), 2 on bad usage.
int Pack(const Arguments& arguments);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_PACK_COMMAND_H_
