// The synchronous functions through the engine and on their direct path
// (before initialisation, and for descriptor-backed handles), seek and tell,
// and the descriptor table's limits.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "test_support.h"

namespace {

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs the same checks with and without the engine.
class SyncRequestsTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam()) {
      ZulKestParams params = storage_.MakeParams();
      params.pVprintf = kest2_test::OutputCapture::Hook();
      ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    }
  }
  void TearDown() override {
    if (zulKestIsInitialized(nullptr)) zulKestTerminate();
  }
  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
};

TEST_P(SyncRequestsTest, PathFunctionsRoundTrip) {
  const std::string sub = Path("sub");
  EXPECT_EQ(zulKestDirectoryCreateSync(nullptr, sub.c_str()), ZUL_KEST_OK);
  EXPECT_TRUE(zulKestDirectoryExistsSync(nullptr, sub.c_str()));
  EXPECT_FALSE(zulKestFileExistsSync(nullptr, sub.c_str()));
  const std::string file = sub + "/data";
  EXPECT_EQ(zulKestFileWriteSync(nullptr, file.c_str(), "0123456789", 10, 0), 10);
  EXPECT_TRUE(zulKestFileExistsSync(nullptr, file.c_str()));
  EXPECT_TRUE(zulKestExistsSync(nullptr, file.c_str()));
  EXPECT_EQ(zulKestFileGetSizeSync(nullptr, file.c_str()), 10);
  // A directory has no file size: the engine says so, the direct path
  // answers 0 for anything that is not a regular file.
  EXPECT_EQ(zulKestFileGetSizeSync(nullptr, sub.c_str()), GetParam() ? ZUL_KEST_ERROR_NOT_A_FILE : 0);

  char buffer[16] = {};
  // A read past the end returns the partial count.
  EXPECT_EQ(zulKestFileReadSync(nullptr, file.c_str(), buffer, 16, 4), 6);
  EXPECT_STREQ(buffer, "456789");
  EXPECT_EQ(zulKestFileReadSync(nullptr, file.c_str(), nullptr, 4, 0), ZUL_KEST_ERROR_BAD_PTR);

  ZulKestStat st;
  EXPECT_EQ(zulKestStatSync(nullptr, file.c_str(), &st), ZUL_KEST_OK);
  EXPECT_EQ(st.fileSize, 10);
  EXPECT_EQ(st.statFlags & ZUL_KEST_STAT_DIRECTORY, 0u);
  EXPECT_NE(st.modificationDate, 0);
  EXPECT_EQ(zulKestStatSync(nullptr, sub.c_str(), &st), ZUL_KEST_OK);
  EXPECT_NE(st.statFlags & ZUL_KEST_STAT_DIRECTORY, 0u);
  EXPECT_EQ(zulKestStatSync(nullptr, file.c_str(), nullptr), ZUL_KEST_ERROR_BAD_PTR);

  EXPECT_EQ(zulKestFileTruncateSync(nullptr, file.c_str(), 3), ZUL_KEST_OK);
  EXPECT_EQ(ReadText(file), "012");
  const std::string renamed = sub + "/renamed";
  EXPECT_EQ(zulKestRenameSync(nullptr, file.c_str(), renamed.c_str()), ZUL_KEST_OK);
  EXPECT_FALSE(zulKestExistsSync(nullptr, file.c_str()));
  EXPECT_EQ(zulKestRenameSync(nullptr, nullptr, renamed.c_str()), ZUL_KEST_ERROR_BAD_PATH);

  // A directory that is not empty stays.
  EXPECT_NE(zulKestDirectoryDeleteSync(nullptr, sub.c_str()), ZUL_KEST_OK);
  EXPECT_EQ(zulKestDeleteSync(nullptr, renamed.c_str()), ZUL_KEST_OK);
  EXPECT_EQ(zulKestDeleteSync(nullptr, sub.c_str()), ZUL_KEST_OK);
  EXPECT_FALSE(zulKestExistsSync(nullptr, sub.c_str()));
  EXPECT_EQ(zulKestFileDeleteSync(nullptr, renamed.c_str()), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_LT(zulKestFileGetSizeSync(nullptr, renamed.c_str()), 0);
}

TEST_P(SyncRequestsTest, FileHandleFunctionsReadWriteSeekAndStat) {
  const std::string file = Path("handle");
  WriteText(file, std::string(100, 'a'));
  ZulKestOpenParams params{};
  params.openFlags = ZUL_KEST_O_READ | ZUL_KEST_O_WRITE;
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, file.c_str(), &params), ZUL_KEST_OK);
  ASSERT_NE(fh, 0u);
  EXPECT_EQ(zulKestFHReadSync(nullptr, fh, nullptr, -1), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(zulKestFHSeek(fh, 10, ZUL_KEST_SEEK_END), 110);
  EXPECT_EQ(zulKestFHTell(fh), 110);
  EXPECT_EQ(zulKestFHSeek(fh, 0, ZUL_KEST_SEEK_SET), 0);
  EXPECT_EQ(zulKestFHWriteSync(nullptr, fh, "xyzw", 4), 4);
  EXPECT_EQ(zulKestFHTell(fh), 4);
  EXPECT_EQ(zulKestFHPwriteSync(nullptr, fh, "QRST", 4, 96), 4);

  char first[4], second[4];
  const ZulKestBuffer iov[2] = {{first, 4}, {second, 4}};
  EXPECT_EQ(zulKestFHPreadvSync(nullptr, fh, iov, 2, 0), 8);
  EXPECT_EQ(std::memcmp(first, "xyzw", 4), 0);
  EXPECT_EQ(std::memcmp(second, "aaaa", 4), 0);
  EXPECT_EQ(zulKestFHReadvSync(nullptr, fh, nullptr, 2), ZUL_KEST_ERROR_BAD_PTR);
  char tail[8] = {};
  EXPECT_EQ(zulKestFHPreadSync(nullptr, fh, tail, 8, 96), 4);
  EXPECT_EQ(std::memcmp(tail, "QRST", 4), 0);

  ZulKestStat st;
  EXPECT_EQ(zulKestFHStatSync(nullptr, fh, &st), ZUL_KEST_OK);
  EXPECT_EQ(st.fileSize, 100);
  EXPECT_EQ(zulKestFHSyncSync(nullptr, fh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

// -1 is an offset like any other negative one: refused, never taken to
// mean the current position, which stays where it was, and the file with it.
TEST_P(SyncRequestsTest, PositionalTransfersAtMinusOneAreRefused) {
  const std::string file = Path("positions");
  WriteText(file, "0123456789");
  ZulKestOpenParams params{};
  params.openFlags = ZUL_KEST_O_READ | ZUL_KEST_O_WRITE;
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, file.c_str(), &params), ZUL_KEST_OK);
  char two[2];
  ASSERT_EQ(zulKestFHReadSync(nullptr, fh, two, 2), 2);

  EXPECT_EQ(zulKestFHPwriteSync(nullptr, fh, "X", 1, -1), ZUL_KEST_ERROR_BAD_OFFSET);
  char y = 'Y';
  const ZulKestBuffer out[1] = {{&y, 1}};
  EXPECT_EQ(zulKestFHPwritevSync(nullptr, fh, out, 1, -1), ZUL_KEST_ERROR_BAD_OFFSET);
  // A read there fails too (the engine refuses the offset, the system its
  // argument) and fills nothing.
  char byte = 0;
  EXPECT_LT(zulKestFHPreadSync(nullptr, fh, &byte, 1, -1), 0);
  const ZulKestBuffer in[1] = {{&byte, 1}};
  EXPECT_LT(zulKestFHPreadvSync(nullptr, fh, in, 1, -1), 0);
  EXPECT_EQ(byte, 0);

  EXPECT_EQ(zulKestFHTell(fh), 2);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
  EXPECT_EQ(ReadText(file), "0123456789");
}

INSTANTIATE_TEST_SUITE_P(EngineAndDirect, SyncRequestsTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "ThroughTheEngine" : "BeforeInitialisation";
                         });

class DescriptorHandlesTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (zulKestIsInitialized(nullptr)) zulKestTerminate();
  }
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
};

TEST_F(DescriptorHandlesTest, HandleOpenedBeforeInitialisationKeepsWorkingAfterIt) {
  const std::string file = dir_.path() + "/early";
  WriteText(file, "abcdefgh");
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, file.c_str(), nullptr), ZUL_KEST_OK);
  EXPECT_EQ(fh & 0x7FFFC000u, 0x7FFF8000u);
  EXPECT_EQ(zulKestFHTruncateSync(nullptr, fh, 0), ZUL_KEST_ERROR_UNIMPLEMENTED);

  ZulKestParams params = storage_.MakeParams();
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  char first[4], second[4];
  const ZulKestBuffer iov[2] = {{first, 4}, {second, 4}};
  EXPECT_EQ(zulKestFHReadvSync(nullptr, fh, iov, 2), 8);
  EXPECT_EQ(std::memcmp(first, "abcd", 4), 0);
  EXPECT_EQ(std::memcmp(second, "efgh", 4), 0);
  EXPECT_EQ(zulKestFHTell(fh), 8);
  EXPECT_EQ(zulKestFHSeek(fh, 2, ZUL_KEST_SEEK_SET), 2);
  char two[2];
  EXPECT_EQ(zulKestFHReadSync(nullptr, fh, two, 2), 2);
  EXPECT_EQ(std::memcmp(two, "cd", 2), 0);
  ZulKestStat st;
  EXPECT_EQ(zulKestFHStatSync(nullptr, fh, &st), ZUL_KEST_OK);
  EXPECT_EQ(st.fileSize, 8);
  EXPECT_GE(zulKestFHToFileno(fh), 0);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestFHToFileno(fh), -1);
}

