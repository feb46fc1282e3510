// The asynchronous requests on paths: directory creation and deletion,
// existence and size queries, stat, deletion, rename, resolve, truncation by
// path, prefetch, and the device and change-stat requests the library keeps
// for itself.  Their results come back through the operation's buffer: one
// byte for the existence queries, a 64-bit size, an 80-byte stat record, the
// 1040-byte resolve record.

#include <cstring>

#include "api/operation.h"
#include "api/request_support.h"
#include "api/requests.h"
#include "core/globals.h"
#include "debug/trace.h"
#include "kest2.h"

namespace kest2 {
namespace {

// A query whose one-buffer result is written through a caller's pointer.
uint32_t QueryRequest(const ZulKestOpAttr* attr, uint16_t type, const char* path, void* result,
                      int64_t resultLength) {
  PathRequestArgs args;
  args.wantsBuffer = true;
  args.buffer = result;
  args.bufferLength = resultLength;
  return PathRequest(attr, type, path, false, args);
}

// A change of the tree by path: arg is a mode or -1.
uint32_t ChangeRequest(const ZulKestOpAttr* attr, uint16_t type, const char* path, int64_t arg) {
  PathRequestArgs args;
  args.arg = arg;
  return PathRequest(attr, type, path, true, args);
}

// A prefetch of a file by path through a private handle.
uint32_t PrefetchFile(const ZulKestOpAttr* attr, const char* path, uint16_t type, int64_t offset,
                      int64_t length) {
  Operation* op = OpCreate(attr, type);
  if (op == nullptr) return 0;
  op->offset = offset;
  op->arg = length;
  FileHandle* file = NewFileHandle(nullptr);
  if (file == nullptr) return OpFail(op, ZUL_KEST_ERROR_CANT_ALLOCATE_FH);
  op->targetHandle = file->h;
  op->internalFlags |= kOpTemporaryHandle;
  return OpAcceptWithPath(op, path, false);
}

// Device and I/O control carry two descriptors: the argument, then the
// buffer.
void StoreControlBuffers(Operation* op, int32_t command, void* argument, int64_t argumentLength,
                         void* buffer, int64_t bufferLength) {
  op->arg = command;
  op->bufferCount = 2;
  op->buffers[0] = ZulKestBuffer{argument, argumentLength};
  op->buffers[1] = ZulKestBuffer{buffer, bufferLength};
}

}  // namespace

uint32_t RequestChangeStat(const ZulKestOpAttr* attr, const char* path, ZulKestStat* stat,
                           int32_t flags) {
  KEST2_TRACE_API("zulKestChangeStat");
  Operation* op = OpCreate(attr, OP_CH_STAT);
  if (op == nullptr) return 0;
  op->arg = flags;
  op->bufferCount = 1;
  op->buffers[0] = ZulKestBuffer{stat, static_cast<int64_t>(sizeof(ZulKestStat))};
  return OpAcceptWithPath(op, path, true);
}

uint32_t RequestDevctl(const ZulKestOpAttr* attr, const char* path, int32_t command,
                       void* argument, int64_t argumentLength, void* buffer, int64_t bufferLength) {
  KEST2_TRACE_API("zulKestDevctl");
  Operation* op = OpCreate(attr, OP_DEVCTL);
  if (op == nullptr) return 0;
  StoreControlBuffers(op, command, argument, argumentLength, buffer, bufferLength);
  return OpAcceptWithPath(op, path, true);
}

uint32_t RequestFHIoctl(const ZulKestOpAttr* attr, uint32_t fh, int32_t command, void* argument,
                        int64_t argumentLength, void* buffer, int64_t bufferLength) {
  KEST2_TRACE_API("zulKestFHIoctl");
  Operation* op = OpCreate(attr, OP_IOCTL);
  if (op == nullptr) return 0;
  op->targetHandle = fh;
  StoreControlBuffers(op, command, argument, argumentLength, buffer, bufferLength);
  return OpAccept(op);
}

uint32_t RequestSync(const ZulKestOpAttr* attr, const char* path, int32_t flags) {
  KEST2_TRACE_API("zulKestSync");
  return ChangeRequest(attr, OP_SYNC, path, flags);
}

}  // namespace kest2

using namespace kest2;

extern "C" ZulKestOp zulKestDirectoryCreateWithMode(const ZulKestOpAttr* attr, const char* path,
                                                    int32_t mode) {
  KEST2_TRACE_API("zulKestDirectoryCreateWithMode");
  return ChangeRequest(attr, OP_DIRECTORY_CREATE, path, mode);
}

extern "C" ZulKestOp zulKestDirectoryCreate(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestDirectoryCreate");
  return ChangeRequest(attr, OP_DIRECTORY_CREATE, path, -1);
}

extern "C" ZulKestOp zulKestDirectoryDelete(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestDirectoryDelete");
  return ChangeRequest(attr, OP_DIRECTORY_DELETE, path, -1);
}

