// The dearchiver end to end: archives packed from real trees, mounted through
// the library, and read back byte for byte; lookups, listings, remounts,
// corrupt archives, the context checks and concurrent readers.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "archive/zorba_format.h"
#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "kest2/archive_writer.h"
#include "test_support.h"

namespace {

using kest2_test::ReadFile;
using kest2_test::WriteFile;

std::vector<uint8_t> Bytes(size_t size, uint32_t seed, bool compressible) {
  std::vector<uint8_t> bytes(size);
  kest2_common::Random random(seed);
  for (size_t i = 0; i < size; ++i) {
    bytes[i] = compressible ? static_cast<uint8_t>("kest2 archive text "[(i + seed) % 19] ^ (i / 4096 % 3))
                            : static_cast<uint8_t>(random());
  }
  return bytes;
}

class DearchiverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(256, 64, 16, 1024, 30000);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.ioThreadCount = 2;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }
  void TearDown() override {
    if (installed_) zulKestIOFilterRemove(0);
    zulKestTerminate();
  }

  void Install(uint64_t flags = 0) {
    context_.flags = flags;
    ASSERT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &context_), ZUL_KEST_OK);
    installed_ = true;
  }

  // A tree of files under dir/name with the given sizes, remembered for
  // comparison.
  std::string MakeTree(const std::string& name, const std::map<std::string, std::vector<uint8_t>>& files) {
    const std::string root = dir_.path() + "/" + name;
    std::filesystem::create_directories(root);
    for (const auto& [relative, bytes] : files) {
      const std::string path = root + "/" + relative;
      std::filesystem::create_directories(std::filesystem::path(path).parent_path());
      WriteFile(path, bytes);
    }
    return root;
  }

  std::string Pack(const std::string& tree, const std::string& name, const kest2_cli::PackOptions& options = {}) {
    const std::string archive = dir_.path() + "/" + name;
    std::string error;
    kest2_cli::PackSummary summary;
    EXPECT_TRUE(kest2_cli::PackDirectory(tree, archive, options, &summary, &error)) << error;
    return archive;
  }

  // Mounts with a buffer of exactly the size the query reports.
  int32_t Mount(const std::string& archive, const char* mountPoint, ZulKestFH* fh,
                int64_t extra = 0) {
    const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive.c_str(), nullptr);
    if (need < 0) return static_cast<int32_t>(need);
    mountBuffers_.emplace_back(static_cast<size_t>(need + extra + 7) / 8 + 1, 0);
    return zulKestArchiveMountSync(nullptr, fh, archive.c_str(), mountPoint,
                                   mountBuffers_.back().data(), need + extra, nullptr);
  }

  // Names (a directory's with its trailing slash, if the listing gives
  // one) and sizes of a whole listing, which must end with EOF.
  std::map<std::string, int64_t> List(const std::string& path) {
    std::map<std::string, int64_t> seen;
    std::vector<uint64_t> buffer(0x20000 / 8);
    ZulKestDH dh = 0;
    const int32_t opened = zulKestDHOpenSync(nullptr, &dh, path.c_str(), buffer.data(), 0x20000);
    EXPECT_EQ(opened, ZUL_KEST_OK) << path;
    if (opened != ZUL_KEST_OK) return seen;
    ZulKestDirEntry entry;
    while (zulKestDHReadSync(nullptr, dh, &entry) == ZUL_KEST_OK) {
      EXPECT_TRUE(seen.emplace(entry.fullPath + entry.offsetToName, entry.fileSize).second)
          << entry.fullPath << " listed twice";
    }
    EXPECT_EQ(zulKestDHReadSync(nullptr, dh, &entry), ZUL_KEST_ERROR_EOF);
    EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
    return seen;
  }

  std::vector<uint8_t> ReadArchived(const std::string& path, int64_t size, int64_t offset = 0) {
    std::vector<uint8_t> buffer(static_cast<size_t>(size));
    const int64_t got = zulKestFileReadSync(nullptr, path.c_str(), buffer.data(), size, offset);
    if (got < 0) ADD_FAILURE() << path << ": " << zulKestDebugDumpError(static_cast<int32_t>(got), nullptr, 0);
    buffer.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return buffer;
  }

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
  kest2_test::DearchiverWork work_;
  // Tests change fields of the context (and copy it) in place.
  ZulKestZorbaDearchiverContext& context_ = *work_.context();
  bool installed_ = false;
  std::vector<std::vector<uint64_t>> mountBuffers_;
};

