// The RAM cache end to end: caches installed over real files in a temporary
// directory and read through the library's own threads.  Every read is
// compared byte for byte with the file; what the cache holds is observed
// through the contains queries and the hit and miss counters printed with
// the statistics.

#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "kest2/archive_writer.h"
#include "test_support.h"

namespace {

constexpr int64_t kKiB = 1024;
constexpr int64_t kBlock = 256 * kKiB;
// The work buffer's header for the pathMax of 1024 the fixture uses.
constexpr uint64_t kHeaderBytes = (1024 + 80) & ~uint64_t{7};
// Modification times are set explicitly, whole seconds apart: the native
// layer reports them in seconds.
constexpr time_t kEpoch = 1600000000;

using kest2_common::RandomBytes;

// Bytes of four random bits each: zlib halves them, so compressed archive
// blocks are tens of kilobytes.
std::vector<uint8_t> Nibbles(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes = RandomBytes(size, seed);
  for (uint8_t& byte : bytes) byte &= 0x0F;
  return bytes;
}

// Compressible text for the archives.
std::vector<uint8_t> Text(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<uint8_t>("cached archive text, "[(i + seed) % 21] ^ (i / 5000 % 7));
  }
  return bytes;
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes, time_t mtime) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  const struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
  ASSERT_EQ(utimes(path.c_str(), times), 0) << path;
}

ZulKestOpAttr Attr(uint32_t opflags) {
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  attr.opflags |= opflags;
  return attr;
}

// Reads [offset, offset + length) through fh and compares it with the file:
// a read that straddles the end is short, one at or past the end fails with
// ZUL_KEST_ERROR_EOF.
::testing::AssertionResult ReadMatches(ZulKestFH fh, const std::vector<uint8_t>& file, int64_t offset,
                                       int64_t length, const ZulKestOpAttr* attr = nullptr) {
  const int64_t size = static_cast<int64_t>(file.size());
  std::vector<uint8_t> buffer(static_cast<size_t>(length));
  const ZulKestOp op = zulKestFHPread(attr, fh, buffer.data(), length, offset);
  const int32_t result = zulKestOpWait(op);
  const int64_t count = zulKestOpGetActualCount(op);
  zulKestOpDelete(op);
  if (offset >= size) {
    if (result == ZUL_KEST_ERROR_EOF && count == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "read at " << offset << " of a " << size
                                         << "-byte file: result " << result << ", " << count << " bytes";
  }
  const int64_t expected = std::min(length, size - offset);
  if ((result != ZUL_KEST_OK && result != ZUL_KEST_ERROR_EOF) || count != expected) {
    return ::testing::AssertionFailure() << "read " << offset << "+" << length << ": result " << result
                                         << ", " << count << " bytes instead of " << expected;
  }
  const auto mismatch = std::mismatch(buffer.begin(), buffer.begin() + expected, file.begin() + offset);
  if (mismatch.first != buffer.begin() + expected) {
    return ::testing::AssertionFailure() << "read " << offset << "+" << length << " differs from the file at "
                                         << offset + (mismatch.first - buffer.begin());
  }
  return ::testing::AssertionSuccess();
}

size_t Occurrences(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++count;
  return count;
}

struct Counters {
  unsigned long hits = 0, hitBytes = 0, misses = 0, missBytes = 0;
};

class RamCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(256, 64, 16, 1024, 30000);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.ioThreadCount = 3;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }

  // Every test closes its handles and deletes its operations; termination
  // takes the caches out (their memory lives until after it) and must find
  // no chunk, handle or operation left over.
  void TearDown() override {
    EXPECT_EQ(zulKestGetAllOps(nullptr, 0), 0);
    EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
    zulKestTerminate();
    const std::string text = output_.text();
    EXPECT_EQ(text.find("still allocated"), std::string::npos) << text;
    EXPECT_EQ(text.find("leak"), std::string::npos) << text;
  }

  // A cache context over a work buffer with room for `blocks` blocks (never
  // below the 128 KiB minimum), serving `path` (every path when empty).
  ZulKestRamCacheContext* NewCache(uint64_t blockSize, uint64_t blocks, const std::string& path) {
    auto cache = std::make_unique<Cache>();
    const uint64_t bytes = std::max<uint64_t>(kHeaderBytes + blocks * (blockSize + 64), 0x20000);
    cache->memory.assign(bytes / 8 + 1, 0);
    cache->path = path;
    cache->context.sizeOfContext = sizeof(ZulKestRamCacheContext);
    cache->context.workBufferSize = bytes;
    cache->context.blockSize = blockSize;
    cache->context.pWorkBuffer = cache->memory.data();
    cache->context.pPath = path.empty() ? nullptr : cache->path.c_str();
    caches_.push_back(std::move(cache));
    return &caches_.back()->context;
  }

  static int32_t Install(int32_t index, ZulKestRamCacheContext* context) {
    return zulKestIOFilterAdd(index, zulKestIOFilterCache, context);
  }

  std::string MakeFile(const std::string& name, const std::vector<uint8_t>& bytes) {
    const std::string path = dir_.path() + "/" + name;
    WriteFile(path, bytes, kEpoch);
    return path;
  }

  static ZulKestFH Open(const std::string& path, const ZulKestOpAttr* attr = nullptr, uint16_t flags = 0) {
    ZulKestOpenParams params{};
    params.openFlags = flags;
    ZulKestFH fh = 0;
    EXPECT_EQ(zulKestFHOpenSync(attr, &fh, path.c_str(), flags != 0 ? &params : nullptr), ZUL_KEST_OK) << path;
    return fh;
  }

  static void Close(ZulKestFH fh) { EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK); }

  static int32_t Contains(const std::string& path, int64_t offset, int64_t length) {
    return zulKestCacheContainsFileRangeSync(path.c_str(), offset, length);
  }

  // The counters of the cache serving cachePath, from the statistics output.
  Counters ReadCounters(const std::string& cachePath) {
    const size_t from = output_.text().size();
    zulKestStatisticsPrint();
    const std::string text = output_.text().substr(from);
    const std::string title = "RamCache \"" + cachePath + "\" statistics:\n";
    Counters counters;
    const size_t at = text.find(title);
    if (at == std::string::npos ||
        std::sscanf(text.c_str() + at + title.size(), " Cache hits: %lu (%lu) Cache misses: %lu (%lu)",
                    &counters.hits, &counters.hitBytes, &counters.misses, &counters.missBytes) != 4) {
      ADD_FAILURE() << "no counters for cache \"" << cachePath << "\" in:\n" << text;
    }
    return counters;
  }

  // Installs a cache for cachePath and the dearchiver at the given indices,
  // packs the files into dir/packed.zorba and mounts it at /arc.
  ZulKestFH MountWithCache(int32_t cacheIndex, const std::string& cachePath, int32_t dearchiverIndex,
                           const std::map<std::string, std::vector<uint8_t>>& files, int64_t blockSize = kBlock,
                           uint64_t blocks = 8) {
    EXPECT_EQ(Install(cacheIndex, NewCache(blockSize, blocks, cachePath)), ZUL_KEST_OK);
    EXPECT_EQ(
        zulKestIOFilterAdd(dearchiverIndex, zulKestIOFilterZorbaDearchiver, dearchiver_.context()),
        ZUL_KEST_OK);
    for (const auto& [name, bytes] : files) WriteFile(dir_.path() + "/tree/" + name, bytes, kEpoch);
    archivePath_ = dir_.path() + "/packed.zorba";
    std::string error;
    kest2_cli::PackSummary summary;
    EXPECT_TRUE(kest2_cli::PackDirectory(dir_.path() + "/tree", archivePath_, {}, &summary, &error)) << error;
    const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archivePath_.c_str(), nullptr);
    mountBuffer_.assign(static_cast<size_t>(std::max<int64_t>(need, 0)) / 8 + 1, 0);
    ZulKestFH fh = 0;
    EXPECT_EQ(zulKestArchiveMountSync(nullptr, &fh, archivePath_.c_str(), "/arc", mountBuffer_.data(), need, nullptr),
              ZUL_KEST_OK);
    return fh;
  }

  // Reads every archived file through an open handle: sequentially, then the
  // same random ranges twice, then from several threads at once.
  void ReadArchivedFiles(const std::map<std::string, std::vector<uint8_t>>& files) {
    for (const auto& [name, bytes] : files) {
      const ZulKestFH fh = Open("/arc/" + name);
      const int64_t size = static_cast<int64_t>(bytes.size());
      for (int64_t offset = 0; offset < size; offset += 70001) EXPECT_TRUE(ReadMatches(fh, bytes, offset, 70001));
      for (int pass = 0; pass < 2; ++pass) {
        kest2_common::Random random(70);
        for (int i = 0; i < 30; ++i) {
          ASSERT_TRUE(ReadMatches(fh, bytes, random() % size, 1 + random() % 200000)) << name << " pass " << pass;
        }
      }
      Close(fh);
    }
    std::atomic<int> mismatches{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
      readers.emplace_back([&, t] {
        kest2_common::Random random(80 + t);
        for (const auto& [name, bytes] : files) {
          const ZulKestFH fh = Open("/arc/" + name);
          for (int i = 0; i < 25; ++i) {
            if (!ReadMatches(fh, bytes, random() % bytes.size(), 1 + random() % 150000))
              ++mismatches;
          }
          Close(fh);
        }
      });
    }
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(mismatches, 0);
  }

  struct Cache {
    std::vector<uint64_t> memory;
    std::string path;
    ZulKestRamCacheContext context{};
  };

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
  std::vector<std::unique_ptr<Cache>> caches_;
  kest2_test::DearchiverWork dearchiver_;
  std::vector<uint64_t> mountBuffer_;
  std::string archivePath_;
};

