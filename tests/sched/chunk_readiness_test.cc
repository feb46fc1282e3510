// Readiness: the test that a chunk may run, preparation with its trace
// lines, error propagation on completion and rescheduling.

#include <gtest/gtest.h>

#include <utility>

#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "sched/chunk_tree_fixture.h"

namespace kest2 {
namespace {

TEST_F(ChunkTreeTest, DeferWaitsForOpenFilesChildrenAndPendingIo) {
  ASSERT_NO_FATAL_FAILURE(Start(256, true));
  const ChunkID global = GlobalRootChunk();
  const uint32_t h = AllocateHandle(kFhTable);
  FileHandle* fh = Lookup<FileHandle>(kFhTable, h);
  fh->nativeFH = -1;
  ASSERT_TRUE(SetPath(&fh->path, "data/a.bin", false));
  ChunkID roots[2], reads[2];
  for (int i = 0; i < 2; ++i) {
    roots[i] = AllocateChildChunk(global, CHUNK_ROOT);
    reads[i] = AllocateChildChunk(roots[i], CHUNK_FH_READ);
    ChunkRecord<ChunkFhIoRecord>(reads[i])->h = h;
    ChunkRecord<ChunkFhIoRecord>(reads[i])->reqCount = 3 * 65536 + 1;
  }
  const ChunkID closeRoot = AllocateChildChunk(global, CHUNK_ROOT);
  const ChunkID close = AllocateChildChunk(closeRoot, CHUNK_FH_CLOSE);
  ChunkRecord<ChunkHandleRecord>(close)->h = h;

  kest2_test::OutputCapture capture;
  kest2_test::SetDebugFlags(kTraceChunk);
  PrepareChunk(roots[0], 7, 1000);
  PrepareChunk(roots[1], 7, 1000);
  PrepareChunk(roots[0], 9, 5);  // already prepared: nothing changes or counts
  EXPECT_EQ(fh->m_pendingIO, 2);
  const ChunkHeader* read = ChunkAt(reads[0]);
  EXPECT_EQ(read->flags & (kChunkPrepared | kChunkPositioned), kChunkPrepared | kChunkPositioned);
  EXPECT_EQ(read->pieceCount, 4u);
  EXPECT_EQ(read->priority, 7);
  EXPECT_EQ(read->deadline, 1000);

  EXPECT_FALSE(DeferChunk(close, false));  // not scheduled
  ChunkAt(close)->flags |= kChunkScheduled;
  EXPECT_FALSE(DeferChunk(close, false));  // file not open
  const std::string notOpen = "file not open yet: " + Dump(close) + "\n";
  fh->opened = 1;
  EXPECT_FALSE(DeferChunk(close, false));
  __atomic_sub_fetch(&fh->m_pendingIO, 1, __ATOMIC_ACQ_REL);  // the reads execute
  EXPECT_FALSE(DeferChunk(close, false));
  __atomic_sub_fetch(&fh->m_pendingIO, 1, __ATOMIC_ACQ_REL);
  EXPECT_TRUE(DeferChunk(close, false));
  const std::string& out = capture.text();
  EXPECT_TRUE(Traced(capture, "FH",
                     "Chunk " + std::to_string(reads[1]) + " incremented m_pendingIO = 2\n"));
  EXPECT_TRUE(Traced(capture, "Defer", notOpen)) << out;
  EXPECT_TRUE(Traced(capture, "Defer",
                     "2 pending I/Os: chunk " + std::to_string(close) +
                         ":{ type:CHUNK_FH_CLOSE, scheduled:1, completed:0, executing:0, "
                         "prepared:0, parents:{" +
                         std::to_string(closeRoot) +
                         "}, children:none, h:0x00018000, path:\"data/a.bin\" }\n"))
      << out;

  // A read waits for its file's open and for its own children; an unknown
  // handle holds nothing back.
  fh->opened = 0;
  EXPECT_FALSE(DeferChunk(reads[0], true));
  fh->opened = 1;
  const ChunkID open = AllocateChildChunk(reads[0], CHUNK_FH_OPEN);
  EXPECT_FALSE(DeferChunk(reads[0], true));
  CompleteChunk(open, 0);
  EXPECT_TRUE(DeferChunk(reads[0], true));
  EXPECT_TRUE(Traced(capture, "Allocate",
                     "chunk " + std::to_string(open) + ":{ type:CHUNK_FH_OPEN" + kFresh + "\n"));
  ChunkRecord<ChunkFhIoRecord>(reads[1])->h = h + 5;
  fh->opened = 0;
  EXPECT_TRUE(DeferChunk(reads[1], true));

  // Directory handles: their reads count, their close waits.
  const uint32_t d = AllocateHandle(kDhTable);
  DirHandle* dh = Lookup<DirHandle>(kDhTable, d);
  const ChunkID dirRead = AllocateChildChunk(global, CHUNK_DH_READ);
  const ChunkID dirClose = AllocateChildChunk(global, CHUNK_DH_CLOSE);
  ChunkRecord<ChunkDhReadRecord>(dirRead)->h = d;
  ChunkRecord<ChunkHandleRecord>(dirClose)->h = d;
  PrepareChunk(dirRead, 0, 0);
  EXPECT_FALSE(DeferChunk(dirClose, true));
  dh->opened = 1;
  EXPECT_FALSE(DeferChunk(dirClose, true));
  kest2_test::SetDebugFlags(0);
  const std::string dc = std::to_string(dirClose);
  EXPECT_TRUE(
      Traced(capture, "DH", "Chunk " + std::to_string(dirRead) + " incremented m_pendingIO = 1"));
  EXPECT_TRUE(Traced(capture, "Defer", "dir not open yet: chunk " + dc + ":{")) << out;
  EXPECT_TRUE(Traced(capture, "Defer", "1 pending I/Os: chunk " + dc + ":{")) << out;
}

TEST_F(ChunkTreeTest, CompletionKeepsTheFirstErrorAtEveryLevel) {
  ASSERT_NO_FATAL_FAILURE(Start(256, true));
  const uint32_t opHandle = AllocateHandle(kOpTable);
  Operation* op = Lookup<Operation>(kOpTable, opHandle);
  const ChunkID root = AllocateChildChunk(GlobalRootChunk(), CHUNK_ROOT);
  ChunkRecord<ChunkRootRecord>(root)->op = opHandle;
  const ChunkID outer = AllocateChildChunk(root, CHUNK_CALLBACK);
  const ChunkID inner = AllocateChildChunk(outer, CHUNK_CALLBACK);
  const ChunkID first = AllocateChildChunk(inner, CHUNK_FH_READ);
  const ChunkID second = AllocateChildChunk(inner, CHUNK_FH_READ);
  auto errors = [&] {
    return std::vector<int32_t>{ChunkRecord<ChunkCallbackRecord>(inner)->error,
                                ChunkRecord<ChunkCallbackRecord>(outer)->error, op->err};
  };
  const std::vector<int32_t> eof(3, ZUL_KEST_ERROR_EOF), access(3, ZUL_KEST_ERROR_ACCESS);
  ChunkAt(first)->flags |= kChunkExecuting;

  kest2_test::OutputCapture capture;
  kest2_test::SetDebugFlags(kTraceChunk);
  EXPECT_FALSE(CompleteChunk(first, ZUL_KEST_ERROR_EOF));
  kest2_test::SetDebugFlags(0);
  // The dump is traced before the chunk is marked.
  EXPECT_TRUE(Traced(capture, "Complete",
                     "chunk " + std::to_string(first) +
                         ":{ type:CHUNK_FH_READ, scheduled:0, completed:0, executing:1,"))
      << capture.text();
  EXPECT_EQ(ChunkAt(first)->flags & (kChunkCompleted | kChunkExecuting), kChunkCompleted);
  EXPECT_FALSE(AllChildrenCompleted(inner));
  EXPECT_FALSE(CompleteChunk(second, ZUL_KEST_ERROR_MEDIA_GONE));
  EXPECT_TRUE(AllChildrenCompleted(inner));
  EXPECT_EQ(errors(), eof);
  PropagateChunkError(second, ZUL_KEST_ERROR_ACCESS, true);
  EXPECT_EQ(errors(), access);
  EXPECT_FALSE(CompleteChunk(inner, 0));
  EXPECT_TRUE(CompleteChunk(root, 0));
  EXPECT_EQ(errors(), access);

  // An operation that failed already keeps its error.
  op->err = ZUL_KEST_ERROR_BAD_PATH;
  CompleteChunk(AllocateChildChunk(root, CHUNK_FH_READ), ZUL_KEST_ERROR_EOF);
  EXPECT_EQ(op->err, ZUL_KEST_ERROR_BAD_PATH);
  DeallocateTree(root);
  ReleaseHandle(kOpTable, opHandle);
}

TEST_F(ChunkTreeTest, RescheduleLetsTheLastVisitedParentDecide) {
  ASSERT_NO_FATAL_FAILURE(Start(256));
  auto stamp = [](ChunkID id, ZulKestTime deadline, int8_t priority) {
    ChunkAt(id)->deadline = deadline;
    ChunkAt(id)->priority = priority;
  };
  auto stamped = [](ChunkID id) {
    return std::make_pair(ChunkAt(id)->deadline, static_cast<int>(ChunkAt(id)->priority));
  };
  using Stamp = std::pair<ZulKestTime, int>;
  const ChunkID a = AllocateChunk(CHUNK_NULL), b = AllocateChunk(CHUNK_NULL);
  const ChunkID excluded = AllocateChunk(CHUNK_NULL);
  stamp(a, 100, 5);
  stamp(b, 50, 1);
  stamp(excluded, 1, 100);
  const ChunkID chunk = AllocateChildChunk(GlobalRootChunk(), CHUNK_NULL);
  for (ChunkID parent : {a, b, excluded}) ASSERT_TRUE(LinkChunks(parent, chunk));
  const ChunkID child = AllocateChildChunk(chunk, CHUNK_NULL);
  const ChunkID done = AllocateChildChunk(chunk, CHUNK_NULL);
  const ChunkID belowDone = AllocateChildChunk(done, CHUNK_NULL);
  stamp(done, 7, 7);
  ChunkAt(done)->flags |= kChunkCompleted;

  RescheduleChunk(chunk, 70, 3, excluded);
  EXPECT_EQ(stamped(chunk), Stamp(50, 3));  // b, visited last
  EXPECT_EQ(stamped(child), Stamp(50, 3));
  EXPECT_EQ(stamped(done), Stamp(7, 7));  // completed: untouched
  EXPECT_EQ(stamped(belowDone), Stamp(7, 7));
  RescheduleChunk(a, 30, 2, CHUNKID_INVALID);
  EXPECT_EQ(stamped(a), Stamp(30, 2));       // no parent: the given values
  EXPECT_EQ(stamped(chunk), Stamp(1, 100));  // now `excluded` is visited last
  for (ChunkID id : {a, b, excluded, chunk}) DeallocateTree(id);
}

}  // namespace
}  // namespace kest2
