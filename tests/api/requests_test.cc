// The asynchronous requests' argument checks: each bad argument completes
// the operation at once with its code (the callback has run once, on the
// caller's thread, before the request returns), and only a full operation
// table returns handle 0.

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "test_support.h"

namespace {

struct Check {
  const char* what;
  std::function<ZulKestOp(const ZulKestOpAttr*)> request;
  int32_t expected;
};

int g_callbacks;
int32_t g_lastError;
int CountCallback(void*, ZulKestOp, uint8_t event, int32_t error) {
  if (event == ZUL_KEST_EVENT_COMPLETE) {
    ++g_callbacks;
    g_lastError = error;
  }
  return 0;
}

class RequestsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(16, 4, 4);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    file_ = dir_.path() + "/file";
    ASSERT_EQ(zulKestFileWriteSync(nullptr, file_.c_str(), "0123456789", 10, 0), 10);
    ASSERT_EQ(zulKestFHOpenSync(nullptr, &readOnly_, file_.c_str(), nullptr), ZUL_KEST_OK);
  }
  void TearDown() override {
    zulKestCloseAllFiles();
    zulKestTerminate();
  }

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
  std::string file_;
  ZulKestFH readOnly_ = 0;
};

TEST_F(RequestsTest, BadArgumentsCompleteAtOnceWithTheirCodes) {
  char byte = 0;
  ZulKestStat st;
  ZulKestDirEntry entry;
  ZulKestResolveRecord record{};
  ZulKestDH dh = 0;
  ZulKestFH fh = 0;
  const ZulKestBuffer nine[9] = {};
  const ZulKestBuffer nullBuffer[1] = {{nullptr, 4}};
  ZulKestOpenParams reserved{};
  reserved.openFlags = 0x0040;
  ZulKestOpenParams writing{};
  writing.openFlags = ZUL_KEST_O_WRITE;
  const char* file = file_.c_str();
  const ZulKestFH ro = readOnly_;
  const std::vector<Check> checks = {
      {"read on a stale handle", [&](auto a) { return zulKestFHRead(a, 0x8005, &byte, 1); }, ZUL_KEST_ERROR_BAD_FH},
      {"nine buffers", [&](auto a) { return zulKestFHPreadv(a, ro, nine, 9, 0); }, ZUL_KEST_ERROR_BAD_IOVCNT},
      {"no buffers", [&](auto a) { return zulKestFHPreadv(a, ro, nine, 0, 0); }, ZUL_KEST_ERROR_BAD_IOVCNT},
      {"negative offset", [&](auto a) { return zulKestFHPread(a, ro, &byte, 1, -1); }, ZUL_KEST_ERROR_BAD_OFFSET},
      {"negative length", [&](auto a) { return zulKestFHPread(a, ro, &byte, -1, 0); }, ZUL_KEST_ERROR_BAD_SIZE},
      {"write on a read-only handle", [&](auto a) { return zulKestFHWrite(a, ro, &byte, 1); }, ZUL_KEST_ERROR_READ_ONLY},
      {"null buffer pointer", [&](auto a) { return zulKestFHPreadv(a, ro, nullBuffer, 1, 0); }, ZUL_KEST_ERROR_BAD_PTR},
      {"open with reserved flags", [&](auto a) { return zulKestFHOpen(a, &fh, file, &reserved); }, ZUL_KEST_ERROR_BAD_FLAGS},
      {"open without a handle pointer", [&](auto a) { return zulKestFHOpen(a, nullptr, file, nullptr); }, ZUL_KEST_ERROR_BAD_PTR},
      {"open of a null path", [&](auto a) { return zulKestFHOpen(a, &fh, nullptr, nullptr); }, ZUL_KEST_ERROR_BAD_PATH},
      {"open of an empty path", [&](auto a) { return zulKestFHOpen(a, &fh, "", nullptr); }, ZUL_KEST_ERROR_BAD_PATH},
      {"stat without a record", [&](auto a) { return zulKestStat(a, file, nullptr); }, ZUL_KEST_ERROR_BAD_PTR},
      {"handle stat without a record", [&](auto a) { return zulKestFHStat(a, ro, nullptr); }, ZUL_KEST_ERROR_BAD_PTR},
      {"handle stat on a stale handle", [&](auto a) { return zulKestFHStat(a, 0x8005, &st); }, ZUL_KEST_ERROR_BAD_FH},
      {"exists without an answer", [&](auto a) { return zulKestFileExists(a, file, nullptr); }, ZUL_KEST_ERROR_BAD_PTR},
      {"size without an answer", [&](auto a) { return zulKestFileGetSize(a, file, nullptr); }, ZUL_KEST_ERROR_BAD_PTR},
      {"rename from null", [&](auto a) { return zulKestRename(a, nullptr, file); }, ZUL_KEST_ERROR_BAD_PATH},
      {"rename to an empty path", [&](auto a) { return zulKestRename(a, file, ""); }, ZUL_KEST_ERROR_BAD_PATH},
      {"resolve without a record", [&](auto a) { return zulKestResolve(a, &record, nullptr); }, ZUL_KEST_ERROR_BAD_PTR},
      {"path read without a buffer", [&](auto a) { return zulKestFileRead(a, file, nullptr, 1, 0); }, ZUL_KEST_ERROR_BAD_PTR},
      {"path read at a negative offset", [&](auto a) { return zulKestFileRead(a, file, &byte, 1, -5); }, ZUL_KEST_ERROR_BAD_OFFSET},
      {"listing without a handle pointer", [&](auto a) { return zulKestDHOpen(a, nullptr, "/", nullptr, 0); }, ZUL_KEST_ERROR_BAD_PTR},
      {"listing with a length but no buffer", [&](auto a) { return zulKestDHOpen(a, &dh, "/", nullptr, 8); }, ZUL_KEST_ERROR_BAD_PTR},
      {"entry read on a stale handle", [&](auto a) { return zulKestDHRead(a, 0xC005, &entry); }, ZUL_KEST_ERROR_BAD_DH},
      {"listing close on a stale handle", [&](auto a) { return zulKestDHClose(a, 0xC005); }, ZUL_KEST_ERROR_BAD_DH},
      {"close of a stale handle", [&](auto a) { return zulKestFHClose(a, 0x8005); }, ZUL_KEST_ERROR_BAD_FH},
      {"archive mount for writing", [&](auto a) { return zulKestArchiveMount(a, &fh, file, "/m", nullptr, 0, &writing); }, ZUL_KEST_ERROR_READ_ONLY},
      {"archive mount without a mount point", [&](auto a) { return zulKestArchiveMount(a, &fh, file, nullptr, nullptr, 0, nullptr); }, ZUL_KEST_ERROR_BAD_PTR},
      {"archive query for writing", [&](auto a) { return zulKestArchiveGetMountBufferSize(a, file, &writing); }, ZUL_KEST_ERROR_READ_ONLY},
      {"flags above the valid mask", [&](auto a) {
         ZulKestOpAttr flagged = *a;
         flagged.opflags = 0x400;
         return zulKestFHPread(&flagged, ro, &byte, 1, 0);
       }, ZUL_KEST_ERROR_BAD_FLAGS},
  };
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  attr.pCallback = CountCallback;
  for (const Check& check : checks) {
    g_callbacks = 0;
    const ZulKestOp op = check.request(&attr);
    ASSERT_NE(op, 0u) << check.what;
    EXPECT_EQ(g_callbacks, 1) << check.what;  // before the request returned
    EXPECT_EQ(g_lastError, check.expected) << check.what;
    EXPECT_EQ(zulKestOpGetError(op), check.expected) << check.what;
    zulKestOpDelete(op);
  }
  // Handles that failed requests had created are gone again.
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 1);
  EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 0);
  EXPECT_EQ(fh, 0u);
}

