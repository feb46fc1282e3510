// The asynchronous archive requests: ask how much buffer a mount needs,
// mount an archive at a mount point, unmount it.  An archive is opened like
// a file, read-only; the mount's file handle is handed out at once and is
// released when the mount fails.

#include "api/operation.h"
#include "api/request_support.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "kest2.h"

using namespace kest2;

namespace {

// Gives the operation a new read-only file handle for the archive, which
// goes again when the request fails: 0, or the code to fail with.
int32_t AttachArchiveHandle(Operation* op, const ZulKestOpAttr* attr,
                            const ZulKestOpenParams* openParams) {
  if (openParams != nullptr && (openParams->openFlags & ZUL_KEST_O_WRITE) != 0)
    return ZUL_KEST_ERROR_READ_ONLY;
  const ZulKestOpenParams params = CompleteOpenParams(attr, openParams);
  FileHandle* file = NewFileHandle(&params);
  if (file == nullptr) return ZUL_KEST_ERROR_CANT_ALLOCATE_FH;
  op->targetHandle = file->h;
  op->internalFlags |= kOpOwnsNewHandle;
  return ZUL_KEST_OK;
}

}  // namespace

extern "C" ZulKestOp zulKestArchiveGetMountBufferSize(const ZulKestOpAttr* attr,
                                                      const char* archivePath,
                                                      const ZulKestOpenParams* openParams) {
  KEST2_TRACE_API("zulKestArchiveGetMountBufferSize");
  Operation* op = OpCreate(attr, OP_ARCHIVE_QUERY);
  if (op == nullptr) return 0;
  const int32_t attached = AttachArchiveHandle(op, attr, openParams);
  if (attached != ZUL_KEST_OK) return OpFail(op, attached);
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
  const int32_t attached = AttachArchiveHandle(op, attr, openParams);
  if (attached != ZUL_KEST_OK) return OpFail(op, attached);
  *pFH = op->targetHandle;
  op->bufferCount = 1;
  op->buffers[0] = ZulKestBuffer{buf, length};
  op->arg = static_cast<int64_t>(reinterpret_cast<uintptr_t>(mountPoint));
  return OpAcceptWithPath(op, archivePath, false);
}

extern "C" ZulKestOp zulKestArchiveUnmount(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestArchiveUnmount");
  return FileHandleRequest(attr, OP_ARCHIVE_UNMOUNT, fh);
}
