// The system failing the library, one call at a time, through the system
// call table: the real engine on real files, with each fault switched on at
// the Nth call.  Every test checks the exact code the caller gets, that no
// byte is reported that was not read or written, and that the operation,
// handle and chunk pools and the process's descriptors are back where they
// started.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "core/system_faults.h"
#include "io/native_dir_buffer.h"
#include "io/overlay_dir_listing.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2_test::SystemFaults;

constexpr uint32_t kPiece = 64 * 1024;
// What a listing of a directory without overlays needs.
constexpr int64_t kListingBuffer =
    kest2::kNativeDirBufferSize + kest2::ListingStorageFor(sizeof(kest2::OverlayDirListing));

std::vector<char> Pattern(size_t size, int seed) {
  std::vector<char> bytes(size);
  for (size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<char>((i * 131 + static_cast<size_t>(seed) * 7) % 251);
  return bytes;
}

void WriteBytes(const std::string& path, const std::vector<char>& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<char> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

class SystemFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(128, 64, 16, 1024, 4096);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.maxChunk = kPiece;  // reads and writes split into 64 KiB pieces
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    before_ = kest2_test::ResourceCounts::Settled();
  }
  void TearDown() override {
    if (zulKestIsInitialized(nullptr)) zulKestTerminate();
  }

  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }

  // A handle opened through the engine; 0, with the failure recorded, when
  // the open did not succeed.
  ZulKestFH OpenHandle(const std::string& path, uint16_t openFlags = ZUL_KEST_O_READ) {
    ZulKestOpenParams open{};
    open.openFlags = openFlags;
    ZulKestFH fh = 0;
    EXPECT_EQ(zulKestFHOpenSync(nullptr, &fh, path.c_str(), &open), ZUL_KEST_OK);
    return fh;
  }

  // Nothing the faults touched stays taken: everything is back at its
  // count from SetUp.
  void ExpectNothingLeaked() { kest2_test::ExpectResourcesBack(before_); }

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
  kest2_test::ResourceCounts before_;
};

// --- pread ----------------------------------------------------------------------

TEST_F(SystemFaultTest, EioOnOnePieceFailsTheWholeSplitReadAndLeaksNothing) {
  const std::string path = Path("data");
  WriteBytes(path, Pattern(16 * kPiece, 1));
  for (uint64_t nth : {1u, 3u, 16u}) {
    SCOPED_TRACE(nth);
    SystemFaults faults;
    const ZulKestFH fh = OpenHandle(path);
    ASSERT_NE(fh, 0u);
    std::vector<char> buffer(16 * kPiece);
    faults.Fail(SystemFaults::kPread, nth, EIO);
    const ZulKestOp op = zulKestFHPread(nullptr, fh, buffer.data(), buffer.size(), 0);
    ASSERT_NE(op, 0u);
    EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_ERROR_MEDIA_GONE);
    EXPECT_EQ(zulKestOpGetError(op), ZUL_KEST_ERROR_MEDIA_GONE);
    EXPECT_EQ(faults.Injected(SystemFaults::kPread), 1u);
    zulKestOpDelete(op);
    // The handle survives the failed read and reads again once the device does.
    EXPECT_EQ(zulKestFHPreadSync(nullptr, fh, buffer.data(), buffer.size(), 0),
              static_cast<int64_t>(buffer.size()));
    EXPECT_EQ(buffer, Pattern(16 * kPiece, 1));
    EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
    ExpectNothingLeaked();
  }
}

TEST_F(SystemFaultTest, ShortReadInsideTheFileIsCompletedNotCountedAsData) {
  const std::string path = Path("data");
  const std::vector<char> source = Pattern(4 * kPiece, 2);
  WriteBytes(path, source);
  SystemFaults faults;
  const ZulKestFH fh = OpenHandle(path);
  ASSERT_NE(fh, 0u);
  // The second piece comes back with 100 bytes, far from the end of file.
  faults.ShortRead(2, 100);
  std::vector<char> buffer(source.size(), 0);
  const int64_t got = zulKestFHPreadSync(nullptr, fh, buffer.data(), buffer.size(), 0);
  // The rest of the short piece is read too: every byte counted is the file's.
  EXPECT_EQ(got, static_cast<int64_t>(source.size()));
  EXPECT_EQ(buffer, source);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
  ExpectNothingLeaked();
}

