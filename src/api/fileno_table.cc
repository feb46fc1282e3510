// The descriptor table: see fileno_table.h.

#include "api/fileno_table.h"

#include "core/handletable.h"

namespace kest2 {
namespace {

// -1 marks a free slot.  Static initialisation fills every slot so the
// table works before the library is initialised.
struct FilenoTable {
  int32_t fds[kFilenoSlots];
  FilenoTable() {
    for (int32_t& fd : fds) fd = -1;
  }
};

FilenoTable g_filenos;

inline int32_t SlotOf(uint32_t handle) { return static_cast<int32_t>(handle & 0xFF); }

}  // namespace

uint32_t ClaimFilenoHandle(int32_t fd) {
  if (fd == -1) return 0;
  for (int32_t slot = 0; slot < kFilenoSlots; ++slot) {
    int32_t expected = -1;
    if (__atomic_compare_exchange_n(&g_filenos.fds[slot], &expected, fd, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      return kFilenoHandleBase | static_cast<uint32_t>(slot);
    }
  }
  return 0;
}

int32_t FilenoOfHandle(uint32_t handle) {
  if (!IsFilenoHandle(handle)) return -1;
  return __atomic_load_n(&g_filenos.fds[SlotOf(handle)], __ATOMIC_ACQUIRE);
}

int32_t ReleaseFilenoHandle(uint32_t handle) {
  if (!IsFilenoHandle(handle)) return -1;
  return __atomic_exchange_n(&g_filenos.fds[SlotOf(handle)], -1, __ATOMIC_ACQ_REL);
}

}  // namespace kest2