TEST_F(RamCacheTest, SequentialAndRandomReadsMatchTheFileAndAreServedFromTheCache) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 8, dir_.path())), ZUL_KEST_OK);
  const std::vector<uint8_t> file = RandomBytes(1600000, 1);  // six full blocks and a short one
  const int64_t size = static_cast<int64_t>(file.size());
  const std::string path = MakeFile("data.bin", file);
  const ZulKestFH fh = Open(path);

  // A first read misses and fills the block that holds its last byte; a
  // read inside that block is then a hit.
  EXPECT_TRUE(ReadMatches(fh, file, 0, 64 * kKiB));
  Counters counters = ReadCounters(dir_.path());
  EXPECT_EQ(counters.misses, 1u);
  EXPECT_EQ(counters.missBytes, 65536u);
  EXPECT_EQ(counters.hits, 0u);
  EXPECT_EQ(Contains(path, 0, kBlock), 0);
  EXPECT_EQ(Contains(path, kBlock - 10, 20), ZUL_KEST_ERROR_BAD_INDEX);  // the second block is not cached
  EXPECT_TRUE(ReadMatches(fh, file, 64 * kKiB, 100000));
  counters = ReadCounters(dir_.path());
  EXPECT_EQ(counters.hits, 1u);
  EXPECT_EQ(counters.hitBytes, 100000u);
  EXPECT_EQ(counters.misses, 1u);

  // A miss that ends on a block boundary fills nothing.
  EXPECT_TRUE(ReadMatches(fh, file, 2 * kBlock - 64 * kKiB, 64 * kKiB));
  EXPECT_EQ(Contains(path, 2 * kBlock - 1, 1), ZUL_KEST_ERROR_BAD_INDEX);

  // Sequential reads of an odd size through the handle's position: each one
  // that misses fills its tail block, so the whole file ends up cached, the
  // short last block included.
  ASSERT_EQ(zulKestFHSeek(fh, 0, ZUL_KEST_SEEK_SET), 0);
  std::vector<uint8_t> sequential, piece(100000);
  int64_t got;
  while ((got = zulKestFHReadSync(nullptr, fh, piece.data(), static_cast<int64_t>(piece.size()))) > 0) {
    sequential.insert(sequential.end(), piece.begin(), piece.begin() + got);
  }
  EXPECT_EQ(got, 0);
  EXPECT_TRUE(sequential == file);
  int64_t cachedSize = 0;
  EXPECT_EQ(zulKestCacheContainsFileSync(path.c_str(), &cachedSize), 0);
  EXPECT_EQ(cachedSize, size);

  // With the whole file cached, random, vectored and end-of-file reads are
  // all served from the cache: no more misses.
  const Counters before = ReadCounters(dir_.path());
  kest2_common::Random random(2);
  for (int i = 0; i < 150; ++i) {
    ASSERT_TRUE(ReadMatches(fh, file, random() % size, 1 + random() % 400000));
  }
  std::vector<uint8_t> a(1000), b(300000), c(77777);
  const ZulKestBuffer iov[3] = {{a.data(), 1000}, {b.data(), 300000}, {c.data(), 77777}};
  EXPECT_EQ(zulKestFHPreadvSync(nullptr, fh, iov, 3, 200000), 378777);
  EXPECT_TRUE(std::equal(a.begin(), a.end(), file.begin() + 200000));
  EXPECT_TRUE(std::equal(b.begin(), b.end(), file.begin() + 201000));
  EXPECT_TRUE(std::equal(c.begin(), c.end(), file.begin() + 501000));
  EXPECT_TRUE(ReadMatches(fh, file, size, 100));
  EXPECT_TRUE(ReadMatches(fh, file, size + 5000, 100));
  EXPECT_TRUE(ReadMatches(fh, file, size - 10, 100));
  const Counters after = ReadCounters(dir_.path());
  EXPECT_EQ(after.misses, before.misses);
  EXPECT_GT(after.hits, before.hits + 150);
  Close(fh);
}

