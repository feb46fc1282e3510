// Listings of archive directories: see archive_directory.h.

#include "archive/archive_directory.h"

#include <cstdio>
#include <cstring>

#include "archive/archive_tracker.h"
#include "core/handletable.h"
#include "core/records.h"
#include "core/stored_path.h"
#include "debug/dump.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

// Fills the caller's entry for child `name` of `directory`.
int32_t FillEntry(const ArchiveTracker* tracker, const uint8_t* entry, const char* directory,
                  const char* name, ZulKestDirEntry* out) {
  std::memset(out, 0, sizeof(*out));
  const size_t dirLength = std::strlen(directory);
  const bool separated =
      dirLength > 0 && (directory[dirLength - 1] == '/' || directory[dirLength - 1] == '\\');
  const int length = std::snprintf(out->fullPath, sizeof(out->fullPath), "%s%s%s", directory,
                                   separated ? "" : "/", name);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(out->fullPath))
    return ZUL_KEST_ERROR_PATH_TOO_LONG;
  ZulKestStat stat;
  GetStat(tracker, entry, &stat);
  out->fileSize = stat.fileSize;
  out->statFlags = stat.statFlags;
  out->fullPathLength = static_cast<uint16_t>(length);
  out->nameLength = static_cast<uint16_t>(std::strlen(name));
  out->offsetToName = static_cast<uint16_t>(length - out->nameLength);
  return ZUL_KEST_OK;
}

// State of the loose-files callbacks, in their filter data.
struct LooseState {
  uint32_t archiveDh;
  uint32_t nativeDh;
  void* entry;
  uint64_t entrySize;
  ChunkID child;  // the native open or read below
};
static_assert(sizeof(LooseState) <= sizeof(ChunkCallbackRecord::filterData), "");

LooseState* LooseOf(ChunkCallbackRecord* record) {
  return reinterpret_cast<LooseState*>(record->filterData);
}

ArchiveDirData DirData(const DirHandle* dir) {
  ArchiveDirData data;
  std::memcpy(&data, dir->filterData, sizeof(data));
  return data;
}

void SetDirData(DirHandle* dir, const ArchiveDirData& data) {
  std::memcpy(dir->filterData, &data, sizeof(data));
}

// A listing's place: the archive it is in and its position in that
// archive's manifest.  The handle names the archive by its ID, which
// identical archives mounted at several places share, so the position's
// high bits count the trackers with that ID before the one being listed
// (a manifest holds fewer than 2^32 paths).  -1 is the start of the first.
constexpr int kOrdinalShift = 40;
constexpr int64_t kIndexField = (int64_t{1} << kOrdinalShift) - 1;

int64_t PackPlace(uint32_t ordinal, int64_t index) {
  return (static_cast<int64_t>(ordinal) << kOrdinalShift) | (index & kIndexField);
}

void UnpackPlace(int64_t place, uint32_t* ordinal, int64_t* index) {
  if (place < 0) {
    *ordinal = 0;
    *index = -1;
    return;
  }
  *ordinal = static_cast<uint32_t>(place >> kOrdinalShift);
  *index = (place & kIndexField) == kIndexField ? -1 : place & kIndexField;
}

ArchiveTracker* TrackerAt(ZulKestZorbaDearchiverContext* context, int32_t id, uint32_t ordinal) {
  for (ArchiveTracker* t = ArchiveList(context); t != nullptr; t = t->next) {
    if (t->id == id && ordinal-- == 0) return t;
  }
  return nullptr;
}

uint32_t OrdinalOf(ZulKestZorbaDearchiverContext* context, const ArchiveTracker* tracker) {
  uint32_t ordinal = 0;
  for (const ArchiveTracker* t = ArchiveList(context); t != nullptr && t != tracker; t = t->next) {
    if (t->id == tracker->id) ++ordinal;
  }
  return ordinal;
}

const char* ErrorText(int32_t code, char* buffer, size_t size) {
  return zulKestDebugDumpError(code, buffer, size);
}

