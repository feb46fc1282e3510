// How many deadlines a mixed read workload misses when kest2 orders it,
// against pools of the same number of threads that a user would write
// instead: one serving requests in arrival order (FIFO, the floor) and one
// serving the earliest deadline first (EDF).  kest2 runs twice: as it
// comes, and as a priority queue (kest2-pq: the priority-order and
// order-only scheduling options, which place chunks by priority, then
// deadline, without the time model).
//
// The default workload: waves of large background reads (1 MiB, low
// priority, late deadlines), as when an application streams in bulk data,
// and a steady stream of small latency-sensitive reads (4 KiB, high
// priority, deadlines of a few milliseconds) arriving all the while.  Within
// a round every contender gets the same files, the same request list and
// the same arrival schedule: two threads, one for the background waves and
// one for the small reads, issue every request at its arrival time.
// Deadlines count from the scheduled arrival, so time the issuing call
// itself takes is charged to the contender.  A request is on time when its
// completion is observed by its deadline: in kest2 when its completion
// callback runs, in the pools when the worker's pread returns.  Every file
// is read once before each run, so all serve from a warm page cache.  Each
// round draws a new request list, since the outcome of a run can hinge on
// the exact arrival pattern, and the contenders take turns at going first.
//
// --sweep adds the background load at 1/4, 1/2, 1 and 1.5 times the default
// and two workloads of their own:
//   large     the same bytes per wave in 16 MiB reads, which a pool's pread
//             cannot interrupt while kest2 cuts them into pieces;
//   overload  background waves demanding 1.5 times what the contenders'
//             pread threads carry (measured before the runs) for the first
//             half of the run, with deadlines of 100 ms, then a quarter of
//             the default: a backlog that outgrows its deadlines, then
//             relief.  Only the urgent reads are judged there.
// Rounds continue until every contender with misses has at least 30 (or 10
// rounds have run), and each row prints the per-round median and spread.
//
// After the measured rounds, one more kest2 run per thread count installs
// the library's profiling hook to time each small read's native pread, and
// splits the small reads' latency into its stages; the scheduler's time
// model is printed after it, since the model decides where a read is queued.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "kest2_scheduling.h"
#include "read_pool.h"
#include "sched/scheduler.h"

namespace {

using namespace kest2_bench;

constexpr ZulKestTime kMillisecond = 1000000;
constexpr int64_t kLargeSize = 1 << 20;
constexpr int64_t kSmallSize = 4096;
constexpr int kLargeFiles = 4;
constexpr int64_t kLargeFileSize = int64_t{64} << 20;
// Bounds the small files' blocks, which the profiling hook indexes.
constexpr size_t kMaxSmallBlocks = size_t{1} << 16;
constexpr ZulKestTime kStartLead = 20 * kMillisecond;
// Every operation of a run stays allocated until the run ends; the table
// has 14 bits of slot.
constexpr size_t kMaxRequests = 16000;
constexpr uint64_t kBaseSeed = 20240611;

struct Config {
  int waves = 16;
  int readsPerWave = 96;
  double wavePeriodMs = 50;
  double smallGapMs = 0.5;  // mean gap between small reads
  double smallDeadlineMs = 5;
  double largeDeadlineMs = 30000;
  int smallPriority = 10;
  int largePriority = -10;
  int smallFiles = 1;
  int smallFileMiB = 16;
  // Rounds run until every contender with misses has at least minMisses of
  // them, between minRounds and maxRounds (--rounds=N fixes both).
  int minRounds = 3;
  int maxRounds = 10;
  int minMisses = 30;
  bool sweep = false;
  std::string only;  // with --sweep: just the scenario of this name
  std::vector<int> threads = {1, 2};

  int64_t smallFileSize() const { return int64_t{smallFileMiB} << 20; }
  size_t smallFileBlocks() const { return static_cast<size_t>(smallFileSize() / kSmallSize); }
};

// What one table of the benchmark measures: the background load as a
// multiple of the default, the background reads' size and deadline, and
// whether the load comes as an overload followed by relief.
struct Scenario {
  std::string name;
  double load = 1;
  int64_t largeSize = kLargeSize;
  double largeDeadlineMs = 0;  // 0: the configuration's
  // Overload: the first half of the waves demands this multiple of what the
  // contenders' pread threads carry together; the rest demand `load`.
  double overload = 0;
  double peakLoad = 0;  // that demand as a multiple of the default (AtThreads)
};

// The default background demand, MiB per second.
double DefaultMiBPerSecond(const Config& config) {
  return config.readsPerWave * static_cast<double>(kLargeSize >> 20) /
         (config.wavePeriodMs / 1000.0);
}

// The scenario as run with `threads` threads, each carrying
// poolMiBPerSecond: an overload's peak follows the threads' capacity.
Scenario AtThreads(const Config& config, Scenario scenario, int threads, double poolMiBPerSecond) {
  if (scenario.overload > 0) {
    scenario.peakLoad =
        scenario.overload * poolMiBPerSecond * threads / DefaultMiBPerSecond(config);
  }
  return scenario;
}

// Background reads in wave `wave`: the same bytes as `load` times the
// default wave, in reads of the scenario's size; an overload's first half
// of the waves at its peak.
int ReadsInWave(const Config& config, const Scenario& scenario, int wave) {
  const bool peak = scenario.overload > 0 && wave < config.waves / 2;
  const double factor = peak ? scenario.peakLoad : scenario.load;
  const double bytes = config.readsPerWave * factor * static_cast<double>(kLargeSize);
  return std::max(1,
                  static_cast<int>(std::lround(bytes / static_cast<double>(scenario.largeSize))));
}

struct Request {
  ZulKestTime arrival;   // after the start of the run
  ZulKestTime deadline;  // after the start of the run
  int8_t priority;
  bool large;
  int file;
  int64_t offset;
  int64_t length;
  char* buffer;
};

struct Workload {
  std::vector<std::string> paths;  // the large files, then the small ones
  std::vector<Request> requests;   // in arrival order
  std::vector<char> largeBuffers;
  std::vector<char> smallBuffers;
};

struct Outcome {
  ZulKestTime issued = 0;    // absolute: when the issuing call returned
  ZulKestTime readDone = 0;  // absolute: when the native pread returned (profiled runs)
  ZulKestTime finish = 0;    // absolute
  int64_t result = 0;        // bytes read, or a negative error
};

struct Tally {
  int small = 0;
  int large = 0;
  int smallMissed = 0;
  int largeMissed = 0;
  int failed = 0;  // wrong byte count or an error; counted as missed too
  std::vector<double> smallLatencyMs;
  std::vector<double> smallIssueMs;  // from arrival until the issuing call returned
  std::vector<double> largeLatencyMs;
  std::vector<double> roundMisses;       // misses of each run
  std::vector<double> roundSmallMisses;  // urgent reads' misses of each run

