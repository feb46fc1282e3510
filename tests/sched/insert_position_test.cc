// Queue placement on hand-built queues: the stream shortcut, deadline
// order, the protection of chunks already late, and the ring itself
// against a simple model.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "common/library_storage.h"
#include "common/random.h"
#include "core/handletable.h"
#include "kest2.h"
#include "kest2_scheduling.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"
#include "test_support.h"

namespace {

using namespace kest2;

constexpr ZulKestTime kBase = 1000000000000LL;  // the simulated "now"
constexpr ZulKestTime kMs = 1000000;
constexpr int64_t k64K = 65536;

class InsertPositionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(8, 8, 4, 1024, 4096);
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    scheduler_.reset(new Scheduler{});
    MutexInitialize(&scheduler_->mutex, 0, "ZulKestScheduler");
    CondInitialize(&scheduler_->queueFull, &scheduler_->mutex, "ZulKestSchedulerQueueFull");
    ResetSchedulerModel(scheduler_.get());
    scheduler_->runningFinish = kBase;  // a fixed clock for the simulation
    MutexLock(&scheduler_->mutex);
  }
  void TearDown() override {
    zulKestSetSchedulingOptions(0);
    MutexUnlock(&scheduler_->mutex);
    CondDestroy(&scheduler_->queueFull);
    MutexDestroy(&scheduler_->mutex);
    kest2_test::OutputCapture quiet;  // the hand-built chunks are left to the storage
    zulKestTerminate();
  }

  // A prepared, positioned read of `length` bytes at media `position`.
  ChunkID Read(int64_t position, int64_t length, ZulKestTime deadline, int8_t priority = 0,
               uint32_t handle = 7) {
    const ChunkID id = AllocateChunk(CHUNK_FH_READ);
    auto* io = ChunkRecord<ChunkFhIoRecord>(id);
    io->h = handle;
    io->offset = position;
    io->position = position;
    io->reqCount = length;
    io->header.flags |= kChunkPositioned;
    io->header.deadline = deadline;
    io->header.priority = priority;
    return id;
  }

  void Queue(std::initializer_list<ChunkID> ids) {
    for (ChunkID id : ids) InsertIntoQueue(scheduler_.get(), scheduler_->m_queueCount, id);
  }

  uint64_t Place(ChunkID id) { return FindInsertPosition(scheduler_.get(), id); }

  kest2_common::LibraryStorage storage_;
  std::unique_ptr<Scheduler> scheduler_;
};

TEST_F(InsertPositionTest, SequentialPiecesAreAppendedWithoutSimulation) {
  Queue({Read(0, k64K, kBase + 1000 * kMs), Read(10 * k64K, k64K, kBase + 1000 * kMs)});
  // Continues the last queued read within 32 KiB: appended.
  const ChunkID next = Read(11 * k64K + 100, k64K, kBase + 1000 * kMs);
  EXPECT_EQ(Place(next), 2u);
  // With another priority it goes through the model, which puts a tight
  // deadline first.
  const ChunkID urgent = Read(11 * k64K, k64K, kBase + 8 * kMs, 1);
  EXPECT_EQ(Place(urgent), 0u);
}

TEST_F(InsertPositionTest, EarlierDeadlineGoesBeforeTheEntriesItWouldMakeLate) {
  // Three reads of another stream, all easily on time.
  Queue({Read(100 * k64K, k64K, kBase + 500 * kMs), Read(101 * k64K, k64K, kBase + 500 * kMs),
         Read(102 * k64K, k64K, kBase + 500 * kMs)});
  // Due in 8 ms: only the front makes it (one far seek and one read: 7.25 ms).
  const ChunkID tight = Read(0, k64K, kBase + 8 * kMs);
  EXPECT_EQ(Place(tight), 0u);
}

TEST_F(InsertPositionTest, NewChunksNeverPushOthersPastTheirDeadline) {
  // Two reads due just in time one after the other.
  Queue({Read(0, k64K, kBase + 8 * kMs), Read(k64K, k64K, kBase + 14 * kMs)});
  // A relaxed read of another file must not go before either of them.
  const ChunkID relaxed = Read(200 * k64K, k64K, kBase + 1000 * kMs);
  EXPECT_EQ(Place(relaxed), 2u);
}

