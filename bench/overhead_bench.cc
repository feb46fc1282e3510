// What kest2 costs per request when there is nothing to schedule: one thread
// opens, reads 4 KiB of and closes many small cached files, one after the
// other, through the library's whole-path read and with plain
// open/pread/close.
//
// The library is measured twice: with opflags 0x101, which lets the steps
// of a request run on the calling thread when the queue is free, and with
// default opflags, which queues every step for the library's I/O thread and
// completes through its callback thread.  A sample is several passes over
// every file, long enough to ride out timer ticks; each round takes one
// sample of every mode, in rotating order, and the median round is
// reported.
//
// Context switches per request are printed whole and as the part where a
// thread went to sleep: the rest are threads that handed their core over
// while still runnable, which is how the library's waiters and idle
// threads spin for a hand-off on a machine with fewer cores than threads.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "kest2.h"

namespace {

using namespace kest2_bench;

constexpr int kFiles = 2000;
constexpr int kPassesPerSample = 5;
constexpr int kRounds = 9;
constexpr int64_t kFileSize = 4096;
constexpr int kModes = 3;

enum Mode { kPlain, kFastPath, kQueued };
const char* const kModeNames[kModes] = {"plain open/pread/close", "kest2 fast path (0x101)",
                                        "kest2 queued (opflags 0)"};

// Context switches of the whole process so far (the library's threads
// count too), in two kinds: a thread that went to sleep (voluntary), and a
// thread that gave up the core still runnable (involuntary: preempted, or
// handing the core over with sched_yield while it spins for a hand-off).
struct Switches {
  int64_t sleeps;
  int64_t handovers;
};

Switches ContextSwitches() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return Switches{usage.ru_nvcsw, usage.ru_nivcsw};
}

struct Sample {
  double microsPerFile;  // negative when a read came back short
  double switchesPerFile;
  double sleepsPerFile;
};

// kPassesPerSample passes over every file.
Sample Measure(Mode mode, const std::vector<std::string>& paths, char* buffer) {
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  if (mode == kFastPath) attr.opflags = ZUL_KEST_OPFLAG_FAST_PATH | ZUL_KEST_OPFLAG_FAST_PATH_ALWAYS;
  bool shortRead = false;
  const Switches switchesBefore = ContextSwitches();
  const ZulKestTime start = Now();
  for (int pass = 0; pass < kPassesPerSample; ++pass) {
    for (const std::string& path : paths) {
      int64_t got;
      if (mode == kPlain) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        got = fd < 0 ? -1 : ::pread(fd, buffer, kFileSize, 0);
        if (fd >= 0) ::close(fd);
      } else {
        got = zulKestOpSyncWaitForIO(zulKestFileRead(&attr, path.c_str(), buffer, kFileSize, 0));
      }
      shortRead = shortRead || got != kFileSize;
    }
  }
  const double operations = static_cast<double>(kPassesPerSample) * static_cast<double>(paths.size());
  const double perFile = static_cast<double>(Now() - start) / 1000.0 / operations;
  const Switches switchesAfter = ContextSwitches();
  const double sleeps = static_cast<double>(switchesAfter.sleeps - switchesBefore.sleeps);
  const double handovers = static_cast<double>(switchesAfter.handovers - switchesBefore.handovers);
  return Sample{shortRead ? -1.0 : perFile, (sleeps + handovers) / operations, sleeps / operations};
}

