// The asynchronous archive requests: ask how much buffer a mount needs,
// mount an archive at a mount point, unmount it.  An archive is opened like
// a file, read-only; the mount's file handle is handed out at once and is
// released when the mount fails.

#include "api/operation.h"
#include "api/records.h"
#include "api/request_support.h"
#include "core/handletable.h"
#include "debug/trace.h"
#include "kest2.h"

using namespace kest2;

namespace {

bool AsksForWrite(const ZulKestOpenParams* params) {
  return params != nullptr && (params->openFlags & ZUL_KEST_O_WRITE) != 0;
}

}  // namespace

extern "C" ZulKestOp zulKestArchiveGetMountBufferSize(const ZulKestOpAttr* attr,
                                                      const char* archivePath,
                                                      const ZulKestOpenParams* openParams) {
  KEST2_TRACE_API("zulKestArchiveGetMountBufferSize");
  Operation* op = OpCreate(attr, OP_ARCHIVE_QUERY);
  if (op == nullptr) return 0;
  if (AsksForWrite(openParams)) return OpFail(op, ZUL_KEST_ERROR_READ_ONLY);
  const ZulKestOpenParams params = CompleteOpenParams(attr, openParams);
  FileHandle* file = NewFileHandle(&params);
  if (file == nullptr) return OpFail(op, ZUL_KEST_ERROR_CANT_ALLOCATE_FH);
  op->targetHandle = file->h;
  op->internalFlags |= kOpOwnsNewHandle;
  return OpAcceptWithPath(op, archivePath, false);
}

extern "C" ZulKestOp zulKestArchiveMount(const ZulKestOpAttr* attr, ZulKestFH* pFH,
                                         const char* archivePath, const char* mountPoint,
                                         void* buf, int64_t length,
                                         const ZulKestOpenParams* openParams) {
  KEST2_TRACE_API("zulKestArchiveMount");
  Operation* op = OpCreate(attr, OP_ARCHIVE_MOUNT);
  if (op == nullptr) return 0;
  if (pFH == nullptr || mountPoint == nullptr || (length != 0 && buf == nullptr))
    return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  *pFH = 0;
  if (AsksForWrite(openParams)) return OpFail(op, ZUL_KEST_ERROR_READ_ONLY);
  const ZulKestOpenParams params = CompleteOpenParams(attr, openParams);
  FileHandle* file = NewFileHandle(&params);
  if (file == nullptr) return OpFail(op, ZUL_KEST_ERROR_CANT_ALLOCATE_FH);
  *pFH = file->h;
  op->targetHandle = file->h;
  op->internalFlags |= kOpOwnsNewHandle;
  op->bufferCount = 1;
  op->buffers[0] = ZulKestBuffer{buf, length};
  op->arg = static_cast<int64_t>(reinterpret_cast<uintptr_t>(mountPoint));
  return OpAcceptWithPath(op, archivePath, false);
}

extern "C" ZulKestOp zulKestArchiveUnmount(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestArchiveUnmount");
  return FileHandleRequest(attr, OP_ARCHIVE_UNMOUNT, fh);
}
