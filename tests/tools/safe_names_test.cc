// The name checks unpack and verify share, and the escaping every command
// prints names with.

#include "kest2/safe_names.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using kest2_cli::CheckName;
using kest2_cli::EscapeName;
using kest2_cli::NameVerdict;
using Components = std::vector<std::string>;

NameVerdict Verdict(const std::string& name, bool absolutePaths = false) {
  return CheckName(name, absolutePaths).verdict;
}

TEST(SafeNamesTest, EveryWayOutOfTheTargetIsRefused) {
  EXPECT_EQ(Verdict("../../home/user/.bashrc"), NameVerdict::kEscapes);
  EXPECT_EQ(Verdict("a/../../b"), NameVerdict::kEscapes);
  EXPECT_EQ(Verdict("a/b/../../../c"), NameVerdict::kEscapes);
  EXPECT_EQ(Verdict(".."), NameVerdict::kEscapes);
  // The library's lookups split at a backslash too, and so does Windows.
  EXPECT_EQ(Verdict("a\\..\\..\\b"), NameVerdict::kEscapes);
  EXPECT_EQ(Verdict("/etc/cron.d/x"), NameVerdict::kAbsolute);
  EXPECT_EQ(Verdict("\\etc\\x"), NameVerdict::kAbsolute);
  EXPECT_EQ(Verdict(""), NameVerdict::kEmpty);
  EXPECT_EQ(Verdict("a//b"), NameVerdict::kEmptyComponent);
  EXPECT_EQ(Verdict("a/b/"), NameVerdict::kEmptyComponent);
  EXPECT_EQ(Verdict("."), NameVerdict::kNamesTarget);
  EXPECT_EQ(Verdict("a/.."), NameVerdict::kNamesTarget);
  EXPECT_EQ(Verdict(std::string("a\0b", 3)), NameVerdict::kNul);
  EXPECT_EQ(Verdict("a\nb"), NameVerdict::kControlCharacter);
  EXPECT_EQ(Verdict("x\033[2J"), NameVerdict::kControlCharacter);
  EXPECT_EQ(Verdict("del\x7f"), NameVerdict::kControlCharacter);
}

TEST(SafeNamesTest, DotsAreResolvedInsideTheTarget) {
  EXPECT_EQ(CheckName("a/./b", false).components, (Components{"a", "b"}));
  EXPECT_EQ(CheckName("./a/../b/c", false).components, (Components{"b", "c"}));
  EXPECT_EQ(CheckName("a\\b", false).components, (Components{"a", "b"}));
  // Names that only look like dots are ordinary names.
  EXPECT_EQ(CheckName("...", false).components, (Components{"..."}));
  EXPECT_EQ(CheckName("..x/.y", false).components, (Components{"..x", ".y"}));
  EXPECT_EQ(CheckName("t\xC3\xA9l\xC3\xA9.txt", false).verdict, NameVerdict::kSafe);
  EXPECT_TRUE(CheckName("../x", false).components.empty());
}

TEST(SafeNamesTest, AbsoluteNamesAreRelativeToTheTargetOnlyWhenTheArchiveSaysSo) {
  EXPECT_EQ(CheckName("/etc/x", true).components, (Components{"etc", "x"}));
  EXPECT_EQ(CheckName("a/b", true).components, (Components{"a", "b"}));
  EXPECT_EQ(Verdict("/", true), NameVerdict::kNamesTarget);
  EXPECT_EQ(Verdict("//etc/x", true), NameVerdict::kEmptyComponent);
  EXPECT_EQ(Verdict("/../x", true), NameVerdict::kEscapes);
}

TEST(SafeNamesTest, EveryRefusalHasWords) {
  for (NameVerdict verdict :
       {NameVerdict::kEmpty, NameVerdict::kNamesTarget, NameVerdict::kAbsolute,
        NameVerdict::kEscapes, NameVerdict::kEmptyComponent, NameVerdict::kNul,
        NameVerdict::kControlCharacter}) {
    EXPECT_NE(std::string(kest2_cli::VerdictWords(verdict)), "");
  }
}

TEST(SafeNamesTest, EscapingLeavesNoByteThatSteersATerminal) {
  EXPECT_EQ(EscapeName("plain name.txt"), "plain name.txt");
  EXPECT_EQ(EscapeName("t\xC3\xA9l\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
            "t\xC3\xA9l\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(EscapeName("a\033[2Jb"), "a\\033[2Jb");
  EXPECT_EQ(EscapeName("1\n2\r3\t4"), "1\\n2\\r3\\t4");
  EXPECT_EQ(EscapeName(std::string("\x01\x7f\0", 3)), "\\x01\\x7f\\x00");
  // The backslash is escaped, so that "\\033" in a name cannot pass for
  // an escaped escape.
  EXPECT_EQ(EscapeName("a\\033"), "a\\\\033");
  // A C1 control in UTF-8 (CSI, U+009B), a lone CSI byte, an overlong
  // slash, a surrogate and a cut-off sequence.
  EXPECT_EQ(EscapeName("\xC2\x9B"
                       "2J"),
            "\\xc2\\x9b2J");
  EXPECT_EQ(EscapeName("\x9B"), "\\x9b");
  EXPECT_EQ(EscapeName("\xC0\xAF"), "\\xc0\\xaf");
  EXPECT_EQ(EscapeName("\xED\xA0\x80"), "\\xed\\xa0\\x80");
  EXPECT_EQ(EscapeName("\xE2\x82"), "\\xe2\\x82");
}

}  // namespace
