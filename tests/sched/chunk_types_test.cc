// The chunk-type rows: each record's handle and path are found where the
// row says, and the rows' roles are the ones the handle bookkeeping needs.

#include "sched/chunk_types.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace kest2 {
namespace {

// A zeroed record of the type, as big as its footprint.
template <typename Record>
Record* Blank(unsigned char (&bytes)[128], uint8_t type) {
  std::memset(bytes, 0, sizeof(bytes));
  Record* record = reinterpret_cast<Record*>(bytes);
  record->header.type = type;
  return record;
}

TEST(ChunkTypesTest, HandleAndPathAreReadFromTheRecordsOwnFields) {
  alignas(8) unsigned char bytes[128];
  const StoredPath* path = reinterpret_cast<const StoredPath*>(0x1234);
  auto open = Blank<ChunkFhOpenRecord>(bytes, CHUNK_FH_OPEN);
  open->h = 7;
  open->path = path;
  EXPECT_EQ(RecordHandle(&open->header), 7u);
  EXPECT_EQ(RecordPath(&open->header), path);
  auto read = Blank<ChunkFhIoRecord>(bytes, CHUNK_FH_WRITE);
  read->h = 8;
  EXPECT_EQ(RecordHandle(&read->header), 8u);
  EXPECT_EQ(RecordPath(&read->header), nullptr);
  auto stat = Blank<ChunkStatRecord>(bytes, CHUNK_STAT);
  stat->h = 9;
  stat->path = path;
  EXPECT_EQ(RecordHandle(&stat->header), 9u);
  EXPECT_EQ(RecordPath(&stat->header), path);
  auto truncate = Blank<ChunkTruncateRecord>(bytes, CHUNK_TRUNCATE);
  truncate->h = 10;
  truncate->path = path;
  EXPECT_EQ(RecordHandle(&truncate->header), 10u);
  EXPECT_EQ(RecordPath(&truncate->header), path);
  auto mount = Blank<ChunkArchiveRecord>(bytes, CHUNK_ARCHIVE_MOUNT);
  mount->h = 11;
  mount->path = path;
  EXPECT_EQ(RecordHandle(&mount->header), 11u);
  EXPECT_EQ(RecordPath(&mount->header), path);
  auto rename = Blank<ChunkRenameRecord>(bytes, CHUNK_RENAME);
  rename->path = path;
  EXPECT_EQ(RecordHandle(&rename->header), 0u);
  EXPECT_EQ(RecordPath(&rename->header), path);
}

TEST(ChunkTypesTest, RolesMatchTheHandleBookkeeping) {
  // Reads, writes, barriers and syncs count as their handle's pending I/O;
  // closes wait for it; opens mark it opened; nothing else touches it.
  for (int type = 0; type < kChunkTypeCount; ++type) {
    const ChunkTypeRow& row = kChunkTypes[type];
    const std::string name = row.name;
    HandleRole expected = HandleRole::kNone;
    if (name == "CHUNK_FH_OPEN" || name == "CHUNK_DH_OPEN") expected = HandleRole::kOpens;
    if (name == "CHUNK_FH_CLOSE" || name == "CHUNK_DH_CLOSE") expected = HandleRole::kCloses;
    if (name == "CHUNK_FH_READ" || name == "CHUNK_FH_WRITE" || name == "CHUNK_FH_BARRIER" ||
        name == "CHUNK_FH_SYNC" || name == "CHUNK_DH_READ" || name == "CHUNK_DH_READ_BULK")
      expected = HandleRole::kUses;
    EXPECT_EQ(row.role, expected) << name;
    if (row.role != HandleRole::kNone) {
      EXPECT_EQ(row.table, name.compare(0, 9, "CHUNK_FH_") == 0 ? kFhTable : kDhTable) << name;
      EXPECT_GE(row.handleAt, 0) << name;
    }
  }
}

TEST(ChunkTypesTest, NamesOutsideTheTableAreTheirNumber) {
  EXPECT_STREQ(ChunkTypeName(CHUNK_ARCHIVE_UNMOUNT), "CHUNK_ARCHIVE_UNMOUNT");
  EXPECT_STREQ(ChunkTypeName(kChunkTypeCount), "36");
  EXPECT_STREQ(ChunkTypeName(255), "255");
}

}  // namespace
}  // namespace kest2
