// Seeded pseudo-random numbers: see random.h.

#include "common/random.h"

#include <cmath>
#include <cstring>

namespace kest2_common {

int64_t Random::LogUniform(int64_t lo, int64_t hi) {
  const double u = static_cast<double>(Next() >> 11) / 9007199254740992.0;  // [0, 1)
  return static_cast<int64_t>(static_cast<double>(lo) *
                              std::pow(static_cast<double>(hi) / static_cast<double>(lo), u));
}

std::vector<uint8_t> RandomBytes(size_t size, uint64_t seed) {
  std::vector<uint8_t> bytes(size);
  Random random(seed);
  for (size_t at = 0; at < size; at += 8) {
    const uint64_t word = random.Next();
    std::memcpy(bytes.data() + at, &word, size - at < 8 ? size - at : 8);
  }
  return bytes;
}

}  // namespace kest2_common
