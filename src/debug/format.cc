// The library's bounded text formatter and string helpers: see format.h.
//
// The formatter writes through a small sink that stores characters while
// there is room (keeping one byte for the NUL) and counts every character,
// so one pass gives both the truncated text and the full length.  Lengths
// are counted in size_t and padding past the end of the buffer is only
// counted, not looped over, so a huge width or precision ("%*d" with
// INT_MAX) costs no time and cannot overflow; the returned length saturates
// at INT_MAX.
//
// Deliberate differences from the C library's printf: "%p" is plain
// alternate-form hexadecimal ("0", not "(nil)", for a null pointer); "#"
// with "o" adds its leading zero only to a non-zero value, so "%#.0o" of 0
// prints nothing; floating conversions print "UNSUP".  Length modifiers
// other than "l" are unknown conversion characters and are dropped with
// nothing consumed, so "%zu" prints a plain "u".

#include "debug/format.h"

#include <climits>
#include <cstdint>
#include <cstring>

namespace kest2 {
namespace {

constexpr const char* kLowerDigits = "0123456789abcdef";
constexpr const char* kUpperDigits = "0123456789ABCDEF";

size_t SaturatingAdd(size_t a, size_t b) { return b > SIZE_MAX - a ? SIZE_MAX : a + b; }

// Destination of the formatter.  Stores at most size - 1 characters and
// counts all of them.
class Sink {
 public:
  Sink(char* buffer, size_t size)
      : m_buffer(buffer), m_size(size), m_room(size == 0 ? 0 : size - 1), m_count(0) {}

  void Put(char c) {
    if (m_count < m_room) m_buffer[m_count] = c;
    m_count = SaturatingAdd(m_count, 1);
  }
  void Repeat(char c, size_t n) {
    const size_t stored = Storable(n);
    if (stored != 0) std::memset(m_buffer + m_count, c, stored);
    m_count = SaturatingAdd(m_count, n);
  }
  void Write(const char* s, size_t n) {
    const size_t stored = Storable(n);
    if (stored != 0) std::memcpy(m_buffer + m_count, s, stored);
    m_count = SaturatingAdd(m_count, n);
  }
  void Terminate() {
    if (m_size != 0) m_buffer[m_count < m_room ? m_count : m_room] = 0;
  }
  int Length() const {
    return m_count > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(m_count);
  }

 private:
  // How many of the next n characters still fit.
  size_t Storable(size_t n) const {
    if (m_count >= m_room) return 0;
    return n < m_room - m_count ? n : m_room - m_count;
  }