TEST_F(RamCacheTest, BypassAndStreamReadsNeitherUseNorFillTheCache) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 4, dir_.path())), ZUL_KEST_OK);
  const std::vector<uint8_t> file = RandomBytes(600000, 3);
  const std::string path = MakeFile("bypassed.bin", file);
  const ZulKestFH fh = Open(path);
  for (uint32_t flag : {ZUL_KEST_OPFLAG_CACHE_BYPASS, ZUL_KEST_OPFLAG_CACHE_STREAM}) {
    const ZulKestOpAttr attr = Attr(flag);
    EXPECT_TRUE(ReadMatches(fh, file, 1000, 100000, &attr));
    EXPECT_TRUE(ReadMatches(fh, file, 300000, 400000, &attr));
  }
  // A handle opened with the flag: its plain reads are left alone too.
  const ZulKestOpAttr bypass = Attr(ZUL_KEST_OPFLAG_CACHE_BYPASS);
  const ZulKestFH bypassing = Open(path, &bypass);
  EXPECT_TRUE(ReadMatches(bypassing, file, 5000, 200000));
  Counters counters = ReadCounters(dir_.path());
  EXPECT_EQ(counters.hits + counters.misses, 0u);
  EXPECT_EQ(Contains(path, 0, 1), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(Contains(path, 300000, 1), ZUL_KEST_ERROR_BAD_INDEX);

  // A plain read fills; bypassing reads of the cached block are no hits.
  EXPECT_TRUE(ReadMatches(fh, file, 1000, 100000));
  EXPECT_EQ(Contains(path, 0, kBlock), 0);
  EXPECT_TRUE(ReadMatches(fh, file, 2000, 1000, &bypass));
  EXPECT_TRUE(ReadMatches(bypassing, file, 3000, 1000));
  counters = ReadCounters(dir_.path());
  EXPECT_EQ(counters.misses, 1u);
  EXPECT_EQ(counters.hits, 0u);
  Close(bypassing);
  Close(fh);
}

TEST_F(RamCacheTest, FileChangedOnDiskIsNotServedStaleAfterReopening) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 4, dir_.path())), ZUL_KEST_OK);
  const std::string path = dir_.path() + "/changing.bin";
  const std::vector<uint8_t> first = RandomBytes(600000, 4);
  WriteFile(path, first, kEpoch);
  ZulKestFH fh = Open(path);
  EXPECT_TRUE(ReadMatches(fh, first, 0, 100000));
  EXPECT_TRUE(ReadMatches(fh, first, 300000, 100000));
  Close(fh);
  // Reopening the unchanged file keeps its blocks.
  fh = Open(path);
  EXPECT_EQ(Contains(path, 0, 2 * kBlock), 0);
  EXPECT_TRUE(ReadMatches(fh, first, 250000, 100000));
  Close(fh);

  // New bytes, a different size and a later time: the reopened file is read
  // afresh.
  const std::vector<uint8_t> second = RandomBytes(400000, 5);
  WriteFile(path, second, kEpoch + 60);
  fh = Open(path);
  EXPECT_EQ(Contains(path, 0, 1), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_TRUE(ReadMatches(fh, second, 0, 100000));
  EXPECT_TRUE(ReadMatches(fh, second, 300000, 200000));
  Close(fh);

  // An open that trusts the cache skips the check, so the first block (now
  // holding the second version) is what it reads; a plain open drops it.
  const std::vector<uint8_t> third = RandomBytes(400000, 6);
  WriteFile(path, third, kEpoch + 120);
  const ZulKestOpAttr trust = Attr(ZUL_KEST_OPFLAG_CACHE_TRUST);
  fh = Open(path, &trust);
  EXPECT_TRUE(ReadMatches(fh, second, 10000, 50000));
  Close(fh);
  fh = Open(path);
  EXPECT_TRUE(ReadMatches(fh, third, 10000, 50000));
  EXPECT_TRUE(ReadMatches(fh, third, 250000, 150000));
  Close(fh);
}

