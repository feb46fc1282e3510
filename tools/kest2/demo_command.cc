// `kest2 demo`: the library's features working together on a data set it
// makes itself.  A generated tree of files of mixed sizes and
// compressibility is packed into an archive and mounted; a loose override
// directory is laid over the mount point (translucent overlay); a RAM cache
// sits above the dearchiver.  Every file is then streamed back twice with
// deadlines and priorities (a tenth of the files urgent, the rest
// background) and compared byte for byte with what it should hold: the
// override's version where there is one, the packed one elsewhere.

#include "kest2/demo_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "cache/ram_cache.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "kest2/archive_session.h"
#include "kest2/archive_writer.h"
#include "kest2/error_words.h"
#include "kest2/library_session.h"

namespace kest2_cli {
namespace {

namespace fs = std::filesystem;

constexpr size_t kDefaultFiles = 300;
constexpr int64_t kReadSize = 64 * 1024;
constexpr int kInFlight = 16;
constexpr uint64_t kCacheBlock = 256 * 1024;
constexpr uint64_t kCacheEntryBytes = 64;        // a block's table entry
constexpr uint64_t kCacheHeaderSlack = 4096;     // the cache's header
constexpr ZulKestTime kUrgentDeadline = 30 * 1000 * 1000;          // 30 ms
constexpr ZulKestTime kBackgroundDeadline = 3000ll * 1000 * 1000;  // 3 s
constexpr int kPasses = 2;
constexpr double kMiB = 1024.0 * 1024.0;

// Seeded: the same data set on every run.
using kest2_common::Random;

struct DemoFile {
  std::string relative;
  std::vector<char> bytes;  // what a read through the library must give
  bool overridden = false;
  bool urgent = false;
};

// Text that compresses about fourfold, noise that does not compress, or
// runs of one byte that compress almost away.
std::vector<char> MakeBytes(Random* random, size_t size) {
  static const char* const kWords[] = {"stream", "asset", "level", "mesh", "texture", "audio",
                                       "chunk",  "queue", "frame", "shader", "deadline", "block"};
  std::vector<char> bytes(size);
  const uint64_t kind = random->Below(3);
  for (size_t i = 0; i < size;) {
    if (kind == 0) {
      const char* word = kWords[random->Below(12)];
      for (const char* c = word; *c != 0 && i < size; ++c) bytes[i++] = *c;
      if (i < size) bytes[i++] = random->Below(8) == 0 ? '\n' : ' ';
    } else if (kind == 1) {
      bytes[i++] = static_cast<char>(random->Next());
    } else {
      const char fill = static_cast<char>('a' + random->Below(26));
      const size_t run = std::min<size_t>(size - i, 1 + random->Below(4096));
      std::memset(bytes.data() + i, fill, run);
      i += run;
    }
  }
  return bytes;
}

bool WriteFile(const fs::path& path, const std::vector<char>& bytes) {
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) return false;
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
  return std::fclose(out) == 0 && written;
}

// Sizes from 1 KiB to 1 MiB, as many files in each octave.
size_t PickSize(Random* random) {
  const int octave = static_cast<int>(random->Below(10));  // 1 KiB << 0..9
  const size_t base = size_t{1024} << octave;
  return base + random->Below(base);
}

// The data set: the tree to pack, and a tenth of its files overridden by
// new versions in the override directory.
bool MakeDataSet(const fs::path& tree, const fs::path& overrides, size_t count, std::vector<DemoFile>* files) {
  Random random(2026);
  static const char* const kDirs[] = {"levels", "textures", "audio", "scripts", "ui"};
  for (size_t i = 0; i < count; ++i) {
    DemoFile file;
    file.relative = std::string(kDirs[i % 5]) + "/file" + std::to_string(i) + ".bin";
    file.bytes = MakeBytes(&random, PickSize(&random));
    if (!WriteFile(tree / file.relative, file.bytes)) return false;
    if (i % 10 == 7) {
      file.bytes = MakeBytes(&random, PickSize(&random));
      file.overridden = true;
      if (!WriteFile(overrides / file.relative, file.bytes)) return false;
    }
    file.urgent = i % 10 == 3;
    files->push_back(std::move(file));
  }
  return true;
}

// --- Streaming ---------------------------------------------------------------

struct Slot {
  ZulKestOp op = 0;
  size_t file = 0;
  int64_t offset = 0;
  ZulKestTime deadline = 0;
  std::atomic<ZulKestTime> finished{0};
};

int32_t NoteCompletion(void* context, ZulKestOp, uint8_t event, int32_t) {
  if (event == ZUL_KEST_EVENT_COMPLETE)
    static_cast<Slot*>(context)->finished.store(zulKestTimeGetCurrent(), std::memory_order_release);
  return 0;
}

struct PassResult {
  int64_t bytes = 0;
  ZulKestTime elapsed = 0;
  int met[2] = {0, 0};  // background, urgent
  int missed[2] = {0, 0};
  int mismatchedFiles = 0;
  int failedReads = 0;
};

class Streamer {
 public:
  Streamer(const std::vector<DemoFile>& files, const std::vector<ZulKestFH>& handles)
      : m_files(files), m_handles(handles), m_images(files.size()) {}