// Whether a mounted archive of the callback's dearchiver holds path as a
// directory.
bool ArchivesHold(ChunkCallbackRecord* record, const char* path) {
  auto* context = static_cast<ZulKestZorbaDearchiverContext*>(record->context);
  DearchiverLocker lock;
  return LookupPath(context, path, nullptr, nullptr) == FINDRESULT_DIR;
}

int32_t OpenDirCallback(ChunkCallbackRecord* record, int32_t event) {
  if (event != 1) return ZUL_KEST_OK;
  LooseState* loose = LooseOf(record);
  DirHandle* dir = Lookup<DirHandle>(kDhTable, loose->archiveDh);
  KEST2_TRACE(kTraceZorba, "OpenDirCallback", "Open finished. pDH: %p, filesys h: %d, path: %s\n",
              static_cast<void*>(dir), static_cast<int>(loose->nativeDh),
              dir != nullptr ? GetPath(&dir->path) : "");
  int32_t result = record->error;
  if (result != ZUL_KEST_OK) {
    char name[64];
    KEST2_TRACE(kTraceZorba, "OpenDirCallback", "Open failed with %s\n",
                ErrorText(result, name, sizeof(name)));
    // Without a native directory the listing has the archives only.
    if (LookupHandle(kDhTable, loose->nativeDh) != nullptr)
      ReleaseHandle(kDhTable, loose->nativeDh);
    if (dir != nullptr) {
      ArchiveDirData data = DirData(dir);
      data.nativeDH = 0;
      SetDirData(dir, data);
    }
    // A directory the archives hold opens all the same; one below a mount
    // point that only the disk could have had fails with the disk's code.
    if (result != ZUL_KEST_ERROR_BAD_SIZE && dir != nullptr &&
        ArchivesHold(record, GetPath(&dir->path))) {
      result = ZUL_KEST_OK;
      // The native open's code has already gone up to the operation; take
      // it back, unless the operation was cancelled meanwhile.
      if ((LoadChunkFlags(&record->header) & kChunkCancelled) == 0)
        PropagateChunkError(ChunkIdOf(record), ZUL_KEST_OK, true);
    }
  }
  char name[64];
  KEST2_TRACE(kTraceZorba, "OpenDirCallback", "returning err = %s\n",
              ErrorText(result, name, sizeof(name)));
  return result;
}

// A native read of the next loose entry into the caller's entry.
ChunkID NewNativeRead(const LooseState* loose) {
  const ChunkID read = AllocateChunk(CHUNK_DH_READ);
  if (read == CHUNKID_INVALID) return read;
  ChunkDhReadRecord* record = ChunkRecord<ChunkDhReadRecord>(read);
  record->h = loose->nativeDh;
  record->entry = loose->entry;
  record->entrySize = loose->entrySize;
  return read;
}

int32_t ReadDirCallback(ChunkCallbackRecord* record, int32_t event) {
  if (event != 1) return ZUL_KEST_OK;
  LooseState* loose = LooseOf(record);
  char name[64];
  KEST2_TRACE(kTraceZorba, "ReadDirCallback", "read finished. err = %s \n",
              ErrorText(record->error, name, sizeof(name)));
  DirHandle* dir = Lookup<DirHandle>(kDhTable, loose->archiveDh);
  if (record->error != ZUL_KEST_OK) {
    if (record->error == ZUL_KEST_ERROR_EOF && dir != nullptr) {
      ArchiveDirData data = DirData(dir);
      data.exhausted = kListingNativeDone;
      SetDirData(dir, data);
    }
    return record->error;
  }
  auto* entry = static_cast<ZulKestDirEntry*>(loose->entry);
  auto* context = static_cast<ZulKestZorbaDearchiverContext*>(record->context);
  FindResult found;
  {
    DearchiverLocker lock;
    found = LookupPath(context, entry->fullPath, nullptr, nullptr);
  }
  if (found != FINDRESULT_FILE && found != FINDRESULT_DIR) return ZUL_KEST_OK;
  // The archives listed this name already: read the next native entry.
  const ChunkID self = ChunkIdOf(record);
  const ChunkID next = NewNativeRead(loose);
  if (next == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  {
    ChunkLocker lock;
    UnlinkChunks(self, loose->child);
    DeallocateChunk(loose->child);
    if (!LinkChunks(self, next)) {
      DeallocateChunk(next);
      return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    }
  }
  loose->child = next;
  KEST2_TRACE(kTraceZorba, "ReadDirCallback", "%s", "starting new read\n");
  PrepareChunk(next, record->header.priority, record->header.deadline);
  ScheduleTree(next, 0, false);
  return ZUL_KEST_ERROR_RETRY;
}

}  // namespace

