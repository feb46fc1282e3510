// Handle utilities: validation, descriptor mapping and the read-only
// accessors of file and directory handles.

#include "api/fileno_table.h"
#include "api/records.h"
#include "core/handletable.h"
#include "debug/trace.h"
#include "kest2.h"

using namespace kest2;

extern "C" bool zulKestIsValidHandle(uint32_t handle) {
  KEST2_TRACE_API("zulKestIsValidHandle");
  const uint32_t table = HandleTableNumber(handle);
  if (static_cast<int32_t>(handle) <= 0 || table == 0) return false;
  if (IsFilenoHandle(handle)) return true;  // valid whether or not its slot is in use
  return LookupHandle(static_cast<HandleTableId>(table - 1), handle) != nullptr;
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
