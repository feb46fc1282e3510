// What placing one chunk in a deep I/O queue costs, with the default
// placement, with the priority order (both search the whole queue), and
// with the priority order and order only (a binary search), against the
// priority queue a user's earliest-deadline-first pool would keep (a
// std::multimap keyed by priority and deadline).
//
// The queue holds n pieces of 512 KiB of four files, all overdue, in
// deadline order, as under a sustained overload.  Each placement is that of
// a new background piece or of an urgent 4 KiB read, in turn; the chunk is
// placed, not queued, so every placement sees the same queue.  Placement
// runs under the scheduler's mutex, so its time is time the I/O threads
// cannot take their next chunk.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "common/library_storage.h"
#include "common/random.h"
#include "kest2.h"
#include "kest2_scheduling.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace {

using namespace kest2;
using kest2_bench::Median;

constexpr ZulKestTime kBase = 1000000000000LL;  // the simulated "now"
constexpr ZulKestTime kMs = 1000000;
constexpr int kPlacements = 200;
constexpr int kRepetitions = 3;

enum Method { kDefault, kPriorityOrder, kPriorityQueue, kMultimap, kMethods };
const char* const kMethodNames[kMethods] = {"default", "priority order", "kest2 priority queue",
                                            "std::multimap"};
const uint32_t kOptions[kMethods] = {
    0, ZUL_KEST_SCHEDULING_PRIORITY_ORDER,
    ZUL_KEST_SCHEDULING_PRIORITY_ORDER | ZUL_KEST_SCHEDULING_ORDER_ONLY, 0};

ChunkID Read(int64_t offset, int64_t length, ZulKestTime deadline, int8_t priority,
             uint32_t handle) {
  const ChunkID id = AllocateChunk(CHUNK_FH_READ);
  auto* io = ChunkRecord<ChunkFhIoRecord>(id);
  io->h = handle;
  io->offset = offset;
  io->position = INT64_MAX;  // no media position: the handle and offset order it
  io->reqCount = length;
  io->header.flags |= kChunkPositioned;
  io->header.deadline = deadline;
  io->header.priority = priority;
  return id;
}

// The new chunk of placement i: a background piece or an urgent read.
ChunkID NewChunk(kest2_common::Random* random, int i) {
  if (i % 2 == 0)
    return Read(static_cast<int64_t>((*random)() % 64) << 20, 512 << 10, kBase + 100 * kMs, -10,
                1 + (*random)() % 4);
  return Read(static_cast<int64_t>((*random)() % 4096) << 12, 4096, kBase + 5 * kMs, 10, 5);
}

// Microseconds per placement in a queue of n, by method.
double Measure(Scheduler* scheduler, Method method, int n) REQUIRES(scheduler->mutex) {
  kest2_common::Random random(7);
  using Key = std::pair<int, ZulKestTime>;  // -priority, deadline
  std::multimap<Key, ChunkID> queue;
  for (int i = 0; i < n; ++i) {
    const ChunkID id = QueueAt(scheduler, static_cast<uint64_t>(i));
    queue.emplace(Key{-ChunkAt(id)->priority, ChunkAt(id)->deadline}, id);
  }
  zulKestSetSchedulingOptions(kOptions[method]);
  uint64_t checksum = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < kPlacements; ++i) {
    const ChunkID id = NewChunk(&random, i);
    if (method == kMultimap) {
      const auto placed = queue.emplace(Key{-ChunkAt(id)->priority, ChunkAt(id)->deadline}, id);
      checksum += placed == queue.begin() ? 1 : 0;
      queue.erase(placed);
    } else {
      checksum += FindInsertPosition(scheduler, id);
    }
    DeallocateChunk(id);
  }
  const auto end = std::chrono::steady_clock::now();
  zulKestSetSchedulingOptions(0);
  if (checksum == UINT64_MAX) std::printf(" ");  // keeps the work
  return std::chrono::duration<double, std::micro>(end - begin).count() / kPlacements;
}

}  // namespace

int main() {
  kest2_common::LibraryStorage storage;
  ZulKestParams params = storage.MakeParams(8, 8, 4, 1024, 65536);
  if (zulKestInitialize(&params) != ZUL_KEST_OK) return 2;
  std::unique_ptr<Scheduler> scheduler(new Scheduler{});
  Scheduler* s = scheduler.get();
  MutexInitialize(&s->mutex, 0, "ZulKestScheduler");
  MutexLock(&s->mutex);
  ResetSchedulerModel(s);
  s->runningFinish = kBase;

  std::printf(
      "kest2 placement benchmark: one chunk placed in a queue of n overdue 512 KiB pieces\n"
      "%d placements per repetition (background pieces and urgent reads in turn), %d "
      "repetitions, methods rotating; microseconds per placement, median [min-max]\n\n",
      kPlacements, kRepetitions);
  std::printf("%6s", "n");
  for (const char* name : kMethodNames) std::printf("  %-24s", name);
  std::printf("\n");
  kest2_common::Random random(1);
  std::vector<ChunkID> queued;
  for (int n : {1000, 4000, 8000}) {
    while (queued.size() < static_cast<size_t>(n)) {
      const int i = static_cast<int>(queued.size());
      // Twenty pieces due every 50 ms, all long overdue by the model.
      queued.push_back(Read(static_cast<int64_t>(random() % 64) << 20, 512 << 10,
                            kBase + (i / 20) * 50 * kMs - 300 * kMs, -10, 1 + random() % 4));
      QueueChunk(s, s->m_queueCount, queued.back());
    }
    std::vector<double> times[kMethods];
    for (int repetition = 0; repetition < kRepetitions; ++repetition) {
      for (int turn = 0; turn < kMethods; ++turn) {
        const auto method = static_cast<Method>((repetition + turn) % kMethods);
        times[method].push_back(Measure(s, method, n));
      }
    }
    std::printf("%6d", n);
    for (const std::vector<double>& t : times) {
      const auto range = std::minmax_element(t.begin(), t.end());
      char cell[64];
      std::snprintf(cell, sizeof(cell), "%.2f [%.2f-%.2f]", Median(t), *range.first, *range.second);
      std::printf("  %-24s", cell);
    }
    std::printf("\n");
  }
  while (s->m_queueCount != 0) UnqueueChunk(s, 0);
  for (ChunkID id : queued) DeallocateChunk(id);
  MutexUnlock(&s->mutex);
  MutexDestroy(&s->mutex);
  zulKestTerminate();
  return 0;
}
