// The overlaid directory listing: see overlay_dir_listing.h.
//
// A build (DHOpen) runs in levels: level 0 is the directory the caller
// opened; every overlay layer merged into it is built one level deeper, so
// that its own layers are merged first.  Trace lines of a build start with
// the level ("%d>").

#include "io/overlay_dir_listing.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "core/globals.h"
#include "core/platform.h"
#include "debug/trace.h"
#include "io/native_dir_buffer.h"
#include "io/overlay_table.h"
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

int32_t DHOpen(ListingContext* context, OverlayDirListing** out, const char* source, int32_t first,
               int32_t depth, int64_t* rawBytes);

bool IsListingSeparator(char c) { return c == '/' || c == '\\'; }

bool OverlayApplies(const ListingContext* context, const OverlayEntry* e) {
  const int32_t order = static_cast<uint8_t>(e->order);
  return (e->pid == kEveryProcess || e->pid == static_cast<int32_t>(context->target)) &&
         order >= context->minOrder && order <= context->maxOrder;
}

// Whether overlay e maps the directory path onto a layer; *layer receives
// src + "/" + the rest of path, normalised.
bool LayerPathFor(const ListingContext* context, const char* path, const OverlayEntry* e,
                  char* layer) {
  if (!OverlayApplies(context, e)) return false;
  const size_t length = e->dstLength;
  if (length > 0) {
    if (std::strncmp(path, e->dst, length) != 0) return false;
    const char next = path[length];
    if (!IsListingSeparator(e->dst[length - 1]) && next != 0 && !IsListingSeparator(next))
      return false;
  }
  char joined[kListingPathSize * 2];
  std::snprintf(joined, sizeof(joined), "%s/%s", e->src, path + length);
  const uint64_t normal = zulKestPathNormalize(layer, joined, kListingPathSize);
  return normal < kListingPathSize;
}

// Whether overlay e creates something inside the directory path (of length
// n, prefix length p): its dst goes on below path.
bool ReachesInto(const ListingContext* context, const char* path, size_t n, size_t p,
                 const OverlayEntry* e) {
  if (!OverlayApplies(context, e)) return false;
  const size_t length = e->dstLength;
  return length > n && std::strncmp(e->dst, path, n) == 0 && IsListingSeparator(e->dst[p - 1]);
}

// The entry an overlay reaching into the directory adds: the next component
// of its dst.
void AddReachingEntry(ListingContext* context, OverlayDirListing* listing, size_t p,
                      const OverlayEntry* e, int32_t index, int32_t depth, int64_t* bytes,
                      bool* addedEntries) {
  size_t start = p;
  while (start < e->dstLength && IsListingSeparator(e->dst[start])) ++start;
  size_t end = start;
  while (end < e->dstLength && !IsListingSeparator(e->dst[end])) ++end;
  if (end == start) return;
  *bytes += sizeof(OverlayDirEntry);
  if (listing == nullptr) return;
  if (end >= kListingPathSize || end - start > kNativeDirNameMax) {
    KEST2_TRACE(kTraceOvrly, kBuildName, "%d> child path too long\n", depth);
    return;
  }
  std::memcpy(context->childPath, e->dst, end);
  context->childPath[end] = 0;
  NativeDirEntry& entry = context->entry;
  std::memset(&entry, 0, sizeof(entry));
  std::memcpy(entry.name, e->dst + start, end - start);
  entry.namelen = static_cast<uint8_t>(end - start);
  entry.reclen = sizeof(NativeDirEntry);
  KEST2_TRACE(kTraceOvrly, kBuildName, "%d> filling in stat block\n", depth);
  const int32_t stated = OverlayNativeStatFromIndex(
      kThisProcess, 0, context->childPath, &context->stat, context->scratch, index,
      static_cast<uint8_t>(context->minOrder), static_cast<uint8_t>(context->maxOrder));
  if (stated < 0) {
    if (end == e->dstLength) {
      KEST2_TRACE(kTraceOvrly, kBuildName, "%d> unable to stat\n", depth);
      return;
    }
    // An intermediate directory that exists only because the overlay's
    // destination lies below it.
    std::memset(&context->stat, 0, sizeof(context->stat));
    context->stat.mode = 0x41FF;
  }
  entry.type = (context->stat.mode & kNativeModeTypeMask) == kNativeModeDirectory ? 4 : 8;
  if (AddEntryToDirHandle(context->pool, listing, &entry, &context->stat) == ZUL_KEST_OK)
    *addedEntries = true;
}