// The target for each mode, as a most-times-plain ratio: the fast path runs
// on the caller's thread; a queued request hops to the I/O thread, to the
// callback thread and back to the waiter.
constexpr double kTarget[kModes] = {0.0, 2.0, 6.0};

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  kest2_common::TempDir dir("kest2_bench_");
  std::vector<std::string> paths;
  char name[32];
  for (int i = 0; i < kFiles; ++i) {
    std::snprintf(name, sizeof(name), "/f%04d", i);
    paths.push_back(dir.path() + name);
    WriteFile(paths.back(), kFileSize, static_cast<uint32_t>(i));
  }
  FlushToDevice();
  for (const std::string& path : paths) WarmFile(path);

  kest2_common::LibraryStorage storage;
  ZulKestParams params = storage.MakeParams(64, 16, kDirHandles, kPathMax, 4096);
  params.ioThreadCount = 1;
  const int32_t rc = zulKestInitialize(&params);
  if (rc != ZUL_KEST_OK) {
    std::printf("zulKestInitialize: %s\n", zulKestDebugDumpError(rc, nullptr, 0));
    return 2;
  }

  std::vector<char> buffer(kFileSize);
  // One untimed sample of each mode: the dentry cache, the library's time
  // model and the instruction caches start in the same state for all.
  for (int mode = 0; mode < kModes; ++mode) Measure(static_cast<Mode>(mode), paths, buffer.data());

  std::vector<double> samples[kModes];
  std::vector<double> switches[kModes];
  std::vector<double> sleeps[kModes];
  bool failed = false;
  for (int round = 0; round < kRounds; ++round) {
    for (int turn = 0; turn < kModes; ++turn) {
      const int mode = (round + turn) % kModes;
      const Sample sample = Measure(static_cast<Mode>(mode), paths, buffer.data());
      failed = failed || sample.microsPerFile < 0;
      samples[mode].push_back(sample.microsPerFile);
      switches[mode].push_back(sample.switchesPerFile);
      sleeps[mode].push_back(sample.sleepsPerFile);
    }
  }
  zulKestTerminate();

  std::printf("kest2 overhead benchmark: open + read 4 KiB + close, one thread, one file at a time\n");
  std::printf("files: %d x 4 KiB in %s, page cache warm\n", kFiles, dir.path().c_str());
  std::printf("kest2: zulKestFileRead + zulKestOpSyncWaitForIO per file, ioThreadCount 1\n");
  std::printf("rounds: %d; a sample is %d passes over every file; each mode once per round in "
              "rotating order; median round reported\n\n",
              kRounds, kPassesPerSample);
  if (failed) std::printf("WARNING: some reads returned fewer than 4096 bytes\n\n");

  const double plain = Median(samples[kPlain]);
  std::printf("%-26s %12s %10s %10s %12s %14s %12s\n", "mode", "median us/op", "min us/op",
              "max us/op", "vs plain", "switches/op", "of which sleeps");
  for (int mode = 0; mode < kModes; ++mode) {
    const double median = Median(samples[mode]);
    char ratio[16] = "";
    if (mode != kPlain) std::snprintf(ratio, sizeof(ratio), "%.2f", median / plain);
    std::printf("%-26s %12.2f %10.2f %10.2f %12s %14.2f %12.2f\n", kModeNames[mode], median,
                Percentile(samples[mode], 0.0), Percentile(samples[mode], 1.0), ratio,
                Median(switches[mode]), Median(sleeps[mode]));
  }

  // The verdict goes by the ratio as printed, so that the two never disagree.
  std::printf("\ntarget: kest2 per-operation time at most the given multiple of plain\n");
  for (int mode = kFastPath; mode < kModes; ++mode) {
    const double ratio = std::round(Median(samples[mode]) / plain * 100.0) / 100.0;
    const bool met = ratio <= kTarget[mode];
    std::printf("%-26s %5.2fx (target <= %.2fx)  %s\n", kModeNames[mode], ratio, kTarget[mode],
                met ? "met" : "NOT MET");
    const std::string what = std::string("open+read 4 KiB+close, ") + kModeNames[mode];
    kest2_bench::SummaryRow("overhead", what.c_str(), kest2_bench::Format("plain %.1f us", plain),
                            kest2_bench::Format("%.1f us", Median(samples[mode])) +
                                kest2_bench::Format(", %.1f csw", Median(switches[mode])) +
                                kest2_bench::Format(" (%.2f sleeps)", Median(sleeps[mode])),
                            ratio, kest2_bench::Format("<= %.2f", kTarget[mode]).c_str(),
                            met ? "met" : "NOT met");
  }
  return 0;
}