TEST_F(RamCacheTest, WritesThroughTheLibraryAreSeenByTheNextRead) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 4, dir_.path())), ZUL_KEST_OK);
  std::vector<uint8_t> file = RandomBytes(600000, 7);
  const std::string path = MakeFile("written.bin", file);
  const ZulKestFH writer = Open(path, nullptr, ZUL_KEST_O_READ | ZUL_KEST_O_WRITE);
  const ZulKestFH reader = Open(path);
  EXPECT_TRUE(ReadMatches(writer, file, 0, 100000));
  EXPECT_TRUE(ReadMatches(reader, file, 300000, 100000));
  EXPECT_EQ(Contains(path, 0, 2 * kBlock), 0);

  // A positional write into the first block, seen through both handles.
  const std::vector<uint8_t> patch = RandomBytes(5000, 8);
  std::copy(patch.begin(), patch.end(), file.begin() + 40000);
  EXPECT_EQ(zulKestFHPwriteSync(nullptr, writer, patch.data(), 5000, 40000), 5000);
  EXPECT_EQ(Contains(path, 0, 1), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_TRUE(ReadMatches(reader, file, 0, 100000));
  EXPECT_TRUE(ReadMatches(writer, file, 30000, 30000));

  // A vectored write across the boundary of the first two blocks.
  const std::vector<uint8_t> left = RandomBytes(1500, 9), right = RandomBytes(2500, 10);
  std::copy(left.begin(), left.end(), file.begin() + kBlock - 1500);
  std::copy(right.begin(), right.end(), file.begin() + kBlock);
  const ZulKestBuffer iov[2] = {{const_cast<uint8_t*>(left.data()), 1500},
                                {const_cast<uint8_t*>(right.data()), 2500}};
  EXPECT_EQ(zulKestFHPwritevSync(nullptr, writer, iov, 2, kBlock - 1500), 4000);
  EXPECT_TRUE(ReadMatches(reader, file, kBlock - 100000, 200000));

  // A write by path while both handles keep the file open and cached.
  EXPECT_TRUE(ReadMatches(reader, file, 300000, 100000));
  const std::vector<uint8_t> byPath = RandomBytes(3000, 11);
  std::copy(byPath.begin(), byPath.end(), file.begin() + 350000);
  EXPECT_EQ(zulKestFileWriteSync(nullptr, path.c_str(), byPath.data(), 3000, 350000), 3000);
  EXPECT_TRUE(ReadMatches(reader, file, 300000, 100000));
  EXPECT_TRUE(ReadMatches(writer, file, 340000, 20000));

  // A write that extends the file, read back through the writing handle.
  const std::vector<uint8_t> tail = RandomBytes(50000, 12);
  EXPECT_TRUE(ReadMatches(writer, file, 550000, 50000));
  file.insert(file.end(), tail.begin(), tail.end());
  EXPECT_EQ(zulKestFHPwriteSync(nullptr, writer, tail.data(), 50000, 600000), 50000);
  EXPECT_TRUE(ReadMatches(writer, file, 550000, 100000));
  Close(reader);
  Close(writer);
}

TEST_F(RamCacheTest, DeletesRenamesAndTruncatesInvalidateTheFile) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 8, dir_.path())), ZUL_KEST_OK);
  // Each case caches a file's first block, changes the file through the
  // library, then puts new bytes of the same size at the old path with the
  // old modification time: only the invalidation keeps the old bytes away.
  uint32_t seed = 20;
  struct Cached {
    std::string path;
    std::vector<uint8_t> bytes;
    ZulKestFH fh;
  };
  auto cacheFirstBlock = [&](const std::string& name, uint16_t flags = 0) {
    Cached cached{"", RandomBytes(300000, seed++), 0};
    cached.path = MakeFile(name, cached.bytes);
    cached.fh = Open(cached.path, nullptr, flags);
    EXPECT_TRUE(ReadMatches(cached.fh, cached.bytes, 0, 100000));
    EXPECT_EQ(Contains(cached.path, 0, kBlock), 0) << name;
    return cached;
  };
  auto expectFresh = [&](const std::string& path) {
    EXPECT_EQ(Contains(path, 0, 1), ZUL_KEST_ERROR_BAD_INDEX) << path;
    const std::vector<uint8_t> fresh = RandomBytes(300000, 1000 + seed);
    WriteFile(path, fresh, kEpoch);
    const ZulKestFH fh = Open(path);
    EXPECT_TRUE(ReadMatches(fh, fresh, 0, 300000)) << path;
    Close(fh);
  };

  const Cached deleted = cacheFirstBlock("deleted.bin");
  Close(deleted.fh);
  EXPECT_EQ(zulKestFileDeleteSync(nullptr, deleted.path.c_str()), ZUL_KEST_OK);
  expectFresh(deleted.path);

  const Cached removed = cacheFirstBlock("removed.bin");
  Close(removed.fh);
  EXPECT_EQ(zulKestDeleteSync(nullptr, removed.path.c_str()), ZUL_KEST_OK);
  expectFresh(removed.path);

  // A renamed file: the old name is invalidated, the new one reads right.
  const Cached renamed = cacheFirstBlock("renamed.bin");
  Close(renamed.fh);
  EXPECT_EQ(zulKestRenameSync(nullptr, renamed.path.c_str(), (renamed.path + ".new").c_str()), ZUL_KEST_OK);
  expectFresh(renamed.path);
  const ZulKestFH moved = Open(renamed.path + ".new");
  EXPECT_TRUE(ReadMatches(moved, renamed.bytes, 0, 300000));
  Close(moved);

  const Cached truncated = cacheFirstBlock("truncated.bin");
  Close(truncated.fh);
  EXPECT_EQ(zulKestFileTruncateSync(nullptr, truncated.path.c_str(), 0), ZUL_KEST_OK);
  expectFresh(truncated.path);

  // Truncated through the very handle that cached it.
  const Cached handleTruncated = cacheFirstBlock("fh-truncated.bin", ZUL_KEST_O_READ | ZUL_KEST_O_WRITE);
  EXPECT_EQ(zulKestFHTruncateSync(nullptr, handleTruncated.fh, 1000), ZUL_KEST_OK);
  EXPECT_EQ(Contains(handleTruncated.path, 0, 1), ZUL_KEST_ERROR_BAD_INDEX);
  Close(handleTruncated.fh);
  expectFresh(handleTruncated.path);
}

