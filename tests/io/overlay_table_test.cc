// The overlay table and the resolver on real directory trees: order and id
// rules, the limit, each overlay type, overlays of overlays, and requests
// and listings that go through them, also over an archive's mount point.

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "kest2/archive_writer.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

void WriteText(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

void SetModificationTime(const std::string& path, time_t seconds) {
  struct timespec times[2] = {{0, UTIME_OMIT}, {seconds, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

ZulKestOverlay MakeOverlay(uint8_t type, int8_t order, const std::string& dst, const std::string& src) {
  ZulKestOverlay overlay{};
  overlay.type = type;
  overlay.order = order;
  std::strncpy(overlay.dst, dst.c_str(), sizeof(overlay.dst) - 1);
  std::strncpy(overlay.src, src.c_str(), sizeof(overlay.src) - 1);
  return overlay;
}

class OverlayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams();
    params.pVprintf = kest2_test::OutputCapture::Hook();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    root_ = dir_.path();
  }
  void TearDown() override { zulKestTerminate(); }

  int32_t Add(uint8_t type, int8_t order, const std::string& dst, const std::string& src) {
    const ZulKestOverlay overlay = MakeOverlay(type, order, dst, src);
    int32_t id = -1;
    EXPECT_EQ(zulKestOverlayAdd(&overlay, &id), ZUL_KEST_OK) << dst << " -> " << src;
    return id;
  }

  std::string Resolve(const std::string& path, uint32_t forWrite = 0) {
    char out[1024];
    EXPECT_EQ(zulKestOverlayResolveSync(forWrite, path.c_str(), out, sizeof(out)), ZUL_KEST_OK) << path;
    return out;
  }

  std::string ReadWhole(const std::string& path) {
    char buffer[256] = {};
    const int64_t got = zulKestFileReadSync(nullptr, path.c_str(), buffer, sizeof(buffer) - 1, 0);
    return got < 0 ? "<error>" : std::string(buffer, static_cast<size_t>(got));
  }

  std::vector<std::string> List(const std::string& path) {
    std::vector<std::string> names;
    std::vector<uint64_t> buffer(1 << 17);
    ZulKestDH dh = 0;
    const int32_t opened =
        zulKestDHOpenSync(nullptr, &dh, path.c_str(), buffer.data(), buffer.size() * sizeof(uint64_t));
    EXPECT_EQ(opened, ZUL_KEST_OK) << path;
    if (opened != ZUL_KEST_OK) return names;
    ZulKestDirEntry entry;
    while (zulKestDHReadSync(nullptr, dh, &entry) == ZUL_KEST_OK) names.emplace_back(entry.fullPath + entry.offsetToName);
    EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
    return names;
  }

  kest2_test::OutputCapture capture_;
  kest2_common::LibraryStorage storage_;
  kest2_common::TempDir dir_;
  std::string root_;
};

TEST_F(OverlayTest, TableKeepsOrderIdsAndItsLimit) {
  const int32_t a = Add(0, 5, "/a", "/x");
  const int32_t b = Add(0, 3, "/b", "/x");
  const int32_t c = Add(0, 5, "/c", "/x");
  // The counter is the process's: it starts at 1 and is not reset by a
  // new initialisation, so only the steps are fixed here.
  EXPECT_GE(a, 1);
  EXPECT_EQ(b, a + 1);
  EXPECT_EQ(c, a + 2);
  int32_t ids[8];
  int32_t count = 0;
  ASSERT_EQ(zulKestOverlayGetList(ids, 8, &count), ZUL_KEST_OK);
  ASSERT_EQ(count, 3);
  // Lower orders first; among equal orders the newest first.
  EXPECT_EQ(ids[0], b);
  EXPECT_EQ(ids[1], c);
  EXPECT_EQ(ids[2], a);
  ZulKestOverlay info{};
  ASSERT_EQ(zulKestOverlayGetInfo(c, &info), ZUL_KEST_OK);
  EXPECT_EQ(info.id, c);
  EXPECT_STREQ(info.dst, "/c");
  EXPECT_EQ(zulKestOverlayGetInfo(c, nullptr), ZUL_KEST_ERROR_BAD_PTR);
  EXPECT_EQ(zulKestOverlayGetInfo(c + 100, &info), ZUL_KEST_ERROR_BAD_OVERLAY);
  // Modify moves an entry when its order changes.
  const ZulKestOverlay moved = MakeOverlay(1, 1, "/c2", "/y/");
  ASSERT_EQ(zulKestOverlayModify(c, &moved), ZUL_KEST_OK);
  ASSERT_EQ(zulKestOverlayGetList(ids, 8, &count), ZUL_KEST_OK);
  EXPECT_EQ(ids[0], c);
  ASSERT_EQ(zulKestOverlayGetInfo(c, &info), ZUL_KEST_OK);
  EXPECT_STREQ(info.src, "/y");  // normalised
  // Bad records.
  ZulKestOverlay bad = MakeOverlay(4, 0, "/a", "/b");
  int32_t id = 0;
  EXPECT_EQ(zulKestOverlayAdd(&bad, &id), ZUL_KEST_ERROR_BAD_OVERLAY);
  bad = MakeOverlay(0, -1, "/a", "/b");
  EXPECT_EQ(zulKestOverlayAdd(&bad, &id), ZUL_KEST_ERROR_BAD_OVERLAY);
  bad = MakeOverlay(0, 0, "/a", "/b");
  std::memset(bad.dst, 'x', sizeof(bad.dst));
  EXPECT_EQ(zulKestOverlayAdd(&bad, &id), ZUL_KEST_ERROR_PATH_TOO_LONG);
  EXPECT_EQ(zulKestOverlayAdd(nullptr, &id), ZUL_KEST_ERROR_BAD_PTR);
  // The record is judged before the id pointer: without one, each fault
  // of the record still answers with its own code.
  bad = MakeOverlay(255, 0, "/a", "/b");
  EXPECT_EQ(zulKestOverlayAdd(&bad, nullptr), ZUL_KEST_ERROR_BAD_OVERLAY);
  bad = MakeOverlay(0, -1, "/a", "/b");
  EXPECT_EQ(zulKestOverlayAdd(&bad, nullptr), ZUL_KEST_ERROR_BAD_OVERLAY);
  bad = MakeOverlay(0, 0, "/a", "/b");
  std::memset(bad.dst, 'x', sizeof(bad.dst));
  EXPECT_EQ(zulKestOverlayAdd(&bad, nullptr), ZUL_KEST_ERROR_PATH_TOO_LONG);
  bad = MakeOverlay(0, 0, "/a", "/b");
  std::memset(bad.src, 'x', sizeof(bad.src));
  EXPECT_EQ(zulKestOverlayAdd(&bad, nullptr), ZUL_KEST_ERROR_PATH_TOO_LONG);
  EXPECT_EQ(zulKestOverlayAdd(nullptr, nullptr), ZUL_KEST_ERROR_BAD_PTR);
  const ZulKestOverlay good = MakeOverlay(0, 0, "/a", "/b");
  EXPECT_EQ(zulKestOverlayAdd(&good, nullptr), ZUL_KEST_ERROR_BAD_PTR);
  // The limit.
  for (int i = 3; i < 64; ++i) Add(0, 9, "/d" + std::to_string(i), "/x");
  ZulKestOverlay extra = MakeOverlay(0, 9, "/e", "/x");
  EXPECT_EQ(zulKestOverlayAdd(&extra, &id), ZUL_KEST_ERROR_TOO_MANY_OVERLAYS);
  EXPECT_EQ(zulKestOverlayRemove(b), ZUL_KEST_OK);
  EXPECT_EQ(zulKestOverlayRemove(b), ZUL_KEST_ERROR_BAD_OVERLAY);
  EXPECT_EQ(zulKestOverlayAdd(&extra, &id), ZUL_KEST_OK);
  EXPECT_EQ(id, a + 64);  // ids are not reused
  char out[1025];
  EXPECT_EQ(zulKestOverlayResolveSync(0, "/a", out, sizeof(out)), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(zulKestOverlayResolveSync(2, "/a", out, 1024), ZUL_KEST_ERROR_BAD_ARGUMENT);
}

TEST_F(OverlayTest, OpaqueMatchingAndCandidateRules) {
  Add(ZUL_KEST_OVERLAY_TYPE_OPAQUE, 0, "/app0/data", "/host/data");
  EXPECT_EQ(Resolve("/app0/data/x.bin"), "/host/data/x.bin");
  EXPECT_EQ(Resolve("/app0/database/x"), "/app0/database/x");
  EXPECT_EQ(Resolve("/app0/data"), "/host/data");
  EXPECT_EQ(Resolve("/app0/data/"), "/host/data");
  EXPECT_EQ(Resolve("/app0//data/./y"), "/host/data/y");
  // Requests work on the resolved path: a resolve request reports it.
  ZulKestResolveRecord in{}, out{};
  std::strcpy(in.path, "/app0/data/z");
  in.offset = 7;
  ASSERT_EQ(zulKestResolveSync(nullptr, &in, &out), ZUL_KEST_OK);
  EXPECT_STREQ(out.path, "/host/data/z");
  EXPECT_EQ(out.offset, 7);
  Add(ZUL_KEST_OVERLAY_TYPE_OPAQUE, 1, "/A", "/B");
  EXPECT_EQ(Resolve("/A:f"), "/B/:f");
}

TEST_F(OverlayTest, LaterOverlaysRedirectTheResultsOfEarlierOnes) {
  Add(ZUL_KEST_OVERLAY_TYPE_OPAQUE, 1, "/B", "/C");
  Add(ZUL_KEST_OVERLAY_TYPE_OPAQUE, 2, "/A", "/B");
  // /B -> /C comes first in the table and is not visited again.
  EXPECT_EQ(Resolve("/A/f"), "/B/f");
  Add(ZUL_KEST_OVERLAY_TYPE_OPAQUE, 3, "/B", "/D");
  EXPECT_EQ(Resolve("/A/f"), "/D/f");
}

TEST_F(OverlayTest, TranslucentNewerAndWritableOnRealFiles) {
  const std::string base = root_ + "/base";
  const std::string patch = root_ + "/patch";
  WriteText(base + "/both.txt", "base both");
  WriteText(base + "/below.txt", "base only");
  WriteText(patch + "/both.txt", "patch both");
  WriteText(patch + "/above.txt", "patch only");
  const int32_t id = Add(ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT, 0, base, patch);
  EXPECT_EQ(ReadWhole(base + "/both.txt"), "patch both");
  EXPECT_EQ(ReadWhole(base + "/below.txt"), "base only");
  EXPECT_EQ(ReadWhole(base + "/above.txt"), "patch only");
  EXPECT_EQ(Resolve(base + "/missing"), base + "/missing");

  // Newer: taken only where the patch is strictly newer, or the base lacks
  // the file.
  ZulKestOverlay newer = MakeOverlay(ZUL_KEST_OVERLAY_TYPE_NEWER, 0, base, patch);
  ASSERT_EQ(zulKestOverlayModify(id, &newer), ZUL_KEST_OK);
  SetModificationTime(base + "/both.txt", 1600000000);
  SetModificationTime(patch + "/both.txt", 1600000000);
  EXPECT_EQ(ReadWhole(base + "/both.txt"), "base both");
  SetModificationTime(patch + "/both.txt", 1600000100);
  EXPECT_EQ(ReadWhole(base + "/both.txt"), "patch both");
  SetModificationTime(base + "/both.txt", 1600000200);
  EXPECT_EQ(ReadWhole(base + "/both.txt"), "base both");
  EXPECT_EQ(ReadWhole(base + "/above.txt"), "patch only");

  // Writable: writes land above, reads see above only where it exists.
  ZulKestOverlay writable = MakeOverlay(ZUL_KEST_OVERLAY_TYPE_WRITABLE, 0, base, patch);
  ASSERT_EQ(zulKestOverlayModify(id, &writable), ZUL_KEST_OK);
  EXPECT_EQ(Resolve(base + "/new.txt", 1), patch + "/new.txt");
  EXPECT_EQ(Resolve(base + "/new.txt", 0), base + "/new.txt");
  const char text[] = "written";
  ASSERT_EQ(zulKestFileWriteSync(nullptr, (base + "/new.txt").c_str(), text, 7, 0), 7);
  EXPECT_TRUE(fs::exists(patch + "/new.txt"));
  EXPECT_FALSE(fs::exists(base + "/new.txt"));
  EXPECT_EQ(ReadWhole(base + "/new.txt"), "written");
}

TEST_F(OverlayTest, ListingsMergeLayersWithoutDuplicates) {
  const std::string base = root_ + "/base";
  const std::string patch = root_ + "/patch";
  WriteText(base + "/one", "1");
  WriteText(base + "/two", "2");
  WriteText(patch + "/two", "2'");
  WriteText(patch + "/three", "3");
  Add(ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT, 0, base, patch);
  std::vector<std::string> names = List(base);
  ASSERT_EQ(names.size(), 3u);
  // The layer's entries first, then the directory's own others.
  EXPECT_EQ(std::set<std::string>(names.begin(), names.begin() + 2), (std::set<std::string>{"two", "three"}));
  EXPECT_EQ(names[2], "one");

  // An overlay whose destination lies below adds the directory leading to
  // it, even where that does not exist.
  Add(ZUL_KEST_OVERLAY_TYPE_OPAQUE, 1, base + "/virtual/deeper", patch);
  names = List(base);
  EXPECT_NE(std::find(names.begin(), names.end(), "virtual"), names.end());
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
  // A directory that exists only as a destination opens and lists its layer.
  names = List(base + "/virtual/deeper");
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), (std::set<std::string>{"two", "three"}));

  // An opaque overlay onto a directory hides its own entries.
  const std::string hidden = root_ + "/hidden";
  WriteText(hidden + "/secret", "s");
  Add(ZUL_KEST_OVERLAY_TYPE_OPAQUE, 2, hidden, patch);
  names = List(hidden);
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), (std::set<std::string>{"two", "three"}));
}

