// Reads of archived files: see archive_read.h.

#include "archive/archive_read.h"

#include <cstring>

#include "archive/codec_registry.h"
#include "archive/decompression_job.h"
#include "debug/dump.h"
#include "debug/timeline.h"
#include "debug/trace.h"
#include "io/filter_walk.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

constexpr int kLaneLimit = 4;
constexpr int kWorkBuffers = 3;
constexpr uint8_t kNeedReadBuffer = 1;    // the compressed bytes
constexpr uint8_t kNeedOutputBuffer = 2;  // a partly wanted block's inflated bytes

// One replaced read, in a CHUNK_BUFFER below the replacement's root.
struct ReadState {
  const Codec* codec;
  uint64_t lastBlock;
  uint64_t blockSize;
  uint64_t nextBlock;  // fetch-and-increment
  uint64_t fileSize;
  ArchiveTracker* tracker;
  const uint8_t* entry;
  int64_t start;
  int64_t end;
  uint8_t* destination;  // receives byte `start`
  int64_t* actCount;
  ZulKestZorbaDearchiverContext* context;
  ChunkID root;       // the chunk the lanes hang below
  int32_t lanesLeft;  // lanes without their final answer; atomic
};
static_assert(sizeof(ReadState) == 104, "");

// Where a lane stands.  Only the thread that has the lane moves it on: the
// callback thread while it is armed or inflated, the codec's thread from
// the moment the job is handed over until it re-arms or finishes the lane.
// The lane's callback answers busy in between, so the two never run it at
// once.
enum LaneStage : uint32_t {
  kLaneArmed = 0,  // its block read is pending, or done and not handed on
  kLaneWithCodec,  // its job is with the codec, whose thread carries it on
  kLaneCarried,    // a codec thread is taking it to its next block
  kLaneInflated,   // inflated, for the callback thread to carry on
  kLaneFinished,   // nothing left to do: the callback answers `result`
};

// A lane's state, in its callback chunk's filter data.
struct LaneState {
  uint32_t stage;          // LaneStage; atomic
  ChunkID bufferCallback;  // CHUNKID_INVALID when the block needs no buffer
  ChunkID read;            // the current block read
  DecompressionJob* job;
  uint32_t expectedOutput;
  uint32_t wanted;
  ReadState* state;
  int64_t moved;   // bytes the current block's read moved
  int32_t result;  // the final answer once finished
};
static_assert(sizeof(LaneState) <= sizeof(ChunkCallbackRecord::filterData), "");

// A block read's buffer callback, in its callback chunk's filter data.
struct BufferState {
  ChunkID read;
  ChunkID lane;
  uint8_t needs;
  uint8_t* readBuffer;  // the work buffer lent to the read
  DecompressionJob* job;
  int64_t timelineBegin;  // when the buffers were lent, while a timeline records
};
static_assert(sizeof(BufferState) <= sizeof(ChunkCallbackRecord::filterData), "");

template <typename T>
T* StateOf(ChunkCallbackRecord* record) {
  return reinterpret_cast<T*>(record->filterData);
}

uint32_t StageOf(const LaneState* lane) { return __atomic_load_n(&lane->stage, __ATOMIC_ACQUIRE); }

void SetStage(LaneState* lane, LaneStage stage) {
  __atomic_store_n(&lane->stage, static_cast<uint32_t>(stage), __ATOMIC_RELEASE);
}

ZulKestZorbaDearchiverContext* ContextOf(ChunkCallbackRecord* record) {
  return static_cast<ZulKestZorbaDearchiverContext*>(record->context);
}

uint64_t BufferBytes(const ZulKestZorbaDearchiverContext* context) {
  return context->workBufferSize / kWorkBuffers;
}

uint8_t* WorkBuffer(const ZulKestZorbaDearchiverContext* context, int i) {
  return static_cast<uint8_t*>(context->pWorkBuffer) +
         static_cast<uint64_t>(i) * BufferBytes(context);
}

uint64_t LoadMask(ZulKestZorbaDearchiverContext* context) {
  return __atomic_load_n(&BufferBusyMask(context), __ATOMIC_ACQUIRE);
}

