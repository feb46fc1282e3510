// Reading every file of a packed tree, in one run, three ways:
//
//  a. kest2 with the ZORBA archive mounted: each file read whole, either
//     one zulKestFileReadSync after another, or several zulKestFileRead
//     requests in flight at once;
//  b. a plain single-thread loop over the same archive: for each file and
//     each of its blocks, pread the stored bytes and inflate them into the
//     output (blocks found with the archive format reader);
//  c. PhysicsFS reading the same files from a zip of the same tree
//     (PHYSFS_openRead + PHYSFS_readBytes), when it was found at build time.
//
// The tree is text-like data that zlib shrinks three to four times, in
// files from a few KiB to tens of MiB.  It is packed once (64 KiB blocks)
// and zipped once; both archives are warm in the page cache, so the numbers
// compare decompression and the cost around it, not the disk.  Every method
// reads into the same pre-faulted buffer, and every file it delivered is
// checked against the source's CRC-32 after the timed run.  Rounds alternate
// between the methods and the median is reported.
//
//   kest2_archive_bench [TOTAL_MIB [IO_THREADS [DECOMPRESSOR_THREADS [IN_FLIGHT]]]]
//                       [--only=loop|kest|physfs] [--rounds=N]
//
// Defaults: 256 MiB; 1 I/O thread, since reads of a warm archive take
// microseconds; 2 decompressor threads, one per core of the 2-core machines
// this was tuned on (a third only adds switching); 4 files in flight, which
// hides most per-file latency while more only queues for the three work
// buffers.  maxChunk stays at its default: compressed block reads are never
// split, so it matters only for stored ranges.  A sweep of 1-3 I/O threads,
// 1-3 decompressor threads and 2-16 files in flight found nothing better.
//
// PhysicsFS comes from Debian's libphysfs-dev (scripts/install-deps.sh does
// not install it); the zip is made with the `zip` program, or Python's
// zipfile when that is missing.

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "archive/zorba_format.h"
#include "bench_support.h"
#include "kest2.h"
#include "kest2/archive_writer.h"

#ifdef KEST2_BENCH_HAVE_PHYSFS
#include <physfs.h>
#endif