uint32_t LooseListing(uint32_t dh) {
  const DirHandle* dir = Lookup<DirHandle>(kDhTable, dh);
  return dir != nullptr ? DirData(dir).nativeDH : 0;
}

int32_t BuildLooseOpen(ZulKestZorbaDearchiverContext* context, ChunkID open, ChunkID* replacement) {
  const ChunkDhOpenRecord* record = ChunkRecord<ChunkDhOpenRecord>(open);
  DirHandle* dir = Lookup<DirHandle>(kDhTable, record->h);
  if (dir == nullptr) return ZUL_KEST_ERROR_BAD_DH;
  KEST2_TRACE(kTraceZorba, "OpenDirectory", "Opening underlying native directory. Dir = %s\n",
              GetPath(&dir->path));
  DirHandle* native = Lookup<DirHandle>(kDhTable, AllocateHandle(kDhTable));
  if (native == nullptr) {
    KEST2_TRACE(kTraceZorba, "OpenDirectory", "%s", "Failed to allocate native DH\n");
    return ZUL_KEST_ERROR_CANT_ALLOCATE_DH;
  }
  native->buffer = dir->buffer;
  native->bufferLength = dir->bufferLength;
  CopyStoredPath(&native->path, &dir->path);
  const ChunkID callback = AllocateCallbackChunk(OpenDirCallback, context);
  const ChunkID nativeOpen =
      callback == CHUNKID_INVALID ? CHUNKID_INVALID : AllocateChildChunk(callback, CHUNK_DH_OPEN);
  if (nativeOpen == CHUNKID_INVALID) {
    KEST2_TRACE(kTraceZorba, "OpenDirectory", "%s",
                callback == CHUNKID_INVALID ? "Failed to allocate callback or callback data\n"
                                            : "Failed to allocate open chunk\n");
    if (callback != CHUNKID_INVALID) DeallocateChunk(callback);
    ReleaseHandle(kDhTable, native->h);
    return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  }
  ChunkDhOpenRecord* child = ChunkRecord<ChunkDhOpenRecord>(nativeOpen);
  child->h = native->h;
  child->path = record->path;
  child->actCount = record->actCount;
  *LooseOf(ChunkRecord<ChunkCallbackRecord>(callback)) =
      LooseState{record->h, native->h, nullptr, 0, nativeOpen};
  ArchiveDirData data = DirData(dir);
  data.nativeDH = native->h;
  SetDirData(dir, data);
  *replacement = callback;
  return ZUL_KEST_OK;
}

