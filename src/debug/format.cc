// The library's bounded text formatter and string helpers: see format.h.
//
// The formatter writes through a small sink that stores characters while
// there is room (keeping one byte for the NUL) and counts every character,
// so the result is both the truncated text and the full length.

#include "debug/format.h"

#include <cstdint>
#include <cstring>

namespace kest2 {
namespace {

constexpr const char* kLowerDigits = "0123456789abcdef";
constexpr const char* kUpperDigits = "0123456789ABCDEF";

class Sink {
 public:
  Sink(char* buffer, size_t size) : m_buffer(buffer), m_size(size), m_count(0) {}

  void Put(char c) {
    if (m_size != 0 && m_count < m_size - 1) m_buffer[m_count] = c;
    ++m_count;
  }
  void Repeat(char c, int n) {
    for (int i = 0; i < n; ++i) Put(c);
  }
  void Write(const char* s, int n) {
    for (int i = 0; i < n; ++i) Put(s[i]);
  }
  void Terminate() {
    if (m_size == 0) return;
    m_buffer[m_count < m_size - 1 ? m_count : m_size - 1] = 0;
  }
  size_t count() const { return m_count; }

 private:
  char* m_buffer;
  size_t m_size;
  size_t m_count;
};

struct Spec {
  bool left = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  bool zero = false;
  int width = 0;
  int precision = -1;  // -1: none
};

// Writes text with width padding (the "0" flag never applies to text).
void PadText(Sink* sink, const Spec& spec, const char* text, int length) {
  const int padding = spec.width > length ? spec.width - length : 0;
  if (!spec.left) sink->Repeat(' ', padding);
  sink->Write(text, length);
  if (spec.left) sink->Repeat(' ', padding);
}

// Formats an integer: magnitude in the given base, with sign or prefix.
void PutInteger(Sink* sink, const Spec& spec, uint64_t magnitude, bool negative,
                bool isSigned, unsigned base, bool upper) {
  char digits[24];
  int count = 0;
  const char* set = upper ? kUpperDigits : kLowerDigits;
  // Precision 0 with value 0 prints no digits at all.
  if (!(magnitude == 0 && spec.precision == 0)) {
    uint64_t v = magnitude;
    do {
      digits[count++] = set[v % base];
      v /= base;
    } while (v != 0);
  }
  char prefix[2];
  int prefixLength = 0;
  if (isSigned) {
    if (negative) {
      prefix[prefixLength++] = '-';
    } else if (spec.plus) {
      prefix[prefixLength++] = '+';
    } else if (spec.space) {
      prefix[prefixLength++] = ' ';
    }
  } else if (spec.alternate && magnitude != 0 && base == 16) {
    prefix[prefixLength++] = '0';
    prefix[prefixLength++] = upper ? 'X' : 'x';
  }
  int zeros = spec.precision > count ? spec.precision - count : 0;
  if (spec.alternate && base == 8 && magnitude != 0 && zeros == 0) zeros = 1;
  int length = prefixLength + zeros + count;
  if (spec.zero && !spec.left && spec.precision < 0 && spec.width > length) {
    zeros += spec.width - length;
    length = spec.width;
  }
  const int padding = spec.width > length ? spec.width - length : 0;
  if (!spec.left) sink->Repeat(' ', padding);
  sink->Write(prefix, prefixLength);
  sink->Repeat('0', zeros);
  for (int i = count - 1; i >= 0; --i) sink->Put(digits[i]);
  if (spec.left) sink->Repeat(' ', padding);
}

int FormatInto(Sink* sink, const char* format, va_list args) {
  const char* f = format;
  while (*f != 0) {
    if (*f != '%') {
      sink->Put(*f++);
      continue;
    }
    ++f;
    Spec spec;
    for (;; ++f) {
      if (*f == '-') {
        spec.left = true;
      } else if (*f == '+') {
        spec.plus = true;
      } else if (*f == ' ') {
        spec.space = true;
      } else if (*f == '#') {
        spec.alternate = true;
      } else if (*f == '0') {
        spec.zero = true;
      } else {
        break;
      }
    }
    if (*f == '*') {
      int width = va_arg(args, int);
      if (width < 0) {
        spec.left = true;
        width = width == INT32_MIN ? INT32_MAX : -width;
      }
      spec.width = width;
      ++f;
    } else {
      while (*f >= '0' && *f <= '9') {
        if (spec.width < 100000) spec.width = spec.width * 10 + (*f - '0');
        ++f;
      }
    }
    if (*f == '.') {
      ++f;
      if (*f == '*') {
        const int precision = va_arg(args, int);
        spec.precision = precision < 0 ? -1 : precision;
        ++f;
      } else {
        spec.precision = 0;
        while (*f >= '0' && *f <= '9') {
          if (spec.precision < 100000) spec.precision = spec.precision * 10 + (*f - '0');
          ++f;
        }
      }
    }
    int longs = 0;
    while (*f == 'l') {
      if (longs < 2) ++longs;
      ++f;
    }
    const char conversion = *f;
    if (conversion == 0) break;
    ++f;
    switch (conversion) {
      case 'd':
      case 'i': {
        const int64_t value = longs != 0 ? static_cast<int64_t>(va_arg(args, long long))
                                         : static_cast<int64_t>(va_arg(args, int));
        const bool negative = value < 0;
        const uint64_t magnitude =
            negative ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
        PutInteger(sink, spec, magnitude, negative, true, 10, false);
        break;
      }
      case 'u':
      case 'o':
      case 'x':
      case 'X': {
        const uint64_t value = longs != 0
                                   ? static_cast<uint64_t>(va_arg(args, unsigned long long))
                                   : static_cast<uint64_t>(va_arg(args, unsigned int));
        const unsigned base = conversion == 'u' ? 10 : conversion == 'o' ? 8 : 16;
        PutInteger(sink, spec, value, false, false, base, conversion == 'X');
        break;
      }
      case 'p': {
        const uint64_t value = reinterpret_cast<uintptr_t>(va_arg(args, void*));
        spec.alternate = true;
        PutInteger(sink, spec, value, false, false, 16, false);
        break;
      }
      case 'c': {
        const char c = static_cast<char>(va_arg(args, int));
        PadText(sink, spec, &c, 1);
        break;
      }
      case 's': {
        const char* s = va_arg(args, const char*);
        if (s == nullptr) s = "(null)";
        int length = 0;
        while (s[length] != 0 && (spec.precision < 0 || length < spec.precision)) ++length;
        PadText(sink, spec, s, length);
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
        (void)va_arg(args, double);
        PadText(sink, spec, "UNSUP", 5);
        break;
      default:
        break;  // unknown conversions are dropped
    }
  }
  sink->Terminate();
  return static_cast<int>(sink->count());
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
  va_list copy;
  va_copy(copy, args);
  const int length = FormatInto(&sink, format, copy);
  va_end(copy);
  return length;
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
  if (used == size) return used + StringLength(src);
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
