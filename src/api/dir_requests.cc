// The asynchronous directory-handle requests: open a listing, read one entry
// at a time, close it.  A listing's handle is handed out at once and becomes
// usable when its open completes; a failed open releases it.

#include "api/operation.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "kest2.h"

using namespace kest2;

namespace {

constexpr int64_t kDirEntrySize = 1048;
static_assert(sizeof(ZulKestDirEntry) == kDirEntrySize, "");

DirHandle* LiveDir(uint32_t dh) { return Lookup<DirHandle>(kDhTable, dh); }

}  // namespace

extern "C" ZulKestOp zulKestDHOpen(const ZulKestOpAttr* attr, ZulKestDH* pDH, const char* path,
                                   void* buf, int64_t length) {
  KEST2_TRACE_API("zulKestDHOpen");
  Operation* op = OpCreate(attr, OP_DH_OPEN);
  if (op == nullptr) return 0;
  if (pDH != nullptr) *pDH = 0;
  if (pDH == nullptr || (length != 0 && buf == nullptr)) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  DirHandle* dir = LiveDir(AllocateHandle(kDhTable));
  if (dir == nullptr) return OpFail(op, ZUL_KEST_ERROR_CANT_ALLOCATE_DH);
  *pDH = dir->h;
  dir->buffer = buf;
  dir->bufferLength = length;
  op->targetHandle = dir->h;
  op->internalFlags |= kOpOwnsNewHandle;
  return OpAcceptWithPath(op, path, false);
}

extern "C" ZulKestOp zulKestDHRead(const ZulKestOpAttr* attr, ZulKestDH dh,
                                   ZulKestDirEntry* pEntry) {
  KEST2_TRACE_API("zulKestDHRead");
  Operation* op = OpCreate(attr, OP_DH_READ);
  if (op == nullptr) return 0;
  if (LiveDir(dh) == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_DH);
  if (pEntry == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  op->targetHandle = dh;
  op->bufferCount = 1;
  op->buffers[0] = ZulKestBuffer{pEntry, kDirEntrySize};
  return OpAccept(op);
}

extern "C" ZulKestOp zulKestDHClose(const ZulKestOpAttr* attr, ZulKestDH dh) {
  KEST2_TRACE_API("zulKestDHClose");
  Operation* op = OpCreate(attr, OP_DH_CLOSE);
  if (op == nullptr) return 0;
  if (LiveDir(dh) == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_DH);
  op->targetHandle = dh;
  return OpAccept(op);
}