TEST_F(OverlayTest, ThousandsOfEntriesMergeWithNoneMissingOrRepeated) {
  const std::string base = root_ + "/big";
  const std::string patch = root_ + "/bigpatch";
  fs::create_directories(base);
  fs::create_directories(patch);
  std::set<std::string> expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string name = "f" + std::to_string(i);
    if (i % 3 != 0) WriteText(base + "/" + name, "b");
    if (i % 2 == 0) WriteText(patch + "/" + name, "p");
    if (i % 3 != 0 || i % 2 == 0) expected.insert(name);
  }
  Add(ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT, 0, base, patch);
  const std::vector<std::string> names = List(base);
  EXPECT_EQ(names.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected);
}

}  // namespace

namespace {

TEST_F(OverlayTest, ATooSmallListingBufferReportsTheLengthThatWorks) {
  const std::string base = root_ + "/base";
  const std::string patch = root_ + "/patch";
  for (int i = 0; i < 40; ++i) WriteText(patch + "/p" + std::to_string(i), "p");
  WriteText(base + "/own", "o");
  Add(ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT, 0, base, patch);
  std::vector<uint64_t> small(16);
  ZulKestDH dh = 0;
  int64_t needed = 0;
  const ZulKestOp op = zulKestDHOpen(nullptr, &dh, base.c_str(), small.data(), small.size() * 8);
  EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_ERROR_BAD_SIZE);
  needed = zulKestOpGetActualCount(op);
  zulKestOpDelete(op);
  ASSERT_GT(needed, 40 * 400);
  std::vector<uint64_t> buffer(static_cast<size_t>(needed + 7) / 8);
  ASSERT_EQ(zulKestDHOpenSync(nullptr, &dh, base.c_str(), buffer.data(), needed), ZUL_KEST_OK);
  std::set<std::string> names;
  ZulKestDirEntry entry;
  while (zulKestDHReadSync(nullptr, dh, &entry) == ZUL_KEST_OK) {
    EXPECT_TRUE(names.insert(entry.fullPath + entry.offsetToName).second);
  }
  EXPECT_EQ(zulKestDHReadSync(nullptr, dh, &entry), ZUL_KEST_ERROR_EOF);
  EXPECT_EQ(names.size(), 41u);
  EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
}

