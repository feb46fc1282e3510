// Reads with the RAM cache against the same reads without it, in one run,
// the library initialised once:
//
//  1. loose files, warm in the page cache: a tree of files read over several
//     passes in 64 KiB pieces through handles opened once per file, in file
//     order (sequential) or in a shuffled order over the whole tree (random),
//     one read at a time (zulKestFHPreadSync) or a few in flight
//     (zulKestFHPread);
//  2. the same tree packed into a ZORBA archive and mounted, read the same
//     way through handles opened on the mounted paths.  A hit here saves the
//     inflate of the archive's blocks, not only a copy out of the page cache.
//     One more case prefetches every file into the cache
//     (zulKestCachePrefetchFHRange, as many files at a time as reads are in
//     flight) before its first random pass;
//  3. patterns on which the cache cannot win, to show what it costs: a file
//     four times the size of its cache streamed through it sequentially
//     (blocks are filled, but LRU evicts each before it comes round again),
//     and 64 KiB reads under caches of 64 KiB blocks, which all end on a
//     block boundary and therefore never fill one: every read is a lookup
//     that misses.  It runs with a small table and with one of as many
//     bytes as the tree's cache; since lookups scan the table only up to the
//     last block ever filled, and nothing is filled here, the two should
//     cost the same.  (The streamed file above misses in a full table.)
//
// "off" runs without the cache filter; "on" runs with it installed at filter
// index 0, above the dearchiver at index 1, so that for archived files it
// holds inflated bytes.  One cache serves every path.  A run installs the
// cache (which empties it), opens a handle per file, then makes the passes:
// the first pass of an "on" run fills the cache, the following ones re-read
// it.  Each round runs every case off and on (loose-file cases, which take
// milliseconds, three times), alternating which side goes first, and the
// medians over the runs are reported.
//
// Cache blocks are larger than the reads on purpose.  A read that misses
// fills one block, the one that holds its last byte, and fills nothing when
// it ends exactly on a block boundary; readers that arrive while a block is
// being filled wait for that fill.  With 64 KiB reads and 64 KiB blocks no
// aligned read would ever fill a block (that is case 3's second pattern).
// With blocks of several reads, the first read of a block fills all of it
// and the next reads of that block hit; on a random first pass the reads
// that end a block leave it for a later read to fill.  256 KiB is the
// default: against 128 KiB it fills twice as much of a random first pass
// (two thirds of the bytes hit instead of a quarter), and for archives a
// fill inflates four archive blocks on both decompressor threads at once,
// which makes a sequential one-at-a-time first pass faster than without the
// cache; 1 MiB blocks fill still more of a random first pass but make the
// first read of each block wait for sixteen inflates, and a file's last
// block wastes more of the buffer.  --block=KIB picks another size.
//
// Every pass reads into an image of the files that was cleared before it;
// after the pass (untimed) the image is compared byte for byte with the
// source, and a pass that delivered fewer bytes than asked counts as a
// mismatch too.  Hit rates are the cache's own counters (bytes served from
// cache blocks over bytes asked for), read from its header between passes,
// when no read is in flight.  After each run the chunks in use must be back
// to what they were before it.  The run exits non-zero only when bytes
// differ.
//
//   kest2_cache_bench [TREE_MIB [STREAM_MIB]] [--block=KIB] [--passes=N]
//                     [--rounds=N] [--io-threads=N] [--in-flight=N]
//                     [--only=loose|archive|miss|PART_OF_A_CASE_NAME] [--verbose]
//
// Defaults: a 48 MiB tree, a 64 MiB stream file, 256 KiB cache blocks,
// 4 passes, 5 rounds, 4 reads in flight when asynchronous, 1 I/O thread
// (a second one only added switching on warm files) and 2 decompressor
// threads, one per core of the 2-core machine this was tuned on.
// --verbose prints one line per run.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "cache/ram_cache.h"
#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "kest2/archive_writer.h"

namespace {

using kest2_bench::kKiB;
using kest2_bench::kMiB;
using kest2_bench::MiBPerSecond;
using kest2_bench::Now;

constexpr int64_t kReadSize = 64 * kKiB;
constexpr uint32_t kArchiveBlockSize = 64 * 1024;
constexpr const char* kMountPoint = "/bench";
// Re-reading archived files must be this many times faster with the cache;
// patterns it cannot help must stay within 5% of the uncached speed.
constexpr double kArchiveGoal = 3.0;
constexpr double kMissGoal = 0.95;  // at most about 1.05 times slower
// Off/on pairs per round for the cases that read loose files.
constexpr int kCheapRepeats = 3;

[[noreturn]] void Fail(const char* what, int64_t result) {
  char text[256];
  std::fprintf(stderr, "kest2: %s failed: %s\n", what,
               zulKestDebugDumpError(static_cast<int32_t>(result), text, sizeof(text)));
  std::exit(1);
}

// --- Files ------------------------------------------------------------------

struct FileItem {
  std::string loosePath;    // on disk
  std::string archivePath;  // under the mount point (empty: not archived)
  int64_t size;
  int64_t slot;  // where the file's bytes lie in the source and the image
};

// A set of files with their bytes kept in memory, and an image of the same
// layout that the reads fill.
struct FileSet {
  std::vector<FileItem> files;
  std::vector<char> source;
  std::vector<char> image;
  int64_t bytes = 0;
};

void WriteBytes(const std::string& path, const char* bytes, int64_t size) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr ||
      std::fwrite(bytes, 1, static_cast<size_t>(size), out) != static_cast<size_t>(size) ||
      std::fclose(out) != 0) {
    std::perror(path.c_str());
    std::exit(2);
  }
}

