// The directory-handle handlers: see dir_listing.h.
//
// The caller's buffer starts with the native state of the directory being
// read (kNativeDirBufferSize bytes); the rest is the listing's entry
// storage.  The handle's nativeDH points at the listing while it is open.

#include "io/dir_listing.h"

#include <cstring>

#include "core/handletable.h"
#include "core/records.h"
#include "core/stored_path.h"
#include "debug/trace.h"
#include "io/native_dir_buffer.h"
#include "io/native_fs.h"
#include "io/native_handlers.h"
#include "io/overlay_dir_listing.h"
#include "kest2.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

static_assert(sizeof(ZulKestDirEntry) == 1048, "");

bool IsAligned(const void* address) {
  return reinterpret_cast<uintptr_t>(address) % alignof(NativeDirState) == 0;
}

// The native state at the start of the handle's buffer, or null when the
// buffer cannot hold one.
NativeDirState* NativeStateOf(const DirHandle* dir) {
  if (dir->buffer == nullptr || dir->bufferLength < static_cast<int64_t>(kNativeDirBufferSize) ||
      !IsAligned(dir->buffer)) {
    return nullptr;
  }
  return static_cast<NativeDirState*>(dir->buffer);
}

OverlayDirListing* ListingOf(const DirHandle* dir) {
  return reinterpret_cast<OverlayDirListing*>(
      static_cast<uintptr_t>(__atomic_load_n(&dir->nativeDH, __ATOMIC_ACQUIRE)));
}

