// The descriptor table: 256 slots that let an operating-system descriptor
// stand in for a file handle.  Slot s is the descriptor-backed handle
// 0x7FFF8000 | s; the synchronous functions serve such handles by calling
// the operating system directly, also before initialisation.
//
// Thread-safety: slots are claimed and released only by compare-and-swap.
#ifndef KEST2_SRC_API_FILENO_TABLE_H_
#define KEST2_SRC_API_FILENO_TABLE_H_

#include <cstdint>

namespace kest2 {

constexpr int kFilenoSlots = 256;

// Claims the first free slot for fd; returns its handle, or 0 when all 256
// are taken (or fd is -1).
uint32_t ClaimFilenoHandle(int32_t fd);
// The descriptor of a descriptor-backed handle, -1 when its slot is free.
int32_t FilenoOfHandle(uint32_t handle);
// Frees the handle's slot without closing the descriptor; returns the
// descriptor it held (-1 when free).
int32_t ReleaseFilenoHandle(uint32_t handle);

}  // namespace kest2

#endif  // KEST2_SRC_API_FILENO_TABLE_H_