int NeedCount(uint8_t needs) { return (needs & 1) + ((needs >> 1) & 1); }

int FreeCount(uint64_t mask) {
  return kWorkBuffers - static_cast<int>(__builtin_popcountll(mask & 7));
}

// Gives back what the buffer callback holds.  With mayKick, takes the
// deferred flag and returns whether held-back reads need a kick; without,
// leaves the flag for a release that can kick.
bool ReleaseBuffersLocked(ChunkCallbackRecord* callback, bool mayKick) REQUIRES(DearchiverMutex()) {
  ZulKestZorbaDearchiverContext* context = ContextOf(callback);
  BufferState* buffers = StateOf<BufferState>(callback);
  uint64_t mask = LoadMask(context);
  for (int i = 0; i < kWorkBuffers; ++i) {
    uint8_t* buffer = WorkBuffer(context, i);
    if ((buffers->needs & kNeedReadBuffer) != 0 && buffers->readBuffer == buffer &&
        (mask & (1u << i)) != 0) {
      mask &= ~(uint64_t{1} << i);
      KEST2_TRACE(kTraceZorba, "BufferAllocate", "releasing buffer %p from read chunk %d\n",
                  static_cast<void*>(buffer), buffers->read);
    }
    if ((buffers->needs & kNeedOutputBuffer) != 0 && buffers->job != nullptr &&
        buffers->job->output == buffer && (mask & (1u << i)) != 0) {
      mask &= ~(uint64_t{1} << i);
      KEST2_TRACE(kTraceZorba, "BufferAllocate",
                  "pJob %p releasing decompression result buffer %p\n",
                  static_cast<void*>(buffers->job), static_cast<void*>(buffer));
    }
  }
  __atomic_store_n(&BufferBusyMask(context), mask, __ATOMIC_SEQ_CST);
  buffers->readBuffer = nullptr;
  buffers->needs = 0;
  return mayKick &&
         __atomic_exchange_n(&BufferDeferred(context), uint64_t{0}, __ATOMIC_SEQ_CST) != 0;
}

// The buffer manager.  Event 0: could the read start now; event 1: lend the
// buffers; event 2: give them back.
int32_t BufferAllocate(int32_t event, ChunkCallbackRecord* callback) {
  ZulKestZorbaDearchiverContext* context = ContextOf(callback);
  BufferState* buffers = StateOf<BufferState>(callback);
  if (event == 0) {
    if (FreeCount(LoadMask(context)) < NeedCount(buffers->needs)) {
      // Without the dearchiver mutex: the flag is raised before the mask is
      // looked at again, so a release that cleared the mask after the first
      // look either is seen here or sees the flag and kicks.
      __atomic_store_n(&BufferDeferred(context), uint64_t{1}, __ATOMIC_SEQ_CST);
      if (FreeCount(__atomic_load_n(&BufferBusyMask(context), __ATOMIC_SEQ_CST)) >=
          NeedCount(buffers->needs)) {
        return ZUL_KEST_OK;
      }
      KEST2_TRACE(kTraceZorba, "BufferAllocate", "%s",
                  "busy check: buffers are busy, deferring...\n");
      return ZUL_KEST_ERROR_RETRY;
    }
    return ZUL_KEST_OK;
  }
  int32_t result = ZUL_KEST_OK;
  {
    DearchiverLocker lock;
    if (event == 2) {
      // Called with a scheduler mutex held, so it cannot kick.
      ReleaseBuffersLocked(callback, false);
    } else if ((LoadChunkFlags(&callback->header) & kChunkCancelled) != 0) {
      buffers->needs = 0;
      result = ZUL_KEST_ERROR_CANCELLED;
    } else if (FreeCount(LoadMask(context)) < NeedCount(buffers->needs)) {
      KEST2_TRACE(kTraceZorba, "BufferAllocate", "%s",
                  "exec check: buffers are busy, deferring...\n");
      __atomic_store_n(&BufferDeferred(context), uint64_t{1}, __ATOMIC_RELEASE);
      result = ZUL_KEST_ERROR_RETRY;
    } else {
      uint64_t mask = LoadMask(context);
      auto take = [&]() -> uint8_t* {
        for (int i = 0; i < kWorkBuffers; ++i) {
          if ((mask & (uint64_t{1} << i)) == 0) {
            mask |= uint64_t{1} << i;
            return WorkBuffer(context, i);
          }
        }
        return nullptr;
      };
      if ((buffers->needs & kNeedReadBuffer) != 0) {
        buffers->readBuffer = take();
        ChunkRecord<ChunkFhIoRecord>(buffers->read)->buffer = buffers->readBuffer;
        buffers->job->source = buffers->readBuffer;
        KEST2_TRACE(kTraceZorba, "BufferAllocate", "allocated buffer %p for read chunk %d\n",
                    static_cast<void*>(buffers->readBuffer), buffers->read);
      }
      if ((buffers->needs & kNeedOutputBuffer) != 0) {
        buffers->job->output = take();
        KEST2_TRACE(kTraceZorba, "BufferAllocate",
                    "pJob %p allocated buffer %p for decompression result\n",
                    static_cast<void*>(buffers->job), static_cast<void*>(buffers->job->output));
      }
      __atomic_store_n(&BufferBusyMask(context), mask, __ATOMIC_RELEASE);
      buffers->timelineBegin = TimelineBegin();
    }
  }
  return result;
}