TEST_F(InsertPositionTest, AChunkAlreadyLateIsNotOvertakenByALowerPriority) {
  Queue({Read(0, k64K, kBase - kMs, /*priority=*/5)});
  const ChunkID lower = Read(200 * k64K, k64K, kBase + 1000 * kMs, 0);
  EXPECT_EQ(Place(lower), 1u);
  const ChunkID lateLower = Read(200 * k64K, k64K, kBase - kMs, 2);
  EXPECT_EQ(Place(lateLower), 1u);  // late too, but with a lower priority
}

TEST_F(InsertPositionTest, NeighboursOnTheMediaAreGroupedWhenDeadlinesAllow) {
  // Reads of two distant regions, interleaved; a new read that continues
  // the first region's first read fits next to it and saves the most seeking.
  Queue({Read(0, k64K, kBase + 1000 * kMs), Read(100 * k64K, k64K, kBase + 1000 * kMs),
         Read(2 * k64K, k64K, kBase + 1000 * kMs), Read(101 * k64K, k64K, kBase + 1000 * kMs)});
  const ChunkID neighbour = Read(k64K, k64K, kBase + 1000 * kMs, 0, 8);
  EXPECT_EQ(Place(neighbour), 1u);
}

TEST_F(InsertPositionTest, NoDeadlineMeansThreeHundredSeconds) {
  const ChunkID id = Read(0, k64K, 0);
  const ZulKestTime before = zulKestTimeGetCurrent();
  EXPECT_EQ(Place(id), 0u);  // empty queue
  EXPECT_GE(ChunkAt(id)->deadline, before + 300000 * kMs);
}

// The case the option is for: the model counts every queued read late, so
// all places miss alike.  By default a new urgent read may go anywhere
// ahead of an urgent read already queued, and goes where it saves the most
// modelled seeking; under the option it goes before the reads due later.
TEST_F(InsertPositionTest, DeadlineOrderPutsAnUrgentReadBeforeBulkReadsAllLateAlike) {
  const ZulKestTime soon = kBase + kMs / 2;  // late wherever it goes
  auto bulk = [this, soon](int64_t position) { return Read(position, k64K, soon + kMs, -10); };
  // The near seek from 2 to 200 (x 64 KiB) is charged 198 x 50 us; a read
  // at 100 in between costs only its own transfer on top.
  Queue({bulk(0), bulk(k64K), bulk(200 * k64K), bulk(201 * k64K),
         Read(300 * k64K, 4096, soon - kMs / 10, 10)});
  const ChunkID urgent = Read(100 * k64K, 4096, soon, 10);
  EXPECT_EQ(Place(urgent), 2u);
  ASSERT_EQ(zulKestSetSchedulingOptions(ZUL_KEST_SCHEDULING_DEADLINE_ORDER), ZUL_KEST_OK);
  EXPECT_EQ(Place(urgent), 0u);  // only the urgent read due before it is behind
}

// Deadline order decides only between places the rule allows: a read
// already late with a higher priority is not overtaken, even by one due
// earlier.
TEST_F(InsertPositionTest, DeadlineOrderKeepsLateHigherPriorityChunksAhead) {
  ASSERT_EQ(zulKestSetSchedulingOptions(ZUL_KEST_SCHEDULING_DEADLINE_ORDER), ZUL_KEST_OK);
  Queue({Read(0, k64K, kBase + 2 * kMs, 5), Read(300 * k64K, k64K, kBase + 1000 * kMs)});
  const ChunkID earlier = Read(100 * k64K, k64K, kBase + kMs, 0);
  EXPECT_EQ(Place(earlier), 1u);
  // With the higher priority it goes first.
  ChunkAt(earlier)->priority = 6;
  EXPECT_EQ(Place(earlier), 0u);
}

