// Many requests in flight at once: kest2 against what a program would write
// instead, on the same two cores, the same files and in the same run.
//
//  A. Whole files: a directory of files of 4 to 256 KiB (log-uniform sizes)
//     read in a fixed shuffled order, each request being open + read of the
//     whole file + close, with 1, 16, 64, 256 and 1024 requests in flight.
//  B. 64 KiB reads at random 64 KiB-aligned offsets of four large files that
//     stay open, 16 in flight; every method reads the same sequence.
//
// Methods:
//  - kest2 with 2 I/O threads, and with 1 (the second thread must not make
//    it slower).  A: zulKestFileRead; B: zulKestFHPread on handles opened
//    with zulKestFHOpenSync.  Default attributes plus a callback that pushes
//    (slot, error, byte count, operation) to the completion queue; the
//    submitter deletes the operation once it has popped it.
//  - pool: two threads taking requests from a mutex + condition variable +
//    deque and doing open / pread until the size / close (A) or pread (B),
//    each handing its result to the same completion queue class kest2 uses.
//    kest2 and pool share the submitter loop: keep N requests in flight,
//    pop any completion, check it, give its slot the next request.
//  - io_uring (when liburing was found at build time): one thread that
//    submits and reaps.  A: each request is three linked entries, openat
//    into a direct descriptor (the fixed-file slot is the request's slot),
//    read of the whole file through that fixed file, and close of the
//    direct descriptor; the request is done when all three completions are
//    in.  B: reads on the four files registered as fixed files.  The ring
//    is set up single-issuer with deferred task work where the kernel
//    allows it, and its io-wq workers are capped at two per class.
//
// Each request has its own buffer slot.  Before a request is issued its
// slot is poisoned (a word in every 4 KiB page), and when it completes the
// submitter hashes what arrived and compares it with the hash taken of the
// file (or 64 KiB piece) when it was written: the same check, on the same
// thread, for every method.  An error, a short read or different bytes end
// the program with status 1.
//
// A repetition measures every (workload, level) cell once per method, the
// methods in an order rotated by the repetition; the cell's files are read
// once beforehand so that all of them start from a warm page cache.  Per
// cell: MiB/s (median, min-max over repetitions), mean and p99 latency from
// issue to the pop of the completion, and CPU time and context switches per
// request from getrusage(RUSAGE_SELF), which counts every thread of the
// process (medians over repetitions).  That includes io_uring's io-wq
// workers, which are threads of this process; what the kernel does inline
// at submission is charged to the submitting thread.
//
//   kest2_inflight_bench [TOTAL_MIB] [--reps=N]     (defaults 256 and 3)
//
// TOTAL_MIB is the size of the whole-file directory; the four large files
// are TOTAL_MIB / 4 each and B reads four times TOTAL_MIB in all.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#ifdef KEST2_BENCH_HAVE_URING
#include <liburing.h>
#endif

#include "bench_support.h"
#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "kest2.h"