  char* const m_buffer;
  const size_t m_size;
  const size_t m_room;  // characters that may be stored: size - 1, or 0
  size_t m_count;       // characters produced so far, stored or not
};

// One conversion's flags, width and precision.
struct Directive {
  bool left = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  bool zero = false;
  size_t width = 0;
  int precision = -1;  // -1: none
};

// Reads a run of decimal digits, saturating at INT_MAX.
int ReadNumber(const char** f) {
  int value = 0;
  while (**f >= '0' && **f <= '9') {
    const int digit = **f - '0';
    value = value > (INT_MAX - digit) / 10 ? INT_MAX : value * 10 + digit;
    ++*f;
  }
  return value;
}

// Writes text with width padding; the "0" flag does not apply to text.
void PutText(Sink* sink, const Directive& directive, const char* text, size_t length) {
  const size_t padding = directive.width > length ? directive.width - length : 0;
  if (!directive.left) sink->Repeat(' ', padding);
  sink->Write(text, length);
  if (directive.left) sink->Repeat(' ', padding);
}

// Writes an integer given as sign and magnitude, laid out as
// [spaces] [sign or 0x prefix] [zeros] digits [spaces].
void PutInteger(Sink* sink, const Directive& directive, uint64_t magnitude, bool negative, bool isSigned,
                unsigned base, bool upper) {
  char digits[24];  // 22 octal digits cover 64 bits
  size_t count = 0;
  const char* set = upper ? kUpperDigits : kLowerDigits;
  // Precision 0 with value 0 prints no digits at all.
  if (!(magnitude == 0 && directive.precision == 0)) {
    uint64_t v = magnitude;
    do {
      digits[count++] = set[v % base];
      v /= base;
    } while (v != 0);
  }
  char prefix[2];
  size_t prefixLength = 0;
  if (isSigned) {
    if (negative) {
      prefix[prefixLength++] = '-';
    } else if (directive.plus) {
      prefix[prefixLength++] = '+';
    } else if (directive.space) {
      prefix[prefixLength++] = ' ';
    }
  } else if (directive.alternate && magnitude != 0 && base == 16) {
    prefix[prefixLength++] = '0';
    prefix[prefixLength++] = upper ? 'X' : 'x';
  }
  const size_t precision = directive.precision < 0 ? 0 : static_cast<size_t>(directive.precision);
  size_t zeros = precision > count ? precision - count : 0;
  // Octal alternate form: the first digit must be a zero.  Extra precision
  // zeros already provide it.
  if (directive.alternate && base == 8 && magnitude != 0 && zeros == 0) zeros = 1;
  size_t length = prefixLength + zeros + count;
  // Zero padding fills the width between prefix and digits, unless the
  // field is left-justified or a precision fixes the digit count.
  if (directive.zero && !directive.left && directive.precision < 0 && directive.width > length) {
    zeros += directive.width - length;
    length = directive.width;
  }
  const size_t padding = directive.width > length ? directive.width - length : 0;
  if (!directive.left) sink->Repeat(' ', padding);
  sink->Write(prefix, prefixLength);
  sink->Repeat('0', zeros);
  for (size_t i = count; i > 0; --i) sink->Put(digits[i - 1]);
  if (directive.left) sink->Repeat(' ', padding);
}

void FormatInto(Sink* sink, const char* format, va_list args) {
  const char* f = format;
  while (*f != 0) {
    if (*f != '%') {
      sink->Put(*f++);
      continue;
    }
    ++f;
    Directive directive;
    for (;; ++f) {
      if (*f == '-') {
        directive.left = true;
      } else if (*f == '+') {
        directive.plus = true;
      } else if (*f == ' ') {
        directive.space = true;
      } else if (*f == '#') {
        directive.alternate = true;
      } else if (*f == '0') {
        directive.zero = true;
      } else {
        break;
      }
    }
    if (*f == '*') {
      const int width = va_arg(args, int);
      if (width < 0) {
        // A negative width argument is a "-" flag and its absolute value;
        // computed unsigned so INT_MIN does not overflow.
        directive.left = true;
        directive.width = static_cast<size_t>(0u - static_cast<unsigned>(width));
      } else {
        directive.width = static_cast<size_t>(width);
      }
      ++f;
    } else {
      directive.width = static_cast<size_t>(ReadNumber(&f));
    }
    if (*f == '.') {
      ++f;
      if (*f == '*') {
        const int precision = va_arg(args, int);
        directive.precision = precision < 0 ? -1 : precision;
        ++f;
      } else {
        directive.precision = ReadNumber(&f);  // "." alone means precision 0
      }
    }
    // "l" and "ll" both mean a 64-bit argument; further "l"s are skipped.
    int longs = 0;
    while (*f == 'l') {
      if (longs < 2) ++longs;
      ++f;
    }
    const char conversion = *f;
    if (conversion == 0) break;  // the format ends inside a conversion
    ++f;
    switch (conversion) {
      case 'd':
      case 'i': {
        const int64_t value = longs != 0 ? static_cast<int64_t>(va_arg(args, long long))
                                         : static_cast<int64_t>(va_arg(args, int));
        const bool negative = value < 0;
        // Negated as unsigned: INT64_MIN has no positive int64_t.
        const uint64_t magnitude =
            negative ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
        PutInteger(sink, directive, magnitude, negative, true, 10, false);
        break;
      }
      case 'u':
      case 'o':
      case 'x':
      case 'X': {
        const uint64_t value = longs != 0 ? static_cast<uint64_t>(va_arg(args, unsigned long long))
                                          : static_cast<uint64_t>(va_arg(args, unsigned int));
        const unsigned base = conversion == 'u' ? 10 : conversion == 'o' ? 8 : 16;
        PutInteger(sink, directive, value, false, false, base, conversion == 'X');
        break;
      }
      case 'p': {
        const uint64_t value = reinterpret_cast<uintptr_t>(va_arg(args, void*));
        directive.alternate = true;
        PutInteger(sink, directive, value, false, false, 16, false);
        break;
      }
      case 'c': {
        const char c = static_cast<char>(va_arg(args, int));
        PutText(sink, directive, &c, 1);
        break;
      }
      case 's': {
        const char* s = va_arg(args, const char*);
        if (s == nullptr) s = "(null)";
        // Never reads past the precision: the text need not be terminated
        // within it.
        size_t length = 0;
        if (directive.precision < 0) {
          length = StringLength(s);
        } else {
          const size_t limit = static_cast<size_t>(directive.precision);
          while (length < limit && s[length] != 0) ++length;
        }
        PutText(sink, directive, s, length);
        break;
      }
      case '%':
        sink->Put('%');
        break;
      case 'a':
      case 'A':
      case 'e':
      case 'E':
      case 'f':
      case 'F':
      case 'g':
      case 'G':
        // The formatter has no floating point; the argument is consumed so
        // the following conversions stay aligned with theirs.  The precision
        // would be a digit count, so it does not cut the marker.
        (void)va_arg(args, double);
        PutText(sink, directive, "UNSUP", 5);
        break;
      default:
        break;  // unknown conversions are dropped and take no argument
    }
  }
}

void SwapBytes(unsigned char* a, unsigned char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const unsigned char t = a[i];
    a[i] = b[i];
    b[i] = t;
  }
}

// Restores the max-heap property below root within count elements.
void SiftDown(unsigned char* base, size_t root, size_t count, size_t size,
              CompareFunction compare) {
  for (;;) {
    size_t largest = root;
    const size_t left = 2 * root + 1;
    const size_t right = left + 1;
    if (left < count && compare(base + left * size, base + largest * size) > 0) largest = left;
    if (right < count && compare(base + right * size, base + largest * size) > 0) largest = right;
    if (largest == root) return;
    SwapBytes(base + root * size, base + largest * size, size);
    root = largest;
  }
}

}  // namespace

