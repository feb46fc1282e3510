// Reading every file of a packed tree: kest2 with the archive mounted
// against what a program would write instead, on the same two cores.
//
//  - kest2 (1 I/O thread, 2 decompressor threads) with the ZORBA archive
//    mounted: each file read whole, one zulKestFileReadSync after another,
//    or a window of 4, 64 or 256 zulKestFileRead requests in flight;
//  - a 2-thread pool over the same archive: a queue of files, two workers
//    that pread each block's stored bytes and inflate them into the output
//    with libdeflate (and, for reference, zlib), and a completion queue
//    back to the submitter, which keeps the same window of files in flight;
//  - the same block loop on one thread (libdeflate and zlib): the cost of
//    the inflate itself, from which kest2's CPU outside inflate is derived;
//  - PhysicsFS reading the same files from a zip of the same tree, on one
//    thread and on two (PHYSFS_openRead + PHYSFS_readBytes), when it was
//    found at build time.
//
// The tree is text-like data that zlib shrinks three to four times, in
// files from a few KiB to tens of MiB, at 64 MiB, 256 MiB and 1 GiB: the
// cost must grow with the size and nothing else.  It is packed once (64 KiB
// blocks, level 6) and zipped once.  Before each repetition both archives
// are read once, so that every method finds them in the page cache and the
// numbers compare decompression and the cost around it, not the disk.
// Each repetition runs every method once, the order rotated by one place
// per repetition; the median and the spread over the repetitions are
// printed.  Every method reads into the same pre-faulted buffer, and every
// file it delivered is checked against the source's CRC-32 after the run.
//
// CPU per block is the whole process's (getrusage: every thread, the
// submitter's waits included) over the tree's 64 KiB blocks.  The
// single-thread libdeflate loop does nothing but pread and inflate, so
// kest2's CPU per block minus the loop's is what kest2 spends around the
// inflate.
//
//   kest2_archive_bench [--sizes=64,256,1024] [--reps=N] [--only=WORD]
//                       [--data=DIR]
//
// --only runs the methods whose name contains WORD (to profile one under
// perf); --data keeps the trees' archives in DIR and reuses them in the
// next run instead of making them again.
//
// PhysicsFS comes from Debian's libphysfs-dev (scripts/install-deps.sh
// installs it); the zip is made with the `zip` program, or Python's
// zipfile when that is missing.

#include <fcntl.h>
#include <libdeflate.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "archive/zorba_format.h"
#include "bench_support.h"
#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
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
constexpr int kDefaultReps = 3;
constexpr const char* kMountPoint = "/bench";
constexpr int kWindows[] = {4, 64, 256};
constexpr int kPoolThreads = 2;

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
  kest2_common::Random random(3);
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

void WriteWhole(const std::string& path, const std::vector<char>& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size() ||
      std::fclose(out) != 0) {
    std::perror(path.c_str());
    std::exit(2);
  }
}

