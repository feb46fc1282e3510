// The bounded formatter against the C library's printf for the supported
// subset, truncation at every size, and the string, sort and search helpers.

#include "common/random.h"
#include "debug/format.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using kest2::FormatBounded;

// FormatBounded without the compiler's format checking, for deliberately
// odd formats and sizes.
int BoundedUnchecked(char* out, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = kest2::VFormatBounded(out, size, format, args);
  va_end(args);
  return length;
}

// The same into a buffer large enough for every case here.
std::string Unchecked(const char* format, ...) {
  char out[256];
  va_list args;
  va_start(args, format);
  kest2::VFormatBounded(out, sizeof(out), format, args);
  va_end(args);
  return out;
}

TEST(FormatTest, ExamplesThatMustHold) {
  EXPECT_EQ(Unchecked("%5.2s", "abc"), "   ab");
  EXPECT_EQ(Unchecked("%-4d|", 7), "7   |");
  EXPECT_EQ(Unchecked("%08llx", 0x1234ULL), "00001234");
  EXPECT_EQ(Unchecked("%lld.%06lld", 12LL, 345679LL), "12.345679");
  EXPECT_EQ(Unchecked("%d", INT32_MIN), "-2147483648");
  EXPECT_EQ(Unchecked("%lld", LLONG_MIN), "-9223372036854775808");
  EXPECT_EQ(Unchecked("%s|%5s|%-3c|", static_cast<const char*>(nullptr), "ab", 'z'),
            "(null)|   ab|z  |");
  EXPECT_EQ(Unchecked("%p|%p", reinterpret_cast<void*>(0xABC), static_cast<void*>(nullptr)),
            "0xabc|0");
  EXPECT_EQ(Unchecked("a%qb%%c%hd"), "ab%cd");  // unknown conversions dropped, no argument taken
  EXPECT_EQ(Unchecked("%lllx", 0x123456789ULL), "123456789");  // extra "l"s are skipped
  // Floating conversions consume a double each and print only the marker.
  EXPECT_EQ(Unchecked("%f|%e|%.1g|%7A|%-6E|%d", 1.5, 2.0, 3.0, 4.0, 5.0, 6),
            "UNSUP|UNSUP|UNSUP|  UNSUP|UNSUP |6");
  // Past five integers and eight doubles the arguments share the stack, so
  // an unconsumed double would shift the last integer.
  EXPECT_EQ(Unchecked("%d%d%d%d%d%f%f%f%f%f%f%f%f%f|%d", 1, 2, 3, 4, 5, 1.0, 2.0, 3.0, 4.0, 5.0,
                      6.0, 7.0, 8.0, 9.0, 6),
            "12345UNSUPUNSUPUNSUPUNSUPUNSUPUNSUPUNSUPUNSUPUNSUP|6");
  EXPECT_EQ(Unchecked("%#o|%#.0o|%#x", 0, 0, 0), "0||0");  // alternate forms only for non-zero
  EXPECT_EQ(Unchecked("abc%"), "abc");                     // format ending inside a conversion
  char out[16];
  EXPECT_EQ(FormatBounded(out, sizeof(out), "%s", "0123456789012345678901234567890123456789"), 40);
  EXPECT_STREQ(out, "012345678901234");
  EXPECT_EQ(FormatBounded(nullptr, 0, "%d%s", 12345, "ab"), 7);
}

// Formats with both formatters and reports the first difference.
template <typename... Args>
::testing::AssertionResult SameAsCLibrary(const std::string& format, Args... args) {
  char expected[256];
  std::snprintf(expected, sizeof(expected), format.c_str(), args...);
  const std::string actual = Unchecked(format.c_str(), args...);
  if (actual == expected) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "format \"" << format << "\": got \"" << actual
                                       << "\", expected \"" << expected << "\"";
}

// The value after the "*" arguments the format asks for: a negative width
// (left-justified, width 5) and a precision of 4.
template <typename T>
::testing::AssertionResult SameWithStars(const std::string& format, bool width, bool precision,
                                         T value) {
  if (width && precision) return SameAsCLibrary(format, -5, 4, value);
  if (width) return SameAsCLibrary(format, -5, value);
  if (precision) return SameAsCLibrary(format, 4, value);
  return SameAsCLibrary(format, value);
}