// Under overload the bulk reads queued earlier fall overdue, and deadline
// order files a new urgent read behind them (next to an urgent read already
// there); priority order puts it ahead of every lower priority.
TEST_F(InsertPositionTest, PriorityOrderPutsAnUrgentReadAheadOfOverdueBulkReads) {
  const ZulKestTime soon = kBase + kMs / 2;  // late wherever it goes
  auto overdue = [this](int64_t position) { return Read(position, k64K, kBase - 10 * kMs, -10); };
  Queue({overdue(0), overdue(k64K), Read(300 * k64K, 4096, soon - kMs / 10, 10), overdue(2 * k64K),
         overdue(3 * k64K)});
  const ChunkID urgent = Read(100 * k64K, 4096, soon, 10);
  ASSERT_EQ(zulKestSetSchedulingOptions(ZUL_KEST_SCHEDULING_DEADLINE_ORDER), ZUL_KEST_OK);
  EXPECT_EQ(Place(urgent), 3u);  // behind everything due before it
  ASSERT_EQ(zulKestSetSchedulingOptions(ZUL_KEST_SCHEDULING_PRIORITY_ORDER), ZUL_KEST_OK);
  EXPECT_EQ(Place(urgent), 0u);  // only the urgent read due before it is behind
  ASSERT_EQ(zulKestSetSchedulingOptions(ZUL_KEST_SCHEDULING_DEADLINE_ORDER |
                                        ZUL_KEST_SCHEDULING_PRIORITY_ORDER),
            ZUL_KEST_OK);
  EXPECT_EQ(Place(urgent), 0u);  // with both set, the priority order counts
}

// Order only: the model is not asked.  The model pulls a read next to the
// one it continues and lets a tight read wait wherever every deadline still
// holds by its estimates; the order files both by deadline.
TEST_F(InsertPositionTest, OrderOnlyPlacesByDeadlineAloneWhereTheModelWouldNot) {
  Queue({Read(0, k64K, kBase + 20 * kMs), Read(100 * k64K, k64K, kBase + 30 * kMs),
         Read(200 * k64K, k64K, kBase + 40 * kMs)});
  const ChunkID neighbour = Read(k64K, k64K, kBase + 35 * kMs);
  const ChunkID tight = Read(300 * k64K, k64K, kBase + 21 * kMs);
  EXPECT_EQ(Place(neighbour), 1u);  // the model: right behind its neighbour
  EXPECT_EQ(Place(tight), 2u);
  ASSERT_EQ(zulKestSetSchedulingOptions(ZUL_KEST_SCHEDULING_DEADLINE_ORDER |
                                        ZUL_KEST_SCHEDULING_ORDER_ONLY),
            ZUL_KEST_OK);
  EXPECT_EQ(Place(neighbour), 2u);
  EXPECT_EQ(Place(tight), 1u);
}

// Queues built by order-only placement stay sorted, each chunk behind its
// equals, under both orders, with pieces of one stream appended and with
// deadlines and priorities that tie often.
TEST_F(InsertPositionTest, OrderOnlyKeepsTheQueueSortedWithEachChunkBehindItsEquals) {
  Scheduler* s = scheduler_.get();
  const uint32_t seed = kest2_test::TestSeed();
  kest2_common::Random rng(seed);
  for (const uint32_t order :
       {ZUL_KEST_SCHEDULING_DEADLINE_ORDER, ZUL_KEST_SCHEDULING_PRIORITY_ORDER}) {
    ASSERT_EQ(zulKestSetSchedulingOptions(order | ZUL_KEST_SCHEDULING_ORDER_ONLY), ZUL_KEST_OK);
    const bool byPriority = order == ZUL_KEST_SCHEDULING_PRIORITY_ORDER;
    // -1: a ahead of b in the order; 1: behind; 0: equal.
    auto compare = [byPriority](ChunkID a, ChunkID b) {
      const ChunkHeader* x = ChunkAt(a);
      const ChunkHeader* y = ChunkAt(b);
      if (byPriority && x->priority != y->priority) return x->priority > y->priority ? -1 : 1;
      return x->deadline < y->deadline ? -1 : x->deadline > y->deadline ? 1 : 0;
    };
    std::vector<ChunkID> queued;
    int64_t streamEnd = 0;
    for (int i = 0; i < 400; ++i) {
      const bool continues = rng() % 4 == 0;
      const int64_t position = continues ? streamEnd : static_cast<int64_t>(rng() % 512) * k64K;
      const ChunkID id =
          Read(position, k64K, kBase + static_cast<int64_t>(rng() % 20) * kMs,
               static_cast<int8_t>(static_cast<int>(rng() % 3) - 1), continues ? 9 : 7);
      streamEnd = position + k64K;
      const uint64_t index = Place(id);
      for (uint64_t j = 0; j < s->m_queueCount; ++j) {
        const int side = compare(QueueAt(s, j), id);
        ASSERT_TRUE(j < index ? side <= 0 : side > 0)
            << "seed " << seed << " chunk " << i << " placed at " << index << " entry " << j;
      }
      QueueChunk(s, index, id);
      queued.push_back(id);
    }
    while (s->m_queueCount != 0) UnqueueChunk(s, 0);
    for (ChunkID id : queued) DeallocateChunk(id);
  }
}