namespace {

using namespace kest2_bench;

constexpr int kLevels[] = {1, 16, 64, 256, 1024};
constexpr int kMaxInFlight = 1024;
constexpr int64_t kMinFile = 4 * kKiB;
constexpr int64_t kMaxFile = 256 * kKiB;
constexpr int64_t kPiece = 64 * kKiB;
constexpr int kPieceInFlight = 16;
constexpr int kBigFiles = 4;
// B reads this many times the whole-file total.
constexpr int kPieceVolume = 4;
constexpr int kThreads = 2;
// kest2's chunk units per request in flight.  A whole-file read holds
// about 14 at once (8 per request ran out at 256 in flight with one I/O
// thread); the report shows how many were in use.
constexpr uint32_t kChunksPerRequest = 32;
constexpr int64_t kPage = 4096;
constexpr uint64_t kPoison = 0x5A17EDB0FFE7C0DEull;

// --- Failing -----------------------------------------------------------------

std::string g_scratch;
// Set while the library is initialised, so that a failure can show how full
// its tables were.
bool g_kestRunning = false;

// A failed, short or wrong read: the message, the scratch directory gone,
// status 1.
[[noreturn]] __attribute__((format(printf, 1, 2))) void Fail(const char* format, ...) {
  std::fflush(stdout);
  std::fputs("\ninflight: ", stderr);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  if (g_kestRunning) {
    ZulKestStatistics statistics;
    zulKestStatisticsGet(&statistics);
    std::fprintf(stderr,
                 "kest2 storage now/high water/units: operations %llu/%llu/%llu, "
                 "file handles %llu/%llu/%llu, chunks %llu/%llu/%llu\n",
                 static_cast<unsigned long long>(statistics.opStorage.current),
                 static_cast<unsigned long long>(statistics.opStorage.highWater),
                 static_cast<unsigned long long>(statistics.opStorage.maxAvailable),
                 static_cast<unsigned long long>(statistics.fhStorage.current),
                 static_cast<unsigned long long>(statistics.fhStorage.highWater),
                 static_cast<unsigned long long>(statistics.fhStorage.maxAvailable),
                 static_cast<unsigned long long>(statistics.chunkStorage.current),
                 static_cast<unsigned long long>(statistics.chunkStorage.highWater),
                 static_cast<unsigned long long>(statistics.chunkStorage.maxAvailable));
  }
  std::error_code ignored;
  std::filesystem::remove_all(g_scratch, ignored);
  std::_Exit(1);
}

// --- Content hash ----------------------------------------------------------

inline uint64_t Rotl(uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }

// Four independent multiply chains, so the hash runs at several bytes per
// cycle; every byte and its position count.
uint64_t Hash64(const char* data, int64_t size) {
  constexpr uint64_t kMul1 = 0x9E3779B97F4A7C15ull;
  constexpr uint64_t kMul2 = 0xC2B2AE3D27D4EB4Full;
  uint64_t lane[4] = {1, 2, 3, 4};
  int64_t at = 0;
  for (; at + 32 <= size; at += 32) {
    for (int l = 0; l < 4; ++l) {
      uint64_t word;
      std::memcpy(&word, data + at + 8 * l, 8);
      lane[l] = Rotl(lane[l] + word * kMul2, 31) * kMul1;
    }
  }
  uint64_t tail[4] = {0, 0, 0, 0};
  std::memcpy(tail, data + at, static_cast<size_t>(size - at));
  uint64_t result = static_cast<uint64_t>(size) * kMul1;
  for (int l = 0; l < 4; ++l) {
    lane[l] = Rotl(lane[l] + tail[l] * kMul2, 31) * kMul1;
    result = (result ^ lane[l]) * kMul2;
    result ^= result >> 29;
  }
  return result;
}

// Marks every page of a slot, so that a page the read never wrote cannot
// pass for data left there by an earlier read of the same file.
void Poison(char* buffer, int64_t length) {
  if (length < 8) return;
  for (int64_t at = 0; at + 8 <= length; at += kPage) std::memcpy(buffer + at, &kPoison, 8);
  std::memcpy(buffer + length - 8, &kPoison, 8);
}

// --- Files and requests ------------------------------------------------------

struct Job {
  int32_t file;
  int64_t offset;
  int64_t length;
  uint64_t hash;  // of the bytes the read must deliver
};

struct Workload {
  std::vector<std::string> paths;
  std::vector<Job> jobs;
  bool wholeFiles;  // A: each request opens its file by path
};

struct Cell {
  const Workload* workload;
  int inFlight;
  std::string label;  // "A   16"
  std::string what;   // for the summary table
  double target;      // kest2 / pool goal; 0: none
};

std::string ReadBack(const std::string& path, int64_t size) {
  std::string bytes(static_cast<size_t>(size), '\0');
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail("open %s: %s", path.c_str(), std::strerror(errno));
  for (int64_t done = 0; done < size;) {
    const ssize_t got = ::pread(fd, &bytes[done], static_cast<size_t>(size - done), done);
    if (got <= 0) Fail("reading back %s: %s", path.c_str(), got < 0 ? std::strerror(errno) : "EOF");
    done += got;
  }
  ::close(fd);
  return bytes;
}

Workload MakeWholeFiles(const std::string& dir, int64_t total) {
  Workload workload;
  workload.wholeFiles = true;
  ::mkdir(dir.c_str(), 0755);
  kest2_common::Random random(41);
  std::vector<Job> files;
  for (int64_t written = 0; written < total;) {
    const int64_t size = std::min(random.LogUniform(kMinFile, kMaxFile), total - written);
    char name[32];
    std::snprintf(name, sizeof(name), "/f%05zu", workload.paths.size());
    workload.paths.push_back(dir + name);
    WriteFile(workload.paths.back(), size, static_cast<uint32_t>(1000 + workload.paths.size()));
    files.push_back(Job{static_cast<int32_t>(files.size()), 0, size,
                        Hash64(ReadBack(workload.paths.back(), size).data(), size)});
    written += size;
  }
  // A fixed shuffled order, the same for every method and level.
  for (size_t i = files.size(); i > 1; --i) std::swap(files[i - 1], files[random.Below(i)]);
  workload.jobs = std::move(files);
  return workload;
}

Workload MakePieces(const std::string& dir, int64_t fileSize, int64_t reads) {
  Workload workload;
  workload.wholeFiles = false;
  std::vector<std::vector<uint64_t>> pieceHashes(kBigFiles);
  for (int f = 0; f < kBigFiles; ++f) {
    workload.paths.push_back(dir + "/big" + std::to_string(f));
    WriteFile(workload.paths.back(), fileSize, static_cast<uint32_t>(77 + f));
    const std::string bytes = ReadBack(workload.paths.back(), fileSize);
    for (int64_t at = 0; at < fileSize; at += kPiece) {
      pieceHashes[f].push_back(Hash64(bytes.data() + at, kPiece));
    }
  }
  kest2_common::Random random(97);
  const uint64_t piecesPerFile = static_cast<uint64_t>(fileSize / kPiece);
  for (int64_t i = 0; i < reads; ++i) {
    const int32_t file = static_cast<int32_t>(random.Below(kBigFiles));
    const uint64_t piece = random.Below(piecesPerFile);
    workload.jobs.push_back(
        Job{file, static_cast<int64_t>(piece) * kPiece, kPiece, pieceHashes[file][piece]});
  }
  return workload;
}

// --- One measurement -----------------------------------------------------------

struct Usage {
  double cpuMicros;
  int64_t switches;
};

Usage ReadUsage() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto micros = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
  };
  return Usage{micros(usage.ru_utime) + micros(usage.ru_stime), usage.ru_nvcsw + usage.ru_nivcsw};
}

