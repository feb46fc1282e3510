// The operating system's file and directory calls, as one table of function
// pointers.  The native layer (io/native_fs.cc) reaches the file system only
// through this table, so a test can swap one entry for a function that
// fails the way a device, a full disk or a signal would, and drive the real
// engine through that failure.
//
// Convention: every entry makes exactly one system call and answers its
// result (0, a count or a descriptor) or -errno; none retries an
// interrupted call, reads errno afterwards or maps codes: that is the
// native layer's job, so a swapped entry exercises it too.
//
// Thread-safety: the entries are called from any thread.  Swap them only
// while no request is in flight (a test between its library calls); the
// library's own locks order the swap before the calls that follow.
#ifndef KEST2_SRC_CORE_SYSTEM_CALLS_H_
#define KEST2_SRC_CORE_SYSTEM_CALLS_H_

#include <cstdint>

namespace kest2 {

// The fields of a file's status that the library uses.  Fits the 120 bytes
// that a directory listing keeps per entry.
struct SystemStat {
  uint32_t mode;  // type bits 0xF000 and permission bits
  uint32_t reserved;
  int64_t size;           // bytes
  int64_t accessSeconds;  // whole seconds since the epoch
  int64_t modificationSeconds;
  int64_t changeSeconds;
  uint64_t device;
  uint64_t inode;
};

struct SystemCalls {
  // flags are the system's own open flags (SystemOpenFlags).
  int32_t (*open)(const char* path, int32_t flags, uint32_t mode);
  // Opens a directory for listing (read-only, non-blocking, close-on-exec).
  int32_t (*openDirectory)(const char* path);
  int32_t (*close)(int32_t fd);
  int64_t (*pread)(int32_t fd, void* buffer, uint64_t count, int64_t offset);
  int64_t (*pwrite)(int32_t fd, const void* buffer, uint64_t count, int64_t offset);
  int64_t (*read)(int32_t fd, void* buffer, uint64_t count);
  int64_t (*write)(int32_t fd, const void* buffer, uint64_t count);
  // whence: 0 start, 1 current position, 2 end.
  int64_t (*seek)(int32_t fd, int64_t offset, int32_t whence);
  int32_t (*fsync)(int32_t fd);
  int32_t (*ftruncate)(int32_t fd, int64_t size);
  int32_t (*truncate)(const char* path, int64_t size);
  // Status of a path (following symbolic links) or of a descriptor.
  int32_t (*stat)(const char* path, SystemStat* out);
  int32_t (*fstat)(int32_t fd, SystemStat* out);
  int32_t (*mkdir)(const char* path, uint32_t mode);
  int32_t (*rmdir)(const char* path);
  int32_t (*unlink)(const char* path);
  int32_t (*rename)(const char* oldPath, const char* newPath);
  // The kernel's raw directory records (linux_dirent64) of an open
  // directory: bytes filled, 0 at the end.
  int64_t (*getdents)(int32_t fd, void* buffer, uint64_t size);
};

// The table the native layer calls through; tests swap its entries.
SystemCalls& SystemCallTable();
// The entries that call the system, to put back what a test swapped.
const SystemCalls& DefaultSystemCalls();

// The system's numbers for the errors that the native layer treats apart
// from the rest: an interrupted call is restarted, an invalid argument to a
// write is a bad offset.
extern const int kErrnoInterrupted;
extern const int kErrnoInvalid;
extern const int kErrnoIo;

// The system's open flags for a ZUL_KEST_O_* set: the access mode from the
// low two bits (WRITE alone: write-only; READ|WRITE: read-write; otherwise
// read-only), APPEND, CREAT, TRUNC and DIRECT; every other bit is dropped.
// The descriptor is always close-on-exec.
int SystemOpenFlags(uint32_t openFlags);

// The library code for one errno, by the errno's meaning.  0 maps to 0.
int32_t CodeFromErrno(int err);
// The library code for an errno number handed back raw by a caller's
// function: ENOENT and ENAMETOOLONG are BAD_PATH, ENOTDIR NOT_A_DIRECTORY,
// EISDIR NOT_A_FILE; any other is -err.
int32_t CodeFromRawErrno(int err);
// The errno the last failed library call of the C runtime left behind.
int LastErrno();

}  // namespace kest2

#endif  // KEST2_SRC_CORE_SYSTEM_CALLS_H_