// The files of a tree of `total` bytes, with their checksums; written under
// `root` unless it is empty (the contents are the same either way).
std::vector<FileItem> PlanTree(const std::string& root, int64_t total) {
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
    bytes.resize(static_cast<size_t>(sizes[i]));
    maker.Fill(bytes.data(), sizes[i], 100 + i);
    if (!root.empty()) WriteWhole(root + "/" + relative, bytes);
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

int64_t FileBytes(const std::string& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return error ? -1 : static_cast<int64_t>(size);
}

// One size of tree: its files, its archive and its zip.
struct DataSet {
  int64_t totalMiB = 0;
  std::vector<FileItem> files;
  std::string archive;
  std::string zip;  // empty when it could not be made
  int64_t bytes = 0;
  int64_t blocks = 0;  // 64 KiB blocks of all files
};

// Makes the tree, packs and zips it and removes it again; with `keep`, an
// archive and zip already in `dir` from an earlier run are used as they are.
DataSet PrepareDataSet(const std::string& dir, int64_t totalMiB, bool keep) {
  DataSet data;
  data.totalMiB = totalMiB;
  const std::string stem = dir + "/tree" + std::to_string(totalMiB);
  data.archive = stem + ".zorba";
  data.zip = stem + ".zip";
  const bool reuse = keep && FileBytes(data.archive) > 0 && FileBytes(data.zip) > 0;
  const ZulKestTime start = Now();
  data.files = PlanTree(reuse ? std::string() : stem, totalMiB * kMiB);
  for (const FileItem& file : data.files) {
    data.bytes += file.size;
    data.blocks += (file.size + kBlockSize - 1) / kBlockSize;
  }
  if (!reuse) {
    kest2_cli::PackOptions options;
    options.blockSize = kBlockSize;
    options.level = 6;  // zlib's default; inflate speed hardly depends on it
    options.jobs = 2;
    kest2_cli::PackSummary summary;
    std::string error;
    if (!kest2_cli::PackDirectory(stem, data.archive, options, &summary, &error)) {
      std::fprintf(stderr, "pack: %s\n", error.c_str());
      std::exit(1);
    }
    if (!MakeZip(stem, data.zip)) data.zip.clear();
    std::filesystem::remove_all(stem);  // the methods read archives only
    // Write-back must not run while the methods are timed.
    kest2_bench::FlushToDevice();
  }
  const int64_t archiveBytes = FileBytes(data.archive);
  std::printf("\n%lld MiB tree: %zu files, %lld blocks of 64 KiB; archive %.1f MiB (ratio %.2f)",
              static_cast<long long>(totalMiB), data.files.size(),
              static_cast<long long>(data.blocks), static_cast<double>(archiveBytes) / kMiB,
              static_cast<double>(data.bytes) / static_cast<double>(archiveBytes));
  if (!data.zip.empty())
    std::printf(", zip %.1f MiB", static_cast<double>(FileBytes(data.zip)) / kMiB);
  std::printf("; %s in %.1f s\n", reuse ? "reused" : "made",
              static_cast<double>(Now() - start) / 1e9);
  return data;
}

// Number of files whose bytes in the output are not the source's.
int CountMismatches(const std::vector<FileItem>& files, const std::vector<char>& output) {
  int bad = 0;
  for (const FileItem& file : files) {
    const uint32_t crc =
        static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(output.data() + file.slot),
                                    static_cast<uInt>(file.size)));
    if (crc != file.crc) ++bad;
  }
  return bad;
}

// --- The block loop, on one thread or on each worker of a pool ----------------

// The archive as a mount holds it: header, TOC in digest order and the
// block offset index, read once before timing.
struct ArchiveIndex {
  int fd = -1;
  kest2::ZorbaHeader header{};
  std::vector<uint8_t> toc;
  std::vector<uint8_t> index;

  ~ArchiveIndex() {
    if (fd >= 0) close(fd);
  }
};