struct Sample {
  double mibPerSecond;
  double meanMicros;
  double p99Micros;
  double cpuMicrosPerRequest;
  double switchesPerRequest;
  // kest2 only: the most chunk units in use at once, and how many it had.
  uint64_t chunkHighWater = 0;
  uint64_t chunkUnits = 0;
};

enum ErrorKind { kErrno, kKestError };

// The bookkeeping every method's submitter does: which job each slot holds
// and since when, poisoning before the issue, checking after the
// completion, latencies, and the totals of the run.
class Window {
 public:
  Window(const Cell& cell, const char* method, ErrorKind errors, std::vector<char*>* buffers)
      : m_cell(cell),
        m_method(method),
        m_errors(errors),
        m_buffers(*buffers),
        m_slotJob(static_cast<size_t>(cell.inFlight)),
        m_slotStart(static_cast<size_t>(cell.inFlight)) {
    m_latencies.reserve(cell.workload->jobs.size());
  }

  int Slots() const {
    return static_cast<int>(
        std::min<size_t>(static_cast<size_t>(m_cell.inFlight), m_cell.workload->jobs.size()));
  }
  bool HasNext() const { return m_next < m_cell.workload->jobs.size(); }
  bool Done() const { return m_finished == m_cell.workload->jobs.size(); }

  void Start() {
    m_usage = ReadUsage();
    m_start = Now();
  }

  // Gives the slot the next job, ready to be issued into buffer(slot).
  const Job& Take(uint32_t slot) {
    const Job& job = m_cell.workload->jobs[m_next];
    m_slotJob[slot] = m_next++;
    Poison(m_buffers[slot], job.length);
    m_slotStart[slot] = Now();
    return job;
  }
  char* buffer(uint32_t slot) const { return m_buffers[slot]; }
  const char* path(const Job& job) const {
    return m_cell.workload->paths[static_cast<size_t>(job.file)].c_str();
  }

  // The slot's request has finished with error (0: none) and actual bytes.
  void Finish(uint32_t slot, int32_t error, int64_t actual) {
    const ZulKestTime end = Now();
    m_latencies.push_back(static_cast<double>(end - m_slotStart[slot]) / 1e3);
    const Job& job = m_cell.workload->jobs[m_slotJob[slot]];
    if (error != 0 || actual != job.length) {
      char text[128];
      const char* reason = m_errors == kKestError ? zulKestDebugDumpError(error, text, sizeof(text))
                                                  : std::strerror(-error);
      Fail("%s, %d in flight: %s at offset %lld: %s (%lld of %lld bytes)", m_method,
           m_cell.inFlight, path(job), static_cast<long long>(job.offset),
           error != 0 ? reason : "short read", static_cast<long long>(actual),
           static_cast<long long>(job.length));
    }
    if (Hash64(m_buffers[slot], job.length) != job.hash) {
      Fail("%s, %d in flight: %s at offset %lld: the %lld bytes read differ from those written",
           m_method, m_cell.inFlight, path(job), static_cast<long long>(job.offset),
           static_cast<long long>(job.length));
    }
    m_bytes += job.length;
    ++m_finished;
    NoteProgress();
  }

  Sample Stop() const {
    const ZulKestTime elapsed = Now() - m_start;
    const Usage usage = ReadUsage();
    const double requests = static_cast<double>(m_finished);
    double sum = 0;
    for (double latency : m_latencies) sum += latency;
    return Sample{MiBPerSecond(m_bytes, elapsed), sum / requests, Percentile(m_latencies, 0.99),
                  (usage.cpuMicros - m_usage.cpuMicros) / requests,
                  static_cast<double>(usage.switches - m_usage.switches) / requests};
  }

