// `kest2 verify`, run as a user runs it: intact archives pass with a
// summary, and each kind of damage (a flipped byte in a compressed block, a
// cut file, a row past the table, a size the block does not inflate to,
// names without entries, unsafe names) is reported first with the archive
// offset or manifest place it concerns, and exit status 1.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "common/temp_dir.h"
#include "tools/crafted_archive.h"
#include "tools/program_run.h"

namespace {

namespace fs = std::filesystem;
using kest2_test::CraftedArchive;
using kest2_test::CraftedLayout;
using kest2_test::ProgramRun;
using kest2_test::RunKest2;

std::string Text(size_t length) {
  std::string text;
  for (int line = 0; text.size() < length; ++line) text += "line " + std::to_string(line) + "\n";
  text.resize(length);
  return text;
}

// Overwrites `width` big-endian bytes at `offset`.
void Patch(const std::string& path, uint64_t offset, uint64_t value, size_t width) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  for (size_t i = width; i > 0; --i) file.put(static_cast<char>(value >> (8 * (i - 1))));
}

uint64_t ReadBigEndian(const std::string& path, uint64_t offset, size_t width) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(offset));
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = value << 8 | static_cast<uint8_t>(file.get());
  return value;
}

class VerifyCommandTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!kest2_test::HaveKest2Program()) GTEST_SKIP() << "built without the kest2 program";
  }

  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }
  std::string Crafted() const { return Path("crafted.zorba"); }

  // An archive of a three-block text, a small file and an empty one.
  CraftedLayout WriteCrafted() {
    CraftedArchive archive;
    archive.files = {{"big.txt", Text(2 * 4096 + 1000)}, {"small.txt", "small\n"}, {"empty", ""}};
    return kest2_test::WriteCraftedArchive(Crafted(), archive);
  }

  // Runs verify on the crafted archive: exit 1, and the first line must
  // match `first` (after "kest2 verify: ARCHIVE: ").
  void ExpectDamage(const std::string& first, const std::string& rest = "") {
    const ProgramRun run = RunKest2({"verify", Crafted()});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(std::regex_match(
        run.err, std::regex("kest2 verify: " + Crafted() + ": " + first + "\n" + rest)))
        << run.err;
  }

  kest2_common::TempDir dir_{"kest2_verify_"};
};