namespace {

using kest2_bench::kKiB;
using kest2_bench::kMiB;
using kest2_bench::Now;

constexpr uint32_t kBlockSize = 64 * 1024;
constexpr int kRounds = 5;
constexpr const char* kMountPoint = "/bench";

// --- The tree ---------------------------------------------------------------

struct FileItem {
  std::string relative;  // path inside the tree, the archive and the zip
  std::string kestPath;  // the same file under the mount point
  int64_t size;
  uint32_t crc;
  int64_t slot;  // where the file lands in the shared output buffer
};

// Sizes adding up to `total`: a fifth of the bytes in small files (4-64
// KiB), a third in medium ones (64 KiB-2 MiB), the rest in large ones (8-40
// MiB), shuffled so that the read order mixes them.
std::vector<int64_t> PlanSizes(int64_t total) {
  struct Band {
    double share;
    int64_t lo, hi;
  };
  const Band bands[] = {{0.20, 4 * kKiB, 64 * kKiB}, {0.33, 64 * kKiB, 2 * kMiB}, {0.47, 8 * kMiB, 40 * kMiB}};
  kest2_bench::Random random(3);
  std::vector<int64_t> sizes;
  int64_t planned = 0;
  for (const Band& band : bands) {
    const int64_t budget = &band == &bands[2] ? total - planned : static_cast<int64_t>(band.share * total);
    for (int64_t used = 0; used < budget;) {
      int64_t size = std::min(random.LogUniform(band.lo, band.hi), budget - used);
      if (size < 4 * kKiB) size = 4 * kKiB;
      sizes.push_back(size);
      used += size;
    }
    planned += budget;
  }
  for (size_t i = sizes.size(); i > 1; --i) std::swap(sizes[i - 1], sizes[random.Below(i)]);
  return sizes;
}

std::vector<FileItem> MakeTree(const std::string& root, int64_t total) {
  const kest2_bench::TextMaker maker;
  std::vector<FileItem> files;
  std::vector<char> bytes;
  const std::vector<int64_t> sizes = PlanSizes(total);
  int64_t slot = 0;
  for (size_t i = 0; i < sizes.size(); ++i) {
    // Sixteen directories, every other one with a sub-directory.
    char relative[64];
    if (i % 2 == 0) {
      std::snprintf(relative, sizeof(relative), "d%02zu/f%05zu.txt", i % 16, i);
    } else {
      std::snprintf(relative, sizeof(relative), "d%02zu/sub/f%05zu.txt", i % 16, i);
    }
    const std::string path = root + "/" + relative;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    bytes.resize(static_cast<size_t>(sizes[i]));
    maker.Fill(bytes.data(), sizes[i], 100 + i);
    FILE* out = std::fopen(path.c_str(), "wb");
    if (out == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size() ||
        std::fclose(out) != 0) {
      std::perror(path.c_str());
      std::exit(2);
    }
    FileItem item;
    item.relative = relative;
    item.kestPath = std::string(kMountPoint) + "/" + relative;
    item.size = sizes[i];
    item.crc = static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
    item.slot = slot;
    slot += (item.size + 63) / 64 * 64;
    files.push_back(std::move(item));
  }
  return files;
}

int64_t OutputBytes(const std::vector<FileItem>& files) {
  return files.back().slot + files.back().size;
}

// Number of files whose bytes in the output are not the source's.
int CountMismatches(const std::vector<FileItem>& files, const std::vector<char>& output) {
  int bad = 0;
  for (const FileItem& file : files) {
    const uint32_t crc = static_cast<uint32_t>(crc32(
        0, reinterpret_cast<const Bytef*>(output.data() + file.slot), static_cast<uInt>(file.size)));
    if (crc != file.crc) ++bad;
  }
  return bad;
}

#ifdef KEST2_BENCH_HAVE_PHYSFS
// The zip of the tree: `zip` when installed, else Python's zipfile.  Both
// deflate at level 6, like the packer here.  Returns false when neither worked.
bool MakeZip(const std::string& tree, const std::string& zip) {
  const std::string withZip = "cd '" + tree + "' && zip -q -r -D -6 '" + zip + "' . >/dev/null 2>&1";
  if (std::system("command -v zip >/dev/null 2>&1") == 0 && std::system(withZip.c_str()) == 0) return true;
  const std::string withPython =
      "python3 -c \"import os,sys,zipfile\n"
      "root,out=sys.argv[1],sys.argv[2]\n"
      "with zipfile.ZipFile(out,'w',zipfile.ZIP_DEFLATED,compresslevel=6) as z:\n"
      "  for d,_,fs in sorted(os.walk(root)):\n"
      "    for f in sorted(fs):\n"
      "      p=os.path.join(d,f); z.write(p,os.path.relpath(p,root))\n\" '" +
      tree + "' '" + zip + "'";
  return std::system(withPython.c_str()) == 0;
}
#endif

// --- b. The single-thread loop ------------------------------------------------

// The archive as a mount holds it: header, TOC in digest order and the
// block offset index, read once before timing.
struct LoopArchive {
  int fd = -1;
  kest2::ZorbaHeader header{};
  std::vector<uint8_t> toc;
  std::vector<uint8_t> index;
};

bool OpenLoopArchive(const std::string& path, LoopArchive* archive) {
  archive->fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  uint8_t raw[kest2::kZorbaHeaderReadSize];
  if (archive->fd < 0 || pread(archive->fd, raw, sizeof(raw), 0) != static_cast<ssize_t>(sizeof(raw))) return false;
  kest2::ParseHeader(raw, &archive->header);
  if (!kest2::IsHeaderValid(archive->header)) return false;
  archive->toc.resize(archive->header.tocLength);
  if (pread(archive->fd, archive->toc.data(), archive->toc.size(),
            static_cast<off_t>(archive->header.tocOffset)) != static_cast<ssize_t>(archive->toc.size())) {
    return false;
  }
  archive->index.resize(kest2::BlockIndexSize(archive->header) + 1);
  if (kest2::BuildBlockIndex(archive->header, archive->toc.data(), archive->index.data()) != ZUL_KEST_OK)
    return false;
  kest2::SortToc(&archive->header, archive->toc.data());
  return true;
}

// Returns the bytes delivered.  One z_stream, reset per block: the cheapest
// way plain zlib offers to inflate many small streams.
int64_t ReadWithLoop(const LoopArchive& archive, const std::vector<FileItem>& files, char* output) {
  std::vector<uint8_t> stored(kBlockSize + 1024);
  z_stream stream{};
  inflateInit(&stream);
  int64_t total = 0;
  const kest2::ZorbaHeader& header = archive.header;
  for (const FileItem& file : files) {
    const uint8_t* entry = kest2::FindEntryByPath(header, archive.toc.data(), file.relative.c_str());
    if (entry == nullptr) continue;
    const uint64_t size = kest2::GetEntrySize(entry);
    const uint64_t blocks = kest2::GetEntryBlockCount(header, entry);
    char* out = output + file.slot;
    for (uint64_t b = 0; b < blocks; ++b) {
      kest2::ZorbaBlock block;
      if (kest2::LocateBlock(header, archive.toc.data(), entry, archive.index.data(), b, &block) != ZUL_KEST_OK)
        break;
      const uint64_t start = b * header.blockSize;
      const uint32_t length = static_cast<uint32_t>(std::min<uint64_t>(header.blockSize, size - start));
      if (!block.compressed) {
        const ssize_t got = pread(archive.fd, out + start, length, static_cast<off_t>(block.offset));
        if (got > 0) total += got;
        continue;
      }
      if (pread(archive.fd, stored.data(), block.storedSize, static_cast<off_t>(block.offset)) !=
          static_cast<ssize_t>(block.storedSize)) {
        break;
      }
      inflateReset(&stream);
      stream.next_in = stored.data();
      stream.avail_in = block.storedSize;
      stream.next_out = reinterpret_cast<Bytef*>(out + start);
      stream.avail_out = length;
      if (inflate(&stream, Z_FINISH) == Z_STREAM_END) total += static_cast<int64_t>(stream.total_out);
    }
    kest2_bench::NoteProgress();
  }
  inflateEnd(&stream);
  return total;
}

// --- a. kest2 -----------------------------------------------------------------

struct KestConfig {
  uint32_t ioThreads;
  uint8_t decompressorThreads;
  int inFlight;
  uint32_t maxChunk;
};

// The library set up with the dearchiver and the archive mounted; torn
// down at destruction.
class KestSession {
 public:
  KestSession(const KestConfig& config, const std::string& archive) {
    ZulKestParams params = kest2_bench::MakeParams(&m_storage, 256, 64, 16384);
    params.ioThreadCount = config.ioThreads;
    params.decompressorThreadCount = config.decompressorThreads;
    params.maxChunk = config.maxChunk;
    if (zulKestInitialize(&params) != ZUL_KEST_OK) Fail("zulKestInitialize");
    zulKestArchiveSetDecompressorThreadCount(config.decompressorThreads);
    // Three work buffers of exactly one block: a block never needs more,
    // and more of them is not something the dearchiver can use.
    m_work.assign((3 * kBlockSize + 64) / 8, 0);
    m_context.sizeOfContext = sizeof(m_context);
    m_context.workBufferSize = 3 * kBlockSize;
    m_context.pWorkBuffer =
        reinterpret_cast<void*>((reinterpret_cast<uintptr_t>(m_work.data()) + 63) & ~uintptr_t{63});
    if (zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &m_context) != ZUL_KEST_OK)
      Fail("zulKestIOFilterAdd");
    const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive.c_str(), nullptr);
    if (need < 0) Fail("zulKestArchiveGetMountBufferSizeSync");
    m_mount.assign(static_cast<size_t>(need + 7) / 8, 0);
    if (zulKestArchiveMountSync(nullptr, &m_fh, archive.c_str(), kMountPoint, m_mount.data(), need, nullptr) !=
        ZUL_KEST_OK) {
      Fail("zulKestArchiveMountSync");
    }
  }
  ~KestSession() {
    zulKestArchiveUnmountSync(nullptr, m_fh);
    zulKestIOFilterRemove(0);
    zulKestTerminate();
  }
  KestSession(const KestSession&) = delete;
  KestSession& operator=(const KestSession&) = delete;

 private:
  [[noreturn]] static void Fail(const char* what) {
    std::fprintf(stderr, "kest2: %s failed\n", what);
    std::exit(1);
  }
  kest2_bench::KestStorage m_storage;
  std::vector<uint64_t> m_work;
  std::vector<uint64_t> m_mount;
  ZulKestZorbaDearchiverContext m_context{};
  ZulKestFH m_fh = 0;
};