 private:
  const Cell& m_cell;
  const char* m_method;
  ErrorKind m_errors;
  const std::vector<char*>& m_buffers;
  std::vector<size_t> m_slotJob;
  std::vector<ZulKestTime> m_slotStart;
  std::vector<double> m_latencies;
  size_t m_next = 0;
  size_t m_finished = 0;
  int64_t m_bytes = 0;
  Usage m_usage{};
  ZulKestTime m_start = 0;
};

// --- The completion queue and the submitter loop kest2 and pool share --------

struct Completion {
  uint32_t slot;
  int32_t error;  // kest2: its result code; pool: -errno; 0 when it worked
  int64_t actual;
  ZulKestOp op;  // kest2 only
};

class CompletionQueue {
 public:
  void Push(const Completion& completion) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_items.push_back(completion);
    }
    m_ready.notify_one();
  }

  Completion Pop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ready.wait(lock, [this] { return !m_items.empty(); });
    const Completion completion = m_items.front();
    m_items.pop_front();
    return completion;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_ready;
  std::deque<Completion> m_items;
};

// Keeps the window full: issue(slot, job) starts a request whose completion
// arrives in queue; retire(completion) runs right after each pop.
template <typename Issue, typename Retire>
Sample RunWindow(Window* window, CompletionQueue* queue, Issue issue, Retire retire) {
  window->Start();
  for (int slot = 0; slot < window->Slots(); ++slot) {
    issue(static_cast<uint32_t>(slot), window->Take(static_cast<uint32_t>(slot)));
  }
  while (!window->Done()) {
    const Completion completion = queue->Pop();
    retire(completion);
    window->Finish(completion.slot, completion.error, completion.actual);
    if (window->HasNext()) issue(completion.slot, window->Take(completion.slot));
  }
  return window->Stop();
}

// --- kest2 -------------------------------------------------------------------

struct KestSlot {
  CompletionQueue* queue;
  uint32_t slot;
};

int32_t OnKestEvent(void* context, ZulKestOp op, uint8_t event, int32_t error) {
  if (event != ZUL_KEST_EVENT_COMPLETE) return 0;
  const KestSlot* slot = static_cast<const KestSlot*>(context);
  slot->queue->Push(Completion{slot->slot, error, zulKestOpGetActualCount(op), op});
  return 0;
}

Sample RunKest(const Cell& cell, const char* method, uint32_t ioThreads,
               std::vector<char*>* buffers) {
  const uint32_t inFlight = static_cast<uint32_t>(cell.inFlight);
  kest2_common::LibraryStorage storage;
  ZulKestParams params = storage.MakeParams(inFlight + 64, inFlight + 64, kDirHandles, kPathMax,
                                            kChunksPerRequest * inFlight + 1024);
  params.ioThreadCount = ioThreads;
  int32_t rc = zulKestInitialize(&params);
  if (rc != ZUL_KEST_OK)
    Fail("%s: zulKestInitialize: %s", method, zulKestDebugDumpError(rc, nullptr, 0));
  g_kestRunning = true;
  const Workload& workload = *cell.workload;
  std::vector<ZulKestFH> handles;
  if (!workload.wholeFiles) {
    for (const std::string& path : workload.paths) {
      handles.push_back(0);
      rc = zulKestFHOpenSync(nullptr, &handles.back(), path.c_str(), nullptr);
      if (rc != ZUL_KEST_OK) {
        Fail("%s: zulKestFHOpenSync %s: %s", method, path.c_str(),
             zulKestDebugDumpError(rc, nullptr, 0));
      }
    }
  }

  CompletionQueue queue;
  std::vector<KestSlot> slots;
  for (uint32_t slot = 0; slot < inFlight; ++slot) slots.push_back(KestSlot{&queue, slot});
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  attr.pCallback = OnKestEvent;

  Window window(cell, method, kKestError, buffers);
  Sample sample = RunWindow(
      &window, &queue,
      [&](uint32_t slot, const Job& job) {
        attr.pCallbackContext = &slots[slot];
        const ZulKestOp op =
            workload.wholeFiles
                ? zulKestFileRead(&attr, window.path(job), window.buffer(slot), job.length, 0)
                : zulKestFHPread(&attr, handles[static_cast<size_t>(job.file)], window.buffer(slot),
                                 job.length, job.offset);
        if (op == 0) Fail("%s, %d in flight: no operation storage left", method, cell.inFlight);
      },
      [](const Completion& completion) { zulKestOpDelete(completion.op); });

  for (ZulKestFH fh : handles) zulKestFHCloseSync(nullptr, fh);
  ZulKestStatistics statistics;
  zulKestStatisticsGet(&statistics);
  sample.chunkHighWater = statistics.chunkStorage.highWater;
  sample.chunkUnits = statistics.chunkStorage.maxAvailable;
  g_kestRunning = false;
  zulKestTerminate();
  return sample;
}

// --- pool ----------------------------------------------------------------------

