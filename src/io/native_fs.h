// The native primitives: the thin layer between the library and the
// operating system's file functions, the one mapping of operating-system
// failures to the library's result codes, the open-flag translation and the
// profiling-event helper.
//
// Result convention of the primitives: 0 or a count (or a descriptor) on
// success; on failure a negative kernel code, kKernelErrorBase + errno
// (core/platform.h).  Callers turn failures into ZUL_KEST_ERROR_* codes with
// MapNativeError; the raw kernel code is what the "io" trace prints.  An
// interrupted call (EINTR) is restarted inside the primitive, so callers
// never see it.
//
// Thread-safety: every function may run on any thread at once.  The
// primitives keep no state of their own; a directory state belongs to its
// caller and must not be shared by two readers at once.
#ifndef KEST2_SRC_IO_NATIVE_FS_H_
#define KEST2_SRC_IO_NATIVE_FS_H_

#include <cstddef>
#include <cstdint>

#include "core/system_calls.h"
#include "io/native_dir_buffer.h"
#include "kest2.h"
#include "sched/chunk.h"

namespace kest2 {

// --- Result mapping -------------------------------------------------------

// Turns an operating-system result into a library result code:
//   0                                   -> 0
//   -1                                  -> errno, then as a positive value;
//                                          -1 itself when errno is 0
//   positive e (a raw errno number)     -> ENOENT, ENAMETOOLONG: BAD_PATH;
//                                          ENOTDIR: NOT_A_DIRECTORY;
//                                          EISDIR: NOT_A_FILE; any other: -e
//   kKernelErrorBase + errno            -> the errno table in native_fs.cc;
//                                          never left raw
//   anything else (library codes)       -> unchanged
int32_t MapNativeError(int32_t result);

// --- Open flags -------------------------------------------------------------

// The system's open flags for a ZUL_KEST_O_* set are SystemOpenFlags
// (core/system_calls.h).
// The creation mode handed to the kernel: 0 without ZUL_KEST_O_CREAT;
// otherwise mode, or 0777 when mode is -1, truncated to 16 bits.
uint32_t MapOpenMode(uint32_t openFlags, int32_t mode);

// --- Primitives -------------------------------------------------------------

// The fields of a file's status that the library uses.
using NativeStat = SystemStat;
static_assert(sizeof(NativeStat) <= 120, "a listing entry keeps 120 bytes of status");

constexpr uint32_t kNativeModeTypeMask = 0xF000;
constexpr uint32_t kNativeModeDirectory = 0x4000;
constexpr uint32_t kNativeModeRegular = 0x8000;
constexpr uint32_t kNativeModeOwnerRead = 0x100;
constexpr uint32_t kNativeModeOwnerWrite = 0x80;

// The library's 80-byte stat record for a status: size, access and
// modification dates in whole seconds, no creation date, the directory and
// owner read/write flags, and the mode bits.
void FillLibraryStat(const NativeStat& st, ZulKestStat* out);

inline bool NativeIsDirectory(const NativeStat& st) {
  return (st.mode & kNativeModeTypeMask) == kNativeModeDirectory;
}
inline bool NativeIsRegular(const NativeStat& st) {
  return (st.mode & kNativeModeTypeMask) == kNativeModeRegular;
}

// Opens path with the translated openFlags and creation mode.  Returns the
// descriptor, or a negative kernel code; *fd (when not null) receives the
// descriptor or -1.
int32_t NativeOpen(const char* path, uint32_t openFlags, int32_t mode, int32_t* fd);
// A close that the kernel interrupted has still released the descriptor
// and counts as success; it is never retried.
int32_t NativeClose(int32_t fd);
// One positional transfer: the count moved (possibly short) or a negative
// kernel code.  Neither moves the descriptor's own file position.
int64_t NativePread(int32_t fd, void* buffer, int64_t count, int64_t offset);
// An invalid-argument failure (a bad position, or a misaligned direct
// transfer) is reported as ZUL_KEST_ERROR_BAD_OFFSET instead of a kernel
// code.
int64_t NativePwrite(int32_t fd, const void* buffer, int64_t count, int64_t offset);
// Transfers at the descriptor's own file position, which they advance.
int64_t NativeRead(int32_t fd, void* buffer, int64_t count);
int64_t NativeWrite(int32_t fd, const void* buffer, int64_t count);
// The system may move fewer bytes than asked without being at the end of
// the file (a signal, a device at its limit): carries a transfer on until
// `count` bytes moved, a read of 0 (the end of the file) or a failure.
// Returns the bytes moved; *failure gets the failure's code (0: none), so
// that bytes moved before it are not lost.  Positional transfers go to
// `offset`; the others to the descriptor's position, which they advance.
int64_t NativeTransferWhole(int32_t fd, void* buffer, int64_t count, bool positional,
                            int64_t offset, bool write, int64_t* failure);
// Moves the descriptor's file position (whence: 0 start, 1 current, 2
// end); the new position or a negative kernel code.
int64_t NativeSeek(int32_t fd, int64_t offset, int whence);
int32_t NativeFsync(int32_t fd);
int32_t NativeFtruncate(int32_t fd, int64_t size);
int32_t NativeTruncate(const char* path, int64_t size);
// Status of a path (following symbolic links) or of a descriptor.
int32_t NativeStatPath(const char* path, NativeStat* out);
int32_t NativeStatFd(int32_t fd, NativeStat* out);
// mode -1 means 0777; otherwise its low 16 bits are used.
int32_t NativeMkdir(const char* path, int32_t mode);
int32_t NativeRmdir(const char* path);
int32_t NativeUnlink(const char* path);
// Replaces an existing target atomically, as the kernel's rename does.
int32_t NativeRename(const char* oldPath, const char* newPath);

// --- Directory listing ------------------------------------------------------

// The reading state of one open directory: the kernel's raw entries of the
// last refill and how far they have been handed out.  Callers size their
// buffers with kNativeDirBufferSize and may place a state in any 8-byte
// aligned buffer of that size.
struct alignas(8) NativeDirState {
  int32_t count;     // bytes of raw entries held; -1 before the first refill
  int32_t position;  // offset of the next raw entry; -1 with count
  uint8_t entries[65536];
};
static_assert(sizeof(NativeDirState) == 0x10008, "");
static_assert(sizeof(NativeDirState) == kNativeDirBufferSize, "");

constexpr size_t kNativeDirNameMax = 255;

// One directory entry as handed to callers (264 bytes).  fileno is the low
// 32 bits of the entry's inode number; reclen is this record's size; type
// is the kernel's DT_* code; namelen the length of name.
struct NativeDirEntry {
  uint32_t fileno;
  uint16_t reclen;
  uint8_t type;
  uint8_t namelen;
  char name[kNativeDirNameMax + 1];  // NUL-terminated
};
static_assert(sizeof(NativeDirEntry) == 264, "");

// Resets the state, checks that path is a directory (the stat's kernel
// code, or ZUL_KEST_ERROR_NOT_A_DIRECTORY) and opens it for listing.
// Returns 0 with *fd set, or a negative code with *fd = -1 (a refused open
// is reported, not hidden).
int32_t NativeDirOpen(const char* path, int32_t* fd, NativeDirState* state);
// The next entry other than "." and "..": 1 with *entry filled, 0 at the end
// of the directory, or a negative code (ZUL_KEST_ERROR_BAD_PTR for a null
// state or entry).  The end and failures reset the state's count and
// position to -1.
int32_t NativeDirRead(int32_t fd, NativeDirEntry* entry, NativeDirState* state);
// 0, or the close's negative kernel code.
int32_t NativeDirClose(int32_t fd);

// --- Profiling --------------------------------------------------------------

// Event kinds of ZulKestIOEvent.
enum NativeEventKind : uint8_t {
  kEventOpen = 0,
  kEventRead = 1,
  kEventWrite = 2,
  kEventClose = 3,
  kEventStat = 4,
  kEventSync = 5,
  kEventDirOpen = 6,
  kEventDirRead = 7,
  kEventDirClose = 8,
};

// Reports one operating-system call to the profiling hook and to the
// timeline.  Construct it just before the call and Finish() just after: the
// records are built on the stack and the hook called once, only when the
// hook is set at both moments; the timeline notes the call when it recorded
// at the first.  Costs two relaxed loads when neither is on.
class NativeEvent {
 public:
  // A call that is not a transfer: offset 0, position INT64_MAX, length 0.
  NativeEvent(uint8_t kind, ChunkID chunk, const char* path);
  // A read or write: the chunk's offset, media position and requested count.
  NativeEvent(uint8_t kind, ChunkID chunk, const char* path, int64_t offset,
              int64_t position, int64_t length);
  NativeEvent(const NativeEvent&) = delete;
  NativeEvent& operator=(const NativeEvent&) = delete;

  void Finish();

 private:
  ZulKestEventHook m_hook;  // null: nothing to report
  int64_t m_timelineBegin;  // 0: the timeline does not record
  ZulKestIORequest m_request;
  ZulKestIOEvent m_event;
};

}  // namespace kest2

#endif  // KEST2_SRC_IO_NATIVE_FS_H_