bool OpenArchiveIndex(const std::string& path, ArchiveIndex* archive) {
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

// Whole-buffer inflate of one zlib stream of known output size: what a
// program picks today for blocks like these.
class LibdeflateInflater {
 public:
  LibdeflateInflater() : m_decompressor(libdeflate_alloc_decompressor()) {}
  ~LibdeflateInflater() { libdeflate_free_decompressor(m_decompressor); }
  LibdeflateInflater(const LibdeflateInflater&) = delete;
  LibdeflateInflater& operator=(const LibdeflateInflater&) = delete;
  bool Inflate(const uint8_t* in, size_t inSize, char* out, size_t outSize) {
    size_t produced = 0;
    return libdeflate_zlib_decompress(m_decompressor, in, inSize, out, outSize, &produced) ==
               LIBDEFLATE_SUCCESS &&
           produced == outSize;
  }

 private:
  libdeflate_decompressor* m_decompressor;
};

// One z_stream, reset per block: the cheapest way plain zlib offers to
// inflate many small streams.
class ZlibInflater {
 public:
  ZlibInflater() { inflateInit(&m_stream); }
  ~ZlibInflater() { inflateEnd(&m_stream); }
  ZlibInflater(const ZlibInflater&) = delete;
  ZlibInflater& operator=(const ZlibInflater&) = delete;
  bool Inflate(const uint8_t* in, size_t inSize, char* out, size_t outSize) {
    inflateReset(&m_stream);
    m_stream.next_in = const_cast<uint8_t*>(in);
    m_stream.avail_in = static_cast<uInt>(inSize);
    m_stream.next_out = reinterpret_cast<Bytef*>(out);
    m_stream.avail_out = static_cast<uInt>(outSize);
    return inflate(&m_stream, Z_FINISH) == Z_STREAM_END && m_stream.total_out == outSize;
  }

 private:
  z_stream m_stream{};
};

// Reads one file's blocks into `out`; returns the bytes delivered.
template <typename Inflater>
int64_t DecodeFile(const ArchiveIndex& archive, const FileItem& file, char* out, Inflater* inflater,
                   std::vector<uint8_t>* stored) {
  const kest2::ZorbaHeader& header = archive.header;
  const uint8_t* entry = kest2::FindEntryByPath(header, archive.toc.data(), file.relative.c_str());
  if (entry == nullptr) return 0;
  const uint64_t size = kest2::GetEntrySize(entry);
  const uint64_t blocks = kest2::GetEntryBlockCount(header, entry);
  int64_t total = 0;
  for (uint64_t b = 0; b < blocks; ++b) {
    kest2::ZorbaBlock block;
    if (kest2::LocateBlock(header, archive.toc.data(), entry, archive.index.data(), b, &block) !=
        ZUL_KEST_OK)
      break;
    const uint64_t start = b * header.blockSize;
    const size_t length = static_cast<size_t>(std::min<uint64_t>(header.blockSize, size - start));
    if (!block.compressed) {
      const ssize_t got = pread(archive.fd, out + start, length, static_cast<off_t>(block.offset));
      if (got > 0) total += got;
      continue;
    }
    if (stored->size() < block.storedSize) stored->resize(block.storedSize);
    if (pread(archive.fd, stored->data(), block.storedSize, static_cast<off_t>(block.offset)) !=
            static_cast<ssize_t>(block.storedSize) ||
        !inflater->Inflate(stored->data(), block.storedSize, out + start, length)) {
      break;
    }
    total += static_cast<int64_t>(length);
  }
  return total;
}

template <typename Inflater>
int64_t ReadWithLoop(const ArchiveIndex& archive, const std::vector<FileItem>& files,
                     char* output) {
  Inflater inflater;
  std::vector<uint8_t> stored(kBlockSize + 1024);
  int64_t total = 0;
  for (const FileItem& file : files) {
    total += DecodeFile(archive, file, output + file.slot, &inflater, &stored);
    kest2_bench::NoteProgress();
  }
  return total;
}

// Two workers take files from a queue and hand each result back through a
// completion queue; the submitter keeps `window` files in flight.
template <typename Inflater>
int64_t ReadWithPool(const ArchiveIndex& archive, const std::vector<FileItem>& files, char* output,
                     int window) {
  std::mutex mutex;
  std::condition_variable jobReady;
  std::condition_variable completed;
  std::deque<size_t> jobs;
  std::deque<int64_t> results;
  bool stop = false;
  std::vector<std::thread> workers;
  for (int i = 0; i < kPoolThreads; ++i) {
    workers.emplace_back([&] {
      Inflater inflater;
      std::vector<uint8_t> stored(kBlockSize + 1024);
      std::unique_lock<std::mutex> lock(mutex);
      for (;;) {
        jobReady.wait(lock, [&] { return stop || !jobs.empty(); });
        if (jobs.empty()) return;
        const FileItem& file = files[jobs.front()];
        jobs.pop_front();
        lock.unlock();
        const int64_t got = DecodeFile(archive, file, output + file.slot, &inflater, &stored);
        lock.lock();
        results.push_back(got);
        completed.notify_one();
      }
    });
  }
  int64_t total = 0;
  size_t next = 0;
  size_t done = 0;
  std::unique_lock<std::mutex> lock(mutex);
  while (done < files.size()) {
    for (; next < files.size() && next - done < static_cast<size_t>(window); ++next) {
      jobs.push_back(next);
      jobReady.notify_one();
    }
    completed.wait(lock, [&] { return !results.empty(); });
    for (; !results.empty(); results.pop_front(), ++done) {
      total += results.front();
      kest2_bench::NoteProgress();
    }
  }
  stop = true;
  jobReady.notify_all();
  lock.unlock();
  for (std::thread& worker : workers) worker.join();
  return total;
}

// --- kest2 ----------------------------------------------------------------------

// The library set up with the dearchiver and the archive mounted; torn
// down at destruction.
class KestSession {
 public:
  explicit KestSession(const std::string& archive) {
    const uint32_t operations = 2 * static_cast<uint32_t>(kWindows[std::size(kWindows) - 1]) + 64;
    ZulKestParams params = m_storage.MakeParams(operations, 64, kest2_bench::kDirHandles,
                                                kest2_bench::kPathMax, 65536);
    params.ioThreadCount = 1;  // reads of a warm archive take microseconds
    params.decompressorThreadCount = 2;
    if (zulKestInitialize(&params) != ZUL_KEST_OK) Fail("zulKestInitialize");
    zulKestArchiveSetDecompressorThreadCount(2);
    // Three work buffers of exactly one block: a block never needs more.
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
  kest2_common::LibraryStorage m_storage;
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

// A window of whole-file reads, waited for in the order they were issued.
int64_t ReadWithKestAsync(const std::vector<FileItem>& files, char* output, int window) {
  std::vector<ZulKestOp> slots(static_cast<size_t>(window), 0);
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

// --- PhysicsFS ------------------------------------------------------------------

#ifdef KEST2_BENCH_HAVE_PHYSFS
// `threads` threads take the next file until none is left.
int64_t ReadWithPhysfs(const std::vector<FileItem>& files, char* output, int threads) {
  std::atomic<size_t> next{0};
  std::atomic<int64_t> total{0};
  const auto work = [&] {
    for (size_t i; (i = next.fetch_add(1)) < files.size();) {
      const FileItem& file = files[i];
      PHYSFS_File* handle = PHYSFS_openRead(file.relative.c_str());
      if (handle == nullptr) continue;
      const PHYSFS_sint64 got =
          PHYSFS_readBytes(handle, output + file.slot, static_cast<PHYSFS_uint64>(file.size));
      if (got > 0) total += got;
      PHYSFS_close(handle);
      kest2_bench::NoteProgress();
    }
  };
  std::vector<std::thread> helpers;
  for (int i = 1; i < threads; ++i) helpers.emplace_back(work);
  work();
  for (std::thread& helper : helpers) helper.join();
  return total;
}
#endif

// --- Measurement ----------------------------------------------------------------

enum class Kind { kKest, kPoolLibdeflate, kPoolZlib, kLoopLibdeflate, kLoopZlib, kPhysfs };

struct Method {
  std::string name;
  Kind kind;
  int window;  // files in flight (kest2 async, pools) or threads (PhysicsFS); 0: one at a time
  std::function<int64_t(char*)> read;
  std::vector<double> rates;
  std::vector<double> cpuPerBlock;  // microseconds
  int mismatches = 0;  // files whose bytes differ, plus runs short of bytes, over all repetitions
};

double ProcessCpuMicroseconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return (static_cast<double>(usage.ru_utime.tv_sec) + static_cast<double>(usage.ru_stime.tv_sec)) *
             1e6 +
         static_cast<double>(usage.ru_utime.tv_usec) + static_cast<double>(usage.ru_stime.tv_usec);
}

// Clears the output, times one read of the whole tree, then checks it.
void Measure(Method* method, const DataSet& data, std::vector<char>* output) {
  std::memset(output->data(), 0, output->size());
  kest2_bench::SetRunning(method->name.c_str());
  const double cpuBefore = ProcessCpuMicroseconds();
  const ZulKestTime start = Now();
  const int64_t bytes = method->read(output->data());
  const ZulKestTime elapsed = Now() - start;
  const double cpu = ProcessCpuMicroseconds() - cpuBefore;
  kest2_bench::SetRunning(nullptr);
  method->rates.push_back(kest2_bench::MiBPerSecond(bytes, elapsed));
  method->cpuPerBlock.push_back(cpu / static_cast<double>(data.blocks));
  method->mismatches += CountMismatches(data.files, *output) + (bytes != data.bytes ? 1 : 0);
}

double MedianRate(const Method& method) { return kest2_bench::Median(method.rates); }

const Method* Find(const std::vector<Method>& methods, Kind kind, int window) {
  for (const Method& method : methods) {
    if (method.kind == kind && method.window == window && !method.rates.empty()) return &method;
  }
  return nullptr;
}

// One verdict line and summary row: kest2's rate against a baseline's.
void Compare(const DataSet& data, const Method& kest, const Method* baseline, double target,
             bool* allMet) {
  if (baseline == nullptr) return;
  const double ratio = MedianRate(kest) / MedianRate(*baseline);
  const bool met = ratio >= target;
  *allMet = *allMet && met;
  const std::string what =
      kest2_bench::Format("%.0f MiB tree, ", static_cast<double>(data.totalMiB)) +
      std::to_string(kest.window) + " files in flight";
  std::printf("  %-32s %-32s %6.2f   >= %.2f  %s\n", what.c_str(), baseline->name.c_str(), ratio,
              target, met ? "met" : "NOT met");
  const std::string baselineText =
      baseline->name + kest2_bench::Format(" %.0f MiB/s", MedianRate(*baseline));
  kest2_bench::SummaryRow("archive", what.c_str(), baselineText,
                          kest2_bench::Format("%.0f MiB/s", MedianRate(kest)), ratio,
                          kest2_bench::Format(">= %.2f", target).c_str(), met ? "met" : "NOT met");
}

struct SizeResult {
  int64_t totalMiB;
  double kestCpuPerBlock;  // at 64 files in flight
  double outsideInflate;
};

SizeResult RunSize(const DataSet& data, int reps, const std::string& only) {
  ArchiveIndex archive;
  if (!OpenArchiveIndex(data.archive, &archive)) {
    std::fprintf(stderr, "the format reader refused %s\n", data.archive.c_str());
    std::exit(1);
  }
  const std::vector<FileItem>& files = data.files;
  std::vector<Method> methods;
  const auto add = [&](std::string name, Kind kind, int window,
                       std::function<int64_t(char*)> read) {
    if (only.empty() || name.find(only) != std::string::npos)
      methods.push_back(Method{std::move(name), kind, window, std::move(read), {}, {}, 0});
  };
  add("kest2, one file at a time", Kind::kKest, 0,
      [&](char* out) { return ReadWithKestSync(files, out); });
  for (int window : kWindows) {
    add("kest2, " + std::to_string(window) + " in flight", Kind::kKest, window,
        [&files, window](char* out) { return ReadWithKestAsync(files, out, window); });
    add("pool libdeflate, " + std::to_string(window) + " in flight", Kind::kPoolLibdeflate, window,
        [&, window](char* out) {
          return ReadWithPool<LibdeflateInflater>(archive, files, out, window);
        });
  }
  add("pool zlib, 64 in flight", Kind::kPoolZlib, 64,
      [&](char* out) { return ReadWithPool<ZlibInflater>(archive, files, out, 64); });
  add("loop libdeflate, 1 thread", Kind::kLoopLibdeflate, 0,
      [&](char* out) { return ReadWithLoop<LibdeflateInflater>(archive, files, out); });
  add("loop zlib, 1 thread", Kind::kLoopZlib, 0,
      [&](char* out) { return ReadWithLoop<ZlibInflater>(archive, files, out); });
#ifdef KEST2_BENCH_HAVE_PHYSFS
  bool physfsReady = false;
  if (!data.zip.empty()) {
    physfsReady =
        PHYSFS_init("kest2_archive_bench") != 0 && PHYSFS_mount(data.zip.c_str(), nullptr, 1) != 0;
    if (!physfsReady)
      std::printf("  PhysicsFS: could not mount the zip (%s)\n", PHYSFS_getErrorByCode(PHYSFS_getLastErrorCode()));
  }
  if (physfsReady) {
    for (int threads : {1, 2}) {
      add("PhysicsFS zip, " + std::to_string(threads) + (threads == 1 ? " thread" : " threads"),
          Kind::kPhysfs, threads,
          [&files, threads](char* out) { return ReadWithPhysfs(files, out, threads); });
    }
  }
#endif

  // One buffer for all files, touched once so that page faults are not timed.
  std::vector<char> output(static_cast<size_t>(files.back().slot + files.back().size), 1);
  {
    KestSession session(data.archive);
    for (int rep = 0; rep < reps; ++rep) {
      // The page cache drops what is left untouched for a minute or so.
      kest2_bench::WarmFile(data.archive);
      if (!data.zip.empty()) kest2_bench::WarmFile(data.zip);
      for (size_t i = 0; i < methods.size(); ++i)
        Measure(&methods[(i + rep) % methods.size()], data, &output);
      std::printf("  repetition %d done\n", rep + 1);
      std::fflush(stdout);
    }
  }
#ifdef KEST2_BENCH_HAVE_PHYSFS
  if (physfsReady) PHYSFS_deinit();
#endif

  const Method* inflateOnly = Find(methods, Kind::kLoopLibdeflate, 0);
  const double inflateCpu =
      inflateOnly != nullptr ? kest2_bench::Median(inflateOnly->cpuPerBlock) : 0;
  std::printf("\n  %-30s %22s %12s %16s  %s\n", "MiB/s of uncompressed bytes", "median (min-max)",
              "CPU us/block", "outside inflate", "checksums");
  for (const Method& method : methods) {
    const double cpu = kest2_bench::Median(method.cpuPerBlock);
    char spread[64];
    std::snprintf(spread, sizeof(spread), "%.0f (%.0f-%.0f)", MedianRate(method),
                  *std::min_element(method.rates.begin(), method.rates.end()),
                  *std::max_element(method.rates.begin(), method.rates.end()));
    std::printf("  %-30s %22s %12.1f %16.1f  %s\n", method.name.c_str(), spread, cpu,
                inflateOnly != nullptr ? cpu - inflateCpu : 0.0,
                method.mismatches == 0 ? "all match" : "MISMATCH");
    if (method.mismatches != 0) {
      std::fprintf(stderr, "%s delivered wrong bytes\n", method.name.c_str());
      std::exit(1);
    }
  }

  SizeResult result{data.totalMiB, 0, 0};
  bool allMet = true;
  std::printf("\n  %-32s %-32s %6s   %s\n", "kest2", "against", "ratio", "target");
  double best = 0;
  for (int window : kWindows) {
    if (const Method* kest = Find(methods, Kind::kKest, window))
      best = std::max(best, MedianRate(*kest));
  }
  for (int window : kWindows) {
    const Method* kest = Find(methods, Kind::kKest, window);
    if (kest == nullptr) continue;
    if (window != kWindows[std::size(kWindows) - 1]) {
      Compare(data, *kest, Find(methods, Kind::kPoolLibdeflate, window), 0.8, &allMet);
      Compare(data, *kest, Find(methods, Kind::kPhysfs, 2), 2.0, &allMet);
      continue;
    }
    const double ratio = MedianRate(*kest) / best;
    const std::string what =
        kest2_bench::Format("%.0f MiB tree, ", static_cast<double>(data.totalMiB)) +
        std::to_string(window) + " files in flight";
    std::printf("  %-32s %-32s %6.2f   >= 0.90  %s\n", what.c_str(), "kest2's best window", ratio,
                ratio >= 0.9 ? "met" : "NOT met");
    kest2_bench::SummaryRow("archive", what.c_str(),
                            kest2_bench::Format("best window %.0f MiB/s", best),
                            kest2_bench::Format("%.0f MiB/s", MedianRate(*kest)), ratio, ">= 0.90",
                            ratio >= 0.9 ? "met" : "NOT met");
  }
  if (const Method* kest = Find(methods, Kind::kKest, 64)) {
    result.kestCpuPerBlock = kest2_bench::Median(kest->cpuPerBlock);
    result.outsideInflate = result.kestCpuPerBlock - inflateCpu;
    if (inflateOnly != nullptr) {
      const bool met = result.outsideInflate <= 10.0;
      std::printf("  %-32s %-32s %6.1f us <= 10 us  %s\n", "kest2 CPU per block, 64 in flight",
                  "outside inflate", result.outsideInflate, met ? "met" : "NOT met");
      const std::string what = kest2_bench::Format("%.0f MiB tree, CPU per block outside inflate",
                                                   static_cast<double>(data.totalMiB));
      kest2_bench::SummaryRow("archive", what.c_str(),
                              kest2_bench::Format("inflate %.1f us", inflateCpu),
                              kest2_bench::Format("%.1f us", result.outsideInflate),
                              result.outsideInflate, "<= 10.0", met ? "met" : "NOT met");
    }
  }
  return result;
}

std::vector<int64_t> ParseSizes(const std::string& text) {
  std::vector<int64_t> sizes;
  for (size_t start = 0; start < text.size();) {
    const size_t comma = text.find(',', start);
    sizes.push_back(std::max(1ll, std::atoll(text.substr(start, comma - start).c_str())));
    start = comma == std::string::npos ? text.size() : comma + 1;
  }
  return sizes;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int64_t> sizes = {64, 256, 1024};
  int reps = kDefaultReps;
  std::string only;
  std::string keepDir;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--sizes=", 0) == 0) {
      sizes = ParseSizes(arg.substr(8));
    } else if (arg.rfind("--reps=", 0) == 0) {
      reps = std::max(1, std::atoi(arg.c_str() + 7));
    } else if (arg.rfind("--only=", 0) == 0) {
      only = arg.substr(7);
    } else if (arg.rfind("--data=", 0) == 0) {
      keepDir = arg.substr(7);
    } else {
      std::fprintf(stderr,
                   "usage: %s [--sizes=64,256,1024] [--reps=N] [--only=WORD] [--data=DIR]\n",
                   argv[0]);
      return 2;
    }
  }
  kest2_common::TempDir scratch("kest2_bench_");
  const std::string dir = keepDir.empty() ? scratch.path() : keepDir;
  std::filesystem::create_directories(dir);

  std::printf("kest2 archive read: every file of a packed tree of text-like data, read whole\n");
  std::printf(
      "kest2: 1 I/O thread, 2 decompressor threads, 3 work buffers of 64 KiB; pools: %d threads;\n",
      kPoolThreads);
  std::printf("%d repetitions, methods in rotated order, archives re-read before each repetition\n",
              reps);
  // A read that never completes would otherwise hang the run without a
  // word: the watchdog ends it once no file has finished for a while.
  kest2_bench::StartStallWatchdog(scratch.path(), kest2_bench::kStallSeconds, "file");

  std::vector<SizeResult> results;
  for (int64_t totalMiB : sizes) {
    const DataSet data = PrepareDataSet(dir, totalMiB, !keepDir.empty());
    results.push_back(RunSize(data, reps, only));
  }

  // Cost linear in the size: CPU per block of the largest tree against the
  // smallest's.
  if (results.size() > 1 && results.front().kestCpuPerBlock > 0) {
    const SizeResult& small = results.front();
    const SizeResult& large = results.back();
    const double ratio = large.kestCpuPerBlock / small.kestCpuPerBlock;
    const bool met = ratio <= 1.2;
    std::printf(
        "\nkest2 CPU per block, 64 in flight: %.1f us at %lld MiB, %.1f us at %lld MiB: %.2fx  (<= "
        "1.20: %s)\n",
        small.kestCpuPerBlock, static_cast<long long>(small.totalMiB), large.kestCpuPerBlock,
        static_cast<long long>(large.totalMiB), ratio, met ? "met" : "NOT met");
    kest2_bench::SummaryRow("archive", "CPU per block, largest tree against smallest",
                            kest2_bench::Format("%.1f us", small.kestCpuPerBlock),
                            kest2_bench::Format("%.1f us", large.kestCpuPerBlock), ratio, "<= 1.20",
                            met ? "met" : "NOT met");
  }
  return 0;
}