// Every set of flags with several widths and precisions and every integer
// conversion, at 32 and 64 bits, must give what the C library gives.
TEST(FormatTest, IntegerConversionsMatchTheCLibrary) {
  const long long values[] = {
      0, 1, -1, 8, 42, -42, 255, 0x7fffffff, -0x7fffffff - 1, 0x123456789ALL, LLONG_MAX, LLONG_MIN};
  int checked = 0;
  for (int flags = 0; flags < 32; ++flags) {
    std::string flagText;
    for (int bit = 0; bit < 5; ++bit)
      if (flags & (1 << bit)) flagText += "-+ #0"[bit];
    for (std::string width : {"", "1", "7", "*"}) {
      for (std::string precision : {"", ".", ".0", ".3", ".*"}) {
        // "#" with "o" prints a zero digit for zero in the C library; this
        // formatter gives the alternate form to non-zero values only.
        const bool noDigitsForZero = precision == "." || precision == ".0";
        for (std::string length : {"", "l", "ll"}) {
          for (char conversion : {'d', 'i', 'u', 'o', 'x', 'X'}) {
            const std::string format =
                "[%" + flagText + width + precision + length + conversion + "]";
            for (long long value : values) {
              const int narrow = static_cast<int>(value);  // low 32 bits
              const bool zero = length.empty() ? narrow == 0 : value == 0;
              if ((flags & 8) && conversion == 'o' && zero && noDigitsForZero) continue;
              const bool starWidth = width == "*";
              const bool starPrecision = precision == ".*";
              if (length.empty()) {
                ASSERT_TRUE(SameWithStars(format, starWidth, starPrecision, narrow));
              } else {
                ASSERT_TRUE(SameWithStars(format, starWidth, starPrecision, value));
              }
              ++checked;
            }
          }
        }
      }
    }
  }
  EXPECT_GT(checked, 100000);
}

TEST(FormatTest, TextConversionsMatchTheCLibrary) {
  for (const char* format :
       {"[%s]", "[%8s]", "[%-8s]", "[%.2s]", "[%8.3s]", "[%-8.0s]", "[%.20s]", "[%%]"})
    EXPECT_TRUE(SameAsCLibrary(format, "hello"));
  for (const char* format : {"[%c]", "[%3c]", "[%-3c]"}) EXPECT_TRUE(SameAsCLibrary(format, 'q'));
  EXPECT_TRUE(SameAsCLibrary("[%*s|%-*c]", -7, "ab", 3, 'q'));
  // Left undefined by C: "0" pads text with spaces, precision leaves "c" alone.
  EXPECT_EQ(Unchecked("[%05s|%03c|%.0c]", "ab", 'q', 'r'), "[   ab|  q|r]");
  // Precision stops the read: the text need not be terminated after it.
  const char unterminated[3] = {'x', 'y', 'z'};
  EXPECT_EQ(Unchecked("%.3s|%.*s", unterminated, 2, unterminated), "xyz|xy");
  EXPECT_EQ(Unchecked("%-*s|%.*s", -4, "a", -1, "abc"), "a   |abc");
}

// Huge widths and precisions are counted, not written one by one, and the
// length saturates instead of overflowing.
TEST(FormatTest, HugeWidthAndPrecisionStayBoundedAndFast) {
  char out[16];
  EXPECT_EQ(BoundedUnchecked(out, sizeof(out), "%.*d", INT_MAX, -1), INT_MAX);
  EXPECT_STREQ(out, "-00000000000000");
  EXPECT_EQ(BoundedUnchecked(out, sizeof(out), "%*d%*d", INT_MAX, 1, INT_MAX, 2), INT_MAX);
  EXPECT_STREQ(out, "               ");
  EXPECT_EQ(BoundedUnchecked(out, sizeof(out), "%*d|", INT_MIN, 7), INT_MAX);  // left, width 2^31
  EXPECT_STREQ(out, "7              ");
  EXPECT_EQ(Unchecked("%99999999999999999999d|", 1).size(), 255u);  // saturated digits
  EXPECT_EQ(FormatBounded(out, sizeof(out), "%-1000000s|", "a"), 1000001);
}

