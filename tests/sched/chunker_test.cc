// The Chunker: the trees built per request, splitting at maxChunk, the
// end-of-file cut of vector reads, and requests that need no I/O.

#include <vector>

#include <gtest/gtest.h>

#include "api/operation.h"
#include "common/library_storage.h"
#include "core/handletable.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "sched/chunker.h"
#include "test_support.h"

namespace {

using namespace kest2;

class ChunkerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(64, 16, 4, 1024, 8192);
    params.maxChunk = 524288;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    baseline_ = PoolAllocatedCount(ChunkPool());
  }
  void TearDown() override { zulKestTerminate(); }

  Operation* NewOp(uint16_t what, uint32_t fh = 0) {
    Operation* op = OpCreate(nullptr, what);
    op->targetHandle = fh;
    SetPath(&op->path, "/data/file.bin", false);
    return op;
  }

  uint32_t NewFile(bool opened, int64_t size) {
    const uint32_t h = AllocateHandle(kFhTable);
    FileHandle* file = Lookup<FileHandle>(kFhTable, h);
    file->nativeFH = -1;
    file->opened = opened ? 1 : 0;
    file->size = size;
    return h;
  }

  static std::vector<ChunkID> Children(ChunkID id) {
    std::vector<ChunkID> out;
    for (ChunkID c; (c = GetChild(id, static_cast<uint32_t>(out.size()))) != CHUNKID_INVALID;)
      out.push_back(c);
    return out;
  }
  static uint8_t TypeOf(ChunkID id) { return ChunkAt(id)->type; }

  // Frees a tree that the tests built but will not run.
  void Discard(ChunkID root, Operation* op) {
    UnlinkChunks(GlobalRootChunk(), root);
    DeallocateTree(root);
    OpCompleteOk(op);
    zulKestOpDelete(op->h);
  }

  kest2_common::LibraryStorage storage_;
  uint32_t baseline_ = 0;
};

TEST_F(ChunkerTest, PathReadIsOpenBelowReadBelowClose) {
  const uint32_t fh = NewFile(false, 0);
  Operation* op = NewOp(OP_PATH_READ, fh);
  char buffer[64];
  op->bufferCount = 1;
  op->buffers[0] = {buffer, 64};
  op->offset = 8;
  bool finished = true;
  const ChunkID root = CreateChunkTree(op, &finished);
  ASSERT_NE(root, CHUNKID_INVALID);
  EXPECT_FALSE(finished);
  EXPECT_EQ(GetParent(root, 0), GlobalRootChunk());
  const auto close = Children(root);
  ASSERT_EQ(close.size(), 1u);
  EXPECT_EQ(TypeOf(close[0]), CHUNK_FH_CLOSE);
  const auto read = Children(close[0]);
  ASSERT_EQ(read.size(), 1u);
  ASSERT_EQ(TypeOf(read[0]), CHUNK_FH_READ);
  EXPECT_EQ(ChunkRecord<ChunkFhIoRecord>(read[0])->offset, 8);
  EXPECT_EQ(ChunkRecord<ChunkFhIoRecord>(read[0])->actCount, &op->actCount);
  const auto open = Children(read[0]);
  ASSERT_EQ(open.size(), 1u);
  EXPECT_EQ(TypeOf(open[0]), CHUNK_FH_OPEN);
  EXPECT_EQ(ChunkRecord<ChunkFhOpenRecord>(open[0])->mode, -1);
  EXPECT_STREQ(zulKestFHGetPath(fh), "/data/file.bin");  // the handle keeps the path
  EXPECT_EQ(ChunkAt(root)->flags & kChunkPrepared, kChunkPrepared);
  EXPECT_EQ(Lookup<FileHandle>(kFhTable, fh)->m_pendingIO, 1);
  Discard(root, op);
  ReleaseHandle(kFhTable, fh);
  EXPECT_EQ(PoolAllocatedCount(ChunkPool()), baseline_);
}