struct PoolRequest {
  uint32_t slot;
  const char* path;  // opened, read and closed by the worker when set
  int fd;            // otherwise read from this descriptor
  char* buffer;
  int64_t length;
  int64_t offset;
};

// pread until length bytes, end of file or an error (-errno).
int64_t ReadFully(int fd, char* buffer, int64_t length, int64_t offset) {
  int64_t done = 0;
  while (done < length) {
    const ssize_t got =
        ::pread(fd, buffer + done, static_cast<size_t>(length - done), offset + done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -errno;
    if (got == 0) break;
    done += got;
  }
  return done;
}

class ReadPool {
 public:
  ReadPool(int threads, CompletionQueue* done) : m_done(done) {
    for (int t = 0; t < threads; ++t) m_threads.emplace_back([this] { Worker(); });
  }
  ~ReadPool() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
    }
    m_work.notify_all();
    for (std::thread& thread : m_threads) thread.join();
  }
  ReadPool(const ReadPool&) = delete;
  ReadPool& operator=(const ReadPool&) = delete;

  void Submit(const PoolRequest& request) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_queue.push_back(request);
    }
    m_work.notify_one();
  }

 private:
  void Worker() {
    for (;;) {
      PoolRequest request;
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_work.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_queue.empty()) return;
        request = m_queue.front();
        m_queue.pop_front();
      }
      Completion completion{request.slot, 0, 0, 0};
      int fd = request.fd;
      if (request.path != nullptr) fd = ::open(request.path, O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
        completion.error = -errno;
      } else {
        const int64_t got = ReadFully(fd, request.buffer, request.length, request.offset);
        if (got < 0) completion.error = static_cast<int32_t>(got);
        completion.actual = std::max<int64_t>(got, 0);
        if (request.path != nullptr) ::close(fd);
      }
      m_done->Push(completion);
    }
  }

  CompletionQueue* m_done;
  std::mutex m_mutex;
  std::condition_variable m_work;
  std::deque<PoolRequest> m_queue;
  bool m_stopping = false;
  std::vector<std::thread> m_threads;
};

std::vector<int> OpenAll(const std::vector<std::string>& paths) {
  std::vector<int> fds;
  for (const std::string& path : paths) {
    fds.push_back(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fds.back() < 0) Fail("open %s: %s", path.c_str(), std::strerror(errno));
  }
  return fds;
}

Sample RunPool(const Cell& cell, const char* method, std::vector<char*>* buffers) {
  const Workload& workload = *cell.workload;
  std::vector<int> fds;
  if (!workload.wholeFiles) fds = OpenAll(workload.paths);
  CompletionQueue queue;
  Sample sample;
  {
    ReadPool pool(kThreads, &queue);
    Window window(cell, method, kErrno, buffers);
    sample = RunWindow(
        &window, &queue,
        [&](uint32_t slot, const Job& job) {
          pool.Submit(PoolRequest{slot, workload.wholeFiles ? window.path(job) : nullptr,
                                  workload.wholeFiles ? -1 : fds[static_cast<size_t>(job.file)],
                                  window.buffer(slot), job.length, job.offset});
        },
        [](const Completion&) {});
  }
  for (int fd : fds) ::close(fd);
  return sample;
}

// --- io_uring ------------------------------------------------------------------

#ifdef KEST2_BENCH_HAVE_URING

constexpr unsigned kMaxRingEntries = 4096;
// user_data: slot << 2 | step.
enum UringStep : uint64_t { kOpenStep = 0, kReadStep = 1, kCloseStep = 2 };

io_uring_sqe* NextSqe(io_uring* ring) {
  for (;;) {
    io_uring_sqe* sqe = io_uring_get_sqe(ring);
    if (sqe != nullptr) return sqe;
    const int rc = io_uring_submit(ring);
    if (rc < 0) Fail("io_uring_submit: %s", std::strerror(-rc));
  }
}

struct UringSlot {
  int pending;  // completions still to come
  int32_t error;
  int64_t actual;
};