TEST_F(InsertPositionTest, SchedulingOptionsRejectUnknownBitsAndOrderOnlyWithoutAnOrder) {
  EXPECT_EQ(zulKestGetSchedulingOptions(), 0u);
  EXPECT_EQ(zulKestSetSchedulingOptions(ZUL_KEST_SCHEDULING_DEADLINE_ORDER), ZUL_KEST_OK);
  EXPECT_EQ(zulKestSetSchedulingOptions(0x8u), ZUL_KEST_ERROR_BAD_ARGUMENT);
  // Order only needs an order to keep.
  EXPECT_EQ(zulKestSetSchedulingOptions(ZUL_KEST_SCHEDULING_ORDER_ONLY),
            ZUL_KEST_ERROR_BAD_ARGUMENT);
  EXPECT_EQ(zulKestGetSchedulingOptions(), ZUL_KEST_SCHEDULING_DEADLINE_ORDER);
  EXPECT_EQ(zulKestSetSchedulingOptions(0), ZUL_KEST_OK);
  EXPECT_EQ(zulKestGetSchedulingOptions(), 0u);
}

TEST_F(InsertPositionTest, InsertingAtTheFrontWrapsThePosition) {
  Scheduler* s = scheduler_.get();
  InsertIntoQueue(s, 0, 11);
  EXPECT_EQ(s->queuePosition, 0u);
  InsertIntoQueue(s, 0, 12);
  EXPECT_EQ(s->queuePosition, kQueueSize - 1);
  EXPECT_EQ(QueueAt(s, 0), 12);
  EXPECT_EQ(QueueAt(s, 1), 11);
  EXPECT_EQ(s->queueHighWater, 2u);
  RemoveFromQueue(s, 1);
  EXPECT_EQ(s->m_queueCount, 1u);
  EXPECT_EQ(QueueAt(s, 0), 12);
  EXPECT_EQ(s->queuePosition, 0u);
}

