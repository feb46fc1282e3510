// The overlaid directory listing: the list of entries that a directory
// handle hands out, built once at open time in the buffer the caller gave
// to zulKestDHOpen.
//
// The caller's buffer holds, in order, the native directory state of the
// directory being read (kNativeDirBufferSize bytes) and the entry storage:
// a pool named "dh" of 8-byte units whose first allocation is the listing
// header, followed by one OverlayDirEntry per entry that the overlay layers
// contribute.  The directory's own entries are not stored: they are read
// from the file system as the listing is read, and those whose names were
// already handed out from the stored list are skipped.
//
// Without entry storage a build is a counting pass: it stores nothing and
// answers how many bytes of entry storage a real build needs.
//
// Thread-safety: a build takes the overlay read lock; a listing belongs to
// one directory handle, whose reads the chunk engine orders, so a listing is
// never read by two threads at once.  The shared native directory buffer
// serves one counting pass at a time.
#ifndef KEST2_SRC_IO_OVERLAY_DIR_LISTING_H_
#define KEST2_SRC_IO_OVERLAY_DIR_LISTING_H_

#include <cstddef>
#include <cstdint>

#include "core/pool.h"
#include "io/native_fs.h"
#include "sched/chunk.h"

namespace kest2 {

constexpr uint32_t kOverlayListingMagic = 0x6F766468;  // "ovdh"
constexpr uint32_t kOverlayListingClosed = 0xFFFFFFFF;
constexpr uint32_t kListingProcess = 1;  // listings are built for the caller
constexpr size_t kListingPathSize = 1024;
constexpr int32_t kListingMinOrder = 0;
constexpr int32_t kListingMaxOrder = 255;

// One stored entry: a directory entry and its status, linked in the order
// the entries are handed out.
struct OverlayDirEntry {
  NativeDirEntry entry;
  NativeStat stat;
  uint8_t statReserved[120 - sizeof(NativeStat)];  // the status keeps 120 bytes
  OverlayDirEntry* next;
  uint64_t reserved;  // zero
};
static_assert(sizeof(OverlayDirEntry) == 400, "");

// The listing header, the first allocation of the entry storage; a directory
// handle's nativeDH points at it while the listing is open.
struct OverlayDirListing {
  uint32_t magic;          // kOverlayListingMagic while open
  uint32_t process;        // kListingProcess
  int64_t descriptor;      // the directory's own descriptor; 0: none
  OverlayDirEntry* first;  // stored entries
  OverlayDirEntry* last;
  OverlayDirEntry* cursor;      // next stored entry to hand out
  char path[kListingPathSize];  // normalised; the last byte is always NUL
};
static_assert(sizeof(OverlayDirListing) == 0x428, "");

// The entry storage: "dh" pool units, their alignment, the most units a
// pool holds and the least storage that holds a header.
constexpr uint64_t kListingUnit = 8;
constexpr uint32_t kListingMaxUnits = 0x80000;
constexpr uint64_t kListingMinStorage = sizeof(OverlayDirListing);
// The pool takes no more than this; a larger buffer leaves the rest unused.
constexpr uint64_t kListingMaxStorage = kListingMaxUnits * kListingUnit + kListingMaxUnits / 8;

// Entry storage for a listing of `bytes` bytes of header and entries: the
// units plus a generous allocation bitmap, rounded up to a whole unit.
constexpr int64_t ListingStorageFor(int64_t bytes) { return (bytes + (bytes + 7) / 8 + 7) / 8 * 8; }

// Builds the listing of path for process target and the overlay orders in
// [minOrder, maxOrder].  With entry storage (8-byte aligned, at least
// kListingMinStorage bytes) the listing is built there and *listing points at
// it; without (storage null or size 0) nothing is built and *listing is
// null.  nativeState is the state the directory's own entries are read with
// and must be given with entry storage, since reads go on with it; a
// counting pass may pass null to borrow the shared buffer for the call.  chunk is reported with the
// profiling events (CHUNKID_INVALID when none).  Returns the bytes of entry
// storage the listing needs (>= 0), or a negative result code:
// ZUL_KEST_ERROR_BAD_SIZE when the storage is too small,
// ZUL_KEST_ERROR_BAD_ALIGNMENT, ZUL_KEST_ERROR_BAD_PTR (storage without a
// state), ZUL_KEST_ERROR_PATH_TOO_LONG,
// ZUL_KEST_ERROR_BAD_PATH, or the mapped native error when the directory
// exists neither in the file system nor through an overlay.
int32_t OpenOverlaidDirectory(uint32_t target, OverlayDirListing** listing, const char* path,
                              int32_t minOrder, int32_t maxOrder, void* storage,
                              uint64_t storageSize, NativeDirState* nativeState,
                              ChunkID chunk = CHUNKID_INVALID);

// The next entry of an open listing: the stored entries first, then the
// directory's own entries whose names were not stored, each with its status
// (cleared when it cannot be had).  Returns 0 with *entry and *stat filled,
// ZUL_KEST_ERROR_EOF at the end (every time once there), ZUL_KEST_ERROR_BAD_DH
// for a listing that is not open, or the mapped native error of a directory
// that cannot be read.  nativeState must be the state the listing was
// opened with.
int32_t DHRead(OverlayDirListing* listing, NativeDirEntry* entry, NativeStat* stat,
               int32_t minOrder, int32_t maxOrder, NativeDirState* nativeState,
               ChunkID chunk = CHUNKID_INVALID);

// Closes the directory's own descriptor, if any, and marks the listing
// closed.  0, or ZUL_KEST_ERROR_BAD_DH for a listing that is not open.
int32_t CloseOverlaidDirectory(OverlayDirListing* listing, ChunkID chunk = CHUNKID_INVALID);

// --- Building blocks of the overlay merge --------------------------------

// Appends a copy of entry and stat to the listing's stored entries,
// allocated from pool.  0, or ZUL_KEST_ERROR_BAD_SIZE when the pool is full.
int32_t AddEntryToDirHandle(Pool* pool, OverlayDirListing* listing, const NativeDirEntry* entry,
                            const NativeStat* stat);

// Keeps the first of the stored entries of each name, returns the others to
// pool, and rewinds the cursor to the first entry.  depth is the level of
// the build, for the trace.
void RemoveDuplicateEntries(Pool* pool, OverlayDirListing* listing, int32_t depth);

// directory + "/" + name into out (kListingPathSize bytes); false, with out
// empty, when that does not fit.
bool JoinListingPath(char* out, const char* directory, const char* name);

}  // namespace kest2

#endif  // KEST2_SRC_IO_OVERLAY_DIR_LISTING_H_
