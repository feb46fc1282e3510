// The POSIX (Linux) port of the native primitives.
//
// Every primitive is one system call (restarted on EINTR) whose failure is
// returned as kKernelErrorBase + errno.  Directory listings read the kernel's
// raw entries with getdents64 into the caller's NativeDirState and hand them
// out one at a time as fixed-size NativeDirEntry records.

#include "io/native_fs.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

#include "api/globals.h"
#include "core/platform.h"
#include "sched/chunk_tree.h"

namespace kest2 {

namespace {

// errno values above this are not kernel codes of ours.
constexpr uint32_t kKernelErrnoLimit = 0x10000;

// The kernel code of the failure the last system call reported.  A failure
// always yields a negative code, even if errno were left at 0.
int32_t FailureCode() {
  const int err = errno;
  return KernelResultFromErrno(err != 0 ? err : EIO);
}

// Folds a system call's int result into the primitives' convention.
int32_t ResultOf(int rc) { return rc < 0 ? FailureCode() : 0; }

template <typename Call>
auto Restarting(Call call) -> decltype(call()) {
  for (;;) {
    auto rc = call();
    if (rc >= 0 || errno != EINTR) return rc;
  }
}

void FillStat(const struct stat& st, NativeStat* out) {
  std::memset(out, 0, sizeof(*out));
  out->mode = static_cast<uint32_t>(st.st_mode) & 0xFFFF;
  out->size = static_cast<int64_t>(st.st_size);
  out->accessSeconds = static_cast<int64_t>(st.st_atime);
  out->modificationSeconds = static_cast<int64_t>(st.st_mtime);
  out->changeSeconds = static_cast<int64_t>(st.st_ctime);
  out->device = static_cast<uint64_t>(st.st_dev);
  out->inode = static_cast<uint64_t>(st.st_ino);
}

// Layout of the kernel's linux_dirent64 record; read with memcpy because a
// caller's state buffer need not keep the records 8-byte aligned.
constexpr size_t kDirentInoOffset = 0;
constexpr size_t kDirentReclenOffset = 16;
constexpr size_t kDirentTypeOffset = 18;
constexpr size_t kDirentNameOffset = 19;

}  // namespace

// --- Result mapping -------------------------------------------------------

// errno -> library code, by meaning.  Every errno that open, close, pread,
// pwrite, fsync, ftruncate, truncate, stat, fstat, mkdir, rmdir, unlink,
// rename and getdents64 document is listed; anything else is an unexpected
// device failure and reported as MEDIA_GONE, so no kernel code reaches a
// caller.
//
//   EPERM, EACCES, ENOTEMPTY, EXDEV, EMLINK    ACCESS     (not permitted here)
//   ENOENT, EINVAL, EOPNOTSUPP/ENOTSUP,
//     ENAMETOOLONG, ELOOP                      BAD_PATH   (no usable path)
//   EFAULT                                     BAD_PTR    (bad buffer address)
//   EBADF                                      BAD_FH
//   EBUSY, ETXTBSY, EAGAIN/EWOULDBLOCK, EINTR  BUSY       (try again later)
//   EEXIST                                     EXISTS
//   ENODEV, ENOSYS, ENXIO, EIO, ENOMEDIUM,
//     ESTALE, EPIPE, other                     MEDIA_GONE (the device failed)
//   ENOTDIR                                    NOT_A_DIRECTORY
//   EISDIR, ESPIPE                             NOT_A_FILE
//   EFBIG, ENOSPC, EDQUOT, EOVERFLOW           BAD_SIZE   (size cannot be had)
//   EROFS                                      READ_ONLY
//   ERANGE                                     EOF
//   ETIMEDOUT                                  TIMEOUT
//   EMFILE, ENFILE, ENOMEM                     CANT_ALLOCATE_FH
int32_t CodeFromErrno(int err) {
  switch (err) {
    case 0:
      return 0;
    case EPERM:
    case EACCES:
    case ENOTEMPTY:
    case EXDEV:
    case EMLINK:
      return ZUL_KEST_ERROR_ACCESS;
    case ENOENT:
    case EINVAL:
    case EOPNOTSUPP:
#if ENOTSUP != EOPNOTSUPP
    case ENOTSUP:
#endif
    case ENAMETOOLONG:
    case ELOOP:
      return ZUL_KEST_ERROR_BAD_PATH;
    case EFAULT:
      return ZUL_KEST_ERROR_BAD_PTR;
    case EBADF:
      return ZUL_KEST_ERROR_BAD_FH;
    case EBUSY:
    case ETXTBSY:
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EINTR:
      return ZUL_KEST_ERROR_BUSY;
    case EEXIST:
      return ZUL_KEST_ERROR_EXISTS;
    case ENOTDIR:
      return ZUL_KEST_ERROR_NOT_A_DIRECTORY;
    case EISDIR:
    case ESPIPE:
      return ZUL_KEST_ERROR_NOT_A_FILE;
    case EFBIG:
    case ENOSPC:
    case EDQUOT:
    case EOVERFLOW:
      return ZUL_KEST_ERROR_BAD_SIZE;
    case EROFS:
      return ZUL_KEST_ERROR_READ_ONLY;
    case ERANGE:
      return ZUL_KEST_ERROR_EOF;
    case ETIMEDOUT:
      return ZUL_KEST_ERROR_TIMEOUT;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return ZUL_KEST_ERROR_CANT_ALLOCATE_FH;
    case ENODEV:
    case ENOSYS:
    case ENXIO:
    case EIO:
    case ENOMEDIUM:
    case ESTALE:
    case EPIPE:
    default:
      return ZUL_KEST_ERROR_MEDIA_GONE;
  }
}

int32_t MapNativeError(int32_t result) {
  if (result == 0) return 0;
  if (result == -1) {
    const int err = errno;
    if (err == 0) return -1;
    result = err;
  }
  if (result > 0) {
    // A raw errno number: only the path answers are translated, any other
    // value comes back negated.
    switch (result) {
      case ENOENT:
      case ENAMETOOLONG:
        return ZUL_KEST_ERROR_BAD_PATH;
      case ENOTDIR:
        return ZUL_KEST_ERROR_NOT_A_DIRECTORY;
      case EISDIR:
        return ZUL_KEST_ERROR_NOT_A_FILE;
      default:
        return -result;
    }
  }
  const uint32_t err = static_cast<uint32_t>(result) - static_cast<uint32_t>(kKernelErrorBase);
  if (err != 0 && err < kKernelErrnoLimit) return CodeFromErrno(static_cast<int>(err));
  return result;
}

// --- Open flags -------------------------------------------------------------

int MapOpenFlags(uint32_t openFlags) {
  int flags;
  switch (openFlags & (ZUL_KEST_O_READ | ZUL_KEST_O_WRITE)) {
    case ZUL_KEST_O_WRITE:
      flags = O_WRONLY;
      break;
    case ZUL_KEST_O_READ | ZUL_KEST_O_WRITE:
      flags = O_RDWR;
      break;
    default:
      flags = O_RDONLY;
      break;
  }
  if (openFlags & ZUL_KEST_O_APPEND) flags |= O_APPEND;
  if (openFlags & ZUL_KEST_O_CREAT) flags |= O_CREAT;
  if (openFlags & ZUL_KEST_O_TRUNC) flags |= O_TRUNC;
  if (openFlags & ZUL_KEST_O_DIRECT) flags |= O_DIRECT;
  return flags | O_CLOEXEC;
}

uint32_t MapOpenMode(uint32_t openFlags, int32_t mode) {
  if ((openFlags & ZUL_KEST_O_CREAT) == 0) return 0;
  if (mode == -1) return 0777;
  return static_cast<uint32_t>(mode) & 0xFFFF;
}

// --- Primitives -------------------------------------------------------------

int32_t NativeOpen(const char* path, uint32_t openFlags, int32_t mode, int32_t* fd) {
  const int flags = MapOpenFlags(openFlags);
  const mode_t creationMode = static_cast<mode_t>(MapOpenMode(openFlags, mode));
  const int rc = Restarting([&] { return ::open(path, flags, creationMode); });
  if (fd != nullptr) *fd = rc < 0 ? -1 : rc;
  return rc < 0 ? FailureCode() : rc;
}

int32_t NativeClose(int32_t fd) {
  // Linux releases the descriptor even when close reports EINTR; retrying
  // could close a descriptor another thread has just been given.
  if (::close(fd) == 0) return 0;
  return errno == EINTR ? 0 : FailureCode();
}

int64_t NativePread(int32_t fd, void* buffer, int64_t count, int64_t offset) {
  const ssize_t rc = Restarting([&] {
    return ::pread(fd, buffer, static_cast<size_t>(count), static_cast<off_t>(offset));
  });
  return rc < 0 ? FailureCode() : static_cast<int64_t>(rc);
}

int64_t NativeRead(int32_t fd, void* buffer, int64_t count) {
  const ssize_t rc = Restarting([&] { return ::read(fd, buffer, static_cast<size_t>(count)); });
  return rc < 0 ? FailureCode() : static_cast<int64_t>(rc);
}

int64_t NativeWrite(int32_t fd, const void* buffer, int64_t count) {
  const ssize_t rc = Restarting([&] { return ::write(fd, buffer, static_cast<size_t>(count)); });
  return rc < 0 ? FailureCode() : static_cast<int64_t>(rc);
}

int64_t NativeSeek(int32_t fd, int64_t offset, int whence) {
  const int kernelWhence = whence == 1 ? SEEK_CUR : whence == 2 ? SEEK_END : SEEK_SET;
  const off_t rc = ::lseek(fd, static_cast<off_t>(offset), kernelWhence);
  return rc < 0 ? FailureCode() : static_cast<int64_t>(rc);
}

void FillLibraryStat(const NativeStat& st, ZulKestStat* out) {
  constexpr int64_t kNanosecondsPerSecond = 1000000000;
  std::memset(out, 0, sizeof(*out));
  out->fileSize = st.size;
  out->accessDate = static_cast<ZulKestDate>(st.accessSeconds * kNanosecondsPerSecond);
  out->modificationDate = static_cast<ZulKestDate>(st.modificationSeconds * kNanosecondsPerSecond);
  out->creationDate = 0;
  if (NativeIsDirectory(st)) out->statFlags |= ZUL_KEST_STAT_DIRECTORY;
  if ((st.mode & kNativeModeOwnerRead) != 0) out->statFlags |= ZUL_KEST_STAT_READABLE;
  if ((st.mode & kNativeModeOwnerWrite) != 0) out->statFlags |= ZUL_KEST_STAT_WRITABLE;
  out->mode = st.mode & 0xFFFF;
}

int64_t NativePwrite(int32_t fd, const void* buffer, int64_t count, int64_t offset) {
  const ssize_t rc = Restarting([&] {
    return ::pwrite(fd, buffer, static_cast<size_t>(count), static_cast<off_t>(offset));
  });
  if (rc >= 0) return static_cast<int64_t>(rc);
  if (errno == EINVAL) return ZUL_KEST_ERROR_BAD_OFFSET;
  return FailureCode();
}

int32_t NativeFsync(int32_t fd) {
  return ResultOf(Restarting([&] { return ::fsync(fd); }));
}

int32_t NativeFtruncate(int32_t fd, int64_t size) {
  return ResultOf(Restarting([&] { return ::ftruncate(fd, static_cast<off_t>(size)); }));
}

int32_t NativeTruncate(const char* path, int64_t size) {
  return ResultOf(Restarting([&] { return ::truncate(path, static_cast<off_t>(size)); }));
}

int32_t NativeStatPath(const char* path, NativeStat* out) {
  struct stat st;
  if (::stat(path, &st) != 0) return FailureCode();
  FillStat(st, out);
  return 0;
}

int32_t NativeStatFd(int32_t fd, NativeStat* out) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return FailureCode();
  FillStat(st, out);
  return 0;
}

