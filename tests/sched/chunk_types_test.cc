// The chunk-type rows: each record's handle and path are found where the
// row says, and the rows' roles are the ones the handle bookkeeping needs.

#include "sched/chunk_types.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace kest2 {
namespace {

// Whether a record type has a handle field `h` / a path field `path`.
template <typename T, typename = void>
struct HasHandle : std::false_type {};
template <typename T>
struct HasHandle<T, std::void_t<decltype(T::h)>> : std::true_type {};
template <typename T, typename = void>
struct HasPath : std::false_type {};
template <typename T>
struct HasPath<T, std::void_t<decltype(T::path)>> : std::true_type {};

// Fills a zeroed record of the type with handle h and path (where the
// record has them), then reads both back through the row.
template <typename Record>
void ExpectRead(uint8_t type, uint32_t h, const StoredPath* path) {
  alignas(8) unsigned char bytes[128] = {};
  Record* record = reinterpret_cast<Record*>(bytes);
  record->header.type = type;
  if constexpr (HasHandle<Record>::value) record->h = h;
  if constexpr (HasPath<Record>::value) record->path = path;
  EXPECT_EQ(RecordHandle(&record->header), HasHandle<Record>::value ? h : 0u)
      << ChunkTypeName(type);
  EXPECT_EQ(RecordPath(&record->header), HasPath<Record>::value ? path : nullptr)
      << ChunkTypeName(type);
}

TEST(ChunkTypesTest, HandleAndPathAreReadFromTheRecordsOwnFields) {
  const StoredPath* path = reinterpret_cast<const StoredPath*>(0x1234);
  ExpectRead<ChunkFhOpenRecord>(CHUNK_FH_OPEN, 7, path);
  ExpectRead<ChunkFhIoRecord>(CHUNK_FH_WRITE, 8, path);
  ExpectRead<ChunkStatRecord>(CHUNK_STAT, 9, path);
  ExpectRead<ChunkTruncateRecord>(CHUNK_TRUNCATE, 10, path);
  ExpectRead<ChunkArchiveRecord>(CHUNK_ARCHIVE_MOUNT, 11, path);
  ExpectRead<ChunkRenameRecord>(CHUNK_RENAME, 12, path);
  ExpectRead<ChunkHandleRecord>(CHUNK_ARCHIVE_UNMOUNT, 13, path);
  ExpectRead<ChunkDhReadRecord>(CHUNK_DH_READ_BULK, 14, path);
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