  PassResult Run(int pass, bool progress) {
    PassResult result;
    for (size_t i = 0; i < m_files.size(); ++i) m_images[i].assign(m_files[i].bytes.size(), 0);
    // Urgent files first, as a game asks for what the next frame needs.
    std::vector<std::pair<size_t, int64_t>> pieces;
    for (int urgent = 1; urgent >= 0; --urgent) {
      for (size_t i = 0; i < m_files.size(); ++i) {
        if (m_files[i].urgent != (urgent == 1)) continue;
        for (int64_t offset = 0; offset < static_cast<int64_t>(m_files[i].bytes.size()); offset += kReadSize)
          pieces.emplace_back(i, offset);
      }
    }
    Slot slots[kInFlight];
    size_t next = 0;
    size_t filesDone = 0;
    int outstanding = 0;
    std::vector<int64_t> remaining(m_files.size());
    for (size_t i = 0; i < m_files.size(); ++i) remaining[i] = static_cast<int64_t>(m_files[i].bytes.size());
    const ZulKestTime start = zulKestTimeGetCurrent();
    zulKestSaveTimeStamp(pass == 1 ? "first pass begins" : "second pass begins", static_cast<uint32_t>(pieces.size()));
    for (Slot& slot : slots) {
      if (next == pieces.size()) break;
      Issue(&slot, pieces[next].first, pieces[next].second, start);
      ++next;
      ++outstanding;
    }
    // The oldest read is waited for and its slot refilled, so that the
    // library always has kInFlight reads to order.
    for (size_t turn = 0; outstanding > 0; turn = (turn + 1) % kInFlight) {
      Slot& slot = slots[turn];
      if (slot.op == 0) continue;
      Finish(&slot, zulKestOpWait(slot.op), &result, &remaining, &filesDone);
      --outstanding;
      if (next < pieces.size()) {
        Issue(&slot, pieces[next].first, pieces[next].second, start);
        ++next;
        ++outstanding;
      }
      if (progress && next % 64 == 0) {
        std::fprintf(stdout, "\r  pass %d: %zu of %zu files, %.1f MiB", pass, filesDone, m_files.size(),
                     static_cast<double>(result.bytes) / kMiB);
        std::fflush(stdout);
      }
    }
    result.elapsed = zulKestTimeGetCurrent() - start;
    if (progress) std::fprintf(stdout, "\r%60s\r", "");
    for (size_t i = 0; i < m_files.size(); ++i) {
      if (m_images[i] != m_files[i].bytes) ++result.mismatchedFiles;
    }
    return result;
  }

 private:
  void Issue(Slot* slot, size_t file, int64_t offset, ZulKestTime start) {
    const DemoFile& item = m_files[file];
    ZulKestOpAttr attr;
    zulKestGetDefaultOpAttr(&attr);
    // Background reads all share one late deadline from the pass's start;
    // urgent ones must each be done soon after they are asked for.
    slot->deadline = item.urgent ? zulKestTimeGetCurrent() + kUrgentDeadline : start + kBackgroundDeadline;
    attr.deadline = slot->deadline;
    attr.priority = item.urgent ? 10 : -10;
    attr.pCallback = NoteCompletion;
    attr.pCallbackContext = slot;
    slot->file = file;
    slot->offset = offset;
    slot->finished.store(0, std::memory_order_relaxed);
    const int64_t length = std::min<int64_t>(kReadSize, static_cast<int64_t>(item.bytes.size()) - offset);
    slot->op = zulKestFHPread(&attr, m_handles[file], m_images[file].data() + offset, length, offset);
  }

  void Finish(Slot* slot, int32_t status, PassResult* result, std::vector<int64_t>* remaining, size_t* filesDone) {
    const int64_t got = zulKestOpGetActualCount(slot->op);
    const bool urgent = m_files[slot->file].urgent;
    zulKestOpDelete(slot->op);
    slot->op = 0;
    if (status != ZUL_KEST_OK) {
      ++result->failedReads;
      return;
    }
    result->bytes += got;
    ZulKestTime finished = slot->finished.load(std::memory_order_acquire);
    if (finished == 0) finished = zulKestTimeGetCurrent();
    (finished <= slot->deadline ? result->met : result->missed)[urgent ? 1 : 0] += 1;
    if (((*remaining)[slot->file] -= got) <= 0) ++*filesDone;
  }

