// The bounded formatter against the C library's printf for the supported
// subset, truncation at every size, and the string, sort and search helpers.

#include <algorithm>
#include <cstdarg>
#include <climits>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "debug/format.h"

namespace {

using kest2::FormatBounded;

// Formats without the compiler's format checking, for deliberately odd
// formats and arguments.
std::string Unchecked(const char* format, ...) {
  char out[128];
  va_list args;
  va_start(args, format);
  kest2::VFormatBounded(out, sizeof(out), format, args);
  va_end(args);
  return out;
}

std::string Format1(const char* format, long long value) {
  char out[128];
  FormatBounded(out, sizeof(out), format, value);
  return out;
}

TEST(FormatTest, ExamplesThatMustHold) {
  char out[64];
  FormatBounded(out, sizeof(out), "%5.2s", "abc");
  EXPECT_STREQ(out, "   ab");
  FormatBounded(out, sizeof(out), "%-4d|", 7);
  EXPECT_STREQ(out, "7   |");
  EXPECT_EQ(FormatBounded(out, sizeof(out), "%f", 1.5), 5);
  EXPECT_STREQ(out, "UNSUP");
  FormatBounded(out, sizeof(out), "%08llx", 0x1234ULL);
  EXPECT_STREQ(out, "00001234");
  FormatBounded(out, sizeof(out), "%lld.%06lld", 12LL, 345679LL);
  EXPECT_STREQ(out, "12.345679");
  FormatBounded(out, sizeof(out), "%d", INT32_MIN);
  EXPECT_STREQ(out, "-2147483648");
  FormatBounded(out, sizeof(out), "%lld", LLONG_MIN);
  EXPECT_STREQ(out, "-9223372036854775808");
  EXPECT_EQ(Unchecked("%s|%5s|%-3c|", static_cast<const char*>(nullptr), "ab", 'z'),
            "(null)|   ab|z  |");
  FormatBounded(out, sizeof(out), "%p", reinterpret_cast<void*>(0xABC));
  EXPECT_STREQ(out, "0xabc");
  EXPECT_EQ(Unchecked("a%qb%%c"), "ab%c");  // unknown conversion dropped
  FormatBounded(out, sizeof(out), "%e|%g|%d", 2.0, 3.0, 4);  // floats consume their argument
  EXPECT_STREQ(out, "UNSUP|UNSUP|4");
}

TEST(FormatTest, IntegerFlagsMatchTheCLibrary) {
  const char* formats[] = {"%d",   "%5d",   "%-5d|", "%05d",  "%+d",   "% d",   "%.3d",  "%8.3d",
                           "%-8.3d|", "%08.3d", "%.0d", "%x",  "%#x",   "%#X",   "%#o",   "%o",
                           "%#08x", "%-#8x|", "%u",    "%10u",  "%+5d",  "%.0x",  "%0-6d|"};
  const long long values[] = {0, 1, -1, 7, 42, -42, 255, 65535, 123456789, -2147483647};
  for (const char* format : formats) {
    for (long long value : values) {
      const int narrow = static_cast<int>(value);
      char expected[128];
      std::snprintf(expected, sizeof(expected), format, narrow);
      char actual[128];
      FormatBounded(actual, sizeof(actual), format, narrow);
      EXPECT_STREQ(actual, expected) << "format " << format << " value " << narrow;
    }
  }
  // 64-bit forms.
  const char* wide[] = {"%lld", "%llx", "%#llX", "%20lld", "%-20lld|", "%llu", "%ld", "%.12llx"};
  for (const char* format : wide) {
    for (long long value : {0LL, -1LL, LLONG_MAX, LLONG_MIN, 0x123456789ALL}) {
      char expected[128];
      std::snprintf(expected, sizeof(expected), format, value);
      EXPECT_EQ(Format1(format, value), expected) << format;
    }
  }
}

TEST(FormatTest, StarWidthAndPrecision) {
  char out[64];
  FormatBounded(out, sizeof(out), "%*d|%-*d|%*d|", 4, 1, 3, 2, -3, 3);
  EXPECT_STREQ(out, "   1|2  |3  |");
  FormatBounded(out, sizeof(out), "%.*s|%.*s|", 2, "abcdef", -1, "abc");
  EXPECT_STREQ(out, "ab|abc|");
}

TEST(FormatTest, TruncatesAtEverySizeAndCountsTheWholeText) {
  const char* full = "value=12345 name=abcdefghij end";
  const int length = static_cast<int>(std::strlen(full));
  for (size_t size = 0; size <= std::strlen(full) + 2; ++size) {
    std::vector<char> out(size + 4, '#');
    EXPECT_EQ(FormatBounded(size == 0 ? nullptr : out.data(), size, "value=%d name=%s end", 12345,
                            "abcdefghij"),
              length);
    if (size == 0) continue;
    const size_t kept = std::min(size - 1, std::strlen(full));
    EXPECT_EQ(std::string(out.data()), std::string(full, kept)) << size;
    EXPECT_EQ(out[size], '#') << "wrote past the buffer at size " << size;
  }
}

TEST(FormatTest, AppendNeedsTwoBytesAndAlwaysTerminates) {
  char out[8] = "abcde";
  kest2::AppendFormat(out, sizeof(out), "%d", 123);
  EXPECT_STREQ(out, "abcde12");
  char full[8] = "abcdefg";  // only the NUL byte left: nothing appended
  kest2::AppendFormat(full, sizeof(full), "%s", "xyz");
  EXPECT_STREQ(full, "abcdefg");
  char unterminated[4] = {'a', 'b', 'c', 'd'};
  kest2::AppendFormat(unterminated, sizeof(unterminated), "x");
  EXPECT_EQ(unterminated[3], 0);
}

TEST(StringHelpersTest, CompareCopyAppend) {
  EXPECT_EQ(kest2::StringCompare("abc", "abc"), 0);
  EXPECT_LT(kest2::StringCompare("ab", "abc"), 0);
  EXPECT_LT(kest2::StringCompare("\x80", "a"), 0);  // signed bytes
  EXPECT_EQ(kest2::StringCompareN("abcX", "abcY", 3), 0);
  EXPECT_GT(kest2::StringCompareN("abcY", "abcX", 4), 0);
  char out[6];
  EXPECT_EQ(kest2::StringCopy(out, "abcdefgh", sizeof(out)), 8u);
  EXPECT_STREQ(out, "abcde");
  char joined[8] = "ab";
  EXPECT_EQ(kest2::StringAppend(joined, "cdefghij", sizeof(joined)), 10u);
  EXPECT_STREQ(joined, "abcdefg");
  char overlap[] = "0123456789";
  kest2::MemoryMove(overlap + 2, overlap, 5);
  EXPECT_STREQ(overlap, "0101234789");
  EXPECT_LT(kest2::MemoryCompare("\x01", "\xff", 1), 0);  // unsigned bytes
}

int CompareInts(const void* a, const void* b) {
  const int x = *static_cast<const int*>(a);
  const int y = *static_cast<const int*>(b);
  return (x > y) - (x < y);
}

struct Record {
  uint8_t key[16];
  uint32_t payload;
};

int CompareRecords(const void* a, const void* b) {
  return std::memcmp(static_cast<const Record*>(a)->key, static_cast<const Record*>(b)->key, 16);
}

TEST(SortTest, RandomArraysMatchStdSort) {
  const unsigned seed = std::random_device{}();
  std::mt19937 rng(seed);
  for (int round = 0; round < 200; ++round) {
    std::vector<int> values(rng() % 300);
    for (int& v : values) v = static_cast<int>(rng() % 50) - 25;  // many duplicates
    std::vector<int> expected = values;
    std::sort(expected.begin(), expected.end());
    kest2::SortElements(values.data(), values.size(), sizeof(int), CompareInts);
    ASSERT_EQ(values, expected) << "seed " << seed;
  }
  std::vector<Record> records(1000);
  for (uint32_t i = 0; i < records.size(); ++i) {
    for (uint8_t& b : records[i].key) b = static_cast<uint8_t>(rng());
    records[i].payload = i;
  }
  kest2::SortElements(records.data(), records.size(), sizeof(Record), CompareRecords);
  for (size_t i = 1; i < records.size(); ++i)
    ASSERT_LE(CompareRecords(&records[i - 1], &records[i]), 0) << "seed " << seed;
}

TEST(SortTest, BinarySearchFindsEveryElementAndMissesGaps) {
  std::vector<int> values;
  for (int i = 0; i < 101; ++i) values.push_back(i * 2);
  for (int i = 0; i < 101; ++i) {
    const int key = i * 2;
    const void* hit = kest2::BinarySearch(&key, values.data(), values.size(), sizeof(int), CompareInts);
    ASSERT_EQ(hit, &values[i]);
    const int gap = key + 1;
    EXPECT_EQ(kest2::BinarySearch(&gap, values.data(), values.size(), sizeof(int), CompareInts), nullptr);
  }
  const int below = -1;
  EXPECT_EQ(kest2::BinarySearch(&below, values.data(), values.size(), sizeof(int), CompareInts), nullptr);
  EXPECT_EQ(kest2::BinarySearch(&below, values.data(), 0, sizeof(int), CompareInts), nullptr);
}

}  // namespace