TEST_F(RequestsTest, EmptyTransfersAndSelfRenamesNeedNoFileSystem) {
  const ZulKestBuffer empty[2] = {{nullptr, 0}, {nullptr, 0}};
  ZulKestOp op = zulKestFHPreadv(nullptr, readOnly_, empty, 2, 0);
  EXPECT_TRUE(zulKestOpIsDone(op));
  EXPECT_EQ(zulKestOpGetActualCount(op), 0);
  EXPECT_EQ(zulKestOpSyncWait(op), ZUL_KEST_OK);
  const std::string missing = dir_.path() + "/missing";
  op = zulKestRename(nullptr, missing.c_str(), missing.c_str());
  EXPECT_TRUE(zulKestOpIsDone(op));
  EXPECT_EQ(zulKestOpSyncWait(op), ZUL_KEST_OK);
}

TEST_F(RequestsTest, ShortReadsAndEndOfFile) {
  char buffer[32];
  // A read that crosses the end is short and succeeds; one at or past the
  // end reports ZUL_KEST_ERROR_EOF with nothing read.
  ZulKestOp op = zulKestFHPread(nullptr, readOnly_, buffer, 32, 4);
  EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_OK);
  EXPECT_EQ(zulKestOpGetActualCount(op), 6);
  zulKestOpDelete(op);
  for (int64_t offset : {10, 11}) {
    op = zulKestFHPread(nullptr, readOnly_, buffer, 32, offset);
    EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_ERROR_EOF);
    EXPECT_EQ(zulKestOpGetActualCount(op), 0);
    zulKestOpDelete(op);
  }
  // The synchronous form hands back the count, 0 at the end; reads at the
  // position move it and leave it at the file size.
  EXPECT_EQ(zulKestFHReadSync(nullptr, readOnly_, buffer, 32), 10);
  EXPECT_EQ(zulKestFHTell(readOnly_), 10);
  EXPECT_EQ(zulKestFHReadSync(nullptr, readOnly_, buffer, 32), 0);
  EXPECT_EQ(zulKestFHTell(readOnly_), 10);
  EXPECT_EQ(zulKestFHSeek(readOnly_, -4, ZUL_KEST_SEEK_END), 6);
  EXPECT_EQ(zulKestFHReadSync(nullptr, readOnly_, buffer, 32), 4);
  EXPECT_EQ(std::string(buffer, 4), "6789");
}