TEST_F(RamCacheTest, AFileThatShrinksUnderAnOpenHandleYieldsNoBytesPastItsNewEnd) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 4, dir_.path())), ZUL_KEST_OK);
  const std::vector<uint8_t> file = RandomBytes(600000, 25);
  const std::string path = MakeFile("shrinking.bin", file);
  const ZulKestFH fh = Open(path);
  // Another program cuts the file inside the second block while the handle
  // is open.  Read from the file, the range that crosses the new end is
  // short; through the cache it must be too, not padded from the block.
  std::filesystem::resize_file(path, 280000);
  const std::vector<uint8_t> shrunk(file.begin(), file.begin() + 280000);
  const ZulKestOpAttr bypass = Attr(ZUL_KEST_OPFLAG_CACHE_BYPASS);
  std::vector<uint8_t> buffer(100000);
  EXPECT_EQ(zulKestFHPreadSync(&bypass, fh, buffer.data(), 100000, 200000), 80000);
  EXPECT_EQ(zulKestFHPreadSync(nullptr, fh, buffer.data(), 100000, 200000), 80000);
  EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + 80000, shrunk.begin() + 200000));
  // Nor may a later read of the block find more than the file now holds.
  EXPECT_TRUE(ReadMatches(fh, shrunk, 270000, 20000));
  Close(fh);
}

TEST_F(RamCacheTest, ACompletedWriteIsSeenWhileOtherThreadsKeepFillingItsBlock) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 4, dir_.path())), ZUL_KEST_OK);
  const std::vector<uint8_t> file = RandomBytes(600000, 26);
  const std::string path = MakeFile("rewritten.bin", file);
  // Readers keep missing on and refilling the first block, which every
  // write invalidates.
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      const ZulKestFH fh = Open(path);
      std::vector<uint8_t> buffer(kBlock);
      kest2_common::Random random(90 + t);
      while (!done) {
        const int64_t offset = random() % 200000;
        zulKestFHPreadSync(nullptr, fh, buffer.data(), 1 + random() % (kBlock - 1 - offset), offset);
      }
      Close(fh);
    });
  }
  // Each write stamps a new version into the block; once it has completed,
  // a read must see that version, never an older one.
  const ZulKestFH writer = Open(path, nullptr, ZUL_KEST_O_READ | ZUL_KEST_O_WRITE);
  const ZulKestFH checker = Open(path);
  for (int version = 1; version <= 2000; ++version) {
    const std::vector<uint8_t> stamp(65536, static_cast<uint8_t>(version));
    std::vector<uint8_t> back(65536);
    if (zulKestFHPwriteSync(nullptr, writer, stamp.data(), 65536, 65536) != 65536 ||
        zulKestFHPreadSync(nullptr, checker, back.data(), 65536, 65536) != 65536 || back != stamp) {
      ADD_FAILURE() << "version " << version << " read back as version " << static_cast<int>(back[0]);
      break;
    }
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  Close(writer);
  Close(checker);
}

TEST_F(RamCacheTest, ConcurrentReadersGetTheRightBytesWhileBlocksAreFilledAndEvicted) {
  // Fills split into several reads, and a block size that is no power of two.
  ZulKestParams params;
  ASSERT_TRUE(zulKestIsInitialized(&params));
  params.maxChunk = 64 * kKiB;
  zulKestUpdateParameters(&params);
  constexpr int64_t kOddBlock = 3 * 65536 + 1000;
  ASSERT_EQ(Install(0, NewCache(kOddBlock, 6, dir_.path())), ZUL_KEST_OK);
  std::vector<std::vector<uint8_t>> files;
  std::vector<std::string> paths;
  std::vector<ZulKestFH> shared;
  for (int i = 0; i < 3; ++i) {
    files.push_back(RandomBytes(1000000 + 333 * i, 30 + i));
    paths.push_back(MakeFile("shared" + std::to_string(i) + ".bin", files.back()));
    shared.push_back(Open(paths.back()));
  }
  std::atomic<int> mismatches{0};
  std::mutex failureMutex;
  std::string firstFailure;
  std::vector<std::thread> readers;
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&, t] {
      std::vector<ZulKestFH> own;
      for (const std::string& path : paths) own.push_back(Open(path));
      kest2_common::Random random(40 + t);
      for (int i = 0; i < 80; ++i) {
        const size_t f = random() % files.size();
        const ZulKestFH fh = (i + t) % 2 == 0 ? shared[f] : own[f];
        // Half the reads crowd into the first 400 KB so that readers meet on
        // the same blocks, the rest roam the whole file.
        const int64_t span = i % 2 == 0 ? 400000 : static_cast<int64_t>(files[f].size());
        const ::testing::AssertionResult result =
            ReadMatches(fh, files[f], random() % span, 1 + random() % 250000);
        if (!result) {
          std::lock_guard<std::mutex> lock(failureMutex);
          if (mismatches++ == 0) firstFailure = paths[f] + ": " + result.message();
        }
      }
      for (ZulKestFH fh : own) Close(fh);
    });
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(mismatches, 0) << firstFailure;
  for (ZulKestFH fh : shared) Close(fh);
  EXPECT_GT(ReadCounters(dir_.path()).hits, 0u);
}

