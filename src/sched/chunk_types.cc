// The per-type facts of chunk records: see chunk_types.h.

#include "sched/chunk_types.h"

#include <cstring>

#include "core/records.h"
#include "debug/format.h"

namespace kest2 {
namespace {

// Decimal text of a value outside the table.  Shared by every caller, like
// the operation type names: a name taken on one thread may be overwritten
// by another thread's unknown value.
char g_chunkTypeNumber[8];

}  // namespace

const char* ChunkTypeName(uint8_t type) {
  if (type < kChunkTypeCount) return kChunkTypes[type].name;
  FormatBounded(g_chunkTypeNumber, sizeof(g_chunkTypeNumber), "%u", static_cast<unsigned>(type));
  return g_chunkTypeNumber;
}

uint32_t RecordHandle(const ChunkHeader* chunk) {
  const int8_t at = ChunkTypeOf(chunk->type).handleAt;
  if (at < 0) return 0;
  uint32_t handle;
  std::memcpy(&handle, reinterpret_cast<const char*>(chunk) + at, sizeof(handle));
  return handle;
}

const StoredPath* RecordPath(const ChunkHeader* chunk) {
  const int8_t at = ChunkTypeOf(chunk->type).pathAt;
  if (at < 0) return nullptr;
  const StoredPath* path;
  std::memcpy(&path, reinterpret_cast<const char*>(chunk) + at, sizeof(path));
  return path;
}

HandleMarks RecordHandleMarks(const ChunkHeader* chunk) {
  const ChunkTypeRow& row = ChunkTypeOf(chunk->type);
  if (row.role == HandleRole::kNone) return HandleMarks{};
  const uint32_t handle = RecordHandle(chunk);
  if (row.table == kFhTable) {
    if (FileHandle* file = Lookup<FileHandle>(kFhTable, handle))
      // (The file's line has always had two blanks after "Chunk".)
      return HandleMarks{&file->opened, &file->m_pendingIO, "FH", "file",
                         "Chunk  %d decremented m_pendingIO = %d"};
  } else if (DirHandle* dir = Lookup<DirHandle>(kDhTable, handle)) {
    return HandleMarks{&dir->opened, &dir->m_pendingIO, "DH", "dir",
                       "Chunk %d decremented m_pendingIO = %d"};
  }
  return HandleMarks{};
}

}  // namespace kest2
