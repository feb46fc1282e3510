// Checking and printing names from archives: see safe_names.h.

#include "kest2/safe_names.h"

#include <cstdio>

namespace kest2_cli {
namespace {

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

CheckedName Refused(NameVerdict verdict) {
  CheckedName checked;
  checked.verdict = verdict;
  return checked;
}

// Length of the UTF-8 sequence at text[i] when it is well formed (no
// overlong form, no surrogate, nothing above U+10FFFF) and is not a C1
// control character (U+0080 to U+009F, which some terminals obey); 0
// otherwise.  text[i] is 0x80 or above.
size_t PrintableSequence(const std::string& text, size_t i) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;  // the bounds of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    if (lead == 0xC2) low = 0xA0;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char c = static_cast<unsigned char>(text[i + k]);
    if (c < (k == 1 ? low : 0x80) || c > (k == 1 ? high : 0xBF)) return 0;
  }
  return length;
}

void AppendHex(unsigned char c, std::string* out) {
  char text[8];
  std::snprintf(text, sizeof(text), "\\x%02x", c);
  *out += text;
}

}  // namespace

CheckedName CheckName(const std::string& name, bool absolutePaths) {
  if (name.empty()) return Refused(NameVerdict::kEmpty);
  for (char c : name) {
    if (c == '\0') return Refused(NameVerdict::kNul);
  }
  for (char c : name) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) return Refused(NameVerdict::kControlCharacter);
  }
  // The archive's own leading "/" stands for the target directory.
  const size_t start = absolutePaths && name[0] == '/' ? 1 : 0;
  if (start == name.size()) return Refused(NameVerdict::kNamesTarget);
  if (IsSeparator(name[start])) {
    return Refused(start == 0 ? NameVerdict::kAbsolute : NameVerdict::kEmptyComponent);
  }
  CheckedName checked;
  for (size_t begin = start; begin <= name.size();) {
    size_t end = begin;
    while (end < name.size() && !IsSeparator(name[end])) ++end;
    const std::string component = name.substr(begin, end - begin);
    if (component.empty()) return Refused(NameVerdict::kEmptyComponent);
    if (component == "..") {
      if (checked.components.empty()) return Refused(NameVerdict::kEscapes);
      checked.components.pop_back();
    } else if (component != ".") {
      checked.components.push_back(component);
    }
    begin = end + 1;
  }
  if (checked.components.empty()) return Refused(NameVerdict::kNamesTarget);
  return checked;
}

const char* VerdictWords(NameVerdict verdict) {
  switch (verdict) {
    case NameVerdict::kSafe:
      return "";
    case NameVerdict::kEmpty:
      return "it is empty";
    case NameVerdict::kNamesTarget:
      return "it names the directory it is unpacked into, not a file in it";
    case NameVerdict::kAbsolute:
      return "it is an absolute path, and the archive does not say that its names are";
    case NameVerdict::kEscapes:
      return "it climbs out of the directory it is unpacked into with '..'";
    case NameVerdict::kEmptyComponent:
      return "it has an empty component ('//', or a '/' at its end)";
    case NameVerdict::kNul:
      return "it holds a NUL byte, which no file name can";
    case NameVerdict::kControlCharacter:
      return "it holds a control character, which unpack does not put in file names";
  }
  return "";
}

std::string EscapeName(const std::string& name) {
  std::string out;
  out.reserve(name.size());
  for (size_t i = 0; i < name.size();) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (c >= 0x80) {
      const size_t length = PrintableSequence(name, i);
      if (length == 0) {
        AppendHex(c, &out);
        ++i;
      } else {
        out.append(name, i, length);
        i += length;
      }
      continue;
    }
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case 0x1B:
        out += "\\033";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          AppendHex(c, &out);
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  return out;
}

}  // namespace kest2_cli