int64_t ReadWithKestSync(const std::vector<FileItem>& files, char* output) {
  int64_t total = 0;
  for (const FileItem& file : files) {
    const int64_t got = zulKestFileReadSync(nullptr, file.kestPath.c_str(), output + file.slot, file.size, 0);
    if (got > 0) total += got;
    kest2_bench::NoteProgress();
  }
  return total;
}

// A window of whole-file reads: while one file's blocks wait for the
// decompressors, the next files' lookups and first block reads proceed.
int64_t ReadWithKestAsync(const std::vector<FileItem>& files, char* output, int inFlight) {
  std::vector<ZulKestOp> slots(static_cast<size_t>(inFlight), 0);
  int64_t total = 0;
  size_t next = 0;
  for (size_t slot = 0;; slot = (slot + 1) % slots.size()) {
    if (slots[slot] != 0) {
      if (zulKestOpWait(slots[slot]) == ZUL_KEST_OK) total += zulKestOpGetActualCount(slots[slot]);
      zulKestOpDelete(slots[slot]);
      slots[slot] = 0;
      kest2_bench::NoteProgress();
    }
    if (next < files.size()) {
      const FileItem& file = files[next++];
      slots[slot] = zulKestFileRead(nullptr, file.kestPath.c_str(), output + file.slot, file.size, 0);
    } else if (std::all_of(slots.begin(), slots.end(), [](ZulKestOp op) { return op == 0; })) {
      break;
    }
  }
  return total;
}

