// `kest2 demo`: a generated data set packed, mounted under an overlay with a
// RAM cache, streamed back with deadlines and priorities and checked byte
// for byte.
#ifndef KEST2_TOOLS_KEST2_DEMO_COMMAND_H_
#define KEST2_TOOLS_KEST2_DEMO_COMMAND_H_

#include "kest2/commands.h"

namespace kest2_cli {

extern const char kDemoHelp[];
// Runs inside a library session; 0 when every byte matched.
int Demo(const Arguments& arguments);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_DEMO_COMMAND_H_