// The synchronous twins go straight to the system while the library is not
// initialised; a short read there is completed as the engine's pieces are.
TEST_F(SystemFaultTest, ShortReadOnTheDirectPathIsCompletedToo) {
  const std::string path = Path("direct");
  const std::vector<char> source = Pattern(3 * kPiece, 9);
  WriteBytes(path, source);
  zulKestTerminate();
  std::vector<char> buffer(source.size(), 0);
  {
    SystemFaults faults;
    faults.ShortRead(1, 100);
    EXPECT_EQ(zulKestFileReadSync(nullptr, path.c_str(), buffer.data(), buffer.size(), 0),
              static_cast<int64_t>(source.size()));
    EXPECT_EQ(buffer, source);
    EXPECT_EQ(faults.Calls(SystemFaults::kPread), 2u);
  }
  // A failure after some bytes moved reports the bytes; one before any, the
  // failure's code.
  SystemFaults faults;
  faults.ShortRead(1, 100);
  faults.Fail(SystemFaults::kPread, 2, EIO);
  EXPECT_EQ(zulKestFileReadSync(nullptr, path.c_str(), buffer.data(), buffer.size(), 0), 100);
  faults.Fail(SystemFaults::kPread, 1, EIO);
  EXPECT_EQ(zulKestFileReadSync(nullptr, path.c_str(), buffer.data(), buffer.size(), 0),
            ZUL_KEST_ERROR_MEDIA_GONE);
}

// --- EINTR ------------------------------------------------------------------------

