// Path records and the path normaliser: see stored_path.h.
//
// Normal form: separators are '/', no empty, "." or removable ".."
// components, no trailing separator.  An absolute path starts with '/' and
// its ".." stop at the root; a relative path keeps the ".." it cannot
// resolve as a prefix ("../../a") that later ".." never remove.  The empty
// result is "/" (absolute) or "." (relative).  Two spellings of one file
// thus give the same bytes, and the same digest.
//
// The normaliser makes one pass over the source, writing as it goes and
// cutting the output back in place for "..".  Each character written needs
// room for itself and one more byte, checked at the time of writing, so a
// source whose output overflows before a later ".." shortens it fails even
// when its final form would fit.

#include "core/stored_path.h"

#include <cstring>

#include "core/globals.h"
#include "kest2.h"

namespace kest2 {
namespace {

// Bytes of text that hold the pointer of a pointer-type path.  The flag byte
// (the last of text) must lie beyond them.
constexpr uint32_t kPointerBytes = 8;
static_assert(sizeof(const char*) <= kPointerBytes, "pointer must fit the pointer slot");

inline bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// A component that ends here: at a separator or at the end of the source.
inline bool EndsComponent(char c) { return c == 0 || IsSeparator(c); }

// The destination of zulKestPathNormalize with its room rule.
// Invariant: length < size once anything has been written.
class Output {
 public:
  Output(char* dst, uint64_t size) : m_dst(dst), m_size(size), m_length(0) {}

  // Appends c when there is room for it and for one more byte.
  bool Put(char c) {
    if (m_size - m_length < 2) return false;
    m_dst[m_length++] = c;
    return true;
  }

  uint64_t length() const { return m_length; }

  // Drops the last component: cuts back to the last slash, or to the start
  // when there is none.  REQUIRES: the output holds a component written
  // after the kept prefix (the leading ".." of a relative path), so the
  // cut never reaches into that prefix.
  void DropLastComponent() {
    while (m_length > 0 && m_dst[m_length - 1] != '/') --m_length;
    if (m_length > 0) --m_length;  // the slash itself
  }

  void Terminate() { m_dst[m_length] = 0; }

 private:
  char* const m_dst;
  const uint64_t m_size;
  uint64_t m_length;
};

inline char* FlagByte(StoredPath* path, uint32_t pathMax) { return path->text + (pathMax - 1); }

}  // namespace

void ClearPath(StoredPath* path) {
  std::memset(path->digest, 0, sizeof(path->digest));
  path->text[0] = 0;
  *FlagByte(path, PathMax()) = 0;
}

bool SetPath(StoredPath* path, const char* source, bool reportErrors) {
  ClearPath(path);
  const uint32_t pathMax = PathMax();
  const uint64_t length = zulKestPathNormalize(path->text, source, pathMax);
  if (length > 0 && length < pathMax) {
    PathDigest(path->text, static_cast<size_t>(length), path->digest);
    return true;
  }

  // A failed normalisation writes no further than text[pathMax - 2]; keep the
  // record visibly empty all the same.
  path->text[0] = 0;
  *FlagByte(path, pathMax) = 0;
  if (reportErrors) {
    // The raw length picks only the wording of the message.
    const size_t rawLength = source != nullptr ? std::strlen(source) : 0;
    if (rawLength > pathMax) {
      zulKestPrintf("Path too long (length %d, pathMax %d): %s\n", static_cast<int>(rawLength),
                    static_cast<int>(pathMax), source);
    } else {
      zulKestPrintf("Invalid path: %s\n", source != nullptr ? source : "(null)");
    }
  }
  return false;
}

bool SetPathPointer(StoredPath* path, const char* source) {
  ClearPath(path);
  const uint32_t pathMax = PathMax();
  if (pathMax <= kPointerBytes) {
    zulKestPrintf(
        "Can't use pointer-type paths because g_KestParams.pathMax (%d) <= ptr size (%d)\n",
        static_cast<int>(pathMax), static_cast<int>(kPointerBytes));
    return false;
  }
  // A null string cannot be read back as a path; refuse it.
  if (source == nullptr) return false;

  std::memcpy(path->text, &source, sizeof(source));
  *FlagByte(path, pathMax) = 1;
  PathDigest(source, std::strlen(source), path->digest);
  return true;
}

void CopyStoredPath(StoredPath* to, const StoredPath* from) {
  const uint32_t pathMax = PathMax();
  std::memcpy(to->digest, from->digest, sizeof(to->digest));
  if (pathMax > kPointerBytes && *FlagByte(const_cast<StoredPath*>(from), pathMax) == 1) {
    std::memcpy(to->text, from->text, kPointerBytes);
    *FlagByte(to, pathMax) = 1;
    return;
  }
  const size_t length = std::strlen(from->text);
  std::memcpy(to->text, from->text, length + 1);
  if (pathMax > kPointerBytes) *FlagByte(to, pathMax) = 0;
}

const char* GetPath(const StoredPath* path) {
  const uint32_t pathMax = PathMax();
  if (pathMax > kPointerBytes && path->text[pathMax - 1] == 1) {
    const char* pointer;
    std::memcpy(&pointer, path->text, sizeof(pointer));
    return pointer;
  }
  return path->text;
}

}  // namespace kest2

// Normalises src into dst; see the opening note.  Returns the length of the
// result, or size + 1 (with dst[0] = NUL when size > 0) when src is null or
// empty or the result does not fit.
extern "C" uint64_t zulKestPathNormalize(char* dst, const char* src, uint64_t size) {
  using kest2::EndsComponent;
  using kest2::IsSeparator;

  const uint64_t failure = size + 1;
  if (dst == nullptr) return failure;
  if (size > 0) dst[0] = 0;
  if (src == nullptr || src[0] == 0) return failure;

  // Leading "./" groups say nothing: ./a, .//a and ././a are all a.
  const char* p = src;
  while (p[0] == '.' && IsSeparator(p[1])) {
    ++p;
    while (IsSeparator(*p)) ++p;
  }

  const bool absolute = IsSeparator(*p);
  kest2::Output out(dst, size);
  uint64_t keptPrefix = 0;  // output before this is never cut: the leading ".." run
  bool fits = true;

  while (fits) {
    while (IsSeparator(*p)) ++p;  // a run of separators is one boundary
    if (*p == 0) break;

    if (p[0] == '.' && EndsComponent(p[1])) {  // "."
      p += 1;
      continue;
    }
    if (p[0] == '.' && p[1] == '.' && EndsComponent(p[2])) {  // ".."
      p += 2;
      if (out.length() > keptPrefix) {
        out.DropLastComponent();
      } else if (!absolute) {
        // Nothing left to remove: a relative path keeps the "..".
        fits = (out.length() == 0 || out.Put('/')) && out.Put('.') && out.Put('.');
        keptPrefix = out.length();
      }
      // An absolute path stays at its root.
      continue;
    }

    // A name: one slash first, except at the very start of a relative path.
    fits = !(absolute || out.length() > 0) || out.Put('/');
    while (fits && !EndsComponent(*p)) fits = out.Put(*p++);
  }

  if (fits && out.length() == 0) fits = out.Put(absolute ? '/' : '.');
  if (!fits) {
    if (size > 0) dst[0] = 0;
    return failure;
  }
  out.Terminate();
  return out.length();
}
