// Links between chunks: child and parent lists through their overflow
// records, tree release and replacement, and trees built and freed by
// several threads at once.

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/random.h"
#include "debug/trace.h"
#include "sched/chunk_tree_fixture.h"
#include "test_support.h"

namespace kest2 {
namespace {

TEST_F(ChunkTreeTest, ChildListsKeepInsertionOrderAndFreeEmptiedRecords) {
  ASSERT_NO_FATAL_FAILURE(Start(2048));
  const ChunkID parent = AllocateChunk(CHUNK_NULL);
  const uint32_t base = Used();
  Ids model;
  // Two inline slots; a record holds ten children, nine when it links on.
  auto check = [&](const std::string& step) {
    const uint32_t n = static_cast<uint32_t>(model.size());
    const uint32_t records = n <= 2 ? 0 : (n - 2 + 8) / 9;
    ASSERT_EQ(Children(parent), model) << step;
    ASSERT_EQ(Used(), base + 2 * n + 3 * records) << step;
    for (ChunkID child : model) ASSERT_EQ(Parents(child), Ids{parent}) << step;
  };
  auto remove = [&](size_t index) {
    UnlinkChunks(parent, model[index]);
    DeallocateChunk(model[index]);
    model.erase(model.begin() + static_cast<std::ptrdiff_t>(index));
  };
  for (int i = 0; i < 25; ++i) {
    model.push_back(AllocateChildChunk(parent, CHUNK_NULL));
    if (model.size() == 11) {
      ASSERT_NO_FATAL_FAILURE(check("11 children"));
    }
  }
  ASSERT_NO_FATAL_FAILURE(check("25 children"));
  remove(2);
  ASSERT_NO_FATAL_FAILURE(check("third removed"));

  const uint32_t seed = kest2_test::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  kest2_common::Random rng(seed);
  for (int step = 0; step < 200; ++step) {
    if (!model.empty() && rng() % 2 == 0) {
      remove(rng() % model.size());
    } else {
      model.push_back(AllocateChildChunk(parent, CHUNK_NULL));
    }
    ASSERT_NO_FATAL_FAILURE(check("step " + std::to_string(step)));
  }
  while (!model.empty()) {
    remove(rng() % model.size());
    ASSERT_NO_FATAL_FAILURE(check("draining"));
  }
}

TEST_F(ChunkTreeTest, ParentRecordsChainAndCollapseWithBackLinks) {
  ASSERT_NO_FATAL_FAILURE(Start(256));
  const ChunkID child = AllocateChunk(CHUNK_NULL);
  Ids p(8);
  for (ChunkID& id : p) id = AllocateChunk(CHUNK_NULL);
  const uint32_t base = Used();
  for (ChunkID id : p) ASSERT_TRUE(LinkChunks(id, child));
  // A full record hands its slot-0 parent on to the record it then links.
  EXPECT_EQ(Parents(child), (Ids{p[1], p[2], p[3], p[4], p[5], p[6], p[0], p[7]}));
  EXPECT_EQ(Used(), base + 3 * 2);
  const ChunkID first = ChunkAt(child)->parent;
  const ChunkID second = ChunkRecord<ChunkParentRecord>(first)->slots[0];
  const ChunkID third = ChunkRecord<ChunkParentRecord>(second)->slots[0];
  EXPECT_EQ(ChunkAt(first)->type, CHUNK_PARENT);
  EXPECT_EQ(ChunkAt(first)->parent, child);
  EXPECT_EQ(ChunkAt(second)->parent, first);
  EXPECT_EQ(ChunkAt(third)->parent, second);
  for (ChunkID id : p) EXPECT_EQ(Children(id), Ids{child});

  UnlinkChunks(p[2], child);
  EXPECT_EQ(Parents(child), (Ids{p[1], p[3], p[4], p[5], p[6], p[0], p[7]}));
  EXPECT_TRUE(Children(p[2]).empty());
  UnlinkChunks(p[7], child);  // the third record keeps only slot 0: freed
  EXPECT_EQ(Parents(child), (Ids{p[1], p[3], p[0], p[4], p[5], p[6]}));
  EXPECT_EQ(Used(), base + 2 * 2);
  UnlinkChunks(p[1], child);
  UnlinkChunks(p[3], child);  // the first record keeps only its link: freed
  EXPECT_EQ(Parents(child), (Ids{p[0], p[4], p[5], p[6]}));
  EXPECT_EQ(ChunkAt(child)->parent, second);
  EXPECT_EQ(ChunkAt(second)->parent, child);
  for (ChunkID id : {p[4], p[5], p[6]}) UnlinkChunks(id, child);
  EXPECT_EQ(ChunkAt(child)->parent, p[0]);
  EXPECT_EQ(Used(), base);
}

TEST_F(ChunkTreeTest, SharedChunkOutlivesOneTreeAndReplaceMovesEveryLink) {
  ASSERT_NO_FATAL_FAILURE(Start(512));
  const ChunkID global = GlobalRootChunk();
  const uint32_t base = Used();
  const ChunkID a = AllocateChildChunk(global, CHUNK_ROOT);
  const ChunkID b = AllocateChildChunk(global, CHUNK_ROOT);
  const ChunkID shared = AllocateChildChunk(a, CHUNK_NULL);
  ASSERT_TRUE(LinkChunks(b, shared));
  const ChunkID below = AllocateChildChunk(shared, CHUNK_FH_READ);
  const ChunkID callback = AllocateChildChunk(a, CHUNK_CALLBACK);
  const ChunkID open = AllocateChildChunk(callback, CHUNK_FH_OPEN);
  ASSERT_NE(AllocateBufferChunk(callback, 100), nullptr);
  const ChunkID buffer = GetChild(callback, 1);
  EXPECT_EQ(ChunkAt(buffer)->flags & (kChunkScheduled | kChunkCompleted),
            kChunkScheduled | kChunkCompleted);
  DeallocateTree(a);
  for (ChunkID gone : {a, callback, open, buffer}) EXPECT_FALSE(ChunkIsLive(gone)) << gone;
  EXPECT_TRUE(ChunkIsLive(below));
  EXPECT_EQ(Parents(shared), Ids{b});
  EXPECT_EQ(Children(global), Ids{b});
  DeallocateTree(b);
  EXPECT_FALSE(ChunkIsLive(shared));
  EXPECT_EQ(Used(), base);  // the buffer's 100 data bytes came back too

  const ChunkID p1 = AllocateChunk(CHUNK_NULL), p2 = AllocateChunk(CHUNK_NULL);
  const ChunkID old = AllocateChildChunk(p1, CHUNK_FH_READ);
  const ChunkID sibling = AllocateChildChunk(p1, CHUNK_NULL);
  ASSERT_TRUE(LinkChunks(p2, old));
  Ids kids;
  for (int i = 0; i < 3; ++i) kids.push_back(AllocateChildChunk(old, CHUNK_FH_OPEN));
  const ChunkID replacement = AllocateChunk(CHUNK_FH_READ);
  kest2_test::OutputCapture capture;
  kest2_test::SetDebugFlags(kTraceChunk);
  ReplaceChunk(old, replacement);
  kest2_test::SetDebugFlags(0);
  EXPECT_EQ(Parents(replacement), (Ids{p1, p2}));
  EXPECT_EQ(Children(replacement), kids);
  EXPECT_EQ(Children(p1), (Ids{sibling, replacement}));
  EXPECT_EQ(Parents(kids[1]), Ids{replacement});
  EXPECT_TRUE(ChunkIsLive(old));
  EXPECT_TRUE(Parents(old).empty() && Children(old).empty());
  const std::string& out = capture.text();
  const std::string r = std::to_string(replacement), o = std::to_string(old);
  EXPECT_TRUE(Traced(capture, "Replace", "oldChunk " + o + ", newChunk " + r + "\n")) << out;
  EXPECT_TRUE(Traced(capture, "Unlink", "parent " + std::to_string(p2) + ", child " + o + "\n"));
  EXPECT_TRUE(
      Traced(capture, "Link", "parent " + r + ", newChild " + std::to_string(kids[2]) + "\n"));
  DeallocateChunk(old);
  DeallocateTree(p1);
  EXPECT_TRUE(ChunkIsLive(replacement));  // p2 still holds it
  DeallocateTree(p2);
  EXPECT_EQ(Used(), base);
}

// Threads build trees under the one global root, share chunks between
// parents, drop subtrees from the middle and free whole trees, while each
// checks its own lists and the global root's list stays consistent.
TEST_F(ChunkTreeTest, ThreadsBuildLinkAndFreeTreesConcurrently) {
  ASSERT_NO_FATAL_FAILURE(Start(8192));
  const ChunkID global = GlobalRootChunk();
  const uint32_t base = Used();
  std::atomic<int> faults{0};
  const uint32_t seed = kest2_test::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));

