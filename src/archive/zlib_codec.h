// The library's own codec: inflates zlib-wrapped archive blocks on one to
// three decompressor threads ("ZulKestZlib0".."ZulKestZlib2").
//
// Jobs wait in one FIFO queue.  A submission wakes the lowest-numbered idle
// worker among the active ones; a worker that is already running drains the
// whole queue, so lowering the active count takes effect as workers go idle.
// A finished job's completion function hears that it was inflated, then,
// once its done bit is set, that it was published (both without the
// codec's lock); the threads in wait() are woken for every finished job.
//
// A block is inflated by libdeflate's whole-buffer inflater when that
// succeeds, else by zlib, whose result and produced size the job then
// reports.  zlib allocates nothing from the heap: each worker hands it a
// fixed arena in static storage (inflate's state plus its 32 KiB window); a
// request that does not fit is refused, which fails that job with
// Z_MEM_ERROR.  Each worker's libdeflate inflater is allocated once, when
// the codec starts.
//
// Thread-safety: submit, isDone, wait and setThreadCount may be called from
// any thread while the codec runs.  init and terminate are called by the
// codec registry, never concurrently with each other or with the other
// functions; after terminate no job may be submitted or waited for.
#ifndef KEST2_SRC_ARCHIVE_ZLIB_CODEC_H_
#define KEST2_SRC_ARCHIVE_ZLIB_CODEC_H_

#include "archive/codec_registry.h"

namespace kest2 {

// The zlib codec record: tag "zlib", capability kCodecDearchiver, no output
// alignment.
const Codec* ZlibCodec();

// For tests, which cannot see the workers otherwise: how many workers are
// asleep on their own condition (not busy) and how many threads are
// blocked in wait(), read under the codec's lock (zeros when it is not
// running).  A test must know that the workers have gone to sleep before it
// checks which one a submission wakes, and that its waiters are blocked
// before their jobs finish.
struct ZlibCodecSleepers {
  int parkedWorkers;
  int waitingThreads;
};
ZlibCodecSleepers CountZlibCodecSleepers();

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_ZLIB_CODEC_H_
