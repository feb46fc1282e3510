// The filter chain: installation rules, the order of the tree walk, event
// dispatch, warnings, and filters added and removed while trees flow.

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/library_storage.h"
#include "io/filter_chain.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "test_support.h"

namespace {

using namespace kest2;

// A filter written the way an application would write one.  Depending on
// its mode it rewrites the tree (wraps reads in a callback chunk), answers
// the whole tree itself, or lets everything pass; it declines events it
// does not know.
struct TestFilter {
  enum Mode { kPass, kWrapReads, kAnswer } mode = kPass;
  int32_t initializeAnswer = ZUL_KEST_OK;
  int32_t terminateAnswer = ZUL_KEST_OK;
  int32_t filterAnswer = ZUL_KEST_OK;
  int32_t containsAnswer = ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
  const char* description = "test filter";
  std::atomic<int> initializes{0}, terminates{0}, trees{0}, contains{0};
  std::vector<int>* callOrder = nullptr;
  int tag = 0;
};

int32_t WrappedReadCallback(ChunkCallbackRecord*, int32_t) { return ZUL_KEST_OK; }

int32_t TestFilterFunction(void* context, int32_t event, void* argument) {
  TestFilter* self = static_cast<TestFilter*>(context);
  switch (event) {
    case ZUL_KEST_IOFILTER_EVENT_INITIALIZE:
      ++self->initializes;
      return self->initializeAnswer;
    case ZUL_KEST_IOFILTER_EVENT_TERMINATE:
      ++self->terminates;
      return self->terminateAnswer;
    case ZUL_KEST_IOFILTER_EVENT_GET_DESCRIPTION:
      if (argument == nullptr) return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
      std::strcpy(static_cast<char*>(argument), self->description);
      return ZUL_KEST_OK;
    case ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS:
      ++self->contains;
      return self->containsAnswer;
    case ZUL_KEST_IOFILTER_EVENT_FILTER_CHUNK: {
      ++self->trees;
      if (self->callOrder != nullptr) self->callOrder->push_back(self->tag);
      ChunkID* root = static_cast<ChunkID*>(argument);
      if (self->mode == TestFilter::kAnswer) {
        DeallocateTree(*root);
        *root = CHUNKID_INVALID;
      } else if (self->mode == TestFilter::kWrapReads) {
        // Put a callback chunk in the place of every read below the root.
        for (uint32_t i = 0;; ++i) {
          const ChunkID child = GetChild(*root, i);
          if (child == CHUNKID_INVALID) break;
          if (ChunkAt(child)->type != CHUNK_FH_READ) continue;
          const ChunkID callback = AllocateChunk(CHUNK_CALLBACK);
          if (callback == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
          ChunkRecord<ChunkCallbackRecord>(callback)->callback = WrappedReadCallback;
          ReplaceChunk(child, callback);
          DeallocateChunk(child);
        }
      }
      return self->filterAnswer;
    }
    default:
      return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
  }
}

class FilterChainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }
  void TearDown() override { zulKestTerminate(); }

  // A root with a read and a stat child.
  static ChunkID MakeTree() {
    const ChunkID root = AllocateChunk(CHUNK_ROOT);
    AllocateChildChunk(root, CHUNK_FH_READ);
    AllocateChildChunk(root, CHUNK_STAT);
    return root;
  }

  kest2_common::LibraryStorage storage_;
};