TEST_F(RamCacheTest, ReadsOfABlockBeingFilledShareTheFillAndSurviveCancellationAndFlushes) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 8, dir_.path())), ZUL_KEST_OK);
  const std::vector<uint8_t> file = RandomBytes(1600000, 13);
  const std::string path = MakeFile("busy.bin", file);
  const ZulKestFH fh = Open(path);
  struct Pending {
    Pending(int64_t at, int64_t bytes) : offset(at), length(bytes) {}
    int64_t offset, length;
    std::vector<uint8_t> buffer;
    ZulKestOp op = 0;
  };
  auto issue = [&](Pending* read) {
    read->buffer.assign(static_cast<size_t>(read->length), 0);
    read->op = zulKestFHPread(nullptr, fh, read->buffer.data(), read->length, read->offset);
  };
  auto finish = [&](Pending* read) {
    const int64_t expected = std::min<int64_t>(read->length, static_cast<int64_t>(file.size()) - read->offset);
    EXPECT_EQ(zulKestOpSyncWaitForIO(read->op), expected) << read->offset << "+" << read->length;
    EXPECT_TRUE(std::equal(read->buffer.begin(), read->buffer.begin() + expected, file.begin() + read->offset))
        << read->offset << "+" << read->length;
  };
  // While the library is suspended every read is filtered before any fill
  // has run, so each scenario below meets its block busy.  Each uses blocks
  // of its own: the first two, then the third to the fifth.

  // The later reads find the first block busy and wait for its fill.
  std::vector<Pending> reads = {{0, 100000},   {1000, 50000}, {50000, 150000}, {200000, 100000},
                                {250000, 12000}, {0, kBlock},  {100, 200}};
  zulKestSuspend();
  for (Pending& read : reads) issue(&read);
  zulKestResume();
  for (Pending& read : reads) finish(&read);

  // A reader cancelled while another shares its fill: the other still gets
  // its bytes, and the cancelled one's buffer is not written after it ends.
  Pending cancelled{600000, 100000}, sharing{610000, 50000};
  zulKestSuspend();
  issue(&cancelled);
  issue(&sharing);
  zulKestOpCancel(cancelled.op);
  zulKestResume();
  const int32_t result = zulKestOpWait(cancelled.op);
  EXPECT_TRUE(result == ZUL_KEST_OK || result == ZUL_KEST_ERROR_CANCELLED) << result;
  zulKestOpDelete(cancelled.op);
  cancelled.buffer = std::vector<uint8_t>();
  finish(&sharing);

  // A fill cancelled before anyone joined it is not joined afterwards: the
  // next reader of that block reads the file.
  Pending abandoned{800000, 100000}, next{790000, 100000};
  zulKestSuspend();
  issue(&abandoned);
  zulKestOpCancel(abandoned.op);
  issue(&next);
  zulKestResume();
  zulKestOpWait(abandoned.op);
  zulKestOpDelete(abandoned.op);
  finish(&next);
  EXPECT_TRUE(ReadMatches(fh, file, 3 * kBlock, kBlock));

  // A block flushed while it is being filled, and waited for by a second
  // reader, is not kept once both are done.
  Pending flushed{1100000, 50000}, waiting{1120000, 10000};
  zulKestSuspend();
  issue(&flushed);
  issue(&waiting);
  zulKestCacheFlushFileRangeSync(path.c_str(), 1100000, 1);
  zulKestResume();
  finish(&flushed);
  finish(&waiting);
  EXPECT_EQ(Contains(path, 4 * kBlock, 1), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_TRUE(ReadMatches(fh, file, 4 * kBlock + 1000, 1000));
  Close(fh);
}

TEST_F(RamCacheTest, FlushesAndPurgingWritesWhileOtherThreadsRead) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 8, dir_.path())), ZUL_KEST_OK);
  const std::vector<uint8_t> file = RandomBytes(1500000, 14);
  const std::string path = MakeFile("flushed.bin", file);
  std::atomic<bool> readersDone{false};
  std::atomic<int> mismatches{0}, invalidations{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      const ZulKestFH fh = Open(path);
      kest2_common::Random random(50 + t);
      for (int i = 0; i < 100; ++i) {
        if (!ReadMatches(fh, file, random() % file.size(), 1 + random() % 300000)) ++mismatches;
      }
      Close(fh);
    });
  }
  // Flushes of the file and of ranges, and writes of the bytes the file
  // already holds (which purge its blocks without changing what is right).
  std::thread invalidator([&] {
    const ZulKestFH writer = Open(path, nullptr, ZUL_KEST_O_READ | ZUL_KEST_O_WRITE);
    kest2_common::Random random(60);
    for (int i = 0; !readersDone || i < 30; ++i) {
      const int64_t offset = static_cast<int64_t>(random() % file.size());
      const int64_t length = std::min<int64_t>(1 + random() % 200000, static_cast<int64_t>(file.size()) - offset);
      switch (i % 3) {
        case 0:
          zulKestCacheFlushFileSync(path.c_str());
          break;
        case 1:
          zulKestCacheFlushFileRangeSync(path.c_str(), offset, length);
          break;
        default:
          if (zulKestFHPwriteSync(nullptr, writer, file.data() + offset, length, offset) != length) ++mismatches;
      }
      ++invalidations;
    }
    Close(writer);
  });
  for (std::thread& reader : readers) reader.join();
  readersDone = true;
  invalidator.join();
  EXPECT_EQ(mismatches, 0);
  EXPECT_GE(invalidations, 30);

  // The cache still works afterwards.
  zulKestCacheFlushFileSync(path.c_str());
  EXPECT_EQ(Contains(path, 0, 1), ZUL_KEST_ERROR_BAD_INDEX);
  const ZulKestFH fh = Open(path);
  EXPECT_TRUE(ReadMatches(fh, file, 0, 100000));
  EXPECT_EQ(Contains(path, 0, kBlock), 0);
  Close(fh);
}

