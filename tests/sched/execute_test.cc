// Chunk execution: which chunks run, the handle bookkeeping around them, and
// the root completion that moves a file's size and position and finishes
// the operation.

#include "sched/execute.h"

#include <gtest/gtest.h>

#include <atomic>

#include "api/operation.h"
#include "common/library_storage.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "test_support.h"

namespace {

using namespace kest2;

std::atomic<int> g_handled{0};
int32_t CountingHandler(ChunkID) {
  ++g_handled;
  return ZUL_KEST_OK;
}
int32_t FailingHandler(ChunkID) { return ZUL_KEST_ERROR_ACCESS; }

class ExecuteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    g_handled = 0;
  }
  void TearDown() override {
    kest2_test::SetDebugFlags(0);
    zulKestTerminate();
  }

  uint32_t NewFile(int64_t size) {
    const uint32_t h = AllocateHandle(kFhTable);
    FileHandle* file = Lookup<FileHandle>(kFhTable, h);
    file->nativeFH = -1;
    file->size = size;
    file->offset = 0;
    return h;
  }

  ChunkID NewIo(uint8_t type, uint32_t fh) {
    const ChunkID id = AllocateChunk(type);
    ChunkRecord<ChunkFhIoRecord>(id)->h = fh;
    return id;
  }

  // An operation of the given type on fh, its root chunk, and the result.
  ChunkID NewRoot(uint16_t what, uint32_t fh, Operation** out) {
    Operation* op = OpCreate(nullptr, what);
    op->targetHandle = fh;
    const ChunkID root = AllocateChunk(CHUNK_ROOT);
    ChunkRecord<ChunkRootRecord>(root)->op = op->h;
    *out = op;
    return root;
  }

  kest2_common::LibraryStorage storage_;
};

TEST_F(ExecuteTest, CancelledReadIsSkippedButCountedAndTheCloseStillRuns) {
  const uint32_t fh = NewFile(100);
  Lookup<FileHandle>(kFhTable, fh)->opened = 1;
  const ChunkID close = AllocateChunk(CHUNK_FH_CLOSE);
  ChunkRecord<ChunkHandleRecord>(close)->h = fh;
  const ChunkID read = NewIo(CHUNK_FH_READ, fh);
  ASSERT_TRUE(LinkChunks(close, read));
  PrepareChunk(close, 0, 0);
  ChunkAt(close)->flags |= kChunkScheduled | kChunkCancelled;
  ChunkAt(read)->flags |= kChunkScheduled | kChunkCancelled;
  EXPECT_EQ(Lookup<FileHandle>(kFhTable, fh)->m_pendingIO, 1);

  EXPECT_EQ(Execute(read, CountingHandler), ZUL_KEST_OK);
  EXPECT_EQ(g_handled.load(), 0);  // not performed
  EXPECT_EQ(Lookup<FileHandle>(kFhTable, fh)->m_pendingIO, 0);
  CompleteChunk(read, ZUL_KEST_OK);
  EXPECT_TRUE(DeferChunk(close, false));
  EXPECT_EQ(Execute(close, CountingHandler), ZUL_KEST_OK);
  EXPECT_EQ(g_handled.load(), 1);  // closes run even when cancelled
  // A completed chunk never runs again.
  CompleteChunk(close, ZUL_KEST_OK);
  EXPECT_EQ(Execute(close, CountingHandler), ZUL_KEST_OK);
  EXPECT_EQ(g_handled.load(), 1);
  DeallocateTree(close);
}

TEST_F(ExecuteTest, FailedOpenStillMarksTheHandleOpened) {
  const uint32_t fh = NewFile(0);
  const ChunkID open = AllocateChunk(CHUNK_FH_OPEN);
  ChunkRecord<ChunkFhOpenRecord>(open)->h = fh;
  ChunkAt(open)->flags |= kChunkScheduled;
  EXPECT_EQ(Execute(open, FailingHandler), ZUL_KEST_ERROR_ACCESS);
  EXPECT_EQ(Lookup<FileHandle>(kFhTable, fh)->opened, 1u);
  DeallocateChunk(open);
}