  const std::vector<DemoFile>& m_files;
  const std::vector<ZulKestFH>& m_handles;
  std::vector<std::vector<char>> m_images;
};

// --- The run -------------------------------------------------------------------

struct CacheCounters {
  uint32_t hitBytes = 0;
  uint32_t missBytes = 0;
};

CacheCounters ReadCounters(const ZulKestRamCacheContext& context) {
  const kest2::CacheHeader* cache = kest2::HeaderOf(&context);
  return CacheCounters{__atomic_load_n(&cache->hitBytes, __ATOMIC_RELAXED),
                       __atomic_load_n(&cache->missBytes, __ATOMIC_RELAXED)};
}

void PrintPass(int pass, const PassResult& result, const CacheCounters& before, const CacheCounters& after) {
  const double seconds = static_cast<double>(result.elapsed) / 1e9;
  const uint32_t hits = after.hitBytes - before.hitBytes;
  const double hitRate = result.bytes > 0 ? 100.0 * hits / static_cast<double>(result.bytes) : 0.0;
  std::printf("  pass %d: %.1f MiB in %.3f s = %.0f MiB/s; cache hits %.1f%% of the bytes\n", pass,
              static_cast<double>(result.bytes) / kMiB, seconds,
              seconds > 0 ? static_cast<double>(result.bytes) / kMiB / seconds : 0.0, hitRate);
  std::printf("          urgent reads (priority 10, due in 30 ms): %d met, %d missed\n", result.met[1],
              result.missed[1]);
  std::printf("          background reads (priority -10, due in 3 s): %d met, %d missed\n", result.met[0],
              result.missed[0]);
  if (result.failedReads != 0 || result.mismatchedFiles != 0)
    std::printf("          FAILED: %d reads failed, %d files differ\n", result.failedReads, result.mismatchedFiles);
}

int RunDemo(const fs::path& root, size_t count, bool progress) {
  const fs::path tree = root / "tree";
  const fs::path overrides = root / "override";
  const fs::path archive = root / "assets.zorba";
  const fs::path mount = root / "game";
  std::vector<DemoFile> files;
  std::printf("kest2 demo in %s\n", root.c_str());
  if (!MakeDataSet(tree, overrides, count, &files)) {
    std::fprintf(stderr, "kest2 demo: cannot write the data set under %s: %s\n", root.c_str(), std::strerror(errno));
    return 1;
  }
  int64_t total = 0;
  size_t overridden = 0;
  for (const DemoFile& file : files) {
    total += static_cast<int64_t>(file.bytes.size());
    overridden += file.overridden ? 1 : 0;
  }
  PackSummary summary;
  std::string error;
  PackOptions options;
  options.jobs = 2;
  options.level = 6;
  if (!PackDirectory(tree.string(), archive.string(), options, &summary, &error)) {
    std::fprintf(stderr, "kest2 demo: %s\n", error.c_str());
    return 1;
  }
  std::printf("  %zu files, %.1f MiB, packed into %s (%.1f MiB)\n", files.size(), static_cast<double>(summary.inputBytes) / kMiB,
              archive.filename().c_str(), static_cast<double>(summary.archiveBytes) / kMiB);

  // The cache above the dearchiver keeps inflated bytes.  It is sized for
  // the whole data set (each file takes whole blocks), so that the second
  // pass is served from it: a cache smaller than a stream it is read in
  // order would evict every block before its next use.
  uint64_t blocks = 0;
  for (const DemoFile& file : files) blocks += (file.bytes.size() + kCacheBlock - 1) / kCacheBlock;
  const uint64_t cacheBytes = kCacheHeaderSlack + blocks * (kCacheBlock + kCacheEntryBytes);
  std::vector<uint64_t> cacheMemory(cacheBytes / 8 + 1);
  ZulKestRamCacheContext cache{};
  cache.sizeOfContext = sizeof(cache);
  cache.workBufferSize = cacheMemory.size() * 8;
  cache.blockSize = kCacheBlock;
  cache.pWorkBuffer = cacheMemory.data();
  int32_t result = zulKestIOFilterAdd(0, zulKestIOFilterCache, &cache);
  ArchiveSession session(1);
  if (result == ZUL_KEST_OK) result = session.Mount(archive.string(), mount.string());
  ZulKestOverlay overlay{};
  overlay.type = ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT;
  std::snprintf(overlay.dst, sizeof(overlay.dst), "%s", mount.c_str());
  std::snprintf(overlay.src, sizeof(overlay.src), "%s", overrides.c_str());
  int32_t overlayId = 0;
  if (result == ZUL_KEST_OK) result = zulKestOverlayAdd(&overlay, &overlayId);
  if (result != ZUL_KEST_OK) {
    std::fprintf(stderr, "kest2 demo: setting up: %s\n", DescribeError(result).c_str());
    zulKestIOFilterRemove(0);
    return 1;
  }
  std::printf("  mounted at %s, %zu files overridden by %s, RAM cache %llu MiB in %llu KiB blocks\n",
              mount.c_str(), overridden, overrides.filename().c_str(),
              static_cast<unsigned long long>(cacheBytes >> 20), static_cast<unsigned long long>(kCacheBlock >> 10));

  std::vector<ZulKestFH> handles(files.size(), 0);
  int status = 0;
  for (size_t i = 0; i < files.size() && status == 0; ++i) {
    const std::string path = (mount / files[i].relative).string();
    result = zulKestFHOpenSync(nullptr, &handles[i], path.c_str(), nullptr);
    if (result != ZUL_KEST_OK) {
      std::fprintf(stderr, "kest2 demo: %s: %s\n", path.c_str(), DescribeError(result).c_str());
      status = 1;
    }
  }
  if (status == 0) {
    Streamer streamer(files, handles);
    for (int pass = 1; pass <= kPasses; ++pass) {
      const CacheCounters before = ReadCounters(cache);
      const PassResult passResult = streamer.Run(pass, progress);
      PrintPass(pass, passResult, before, ReadCounters(cache));
      if (passResult.failedReads != 0 || passResult.mismatchedFiles != 0 || passResult.bytes != total) status = 1;
    }
  }
  for (ZulKestFH fh : handles) {
    if (fh != 0) zulKestFHCloseSync(nullptr, fh);
  }
  zulKestSaveTimeStamp("streaming done", 0);
  std::printf("%s\n", status == 0 ? "  every byte matched" : "  MISMATCH: see above");
  std::fflush(stdout);
  // The library prints to standard error, like every kest2 command.
  zulKestStatisticsPrint();
  zulKestPrintTimeStamps();
  zulKestOverlayRemove(overlayId);
  zulKestIOFilterRemove(0);
  return status;
}

bool ParseOptions(const Arguments& arguments, size_t* count, std::string* directory) {
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--files" && i + 1 < arguments.size()) {
      char* end = nullptr;
      const unsigned long value = std::strtoul(arguments[++i].c_str(), &end, 10);
      if (*end != 0 || value < 1 || value > 5000) return false;
      *count = value;
    } else if (arguments[i] == "--dir" && i + 1 < arguments.size()) {
      *directory = arguments[++i];
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

const char kDemoHelp[] =
    "Makes a data set of generated files (text, noise and runs, 1 KiB to 1 MiB),\n"
    "packs it into an archive and mounts it, lays an override directory holding\n"
    "new versions of a tenth of the files over the mount point, installs a RAM\n"
    "cache above the archive filter, and streams every file back twice in 64 KiB\n"
    "reads, 16 in flight: a tenth of the files urgent (priority 10, due 30 ms\n"
    "after each read is issued), the rest background (priority -10, due 3 s\n"
    "after the pass starts).  Every byte is checked against the version the file\n"
    "should show.  Prints bytes, MiB/s, deadlines met and missed and the cache\n"
    "hit rate per pass, then the library's statistics and time stamps (on\n"
    "standard error).  Exit status 1 on any mismatch or failed read.\n"
    "\n"
    "  --files N    number of files (1-5000, default 300)\n"
    "  --dir DIR    work in DIR (kept) instead of a temporary directory (removed)\n";

int Demo(const Arguments& arguments) {
  size_t count = kDefaultFiles;
  std::string directory;
  if (!ParseOptions(arguments, &count, &directory)) {
    std::fprintf(stderr, "Usage: kest2 [OPTIONS] demo [--files N] [--dir DIR]\n");
    return 2;
  }
  std::unique_ptr<kest2_common::TempDir> scratch;  // removed on return
  if (directory.empty()) {
    try {
      scratch = std::make_unique<kest2_common::TempDir>("kest2-demo-");
    } catch (const std::system_error& error) {
      std::fprintf(stderr, "kest2 demo: cannot make a temporary directory: %s\n",
                   error.code().message().c_str());
      return 1;
    }
    directory = scratch->path();
  }
  return RunDemo(directory, count, isatty(STDOUT_FILENO) != 0);
}

}  // namespace kest2_cli
