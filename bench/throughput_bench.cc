// Throughput of the request API against plain pread, in one run:
//
//  1. A sequential read of one large file in 1 MiB requests through
//     zulKestFHReadSync, against a loop of pread of the same sizes.
//  2. Many asynchronous 64 KiB reads spread over four files, twelve in flight
//     through the library's I/O threads, against the same reads made with
//     pread by the same number of plain threads.
//
// Both sides read warm files from the page cache, so the numbers compare
// the library's own cost, not the disk.  Rounds alternate between the two
// sides and the median is reported.
//
//   kest2_throughput_bench [FILE_MIB]      (default 1024)

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "kest2.h"

namespace {

using kest2_bench::Now;

constexpr int64_t kMiB = 1 << 20;
constexpr int64_t kPieceSize = 64 * 1024;
constexpr int kRounds = 3;
constexpr int kFiles = 4;
constexpr int kThreads = 3;
constexpr int kInFlight = 12;

double MiBPerSecond(int64_t bytes, ZulKestTime nanoseconds) {
  return static_cast<double>(bytes) / kMiB / (static_cast<double>(nanoseconds) / 1e9);
}

// --- 1. Sequential ---------------------------------------------------------

double SequentialPread(const std::string& path, int64_t size, std::vector<char>* buffer) {
  const int fd = open(path.c_str(), O_RDONLY);
  const ZulKestTime start = Now();
  int64_t total = 0;
  for (int64_t offset = 0; offset < size; offset += kMiB) {
    const ssize_t got = pread(fd, buffer->data(), kMiB, offset);
    if (got <= 0) break;
    total += got;
  }
  const ZulKestTime elapsed = Now() - start;
  close(fd);
  return MiBPerSecond(total, elapsed);
}

double SequentialKest(const std::string& path, std::vector<char>* buffer) {
  ZulKestFH fh = 0;
  if (zulKestFHOpenSync(nullptr, &fh, path.c_str(), nullptr) != ZUL_KEST_OK) return 0;
  const ZulKestTime start = Now();
  int64_t total = 0;
  for (;;) {
    const int64_t got = zulKestFHReadSync(nullptr, fh, buffer->data(), kMiB);
    if (got <= 0) break;
    total += got;
  }
  const ZulKestTime elapsed = Now() - start;
  zulKestFHCloseSync(nullptr, fh);
  return MiBPerSecond(total, elapsed);
}

// --- 2. Concurrent 64 KiB reads -------------------------------------------

struct Piece {
  int file;
  int64_t offset;
};

// Every 64 KiB piece of every file, interleaved across the files in a fixed
// shuffled order.
std::vector<Piece> MakePieces(int64_t fileSize) {
  std::vector<Piece> pieces;
  for (int64_t offset = 0; offset < fileSize; offset += kPieceSize) {
    for (int file = 0; file < kFiles; ++file) pieces.push_back(Piece{file, offset});
  }
  uint32_t x = 12345;
  for (size_t i = pieces.size(); i > 1; --i) {
    x = x * 1103515245u + 12345u;
    std::swap(pieces[i - 1], pieces[x % i]);
  }
  return pieces;
}

double ConcurrentPread(const std::vector<std::string>& paths, const std::vector<Piece>& pieces) {
  std::vector<int> fds;
  for (const std::string& path : paths) fds.push_back(open(path.c_str(), O_RDONLY));
  std::atomic<size_t> next{0};
  std::atomic<int64_t> total{0};
  const ZulKestTime start = Now();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      std::vector<char> buffer(kPieceSize);
      for (size_t i; (i = next.fetch_add(1)) < pieces.size();) {
        const ssize_t got = pread(fds[pieces[i].file], buffer.data(), kPieceSize, pieces[i].offset);
        if (got > 0) total += got;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const ZulKestTime elapsed = Now() - start;
  for (int fd : fds) close(fd);
  return MiBPerSecond(total, elapsed);
}

double ConcurrentKest(const std::vector<std::string>& paths, const std::vector<Piece>& pieces) {
  std::vector<ZulKestFH> handles(kFiles);
  for (int f = 0; f < kFiles; ++f) zulKestFHOpenSync(nullptr, &handles[f], paths[f].c_str(), nullptr);
  std::vector<std::vector<char>> buffers(kInFlight, std::vector<char>(kPieceSize));
  std::vector<ZulKestOp> slots(kInFlight, 0);
  int64_t total = 0;
  const ZulKestTime start = Now();
  // A window of reads in flight: each finished slot is refilled with the
  // next piece, so the I/O threads always have work queued.
  size_t next = 0;
  for (int slot = 0;; slot = (slot + 1) % kInFlight) {
    if (slots[slot] != 0) {
      const int64_t got = zulKestOpSyncWaitForIO(slots[slot]);
      if (got > 0) total += got;
      slots[slot] = 0;
    }
    if (next < pieces.size()) {
      const Piece& piece = pieces[next++];
      slots[slot] = zulKestFHPread(nullptr, handles[piece.file], buffers[slot].data(), kPieceSize,
                                   piece.offset);
    } else if (std::all_of(slots.begin(), slots.end(), [](ZulKestOp op) { return op == 0; })) {
      break;
    }
  }
  const ZulKestTime elapsed = Now() - start;
  for (ZulKestFH fh : handles) zulKestFHCloseSync(nullptr, fh);
  return MiBPerSecond(total, elapsed);
}

void Report(const char* what, const char* target, double baseline, double kest, double wanted) {
  const double ratio = kest / baseline;
  std::printf("%-44s %10.0f %10.0f %8.2f   %s (%s)\n", what, baseline, kest, ratio,
              wanted <= 0 ? "-" : ratio >= wanted ? "met" : "NOT met", target);
  kest2_bench::SummaryRow("throughput", what, kest2_bench::Format("pread %.0f MiB/s", baseline),
                          kest2_bench::Format("%.0f MiB/s", kest), ratio, wanted <= 0 ? "-" : ">= 0.90",
                          wanted <= 0 ? "-" : ratio >= wanted ? "met" : "NOT met");
}

// Runs one measurement inside its own library session.
template <typename Measure>
double WithLibrary(uint32_t maxChunk, Measure measure) {
  kest2_common::LibraryStorage storage;
  ZulKestParams params =
      storage.MakeParams(256, 16, kest2_bench::kDirHandles, kest2_bench::kPathMax, 16384);
  params.ioThreadCount = kThreads;
  params.maxChunk = maxChunk;
  if (zulKestInitialize(&params) != ZUL_KEST_OK) {
    std::fprintf(stderr, "kest2 did not start\n");
    std::exit(1);
  }
  const double result = measure();
  zulKestTerminate();
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const int64_t fileMiB = argc > 1 ? std::atoll(argv[1]) : 1024;
  kest2_common::TempDir dir("kest2_bench_");
  const std::string big = dir.path() + "/sequential";
  std::printf("kest2 throughput: %lld MiB sequential file, %d files of %lld MiB for 64 KiB reads,"
              " warm page cache, %d I/O threads\n",
              static_cast<long long>(fileMiB), kFiles, static_cast<long long>(fileMiB / 4), kThreads);
  kest2_bench::WriteFile(big, fileMiB * kMiB, 1);
  std::vector<std::string> paths;
  for (int f = 0; f < kFiles; ++f) {
    paths.push_back(dir.path() + "/piece" + std::to_string(f));
    kest2_bench::WriteFile(paths.back(), fileMiB / 4 * kMiB, 10 + f);
  }
  kest2_bench::FlushToDevice();
  kest2_bench::WarmFile(big);
  for (const std::string& path : paths) kest2_bench::WarmFile(path);

  std::vector<char> buffer(kMiB);
  const std::vector<Piece> pieces = MakePieces(fileMiB / 4 * kMiB);
  std::vector<double> seqPread, seqSplit, seqWhole, conPread, conKest;
  for (int round = 0; round < kRounds; ++round) {
    seqPread.push_back(SequentialPread(big, fileMiB * kMiB, &buffer));
    // The default maxChunk (512 KiB) splits each 1 MiB request into two
    // pieces that run in parallel on the I/O threads; with maxChunk at the
    // request size the single piece runs on the caller's thread.
    seqSplit.push_back(WithLibrary(0, [&] { return SequentialKest(big, &buffer); }));
    seqWhole.push_back(WithLibrary(kMiB, [&] { return SequentialKest(big, &buffer); }));
    conPread.push_back(ConcurrentPread(paths, pieces));
    conKest.push_back(WithLibrary(0, [&] { return ConcurrentKest(paths, pieces); }));
  }

  std::printf("\n%-44s %10s %10s %8s\n", "MiB/s (median of 3)", "pread", "kest2", "ratio");
  Report("sequential 1 MiB ReadSync, maxChunk 512 KiB", "target >= 0.90",
         kest2_bench::Median(seqPread), kest2_bench::Median(seqSplit), 0.9);
  Report("sequential 1 MiB ReadSync, maxChunk 1 MiB", "target >= 0.90",
         kest2_bench::Median(seqPread), kest2_bench::Median(seqWhole), 0.9);
  Report("64 KiB async reads, 12 in flight", "no target",
         kest2_bench::Median(conPread), kest2_bench::Median(conKest), 0.0);
  return 0;
}
