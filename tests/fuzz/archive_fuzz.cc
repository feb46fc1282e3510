// libFuzzer target for archives: every input is treated as a whole archive.
//
// Part one runs the pure parser of archive/zorba_format.h over the input in
// memory, the way a mount does (header, layout, TOC, block index, sort,
// lookups), then locates every block of every entry.  Part two writes the
// input to a file and mounts it through the library with the dearchiver,
// lists the mount point, reads what it lists and unmounts it.
//
// Any result code is acceptable.  A crash, a hang, a sanitizer report, a
// handle left open after an input, or a broken invariant that the parser
// promises (checked below with Require) is a bug.
//
// Every size derived from the input is capped, so that a hostile header can
// make neither the harness nor the library allocate or read much.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "archive/zorba_format.h"
#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "fuzz_output.h"
#include "kest2.h"

const char kest2_fuzz::kTargetName[] = "archive_fuzz";

namespace {

using kest2_fuzz::Fail;
using kest2_fuzz::QuietPrintf;
using kest2_fuzz::Trace;

using kest2::ZorbaBlock;
using kest2::ZorbaHeader;

// Caps on what one input may cost.
constexpr uint64_t kMaxScratch = 4u << 20;         // the block index (the TOC copy is within the input)
constexpr int64_t kMaxMountBuffer = 4 << 20;        // beyond it mount with a small one
constexpr int64_t kSmallMountBuffer = 64 << 10;
constexpr int64_t kMaxReadLength = 256 << 10;       // one read
constexpr int64_t kMaxReadTotal = 1 << 20;          // all reads of one input
constexpr int kMaxLocateCalls = 20000;
constexpr int kMaxListed = 200;
constexpr int kMaxDepth = 4;
constexpr uint32_t kMaxEntriesVisited = 4096;
constexpr int kMaxManifestPaths = 256;

// Work buffer parts are the archive's block size, as callers size them (the
// kest2 program does), so that a block row longer than a part overruns the
// buffer at small sizes; outside these bounds a default part is used.
constexpr uint64_t kMinWorkPart = kest2::kZorbaMinBlockSize;
constexpr uint64_t kMaxWorkPart = 64u << 10;
constexpr uint64_t kDefaultWorkPart = 4096;

void Require(bool condition, const char* what) {
  if (!condition) Fail(what);
}

// A heap block of exactly `size` bytes (no rounding), so that AddressSanitizer
// sees any access past it.  Size 0 gets one byte: the pointer is never null.
struct ExactBuffer {
  explicit ExactBuffer(size_t size) : data(static_cast<uint8_t*>(std::malloc(size == 0 ? 1 : size))), size(size) {
    if (data == nullptr) Fail("out of memory");
  }
  ~ExactBuffer() { std::free(data); }
  ExactBuffer(const ExactBuffer&) = delete;
  ExactBuffer& operator=(const ExactBuffer&) = delete;
  uint8_t* data;
  size_t size;
};

// FNV-1a of the input: seeds every choice the harness makes, so that a
// crashing input replays the same way.
uint64_t HashInput(const uint8_t* data, size_t size) {
  uint64_t h = 1469598103934665603ull;
  for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 1099511628211ull;
  return h;
}

// --- Part one: the pure parser ---------------------------------------------

struct ParserRun {
  const uint8_t* archive;
  uint64_t archiveSize;
  ZorbaHeader header;
  uint8_t* toc;
  uint8_t* index;  // null when the index was too big or failed to build
  int locateCalls;
};

// Walks every block of one entry (capped), with and without the index.
void WalkEntry(ParserRun* run, const uint8_t* entry, bool validated, kest2_common::Random* random) {
  const ZorbaHeader& header = run->header;
  const uint64_t size = kest2::GetEntrySize(entry);
  const uint64_t blocks = kest2::GetEntryBlockCount(header, entry);
  const bool stored = kest2::IsEntryStored(header, entry);
  ZorbaBlock block{};

  // Past the last block is never a block, whatever the entry says.
  Require(kest2::LocateBlock(header, run->toc, entry, run->index, blocks, &block) ==
              ZUL_KEST_ERROR_BAD_ARGUMENT,
          "LocateBlock accepted the block after the last");

  if (!validated) {
    // Unchecked entries only promise memory safety: probe a few blocks.
    const uint64_t probes[] = {0, 1, blocks - 1, blocks / 2};
    for (uint64_t b : probes) {
      kest2::LocateBlock(header, run->toc, entry, run->index, b, &block);
      kest2::LocateBlock(header, run->toc, entry, nullptr, b, &block);
    }
    bool rangeStored = false;
    kest2::IsRangeStored(header, run->toc, entry, 0, size, &rangeStored);
    kest2::IsRangeStored(header, run->toc, entry, size / 2, size - size / 2, &rangeStored);
    run->locateCalls += 8;
    return;
  }

  // A checked entry's blocks lie back to back inside the archive.  The walk
  // without the index is the reference; the indexed one must be safe.
  uint64_t expectedOffset = kest2::GetEntryOffset(entry);
  for (uint64_t b = 0; b < blocks && run->locateCalls < kMaxLocateCalls; ++b, run->locateCalls += 2) {
    ZorbaBlock plain{};
    Require(kest2::LocateBlock(header, run->toc, entry, nullptr, b, &plain) == ZUL_KEST_OK,
            "LocateBlock failed on a block of a checked entry");
    if (!stored && size > 0) {
      Require(plain.offset == expectedOffset, "blocks of a checked entry are not back to back");
      Require(plain.storedSize <= run->archiveSize && plain.offset <= run->archiveSize - plain.storedSize,
              "a block of a checked entry lies outside the archive");
      expectedOffset += plain.storedSize;
    }
    if (run->index != nullptr) kest2::LocateBlock(header, run->toc, entry, run->index, b, &block);
  }

  // Ranges the rows call raw must be raw block by block.
  if (size == 0) return;
  for (int i = 0; i < 4 && run->locateCalls < kMaxLocateCalls; ++i) {
    const uint64_t offset = (*random)() % size;
    const uint64_t length = (*random)() % (size - offset + 1);
    bool rangeStored = false;
    Require(kest2::IsRangeStored(header, run->toc, entry, offset, length, &rangeStored) == ZUL_KEST_OK,
            "IsRangeStored failed on a checked entry");
    if (!rangeStored || length == 0 || stored) continue;
    const uint64_t first = offset / header.blockSize;
    const uint64_t last = (offset + length - 1) / header.blockSize;
    for (uint64_t b = first; b <= last && run->locateCalls < kMaxLocateCalls; ++b, ++run->locateCalls) {
      ZorbaBlock plain{};
      Require(kest2::LocateBlock(header, run->toc, entry, nullptr, b, &plain) == ZUL_KEST_OK &&
                  !plain.compressed,
              "IsRangeStored called a range with a compressed block raw");
    }
  }
  if (stored) {
    bool rangeStored = false;
    kest2::IsRangeStored(header, run->toc, entry, 0, size, &rangeStored);
    Require(rangeStored, "a stored entry is not stored");
  }
}

// The manifest's bytes as they lie in the archive (compressed or not: the
// cursor must cope with any text), and lookups of the paths in it.
void WalkManifest(const ParserRun& run, const uint8_t* manifest) {
  const uint64_t offset = kest2::GetEntryOffset(manifest);
  if (offset >= run.archiveSize) return;
  uint64_t length = kest2::GetEntrySize(manifest);
  if (length > run.archiveSize - offset) length = run.archiveSize - offset;
  if (length > 65536) length = 65536;
  ExactBuffer text(static_cast<size_t>(length));
  std::memcpy(text.data, run.archive + offset, static_cast<size_t>(length));

  kest2::ZorbaManifestCursor cursor;
  kest2::ManifestBegin(run.header, reinterpret_cast<const char*>(text.data), static_cast<size_t>(length), &cursor);
  const char* path = nullptr;
  size_t pathLength = 0;
  std::string copy;
  for (int n = 0; n < kMaxManifestPaths && kest2::ManifestNext(&cursor, &path, &pathLength); ++n) {
    Require(path >= reinterpret_cast<const char*>(text.data) &&
                pathLength <= length - static_cast<size_t>(path - reinterpret_cast<const char*>(text.data)),
            "a manifest path lies outside the manifest");
    copy.assign(path, pathLength);
    const uint8_t* entry = kest2::FindEntryByPath(run.header, run.toc, copy.c_str());
    if (entry != nullptr) {
      const uint64_t at = static_cast<uint64_t>(entry - run.toc);
      Require(at % run.header.tocEntrySize == 0 && at / run.header.tocEntrySize < run.header.tocEntryCount,
              "FindEntryByPath returned a pointer that is not an entry");
    }
  }
}

void RunParser(const uint8_t* data, size_t size, uint64_t seed) {
  uint8_t raw[kest2::kZorbaHeaderReadSize] = {};
  std::memcpy(raw, data, size < sizeof(raw) ? size : sizeof(raw));
  ParserRun run{};
  run.archive = data;
  run.archiveSize = size;
  kest2::ParseHeader(raw, &run.header);
  ZorbaHeader& header = run.header;
  // Pure arithmetic on any header.
  (void)kest2::BlockRowCount(header);
  (void)kest2::BlockIndexSize(header);
  const bool valid = kest2::IsHeaderValid(header);
  if (kest2::CheckArchiveLayout(header, size) != ZUL_KEST_OK) return;
  Require(valid, "CheckArchiveLayout accepted a header that IsHeaderValid refuses");
  Require(header.tocOffset <= size && header.tocLength <= size - header.tocOffset,
          "CheckArchiveLayout accepted a TOC outside the archive");

  // The TOC in a block of its own size, so that a read past it is caught.
  ExactBuffer toc(header.tocLength);
  std::memcpy(toc.data, data + header.tocOffset, header.tocLength);
  run.toc = toc.data;
  const bool tocOk = kest2::CheckToc(header, run.toc, size) == ZUL_KEST_OK;

  // The index is built whether or not the TOC checked out: its contract is
  // memory safety on any TOC the header describes.
  const uint64_t indexSize = kest2::BlockIndexSize(header);
  std::unique_ptr<ExactBuffer> index;
  if (indexSize <= kMaxScratch) {
    index = std::make_unique<ExactBuffer>(static_cast<size_t>(indexSize));
    if (kest2::BuildBlockIndex(header, run.toc, index->data) == ZUL_KEST_OK) run.index = index->data;
    Require(!tocOk || run.index != nullptr, "BuildBlockIndex refused a checked TOC");
  }

  const bool sortedBefore = header.tocSorted != 0;
  kest2::SortToc(&header, run.toc);
  Require(header.tocSorted != 0, "SortToc left the TOC unsorted");
  if (!sortedBefore) {
    for (uint32_t i = 1; i < header.tocEntryCount && i < kMaxEntriesVisited; ++i) {
      const uint8_t* a = run.toc + uint64_t{i - 1} * header.tocEntrySize;
      Require(std::memcmp(a, a + header.tocEntrySize, 16) <= 0, "SortToc left entries out of order");
    }
  }

  const uint8_t* manifest = kest2::FindManifestEntry(header, run.toc);
  for (const char* path : {"", "/", "a", "a.txt", "/a.txt", "dir/b.txt", "A.TXT"}) {
    kest2::FindEntryByPath(header, run.toc, path);
  }
  if (manifest != nullptr) WalkManifest(run, manifest);

  kest2_common::Random random(seed);
  for (uint32_t i = 0; i < header.tocEntryCount && i < kMaxEntriesVisited && run.locateCalls < kMaxLocateCalls;
       ++i) {
    const uint8_t* entry = run.toc + uint64_t{i} * header.tocEntrySize;
    const bool checked = kest2::CheckEntry(header, run.toc, entry, size) == ZUL_KEST_OK;
    Require(!tocOk || checked, "CheckToc passed a TOC with an entry CheckEntry refuses");
    kest2::FindEntryByDigest(header, run.toc, kest2::EntryDigest(entry));
    WalkEntry(&run, entry, checked, &random);
  }
}

// --- Part two: mounting through the library -------------------------------

struct Library {
  kest2_common::LibraryStorage storage;
  void* workBuffer = nullptr;
  uint64_t workPart = 0;
  ZulKestZorbaDearchiverContext context{};
  std::string archivePath;
  std::string mountPoint;
  std::vector<uint64_t> listingBuffer;
};

Library* g_library = nullptr;

// Initialised once per process; never terminated between inputs (that would
// cost thread start-up on every input).
Library* SetUpLibrary() {
  auto* library = new Library;
  // Static, so that it is removed at exit: the library runs until then.
  static const kest2_common::TempDir scratch("kest2_fuzz_");
  library->archivePath = scratch.path() + "/input.zorba";
  // Inside the temporary directory and absent from the disk: a path below it
  // that the archive does not answer falls through to a native lookup that
  // finds nothing, never to a real file.
  library->mountPoint = scratch.path() + "/m";

  constexpr uint32_t kPathMax = 1024;
  constexpr uint32_t kOps = 256, kFhs = 64, kDhs = 16, kChunks = 30000;
  ZulKestParams params = library->storage.MakeParams(kOps, kFhs, kDhs, kPathMax, kChunks);
  params.ioThreadCount = 2;
  params.pVprintf = QuietPrintf;
  // Library trace modules (ZUL_KEST_DEBUG_*) when replaying an artifact.
  if (const char* flags = std::getenv("KEST2_FUZZ_DEBUG_FLAGS")) {
    params.debugFlags = static_cast<uint32_t>(std::strtoul(flags, nullptr, 0));
  }
  if (zulKestInitialize(&params) != ZUL_KEST_OK) Fail("zulKestInitialize");

  library->listingBuffer.assign(0x10000 / 8, 0);
  return library;
}

// (Re)installs the dearchiver with three parts of `part` bytes, unless it
// has them already.  Nothing is mounted between inputs.
void UseWorkPart(uint64_t part) {
  Library* library = g_library;
  if (library->workPart == part) return;
  if (library->workBuffer != nullptr) {
    Require(zulKestIOFilterRemove(0) == ZUL_KEST_OK, "zulKestIOFilterRemove failed");
    std::free(library->workBuffer);
    library->workBuffer = nullptr;
  }
  // Exactly three parts and nothing after them: a block read that overruns
  // the last part is caught at once.
  if (posix_memalign(&library->workBuffer, 64, 3 * part) != 0) Fail("out of memory");
  library->workPart = part;
  library->context = ZulKestZorbaDearchiverContext{};  // reserved words zero
  library->context.sizeOfContext = sizeof(library->context);
  library->context.workBufferSize = 3 * part;
  library->context.pWorkBuffer = library->workBuffer;
  Require(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &library->context) == ZUL_KEST_OK,
          "zulKestIOFilterAdd failed");
}

