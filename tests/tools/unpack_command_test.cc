// `kest2 unpack`, run as a user runs it: packed trees come back byte for
// byte, and archives crafted to write outside the target directory (names
// that climb out, absolute names, links planted under the target) write
// nothing outside it: the whole scratch directory is listed before and
// after, and only the target may change.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "archive/zorba_format.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "test_support.h"
#include "tools/crafted_archive.h"
#include "tools/program_run.h"

namespace {

namespace fs = std::filesystem;
using kest2_test::CraftedArchive;
using kest2_test::CraftedFile;
using kest2_test::ProgramRun;
using kest2_test::RunKest2;
using Tree = std::map<std::string, std::string>;  // relative path -> bytes, "/" or "-> target"

std::string Text(size_t length) {
  std::string text;
  for (int line = 0; text.size() < length; ++line) text += "line " + std::to_string(line) + "\n";
  text.resize(length);
  return text;
}

std::string Noise(size_t length, uint32_t seed) {
  const std::vector<uint8_t> bytes = kest2_common::RandomBytes(length, seed);
  return std::string(bytes.begin(), bytes.end());
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// File contents as a tree shows them.
std::string Shown(const std::string& content) {
  if (content.size() <= 64) return content;
  return std::to_string(content.size()) + " bytes, hash " +
         std::to_string(std::hash<std::string>()(content));
}

// Everything below root, links not followed: files with their bytes (a
// size and a hash for more than 64), directories as "/", links as "->
// target".  `skip` and the paths below it are left out.
Tree ListTree(const std::string& root, const std::string& skip = "") {
  Tree tree;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
       ++it) {
    const std::string path = it->path().string();
    if (!skip.empty() && (path == skip || path.compare(0, skip.size() + 1, skip + "/") == 0)) {
      continue;
    }
    const std::string relative = path.substr(root.size() + 1);
    if (it->is_symlink()) {
      tree[relative] = "-> " + fs::read_symlink(it->path()).string();
    } else if (it->is_directory()) {
      tree[relative] = "/";
    } else {
      tree[relative] = Shown(Slurp(path));
    }
  }
  return tree;
}

class UnpackCommandTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!kest2_test::HaveKest2Program()) GTEST_SKIP() << "built without the kest2 program";
  }

  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }

  // Crafts ARCHIVE at Path("crafted.zorba") and unpacks it into DIR with
  // the options given, checking that nothing outside DIR changed.
  ProgramRun UnpackCrafted(const CraftedArchive& archive, const std::string& target,
                           const std::vector<std::string>& options = {}) {
    kest2_test::WriteCraftedArchive(Path("crafted.zorba"), archive);
    const Tree before = ListTree(dir_.path(), target);
    std::vector<std::string> arguments{"unpack"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.push_back(Path("crafted.zorba"));
    arguments.push_back(target);
    const ProgramRun run = RunKest2(arguments);
    EXPECT_EQ(ListTree(dir_.path(), target), before) << "unpack wrote outside " << target;
    return run;
  }

  kest2_common::TempDir dir_{"kest2_unpack_"};
};

TEST_F(UnpackCommandTest, PackedTreesComeBackByteForByte) {
  const std::string tree = Path("tree");
  kest2_test::WriteFile(tree + "/a/b/c/deep.txt", Text(1000));
  kest2_test::WriteFile(tree + "/a/several-blocks.txt", Text(5 * 4096 + 17));  // compressed blocks
  kest2_test::WriteFile(tree + "/a/noise.bin", Noise(3 * 4096 + 5, 1));        // stored with --store
  kest2_test::WriteFile(tree + "/empty", "");
  kest2_test::WriteFile(tree + "/top.txt", "top\n");
  const Tree packed = ListTree(tree);
  // Both archive versions, and names stored with a leading "/" and hashed
  // upper-cased.
  const std::vector<std::vector<std::string>> variants = {
      {"--block-size", "4096", "--store"},
      {"--block-size", "4096", "--version", "1", "--absolute-paths", "--ignore-case"}};
  for (size_t v = 0; v < variants.size(); ++v) {
    SCOPED_TRACE("pack options " + std::to_string(v));
    const std::string archive = Path("tree" + std::to_string(v) + ".zorba");
    const std::string out = Path("out" + std::to_string(v));
    std::vector<std::string> pack{"pack"};
    pack.insert(pack.end(), variants[v].begin(), variants[v].end());
    pack.insert(pack.end(), {tree, archive});
    ASSERT_EQ(RunKest2(pack).status, 0);
    const ProgramRun run = RunKest2({"--progress", "unpack", archive, out});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, archive + ": 5 files, 33794 bytes written to " + out + "\n");
    EXPECT_NE(run.err.find("kest2 unpack: 0.0 of 0.0 MiB (100%), 5 of 5 files"), std::string::npos)
        << run.err;
    EXPECT_EQ(ListTree(out), packed);
  }
}

