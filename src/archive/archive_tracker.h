// Mounted archives: the record that describes one (at the start of the
// caller's mount buffer), the list of them kept in the dearchiver context,
// archive IDs, and the lookups that map a path or a handle to an archive.
//
// Mount buffer layout, each area starting where the previous one ends:
//   tracker record        288 bytes
//   mount point           256 bytes, or its length + 1 rounded up to 8
//   block offset index    5 bytes per 16 block rows, rounded up to 8
//   TOC region            tocLength rounded up to 8
//   manifest path array   8 bytes per path (tocEntryCount - 1)
//   manifest text         manifest size + 1
//
// Thread-safety: the list, the trackers and the work-buffer state are
// guarded by the dearchiver mutex ("ZulKestDearchiver", recursive); every
// function marked REQUIRES below must be called with it held.
#ifndef KEST2_SRC_ARCHIVE_ARCHIVE_TRACKER_H_
#define KEST2_SRC_ARCHIVE_ARCHIVE_TRACKER_H_

#include <cstdint>
#include <cstring>

#include "archive/zorba_format.h"
#include "core/platform.h"
#include "kest2.h"

namespace kest2 {

struct ArchiveTracker {
  ArchiveTracker* next;  // the context's list, newest first
  ZorbaHeader header;    // tocSorted once mounted
  uint32_t archiveHandle;
  int32_t id;
  ZulKestStat archiveStat;
  uint64_t manifestSize;
  uint32_t manifestPathCount;
  uint32_t mountPointLength;
  char* mountPoint;
  uint8_t* blockIndex;
  uint8_t* toc;
  const char** manifestPaths;  // sorted
  char* manifestText;          // newlines replaced by zero bytes
};

constexpr uint64_t kTrackerSize = 0x120;
static_assert(sizeof(ArchiveTracker) <= kTrackerSize, "the tracker area holds the record");
// A query has no mount point and counts this much for one.
constexpr uint64_t kQueryMountPointArea = 1024;

// Offsets of the areas of a mount buffer, and its required size.
struct MountLayout {
  uint64_t mountPoint;
  uint64_t blockIndex;
  uint64_t toc;
  uint64_t manifestPaths;
  uint64_t manifestText;
  uint64_t total;
};
uint64_t MountPointArea(uint64_t mountPointLength);
MountLayout ComputeMountLayout(const ZorbaHeader& header, uint64_t mountPointArea,
                               uint64_t manifestSize);

// --- The dearchiver's library-wide state ----------------------------------

// The dearchiver mutex; exists while at least one dearchiver is installed.
HybPlatformMutex* DearchiverMutex();
bool DearchiverMutexHeld();

// The mutex is recursive: the locker asserts it for the analysis rather
// than acquiring it (see core/thread_annotations.h).
class DearchiverLocker {
 public:
  DearchiverLocker() ASSERT_CAPABILITY(DearchiverMutex()) NO_THREAD_SAFETY_ANALYSIS {
    MutexLock(DearchiverMutex());
  }
  ~DearchiverLocker() NO_THREAD_SAFETY_ANALYSIS { MutexUnlock(DearchiverMutex()); }
  DearchiverLocker(const DearchiverLocker&) = delete;
  DearchiverLocker& operator=(const DearchiverLocker&) = delete;
};

// The context's reserved words: the list head, the work buffers' busy mask
// and the flag that a chunk was held back for want of a buffer.
// The words are read without the mutex by the context's sanity check, so
// they are accessed atomically.
inline ArchiveTracker* ArchiveList(const ZulKestZorbaDearchiverContext* context) {
  return reinterpret_cast<ArchiveTracker*>(
      static_cast<uintptr_t>(__atomic_load_n(&context->reserved[0], __ATOMIC_ACQUIRE)));
}
inline void SetArchiveList(ZulKestZorbaDearchiverContext* context, ArchiveTracker* head) {
  __atomic_store_n(&context->reserved[0], static_cast<uint64_t>(reinterpret_cast<uintptr_t>(head)),
                   __ATOMIC_RELEASE);
}
inline uint64_t& BufferBusyMask(ZulKestZorbaDearchiverContext* context) {
  return context->reserved[1];
}
inline uint64_t& BufferDeferred(ZulKestZorbaDearchiverContext* context) {
  return context->reserved[2];
}
inline bool LooseFiles(const ZulKestZorbaDearchiverContext* context) {
  return (context->flags & ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES) != 0;
}

// --- Archive IDs and the list -------------------------------------------

// Gives the tracker the ID of an identical archive mounted now or before
// (the last 64 distinct archives are remembered), or a new one, and puts it
// at the head of the list.
void AddMountedArchive(ZulKestZorbaDearchiverContext* context, ArchiveTracker* tracker)
    REQUIRES(DearchiverMutex());
// Unlinks the tracker whose archive file handle is h; null when none.
ArchiveTracker* RemoveMountedArchive(ZulKestZorbaDearchiverContext* context, uint32_t h)
    REQUIRES(DearchiverMutex());
ArchiveTracker* FindArchiveById(ZulKestZorbaDearchiverContext* context, int32_t id)
    REQUIRES(DearchiverMutex());
ArchiveTracker* FindArchiveByHandle(ZulKestZorbaDearchiverContext* context, uint32_t h)
    REQUIRES(DearchiverMutex());

// --- Lookups --------------------------------------------------------------

enum FindResult {
  FINDRESULT_NOT_OURS = 0,
  FINDRESULT_MISSING = 1,
  FINDRESULT_FILE = 2,
  FINDRESULT_DIR = 3,
};

// For FINDRESULT_MISSING *tracker is the newest archive whose mount point
// covers the path.
FindResult LookupPath(ZulKestZorbaDearchiverContext* context, const char* path,
                      ArchiveTracker** tracker, const uint8_t** entry) REQUIRES(DearchiverMutex());
// Whether the path lies below the tracker's mount point; *relative gets the
// rest of the path as the archive keys it.
bool MountPointCovers(const ArchiveTracker* tracker, const char* path, const char** relative)
    REQUIRES(DearchiverMutex());

// What the dearchiver keeps in a file or directory handle it owns.
struct ArchiveFileData {
  int32_t id;
  uint32_t tocIndex;
};
struct ArchiveDirData {
  int32_t id;
  uint32_t nativeDH;  // loose files' listing, 0 when none
  int64_t position;   // manifest position, -1 before the first read
  uint8_t exhausted;  // kListingArchivesDone, then kListingNativeDone
};
constexpr uint8_t kListingArchivesDone = 1;
constexpr uint8_t kListingNativeDone = 2;

// The archive (and entry) behind a handle the dearchiver owns; false for
// another's handle or one whose archive is gone.
bool LookupFH(ZulKestZorbaDearchiverContext* context, uint32_t fh, ArchiveTracker** tracker,
              const uint8_t** entry) REQUIRES(DearchiverMutex());
bool LookupDH(ZulKestZorbaDearchiverContext* context, uint32_t dh, ArchiveTracker** tracker)
    REQUIRES(DearchiverMutex());

// The next child of a directory in the manifest after position (-1: the
// first); its position, or -1 at the end.  childName receives the child's
// name (at most 255 characters).
int64_t DirSearch(const ArchiveTracker* tracker, const char* directory, int64_t position,
                  char* childName, size_t childNameSize);

// The stat of an archived file (entry) or directory (entry null).
void GetStat(const ArchiveTracker* tracker, const uint8_t* entry, ZulKestStat* out);

// True when the tracker's pointers and header look intact; prints the
// corrupt-buffer message otherwise.
bool CheckMountBuffer(const ArchiveTracker* tracker);

// The entry's index in the tracker's TOC.
inline uint32_t EntryIndex(const ArchiveTracker* tracker, const uint8_t* entry) {
  return static_cast<uint32_t>((entry - tracker->toc) / tracker->header.tocEntrySize);
}

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_ARCHIVE_TRACKER_H_
