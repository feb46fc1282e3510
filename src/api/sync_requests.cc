// The synchronous twins: each issues its asynchronous request with the
// synchronous opflags, waits for it, deletes the operation and returns the
// result.  Transfers and size queries return i64 (the count or size, else
// the error sign-extended); the rest return the result code; the existence
// queries return a bool.
//
// Before initialisation, and for descriptor-backed file handles at any time,
// there is no engine to ask: the twin calls the operating system itself
// (direct_path.h).

#include "api/direct_path.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "debug/trace.h"
#include "kest2.h"

using namespace kest2;

namespace {

// The caller's attributes (or the defaults) marked as a synchronous call
// that may run on the caller's thread.  Archive work is never run there.
ZulKestOpAttr SyncAttr(const ZulKestOpAttr* attr, bool fastPath = true) {
  ZulKestOpAttr copy;
  if (attr != nullptr) {
    copy = *attr;
  } else {
    zulKestGetDefaultOpAttr(&copy);
  }
  copy.opflags |= ZUL_KEST_OPFLAG_SYNC;
  if (fastPath) {
    copy.opflags |= ZUL_KEST_OPFLAG_FAST_PATH;
  } else {
    copy.opflags &= ~ZUL_KEST_OPFLAG_FAST_PATH;
  }
  return copy;
}

// Paths go to the operating system until the library is initialised.
bool DirectForPath() { return !IsInitialized(); }
// File handles also when they are descriptor-backed.
bool DirectForHandle(uint32_t fh) { return !IsInitialized() || IsFilenoHandle(fh); }

void TraceBuffer(const char* function, const void* buf, int64_t length) {
  KEST2_TRACE(kTraceApi, function, "(buf=0x%p,length=%lld)", buf, static_cast<long long>(length));
}

}  // namespace

extern "C" int32_t zulKestFHOpenWithModeSync(const ZulKestOpAttr* attr, ZulKestFH* pFH,
                                             const char* path, const ZulKestOpenParams* openParams,
                                             int32_t mode) {
  KEST2_TRACE_API("zulKestFHOpenWithModeSync");
  if (DirectForPath()) return DirectOpen(pFH, path, openParams, mode);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestFHOpenWithMode(&copy, pFH, path, openParams, mode));
}

extern "C" int32_t zulKestFHOpenSync(const ZulKestOpAttr* attr, ZulKestFH* pFH, const char* path,
                                     const ZulKestOpenParams* openParams) {
  KEST2_TRACE_API("zulKestFHOpenSync");
  return zulKestFHOpenWithModeSync(attr, pFH, path, openParams, -1);
}

extern "C" int64_t zulKestFHReadSync(const ZulKestOpAttr* attr, ZulKestFH fh, void* buf,
                                     int64_t length) {
  TraceBuffer("zulKestFHReadSync", buf, length);
  // Checked before anything else, engine or not: with the operation table
  // full the request could not report it.
  if (length < 0) return ZUL_KEST_ERROR_BAD_SIZE;
  if (DirectForHandle(fh)) return DirectTransfer(fh, buf, length, kDirectAtPosition, false);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFHRead(&copy, fh, buf, length));
}

extern "C" int64_t zulKestFHWriteSync(const ZulKestOpAttr* attr, ZulKestFH fh, const void* buf,
                                      int64_t length) {
  TraceBuffer("zulKestFHWriteSync", buf, length);
  if (length < 0) return ZUL_KEST_ERROR_BAD_SIZE;
  if (DirectForHandle(fh))
    return DirectTransfer(fh, const_cast<void*>(buf), length, kDirectAtPosition, true);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFHWrite(&copy, fh, buf, length));
}

extern "C" int64_t zulKestFHPreadSync(const ZulKestOpAttr* attr, ZulKestFH fh, void* buf,
                                      int64_t length, int64_t offset) {
  TraceBuffer("zulKestFHPreadSync", buf, length);
  if (length < 0) return ZUL_KEST_ERROR_BAD_SIZE;
  if (DirectForHandle(fh)) return DirectTransfer(fh, buf, length, DirectAtOffset(offset), false);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFHPread(&copy, fh, buf, length, offset));
}