TEST_F(UnpackCommandTest, NamesThatLeaveTheTargetAreRefusedAndTheRestWritten) {
  const std::string target = Path("work/out");
  fs::create_directories(Path("work"));
  CraftedArchive archive;
  archive.files = {
      {"good.txt", "good\n"},
      {"../../escaped-up", "x"},
      {"a/../../escaped-sideways", "x"},
      {Path("absolute-target"), "x"},  // "/tmp/.../absolute-target"
      {"", "", false},                 // an empty line in the manifest
      {"a//b", "x"},
      {"title\033]0;owned\007.txt", "x"},
      {std::string("nul\0byte", 8), "x"},
      {"sub/ok.txt", Text(9000)},
  };
  const ProgramRun run = UnpackCrafted(archive, target);
  EXPECT_EQ(run.status, 1);
  const std::string prefix = "kest2 unpack: " + Path("crafted.zorba") + ": manifest name ";
  const std::string escapes = "it climbs out of the directory it is unpacked into with '..'\n";
  EXPECT_EQ(run.err, prefix + "2 \"../../escaped-up\" refused: " + escapes + prefix +
                         "3 \"a/../../escaped-sideways\" refused: " + escapes + prefix + "4 \"" +
                         Path("absolute-target") +
                         "\" refused: it is an absolute path, and the archive does not say that "
                         "its names are\n" +
                         prefix + "5 \"\" refused: it is empty\n" + prefix +
                         "6 \"a//b\" refused: it has an empty component ('//', or a '/' at its "
                         "end)\n" +
                         prefix +
                         "7 \"title\\033]0;owned\\x07.txt\" refused: it holds a control "
                         "character, which unpack does not put in file names\n" +
                         prefix +
                         "8 \"nul\\x00byte\" refused: it holds a NUL byte, which no file name "
                         "can\n");
  EXPECT_EQ(run.out, Path("crafted.zorba") + ": 2 of 9 files, 9005 bytes written to " + target +
                         "; 7 names refused, 0 files failed\n");
  EXPECT_EQ(ListTree(target),
            (Tree{{"good.txt", "good\n"}, {"sub", "/"}, {"sub/ok.txt", Shown(Text(9000))}}));
}

TEST_F(UnpackCommandTest, AbsoluteNamesLandInsideTheTargetWhenTheArchiveSaysSo) {
  CraftedArchive archive;
  archive.flags = kest2::ZORBA_FLAG_ABSOLUTE_PATHS;
  archive.files = {{"/etc/cron.d/x", "job\n"}, {"/../x", "x"}};
  const ProgramRun run = UnpackCrafted(archive, Path("out"));
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("manifest name 2 \"/../x\" refused: it climbs out"), std::string::npos);
  EXPECT_EQ(ListTree(Path("out")),
            (Tree{{"etc", "/"}, {"etc/cron.d", "/"}, {"etc/cron.d/x", "job\n"}}));
}

