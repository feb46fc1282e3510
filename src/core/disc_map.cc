// The disc map without a disc-map service: see disc_map.h.

#include "core/disc_map.h"

#include "core/platform.h"

namespace kest2 {

constexpr int32_t kNotSupported = kKernelErrorBase + 78;  // ENOSYS

int32_t DiscMapQueryPosition(const char*, int64_t, int64_t, int64_t*) { return kNotSupported; }

int32_t DiscMapQueryHardDisk(const char*, int64_t, int64_t, bool* onHardDisk) {
  if (onHardDisk != nullptr) *onHardDisk = false;
  return kNotSupported;
}

int32_t LoadSystemModule(uint32_t) { return 0; }

void UnloadSystemModule(uint32_t) {}

}  // namespace kest2