extern "C" int64_t zulKestFHPwriteSync(const ZulKestOpAttr* attr, ZulKestFH fh, const void* buf,
                                       int64_t length, int64_t offset) {
  TraceBuffer("zulKestFHPwriteSync", buf, length);
  if (length < 0) return ZUL_KEST_ERROR_BAD_SIZE;
  if (DirectForHandle(fh))
    return DirectTransfer(fh, const_cast<void*>(buf), length, DirectAtOffset(offset), true);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFHPwrite(&copy, fh, buf, length, offset));
}

extern "C" int64_t zulKestFHReadvSync(const ZulKestOpAttr* attr, ZulKestFH fh,
                                      const ZulKestBuffer* iov, int32_t count) {
  KEST2_TRACE_API("zulKestFHReadvSync");
  if (iov == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (DirectForHandle(fh)) return DirectVector(fh, iov, count, kDirectAtPosition, false);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFHReadv(&copy, fh, iov, count));
}

extern "C" int64_t zulKestFHWritevSync(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       const ZulKestBuffer* iov, int32_t count) {
  KEST2_TRACE_API("zulKestFHWritevSync");
  if (iov == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (DirectForHandle(fh)) return DirectVector(fh, iov, count, kDirectAtPosition, true);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFHWritev(&copy, fh, iov, count));
}

extern "C" int64_t zulKestFHPreadvSync(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       const ZulKestBuffer* iov, int32_t count, int64_t offset) {
  KEST2_TRACE_API("zulKestFHPreadvSync");
  if (iov == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (DirectForHandle(fh)) return DirectVector(fh, iov, count, DirectAtOffset(offset), false);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFHPreadv(&copy, fh, iov, count, offset));
}

extern "C" int64_t zulKestFHPwritevSync(const ZulKestOpAttr* attr, ZulKestFH fh,
                                        const ZulKestBuffer* iov, int32_t count, int64_t offset) {
  KEST2_TRACE_API("zulKestFHPwritevSync");
  if (iov == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (DirectForHandle(fh)) return DirectVector(fh, iov, count, DirectAtOffset(offset), true);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFHPwritev(&copy, fh, iov, count, offset));
}

extern "C" int32_t zulKestFHStatSync(const ZulKestOpAttr* attr, ZulKestFH fh, ZulKestStat* pStat) {
  KEST2_TRACE_API("zulKestFHStatSync");
  if (DirectForHandle(fh)) return DirectHandleStat(fh, pStat);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestFHStat(&copy, fh, pStat));
}

extern "C" int32_t zulKestFHTruncateSync(const ZulKestOpAttr* attr, ZulKestFH fh, int64_t length) {
  KEST2_TRACE_API("zulKestFHTruncateSync");
  if (DirectForHandle(fh)) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestFHTruncate(&copy, fh, length));
}

extern "C" int32_t zulKestFHSyncSync(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHSyncSync");
  if (DirectForHandle(fh)) return DirectHandleSync(fh);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestFHSync(&copy, fh));
}

extern "C" int32_t zulKestFHCloseSync(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestFHCloseSync");
  if (DirectForHandle(fh)) return DirectClose(fh);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestFHClose(&copy, fh));
}

extern "C" int32_t zulKestDHOpenSync(const ZulKestOpAttr* attr, ZulKestDH* pDH, const char* path,
                                     void* buf, int64_t length) {
  KEST2_TRACE_API("zulKestDHOpenSync");
  if (DirectForPath()) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestDHOpen(&copy, pDH, path, buf, length));
}

extern "C" int32_t zulKestDHReadSync(const ZulKestOpAttr* attr, ZulKestDH dh,
                                     ZulKestDirEntry* pEntry) {
  KEST2_TRACE_API("zulKestDHReadSync");
  if (DirectForPath()) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestDHRead(&copy, dh, pEntry));
}