Sample RunUring(const Cell& cell, const char* method, std::vector<char*>* buffers) {
  const Workload& workload = *cell.workload;
  const unsigned perRequest = workload.wholeFiles ? 3 : 1;
  unsigned entries = 8;
  while (entries < perRequest * static_cast<unsigned>(cell.inFlight) && entries < kMaxRingEntries) {
    entries *= 2;
  }
  io_uring ring;
  io_uring_params setup{};
  setup.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
  int rc = io_uring_queue_init_params(entries, &ring, &setup);
  if (rc == -EINVAL) {
    setup = io_uring_params{};
    rc = io_uring_queue_init_params(entries, &ring, &setup);
  }
  if (rc < 0) Fail("%s: io_uring_queue_init: %s", method, std::strerror(-rc));
  unsigned workers[2] = {kThreads, kThreads};  // bounded, unbounded
  io_uring_register_iowq_max_workers(&ring, workers);

  std::vector<int> fds;
  if (workload.wholeFiles) {
    rc = io_uring_register_files_sparse(&ring, static_cast<unsigned>(cell.inFlight));
  } else {
    fds = OpenAll(workload.paths);
    rc = io_uring_register_files(&ring, fds.data(), static_cast<unsigned>(fds.size()));
  }
  if (rc < 0) Fail("%s: registering files: %s", method, std::strerror(-rc));

  std::vector<UringSlot> slots(static_cast<size_t>(cell.inFlight));
  Window window(cell, method, kErrno, buffers);
  const auto issue = [&](uint32_t slot) {
    const Job& job = window.Take(slot);
    const uint64_t tag = static_cast<uint64_t>(slot) << 2;
    slots[slot] = UringSlot{static_cast<int>(perRequest), 0, 0};
    if (!workload.wholeFiles) {
      io_uring_sqe* read = NextSqe(&ring);
      io_uring_prep_read(read, job.file, window.buffer(slot), static_cast<unsigned>(job.length),
                         static_cast<uint64_t>(job.offset));
      read->flags |= IOSQE_FIXED_FILE;
      io_uring_sqe_set_data64(read, tag | kReadStep);
      return;
    }
    // The three entries of a chain must sit in the ring together.
    if (io_uring_sq_space_left(&ring) < 3) io_uring_submit(&ring);
    io_uring_sqe* open = NextSqe(&ring);
    io_uring_prep_openat_direct(open, AT_FDCWD, window.path(job), O_RDONLY, 0, slot);
    open->flags |= IOSQE_IO_LINK;
    io_uring_sqe_set_data64(open, tag | kOpenStep);
    io_uring_sqe* read = NextSqe(&ring);
    io_uring_prep_read(read, static_cast<int>(slot), window.buffer(slot),
                       static_cast<unsigned>(job.length), 0);
    read->flags |= IOSQE_FIXED_FILE | IOSQE_IO_LINK;
    io_uring_sqe_set_data64(read, tag | kReadStep);
    io_uring_sqe* close = NextSqe(&ring);
    io_uring_prep_close_direct(close, slot);
    io_uring_sqe_set_data64(close, tag | kCloseStep);
  };

  window.Start();
  for (int slot = 0; slot < window.Slots(); ++slot) issue(static_cast<uint32_t>(slot));
  while (!window.Done()) {
    rc = io_uring_submit_and_wait(&ring, 1);
    if (rc < 0 && rc != -EINTR)
      Fail("%s: io_uring_submit_and_wait: %s", method, std::strerror(-rc));
    unsigned head;
    unsigned seen = 0;
    io_uring_cqe* cqe;
    io_uring_for_each_cqe(&ring, head, cqe) {
      ++seen;
      const uint64_t tag = io_uring_cqe_get_data64(cqe);
      const uint32_t slot = static_cast<uint32_t>(tag >> 2);
      UringSlot& state = slots[slot];
      // The first failure of a chain is its cause; the rest are cancelled.
      if (cqe->res < 0 && state.error == 0) state.error = cqe->res;
      if ((tag & 3) == kReadStep && cqe->res > 0) state.actual = cqe->res;
      if (--state.pending > 0) continue;
      window.Finish(slot, state.error, state.actual);
      if (window.HasNext()) issue(slot);
    }
    io_uring_cq_advance(&ring, seen);
  }
  const Sample sample = window.Stop();
  io_uring_queue_exit(&ring);
  for (int fd : fds) ::close(fd);
  return sample;
}

#endif  // KEST2_BENCH_HAVE_URING

// --- Methods, cells and the report ----------------------------------------------

enum Method { kKest2, kKest1, kPool, kUring, kMethodCount };
const char* const kMethodNames[kMethodCount] = {"kest2", "kest2 1 thread", "pool", "io_uring"};

#ifdef KEST2_BENCH_HAVE_URING
constexpr int kMethods = 4;
#else
constexpr int kMethods = 3;
#endif

Sample Run(Method method, const Cell& cell, std::vector<char*>* buffers) {
  switch (method) {
    case kKest2:
      return RunKest(cell, kMethodNames[method], 2, buffers);
    case kKest1:
      return RunKest(cell, kMethodNames[method], 1, buffers);
    case kPool:
      return RunPool(cell, kMethodNames[method], buffers);
    default:
#ifdef KEST2_BENCH_HAVE_URING
      return RunUring(cell, kMethodNames[method], buffers);
#else
      Fail("io_uring is not available in this build");
#endif
  }
}

using Samples = std::vector<Sample>;

double MedianOf(const Samples& samples, double Sample::*field) {
  std::vector<double> values;
  for (const Sample& sample : samples) values.push_back(sample.*field);
  return Median(values);
}

double MinOf(const Samples& samples) {
  double least = samples.front().mibPerSecond;
  for (const Sample& sample : samples) least = std::min(least, sample.mibPerSecond);
  return least;
}