TEST_F(DearchiverTest, EveryArchiveVariantReadsBackByteForByte) {
  Install();
  const std::map<std::string, std::vector<uint8_t>> files = {
      {"empty", {}},
      {"tiny.txt", Bytes(5, 1, true)},
      {"text/one-block.txt", Bytes(200, 2, true)},
      {"text/many-blocks.txt", Bytes(300001, 3, true)},
      {"bin/noise.bin", Bytes(70001, 4, false)},
      {"Mixed/Case.Name", Bytes(65537, 5, true)},
  };
  const std::string tree = MakeTree("variants", files);
  struct Variant {
    const char* name;
    kest2_cli::PackOptions options;
  };
  std::vector<Variant> variants;
  for (uint32_t blockSize : {256u, 65536u, 65537u}) {
    kest2_cli::PackOptions options;
    options.blockSize = blockSize;
    variants.push_back({"block size", options});
  }
  kest2_cli::PackOptions v1;
  v1.version = 1;
  variants.push_back({"version 1", v1});
  kest2_cli::PackOptions stored;
  stored.storeIncompressible = true;
  stored.level = 0;
  variants.push_back({"stored", stored});
  kest2_cli::PackOptions unsorted;
  unsorted.unsorted = true;
  variants.push_back({"unsorted", unsorted});
  kest2_cli::PackOptions ignoreCase;
  ignoreCase.ignoreCase = true;
  variants.push_back({"ignore case", ignoreCase});
  kest2_cli::PackOptions absolute;
  absolute.absolutePaths = true;
  variants.push_back({"absolute paths", absolute});

  int index = 0;
  for (const Variant& variant : variants) {
    SCOPED_TRACE(std::string(variant.name) + " " + std::to_string(variant.options.blockSize));
    const std::string archive = Pack(tree, "v" + std::to_string(index) + ".zorba", variant.options);
    const std::string mount = "/v" + std::to_string(index++);
    ZulKestFH fh = 0;
    ASSERT_EQ(Mount(archive, mount.c_str(), &fh), ZUL_KEST_OK) << output_.text();
    for (const auto& [relative, bytes] : files) {
      const std::string path = mount + "/" + relative;
      EXPECT_EQ(zulKestFileGetSizeSync(nullptr, path.c_str()), static_cast<int64_t>(bytes.size())) << path;
      EXPECT_TRUE(ReadArchived(path, static_cast<int64_t>(bytes.size()) + 10) == bytes) << path;
    }
    if (variant.options.ignoreCase) {
      EXPECT_EQ(zulKestFileGetSizeSync(nullptr, (mount + "/mixed/case.name").c_str()), 65537);
    }
    EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
  }
}

TEST_F(DearchiverTest, RandomRangesOfABigFileAndConcurrentReaders) {
  Install();
  const std::vector<uint8_t> big = Bytes(1 << 21, 7, true);
  const std::vector<uint8_t> noise = Bytes(300000, 8, false);
  const std::string tree = MakeTree("big", {{"big.dat", big}, {"noise.dat", noise}});
  kest2_cli::PackOptions options;
  options.blockSize = 4096;
  ZulKestFH fh = 0;
  ASSERT_EQ(Mount(Pack(tree, "big.zorba", options), "/big", &fh), ZUL_KEST_OK);
  kest2_common::Random random(11);
  for (int i = 0; i < 60; ++i) {
    const int64_t offset = static_cast<int64_t>(random() % big.size());
    const int64_t length = static_cast<int64_t>(random() % 50000);
    const std::vector<uint8_t> got = ReadArchived("/big/big.dat", length, offset);
    const int64_t expected = std::min<int64_t>(length, static_cast<int64_t>(big.size()) - offset);
    ASSERT_EQ(static_cast<int64_t>(got.size()), expected);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), big.begin() + offset)) << offset << "+" << length;
  }
  // Zero-length reads and reads at the end.
  uint8_t byte;
  EXPECT_EQ(zulKestFileReadSync(nullptr, "/big/big.dat", &byte, 0, 5), 0);
  EXPECT_EQ(zulKestFileReadSync(nullptr, "/big/big.dat", &byte, 1, static_cast<int64_t>(big.size())), 0);

  std::atomic<int> mismatches{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&, t] {
      kest2_common::Random local(100 + t);
      std::vector<uint8_t> buffer(40000);
      for (int i = 0; i < 25; ++i) {
        const bool useNoise = (i + t) % 3 == 0;
        const std::vector<uint8_t>& source = useNoise ? noise : big;
        const int64_t offset = static_cast<int64_t>(local() % (source.size() - buffer.size()));
        const int64_t got = zulKestFileReadSync(nullptr, useNoise ? "/big/noise.dat" : "/big/big.dat",
                                                buffer.data(), static_cast<int64_t>(buffer.size()), offset);
        if (got != static_cast<int64_t>(buffer.size()) ||
            !std::equal(buffer.begin(), buffer.end(), source.begin() + offset)) {
          ++mismatches;
        }
      }
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(mismatches, 0);
  // Buffers come back on the decompressor threads while the I/O thread
  // decides to wait for them: a return it missed would stall the reads
  // until the back-off, with this warning.
  EXPECT_EQ(output_.text().find("unexpected busy state"), std::string::npos);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
}