void AddFile(FileSet* set, const std::string& loosePath, const std::string& archivePath,
             int64_t size) {
  FileItem item{loosePath, archivePath, size, static_cast<int64_t>(set->source.size())};
  set->source.resize(set->source.size() + static_cast<size_t>((size + 63) / 64 * 64), 0);
  set->bytes += size;
  set->files.push_back(std::move(item));
}

void FinishSet(FileSet* set, const kest2_bench::TextMaker& maker, uint64_t seed) {
  for (size_t i = 0; i < set->files.size(); ++i) {
    const FileItem& file = set->files[i];
    maker.Fill(set->source.data() + file.slot, file.size, seed + i);
    WriteBytes(file.loosePath, set->source.data() + file.slot, file.size);
  }
  set->image.assign(set->source.size(), 1);  // touched now, so faults are not timed
}

// Sizes from 64 KiB to 6 MiB, log-uniform, none a multiple of a cache block
// (so most files end in a short block), adding up to about `total`.
FileSet MakeTree(const std::string& root, int64_t total, const kest2_bench::TextMaker& maker) {
  FileSet set;
  kest2_common::Random random(3);
  for (int i = 0; set.bytes < total; ++i) {
    int64_t size = std::min(random.LogUniform(64 * kKiB, 6 * kMiB), total - set.bytes);
    size = std::max<int64_t>(size, 4 * kKiB) | 1;
    char relative[64];
    std::snprintf(relative, sizeof(relative), "d%02d/f%04d.txt", i % 8, i);
    AddFile(&set, root + "/" + relative, std::string(kMountPoint) + "/" + relative, size);
  }
  FinishSet(&set, maker, 100);
  return set;
}

// --- The cache ----------------------------------------------------------------

struct Counters {
  uint64_t hits = 0, hitBytes = 0, misses = 0, missBytes = 0;
};

// The cache counts in 32 bits: a difference is taken modulo 2^32, so a pass
// is measured right as long as it reads less than 4 GiB.
Counters operator-(const Counters& a, const Counters& b) {
  const auto wrap = [](uint64_t x, uint64_t y) { return uint64_t{static_cast<uint32_t>(x - y)}; };
  return Counters{wrap(a.hits, b.hits), wrap(a.hitBytes, b.hitBytes), wrap(a.misses, b.misses),
                  wrap(a.missBytes, b.missBytes)};
}

// A RAM cache context with its work buffer: room for `blocks` blocks after
// the header area and the block table.
class RamCache {
 public:
  RamCache(uint64_t blockSize, uint64_t blocks) {
    const uint64_t bytes = std::max<uint64_t>(HeaderBytes() + blocks * (blockSize + 64), 0x20000);
    m_buffer.assign(static_cast<size_t>(bytes / 8), 0);  // zeroed, so every page is touched
    m_context.sizeOfContext = sizeof(m_context);
    m_context.workBufferSize = m_buffer.size() * 8;
    m_context.blockSize = blockSize;
    m_context.pWorkBuffer = m_buffer.data();
    m_context.pPath = nullptr;  // every path
  }
  RamCache(const RamCache&) = delete;
  RamCache& operator=(const RamCache&) = delete;

  static uint64_t HeaderBytes() { return (kest2_bench::kPathMax + 80) & ~uint64_t{7}; }
  uint64_t blockSize() const { return m_context.blockSize; }
  uint64_t blocks() const {
    return (m_context.workBufferSize - HeaderBytes()) / (m_context.blockSize + 64);
  }
  uint64_t bufferBytes() const { return m_context.workBufferSize; }

  // Installs the cache at filter index 0; installing empties it.
  int32_t TryInstall() { return zulKestIOFilterAdd(0, zulKestIOFilterCache, &m_context); }
  void Install() {
    const int32_t result = TryInstall();
    if (result != ZUL_KEST_OK) Fail("zulKestIOFilterAdd (RAM cache)", result);
    const kest2::CacheHeader* header = kest2::HeaderOf(&m_context);
    if (header->blockCount != blocks() || header->blockSize != blockSize()) {
      std::printf(
          "  warning: the installed cache reports %u blocks of %u bytes, expected %llu of %llu\n",
          header->blockCount, header->blockSize, static_cast<unsigned long long>(blocks()),
          static_cast<unsigned long long>(blockSize()));
    }
    const Counters start = Read();
    if (start.hits != 0 || start.hitBytes != 0 || start.misses != 0 || start.missBytes != 0) {
      std::printf(
          "  warning: a freshly installed cache has non-zero counters (%llu hits, %llu misses)\n",
          static_cast<unsigned long long>(start.hits),
          static_cast<unsigned long long>(start.misses));
    }
    Reset();
  }
  void Remove() {
    const int32_t result = zulKestIOFilterRemove(0);
    if (result != ZUL_KEST_OK) Fail("zulKestIOFilterRemove (RAM cache)", result);
  }