TEST_F(ChunkerTest, EmptyPathReadSkipsTheRead) {
  const uint32_t fh = NewFile(false, 0);
  Operation* op = NewOp(OP_PATH_READ, fh);
  op->actCount = 99;
  op->bufferCount = 1;
  bool finished;
  const ChunkID root = CreateChunkTree(op, &finished);
  ASSERT_NE(root, CHUNKID_INVALID);
  const auto close = Children(root);
  ASSERT_EQ(close.size(), 1u);
  ASSERT_EQ(Children(close[0]).size(), 1u);
  EXPECT_EQ(TypeOf(Children(close[0])[0]), CHUNK_FH_OPEN);
  EXPECT_EQ(op->actCount, 0);
  Discard(root, op);
  ReleaseHandle(kFhTable, fh);
}

TEST_F(ChunkerTest, EmptyVectorReadFinishesAtOnce) {
  const uint32_t fh = NewFile(true, 100);
  Operation* op = NewOp(OP_FH_PREADV, fh);
  bool finished = false;
  EXPECT_EQ(CreateChunkTree(op, &finished), CHUNKID_INVALID);
  EXPECT_TRUE(finished);
  EXPECT_EQ(zulKestOpGetError(op->h), ZUL_KEST_OK);  // completed, no I/O
  zulKestOpDelete(op->h);
  ReleaseHandle(kFhTable, fh);
  EXPECT_EQ(PoolAllocatedCount(ChunkPool()), baseline_);
}

TEST_F(ChunkerTest, LargeReadIsSplitAtMaxChunk) {
  const uint32_t fh = NewFile(false, 0);
  Operation* op = NewOp(OP_PATH_READ, fh);
  static char buffer[1300000];
  op->bufferCount = 1;
  op->buffers[0] = {buffer, 1300000};
  op->offset = 1000;
  bool finished;
  const ChunkID root = CreateChunkTree(op, &finished);
  ASSERT_NE(root, CHUNKID_INVALID);
  const ChunkID close = Children(root)[0];
  const auto pieces = Children(close);
  ASSERT_EQ(pieces.size(), 3u);
  const int64_t sizes[] = {524288, 524288, 251424};
  ChunkID open = CHUNKID_INVALID;
  for (int i = 0; i < 3; ++i) {
    auto* r = ChunkRecord<ChunkFhIoRecord>(pieces[i]);
    EXPECT_EQ(r->reqCount, sizes[i]);
    EXPECT_EQ(r->offset, 1000 + 524288LL * i);
    EXPECT_EQ(r->buffer, buffer + 524288 * i);
    EXPECT_EQ(r->actCount, &op->actCount);
    const auto below = Children(pieces[i]);
    ASSERT_EQ(below.size(), 1u);  // every piece waits for the same open
    if (i == 0) open = below[0];
    EXPECT_EQ(below[0], open);
    EXPECT_EQ(ChunkAt(pieces[i])->pieceCount, static_cast<uint32_t>((sizes[i] + 65535) / 65536));
  }
  EXPECT_EQ(Lookup<FileHandle>(kFhTable, fh)->m_pendingIO, 3);
  Discard(root, op);
  ReleaseHandle(kFhTable, fh);
  EXPECT_EQ(PoolAllocatedCount(ChunkPool()), baseline_);
}

TEST_F(ChunkerTest, VectorReadStopsAtTheEndOfAnOpenFile) {
  const uint32_t fh = NewFile(true, 150);
  Operation* op = NewOp(OP_FH_PREADV, fh);
  char buffers[4][100];
  op->bufferCount = 4;
  for (int i = 0; i < 4; ++i) op->buffers[i] = {buffers[i], 100};
  bool finished;
  ChunkID root = CreateChunkTree(op, &finished);
  ASSERT_NE(root, CHUNKID_INVALID);
  EXPECT_EQ(Children(root).size(), 2u);  // the second element ends past 150
  Discard(root, op);
  // Writes are never cut, and neither are reads of a file not open yet.
  op = NewOp(OP_FH_PWRITEV, fh);
  op->bufferCount = 4;
  for (int i = 0; i < 4; ++i) op->buffers[i] = {buffers[i], 100};
  root = CreateChunkTree(op, &finished);
  EXPECT_EQ(Children(root).size(), 4u);
  Discard(root, op);
  ReleaseHandle(kFhTable, fh);
}