TEST_F(FilterChainTest, InstallationRules) {
  TestFilter a, b;
  EXPECT_EQ(zulKestIOFilterAdd(256, TestFilterFunction, &a), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(zulKestIOFilterAdd(-1, TestFilterFunction, &a), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(zulKestIOFilterAdd(0, nullptr, &a), ZUL_KEST_ERROR_BAD_PTR);
  EXPECT_EQ(a.initializes.load(), 0);

  ASSERT_EQ(zulKestIOFilterAdd(7, TestFilterFunction, &a), ZUL_KEST_OK);
  EXPECT_EQ(zulKestIOFilterAdd(7, TestFilterFunction, &b), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(b.initializes.load(), 0);  // refused without asking the new filter

  ZulKestIOFilterCallback function = nullptr;
  void* context = nullptr;
  EXPECT_EQ(zulKestIOFilterGetInfo(7, &function, &context), ZUL_KEST_OK);
  EXPECT_EQ(function, &TestFilterFunction);
  EXPECT_EQ(context, &a);
  EXPECT_EQ(zulKestIOFilterGetInfo(8, nullptr, nullptr), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(zulKestIOFilterGetInfo(300, nullptr, nullptr), ZUL_KEST_ERROR_BAD_INDEX);

  b.initializeAnswer = ZUL_KEST_ERROR_EVENT_NOT_HANDLED;  // still accepted
  EXPECT_EQ(zulKestIOFilterAdd(8, TestFilterFunction, &b), ZUL_KEST_OK);
  TestFilter refusing;
  refusing.initializeAnswer = ZUL_KEST_ERROR_BAD_ARCHIVE;
  EXPECT_EQ(zulKestIOFilterAdd(9, TestFilterFunction, &refusing), ZUL_KEST_ERROR_BAD_ARCHIVE);
  EXPECT_EQ(FilterCount(), 2);

  EXPECT_EQ(zulKestIOFilterRemove(7), ZUL_KEST_OK);
  EXPECT_EQ(a.terminates.load(), 1);
  EXPECT_EQ(zulKestIOFilterRemove(7), ZUL_KEST_ERROR_BAD_INDEX);
  EXPECT_EQ(FilterCount(), 1);
  RemoveAllFilters();
}

TEST_F(FilterChainTest, RemovalWarnsAboutATerminateErrorButRemoves) {
  TestFilter grumpy;
  grumpy.terminateAnswer = ZUL_KEST_ERROR_BUSY;
  ASSERT_EQ(zulKestIOFilterAdd(3, TestFilterFunction, &grumpy), ZUL_KEST_OK);
  kest2_test::OutputCapture out;
  EXPECT_EQ(zulKestIOFilterRemove(3), ZUL_KEST_OK);
  char expected[256];
  std::snprintf(expected, sizeof(expected),
                "KEST2 warning: iofilter 0x%08llX:{ pFilterContext:0x%08llX, desc:\"test filter\" } "
                "returned error %d at termination\n",
                (unsigned long long)(uintptr_t)&TestFilterFunction,
                (unsigned long long)(uintptr_t)&grumpy, ZUL_KEST_ERROR_BUSY);
  EXPECT_EQ(out.text(), expected);
  EXPECT_EQ(FilterCount(), 0);
}

TEST_F(FilterChainTest, TreeWalkOrderRewriteAndAnswer) {
  std::vector<int> order;
  TestFilter low, high;
  low.tag = 3;
  high.tag = 200;
  low.callOrder = high.callOrder = &order;
  ASSERT_EQ(zulKestIOFilterAdd(200, TestFilterFunction, &high), ZUL_KEST_OK);
  ASSERT_EQ(zulKestIOFilterAdd(3, TestFilterFunction, &low), ZUL_KEST_OK);

  const uint32_t before = PoolAllocatedCount(ChunkPool());
  ChunkID root = MakeTree();
  EXPECT_EQ(FilterChunkTree(root), root);
  EXPECT_EQ(order, (std::vector<int>{3, 200}));

  // The low filter rewrites: the read becomes a callback chunk, the stat
  // stays; the high one still sees the rewritten tree.
  low.mode = TestFilter::kWrapReads;
  order.clear();
  EXPECT_EQ(FilterChunkTree(root), root);
  EXPECT_EQ(ChunkAt(GetChild(root, 0))->type, CHUNK_STAT);
  EXPECT_EQ(ChunkAt(GetChild(root, 1))->type, CHUNK_CALLBACK);
  EXPECT_EQ(order, (std::vector<int>{3, 200}));
  DeallocateTree(root);

  // The low filter answers the whole tree: the high one is not asked.
  low.mode = TestFilter::kAnswer;
  order.clear();
  root = MakeTree();
  EXPECT_EQ(FilterChunkTree(root), CHUNKID_INVALID);
  EXPECT_EQ(order, (std::vector<int>{3}));
  EXPECT_EQ(PoolAllocatedCount(ChunkPool()), before);
  EXPECT_EQ(FilterChunkTree(CHUNKID_INVALID), CHUNKID_INVALID);
  RemoveAllFilters();  // before the filters go out of scope
}

TEST_F(FilterChainTest, TreeWalkWarnsAndGoesOn) {
  TestFilter failing, after;
  failing.filterAnswer = ZUL_KEST_ERROR_DECOMPRESSION;
  failing.description = "failing";
  ASSERT_EQ(zulKestIOFilterAdd(0, TestFilterFunction, &failing), ZUL_KEST_OK);
  ASSERT_EQ(zulKestIOFilterAdd(1, TestFilterFunction, &after), ZUL_KEST_OK);
  const ChunkID root = MakeTree();
  kest2_test::OutputCapture out;
  EXPECT_EQ(FilterChunkTree(root), root);
  EXPECT_EQ(after.trees.load(), 1);
  const std::string text = out.text();
  EXPECT_EQ(text.rfind("KEST2 warning: iofilter 0x", 0), 0u) << text;
  EXPECT_NE(text.find("desc:\"failing\" } returned error -2138963948 while filtering chunk tree "
                      "chunk "),
            std::string::npos)
      << text;
  DeallocateTree(root);
  RemoveAllFilters();
}

TEST_F(FilterChainTest, EventDispatchReturnsTheAnsweringIndex) {
  EXPECT_EQ(DispatchFilterEvent(ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS, nullptr),
            ZUL_KEST_ERROR_BAD_INDEX);
  TestFilter one, five;
  ASSERT_EQ(zulKestIOFilterAdd(1, TestFilterFunction, &one), ZUL_KEST_OK);
  ASSERT_EQ(zulKestIOFilterAdd(5, TestFilterFunction, &five), ZUL_KEST_OK);
  EXPECT_EQ(DispatchFilterEvent(ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS, nullptr),
            ZUL_KEST_ERROR_BAD_INDEX);
  five.containsAnswer = ZUL_KEST_OK;
  EXPECT_EQ(DispatchFilterEvent(ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS, nullptr), 5);
  one.containsAnswer = ZUL_KEST_OK;
  EXPECT_EQ(DispatchFilterEvent(ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS, nullptr), 1);
  EXPECT_EQ(five.contains.load(), 2);
  RemoveAllFilters();
}

TEST_F(FilterChainTest, TerminationRemovesEveryFilterInIndexOrder) {
  TestFilter a, b;
  ASSERT_EQ(zulKestIOFilterAdd(9, TestFilterFunction, &a), ZUL_KEST_OK);
  ASSERT_EQ(zulKestIOFilterAdd(2, TestFilterFunction, &b), ZUL_KEST_OK);
  zulKestTerminate();
  EXPECT_EQ(a.terminates.load(), 1);
  EXPECT_EQ(b.terminates.load(), 1);
  EXPECT_EQ(FilterCount(), 0);
  ZulKestParams params = storage_.MakeParams();
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);  // for TearDown
}

TEST_F(FilterChainTest, FiltersComeAndGoWhileTreesFlow) {
  // Walkers filter trees continuously while another thread installs and
  // removes a rewriting filter: every filter sees initialise before any
  // tree and terminate after its last, and no chunk leaks.
  std::atomic<bool> stop{false};
  std::atomic<int> walks{0};
  const uint32_t before = PoolAllocatedCount(ChunkPool());
  std::vector<std::thread> walkers;
  for (int w = 0; w < 2; ++w) {
    walkers.emplace_back([&] {
      while (!stop.load()) {
        const ChunkID root = MakeTree();
        if (root == CHUNKID_INVALID) continue;
        const ChunkID left = FilterChunkTree(root);
        if (left != CHUNKID_INVALID) DeallocateTree(left);
        ++walks;
      }
    });
  }
  std::vector<TestFilter> filters(50);
  for (size_t i = 0; i < filters.size(); ++i) {
    TestFilter& filter = filters[i];
    filter.mode = i % 3 == 0 ? TestFilter::kAnswer : TestFilter::kWrapReads;
    ASSERT_EQ(zulKestIOFilterAdd(static_cast<int32_t>(i % 4), TestFilterFunction, &filter),
              ZUL_KEST_OK);
    // Let a few walks pass while the filter is installed.
    const int target = walks.load() + 2;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (walks.load() < target && std::chrono::steady_clock::now() < until)
      std::this_thread::yield();
    ASSERT_EQ(zulKestIOFilterRemove(static_cast<int32_t>(i % 4)), ZUL_KEST_OK);
  }
  stop = true;
  for (std::thread& t : walkers) t.join();
  for (const TestFilter& filter : filters) {
    EXPECT_EQ(filter.initializes.load(), 1);
    EXPECT_EQ(filter.terminates.load(), 1);
  }
  EXPECT_GE(walks.load(), 2 * static_cast<int>(filters.size()));
  EXPECT_EQ(PoolAllocatedCount(ChunkPool()), before);
}

}  // namespace