  // The counters.  REQUIRES: no read in flight.
  Counters Read() const {
    const kest2::CacheHeader* header = kest2::HeaderOf(&m_context);
    Counters counters;
    counters.hits = __atomic_load_n(&header->hits, __ATOMIC_ACQUIRE);
    counters.hitBytes = __atomic_load_n(&header->hitBytes, __ATOMIC_ACQUIRE);
    counters.misses = __atomic_load_n(&header->misses, __ATOMIC_ACQUIRE);
    counters.missBytes = __atomic_load_n(&header->missBytes, __ATOMIC_ACQUIRE);
    return counters;
  }
  void Reset() {
    kest2::CacheHeader* header = kest2::HeaderOf(&m_context);
    __atomic_store_n(&header->hits, 0u, __ATOMIC_RELEASE);
    __atomic_store_n(&header->hitBytes, 0u, __ATOMIC_RELEASE);
    __atomic_store_n(&header->misses, 0u, __ATOMIC_RELEASE);
    __atomic_store_n(&header->missBytes, 0u, __ATOMIC_RELEASE);
  }

 private:
  ZulKestRamCacheContext m_context{};
  std::vector<uint64_t> m_buffer;
};

// Blocks of blockSize that hold every byte of the set, each file starting
// at a block of its own.
uint64_t BlocksFor(const FileSet& set, uint64_t blockSize) {
  uint64_t blocks = 0;
  for (const FileItem& file : set.files)
    blocks += (static_cast<uint64_t>(file.size) + blockSize - 1) / blockSize;
  return blocks;
}

// --- Reads --------------------------------------------------------------------

struct Piece {
  int32_t file;
  int64_t offset;
  int64_t length;
};

std::vector<Piece> AllPieces(const FileSet& set, int64_t readSize) {
  std::vector<Piece> pieces;
  for (size_t f = 0; f < set.files.size(); ++f) {
    for (int64_t offset = 0; offset < set.files[f].size; offset += readSize) {
      pieces.push_back(
          Piece{static_cast<int32_t>(f), offset, std::min(readSize, set.files[f].size - offset)});
    }
  }
  return pieces;
}

std::vector<Piece> Shuffled(std::vector<Piece> pieces, uint64_t seed) {
  kest2_common::Random random(seed);
  for (size_t i = pieces.size(); i > 1; --i) std::swap(pieces[i - 1], pieces[random.Below(i)]);
  return pieces;
}

// Returns the bytes delivered.
int64_t ReadSync(FileSet* set, const std::vector<ZulKestFH>& handles,
                 const std::vector<Piece>& pieces) {
  char* image = set->image.data();
  int64_t total = 0;
  for (const Piece& piece : pieces) {
    const int64_t got =
        zulKestFHPreadSync(nullptr, handles[static_cast<size_t>(piece.file)],
                           image + set->files[static_cast<size_t>(piece.file)].slot + piece.offset,
                           piece.length, piece.offset);
    if (got > 0) total += got;
    kest2_bench::NoteProgress();
  }
  return total;
}

// A window of reads in flight: each finished slot is refilled with the next
// piece.  Every piece has its own place in the image, so none overlap.
int64_t ReadAsync(FileSet* set, const std::vector<ZulKestFH>& handles,
                  const std::vector<Piece>& pieces, int inFlight) {
  char* image = set->image.data();
  std::vector<ZulKestOp> slots(static_cast<size_t>(inFlight), 0);
  int64_t total = 0;
  int busy = 0;
  size_t next = 0;
  for (size_t slot = 0;; slot = (slot + 1) % slots.size()) {
    if (slots[slot] != 0) {
      const int64_t got = zulKestOpSyncWaitForIO(slots[slot]);
      if (got > 0) total += got;
      slots[slot] = 0;
      --busy;
      kest2_bench::NoteProgress();
    }
    if (next < pieces.size()) {
      const Piece& piece = pieces[next++];
      slots[slot] =
          zulKestFHPread(nullptr, handles[static_cast<size_t>(piece.file)],
                         image + set->files[static_cast<size_t>(piece.file)].slot + piece.offset,
                         piece.length, piece.offset);
      if (slots[slot] != 0) ++busy;  // none: the piece stays missing and the pass mismatches
    } else if (busy == 0) {
      break;
    }
  }
  return total;
}