// Reads of one to nine blocks, many in flight: lanes that finish while
// others still work (and wait for the read's last lane), lanes that take
// the next block, and reads cancelled on the way.  Every read ends, with
// its bytes or as cancelled, and the engine never sits on a lane that was
// ready.
TEST_F(DearchiverTest, ManyMultiBlockReadsInFlightAllEndWhetherCancelledOrNot) {
  Install();
  constexpr int64_t kBlock = 4096;
  std::map<std::string, std::vector<uint8_t>> files;
  for (int blocks = 1; blocks <= 9; ++blocks) {
    files["f" + std::to_string(blocks)] =
        Bytes(static_cast<size_t>(blocks * kBlock - (blocks % 3) * 100), 40 + blocks, true);
  }
  kest2_cli::PackOptions options;
  options.blockSize = kBlock;
  ZulKestFH fh = 0;
  ASSERT_EQ(Mount(Pack(MakeTree("lanes", files), "lanes.zorba", options), "/l", &fh), ZUL_KEST_OK);

  constexpr int kReads = 120;
  std::vector<std::vector<uint8_t>> buffers(kReads);
  std::vector<ZulKestOp> reads(kReads);
  std::vector<const std::vector<uint8_t>*> expected(kReads);
  for (int i = 0; i < kReads; ++i) {
    const std::string name = "f" + std::to_string(1 + i % 9);
    expected[i] = &files[name];
    buffers[i].assign(expected[i]->size(), 0);
    reads[i] = zulKestFileRead(nullptr, ("/l/" + name).c_str(), buffers[i].data(),
                               static_cast<int64_t>(buffers[i].size()), 0);
    ASSERT_NE(reads[i], 0u);
    if (i % 7 == 3) zulKestOpCancel(reads[i]);
  }
  for (int i = 0; i < kReads; ++i) {
    const int32_t result = zulKestOpWait(reads[i]);
    if (i % 7 == 3 && result == ZUL_KEST_ERROR_CANCELLED) {
      zulKestOpDelete(reads[i]);
      continue;
    }
    EXPECT_EQ(result, ZUL_KEST_OK) << "read " << i;
    EXPECT_EQ(zulKestOpGetActualCount(reads[i]), static_cast<int64_t>(expected[i]->size()))
        << "read " << i;
    EXPECT_TRUE(buffers[i] == *expected[i]) << "read " << i;
    zulKestOpDelete(reads[i]);
  }
  EXPECT_EQ(output_.text().find("unexpected busy state"), std::string::npos);
  // Every block read that was cancelled on its way has given its handle
  // back: the unmount's close waits for none.
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(DearchiverTest, LookupsListingsAndTheMountPointBoundary) {
  Install();
  const std::string tree = MakeTree("look", {{"a.txt", Bytes(10, 1, true)},
                                             {"dir/b.txt", Bytes(20, 2, true)},
                                             {"dir/sub/c.txt", Bytes(30, 3, true)}});
  ZulKestFH fh = 0;
  ASSERT_EQ(Mount(Pack(tree, "look.zorba"), "/data", &fh), ZUL_KEST_OK);
  EXPECT_TRUE(zulKestDirectoryExistsSync(nullptr, "/data"));
  EXPECT_TRUE(zulKestDirectoryExistsSync(nullptr, "/data/dir"));
  EXPECT_TRUE(zulKestFileExistsSync(nullptr, "/data/dir/b.txt"));
  EXPECT_TRUE(zulKestFileExistsSync(nullptr, "/data\\dir\\b.txt") ||
              zulKestFileExistsSync(nullptr, "/data\\a.txt"));
  EXPECT_FALSE(zulKestFileExistsSync(nullptr, "/data/dir"));
  EXPECT_FALSE(zulKestExistsSync(nullptr, "/data/missing"));
  EXPECT_FALSE(zulKestExistsSync(nullptr, "/database/a.txt"));  // not below /data
  EXPECT_EQ(zulKestFileGetSizeSync(nullptr, "/data/dir"), ZUL_KEST_ERROR_NOT_A_FILE);

  ZulKestStat st;
  ASSERT_EQ(zulKestStatSync(nullptr, "/data/dir/sub/c.txt", &st), ZUL_KEST_OK);
  EXPECT_EQ(st.fileSize, 30);
  EXPECT_EQ(st.statFlags, ZUL_KEST_STAT_READABLE);
  ASSERT_EQ(zulKestStatSync(nullptr, "/data/dir", &st), ZUL_KEST_OK);
  EXPECT_EQ(st.statFlags, ZUL_KEST_STAT_DIRECTORY | ZUL_KEST_STAT_READABLE);

  ZulKestOpenParams writing{};
  writing.openFlags = ZUL_KEST_O_WRITE;
  ZulKestFH file = 0;
  EXPECT_EQ(zulKestFHOpenSync(nullptr, &file, "/data/a.txt", &writing), ZUL_KEST_ERROR_READ_ONLY);
  EXPECT_EQ(zulKestFileDeleteSync(nullptr, "/data/a.txt"), ZUL_KEST_ERROR_READ_ONLY);
  EXPECT_EQ(zulKestDirectoryCreateSync(nullptr, "/data/dir"), ZUL_KEST_ERROR_BAD_PATH);

  std::vector<uint64_t> listing(0x20000 / 8);
  ZulKestDH dh = 0;
  ASSERT_EQ(zulKestDHOpenSync(nullptr, &dh, "/data/dir", listing.data(), 0x20000), ZUL_KEST_OK);
  std::vector<std::string> names;
  ZulKestDirEntry entry;
  while (zulKestDHReadSync(nullptr, dh, &entry) == ZUL_KEST_OK) {
    names.push_back(std::string(entry.fullPath) + ((entry.statFlags & ZUL_KEST_STAT_DIRECTORY) ? "/" : ""));
  }
  EXPECT_EQ(zulKestDHReadSync(nullptr, dh, &entry), ZUL_KEST_ERROR_EOF);
  EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
  EXPECT_EQ(names, (std::vector<std::string>{"/data/dir/b.txt", "/data/dir/sub/"}));
}

// "sub.txt" and "sub-old" sort between "sub" and "sub/x" in the manifest, so
// a search for "sub" alone lands on them; the directory must still be found
// and listed, with case ignored too (where "SUB.TXT" sorts as "sub.txt").
TEST_F(DearchiverTest, ADirectoryIsFoundBesideFilesThatBeginWithItsName) {
  Install();
  const std::string tree = MakeTree("siblings", {{"sub/x", Bytes(5, 1, true)},
                                                 {"sub/deep/y", Bytes(6, 2, true)},
                                                 {"sub/deep.txt", Bytes(7, 3, true)},
                                                 {"SUB.TXT", Bytes(8, 4, true)},
                                                 {"sub-old", Bytes(9, 5, true)},
                                                 {"sub0", Bytes(10, 6, true)}});
  for (const bool ignoreCase : {false, true}) {
    SCOPED_TRACE(ignoreCase ? "case ignored" : "case kept");
    kest2_cli::PackOptions options;
    options.ignoreCase = ignoreCase;
    const std::string name = ignoreCase ? "siblings-nocase.zorba" : "siblings.zorba";
    const std::string at = ignoreCase ? "/nocase" : "/case";
    ZulKestFH fh = 0;
    ASSERT_EQ(Mount(Pack(tree, name, options), at.c_str(), &fh), ZUL_KEST_OK);
    EXPECT_TRUE(zulKestDirectoryExistsSync(nullptr, (at + "/sub").c_str()));
    EXPECT_TRUE(zulKestDirectoryExistsSync(nullptr, (at + "/sub/deep").c_str()));
    EXPECT_FALSE(zulKestDirectoryExistsSync(nullptr, (at + "/sub0").c_str()));
    EXPECT_EQ(List(at), (std::map<std::string, int64_t>{
                            {"SUB.TXT", 8}, {"sub", 0}, {"sub-old", 9}, {"sub0", 10}}));
    EXPECT_EQ(List(at + "/sub"),
              (std::map<std::string, int64_t>{{"deep", 0}, {"deep.txt", 7}, {"x", 5}}));
    EXPECT_EQ(List(at + "/sub/deep"), (std::map<std::string, int64_t>{{"y", 6}}));
    EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
  }
}

TEST_F(DearchiverTest, NewerArchiveWinsAndRemountKeepsHandlesValid) {
  Install();
  const std::string older = Pack(MakeTree("old", {{"shared.txt", Bytes(11, 1, true)},
                                                  {"only-old.txt", Bytes(12, 2, true)}}),
                                 "old.zorba");
  const std::string newer = Pack(MakeTree("new", {{"shared.txt", Bytes(21, 3, true)},
                                                  {"only-new.txt", Bytes(22, 4, true)}}),
                                 "new.zorba");
  ZulKestFH oldFh = 0, newFh = 0;
  ASSERT_EQ(Mount(older, "/m", &oldFh), ZUL_KEST_OK);
  ZulKestFH file = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &file, "/m/only-old.txt", nullptr), ZUL_KEST_OK);
  ASSERT_EQ(Mount(newer, "/m", &newFh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestFileGetSizeSync(nullptr, "/m/shared.txt"), 21);
  EXPECT_EQ(zulKestFileGetSizeSync(nullptr, "/m/only-old.txt"), 12);

  std::vector<uint64_t> listing(0x20000 / 8);
  ZulKestDH dh = 0;
  ASSERT_EQ(zulKestDHOpenSync(nullptr, &dh, "/m", listing.data(), 0x20000), ZUL_KEST_OK);
  std::map<std::string, int64_t> seen;
  ZulKestDirEntry entry;
  while (zulKestDHReadSync(nullptr, dh, &entry) == ZUL_KEST_OK) {
    EXPECT_TRUE(seen.emplace(entry.fullPath + entry.offsetToName, entry.fileSize).second)
        << entry.fullPath << " listed twice";
  }
  zulKestDHCloseSync(nullptr, dh);
  EXPECT_EQ(seen, (std::map<std::string, int64_t>{{"only-new.txt", 22}, {"only-old.txt", 12}, {"shared.txt", 21}}));

  // The old archive goes and comes back: its handle works again.
  char buffer[32];
  EXPECT_EQ(zulKestFHPreadSync(nullptr, file, buffer, 32, 0), 12);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, oldFh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestFHPreadSync(nullptr, file, buffer, 32, 0), ZUL_KEST_ERROR_BAD_FH);
  ASSERT_EQ(Mount(older, "/m", &oldFh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestFHPreadSync(nullptr, file, buffer, 32, 0), 12);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, file), ZUL_KEST_OK);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, newFh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, oldFh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, oldFh), ZUL_KEST_ERROR_BAD_FH);
}