// --- c. PhysicsFS -------------------------------------------------------------

#ifdef KEST2_BENCH_HAVE_PHYSFS
int64_t ReadWithPhysfs(const std::vector<FileItem>& files, char* output) {
  int64_t total = 0;
  for (const FileItem& file : files) {
    PHYSFS_File* handle = PHYSFS_openRead(file.relative.c_str());
    if (handle == nullptr) continue;
    const PHYSFS_sint64 got = PHYSFS_readBytes(handle, output + file.slot, static_cast<PHYSFS_uint64>(file.size));
    if (got > 0) total += got;
    PHYSFS_close(handle);
    kest2_bench::NoteProgress();
  }
  return total;
}
#endif

// --- Measurement ----------------------------------------------------------------

struct Method {
  const char* name;
  std::vector<double> rates;
  int mismatches = 0;  // files whose bytes differ, plus runs short of bytes, over all rounds
};

// Clears the output, times one read of the whole tree, then checks it.
template <typename Read>
void Measure(Method* method, const std::vector<FileItem>& files, std::vector<char>* output, Read read) {
  std::memset(output->data(), 0, output->size());
  kest2_bench::SetRunning(method->name);
  const ZulKestTime start = Now();
  const int64_t bytes = read(output->data());
  const ZulKestTime elapsed = Now() - start;
  kest2_bench::SetRunning(nullptr);
  method->rates.push_back(kest2_bench::MiBPerSecond(bytes, elapsed));
  int64_t expected = 0;
  for (const FileItem& file : files) expected += file.size;
  method->mismatches += CountMismatches(files, *output) + (bytes != expected ? 1 : 0);
}

void PrintRow(const Method& method) {
  std::printf("  %-36s %9.0f %9.0f %9.0f   %s\n", method.name, kest2_bench::Median(method.rates),
              *std::min_element(method.rates.begin(), method.rates.end()),
              *std::max_element(method.rates.begin(), method.rates.end()),
              method.mismatches == 0 ? "all files match" : "MISMATCH");
}

}  // namespace

