// Listings of archive directories: see archive_directory.h.

#include "archive/archive_directory.h"

#include <cstdio>
#include <cstring>

#include "api/records.h"
#include "archive/archive_tracker.h"
#include "core/handletable.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

// Fills the caller's entry for child `name` of `directory`.
int32_t FillEntry(const ArchiveTracker* tracker, const uint8_t* entry, const char* directory,
                  const char* name, ZulKestDirEntry* out) {
  std::memset(out, 0, sizeof(*out));
  const size_t dirLength = std::strlen(directory);
  const bool separated = dirLength > 0 && (directory[dirLength - 1] == '/' || directory[dirLength - 1] == '\\');
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

}  // namespace

int32_t ReadArchiveDirectory(ZulKestZorbaDearchiverContext* context, ChunkID read, bool bulk) {
  const ChunkDhReadRecord* record = ChunkRecord<ChunkDhReadRecord>(read);
  DirHandle* dir = Lookup<DirHandle>(kDhTable, record->h);
  if (dir == nullptr) return ZUL_KEST_ERROR_BAD_DH;
  ArchiveDirData data;
  std::memcpy(&data, dir->filterData, sizeof(data));
  if (bulk || data.exhausted != 0) return ZUL_KEST_ERROR_EOF;
  const char* directory = GetPath(&dir->path);
  auto* out = static_cast<ZulKestDirEntry*>(record->entry);
  ArchiveTracker* tracker = FindArchiveById(context, data.id);
  int32_t result = ZUL_KEST_ERROR_EOF;
  while (tracker != nullptr) {
    const char* relative = nullptr;
    if (MountPointCovers(tracker, directory, &relative)) {
      char name[256];
      for (int64_t position = DirSearch(tracker, relative, data.position, name, sizeof(name));
           position >= 0; position = DirSearch(tracker, relative, position, name, sizeof(name))) {
        data.position = position;
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
    while (tracker != nullptr && !MountPointCovers(tracker, directory, &relative)) tracker = tracker->next;
    if (tracker == nullptr) break;  // the handle keeps its last archive
    data.id = tracker->id;
    data.position = -1;
  }
  data.exhausted = 1;
  std::memcpy(dir->filterData, &data, sizeof(data));
  return result;
}

}  // namespace kest2
