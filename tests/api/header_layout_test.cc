// The public records are an interface: a caller compiled against these
// layouts must work unchanged, so sizes and offsets are pinned here.

#include <cstddef>
#include <cstring>

#include <gtest/gtest.h>

#include "kest2.h"

static_assert(sizeof(ZulKestParams) == 176, "");
static_assert(sizeof(ZulKestOpAttr) == 48, "");
static_assert(sizeof(ZulKestOpenParams) == 24, "");
static_assert(sizeof(ZulKestBuffer) == 16, "");
static_assert(sizeof(ZulKestStat) == 80, "");
static_assert(sizeof(ZulKestDirEntry) == 1048, "");
static_assert(sizeof(ZulKestResolveRecord) == 1040, "");
static_assert(sizeof(ZulKestOverlay) == 600, "");
static_assert(sizeof(ZulKestZorbaDearchiverContext) == 56, "");
static_assert(sizeof(ZulKestStatistics) == 224, "");

TEST(HeaderLayoutTest, ParamsOffsets) {
  EXPECT_EQ(offsetof(ZulKestParams, debugFlags), 4u);
  EXPECT_EQ(offsetof(ZulKestParams, schedulerCount), 8u);
  EXPECT_EQ(offsetof(ZulKestParams, ioThreadCount), 12u);
  EXPECT_EQ(offsetof(ZulKestParams, reservedMode), 16u);
  EXPECT_EQ(offsetof(ZulKestParams, maxChunk), 20u);
  EXPECT_EQ(offsetof(ZulKestParams, decompressorThreadCount), 24u);
  EXPECT_EQ(offsetof(ZulKestParams, padding), 26u);
  EXPECT_EQ(offsetof(ZulKestParams, extraFlags), 32u);
  EXPECT_EQ(offsetof(ZulKestParams, reserved), 40u);
  EXPECT_EQ(offsetof(ZulKestParams, opStorage), 48u);
  EXPECT_EQ(offsetof(ZulKestParams, opStorageSize), 56u);
  EXPECT_EQ(offsetof(ZulKestParams, fhStorage), 64u);
  EXPECT_EQ(offsetof(ZulKestParams, dhStorage), 80u);
  EXPECT_EQ(offsetof(ZulKestParams, chunkStorage), 96u);
  EXPECT_EQ(offsetof(ZulKestParams, chunkStorageSize), 104u);
  EXPECT_EQ(offsetof(ZulKestParams, pVprintf), 112u);
  EXPECT_EQ(offsetof(ZulKestParams, pMemcpy), 120u);
  EXPECT_EQ(offsetof(ZulKestParams, pEventCallback), 128u);
  EXPECT_EQ(offsetof(ZulKestParams, threadPriority), 136u);
  EXPECT_EQ(offsetof(ZulKestParams, threadAffinity), 148u);
  EXPECT_EQ(offsetof(ZulKestParams, threadStackSize), 160u);
  EXPECT_EQ(offsetof(ZulKestParams, reserved2), 172u);
}

TEST(HeaderLayoutTest, ParamsHeaderWordBits) {
  ZulKestParams params{};
  params.header = ZUL_KEST_PARAMS_HEADER(512);
  EXPECT_EQ(params.header, 0x02000160u);
  EXPECT_EQ(params.initialized, 0u);
  EXPECT_EQ(params.paramsSize, 176u);
  EXPECT_EQ(params.pathMax, 512u);
  params.initialized = 1;
  EXPECT_EQ(params.header, 0x02000161u);
}

TEST(HeaderLayoutTest, OpAttrPriorityAndFlagsShareOneWord) {
  EXPECT_EQ(offsetof(ZulKestOpAttr, pCallback), 8u);
  EXPECT_EQ(offsetof(ZulKestOpAttr, pCallbackContext), 16u);
  EXPECT_EQ(offsetof(ZulKestOpAttr, userTag), 28u);
  EXPECT_EQ(offsetof(ZulKestOpAttr, userPtr), 32u);
  EXPECT_EQ(offsetof(ZulKestOpAttr, reserved), 40u);

  ZulKestOpAttr attr{};
  attr.priority = -2;
  attr.opflags = 0x3FF;
  uint32_t word;
  std::memcpy(&word, reinterpret_cast<const char*>(&attr) + 24, sizeof(word));
  EXPECT_EQ(word, (0x3FFu << 8) | 0xFEu);

  word = 0x12345680u;  // priority is the signed low byte
  std::memcpy(reinterpret_cast<char*>(&attr) + 24, &word, sizeof(word));
  EXPECT_EQ(attr.priority, -128);
  EXPECT_EQ(attr.opflags, 0x123456u);
}

TEST(HeaderLayoutTest, RecordOffsets) {
  EXPECT_EQ(offsetof(ZulKestOpenParams, opflags), 2u);
  EXPECT_EQ(offsetof(ZulKestOpenParams, reserved1), 8u);
  EXPECT_EQ(offsetof(ZulKestOpenParams, reserved2), 16u);
  EXPECT_EQ(offsetof(ZulKestStat, statFlags), 32u);
  EXPECT_EQ(offsetof(ZulKestStat, mode), 72u);
  EXPECT_EQ(offsetof(ZulKestDirEntry, statFlags), 8u);
  EXPECT_EQ(offsetof(ZulKestDirEntry, nameLength), 12u);
  EXPECT_EQ(offsetof(ZulKestDirEntry, fullPathLength), 14u);
  EXPECT_EQ(offsetof(ZulKestDirEntry, offsetToName), 16u);
  EXPECT_EQ(offsetof(ZulKestDirEntry, fullPath), 24u);
  EXPECT_EQ(offsetof(ZulKestOverlay, id), 12u);
  EXPECT_EQ(offsetof(ZulKestOverlay, dst), 16u);
  EXPECT_EQ(offsetof(ZulKestOverlay, src), 308u);
  EXPECT_EQ(offsetof(ZulKestResolveRecord, path), 16u);
  EXPECT_EQ(offsetof(ZulKestStatistics, chunkStorage), 96u);
  EXPECT_EQ(offsetof(ZulKestStatistics, callbackQueue), 192u);
}

TEST(HeaderLayoutTest, StorageUnitSizes) {
  EXPECT_EQ(ZUL_KEST_OP_UNIT_SIZE(1024), 1272u);
  EXPECT_EQ(ZUL_KEST_FH_UNIT_SIZE(1024), 1120u);
  EXPECT_EQ(ZUL_KEST_DH_UNIT_SIZE(1024), 1128u);
  EXPECT_EQ(ZUL_KEST_CHUNK_UNIT_SIZE, 16u);
  // 64 chunks: 1024 bytes of units and one 8-byte bitmap word.
  EXPECT_EQ(ZUL_KEST_STORAGE_SIZE(64, 16), 1032u);
}

TEST(HeaderLayoutTest, ErrorCodesAreNegativeAndDense) {
  EXPECT_LT(ZUL_KEST_ERROR_UNIMPLEMENTED, 0);
  EXPECT_EQ(ZUL_KEST_ERROR_BAD_ARCHIVE - ZUL_KEST_ERROR_UNIMPLEMENTED, 0x1F);
  EXPECT_EQ(static_cast<uint32_t>(ZUL_KEST_ERROR_EXISTS), 0x80820023u);
  EXPECT_EQ(static_cast<uint32_t>(ZUL_KEST_ERROR_RETRY), 0x80820024u);
  // A count-returning function sign-extends errors to 64 bits.
  EXPECT_EQ(static_cast<int64_t>(ZUL_KEST_ERROR_EOF), -2138963952LL);
}