int main(int argc, char** argv) {
  // Numbers in order, plus --only=loop|kest|physfs and --rounds=N, which
  // make a run to profile one method under perf.
  std::vector<long long> numbers;
  std::string only;
  int rounds = kRounds;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--only=", 0) == 0) {
      only = arg.substr(7);
    } else if (arg.rfind("--rounds=", 0) == 0) {
      rounds = std::max(1, std::atoi(arg.c_str() + 9));
    } else {
      numbers.push_back(std::atoll(arg.c_str()));
    }
  }
  const auto wanted = [&](const char* method) { return only.empty() || only == method; };
  const int64_t totalMiB = numbers.size() > 0 ? std::max(1ll, numbers[0]) : 256;
  KestConfig config{1, 2, 4, 0};
  if (numbers.size() > 1) config.ioThreads = static_cast<uint32_t>(numbers[1]);
  if (numbers.size() > 2) config.decompressorThreads = static_cast<uint8_t>(numbers[2]);
  if (numbers.size() > 3) config.inFlight = std::max(1, static_cast<int>(numbers[3]));

  kest2_bench::TempDir dir;
  const std::string tree = dir.path() + "/tree";
  const std::string archive = dir.path() + "/tree.zorba";

  ZulKestTime mark = Now();
  const std::vector<FileItem> files = MakeTree(tree, totalMiB * kMiB);
  int64_t treeBytes = 0;
  int64_t largest = 0;
  int64_t smallest = INT64_MAX;
  for (const FileItem& file : files) {
    treeBytes += file.size;
    largest = std::max(largest, file.size);
    smallest = std::min(smallest, file.size);
  }
  const double makeSeconds = static_cast<double>(Now() - mark) / 1e9;

  mark = Now();
  kest2_cli::PackOptions options;
  options.blockSize = kBlockSize;
  options.level = 6;  // zlib's default; inflate speed hardly depends on it
  options.jobs = 2;
  kest2_cli::PackSummary summary;
  std::string error;
  if (!kest2_cli::PackDirectory(tree, archive, options, &summary, &error)) {
    std::fprintf(stderr, "pack: %s\n", error.c_str());
    return 1;
  }
  const double packSeconds = static_cast<double>(Now() - mark) / 1e9;

#ifdef KEST2_BENCH_HAVE_PHYSFS
  const std::string zip = dir.path() + "/tree.zip";
  mark = Now();
  const bool haveZip = MakeZip(tree, zip);
  const double zipSeconds = static_cast<double>(Now() - mark) / 1e9;
  const int64_t zipBytes = haveZip ? static_cast<int64_t>(std::filesystem::file_size(zip)) : 0;
#endif

  std::printf("kest2 archive read: %zu files, %.1f MiB (%.1f KiB to %.1f MiB), text-like data\n", files.size(),
              static_cast<double>(treeBytes) / kMiB, static_cast<double>(smallest) / kKiB,
              static_cast<double>(largest) / kMiB);
  std::printf("  ZORBA archive: %.1f MiB, ratio %.2f, 64 KiB blocks, zlib level 6"
              "  (made in %.1f s, packed in %.1f s)\n",
              static_cast<double>(summary.archiveBytes) / kMiB,
              static_cast<double>(treeBytes) / static_cast<double>(summary.archiveBytes), makeSeconds, packSeconds);
#ifdef KEST2_BENCH_HAVE_PHYSFS
  if (haveZip) {
    std::printf("  zip:           %.1f MiB, ratio %.2f, deflate level 6 (zipped in %.1f s)\n",
                static_cast<double>(zipBytes) / kMiB, static_cast<double>(treeBytes) / static_cast<double>(zipBytes),
                zipSeconds);
  } else {
    std::printf("  zip:           could not be made (neither zip nor python3 worked)\n");
  }
#endif
  std::printf("  kest2: %u I/O thread(s), %u decompressor thread(s), maxChunk %s, 3 work buffers of 64 KiB,"
              " %d files in flight when asynchronous\n",
              config.ioThreads, config.decompressorThreads, config.maxChunk == 0 ? "default (512 KiB)" : "custom",
              config.inFlight);

  // Write-back must not run while the methods are timed, and every
  // archive is read once so that the page cache holds it.
  kest2_bench::FlushToDevice();
  std::filesystem::remove_all(tree);  // the methods read archives only
  kest2_bench::WarmFile(archive);

  LoopArchive loopArchive;
  if (!OpenLoopArchive(archive, &loopArchive)) {
    std::fprintf(stderr, "the format reader refused %s\n", archive.c_str());
    return 1;
  }

#ifdef KEST2_BENCH_HAVE_PHYSFS
  bool physfsReady = false;
  if (haveZip) {
    kest2_bench::WarmFile(zip);
    physfsReady = PHYSFS_init(argv[0]) != 0 && PHYSFS_mount(zip.c_str(), nullptr, 1) != 0;
    if (!physfsReady) {
      std::printf("  PhysicsFS: could not mount the zip (%s)\n", PHYSFS_getErrorByCode(PHYSFS_getLastErrorCode()));
    }
  }
