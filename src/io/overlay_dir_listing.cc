// The overlaid directory listing: see overlay_dir_listing.h.
//
// A build (DHOpen) runs in levels: level 0 is the directory the caller
// opened; every overlay layer merged into it is built one level deeper, so
// that its own layers are merged first.  Trace lines of a build start with
// the level ("%d>").

#include "io/overlay_dir_listing.h"

#include <climits>
#include <cstring>

#include "api/globals.h"
#include "core/platform.h"
#include "debug/trace.h"
#include "io/native_dir_buffer.h"
#include "kest2.h"

namespace kest2 {
namespace {

constexpr char kBuildName[] = "DHOpen";
constexpr char kReadName[] = "DHRead";
constexpr char kAddName[] = "AddEntryToDirHandle";

constexpr uint32_t UnitsFor(size_t bytes) {
  return static_cast<uint32_t>((bytes + kListingUnit - 1) / kListingUnit);
}
constexpr uint32_t kHeaderUnits = UnitsFor(sizeof(OverlayDirListing));
constexpr uint32_t kEntryUnits = UnitsFor(sizeof(OverlayDirEntry));

// The state of one build, shared by all its levels.
struct ListingContext {
  uint32_t target;
  int32_t minOrder;
  int32_t maxOrder;
  Pool* pool;                   // the entry storage; null in a counting pass
  NativeDirState* nativeState;  // for reading the directories of the build
  ChunkID chunk;                // reported with the profiling events
  // Work areas for the overlay merge, kept here rather than on the stack of
  // every level.
  NativeDirEntry entry;
  NativeStat stat;
  char childPath[kListingPathSize];
  char scratch[kListingPathSize];
};

bool IsOpen(const OverlayDirListing* listing) {
  return listing != nullptr && listing->magic == kOverlayListingMagic &&
         listing->process == kListingProcess;
}

bool SameName(const char* a, const char* b) {
  return std::strncmp(a, b, kNativeDirNameMax + 1) == 0;
}

bool IsStored(const OverlayDirListing* listing, const char* name) {
  for (const OverlayDirEntry* e = listing->first; e != nullptr; e = e->next) {
    if (SameName(e->entry.name, name)) return true;
  }
  return false;
}

uint32_t UnitIndex(const Pool* pool, const void* address) {
  return static_cast<uint32_t>((static_cast<const uint8_t*>(address) - pool->base) / pool->unit);
}

// --- Where the overlays come in ---------------------------------------------

// The overlay layers of path, from overlay `first` on in table order.  An
// overlay that maps path either replaces it (opaque: path becomes the layer
// path) or is merged: a build of its layer path one level deeper, whose
// entries are appended with AddEntryToDirHandle (each adding
// sizeof(OverlayDirEntry) to *bytes).  An overlay whose destination lies
// below path adds the directory it creates there.  *addedEntries tells
// whether any entry was added.
//
// The overlay table is not part of this build yet: no layer contributes and
// path stays the directory's own.
void AddOverlayLayers(ListingContext* /*context*/, OverlayDirListing* /*listing*/, char* /*path*/,
                      int32_t /*first*/, int32_t /*depth*/, int64_t* /*bytes*/,
                      bool* addedEntries) {
  *addedEntries = false;
}

// True when path is the destination of some overlay, which makes a
// directory that the file system lacks still openable.  No overlays yet.
bool IsOverlayDestination(const char* /*path*/) { return false; }

// The status of an entry as the overlays present it.  Without overlays that
// is the file system's own.
int32_t StatThroughOverlays(const char* path, NativeStat* stat, int32_t /*minOrder*/,
                            int32_t /*maxOrder*/) {
  return NativeStatPath(path, stat);
}

// --- Building ------------------------------------------------------------

// Counts the entries of a merged layer's own directory, which a real build
// stores; the caller's directory itself (level 0) is read at read time and
// needs no storage.
void CountOwnEntries(ListingContext* context, const char* path, int64_t* bytes) {
  int32_t fd = -1;
  NativeEvent openEvent(kEventDirOpen, context->chunk, path);
  const int32_t opened = NativeDirOpen(path, &fd, context->nativeState);
  openEvent.Finish();
  if (opened < 0) return;
  for (;;) {
    NativeEvent readEvent(kEventDirRead, context->chunk, path);
    const int32_t result = NativeDirRead(fd, &context->entry, context->nativeState);
    readEvent.Finish();
    if (result <= 0) break;
    *bytes += sizeof(OverlayDirEntry);
  }
  NativeEvent closeEvent(kEventDirClose, context->chunk, path);
  NativeDirClose(fd);
  closeEvent.Finish();
}

// The directory's own entries.  A real build opens the directory and
// keeps its descriptor; a directory that the file system lacks is accepted
// only when the overlays made it.
int32_t OpenOwnDirectory(ListingContext* context, OverlayDirListing* listing, const char* path,
                         int32_t depth, bool overlaysAddedEntries, int64_t* bytes) {
  if (listing == nullptr) {
    if (depth > 0) CountOwnEntries(context, path, bytes);
    return ZUL_KEST_OK;
  }
  int32_t fd = -1;
  NativeEvent event(kEventDirOpen, context->chunk, path);
  const int32_t result = NativeDirOpen(path, &fd, context->nativeState);
  event.Finish();
  if (result >= 0) {
    KEST2_TRACE(kTraceOvrly, kBuildName, "%d> opened original dir %s", depth, path);
    listing->descriptor = fd;
    return ZUL_KEST_OK;
  }
  KEST2_TRACE(kTraceOvrly, kBuildName, "%d> no real dir at %s, err = %d", depth, path, result);
  if (overlaysAddedEntries || IsOverlayDestination(path)) return ZUL_KEST_OK;
  KEST2_TRACE(kTraceOvrly, kBuildName,
              "%d> BAD_PATH because dir doesn't exist and not created by overlay", depth);
  return MapNativeError(result);
}

// One level of a build: the listing of source, merging the overlays from
// index `first` on.  Returns the entry storage needed or a negative code.
int32_t DHOpen(ListingContext* context, OverlayDirListing** out, const char* source, int32_t first,
               int32_t depth) {
  *out = nullptr;
  Pool* pool = context->pool;
  KEST2_TRACE(kTraceOvrly, kBuildName, "%d> %s buffer: %s", depth,
              pool != nullptr ? "with" : "without", source);
  if (strnlen(source, kListingPathSize) >= kListingPathSize) return ZUL_KEST_ERROR_PATH_TOO_LONG;
  char path[kListingPathSize];
  const uint64_t length = zulKestPathNormalize(path, source, sizeof(path));
  if (length > kListingPathSize - 1) return ZUL_KEST_ERROR_BAD_PATH;

  OverlayDirListing* listing = nullptr;
  if (pool != nullptr) {
    const int64_t index = PoolAllocate(pool, kHeaderUnits);
    if (index < 0) return ZUL_KEST_ERROR_BAD_SIZE;
    // The pool hands out zeroed units: no descriptor, no entries, and the
    // path's terminator is in place.
    listing = reinterpret_cast<OverlayDirListing*>(PoolUnitAddress(pool, index));
    listing->magic = kOverlayListingMagic;
    listing->process = kListingProcess;
    std::memcpy(listing->path, path, length);
  }
  int64_t bytes = sizeof(OverlayDirListing);

  // Deeper levels run under level 0's hold: taking the read lock again
  // could wait behind a writer that waits for level 0.
  const bool lockOverlays = depth == 0 && LocksCreated();
  if (lockOverlays) RwlockReadLock(&g_locks.overlay);
  bool addedEntries = false;
  AddOverlayLayers(context, listing, path, first, depth, &bytes, &addedEntries);
  const int32_t result = OpenOwnDirectory(context, listing, path, depth, addedEntries, &bytes);
  if (result == ZUL_KEST_OK && listing != nullptr && addedEntries) {
    RemoveDuplicateEntries(pool, listing, depth);
  }
  if (lockOverlays) RwlockReadUnlock(&g_locks.overlay);
  if (result < 0) return result;

  *out = listing;
  const int64_t needed = ListingStorageFor(bytes);
  return needed > INT32_MAX ? INT32_MAX : static_cast<int32_t>(needed);
}

}  // namespace

bool JoinListingPath(char* out, const char* directory, const char* name) {
  const size_t directoryLength = strnlen(directory, kListingPathSize);
  const size_t nameLength = strnlen(name, kNativeDirNameMax + 1);
  if (directoryLength + 1 + nameLength >= kListingPathSize) {
    out[0] = '\0';
    return false;
  }
  std::memcpy(out, directory, directoryLength);
  out[directoryLength] = '/';
  std::memcpy(out + directoryLength + 1, name, nameLength);
  out[directoryLength + 1 + nameLength] = '\0';
  return true;
}

int32_t AddEntryToDirHandle(Pool* pool, OverlayDirListing* listing, const NativeDirEntry* entry,
                            const NativeStat* stat) {
  const int64_t index = PoolAllocate(pool, kEntryUnits);
  if (index < 0) {
    KEST2_TRACE(kTraceOvrly, kAddName, "buffer isn't big enough");
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  OverlayDirEntry* stored = reinterpret_cast<OverlayDirEntry*>(PoolUnitAddress(pool, index));
  stored->entry = *entry;
  stored->stat = *stat;
  stored->next = nullptr;
  if (listing->first == nullptr) {
    listing->first = stored;
    listing->cursor = stored;
  } else {
    listing->last->next = stored;
  }
  listing->last = stored;
  KEST2_TRACE(kTraceOvrly, kAddName, "added %s", stored->entry.name);
  return ZUL_KEST_OK;
}

void RemoveDuplicateEntries(Pool* pool, OverlayDirListing* listing, int32_t depth) {
  for (OverlayDirEntry* kept = listing->first; kept != nullptr; kept = kept->next) {
    OverlayDirEntry* previous = kept;
    while (OverlayDirEntry* later = previous->next) {
      if (!SameName(kept->entry.name, later->entry.name)) {
        previous = later;
        continue;
      }
      KEST2_TRACE(kTraceOvrly, kBuildName, "%d> removing duplicate entry for %s", depth,
                  later->entry.name);
      previous->next = later->next;
      PoolFree(pool, UnitIndex(pool, later), kEntryUnits);
    }
  }
  listing->last = nullptr;
  for (OverlayDirEntry* e = listing->first; e != nullptr; e = e->next) listing->last = e;
  listing->cursor = listing->first;
}

int32_t OpenOverlaidDirectory(uint32_t target, OverlayDirListing** listing, const char* path,
                              int32_t minOrder, int32_t maxOrder, void* storage,
                              uint64_t storageSize, NativeDirState* nativeState, ChunkID chunk) {
  *listing = nullptr;
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  ListingContext context;
  context.target = target;
  context.minOrder = minOrder;
  context.maxOrder = maxOrder;
  context.pool = nullptr;
  context.chunk = chunk;

  // The pool record lives only as long as the build: a listing takes no
  // storage after it is built, and its storage is the caller's, so it is
  // never torn down.
  Pool pool{};
  pool.name = "dh";
  if (storage != nullptr && storageSize != 0) {
    if (storageSize < kListingMinStorage) return ZUL_KEST_ERROR_BAD_SIZE;
    if (reinterpret_cast<uintptr_t>(storage) % kListingUnit != 0) {
      return ZUL_KEST_ERROR_BAD_ALIGNMENT;
    }
    if (nativeState == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
    // A pool refuses storage for more units than it may hold, so a larger
    // buffer is used only up to what the pool takes.
    const uint64_t size = storageSize < kListingMaxStorage ? storageSize : kListingMaxStorage;
    const int32_t setUp =
        PoolSetUp(&pool, storage, size, kListingMaxUnits, kListingUnit, kListingUnit);
    if (setUp != ZUL_KEST_OK) return setUp;
    context.pool = &pool;
  }

  const bool borrowed = nativeState == nullptr;
  context.nativeState =
      borrowed ? static_cast<NativeDirState*>(AcquireNativeDirBuffer()) : nativeState;
  const int32_t result = DHOpen(&context, listing, path, 0, 0);
  if (borrowed) ReleaseNativeDirBuffer();
  return result;
}

int32_t DHRead(OverlayDirListing* listing, NativeDirEntry* entry, NativeStat* stat,
               int32_t minOrder, int32_t maxOrder, NativeDirState* nativeState, ChunkID chunk) {
  if (!IsOpen(listing)) return ZUL_KEST_ERROR_BAD_DH;
  if (OverlayDirEntry* stored = listing->cursor) {
    *entry = stored->entry;
    *stat = stored->stat;
    listing->cursor = stored->next;
    KEST2_TRACE(kTraceOvrly, kReadName, "from overlay: %s", entry->name);
    return ZUL_KEST_OK;
  }
  while (listing->descriptor != 0) {
    NativeEvent event(kEventDirRead, chunk, listing->path);
    const int32_t result =
        NativeDirRead(static_cast<int32_t>(listing->descriptor), entry, nativeState);
    event.Finish();
    if (result == 0) break;
    if (result < 0) {
      KEST2_TRACE(kTraceOvrly, kReadName, "error 0x%08X", static_cast<uint32_t>(result));
      return MapNativeError(result);
    }
    if (IsStored(listing, entry->name)) {
      KEST2_TRACE(kTraceOvrly, kReadName, "skipped duplicate: %s", entry->name);
      continue;
    }
    KEST2_TRACE(kTraceOvrly, kReadName, "from dh: %s", entry->name);
    std::memset(stat, 0, sizeof(*stat));
    char fullPath[kListingPathSize];
    if (!JoinListingPath(fullPath, listing->path, entry->name)) {
      KEST2_TRACE(kTraceOvrly, kReadName, " path too long%s/%s", listing->path, entry->name);
      return ZUL_KEST_OK;
    }
    // An entry that vanished or cannot be examined is still listed: the
    // caller learns its name, with an empty status.
    if (StatThroughOverlays(fullPath, stat, minOrder, maxOrder) < 0) {
      KEST2_TRACE(kTraceOvrly, kReadName, "unable to stat file/dir %s", fullPath);
      std::memset(stat, 0, sizeof(*stat));
    }
    return ZUL_KEST_OK;
  }
  KEST2_TRACE(kTraceOvrly, kReadName, "no more entries");
  return ZUL_KEST_ERROR_EOF;
}

int32_t CloseOverlaidDirectory(OverlayDirListing* listing, ChunkID chunk) {
  if (!IsOpen(listing)) return ZUL_KEST_ERROR_BAD_DH;
  if (listing->descriptor != 0) {
    NativeEvent event(kEventDirClose, chunk, listing->path);
    NativeDirClose(static_cast<int32_t>(listing->descriptor));
    event.Finish();
    listing->descriptor = 0;
  }
  listing->magic = kOverlayListingClosed;
  return ZUL_KEST_OK;
}

}  // namespace kest2
