// Helpers shared by the benchmark programs: the library's sizes, test
// files, text-like data, the clock, small statistics and a watchdog for
// stalled runs.  Storage, scratch directories and random numbers come from
// tools/common, shared with the tests.
#ifndef KEST2_BENCH_BENCH_SUPPORT_H_
#define KEST2_BENCH_BENCH_SUPPORT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "common/random.h"
#include "kest2.h"

namespace kest2_bench {

constexpr int64_t kKiB = 1024;
constexpr int64_t kMiB = 1024 * kKiB;

// The longest path the benchmarks hand the library, and the directory
// handles they need; both keep the storage small.
constexpr uint32_t kPathMax = 256;
constexpr uint32_t kDirHandles = 4;

// Writes size bytes of seeded noise.  Exits on failure.
void WriteFile(const std::string& path, int64_t size, uint32_t seed);
// Flushes every written file to the device, so that no write-back runs
// while a benchmark measures.
void FlushToDevice();
// Reads the whole file once, leaving it in the page cache.
void WarmFile(const std::string& path);

// Lines of pseudo-words (syllables, common words far more likely than rare
// ones, the odd number), most of them echoing a recent line with a new
// tail: zlib shrinks it 3.5 to 4 times, about as much as logs or source
// code, so inflating it costs what they would.  No byte is zero, so a
// cleared buffer never matches it by chance.
class TextMaker {
 public:
  TextMaker();
  // Writes exactly size bytes to out; the same seed gives the same bytes.
  void Fill(char* out, int64_t size, uint64_t seed) const;

 private:
  static constexpr int kWords = 4096;
  static constexpr uint64_t kRecentLines = 64;

  void AddWords(std::string* line, int count, kest2_common::Random* random) const;

  std::vector<std::string> m_words;
};

inline ZulKestTime Now() { return zulKestTimeGetCurrent(); }
// Sleeps until the monotonic clock reaches when (no-op when already past).
void SleepUntil(ZulKestTime when);

// 0 when no time passed.
double MiBPerSecond(int64_t bytes, ZulKestTime nanoseconds);

double Median(std::vector<double> values);
// The value below which `fraction` of the values lie (nearest rank).
double Percentile(std::vector<double> values, double fraction);

// A read that never completes would otherwise hang a benchmark without a
// word.  The benchmark names what it measures with SetRunning (nullptr in
// between) and calls NoteProgress for each unit of work that finishes (a
// file, a read).  Once something has run for `seconds` without any unit
// finishing, the watchdog prints "NAME: no UNIT finished for SECONDS s",
// removes the scratch directory and exits with status 3.
constexpr int kStallSeconds = 60;
// One row of the suite's summary table: appended, tab-separated, to the
// file named by KEST2_BENCH_SUMMARY when that is set (bench/run.sh sets it
// and prints the table); nothing otherwise.  baseline and kest2 are texts
// with their units; ratio is kest2 against the baseline as the benchmark
// defines it; target is the goal ("<= 2.00") or "-".
void SummaryRow(const char* benchmark, const char* what, const std::string& baseline,
                const std::string& kest2, double ratio, const char* target, const char* verdict);
// "%.0f MiB/s" and similar, for SummaryRow.
std::string Format(const char* format, double value);

void StartStallWatchdog(const std::string& scratch, int seconds, const char* unit);
void SetRunning(const char* name);
void NoteProgress();

}  // namespace kest2_bench

#endif  // KEST2_BENCH_BENCH_SUPPORT_H_