// Prefetches every whole file into the cache, inFlight files at a time (as
// many as the reads keep in flight), and waits for the last one.
void PrefetchAll(const FileSet& set, const std::vector<ZulKestFH>& handles, int inFlight) {
  std::vector<ZulKestOp> slots(static_cast<size_t>(inFlight), 0);
  int failed = 0;
  int32_t firstError = ZUL_KEST_OK;
  const auto finish = [&](ZulKestOp op) {
    const int32_t result = op == 0 ? ZUL_KEST_ERROR_CANT_ALLOCATE_OP : zulKestOpWait(op);
    if (result != ZUL_KEST_OK && failed++ == 0) firstError = result;
    if (op != 0) zulKestOpDelete(op);
  };
  for (size_t f = 0; f < set.files.size(); ++f) {
    ZulKestOp& slot = slots[f % slots.size()];
    if (f >= slots.size()) finish(slot);
    slot = zulKestCachePrefetchFHRange(nullptr, handles[f], 0, set.files[f].size);
  }
  for (size_t n = 0; n < std::min(slots.size(), set.files.size()); ++n) {
    finish(slots[(set.files.size() + n) % slots.size()]);
  }
  if (failed != 0) {
    char text[256];
    std::printf("  warning: %d of %zu prefetches failed, the first with %s\n", failed,
                set.files.size(), zulKestDebugDumpError(firstError, text, sizeof(text)));
  }
}

// Files of the set whose bytes in the image differ from the source.
int CountBadFiles(const FileSet& set) {
  int bad = 0;
  for (const FileItem& file : set.files) {
    if (std::memcmp(set.image.data() + file.slot, set.source.data() + file.slot,
                    static_cast<size_t>(file.size)) != 0)
      ++bad;
  }
  return bad;
}

// --- Cases --------------------------------------------------------------------

// What the cache can do for a pattern.
enum class Reuse {
  kRereads,  // the passes after the first re-read what the first one filled
  kStream,   // fills, but every block is evicted before it comes round again
  kNever,    // every read ends on a block boundary: nothing is ever filled
};

// How a case reads (ORed together): loose files, sequentially, one read at a
// time, unless a flag says otherwise.
enum CaseFlags : uint32_t {
  kArchive = 1,   // through the mounted paths
  kRandom = 2,    // shuffled pieces, else file order
  kAsync = 4,     // inFlight reads at once, else one at a time
  kPrefetch = 8,  // "on": prefetch every file before the first pass (timed)
};

struct Case {
  Case(const char* name_, FileSet* set_, RamCache* cache_, uint32_t flags, Reuse reuse_)
      : name(name_),
        set(set_),
        cache(cache_),
        archive((flags & kArchive) != 0),
        random((flags & kRandom) != 0),
        async((flags & kAsync) != 0),
        prefetch((flags & kPrefetch) != 0),
        reuse(reuse_),
        group(reuse_ != Reuse::kRereads ? "miss"
              : archive                 ? "archive"
                                        : "loose") {}

  const char* name;
  FileSet* set;
  RamCache* cache;
  bool archive, random, async, prefetch;
  Reuse reuse;        // kStream and kNever: the cache cannot help; one row over all passes
  const char* group;  // for --only: "loose", "archive" or "miss"
  // Per run, MiB/s; the first pass and the passes after it.
  std::vector<double> offFirst, onFirst, offAgain, onAgain;
  std::vector<double> hitFirst, hitAgain;  // "on": bytes served from cache / bytes asked
  std::vector<double> prefetchRate;        // "on": MiB/s of the prefetch alone
  int mismatches = 0;
};

// --verbose: one line per run.
bool g_verbose = false;

uint64_t ChunksInUse() {
  ZulKestStatistics statistics{};
  zulKestStatisticsGet(&statistics);
  return statistics.chunkStorage.current;
}
// Chunks in use while no operation is (the mount's, and any leaked so far).
uint64_t g_idleChunks = 0;

struct RunResult {
  double first = 0, again = 0, hitFirst = 0, hitAgain = 0;
  double prefetch = 0;  // MiB/s of the prefetch alone
};

