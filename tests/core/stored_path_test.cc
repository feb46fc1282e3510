// Path normalisation and path records: the normal form, the room rule that
// applies while the output is written, record boundaries at pathMax, pointer
// paths, the error messages, and a randomized comparison with a reference
// normaliser.

#include "core/stored_path.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/random.h"
#include "core/globals.h"
#include "core/md5.h"
#include "kest2.h"
#include "test_support.h"

namespace {

constexpr char kUntouched = 0x7f;
constexpr uint64_t kBufferSize = 256;

struct Normalized {
  uint64_t result;
  std::string text;  // dst as a C string
  bool wroteBeyondSize;
};

// Normalises into a buffer of which only `size` bytes may be written.
Normalized Normalize(const char* source, uint64_t size) {
  char buffer[kBufferSize];
  std::memset(buffer, kUntouched, sizeof(buffer));
  Normalized n;
  n.result = zulKestPathNormalize(buffer, source, size);
  n.wroteBeyondSize = false;
  for (uint64_t i = size; i < kBufferSize; ++i) n.wroteBeyondSize |= buffer[i] != kUntouched;
  n.text = size > 0 ? std::string(buffer, strnlen(buffer, size)) : std::string();
  return n;
}

// ---------------------------------------------------------------------------
// zulKestPathNormalize

TEST(PathNormalizeTest, NormalForms) {
  const struct {
    const char* source;
    const char* expected;
  } kCases[] = {
      // Roots, dots and separators alone.
      {"/", "/"},
      {"//", "/"},
      {"\\", "/"},
      {".", "."},
      {"./", "."},
      {"/.", "/"},
      {"/..", "/"},
      {"..", ".."},
      {"../", ".."},
      {"../..", "../.."},
      // Separators, "." and trailing separators.
      {"a/./b", "a/b"},
      {"/a//b/./c/", "/a/b/c"},
      {"a\\", "a"},
      {"\\a\\b\\..\\c", "/a/c"},
      {"x/./", "x"},
      // Leading dot-slash groups.
      {"./a", "a"},
      {".//a", "a"},
      {"././a", "a"},
      {".\\a", "a"},
      {"./../a", "../a"},
      {"./..", ".."},
      // ".." in absolute paths stops at the root.
      {"/../x", "/x"},
      {"/a/b/../../../c", "/c"},
      {"/a/./../b", "/b"},
      {"/a/b/c/../../d", "/a/d"},
      // ".." in relative paths: removes a name, or is kept as a prefix.
      {"a/..", "."},
      {"a//..//b", "b"},
      {"a/b/../../..", ".."},
      {"a/../../b", "../b"},
      {"../../a", "../../a"},
      {"../a/..", ".."},
      {"../a/../..", "../.."},
      {"a/./../..", ".."},
      // Names that only look like dots, and other characters, are kept.
      {"..x", "..x"},
      {"x/..y", "x/..y"},
      {".x", ".x"},
      {"...", "..."},
      {".../", "..."},
      {"a/.../b", "a/.../b"},
      {"/a/.x/..y/..", "/a/.x"},
      {"a:b", "a:b"},
      {"A/b/C", "A/b/C"},
  };
  for (const auto& c : kCases) {
    const Normalized n = Normalize(c.source, 64);
    EXPECT_EQ(n.text, c.expected) << "source " << c.source;
    EXPECT_EQ(n.result, std::strlen(c.expected)) << "source " << c.source;
  }
}

TEST(PathNormalizeTest, NullOrEmptySourceFails) {
  for (const char* source : {static_cast<const char*>(nullptr), ""}) {
    const Normalized n = Normalize(source, 16);
    EXPECT_EQ(n.result, 17u);
    EXPECT_EQ(n.text, "");  // NUL written at dst[0]
    EXPECT_FALSE(n.wroteBeyondSize);
  }
  // With size 0 nothing at all may be written.
  const Normalized n = Normalize("", 0);
  EXPECT_EQ(n.result, 1u);
  EXPECT_FALSE(n.wroteBeyondSize);
}

// Each character needs room for itself and one more byte at the moment it is
// written, before any later ".." shortens the output.
TEST(PathNormalizeTest, RoomRule) {
  const struct {
    const char* source;
    uint64_t size;
    const char* expected;  // nullptr: fails
  } kCases[] = {
      {"/abc", 4, nullptr},
      {"/ab", 4, "/ab"},
      {"/abc/../d", 4, nullptr},
      {"/abc/../d", 5, "/d"},
      {"ab/../c", 2, nullptr},
      {"a/../b", 2, "b"},
      {"/", 1, nullptr},
      {"/", 2, "/"},
      {".", 1, nullptr},
      {".", 2, "."},
      {"a/..", 2, "."},
      {"a", 0, nullptr},
      {"..", 2, nullptr},
      {"..", 3, ".."},
      {"../..", 5, nullptr},
      {"../..", 6, "../.."},
      {"//////a", 3, "/a"},  // collapsed separators take no room
      {"./././a", 2, "a"},
  };
  for (const auto& c : kCases) {
    const Normalized n = Normalize(c.source, c.size);
    EXPECT_FALSE(n.wroteBeyondSize) << c.source << " size " << c.size;
    if (c.expected == nullptr) {
      EXPECT_EQ(n.result, c.size + 1) << c.source << " size " << c.size;
      EXPECT_EQ(n.text, "") << c.source << " size " << c.size;
    } else {
      EXPECT_EQ(n.result, std::strlen(c.expected)) << c.source << " size " << c.size;
      EXPECT_EQ(n.text, c.expected) << c.source << " size " << c.size;
    }
  }
}

// A simple reference: split into components, resolve them on a stack and
// note the longest output at any moment (which the room rule measures).
struct Reference {
  std::string text;
  size_t peakLength;
};

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

Reference ReferenceNormalize(const std::string& source) {
  size_t i = 0;
  while (i + 1 < source.size() && source[i] == '.' && IsSeparator(source[i + 1])) {
    ++i;
    while (i < source.size() && IsSeparator(source[i])) ++i;
  }
  const bool absolute = i < source.size() && IsSeparator(source[i]);

  std::vector<std::string> components;
  std::string current;
  for (; i <= source.size(); ++i) {
    if (i == source.size() || IsSeparator(source[i])) {
      if (!current.empty()) components.push_back(current);
      current.clear();
    } else {
      current += source[i];
    }
  }

  std::vector<std::string> stack;
  size_t keptDotDots = 0;
  size_t peak = 0;
  auto rendered = [&] {
    std::string out;
    for (size_t k = 0; k < stack.size(); ++k) {
      if (absolute || k > 0) out += '/';
      out += stack[k];
    }
    return out;
  };
  for (const std::string& c : components) {
    if (c == ".") continue;
    if (c == "..") {
      if (stack.size() > keptDotDots) {
        stack.pop_back();
      } else if (!absolute) {
        stack.push_back("..");
        ++keptDotDots;
      }
    } else {
      stack.push_back(c);
    }
    peak = std::max(peak, rendered().size());
  }
  Reference ref{rendered(), 0};
  if (ref.text.empty()) ref.text = absolute ? "/" : ".";
  ref.peakLength = std::max(peak, ref.text.size());
  return ref;
}

TEST(PathNormalizeTest, MatchesReferenceOnRandomPaths) {
  const uint32_t seed = kest2_test::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  kest2_common::Random random(seed);
  static const char kAlphabet[] = {'a', 'b', '.', '/', '\\'};
  for (int round = 0; round < 20000; ++round) {
    std::string source;
    const int length = 1 + static_cast<int>(random() % 16);
    for (int k = 0; k < length; ++k) source += kAlphabet[random() % sizeof(kAlphabet)];
    const Reference ref = ReferenceNormalize(source);

    // Plenty of room: the normal form itself.
    const Normalized roomy = Normalize(source.c_str(), kBufferSize);
    ASSERT_EQ(roomy.text, ref.text) << "source " << source;
    ASSERT_EQ(roomy.result, ref.text.size()) << "source " << source;

    // Little room: fits exactly when the longest output did.
    const uint64_t size = random() % 20;
    const Normalized tight = Normalize(source.c_str(), size);
    ASSERT_FALSE(tight.wroteBeyondSize) << "source " << source << " size " << size;
    if (ref.peakLength < size) {
      ASSERT_EQ(tight.result, ref.text.size()) << "source " << source << " size " << size;
      ASSERT_EQ(tight.text, ref.text) << "source " << source << " size " << size;
    } else {
      ASSERT_EQ(tight.result, size + 1) << "source " << source << " size " << size;
      ASSERT_EQ(tight.text, "") << "source " << source << " size " << size;
    }
  }
}

// ---------------------------------------------------------------------------
// StoredPath

class StoredPathTest : public ::testing::Test {
 protected:
  void SetUp() override { std::memset(buffer_, kUntouched, sizeof(buffer_)); }
  void TearDown() override { kest2::g_KestParams.pathMax = 0; }