TEST_F(RamCacheTest, ContextChecksRefuseWithTheirMessages) {
  const ZulKestRamCacheContext good = *NewCache(64 * kKiB, 4, "");
  auto refused = [&](ZulKestRamCacheContext bad, int32_t code, const char* message) {
    const size_t from = output_.text().size();
    EXPECT_EQ(Install(0, &bad), code) << message;
    EXPECT_NE(output_.text().find(message, from), std::string::npos) << output_.text();
    EXPECT_EQ(zulKestIOFilterGetInfo(0, nullptr, nullptr), ZUL_KEST_ERROR_BAD_INDEX);
  };
  EXPECT_EQ(Install(0, nullptr), ZUL_KEST_ERROR_BAD_PTR);
  ZulKestRamCacheContext bad = good;
  bad.pWorkBuffer = nullptr;
  EXPECT_EQ(Install(0, &bad), ZUL_KEST_ERROR_BAD_PTR);
  bad = good;
  bad.sizeOfContext = 64;
  refused(bad, ZUL_KEST_ERROR_BAD_SIZE, "KEST2 ERROR: sizeOfContext 64 != expected 72.\n");
  bad = good;
  bad.workBufferSize = 0x1FFFF;
  refused(bad, ZUL_KEST_ERROR_BAD_SIZE, "KEST2 ERROR: Cache workBufferSize too small\n");
  bad = good;
  bad.pWorkBuffer = static_cast<uint8_t*>(good.pWorkBuffer) + 4;
  refused(bad, ZUL_KEST_ERROR_BAD_ALIGNMENT, "KEST2 ERROR: The cache's pWorkBuffer must be 8-byte aligned!\n");
  bad = good;
  bad.blockSize = 0;
  refused(bad, ZUL_KEST_ERROR_BAD_SIZE, "KEST2 ERROR: The cache blocksize has not been specified.\n");

  // The smallest buffer is accepted; with blocks bigger than it the cache
  // holds nothing and every read goes to the file.
  ZulKestRamCacheContext* tiny = NewCache(kBlock, 0, dir_.path());
  ASSERT_EQ(tiny->workBufferSize, 0x20000u);
  ASSERT_EQ(Install(0, tiny), ZUL_KEST_OK);
  const std::vector<uint8_t> file = RandomBytes(600000, 15);
  const std::string path = MakeFile("uncached.bin", file);
  const ZulKestFH fh = Open(path);
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_TRUE(ReadMatches(fh, file, 0, 100000));
    EXPECT_TRUE(ReadMatches(fh, file, 250000, 400000));
  }
  EXPECT_EQ(Contains(path, 0, 1), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(ReadCounters(dir_.path()).hits, 0u);
  Close(fh);
  EXPECT_EQ(zulKestIOFilterRemove(0), ZUL_KEST_OK);
}