TEST_F(SystemFaultTest, EveryCallInterruptedOnceGivesTheSameResults) {
  const std::string path = Path("data");
  const std::vector<char> source = Pattern(5 * kPiece + 17, 3);
  SystemFaults faults;
  faults.InterruptEveryCallOnce();
  EXPECT_EQ(zulKestFileWriteSync(nullptr, path.c_str(), source.data(), source.size(), 0),
            static_cast<int64_t>(source.size()));
  std::vector<char> buffer(source.size());
  EXPECT_EQ(zulKestFileReadSync(nullptr, path.c_str(), buffer.data(), buffer.size(), 0),
            static_cast<int64_t>(source.size()));
  EXPECT_EQ(buffer, source);
  ZulKestStat st;
  EXPECT_EQ(zulKestStatSync(nullptr, path.c_str(), &st), ZUL_KEST_OK);
  EXPECT_EQ(st.fileSize, static_cast<int64_t>(source.size()));
  const ZulKestFH fh = OpenHandle(path);
  ASSERT_NE(fh, 0u);
  EXPECT_EQ(zulKestFHSyncSync(nullptr, fh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
  EXPECT_GT(faults.Calls(SystemFaults::kPread), 0u);
  EXPECT_GT(faults.Calls(SystemFaults::kPwrite), 0u);
  ExpectNothingLeaked();
}

// --- pwrite -----------------------------------------------------------------------

TEST_F(SystemFaultTest, DiskFullOnOnePieceFailsTheWriteAndKeepsTheBytesBefore) {
  for (int err : {ENOSPC, EDQUOT}) {
    SCOPED_TRACE(err);
    const std::string path = Path("out" + std::to_string(err));
    const std::vector<char> source = Pattern(8 * kPiece, 4);
    SystemFaults faults;
    const ZulKestFH fh = OpenHandle(path, ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT);
    ASSERT_NE(fh, 0u);
    faults.Fail(SystemFaults::kPwrite, 4, err);
    const ZulKestOp op = zulKestFHPwrite(nullptr, fh, source.data(), source.size(), 0);
    ASSERT_NE(op, 0u);
    EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_ERROR_BAD_SIZE);
    zulKestOpDelete(op);
    EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
    // The pieces written before the failure are on disk as they were sent.
    const std::vector<char> onDisk = ReadBytes(path);
    ASSERT_GE(onDisk.size(), 3u * kPiece);
    EXPECT_TRUE(std::equal(onDisk.begin(), onDisk.begin() + 3 * kPiece, source.begin()));
    ExpectNothingLeaked();
  }
}

// --- getdents -----------------------------------------------------------------------

TEST_F(SystemFaultTest, ListingThatFailsHalfWayReportsTheFailureAndReleasesTheHandle) {
  const std::string sub = Path("many");
  ASSERT_EQ(zulKestDirectoryCreateSync(nullptr, sub.c_str()), ZUL_KEST_OK);
  // Enough names that the kernel hands them out in more than one batch.
  for (int i = 0; i < 3000; ++i) {
    std::ofstream(sub + "/a-rather-long-file-name-to-fill-the-buffer-" + std::to_string(i)) << i;
  }
  SystemFaults faults;
  faults.Fail(SystemFaults::kGetdents, 2, EIO);
  ZulKestDH dh = 0;
  std::vector<uint64_t> listing((kListingBuffer + 7) / 8);
  ASSERT_EQ(zulKestDHOpenSync(nullptr, &dh, sub.c_str(), listing.data(), kListingBuffer),
            ZUL_KEST_OK);
  ZulKestDirEntry entry;
  int32_t rc;
  int listed = 0;
  while ((rc = zulKestDHReadSync(nullptr, dh, &entry)) == ZUL_KEST_OK) ++listed;
  EXPECT_EQ(rc, ZUL_KEST_ERROR_MEDIA_GONE);
  EXPECT_GT(listed, 0);
  EXPECT_LT(listed, 3000);
  EXPECT_EQ(faults.Injected(SystemFaults::kGetdents), 1u);
  EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
  ExpectNothingLeaked();
}

// --- open ------------------------------------------------------------------------

TEST_F(SystemFaultTest, DescriptorsRunningOutFailOnlyTheRequestsThatMetIt) {
  constexpr int kFiles = 32;
  std::vector<std::vector<char>> sources;
  for (int i = 0; i < kFiles; ++i) {
    sources.push_back(Pattern(3000 + static_cast<size_t>(i) * 100, i));
    WriteBytes(Path("f" + std::to_string(i)), sources.back());
  }
  for (int err : {EMFILE, ENFILE}) {
    SCOPED_TRACE(err);
    SystemFaults faults;
    faults.Fail(SystemFaults::kOpen, 5, err, 6);  // opens 5 to 10 fail
    std::vector<std::vector<char>> buffers(kFiles, std::vector<char>(8192, 0));
    std::vector<ZulKestOp> ops;
    for (int i = 0; i < kFiles; ++i) {
      const std::string path = Path("f" + std::to_string(i));
      ops.push_back(
          zulKestFileRead(nullptr, path.c_str(), buffers[i].data(), sources[i].size(), 0));
      ASSERT_NE(ops.back(), 0u);
    }
    int failed = 0;
    for (int i = 0; i < kFiles; ++i) {
      const int32_t rc = zulKestOpWait(ops[i]);
      if (rc == ZUL_KEST_ERROR_CANT_ALLOCATE_FH) {
        ++failed;
      } else {
        EXPECT_EQ(rc, ZUL_KEST_OK);
        EXPECT_EQ(zulKestOpGetActualCount(ops[i]), static_cast<int64_t>(sources[i].size()));
        EXPECT_TRUE(std::equal(sources[i].begin(), sources[i].end(), buffers[i].begin())) << i;
      }
      zulKestOpDelete(ops[i]);
    }
    EXPECT_EQ(failed, 6);
    ExpectNothingLeaked();
  }
}

// --- fsync and close ----------------------------------------------------------------

TEST_F(SystemFaultTest, FailingSyncAndCloseReportTheirCodesAndReleaseTheHandle) {
  const std::string path = Path("synced");
  WriteBytes(path, Pattern(1000, 5));
  SystemFaults faults;
  const ZulKestFH fh = OpenHandle(path, ZUL_KEST_O_READ | ZUL_KEST_O_WRITE);
  ASSERT_NE(fh, 0u);
  faults.Fail(SystemFaults::kFsync, 1, EIO);
  EXPECT_EQ(zulKestFHSyncSync(nullptr, fh), ZUL_KEST_ERROR_MEDIA_GONE);
  EXPECT_EQ(zulKestFHSyncSync(nullptr, fh), ZUL_KEST_OK);
  faults.Fail(SystemFaults::kClose, 1, EIO);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_ERROR_MEDIA_GONE);
  // The handle is gone all the same: using it again is a bad handle.
  char byte;
  EXPECT_EQ(zulKestFHPreadSync(nullptr, fh, &byte, 1, 0), ZUL_KEST_ERROR_BAD_FH);
  ExpectNothingLeaked();
}

}  // namespace
