// The system failing the dearchiver: block reads that fail or come back
// short, and the archive file truncated, replaced or overwritten while it is
// mounted.  A read either delivers the archived bytes or fails with a code;
// it never hands back bytes that are not the file's, and nothing it took
// (operations, handles, chunks, descriptors) stays taken.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "core/system_faults.h"
#include "kest2.h"
#include "kest2/archive_writer.h"
#include "test_support.h"

namespace {

using kest2_test::SystemFaults;
using kest2_test::WriteFile;

constexpr uint32_t kBlock = 64 * 1024;

// Text that compresses to a fraction of itself, different for each seed;
// with `mixed`, every other block is random bytes, which the packer stores
// as they are, so reads cross both kinds of block.
std::vector<uint8_t> Text(size_t size, uint32_t seed, bool mixed = false) {
  std::vector<uint8_t> bytes(size);
  kest2_common::Random random(seed);
  for (size_t i = 0; i < size; ++i) {
    bytes[i] = mixed && (i / kBlock) % 2 == 1
                   ? static_cast<uint8_t>(random())
                   : static_cast<uint8_t>("archived fault text "[(i + seed) % 20] ^ (random() % 4));
  }
  return bytes;
}

class ArchiveFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(128, 64, 16, 1024, 8192);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.ioThreadCount = 2;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    ASSERT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, dearchiver_.context()),
              ZUL_KEST_OK);

    // Two files of 16 and 3 blocks, packed in name order: "a.txt" lies in
    // the first part of the archive, "b.txt" after it.
    files_ = {{"a.txt", Text(16 * kBlock, 1, true)}, {"b.txt", Text(3 * kBlock - 100, 2)}};
    archive_ = PackTree("tree", files_, "packed.zorba");
    ASSERT_EQ(Mount(), ZUL_KEST_OK);
    before_ = kest2_test::ResourceCounts::Settled();
  }
  void TearDown() override {
    if (mounted_ != 0) {
      EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, mounted_), ZUL_KEST_OK);
    }
    zulKestIOFilterRemove(0);
    zulKestTerminate();
    EXPECT_EQ(output_.text().find("still allocated"), std::string::npos) << output_.text();
  }

  std::string PackTree(const std::string& name,
                       const std::map<std::string, std::vector<uint8_t>>& files,
                       const std::string& archiveName, int level = 6) {
    const std::string root = dir_.path() + "/" + name;
    for (const auto& [relative, bytes] : files) WriteFile(root + "/" + relative, bytes);
    const std::string archive = dir_.path() + "/" + archiveName;
    kest2_cli::PackOptions options;
    options.blockSize = kBlock;
    options.level = level;
    kest2_cli::PackSummary summary;
    std::string error;
    EXPECT_TRUE(kest2_cli::PackDirectory(root, archive, options, &summary, &error)) << error;
    return archive;
  }

  int32_t Mount() {
    const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive_.c_str(), nullptr);
    if (need < 0) return static_cast<int32_t>(need);
    mountBuffer_.assign(static_cast<size_t>(need) / 8 + 1, 0);
    return zulKestArchiveMountSync(nullptr, &mounted_, archive_.c_str(), "/arc",
                                   mountBuffer_.data(), need, nullptr);
  }

  // Reads the whole archived file; its code (the byte count when it worked).
  int64_t ReadAll(const std::string& name, std::vector<uint8_t>* out) {
    out->assign(files_.at(name).size(), 0);
    return zulKestFileReadSync(nullptr, ("/arc/" + name).c_str(), out->data(),
                               static_cast<int64_t>(out->size()), 0);
  }

  // The file reads back whole and exact.
  void ExpectIntact(const std::string& name) {
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadAll(name, &bytes), static_cast<int64_t>(files_.at(name).size())) << name;
    EXPECT_TRUE(bytes == files_.at(name)) << name << " differs from the packed file";
  }

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
  kest2_test::DearchiverWork dearchiver_;
  std::vector<uint64_t> mountBuffer_;
  std::map<std::string, std::vector<uint8_t>> files_;
  std::string archive_;
  ZulKestFH mounted_ = 0;
  kest2_test::ResourceCounts before_;
};

