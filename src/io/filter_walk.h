// Helpers that filters share to walk and rewrite a chunk tree: the
// children-first walk, answering a chunk, replacing it, and offering chunks
// a filter creates while it runs to the filters after it.
//
// Thread-safety: as the chunk-tree functions they call (chunk lock inside).
#ifndef KEST2_SRC_IO_FILTER_WALK_H_
#define KEST2_SRC_IO_FILTER_WALK_H_

#include <cstdint>

#include "sched/chunk.h"

namespace kest2 {

enum class FilterOutcome {
  kDown,      // the chunk goes on down unchanged
  kAnswered,  // the chunk is completed
  kReplaced,  // *replacement stands in its place
};

// One filter's decision for one chunk.
using FilterStep = FilterOutcome (*)(void* context, ChunkID id, ChunkID* replacement);

// Offers the children of id (as they are on entry) first, then id itself;
// a replacement is offered again until it stays.  Completed chunks are
// left alone.  Returns the chunk that stands in id's place, or
// CHUNKID_INVALID when it was answered.
ChunkID WalkChildrenFirst(void* context, ChunkID id, FilterStep step);

// Completes the chunk with result now ("failed with %s" traced under
// module for an error); a chunk that still waits for children is replaced
// by a null chunk that completes after them, carrying the error up.
FilterOutcome AnswerChunk(uint32_t module, ChunkID id, int32_t result, ChunkID* replacement);

// Moves every link of id to by, frees id ("replacing %d with %s").
FilterOutcome ReplaceChunkWith(uint32_t module, ChunkID id, ChunkID by, ChunkID* replacement);

// Offers a chunk made while a filter's own chunk runs to the filters after
// the one installed with ownContext (read without the filter lock: the
// caller may hold the chunk lock).  0, or the error of a filter that failed
// (also printed as a warning).  *chunk becomes what is to go on down;
// CHUNKID_INVALID when a filter answered it.
int32_t OfferToLaterFilters(const void* ownContext, ChunkID* chunk, uint32_t module, const char* function);

// Whether any filter is installed after the one with ownContext: whether
// OfferToLaterFilters would call anything.
bool LaterFiltersInstalled(const void* ownContext);

}  // namespace kest2

#endif  // KEST2_SRC_IO_FILTER_WALK_H_