TEST_F(ChunkerTest, NoSplitReadsStayWhole) {
  const uint32_t fh = NewFile(false, 0);
  const ChunkID root = AllocateChunk(CHUNK_ROOT);
  const ChunkID read = AllocateChildChunk(root, CHUNK_FH_READ);
  ChunkAt(read)->flags |= kChunkNoSplit;
  ChunkRecord<ChunkFhIoRecord>(read)->h = fh;
  ChunkRecord<ChunkFhIoRecord>(read)->reqCount = 5000000;
  EXPECT_EQ(ChunkTree(root), ZUL_KEST_OK);
  EXPECT_EQ(Children(root).size(), 1u);
  DeallocateTree(root);
  ReleaseHandle(kFhTable, fh);
}

TEST_F(ChunkerTest, MissingHandlesAndUnknownTypesFail) {
  Operation* op = NewOp(OP_FH_OPEN, 0x00018005);
  bool finished;
  EXPECT_EQ(CreateChunkTree(op, &finished), CHUNKID_INVALID);
  EXPECT_FALSE(finished);
  EXPECT_EQ(op->err, ZUL_KEST_ERROR_BAD_FH);
  OpFail(op, op->err);
  zulKestOpDelete(op->h);

  op = NewOp(OP_DH_READ, 0x0001C003);
  EXPECT_EQ(CreateChunkTree(op, &finished), CHUNKID_INVALID);
  EXPECT_EQ(op->err, ZUL_KEST_ERROR_BAD_DH);
  OpFail(op, op->err);
  zulKestOpDelete(op->h);

  op = NewOp(OP_DH_READ_BULK);
  kest2_test::OutputCapture out;
  EXPECT_EQ(CreateChunkTree(op, &finished), CHUNKID_INVALID);
  EXPECT_EQ(op->err, ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK);
  EXPECT_EQ(out.text().rfind("Chunker::CreateInitialChunks received an invalid op! handle = 0x", 0),
            0u);
  EXPECT_NE(out.text().find(", what = 4\n"), std::string::npos);
  OpFail(op, op->err);
  zulKestOpDelete(op->h);
  EXPECT_EQ(PoolAllocatedCount(ChunkPool()), baseline_);
}

TEST_F(ChunkerTest, RenameCopiesTheNewPathIntoTheTree) {
  Operation* op = NewOp(OP_RENAME);
  char newPath[] = "/data/renamed.bin";
  op->arg = static_cast<int64_t>(reinterpret_cast<uintptr_t>(newPath));
  bool finished;
  const ChunkID root = CreateChunkTree(op, &finished);
  ASSERT_NE(root, CHUNKID_INVALID);
  const ChunkID rename = Children(root)[0];
  const char* copy = ChunkRecord<ChunkRenameRecord>(rename)->newPath;
  newPath[1] = 'X';  // the caller's string may go away after the request
  EXPECT_STREQ(copy, "/data/renamed.bin");
  // The buffer child is born completed, so the rename is ready at once.
  EXPECT_TRUE(AllChildrenCompleted(rename));
  Discard(root, op);
}

TEST_F(ChunkerTest, StorageExhaustionFailsCleanly) {
  // Fill chunk storage, then ask for a path read.
  std::vector<ChunkID> filler;
  for (ChunkID id; (id = AllocateChunk(CHUNK_CALLBACK)) != CHUNKID_INVALID;) filler.push_back(id);
  const uint32_t fh = NewFile(false, 0);
  Operation* op = NewOp(OP_PATH_READ, fh);
  char buffer[8];
  op->bufferCount = 1;
  op->buffers[0] = {buffer, 8};
  bool finished;
  EXPECT_EQ(CreateChunkTree(op, &finished), CHUNKID_INVALID);
  EXPECT_EQ(op->err, ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK);
  for (ChunkID id : filler) DeallocateChunk(id);
  EXPECT_EQ(PoolAllocatedCount(ChunkPool()), baseline_);
  OpFail(op, op->err);
  zulKestOpDelete(op->h);
  ReleaseHandle(kFhTable, fh);
}

}  // namespace