// --- block reads ----------------------------------------------------------------

TEST_F(ArchiveFaultTest, ABlockReadFailingFailsTheReadAndTheNextReadIsWhole) {
  for (uint64_t nth : {1u, 2u, 9u}) {
    SCOPED_TRACE(nth);
    {
      SystemFaults faults;
      faults.Fail(SystemFaults::kPread, nth, EIO);
      std::vector<uint8_t> bytes;
      EXPECT_EQ(ReadAll("a.txt", &bytes), ZUL_KEST_ERROR_MEDIA_GONE);
      EXPECT_EQ(faults.Injected(SystemFaults::kPread), 1u);
    }
    // No block buffer or decompressor is left holding the failed block.
    ExpectIntact("a.txt");
    ExpectIntact("b.txt");
    kest2_test::ExpectResourcesBack(before_);
  }
}

TEST_F(ArchiveFaultTest, ABlockReadFailingUnderConcurrentReadersFailsOnlyItsOwnRead) {
  SystemFaults faults;
  faults.Fail(SystemFaults::kPread, 5, EIO);
  std::vector<std::vector<uint8_t>> buffers(6);
  std::vector<ZulKestOp> ops;
  for (size_t i = 0; i < buffers.size(); ++i) {
    const std::string name = i % 2 == 0 ? "a.txt" : "b.txt";
    buffers[i].assign(files_[name].size(), 0);
    ops.push_back(zulKestFileRead(nullptr, ("/arc/" + name).c_str(), buffers[i].data(),
                                  static_cast<int64_t>(buffers[i].size()), 0));
    ASSERT_NE(ops.back(), 0u);
  }
  int failed = 0;
  for (size_t i = 0; i < ops.size(); ++i) {
    const std::string name = i % 2 == 0 ? "a.txt" : "b.txt";
    const int32_t rc = zulKestOpWait(ops[i]);
    if (rc == ZUL_KEST_ERROR_MEDIA_GONE) {
      ++failed;
    } else {
      EXPECT_EQ(rc, ZUL_KEST_OK) << i;
      EXPECT_TRUE(buffers[i] == files_[name]) << "read " << i << " differs from " << name;
    }
    zulKestOpDelete(ops[i]);
  }
  EXPECT_EQ(failed, 1);
  kest2_test::ExpectResourcesBack(before_);
}

TEST_F(ArchiveFaultTest, ShortBlockReadsAreCompleted) {
  for (uint64_t nth : {1u, 4u}) {
    SCOPED_TRACE(nth);
    SystemFaults faults;
    faults.ShortRead(nth, 10);
    ExpectIntact("a.txt");
  }
  kest2_test::ExpectResourcesBack(before_);
}

TEST_F(ArchiveFaultTest, EveryCallInterruptedOnceChangesNothing) {
  SystemFaults faults;
  faults.InterruptEveryCallOnce();
  ExpectIntact("a.txt");
  ExpectIntact("b.txt");
  EXPECT_GT(faults.Calls(SystemFaults::kPread), 0u);
  kest2_test::ExpectResourcesBack(before_);
}

// --- the archive file changing under the mount ---------------------------------------

