// The dump of one chunk: "chunk N:{ type:..., flags, links, type fields }".

#include "core/handletable.h"
#include "core/records.h"
#include "debug/dump.h"
#include "debug/format.h"
#include "sched/chunk_cursors.h"
#include "sched/chunk_tree.h"
#include "sched/chunk_types.h"

namespace kest2 {
namespace {

// Appends ", label:none" or ", label:{a,b,...}" with the ids next() gives.
template <typename NextFunction>
void AppendLinks(char* buffer, size_t size, const char* label, NextFunction next) {
  ChunkID id = next();
  if (id == CHUNKID_INVALID) {
    AppendFormat(buffer, size, ", %s:none", label);
    return;
  }
  AppendFormat(buffer, size, ", %s:{%d", label, id);
  while ((id = next()) != CHUNKID_INVALID) AppendFormat(buffer, size, ",%d", id);
  AppendFormat(buffer, size, "}");
}

// ", h:0x%08X" and, for a live file or directory handle with a path,
// ", path:"%s"".
void AppendHandle(char* buffer, size_t size, uint32_t handle) {
  if (handle == 0) return;
  AppendFormat(buffer, size, ", h:0x%08X", handle);
  const StoredPath* path = nullptr;
  if (const FileHandle* fh = Lookup<FileHandle>(kFhTable, handle)) {
    path = &fh->path;
  } else if (const DirHandle* dh = Lookup<DirHandle>(kDhTable, handle)) {
    path = &dh->path;
  }
  if (path != nullptr && !PathIsEmpty(path))
    AppendFormat(buffer, size, ", path:\"%s\"", GetPath(path));
}

void AppendTransfer(char* buffer, size_t size, int64_t offset, int64_t reqCount,
                    const int64_t* actCount) {
  AppendFormat(buffer, size, ", offset:%lld, reqCount:%lld", static_cast<long long>(offset),
               static_cast<long long>(reqCount));
  if (actCount != nullptr) {
    // The accumulator belongs to the operation and grows on I/O threads.
    AppendFormat(buffer, size, ", actCount:%lld",
                 static_cast<long long>(__atomic_load_n(actCount, __ATOMIC_RELAXED)));
  }
}

// The by-type tail of a live chunk's dump.
void AppendTypeFields(char* buffer, size_t size, ChunkID id) {
  const ChunkHeader* chunk = ChunkAt(id);
  switch (chunk->type) {
    case CHUNK_ROOT: {
      const uint32_t op = ChunkRecord<ChunkRootRecord>(id)->op;
      if (op != 0) {
        char text[kDumpBufferSize];
        AppendFormat(buffer, size, ", %s", zulKestDebugDumpOp(op, text, sizeof(text)));
      }
      break;
    }
    case CHUNK_FH_OPEN:
    case CHUNK_FH_CLOSE:
    case CHUNK_DH_OPEN:
    case CHUNK_DH_CLOSE:
    case CHUNK_DH_READ:  // its record has no offset or counts
      AppendHandle(buffer, size, RecordHandle(chunk));
      break;
    case CHUNK_FH_READ:
    case CHUNK_FH_WRITE: {
      const ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(id);
      AppendHandle(buffer, size, io->h);
      AppendTransfer(buffer, size, io->offset, io->reqCount, io->actCount);
      break;
    }
    case CHUNK_PREFETCH: {
      const ChunkPrefetchRecord* prefetch = ChunkRecord<ChunkPrefetchRecord>(id);
      AppendHandle(buffer, size, prefetch->h);
      AppendTransfer(buffer, size, prefetch->offset, prefetch->reqCount, prefetch->actCount);
      break;
    }
    default:
      break;
  }
}

}  // namespace

char* DumpChunk(ChunkID id, char* buffer, size_t size) {
  if (!SelectDumpBuffer(&buffer, &size)) return buffer;
  if (id == CHUNKID_INVALID) {
    FormatBounded(buffer, size, "%s", "CHUNKID_INVALID");
    return buffer;
  }
  ChunkLocker lock;
  if (!IsLiveLocked(id)) {
    FormatBounded(buffer, size, "chunk %d:{ state:%s }", id,
                  id >= ChunkPool()->capacity ? "BOGUS" : "DELETED");
    return buffer;
  }
  const ChunkHeader* chunk = ChunkAt(id);
  const uint16_t flags = LoadChunkFlags(chunk);
  FormatBounded(buffer, size,
                "chunk %d:{ type:%s, scheduled:%d, completed:%d, executing:%d, prepared:%d", id,
                ChunkTypeName(chunk->type), (flags & kChunkScheduled) != 0 ? 1 : 0,
                (flags & kChunkCompleted) != 0 ? 1 : 0, (flags & kChunkExecuting) != 0 ? 1 : 0,
                (flags & kChunkPrepared) != 0 ? 1 : 0);
  if ((flags & kChunkCancelled) != 0) AppendFormat(buffer, size, ", cancelled:%d", 1);
  ParentCursor parents(id);
  AppendLinks(buffer, size, "parents", [&parents] { return parents.Next(); });
  ChildCursor children(id);
  AppendLinks(buffer, size, "children", [&children] { return children.NextChild(); });
  AppendTypeFields(buffer, size, id);
  AppendFormat(buffer, size, " }");
  return buffer;
}

}  // namespace kest2
