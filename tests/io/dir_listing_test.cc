// Directory listings through the public requests, and the listing's own
// building blocks (stored entries ahead of the directory's own).

#include "io/dir_listing.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "io/native_handlers.h"
#include "io/overlay_dir_listing.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2::kNativeDirBufferSize;

// Buffer length that a listing of a directory without overlays needs.
constexpr int64_t kPlainLength =
    kNativeDirBufferSize + kest2::ListingStorageFor(sizeof(kest2::OverlayDirListing));

void WriteFile(const std::string& path, size_t size) {
  std::ofstream(path) << std::string(size, 'x');
}

std::atomic<int> g_events[9];
void CountEvent(const ZulKestIOEvent* event) {
  if (event->kind < 9) ++g_events[event->kind];
}

class DirListingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams();
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.pEventCallback = CountEvent;
    for (auto& count : g_events) count = 0;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    kest2::InstallDirectoryListing();
  }
  void TearDown() override {
    if (zulKestIsInitialized(nullptr)) zulKestTerminate();
    kest2::SetDirectoryHandlers(nullptr, nullptr, nullptr);
  }

  // 8-byte aligned caller buffer of `length` bytes.
  void* Buffer(int64_t length) {
    buffers_.emplace_back((length + 7) / 8);
    return buffers_.back().data();
  }
  ZulKestDH Open(const std::string& path, int64_t length = kPlainLength) {
    ZulKestDH dh = 0;
    EXPECT_EQ(zulKestDHOpenSync(nullptr, &dh, path.c_str(), Buffer(length), length), ZUL_KEST_OK);
    return dh;
  }
  // Every entry up to the end, by name; a name listed twice fails the test.
  std::map<std::string, ZulKestDirEntry> ReadAll(ZulKestDH dh) {
    std::map<std::string, ZulKestDirEntry> entries;
    ZulKestDirEntry entry;
    int32_t result;
    while ((result = zulKestDHReadSync(nullptr, dh, &entry)) == ZUL_KEST_OK) {
      const std::string name(entry.fullPath + entry.offsetToName);
      EXPECT_TRUE(entries.emplace(name, entry).second) << name << " listed twice";
    }
    EXPECT_EQ(result, ZUL_KEST_ERROR_EOF);
    return entries;
  }

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
  std::vector<std::vector<uint64_t>> buffers_;
};

TEST_F(DirListingTest, ListsEachEntryOnceWithPathSizeAndFlags) {
  const std::string& root = dir_.path();
  WriteFile(root + "/empty", 0);
  WriteFile(root + "/data", 123);
  WriteFile(root + "/.hidden", 7);
  WriteFile(root + "/writeonly", 5);
  ASSERT_EQ(chmod((root + "/writeonly").c_str(), 0200), 0);
  ASSERT_EQ(mkdir((root + "/sub").c_str(), 0755), 0);
  WriteFile(root + "/sub/inner", 1);  // not part of this listing

  const ZulKestDH dh = Open(root + "//./");  // listed under its normal form
  auto entries = ReadAll(dh);
  ASSERT_EQ(entries.size(), 5u);
  for (const auto& [name, entry] : entries) {
    EXPECT_EQ(std::string(entry.fullPath), root + "/" + name);
    EXPECT_EQ(entry.fullPathLength, root.size() + 1 + name.size());
    EXPECT_EQ(entry.nameLength, name.size());
  }
  EXPECT_EQ(entries["data"].fileSize, 123);
  EXPECT_EQ(entries[".hidden"].fileSize, 7);
  EXPECT_EQ(entries["empty"].statFlags, ZUL_KEST_STAT_READABLE | ZUL_KEST_STAT_WRITABLE);
  EXPECT_EQ(entries["writeonly"].statFlags, ZUL_KEST_STAT_WRITABLE);
  EXPECT_EQ(entries["sub"].statFlags & ZUL_KEST_STAT_DIRECTORY, ZUL_KEST_STAT_DIRECTORY);

  // The end stays the end, and the entry is cleared each time.
  ZulKestDirEntry entry;
  for (int i = 0; i < 3; ++i) {
    entry.fileSize = 99;
    EXPECT_EQ(zulKestDHReadSync(nullptr, dh, &entry), ZUL_KEST_ERROR_EOF);
    EXPECT_EQ(entry.fileSize, 0);
  }
  EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
  EXPECT_GE(g_events[6], 1);
  EXPECT_GE(g_events[7], 6);
  EXPECT_GE(g_events[8], 1);
}

