// "kest2 verify ARCHIVE": reads a whole archive without the library and
// reports whether it is intact, or the first damage and where it lies.
#ifndef KEST2_TOOLS_KEST2_VERIFY_COMMAND_H_
#define KEST2_TOOLS_KEST2_VERIFY_COMMAND_H_

#include "kest2/commands.h"

namespace kest2_cli {

extern const char kVerifyHelp[];

// 0 when the archive is intact (one summary line), 1 when it is damaged or
// cannot be read, 2 on bad usage.
int Verify(const Arguments& arguments);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_VERIFY_COMMAND_H_