TEST_F(DearchiverTest, UnmountWhileReadsAreInFlight) {
  Install();
  const std::vector<uint8_t> big = Bytes(1 << 20, 12, true);
  kest2_cli::PackOptions options;
  options.blockSize = 4096;
  const std::string archive = Pack(MakeTree("flight", {{"big.dat", big}}), "flight.zorba", options);
  for (int round = 0; round < 5; ++round) {
    ZulKestFH fh = 0;
    ASSERT_EQ(Mount(archive, "/f", &fh), ZUL_KEST_OK);
    std::vector<std::vector<uint8_t>> buffers(6, std::vector<uint8_t>(big.size()));
    std::vector<ZulKestOp> reads;
    for (auto& buffer : buffers) {
      reads.push_back(zulKestFileRead(nullptr, "/f/big.dat", buffer.data(),
                                      static_cast<int64_t>(buffer.size()), 0));
    }
    // Reads already accepted either finish with the right bytes or fail
    // (the unmount closes the archive file under them); none hangs or
    // crashes, and new lookups no longer find the archive.
    EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
    for (size_t i = 0; i < reads.size(); ++i) {
      const int32_t result = zulKestOpWait(reads[i]);
      if (result == ZUL_KEST_OK) {
        EXPECT_TRUE(buffers[i] == big) << "round " << round;
      } else {
        // Accepted before the unmount, they meet the closed archive file;
        // lookups made after it fall through to the disk, which has no such
        // file.
        EXPECT_TRUE(result == ZUL_KEST_ERROR_BAD_FH || result == ZUL_KEST_ERROR_BAD_PATH)
            << "round " << round << ": " << result;
      }
      zulKestOpDelete(reads[i]);
    }
    EXPECT_FALSE(zulKestFileExistsSync(nullptr, "/f/big.dat"));
  }
}