#endif

  // A read that never completes would otherwise hang the run without a
  // word: the watchdog ends it once no file has finished for a while.
  kest2_bench::StartStallWatchdog(dir.path(), kest2_bench::kStallSeconds, "file");
  // One buffer for all files, touched once so that page faults are not timed.
  std::vector<char> output(static_cast<size_t>(OutputBytes(files)), 1);

  Method loop{"single-thread pread + inflate loop", {}};
  Method kestSync{"kest2, one file at a time (sync)", {}};
  Method kestAsync{"kest2, files in flight (async)", {}};
  Method physfs{"PhysicsFS, zip", {}};
  {
    KestSession session(config, archive);
    std::printf("  measuring...\n");
    std::fflush(stdout);
    for (int round = 0; round < rounds; ++round) {
      if (wanted("loop"))
        Measure(&loop, files, &output, [&](char* out) { return ReadWithLoop(loopArchive, files, out); });
      if (wanted("kest")) {
        Measure(&kestSync, files, &output, [&](char* out) { return ReadWithKestSync(files, out); });
        Measure(&kestAsync, files, &output,
                [&](char* out) { return ReadWithKestAsync(files, out, config.inFlight); });
      }
#ifdef KEST2_BENCH_HAVE_PHYSFS
      if (physfsReady && wanted("physfs"))
        Measure(&physfs, files, &output, [&](char* out) { return ReadWithPhysfs(files, out); });
#endif
    }
  }
#ifdef KEST2_BENCH_HAVE_PHYSFS
  if (physfsReady) PHYSFS_deinit();
#endif
  close(loopArchive.fd);

  if (!only.empty()) {
    for (const Method* method : {&loop, &kestSync, &kestAsync, &physfs}) {
      if (!method->rates.empty()) PrintRow(*method);
    }
    return 0;
  }
  std::printf("\nMiB/s of uncompressed bytes, %d rounds   %9s %9s %9s   %s\n", rounds, "median", "min", "max",
              "checksums");
  PrintRow(loop);
  PrintRow(kestSync);
  PrintRow(kestAsync);
  const bool asyncBetter = kest2_bench::Median(kestAsync.rates) >= kest2_bench::Median(kestSync.rates);
  const Method& best = asyncBetter ? kestAsync : kestSync;
  const double bestRate = kest2_bench::Median(best.rates);
  const double loopRate = kest2_bench::Median(loop.rates);
  const bool havePhysfs = !physfs.rates.empty();
  if (havePhysfs) {
    PrintRow(physfs);
  } else {
    std::printf("  PhysicsFS: not available\n");
  }

  std::printf("\nkest2 best: %s, %.0f MiB/s\n", asyncBetter ? "async" : "sync", bestRate);
  const double vsLoop = bestRate / loopRate;
  std::printf("  kest2 / loop      %6.2f   target >= 1.6x the single-thread loop: %s\n", vsLoop,
              vsLoop >= 1.6 ? "met" : "NOT met");
  kest2_bench::SummaryRow("archive", "every file of a packed tree", kest2_bench::Format("inflate loop %.0f MiB/s", loopRate),
                          kest2_bench::Format("%.0f MiB/s", bestRate), vsLoop, ">= 1.60",
                          vsLoop >= 1.6 ? "met" : "NOT met");
  if (havePhysfs) {
    const double vsPhysfs = bestRate / kest2_bench::Median(physfs.rates);
    std::printf("  kest2 / PhysicsFS %6.2f   target ahead of PhysicsFS: %s\n", vsPhysfs,
                vsPhysfs > 1.0 ? "met" : "NOT met");
    kest2_bench::SummaryRow("archive", "every file of a packed tree",
                            kest2_bench::Format("PhysicsFS %.0f MiB/s", kest2_bench::Median(physfs.rates)),
                            kest2_bench::Format("%.0f MiB/s", bestRate), vsPhysfs, "> 1.00",
                            vsPhysfs > 1.0 ? "met" : "NOT met");
  } else {
    std::printf("  kest2 / PhysicsFS     -    target ahead of PhysicsFS: not measured\n");
  }
  return 0;
}