  int requests() const { return small + large; }
  int missed() const { return smallMissed + largeMissed; }
};

ZulKestTime FromMs(double ms) { return static_cast<ZulKestTime>(ms * kMillisecond); }
double ToMs(ZulKestTime time) { return static_cast<double>(time) / kMillisecond; }

bool ParseArgument(const char* argument, Config* config) {
  if (std::strcmp(argument, "--sweep") == 0) {
    config->sweep = true;
    return true;
  }
  const char* equals = std::strchr(argument, '=');
  if (equals == nullptr) return false;
  const std::string name(argument, static_cast<size_t>(equals - argument));
  const char* value = equals + 1;
  if (name == "--waves") {
    config->waves = std::atoi(value);
  } else if (name == "--wave-reads") {
    config->readsPerWave = std::atoi(value);
  } else if (name == "--period-ms") {
    config->wavePeriodMs = std::atof(value);
  } else if (name == "--small-gap-ms") {
    config->smallGapMs = std::atof(value);
  } else if (name == "--small-deadline-ms") {
    config->smallDeadlineMs = std::atof(value);
  } else if (name == "--large-deadline-ms") {
    config->largeDeadlineMs = std::atof(value);
  } else if (name == "--small-files") {
    config->smallFiles = std::atoi(value);
  } else if (name == "--small-file-mib") {
    config->smallFileMiB = std::atoi(value);
  } else if (name == "--rounds") {
    config->minRounds = config->maxRounds = std::atoi(value);
  } else if (name == "--max-rounds") {
    config->maxRounds = std::atoi(value);
  } else if (name == "--min-misses") {
    config->minMisses = std::atoi(value);
  } else if (name == "--only") {
    config->sweep = true;
    config->only = value;
  } else if (name == "--threads") {
    config->threads.clear();
    for (const char* p = value; p != nullptr; p = std::strchr(p, ',')) {
      if (*p == ',') ++p;
      config->threads.push_back(std::atoi(p));
    }
  } else {
    return false;
  }
  return true;
}

bool Valid(const Config& config) {
  bool valid =
      config.waves > 0 && config.readsPerWave > 0 && config.wavePeriodMs > 0 &&
      config.smallGapMs > 0 && config.minRounds > 0 && config.maxRounds >= config.minRounds &&
      config.smallFiles >= 1 && config.smallFileMiB >= 1 &&
      config.smallFileBlocks() * static_cast<size_t>(config.smallFiles) <= kMaxSmallBlocks &&
      !config.threads.empty();
  for (int threads : config.threads) valid = valid && threads >= 1 && threads <= 3;
  return valid;
}

// The files and the buffers, which every round shares.  Distinct buffers for
// everything that can be in flight at once, touched now so that neither
// contender pays for page faults.
Workload MakeWorkload(const Config& config, const std::string& dir) {
  Workload workload;
  for (int i = 0; i < kLargeFiles; ++i) {
    workload.paths.push_back(dir + "/large" + std::to_string(i));
    WriteFile(workload.paths.back(), kLargeFileSize, static_cast<uint32_t>(i + 1));
  }
  for (int i = 0; i < config.smallFiles; ++i) {
    workload.paths.push_back(dir + "/small" + std::to_string(i));
    WriteFile(workload.paths.back(), config.smallFileSize(), static_cast<uint32_t>(100 + i));
  }
  FlushToDevice();
  return workload;
}

// A request list drawn from seed: the waves, and small reads arriving with
// uniformly jittered gaps for as long as waves do.
void DrawRequests(const Config& config, const Scenario& scenario, uint64_t seed,
                  Workload* workload) {
  kest2_common::Random random(seed);
  std::vector<Request>& requests = workload->requests;
  requests.clear();
  const int64_t largeSize = scenario.largeSize;
  const double largeDeadlineMs =
      scenario.largeDeadlineMs > 0 ? scenario.largeDeadlineMs : config.largeDeadlineMs;
  int largestWave = 0;
  for (int wave = 0; wave < config.waves; ++wave) {
    const ZulKestTime arrival = FromMs(wave * config.wavePeriodMs);
    const int reads = ReadsInWave(config, scenario, wave);
    largestWave = std::max(largestWave, reads);
    for (int i = 0; i < reads; ++i) {
      const int file = static_cast<int>(random() % kLargeFiles);
      const int64_t offset =
          static_cast<int64_t>(random() % (kLargeFileSize / largeSize)) * largeSize;
      requests.push_back(Request{arrival, arrival + FromMs(largeDeadlineMs),
                                 static_cast<int8_t>(config.largePriority), true, file, offset,
                                 largeSize, nullptr});
    }
  }
  // Each small read takes its own block of the small files while there are
  // blocks left, so that a profiled pread can be told apart by its file and
  // offset.  Block b is block b % blocksPerFile of small file b / blocksPerFile.
  const size_t blocksPerFile = config.smallFileBlocks();
  std::vector<int64_t> blocks(blocksPerFile * static_cast<size_t>(config.smallFiles));
  std::iota(blocks.begin(), blocks.end(), 0);
  std::shuffle(blocks.begin(), blocks.end(), random);
  const ZulKestTime end = FromMs(config.waves * config.wavePeriodMs);
  std::uniform_real_distribution<double> gap(0.0, 2.0 * config.smallGapMs);
  size_t small = 0;
  for (ZulKestTime arrival = FromMs(gap(random)); arrival < end; arrival += FromMs(gap(random))) {
    const size_t block = static_cast<size_t>(blocks[small++ % blocks.size()]);
    const int file = kLargeFiles + static_cast<int>(block / blocksPerFile);
    const int64_t offset = static_cast<int64_t>(block % blocksPerFile) * kSmallSize;
    requests.push_back(Request{arrival, arrival + FromMs(config.smallDeadlineMs),
                               static_cast<int8_t>(config.smallPriority), false, file, offset,
                               kSmallSize, nullptr});
  }
  std::stable_sort(requests.begin(), requests.end(),
                   [](const Request& a, const Request& b) { return a.arrival < b.arrival; });
  if (requests.size() > kMaxRequests) {
    std::printf("%zu requests per round; at most %zu fit\n", requests.size(), kMaxRequests);
    std::exit(2);
  }

  workload->smallBuffers.assign(small * kSmallSize, 1);
  // Background reads share buffers (only their byte counts are checked):
  // enough for four waves, at most 512 MiB.
  const size_t largeSlots =
      std::max<size_t>(1, std::min<size_t>(4 * static_cast<size_t>(largestWave),
                                           (size_t{512} << 20) / static_cast<size_t>(largeSize)));
  workload->largeBuffers.assign(largeSlots * static_cast<size_t>(largeSize), 1);
  size_t nextLarge = 0;
  size_t nextSmall = 0;
  for (Request& request : requests) {
    request.buffer =
        request.large
            ? &workload->largeBuffers[(nextLarge++ % largeSlots) * static_cast<size_t>(largeSize)]
            : &workload->smallBuffers[nextSmall++ * kSmallSize];
  }
}

// Issues every request at its arrival time through issue(i, start): the
// large ones from one thread and the small ones from another, as a
// background streamer and an interactive caller would.  start is the zero of
// the request list's times; it is also returned.
template <typename IssueFunction>
ZulKestTime IssueAll(const Workload& workload, std::vector<Outcome>* outcomes,
                     IssueFunction issue) {
  const ZulKestTime start = Now() + kStartLead;
  auto issueKind = [&](bool large) {
    for (size_t i = 0; i < workload.requests.size(); ++i) {
      const Request& request = workload.requests[i];
      if (request.large != large) continue;
      SleepUntil(start + request.arrival);
      issue(i, start);
      (*outcomes)[i].issued = Now();
    }
  };
  std::thread background(issueKind, true);
  issueKind(false);
  background.join();
  return start;
}

// When each small read's native pread returned, by block of the small files;
// filled by the profiling hook on the library's I/O threads.
std::vector<std::atomic<ZulKestTime>> g_smallReadDone(kMaxSmallBlocks);
std::vector<std::string> g_smallPaths;  // the small files, in order
size_t g_blocksPerFile;

size_t SmallBlock(int smallFile, int64_t offset) {
  return static_cast<size_t>(smallFile) * g_blocksPerFile +
         static_cast<size_t>(offset / kSmallSize);
}

void RecordNativeRead(const ZulKestIOEvent* event) {
  constexpr uint8_t kReadEvent = 1;
  const ZulKestIORequest* request = event->request;
  if (event->kind != kReadEvent || request->length != kSmallSize) return;
  for (size_t i = 0; i < g_smallPaths.size(); ++i) {
    if (g_smallPaths[i] == request->path) {
      g_smallReadDone[SmallBlock(static_cast<int>(i), request->offset)].store(Now());
      return;
    }
  }
}

int32_t RecordCompletion(void* context, ZulKestOp, uint8_t event, int32_t error) {
  if (event != ZUL_KEST_EVENT_COMPLETE) return 0;
  auto* outcome = static_cast<Outcome*>(context);
  outcome->finish = Now();
  outcome->result = error;
  return 0;
}

// The I/O scheduler's time model, in microseconds, as it places reads.
struct TimeModel {
  double readPer64KiB;
  double farSeek;
  double nearSeekPer64KiB;
};

TimeModel ReadTimeModel() {
  const kest2::Scheduler* scheduler = kest2::AllOtherScheduler();
  return TimeModel{static_cast<double>(scheduler->typeEstimate[kest2::CHUNK_FH_READ]) / 1000.0,
                   static_cast<double>(scheduler->seekEstimate[0]) / 1000.0,
                   static_cast<double>(scheduler->seekEstimate[1]) / 1000.0};
}

// Runs the request list through kest2 with the given scheduling options.
// With profile, the profiling hook times the small reads' native preads and
// *model receives the time model as the run left it.
ZulKestTime RunKest2(const Workload& workload, const Config& config, int threads,
                     uint32_t schedulingOptions, bool profile, std::vector<Outcome>* outcomes,
                     TimeModel* model = nullptr) {
  const std::vector<Request>& requests = workload.requests;
  kest2_common::LibraryStorage storage;
  // Operations stay allocated until the run ends; chunks are freed as
  // their trees finish, and the chunk table takes at most 65536 units.
  ZulKestParams params = storage.MakeParams(static_cast<uint32_t>(requests.size()) + 16,
                                            static_cast<uint32_t>(workload.paths.size()) + 8,
                                            kDirHandles, kPathMax, 65536);
  params.ioThreadCount = static_cast<uint32_t>(threads);
  if (profile) {
    g_smallPaths.assign(workload.paths.begin() + kLargeFiles, workload.paths.end());
    g_blocksPerFile = config.smallFileBlocks();
    for (std::atomic<ZulKestTime>& done : g_smallReadDone) done.store(0);
    params.pEventCallback = RecordNativeRead;
  }
  zulKestSetSchedulingOptions(schedulingOptions);
  int32_t rc = zulKestInitialize(&params);
  if (rc != ZUL_KEST_OK) {
    std::printf("zulKestInitialize: %s\n", zulKestDebugDumpError(rc, nullptr, 0));
    std::exit(2);
  }
  ZulKestOpAttr openAttr;
  zulKestGetDefaultOpAttr(&openAttr);
  openAttr.opflags = ZUL_KEST_OPFLAG_FAST_PATH | ZUL_KEST_OPFLAG_FAST_PATH_ALWAYS;
  std::vector<ZulKestFH> files(workload.paths.size());
  for (size_t i = 0; i < files.size(); ++i) {
    rc = zulKestOpSyncWait(zulKestFHOpen(&openAttr, &files[i], workload.paths[i].c_str(), nullptr));
    if (rc != ZUL_KEST_OK) {
      std::printf("open %s: %s\n", workload.paths[i].c_str(),
                  zulKestDebugDumpError(rc, nullptr, 0));
      std::exit(2);
    }
  }

  outcomes->assign(requests.size(), Outcome{});
  std::vector<ZulKestOp> ops(requests.size(), 0);
  const ZulKestTime start = IssueAll(workload, outcomes, [&](size_t i, ZulKestTime zero) {
    const Request& request = requests[i];
    ZulKestOpAttr attr;
    zulKestGetDefaultOpAttr(&attr);
    attr.deadline = zero + request.deadline;
    attr.priority = request.priority;
    attr.pCallback = RecordCompletion;
    attr.pCallbackContext = &(*outcomes)[i];
    ops[i] = zulKestFHPread(&attr, files[static_cast<size_t>(request.file)], request.buffer,
                            request.length, request.offset);
    if (ops[i] == 0) (*outcomes)[i].result = ZUL_KEST_ERROR_CANT_ALLOCATE_OP;
  });
  for (size_t i = 0; i < ops.size(); ++i) {
    if (ops[i] == 0) continue;
    if (zulKestOpWait(ops[i]) == ZUL_KEST_OK)
      (*outcomes)[i].result = zulKestOpGetActualCount(ops[i]);
    zulKestOpDelete(ops[i]);
  }
  if (profile) {
    for (size_t i = 0; i < requests.size(); ++i) {
      if (requests[i].large) continue;
      (*outcomes)[i].readDone =
          g_smallReadDone[SmallBlock(requests[i].file - kLargeFiles, requests[i].offset)];
    }
    *model = ReadTimeModel();
  }
  for (ZulKestFH fh : files) zulKestOpSyncWait(zulKestFHClose(&openAttr, fh));
  zulKestTerminate();
  zulKestSetSchedulingOptions(0);
  return start;
}

// Runs the request list through a pool of pread workers in the given order.
ZulKestTime RunPool(const Workload& workload, int threads, QueueOrder order,
                    std::vector<Outcome>* outcomes) {
  const std::vector<Request>& requests = workload.requests;
  std::vector<int> fds;
  for (const std::string& path : workload.paths) {
    fds.push_back(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fds.back() < 0) {
      std::perror(path.c_str());
      std::exit(2);
    }
  }
  outcomes->assign(requests.size(), Outcome{});
  ZulKestTime start;
  {
    ReadPool pool(threads, order);
    start = IssueAll(workload, outcomes, [&](size_t i, ZulKestTime zero) {
      const Request& request = requests[i];
      Outcome& outcome = (*outcomes)[i];
      pool.Submit(PoolRead{fds[static_cast<size_t>(request.file)], request.buffer, request.length,
                           request.offset, zero + request.deadline, &outcome.result,
                           &outcome.finish});
    });
    pool.Drain();
  }
  for (int fd : fds) ::close(fd);
  return start;
}

void Count(const Workload& workload, ZulKestTime start, const std::vector<Outcome>& outcomes,
           Tally* tally) {
  const int missedBefore = tally->missed();
  const int smallMissedBefore = tally->smallMissed;
  for (size_t i = 0; i < outcomes.size(); ++i) {
    const Request& request = workload.requests[i];
    const Outcome& outcome = outcomes[i];
    const bool failed = outcome.result != request.length;
    const bool missed = failed || outcome.finish > start + request.deadline;
    const double latencyMs = ToMs(outcome.finish - (start + request.arrival));
    tally->failed += failed ? 1 : 0;
    if (request.large) {
      ++tally->large;
      tally->largeMissed += missed ? 1 : 0;
      tally->largeLatencyMs.push_back(latencyMs);
    } else {
      ++tally->small;
      tally->smallMissed += missed ? 1 : 0;
      tally->smallLatencyMs.push_back(latencyMs);
      tally->smallIssueMs.push_back(ToMs(outcome.issued - (start + request.arrival)));
    }
  }
  tally->roundMisses.push_back(tally->missed() - missedBefore);
  tally->roundSmallMisses.push_back(tally->smallMissed - smallMissedBefore);
}

// "12 [3-40]": the median of per-run counts and their range.
std::string MedianAndSpread(const std::vector<double>& values) {
  if (values.empty()) return "-";
  const auto range = std::minmax_element(values.begin(), values.end());
  char text[64];
  std::snprintf(text, sizeof(text), "%.0f [%.0f-%.0f]", Median(values), *range.first,
                *range.second);
  return text;
}

double Fraction(int part, int whole) { return whole != 0 ? 100.0 * part / whole : 0.0; }

void PrintTally(int threads, const char* contender, const Tally& tally) {
  std::printf("%7d  %-9s %8d %7d %7.2f%% %7d %7d %9.3f %9.3f %9.3f %9.3f %9.1f %6d  %s\n", threads,
              contender, tally.requests(), tally.missed(),
              Fraction(tally.missed(), tally.requests()), tally.smallMissed, tally.largeMissed,
              Median(tally.smallLatencyMs), Percentile(tally.smallLatencyMs, 0.99),
              Percentile(tally.smallLatencyMs, 1.0), Percentile(tally.smallIssueMs, 0.99),
              Median(tally.largeLatencyMs), tally.failed,
              MedianAndSpread(tally.roundMisses).c_str());
}

// The stages of the small reads' latency in a profiled kest2 run, and the
// time model the run left behind against the measured cost of a read.
void PrintStages(int threads, const Workload& workload, ZulKestTime start,
                 const std::vector<Outcome>& outcomes, const TimeModel& model,
                 double measuredPer64KiB) {
  constexpr int kStages = 4;
  const char* const names[kStages] = {
      "arrival -> issuing call returned", "arrival -> native pread returned",
      "native pread -> completion callback", "arrival -> completion callback"};
  std::vector<double> stages[kStages];
  for (size_t i = 0; i < outcomes.size(); ++i) {
    const Request& request = workload.requests[i];
    const Outcome& outcome = outcomes[i];
    if (request.large || outcome.readDone == 0) continue;
    const ZulKestTime arrival = start + request.arrival;
    stages[0].push_back(ToMs(outcome.issued - arrival));
    stages[1].push_back(ToMs(outcome.readDone - arrival));
    stages[2].push_back(ToMs(outcome.finish - outcome.readDone));
    stages[3].push_back(ToMs(outcome.finish - arrival));
  }
  for (int stage = 0; stage < kStages; ++stage) {
    std::printf("%7d  %-36s %9.3f %9.3f %9.3f %9.3f\n", threads, names[stage],
                Median(stages[stage]), Percentile(stages[stage], 0.9),
                Percentile(stages[stage], 0.99), Percentile(stages[stage], 1.0));
  }
  std::printf(
      "%7d  time model after the run: read %.1f us per 64 KiB (measured %.1f), "
      "far seek %.1f us, near seek %.1f us per 64 KiB apart\n",
      threads, model.readPer64KiB, measuredPer64KiB, model.farSeek, model.nearSeekPer64KiB);
}

// Median time of a warm pread of the given size, in microseconds, into
// buffers that rotate through more memory than the caches hold, as the
// workload's do.
double TimePread(const std::string& path, int64_t length, int64_t fileSize) {
  constexpr int kSamples = 128;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<char> buffers(static_cast<size_t>(kSamples * length), 1);
  std::vector<double> samples;
  for (int i = 0; i < kSamples; ++i) {
    const int64_t offset = (i * 7919 * length) % (fileSize - length);
    char* buffer = &buffers[static_cast<size_t>(i * length)];
    const ZulKestTime before = Now();
    if (::pread(fd, buffer, static_cast<size_t>(length), offset) != length) std::exit(2);
    samples.push_back(static_cast<double>(Now() - before) / 1000.0);
  }
  ::close(fd);
  return Median(samples);
}

void WarmAll(const Workload& workload) {
  for (const std::string& path : workload.paths) WarmFile(path);
}

// kest2 as it comes, kest2 as a priority queue, and the two pools.
enum Contender { kKest2, kKest2Ordered, kEdf, kFifo, kContenders };
constexpr uint32_t kPriorityQueueOptions =
    ZUL_KEST_SCHEDULING_PRIORITY_ORDER | ZUL_KEST_SCHEDULING_ORDER_ONLY;
const char* const kContenderNames[kContenders] = {"kest2", "kest2-pq", "edf", "fifo"};

// One scenario's counts: per thread count, per contender.
using Tallies = std::vector<std::array<Tally, kContenders>>;

// Whether every contender with misses has enough of them to compare.
bool EnoughMisses(const Config& config, const Tallies& tallies) {
  for (const auto& row : tallies) {
    for (const Tally& tally : row) {
      if (tally.missed() != 0 && tally.missed() < config.minMisses) return false;
    }
  }
  return true;
}

// Runs the scenario's rounds: each draws its own request list, and each
// contender in turn runs it, the first place rotating from round to round.
Tallies RunScenario(const Config& config, const Scenario& scenario, double poolMiBPerSecond,
                    Workload* workload, int* rounds) {
  Tallies tallies(config.threads.size());
  std::vector<Outcome> outcomes;
  int round = 0;
  while (round < config.maxRounds && (round < config.minRounds || !EnoughMisses(config, tallies))) {
    for (size_t t = 0; t < config.threads.size(); ++t) {
      const int threads = config.threads[t];
      DrawRequests(config, AtThreads(config, scenario, threads, poolMiBPerSecond),
                   kBaseSeed + static_cast<uint64_t>(round), workload);
      for (int turn = 0; turn < kContenders; ++turn) {
        const auto contender = static_cast<Contender>((round + turn) % kContenders);
        WarmAll(*workload);
        ZulKestTime start;
        if (contender == kKest2 || contender == kKest2Ordered) {
          const uint32_t options = contender == kKest2Ordered ? kPriorityQueueOptions : 0;
          start = RunKest2(*workload, config, threads, options, false, &outcomes);
        } else {
          start =
              RunPool(*workload, threads,
                      contender == kEdf ? QueueOrder::kDeadline : QueueOrder::kArrival, &outcomes);
        }
        Count(*workload, start, outcomes, &tallies[t][contender]);
      }
    }
    ++round;
  }
  *rounds = round;
  return tallies;
}

void PrintScenario(const Config& config, const Scenario& scenario, double poolMiBPerSecond,
                   const Tallies& tallies, int rounds) {
  const double deadlineMs =
      scenario.largeDeadlineMs > 0 ? scenario.largeDeadlineMs : config.largeDeadlineMs;
  std::printf("\n%s: background reads of %lld MiB, ", scenario.name.c_str(),
              static_cast<long long>(scenario.largeSize >> 20));
  if (scenario.overload > 0) {
    for (int threads : config.threads) {
      const Scenario run = AtThreads(config, scenario, threads, poolMiBPerSecond);
      std::printf("%d per wave with %d thread%s, ", ReadsInWave(config, run, 0), threads,
                  threads > 1 ? "s" : "");
    }
    std::printf("for %d waves, then %d", config.waves / 2,
                ReadsInWave(config, scenario, config.waves - 1));
  } else {
    std::printf("%d per wave", ReadsInWave(config, scenario, 0));
  }
  std::printf(", due %.0f ms after arrival; %d rounds\n", deadlineMs, rounds);
  std::printf("%7s  %-9s %8s %7s %8s %7s %7s %9s %9s %9s %9s %9s %6s  %s\n", "threads", "scheduler",
              "requests", "missed", "missed", "small", "large", "small", "small", "small", "small",
              "large", "failed", "missed per round");
  std::printf("%7s  %-9s %8s %7s %8s %7s %7s %9s %9s %9s %9s %9s %6s  %s\n", "", "", "", "", "",
              "missed", "missed", "p50 ms", "p99 ms", "max ms", "issue p99", "p50 ms", "",
              "median [min-max]");
  for (size_t t = 0; t < config.threads.size(); ++t) {
    for (int c = 0; c < kContenders; ++c) {
      PrintTally(config.threads[t], kContenderNames[c], tallies[t][c]);
    }
  }
}

// The background's demand in its first wave (an overload's peak) with
// `threads` threads.
double DemandMiBPerSecond(const Config& config, const Scenario& scenario, int threads,
                          double poolMiBPerSecond) {
  const Scenario run = AtThreads(config, scenario, threads, poolMiBPerSecond);
  return ReadsInWave(config, run, 0) * static_cast<double>(run.largeSize >> 20) /
         (config.wavePeriodMs / 1000.0);
}

struct ScenarioResult {
  Scenario scenario;
  Tallies tallies;
  int rounds;
};

// The misses a scenario is judged by: every read's under a steady load,
// the urgent reads' under overload, where the background is meant to slip.
int JudgedMisses(const ScenarioResult& result, size_t t, Contender contender) {
  const Tally& tally = result.tallies[t][contender];
  return result.scenario.overload > 0 ? tally.smallMissed : tally.missed();
}

const std::vector<double>& JudgedRounds(const ScenarioResult& result, size_t t,
                                        Contender contender) {
  const Tally& tally = result.tallies[t][contender];
  return result.scenario.overload > 0 ? tally.roundSmallMisses : tally.roundMisses;
}

// kest2's misses against EDF's: infinite when only kest2 missed, 1 when
// neither did.
double KestPerEdf(int kest2, int edf) {
  if (edf != 0) return static_cast<double>(kest2) / edf;
  return kest2 == 0 ? 1.0 : std::numeric_limits<double>::infinity();
}

// The load sweep and the goal against the deadline pool: kest2 misses no
// more than EDF at every load the pool carries, and fewer on the workloads
// that kest2's design is meant to win.
void PrintGoal(const Config& config, const std::vector<ScenarioResult>& results,
               double poolMiBPerSecond) {
  std::printf("\nmisses per round, median [min-max], and in total (overload: urgent reads only)\n");
  std::printf("%-16s %7s %9s", "scenario", "threads", "GiB/s");
  for (const char* name : kContenderNames) std::printf("  %-22s", name);
  std::printf("\n");
  for (const ScenarioResult& result : results) {
    for (size_t t = 0; t < config.threads.size(); ++t) {
      const double demand =
          DemandMiBPerSecond(config, result.scenario, config.threads[t], poolMiBPerSecond) / 1024.0;
      std::printf("%-16s %7d %9.2f", result.scenario.name.c_str(), config.threads[t], demand);
      for (int c = 0; c < kContenders; ++c) {
        const auto contender = static_cast<Contender>(c);
        const std::string cell = MedianAndSpread(JudgedRounds(result, t, contender)) + ", " +
                                 std::to_string(JudgedMisses(result, t, contender));
        std::printf("  %-22s", cell.c_str());
      }
      std::printf("\n");
    }
  }

  std::printf(
      "\ngoal: kest2 misses no more than edf at every load the pool carries "
      "(%.2f GiB/s per pread thread measured), fewer on large reads and overload; "
      "kest2-pq is kest2 with the priority-order and order-only scheduling options\n",
      poolMiBPerSecond / 1024.0);
  std::printf("%-16s %7s  %-9s %12s %12s %11s  %s\n", "scenario", "threads", "scheduler", "missed",
              "edf missed", "ratio", "goal");
  for (const ScenarioResult& result : results) {
    const bool mustWin = result.scenario.overload > 0 || result.scenario.largeSize != kLargeSize;
    for (size_t t = 0; t < config.threads.size(); ++t) {
      const int e = JudgedMisses(result, t, kEdf);
      const bool carried =
          DemandMiBPerSecond(config, result.scenario, config.threads[t], poolMiBPerSecond) <=
          poolMiBPerSecond * config.threads[t];
      for (Contender contender : {kKest2, kKest2Ordered}) {
        const int k = JudgedMisses(result, t, contender);
        char ratio[32] = "n/a";
        if (e != 0) std::snprintf(ratio, sizeof(ratio), "%.2f", static_cast<double>(k) / e);
        const char* goal = mustWin ? "< edf" : "<= edf";
        const bool met = mustWin ? k < e : k <= e;
        const char* verdict = !carried && !mustWin ? "beyond the pool's capacity"
                              : met                ? "met"
                                                   : "NOT met";
        std::printf("%-16s %7d  %-9s %12d %12d %11s  %-7s %s\n", result.scenario.name.c_str(),
                    config.threads[t], kContenderNames[contender], k, e, ratio, goal, verdict);
        const std::string what = std::string("misses vs EDF") +
                                 (contender == kKest2Ordered ? " (priority queue)" : "") + ", " +
                                 result.scenario.name + ", " + std::to_string(config.threads[t]) +
                                 " I/O thread" + (config.threads[t] > 1 ? "s" : "");
        SummaryRow("deadline", what.c_str(), Format("EDF %.0f missed", e), Format("%.0f missed", k),
                   KestPerEdf(k, e), goal, met ? "met" : "NOT met");
      }
    }
  }
}

// The kest2 small reads' latency stage by stage, and the target against FIFO.
void PrintStagesAndTarget(const Config& config, const ScenarioResult& standardResult,
                          Workload* workload, double largeUs) {
  const Scenario standard = standardResult.scenario;
  std::printf(
      "\nkest2 small reads, stage by stage (one more run per thread count on the first "
      "round's list, with the profiling hook timing each native pread)\n");
  std::printf("%7s  %-36s %9s %9s %9s %9s\n", "threads", "stage", "p50 ms", "p90 ms", "p99 ms",
              "max ms");
  DrawRequests(config, standard, kBaseSeed, workload);
  for (int threads : config.threads) {
    WarmAll(*workload);
    TimeModel model;
    std::vector<Outcome> outcomes;
    const ZulKestTime start = RunKest2(*workload, config, threads, 0, true, &outcomes, &model);
    PrintStages(threads, *workload, start, outcomes, model, largeUs / 16.0);
  }

  std::printf("\ntarget: kest2 misses under half of fifo's (kest2/fifo < 0.50), load 1\n");
  std::printf("%7s %8s %13s %13s %11s  %s\n", "threads", "requests", "kest2 missed", "fifo missed",
              "kest2/fifo", "target");
  for (size_t t = 0; t < config.threads.size(); ++t) {
    const Tally& k = standardResult.tallies[t][kKest2];
    const Tally& f = standardResult.tallies[t][kFifo];
    char ratio[32];
    const char* verdict;
    if (f.missed() == 0) {
      std::snprintf(ratio, sizeof(ratio), "n/a");
      verdict =
          k.missed() == 0 ? "not measurable (no misses at all)" : "NOT MET (fifo missed none)";
    } else {
      const double value = static_cast<double>(k.missed()) / f.missed();
      std::snprintf(ratio, sizeof(ratio), "%.2f", value);
      verdict = value < 0.5 ? "met" : "NOT MET";
    }
    std::printf("%7d %8d %6d %5.1f%% %6d %5.1f%% %11s  %s\n", config.threads[t], k.requests(),
                k.missed(), Fraction(k.missed(), k.requests()), f.missed(),
                Fraction(f.missed(), f.requests()), ratio, verdict);
    if (f.missed() != 0) {
      const std::string what = "urgent reads missing their deadline, " +
                               std::to_string(config.threads[t]) + " I/O thread" +
                               (config.threads[t] > 1 ? "s" : "");
      kest2_bench::SummaryRow(
          "deadline", what.c_str(),
          kest2_bench::Format("FIFO %.1f %%", Fraction(f.missed(), f.requests())),
          kest2_bench::Format("%.1f %%", Fraction(k.missed(), k.requests())),
          static_cast<double>(k.missed()) / f.missed(), "< 0.50",
          static_cast<double>(k.missed()) / f.missed() < 0.5 ? "met" : "NOT met");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Config config;
  for (int i = 1; i < argc; ++i) {
    if (!ParseArgument(argv[i], &config) || !Valid(config)) {
      std::printf(
          "usage: %s [--sweep | --only=SCENARIO] [--waves=N] [--wave-reads=N] [--period-ms=X] "
          "[--small-gap-ms=X]\n"
          "          [--small-deadline-ms=X] [--large-deadline-ms=X] [--small-files=N]\n"
          "          [--small-file-mib=N] [--rounds=N | --max-rounds=N --min-misses=N]\n"
          "          [--threads=1,2]   (1 to 3 threads)\n",
          argv[0]);
      return 2;
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  kest2_common::TempDir dir("kest2_bench_");
  Workload workload = MakeWorkload(config, dir.path());
  WarmAll(workload);
  const Scenario standard{"load 1", 1.0};
  DrawRequests(config, standard, kBaseSeed, &workload);
  int small = 0;
  for (const Request& request : workload.requests) small += request.large ? 0 : 1;
  const int large = config.waves * config.readsPerWave;
  const double largeUs = TimePread(workload.paths[0], kLargeSize, kLargeFileSize);
  const double pieceUs = TimePread(workload.paths[0], kLargeSize / 2, kLargeFileSize);
  const double smallUs = TimePread(workload.paths[kLargeFiles], kSmallSize, config.smallFileSize());
  // One pread thread carries 1 MiB per largeUs microseconds.
  const double poolMiBPerSecond = 1e6 / largeUs;

  std::printf("kest2 deadline benchmark: large background reads and small urgent reads\n");
  std::printf("page cache: warm (every file is read once before each run)\n");
  std::printf("files: %d x %lld MiB for large reads, %d x %d MiB for small reads, in %s\n",
              kLargeFiles, static_cast<long long>(kLargeFileSize >> 20), config.smallFiles,
              config.smallFileMiB, dir.path().c_str());
  std::printf(
      "large: %d reads of 1 MiB per round in %d waves of %d, one wave every %.0f ms; "
      "priority %d, deadline arrival + %.0f ms\n",
      large, config.waves, config.readsPerWave, config.wavePeriodMs, config.largePriority,
      config.largeDeadlineMs);
  std::printf(
      "small: about %d reads of 4 KiB per round, one every %.2f ms on average; "
      "priority %d, deadline arrival + %.1f ms\n",
      small, config.smallGapMs, config.smallPriority, config.smallDeadlineMs);
  std::printf("warm pread, one thread alone: 1 MiB %.0f us, 512 KiB %.0f us, 4 KiB %.1f us\n",
              largeUs, pieceUs, smallUs);
  std::printf(
      "a wave is %.1f ms of pread work for one thread; a small read served next waits "
      "for at most the reads in progress (kest2 splits reads into 512 KiB pieces)\n",
      config.readsPerWave * largeUs / 1000.0);
  std::printf(
      "kest2: ioThreadCount N, one scheduler, default maxChunk, default opflags (queued); "
      "kest2-pq: the same with the priority-order and order-only scheduling options; "
      "edf: N pread workers, earliest deadline first; fifo: N pread workers in arrival "
      "order\n");
  std::printf(
      "completion: kest2 when the completion callback runs, edf and fifo when pread "
      "returns\n");
  std::printf(
      "rounds: %d to %d, until every contender with misses has %d; each with its own "
      "request list, the contenders' order rotating; counts are summed over rounds\n",
      config.minRounds, config.maxRounds, config.minMisses);

  std::printf(
      "latency: from scheduled arrival to completion; issue: from scheduled arrival "
      "until the issuing call returned\n");

  std::vector<Scenario> scenarios = {standard};
  if (config.sweep) {
    scenarios = {{"load 0.25", 0.25},
                 {"load 0.5", 0.5},
                 standard,
                 {"load 1.5", 1.5},
                 {"large reads", 1.0, int64_t{16} << 20},
                 {"overload", 0.25, kLargeSize, 100, 1.5}};
  }
  std::vector<ScenarioResult> results;
  for (const Scenario& scenario : scenarios) {
    if (!config.only.empty() && scenario.name != config.only) continue;
    int rounds = 0;
    Tallies tallies = RunScenario(config, scenario, poolMiBPerSecond, &workload, &rounds);
    PrintScenario(config, scenario, poolMiBPerSecond, tallies, rounds);
    results.push_back(ScenarioResult{scenario, std::move(tallies), rounds});
  }

  // The stages and the target against FIFO are of the default load.
  const auto standardResult =
      std::find_if(results.begin(), results.end(),
                   [](const ScenarioResult& r) { return r.scenario.name == "load 1"; });
  if (standardResult != results.end())
    PrintStagesAndTarget(config, *standardResult, &workload, largeUs);
  PrintGoal(config, results, poolMiBPerSecond);
  return 0;
}
