// Requests built like the exported ones but kept inside the library: change
// of a file's stat fields, device control by path, I/O control on a file
// handle, and sync of a path.  The native layer serves them.
#ifndef KEST2_SRC_API_REQUESTS_H_
#define KEST2_SRC_API_REQUESTS_H_

#include <cstdint>

#include "kest2.h"

namespace kest2 {

uint32_t RequestChangeStat(const ZulKestOpAttr* attr, const char* path, ZulKestStat* stat,
                           int32_t flags);
uint32_t RequestDevctl(const ZulKestOpAttr* attr, const char* path, int32_t command,
                       void* argument, int64_t argumentLength, void* buffer, int64_t bufferLength);
// The handle is not checked: the native layer answers for it.
uint32_t RequestFHIoctl(const ZulKestOpAttr* attr, uint32_t fh, int32_t command, void* argument,
                        int64_t argumentLength, void* buffer, int64_t bufferLength);
uint32_t RequestSync(const ZulKestOpAttr* attr, const char* path, int32_t flags);

}  // namespace kest2

#endif  // KEST2_SRC_API_REQUESTS_H_
