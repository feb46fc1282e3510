// Helpers shared by the benchmark programs: library storage, a scratch
// directory, test files, the clock and small statistics.
#ifndef KEST2_BENCH_BENCH_SUPPORT_H_
#define KEST2_BENCH_BENCH_SUPPORT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kest2.h"

namespace kest2_bench {

// The longest path the benchmarks hand the library; keeps the storage small.
constexpr uint32_t kPathMax = 256;

// Caller storage for the library's tables, sized at run time.
struct KestStorage {
  std::vector<uint64_t> op, fh, dh, chunk;
};

// Sizes the storage for the given unit counts and returns a parameters
// record that points at it (every other field zero or default).
ZulKestParams MakeParams(KestStorage* storage, uint32_t opUnits, uint32_t fhUnits,
                         uint32_t chunkUnits);

// A directory made with mkdtemp under /tmp, removed with its contents at
// destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

// Writes size bytes of seeded noise.  Exits on failure.
void WriteFile(const std::string& path, int64_t size, uint32_t seed);
// Flushes every written file to the device, so that no write-back runs
// while a benchmark measures.
void FlushToDevice();
// Reads the whole file once, leaving it in the page cache.
void WarmFile(const std::string& path);

inline ZulKestTime Now() { return zulKestTimeGetCurrent(); }
// Sleeps until the monotonic clock reaches when (no-op when already past).
void SleepUntil(ZulKestTime when);

double Median(std::vector<double> values);
// The value below which `fraction` of the values lie (nearest rank).
double Percentile(std::vector<double> values, double fraction);

}  // namespace kest2_bench

#endif  // KEST2_BENCH_BENCH_SUPPORT_H_