// Each size from 0 to past the full length: same text and NUL as the C
// library, same length, and nothing written past the given size.
TEST(FormatTest, TruncatesAtEverySizeLikeTheCLibrary) {
  const char* format = "v=%-6d|%#08x|%+.4lld|%5.3s|%c|%p end";
  void* pointer = reinterpret_cast<void*>(0xbeef);
  char full[128];
  const int length =
      std::snprintf(full, sizeof(full), format, 42, 0x1f, -7LL, "abcdef", 'k', pointer);
  ASSERT_STREQ(full, "v=42    |0x00001f|-0007|  abc|k|0xbeef end");
  for (size_t size = 0; size <= static_cast<size_t>(length) + 2; ++size) {
    char expected[128], actual[128];
    std::memset(expected, '#', sizeof(expected));
    std::memset(actual, '#', sizeof(actual));
    std::snprintf(expected, size, format, 42, 0x1f, -7LL, "abcdef", 'k', pointer);
    EXPECT_EQ(FormatBounded(size == 0 ? nullptr : actual, size, format, 42, 0x1f, -7LL, "abcdef",
                            'k', pointer),
              length);
    EXPECT_EQ(std::memcmp(actual, expected, sizeof(actual)), 0) << "size " << size;
  }
}

TEST(FormatTest, AppendNeedsTwoBytesAndAlwaysTerminates) {
  for (size_t size = 4; size <= 12; ++size) {
    char out[16];
    std::memset(out, '#', sizeof(out));
    std::memcpy(out, "abc", 4);
    kest2::AppendFormat(out, size, "%d", 12345);
    EXPECT_EQ(std::string(out), std::string("abc12345").substr(0, size - 1)) << size;
    EXPECT_EQ(out[size], '#') << size;
  }
  char unterminated[4] = {'a', 'b', 'c', 'd'};  // the last byte becomes the NUL
  kest2::AppendFormat(unterminated, sizeof(unterminated), "x");
  EXPECT_STREQ(unterminated, "abc");
  char untouched = '#';
  kest2::AppendFormat(&untouched, 0, "x");
  EXPECT_EQ(untouched, '#');
}

TEST(StringHelpersTest, CompareCopyAppendAtEverySize) {
  EXPECT_EQ(kest2::StringCompare("abc", "abc"), 0);
  EXPECT_LT(kest2::StringCompare("ab", "abc"), 0);
  EXPECT_GT(kest2::StringCompare("abd", "abc"), 0);
  EXPECT_LT(kest2::StringCompare("\x80", "a"), 0);  // signed characters
  EXPECT_EQ(kest2::StringCompareN("abcX", "abcY", 3), 0);
  EXPECT_GT(kest2::StringCompareN("abcY", "abcX", 4), 0);
  EXPECT_EQ(kest2::StringCompareN("ab\0X", "ab\0Y", 4), 0);  // stops at the NUL
  EXPECT_EQ(kest2::StringCompareN("a", "b", 0), 0);
  EXPECT_EQ(kest2::StringLength(""), 0u);
  for (size_t size = 0; size <= 12; ++size) {
    char copy[16], joined[16];
    std::memset(copy, '#', sizeof(copy));
    std::memset(joined, '#', sizeof(joined));
    std::memcpy(joined, "ab", 3);
    EXPECT_EQ(kest2::StringCopy(copy, "abcdefgh", size), 8u);
    if (size > 0) {
      EXPECT_EQ(std::string(copy), std::string("abcdefgh").substr(0, size - 1));
    }
    EXPECT_EQ(copy[size], '#');
    // Below 3 bytes the text "ab" is not terminated within size.
    EXPECT_EQ(kest2::StringAppend(joined, "cdefghij", size), size < 3 ? size + 8 : 10u);
    if (size >= 3) {
      EXPECT_EQ(std::string(joined), std::string("abcdefghij").substr(0, size - 1));
    } else {
      EXPECT_STREQ(joined, "ab");
    }
    EXPECT_EQ(joined[std::max<size_t>(size, 3)], '#');
  }
}

