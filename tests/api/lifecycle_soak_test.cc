// A thousand initialise/terminate cycles, each with requests still queued
// or running when the library is told to stop: termination drains them,
// closes what the application left open, and every cycle must leave the
// process as it found it (descriptors, threads) and the library nothing
// to report but the operations the test deliberately did not delete.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "test_support.h"

namespace {

constexpr int kCycles = 1000;
constexpr int kFiles = 4;

size_t ThreadCount() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                           std::filesystem::directory_iterator()));
}

// A joined thread can stay listed for a moment while the system finishes
// its exit: waits for the count to come back to `expected`.
size_t ThreadCountSettledAt(size_t expected) {
  size_t count = 0;
  kest2_test::WaitUntil([&] {
    count = ThreadCount();
    return count == expected;
  });
  return count;
}

size_t Occurrences(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
    ++count;
  return count;
}

TEST(LifecycleSoakTest, ThousandCyclesWithRequestsInFlightLeaveNothingBehind) {
  kest2_common::TempDir dir;
  std::vector<std::string> paths;
  for (int i = 0; i < kFiles; ++i) {
    paths.push_back(dir.path() + "/f" + std::to_string(i));
    std::ofstream(paths.back(), std::ios::binary)
        << std::string(4096u << i, static_cast<char>('a' + i));
  }
  std::vector<std::vector<char>> buffers(kFiles, std::vector<char>(4096u << (kFiles - 1)));
  kest2_common::LibraryStorage storage;
  // One cycle first: a sanitizer's runtime starts a thread of its own with
  // the process's first new thread, and keeps it.
  {
    ZulKestParams params = storage.MakeParams();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    zulKestTerminate();
  }
  const size_t descriptors = kest2_test::OpenDescriptors();
  const size_t threads = ThreadCount();

  for (int cycle = 0; cycle < kCycles; ++cycle) {
    SCOPED_TRACE(cycle);
    kest2_test::OutputCapture output;
    ZulKestParams params = storage.MakeParams(32, 16, 4, 1024, 1024);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.ioThreadCount = 1 + cycle % 2;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);

    // Whole-file reads, a stat, and an open whose handle is never closed.
    std::vector<ZulKestOp> ops;
    for (int i = 0; i < kFiles; ++i) {
      ops.push_back(zulKestFileRead(nullptr, paths[i].c_str(), buffers[i].data(),
                                    static_cast<int64_t>(buffers[i].size()), 0));
    }
    ZulKestStat stat{};
    ops.push_back(zulKestStat(nullptr, paths[0].c_str(), &stat));
    ZulKestFH fh = 0;
    ops.push_back(zulKestFHOpen(nullptr, &fh, paths[1].c_str(), nullptr));
    for (ZulKestOp op : ops) ASSERT_NE(op, 0u);

    // Three ways out: the operations waited for and deleted first; left
    // queued for termination to drain; or cancelled on the way out.
    size_t leftOver = 0;
    switch (cycle % 3) {
      case 0:
        for (ZulKestOp op : ops) {
          const int32_t rc = zulKestOpWait(op);
          EXPECT_TRUE(rc == ZUL_KEST_OK || rc == ZUL_KEST_ERROR_EOF) << rc;
          zulKestOpDelete(op);
        }
        zulKestTerminate();
        break;
      case 1:
        leftOver = ops.size();
        zulKestTerminate();
        break;
      default:
        leftOver = ops.size();
        zulKestShutdownAndCancelOps();
        break;
    }
    ASSERT_FALSE(zulKestIsInitialized(nullptr));

    // Only the operations the test left are reported; no chunk, handle or
    // queue entry outlives the library.
    const std::string text = output.text();
    EXPECT_EQ(Occurrences(text, "still allocated"), leftOver != 0 ? 1u : 0u) << text;
    if (leftOver != 0) {
      EXPECT_NE(text.find("(" + std::to_string(leftOver) + " units)"), std::string::npos) << text;
    }
    ASSERT_EQ(kest2_test::OpenDescriptors(), descriptors);
    ASSERT_EQ(ThreadCountSettledAt(threads), threads);
  }
}

}  // namespace
