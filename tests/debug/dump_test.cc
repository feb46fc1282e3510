// Dump texts, byte for byte: tools and people read them.

#include "debug/dump.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>

#include "common/library_storage.h"
#include "core/handletable.h"
#include "core/records.h"
#include "core/stored_path.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2_common::LibraryStorage;

TEST(DumpErrorTest, NamesAndHexFallback) {
  char text[64];
  EXPECT_STREQ(zulKestDebugDumpError(ZUL_KEST_OK, text, sizeof(text)), "ZUL_KEST_OK");
  EXPECT_STREQ(zulKestDebugDumpError(1, text, sizeof(text)), "ZUL_KEST_IN_PROGRESS");
  EXPECT_STREQ(zulKestDebugDumpError(ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK, text, sizeof(text)),
               "ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK");
  EXPECT_STREQ(zulKestDebugDumpError(ZUL_KEST_ERROR_BAD_ARCHIVE, text, sizeof(text)),
               "ZUL_KEST_ERROR_BAD_ARCHIVE");
  EXPECT_STREQ(zulKestDebugDumpError(ZUL_KEST_ERROR_BAD_ARGUMENT, text, sizeof(text)), "0x80820020");
  EXPECT_STREQ(zulKestDebugDumpError(ZUL_KEST_ERROR_RETRY, text, sizeof(text)), "0x80820024");
  EXPECT_STREQ(zulKestDebugDumpError(7, text, sizeof(text)), "0x00000007");
}

TEST(DumpBufferTest, SmallBuffersAreCutAndSharedBuffersRotate) {
  char text[16];
  EXPECT_STREQ(zulKestDebugDumpError(ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK, text, sizeof(text)),
               "ZUL_KEST_ERROR_");
  char untouched[4] = {'x', 'y', 'z', 0};
  EXPECT_EQ(zulKestDebugDumpError(0, untouched, 0), untouched);
  EXPECT_STREQ(untouched, "xyz");

  std::set<char*> seen;
  for (int i = 0; i < 4; ++i) seen.insert(zulKestDebugDumpError(i, nullptr, 0));
  EXPECT_EQ(seen.size(), 4u);
  // Four dumps fit in one line without clobbering each other.
  char line[256];
  std::snprintf(line, sizeof(line), "%s %s %s %s", zulKestDebugDumpError(0, nullptr, 0),
                zulKestDebugDumpError(1, nullptr, 0), zulKestDebugDumpError(7, nullptr, 0),
                zulKestDebugDumpDate(0, nullptr, 0));
  EXPECT_STREQ(line, "ZUL_KEST_OK ZUL_KEST_IN_PROGRESS 0x00000007 1970-01-01 00:00:00 UTC");
}

TEST(DumpDateTest, WholeSecondsAndNanoseconds) {
  char text[64];
  EXPECT_STREQ(zulKestDebugDumpDate(86400000000001ULL, text, sizeof(text)),
               "1970-01-02 00:00:00.000000001 UTC");
  EXPECT_STREQ(zulKestDebugDumpDate(1719792000ULL * 1000000000ULL + 5000000000ULL, text, sizeof(text)),
               "2024-07-01 00:00:05 UTC");
}

int32_t DescribingFilter(void*, int32_t event, void* argument) {
  if (event != ZUL_KEST_IOFILTER_EVENT_GET_DESCRIPTION || argument == nullptr)
    return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
  std::strcpy(static_cast<char*>(argument), "test filter");
  return ZUL_KEST_OK;
}

int32_t SilentFilter(void*, int32_t, void*) { return ZUL_KEST_ERROR_EVENT_NOT_HANDLED; }

TEST(DumpFilterTest, DescriptionOrItsError) {
  char text[256];
  char expected[256];
  int context = 0;
  kest2::DumpFilter(DescribingFilter, &context, text, sizeof(text));
  std::snprintf(expected, sizeof(expected),
                "iofilter 0x%08llX:{ pFilterContext:0x%08llX, desc:\"test filter\" }",
                (unsigned long long)(uintptr_t)&DescribingFilter, (unsigned long long)(uintptr_t)&context);
  EXPECT_STREQ(text, expected);
  kest2::DumpFilter(SilentFilter, nullptr, text, sizeof(text));
  std::snprintf(expected, sizeof(expected),
                "iofilter 0x%08llX:{ pFilterContext:0x00000000, descErr:ZUL_KEST_ERROR_EVENT_NOT_HANDLED }",
                (unsigned long long)(uintptr_t)&SilentFilter);
  EXPECT_STREQ(text, expected);
  kest2::DumpFilter(nullptr, nullptr, text, sizeof(text));
  EXPECT_STREQ(text, "iofilter 0x00000000:{ pFilterContext:0x00000000 }");
}

TEST(DumpTypeNameTest, OperationTypes) {
  EXPECT_STREQ(kest2::OpTypeName(OP_DELETE), "OP_DELETE");
  EXPECT_STREQ(kest2::OpTypeName(OP_SYNC), "OP_SYNC");
  EXPECT_STREQ(kest2::OpTypeName(38), "38");
  EXPECT_STREQ(kest2::OpTypeName(65535), "65535");
}

class HandleDumpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(4, 4, 4);
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }
  void TearDown() override {
    kest2_test::OutputCapture quiet;
    zulKestTerminate();
  }
  LibraryStorage storage_;
};

TEST_F(HandleDumpTest, OperationStates) {
  char text[kest2::kDumpBufferSize];
  EXPECT_STREQ(zulKestDebugDumpOp(0x00014009, text, sizeof(text)), "op 0x00014009:{ state:BOGUS }");
  EXPECT_STREQ(zulKestDebugDumpOp(0x00018000, text, sizeof(text)), "op 0x00018000:{ state:BOGUS }");

  const uint32_t h = kest2::AllocateHandle(kest2::kOpTable);
  auto* op = kest2::Lookup<kest2::Operation>(kest2::kOpTable, h);
  op->what = OP_FH_PREADV;
  op->rootChunk = -1;
  op->targetHandle = 0x00018000;
  op->bufferCount = 2;
  op->buffers[0] = {reinterpret_cast<void*>(0x1000), 100};
  op->buffers[1] = {reinterpret_cast<void*>(0x2000), 28};
  op->actCount = 64;
  op->err = ZUL_KEST_ERROR_EOF;
  op->attr.priority = -3;
  op->attr.deadline = 12345678901LL;
  op->attr.userTag = 0xBEEF;
  ASSERT_TRUE(kest2::SetPath(&op->path, "/data//a.bin", false));
  EXPECT_STREQ(zulKestDebugDumpOp(h, text, sizeof(text)),
               "op 0x00014000:{ what:OP_FH_PREADV, done:0, err:ZUL_KEST_ERROR_EOF, h:0x00018000, "
               "path:\"/data/a.bin\", offset:0, reqCount:128, actCount:64, "
               "buffers:[{ pPtr:0x00001000, length:100 },{ pPtr:0x00002000, length:28 }], "
               "attr:{ priority:-3, deadline:12.345678, userTag:0x0000BEEF } }");

  op->done = 1;
  op->what = OP_STAT;
  op->bufferCount = 0;
  op->offset = 0;
  op->attr = ZulKestOpAttr{};
  op->internalFlags = 0x10;
  op->rootChunk = 5;
  op->targetHandle = 0;
  kest2::ClearPath(&op->path);
  EXPECT_STREQ(zulKestDebugDumpOp(h, text, sizeof(text)),
               "op 0x00014000:{ what:OP_STAT, done:1, err:ZUL_KEST_ERROR_EOF, rootChunk:5, "
               "internalFlags:0x00000010 }");

  kest2::ReleaseHandle(kest2::kOpTable, h);
  EXPECT_STREQ(zulKestDebugDumpOp(h, text, sizeof(text)),
               "op 0x00014000:{ state:DELETED, what:OP_STAT, done:1, err:ZUL_KEST_ERROR_EOF, "
               "rootChunk:5, internalFlags:0x00000010 }");
  // Fill the table so that slot 0 is reused under a new generation.
  uint32_t last = 0;
  for (int i = 0; i < 4; ++i) last = kest2::AllocateHandle(kest2::kOpTable);
  ASSERT_EQ(last & 0x3FFF, 0u);
  EXPECT_STREQ(zulKestDebugDumpOp(h, text, sizeof(text)), "op 0x00014000:{ state:REALLOCATED }");
  for (uint32_t i = 0; i < 4; ++i) {
    uint32_t handles[4];
    zulKestGetAllOps(handles, 4);
    kest2::ReleaseHandle(kest2::kOpTable, handles[0]);
  }
}

TEST_F(HandleDumpTest, FileAndDirectoryHandles) {
  char text[kest2::kDumpBufferSize];
  const uint32_t fh = kest2::AllocateHandle(kest2::kFhTable);
  auto* file = kest2::Lookup<kest2::FileHandle>(kest2::kFhTable, fh);
  file->offset = 10;
  file->size = 4096;
  file->nativeFH = -1;
  EXPECT_STREQ(zulKestDebugDumpFH(fh, text, sizeof(text)),
               "fh 0x00018000:{ offset:10, size:4096, nativeFH:-1 }");
  ASSERT_TRUE(kest2::SetPath(&file->path, "a/../b.txt", false));
  EXPECT_STREQ(zulKestDebugDumpFH(fh, text, sizeof(text)),
               "fh 0x00018000:{ offset:10, size:4096, nativeFH:-1, path:\"b.txt\" }");

  const uint32_t dh = kest2::AllocateHandle(kest2::kDhTable);
  auto* dir = kest2::Lookup<kest2::DirHandle>(kest2::kDhTable, dh);
  dir->nativeDH = 0xABC;
  EXPECT_STREQ(zulKestDebugDumpDH(dh, text, sizeof(text)), "dh 0x0001C000:{ nativeDH:0x00000ABC }");
  kest2::ReleaseHandle(kest2::kDhTable, dh);
  EXPECT_STREQ(zulKestDebugDumpDH(dh, text, sizeof(text)),
               "dh 0x0001C000:{ state:DELETED, nativeDH:0x00000ABC }");
  EXPECT_STREQ(zulKestDebugDumpFH(dh, text, sizeof(text)), "fh 0x0001C000:{ state:BOGUS }");
  kest2::ReleaseHandle(kest2::kFhTable, fh);
}

}  // namespace
