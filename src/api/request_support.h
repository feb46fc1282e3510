// Building blocks shared by the asynchronous request functions.
//
// Every request creates an operation of its type, checks its arguments in a
// fixed order, stores them, and hands the operation to the engine.  A failed
// check completes the operation at once with the code (its callback runs on
// the caller's thread) and the request still returns its handle; only a full
// operation table makes a request return 0.
#ifndef KEST2_SRC_API_REQUEST_SUPPORT_H_
#define KEST2_SRC_API_REQUEST_SUPPORT_H_

#include <cstdint>

#include "core/records.h"
#include "kest2.h"

namespace kest2 {

// A new file handle with no descriptor yet and the given open parameters
// (all zero when null); null when the table is full.
FileHandle* NewFileHandle(const ZulKestOpenParams* params);

// The open parameters a new handle keeps: as given (all zero when null),
// read access when neither read nor write is asked for, and the low 16 bits
// of the request's opflags.
ZulKestOpenParams CompleteOpenParams(const ZulKestOpAttr* attr, const ZulKestOpenParams* given);

// A request on a live file handle: ZUL_KEST_ERROR_BAD_FH otherwise.
uint32_t FileHandleRequest(const ZulKestOpAttr* attr, uint16_t type, uint32_t fh);

// A request on a path that stores arg and at most one buffer (null: none)
// and ends in path acceptance.  A buffer that is asked for but null fails
// with ZUL_KEST_ERROR_BAD_PTR.
struct PathRequestArgs {
  int64_t arg = 0;
  bool wantsBuffer = false;
  void* buffer = nullptr;
  int64_t bufferLength = 0;
};
uint32_t PathRequest(const ZulKestOpAttr* attr, uint16_t type, const char* path, bool forWrite,
                     const PathRequestArgs& args);

}  // namespace kest2

#endif  // KEST2_SRC_API_REQUEST_SUPPORT_H_