TEST_F(ExecuteTest, RootCompletionMovesPositionAndSize) {
  struct Case {
    uint16_t what;
    int32_t err;
    int64_t expectedPosition;
    int64_t expectedSize;
  };
  const Case cases[] = {
      {OP_FH_READV, ZUL_KEST_OK, 150, 150},     // position and size move to the end
      {OP_FH_PWRITEV, ZUL_KEST_OK, 7, 150},     // size only
      {OP_FH_READV, ZUL_KEST_ERROR_EOF, 120, 120},  // position at the file's size
      {OP_FH_WRITEV, ZUL_KEST_ERROR_ACCESS, -1, 120},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const uint32_t fh = NewFile(120);
    Lookup<FileHandle>(kFhTable, fh)->offset = 7;
    Operation* op;
    const ChunkID root = NewRoot(c.what, fh, &op);
    op->internalFlags = kOpUpdatesPosition;
    op->offset = 50;
    op->actCount = 100;
    op->err = c.err;
    const ZulKestOp h = op->h;
    EXPECT_EQ(Execute(root, ExecuteBase), ZUL_KEST_OK);
    EXPECT_EQ(zulKestOpGetError(h), c.err);
    EXPECT_EQ(Lookup<FileHandle>(kFhTable, fh)->offset, c.expectedPosition);
    EXPECT_EQ(zulKestFHGetSize(fh), c.expectedSize);
    zulKestOpDelete(h);
    DeallocateTree(root);
    ReleaseHandle(kFhTable, fh);
  }
}

TEST_F(ExecuteTest, RootCompletionReleasesOwnedHandles) {
  // Release on failure: kept when the operation succeeds...
  const uint32_t kept = NewFile(0);
  Operation* op;
  ChunkID root = NewRoot(OP_FH_OPEN, kept, &op);
  op->internalFlags = kOpOwnsNewHandle;
  ZulKestOp h = op->h;
  Execute(root, ExecuteBase);
  EXPECT_NE(LookupHandle(kFhTable, kept), nullptr);
  EXPECT_EQ(zulKestOpSyncWait(h), ZUL_KEST_OK);
  DeallocateTree(root);
  // ... released when it fails, exactly once.
  const uint32_t failed = NewFile(0);
  root = NewRoot(OP_FH_OPEN, failed, &op);
  op->internalFlags = kOpOwnsNewHandle;
  op->err = ZUL_KEST_ERROR_BAD_PATH;
  h = op->h;
  kest2_test::OutputCapture out;
  Execute(root, ExecuteBase);
  EXPECT_EQ(LookupHandle(kFhTable, failed), nullptr);
  EXPECT_EQ(zulKestOpSyncWait(h), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(out.text(), "");  // no report of a second release
  DeallocateTree(root);
  // Release on completion: a path read's private handle always goes.
  const uint32_t temporary = NewFile(0);
  root = NewRoot(OP_PATH_READ, temporary, &op);
  op->internalFlags = kOpTemporaryHandle;
  h = op->h;
  Execute(root, ExecuteBase);
  EXPECT_EQ(LookupHandle(kFhTable, temporary), nullptr);
  zulKestOpDelete(h);
  DeallocateTree(root);
  ReleaseHandle(kFhTable, kept);
}

TEST_F(ExecuteTest, CancelledRootStillCompletesItsOperation) {
  Operation* op;
  const ChunkID root = NewRoot(OP_STAT, 0, &op);
  op->err = ZUL_KEST_ERROR_CANCELLED;
  ChunkAt(root)->flags |= kChunkCancelled;
  const ZulKestOp h = op->h;
  Execute(root, ExecuteBase);
  EXPECT_EQ(zulKestOpGetError(h), ZUL_KEST_ERROR_CANCELLED);
  zulKestOpDelete(h);
  DeallocateTree(root);
}

TEST_F(ExecuteTest, MissingOperationIsReported) {
  const ChunkID root = AllocateChunk(CHUNK_ROOT);
  ChunkRecord<ChunkRootRecord>(root)->op = 0x00014123;
  kest2_test::OutputCapture out;
  EXPECT_EQ(Execute(root, ExecuteBase), ZUL_KEST_OK);
  EXPECT_EQ(out.text(), "KEST2 unexpected NULL value for op pointer\n");
  DeallocateChunk(root);
}

TEST_F(ExecuteTest, TraceLinesAroundAHandler) {
  const ChunkID null = AllocateChunk(CHUNK_NULL);
  kest2_test::SetDebugFlags(kTraceChunk);
  kest2_test::OutputCapture out;
  EXPECT_EQ(Execute(null, ExecuteBase), ZUL_KEST_OK);
  const std::string text = out.text();
  EXPECT_NE(text.find(" Execute         starting: chunk "), std::string::npos) << text;
  EXPECT_NE(text.find(" Execute         finished: err=0, chunk "), std::string::npos) << text;
  kest2_test::SetDebugFlags(0);
  DeallocateChunk(null);
}

}  // namespace
