// Fixed-size object pools over caller storage: see pool.h.
//
// Bitmap layout: unit i is bit (7 - i % 8) of bitmap byte i / 8, most
// significant bit first.  Read as 64-bit words in big-endian byte order unit
// i is bit 63 - (i % 64) of word i / 64; the code below builds masks in that
// order and byte-swaps them to the machine's little-endian words, so each
// word is changed by one compare-and-swap.

#include "core/pool.h"

#include <cstring>

#include "kest2.h"

namespace kest2 {
namespace {

inline uint64_t RoundUp8(uint64_t x) { return (x + 7) & ~uint64_t{7}; }
inline uint64_t BitmapBytes(uint64_t units) { return RoundUp8((units + 7) / 8); }

inline uint64_t* BitmapWord(const Pool* pool, uint32_t word) {
  return reinterpret_cast<uint64_t*>(pool->bitmap) + word;
}

// Native-order mask of units [from, to) of one word, 0 <= from < to <= 64.
inline uint64_t WordMask(uint32_t from, uint32_t to) {
  uint64_t bigEndian = ~uint64_t{0} >> from;
  if (to < 64) bigEndian &= ~(~uint64_t{0} >> to);
  return __builtin_bswap64(bigEndian);
}

inline uint32_t LoadAllocated(const Pool* pool) {
  return __atomic_load_n(&pool->allocated, __ATOMIC_RELAXED);
}

// Sets (or clears) units [first, first + count) word by word.  Fails when
// the range is not entirely free (setting) or allocated (clearing); the
// words already changed are then changed back.
bool AtomicToggleBits(Pool* pool, uint32_t first, uint32_t count, bool set) {
  if (count == 0) return true;
  const uint32_t end = first + count;
  for (uint32_t word = first / 64; word <= (end - 1) / 64; ++word) {
    const uint32_t wordStart = word * 64;
    const uint32_t from = first > wordStart ? first - wordStart : 0;
    const uint32_t to = end < wordStart + 64 ? end - wordStart : 64;
    const uint64_t mask = WordMask(from, to);
    uint64_t* target = BitmapWord(pool, word);
    uint64_t current = __atomic_load_n(target, __ATOMIC_ACQUIRE);
    for (;;) {
      const uint64_t expected = set ? (current & ~mask) : (current | mask);
      if (current != expected) {
        if (!set) {
          zulKestPrintf(
              "KEST: unexpected failure during deallocation in "
              "AtomicToggleBits\n");
        }
        const uint32_t changedEnd = wordStart > first ? wordStart : first;
        AtomicToggleBits(pool, first, changedEnd - first, !set);
        return false;
      }
      const uint64_t desired = set ? (current | mask) : (current & ~mask);
      if (__atomic_compare_exchange_n(target, &current, desired, false,
                                      __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        break;
      }
    }
  }
  return true;
}

}  // namespace

int32_t PoolSetUp(Pool* pool, void* storage, uint64_t size, uint32_t maxUnits,
                  uint64_t unitSize, uint64_t alignment) {
  const uint64_t unit = (unitSize + alignment - 1) & ~(alignment - 1);
  pool->unit = unit;
  pool->alignment = alignment;
  if ((reinterpret_cast<uintptr_t>(storage) & (alignment - 1)) != 0)
    return ZUL_KEST_ERROR_BAD_ALIGNMENT;
  if (storage == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (unit + 1 > size) return ZUL_KEST_ERROR_BAD_SIZE;

  // Each unit costs its bytes plus one bit; the bitmap is padded to whole
  // 64-bit words, so find the largest count whose units and padded bitmap
  // both fit.
  using Wide = unsigned __int128;
  const uint64_t rounded = size & ~uint64_t{7};
  const Wide perUnitBits = Wide{8} * unit + 1;
  uint64_t n = static_cast<uint64_t>(Wide{8} * rounded / perUnitBits);
  if (n == 0) return ZUL_KEST_ERROR_BAD_SIZE;
  uint64_t bytes = (n + 7) / 8;
  uint64_t padding = RoundUp8(bytes) - bytes;
  while (padding != 0 && bytes != 0) {
    n = static_cast<uint64_t>(Wide{8} * (rounded - padding) / perUnitBits);
    const uint64_t newBytes = (n + 7) / 8;
    padding = RoundUp8(newBytes) - newBytes;
    if (padding == 0 || newBytes == bytes) break;
    bytes = newBytes;
  }
  while (n > 0 && (size - rounded) + BitmapBytes(n) + Wide{n} * unit > size) --n;
  if (n == 0 || n > maxUnits) return ZUL_KEST_ERROR_BAD_SIZE;
  if (n == maxUnits && n * unit + BitmapBytes(n) != size)
    return ZUL_KEST_ERROR_BAD_SIZE;

  pool->allocated = 0;
  pool->highWater = 0;
  pool->lastIndex = 0xFFFFFFFFu;
  pool->generation = 1;
  pool->capacity = static_cast<uint32_t>(n);
  pool->base = static_cast<uint8_t*>(storage);
  // The bitmap ends the storage's whole 8-byte words, so its words are
  // aligned for the compare-and-swap; with a size that is a multiple of 8
  // (every size the library asks for) that is the storage's last bytes.
  pool->bitmap = pool->base + rounded - BitmapBytes(n);
  std::memset(storage, 0, size);
  pool->initialised = 1;
  return ZUL_KEST_OK;
}

int64_t PoolAllocate(Pool* pool, uint32_t n) {
  const uint32_t capacity = pool->capacity;
  if (!pool->initialised || n == 0 || capacity == 0 ||
      uint64_t{LoadAllocated(pool)} + n > capacity) {
    return -1;
  }
  uint32_t start = __atomic_load_n(&pool->lastIndex, __ATOMIC_RELAXED);
  uint64_t tries = 0;
  for (;;) {
    uint64_t candidate = static_cast<uint32_t>(start + 1);
    if (candidate + n > capacity) {
      uint64_t generation = __atomic_load_n(&pool->generation, __ATOMIC_RELAXED);
      generation = generation + 1 >= kPoolGenerationLimit ? 1 : generation + 1;
      __atomic_store_n(&pool->generation, generation, __ATOMIC_RELAXED);
      candidate = 0;
    }
    const uint32_t first = static_cast<uint32_t>(candidate);
    uint32_t busy = first;
    bool runFree = true;
    for (uint32_t i = first; i < first + n; ++i) {
      if (PoolUnitAllocated(pool, i)) {
        busy = i;
        runFree = false;
        break;
      }
    }
    if (!runFree) {
      tries += (busy - first) + 1;
      start = busy;
      if (tries < capacity) continue;
      return -1;
    }
    if (!AtomicToggleBits(pool, first, n, true)) {
      // Another thread took one of the units between the look and the swap.
      tries += 1;
      start = first;
      if (tries < capacity) continue;
      return -1;
    }
    const uint32_t now =
        __atomic_add_fetch(&pool->allocated, n, __ATOMIC_RELAXED);
    uint32_t high = __atomic_load_n(&pool->highWater, __ATOMIC_RELAXED);
    while (now > high &&
           !__atomic_compare_exchange_n(&pool->highWater, &high, now, true,
                                        __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
    __atomic_store_n(&pool->lastIndex, first + n - 1, __ATOMIC_RELAXED);
    std::memset(PoolUnitAddress(pool, first), 0, n * pool->unit);
    return first;
  }
}

void PoolFree(Pool* pool, uint32_t index, uint32_t n) {
  if (LoadAllocated(pool) < n || index >= pool->capacity ||
      uint64_t{index} + n > pool->capacity) {
    return;
  }
  if (AtomicToggleBits(pool, index, n, false))
    __atomic_sub_fetch(&pool->allocated, n, __ATOMIC_RELAXED);
}

bool PoolUnitAllocated(const Pool* pool, uint32_t index) {
  if (index >= pool->capacity) return false;
  const uint64_t word =
      __atomic_load_n(BitmapWord(pool, index / 64), __ATOMIC_ACQUIRE);
  return (word & WordMask(index % 64, index % 64 + 1)) != 0;
}

bool PoolIsAllocated(const Pool* pool, const void* address, uint32_t n) {
  if (!pool->initialised || pool->base == nullptr) return false;
  const uint8_t* p = static_cast<const uint8_t*>(address);
  if (p < pool->base) return false;
  const uint64_t offset = static_cast<uint64_t>(p - pool->base);
  if (offset % pool->unit != 0) return false;
  const uint64_t index = offset / pool->unit;
  if (index + n > pool->capacity) return false;
  for (uint64_t i = index; i < index + n; ++i) {
    if (!PoolUnitAllocated(pool, static_cast<uint32_t>(i))) return false;
  }
  return true;
}

void PoolTearDown(Pool* pool) {
  if (!pool->initialised) return;
  const uint32_t allocated = LoadAllocated(pool);
  if (allocated != 0) {
    zulKestPrintf(
        "kest2 warning: terminated with %d bytes (%d units) of %ss still "
        "allocated\n",
        static_cast<int>(allocated * pool->unit), static_cast<int>(allocated),
        pool->name);
  }
  pool->initialised = 0;
  std::memset(pool->base, 0, pool->capacity * pool->unit);
  std::memset(pool->bitmap, 0, (pool->capacity + 7) / 8);
  pool->allocated = 0;
  pool->capacity = 0;
  pool->lastIndex = 0xFFFFFFFFu;
  pool->base = nullptr;
  pool->bitmap = nullptr;
}

void PoolResetHighWater(Pool* pool) {
  __atomic_store_n(&pool->highWater, LoadAllocated(pool), __ATOMIC_RELAXED);
}

uint32_t PoolAllocatedCount(const Pool* pool) { return LoadAllocated(pool); }

uint32_t PoolHighWater(const Pool* pool) {
  return __atomic_load_n(&pool->highWater, __ATOMIC_RELAXED);
}

}  // namespace kest2
