// The filter chain: up to 256 I/O filters between the chunk engine and the
// native file system.  A filter is a function and a context pointer; the
// slot index is its place in the chain (lower indices see every operation
// first).  Every new operation's chunk tree is offered to each installed
// filter in order (event -1), which may rewrite it, answer it or let it pass;
// what is left after the last filter goes to the native layer.
//
// Thread-safety: the table is guarded by the "ZulKestIOFilter" read-write
// lock.  Walks hold it for reading for their whole length, so a filter's
// function may run on several threads at once and must be re-entrant.  Add
// and remove hold it for writing only around the slot update; a filter's own
// initialise and terminate events run outside the lock.  Lock order: the
// filter lock before the chunk lock.
#ifndef KEST2_SRC_IO_FILTER_CHAIN_H_
#define KEST2_SRC_IO_FILTER_CHAIN_H_

#include <cstdint>

#include "kest2.h"
#include "sched/chunk.h"

namespace kest2 {

// Installs function at index after it accepts ZUL_KEST_IOFILTER_EVENT_INITIALIZE.
// ZUL_KEST_ERROR_BAD_PTR (null function), ZUL_KEST_ERROR_BAD_INDEX (out of
// range or occupied), or the filter's own refusal.
int32_t AddFilter(int32_t index, ZulKestIOFilterCallback function, void* context);
// The function and context at index (either out pointer may be null).
int32_t GetFilterInfo(int32_t index, ZulKestIOFilterCallback* function, void** context);
// Clears the slot, then sends the filter ZUL_KEST_IOFILTER_EVENT_TERMINATE
// (warning about an error answer).  ZUL_KEST_ERROR_BAD_INDEX for a free or
// out-of-range slot, else 0.
int32_t RemoveFilter(int32_t index);
// Removes every filter, index 0 first (library termination).
void RemoveAllFilters();

// Number of installed filters; the engine skips the tree walk when it is 0.
int32_t FilterCount();

// Offers the tree under root to every installed filter in order; returns
// the root that is to go on down the chain (CHUNKID_INVALID when a filter
// answered or absorbed the whole tree).
ChunkID FilterChunkTree(ChunkID root);
// The engine's pass over a new tree (see SetTreeFilter): FilterChunkTree
// when any filter is installed, else the root as it is.
ChunkID FilterNewTree(ChunkID root, bool* filtered);
// Sends event to the filters in order until one answers 0; returns that
// filter's index, or ZUL_KEST_ERROR_BAD_INDEX when none did.
int32_t DispatchFilterEvent(int32_t event, void* argument);

// Unlocked reads of the table for the archive filter's offer of its own
// reads to the filters after it (it holds the chunk lock there, so taking
// the filter lock would reverse the lock order).
ZulKestIOFilterCallback FilterFunctionAt(int32_t index);
void* FilterContextAt(int32_t index);

}  // namespace kest2

#endif  // KEST2_SRC_IO_FILTER_CHAIN_H_
