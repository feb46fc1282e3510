// Building blocks of the request functions: see request_support.h.

#include "api/request_support.h"

#include "api/operation.h"
#include "core/handletable.h"

namespace kest2 {

FileHandle* NewFileHandle(const ZulKestOpenParams* params) {
  FileHandle* file = Lookup<FileHandle>(kFhTable, AllocateHandle(kFhTable));
  if (file == nullptr) return nullptr;
  file->nativeFH = -1;
  if (params != nullptr) file->openParams = *params;
  return file;
}

ZulKestOpenParams CompleteOpenParams(const ZulKestOpAttr* attr, const ZulKestOpenParams* given) {
  ZulKestOpenParams params{};
  if (given != nullptr) params = *given;
  if ((params.openFlags & (ZUL_KEST_O_READ | ZUL_KEST_O_WRITE)) == 0)
    params.openFlags |= ZUL_KEST_O_READ;
  if (attr != nullptr) params.opflags = static_cast<uint16_t>(attr->opflags & 0xFFFF);
  return params;
}

uint32_t FileHandleRequest(const ZulKestOpAttr* attr, uint16_t type, uint32_t fh) {
  Operation* op = OpCreate(attr, type);
  if (op == nullptr) return 0;
  if (Lookup<FileHandle>(kFhTable, fh) == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_FH);
  op->targetHandle = fh;
  return OpAccept(op);
}

uint32_t PathRequest(const ZulKestOpAttr* attr, uint16_t type, const char* path, bool forWrite,
                     const PathRequestArgs& args) {
  Operation* op = OpCreate(attr, type);
  if (op == nullptr) return 0;
  if (args.wantsBuffer) {
    if (args.buffer == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
    op->bufferCount = 1;
    op->buffers[0] = ZulKestBuffer{args.buffer, args.bufferLength};
  }
  op->arg = args.arg;
  return OpAcceptWithPath(op, path, forWrite);
}

}  // namespace kest2