TEST(StringHelpersTest, MemoryHelpers) {
  EXPECT_LT(kest2::MemoryCompare("\x01", "\xff", 1), 0);  // unsigned bytes
  EXPECT_EQ(kest2::MemoryCompare("ab", "ac", 1), 0);
  EXPECT_EQ(kest2::MemoryCompare(nullptr, nullptr, 0), 0);
  for (int shift : {-3, -1, 1, 3}) {  // overlap in both directions
    char buffer[] = "0123456789";
    char expected[] = "0123456789";
    std::memmove(expected + 3 + shift, expected + 3, 4);
    EXPECT_EQ(kest2::MemoryMove(buffer + 3 + shift, buffer + 3, 4), buffer + 3 + shift);
    EXPECT_STREQ(buffer, expected) << shift;
  }
  char filled[6] = "abcde";
  kest2::MemoryFill(filled + 1, 'z', 3);
  kest2::MemoryCopy(filled, "Q", 1);
  EXPECT_STREQ(filled, "Qzzze");
}

int CompareInts(const void* a, const void* b) {
  const int x = *static_cast<const int*>(a);
  const int y = *static_cast<const int*>(b);
  return (x > y) - (x < y);
}

// Three-byte elements: the sort must move whole odd-sized elements.
struct Triple {
  uint8_t bytes[3];
  bool operator<(const Triple& other) const { return std::memcmp(bytes, other.bytes, 3) < 0; }
  bool operator==(const Triple& other) const { return std::memcmp(bytes, other.bytes, 3) == 0; }
};

int CompareTriples(const void* a, const void* b) { return std::memcmp(a, b, 3); }

TEST(SortTest, RandomArraysMatchStdSort) {
  const unsigned seed = kest2_test::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  kest2_common::Random rng(seed);
  static_assert(sizeof(Triple) == 3, "packed element");
  for (int round = 0; round < 300; ++round) {
    std::vector<int> values(rng() % 200);
    for (int& v : values) v = static_cast<int>(rng() % 50) - 25;  // many duplicates
    if (round % 3 == 1) std::sort(values.begin(), values.end());
    if (round % 3 == 2) std::sort(values.rbegin(), values.rend());
    std::vector<int> expected = values;
    std::sort(expected.begin(), expected.end());
    kest2::SortElements(values.data(), values.size(), sizeof(int), CompareInts);
    ASSERT_EQ(values, expected) << "round " << round;

    std::vector<Triple> triples(rng() % 100);
    for (Triple& t : triples)
      for (uint8_t& b : t.bytes) b = static_cast<uint8_t>(rng() % 4);
    std::vector<Triple> sortedTriples = triples;
    std::sort(sortedTriples.begin(), sortedTriples.end());
    kest2::SortElements(triples.data(), triples.size(), sizeof(Triple), CompareTriples);
    ASSERT_TRUE(triples == sortedTriples) << "round " << round;
  }
}

TEST(SortTest, BinarySearchHitsEveryElementAndMissesEveryGap) {
  for (size_t count : {0u, 1u, 2u, 101u}) {
    std::vector<int> values;
    for (size_t i = 0; i < count; ++i) values.push_back(static_cast<int>(i) * 2);
    for (size_t i = 0; i < count; ++i) {
      const int key = values[i];
      EXPECT_EQ(kest2::BinarySearch(&key, values.data(), count, sizeof(int), CompareInts),
                &values[i]);
    }
    // Below the first, between each pair and above the last.
    for (int gap = -1; gap <= static_cast<int>(count) * 2 + 1; gap += 2)
      EXPECT_EQ(kest2::BinarySearch(&gap, values.data(), count, sizeof(int), CompareInts), nullptr)
          << "count " << count << " key " << gap;
  }
}

}  // namespace