TEST_F(OverlayTest, OverlaysChangingWhileOtherThreadsResolveAndRead) {
  const std::string base = root_ + "/base";
  const std::string patch = root_ + "/patch";
  WriteText(base + "/f", "base");
  WriteText(patch + "/f", "patch");
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        const std::string text = ReadWhole(base + "/f");
        if (text != "base" && text != "patch") ++wrong;
        std::vector<std::string> names = List(base);
        if (names.size() != 1 || names[0] != "f") ++wrong;
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    const int32_t id = Add(static_cast<uint8_t>(round % 4), static_cast<int8_t>(round % 7), base, patch);
    ASSERT_EQ(zulKestOverlayRemove(id), ZUL_KEST_OK);
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong.load(), 0);
  int32_t count = -1;
  ASSERT_EQ(zulKestOverlayGetList(nullptr, 0, &count), ZUL_KEST_OK);
  EXPECT_EQ(count, 0);
}

}  // namespace

namespace {

TEST_F(OverlayTest, APatchDirectoryOverAnArchiveMountPoint) {
  WriteText(root_ + "/tree/a.txt", "archived a");
  WriteText(root_ + "/tree/b.txt", "archived b");
  WriteText(root_ + "/patch/b.txt", "patched b");
  WriteText(root_ + "/patch/c.txt", "new c");
  kest2_cli::PackSummary summary;
  std::string error;
  ASSERT_TRUE(kest2_cli::PackDirectory(root_ + "/tree", root_ + "/tree.zorba", kest2_cli::PackOptions{}, &summary,
                                       &error))
      << error;
  alignas(64) static uint8_t work[3 * 65536];
  ZulKestZorbaDearchiverContext context{};
  context.sizeOfContext = sizeof(context);
  context.workBufferSize = sizeof(work);
  context.pWorkBuffer = work;
  context.flags = ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES;
  ASSERT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, &context), ZUL_KEST_OK);
  const std::string archive = root_ + "/tree.zorba";
  const std::string mount = root_ + "/game";
  const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive.c_str(), nullptr);
  ASSERT_GT(need, 0);
  std::vector<uint64_t> mountBuffer(static_cast<size_t>(need + 7) / 8);
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestArchiveMountSync(nullptr, &fh, archive.c_str(), mount.c_str(), mountBuffer.data(), need, nullptr),
            ZUL_KEST_OK);
  Add(ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT, 0, mount, root_ + "/patch");
  // Files the patch has come from it; the rest from the archive.
  EXPECT_EQ(ReadWhole(mount + "/a.txt"), "archived a");
  EXPECT_EQ(ReadWhole(mount + "/b.txt"), "patched b");
  EXPECT_EQ(ReadWhole(mount + "/c.txt"), "new c");
  const std::vector<std::string> names = List(mount);
  EXPECT_EQ(std::multiset<std::string>(names.begin(), names.end()),
            (std::multiset<std::string>{"a.txt", "b.txt", "c.txt"}));
  EXPECT_EQ(zulKestArchiveUnmountSync(nullptr, fh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestIOFilterRemove(0), ZUL_KEST_OK);
}

}  // namespace
