// What the engine knows of each chunk type, one row a type: its name, the
// storage its record takes, where the record keeps its handle and its path,
// and what the chunk does to its handle (opens it, uses it, closes it).
// Storage, readiness, execution and dumps read these rows instead of
// switching on the type each in their own way.
#ifndef KEST2_SRC_SCHED_CHUNK_TYPES_H_
#define KEST2_SRC_SCHED_CHUNK_TYPES_H_

#include <cstddef>
#include <cstdint>

#include "core/handletable.h"
#include "core/stored_path.h"
#include "sched/chunk.h"

namespace kest2 {

// What a chunk does to the file or directory handle it names.
enum class HandleRole : uint8_t {
  kNone,    // nothing the engine tracks
  kOpens,   // marks the handle opened when it has run
  kUses,    // waits until the handle is opened; counts as its pending I/O
  kCloses,  // waits until the handle is opened and its pending I/O is done
};

struct ChunkTypeRow {
  ChunkType type;      // the row's own type: rows are in type order
  const char* name;    // "CHUNK_FH_READ" and so on
  uint16_t footprint;  // bytes of the record, header included; a buffer adds its data
  int8_t handleAt;     // offset of the record's uint32_t handle, -1 when it has none
  int8_t pathAt;       // offset of the record's const StoredPath*, -1 when none
  int8_t table;        // the handle's table when role is not kNone, else -1
  HandleRole role;
};

#define KEST2_AT(record, field) static_cast<int8_t>(offsetof(record, field))

inline constexpr ChunkTypeRow kChunkTypes[kChunkTypeCount] = {
    // clang-format off
    // type                  name                     bytes handle                                    path                                          table     role
    {CHUNK_NULL,            "CHUNK_NULL",             24,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_ROOT,            "CHUNK_ROOT",             32,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_PARENT,          "CHUNK_PARENT",           32,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_CHILD,           "CHUNK_CHILD",            40,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_CALLBACK,        "CHUNK_CALLBACK",         104, -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_BUFFER,          "CHUNK_BUFFER",           32,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_FH_OPEN,         "CHUNK_FH_OPEN",          64,  KEST2_AT(ChunkFhOpenRecord, h),            KEST2_AT(ChunkFhOpenRecord, path),            kFhTable, HandleRole::kOpens},
    {CHUNK_FH_READ,         "CHUNK_FH_READ",          72,  KEST2_AT(ChunkFhIoRecord, h),              -1,                                           kFhTable, HandleRole::kUses},
    {CHUNK_FH_WRITE,        "CHUNK_FH_WRITE",         72,  KEST2_AT(ChunkFhIoRecord, h),              -1,                                           kFhTable, HandleRole::kUses},
    {CHUNK_FH_BARRIER,      "CHUNK_FH_BARRIER",       32,  KEST2_AT(ChunkHandleRecord, h),            -1,                                           kFhTable, HandleRole::kUses},
    {CHUNK_FH_SYNC,         "CHUNK_FH_SYNC",          32,  KEST2_AT(ChunkHandleRecord, h),            -1,                                           kFhTable, HandleRole::kUses},
    {CHUNK_FH_CLOSE,        "CHUNK_FH_CLOSE",         32,  KEST2_AT(ChunkHandleRecord, h),            -1,                                           kFhTable, HandleRole::kCloses},
    {CHUNK_DH_OPEN,         "CHUNK_DH_OPEN",          64,  KEST2_AT(ChunkDhOpenRecord, h),            KEST2_AT(ChunkDhOpenRecord, path),            kDhTable, HandleRole::kOpens},
    {CHUNK_DH_READ,         "CHUNK_DH_READ",          72,  KEST2_AT(ChunkDhReadRecord, h),            -1,                                           kDhTable, HandleRole::kUses},
    {CHUNK_DH_READ_BULK,    "CHUNK_DH_READ_BULK",     72,  KEST2_AT(ChunkDhReadRecord, h),            -1,                                           kDhTable, HandleRole::kUses},
    {CHUNK_DH_CLOSE,        "CHUNK_DH_CLOSE",         32,  KEST2_AT(ChunkHandleRecord, h),            -1,                                           kDhTable, HandleRole::kCloses},
    {CHUNK_DIR_EXISTS,      "CHUNK_DIR_EXISTS",       40,  -1,                                        KEST2_AT(ChunkPathResultRecord, path),        -1,       HandleRole::kNone},
    {CHUNK_DIR_CREATE,      "CHUNK_DIR_CREATE",       40,  -1,                                        KEST2_AT(ChunkDirCreateRecord, path),         -1,       HandleRole::kNone},
    {CHUNK_DIR_DELETE,      "CHUNK_DIR_DELETE",       40,  -1,                                        KEST2_AT(ChunkPathRecord, path),              -1,       HandleRole::kNone},
    {CHUNK_FILE_EXISTS,     "CHUNK_FILE_EXISTS",      40,  -1,                                        KEST2_AT(ChunkPathResultRecord, path),        -1,       HandleRole::kNone},
    {CHUNK_FILE_DELETE,     "CHUNK_FILE_DELETE",      40,  -1,                                        KEST2_AT(ChunkPathRecord, path),              -1,       HandleRole::kNone},
    {CHUNK_FILE_SIZE,       "CHUNK_FILE_SIZE",        40,  -1,                                        KEST2_AT(ChunkPathResultRecord, path),        -1,       HandleRole::kNone},
    {CHUNK_DELETE,          "CHUNK_DELETE",           40,  -1,                                        KEST2_AT(ChunkPathRecord, path),              -1,       HandleRole::kNone},
    {CHUNK_EXISTS,          "CHUNK_EXISTS",           40,  -1,                                        KEST2_AT(ChunkPathResultRecord, path),        -1,       HandleRole::kNone},
    {CHUNK_STAT,            "CHUNK_STAT",             56,  KEST2_AT(ChunkStatRecord, h),              KEST2_AT(ChunkStatRecord, path),              -1,       HandleRole::kNone},
    {CHUNK_TRUNCATE,        "CHUNK_TRUNCATE",         48,  KEST2_AT(ChunkTruncateRecord, h),          KEST2_AT(ChunkTruncateRecord, path),          -1,       HandleRole::kNone},
    {CHUNK_PREFETCH,        "CHUNK_PREFETCH",         72,  KEST2_AT(ChunkPrefetchRecord, h),          -1,                                           -1,       HandleRole::kNone},
    {CHUNK_RESOLVE,         "CHUNK_RESOLVE",          56,  -1,                                        KEST2_AT(ChunkResolveRecord, path),           -1,       HandleRole::kNone},
    {CHUNK_RENAME,          "CHUNK_RENAME",           40,  -1,                                        KEST2_AT(ChunkRenameRecord, path),            -1,       HandleRole::kNone},
    {CHUNK_ARCHIVE_QUERY,   "CHUNK_ARCHIVE_QUERY",    72,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_ARCHIVE_MOUNT,   "CHUNK_ARCHIVE_MOUNT",    72,  KEST2_AT(ChunkArchiveRecord, h),           KEST2_AT(ChunkArchiveRecord, path),           -1,       HandleRole::kNone},
    {CHUNK_ARCHIVE_UNMOUNT, "CHUNK_ARCHIVE_UNMOUNT",  32,  KEST2_AT(ChunkHandleRecord, h),            -1,                                           -1,       HandleRole::kNone},
    // The records of these three name a path or a handle, but nothing
    // reads it through the engine.
    {CHUNK_CHSTAT,          "CHUNK_CHSTAT",           56,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_DEVCTL,          "CHUNK_DEVCTL",           80,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_IOCTL,           "CHUNK_IOCTL",            80,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    {CHUNK_SYNC,            "CHUNK_SYNC",             40,  -1,                                        -1,                                           -1,       HandleRole::kNone},
    // clang-format on
};

#undef KEST2_AT

constexpr bool RowsInTypeOrder() {
  for (int i = 0; i < kChunkTypeCount; ++i) {
    if (kChunkTypes[i].type != i) return false;
  }
  return true;
}
static_assert(RowsInTypeOrder(), "a row of kChunkTypes is out of place");

// Every record fits its footprint.
static_assert(sizeof(ChunkRootRecord) <= kChunkTypes[CHUNK_ROOT].footprint, "");
static_assert(sizeof(ChunkParentRecord) <= kChunkTypes[CHUNK_PARENT].footprint, "");
static_assert(sizeof(ChunkChildRecord) <= kChunkTypes[CHUNK_CHILD].footprint, "");
static_assert(sizeof(ChunkCallbackRecord) == kChunkTypes[CHUNK_CALLBACK].footprint, "");
static_assert(sizeof(ChunkBufferRecord) == kChunkTypes[CHUNK_BUFFER].footprint, "");
static_assert(sizeof(ChunkFhOpenRecord) <= kChunkTypes[CHUNK_FH_OPEN].footprint, "");
static_assert(sizeof(ChunkFhIoRecord) == kChunkTypes[CHUNK_FH_READ].footprint, "");
static_assert(sizeof(ChunkHandleRecord) <= kChunkTypes[CHUNK_FH_CLOSE].footprint, "");
static_assert(sizeof(ChunkDhOpenRecord) <= kChunkTypes[CHUNK_DH_OPEN].footprint, "");
static_assert(sizeof(ChunkDhReadRecord) <= kChunkTypes[CHUNK_DH_READ].footprint, "");
static_assert(sizeof(ChunkPathResultRecord) <= kChunkTypes[CHUNK_EXISTS].footprint, "");
static_assert(sizeof(ChunkDirCreateRecord) <= kChunkTypes[CHUNK_DIR_CREATE].footprint, "");
static_assert(sizeof(ChunkPathRecord) <= kChunkTypes[CHUNK_DELETE].footprint, "");
static_assert(sizeof(ChunkStatRecord) <= kChunkTypes[CHUNK_STAT].footprint, "");
static_assert(sizeof(ChunkTruncateRecord) <= kChunkTypes[CHUNK_TRUNCATE].footprint, "");
static_assert(sizeof(ChunkPrefetchRecord) <= kChunkTypes[CHUNK_PREFETCH].footprint, "");
static_assert(sizeof(ChunkResolveRecord) <= kChunkTypes[CHUNK_RESOLVE].footprint, "");
static_assert(sizeof(ChunkRenameRecord) <= kChunkTypes[CHUNK_RENAME].footprint, "");
static_assert(sizeof(ChunkArchiveRecord) <= kChunkTypes[CHUNK_ARCHIVE_MOUNT].footprint, "");
static_assert(sizeof(ChunkChstatRecord) <= kChunkTypes[CHUNK_CHSTAT].footprint, "");
static_assert(sizeof(ChunkDevctlRecord) <= kChunkTypes[CHUNK_DEVCTL].footprint, "");
static_assert(sizeof(ChunkIoctlRecord) <= kChunkTypes[CHUNK_IOCTL].footprint, "");
static_assert(sizeof(ChunkSyncRecord) <= kChunkTypes[CHUNK_SYNC].footprint, "");

// The row of a type below kChunkTypeCount.
inline const ChunkTypeRow& ChunkTypeOf(uint8_t type) { return kChunkTypes[type]; }

// The handle a record names (0 when its type has none) and the path it
// names (null when none).
uint32_t RecordHandle(const ChunkHeader* chunk);
const StoredPath* RecordPath(const ChunkHeader* chunk);

// The opened mark and pending-I/O count of the live handle a record names
// in its row's table, with the words traces use for it; all null when the
// row has no role or the handle is gone.
struct HandleMarks {
  uint32_t* opened;
  int32_t* pending;
  const char* tag;          // "FH", "DH": the trace lines' function name
  const char* kind;         // "file", "dir"
  const char* decremented;  // the trace line of a drop in the pending count
};
HandleMarks RecordHandleMarks(const ChunkHeader* chunk);

}  // namespace kest2

#endif  // KEST2_SRC_SCHED_CHUNK_TYPES_H_