double MaxOf(const Samples& samples) {
  double most = samples.front().mibPerSecond;
  for (const Sample& sample : samples) most = std::max(most, sample.mibPerSecond);
  return most;
}

std::string Spread(const Samples& samples) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.0f (%.0f-%.0f)", MedianOf(samples, &Sample::mibPerSecond),
                MinOf(samples), MaxOf(samples));
  return text;
}

// kest2 / pool goals for whole files; 0 where there is none.
double WholeFileTarget(int level) {
  switch (level) {
    case 1:
      return 0.5;
    case 16:
    case 64:
      return 0.8;
    case 1024:
      return 0.7;
    default:
      return 0.0;
  }
}

// The whole-file cell with this many in flight.
size_t WholeCell(const std::vector<Cell>& cells, int level) {
  for (size_t c = 0; c < cells.size(); ++c) {
    if (cells[c].workload->wholeFiles && cells[c].inFlight == level) return c;
  }
  return 0;
}

// Ratios are judged as printed, so that figure and verdict never disagree.
double Rounded(double ratio) { return std::round(ratio * 100.0) / 100.0; }

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  int64_t totalMiB = 256;
  int reps = 3;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--reps=", 7) == 0) {
      reps = std::atoi(argv[i] + 7);
    } else {
      totalMiB = std::atoll(argv[i]);
    }
  }
  if (totalMiB < 4 || reps < 1) {
    std::fprintf(stderr, "usage: %s [TOTAL_MIB >= 4] [--reps=N >= 1]\n", argv[0]);
    return 2;
  }

  // A registered table of 1024 direct descriptors needs that many under the
  // descriptor limit.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }

  kest2_common::TempDir dir("kest2_bench_");
  g_scratch = dir.path();
  StartStallWatchdog(dir.path(), kStallSeconds, "read");
  SetRunning("writing the files");
  const Workload whole = MakeWholeFiles(dir.path() + "/whole", totalMiB * kMiB);
  const int64_t bigSize = totalMiB / kBigFiles * kMiB;
  const Workload pieces = MakePieces(dir.path(), bigSize, kPieceVolume * totalMiB * kMiB / kPiece);
  FlushToDevice();
  SetRunning(nullptr);

  std::vector<Cell> cells;
  for (int level : kLevels) {
    char label[32], what[96];
    std::snprintf(label, sizeof(label), "A %5d", level);
    std::snprintf(what, sizeof(what), "whole files 4-256 KiB, %d in flight", level);
    cells.push_back(Cell{&whole, level, label, what, WholeFileTarget(level)});
  }
  {
    char label[32], what[96];
    std::snprintf(label, sizeof(label), "B %5d", kPieceInFlight);
    std::snprintf(what, sizeof(what), "64 KiB reads on open handles, %d in flight", kPieceInFlight);
    cells.push_back(Cell{&pieces, kPieceInFlight, label, what, 0.8});
  }

  // One buffer slot per request in flight, faulted in before any method runs.
  const size_t slotBytes = static_cast<size_t>(kMaxFile);
  char* arena = static_cast<char*>(std::aligned_alloc(kPage, slotBytes * kMaxInFlight));
  std::memset(arena, 0, slotBytes * kMaxInFlight);
  std::vector<char*> buffers;
  for (int slot = 0; slot < kMaxInFlight; ++slot) buffers.push_back(arena + slot * slotBytes);

  std::printf("kest2 in-flight benchmark, %u cores, %d threads per method\n",
              std::thread::hardware_concurrency(), kThreads);
  std::printf(
      "A: %zu files in %s/whole, 4-256 KiB log-uniform, %lld MiB; open + read whole + "
      "close per request, fixed shuffled order\n",
      whole.jobs.size(), dir.path().c_str(), static_cast<long long>(totalMiB));
  std::printf("B: %d files of %lld MiB kept open; %zu reads of 64 KiB at random aligned offsets\n",
              kBigFiles, static_cast<long long>(bigSize / kMiB), pieces.jobs.size());
  std::printf("methods: kest2 (2 I/O threads), kest2 1 thread, pool (2 pread threads)");
#ifdef KEST2_BENCH_HAVE_URING
  std::printf(", io_uring (1 thread; A: linked openat direct + read fixed + close direct)\n");
#else
  std::printf("; io_uring: not available (built without liburing)\n");