// The placement rule as stated: simulate the rest of the queue once for
// every candidate index (quadratic; the library's own search must agree).
// Under an ordering option, equal misses are told apart first by the queued
// chunks left on the wrong side of the new one, counted afresh per index.
uint64_t ReferencePlace(Scheduler* s, ChunkID id, uint32_t options = 0) {
  const ChunkHeader* chunk = ChunkAt(id);
  const uint64_t count = s->m_queueCount;
  if (count == 0) return 0;
  auto isTransfer = [](const ChunkHeader* c) {
    return c->type == CHUNK_FH_READ || c->type == CHUNK_FH_WRITE;
  };
  const ChunkID last = QueueAt(s, count - 1);
  if (isTransfer(chunk) && isTransfer(ChunkAt(last))) {
    const PositionKey key = ChunkPositionKey(id);
    const PositionKey lastKey = ChunkPositionKey(last);
    const int64_t lastEnd = lastKey.position + ChunkRecord<ChunkFhIoRecord>(last)->reqCount;
    if (key.handle == lastKey.handle && chunk->priority == ChunkAt(last)->priority &&
        ChunkAt(last)->deadline <= chunk->deadline && std::llabs(key.position - lastEnd) < 32768)
      return count;
  }
  const bool positioned = (chunk->flags & kChunkPositioned) != 0 && isTransfer(chunk);
  EstimateState prefix{};
  prefix.clock = s->runningFinish;
  prefix.head = PositionKey{s->lastHandle, s->lastEnd};
  int32_t previousLateness = 128;
  bool found = false;
  uint64_t bestIndex = 0;
  uint32_t bestMisses = 0;
  uint64_t bestInversions = 0;
  ZulKestTime bestClock = 0;
  for (uint64_t c = 0; c <= count; ++c) {
    uint64_t inversions = 0;
    for (uint64_t i = 0; options != 0 && i < count; ++i) {
      const ChunkHeader* queued = ChunkAt(QueueAt(s, i));
      // Ahead (-1) or behind (1) the new chunk in the option's order.
      int side = queued->deadline < chunk->deadline ? -1 : queued->deadline > chunk->deadline;
      if ((options & ZUL_KEST_SCHEDULING_PRIORITY_ORDER) != 0 &&
          queued->priority != chunk->priority)
        side = queued->priority > chunk->priority ? -1 : 1;
      if (i < c ? side > 0 : side < 0) ++inversions;
    }
    EstimateState trial = prefix;
    const ZulKestTime before = trial.clock;
    const int32_t lateness = EstimateStep(s, id, INT32_MAX, &trial);
    const ZulKestTime ownDuration = trial.clock - before;
    trial.laterHigher = 0;
    trial.laterEqual = 0;
    for (uint64_t i = c; i < count; ++i) EstimateStep(s, QueueAt(s, i), lateness, &trial);
    const bool eligible = lateness <= previousLateness || trial.laterEqual != 0 || c == 0;
    if (trial.laterHigher == 0 && eligible) {
      const bool better = !found || trial.misses < bestMisses ||
                          (trial.misses == bestMisses &&
                           (inversions < bestInversions ||
                            (inversions == bestInversions && trial.clock < bestClock)));
      const bool tie = found && trial.misses == bestMisses && inversions == bestInversions &&
                       trial.clock == bestClock;
      if (better || (tie && (positioned || ownDuration > 0))) {
        found = true;
        bestIndex = c;
        bestMisses = trial.misses;
        bestInversions = inversions;
        bestClock = trial.clock;
      }
    }
    if (c < count) previousLateness = EstimateStep(s, QueueAt(s, c), 128, &prefix);
  }
  return found ? bestIndex : count;
}