// The timeline's span of a block read: from the moment its buffers were
// lent until it has run.
void NoteBlockRead(const BufferState* buffers) {
  if (buffers->timelineBegin == 0) return;
  const LaneState* lane = StateOf<LaneState>(ChunkRecord<ChunkCallbackRecord>(buffers->lane));
  TimelineNoteBlockRead(buffers->timelineBegin, buffers->read,
                        ChunkRecord<ChunkFhIoRecord>(buffers->read)->offset,
                        __atomic_load_n(&lane->moved, __ATOMIC_ACQUIRE));
}

// Hands the lane's job to the codec; false, with the lane still armed,
// when the codec refuses it.  The stage changes first: the codec's thread
// may finish the job before submit returns.
bool HandToCodec(LaneState* lane) {
  SetStage(lane, kLaneWithCodec);
  if (lane->state->codec->submit(lane->job) != nullptr) return true;
  SetStage(lane, kLaneArmed);
  return false;
}

// The block's compressed bytes have just been read, on the I/O thread: a
// whole block goes to the codec from here rather than after a round trip
// through the callback thread.  Anything else (a short read, a cancelled
// lane, a refused job) is left to the lane.
void SubmitFromRead(BufferState* buffers) {
  ChunkCallbackRecord* laneRecord = ChunkRecord<ChunkCallbackRecord>(buffers->lane);
  LaneState* lane = StateOf<LaneState>(laneRecord);
  if (lane->moved != buffers->job->compressedSize ||
      (LoadChunkFlags(&laneRecord->header) & kChunkCancelled) != 0) {
    return;
  }
  HandToCodec(lane);
}

int32_t BufferCallback(ChunkCallbackRecord* callback, int32_t event) {
  if (event == kLinkedEventRan) {
    NoteBlockRead(StateOf<BufferState>(callback));
    SubmitFromRead(StateOf<BufferState>(callback));
    return ZUL_KEST_OK;
  }
  return BufferAllocate(event, callback);
}

// Gives back the work buffers a block's buffer callback holds, and wakes
// the reads held back for want of them.
void ReleaseBuffers(ChunkCallbackRecord* callback) {
  bool kick;
  {
    DearchiverLocker lock;
    if (StateOf<BufferState>(callback)->needs == 0) return;  // given back already
    kick = ReleaseBuffersLocked(callback, true);
  }
  KEST2_TRACE(kTraceZorba, "BufferAllocate", "%s",
              kick ? "Kicking scheduler\n" : "Not kicking scheduler\n");
  if (kick) KickBusyChunks();
}

// A lane gives its block's buffers back.
void ReleaseLaneBuffers(LaneState* lane) {
  if (lane->bufferCallback == CHUNKID_INVALID) return;
  ReleaseBuffers(ChunkRecord<ChunkCallbackRecord>(lane->bufferCallback));
}

void CarryOn(ChunkCallbackRecord* record);