TEST_F(DearchiverTest, MountBufferSizesAndLooseFiles) {
  Install(ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES);
  const std::string archive = Pack(MakeTree("sizes", {{"x.txt", Bytes(100, 1, true)}}), "sizes.zorba");
  // A mount with too small a buffer reports the size it needs.
  ZulKestFH fh = 0;
  std::vector<uint64_t> small(16);
  const ZulKestOp op = zulKestArchiveMount(nullptr, &fh, archive.c_str(), dir_.path().c_str(),
                                           small.data(), 128, nullptr);
  EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_ERROR_BAD_SIZE);
  const int64_t required = zulKestOpGetActualCount(op);
  zulKestOpDelete(op);
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);  // the failed mount closed the archive
  std::vector<uint64_t> buffer(static_cast<size_t>(required) / 8 + 1);
  EXPECT_EQ(zulKestArchiveMountSync(nullptr, &fh, archive.c_str(), dir_.path().c_str(),
                                    buffer.data(), required - 1, nullptr),
            ZUL_KEST_ERROR_BAD_SIZE);
  ASSERT_EQ(zulKestArchiveMountSync(nullptr, &fh, archive.c_str(), dir_.path().c_str(),
                                    buffer.data(), required, nullptr),
            ZUL_KEST_OK);
  // A loose file beside the archived ones under the same mount point.
  WriteFile(dir_.path() + "/loose.txt", Bytes(7, 9, true));
  EXPECT_EQ(zulKestFileGetSizeSync(nullptr, (dir_.path() + "/loose.txt").c_str()), 7);
  EXPECT_EQ(zulKestFileGetSizeSync(nullptr, (dir_.path() + "/x.txt").c_str()), 100);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
}