TEST_F(DirListingTest, StreamsThousandsOfEntriesThroughTheSmallestBuffer) {
  for (int i = 0; i < 3000; ++i) WriteFile(dir_.path() + "/file_number_" + std::to_string(i), 0);
  const ZulKestDH dh = Open(dir_.path());
  const auto entries = ReadAll(dh);
  EXPECT_EQ(entries.size(), 3000u);
  EXPECT_EQ(entries.count("file_number_2999"), 1u);
  EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
}

TEST_F(DirListingTest, TooSmallBufferReportsTheLengthThatWorks) {
  WriteFile(dir_.path() + "/f", 1);
  for (int64_t length : {int64_t{100}, static_cast<int64_t>(kNativeDirBufferSize)}) {
    ZulKestDH dh = 0;
    const ZulKestOp op = zulKestDHOpen(nullptr, &dh, dir_.path().c_str(), Buffer(length), length);
    EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_ERROR_BAD_SIZE) << length;
    EXPECT_EQ(zulKestOpGetActualCount(op), kPlainLength) << length;
    zulKestOpDelete(op);
    EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 0) << "a failed open keeps no handle";
  }
  const ZulKestDH dh = Open(dir_.path(), kPlainLength);
  EXPECT_EQ(ReadAll(dh).size(), 1u);
  EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);

  // More than the entry storage can use is fine; a misaligned buffer is not.
  const ZulKestDH big = Open(dir_.path(), 8 << 20);
  EXPECT_EQ(ReadAll(big).size(), 1u);
  EXPECT_EQ(zulKestDHCloseSync(nullptr, big), ZUL_KEST_OK);
  ZulKestDH dh2 = 0;
  char* misaligned = static_cast<char*>(Buffer(kPlainLength + 8)) + 4;
  EXPECT_EQ(zulKestDHOpenSync(nullptr, &dh2, dir_.path().c_str(), misaligned, kPlainLength),
            ZUL_KEST_ERROR_BAD_ALIGNMENT);
}

TEST_F(DirListingTest, OnlyAnOpenListingHoldsAHandleAndADescriptor) {
  WriteFile(dir_.path() + "/file", 3);
  const size_t descriptors = kest2_test::OpenDescriptors();
  ZulKestDH dh = 0;
  void* buffer = Buffer(kPlainLength);
  EXPECT_EQ(
      zulKestDHOpenSync(nullptr, &dh, (dir_.path() + "/missing").c_str(), buffer, kPlainLength),
      ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(zulKestDHOpenSync(nullptr, &dh, (dir_.path() + "/file").c_str(), buffer, kPlainLength),
            ZUL_KEST_ERROR_NOT_A_DIRECTORY);
  EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 0);

  dh = Open(dir_.path());
  EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 1);
  EXPECT_EQ(kest2_test::OpenDescriptors(), descriptors + 1);
  EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
  EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 0);
  EXPECT_EQ(kest2_test::OpenDescriptors(), descriptors);
  ZulKestDirEntry entry;
  EXPECT_EQ(zulKestDHReadSync(nullptr, dh, &entry), ZUL_KEST_ERROR_BAD_DH);
  EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_ERROR_BAD_DH);
}

