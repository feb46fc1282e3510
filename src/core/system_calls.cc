// The POSIX (Linux) system calls behind the native layer's table, the
// system's open flags and the errno table.

#include "core/system_calls.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "kest2.h"

namespace kest2 {
namespace {

template <typename Result>
Result Answer(Result rc) {
  return rc < 0 ? static_cast<Result>(-errno) : rc;
}

void FillStat(const struct stat& st, SystemStat* out) {
  std::memset(out, 0, sizeof(*out));
  out->mode = static_cast<uint32_t>(st.st_mode) & 0xFFFF;
  out->size = static_cast<int64_t>(st.st_size);
  out->accessSeconds = static_cast<int64_t>(st.st_atime);
  out->modificationSeconds = static_cast<int64_t>(st.st_mtime);
  out->changeSeconds = static_cast<int64_t>(st.st_ctime);
  out->device = static_cast<uint64_t>(st.st_dev);
  out->inode = static_cast<uint64_t>(st.st_ino);
}

int32_t SysOpen(const char* path, int32_t flags, uint32_t mode) {
  return Answer(::open(path, flags, static_cast<mode_t>(mode)));
}
int32_t SysOpenDirectory(const char* path) {
  return Answer(::open(path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
}
int32_t SysClose(int32_t fd) { return Answer(::close(fd)); }
int64_t SysPread(int32_t fd, void* buffer, uint64_t count, int64_t offset) {
  return Answer<int64_t>(
      ::pread(fd, buffer, static_cast<size_t>(count), static_cast<off_t>(offset)));
}
int64_t SysPwrite(int32_t fd, const void* buffer, uint64_t count, int64_t offset) {
  return Answer<int64_t>(
      ::pwrite(fd, buffer, static_cast<size_t>(count), static_cast<off_t>(offset)));
}
int64_t SysRead(int32_t fd, void* buffer, uint64_t count) {
  return Answer<int64_t>(::read(fd, buffer, static_cast<size_t>(count)));
}
int64_t SysWrite(int32_t fd, const void* buffer, uint64_t count) {
  return Answer<int64_t>(::write(fd, buffer, static_cast<size_t>(count)));
}
int64_t SysSeek(int32_t fd, int64_t offset, int32_t whence) {
  const int kernelWhence = whence == 1 ? SEEK_CUR : whence == 2 ? SEEK_END : SEEK_SET;
  return Answer<int64_t>(::lseek(fd, static_cast<off_t>(offset), kernelWhence));
}
int32_t SysFsync(int32_t fd) { return Answer(::fsync(fd)); }
int32_t SysFtruncate(int32_t fd, int64_t size) {
  return Answer(::ftruncate(fd, static_cast<off_t>(size)));
}
int32_t SysTruncate(const char* path, int64_t size) {
  return Answer(::truncate(path, static_cast<off_t>(size)));
}
int32_t SysStat(const char* path, SystemStat* out) {
  struct stat st;
  if (::stat(path, &st) != 0) return -errno;
  FillStat(st, out);
  return 0;
}
int32_t SysFstat(int32_t fd, SystemStat* out) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return -errno;
  FillStat(st, out);
  return 0;
}
int32_t SysMkdir(const char* path, uint32_t mode) {
  return Answer(::mkdir(path, static_cast<mode_t>(mode)));
}
int32_t SysRmdir(const char* path) { return Answer(::rmdir(path)); }
int32_t SysUnlink(const char* path) { return Answer(::unlink(path)); }
int32_t SysRename(const char* oldPath, const char* newPath) {
  return Answer(::rename(oldPath, newPath));
}
int64_t SysGetdents(int32_t fd, void* buffer, uint64_t size) {
  return Answer<int64_t>(syscall(SYS_getdents64, fd, buffer, static_cast<unsigned int>(size)));
}

constexpr SystemCalls kDefaultCalls = {
    SysOpen,  SysOpenDirectory, SysClose, SysPread,     SysPwrite,   SysRead,
    SysWrite, SysSeek,          SysFsync, SysFtruncate, SysTruncate, SysStat,
    SysFstat, SysMkdir,         SysRmdir, SysUnlink,    SysRename,   SysGetdents,
};

SystemCalls g_calls = kDefaultCalls;

}  // namespace

SystemCalls& SystemCallTable() { return g_calls; }
const SystemCalls& DefaultSystemCalls() { return kDefaultCalls; }

const int kErrnoInterrupted = EINTR;
const int kErrnoInvalid = EINVAL;
const int kErrnoIo = EIO;

int LastErrno() { return errno; }

int SystemOpenFlags(uint32_t openFlags) {
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

int32_t CodeFromRawErrno(int err) {
  switch (err) {
    case ENOENT:
    case ENAMETOOLONG:
      return ZUL_KEST_ERROR_BAD_PATH;
    case ENOTDIR:
      return ZUL_KEST_ERROR_NOT_A_DIRECTORY;
    case EISDIR:
      return ZUL_KEST_ERROR_NOT_A_FILE;
    default:
      return -err;
  }
}

}  // namespace kest2
