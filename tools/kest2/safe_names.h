// Names from an archive's manifest are input from whoever made the archive:
// unpack writes files where they say, verify reports the ones that would
// take it elsewhere, and every command prints them.  CheckName decides
// whether a name stays inside the directory it is unpacked into, and
// EscapeName makes any name safe to print on a terminal.
#ifndef KEST2_TOOLS_KEST2_SAFE_NAMES_H_
#define KEST2_TOOLS_KEST2_SAFE_NAMES_H_

#include <string>
#include <vector>

namespace kest2_cli {

enum class NameVerdict {
  kSafe,
  kEmpty,             // "" (an empty line in the manifest)
  kNamesTarget,       // nothing left once "." and ".." are resolved
  kAbsolute,          // begins with a separator; the archive's names are relative
  kEscapes,           // a ".." climbs above the target directory
  kEmptyComponent,    // "a//b", or a separator at the end
  kNul,               // a NUL byte, which no file name can hold
  kControlCharacter,  // a byte below 0x20, or 0x7F
};

struct CheckedName {
  NameVerdict verdict = NameVerdict::kSafe;
  // Where a safe name is written, as components below the target
  // directory: "." dropped, ".." resolved.  Empty unless kSafe.
  std::vector<std::string> components;
};

// Checks a manifest name.  Both "/" and "\" separate components, as they do
// in the library's own lookups, so that a name made on a system that writes
// "\" is judged as a reader through the library would see it.  With
// absolutePaths (the archive's flag) names begin with one "/" that means
// the target directory; without it a leading separator is refused.
CheckedName CheckName(const std::string& name, bool absolutePaths);

// Why a name was refused, to follow the name in a message: "it climbs out
// of the directory it is unpacked into with '..'".  Empty for kSafe.
const char* VerdictWords(NameVerdict verdict);

// The name with every byte that could steer a terminal written out: "\n",
// "\r", "\t", "\033" (escape), "\\" (the backslash itself, so that the
// escapes cannot be forged), other bytes below 0x20, 0x7F, C1 control
// characters and bytes that are not UTF-8 as "\xNN".  Ordinary names,
// UTF-8 included, come back unchanged.
std::string EscapeName(const std::string& name);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_SAFE_NAMES_H_
