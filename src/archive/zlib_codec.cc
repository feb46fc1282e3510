// The zlib codec: see zlib_codec.h.
//
// A worker holds the codec's mutex except while it inflates.  Its busy flag
// is true from the moment a submitter picks it (or it takes a job) until it
// finds the queue empty and goes to sleep, so a submitter never needs to
// wake a worker that is still going to look at the queue.

#include "archive/zlib_codec.h"

#include <libdeflate.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>

#include "archive/decompression_job.h"
#include "archive/zorba_format.h"
#include "core/globals.h"
#include "core/platform.h"
#include "debug/timeline.h"
#include "kest2.h"

namespace kest2 {
namespace {

constexpr int kMaxWorkers = 3;

// inflateInit asks for its state (a little over 7 KiB in zlib 1.2) and the
// first inflate call that keeps output history asks for the 32 KiB window
// of a 15-bit stream; each request is rounded up to kArenaAlignment.
constexpr size_t kArenaAlignment = 16;
constexpr size_t kArenaSize = (8 + 32) * 1024;

// One worker's allocation area for zlib.  It is emptied when the last
// allocation is freed, and again before every job in case a failed job left
// something behind.
struct InflateArena {
  alignas(kArenaAlignment) unsigned char bytes[kArenaSize];
  size_t used;
  int live;
};

struct ZlibWorker {
  HybPlatformThreadStart thread;
  HybPlatformCond wakeup;  // "ZulKestZlib%d"
  char name[kThreadNameSize];
  bool busy;  // guarded by the codec's mutex
  InflateArena arena;
  // The whole-buffer inflater tried first; null when it could not be had.
  libdeflate_decompressor* whole;
};

struct ZlibState {
  HybPlatformMutex mutex;  // "ZulKestZlib"
  HybPlatformCond waiter;  // "ZulKestZlibWaiter"
  DecompressionJob* head;  // FIFO through DecompressionJob::next
  DecompressionJob* tail;
  int workerCount;  // W, fixed while running
  int activeCount;  // 1..W
  int waiting;      // threads inside Wait()
  bool shutdown;
  bool running;  // atomic: read by submitters before they lock
  ZlibWorker workers[kMaxWorkers];
};

// Static storage: the arenas are what keeps zlib off the heap.
ZlibState g_zlib;

voidpf ArenaAlloc(voidpf opaque, uInt items, uInt size) {
  InflateArena* arena = static_cast<InflateArena*>(opaque);
  const uint64_t asked = static_cast<uint64_t>(items) * size;
  const size_t start = (arena->used + kArenaAlignment - 1) & ~(kArenaAlignment - 1);
  const size_t left = start < kArenaSize ? kArenaSize - start : 0;
  if (asked > left) {
    zulKestPrintf("kest2: zlib asked for the wrong size (expected %u bytes, actual %u bytes)\n",
                  static_cast<unsigned>(left),
                  static_cast<unsigned>(asked > UINT32_MAX ? UINT32_MAX : asked));
    return Z_NULL;
  }
  arena->used = start + static_cast<size_t>(asked);
  ++arena->live;
  return arena->bytes + start;
}

void ArenaFree(voidpf opaque, voidpf) {
  InflateArena* arena = static_cast<InflateArena*>(opaque);
  if (arena->live > 0 && --arena->live == 0) arena->used = 0;
}

// Copies the wanted range of a job inflated elsewhere than its destination.
void CopyWanted(DecompressionJob* job) {
  if (job->destination == nullptr || job->destination == job->output) return;
  const uint64_t produced = job->outputSize;
  const uint64_t wantedEnd = static_cast<uint64_t>(job->offsetInBlock) + job->wantedLength;
  const uint64_t from = job->offsetInBlock < produced ? job->offsetInBlock : produced;
  const uint64_t to = wantedEnd < produced ? wantedEnd : produced;
  if (to > from) std::memcpy(job->destination, job->output + from, to - from);
}

// A block is one whole zlib stream of known compressed and inflated size:
// the case a whole-buffer inflater is fastest at (several times zlib's
// streaming inflate).  Only a block it inflates cleanly is taken from it;
// any other outcome leaves the job to zlib, so a damaged block reports
// exactly zlib's result and produced size.
bool InflateWhole(DecompressionJob* job, libdeflate_decompressor* whole) {
  if (whole == nullptr || job->outputSize == 0) return false;
  size_t consumed = 0;
  size_t produced = 0;
  const libdeflate_result result = libdeflate_zlib_decompress_ex(
      whole, job->source, job->compressedSize, job->output, job->outputSize, &consumed, &produced);
  if (result != LIBDEFLATE_SUCCESS) return false;
  job->outputSize = static_cast<uint32_t>(produced);
  CopyWanted(job);
  return true;
}

// Inflates one job with a single inflate call and copies the wanted range
// when the job was inflated elsewhere than its destination.  Returns the
// job's result.
int32_t InflateJob(DecompressionJob* job, InflateArena* arena) {
  arena->used = 0;
  arena->live = 0;
  z_stream stream;
  std::memset(&stream, 0, sizeof(stream));
  stream.next_in = const_cast<Bytef*>(job->source);
  stream.avail_in = job->compressedSize;
  stream.next_out = job->output;
  stream.avail_out = job->outputSize;
  stream.zalloc = ArenaAlloc;
  stream.zfree = ArenaFree;
  stream.opaque = arena;

  // Archive blocks are zlib-wrapped streams with the default 15-bit window.
  int result = inflateInit_(&stream, ZLIB_VERSION, static_cast<int>(sizeof(stream)));
  if (result != Z_OK) {
    job->outputSize = 0;
    return result;
  }
  if (stream.avail_out == 0) {
    result = Z_BUF_ERROR;
  } else {
    // Z_NO_FLUSH, so that a truncated block reports the progress it made
    // (Z_OK with a short output) rather than Z_BUF_ERROR.
    result = inflate(&stream, stream.avail_in != 0 ? Z_NO_FLUSH : Z_FINISH);
  }
  // Output full without the end of the stream: the block inflates to more
  // than its length (a valid stream reaches its end in exactly enough room),
  // so its check value was never seen and the bytes must not be trusted.
  if (result == Z_OK && stream.avail_out == 0) result = Z_BUF_ERROR;
  const int endResult = inflateEnd(&stream);
  if (result == Z_STREAM_END) result = endResult;

  job->outputSize = static_cast<uint32_t>(stream.total_out);
  if (result == Z_OK) CopyWanted(job);
  return result;
}

void WorkerLoop(void* argument) {
  ZlibWorker* worker = static_cast<ZlibWorker*>(argument);
  MutexLock(&g_zlib.mutex);
  for (;;) {
    while (g_zlib.head != nullptr) {
      worker->busy = true;
      DecompressionJob* job = g_zlib.head;
      __atomic_store_n(&g_zlib.head, job->next, __ATOMIC_RELEASE);
      if (g_zlib.head == nullptr) g_zlib.tail = nullptr;
      job->next = nullptr;
      MutexUnlock(&g_zlib.mutex);

      const int64_t inflateBegin = TimelineBegin();
      job->result = InflateWhole(job, worker->whole) ? Z_OK : InflateJob(job, &worker->arena);
      if (inflateBegin != 0)
        TimelineNoteInflate(inflateBegin, job->compressedSize, job->outputSize, job->result);
      // Read before the done bit is published: from then on the owner, which
      // polls the bit without the lock, may reuse the job.
      const DecompressionCompletion completion = job->completion;
      if (completion != nullptr) {
        void* const owner = job->owner;
        completion(job, owner, kJobInflated);
        // Published and announced without the codec's lock: the completion
        // takes a scheduler's mutex, and a submitter must not wait for that
        // behind this worker.
        __atomic_fetch_or(&job->jobFlags, kJobDone, __ATOMIC_RELEASE);
        completion(nullptr, owner, kJobPublished);
        MutexLock(&g_zlib.mutex);
      } else {
        MutexLock(&g_zlib.mutex);
        __atomic_fetch_or(&job->jobFlags, kJobDone, __ATOMIC_RELEASE);
      }
      // Broadcast, not signal: waiters wait for different jobs, and any of
      // them may be the one whose job just finished.  Under the lock, so a
      // waiter that saw the bit clear is asleep by now.
      if (g_zlib.waiting > 0) CondBroadcast(&g_zlib.waiter);
    }
    if (g_zlib.shutdown) break;
    // A lane's next block is usually read within microseconds; looking
    // for it a little while spares the submitter a wake-up and this
    // worker a sleep.
    MutexUnlock(&g_zlib.mutex);
    SpinBeforeSleep([] { return __atomic_load_n(&g_zlib.head, __ATOMIC_ACQUIRE) != nullptr; });
    MutexLock(&g_zlib.mutex);
    if (g_zlib.head != nullptr || g_zlib.shutdown) continue;
    worker->busy = false;
    CondWait(&worker->wakeup);
  }
  MutexUnlock(&g_zlib.mutex);
}

bool IsRunning() { return __atomic_load_n(&g_zlib.running, __ATOMIC_ACQUIRE); }

// Stops and joins workers [0, started), then destroys every lock of the
// codec.  The conditions of all W workers exist at this point.
void StopWorkers(int started) {
  MutexLock(&g_zlib.mutex);
  g_zlib.shutdown = true;
  for (int i = 0; i < g_zlib.workerCount; ++i) CondSignal(&g_zlib.workers[i].wakeup);
  MutexUnlock(&g_zlib.mutex);
  for (int i = 0; i < started; ++i) {
    JoinThread(&g_zlib.workers[i].thread);
    g_zlib.workers[i].thread.threadId = 0;
  }
  for (int i = 0; i < g_zlib.workerCount; ++i) {
    CondDestroy(&g_zlib.workers[i].wakeup);
    libdeflate_free_decompressor(g_zlib.workers[i].whole);
    g_zlib.workers[i].whole = nullptr;
  }
  CondDestroy(&g_zlib.waiter);
  MutexDestroy(&g_zlib.mutex);
}

int32_t ZlibInit(uint8_t maximumThreads) {
  if (IsRunning()) return ZUL_KEST_ERROR_BUSY;
  const int count =
      maximumThreads >= 1 && maximumThreads <= kMaxWorkers ? maximumThreads : kMaxWorkers;
  g_zlib.workerCount = count;
  g_zlib.activeCount = count;
  g_zlib.head = nullptr;
  g_zlib.tail = nullptr;
  g_zlib.waiting = 0;
  g_zlib.shutdown = false;
  MutexInitialize(&g_zlib.mutex, 0, "ZulKestZlib");
  CondInitialize(&g_zlib.waiter, &g_zlib.mutex, "ZulKestZlibWaiter");
  for (int i = 0; i < count; ++i) {
    ZlibWorker* worker = &g_zlib.workers[i];
    // One digit: the name fills the system's 15 characters otherwise.
    static_assert(kMaxWorkers <= 10, "worker names take one digit");
    std::snprintf(worker->name, sizeof(worker->name), "ZulKestZlib%c", static_cast<char>('0' + i));
    CondInitialize(&worker->wakeup, &g_zlib.mutex, worker->name);
    // Busy until the worker has looked at the queue once.
    worker->busy = true;
    // Its only heap use, once per worker (this libdeflate takes no caller
    // storage); without it the worker inflates with zlib alone.
    worker->whole = libdeflate_alloc_decompressor();
  }

  HybPlatformThreadParams params;
  std::memset(&params, 0, sizeof(params));
  params.stackSize = g_KestParams.threadStackSize[ZUL_KEST_THREAD_DECOMPRESSOR];
  params.affinityMask = g_KestParams.threadAffinity[ZUL_KEST_THREAD_DECOMPRESSOR];
  params.priority = g_KestParams.threadPriority[ZUL_KEST_THREAD_DECOMPRESSOR];
  for (int i = 0; i < count; ++i) {
    ZlibWorker* worker = &g_zlib.workers[i];
    std::memcpy(params.name, worker->name, sizeof(params.name));
    const int32_t result = CreateThread(&worker->thread, &params, WorkerLoop, worker);
    if (result != ZUL_KEST_OK) {
      StopWorkers(i);
      return result;
    }
  }
  __atomic_store_n(&g_zlib.running, true, __ATOMIC_RELEASE);
  return ZUL_KEST_OK;
}

void ZlibTerminate() {
  if (!IsRunning()) return;
  __atomic_store_n(&g_zlib.running, false, __ATOMIC_RELEASE);
  // The workers finish whatever is still queued before they leave.
  StopWorkers(g_zlib.workerCount);
}

void ZlibSetThreadCount(uint8_t count) {
  if (!IsRunning()) return;
  MutexLocker lock(&g_zlib.mutex);
  g_zlib.activeCount = count >= 1 && count <= g_zlib.workerCount ? count : g_zlib.workerCount;
}

DecompressionJob* ZlibSubmit(DecompressionJob* job) {
  if (job == nullptr || (LoadJobFlags(job) & kJobPrepared) == 0 || !IsRunning()) return nullptr;
  MutexLocker lock(&g_zlib.mutex);
  if (g_zlib.shutdown) return nullptr;
  __atomic_fetch_and(&job->jobFlags, static_cast<uint16_t>(~kJobDone), __ATOMIC_RELAXED);
  job->result = kJobResultQueued;
  job->next = nullptr;
  if (g_zlib.tail != nullptr) {
    g_zlib.tail->next = job;
  } else {
    __atomic_store_n(&g_zlib.head, job, __ATOMIC_RELEASE);
  }
  g_zlib.tail = job;
  for (int i = 0; i < g_zlib.activeCount; ++i) {
    ZlibWorker* worker = &g_zlib.workers[i];
    if (!worker->busy) {
      worker->busy = true;
      CondSignal(&worker->wakeup);
      break;
    }
  }
  return job;
}

// Lock-free: the scheduler asks with its own mutex and the chunk lock
// held, and must not wait behind a submitter for the codec's.
bool ZlibIsDone(DecompressionJob* job) {
  return job == nullptr || (LoadJobFlags(job) & kJobDone) != 0;
}

int32_t ZlibWait(DecompressionJob* job, int64_t* produced) {
  if (job == nullptr) return -1;
  if (IsRunning()) {
    MutexLocker lock(&g_zlib.mutex);
    ++g_zlib.waiting;
    while ((LoadJobFlags(job) & kJobDone) == 0) CondWait(&g_zlib.waiter);
    --g_zlib.waiting;
  }
  if (produced != nullptr) *produced = job->outputSize;
  return job->result;
}

const Codec kZlibCodec = {
    ZlibInit,         ZlibTerminate,         ZlibSetThreadCount,         ZlibSubmit, ZlibIsDone,
    ZlibWait,         kZorbaCompressionZlib, {0x7FFFFFFFu, 0x7FFFFFFFu}, {0, 0},     0,
    kCodecDearchiver,
};

}  // namespace

const Codec* ZlibCodec() { return &kZlibCodec; }

ZlibCodecSleepers CountZlibCodecSleepers() {
  ZlibCodecSleepers sleepers{0, 0};
  if (!IsRunning()) return sleepers;
  MutexLocker lock(&g_zlib.mutex);
  for (int i = 0; i < g_zlib.workerCount; ++i) {
    if (!g_zlib.workers[i].busy) ++sleepers.parkedWorkers;
  }
  sleepers.waitingThreads = g_zlib.waiting;
  return sleepers;
}

}  // namespace kest2
