// The dump of one chunk, text for text.

#include <gtest/gtest.h>

#include "core/handletable.h"
#include "core/records.h"
#include "sched/chunk_tree_fixture.h"

namespace kest2 {
namespace {

TEST_F(ChunkTreeTest, DumpTextsAreExact) {
  ASSERT_NO_FATAL_FAILURE(Start(64, true));
  EXPECT_EQ(Dump(CHUNKID_INVALID), "CHUNKID_INVALID");
  Ids nulls;
  for (int i = 0; i < 6; ++i) nulls.push_back(AllocateChunk(CHUNK_NULL));
  ASSERT_EQ(nulls, (Ids{2, 4, 6, 8, 10, 12}));
  DeallocateChunk(12);
  EXPECT_EQ(Dump(12), "chunk 12:{ state:DELETED }");
  EXPECT_EQ(Dump(3), "chunk 3:{ state:DELETED }");  // inside chunk 2: no live mark
  EXPECT_EQ(Dump(64), "chunk 64:{ state:BOGUS }");

  const uint32_t fhHandle = AllocateHandle(kFhTable);
  FileHandle* fh = Lookup<FileHandle>(kFhTable, fhHandle);
  fh->nativeFH = -1;
  ASSERT_TRUE(SetPath(&fh->path, "dir/file.dat", false));
  const uint32_t opHandle = AllocateHandle(kOpTable);
  Operation* op = Lookup<Operation>(kOpTable, opHandle);
  op->what = OP_FH_CLOSE;
  op->targetHandle = fhHandle;
  op->actCount = 42;
  const ChunkID root = AllocateChildChunk(2, CHUNK_ROOT);
  const ChunkID read = AllocateChildChunk(root, CHUNK_FH_READ);
  const ChunkID open = AllocateChildChunk(root, CHUNK_FH_OPEN);
  const ChunkID prefetch = AllocateChunk(CHUNK_PREFETCH);
  const ChunkID dirRead = AllocateChunk(CHUNK_DH_READ);
  ASSERT_EQ((Ids{root, read, open, prefetch, dirRead}), (Ids{14, 16, 21, 25, 30}));
  op->rootChunk = static_cast<int16_t>(root);
  ChunkRecord<ChunkRootRecord>(root)->op = opHandle;
  auto* io = ChunkRecord<ChunkFhIoRecord>(read);
  *io = ChunkFhIoRecord{*ChunkAt(read), fhHandle, 4096, 0, 100, &op->actCount, nullptr};
  ChunkAt(read)->flags |= kChunkScheduled | kChunkPrepared | kChunkCancelled;
  ChunkRecord<ChunkFhOpenRecord>(open)->h = fhHandle;
  ChunkRecord<ChunkFhOpenRecord>(open)->path = &fh->path;
  ChunkRecord<ChunkPrefetchRecord>(prefetch)->reqCount = INT64_MAX;
  ChunkRecord<ChunkDhReadRecord>(dirRead)->h = 0x0001C005;  // not a live handle

  const std::string head = ", scheduled:0, completed:0, executing:0, prepared:0, ";
  EXPECT_EQ(Dump(root), "chunk 14:{ type:CHUNK_ROOT" + head +
                            "parents:{2}, children:{16,21}, op 0x00014000:{ what:OP_FH_CLOSE, "
                            "done:0, err:ZUL_KEST_OK, h:0x00018000, rootChunk:14 } }");
  EXPECT_EQ(Dump(read),
            "chunk 16:{ type:CHUNK_FH_READ, scheduled:1, completed:0, executing:0, prepared:1, "
            "cancelled:1, parents:{14}, children:none, h:0x00018000, path:\"dir/file.dat\", "
            "offset:4096, reqCount:100, actCount:42 }");
  EXPECT_EQ(Dump(open), "chunk 21:{ type:CHUNK_FH_OPEN" + head +
                            "parents:{14}, children:none, h:0x00018000, path:\"dir/file.dat\" }");
  EXPECT_EQ(Dump(prefetch), "chunk 25:{ type:CHUNK_PREFETCH" + head +
                                "parents:none, children:none, offset:0, "
                                "reqCount:9223372036854775807 }");
  EXPECT_EQ(Dump(dirRead),
            "chunk 30:{ type:CHUNK_DH_READ" + head + "parents:none, children:none, h:0x0001C005 }");
  char small[16];
  EXPECT_STREQ(DumpChunk(root, small, sizeof(small)), "chunk 14:{ type");
  EXPECT_EQ(std::string(DumpChunk(root, nullptr, 0)), Dump(root));
  EXPECT_EQ(GetChunkHandle(read), fhHandle);
  EXPECT_EQ(GetChunkPath(open), &fh->path);
  EXPECT_EQ(GetChunkPath(read), nullptr);
  EXPECT_STREQ(ChunkTypeName(CHUNK_SYNC), "CHUNK_SYNC");
  EXPECT_STREQ(ChunkTypeName(CHUNK_ARCHIVE_UNMOUNT), "CHUNK_ARCHIVE_UNMOUNT");
  EXPECT_STREQ(ChunkTypeName(kChunkTypeCount), "36");
  EXPECT_STREQ(ChunkTypeName(255), "255");
  ReleaseHandle(kOpTable, opHandle);
}

}  // namespace
}  // namespace kest2