// An archive cut short under the mount is a damaged archive: every read
// that needs a block it no longer holds fails with ZUL_KEST_ERROR_BAD_ARCHIVE
// (not the end of the file, whose count would take in the blocks that other
// lanes finished beyond the cut), whether the lost block is compressed or
// stored.
TEST_F(ArchiveFaultTest, TruncatedWhileMountedFailsTheReadsThatNeedTheLostBlocks) {
  const auto expectEveryWholeReadDamaged = [this] {
    for (const auto& entry : files_) {
      std::vector<uint8_t> bytes;
      EXPECT_EQ(ReadAll(entry.first, &bytes), ZUL_KEST_ERROR_BAD_ARCHIVE) << entry.first;
    }
  };
  const int64_t size = static_cast<int64_t>(std::filesystem::file_size(archive_));
  // Inside a.txt's data: its first blocks stay, the rest and b.txt go.
  ASSERT_EQ(::truncate(archive_.c_str(), size / 2), 0);
  expectEveryWholeReadDamaged();
  // What is left still reads, a compressed block and a stored one.
  for (int64_t offset : {int64_t{0}, int64_t{kBlock}}) {
    std::vector<uint8_t> head(kBlock);
    EXPECT_EQ(zulKestFileReadSync(nullptr, "/arc/a.txt", head.data(), kBlock, offset), kBlock);
    EXPECT_TRUE(std::equal(head.begin(), head.end(), files_["a.txt"].begin() + offset));
  }
  // Inside the table of contents: no block is left.
  ASSERT_EQ(::truncate(archive_.c_str(), 200), 0);
  expectEveryWholeReadDamaged();
  kest2_test::ExpectResourcesBack(before_);
}

// A file stored whole (no compressed block at all) is one read of the
// archive file, like a loose file: cut short, it reads short, and every byte
// counted is the file's.
TEST_F(ArchiveFaultTest, TruncatedStoredFileReadsShortWithItsOwnBytes) {
  const std::string archive = PackTree("tree", files_, "stored.zorba", 0);
  const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive.c_str(), nullptr);
  ASSERT_GT(need, 0);
  std::vector<uint64_t> buffer(static_cast<size_t>(need) / 8 + 1);
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestArchiveMountSync(nullptr, &fh, archive.c_str(), "/stored", buffer.data(), need,
                                    nullptr),
            ZUL_KEST_OK);
  ASSERT_EQ(
      ::truncate(archive.c_str(), static_cast<off_t>(std::filesystem::file_size(archive) / 2)), 0);
  for (const auto& [name, file] : files_) {
    std::vector<uint8_t> bytes(file.size());
    const int64_t got = zulKestFileReadSync(nullptr, ("/stored/" + name).c_str(), bytes.data(),
                                            static_cast<int64_t>(bytes.size()), 0);
    EXPECT_GE(got, 0) << name;
    EXPECT_LT(got, static_cast<int64_t>(file.size())) << name;
    if (got > 0) {
      EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + got, file.begin())) << name;
    }
  }
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
  kest2_test::ExpectResourcesBack(before_);
}

TEST_F(ArchiveFaultTest, ReplacedByRenameTheMountKeepsServingTheArchiveItOpened) {
  const std::map<std::string, std::vector<uint8_t>> other = {{"a.txt", Text(16 * kBlock, 7)},
                                                             {"b.txt", Text(3 * kBlock - 100, 8)}};
  const std::string replacement = PackTree("other", other, "other.zorba");
  ASSERT_EQ(std::rename(replacement.c_str(), archive_.c_str()), 0);
  ExpectIntact("a.txt");
  ExpectIntact("b.txt");
  kest2_test::ExpectResourcesBack(before_);
}

TEST_F(ArchiveFaultTest, OverwrittenInPlaceWhileMountedIsADecompressionErrorNotData) {
  // Same length, every compressed byte changed: the table of contents the
  // mount read stays valid, the blocks it points at are garbage.
  std::vector<uint8_t> bytes(std::filesystem::file_size(archive_));
  kest2_common::Random random(5);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  {
    std::fstream out(archive_, std::ios::binary | std::ios::in | std::ios::out);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
  }
  for (const char* name : {"a.txt", "b.txt"}) {
    std::vector<uint8_t> read;
    EXPECT_EQ(ReadAll(name, &read), ZUL_KEST_ERROR_DECOMPRESSION) << name;
  }
  kest2_test::ExpectResourcesBack(before_);
}

}  // namespace