TEST_F(VerifyCommandTest, IntactArchivesPassWithASummary) {
  const std::string tree = Path("tree");
  fs::create_directories(tree + "/sub");
  std::ofstream(tree + "/sub/text.txt") << Text(5 * 4096 + 3);
  std::ofstream(tree + "/empty");
  ASSERT_EQ(RunKest2({"pack", "--block-size", "4096", tree, Path("packed.zorba")}).status, 0);
  ProgramRun run = RunKest2({"--progress", "verify", Path("packed.zorba")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, Path("packed.zorba") + ": intact: 2 files, 6 blocks, 20483 bytes\n");
  EXPECT_NE(run.err.find("kest2 verify: 0.0 of 0.0 MiB (100%), 2 of 2 files"), std::string::npos)
      << run.err;

  WriteCrafted();
  run = RunKest2({"verify", Crafted()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, Crafted() + ": intact: 3 files, 4 blocks, 9198 bytes\n");
  EXPECT_EQ(run.err, "");
}

// The archives the library's own tests read: the damaged ones must fail
// here too, the others pass.
TEST_F(VerifyCommandTest, TheFuzzSeedsAreJudgedAsTheLibraryJudgesThem) {
  for (const auto& seed : fs::directory_iterator(KEST2_FUZZ_CORPUS_DIR)) {
    const std::string name = seed.path().filename().string();
    if (seed.path().extension() != ".zorba") continue;
    SCOPED_TRACE(name);
    const ProgramRun run = RunKest2({"verify", seed.path().string()});
    const bool damaged = name.find("bad-") != std::string::npos ||
                         name.find("-output") != std::string::npos ||
                         name.find("truncated") != std::string::npos;
    EXPECT_EQ(run.status, damaged ? 1 : 0) << run.out << run.err;
  }
}

TEST_F(VerifyCommandTest, AFlippedByteInACompressedBlockIsFoundAtItsOffset) {
  const CraftedLayout layout = WriteCrafted();
  // Block 1 of big.txt starts behind block 0's stored bytes.
  const uint64_t block0 = ReadBigEndian(Crafted(), layout.rowsOffset + 2 * layout.firstRow[0], 2);
  const uint64_t block1 = layout.dataOffset[0] + block0;
  Patch(Crafted(), block1 + 10, ReadBigEndian(Crafted(), block1 + 10, 1) ^ 0x55, 1);
  ExpectDamage("block 1 of \"big.txt\" at offset " + std::to_string(block1) + ": .*");
}

TEST_F(VerifyCommandTest, ABlockThatInflatesToTheWrongLengthSaysBoth) {
  const CraftedLayout layout = WriteCrafted();
  // The file claims 100 bytes more than its last block holds.
  Patch(Crafted(), layout.entryOffset[0] + 20, 2 * 4096 + 1100, 5);
  ExpectDamage("block 2 of \"big.txt\" at offset [0-9]+: inflates to 1000 bytes, not 1100");
}

// A damaged size must not be met with the memory it claims: no zlib stream
// inflates to more than 1032 times its length.
TEST_F(VerifyCommandTest, ABlockClaimingMoreThanItsStreamCanHoldIsRefused) {
  CraftedArchive archive;
  archive.blockSize = (1u << 30) + 1;
  archive.files = {{"big.txt", Text(20000)}};
  const CraftedLayout layout = kest2_test::WriteCraftedArchive(Crafted(), archive);
  Patch(Crafted(), layout.entryOffset[0] + 20, 1u << 30, 5);
  ExpectDamage("block 0 of \"big.txt\" at offset " + std::to_string(layout.dataOffset[0]) +
               ": [0-9]+ stored bytes cannot inflate to 1073741824");
}

TEST_F(VerifyCommandTest, ACutFileIsFoundWithTheEntryThatRunsPastIt) {
  const CraftedLayout layout = WriteCrafted();
  fs::resize_file(Crafted(), layout.dataOffset[1] + 2);  // inside small.txt
  ExpectDamage("\"small.txt\" \\(TOC entry 3 at offset " + std::to_string(layout.entryOffset[1]) +
                   "\\): its [0-9]+ stored bytes at offset " +
                   std::to_string(layout.dataOffset[1]) + " run past the end of the file \\(" +
                   std::to_string(layout.dataOffset[1] + 2) + " bytes\\)",
               // The empty file's data would start behind small.txt's.
               "kest2 verify: " + Crafted() + ": 1 further problem\n");
}

TEST_F(VerifyCommandTest, ARowPastTheTableIsFoundWithoutReadingIt) {
  const CraftedLayout layout = WriteCrafted();
  Patch(Crafted(), layout.entryOffset[0] + 16, 1000, 4);
  ExpectDamage("\"big.txt\" \\(TOC entry 2 at offset " + std::to_string(layout.entryOffset[0]) +
               "\\): its 3 blocks take rows 1000 to 1002 of a block-size table of 5 rows");
}

TEST_F(VerifyCommandTest, DamagedHeadersSayWhichField) {
  WriteCrafted();
  Patch(Crafted(), 4, 0x00020000, 4);
  ExpectDamage("offset 4: version 0x00020000 is neither 1 nor 3");
  WriteCrafted();
  Patch(Crafted(), 0, 0x5A4F5243, 4);
  ExpectDamage("offset 0: no archive magic \\(\"ZORB\"\\)");
  WriteCrafted();
  Patch(Crafted(), 12, 1u << 30, 4);
  ExpectDamage(
      "the TOC region \\(1073741824 bytes at offset 48\\) runs past the end of the "
      "file \\([0-9]+ bytes\\)");
  fs::resize_file(Crafted(), 20);
  ExpectDamage("the file is 20 bytes long, shorter than an archive header \\(32 bytes\\)");
}

TEST_F(VerifyCommandTest, NamesAreCheckedAgainstTheTocWithTheirPlace) {
  CraftedArchive archive;
  archive.files = {{"a.txt", "a"},
                   {"ghost", "", false},
                   {"a.txt", "", false},  // the same name again
                   {"unnamed", "u", true, false}};
  kest2_test::WriteCraftedArchive(Crafted(), archive);
  ExpectDamage("manifest name 2 \"ghost\" has no entry in the TOC",
               "kest2 verify: " + Crafted() + ": 2 further problems\n");
}

TEST_F(VerifyCommandTest, UnsafeNamesAreDamageWithTheirPlace) {
  CraftedArchive archive;
  archive.files = {{"fine.txt", "f"},
                   {"../../home/user/.bashrc", "x"},
                   {"/etc/cron.d/x", "x"},
                   {"bell\007", "x"}};
  kest2_test::WriteCraftedArchive(Crafted(), archive);
  ExpectDamage(
      "manifest name 2 \"../../home/user/.bashrc\" is unsafe to unpack: it climbs out of "
      "the directory it is unpacked into with '..'",
      "kest2 verify: " + Crafted() + ": 2 further problems\n");
}

TEST_F(VerifyCommandTest, MissingFilesAndBadUsage) {
  ProgramRun run = RunKest2({"verify", Path("missing.zorba")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kest2 verify: " + Path("missing.zorba") + ": No such file or directory\n");
  run = RunKest2({"verify", dir_.path()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kest2 verify: " + dir_.path() + ": Is a directory\n");
  EXPECT_EQ(RunKest2({"verify"}).status, 2);
  EXPECT_EQ(RunKest2({"verify", "a", "b"}).status, 2);
  EXPECT_EQ(RunKest2({"verify", "--deep", "a"}).status, 2);
}

}  // namespace