TEST_F(UnpackCommandTest, LinksPlantedUnderTheTargetAreNeverFollowed) {
  const std::string target = Path("out");
  fs::create_directories(Path("outside"));
  fs::create_directories(target);
  fs::create_directory_symlink(Path("outside"), target + "/a");                // a level
  fs::create_symlink(Path("outside/leaf-target"), target + "/leaf");           // the file itself
  fs::create_symlink(Path("outside/forced-target"), target + "/forced-leaf");  // ... under --force
  CraftedArchive archive;
  archive.files = {{"a/x", "x"}, {"leaf", "x"}, {"forced-leaf", "x"}, {"b/y", "y"}};
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, std::vector<std::string>{"--force"}}) {
    SCOPED_TRACE(options.empty() ? "without --force" : "with --force");
    fs::remove_all(target + "/b");
    const ProgramRun run = UnpackCrafted(archive, target, options);
    EXPECT_EQ(run.status, 1);
    const std::string prefix = "kest2 unpack: " + Path("crafted.zorba") + ": manifest name ";
    EXPECT_NE(run.err.find(prefix + "1 \"a/x\" not written: " + target +
                           "/a is a symbolic link, which unpack does not follow\n"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find(prefix + "2 \"leaf\" not written: " + target + "/leaf exists"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find(prefix + "3 \"forced-leaf\" not written: " + target +
                           "/forced-leaf exists and is not a regular file"),
              std::string::npos)
        << run.err;
    EXPECT_EQ(run.out, Path("crafted.zorba") + ": 1 of 4 files, 1 bytes written to " + target +
                           "; 0 names refused, 3 files failed\n");
    EXPECT_TRUE(fs::is_empty(Path("outside")));
    EXPECT_EQ(Slurp(target + "/b/y"), "y");
  }
}

TEST_F(UnpackCommandTest, ForceReplacesRegularFilesOnly) {
  const std::string target = Path("out");
  kest2_test::WriteFile(target + "/f.txt", "old\n");
  kest2_test::WriteFile(Path("elsewhere.txt"), "elsewhere\n");
  ASSERT_EQ(::link(Path("elsewhere.txt").c_str(), (target + "/hard.txt").c_str()), 0);
  fs::create_directories(target + "/d");
  CraftedArchive archive;
  archive.files = {{"f.txt", "new\n"}, {"hard.txt", "new\n"}, {"d", "new\n"}};

  ProgramRun run = UnpackCrafted(archive, target);
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find(target + "/f.txt exists (--force replaces it)\n"), std::string::npos)
      << run.err;
  EXPECT_EQ(Slurp(target + "/f.txt"), "old\n");

  // The hard link loses its name here; the file elsewhere keeps its bytes.
  run = UnpackCrafted(archive, target, {"--force"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(
      run.err.find(target + "/d exists and is not a regular file; --force replaces only those"),
      std::string::npos)
      << run.err;
  EXPECT_EQ(Slurp(target + "/f.txt"), "new\n");
  EXPECT_EQ(Slurp(target + "/hard.txt"), "new\n");
  EXPECT_EQ(Slurp(Path("elsewhere.txt")), "elsewhere\n");
  EXPECT_TRUE(fs::is_directory(target + "/d"));
}

TEST_F(UnpackCommandTest, StrictWritesNothingWhenANameIsRefused) {
  CraftedArchive archive;
  archive.files = {{"good.txt", "good\n"}, {"../bad", "x"}, {"/worse", "x"}};
  ProgramRun run = UnpackCrafted(archive, Path("out"), {"--strict"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kest2 unpack: " + Path("crafted.zorba") +
                         ": manifest name 2 \"../bad\" refused: it climbs out of the directory it "
                         "is unpacked into with '..'\n");
  EXPECT_EQ(run.out, Path("crafted.zorba") + ": nothing written to " + Path("out") +
                         ": a name was refused and --strict was given\n");
  EXPECT_FALSE(fs::exists(Path("out")));

  run = UnpackCrafted(archive, Path("out"));
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(ListTree(Path("out")), (Tree{{"good.txt", "good\n"}}));
}

TEST_F(UnpackCommandTest, NamesTheLibraryNormalisesAreReadByTheirOwnDigest) {
  // "a/./b.txt" would reach the entry of "a/b.txt" through the library;
  // each must get its own bytes.
  CraftedArchive archive;
  archive.files = {{"a/./b.txt", Text(10000)}, {"c\\d.txt", "backslash\n"}, {"./e", Text(300)}};
  const ProgramRun run = UnpackCrafted(archive, Path("out"));
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ListTree(Path("out")), (Tree{{"a", "/"},
                                         {"a/b.txt", Shown(Text(10000))},
                                         {"c", "/"},
                                         {"c/d.txt", "backslash\n"},
                                         {"e", Shown(Text(300))}}));
}

TEST_F(UnpackCommandTest, AFileThatFailsIsRemovedAndTheOthersWritten) {
  CraftedArchive archive;
  // The library mounts no archive with more names than entries, so the
  // name without an entry comes with an entry without a name.
  archive.files = {{"big.txt", Text(3 * 4096)},
                   {"ghost", "", false},
                   {"small.txt", "small\n"},
                   {"unnamed", "x", true, false}};
  const kest2_test::CraftedLayout layout =
      kest2_test::WriteCraftedArchive(Path("crafted.zorba"), archive);
  // Damage the first block's zlib stream: its check sum no longer holds.
  std::fstream file(Path("crafted.zorba"), std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(layout.dataOffset[0] + 8));
  file.put('\xFF');
  file.close();
  const ProgramRun run = RunKest2({"unpack", Path("crafted.zorba"), Path("out")});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("kest2 unpack: " + Path("crafted.zorba") +
                         "/big.txt: damaged compressed data (ZUL_KEST_ERROR_DECOMPRESSION)\n"),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("manifest name 2 \"ghost\": no file in the archive has this name\n"),
            std::string::npos)
      << run.err;
  EXPECT_EQ(ListTree(Path("out")), (Tree{{"small.txt", "small\n"}}));
  EXPECT_EQ(run.out, Path("crafted.zorba") + ": 1 of 3 files, 6 bytes written to " + Path("out") +
                         "; 0 names refused, 2 files failed\n");
}

TEST_F(UnpackCommandTest, MissingArchivesAndBadUsageSayWhat) {
  ProgramRun run = RunKest2({"unpack", Path("missing.zorba"), Path("out")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kest2 unpack: " + Path("missing.zorba") + ": No such file or directory\n");
  kest2_test::WriteFile(Path("not-an-archive"), "hello, this is text and no archive\n");
  run = RunKest2({"unpack", Path("not-an-archive"), Path("out")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kest2 unpack: " + Path("not-an-archive") +
                         ": damaged archive: offset 0: no archive magic (\"ZORB\")\n");
  EXPECT_FALSE(fs::exists(Path("out")));
  EXPECT_EQ(RunKest2({"unpack", Path("missing.zorba")}).status, 2);
  EXPECT_EQ(RunKest2({"unpack", "--overwrite", Path("missing.zorba"), Path("out")}).status, 2);
}

}  // namespace