  static void SetPathMax(uint32_t pathMax) { kest2::g_KestParams.pathMax = pathMax & 0xffff; }
  kest2::StoredPath* path() { return reinterpret_cast<kest2::StoredPath*>(buffer_); }
  char FlagByte() const { return static_cast<char>(buffer_[16 + kest2::PathMax() - 1]); }
  std::string Digest() const { return std::string(reinterpret_cast<const char*>(buffer_), 16); }
  static std::string DigestOf(const std::string& text) {
    uint8_t digest[16];
    kest2::PathDigest(text.data(), text.size(), digest);
    return std::string(reinterpret_cast<const char*>(digest), 16);
  }
  // True when nothing past the record's StoredPathSize bytes was written.
  bool StaysInRecord() const {
    for (size_t i = kest2::StoredPathSize(kest2::PathMax()); i < sizeof(buffer_); ++i) {
      if (buffer_[i] != static_cast<unsigned char>(kUntouched)) return false;
    }
    return true;
  }
  void ExpectEmpty() {
    EXPECT_TRUE(kest2::PathIsEmpty(path()));
    EXPECT_EQ(kest2::GetPath(path()), path()->text);  // inline, not a pointer
    EXPECT_EQ(FlagByte(), 0);
    EXPECT_EQ(Digest(), std::string(16, '\0'));
  }

