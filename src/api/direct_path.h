// The synchronous functions' direct path: the work done on the calling
// thread with the operating system's functions, used before the library is
// initialised and for descriptor-backed file handles.  Failures come back as
// the library's codes (the native error mapping); nothing raw escapes.
#ifndef KEST2_SRC_API_DIRECT_PATH_H_
#define KEST2_SRC_API_DIRECT_PATH_H_

#include <cstdint>

#include "kest2.h"

namespace kest2 {

enum class DirectKind { kFile, kDirectory, kAny };

// Where a direct transfer happens: at the descriptor's own position (which
// it advances), or at an offset the caller gave.  Kept apart from the offset
// so that no offset value a caller can pass means "current position".
struct DirectAt {
  bool positional;
  int64_t offset;
};
constexpr DirectAt kDirectAtPosition{false, 0};
constexpr DirectAt DirectAtOffset(int64_t offset) { return DirectAt{true, offset}; }

// Opens path and puts the descriptor in the descriptor table.
int32_t DirectOpen(uint32_t* pFH, const char* path, const ZulKestOpenParams* openParams,
                   int32_t mode);
// Closes a descriptor-backed handle's descriptor and frees its slot.
int32_t DirectClose(uint32_t fh);
// One transfer on a descriptor-backed handle.  The caller has checked the
// length (it is checked before anything else, engine or not).
int64_t DirectTransfer(uint32_t fh, void* buffer, int64_t length, DirectAt at, bool write);
// Transfers the buffers in order until a null one; a positional offset
// advances with each count.
int64_t DirectVector(uint32_t fh, const ZulKestBuffer* iov, int32_t count, DirectAt at, bool write);
int32_t DirectHandleStat(uint32_t fh, ZulKestStat* out);
int32_t DirectHandleSync(uint32_t fh);

// A whole-file read or write by path: open, one positional transfer, close.
int64_t DirectPathTransfer(const char* path, void* buffer, int64_t length, int64_t offset,
                           bool write);
bool DirectExists(const char* path, DirectKind kind);
// A regular file's size, 0 for anything else, or the error.
int64_t DirectFileSize(const char* path);
int32_t DirectStat(const char* path, ZulKestStat* out);
int32_t DirectMkdir(const char* path, int32_t mode);
int32_t DirectRmdir(const char* path);
int32_t DirectUnlink(const char* path);
// Removes a directory or a file, whichever the path is.
int32_t DirectDelete(const char* path);
int32_t DirectRename(const char* oldPath, const char* newPath);
int32_t DirectTruncate(const char* path, int64_t length);
// Without overlays a path resolves to itself: the record is copied.
int32_t DirectResolve(const ZulKestResolveRecord* in, ZulKestResolveRecord* out);

}  // namespace kest2

#endif  // KEST2_SRC_API_DIRECT_PATH_H_