int VFormatBounded(char* buffer, size_t size, const char* format, va_list args) {
  Sink sink(buffer, size);
  // Formats from a copy so the caller's list is left as it was given.
  va_list copy;
  va_copy(copy, args);
  FormatInto(&sink, format, copy);
  va_end(copy);
  sink.Terminate();
  return sink.Length();
}

int FormatBounded(char* buffer, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = VFormatBounded(buffer, size, format, args);
  va_end(args);
  return length;
}

void AppendFormat(char* buffer, size_t size, const char* format, ...) {
  if (size == 0) return;
  buffer[size - 1] = 0;
  const size_t used = StringLength(buffer);
  if (size - used >= 2) {
    va_list args;
    va_start(args, format);
    VFormatBounded(buffer + used, size - used, format, args);
    va_end(args);
  }
  buffer[size - 1] = 0;
}

int StringCompare(const char* a, const char* b) {
  while (*a != 0 && *a == *b) {
    ++a;
    ++b;
  }
  return static_cast<signed char>(*a) - static_cast<signed char>(*b);
}

int StringCompareN(const char* a, const char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (a[i] != b[i] || a[i] == 0)
      return static_cast<signed char>(a[i]) - static_cast<signed char>(b[i]);
  }
  return 0;
}

size_t StringLength(const char* s) {
  size_t n = 0;
  while (s[n] != 0) ++n;
  return n;
}

size_t StringCopy(char* dst, const char* src, size_t size) {
  const size_t length = StringLength(src);
  if (size != 0) {
    const size_t n = length < size - 1 ? length : size - 1;
    std::memcpy(dst, src, n);
    dst[n] = 0;
  }
  return length;
}

size_t StringAppend(char* dst, const char* src, size_t size) {
  size_t used = 0;
  while (used < size && dst[used] != 0) ++used;
  // Unterminated within size: nothing is written (StringCopy with size 0).
  return used + StringCopy(dst + used, src, size - used);
}

int MemoryCompare(const void* a, const void* b, size_t n) {
  return n == 0 ? 0 : std::memcmp(a, b, n);
}

void* MemoryCopy(void* dst, const void* src, size_t n) {
  return n == 0 ? dst : std::memcpy(dst, src, n);
}

void* MemoryMove(void* dst, const void* src, size_t n) {
  return n == 0 ? dst : std::memmove(dst, src, n);
}

void* MemoryFill(void* dst, int value, size_t n) {
  return n == 0 ? dst : std::memset(dst, value, n);
}

void SortElements(void* base, size_t count, size_t elementSize, CompareFunction compare) {
  if (count < 2 || elementSize == 0) return;
  unsigned char* bytes = static_cast<unsigned char*>(base);
  for (size_t i = count / 2; i-- > 0;) SiftDown(bytes, i, count, elementSize, compare);
  for (size_t end = count - 1; end > 0; --end) {
    SwapBytes(bytes, bytes + end * elementSize, elementSize);
    SiftDown(bytes, 0, end, elementSize, compare);
  }
}

const void* BinarySearch(const void* key, const void* base, size_t count, size_t elementSize,
                         CompareFunction compare) {
  const unsigned char* bytes = static_cast<const unsigned char*>(base);
  size_t low = 0;
  size_t high = count;
  while (low < high) {
    const size_t middle = low + (high - low) / 2;
    const void* element = bytes + middle * elementSize;
    const int order = compare(element, key);
    if (order == 0) return element;
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return nullptr;
}

}  // namespace kest2
