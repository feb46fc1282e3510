// `kest2 ls`, run as a user runs it: directories inside archives by
// ARCHIVE/PATH and by ARCHIVE PATH, whole trees with -R (inside archives and
// on disk, where a link to a directory is not entered), and names crafted to
// steer the terminal printed escaped.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "common/temp_dir.h"
#include "tools/crafted_archive.h"
#include "test_support.h"
#include "tools/program_run.h"

namespace {

namespace fs = std::filesystem;
using kest2_test::ProgramRun;
using kest2_test::RunKest2;

class LsCommandTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!kest2_test::HaveKest2Program()) GTEST_SKIP() << "built without the kest2 program";
    kest2_test::WriteFile(Tree() + "/a.txt", "a\n");
    kest2_test::WriteFile(Tree() + "/sub/b.txt", std::string(5000, 'b'));
    kest2_test::WriteFile(Tree() + "/sub/deeper/c.txt", "c\n");
    kest2_test::WriteFile(Tree() + "/sub2/d.txt", "dd\n");
    ASSERT_EQ(RunKest2({"pack", Tree(), Archive()}).status, 0);
  }

  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }
  std::string Tree() const { return Path("tree"); }
  std::string Archive() const { return Path("tree.zorba"); }

  kest2_common::TempDir dir_{"kest2_ls_"};
};

TEST_F(LsCommandTest, RecursiveListingOfAnArchiveHeadsEachDirectory) {
  const ProgramRun run = RunKest2({"ls", "-R", Archive()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, Archive() +
                         ":\n"
                         "-            2  a.txt\n"
                         "d            0  sub/\n"
                         "d            0  sub2/\n"
                         "\n" +
                         Archive() +
                         "/sub:\n"
                         "-         5000  b.txt\n"
                         "d            0  deeper/\n"
                         "\n" +
                         Archive() +
                         "/sub/deeper:\n"
                         "-            2  c.txt\n"
                         "\n" +
                         Archive() +
                         "/sub2:\n"
                         "-            3  d.txt\n");
}

TEST_F(LsCommandTest, SubdirectoriesByPathOrBySecondArgument) {
  const std::string sub = "-         5000  b.txt\nd            0  deeper/\n";
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"ls", Archive() + "/sub"},
        std::vector<std::string>{"ls", Archive(), "sub"},
        std::vector<std::string>{"ls", Archive(), "/sub/"}}) {
    const ProgramRun run = RunKest2(arguments);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, sub);
  }
  EXPECT_EQ(RunKest2({"ls", Archive() + "/sub/deeper"}).out, "-            2  c.txt\n");
  EXPECT_EQ(RunKest2({"ls", "-R", Archive(), "sub/deeper"}).out,
            Archive() + "/sub/deeper:\n-            2  c.txt\n");

  ProgramRun run = RunKest2({"ls", Archive() + "/missing"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kest2 ls: " + Archive() +
                         "/missing: no such file or directory (ZUL_KEST_ERROR_BAD_PATH)\n");
  run = RunKest2({"ls", Archive(), "a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kest2 ls: " + Archive() +
                         "/a.txt: not a directory (ZUL_KEST_ERROR_NOT_A_DIRECTORY)\n");
  run = RunKest2({"ls", Tree(), "sub"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kest2 ls: " + Tree() +
                         ": not an archive, or a damaged one (ZUL_KEST_ERROR_BAD_ARCHIVE)\n");
  EXPECT_EQ(RunKest2({"ls", "-l", Archive()}).status, 2);
  EXPECT_EQ(RunKest2({"ls", Archive(), "sub", "extra"}).status, 2);
}

TEST_F(LsCommandTest, RecursiveListingOnDiskDoesNotEnterLinks) {
  fs::create_directory_symlink(Tree(), Tree() + "/sub/loop");
  const ProgramRun run = RunKest2({"ls", "-R", Tree() + "/sub"});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string sub = Tree() + "/sub";
  EXPECT_EQ(run.out.substr(0, sub.size() + 2), sub + ":\n");
  EXPECT_NE(run.out.find("  loop/\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\n" + sub + "/deeper:\n-            2  c.txt\n"), std::string::npos)
      << run.out;
  EXPECT_EQ(run.out.find(sub + "/loop:"), std::string::npos) << run.out;
}

TEST_F(LsCommandTest, CraftedNamesArePrintedEscapedAndDotsNotEntered) {
  kest2_test::CraftedArchive archive;
  archive.files = {{"clear\033[2J\033]0;owned\007.txt", "x"},
                   {"dir\twith\ttabs/del\x7f", "y"},
                   {"../up.txt", "z"},
                   {"./here.txt", "w"}};
  kest2_test::WriteCraftedArchive(Path("crafted.zorba"), archive);
  const ProgramRun run = RunKest2({"ls", "-R", Path("crafted.zorba")});
  EXPECT_EQ(run.status, 0) << run.err;
  for (char c : run.out) {
    const unsigned char byte = static_cast<unsigned char>(c);
    ASSERT_TRUE(c == '\n' || (byte >= 0x20 && byte != 0x7F)) << "raw byte " << int{byte};
  }
  EXPECT_NE(run.out.find("  clear\\033[2J\\033]0;owned\\x07.txt\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find(":\n-            1  del\\x7f\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("/dir\\twith\\ttabs:\n"), std::string::npos) << run.out;
  // "." and ".." are shown as the archive holds them, and not entered.
  EXPECT_NE(run.out.find("d            0  ../\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("d            0  ./\n"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("/..:"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("/.:"), std::string::npos) << run.out;
}

}  // namespace