TEST_F(RequestsTest, FullTablesGiveTheirCodes) {
  // Four file handles: the one from set-up and three more fill the table.
  std::vector<ZulKestFH> handles;
  for (int i = 0; i < 3; ++i) {
    ZulKestFH fh = 0;
    ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, file_.c_str(), nullptr), ZUL_KEST_OK);
    handles.push_back(fh);
  }
  ZulKestFH fh = 1;
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHOpen(nullptr, &fh, file_.c_str(), nullptr)),
            ZUL_KEST_ERROR_CANT_ALLOCATE_FH);
  EXPECT_EQ(fh, 0u);
  char byte;
  EXPECT_EQ(zulKestOpSyncWait(zulKestFileRead(nullptr, file_.c_str(), &byte, 1, 0)),
            ZUL_KEST_ERROR_CANT_ALLOCATE_FH);

  // Sixteen operations fill the operation table; the next request gets 0
  // and leaves its output alone.
  std::vector<ZulKestOp> ops;
  zulKestSuspend();
  for (int i = 0; i < 16; ++i) ops.push_back(zulKestFHPread(nullptr, readOnly_, &byte, 1, 0));
  fh = 7;
  EXPECT_EQ(zulKestFHOpen(nullptr, &fh, file_.c_str(), nullptr), 0u);
  EXPECT_EQ(fh, 7u);
  EXPECT_EQ(zulKestOpSyncWait(0), ZUL_KEST_ERROR_CANT_ALLOCATE_OP);
  // A negative length is refused before any operation is needed, and the
  // handle's position stays.
  EXPECT_EQ(zulKestFHReadSync(nullptr, readOnly_, &byte, -1), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(zulKestFHWriteSync(nullptr, readOnly_, &byte, -1), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(zulKestFHPreadSync(nullptr, readOnly_, &byte, -1, 0), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(zulKestFHPwriteSync(nullptr, readOnly_, &byte, -1, 0), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(zulKestFHTell(readOnly_), 0);
  zulKestResume();
  for (ZulKestOp op : ops) EXPECT_EQ(zulKestOpSyncWait(op), ZUL_KEST_OK);
}

// A whole-file prefetch works on a handle of its own; every way it can
// fail gives that handle back.  Four rounds of each would exhaust the
// table of four if one were kept.
TEST_F(RequestsTest, FailedPrefetchesGiveTheirHandlesBack) {
  const std::string missing = dir_.path() + "/missing";
  const std::string tooLong(2000, 'x');
  ZulKestOpAttr badFlags;
  zulKestGetDefaultOpAttr(&badFlags);
  badFlags.opflags = 0x400;
  const Check checks[] = {
      {"empty path", [](const ZulKestOpAttr* a) { return zulKestCachePrefetchFile(a, ""); },
       ZUL_KEST_ERROR_BAD_PATH},
      {"null path", [](const ZulKestOpAttr* a) { return zulKestCachePrefetchFile(a, nullptr); },
       ZUL_KEST_ERROR_BAD_PATH},
      {"path too long",
       [&](const ZulKestOpAttr* a) { return zulKestCachePrefetchFile(a, tooLong.c_str()); },
       ZUL_KEST_ERROR_PATH_TOO_LONG},
      {"missing file",
       [&](const ZulKestOpAttr* a) { return zulKestCachePrefetchFile(a, missing.c_str()); },
       ZUL_KEST_ERROR_BAD_PATH},
      {"missing file, range",
       [&](const ZulKestOpAttr* a) {
         return zulKestCachePrefetchFileRange(a, missing.c_str(), 0, 10);
       },
       ZUL_KEST_ERROR_BAD_PATH},
      {"no cache installed to fill",
       [&](const ZulKestOpAttr* a) { return zulKestCachePrefetchFile(a, file_.c_str()); },
       ZUL_KEST_ERROR_UNIMPLEMENTED},
      {"bad flags",
       [&](const ZulKestOpAttr*) { return zulKestCachePrefetchFile(&badFlags, file_.c_str()); },
       ZUL_KEST_ERROR_BAD_FLAGS},
  };
  for (const Check& check : checks) {
    SCOPED_TRACE(check.what);
    for (int round = 0; round < 5; ++round) {
      EXPECT_EQ(zulKestOpSyncWait(check.request(nullptr)), check.expected);
      EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 1);  // the one from set-up
    }
  }
}

}  // namespace
