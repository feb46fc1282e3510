// Seeded pseudo-random numbers for the tests, the benchmarks, the fuzz
// targets and the kest2 program's demo: the same numbers for a seed on every
// run and machine, so that a failure or a measurement can be repeated.
#ifndef KEST2_TOOLS_COMMON_RANDOM_H_
#define KEST2_TOOLS_COMMON_RANDOM_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kest2_common {

// xorshift64: cheap and good enough for test data, sizes and orders.  It is
// also a standard uniform random bit generator, for std::shuffle and the
// distributions.
class Random {
 public:
  using result_type = uint64_t;

  explicit Random(uint64_t seed) : m_state(seed * 0x9E3779B97F4A7C15ull + 0x2545F4914F6CDD1Dull) {
    if (m_state == 0) m_state = 1;  // the one state xorshift never leaves
  }

  uint64_t Next() {
    m_state ^= m_state << 13;
    m_state ^= m_state >> 7;
    m_state ^= m_state << 17;
    return m_state;
  }
  uint64_t operator()() { return Next(); }
  static constexpr uint64_t min() { return 1; }
  static constexpr uint64_t max() { return UINT64_MAX; }

  // In [0, n); n > 0.
  uint64_t Below(uint64_t n) { return Next() % n; }
  // Log-uniform in [lo, hi]: as many small values as large ones per
  // octave.  0 < lo <= hi.
  int64_t LogUniform(int64_t lo, int64_t hi);

 private:
  uint64_t m_state;
};

// size bytes of noise, the same for the same seed.
std::vector<uint8_t> RandomBytes(size_t size, uint64_t seed);

}  // namespace kest2_common

#endif  // KEST2_TOOLS_COMMON_RANDOM_H_