RunResult Run(Case* c, bool on, int passes, int inFlight,
              const std::vector<std::vector<Piece>>& orders) {
  FileSet& set = *c->set;
  if (on) c->cache->Install();
  std::vector<ZulKestFH> handles(set.files.size(), 0);
  for (size_t f = 0; f < set.files.size(); ++f) {
    const std::string& path = c->archive ? set.files[f].archivePath : set.files[f].loosePath;
    const int32_t result = zulKestFHOpenSync(nullptr, &handles[f], path.c_str(), nullptr);
    if (result != ZUL_KEST_OK) Fail(("zulKestFHOpenSync " + path).c_str(), result);
  }
  RunResult run;
  int64_t againBytes = 0, askedFirst = 0, askedAgain = 0;
  ZulKestTime againTime = 0;
  Counters first, again;
  for (int pass = 0; pass < passes; ++pass) {
    std::memset(set.image.data(), 0, set.image.size());
    const std::vector<Piece>& pieces = orders[static_cast<size_t>(pass) % orders.size()];
    const Counters before = on ? c->cache->Read() : Counters{};
    kest2_bench::SetRunning(c->name);
    const ZulKestTime start = Now();
    if (on && c->prefetch && pass == 0) {
      PrefetchAll(set, handles, inFlight);
      run.prefetch = MiBPerSecond(set.bytes, Now() - start);
    }
    const int64_t bytes =
        c->async ? ReadAsync(&set, handles, pieces, inFlight) : ReadSync(&set, handles, pieces);
    const ZulKestTime elapsed = Now() - start;
    kest2_bench::SetRunning(nullptr);
    const Counters delta = on ? c->cache->Read() - before : Counters{};
    c->mismatches += CountBadFiles(set) + (bytes != set.bytes ? 1 : 0);
    if (pass == 0) {
      run.first = MiBPerSecond(bytes, elapsed);
      first = delta;
      askedFirst = set.bytes;
    } else {
      againBytes += bytes;
      againTime += elapsed;
      again.hitBytes += delta.hitBytes;
      askedAgain += set.bytes;
    }
  }
  for (ZulKestFH fh : handles) zulKestFHCloseSync(nullptr, fh);
  if (on) c->cache->Remove();
  // Every operation has completed and been deleted: the chunks in use must
  // be back where they were before the run (a finished tree's chunks may be
  // freed just after its waiter woke, hence the wait).
  uint64_t chunks = ChunksInUse();
  for (int wait = 0; wait < 100 && chunks > g_idleChunks; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    chunks = ChunksInUse();
  }
  // Fewer than before: some still in use when the baseline was read are free now.
  if (chunks < g_idleChunks) g_idleChunks = chunks;
  if (chunks > g_idleChunks) {
    std::printf("  warning: %s (%s): %llu chunks in use after the run, %llu before\n", c->name,
                on ? "on" : "off", static_cast<unsigned long long>(chunks),
                static_cast<unsigned long long>(g_idleChunks));
    g_idleChunks = chunks;
  }
  run.again = MiBPerSecond(againBytes, againTime);
  if (g_verbose) {
    std::printf(
        "    %-40s %-3s MiB/s %6.0f first, %6.0f re-read; hit bytes %llu first, %llu re-read\n",
        c->name, on ? "on" : "off", run.first, run.again,
        static_cast<unsigned long long>(first.hitBytes),
        static_cast<unsigned long long>(again.hitBytes));
  }
  run.hitFirst =
      askedFirst > 0 ? static_cast<double>(first.hitBytes) / static_cast<double>(askedFirst) : 0;
  run.hitAgain =
      askedAgain > 0 ? static_cast<double>(again.hitBytes) / static_cast<double>(askedAgain) : 0;
  return run;
}

double Ratio(const std::vector<double>& on, const std::vector<double>& off) {
  const double base = kest2_bench::Median(off);
  return base > 0 ? kest2_bench::Median(on) / base : 0.0;
}