int32_t NativeMkdir(const char* path, int32_t mode) {
  const mode_t m = mode == -1 ? 0777 : static_cast<mode_t>(static_cast<uint32_t>(mode) & 0xFFFF);
  return ResultOf(::mkdir(path, m));
}

int32_t NativeRmdir(const char* path) { return ResultOf(::rmdir(path)); }

int32_t NativeUnlink(const char* path) { return ResultOf(::unlink(path)); }

int32_t NativeRename(const char* oldPath, const char* newPath) {
  return ResultOf(::rename(oldPath, newPath));
}

// --- Directory listing ------------------------------------------------------

int32_t NativeDirOpen(const char* path, int32_t* fd, NativeDirState* state) {
  if (fd != nullptr) *fd = -1;
  if (state == nullptr || fd == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  state->count = -1;
  state->position = -1;
  std::memset(state->entries, 0, sizeof(state->entries));
  NativeStat st{};
  const int32_t statResult = NativeStatPath(path, &st);
  if (statResult < 0) return statResult;
  if (!NativeIsDirectory(st)) return ZUL_KEST_ERROR_NOT_A_DIRECTORY;
  const int rc = Restarting(
      [&] { return ::open(path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC); });
  if (rc < 0) return FailureCode();
  *fd = rc;
  return 0;
}

int32_t NativeDirRead(int32_t fd, NativeDirEntry* entry, NativeDirState* state) {
  if (state == nullptr || entry == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  for (;;) {
    if (state->count < 0 || state->position >= state->count) {
      const long rc = syscall(SYS_getdents64, fd, state->entries,
                              static_cast<unsigned int>(sizeof(state->entries)));
      if (rc <= 0) {
        state->count = -1;
        state->position = -1;
        return rc == 0 ? 0 : FailureCode();
      }
      state->count = static_cast<int32_t>(rc);
      state->position = 0;
    }
    const uint8_t* raw = state->entries + state->position;
    uint64_t ino;
    uint16_t reclen;
    std::memcpy(&ino, raw + kDirentInoOffset, sizeof(ino));
    std::memcpy(&reclen, raw + kDirentReclenOffset, sizeof(reclen));
    if (reclen == 0 || state->position + reclen > state->count) {
      // A record the kernel cannot have written: drop the rest of the
      // buffer rather than loop on it.
      state->position = state->count;
      continue;
    }
    state->position += reclen;
    const char* name = reinterpret_cast<const char*>(raw + kDirentNameOffset);
    const size_t nameRoom = reclen - kDirentNameOffset;
    const size_t nameLength = strnlen(name, nameRoom < kNativeDirNameMax ? nameRoom : kNativeDirNameMax);
    if (ino == 0) continue;
    if ((nameLength == 1 && name[0] == '.') ||
        (nameLength == 2 && name[0] == '.' && name[1] == '.'))
      continue;
    std::memset(entry, 0, sizeof(*entry));
    entry->fileno = static_cast<uint32_t>(ino);
    entry->reclen = static_cast<uint16_t>(sizeof(NativeDirEntry));
    entry->type = raw[kDirentTypeOffset];
    entry->namelen = static_cast<uint8_t>(nameLength);
    std::memcpy(entry->name, name, nameLength);
    return 1;
  }
}

int32_t NativeDirClose(int32_t fd) {
  const int32_t result = NativeClose(fd);
  return result < 0 ? result : 0;
}

// --- Profiling --------------------------------------------------------------

uint64_t NativeTimestamp() {
#if defined(__x86_64__) || defined(__i386__)
  return __rdtsc();
#else
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
#endif
}

NativeEvent::NativeEvent(uint8_t kind, ChunkID chunk, const char* path)
    : NativeEvent(kind, chunk, path, 0, INT64_MAX, 0) {}

NativeEvent::NativeEvent(uint8_t kind, ChunkID chunk, const char* path, int64_t offset,
                         int64_t position, int64_t length)
    : m_hook(EventHook()) {
  if (m_hook == nullptr) return;
  std::memset(&m_request, 0, sizeof(m_request));
  std::memset(&m_event, 0, sizeof(m_event));
  m_request.offset = offset;
  m_request.position = position;
  m_request.length = length;
  m_request.path = path;
  m_request.chunkId = chunk;
  if (chunk != CHUNKID_INVALID) {
    const ChunkHeader* header = ChunkAt(chunk);
    m_request.deadline = header->deadline;
    m_request.priority = header->priority;
  }
  m_event.request = &m_request;
  m_event.kind = kind;
  m_event.startTime = NativeTimestamp();
}

void NativeEvent::Finish() {
  if (m_hook == nullptr) return;
  m_event.endTime = NativeTimestamp();
  m_hook = nullptr;  // one report per call
  const ZulKestEventHook hook = EventHook();
  if (hook != nullptr) hook(&m_event);  // not when removed during the call
}

}  // namespace kest2