int32_t BuildLooseRead(ZulKestZorbaDearchiverContext* context, ChunkID read, ChunkID* replacement) {
  const ChunkDhReadRecord* record = ChunkRecord<ChunkDhReadRecord>(read);
  DirHandle* dir = Lookup<DirHandle>(kDhTable, record->h);
  if (dir == nullptr) return ZUL_KEST_ERROR_BAD_DH;
  const ArchiveDirData data = DirData(dir);
  if (data.nativeDH == 0 || LookupHandle(kDhTable, data.nativeDH) == nullptr) {
    KEST2_TRACE(kTraceZorba, "ReadDirectory", "%s", "FileSysFH = ZUL_KEST_NATIVEDH_INVALID! \n");
    return ZUL_KEST_ERROR_EOF;
  }
  KEST2_TRACE(kTraceZorba, "ReadDirectory", "Trying loose files. Dir = %s\n", GetPath(&dir->path));
  const ChunkID callback = AllocateCallbackChunk(ReadDirCallback, context);
  if (callback == CHUNKID_INVALID) {
    KEST2_TRACE(kTraceZorba, "ReadDirectory", "%s", "Failed to allocate data\n");
    return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  }
  LooseState* loose = LooseOf(ChunkRecord<ChunkCallbackRecord>(callback));
  *loose = LooseState{record->h, data.nativeDH, record->entry, record->entrySize, CHUNKID_INVALID};
  loose->child = NewNativeRead(loose);
  if (loose->child == CHUNKID_INVALID || !LinkChunks(callback, loose->child)) {
    if (loose->child != CHUNKID_INVALID) DeallocateChunk(loose->child);
    DeallocateChunk(callback);
    return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  }
  KEST2_TRACE(kTraceZorba, "ReadDirectory", "%s", "starting new read\n");
  *replacement = callback;
  return ZUL_KEST_OK;
}

int32_t ReadArchiveDirectory(ZulKestZorbaDearchiverContext* context, ChunkID read, bool bulk) {
  const ChunkDhReadRecord* record = ChunkRecord<ChunkDhReadRecord>(read);
  DirHandle* dir = Lookup<DirHandle>(kDhTable, record->h);
  if (dir == nullptr) return ZUL_KEST_ERROR_BAD_DH;
  ArchiveDirData data;
  std::memcpy(&data, dir->filterData, sizeof(data));
  if (bulk || data.exhausted != 0) return ZUL_KEST_ERROR_EOF;
  const char* directory = GetPath(&dir->path);
  auto* out = static_cast<ZulKestDirEntry*>(record->entry);
  uint32_t ordinal = 0;
  int64_t start = -1;
  UnpackPlace(data.position, &ordinal, &start);
  ArchiveTracker* tracker = TrackerAt(context, data.id, ordinal);
  int32_t result = ZUL_KEST_ERROR_EOF;
  while (tracker != nullptr) {
    const char* relative = nullptr;
    if (MountPointCovers(tracker, directory, &relative)) {
      char name[256];
      for (int64_t position = DirSearch(tracker, relative, start, name, sizeof(name));
           position >= 0; position = DirSearch(tracker, relative, position, name, sizeof(name))) {
        data.position = PackPlace(ordinal, position);
        // A newer archive mounted over the same place hides this child.
        char full[ZUL_KEST_DIR_ENTRY_PATH_MAX + 2];
        std::snprintf(full, sizeof(full), "%s/%s", directory, name);
        ArchiveTracker* owner = nullptr;
        const uint8_t* entry = nullptr;
        const FindResult found = LookupPath(context, full, &owner, &entry);
        if (owner != tracker || (found != FINDRESULT_FILE && found != FINDRESULT_DIR)) continue;
        result = FillEntry(tracker, entry, directory, name, out);
        std::memcpy(dir->filterData, &data, sizeof(data));
        if (result == ZUL_KEST_OK) __atomic_add_fetch(&dir->entriesRead, 1, __ATOMIC_ACQ_REL);
        return result;
      }
    }
    // This archive is done: the listing goes on in the next one covering
    // the directory.
    tracker = tracker->next;
    while (tracker != nullptr && !MountPointCovers(tracker, directory, &relative))
      tracker = tracker->next;
    if (tracker == nullptr) break;  // the handle keeps its last archive
    data.id = tracker->id;
    ordinal = OrdinalOf(context, tracker);
    start = -1;
    data.position = PackPlace(ordinal, start);
  }
  data.exhausted = kListingArchivesDone;
  std::memcpy(dir->filterData, &data, sizeof(data));
  return result;
}

}  // namespace kest2