void PrintRow(const char* name, const char* passes, const std::vector<double>& off,
              const std::vector<double>& on, const std::vector<double>& hits) {
  if (on.empty()) {
    std::printf("  %-40s %-8s %9.0f %9s %7s %8s\n", name, passes, kest2_bench::Median(off), "-",
                "-", "-");
    return;
  }
  std::printf("  %-40s %-8s %9.0f %9.0f %7.2f %7.1f%%\n", name, passes, kest2_bench::Median(off),
              kest2_bench::Median(on), Ratio(on, off), 100.0 * kest2_bench::Median(hits));
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<long long> numbers;
  std::string only;
  int64_t blockKiB = 256;
  int passes = 4;
  int rounds = 5;
  uint32_t ioThreads = 1;
  int inFlight = 4;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const auto value = [&](const char* prefix) {
      return std::atoll(arg.c_str() + std::strlen(prefix));
    };
    if (arg.rfind("--only=", 0) == 0) {
      only = arg.substr(7);
    } else if (arg == "--verbose") {
      g_verbose = true;
    } else if (arg.rfind("--block=", 0) == 0) {
      blockKiB = std::max(4ll, value("--block="));
    } else if (arg.rfind("--passes=", 0) == 0) {
      passes = std::max(2, static_cast<int>(value("--passes=")));
    } else if (arg.rfind("--rounds=", 0) == 0) {
      rounds = std::max(1, static_cast<int>(value("--rounds=")));
    } else if (arg.rfind("--io-threads=", 0) == 0) {
      ioThreads = static_cast<uint32_t>(std::min(3ll, std::max(1ll, value("--io-threads="))));
    } else if (arg.rfind("--in-flight=", 0) == 0) {
      inFlight = std::max(1, static_cast<int>(value("--in-flight=")));
    } else if (!arg.empty() && arg[0] != '-') {
      numbers.push_back(std::atoll(arg.c_str()));
    } else {
      std::fprintf(stderr,
                   "usage: %s [TREE_MIB [STREAM_MIB]] [--block=KIB] [--passes=N] [--rounds=N]"
                   " [--io-threads=N] [--in-flight=N] "
                   "[--only=loose|archive|miss|PART_OF_A_CASE_NAME] [--verbose]\n",
                   argv[0]);
      return 2;
    }
  }
  const int64_t treeMiB = numbers.size() > 0 ? std::max(1ll, numbers[0]) : 48;
  const int64_t streamMiB = numbers.size() > 1 ? std::max(4ll, numbers[1]) : 64;
  const uint64_t blockSize = static_cast<uint64_t>(blockKiB) * kKiB;
  // A group, or any part of a case's name ("stream", "random, sync").
  const auto wanted = [&](const char* group, const char* name) {
    return only.empty() || only == group || std::string(name).find(only) != std::string::npos;
  };

  kest2_common::TempDir dir("kest2_bench_");
  const std::string archive = dir.path() + "/tree.zorba";
  const kest2_bench::TextMaker maker;

  ZulKestTime mark = Now();
  FileSet tree = MakeTree(dir.path() + "/tree", treeMiB * kMiB, maker);
  // The stream file is a multiple of 64 KiB long, so that under 64 KiB
  // blocks even its last read ends on a block boundary.
  FileSet stream;
  AddFile(&stream, dir.path() + "/stream.txt", "", streamMiB * kMiB);
  FinishSet(&stream, maker, 900);
  const double makeSeconds = static_cast<double>(Now() - mark) / 1e9;

  mark = Now();
  kest2_cli::PackOptions options;
  options.blockSize = kArchiveBlockSize;
  options.level = 6;
  options.jobs = 2;
  kest2_cli::PackSummary summary;
  std::string error;
  if (!kest2_cli::PackDirectory(dir.path() + "/tree", archive, options, &summary, &error)) {
    std::fprintf(stderr, "pack: %s\n", error.c_str());
    return 1;
  }
  const double packSeconds = static_cast<double>(Now() - mark) / 1e9;

  // Write-back must not run while reads are timed, and every file is read
  // once so that the page cache holds it.
  kest2_bench::FlushToDevice();
  for (const FileItem& file : tree.files) kest2_bench::WarmFile(file.loosePath);
  kest2_bench::WarmFile(stream.files[0].loosePath);
  kest2_bench::WarmFile(archive);

  // The tree's cache holds all of it; the stream's holds a quarter of the
  // stream file; the boundary caches have blocks exactly one read long, a
  // small table and one of as many bytes as the tree's cache (lookups scan
  // the whole table, so the cost of a miss grows with the block count).
  RamCache treeCache(blockSize, BlocksFor(tree, blockSize) + 2);
  RamCache streamCache(blockSize, static_cast<uint64_t>(streamMiB * kMiB / 4) / blockSize);
  RamCache smallBoundaryCache(static_cast<uint64_t>(kReadSize), 64);
  RamCache largeBoundaryCache(static_cast<uint64_t>(kReadSize),
                              treeCache.bufferBytes() / static_cast<uint64_t>(kReadSize + 64));

  int64_t smallest = INT64_MAX, largest = 0;
  for (const FileItem& file : tree.files) {
    smallest = std::min(smallest, file.size);
    largest = std::max(largest, file.size);
  }
  std::printf("kest2 RAM cache: reads with the cache off and on, page cache warm\n");
  std::printf("  tree:    %zu files, %.1f MiB (%.0f KiB to %.1f MiB), text-like (made in %.1f s)\n",
              tree.files.size(), static_cast<double>(tree.bytes) / kMiB,
              static_cast<double>(smallest) / kKiB, static_cast<double>(largest) / kMiB,
              makeSeconds);
  std::printf(
      "  archive: the same tree packed, %.1f MiB (ratio %.2f), %u KiB blocks, zlib level 6,"
      " mounted at %s (packed in %.1f s)\n",
      static_cast<double>(summary.archiveBytes) / kMiB,
      static_cast<double>(tree.bytes) / static_cast<double>(summary.archiveBytes),
      kArchiveBlockSize / 1024, kMountPoint, packSeconds);
  std::printf("  stream:  one file of %lld MiB\n", static_cast<long long>(streamMiB));
  const auto mib = [](const RamCache& cache) {
    return static_cast<double>(cache.bufferBytes()) / kMiB;
  };
  const auto count = [](const RamCache& cache) {
    return static_cast<unsigned long long>(cache.blocks());
  };
  std::printf("  cache:   filter index 0 (dearchiver at 1), every path; block size %llu KiB\n",
              static_cast<unsigned long long>(blockSize / kKiB));
  std::printf("           tree: %llu blocks (%.1f MiB buffer); stream: %llu blocks (%.1f MiB)\n",
              count(treeCache), mib(treeCache), count(streamCache), mib(streamCache));
  std::printf("           boundary, 64 KiB blocks: %llu (%.1f MiB) and %llu (%.1f MiB)\n",
              count(smallBoundaryCache), mib(smallBoundaryCache), count(largeBoundaryCache),
              mib(largeBoundaryCache));
  std::printf(
      "  reads:   %lld KiB through handles opened once per file per run; sync = zulKestFHPreadSync,"
      " async = zulKestFHPread with %d in flight\n",
      static_cast<long long>(kReadSize / kKiB), inFlight);
  std::printf(
      "  kest2:   %u I/O thread(s), 2 decompressor threads; %d passes per run, %d rounds"
      " (%d for the rest)\n",
      ioThreads, passes, rounds, rounds * kCheapRepeats);
  std::fflush(stdout);

  // Read orders: file order, or a new shuffle of the whole set per pass
  // (the same shuffles for off and on).
  const std::vector<Piece> treePieces = AllPieces(tree, kReadSize);
  const std::vector<Piece> streamPieces = AllPieces(stream, kReadSize);
  std::vector<std::vector<Piece>> treeSequential{treePieces}, treeRandom,
      streamSequential{streamPieces}, streamRandom;
  for (int pass = 0; pass < passes; ++pass) {
    treeRandom.push_back(Shuffled(treePieces, 11 + static_cast<uint64_t>(pass)));
    streamRandom.push_back(Shuffled(streamPieces, 31 + static_cast<uint64_t>(pass)));
  }

  std::vector<Case> cases = {
      {"loose, sequential, sync", &tree, &treeCache, 0, Reuse::kRereads},
      {"loose, sequential, async", &tree, &treeCache, kAsync, Reuse::kRereads},
      {"loose, random, sync", &tree, &treeCache, kRandom, Reuse::kRereads},
      {"loose, random, async", &tree, &treeCache, kRandom | kAsync, Reuse::kRereads},
      {"archive, sequential, sync", &tree, &treeCache, kArchive, Reuse::kRereads},
      {"archive, sequential, async", &tree, &treeCache, kArchive | kAsync, Reuse::kRereads},
      {"archive, random, sync", &tree, &treeCache, kArchive | kRandom, Reuse::kRereads},
      {"archive, random, async", &tree, &treeCache, kArchive | kRandom | kAsync, Reuse::kRereads},
      {"archive, prefetched, random, async", &tree, &treeCache,
       kArchive | kRandom | kAsync | kPrefetch, Reuse::kRereads},
      {"stream 4x cache, sequential, sync", &stream, &streamCache, 0, Reuse::kStream},
      {"stream 4x cache, sequential, async", &stream, &streamCache, kAsync, Reuse::kStream},
      {"boundary reads, small table, seq, sync", &stream, &smallBoundaryCache, 0, Reuse::kNever},
      {"boundary reads, small table, rand, async", &stream, &smallBoundaryCache, kRandom | kAsync,
       Reuse::kNever},
      {"boundary reads, large table, seq, sync", &stream, &largeBoundaryCache, 0, Reuse::kNever},
      {"boundary reads, large table, rand, async", &stream, &largeBoundaryCache, kRandom | kAsync,
       Reuse::kNever},
  };

  // The library, once: the dearchiver at index 1 throughout, the cache
  // added at index 0 for the "on" runs only.
  kest2_common::LibraryStorage storage;
  ZulKestParams params =
      storage.MakeParams(256, 256, kest2_bench::kDirHandles, kest2_bench::kPathMax, 16384);
  params.ioThreadCount = ioThreads;
  params.decompressorThreadCount = 2;
  int32_t result = zulKestInitialize(&params);
  if (result != ZUL_KEST_OK) Fail("zulKestInitialize", result);
  zulKestArchiveSetDecompressorThreadCount(2);
  std::vector<uint64_t> dearchiverWork((3 * kArchiveBlockSize + 64) / 8, 0);
  ZulKestZorbaDearchiverContext dearchiver{};
  dearchiver.sizeOfContext = sizeof(dearchiver);
  dearchiver.workBufferSize = 3 * kArchiveBlockSize;
  dearchiver.pWorkBuffer = reinterpret_cast<void*>(
      (reinterpret_cast<uintptr_t>(dearchiverWork.data()) + 63) & ~uintptr_t{63});
  result = zulKestIOFilterAdd(1, zulKestIOFilterZorbaDearchiver, &dearchiver);
  if (result != ZUL_KEST_OK) Fail("zulKestIOFilterAdd (dearchiver)", result);
  const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive.c_str(), nullptr);
  if (need < 0) Fail("zulKestArchiveGetMountBufferSizeSync", need);
  std::vector<uint64_t> mountBuffer(static_cast<size_t>(need + 7) / 8, 0);
  ZulKestFH mount = 0;
  result = zulKestArchiveMountSync(nullptr, &mount, archive.c_str(), kMountPoint,
                                   mountBuffer.data(), need, nullptr);
  if (result != ZUL_KEST_OK) Fail("zulKestArchiveMountSync", result);

  // Without a cache that installs, only the "off" side is measured.
  result = treeCache.TryInstall();
  const bool haveCache = result == ZUL_KEST_OK;
  if (haveCache) {
    treeCache.Remove();
  } else {
    char text[256];
    std::printf("  the RAM cache could not be installed (%s): only \"off\" is measured\n",
                zulKestDebugDumpError(result, text, sizeof(text)));
  }

  g_idleChunks = ChunksInUse();
  // A read that never completes would otherwise hang the run without a
  // word: the watchdog ends it once no read has finished for a while.
  kest2_bench::StartStallWatchdog(dir.path(), kest2_bench::kStallSeconds, "read");
  std::printf("  measuring...\n");
  std::fflush(stdout);
  const ZulKestTime measureStart = Now();
  for (int round = 0; round < rounds; ++round) {
    for (Case& c : cases) {
      if (!wanted(c.group, c.name)) continue;
      const std::vector<std::vector<Piece>>& orders =
          c.set == &tree ? (c.random ? treeRandom : treeSequential)
                         : (c.random ? streamRandom : streamSequential);
      // Runs of loose files take milliseconds, so they are repeated within
      // a round; every other pair runs "on" first, so that drift favours
      // neither side.
      const int repeats = c.archive ? 1 : kCheapRepeats;
      for (int repeat = 0; repeat < repeats; ++repeat) {
        RunResult off, on;
        if (!haveCache) {
          off = Run(&c, false, passes, inFlight, orders);
        } else if ((round * repeats + repeat) % 2 == 0) {
          off = Run(&c, false, passes, inFlight, orders);
          on = Run(&c, true, passes, inFlight, orders);
        } else {
          on = Run(&c, true, passes, inFlight, orders);
          off = Run(&c, false, passes, inFlight, orders);
        }
        c.offFirst.push_back(off.first);
        c.offAgain.push_back(off.again);
        if (!haveCache) continue;
        c.onFirst.push_back(on.first);
        c.onAgain.push_back(on.again);
        c.hitFirst.push_back(on.hitFirst);
        c.hitAgain.push_back(on.hitAgain);
        if (c.prefetch) c.prefetchRate.push_back(on.prefetch);
      }
    }
  }
  const double measureSeconds = static_cast<double>(Now() - measureStart) / 1e9;

  ZulKestStatistics statistics{};
  zulKestStatisticsGet(&statistics);
  zulKestArchiveUnmountSync(nullptr, mount);
  zulKestIOFilterRemove(1);
  zulKestTerminate();

  std::printf("\nMiB/s, medians over %d runs per side for archived files, %d for the rest\n",
              rounds, rounds * kCheapRepeats);
  std::printf("(measured in %.0f s); hit rate = bytes served from cache blocks / bytes read\n",
              measureSeconds);
  std::printf("  %-40s %-8s %9s %9s %7s %8s\n", "case", "passes", "off", "on", "on/off",
              "hit rate");
  int mismatches = 0;
  struct Worst {
    double ratio = 1e30;
    const char* name = nullptr;
  };
  Worst worstArchive, worstStream, worstNever;
  for (const Case& c : cases) {
    if (c.offFirst.empty()) continue;
    mismatches += c.mismatches;
    if (c.reuse != Reuse::kRereads) {
      // Every pass behaves alike here: one row over all of them.
      std::vector<double> off, on, hits;
      const double p = passes;
      for (size_t r = 0; r < c.offFirst.size(); ++r) {
        off.push_back(p / (1.0 / c.offFirst[r] + (p - 1) / c.offAgain[r]));
      }
      for (size_t r = 0; r < c.onFirst.size(); ++r) {
        on.push_back(p / (1.0 / c.onFirst[r] + (p - 1) / c.onAgain[r]));
        hits.push_back((c.hitFirst[r] + (p - 1) * c.hitAgain[r]) / p);
      }
      PrintRow(c.name, "all", off, on, hits);
      const double ratio = Ratio(on, off);
      Worst& worst = c.reuse == Reuse::kStream ? worstStream : worstNever;
      if (haveCache && ratio < worst.ratio) worst = Worst{ratio, c.name};
    } else {
      PrintRow(c.name, "first", c.offFirst, c.onFirst, c.hitFirst);
      PrintRow("", "re-read", c.offAgain, c.onAgain, c.hitAgain);
      if (!c.prefetchRate.empty()) {
        std::printf("  %-40s %-8s %9s %9.0f   (the prefetch alone, within the first pass)\n", "",
                    "", "", kest2_bench::Median(c.prefetchRate));
      }
      const double ratio = Ratio(c.onAgain, c.offAgain);
      if (haveCache && c.archive && ratio < worstArchive.ratio) worstArchive = Worst{ratio, c.name};
    }
    if (c.mismatches != 0)
      std::printf("  %-40s MISMATCH: %d file passes wrong or short\n", "", c.mismatches);
  }
  std::printf(
      "\n  first: the first pass; an \"on\" run starts with an empty cache, and the\n"
      "  prefetched case includes the prefetch.  re-read: passes 2 to %d.  Hits on a\n"
      "  first pass are reads served by the fill that an earlier read started.\n",
      passes);

  std::printf("\ntargets\n");
  if (!haveCache) std::printf("  not measured: no RAM cache\n");
  const auto target = [](const char* what, double goal, const Worst& worst) {
    if (worst.name == nullptr) return;
    std::printf("  %-46s on/off >= %.2f: worst %5.3f (%s): %s\n", what, goal, worst.ratio,
                worst.name, worst.ratio >= goal ? "met" : "NOT met");
    const std::string row = std::string(what) + " worst case: " + worst.name;
    kest2_bench::SummaryRow("cache", row.c_str(), "cache off", "cache on", worst.ratio,
                            kest2_bench::Format(">= %.2f", goal).c_str(), worst.ratio >= goal ? "met" : "NOT met");
  };
  target("archive re-read, no re-inflate:", kArchiveGoal, worstArchive);
  target("never hits (reads end on block boundaries):", kMissGoal, worstNever);
  target("streams through a small cache (no re-use):", kMissGoal, worstStream);
  std::printf("\nchunk storage: high water %llu of %llu\n",
              static_cast<unsigned long long>(statistics.chunkStorage.highWater),
              static_cast<unsigned long long>(statistics.chunkStorage.maxAvailable));
  std::printf("  bytes: %s\n", mismatches == 0 ? "every pass matched the source" : "MISMATCH");
  return mismatches == 0 ? 0 : 1;
}
