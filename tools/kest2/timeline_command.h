// "kest2 timeline": a trace written by `kest2 --timeline FILE` (or by an
// application through include/kest2_timeline.h) drawn as an SVG picture, or
// summed up on standard output.
#ifndef KEST2_TOOLS_KEST2_TIMELINE_COMMAND_H_
#define KEST2_TOOLS_KEST2_TIMELINE_COMMAND_H_

#include "kest2/commands.h"

namespace kest2_cli {

extern const char kTimelineHelp[];

// Returns 0 when the trace was read (and the picture written), 1 when the
// trace cannot be read or is no trace, or the picture cannot be written (one
// error line naming the path), 2 on bad usage.
int TimelineCommand(const Arguments& arguments);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_TIMELINE_COMMAND_H_