TEST_F(RamCacheTest, ADamagedContextDisablesTheCacheWhileReadsGoOn) {
  ZulKestRamCacheContext* context = NewCache(kBlock, 4, dir_.path());
  ASSERT_EQ(Install(0, context), ZUL_KEST_OK);
  const std::vector<uint8_t> file = RandomBytes(600000, 16);
  const std::string path = MakeFile("damaged.bin", file);
  ZulKestFH fh = Open(path);
  EXPECT_TRUE(ReadMatches(fh, file, 0, 100000));
  EXPECT_EQ(Contains(path, 0, 100000), 0);

  const std::string corrupt = "KEST2 ERROR: The ramcache's internal state is corrupt and it will be disabled!\n";
  const size_t mark = output_.text().size();
  context->sizeOfContext = 0;  // the application overwrites the record
  EXPECT_TRUE(ReadMatches(fh, file, 0, 100000));
  EXPECT_TRUE(ReadMatches(fh, file, 300000, 200000));
  EXPECT_EQ(Contains(path, 0, 100000), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(Occurrences(output_.text().substr(mark), corrupt), 1u) << output_.text().substr(mark);
  EXPECT_NE(output_.text().find("declaring the ZulKestRamCacheContext on the stack", mark), std::string::npos);

  // Repairing the record does not bring the cache back: it stays disabled,
  // without further messages.
  context->sizeOfContext = sizeof(*context);
  EXPECT_TRUE(ReadMatches(fh, file, 0, 100000));
  EXPECT_EQ(Contains(path, 0, 100000), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(Occurrences(output_.text().substr(mark), corrupt), 1u);
  Close(fh);

  // Removing the last cache clears the disabled state: installed again, it
  // caches.
  EXPECT_EQ(zulKestIOFilterRemove(0), ZUL_KEST_OK);
  ASSERT_EQ(Install(0, context), ZUL_KEST_OK);
  fh = Open(path);
  EXPECT_TRUE(ReadMatches(fh, file, 0, 100000));
  EXPECT_EQ(Contains(path, 0, 100000), 0);
  Close(fh);
}

TEST_F(RamCacheTest, EachFileBelongsToTheDeepestCacheThatCoversIt) {
  const std::string d = dir_.path() + "/d";
  // Installed in an order unlike their depth: the paths decide.
  ASSERT_EQ(Install(0, NewCache(kBlock, 4, "")), ZUL_KEST_OK);
  ASSERT_EQ(Install(1, NewCache(kBlock, 4, d + "/sub")), ZUL_KEST_OK);
  ASSERT_EQ(Install(2, NewCache(kBlock, 4, d)), ZUL_KEST_OK);
  const std::vector<std::pair<std::string, int32_t>> owners = {
      {"d/sub/f", 1}, {"d/sub/deeper/f", 1}, {"d/subway/f", 2}, {"d/f", 2}, {"other/f", 0}};
  std::map<std::string, std::vector<uint8_t>> files;
  uint32_t seed = 17;
  for (const auto& [name, cache] : owners) {
    files[name] = RandomBytes(300000, seed++);
    const ZulKestFH fh = Open(MakeFile(name, files[name]));
    EXPECT_TRUE(ReadMatches(fh, files[name], 0, 100000)) << name;
    Close(fh);
  }
  for (const auto& [name, cache] : owners) {
    EXPECT_EQ(Contains(dir_.path() + "/" + name, 0, 100000), cache) << name;
  }
  EXPECT_EQ(ReadCounters(d + "/sub").misses, 2u);
  EXPECT_EQ(ReadCounters(d).misses, 2u);

  // Flushing one file leaves the others alone.
  zulKestCacheFlushFileSync((d + "/sub/f").c_str());
  for (const auto& [name, cache] : owners) {
    EXPECT_EQ(Contains(dir_.path() + "/" + name, 0, 100000), name == "d/sub/f" ? ZUL_KEST_ERROR_BAD_INDEX : cache)
        << name;
  }
  // A range flush drops only the blocks it meets.
  const ZulKestFH fh = Open(d + "/f");
  EXPECT_TRUE(ReadMatches(fh, files["d/f"], 250000, 50000));
  Close(fh);
  EXPECT_EQ(Contains(d + "/f", 0, 300000), 2);
  zulKestCacheFlushFileRangeSync((d + "/f").c_str(), 270000, 10);
  EXPECT_EQ(Contains(d + "/f", 0, kBlock), 2);
  EXPECT_EQ(Contains(d + "/f", kBlock, 1), ZUL_KEST_ERROR_BAD_INDEX);
}

TEST_F(RamCacheTest, PrefetchedRangesAreContainedAndServedAsHits) {
  ASSERT_EQ(Install(0, NewCache(kBlock, 12, dir_.path())), ZUL_KEST_OK);
  const std::vector<uint8_t> first = RandomBytes(1000000, 18);
  const std::string a = MakeFile("a.bin", first);
  ZulKestFH fh = Open(a);
  EXPECT_EQ(zulKestCachePrefetchFHRangeSync(nullptr, fh, 300000, 200000), ZUL_KEST_OK);
  EXPECT_EQ(Contains(a, 300000, 200000), 0);
  EXPECT_EQ(Contains(a, 0, 1), ZUL_KEST_ERROR_BAD_INDEX);  // only the range's blocks
  Counters before = ReadCounters(dir_.path());
  EXPECT_TRUE(ReadMatches(fh, first, 300000, 200000));
  Counters after = ReadCounters(dir_.path());
  EXPECT_EQ(after.misses, before.misses);
  EXPECT_GT(after.hits, before.hits);
  EXPECT_EQ(zulKestCachePrefetchFHSync(nullptr, fh), ZUL_KEST_OK);
  int64_t size = 0;
  EXPECT_EQ(zulKestCacheContainsFileSync(a.c_str(), &size), 0);
  EXPECT_EQ(size, 1000000);
  Close(fh);

  // By path: the request's own handle is gone when it completes, and the
  // blocks survive the stale check of the next open.
  const std::vector<uint8_t> second = RandomBytes(700000, 19), third = RandomBytes(900000, 20);
  const std::string b = MakeFile("b.bin", second), c = MakeFile("c.bin", third);
  EXPECT_EQ(zulKestCachePrefetchFileSync(nullptr, b.c_str()), ZUL_KEST_OK);
  EXPECT_EQ(zulKestCacheContainsFileSync(b.c_str(), &size), 0);
  EXPECT_EQ(zulKestCachePrefetchFileRangeSync(nullptr, c.c_str(), 600000, 100000), ZUL_KEST_OK);
  EXPECT_EQ(Contains(c, 600000, 100000), 0);
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
  before = ReadCounters(dir_.path());
  fh = Open(b);
  EXPECT_TRUE(ReadMatches(fh, second, 0, 700000));
  Close(fh);
  fh = Open(c);
  EXPECT_TRUE(ReadMatches(fh, third, 600000, 100000));
  Close(fh);
  EXPECT_EQ(ReadCounters(dir_.path()).misses, before.misses);
}

TEST_F(RamCacheTest, AboveTheDearchiverArchivedFilesAreCachedDecompressed) {
  const std::map<std::string, std::vector<uint8_t>> files = {
      {"text.txt", Text(1300007, 21)}, {"noise.bin", RandomBytes(400001, 22)}};
  const ZulKestFH archive = MountWithCache(0, "/arc", 1, files);
  ReadArchivedFiles(files);
  // Every block of the decompressed file is cached, and survived the stale
  // checks of the later opens.
  int64_t size = 0;
  EXPECT_EQ(zulKestCacheContainsFileSync("/arc/text.txt", &size), 0);
  EXPECT_EQ(size, 1300007);
  EXPECT_GT(ReadCounters("/arc").hits, 0u);
  EXPECT_EQ(Contains(archivePath_, 0, 1), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, archive), ZUL_KEST_OK);
}

TEST_F(RamCacheTest, BelowTheDearchiverTheArchiveFileItselfIsCached) {
  // Small blocks, fewer than the archive needs: compressed blocks span
  // several cache blocks, which are often still being filled by another
  // reader or evicted around the reads that copy from them.
  const std::map<std::string, std::vector<uint8_t>> files = {
      {"text.txt", Text(1300007, 23)},
      {"nibbles.bin", Nibbles(600001, 24)},
      {"noise.bin", RandomBytes(400001, 25)}};
  const ZulKestFH archive = MountWithCache(1, dir_.path(), 0, files, 32 * kKiB, 6);
  ReadArchivedFiles(files);
  // The dearchiver's reads of compressed blocks were served from the cache;
  // the decompressed files are in no cache.
  EXPECT_GT(ReadCounters(dir_.path()).hits, 0u);
  EXPECT_EQ(Contains("/arc/text.txt", 0, 1), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, archive), ZUL_KEST_OK);
}

TEST_F(RamCacheTest, BelowTheDearchiverReadersWaitingOnEachOthersFillsAllFinish) {
  // Readers of compressed blocks that meet on cache blocks being filled by
  // one another, round after round from an emptied cache.  A reader that
  // holds the dearchiver's work buffers while it waits for another's fill
  // must not keep that other read from getting buffers of its own: if it
  // does, this test never ends.
  const std::vector<uint8_t> nibbles = Nibbles(600001, 26);
  const ZulKestFH archive = MountWithCache(1, dir_.path(), 0, {{"nibbles.bin", nibbles}}, 32 * kKiB, 6);
  std::atomic<int> mismatches{0};
  for (int round = 0; round < 20; ++round) {
    zulKestCacheFlushFileSync(archivePath_.c_str());
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
      readers.emplace_back([&, round, t] {
        kest2_common::Random random(100 * round + t);
        const ZulKestFH fh = Open("/arc/nibbles.bin");
        for (int i = 0; i < 6; ++i) {
          if (!ReadMatches(fh, nibbles, random() % nibbles.size(), 1 + random() % 150000))
            ++mismatches;
        }
        Close(fh);
      });
    }
    for (std::thread& reader : readers) reader.join();
  }
  EXPECT_EQ(mismatches, 0);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, archive), ZUL_KEST_OK);
}

}  // namespace
