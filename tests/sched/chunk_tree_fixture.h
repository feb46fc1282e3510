// The chunk tree tests' fixture: chunk storage over the test's own buffer
// (or the whole library over it), link listings, dumps and trace lookups.
#ifndef KEST2_TESTS_SCHED_CHUNK_TREE_FIXTURE_H_
#define KEST2_TESTS_SCHED_CHUNK_TREE_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/library_storage.h"
#include "core/pool.h"
#include "debug/dump.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "test_support.h"

namespace kest2 {

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
      ZulKestParams params = handles_.MakeParams(8, 8, 8);
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
  kest2_common::LibraryStorage handles_;
  bool libraryStarted_ = false;
};

// Whether the output captured so far holds a trace line of `function`
// with `text` (the part after the time stamp and thread id).
inline bool Traced(const kest2_test::OutputCapture& capture, const char* function,
                   const std::string& text) {
  char column[32];
  std::snprintf(column, sizeof(column), " %-15s ", function);
  return capture.text().find(column + text) != std::string::npos;
}

inline std::string Dump(ChunkID id) {
  char text[kDumpBufferSize];
  return DumpChunk(id, text, sizeof(text));
}

inline const std::string kFresh =
    ", scheduled:0, completed:0, executing:0, prepared:0, parents:none, children:none }";

}  // namespace kest2

#endif  // KEST2_TESTS_SCHED_CHUNK_TREE_FIXTURE_H_
