// The objects that live in the three handle tables: operations, file handles
// and directory handles.  Each begins with its own handle `h`; each ends with
// a StoredPath whose text takes pathMax bytes, which is why the tables'
// units grow with pathMax.  A new object is all zero.
#ifndef KEST2_SRC_CORE_RECORDS_H_
#define KEST2_SRC_CORE_RECORDS_H_

#include <cstddef>
#include <cstdint>

#include "core/stored_path.h"
#include "kest2.h"

namespace kest2 {

// internalFlags of an operation.
constexpr uint16_t kOpCancelled = 0x02;
constexpr uint16_t kOpUpdatesPosition = 0x04;  // completion moves the FH
constexpr uint16_t kOpTemporaryHandle = 0x08;  // released at completion
constexpr uint16_t kOpOwnsNewHandle = 0x10;    // released when it fails

struct Operation {
  uint32_t h;
  uint16_t what;          // ZulKestOpType
  uint8_t bufferCount;    // used entries of buffers, 0..8
  uint8_t deleted;        // set once deletion starts
  uint32_t targetHandle;  // file or directory handle worked on, or 0
  uint16_t internalFlags;
  int16_t rootChunk;  // root of the chunk tree, -1 when none
  int64_t offset;
  ZulKestBuffer buffers[ZUL_KEST_MAX_BUFFERS];  // unused entries are zero
  int64_t actCount;                             // amount transferred or produced
  int64_t arg;                                  // mode, length, command or second-path pointer
  int32_t err;
  int32_t done;     // 1 once completed
  int32_t waiters;  // threads blocked on it
  ZulKestOpAttr attr;
  StoredPath path;  // pathMax bytes of text follow
};

struct FileHandle {
  uint32_t h;
  uint32_t opened;         // 0 until the open has executed
  int32_t m_pendingIO;     // I/O prepared but not yet executed
  int32_t nativeFH;        // descriptor, -1 while none
  void* filterContext;     // the filter serving the file, null for native
  uint8_t filterData[16];  // that filter's own data
  int64_t offset;          // current position, -1 when unknown
  int64_t size;            // size as last known
  ZulKestOpenParams openParams;
  StoredPath path;
};

struct DirHandle {
  uint32_t h;
  uint32_t opened;
  int32_t m_pendingIO;
  uint64_t nativeDH;  // native listing state, 0 until opened
  void* filterContext;
  uint8_t filterData[32];
  int64_t entriesRead;  // atomic
  void* buffer;         // caller's buffer from the open
  int64_t bufferLength;
  StoredPath path;
};

// Unit sizes of the tables for a pathMax; every record must fit its unit.
constexpr uint64_t OpUnitSize(uint32_t pathMax) { return ZUL_KEST_OP_UNIT_SIZE(pathMax); }
constexpr uint64_t FhUnitSize(uint32_t pathMax) { return ZUL_KEST_FH_UNIT_SIZE(pathMax); }
constexpr uint64_t DhUnitSize(uint32_t pathMax) { return ZUL_KEST_DH_UNIT_SIZE(pathMax); }

static_assert(offsetof(Operation, path) + StoredPathSize(1) <= OpUnitSize(1), "");
static_assert(offsetof(Operation, path) + StoredPathSize(1024) <= OpUnitSize(1024), "");
static_assert(offsetof(FileHandle, path) + StoredPathSize(1) <= FhUnitSize(1), "");
static_assert(offsetof(FileHandle, path) + StoredPathSize(1024) <= FhUnitSize(1024), "");
static_assert(offsetof(DirHandle, path) + StoredPathSize(1) <= DhUnitSize(1), "");
static_assert(offsetof(DirHandle, path) + StoredPathSize(1024) <= DhUnitSize(1024), "");

// The operation whose completion callback runs on this thread, 0 otherwise.
// While its callback runs an operation counts as finished on that thread.
extern thread_local uint32_t t_currentCallbackOp;

inline bool OpFinishedForThisThread(const Operation* op) {
  return __atomic_load_n(&op->done, __ATOMIC_ACQUIRE) != 0 ||
         (t_currentCallbackOp != 0 && t_currentCallbackOp == op->h);
}

}  // namespace kest2

#endif  // KEST2_SRC_CORE_RECORDS_H_
