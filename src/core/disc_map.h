// The disc map: where a file range lies on the storage media.  The engine
// asks it for a chunk's media position (to order reads by seek distance) and,
// with two I/O schedulers, whether a range lies on the hard disk.
//
// This build has no disc-map service: both queries answer "unavailable", so
// the engine orders chunks by pseudo positions derived from the path digest
// and the file offset, and every file-system chunk goes to the all-other I/O
// scheduler.  A port with a real service replaces these two functions.
#ifndef KEST2_SRC_CORE_DISC_MAP_H_
#define KEST2_SRC_CORE_DISC_MAP_H_

#include <cstdint>

namespace kest2 {

// On success (0) out[1] holds the media location of the range.
int32_t DiscMapQueryPosition(const char* path, int64_t offset, int64_t length, int64_t out[3]);
// On success (0) *onHardDisk tells whether the range lies on the hard disk.
int32_t DiscMapQueryHardDisk(const char* path, int64_t offset, int64_t length, bool* onHardDisk);

// The system-module loader through which the disc-map service is brought in
// and let go.  Here there is nothing to load: both succeed.
int32_t LoadSystemModule(uint32_t moduleId);
void UnloadSystemModule(uint32_t moduleId);

}  // namespace kest2

#endif  // KEST2_SRC_CORE_DISC_MAP_H_