// Merges a non-opaque layer: its stored entries and then its directory's
// own entries join this listing.
void MergeLayer(ListingContext* context, OverlayDirListing* listing, const char* layer,
                const OverlayEntry* e, int32_t index, int32_t depth, int64_t* bytes,
                bool* addedEntries) {
  OverlayDirListing* sub = nullptr;
  int64_t subBytes = 0;
  if (DHOpen(context, &sub, layer, index + 1, depth + 1, &subBytes) < 0) return;
  KEST2_TRACE(kTraceOvrly, kBuildName, "%d> recursively opened %s overlaid dir %s\n", depth,
              e->type == ZUL_KEST_OVERLAY_TYPE_NEWER ? "newer" : "translucent", layer);
  if (listing == nullptr) {
    *bytes += subBytes;
    return;
  }
  if (sub->first != nullptr) {
    if (listing->first == nullptr) {
      listing->first = sub->first;
      listing->cursor = sub->first;
    } else {
      listing->last->next = sub->first;
    }
    listing->last = sub->last;
    sub->first = sub->last = sub->cursor = nullptr;
    *addedEntries = true;
  }
  NativeDirEntry& entry = context->entry;
  NativeStat& stat = context->stat;
  while (DHRead(sub, &entry, &stat, context->minOrder, context->maxOrder, context->nativeState,
                context->chunk) == ZUL_KEST_OK) {
    *bytes += sizeof(OverlayDirEntry);
    if (AddEntryToDirHandle(context->pool, listing, &entry, &stat) != ZUL_KEST_OK) {
      KEST2_TRACE(kTraceOvrly, kBuildName, "%d> unable to add to DirHandle\n", depth);
    } else {
      *addedEntries = true;
    }
  }
  CloseOverlaidDirectory(sub, context->chunk);
  KEST2_TRACE(kTraceOvrly, kBuildName, "%d> closed overlaid dir %s\n", depth, layer);
}

// The overlay layers of path, from overlay `first` on in table order: an
// opaque layer onto the directory replaces path, other layers onto it are
// merged, and overlays whose destination lies below it add the directory or
// file they create there.
void AddOverlayLayers(ListingContext* context, OverlayDirListing* listing, char* path,
                      int32_t first, int32_t depth, int64_t* bytes, bool* addedEntries)
    REQUIRES_SHARED(g_locks.overlay) {
  *addedEntries = false;
  char layer[kListingPathSize];
  for (int32_t i = first; i < OverlayCount(); ++i) {
    const OverlayEntry* e = OverlayAt(i);
    const size_t n = std::strlen(path);
    const size_t p = n == 1 ? n : n + 1;
    if (LayerPathFor(context, path, e, layer)) {
      KEST2_TRACE(kTraceOvrly, kBuildName, "%d> layer %d overlays onto %s\n", depth, i, path);
      if (e->type == ZUL_KEST_OVERLAY_TYPE_OPAQUE) {
        std::memcpy(path, layer, std::strlen(layer) + 1);
      } else {
        MergeLayer(context, listing, layer, e, i, depth, bytes, addedEntries);
      }
    } else if (ReachesInto(context, path, n, p, e)) {
      KEST2_TRACE(kTraceOvrly, kBuildName, "%d> layer %d overlays into %s\n", depth, i, path);
      AddReachingEntry(context, listing, p, e, i, depth, bytes, addedEntries);
    }
  }
}

// True when path is the destination of some overlay, which makes a
// directory that the file system lacks still openable.
bool IsOverlayDestination(const char* path) REQUIRES_SHARED(g_locks.overlay) {
  for (int32_t i = 0; i < OverlayCount(); ++i) {
    if (std::strncmp(OverlayAt(i)->dst, path, kOverlayPathSize) == 0) return true;
  }
  return false;
}

// The status of an entry as the overlays present it.
int32_t StatThroughOverlays(const char* path, NativeStat* stat, int32_t minOrder,
                            int32_t maxOrder) {
  char scratch[kResolveBufferSize];
  return OverlayNativeStatFromIndex(kThisProcess, 0, path, stat, scratch, 0,
                                    static_cast<uint8_t>(minOrder), static_cast<uint8_t>(maxOrder));
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
                         int32_t depth, bool overlaysAddedEntries, int64_t* bytes)
    REQUIRES_SHARED(g_locks.overlay) {
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
               int32_t depth, int64_t* rawBytes) {
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

  int32_t result;
  {
    // Deeper levels and the stats through the overlays run under level 0's
    // hold (the locker does not take the lock twice on one thread).
    OverlayReadLocker lock;
    bool addedEntries = false;
    AddOverlayLayers(context, listing, path, first, depth, &bytes, &addedEntries);
    result = OpenOwnDirectory(context, listing, path, depth, addedEntries, &bytes);
    if (result == ZUL_KEST_OK && listing != nullptr && addedEntries) {
      RemoveDuplicateEntries(pool, listing, depth);
    }
  }
  if (result < 0) return result;

  *out = listing;
  if (rawBytes != nullptr) *rawBytes = bytes;
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
  const int32_t result = DHOpen(&context, listing, path, 0, 0, nullptr);
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