extern "C" int32_t zulKestDHCloseSync(const ZulKestOpAttr* attr, ZulKestDH dh) {
  KEST2_TRACE_API("zulKestDHCloseSync");
  if (DirectForPath()) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestDHClose(&copy, dh));
}

extern "C" int32_t zulKestDirectoryCreateWithModeSync(const ZulKestOpAttr* attr, const char* path,
                                                      int32_t mode) {
  KEST2_TRACE_API("zulKestDirectoryCreateWithModeSync");
  if (DirectForPath()) return DirectMkdir(path, mode);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestDirectoryCreateWithMode(&copy, path, mode));
}

extern "C" int32_t zulKestDirectoryCreateSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestDirectoryCreateSync");
  return zulKestDirectoryCreateWithModeSync(attr, path, -1);
}

extern "C" int32_t zulKestDirectoryDeleteSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestDirectoryDeleteSync");
  if (DirectForPath()) return DirectRmdir(path);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestDirectoryDelete(&copy, path));
}

extern "C" bool zulKestDirectoryExistsSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestDirectoryExistsSync");
  if (DirectForPath()) return DirectExists(path, DirectKind::kDirectory);
  const ZulKestOpAttr copy = SyncAttr(attr);
  bool exists = false;
  return zulKestOpSyncWait(zulKestDirectoryExists(&copy, path, &exists)) == ZUL_KEST_OK && exists;
}

extern "C" bool zulKestFileExistsSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestFileExistsSync");
  if (DirectForPath()) return DirectExists(path, DirectKind::kFile);
  const ZulKestOpAttr copy = SyncAttr(attr);
  bool exists = false;
  return zulKestOpSyncWait(zulKestFileExists(&copy, path, &exists)) == ZUL_KEST_OK && exists;
}

extern "C" bool zulKestExistsSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestExistsSync");
  if (DirectForPath()) return DirectExists(path, DirectKind::kAny);
  const ZulKestOpAttr copy = SyncAttr(attr);
  bool exists = false;
  return zulKestOpSyncWait(zulKestExists(&copy, path, &exists)) == ZUL_KEST_OK && exists;
}

extern "C" int64_t zulKestFileGetSizeSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestFileGetSizeSync");
  if (DirectForPath()) return DirectFileSize(path);
  const ZulKestOpAttr copy = SyncAttr(attr);
  int64_t size = 0;
  const int32_t result = zulKestOpSyncWait(zulKestFileGetSize(&copy, path, &size));
  return result == ZUL_KEST_OK ? size : result;
}

extern "C" int32_t zulKestFileDeleteSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestFileDeleteSync");
  if (DirectForPath()) return DirectUnlink(path);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestFileDelete(&copy, path));
}

extern "C" int32_t zulKestDeleteSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestDeleteSync");
  if (DirectForPath()) return DirectDelete(path);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestDelete(&copy, path));
}

extern "C" int32_t zulKestStatSync(const ZulKestOpAttr* attr, const char* path,
                                   ZulKestStat* pStat) {
  KEST2_TRACE_API("zulKestStatSync");
  if (DirectForPath()) return DirectStat(path, pStat);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestStat(&copy, path, pStat));
}

extern "C" int32_t zulKestRenameSync(const ZulKestOpAttr* attr, const char* oldPath,
                                     const char* newPath) {
  KEST2_TRACE_API("zulKestRenameSync");
  if (DirectForPath()) return DirectRename(oldPath, newPath);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestRename(&copy, oldPath, newPath));
}

extern "C" int32_t zulKestResolveSync(const ZulKestOpAttr* attr, const ZulKestResolveRecord* in,
                                      ZulKestResolveRecord* out) {
  KEST2_TRACE_API("zulKestResolveSync");
  if (DirectForPath()) return DirectResolve(in, out);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestResolve(&copy, in, out));
}

