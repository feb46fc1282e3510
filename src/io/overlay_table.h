// Path overlays: one ordered table, per process, of directory trees laid
// over other trees.  A path under an overlay's `dst` is redirected to the
// same relative path under its `src`; an opaque overlay always wins, a
// translucent one where its file exists, a newer one where its file is newer
// than what the path resolves to without it, and a writable one is opaque
// for writing and translucent for reading.  Resolution walks the table in
// order, so later overlays may redirect the result of earlier ones.
//
// Thread-safety: the table is guarded by the overlay read-write lock of the
// global lock set.  Resolution holds it for reading while it stats
// candidates, which resolves again recursively; OverlayReadLocker takes the
// lock only on a thread's outermost hold, so no thread read-locks it twice
// (which a writer-preferring lock could deadlock on).
#ifndef KEST2_SRC_IO_OVERLAY_TABLE_H_
#define KEST2_SRC_IO_OVERLAY_TABLE_H_

#include <cstddef>
#include <cstdint>

#include "core/globals.h"
#include "core/system_calls.h"
#include "kest2.h"

namespace kest2 {

using NativeStat = SystemStat;

constexpr int32_t kOverlayTableSize = 64;
constexpr uint64_t kOverlayPathSize = ZUL_KEST_OVERLAY_PATH_SIZE;
constexpr uint64_t kResolveBufferSize = 1024;
constexpr int32_t kThisProcess = 1;
constexpr int32_t kEveryProcess = -1;

struct OverlayEntry {
  uint8_t type;
  int8_t order;
  uint16_t dstLength;
  uint16_t srcLength;
  uint8_t zero[2];
  int32_t pid;
  int32_t id;
  char dst[kOverlayPathSize];
  char src[kOverlayPathSize];
};
static_assert(sizeof(OverlayEntry) == 600, "");

struct OverlayResolveParams {
  int32_t targetProcess;
  uint32_t forWrite;
  uint64_t bufferSize;  // at most kResolveBufferSize
  uint8_t minOrder;
  uint8_t maxOrder;
};

// Holds the overlay read lock for its scope, unless this thread holds it
// already.
class OverlayReadLocker {
 public:
  OverlayReadLocker() ASSERT_SHARED_CAPABILITY(g_locks.overlay);
  ~OverlayReadLocker();
  OverlayReadLocker(const OverlayReadLocker&) = delete;
  OverlayReadLocker& operator=(const OverlayReadLocker&) = delete;

 private:
  bool m_locked;
};

// Table operations; target must be kThisProcess (else ZUL_KEST_ERROR_ACCESS).
int32_t OverlayAdd(int32_t target, const OverlayEntry* entry, int32_t* id);
int32_t OverlayRemove(int32_t target, int32_t id);
int32_t OverlayGetInfo(int32_t target, int32_t id, OverlayEntry* out);
int32_t OverlayModify(int32_t target, int32_t id, const OverlayEntry* entry);
int32_t OverlayGetList(int32_t target, uint8_t minOrder, uint8_t maxOrder, int32_t* ids,
                       int32_t length, int32_t* count);
void OverlayRemoveAllForProcess(int32_t target);

// The public record as an entry (type, order, both strings, pid 1).
int32_t OverlayFromPublic(const ZulKestOverlay* overlay, OverlayEntry* entry);

// Resolves path through the overlays of orders minOrder..maxOrder into out
// (outSize bytes, at most 1024).
int32_t OverlayResolveSync(int32_t target, uint32_t forWrite, const char* path, char* out,
                           uint64_t outSize, uint8_t minOrder, uint8_t maxOrder);
// The resolver: rewrites path (params.bufferSize bytes) in place using the
// entries from `first` on.  0 when nothing applied, 1 + the index of the
// first overlay that did, or an error.  scratch holds 1024 bytes.
int32_t OverlayResolveFromIndex(const OverlayResolveParams& params, int32_t first, char* scratch,
                                char* path);
// The operating system's status of path as resolved from `first` on.
int32_t OverlayNativeStatFromIndex(int32_t target, uint32_t forWrite, const char* path,
                                   NativeStat* stat, char* scratch, int32_t first, uint8_t minOrder,
                                   uint8_t maxOrder);

// For the overlaid listing: a snapshot-free view of the table.
// Under an OverlayReadLocker.
int32_t OverlayCount() REQUIRES_SHARED(g_locks.overlay);
const OverlayEntry* OverlayAt(int32_t index) REQUIRES_SHARED(g_locks.overlay);

// "is any overlay installed": a cheap check before resolving.
bool OverlaysInstalled();

}  // namespace kest2

#endif  // KEST2_SRC_IO_OVERLAY_TABLE_H_
