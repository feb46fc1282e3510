// Fixed-size object pools over caller storage.
//
// The library allocates no memory for its objects.  A pool cuts the storage
// the caller gave into equal units and keeps one bit per unit in a bitmap at
// the end of the same storage; it hands out runs of contiguous units with a
// next-fit search that starts after the previous allocation.
//
// Thread-safety: Allocate and Free may run on any number of threads at once
// without a lock; only the bitmap words (by 64-bit compare-and-swap),
// `allocated` and `highWater` change atomically.  `lastIndex` and
// `generation` are plain hints: a racing search may start from a stale one or
// bump the generation twice per wrap, which only changes where searches start
// and how handles differ.  SetUp and TearDown must not overlap any other call
// on the same pool.
#ifndef KEST2_SRC_CORE_POOL_H_
#define KEST2_SRC_CORE_POOL_H_

#include <cstddef>
#include <cstdint>

namespace kest2 {

struct Pool {
  const char* name;     // set by the owner; used in the leak warning
  uint32_t allocated;   // units in use
  uint32_t highWater;   // most units ever in use since set-up or reset
  uint32_t lastIndex;   // last unit of the latest allocation
  uint32_t capacity;    // number of units
  uint64_t generation;  // wrap counter of the search, 1..32766
  uint64_t unit;        // unit size, a multiple of alignment
  uint64_t alignment;   // a power of two
  uint8_t* base;        // first unit (start of the storage)
  uint8_t* bitmap;      // one bit per unit, most significant bit first
  uint8_t initialised;  // 1 while set up
};

constexpr uint64_t kPoolGenerationLimit = 32767;  // never issued

// Lays the pool over storage.  Returns ZUL_KEST_OK,
// ZUL_KEST_ERROR_BAD_ALIGNMENT (misaligned storage), ZUL_KEST_ERROR_BAD_PTR
// (null) or ZUL_KEST_ERROR_BAD_SIZE (too small for one unit, or holding more
// than maxUnits units unless it is exactly the size of maxUnits units).
int32_t PoolSetUp(Pool* pool, void* storage, uint64_t size, uint32_t maxUnits,
                  uint64_t unitSize, uint64_t alignment);

// Index of the first of n contiguous free units, now allocated and zeroed;
// -1 when the pool is not set up or has no such run.
int64_t PoolAllocate(Pool* pool, uint32_t n);

// Frees n units from index; out-of-range requests are ignored.  Units that
// are not all allocated are reported and left untouched.
void PoolFree(Pool* pool, uint32_t index, uint32_t n);

// True when address is a unit boundary inside the storage and the n units
// from there are all allocated.
bool PoolIsAllocated(const Pool* pool, const void* address, uint32_t n);

// True when unit index is allocated (index below capacity).
bool PoolUnitAllocated(const Pool* pool, uint32_t index);

inline uint8_t* PoolUnitAddress(const Pool* pool, uint32_t index) {
  return pool->base + static_cast<uint64_t>(index) * pool->unit;
}

// Prints the leak warning when units are still allocated, then clears the
// storage.  The high-water mark and the generation survive.
void PoolTearDown(Pool* pool);

// Statistics reset: the high-water mark becomes the current count.
void PoolResetHighWater(Pool* pool);

// Atomic readers for statistics and diagnostics.
uint32_t PoolAllocatedCount(const Pool* pool);
uint32_t PoolHighWater(const Pool* pool);

}  // namespace kest2

#endif  // KEST2_SRC_CORE_POOL_H_