extern "C" int64_t zulKestFileReadSync(const ZulKestOpAttr* attr, const char* path, void* buf,
                                       int64_t length, int64_t offset) {
  TraceBuffer("zulKestFileReadSync", buf, length);
  if (DirectForPath()) return DirectPathTransfer(path, buf, length, offset, false);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFileRead(&copy, path, buf, length, offset));
}

extern "C" int64_t zulKestFileWriteSync(const ZulKestOpAttr* attr, const char* path,
                                        const void* buf, int64_t length, int64_t offset) {
  TraceBuffer("zulKestFileWriteSync", buf, length);
  if (DirectForPath()) return DirectPathTransfer(path, const_cast<void*>(buf), length, offset, true);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWaitForIO(zulKestFileWrite(&copy, path, buf, length, offset));
}

extern "C" int32_t zulKestFileTruncateSync(const ZulKestOpAttr* attr, const char* path,
                                           int64_t length) {
  KEST2_TRACE_API("zulKestFileTruncateSync");
  if (DirectForPath()) return DirectTruncate(path, length);
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestFileTruncate(&copy, path, length));
}

extern "C" int32_t zulKestCachePrefetchFileSync(const ZulKestOpAttr* attr, const char* path) {
  KEST2_TRACE_API("zulKestCachePrefetchFileSync");
  if (DirectForPath()) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestCachePrefetchFile(&copy, path));
}

// Without the engine there is no cache to fill: the range and handle
// prefetches have nothing to do.
extern "C" int32_t zulKestCachePrefetchFileRangeSync(const ZulKestOpAttr* attr, const char* path,
                                                     int64_t offset, int64_t length) {
  KEST2_TRACE_API("zulKestCachePrefetchFileRangeSync");
  if (DirectForPath()) return ZUL_KEST_OK;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestCachePrefetchFileRange(&copy, path, offset, length));
}

extern "C" int32_t zulKestCachePrefetchFHSync(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestCachePrefetchFHSync");
  if (DirectForHandle(fh)) return ZUL_KEST_OK;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestCachePrefetchFH(&copy, fh));
}

extern "C" int32_t zulKestCachePrefetchFHRangeSync(const ZulKestOpAttr* attr, ZulKestFH fh,
                                                   int64_t offset, int64_t length) {
  KEST2_TRACE_API("zulKestCachePrefetchFHRangeSync");
  if (DirectForHandle(fh)) return ZUL_KEST_OK;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestCachePrefetchFHRange(&copy, fh, offset, length));
}

extern "C" int64_t zulKestArchiveGetMountBufferSizeSync(const ZulKestOpAttr* attr,
                                                        const char* archivePath,
                                                        const ZulKestOpenParams* openParams) {
  KEST2_TRACE_API("zulKestArchiveGetMountBufferSizeSync");
  if (DirectForPath()) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  const ZulKestOpAttr copy = SyncAttr(attr, false);
  return zulKestOpSyncWaitForIO(zulKestArchiveGetMountBufferSize(&copy, archivePath, openParams));
}

extern "C" int32_t zulKestArchiveMountSync(const ZulKestOpAttr* attr, ZulKestFH* pFH,
                                           const char* archivePath, const char* mountPoint,
                                           void* buf, int64_t length,
                                           const ZulKestOpenParams* openParams) {
  KEST2_TRACE_API("zulKestArchiveMountSync");
  if (DirectForPath()) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  const ZulKestOpAttr copy = SyncAttr(attr, false);
  return zulKestOpSyncWait(
      zulKestArchiveMount(&copy, pFH, archivePath, mountPoint, buf, length, openParams));
}

extern "C" int32_t zulKestArchiveUnmountSync(const ZulKestOpAttr* attr, ZulKestFH fh) {
  KEST2_TRACE_API("zulKestArchiveUnmountSync");
  if (DirectForPath()) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  const ZulKestOpAttr copy = SyncAttr(attr);
  return zulKestOpSyncWait(zulKestArchiveUnmount(&copy, fh));
}