  alignas(8) unsigned char buffer_[16 + 1024 + 64];
};

TEST_F(StoredPathTest, ClearEmptiesTheRecord) {
  kest2::ClearPath(path());
  ExpectEmpty();
  ASSERT_TRUE(kest2::SetPath(path(), "/a", false));
  kest2::ClearPath(path());
  ExpectEmpty();
  EXPECT_TRUE(StaysInRecord());
}

TEST_F(StoredPathTest, SetStoresNormalFormAndItsDigest) {
  ASSERT_TRUE(kest2::SetPath(path(), "\\a//b/./c/", true));
  EXPECT_STREQ(kest2::GetPath(path()), "/a/b/c");
  EXPECT_FALSE(kest2::PathIsEmpty(path()));
  EXPECT_EQ(FlagByte(), 0);
  EXPECT_EQ(Digest(), DigestOf("/a/b/c"));
  EXPECT_TRUE(StaysInRecord());
}

TEST_F(StoredPathTest, TwoSpellingsGiveEqualTextAndDigest) {
  alignas(8) unsigned char other[kest2::StoredPathSize(1024)];
  auto* second = reinterpret_cast<kest2::StoredPath*>(other);
  ASSERT_TRUE(kest2::SetPath(path(), "/x/../a/b", false));
  ASSERT_TRUE(kest2::SetPath(second, "/a//b/", false));
  EXPECT_STREQ(kest2::GetPath(path()), kest2::GetPath(second));
  EXPECT_EQ(std::memcmp(path()->digest, second->digest, 16), 0);
}

TEST_F(StoredPathTest, LengthLimitIsPathMaxMinusOne) {
  for (uint32_t pathMax : {16u, 1024u}) {
    SetPathMax(pathMax);
    const std::string fits = "/" + std::string(pathMax - 2, 'n');  // pathMax - 1 chars
    const std::string tooLong = fits + "n";                       // pathMax chars
    ASSERT_TRUE(kest2::SetPath(path(), fits.c_str(), false)) << pathMax;
    EXPECT_EQ(kest2::GetPath(path()), fits);
    EXPECT_EQ(Digest(), DigestOf(fits));
    EXPECT_TRUE(StaysInRecord());

    EXPECT_FALSE(kest2::SetPath(path(), tooLong.c_str(), false)) << pathMax;
    ExpectEmpty();
    EXPECT_TRUE(StaysInRecord());
  }
}

TEST_F(StoredPathTest, DefaultPathMaxIs1024) {
  SetPathMax(0);
  EXPECT_TRUE(kest2::SetPath(path(), std::string(1023, 'n').c_str(), false));
  EXPECT_FALSE(kest2::SetPath(path(), std::string(1024, 'n').c_str(), false));
}

TEST_F(StoredPathTest, LongSpellingOfAShortPathIsAccepted) {
  SetPathMax(16);
  const char* source = "./././././././././a//b";  // 22 characters, normal form a/b
  ASSERT_TRUE(kest2::SetPath(path(), source, true));
  EXPECT_STREQ(kest2::GetPath(path()), "a/b");
}

TEST_F(StoredPathTest, FailureMessages) {
  SetPathMax(16);
  kest2_test::OutputCapture capture;
  const struct {
    const char* source;
    const char* message;
  } kCases[] = {
      {nullptr, "Invalid path: (null)\n"},
      {"", "Invalid path: \n"},
      // Exactly pathMax characters: the length does not exceed pathMax.
      {"/aaaaaaaaaaaaaaa", "Invalid path: /aaaaaaaaaaaaaaa\n"},
      // Overflows before the ".." would cut it back to "/".
      {"/aaaaaaaaaaaaaaa/..", "Path too long (length 19, pathMax 16): /aaaaaaaaaaaaaaa/..\n"},
      {"/aaaaaaaaaaaaaaaaaaaa", "Path too long (length 21, pathMax 16): /aaaaaaaaaaaaaaaaaaaa\n"},
  };
  for (const auto& c : kCases) {
    capture.Clear();
    EXPECT_FALSE(kest2::SetPath(path(), c.source, true)) << c.message;
    EXPECT_EQ(capture.text(), c.message);
    ExpectEmpty();
  }
  capture.Clear();
  EXPECT_FALSE(kest2::SetPath(path(), "", false));
  EXPECT_FALSE(kest2::SetPath(path(), "/aaaaaaaaaaaaaaaaaaaa", false));
  EXPECT_EQ(capture.text(), "");  // reportErrors unset: silent
}

TEST_F(StoredPathTest, PointerPathNeedsPathMaxAbovePointerSize) {
  static const char kName[] = "dir/archived name";
  kest2_test::OutputCapture capture;

  SetPathMax(8);
  EXPECT_FALSE(kest2::SetPathPointer(path(), kName));
  EXPECT_EQ(capture.text(),
            "Can't use pointer-type paths because g_KestParams.pathMax (8) <= ptr size (8)\n");
  ExpectEmpty();
  EXPECT_TRUE(StaysInRecord());

  capture.Clear();
  SetPathMax(9);
  ASSERT_TRUE(kest2::SetPathPointer(path(), kName));
  EXPECT_EQ(capture.text(), "");
  EXPECT_EQ(kest2::GetPath(path()), kName);  // the caller's string itself
  EXPECT_EQ(FlagByte(), 1);
  EXPECT_EQ(Digest(), DigestOf(kName));  // the full string, taken as normal
  EXPECT_TRUE(StaysInRecord());
}

TEST_F(StoredPathTest, InlineSetReplacesPointerPath) {
  static const char kName[] = "a/b";
  ASSERT_TRUE(kest2::SetPathPointer(path(), kName));
  EXPECT_EQ(kest2::GetPath(path()), kName);
  // Equal text gives an equal digest, whichever way it is stored.
  const std::string pointerDigest = Digest();
  ASSERT_TRUE(kest2::SetPath(path(), "a//b", false));
  EXPECT_EQ(kest2::GetPath(path()), path()->text);
  EXPECT_EQ(FlagByte(), 0);
  EXPECT_EQ(Digest(), pointerDigest);
  // A failed set also drops a pointer path.
  ASSERT_TRUE(kest2::SetPathPointer(path(), kName));
  EXPECT_FALSE(kest2::SetPath(path(), "", false));
  ExpectEmpty();
  // So does a null pointer string, which could not be read back.
  ASSERT_TRUE(kest2::SetPathPointer(path(), kName));
  EXPECT_FALSE(kest2::SetPathPointer(path(), nullptr));
  ExpectEmpty();
}

}  // namespace