extern "C" ZulKestOp zulKestFileDelete(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestFileDelete");
  return ChangeRequest(attr, OP_FILE_DELETE, path, -1);
}

extern "C" ZulKestOp zulKestDelete(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestDelete");
  return ChangeRequest(attr, OP_DELETE, path, -1);
}

extern "C" ZulKestOp zulKestFileTruncate(const ZulKestOpAttr* attr, const char* path,
                                         int64_t length) {
  KEST2_TRACE_API("zulKestFileTruncate");
  return ChangeRequest(attr, OP_TRUNCATE, path, length);
}

extern "C" ZulKestOp zulKestDirectoryExists(const ZulKestOpAttr* attr, const char* path,
                                            bool* pExists) {
  KEST2_TRACE_API("zulKestDirectoryExists");
  return QueryRequest(attr, OP_DIRECTORY_EXISTS, path, pExists, 1);
}

extern "C" ZulKestOp zulKestFileExists(const ZulKestOpAttr* attr, const char* path,
                                       bool* pExists) {
  KEST2_TRACE_API("zulKestFileExists");
  return QueryRequest(attr, OP_FILE_EXISTS, path, pExists, 1);
}

extern "C" ZulKestOp zulKestExists(const ZulKestOpAttr* attr, const char* path, bool* pExists) {
  KEST2_TRACE_API("zulKestExists");
  return QueryRequest(attr, OP_EXISTS, path, pExists, 1);
}

extern "C" ZulKestOp zulKestFileGetSize(const ZulKestOpAttr* attr, const char* path,
                                        int64_t* pSize) {
  KEST2_TRACE_API("zulKestFileGetSize");
  return QueryRequest(attr, OP_FILE_GET_SIZE, path, pSize, 8);
}

extern "C" ZulKestOp zulKestStat(const ZulKestOpAttr* attr, const char* path,
                                 ZulKestStat* pStat) {
  KEST2_TRACE_API("zulKestStat");
  return QueryRequest(attr, OP_STAT, path, pStat, static_cast<int64_t>(sizeof(ZulKestStat)));
}

extern "C" ZulKestOp zulKestRename(const ZulKestOpAttr* attr, const char* oldPath,
                                   const char* newPath) {
  KEST2_TRACE_API("zulKestRename");
  Operation* op = OpCreate(attr, OP_RENAME);
  if (op == nullptr) return 0;
  if (oldPath == nullptr || newPath == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PATH);
  // Renaming a path onto itself needs no file system.
  if (std::strcmp(oldPath, newPath) == 0) return OpCompleteOk(op);
  op->bufferCount = 1;
  op->arg = static_cast<int64_t>(reinterpret_cast<uintptr_t>(newPath));
  return OpAcceptWithPath(op, oldPath, false);
}

extern "C" ZulKestOp zulKestResolve(const ZulKestOpAttr* attr, const ZulKestResolveRecord* in,
                                    ZulKestResolveRecord* out) {
  KEST2_TRACE_API("zulKestResolve");
  Operation* op = OpCreate(attr, OP_RESOLVE);
  if (op == nullptr) return 0;
  if (in == nullptr || out == nullptr) return OpFail(op, ZUL_KEST_ERROR_BAD_PTR);
  if (out != in) {
    out->offset = in->offset;
    out->arg = in->arg;
    std::memcpy(out->path, in->path, PathMax());
  }
  op->offset = in->offset;
  op->arg = in->arg;
  op->bufferCount = 1;
  op->buffers[0] = ZulKestBuffer{out, static_cast<int64_t>(sizeof(ZulKestResolveRecord))};
  return OpAcceptWithPath(op, in->path, false);
}

extern "C" ZulKestOp zulKestCachePrefetchFile(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestCachePrefetchFile");
  return PrefetchFile(attr, path, OP_PREFETCH_FILE, 0, 0);
}

extern "C" ZulKestOp zulKestCachePrefetchFileRange(const ZulKestOpAttr* attr, const char* path,
                                                   int64_t offset, int64_t length) {
  KEST2_TRACE_API("zulKestCachePrefetchFileRange");
  return PrefetchFile(attr, path, OP_PREFETCH_FILE_RANGE, offset, length);
}

extern "C" ZulKestOp zulKestCachePrefetchFH(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestCachePrefetchFH");
  return FileHandleRequest(attr, OP_PREFETCH_FH, fh);
}

extern "C" ZulKestOp zulKestCachePrefetchFHRange(const ZulKestOpAttr* attr, ZulKestFH fh,
                                                 int64_t offset, int64_t length) {
  KEST2_TRACE_API("zulKestCachePrefetchFHRange");
  Operation* op = OpCreate(attr, OP_PREFETCH_FH_RANGE);
  if (op == nullptr) return 0;
  op->offset = offset;
  op->arg = length;
  op->targetHandle = fh;  // the range prefetch does not check its handle
  return OpAccept(op);
}