// The size a query reports is what a caller allocates: a damaged size field
// (the TOC's length, the manifest's size) must be refused, not turned into
// a request for gigabytes.  Every byte of a small archive is flipped in
// turn; the query either fails or asks for a buffer in proportion to the
// archive, and so does a mount with too small a buffer.
TEST_F(DearchiverTest, DamagedSizeFieldsNeverAskForAHugeMountBuffer) {
  Install();
  const std::string archive = Pack(MakeTree("flip", {{"a.txt", Bytes(6, 1, true)}}), "flip.zorba");
  const std::vector<uint8_t> bytes = ReadFile(archive);
  // A manifest size may still grow to the blocks the TOC has rows for.
  const int64_t bound = 3 * static_cast<int64_t>(bytes.size()) + 4 * 65536;
  const std::string damaged = dir_.path() + "/damaged.zorba";
  for (size_t i = 0; i < bytes.size(); ++i) {
    for (uint8_t flip : {uint8_t{0xFF}, uint8_t{0x80}}) {
      std::vector<uint8_t> copy = bytes;
      copy[i] ^= flip;
      WriteFile(damaged, copy);
      const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, damaged.c_str(), nullptr);
      EXPECT_LE(need, bound) << "byte " << i << " ^ " << static_cast<int>(flip);
      ZulKestFH fh = 0;
      std::vector<uint64_t> small(16);
      const ZulKestOp op =
          zulKestArchiveMount(nullptr, &fh, damaged.c_str(), "/flip", small.data(), 128, nullptr);
      const int32_t rc = zulKestOpWait(op);
      if (rc == ZUL_KEST_ERROR_BAD_SIZE) {
        EXPECT_LE(zulKestOpGetActualCount(op), bound)
            << "byte " << i << " ^ " << static_cast<int>(flip);
      }
      zulKestOpDelete(op);
      if (rc == ZUL_KEST_OK) {
        EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
      }
    }
  }
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
}

TEST_F(DearchiverTest, LooseFilesJoinTheArchiveListings) {
  Install(ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES);
  const std::string archive =
      Pack(MakeTree("packed", {{"x.txt", Bytes(100, 1, true)}, {"y.txt", Bytes(200, 2, true)}}),
           "merged.zorba");
  const std::string mount = dir_.path() + "/merged";
  MakeTree("merged", {{"x.txt", Bytes(3, 3, true)}, {"loose.txt", Bytes(4, 4, true)}});
  ZulKestFH fh = 0;
  ASSERT_EQ(Mount(archive, mount.c_str(), &fh), ZUL_KEST_OK);
  // The archive's x.txt hides the loose one; the loose file joins.
  EXPECT_EQ(List(mount),
            (std::map<std::string, int64_t>{{"loose.txt", 4}, {"x.txt", 100}, {"y.txt", 200}}));
  EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 0);  // both listings' handles are gone
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
  EXPECT_EQ(List(mount), (std::map<std::string, int64_t>{{"loose.txt", 4}, {"x.txt", 3}}));
}