// Random queues with streams, far and near seeks, unpositioned chunks (some
// free of cost), chunks already late, equal and opposite priorities; every
// other round under the deadline-order option.
TEST_F(InsertPositionTest, PlacementMatchesTheRuleSimulatedAtEveryIndex) {
  Scheduler* s = scheduler_.get();
  const unsigned seed = kest2_test::TestSeed();
  kest2_common::Random rng(seed);
  const int8_t priorities[] = {-128, -127, -1, 0, 0, 1, 126, 127};  // neighbours on purpose
  uint64_t spread = 0;  // deadlines reach as far as the queue's simulated end
  auto randomChunk = [&](int64_t* streamEnd) {
    ChunkID id;
    if (rng() % 5 == 0) {
      id = AllocateChunk(CHUNK_STAT);
      ChunkAt(id)->priority = priorities[rng() % 8];
    } else {
      const uint32_t handle = 7 + rng() % 3;
      int64_t position;
      switch (rng() % 3) {
        case 0:
          position = *streamEnd;
          break;  // continues a stream
        case 1:
          position = *streamEnd + (rng() % 8) * k64K;
          break;  // near
        default:
          position = static_cast<int64_t>(rng() % 4096) * k64K;  // anywhere
      }
      const int64_t length = (1 + rng() % 4) * k64K / (rng() % 4 == 0 ? 2 : 1);
      id = Read(position, length, 0, priorities[rng() % 8], handle);
      *streamEnd = position + length;
    }
    // From already late to comfortably early, mostly on whole milliseconds
    // (the model below counts in milliseconds, so chunks finish
    // exactly at their deadlines, which is on time), and now and then none.
    const int64_t offset = (static_cast<int64_t>(rng() % (40 + spread)) - 10) * kMs;
    ChunkAt(id)->deadline =
        rng() % 10 == 0 ? 0 : kBase + offset + (rng() % 4 != 0 ? 0 : rng() % kMs);
    return id;
  };
  std::vector<ChunkID> queued;
  for (int round = 0; round < 1000; ++round) {
    // The default rule, deadline order and priority order in turn.
    const uint32_t kOptions[] = {0, ZUL_KEST_SCHEDULING_DEADLINE_ORDER,
                                 ZUL_KEST_SCHEDULING_PRIORITY_ORDER};
    const uint32_t options = kOptions[round % 3];
    zulKestSetSchedulingOptions(options);
    s->typeEstimate[CHUNK_STAT] = rng() % 2 == 0 ? 0 : kMs;
    s->typeEstimate[CHUNK_FH_READ] = 2 * kMs;  // per 64 KiB
    s->seekEstimate[0] = 3 * kMs;
    s->seekEstimate[1] = kMs;  // per 64 KiB apart
    s->lastHandle = static_cast<int32_t>(rng() % 2 == 0 ? -2 : 7);
    s->lastEnd = static_cast<int64_t>(rng() % 64) * k64K;
    int64_t streamEnd = 0;
    const uint64_t length = round % 10 == 0 ? rng() % 4 : rng() % 160;
    spread = length * 4;
    for (uint64_t i = 0; i < length; ++i) {
      queued.push_back(randomChunk(&streamEnd));
      if (ChunkAt(queued.back())->deadline == 0)
        ChunkAt(queued.back())->deadline = kBase + 300000 * kMs;
      InsertIntoQueue(s, s->m_queueCount, queued.back());
    }
    // The queue was filled behind the summary's back: a stale summary of
    // an earlier queue of the same length would mislead the shortcut.
    RebuildQueueSummary(s);
    for (int trial = 0; trial < 5; ++trial) {
      const ChunkID fresh = randomChunk(&streamEnd);
      const uint64_t placed = Place(fresh);  // stamps a missing deadline first
      ASSERT_EQ(placed, ReferencePlace(s, fresh, options))
          << "seed " << seed << " round " << round << " queue " << s->m_queueCount;
      DeallocateChunk(fresh);
    }
    while (s->m_queueCount != 0) RemoveFromQueue(s, 0);
    for (ChunkID id : queued) DeallocateChunk(id);
    queued.clear();
  }
}

