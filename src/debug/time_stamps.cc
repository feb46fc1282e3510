// The time-stamp recorder: any thread drops tagged, timed marks into a
// fixed ring without a lock; a quiet moment prints them as a table with
// absolute and delta times and clears the ring.

#include <cstring>

#include "core/platform.h"
#include "debug/trace.h"
#include "kest2.h"

namespace kest2 {
namespace {

constexpr uint32_t kRingSize = 32768;
// A count of kRingSize + 1 means that more stamps were saved than the ring
// holds.
constexpr uint32_t kOverflowed = kRingSize + 1;

struct TimeStamp {
  const char* tag;
  uint32_t value;
  uint64_t threadId;
  ZulKestTime time;
};

TimeStamp g_ring[kRingSize];
uint32_t g_writeIndex;
uint32_t g_count;

void PrintDashes() {
  char line[82];
  std::memset(line, '-', 80);
  line[80] = '\n';
  line[81] = '\0';
  zulKestPrintf("%s", line);
}

}  // namespace
}  // namespace kest2

using namespace kest2;

extern "C" void zulKestSaveTimeStamp(const char* tag, uint32_t value) {
  const ZulKestTime now = zulKestTimeGetCurrent();
  uint32_t slot = __atomic_load_n(&g_writeIndex, __ATOMIC_RELAXED);
  while (!__atomic_compare_exchange_n(&g_writeIndex, &slot, (slot + 1) % kRingSize, false,
                                      __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
  }
  if (__atomic_fetch_add(&g_count, 1, __ATOMIC_ACQ_REL) >= kRingSize)
    __atomic_store_n(&g_count, kOverflowed, __ATOMIC_RELEASE);
  TimeStamp& stamp = g_ring[slot];
  __atomic_store_n(&stamp.tag, tag, __ATOMIC_RELAXED);
  __atomic_store_n(&stamp.value, value, __ATOMIC_RELAXED);
  __atomic_store_n(&stamp.threadId, CurrentThreadId(), __ATOMIC_RELAXED);
  __atomic_store_n(&stamp.time, now, __ATOMIC_RELEASE);
}

extern "C" void zulKestClearTimeStamps(void) {
  __atomic_store_n(&g_writeIndex, 0u, __ATOMIC_RELEASE);
  __atomic_store_n(&g_count, 0u, __ATOMIC_RELEASE);
}

extern "C" void zulKestPrintTimeStamps(void) {
  const uint32_t count = __atomic_load_n(&g_count, __ATOMIC_ACQUIRE);
  if (count == 0) {
    zulKestPrintf("Time stamp dump: no entries\n");
    return;
  }
  PrintDashes();
  uint32_t slot = 0;
  uint32_t n = count;
  if (count == kOverflowed) {
    zulKestPrintf("Overflowed while capturing timings\n");
    slot = __atomic_load_n(&g_writeIndex, __ATOMIC_ACQUIRE);  // the oldest record
    n = kRingSize;
  }
  zulKestPrintf("Time stamp dump:\n");
  zulKestPrintf("%-16s %-32s %8s %-16s %-6s\n", "    Thread", "    Tag", " Value",
                "   Absolute us", " Delta us");
  ZulKestTime previous = 0;
  for (uint32_t i = 0; i < n; ++i, slot = (slot + 1) % kRingSize) {
    const TimeStamp& stamp = g_ring[slot];
    const ZulKestTime time = __atomic_load_n(&stamp.time, __ATOMIC_ACQUIRE);
    const long long delta = i == 0 ? 0 : static_cast<long long>((time - previous + 999) / 1000);
    const char* tag = __atomic_load_n(&stamp.tag, __ATOMIC_RELAXED);
    zulKestPrintf("%016llx %-32s %8x %16lld %6lld\n",
                  static_cast<unsigned long long>(__atomic_load_n(&stamp.threadId, __ATOMIC_RELAXED)),
                  tag != nullptr ? tag : "(null)", __atomic_load_n(&stamp.value, __ATOMIC_RELAXED),
                  static_cast<long long>((time + 999) / 1000), delta);
    previous = time;
  }
  PrintDashes();
  zulKestClearTimeStamps();
}
