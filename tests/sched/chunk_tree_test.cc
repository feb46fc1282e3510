// The chunk tree: storage set-up and exhaustion, child and parent lists
// through their overflow records, tree release and replacement, readiness,
// preparation, error propagation, rescheduling, dumps and trace lines, and
// trees built and freed by several threads at once.

#include "sched/chunk_tree.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "core/stored_path.h"
#include "debug/dump.h"
#include "debug/trace.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using namespace kest2;
using Ids = std::vector<ChunkID>;

class ChunkTreeTest : public ::testing::Test {
 protected:
  void SetUp() override { zulKestDataInit(); }
  void TearDown() override {
    kest2_test::SetDebugFlags(0);
    {
      kest2_test::OutputCapture quiet;
      TerminateChunkStorage();
      if (libraryStarted_) zulKestTerminate();
    }
    zulKestDataTerm();
  }

  // Chunk storage of `units` units over the test's own buffer.  With
  // handles the whole library is initialised over it.
  void Start(uint32_t units, bool withHandles = false) {
    chunks_.assign(ZUL_KEST_STORAGE_SIZE(units, ZUL_KEST_CHUNK_UNIT_SIZE) / 8, 0);
    if (withHandles) {
      ZulKestParams params = kest2_test::MakeParams(&handles_, 8, 8, 8);
      params.chunkStorage = chunks_.data();
      params.chunkStorageSize = chunks_.size() * 8;
      ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
      libraryStarted_ = true;
      return;
    }
    ASSERT_EQ(InitializeChunkStorage(chunks_.data(), chunks_.size() * 8), ZUL_KEST_OK);
  }

  static Ids List(ChunkID (*get)(ChunkID, uint32_t), ChunkID id) {
    Ids ids;
    for (ChunkID c; (c = get(id, static_cast<uint32_t>(ids.size()))) != CHUNKID_INVALID;)
      ids.push_back(c);
    return ids;
  }
  static Ids Children(ChunkID id) { return List(GetChild, id); }
  static Ids Parents(ChunkID id) { return List(GetParent, id); }
  static uint32_t Used() { return PoolAllocatedCount(ChunkPool()); }

  std::vector<uint64_t> chunks_;
  kest2_test::TestStorage handles_;
  bool libraryStarted_ = false;
};

// Whether a trace line of `function` whose text starts with `text` was
// written (the text after the time stamp and thread id).
// Whether the output captured so far holds the trace line's text.
bool Traced(const kest2_test::OutputCapture& capture, const char* function,
            const std::string& text) {
  char column[32];
  std::snprintf(column, sizeof(column), " %-15s ", function);
  return capture.text().find(column + text) != std::string::npos;
}

std::string Dump(ChunkID id) {
  char text[kDumpBufferSize];
  return DumpChunk(id, text, sizeof(text));
}

const std::string kFresh =
    ", scheduled:0, completed:0, executing:0, prepared:0, parents:none, children:none }";

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
  EXPECT_TRUE(
      Traced(capture, "AddChild", "failed (parent 2, newChild " + std::to_string(fillers[0]) + ")\n"))
      << out;
  EXPECT_TRUE(Traced(capture, "AddParent", "failed (child 4, newParent 2)\n")) << out;

  for (size_t i = 2; i < fillers.size(); ++i) DeallocateChunk(fillers[i]);
  DeallocateTree(parent);
  EXPECT_EQ(Used(), 2u);
}

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

  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
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
  EXPECT_TRUE(Traced(capture, "Link", "parent " + r + ", newChild " + std::to_string(kids[2]) + "\n"));
  DeallocateChunk(old);
  DeallocateTree(p1);
  EXPECT_TRUE(ChunkIsLive(replacement));  // p2 still holds it
  DeallocateTree(p2);
  EXPECT_EQ(Used(), base);
}

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
  EXPECT_TRUE(
      Traced(capture, "FH", "Chunk " + std::to_string(reads[1]) + " incremented m_pendingIO = 2\n"));
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

// Threads build trees under the one global root, share chunks between
// parents, drop subtrees from the middle and free whole trees, while each
// checks its own lists and the global root's list stays consistent.
TEST_F(ChunkTreeTest, ThreadsBuildLinkAndFreeTreesConcurrently) {
  ASSERT_NO_FATAL_FAILURE(Start(8192));
  const ChunkID global = GlobalRootChunk();
  const uint32_t base = Used();
  std::atomic<int> faults{0};
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));

  auto worker = [&](uint32_t threadSeed) {
    std::mt19937 rng(threadSeed);
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