// An archive mounted at a place that does not exist on disk (a virtual
// location), or whose subdirectory has no twin on disk, still lists: the
// failed native half of the listing is dropped and nothing of it is left.
TEST_F(DearchiverTest, LooseFilesListingsWhereNothingIsOnDisk) {
  Install(ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES);
  const std::string archive = Pack(
      MakeTree("virtual", {{"x/w.txt", Bytes(10, 1, true)}, {"x/y/z.txt", Bytes(20, 2, true)}}),
      "virtual.zorba");
  const std::string nowhere = dir_.path() + "/nowhere";
  ZulKestFH fh = 0;
  ASSERT_EQ(Mount(archive, nowhere.c_str(), &fh), ZUL_KEST_OK);
  const auto names = [](const std::map<std::string, int64_t>& listed) {
    std::set<std::string> out;
    for (const auto& entry : listed)
      out.insert(entry.first.back() == '/' ? entry.first.substr(0, entry.first.size() - 1)
                                           : entry.first);
    return out;
  };
  EXPECT_EQ(names(List(nowhere)), (std::set<std::string>{"x"}));
  EXPECT_EQ(names(List(nowhere + "/x")), (std::set<std::string>{"w.txt", "y"}));
  EXPECT_EQ(ReadArchived(nowhere + "/x/y/z.txt", 20), Bytes(20, 2, true));
  // A path the archive lacks still goes down, and fails there.
  std::vector<uint64_t> buffer(0x20000 / 8);
  ZulKestDH dh = 0;
  EXPECT_EQ(zulKestDHOpenSync(nullptr, &dh, (nowhere + "/missing").c_str(), buffer.data(), 0x20000),
            ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 0);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);

  // The mount point exists on disk, its subdirectory x does not.
  const std::string half = MakeTree("half", {{"loose.txt", Bytes(4, 4, true)}});
  ASSERT_EQ(Mount(archive, half.c_str(), &fh), ZUL_KEST_OK);
  EXPECT_EQ(names(List(half)), (std::set<std::string>{"loose.txt", "x"}));
  EXPECT_EQ(names(List(half + "/x")), (std::set<std::string>{"w.txt", "y"}));
  EXPECT_EQ(names(List(half + "/x/y")), (std::set<std::string>{"z.txt"}));
  EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 0);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(DearchiverTest, CorruptArchivesFailWithTheirCodes) {
  Install();
  const std::vector<uint8_t> text = Bytes(200000, 3, true);
  const std::string archive = Pack(MakeTree("corrupt", {{"t.txt", text}}), "good.zorba");
  std::vector<uint8_t> bytes = ReadFile(archive);
  ZulKestFH fh = 0;

  std::vector<uint8_t> badMagic = bytes;
  badMagic[0] ^= 0xFF;
  WriteFile(dir_.path() + "/magic.zorba", badMagic);
  EXPECT_EQ(Mount(dir_.path() + "/magic.zorba", "/c", &fh), ZUL_KEST_ERROR_BAD_ARCHIVE);

  WriteFile(dir_.path() + "/short.zorba", std::vector<uint8_t>(bytes.begin(), bytes.begin() + 20));
  // Not even a whole header.
  EXPECT_EQ(Mount(dir_.path() + "/short.zorba", "/c", &fh), ZUL_KEST_ERROR_EOF);

  // The TOC claims more than the file holds.
  WriteFile(dir_.path() + "/cut.zorba", std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
  EXPECT_EQ(Mount(dir_.path() + "/cut.zorba", "/c", &fh), ZUL_KEST_ERROR_BAD_ARCHIVE);

  // Garbage in the middle of the compressed data: the mount works (the TOC
  // and manifest are intact) but reads of the damaged blocks fail.
  std::vector<uint8_t> damaged = bytes;
  for (size_t i = bytes.size() / 3; i < bytes.size() / 3 + 200; ++i) damaged[i] ^= 0x5A;
  WriteFile(dir_.path() + "/damaged.zorba", damaged);
  ASSERT_EQ(Mount(dir_.path() + "/damaged.zorba", "/d", &fh), ZUL_KEST_OK);
  std::vector<uint8_t> buffer(text.size());
  EXPECT_EQ(zulKestFileReadSync(nullptr, "/d/t.txt", buffer.data(),
                                static_cast<int64_t>(buffer.size()), 0),
            ZUL_KEST_ERROR_DECOMPRESSION);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
}

// The fuzz seeds whose first compressed block carries a bad checksum, a
// stream that inflates to too few or too many bytes, or a stream cut short
// (made by tests/fuzz/damage_seeds.py): reads that touch the block fail
// with the decompression error, whichever inflater tried it; the other
// blocks and files still read back.
TEST_F(DearchiverTest, DamagedBlockStreamsFailOnlyTheReadsThatTouchThem) {
  Install();
  ZulKestFH fh = 0;
  ASSERT_EQ(Mount(KEST2_FUZZ_CORPUS_DIR "/v3-b4096.zorba", "/good", &fh), ZUL_KEST_OK);
  const std::vector<uint8_t> whole = ReadArchived("/good/big.txt", 14000);
  const std::vector<uint8_t> other = ReadArchived("/good/n.bin", 1000);
  ASSERT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
  for (const char* damage : {"bad-adler", "short-output", "long-output", "truncated"}) {
    SCOPED_TRACE(damage);
    const std::string archive = std::string(KEST2_FUZZ_CORPUS_DIR "/v3-b4096-") + damage + ".zorba";
    ASSERT_EQ(Mount(archive, "/d", &fh), ZUL_KEST_OK);
    std::vector<uint8_t> buffer(whole.size());
    EXPECT_EQ(zulKestFileReadSync(nullptr, "/d/big.txt", buffer.data(), 14000, 0),
              ZUL_KEST_ERROR_DECOMPRESSION);
    EXPECT_EQ(zulKestFileReadSync(nullptr, "/d/big.txt", buffer.data(), 100, 4000),
              ZUL_KEST_ERROR_DECOMPRESSION);
    EXPECT_EQ(ReadArchived("/d/big.txt", 14000 - 4096, 4096),
              std::vector<uint8_t>(whole.begin() + 4096, whole.end()));
    EXPECT_EQ(ReadArchived("/d/n.bin", 1000), other);
    EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
    EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
  }
  EXPECT_NE(output_.text().find("Decompression failed"), std::string::npos);
}

// A compressed block's row may be wider than the block size allows (two
// bytes for 4 KiB blocks); one longer than a work buffer part must fail the
// read instead of being read into the part (found by the archive fuzz
// target: a 16,000-byte read into 4 KiB parts).
TEST_F(DearchiverTest, CompressedRowLongerThanAWorkBufferPartIsRefused) {
  constexpr uint64_t kPart = 4096;
  // Exactly three parts in an allocation of their own, so that a sanitizer
  // build catches a read past them.
  std::unique_ptr<void, void (*)(void*)> work(std::aligned_alloc(64, 3 * kPart), std::free);
  ASSERT_NE(work, nullptr);
  context_.workBufferSize = 3 * kPart;
  context_.pWorkBuffer = work.get();
  Install();

  kest2_cli::PackOptions options;
  options.blockSize = kPart;
  const std::vector<uint8_t> text = Bytes(3 * kPart, 5, true);
  std::vector<uint8_t> bytes = ReadFile(Pack(MakeTree("row", {{"t.txt", text}}), "row.zorba", options));
  kest2::ZorbaHeader header;
  kest2::ParseHeader(bytes.data(), &header);
  const uint8_t* entry = kest2::FindEntryByPath(header, bytes.data() + header.tocOffset, "t.txt");
  ASSERT_NE(entry, nullptr);
  ASSERT_EQ(header.sizeWidth, 2);
  // The first block's row becomes 16,000; the archive grows so that the
  // rows still describe bytes inside it and the mount accepts it.
  const size_t row = static_cast<size_t>(header.tocOffset + uint64_t{header.tocEntrySize} * header.tocEntryCount +
                                         uint64_t{kest2::GetEntryFirstBlock(entry)} * header.sizeWidth);
  const uint32_t oldRow = (uint32_t{bytes[row]} << 8) | bytes[row + 1];
  ASSERT_NE(oldRow, 0u);  // compressed
  bytes[row] = 16000 >> 8;
  bytes[row + 1] = 16000 & 0xFF;
  bytes.resize(bytes.size() + 16000 - oldRow);
  WriteFile(dir_.path() + "/long-row.zorba", bytes);

  ZulKestFH fh = 0;
  ASSERT_EQ(Mount(dir_.path() + "/long-row.zorba", "/r", &fh), ZUL_KEST_OK) << output_.text();
  std::vector<uint8_t> buffer(kPart);
  EXPECT_EQ(zulKestFileReadSync(nullptr, "/r/t.txt", buffer.data(), static_cast<int64_t>(kPart), 0),
            ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_EQ(zulKestFileReadSync(nullptr, "/r/t.txt", buffer.data(), 100, 10), ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
  // The work buffer goes before TearDown: the filter must go first.
  EXPECT_EQ(zulKestIOFilterRemove(0), ZUL_KEST_OK);
  installed_ = false;
}

TEST_F(DearchiverTest, ContextChecksRefuseWithTheirMessages) {
  ZulKestZorbaDearchiverContext bad = context_;
  bad.sizeOfContext = 48;
  EXPECT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &bad), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_NE(output_.text().find("KEST2 ERROR: sizeOfContext 48 != expected 56.\n"), std::string::npos);
  bad = context_;
  bad.pWorkBuffer = static_cast<uint8_t*>(context_.pWorkBuffer) + 8;
  EXPECT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &bad), ZUL_KEST_ERROR_BAD_ALIGNMENT);
  bad = context_;
  bad.flags = 2;
  EXPECT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &bad), ZUL_KEST_ERROR_BAD_FLAGS);
  bad = context_;
  bad.reserved[2] = 1;
  EXPECT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &bad), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_NE(output_.text().find("reserved[2] field is not zero"), std::string::npos);
  bad = context_;
  bad.workBufferSize = 0;
  EXPECT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &bad), ZUL_KEST_ERROR_BAD_SIZE);

  // A work buffer too small for the archive's blocks refuses the mount.
  Install();
  context_.workBufferSize = 3 * 1024;
  ZulKestFH fh = 0;
  const std::string archive = Pack(MakeTree("small", {{"f", Bytes(100, 1, true)}}), "small.zorba");
  EXPECT_EQ(Mount(archive, "/w", &fh), ZUL_KEST_ERROR_BAD_SIZE);
  context_.workBufferSize = 3 * 70000;
}

}  // namespace