TEST_F(DescriptorHandlesTest, TableHoldsTwoHundredFiftySixDescriptors) {
  EXPECT_EQ(zulKestFilenoToFH(-1), 0u);
  EXPECT_TRUE(zulKestIsValidHandle(0x7FFF8005));
  std::vector<ZulKestFH> handles;
  for (int i = 0; i < 256; ++i) {
    handles.push_back(zulKestFilenoToFH(1000 + i));
    ASSERT_NE(handles.back(), 0u);
  }
  EXPECT_EQ(zulKestFilenoToFH(2000), 0u);
  // Opening a file when every slot is taken closes the descriptor again.
  ZulKestFH extra = 1;
  EXPECT_EQ(zulKestFHOpenSync(nullptr, &extra, "/dev/null", nullptr),
            ZUL_KEST_ERROR_CANT_ALLOCATE_FH);
  EXPECT_EQ(extra, 0u);
  for (ZulKestFH h : handles) zulKestDeallocateFileno(h);  // the descriptors were never real
  EXPECT_NE(zulKestFilenoToFH(2000), 0u);
  zulKestDeallocateFileno(0x7FFF8000);
}

TEST_F(DescriptorHandlesTest, ConcurrentWritersThenReadersLoseNoByte) {
  ZulKestParams params = storage_.MakeParams(256, 64, 16, 1024, 8192);
  params.ioThreadCount = 3;
  params.maxChunk = 16384;
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  const std::string file = dir_.path() + "/shared";
  ZulKestOpenParams openParams{};
  openParams.openFlags = ZUL_KEST_O_READ | ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT;
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, file.c_str(), &openParams), ZUL_KEST_OK);
  constexpr int kThreads = 6;
  constexpr int kBlocks = 30;
  constexpr int kBlockSize = 20000;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<char> block(kBlockSize);
      for (int b = 0; b < kBlocks; ++b) {
        std::memset(block.data(), 'A' + (t * kBlocks + b) % 26, kBlockSize);
        const int64_t offset = static_cast<int64_t>(b * kThreads + t) * kBlockSize;
        if (zulKestFHPwriteSync(nullptr, fh, block.data(), kBlockSize, offset) != kBlockSize)
          ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  threads.clear();
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<char> block(kBlockSize);
      for (int b = 0; b < kBlocks; ++b) {
        const int64_t offset = static_cast<int64_t>(b * kThreads + t) * kBlockSize;
        const char expected = static_cast<char>('A' + (t * kBlocks + b) % 26);
        if (zulKestFHPreadSync(nullptr, fh, block.data(), kBlockSize, offset) != kBlockSize ||
            std::count(block.begin(), block.end(), expected) != kBlockSize) {
          ++failures;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(zulKestFHGetSize(fh), int64_t{kThreads} * kBlocks * kBlockSize);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

}  // namespace