namespace Overlay {

// Builds the listing in the handle's buffer or, when it does not fit,
// works out the length that would do.
int32_t BuildListing(DirHandle* dir, const char* path, int64_t* actCount, ChunkID id) {
  static const char kName[] = "Overlay::DHOpen";
  const int64_t length = dir->buffer == nullptr ? 0 : dir->bufferLength;
  if (length >= static_cast<int64_t>(kNativeDirBufferSize)) {
    uint8_t* buffer = static_cast<uint8_t*>(dir->buffer);
    const uint64_t storageSize = static_cast<uint64_t>(length) - kNativeDirBufferSize;
    if (storageSize != 0) {
      OverlayDirListing* listing;
      const int32_t result =
          OpenOverlaidDirectory(kListingProcess, &listing, path, kListingMinOrder, kListingMaxOrder,
                                buffer + kNativeDirBufferSize, storageSize,
                                reinterpret_cast<NativeDirState*>(buffer), id);
      if (result >= 0) {
        __atomic_store_n(&dir->nativeDH,
                         static_cast<uint64_t>(reinterpret_cast<uintptr_t>(listing)),
                         __ATOMIC_RELEASE);
        return ZUL_KEST_OK;
      }
      if (result != ZUL_KEST_ERROR_BAD_SIZE) {
        KEST2_TRACE(kTraceIo, kName, "error 0x%08X", static_cast<uint32_t>(result));
        return result;
      }
    }
  }

  // Counting pass: nothing is stored, so any native state will do.
  OverlayDirListing* none;
  const int32_t needed =
      OpenOverlaidDirectory(kListingProcess, &none, path, kListingMinOrder, kListingMaxOrder,
                            nullptr, 0, NativeStateOf(dir), id);
  if (needed < 0) {
    KEST2_TRACE(kTraceIo, kName, "error 0x%08X", static_cast<uint32_t>(needed));
    return needed;
  }
  if (needed > 0 && actCount != nullptr) {
    const int64_t required = needed + static_cast<int64_t>(kNativeDirBufferSize);
    *actCount = length < required ? required : -1;
  }
  return ZUL_KEST_ERROR_BAD_SIZE;
}

// CHUNK_DH_OPEN.
int32_t DHOpen(ChunkID id) {
  const ChunkDhOpenRecord* chunk = ChunkRecord<ChunkDhOpenRecord>(id);
  DirHandle* dir = Lookup<DirHandle>(kDhTable, chunk->h);
  if (dir == nullptr) return ZUL_KEST_ERROR_BAD_DH;
  if (chunk->path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  const char* path = GetPath(chunk->path);
  NativeEvent event(kEventDirOpen, id, path);
  const int32_t result = BuildListing(dir, path, chunk->actCount, id);
  event.Finish();
  return result;
}

// Fills the caller's entry from the next entry of the listing.
int32_t ReadEntry(DirHandle* dir, ZulKestDirEntry* out, ChunkID id) {
  static const char kName[] = "Overlay::DHReadSync";
  NativeDirEntry entry;
  std::memset(&entry, 0, sizeof(entry));
  NativeStat stat{};
  std::memset(out, 0, sizeof(*out));
  OverlayDirListing* listing = ListingOf(dir);
  const int32_t result =
      DHRead(listing, &entry, &stat, kListingMinOrder, kListingMaxOrder, NativeStateOf(dir), id);
  if (result == ZUL_KEST_ERROR_EOF) {
    KEST2_TRACE(kTraceIo, kName, "EOF");
    return result;
  }
  if (result != ZUL_KEST_OK) {
    KEST2_TRACE(kTraceIo, kName, "error 0x%08X", static_cast<uint32_t>(result));
    return result;
  }

  char joined[kListingPathSize];
  if (!JoinListingPath(joined, listing->path, entry.name)) return ZUL_KEST_ERROR_PATH_TOO_LONG;
  const uint64_t pathLength = zulKestPathNormalize(out->fullPath, joined, sizeof(out->fullPath));
  if (pathLength > sizeof(out->fullPath) - 1) return ZUL_KEST_ERROR_PATH_TOO_LONG;
  const size_t nameLength = strnlen(entry.name, kNativeDirNameMax);
  out->fullPathLength = static_cast<uint16_t>(pathLength);
  out->nameLength = static_cast<uint16_t>(nameLength);
  out->offsetToName = static_cast<uint16_t>(pathLength - nameLength);
  __atomic_add_fetch(&dir->entriesRead, 1, __ATOMIC_ACQ_REL);

  uint32_t flags = 0;
  if (NativeIsDirectory(stat)) flags |= ZUL_KEST_STAT_DIRECTORY;
  if ((stat.mode & kNativeModeOwnerRead) != 0) flags |= ZUL_KEST_STAT_READABLE;
  if ((stat.mode & kNativeModeOwnerWrite) != 0) flags |= ZUL_KEST_STAT_WRITABLE;
  out->statFlags = flags;
  out->fileSize = stat.size;
  return ZUL_KEST_OK;
}

// CHUNK_DH_READ.
int32_t DHReadSync(ChunkID id) {
  const ChunkDhReadRecord* chunk = ChunkRecord<ChunkDhReadRecord>(id);
  DirHandle* dir = Lookup<DirHandle>(kDhTable, chunk->h);
  if (dir == nullptr) return ZUL_KEST_ERROR_BAD_DH;
  if (chunk->entry == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (chunk->entrySize < sizeof(ZulKestDirEntry)) return ZUL_KEST_ERROR_BAD_SIZE;
  NativeEvent event(kEventDirRead, id, GetPath(&dir->path));
  const int32_t result = ReadEntry(dir, static_cast<ZulKestDirEntry*>(chunk->entry), id);
  event.Finish();
  return result;
}

// CHUNK_DH_CLOSE.  The handle goes whatever the close says: the caller
// cannot retry it.
int32_t DHCloseSync(ChunkID id) {
  const ChunkHandleRecord* chunk = ChunkRecord<ChunkHandleRecord>(id);
  DirHandle* dir = Lookup<DirHandle>(kDhTable, chunk->h);
  if (dir == nullptr) return ZUL_KEST_ERROR_BAD_DH;
  OverlayDirListing* listing = ListingOf(dir);
  const char* path = GetPath(&dir->path);
  NativeEvent event(kEventDirClose, id, path);
  KEST2_TRACE(kTraceIo, "Overlay::DHCloseSync", "(fd=%lld=\"%s\")",
              static_cast<long long>(reinterpret_cast<uintptr_t>(listing)), path);
  const int32_t result = CloseOverlaidDirectory(listing, id);
  event.Finish();
  __atomic_store_n(&dir->nativeDH, uint64_t{0}, __ATOMIC_RELEASE);
  ReleaseHandle(kDhTable, chunk->h);
  if (result != ZUL_KEST_OK) {
    KEST2_TRACE(kTraceIo, "DHClose", "error 0x%08X", static_cast<uint32_t>(result));
  }
  return result;
}

}  // namespace Overlay
}  // namespace

void InstallDirectoryListing() {
  SetDirectoryHandlers(Overlay::DHOpen, Overlay::DHReadSync, Overlay::DHCloseSync);
}

}  // namespace kest2
