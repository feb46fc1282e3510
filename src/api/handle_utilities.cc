// Handle utilities: validation, seek and tell, descriptor mapping and the
// read-only accessors of file and directory handles.

#include "api/fileno_table.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "io/native_fs.h"
#include "kest2.h"

using namespace kest2;

extern "C" bool zulKestIsValidHandle(uint32_t handle) {
  KEST2_TRACE_API("zulKestIsValidHandle");
  const uint32_t table = HandleTableNumber(handle);
  if (static_cast<int32_t>(handle) <= 0 || table == 0) return false;
  if (IsFilenoHandle(handle)) return true;  // valid whether or not its slot is in use
  return LookupHandle(static_cast<HandleTableId>(table - 1), handle) != nullptr;
}

extern "C" int64_t zulKestFHSeek(ZulKestFH fh, int64_t offset, ZulKestWhence whence) {
  KEST2_TRACE_API("zulKestFHSeek");
  if (!IsInitialized() || IsFilenoHandle(fh)) {
    const int64_t position = NativeSeek(FilenoOfHandle(fh), offset, whence);
    return position >= 0 ? position : MapNativeError(static_cast<int32_t>(position));
  }
  FileHandle* file = Lookup<FileHandle>(kFhTable, fh);
  if (file == nullptr) return -1;
  // No range check: a negative position makes the next request at the
  // current position fail with ZUL_KEST_ERROR_BAD_OFFSET.
  int64_t current = __atomic_load_n(&file->offset, __ATOMIC_ACQUIRE);
  int64_t next;
  do {
    switch (whence) {
      case ZUL_KEST_SEEK_SET:
        next = offset;
        break;
      case ZUL_KEST_SEEK_CUR:
        next = current + offset;
        break;
      case ZUL_KEST_SEEK_END:
        next = __atomic_load_n(&file->size, __ATOMIC_ACQUIRE) + offset;
        break;
      default:
        next = current;
        break;
    }
  } while (!__atomic_compare_exchange_n(&file->offset, &current, next, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE));
  return next;
}

extern "C" int64_t zulKestFHTell(ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHTell");
  if (IsFilenoHandle(fh)) {
    const int64_t position = NativeSeek(FilenoOfHandle(fh), 0, ZUL_KEST_SEEK_CUR);
    return position >= 0 ? position : MapNativeError(static_cast<int32_t>(position));
  }
  const FileHandle* file = Lookup<FileHandle>(kFhTable, fh);
  return file != nullptr ? __atomic_load_n(&file->offset, __ATOMIC_ACQUIRE) : -1;
}

extern "C" int32_t zulKestFHToFileno(ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHToFileno");
  if (IsFilenoHandle(fh)) return FilenoOfHandle(fh);
  const FileHandle* file = Lookup<FileHandle>(kFhTable, fh);
  return file != nullptr ? file->nativeFH : -1;
}

extern "C" ZulKestFH zulKestFilenoToFH(int32_t fd) {
  KEST2_TRACE_API("zulKestFilenoToFH");
  return ClaimFilenoHandle(fd);
}

extern "C" void zulKestDeallocateFileno(ZulKestFH fh) {
  KEST2_TRACE_API("zulKestDeallocateFileno");
  ReleaseFilenoHandle(fh);  // other handles are ignored
}

extern "C" const char* zulKestFHGetPath(ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHGetPath");
  const FileHandle* file = Lookup<FileHandle>(kFhTable, fh);
  return file != nullptr ? GetPath(&file->path) : nullptr;
}

extern "C" int64_t zulKestFHGetSize(ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHGetSize");
  const FileHandle* file = Lookup<FileHandle>(kFhTable, fh);
  return file != nullptr ? __atomic_load_n(&file->size, __ATOMIC_ACQUIRE) : -1;
}

extern "C" const ZulKestOpenParams* zulKestFHGetOpenParams(ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHGetOpenParams");
  const FileHandle* file = Lookup<FileHandle>(kFhTable, fh);
  return file != nullptr ? &file->openParams : nullptr;
}

extern "C" const char* zulKestDHGetPath(ZulKestDH dh) {
  KEST2_TRACE_API("zulKestDHGetPath");
  const DirHandle* dir = Lookup<DirHandle>(kDhTable, dh);
  return dir != nullptr ? GetPath(&dir->path) : nullptr;
}