// Queues as the engine keeps them (through QueueChunk and UnqueueChunk, so
// the summary is in step): files read whole, each on its own stream, opens
// and closes between them, mostly far deadlines so that placement can often
// skip the walk; now and then a tight deadline, a second piece of a file, a
// removal from the middle or a head on the new chunk's stream, where it
// must not.
TEST_F(InsertPositionTest, PlacementWithoutTheWalkMatchesTheRule) {
  Scheduler* s = scheduler_.get();
  const unsigned seed = kest2_test::TestSeed();
  kest2_common::Random rng(seed);
  RebuildQueueSummary(s);
  auto pseudo = [](uint64_t stream, int64_t offset) {
    return static_cast<int64_t>((uint64_t{1} << 63) | ((stream << 36) & 0x6FFFFFF000000000ULL)) +
           offset;
  };
  uint32_t tight = 0;  // one chunk in `tight` has a near deadline; 0: none
  auto randomChunk = [&]() {
    ChunkID id;
    if (rng() % 3 == 0) {
      id = AllocateChunk(rng() % 2 == 0 ? CHUNK_FH_OPEN : CHUNK_FH_CLOSE);
    } else {
      const uint64_t stream = 1 + rng() % (rng() % 8 == 0 ? 4 : 100000);
      id = Read(pseudo(stream, static_cast<int64_t>(rng() % 4) * k64K), (1 + rng() % 4) * k64K, 0);
    }
    ChunkAt(id)->priority = static_cast<int8_t>(rng() % 3) - 1;
    ChunkAt(id)->deadline = tight != 0 && rng() % tight == 0
                                ? kBase + static_cast<int64_t>(rng() % 200) * kMs
                                : kBase + 300000 * kMs;
    return id;
  };
  std::vector<ChunkID> queued;
  for (int round = 0; round < 300; ++round) {
    tight = round % 2 == 0 ? 0 : 12;
    s->typeEstimate[CHUNK_FH_OPEN] = rng() % 8 == 0 ? 0 : kMs / 10;
    s->typeEstimate[CHUNK_FH_CLOSE] = kMs / 20;
    s->typeEstimate[CHUNK_FH_READ] = 2 * kMs;
    s->seekEstimate[0] = 3 * kMs;
    s->seekEstimate[1] = kMs;
    s->lastHandle = -2;
    s->lastEnd = rng() % 4 == 0 ? pseudo(1, 0) : 0;
    const uint64_t length = rng() % 200;
    for (uint64_t i = 0; i < length; ++i) {
      queued.push_back(randomChunk());
      QueueChunk(s, rng() % 4 == 0 ? rng() % (s->m_queueCount + 1) : s->m_queueCount,
                 queued.back());
    }
    for (int trial = 0; trial < 8; ++trial) {
      if (s->m_queueCount > 2 && rng() % 3 == 0) UnqueueChunk(s, rng() % s->m_queueCount);
      const ChunkID fresh = randomChunk();
      const uint64_t reference = ReferencePlace(s, fresh);
      ASSERT_EQ(Place(fresh), reference)
          << "seed " << seed << " round " << round << " queue " << s->m_queueCount;
      QueueChunk(s, reference, fresh);
      queued.push_back(fresh);
    }
    // The counts kept step by step equal the counts made afresh.
    const QueueSummary kept = s->summary;
    RebuildQueueSummary(s);
    ASSERT_EQ(kept.count, s->summary.count) << "seed " << seed;
    ASSERT_EQ(kept.sameStreamPairs, s->summary.sameStreamPairs) << "seed " << seed;
    ASSERT_EQ(kept.positioned, s->summary.positioned) << "seed " << seed;
    ASSERT_EQ(
        0, std::memcmp(kept.transferBytes, s->summary.transferBytes, sizeof(kept.transferBytes)));
    ASSERT_EQ(0,
              std::memcmp(kept.unpositioned, s->summary.unpositioned, sizeof(kept.unpositioned)));
    ASSERT_EQ(0, std::memcmp(kept.streams, s->summary.streams, sizeof(kept.streams)));
    ASSERT_LE(kept.minDeadline, s->summary.minDeadline);
    while (s->m_queueCount != 0) UnqueueChunk(s, 0);
    for (ChunkID id : queued) DeallocateChunk(id);
    queued.clear();
  }
}

TEST_F(InsertPositionTest, RingMatchesADequeAcrossTheWrap) {
  Scheduler* s = scheduler_.get();
  s->queuePosition = kQueueSize - 40;  // start close to the wrap
  std::deque<ChunkID> model;
  const unsigned seed = kest2_test::TestSeed();
  kest2_common::Random rng(seed);
  for (int step = 0; step < 20000; ++step) {
    const bool insert = model.empty() || (model.size() < 300 && rng() % 2 == 0);
    if (insert) {
      const uint64_t at = rng() % (model.size() + 1);
      const ChunkID id = static_cast<ChunkID>(1 + rng() % 60000);
      InsertIntoQueue(s, at, id);
      model.insert(model.begin() + static_cast<long>(at), id);
    } else {
      const uint64_t at = rng() % model.size();
      RemoveFromQueue(s, at);
      model.erase(model.begin() + static_cast<long>(at));
    }
    ASSERT_EQ(s->m_queueCount, model.size()) << "seed " << seed;
    for (uint64_t i = 0; i < model.size(); ++i)
      ASSERT_EQ(QueueAt(s, i), model[i]) << "seed " << seed << " step " << step;
  }
  // Vacated slots hold 0: exactly the live entries are non-zero.
  uint64_t nonZero = 0;
  for (ChunkID slot : s->queue) nonZero += slot != 0;
  EXPECT_EQ(nonZero, model.size());
}

}  // namespace
