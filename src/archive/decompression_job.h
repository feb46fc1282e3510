// The decompression job: one compressed archive block handed from a read
// lane of the dearchiver to a codec, and the codec's answer.
//
// The dearchiver builds the job in an 80-byte chunk buffer and fills in
// everything but the codec's outputs; the codec queues it through `next`
// and writes only `next`, the done bit of `jobFlags`, `outputSize` and
// `result`.
//
// Thread-safety: `jobFlags` is read and written with atomic operations
// only (the codec sets the done bit on its own thread while the owner polls
// it); `outputSize` and `result` are written before the done bit is set and
// may be read once the owner has seen it.  Nothing else is shared.
#ifndef KEST2_SRC_ARCHIVE_DECOMPRESSION_JOB_H_
#define KEST2_SRC_ARCHIVE_DECOMPRESSION_JOB_H_

#include <cstddef>
#include <cstdint>

namespace kest2 {

struct DecompressionJob;

// What a completion function is told, in this order, on the codec thread
// that inflated the job.
enum JobEvent : int {
  // The codec is finished with the job's source and output, and the done
  // bit is not yet set: the owner may give its work buffers back now
  // rather than when it next looks at the job.  Called without the codec's
  // lock; `job` is still the codec's to read.
  kJobInflated = 0,
  // The done bit has just been set; called without the codec's lock.  `job`
  // is null: the owner may already have seen the bit and reused the job.
  kJobPublished = 1,
};

// `owner` is the job's `owner` as it was before the done bit was set.  The
// dearchiver's gives the work buffers back at kJobInflated and carries the
// lane on at kJobPublished.  It must not call back into the codec.
using DecompressionCompletion = void (*)(DecompressionJob* job, void* owner, JobEvent event);

// jobFlags bits.
constexpr uint16_t kJobDone = 1;      // set by the codec when finished
constexpr uint16_t kJobPrepared = 4;  // set by the builder; codecs refuse a job without it

// The result while the job waits in a codec's queue or is being inflated.
constexpr int32_t kJobResultQueued = -1;

struct DecompressionJob {
  DecompressionJob* next;              // link in the codec's queue
  uint32_t codecTag;                   // copied from the codec record
  uint16_t jobFlags;                   // kJobDone | kJobPrepared
  uint16_t reserved0;                  // 0
  void* owner;                         // the owner's own pointer; the codec never reads it
  const uint8_t* source;               // compressed bytes (a work buffer)
  uint8_t* output;                     // where to inflate: the caller's buffer or a work buffer
  uint8_t* destination;                // where the wanted bytes end up (the caller's buffer)
  DecompressionCompletion completion;  // may be null (for jobs waited for with the codec's wait)
  uint32_t compressedSize;
  // In: the block's uncompressed length (room at `output`).  Out: bytes
  // produced.
  uint32_t outputSize;
  uint32_t offsetInBlock;  // first wanted byte within the block
  uint32_t wantedLength;   // number of wanted bytes
  int32_t result;          // 0 or the inflate error; kJobResultQueued while queued
};

static_assert(sizeof(DecompressionJob) == 80, "the dearchiver's job buffer is 80 bytes");
static_assert(offsetof(DecompressionJob, next) == 0, "the queue links through the first field");
static_assert(offsetof(DecompressionJob, codecTag) == 8 &&
                  offsetof(DecompressionJob, jobFlags) == 12 &&
                  offsetof(DecompressionJob, source) == 24 &&
                  offsetof(DecompressionJob, completion) == 48 &&
                  offsetof(DecompressionJob, compressedSize) == 56 &&
                  offsetof(DecompressionJob, result) == 72,
              "job field layout");

inline uint16_t LoadJobFlags(const DecompressionJob* job) {
  return __atomic_load_n(&job->jobFlags, __ATOMIC_ACQUIRE);
}

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_DECOMPRESSION_JOB_H_