#endif
  std::printf("repetitions: %d, methods in rotated order, files re-read before each cell\n\n",
              reps);

  std::vector<std::vector<Samples>> results(kMethods, std::vector<Samples>(cells.size()));
  const ZulKestTime began = Now();
  for (int rep = 0; rep < reps; ++rep) {
    for (size_t c = 0; c < cells.size(); ++c) {
      SetRunning("warming the files");
      for (const std::string& path : cells[c].workload->paths) {
        WarmFile(path);
        NoteProgress();
      }
      for (int turn = 0; turn < kMethods; ++turn) {
        const Method method = static_cast<Method>((rep + turn) % kMethods);
        std::string running = std::string(kMethodNames[method]) + " " + cells[c].label;
        SetRunning(running.c_str());
        results[method][c].push_back(Run(method, cells[c], &buffers));
        SetRunning(nullptr);
      }
    }
    std::printf("repetition %d done after %.1f s\n", rep + 1,
                static_cast<double>(Now() - began) / 1e9);
  }
  std::free(arena);

  std::printf(
      "\nper request: latency from issue to the pop of its completion; CPU and context "
      "switches of\nthe whole process (getrusage RUSAGE_SELF), including the submitter's "
      "content check\n");
#ifdef KEST2_BENCH_HAVE_URING
  std::printf(
      "io_uring: work the kernel does inline is charged to the submitter thread; io-wq "
      "workers are\nthreads of this process and so are counted too\n");
#endif
  std::printf("medians over %d repetitions; MiB/s as median (min-max)\n\n", reps);
  std::printf("%-8s %-15s %-22s %10s %10s %10s %8s\n", "cell", "method", "MiB/s", "mean us",
              "p99 us", "CPU us/req", "csw/req");
  for (size_t c = 0; c < cells.size(); ++c) {
    for (int m = 0; m < kMethodCount; ++m) {
      if (m >= kMethods) {
        std::printf("%-8s %-15s %s\n", cells[c].label.c_str(), kMethodNames[m], "not available");
        continue;
      }
      const Samples& samples = results[m][c];
      std::printf("%-8s %-15s %-22s %10.1f %10.1f %10.1f %8.2f\n", cells[c].label.c_str(),
                  kMethodNames[m], Spread(samples).c_str(), MedianOf(samples, &Sample::meanMicros),
                  MedianOf(samples, &Sample::p99Micros),
                  MedianOf(samples, &Sample::cpuMicrosPerRequest),
                  MedianOf(samples, &Sample::switchesPerRequest));
    }
  }

  std::printf("\n%-8s %10s %10s %7s %7s %-8s   %12s %8s %s\n", "cell", "pool", "kest2", "ratio",
              "target", "verdict", "kest2 1 thr", "2/1 thr", "2 thr >= 1 thr");
  for (size_t c = 0; c < cells.size(); ++c) {
    const double pool = MedianOf(results[kPool][c], &Sample::mibPerSecond);
    const double two = MedianOf(results[kKest2][c], &Sample::mibPerSecond);
    const double one = MedianOf(results[kKest1][c], &Sample::mibPerSecond);
    const double ratio = Rounded(two / pool);
    const double threads = Rounded(two / one);
    const double target = cells[c].target;
    const char* verdict = target <= 0 ? "-" : ratio >= target ? "met" : "NOT met";
    const std::string targetText = target <= 0 ? "-" : Format(">= %.2f", target);
    std::printf("%-8s %10.0f %10.0f %7.2f %7s %-8s   %12.0f %8.2f %s\n", cells[c].label.c_str(),
                pool, two, ratio, targetText.c_str(), verdict, one, threads,
                threads >= 1.0 ? "met" : "NOT met");
    SummaryRow("inflight", cells[c].what.c_str(), Format("pool %.0f MiB/s", pool),
               Format("%.0f MiB/s", two), ratio, targetText.c_str(), verdict);
  }

  std::printf("\nCPU per request, whole files, 16 -> 1024 in flight (target: within 2x)\n");
  for (Method method : {kKest2, kKest1}) {
    const double at16 =
        MedianOf(results[method][WholeCell(cells, 16)], &Sample::cpuMicrosPerRequest);
    const double at1024 =
        MedianOf(results[method][WholeCell(cells, 1024)], &Sample::cpuMicrosPerRequest);
    const double growth = Rounded(at1024 / at16);
    std::printf("%-15s %8.1f -> %8.1f us  %5.2fx  %s\n", kMethodNames[method], at16, at1024, growth,
                growth <= 2.0 ? "met" : "NOT met");
  }
  std::printf("\nkest2 chunk units in use at most (largest over repetitions) / given\n");
  for (size_t c = 0; c < cells.size(); ++c) {
    std::printf("%-8s", cells[c].label.c_str());
    for (Method method : {kKest2, kKest1}) {
      uint64_t most = 0;
      for (const Sample& sample : results[method][c]) most = std::max(most, sample.chunkHighWater);
      std::printf("   %s %6llu / %llu", kMethodNames[method], static_cast<unsigned long long>(most),
                  static_cast<unsigned long long>(results[method][c].front().chunkUnits));
    }
    std::printf("\n");
  }
  std::printf("\ntotal time %.1f s\n", static_cast<double>(Now() - began) / 1e9);
  return 0;
}