TEST_F(DirListingTest, ListingsOpenAtOnceDoNotShareState) {
  const std::string a = dir_.path() + "/a", b = dir_.path() + "/b";
  ASSERT_EQ(mkdir(a.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(b.c_str(), 0755), 0);
  for (int i = 0; i < 50; ++i) {
    WriteFile(a + "/a" + std::to_string(i), 1);
    WriteFile(b + "/b" + std::to_string(i), 2);
  }
  const ZulKestDH first = Open(a), second = Open(b), again = Open(a);
  std::map<std::string, int> seen;
  ZulKestDirEntry entry;
  for (int round = 0; round < 50; ++round) {
    for (ZulKestDH dh : {first, second, again}) {
      ASSERT_EQ(zulKestDHReadSync(nullptr, dh, &entry), ZUL_KEST_OK);
      EXPECT_EQ(entry.fileSize, dh == second ? 2 : 1);
      ++seen[entry.fullPath];
    }
  }
  EXPECT_EQ(seen.size(), 100u);
  for (const auto& [path, count] : seen) EXPECT_EQ(count, path[a.size() + 1] == 'a' ? 2 : 1);
  for (ZulKestDH dh : {first, second, again}) {
    EXPECT_EQ(zulKestDHReadSync(nullptr, dh, &entry), ZUL_KEST_ERROR_EOF);
    EXPECT_EQ(zulKestDHCloseSync(nullptr, dh), ZUL_KEST_OK);
  }
}

TEST_F(DirListingTest, TracesTheBuildAndTheReads) {
  WriteFile(dir_.path() + "/only", 1);
  kest2_test::SetDebugFlags(ZUL_KEST_DEBUG_IO | ZUL_KEST_DEBUG_OVRLY);
  const ZulKestDH dh = Open(dir_.path());
  ReadAll(dh);
  zulKestDHCloseSync(nullptr, dh);
  kest2_test::SetDebugFlags(0);
  const std::string& text = output_.text();
  for (const std::string& line : std::vector<std::string>{
           "kest2/ovrly", "DHOpen          0> with buffer: " + dir_.path(),
           "0> opened original dir " + dir_.path(), "from dh: only", "no more entries",
           "Overlay::DHReadSync EOF", "Overlay::DHCloseSync (fd="}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
  }
}

// Stored entries (those the overlay layers contribute) come first, each
// name once, and hide the directory's own entries of the same names.
TEST_F(DirListingTest, StoredEntriesComeFirstAndHideOwnEntriesOfTheSameName) {
  using namespace kest2;
  WriteFile(dir_.path() + "/a", 1);
  WriteFile(dir_.path() + "/c", 3);
  auto* state = static_cast<NativeDirState*>(Buffer(kNativeDirBufferSize));
  void* storage = Buffer(4096);
  OverlayDirListing* listing = nullptr;
  ASSERT_GT(OpenOverlaidDirectory(1, &listing, dir_.path().c_str(), 0, 255, storage, 4096, state),
            0);
  Pool pool{};
  std::vector<uint64_t> entryStorage(1232 / 8);  // 151 units: three entries
  ASSERT_EQ(PoolSetUp(&pool, entryStorage.data(), 1232, 1000, 8, 8), ZUL_KEST_OK);
  NativeDirEntry entry{};
  NativeStat stat{};
  for (const char* name : {"b", "a", "b"}) {
    std::snprintf(entry.name, sizeof(entry.name), "%s", name);
    stat.size = name[0];
    ASSERT_EQ(AddEntryToDirHandle(&pool, listing, &entry, &stat), ZUL_KEST_OK);
  }
  EXPECT_EQ(AddEntryToDirHandle(&pool, listing, &entry, &stat), ZUL_KEST_ERROR_BAD_SIZE);
  RemoveDuplicateEntries(&pool, listing, 0);
  EXPECT_EQ(pool.allocated, 2 * sizeof(OverlayDirEntry) / 8);

  std::vector<std::string> order;
  while (DHRead(listing, &entry, &stat, 0, 255, state) == ZUL_KEST_OK) {
    order.push_back(entry.name + std::string("=") + std::to_string(stat.size));
  }
  EXPECT_EQ(order, (std::vector<std::string>{"b=98", "a=97", "c=3"}));
  EXPECT_EQ(CloseOverlaidDirectory(listing), ZUL_KEST_OK);
  EXPECT_EQ(DHRead(listing, &entry, &stat, 0, 255, state), ZUL_KEST_ERROR_BAD_DH);
  EXPECT_EQ(CloseOverlaidDirectory(listing), ZUL_KEST_ERROR_BAD_DH);
}

TEST_F(DirListingTest, EntryStorageMustHoldTheHeaderAndBeAligned) {
  using namespace kest2;
  auto* state = static_cast<NativeDirState*>(Buffer(kNativeDirBufferSize));
  auto* storage = static_cast<char*>(Buffer(2048));
  OverlayDirListing* listing = nullptr;
  const char* path = dir_.path().c_str();
  EXPECT_EQ(OpenOverlaidDirectory(1, &listing, path, 0, 255, storage, 0x427, state),
            ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(OpenOverlaidDirectory(1, &listing, path, 0, 255, storage + 4, 1200, state),
            ZUL_KEST_ERROR_BAD_ALIGNMENT);
  // Too few units for the header after the pool's bitmap.
  EXPECT_EQ(OpenOverlaidDirectory(1, &listing, path, 0, 255, storage, 0x428, state),
            ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(listing, nullptr);
  const std::string tooLong(1024, 'x');
  EXPECT_EQ(OpenOverlaidDirectory(1, &listing, tooLong.c_str(), 0, 255, nullptr, 0, nullptr),
            ZUL_KEST_ERROR_PATH_TOO_LONG);
}

}  // namespace
