// Chunk records: the small work items every operation is split into.
//
// A chunk lives in the chunk storage, a pool of 16-byte units over the
// caller's `chunkStorage`; its ChunkID is the index of its first unit, so the
// record is at storage base + 16 * id.  Every record starts with ChunkHeader
// and continues with its type's payload; a type's footprint (header included)
// fixes how many units it takes.  Links between chunks are ChunkID slots in
// the records themselves; nothing lives outside chunk storage.
//
// Thread-safety: links, flags, priority and deadline are read and written
// only under the chunk lock ("ZulKestChunk", recursive).
#ifndef KEST2_SRC_SCHED_CHUNK_H_
#define KEST2_SRC_SCHED_CHUNK_H_

#include <cstddef>
#include <cstdint>

#include "core/stored_path.h"
#include "kest2.h"

namespace kest2 {

using ChunkID = uint16_t;
constexpr ChunkID CHUNKID_INVALID = 0xFFFF;

enum ChunkType : uint8_t {
  CHUNK_NULL = 0,
  CHUNK_ROOT = 1,
  CHUNK_PARENT = 2,
  CHUNK_CHILD = 3,
  CHUNK_CALLBACK = 4,
  CHUNK_BUFFER = 5,
  CHUNK_FH_OPEN = 6,
  CHUNK_FH_READ = 7,
  CHUNK_FH_WRITE = 8,
  CHUNK_FH_BARRIER = 9,
  CHUNK_FH_SYNC = 10,
  CHUNK_FH_CLOSE = 11,
  CHUNK_DH_OPEN = 12,
  CHUNK_DH_READ = 13,
  CHUNK_DH_READ_BULK = 14,
  CHUNK_DH_CLOSE = 15,
  CHUNK_DIR_EXISTS = 16,
  CHUNK_DIR_CREATE = 17,
  CHUNK_DIR_DELETE = 18,
  CHUNK_FILE_EXISTS = 19,
  CHUNK_FILE_DELETE = 20,
  CHUNK_FILE_SIZE = 21,
  CHUNK_DELETE = 22,
  CHUNK_EXISTS = 23,
  CHUNK_STAT = 24,
  CHUNK_TRUNCATE = 25,
  CHUNK_PREFETCH = 26,
  CHUNK_RESOLVE = 27,
  CHUNK_RENAME = 28,
  CHUNK_ARCHIVE_QUERY = 29,
  CHUNK_ARCHIVE_MOUNT = 30,
  CHUNK_ARCHIVE_UNMOUNT = 31,
  CHUNK_CHSTAT = 32,
  CHUNK_DEVCTL = 33,
  CHUNK_IOCTL = 34,
  CHUNK_SYNC = 35,
  kChunkTypeCount = 36,
};

// Bits of ChunkHeader::flags.
constexpr uint16_t kChunkLiveMarkMask = 0x003F;
constexpr uint16_t kChunkLiveMark = 43;                // while allocated
constexpr uint16_t kChunkSchedulerIndexMask = 0x00C0;  // 0: not yet chosen
constexpr int kChunkSchedulerIndexShift = 6;
constexpr uint16_t kChunkScheduled = 1u << 8;
constexpr uint16_t kChunkPrepared = 1u << 9;
constexpr uint16_t kChunkCompleted = 1u << 10;
constexpr uint16_t kChunkCancelled = 1u << 11;
constexpr uint16_t kChunkPositioned = 1u << 12;       // takes part in seek order
constexpr uint16_t kChunkArchiveCallback = 1u << 13;  // archive filter's mark
constexpr uint16_t kChunkExecuting = 1u << 14;
constexpr uint16_t kChunkNoSplit = 1u << 15;

struct ChunkHeader {
  uint16_t flags;
  uint8_t type;          // ChunkType
  int8_t priority;       // effective priority, higher is more urgent
  ChunkID parent;        // the only parent, or the first CHUNK_PARENT record
  ChunkID child0;        // first child
  ChunkID child1;        // second child, or the first CHUNK_CHILD record
  ChunkID linked;        // CHUNK_CALLBACK consulted before this chunk runs
  uint32_t pieceCount;   // 64 KiB pieces of a read or write, else 1
  ZulKestTime deadline;  // effective deadline
};
static_assert(sizeof(ChunkHeader) == 24, "");

// Flags change under the chunk lock but are also read without it (queue
// scans, scheduler choice, execution), so every access is atomic.
inline uint16_t LoadChunkFlags(const ChunkHeader* chunk) {
  return __atomic_load_n(&chunk->flags, __ATOMIC_ACQUIRE);
}
inline void StoreChunkFlags(ChunkHeader* chunk, uint16_t flags) {
  __atomic_store_n(&chunk->flags, flags, __ATOMIC_RELEASE);
}

// The callback of a CHUNK_CALLBACK chunk: called with the chunk's record and
// an event; answers a result code (ZUL_KEST_ERROR_RETRY: run again later).
struct ChunkCallbackRecord;
using ChunkCallbackFunction = int32_t (*)(ChunkCallbackRecord* chunk, int32_t event);

struct ChunkRootRecord {
  ChunkHeader header;
  uint32_t op;
  // Threads walking the tree from outside the engine (cancel, reschedule)
  // pin the root; a root that finishes while pinned is freed by the last
  // unpin instead of by the thread that ran it.  Both under the chunk lock.
  uint16_t pins;
  uint8_t freeWhenUnpinned;
};

struct ChunkParentRecord {  // overflow of a chunk's parent slot
  ChunkHeader header;       // header.parent points back to the slot's owner
  ChunkID slots[4];
};

struct ChunkChildRecord {  // overflow of a chunk's child1 slot
  ChunkHeader header;      // header.child0/child1 hold two children
  ChunkID slots[8];        // slot 7 may link a further CHUNK_CHILD record
};

// A callback consulted as a chunk's `linked` callback gets, besides event 0
// (would the chunk be busy), 1 (claim what it needs) and 2 (give the claim
// back), this one: the chunk has just run without error, on the thread that
// ran it, and is about to complete.
constexpr int32_t kLinkedEventRan = 3;

// ChunkCallbackRecord::options.  Every busy answer of the callback is
// followed by a kick of its scheduler by the time running it matters (it
// waits for its own children or for work it handed to another thread), so
// a completion elsewhere need not wake the callback thread for it.
constexpr uint32_t kCallbackKicksItself = 1;

struct ChunkCallbackRecord {
  ChunkHeader header;
  ChunkCallbackFunction callback;
  int32_t error;     // first error reported by a chunk below
  uint32_t options;  // kCallbackKicksItself
  void* context;
  uint8_t filterData[56];  // belongs to the filter that made the chunk
};

struct ChunkBufferRecord {
  ChunkHeader header;
  uint64_t dataSize;
  // dataSize bytes of data follow
};

struct ChunkFhOpenRecord {
  ChunkHeader header;
  uint32_t h;
  const StoredPath* path;
  int32_t mode;                  // -1: the default mode
  ZulKestDate modificationDate;  // written by the native open
};

struct ChunkFhIoRecord {  // CHUNK_FH_READ, CHUNK_FH_WRITE
  ChunkHeader header;
  uint32_t h;
  int64_t offset;
  int64_t position;  // media position for seek ordering; INT64_MAX unknown
  int64_t reqCount;
  int64_t* actCount;  // the operation's accumulator
  void* buffer;
};

struct ChunkHandleRecord {  // barrier, sync, close, dh close, unmount
  ChunkHeader header;
  uint32_t h;
};

struct ChunkDhOpenRecord {
  ChunkHeader header;
  uint32_t h;
  const StoredPath* path;
  int64_t* actCount;
};

struct ChunkDhReadRecord {  // CHUNK_DH_READ, CHUNK_DH_READ_BULK
  ChunkHeader header;
  uint32_t h;
  uint64_t entrySize;
  void* entry;
};

struct ChunkPathResultRecord {  // dir/file exists, file size, exists
  ChunkHeader header;
  const StoredPath* path;
  void* result;
};

struct ChunkDirCreateRecord {
  ChunkHeader header;
  int32_t mode;
  const StoredPath* path;
};

struct ChunkPathRecord {  // dir delete, file delete, delete
  ChunkHeader header;
  const StoredPath* path;
};

struct ChunkStatRecord {
  ChunkHeader header;
  uint32_t h;  // the file handle of a handle stat
  ZulKestStat* stat;
  const StoredPath* path;  // path stat only
};

struct ChunkTruncateRecord {
  ChunkHeader header;
  int64_t newSize;
  uint32_t h;              // handle truncate only
  const StoredPath* path;  // path truncate only
};

struct ChunkPrefetchRecord {
  ChunkHeader header;
  uint32_t h;
  int64_t offset;
  int64_t reqCount;  // INT64_MAX: to the end of the file
  int64_t* actCount;
};

struct ChunkResolveRecord {
  ChunkHeader header;
  void* output;
  const StoredPath* path;
  int64_t args[2];
};

struct ChunkRenameRecord {
  ChunkHeader header;
  const StoredPath* path;  // old
  const char* newPath;     // inside a CHUNK_BUFFER child
};

struct ChunkArchiveRecord {  // CHUNK_ARCHIVE_QUERY, CHUNK_ARCHIVE_MOUNT
  ChunkHeader header;
  uint32_t h;  // the archive file's handle
  const StoredPath* path;
  const char* mountPoint;  // inside a CHUNK_BUFFER child, or null
  int64_t args[2];
  int64_t* actCount;
};

struct ChunkChstatRecord {
  ChunkHeader header;
  ZulKestStat* stat;
  const StoredPath* path;
  uint32_t mask;
};

struct ChunkDevctlRecord {
  ChunkHeader header;
  const StoredPath* path;
  int32_t command;
  int64_t args[4];
};

struct ChunkIoctlRecord {
  ChunkHeader header;
  uint32_t h;
  int32_t command;
  int64_t args[4];
};

struct ChunkSyncRecord {
  ChunkHeader header;
  int32_t flags;
  const StoredPath* path;
};

// "CHUNK_FH_READ" and so on; other values as decimal text in a shared buffer.
const char* ChunkTypeName(uint8_t type);

}  // namespace kest2

#endif  // KEST2_SRC_SCHED_CHUNK_H_
