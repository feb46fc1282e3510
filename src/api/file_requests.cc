// The asynchronous file requests: open, the read/write family, stat,
// truncate, sync and close of a file handle, and whole-path reads and
// writes.  Reads and writes at the current position take the handle's
// position when the request is made; it moves when the operation completes.

#include <cstring>

#include "api/operation.h"
#include "api/request_support.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "kest2.h"

namespace kest2 {
namespace {

FileHandle* LiveFile(uint32_t fh) { return Lookup<FileHandle>(kFhTable, fh); }

// The common path of the eight read/write functions.
uint32_t FileIO(const ZulKestOpAttr* attr, uint32_t fh, const ZulKestBuffer* iov, int32_t count,
                int64_t offset, uint16_t type) {
  Operation* op = OpCreate(attr, type);
  if (op == nullptr) return 0;
  const FileHandle* file = LiveFile(fh);
  if (file == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_FH);
  if (count < 1 || count > ZUL_KEST_MAX_BUFFERS) return OpFail(op, ZUL_KEST_ERROR_BAD_IOVCNT);
  if (offset < 0) return OpFail(op, ZUL_KEST_ERROR_BAD_OFFSET);
  if (iov == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  op->targetHandle = fh;
  op->bufferCount = static_cast<uint8_t>(count);
  std::memcpy(op->buffers, iov, sizeof(ZulKestBuffer) * static_cast<size_t>(count));
  op->offset = offset;
  if (type == OP_FH_READV || type == OP_FH_WRITEV || type == OP_FH_PWRITEV)
    op->internalFlags |= kOpUpdatesPosition;
  const uint16_t openFlags = file->openParams.openFlags;
  const bool writes = type == OP_FH_PWRITEV || type == OP_FH_WRITEV;
  if (writes && (openFlags & ZUL_KEST_O_WRITE) == 0) return OpFail(op, ZUL_KEST_ERROR_READ_ONLY);
  if (!writes && (openFlags & ZUL_KEST_O_READ) == 0) return OpFail(op, ZUL_KEST_ERROR_WRITE_ONLY);
  if (OpRequestCount(op) == 0) return OpCompleteOk(op);
  for (int32_t i = 0; i < count; ++i) {
    if (iov[i].pPtr == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  }
  return OpAccept(op);
}

// One buffer, with a negative length refused first.
uint32_t FileIOSingle(const ZulKestOpAttr* attr, uint32_t fh, const void* buf, int64_t length,
                      int64_t offset, uint16_t type) {
  if (length < 0) {
    Operation* op = OpCreate(attr, type);
    return op != nullptr ? OpFail(op, ZUL_KEST_ERROR_BAD_SIZE) : 0;
  }
  const ZulKestBuffer buffer{const_cast<void*>(buf), length};
  return FileIO(attr, fh, &buffer, 1, offset, type);
}

// The handle's position, -1 when it is not a file handle (then refused as
// ZUL_KEST_ERROR_BAD_FH by FileIO).
int64_t Position(uint32_t fh) {
  const FileHandle* file = LiveFile(fh);
  return file != nullptr ? __atomic_load_n(&file->offset, __ATOMIC_ACQUIRE) : -1;
}

// A read or write of a file by path through a private handle.
uint32_t PathIO(const ZulKestOpAttr* attr, const char* path, const void* buf, int64_t length,
                int64_t offset, uint16_t type) {
  Operation* op = OpCreate(attr, type);
  if (op == nullptr) return 0;
  if (length < 0) return OpFail(op, ZUL_KEST_ERROR_BAD_SIZE);
  if (offset < 0) return OpFail(op, ZUL_KEST_ERROR_BAD_OFFSET);
  if (buf == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  op->bufferCount = 1;
  op->buffers[0] = ZulKestBuffer{const_cast<void*>(buf), length};
  op->offset = offset;
  ZulKestOpenParams params{};
  params.openFlags = type == OP_PATH_READ ? ZUL_KEST_O_READ : ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT;
  FileHandle* file = NewFileHandle(&params);
  if (file == nullptr) return OpFail(op, ZUL_KEST_ERROR_CANT_ALLOCATE_FH);
  op->targetHandle = file->h;
  op->internalFlags |= kOpTemporaryHandle | kOpOwnsNewHandle;
  return OpAcceptWithPath(op, path, type == OP_PATH_WRITE);
}

}  // namespace
}  // namespace kest2

using namespace kest2;

extern "C" ZulKestOp zulKestFHOpenWithMode(const ZulKestOpAttr* attr, ZulKestFH* pFH,
                                           const char* path, const ZulKestOpenParams* openParams,
                                           int32_t mode) {
  KEST2_TRACE_API("zulKestFHOpenWithMode");
  Operation* op = OpCreate(attr, OP_FH_OPEN);
  if (op == nullptr) return 0;
  if (pFH == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  *pFH = 0;
  if (openParams != nullptr && (openParams->openFlags & ZUL_KEST_O_RESERVED_MASK) != 0)
    return OpFail(op, ZUL_KEST_ERROR_BAD_FLAGS);
  const ZulKestOpenParams params = CompleteOpenParams(attr, openParams);
  FileHandle* file = NewFileHandle(&params);
  if (file == nullptr) return OpFail(op, ZUL_KEST_ERROR_CANT_ALLOCATE_FH);
  *pFH = file->h;
  op->targetHandle = file->h;
  op->arg = mode;
  op->internalFlags |= kOpOwnsNewHandle;
  return OpAcceptWithPath(op, path, (params.openFlags & ZUL_KEST_O_CREAT) != 0);
}

extern "C" ZulKestOp zulKestFHOpen(const ZulKestOpAttr* attr, ZulKestFH* pFH, const char* path,
                                   const ZulKestOpenParams* openParams) {
  KEST2_TRACE_API("zulKestFHOpen");
  return zulKestFHOpenWithMode(attr, pFH, path, openParams, -1);
}

extern "C" ZulKestOp zulKestFHPreadv(const ZulKestOpAttr* attr, ZulKestFH fh,
                                     const ZulKestBuffer* iov, int32_t count, int64_t offset) {
  KEST2_TRACE_API("zulKestFHPreadv");
  return FileIO(attr, fh, iov, count, offset, OP_FH_PREADV);
}

extern "C" ZulKestOp zulKestFHPwritev(const ZulKestOpAttr* attr, ZulKestFH fh,
                                      const ZulKestBuffer* iov, int32_t count, int64_t offset) {
  KEST2_TRACE_API("zulKestFHPwritev");
  return FileIO(attr, fh, iov, count, offset, OP_FH_PWRITEV);
}

extern "C" ZulKestOp zulKestFHReadv(const ZulKestOpAttr* attr, ZulKestFH fh,
                                    const ZulKestBuffer* iov, int32_t count) {
  KEST2_TRACE_API("zulKestFHReadv");
  return FileIO(attr, fh, iov, count, Position(fh), OP_FH_READV);
}

extern "C" ZulKestOp zulKestFHWritev(const ZulKestOpAttr* attr, ZulKestFH fh,
                                     const ZulKestBuffer* iov, int32_t count) {
  KEST2_TRACE_API("zulKestFHWritev");
  return FileIO(attr, fh, iov, count, Position(fh), OP_FH_WRITEV);
}

extern "C" ZulKestOp zulKestFHPread(const ZulKestOpAttr* attr, ZulKestFH fh, void* buf,
                                    int64_t length, int64_t offset) {
  KEST2_TRACE_API("zulKestFHPread");
  return FileIOSingle(attr, fh, buf, length, offset, OP_FH_PREADV);
}

extern "C" ZulKestOp zulKestFHPwrite(const ZulKestOpAttr* attr, ZulKestFH fh, const void* buf,
                                     int64_t length, int64_t offset) {
  KEST2_TRACE_API("zulKestFHPwrite");
  return FileIOSingle(attr, fh, buf, length, offset, OP_FH_PWRITEV);
}

extern "C" ZulKestOp zulKestFHRead(const ZulKestOpAttr* attr, ZulKestFH fh, void* buf,
                                   int64_t length) {
  KEST2_TRACE_API("zulKestFHRead");
  return FileIOSingle(attr, fh, buf, length, Position(fh), OP_FH_READV);
}

extern "C" ZulKestOp zulKestFHWrite(const ZulKestOpAttr* attr, ZulKestFH fh, const void* buf,
                                    int64_t length) {
  KEST2_TRACE_API("zulKestFHWrite");
  return FileIOSingle(attr, fh, buf, length, Position(fh), OP_FH_WRITEV);
}

extern "C" ZulKestOp zulKestFHStat(const ZulKestOpAttr* attr, ZulKestFH fh, ZulKestStat* pStat) {
  KEST2_TRACE_API("zulKestFHStat");
  Operation* op = OpCreate(attr, OP_FH_STAT);
  if (op == nullptr) return 0;
  op->bufferCount = 1;
  op->buffers[0] = ZulKestBuffer{pStat, static_cast<int64_t>(sizeof(ZulKestStat))};
  if (pStat == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  if (LiveFile(fh) == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_FH);
  op->targetHandle = fh;
  return OpAccept(op);
}

extern "C" ZulKestOp zulKestFHTruncate(const ZulKestOpAttr* attr, ZulKestFH fh, int64_t length) {
  KEST2_TRACE_API("zulKestFHTruncate");
  Operation* op = OpCreate(attr, OP_FH_TRUNCATE);
  if (op == nullptr) return 0;
  op->arg = length;
  if (LiveFile(fh) == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_FH);
  op->targetHandle = fh;
  return OpAccept(op);
}

extern "C" ZulKestOp zulKestFHSync(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHSync");
  return FileHandleRequest(attr, OP_FH_SYNC, fh);
}

extern "C" ZulKestOp zulKestFHClose(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHClose");
  return FileHandleRequest(attr, OP_FH_CLOSE, fh);
}

extern "C" ZulKestOp zulKestFileRead(const ZulKestOpAttr* attr, const char* path, void* buf,
                                     int64_t length, int64_t offset) {
  KEST2_TRACE_API("zulKestFileRead");
  return PathIO(attr, path, buf, length, offset, OP_PATH_READ);
}

extern "C" ZulKestOp zulKestFileWrite(const ZulKestOpAttr* attr, const char* path,
                                      const void* buf, int64_t length, int64_t offset) {
  KEST2_TRACE_API("zulKestFileWrite");
  return PathIO(attr, path, buf, length, offset, OP_PATH_WRITE);
}
