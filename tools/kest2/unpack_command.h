// "kest2 unpack ARCHIVE DIR": every file of an archive written below DIR.
// The manifest's names decide where files go, and an archive is input from
// anyone, so each name is checked (safe_names.h) and each file is created
// through TargetDirectory, which never leaves DIR.  File data is read
// through the library from the archive mounted at its own path; a name the
// library's lookups cannot reach as stored (they normalise "a/./b" to
// "a/b", a different name with a different digest) is read from the
// archive directly, by the digest of the name exactly as stored.
#ifndef KEST2_TOOLS_KEST2_UNPACK_COMMAND_H_
#define KEST2_TOOLS_KEST2_UNPACK_COMMAND_H_

#include "kest2/commands.h"

namespace kest2_cli {

extern const char kUnpackHelp[];

// Runs inside a library session.  0 when every file was written; 1 when a
// name was refused, a file failed or the archive could not be read; 2 on
// bad usage.
int Unpack(const Arguments& arguments);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_UNPACK_COMMAND_H_