uint64_t WorkPartFor(const uint8_t* data, size_t size) {
  if (size < 28) return kDefaultWorkPart;
  const uint64_t blockSize = (uint64_t{data[24]} << 24) | (uint64_t{data[25]} << 16) |
                             (uint64_t{data[26]} << 8) | data[27];
  return blockSize >= kMinWorkPart && blockSize <= kMaxWorkPart ? blockSize : kDefaultWorkPart;
}

bool WriteInput(const std::string& path, const uint8_t* data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < size) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  return done == size;
}

// Only plain names are followed: "." and ".." or separators in a listed name
// would lead out of the mount point into the real file system.
bool PlainName(const char* name) {
  if (name[0] == '\0' || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
  return std::strpbrk(name, "/\\") == nullptr;
}

struct MountRun {
  kest2_common::Random random;
  int listed = 0;
  int64_t readTotal = 0;
  int handlesOpened = 0;
};

// Reads [offset, offset + length) of path into a block of exactly that size.
void ReadRange(MountRun* run, const char* path, int64_t offset, int64_t length) {
  if (length > kMaxReadLength) length = kMaxReadLength;
  if (run->readTotal + length > kMaxReadTotal) return;
  run->readTotal += length;
  ExactBuffer buffer(static_cast<size_t>(length));
  Trace("read %s [%lld, +%lld)\n", path, static_cast<long long>(offset), static_cast<long long>(length));
  const int64_t got = zulKestFileReadSync(nullptr, path, buffer.data, length, offset);
  Trace("  -> %lld\n", static_cast<long long>(got));
  Require(got <= length, "a read returned more bytes than asked for");
}

void ReadFile(MountRun* run, const char* path, int64_t listedSize) {
  const int64_t size = zulKestFileGetSizeSync(nullptr, path);
  if (size >= 0) Require(size == listedSize, "the listing and the size query disagree");
  if (listedSize < 0) return;
  ReadRange(run, path, 0, listedSize + 16);
  for (int i = 0; i < 3; ++i) {
    const int64_t offset = static_cast<int64_t>(run->random() % static_cast<uint64_t>(listedSize + 17));
    const int64_t length = static_cast<int64_t>(run->random() % 9000);
    ReadRange(run, path, offset, length);
  }
  // The same through a handle, for the first few files.
  if (run->handlesOpened++ >= 4) return;
  ZulKestFH fh = 0;
  if (zulKestFHOpenSync(nullptr, &fh, path, nullptr) != ZUL_KEST_OK) return;
  ZulKestStat stat;
  zulKestFHStatSync(nullptr, fh, &stat);
  const int64_t length = static_cast<int64_t>(run->random() % 6000) + 1;
  const int64_t offset = static_cast<int64_t>(run->random() % static_cast<uint64_t>(listedSize + 1));
  ExactBuffer buffer(static_cast<size_t>(length));
  Trace("pread %s [%lld, +%lld)\n", path, static_cast<long long>(offset), static_cast<long long>(length));
  const int64_t got = zulKestFHPreadSync(nullptr, fh, buffer.data, length, offset);
  Trace("  -> %lld\n", static_cast<long long>(got));
  Require(got <= length, "a handle read returned more bytes than asked for");
  zulKestFHCloseSync(nullptr, fh);
}

void ListDirectory(MountRun* run, const std::string& directory, int depth) {
  ZulKestDH dh = 0;
  Library* library = g_library;
  if (zulKestDHOpenSync(nullptr, &dh, directory.c_str(), library->listingBuffer.data(),
                        static_cast<int64_t>(library->listingBuffer.size() * 8)) != ZUL_KEST_OK) {
    return;
  }
  struct Child {
    std::string path;
    bool directory;
    int64_t size;
  };
  std::vector<Child> children;
  ZulKestDirEntry entry;
  while (run->listed < kMaxListed && zulKestDHReadSync(nullptr, dh, &entry) == ZUL_KEST_OK) {
    ++run->listed;
    Require(entry.fullPathLength < sizeof(entry.fullPath) && entry.fullPath[entry.fullPathLength] == '\0' &&
                entry.offsetToName <= entry.fullPathLength,
            "a directory entry is malformed");
    const char* name = entry.fullPath + entry.offsetToName;
    if (!PlainName(name)) continue;
    children.push_back({directory + "/" + name, (entry.statFlags & ZUL_KEST_STAT_DIRECTORY) != 0,
                        entry.fileSize});
  }
  zulKestDHCloseSync(nullptr, dh);
  for (const Child& child : children) {
    if (child.directory) {
      if (depth < kMaxDepth) ListDirectory(run, child.path, depth + 1);
    } else {
      ReadFile(run, child.path.c_str(), child.size);
    }
  }
}

// Nothing may stay open but the archive files of `mounted` mounts.
void RequireNoHandles(const char* when, int32_t mounted = 0) {
  const int32_t ops = zulKestGetAllOps(nullptr, 0);
  const int32_t fhs = zulKestGetAllFHs(nullptr, 0);
  const int32_t dhs = zulKestGetAllDHs(nullptr, 0);
  if (ops != 0 || fhs != mounted || dhs != 0) {
    std::fprintf(stderr, "archive_fuzz: %s: %d operations, %d file and %d directory handles left open\n", when,
                 static_cast<int>(ops), static_cast<int>(fhs), static_cast<int>(dhs));
    Fail("leaked handle");
  }
}

// Mounts with a buffer of `length` bytes (the query's size, or less to test
// the refusal) while `mounted` other mounts are live; returns the archive
// handle or 0.
ZulKestFH Mount(std::vector<std::unique_ptr<ExactBuffer>>* buffers, int64_t length, int32_t mounted) {
  Library* library = g_library;
  buffers->push_back(std::make_unique<ExactBuffer>(static_cast<size_t>(length)));
  ZulKestFH fh = 0;
  Trace("mount with a buffer of %lld bytes\n", static_cast<long long>(length));
  const int32_t rc = zulKestArchiveMountSync(nullptr, &fh, library->archivePath.c_str(),
                                             library->mountPoint.c_str(), buffers->back()->data, length, nullptr);
  Trace("  -> %d\n", static_cast<int>(rc));
  if (rc != ZUL_KEST_OK) {
    RequireNoHandles("after a failed mount", mounted);
    buffers->pop_back();
    return 0;
  }
  return fh;
}

void RunMount(const uint8_t* data, size_t size, uint64_t seed) {
  Library* library = g_library;
  UseWorkPart(WorkPartFor(data, size));
  if (!WriteInput(library->archivePath, data, size)) return;
  MountRun run{kest2_common::Random(seed)};

  const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, library->archivePath.c_str(), nullptr);
  RequireNoHandles("after a mount buffer query");
  if (need < 0) return;
  // Mostly the size asked for; sometimes less, which must be refused
  // without writing past the buffer.
  int64_t length = need;
  switch (run.random() % 8) {
    case 0: length = need / 2; break;
    case 1: length = need - 1; break;
    default: break;
  }
  if (length > kMaxMountBuffer) length = kSmallMountBuffer;
  if (length <= 0) length = 1;

  // The buffers must outlive the mounts.
  std::vector<std::unique_ptr<ExactBuffer>> buffers;
  ZulKestFH fh = Mount(&buffers, length, 0);
  if (fh == 0) return;
  // Sometimes the same archive again over it: the newer one answers.
  ZulKestFH again = 0;
  if (run.random() % 8 == 0) again = Mount(&buffers, length, 1);

  zulKestDirectoryExistsSync(nullptr, library->mountPoint.c_str());
  ZulKestStat stat;
  zulKestStatSync(nullptr, (library->mountPoint + "/a.txt").c_str(), &stat);
  ListDirectory(&run, library->mountPoint, 0);

  if (again != 0) Require(zulKestArchiveUnmountSync(nullptr, again) == ZUL_KEST_OK, "unmount failed");
  Require(zulKestArchiveUnmountSync(nullptr, fh) == ZUL_KEST_OK, "unmount failed");
  RequireNoHandles("after the unmount");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  g_library = SetUpLibrary();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (g_library == nullptr) g_library = SetUpLibrary();
  const uint64_t seed = HashInput(data, size);
  RunParser(data, size, seed);
  RunMount(data, size, seed);
  return 0;
}
