// Handle utilities: validity of every kind of handle, the descriptor table
// filling up and freeing, and the accessors of live and stale handles.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "common/library_storage.h"
#include "core/handletable.h"
#include "core/records.h"
#include "kest2.h"
#include "test_support.h"

namespace {

class HandleUtilitiesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }
  void TearDown() override { zulKestTerminate(); }
  kest2_common::LibraryStorage storage_;
};

TEST_F(HandleUtilitiesTest, Validity) {
  EXPECT_FALSE(zulKestIsValidHandle(0));
  EXPECT_FALSE(zulKestIsValidHandle(0x80018000u));  // negative
  EXPECT_FALSE(zulKestIsValidHandle(0x00010000u));  // table 0
  EXPECT_TRUE(zulKestIsValidHandle(0x7FFF8005u));   // descriptor-backed, slot unused
  EXPECT_FALSE(zulKestIsValidHandle(0x00014000u));  // no such operation
  const uint32_t fh = kest2::AllocateHandle(kest2::kFhTable);
  const uint32_t dh = kest2::AllocateHandle(kest2::kDhTable);
  EXPECT_TRUE(zulKestIsValidHandle(fh));
  EXPECT_TRUE(zulKestIsValidHandle(dh));
  kest2::ReleaseHandle(kest2::kFhTable, fh);
  EXPECT_FALSE(zulKestIsValidHandle(fh));
  kest2::ReleaseHandle(kest2::kDhTable, dh);
}

TEST_F(HandleUtilitiesTest, DescriptorTableFillsAndFrees) {
  EXPECT_EQ(zulKestFilenoToFH(-1), 0u);
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  // Claimed from several threads at once: 256 distinct handles, then none.
  std::vector<ZulKestFH> handles(300, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; i < 300; i += 3) handles[i] = zulKestFilenoToFH(fd);
    });
  }
  for (std::thread& t : threads) t.join();
  std::vector<bool> slots(256, false);
  int zeros = 0;
  for (ZulKestFH h : handles) {
    if (h == 0) {
      ++zeros;
      continue;
    }
    ASSERT_EQ(h & 0xFFFFFF00u, 0x7FFF8000u);
    EXPECT_FALSE(slots[h & 0xFF]) << "slot handed out twice";
    slots[h & 0xFF] = true;
    EXPECT_EQ(zulKestFHToFileno(h), fd);
  }
  EXPECT_EQ(zeros, 300 - 256);
  for (ZulKestFH h : handles) {
    if (h != 0) zulKestDeallocateFileno(h);
  }
  EXPECT_EQ(zulKestFHToFileno(0x7FFF8000u), -1);
  const ZulKestFH again = zulKestFilenoToFH(fd);
  EXPECT_EQ(again, 0x7FFF8000u);  // the first free slot
  zulKestDeallocateFileno(again);
  zulKestDeallocateFileno(0x00018000u);  // not descriptor-backed: ignored
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);  // never closed by the table
  close(fd);
}

TEST_F(HandleUtilitiesTest, AccessorsOfLiveAndStaleHandles) {
  const uint32_t fh = kest2::AllocateHandle(kest2::kFhTable);
  auto* file = kest2::Lookup<kest2::FileHandle>(kest2::kFhTable, fh);
  file->nativeFH = 42;
  file->size = 1000;
  file->openParams.openFlags = ZUL_KEST_O_READ;
  ASSERT_TRUE(kest2::SetPath(&file->path, "/x/./y", false));
  EXPECT_EQ(zulKestFHToFileno(fh), 42);
  EXPECT_EQ(zulKestFHGetSize(fh), 1000);
  EXPECT_STREQ(zulKestFHGetPath(fh), "/x/y");
  EXPECT_EQ(zulKestFHGetOpenParams(fh)->openFlags, ZUL_KEST_O_READ);
  kest2::ReleaseHandle(kest2::kFhTable, fh);
  EXPECT_EQ(zulKestFHToFileno(fh), -1);
  EXPECT_EQ(zulKestFHGetSize(fh), -1);
  EXPECT_EQ(zulKestFHGetPath(fh), nullptr);
  EXPECT_EQ(zulKestFHGetOpenParams(fh), nullptr);
  EXPECT_EQ(zulKestDHGetPath(fh), nullptr);
  const uint32_t dh = kest2::AllocateHandle(kest2::kDhTable);
  ASSERT_TRUE(kest2::SetPath(&kest2::Lookup<kest2::DirHandle>(kest2::kDhTable, dh)->path, "d//e",
                             false));
  EXPECT_STREQ(zulKestDHGetPath(dh), "d/e");
  kest2::ReleaseHandle(kest2::kDhTable, dh);
}

}  // namespace