  auto worker = [&](uint32_t threadSeed) {
    kest2_common::Random rng(threadSeed);
    Ids alive;  // this thread's trees
    for (int round = 0; round < 150; ++round) {
      const ChunkID root = AllocateChildChunk(global, CHUNK_ROOT);
      Ids kids;
      const uint32_t n = rng() % 14;
      for (uint32_t i = 0; i < n; ++i)
        kids.push_back(AllocateChildChunk(root, i % 2 ? CHUNK_FH_READ : CHUNK_NULL));
      if (n >= 2) {
        const ChunkID shared = AllocateChildChunk(kids[0], CHUNK_NULL);
        if (!LinkChunks(kids[1], shared) || Parents(shared) != (Ids{kids[0], kids[1]})) ++faults;
      }
      if (root == CHUNKID_INVALID || Children(root) != kids) ++faults;
      if (n >= 3) {
        UnlinkChunks(root, kids[n / 2]);
        DeallocateTree(kids[n / 2]);
        kids.erase(kids.begin() + n / 2);
        if (Children(root) != kids) ++faults;
      }
      PrepareChunk(root, 1, 100);
      alive.push_back(root);
      if (alive.size() > 3) {
        const size_t index = rng() % alive.size();
        if (rng() % 2 == 0) UnlinkChunks(global, alive[index]);  // or DeallocateTree does it
        DeallocateTree(alive[index]);
        alive.erase(alive.begin() + static_cast<std::ptrdiff_t>(index));
      }
      ChunkLocker lock;
      std::set<ChunkID> seen;
      for (ChunkID id;
           (id = GetChild(global, static_cast<uint32_t>(seen.size()))) != CHUNKID_INVALID;) {
        if (!seen.insert(id).second || !ChunkIsLive(id) || ChunkAt(id)->type != CHUNK_ROOT ||
            GetParent(id, 0) != global) {
          ++faults;
          break;
        }
      }
    }
    for (ChunkID root : alive) DeallocateTree(root);
  };
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < 4; ++i) threads.emplace_back(worker, seed + i);
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(faults.load(), 0);
  EXPECT_TRUE(Children(global).empty());
  EXPECT_EQ(Used(), base);
}

}  // namespace
}  // namespace kest2