// A job's buffers go back the moment it is inflated, on the codec's thread:
// the held-back read of the next block starts while this lane moves on.
// Once the job is published the same thread carries the lane (the job's
// owner) on; the lane answers busy until then, so it is still there.
void JobCompletion(DecompressionJob*, void* owner, JobEvent event) {
  ChunkCallbackRecord* lane = static_cast<ChunkCallbackRecord*>(owner);
  if (event == kJobPublished) {
    CarryOn(lane);
  } else {
    ReleaseLaneBuffers(StateOf<LaneState>(lane));
  }
}

// Arms the lane for block b with the read chunk `read` (allocated, not
// linked to the lane's list by this function).  Answers 1 when armed, 0 when
// the block holds no wanted byte, or a negative error.
int32_t CreateBlockRead(ReadState* state, uint64_t b, ChunkID laneId, ChunkID read) {
  const uint64_t blockStart = b * state->blockSize;
  if (blockStart >= state->fileSize) return 0;
  const uint64_t blockEnd = blockStart + state->blockSize < state->fileSize
                                ? blockStart + state->blockSize
                                : state->fileSize;
  const uint64_t start = static_cast<uint64_t>(state->start);
  const uint64_t end = static_cast<uint64_t>(state->end);
  if (blockEnd <= start || blockStart >= end) return 0;
  const uint64_t r0 = start > blockStart ? start : blockStart;
  const uint64_t r1 = end < blockEnd ? end : blockEnd;
  ZorbaBlock block;
  if (LocateBlock(state->tracker->header, state->tracker->toc, state->entry,
                  state->tracker->blockIndex, b, &block) != ZUL_KEST_OK) {
    return ZUL_KEST_ERROR_BAD_ARCHIVE;
  }
  // A compressed block is read whole into one work buffer part, which the
  // mount only checked against the block size.  Rows are wider than that
  // (two bytes for blocks of 257 to 65,536 bytes), and a writer stores a
  // block raw when compression does not make it smaller, so a longer row
  // means a damaged archive: refuse it rather than read past the part.
  if (block.compressed && block.storedSize > BufferBytes(state->context))
    return ZUL_KEST_ERROR_BAD_ARCHIVE;
  ChunkCallbackRecord* laneRecord = ChunkRecord<ChunkCallbackRecord>(laneId);
  LaneState* lane = StateOf<LaneState>(laneRecord);
  DecompressionJob* job = lane->job;
  ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(read);
  io->h = state->tracker->archiveHandle;
  io->position = INT64_MAX;
  uint8_t* destination = state->destination + (r0 - start);
  lane->bufferCallback = CHUNKID_INVALID;
  lane->read = read;
  lane->moved = 0;
  // The read counts into the lane, which checks the block arrived whole
  // before the bytes count for the operation.
  io->actCount = &lane->moved;
  if (!block.compressed) {
    io->offset = static_cast<int64_t>(block.offset + (r0 - blockStart));
    io->reqCount = static_cast<int64_t>(r1 - r0);
    io->buffer = destination;
    std::memset(job, 0, sizeof(*job));
    lane->wanted = static_cast<uint32_t>(r1 - r0);
    return 1;
  }
  ChunkHeader* readHeader = ChunkAt(read);
  StoreChunkFlags(readHeader, LoadChunkFlags(readHeader) | kChunkNoSplit);
  const bool whole = r0 == blockStart && r1 == blockEnd;
  std::memset(job, 0, sizeof(*job));
  job->codecTag = state->codec->tag;
  job->jobFlags = kJobPrepared;
  job->output = whole ? destination : nullptr;
  job->destination = destination;
  job->completion = JobCompletion;
  job->compressedSize = block.storedSize;
  job->outputSize = static_cast<uint32_t>(blockEnd - blockStart);
  job->offsetInBlock = static_cast<uint32_t>(r0 - blockStart);
  job->wantedLength = static_cast<uint32_t>(r1 - r0);
  const uint8_t needs = static_cast<uint8_t>(kNeedReadBuffer | (whole ? 0 : kNeedOutputBuffer));
  const ChunkID callback = AllocateChunk(CHUNK_CALLBACK);
  if (callback == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  {
    // Completed before it hangs below the lane: a cancel walking the lane
    // must not find it waiting and cancel it without its read.
    ChunkLocker lock;
    StoreChunkFlags(ChunkAt(callback),
                    LoadChunkFlags(ChunkAt(callback)) | kChunkScheduled | kChunkCompleted);
    if (!LinkChunks(laneId, callback)) {
      DeallocateChunk(callback);
      return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    }
  }
  ChunkCallbackRecord* buffers = ChunkRecord<ChunkCallbackRecord>(callback);
  job->owner = laneRecord;
  buffers->callback = BufferCallback;
  buffers->context = state->context;
  *StateOf<BufferState>(buffers) = BufferState{read, laneId, needs, nullptr, job, 0};
  readHeader->linked = callback;
  io->offset = static_cast<int64_t>(block.offset);
  io->reqCount = block.storedSize;
  io->buffer = nullptr;  // lent by the buffer manager before the read runs
  lane->bufferCallback = callback;
  lane->expectedOutput = job->outputSize;
  lane->wanted = job->wantedLength;
  return 1;
}

// Drops a chunk that hangs below the lane: its buffer callback or read,
// with what a later filter hung below it.  A chunk a later filter also
// linked elsewhere (a cache's pre-execute callback adopts the buffer
// callback) goes with that other parent.
void DropLaneChild(ChunkID lane, ChunkID child) {
  if (child == CHUNKID_INVALID) return;
  ChunkLocker lock;
  UnlinkChunks(lane, child);
  if (GetParent(child, 0) == CHUNKID_INVALID) DeallocateTree(child);
}

// Takes the next unread block into the lane, or finishes it.
int32_t Rearm(ChunkCallbackRecord* record, LaneState* lane) {
  const ChunkID laneId = ChunkIdOf(record);
  ReadState* state = lane->state;
  const bool cancelled = (LoadChunkFlags(&record->header) & kChunkCancelled) != 0;
  ReleaseLaneBuffers(lane);
  if (record->error != ZUL_KEST_OK || cancelled)
    return cancelled ? ZUL_KEST_ERROR_CANCELLED : record->error;
  const ChunkID oldRead = lane->read;
  const ChunkID oldCallback = lane->bufferCallback;
  lane->bufferCallback = CHUNKID_INVALID;
  ChunkID read = AllocateChunk(CHUNK_FH_READ);
  if (read == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  for (;;) {
    const uint64_t b = __atomic_fetch_add(&state->nextBlock, 1, __ATOMIC_ACQ_REL);
    if (b > state->lastBlock) {
      KEST2_TRACE(kTraceZorba, "DecompressCallback", "%s", "no more blocks to read\n");
      DeallocateChunk(read);
      DropLaneChild(laneId, oldCallback);
      DropLaneChild(laneId, oldRead);
      return ZUL_KEST_OK;
    }
    const int32_t armed = CreateBlockRead(state, b, laneId, read);
    if (armed == 1) break;
    if (armed < 0) {
      DeallocateChunk(read);
      return armed;
    }
  }
  KEST2_TRACE(kTraceZorba, "DecompressCallback", "created a dynamic read chunk %d\n", read);
  const ChunkID created = read;
  const int32_t filtered =
      OfferToLaterFilters(state->context, &read, kTraceZorba, "DecompressCallback");
  if (filtered != ZUL_KEST_OK) return filtered;
  if (read == CHUNKID_INVALID) read = created;  // answered by a filter: it carries on as is
  {
    ChunkLocker lock;
    if (!LinkChunks(laneId, read)) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  }
  KEST2_TRACE(kTraceZorba, "DecompressCallback", "scheduling dynamic read chunk %d\n", read);
  int8_t priority;
  ZulKestTime deadline;
  {
    // A codec thread may carry the lane on while its own queueing still
    // stamps the header.
    ChunkLocker lock;
    priority = record->header.priority;
    deadline = record->header.deadline;
  }
  PrepareChunk(read, priority, deadline);
  DropLaneChild(laneId, oldCallback);
  KEST2_TRACE(kTraceZorba, "DecompressCallback", "Deallocating old read chunk %d\n", oldRead);
  DropLaneChild(laneId, oldRead);
  // Armed before the read can complete: its completion asks the lane
  // whether it is ready.
  SetStage(lane, kLaneArmed);
  ScheduleTree(read, 0, false);
  return ZUL_KEST_ERROR_RETRY;
}

// An archive cut short since it was mounted holds less than its table of
// contents says: a block read finds the end of the archive file, or moves
// fewer bytes than the block's row.  That is a damaged archive, not the end
// of the file being read: reported as the end of file, the operation's
// count would take in the lanes that finished beyond the hole.  The code
// replaces an end of file the read already passed up.
int32_t FailIfCutShort(ChunkCallbackRecord* record, LaneState* lane, int64_t rowBytes) {
  if ((LoadChunkFlags(&record->header) & kChunkCancelled) != 0) return ZUL_KEST_OK;
  if (record->error == ZUL_KEST_OK && lane->moved == rowBytes) return ZUL_KEST_OK;
  if (record->error != ZUL_KEST_OK && record->error != ZUL_KEST_ERROR_EOF) return ZUL_KEST_OK;
  ReleaseLaneBuffers(lane);
  PropagateChunkError(ChunkIdOf(record), ZUL_KEST_ERROR_BAD_ARCHIVE, true);
  return ZUL_KEST_ERROR_BAD_ARCHIVE;
}

// The lanes of a read (its callback chunks), up to kLaneLimit.
uint32_t LanesOf(ChunkID root, ChunkID* lanes) {
  ChunkID children[kLaneLimit + 2];
  const uint32_t count = GetChildren(root, children, kLaneLimit + 2);
  uint32_t found = 0;
  for (uint32_t i = 0; i < count && found < kLaneLimit; ++i) {
    if (ChunkAt(children[i])->type == CHUNK_CALLBACK) lanes[found++] = children[i];
  }
  return found;
}

// The lane has its final answer, which its callback gives from now on.
// Finished lanes wait in the callback queue without a kick until the last
// lane of the read is finished, which kicks them all: the read's parent
// cannot complete before that, so the callback thread wakes once per read
// rather than once per lane.  An error kicks its lane at once.
void FinishLane(LaneState* lane, ChunkID laneId, int32_t result) {
  ChunkID kick[kLaneLimit];
  uint32_t count = 0;
  if (__atomic_sub_fetch(&lane->state->lanesLeft, 1, __ATOMIC_ACQ_REL) == 0) {
    // Gathered while the lane is unfinished: the read's chunks stay till then.
    count = LanesOf(lane->state->root, kick);
  } else if (result != ZUL_KEST_OK) {
    kick[0] = laneId;
    count = 1;
  }
  lane->result = result;
  // From here the callback thread may complete the lane and free the read.
  SetStage(lane, kLaneFinished);
  if (count != 0) KickChunks(CallbackScheduler(), kick, count);
}

// The lane's block was inflated: counts its wanted bytes and takes the
// lane to the next block, or answers its end.
int32_t FinishBlock(ChunkCallbackRecord* record, LaneState* lane) {
  const DecompressionJob* job = lane->job;
  if (job->result != 0 || job->outputSize != lane->expectedOutput) {
    ReleaseLaneBuffers(lane);
    char dump[kDumpBufferSize];
    zulKestPrintf("KEST: Decompression failed with eror %d/0x%x for chunk: %s\n", job->result,
                  static_cast<unsigned>(job->result), DumpChunk(lane->read, dump, sizeof(dump)));
    return ZUL_KEST_ERROR_DECOMPRESSION;
  }
  __atomic_add_fetch(lane->state->actCount, static_cast<int64_t>(lane->wanted), __ATOMIC_ACQ_REL);
  return Rearm(record, lane);
}

// The lane's read is done: a stored block is counted and the lane moves
// on; a compressed one goes to the codec.
int32_t TakeRead(ChunkCallbackRecord* record, LaneState* lane) {
  if (lane->job->compressedSize == 0) {
    // A stored block, read straight into the caller's buffer.
    if (const int32_t cut = FailIfCutShort(record, lane, lane->wanted); cut != ZUL_KEST_OK)
      return cut;
    if (record->error == ZUL_KEST_OK && (LoadChunkFlags(&record->header) & kChunkCancelled) == 0)
      __atomic_add_fetch(lane->state->actCount, lane->moved, __ATOMIC_ACQ_REL);
    return Rearm(record, lane);
  }
  if (const int32_t cut = FailIfCutShort(record, lane, lane->job->compressedSize);
      cut != ZUL_KEST_OK)
    return cut;
  const bool cancelled = (LoadChunkFlags(&record->header) & kChunkCancelled) != 0;
  if (record->error != ZUL_KEST_OK || cancelled) {
    ReleaseLaneBuffers(lane);
    return cancelled ? ZUL_KEST_ERROR_CANCELLED : record->error;
  }
  if (!HandToCodec(lane)) {
    ReleaseLaneBuffers(lane);
    return ZUL_KEST_ERROR_DECOMPRESSION;
  }
  return ZUL_KEST_ERROR_RETRY;
}

// The codec's thread has just published the lane's job.  It takes the lane
// on itself (counts the block, arms the next read, or finishes the lane),
// which spares the callback thread a wake-up per block.  Two cases are left
// to the callback thread: a later filter is installed (its code runs on the
// scheduler's threads), or the read that brought the block in has not
// completed yet (it handed the job over just before; its completion finds
// the lane ready).  Decided under the chunk lock, against which that
// completion tests the lane.
void CarryOn(ChunkCallbackRecord* record) {
  LaneState* lane = StateOf<LaneState>(record);
  const ChunkID laneId = ChunkIdOf(record);
  bool readPending;
  bool here;
  {
    ChunkLocker lock;
    readPending = CountChildrenNotCompleted(laneId, 1) != 0;
    here = !readPending && !LaterFiltersInstalled(lane->state->context);
    SetStage(lane, here ? kLaneCarried : kLaneInflated);
  }
  if (!here) {
    if (!readPending) KickChunk(CallbackScheduler(), laneId);
    return;
  }
  const int32_t result = FinishBlock(record, lane);
  if (result != ZUL_KEST_ERROR_RETRY) FinishLane(lane, laneId, result);  // else armed anew
}

int32_t DecompressCallback(ChunkCallbackRecord* record, int32_t event) {
  LaneState* lane = StateOf<LaneState>(record);
  const uint32_t stage = StageOf(lane);
  if (stage == kLaneWithCodec || stage == kLaneCarried) return ZUL_KEST_ERROR_RETRY;
  if (event == 0) return ZUL_KEST_OK;
  if (stage == kLaneFinished) return lane->result;
  const int32_t result =
      stage == kLaneInflated ? FinishBlock(record, lane) : TakeRead(record, lane);
  if (result != ZUL_KEST_ERROR_RETRY) FinishLane(lane, ChunkIdOf(record), result);
  return result;
}

// A new lane below root with its job buffer and its (not yet linked) read.
ChunkID NewLane(ChunkID root, ReadState* state, ChunkID* read) {
  const ChunkID lane = AllocateChildChunk(root, CHUNK_CALLBACK);
  if (lane == CHUNKID_INVALID) return CHUNKID_INVALID;
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(lane);
  record->callback = DecompressCallback;
  // Busy only while its job is with the codec, whose completion kicks.
  record->options = kCallbackKicksItself;
  record->context = state->context;
  auto* job = static_cast<DecompressionJob*>(AllocateBufferChunk(lane, sizeof(DecompressionJob)));
  *read = AllocateChunk(CHUNK_FH_READ);
  if (job == nullptr || *read == CHUNKID_INVALID) return CHUNKID_INVALID;
  LaneState* laneState = StateOf<LaneState>(record);
  *laneState = LaneState{};
  laneState->job = job;
  laneState->state = state;
  laneState->bufferCallback = CHUNKID_INVALID;
  return lane;
}

}  // namespace

int32_t CreateReadChunksUnlocked(ZulKestZorbaDearchiverContext* context, ChunkID* out,
                                 ArchiveTracker* tracker, const uint8_t* entry, void* destination,
                                 int64_t offset, int64_t length, int64_t* actCount) {
  *out = CHUNKID_INVALID;
  if (!CheckMountBuffer(tracker)) return ZUL_KEST_ERROR_BAD_ARCHIVE;
  if (offset < 0) return ZUL_KEST_ERROR_BAD_OFFSET;
  const int64_t fileSize = static_cast<int64_t>(GetEntrySize(entry));
  const int64_t start = offset < fileSize ? offset : fileSize;
  int64_t end = length > fileSize - offset ? fileSize : offset + length;
  if (end < 0) end = 0;
  if (end <= start) {
    if (length == 0) return ZUL_KEST_OK;
    return start == fileSize ? ZUL_KEST_ERROR_EOF : ZUL_KEST_ERROR_BAD_OFFSET;
  }
  const ZorbaHeader& header = tracker->header;
  const uint64_t blockSize = header.blockSize;
  const uint64_t first = static_cast<uint64_t>(start) / blockSize;
  const uint64_t last = static_cast<uint64_t>(end) / blockSize;

  bool stored = false;
  if (IsRangeStored(header, tracker->toc, entry, static_cast<uint64_t>(start),
                    static_cast<uint64_t>(end - start), &stored) != ZUL_KEST_OK) {
    return ZUL_KEST_ERROR_BAD_ARCHIVE;
  }
  if (stored) {
    ZorbaBlock block;
    if (LocateBlock(header, tracker->toc, entry, tracker->blockIndex, first, &block) != ZUL_KEST_OK)
      return ZUL_KEST_ERROR_BAD_ARCHIVE;
    const ChunkID read = AllocateChunk(CHUNK_FH_READ);
    if (read == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(read);
    io->h = tracker->archiveHandle;
    io->offset =
        static_cast<int64_t>(block.offset + (static_cast<uint64_t>(start) - first * blockSize));
    io->position = INT64_MAX;
    io->reqCount = end - start;
    io->buffer = destination;
    io->actCount = actCount;
    *out = read;
    return ZUL_KEST_OK;
  }

  const Codec* codec = FindCodec(header.compression, kCodecDearchiver);
  if (codec == nullptr) {
    zulKestPrintf("KEST2 warning: cannot find a decompressor!\n");
    return ZUL_KEST_ERROR_DECOMPRESSION;
  }
  const ChunkID root = AllocateChunk(CHUNK_NULL);
  if (root == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  auto* state = static_cast<ReadState*>(AllocateBufferChunk(root, sizeof(ReadState)));
  if (state == nullptr) {
    DeallocateTree(root);
    return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  }
  *state = ReadState{codec,    last,    blockSize, first, static_cast<uint64_t>(fileSize),
                     tracker,  entry,   start,     end,   static_cast<uint8_t*>(destination),
                     actCount, context, root,      0};
  int armed = 0;
  ChunkID lane = CHUNKID_INVALID;
  ChunkID read = CHUNKID_INVALID;
  uint64_t b = first;
  for (; b <= last && armed < kLaneLimit; ++b) {
    if (lane == CHUNKID_INVALID) {
      lane = NewLane(root, state, &read);
      if (lane == CHUNKID_INVALID) {
        if (read != CHUNKID_INVALID) DeallocateChunk(read);
        DeallocateTree(root);
        return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
      }
    }
    const int32_t result = CreateBlockRead(state, b, lane, read);
    if (result < 0) {
      DeallocateChunk(read);
      DeallocateTree(root);
      return result;
    }
    if (result == 1) {
      ChunkLocker lock;
      if (!LinkChunks(lane, read)) {
        DeallocateChunk(read);
        DeallocateTree(root);
        return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
      }
      ++armed;
      lane = CHUNKID_INVALID;
      read = CHUNKID_INVALID;
    }
  }
  if (lane != CHUNKID_INVALID) {
    DeallocateChunk(read);
    ChunkLocker lock;
    UnlinkChunks(root, lane);
    DeallocateTree(lane);
  }
  KEST2_TRACE(kTraceZorba, "CreateReadChunksUnlocked", "created %d initial reads\n", armed);
  state->nextBlock = b;
  state->lanesLeft = armed;
  *out = root;
  return ZUL_KEST_OK;
}

}  // namespace kest2
