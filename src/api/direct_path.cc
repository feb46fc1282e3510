// The synchronous functions' direct path: see direct_path.h.

#include "api/direct_path.h"

#include <cstring>

#include "api/fileno_table.h"
#include "io/native_fs.h"

namespace kest2 {
namespace {

// 0 stays 0; a negative kernel code becomes the library's code.
int32_t Mapped(int64_t result) {
  return result >= 0 ? ZUL_KEST_OK : MapNativeError(static_cast<int32_t>(result));
}

int64_t MappedCount(int64_t result) {
  return result >= 0 ? result : MapNativeError(static_cast<int32_t>(result));
}

// One whole transfer where `at` says (a transfer the system cut short is
// carried on, as the engine's pieces are); the bytes moved, or the failure
// when none moved.  A positional offset goes to the system as the caller
// gave it, whatever its value: a negative one is refused there.
int64_t Transfer(int32_t fd, void* buffer, int64_t length, DirectAt at, bool write) {
  int64_t failure = 0;
  const int64_t moved =
      NativeTransferWhole(fd, buffer, length, at.positional, at.offset, write, &failure);
  return moved != 0 || failure == 0 ? moved : failure;
}

}  // namespace

int32_t DirectOpen(uint32_t* pFH, const char* path, const ZulKestOpenParams* openParams,
                   int32_t mode) {
  if (pFH == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  const uint32_t openFlags = openParams != nullptr ? openParams->openFlags : ZUL_KEST_O_READ;
  int32_t fd = -1;
  const int32_t result = NativeOpen(path, openFlags, mode, &fd);
  if (result < 0) return MapNativeError(result);
  *pFH = ClaimFilenoHandle(fd);
  if (*pFH == 0) {
    NativeClose(fd);
    return ZUL_KEST_ERROR_CANT_ALLOCATE_FH;
  }
  return ZUL_KEST_OK;
}

int32_t DirectClose(uint32_t fh) {
  const int32_t result = NativeClose(FilenoOfHandle(fh));
  ReleaseFilenoHandle(fh);
  return Mapped(result);
}

int64_t DirectTransfer(uint32_t fh, void* buffer, int64_t length, DirectAt at, bool write) {
  if (buffer == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  return MappedCount(Transfer(FilenoOfHandle(fh), buffer, length, at, write));
}

int64_t DirectVector(uint32_t fh, const ZulKestBuffer* iov, int32_t count, DirectAt at,
                     bool write) {
  const int32_t fd = FilenoOfHandle(fh);
  int64_t total = 0;
  for (int32_t i = 0; i < count && iov[i].pPtr != nullptr; ++i) {
    const int64_t moved = Transfer(fd, iov[i].pPtr, iov[i].length, at, write);
    if (moved < 0) return MappedCount(moved);
    total += moved;
    at.offset += moved;
  }
  return total;
}

int32_t DirectHandleStat(uint32_t fh, ZulKestStat* out) {
  if (out == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  std::memset(out, 0, sizeof(*out));
  NativeStat st;
  const int32_t result = NativeStatFd(FilenoOfHandle(fh), &st);
  if (result < 0) return MapNativeError(result);
  FillLibraryStat(st, out);
  return ZUL_KEST_OK;
}

int32_t DirectHandleSync(uint32_t fh) { return Mapped(NativeFsync(FilenoOfHandle(fh))); }

int64_t DirectPathTransfer(const char* path, void* buffer, int64_t length, int64_t offset,
                           bool write) {
  if (buffer == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  const uint32_t openFlags = write ? ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT : ZUL_KEST_O_READ;
  int32_t fd = -1;
  const int32_t opened = NativeOpen(path, openFlags, -1, &fd);
  if (opened < 0) return MapNativeError(opened);
  int64_t result = ZUL_KEST_ERROR_BAD_SIZE;
  if (length >= 0) {
    result = MappedCount(Transfer(fd, buffer, length, DirectAtOffset(offset), write));
  }
  NativeClose(fd);
  return result;
}

bool DirectExists(const char* path, DirectKind kind) {
  NativeStat st;
  if (NativeStatPath(path, &st) < 0) return false;
  switch (kind) {
    case DirectKind::kFile:
      return NativeIsRegular(st);
    case DirectKind::kDirectory:
      return NativeIsDirectory(st);
    case DirectKind::kAny:
      return true;
  }
  return false;
}

int64_t DirectFileSize(const char* path) {
  NativeStat st;
  const int32_t result = NativeStatPath(path, &st);
  if (result < 0) return MapNativeError(result);
  return NativeIsRegular(st) ? st.size : 0;
}

int32_t DirectStat(const char* path, ZulKestStat* out) {
  if (out == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  std::memset(out, 0, sizeof(*out));
  NativeStat st;
  const int32_t result = NativeStatPath(path, &st);
  if (result < 0) return MapNativeError(result);
  FillLibraryStat(st, out);
  return ZUL_KEST_OK;
}

int32_t DirectMkdir(const char* path, int32_t mode) { return Mapped(NativeMkdir(path, mode)); }
int32_t DirectRmdir(const char* path) { return Mapped(NativeRmdir(path)); }
int32_t DirectUnlink(const char* path) { return Mapped(NativeUnlink(path)); }

int32_t DirectDelete(const char* path) {
  NativeStat st;
  const int32_t result = NativeStatPath(path, &st);
  if (result < 0) return MapNativeError(result);
  return NativeIsDirectory(st) ? DirectRmdir(path) : DirectUnlink(path);
}

int32_t DirectRename(const char* oldPath, const char* newPath) {
  if (oldPath == nullptr || newPath == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  return Mapped(NativeRename(oldPath, newPath));
}

int32_t DirectTruncate(const char* path, int64_t length) {
  return Mapped(NativeTruncate(path, length));
}

int32_t DirectResolve(const ZulKestResolveRecord* in, ZulKestResolveRecord* out) {
  if (in == nullptr || out == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (out != in) std::memcpy(out, in, sizeof(*out));
  return ZUL_KEST_OK;
}

}  // namespace kest2
