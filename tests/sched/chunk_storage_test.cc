// Chunk storage: set-up over unusable storage, the high-water report, and
// exhaustion that fails cleanly and leaks nothing.

#include <gtest/gtest.h>

#include "debug/trace.h"
#include "sched/chunk_tree_fixture.h"

namespace kest2 {
namespace {

TEST_F(ChunkTreeTest, SetUpRefusesUnusableStorageAndTerminateReportsHighWater) {
  EXPECT_EQ(AllocateChunk(CHUNK_NULL), CHUNKID_INVALID);  // before set-up
  std::vector<uint64_t> small(8, 0);
  EXPECT_EQ(InitializeChunkStorage(nullptr, 1032), ZUL_KEST_ERROR_BAD_PTR);
  EXPECT_EQ(InitializeChunkStorage(reinterpret_cast<char*>(small.data()) + 4, 32),
            ZUL_KEST_ERROR_BAD_ALIGNMENT);
  // One unit cannot hold the 24-byte root; the pool is taken down again.
  EXPECT_EQ(InitializeChunkStorage(small.data(), ZUL_KEST_STORAGE_SIZE(1, 16)),
            ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_FALSE(ChunkPool()->initialised);

  ASSERT_NO_FATAL_FAILURE(Start(64));  // 1032 bytes
  ASSERT_EQ(GlobalRootChunk(), 0);
  EXPECT_EQ(Used(), 2u);
  kest2_test::OutputCapture capture;
  const ChunkID a = AllocateChunk(CHUNK_FH_READ);  // 5 units each
  const ChunkID b = AllocateChunk(CHUNK_FH_READ);
  ASSERT_NE(AllocateChunk(CHUNK_FH_READ), CHUNKID_INVALID);
  DeallocateChunk(a);
  DeallocateChunk(b);
  DeallocateChunk(b);  // freed twice: ignored
  EXPECT_EQ(Used(), 7u);
  kest2_test::SetDebugFlags(kTraceChunk);
  TerminateChunkStorage();
  kest2_test::SetDebugFlags(0);
  const std::string& out = capture.text();
  EXPECT_TRUE(Traced(capture, "Deallocate", "chunk 0:{ type:CHUNK_NULL" + kFresh)) << out;
  const size_t leak = out.find("terminated with 80 bytes (5 units) of chunks still allocated\n");
  // 17 units of 16 bytes plus 8 bitmap bytes, of 1032.
  const size_t mark = out.find(" chunkStorage high water mark = 280 bytes (27%)\n");
  ASSERT_NE(leak, std::string::npos) << out;
  ASSERT_NE(mark, std::string::npos) << out;
  EXPECT_LT(leak, mark);
  EXPECT_TRUE(Traced(capture, "Terminate", "chunkStorage")) << out;
  EXPECT_EQ(out.find("unexpected failure"), std::string::npos) << out;
  EXPECT_EQ(GlobalRootChunk(), CHUNKID_INVALID);
}

TEST_F(ChunkTreeTest, ExhaustedStorageFailsCleanlyAndLeaksNothing) {
  ASSERT_NO_FATAL_FAILURE(Start(64));
  const ChunkID parent = AllocateChunk(CHUNK_NULL);
  const ChunkID a = AllocateChildChunk(parent, CHUNK_NULL);
  const ChunkID b = AllocateChildChunk(parent, CHUNK_NULL);
  Ids fillers;
  for (ChunkID id; (id = AllocateChunk(CHUNK_NULL)) != CHUNKID_INVALID;) fillers.push_back(id);
  ASSERT_EQ(Used(), 64u);
  const Ids both = {a, b};

  kest2_test::OutputCapture capture;
  kest2_test::SetDebugFlags(kTraceChunk);
  EXPECT_EQ(AllocateChildChunk(parent, CHUNK_NULL), CHUNKID_INVALID);
  EXPECT_EQ(AllocateBufferChunk(parent, 8), nullptr);
  EXPECT_FALSE(LinkChunks(parent, fillers[0]));  // a third child needs a record
  EXPECT_EQ(Children(parent), both);
  EXPECT_TRUE(Parents(fillers[0]).empty());
  EXPECT_EQ(Used(), 64u);
  // Four free units: the CHUNK_CHILD record (3) fits, a's CHUNK_PARENT
  // record (2) then does not; the link is undone and the record freed.
  DeallocateChunk(fillers[0]);
  DeallocateChunk(fillers[1]);
  EXPECT_FALSE(LinkChunks(parent, a));
  EXPECT_EQ(Children(parent), both);
  EXPECT_EQ(Parents(a), Ids{parent});
  EXPECT_EQ(Used(), 60u);
  kest2_test::SetDebugFlags(0);
  const std::string& out = capture.text();
  EXPECT_TRUE(Traced(capture, "AllocateChild", "parent 2, type 0\n")) << out;
  EXPECT_TRUE(Traced(capture, "Allocate", "(failed)\n")) << out;
  EXPECT_TRUE(Traced(capture, "AddChild",
                     "failed (parent 2, newChild " + std::to_string(fillers[0]) + ")\n"))
      << out;
  EXPECT_TRUE(Traced(capture, "AddParent", "failed (child 4, newParent 2)\n")) << out;

  for (size_t i = 2; i < fillers.size(); ++i) DeallocateChunk(fillers[i]);
  DeallocateTree(parent);
  EXPECT_EQ(Used(), 2u);
}

}  // namespace
}  // namespace kest2
