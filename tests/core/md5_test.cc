// MD5: the RFC 1321 vectors, padding boundaries, and incremental updates
// that must agree with the one-shot digest however the input is split.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "core/md5.h"

namespace {

std::string Hex(const uint8_t digest[kest2::kMd5DigestSize]) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (size_t i = 0; i < kest2::kMd5DigestSize; ++i) {
    hex += kDigits[digest[i] >> 4];
    hex += kDigits[digest[i] & 15];
  }
  return hex;
}

std::string OneShot(const std::string& data) {
  uint8_t digest[kest2::kMd5DigestSize];
  EXPECT_EQ(kest2::PathDigest(data.data(), data.size(), digest), digest);
  return Hex(digest);
}

// Feeds the input in pieces of `step` bytes (the last may be shorter).
std::string InSteps(const std::string& data, size_t step) {
  kest2::Md5Context context;
  kest2::Md5Init(&context);
  for (size_t i = 0; i < data.size(); i += step) {
    kest2::Md5Update(&context, data.data() + i, std::min(step, data.size() - i));
  }
  uint8_t digest[kest2::kMd5DigestSize];
  kest2::Md5Final(&context, digest);
  return Hex(digest);
}

TEST(Md5Test, Rfc1321Vectors) {
  const struct {
    const char* input;
    const char* digest;
  } kCases[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"1234567890123456789012345678901234567890"
       "1234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(OneShot(c.input), c.digest) << '"' << c.input << '"';
    EXPECT_EQ(InSteps(c.input, 1), c.digest) << '"' << c.input << '"';
  }
}

TEST(Md5Test, EmptyUpdateAcceptsNullData) {
  kest2::Md5Context context;
  kest2::Md5Init(&context);
  kest2::Md5Update(&context, nullptr, 0);
  kest2::Md5Update(&context, "abc", 3);
  kest2::Md5Update(&context, nullptr, 0);
  uint8_t digest[kest2::kMd5DigestSize];
  kest2::Md5Final(&context, digest);
  EXPECT_EQ(Hex(digest), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Hex(kest2::PathDigest(nullptr, 0, digest)), "d41d8cd98f00b204e9800998ecf8427e");
}

// Lengths around the 56-byte padding limit and the 64-byte block: 55 pads
// in one block, 56..63 need a second, 64 and 65 start one.  The digests were
// produced by an independent MD5 implementation.
TEST(Md5Test, PaddingBoundaries) {
  const struct {
    size_t length;
    const char* digest;
  } kCases[] = {
      {55, "ef1772b6dff9a122358552954ad0df65"},  {56, "3b0c8ac703f828b04c6c197006d17218"},
      {63, "b06521f39153d618550606be297466d5"},  {64, "014842d480b571495a4a0363793f7367"},
      {65, "c743a45e0d2e6a95cb859adae0248435"},  {119, "8a7bd0732ed6a28ce75f6dabc90e1613"},
      {120, "5f61c0ccad4cac44c75ff505e1f1e537"}, {128, "e510683b3f5ffe4093d021808bc6ff70"},
  };
  for (const auto& c : kCases) {
    const std::string input(c.length, 'a');
    EXPECT_EQ(OneShot(input), c.digest) << c.length;
    // Byte at a time goes through the partial-block buffer only.
    EXPECT_EQ(InSteps(input, 1), c.digest) << c.length;
    EXPECT_EQ(InSteps(input, 7), c.digest) << c.length;
  }
}

TEST(Md5Test, SplitAtEveryOffsetMatchesOneShot) {
  std::string input(200, 0);
  for (size_t i = 0; i < input.size(); ++i) input[i] = static_cast<char>(i);
  const std::string expected = "fb7001d34b8e82c9b579be5005d5b0a5";
  ASSERT_EQ(OneShot(input), expected);

  for (size_t split = 0; split <= input.size(); ++split) {
    kest2::Md5Context context;
    kest2::Md5Init(&context);
    kest2::Md5Update(&context, input.data(), split);
    kest2::Md5Update(&context, input.data() + split, input.size() - split);
    uint8_t digest[kest2::kMd5DigestSize];
    kest2::Md5Final(&context, digest);
    EXPECT_EQ(Hex(digest), expected) << "split at " << split;
  }
  // Three pieces: a partial block, then a run that crosses several blocks.
  for (size_t first = 1; first < 64; first += 9) {
    for (size_t second = 0; first + second <= input.size(); second += 13) {
      kest2::Md5Context context;
      kest2::Md5Init(&context);
      kest2::Md5Update(&context, input.data(), first);
      kest2::Md5Update(&context, input.data() + first, second);
      kest2::Md5Update(&context, input.data() + first + second, input.size() - first - second);
      uint8_t digest[kest2::kMd5DigestSize];
      kest2::Md5Final(&context, digest);
      EXPECT_EQ(Hex(digest), expected) << first << "+" << second;
    }
  }
}

}  // namespace
