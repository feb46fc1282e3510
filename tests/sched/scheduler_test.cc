// The running schedulers: a full queue blocking its producer, the busy
// protocol with its 50 ms back-off, the caller-thread fast path, and
// rescheduling that reorders queued work.

#include "sched/scheduler.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "test_support.h"

namespace {

using namespace kest2;

size_t CountOf(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

using kest2_test::WaitUntil;

class SchedulerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(64, 32, 16, 1024, 20000);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }
  void TearDown() override {
    while (zulKestIsSuspended()) zulKestResume();
    zulKestTerminate();
  }

  // A chunk that is ready as soon as it is queued.
  static ChunkID ReadyChunk(uint8_t type) {
    const ChunkID id = AllocateChunk(type);
    ChunkLocker lock;
    StoreChunkFlags(ChunkAt(id), LoadChunkFlags(ChunkAt(id)) | kChunkScheduled);
    return id;
  }

  kest2_test::OutputCapture output_;
  kest2_common::LibraryStorage storage_;
};

TEST_F(SchedulerTest, FullQueueBlocksTheProducerUntilAnEntryIsTaken) {
  Scheduler* scheduler = CallbackScheduler();
  std::vector<ChunkID> chunks;
  zulKestSuspend();  // nothing is taken while the queue fills
  for (int i = 0; i < 8191; ++i) {
    chunks.push_back(ReadyChunk(CHUNK_NULL));
    ASSERT_NE(chunks.back(), CHUNKID_INVALID);
    ASSERT_FALSE(AddToSchedule(scheduler, chunks.back(), 0, false));
  }
  EXPECT_EQ(output_.text().find("full"), std::string::npos);
  chunks.push_back(ReadyChunk(CHUNK_NULL));
  std::atomic<bool> added{false};
  std::thread producer([&] {
    AddToSchedule(scheduler, chunks.back(), 0, false);
    added = true;
  });
  ASSERT_TRUE(WaitUntil([&] {
    return output_.text().find("KEST2 scheduler queue is full, waiting...\n") != std::string::npos;
  }));
  EXPECT_FALSE(added);
  zulKestResume();
  producer.join();
  EXPECT_EQ(CountOf(output_.text(), "KEST2 scheduler queue is available again\n"), 1u);
  ASSERT_TRUE(WaitUntil([] { return zulKestIsIdle(); }));
  EXPECT_EQ(scheduler->queueHighWater, 8191u);
  for (ChunkID id : chunks) {
    EXPECT_NE(LoadChunkFlags(ChunkAt(id)) & kChunkCompleted, 0);
    DeallocateChunk(id);
  }
}

// A linked resource that lets itself be probed but refuses to be claimed
// until it is released.
std::atomic<bool> g_resourceFree{false};
std::atomic<int> g_claims{0};
int32_t GuardedResource(ChunkCallbackRecord*, int32_t event) {
  if (event != 1) return ZUL_KEST_OK;
  ++g_claims;
  return g_resourceFree ? ZUL_KEST_OK : ZUL_KEST_ERROR_RETRY;
}

TEST_F(SchedulerTest, BusyChunkIsRetriedAfterTheBackOffAndRunsOnceFree) {
  g_resourceFree = false;
  g_claims = 0;
  const ChunkID guard = AllocateChunk(CHUNK_CALLBACK);
  ChunkRecord<ChunkCallbackRecord>(guard)->callback = GuardedResource;
  const ChunkID work = ReadyChunk(CHUNK_FH_BARRIER);
  ChunkAt(work)->linked = guard;
  AddToSchedule(AllOtherScheduler(), work, 0, false);

  // Refused claims put the chunk back; with no kick the thread looks again
  // every 50 ms.
  ASSERT_TRUE(WaitUntil([] { return g_claims >= 3; }));
  EXPECT_EQ(LoadChunkFlags(ChunkAt(work)) & kChunkCompleted, 0);
  EXPECT_LE(CountOf(output_.text(), "An unexpected busy state was hit while scheduling!"), 1u);
  g_resourceFree = true;
  ASSERT_TRUE(WaitUntil([&] { return (LoadChunkFlags(ChunkAt(work)) & kChunkCompleted) != 0; }));
  EXPECT_TRUE(zulKestIsIdle());
  DeallocateChunk(work);
  DeallocateChunk(guard);
}

std::string CurrentThreadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof(name));
  return name;
}

// A linked callback's account of the events it got after its chunk ran.
std::mutex g_ranMutex;
std::vector<std::string> g_ranThreads;
std::vector<bool> g_ranBeforeCompletion;
ChunkID g_ranWork = CHUNKID_INVALID;
int32_t RecordRan(ChunkCallbackRecord*, int32_t event) {
  if (event == kLinkedEventRan) {
    std::lock_guard<std::mutex> lock(g_ranMutex);
    g_ranThreads.push_back(CurrentThreadName());
    g_ranBeforeCompletion.push_back((LoadChunkFlags(ChunkAt(g_ranWork)) & kChunkCompleted) == 0);
  }
  return ZUL_KEST_OK;
}

// The archive's block reads hand their bytes on from the I/O thread that
// read them, before the read completes and wakes anybody; a read that
// failed has nothing to hand on.
TEST_F(SchedulerTest, LinkedCallbackHearsOnTheIoThreadThatItsChunkRanAndNotThatItFailed) {
  kest2_common::TempDir dir;
  const std::string path = dir.path() + "/synced";
  std::ofstream(path) << "x";
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, path.c_str(), nullptr), ZUL_KEST_OK);
  for (bool fails : {false, true}) {
    SCOPED_TRACE(fails ? "barrier on no handle" : "barrier on an open file");
    g_ranThreads.clear();
    g_ranBeforeCompletion.clear();
    const ChunkID guard = AllocateChunk(CHUNK_CALLBACK);
    ChunkRecord<ChunkCallbackRecord>(guard)->callback = RecordRan;
    g_ranWork = ReadyChunk(CHUNK_FH_BARRIER);
    ChunkRecord<ChunkHandleRecord>(g_ranWork)->h = fails ? 0x7FFF : fh;
    ChunkAt(g_ranWork)->linked = guard;
    AddToSchedule(AllOtherScheduler(), g_ranWork, 0, false);
    ASSERT_TRUE(
        WaitUntil([] { return (LoadChunkFlags(ChunkAt(g_ranWork)) & kChunkCompleted) != 0; }));
    ASSERT_TRUE(WaitUntil([] { return zulKestIsIdle(); }));
    {
      std::lock_guard<std::mutex> lock(g_ranMutex);
      if (fails) {
        EXPECT_TRUE(g_ranThreads.empty());
      } else {
        EXPECT_EQ(g_ranThreads, std::vector<std::string>{"ZulKestIO"});
        EXPECT_EQ(g_ranBeforeCompletion, std::vector<bool>{true});
      }
    }
    DeallocateChunk(g_ranWork);
    DeallocateChunk(guard);
  }
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

// Queues a callback that kicks its scheduler itself, numbered in its
// filter data, with a ready barrier below it when withChild.
ChunkID QueueSelfKicking(ChunkCallbackFunction callback, int number, bool withChild) {
  const ChunkID id = AllocateChunk(CHUNK_CALLBACK);
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(id);
  record->callback = callback;
  record->options = kCallbackKicksItself;
  std::memcpy(record->filterData, &number, sizeof(number));
  if (withChild) {
    ChunkLocker lock;
    EXPECT_TRUE(LinkChunks(id, AllocateChunk(CHUNK_FH_BARRIER)));
  }
  PrepareChunk(id, 0, zulKestTimeGetCurrent() + 1000000000);
  ScheduleTree(id, 0, false);
  return id;
}

// A callback that kicks its scheduler itself once it stops being busy.
std::atomic<bool> g_gateOpen{false};
std::atomic<int> g_gateRuns{0};
int32_t Gate(ChunkCallbackRecord*, int32_t event) {
  if (!g_gateOpen) return ZUL_KEST_ERROR_RETRY;
  if (event == 1) ++g_gateRuns;
  return ZUL_KEST_OK;
}

// Its child's completion wakes the callback thread only when the callback
// would run; when it says busy, its own kick wakes the thread.  Either way
// it runs once, and not while it says busy.
TEST_F(SchedulerTest, SelfKickingCallbackRunsAfterItsChildWhetherBusyThenOrNot) {
  for (bool openFirst : {true, false}) {
    SCOPED_TRACE(openFirst ? "free when its child completes" : "busy when its child completes");
    g_gateOpen = openFirst;
    g_gateRuns = 0;
    zulKestSuspend();  // the whole tree is queued before anything runs
    const ChunkID gate = QueueSelfKicking(Gate, 0, true);
    const ChunkID child = GetChild(gate, 0);
    zulKestResume();
    ASSERT_TRUE(WaitUntil([&] { return (LoadChunkFlags(ChunkAt(child)) & kChunkCompleted) != 0; }));
    if (!openFirst) {
      EXPECT_EQ(g_gateRuns, 0);
      g_gateOpen = true;
      Kick(CallbackScheduler());
    }
    ASSERT_TRUE(WaitUntil([&] { return (LoadChunkFlags(ChunkAt(gate)) & kChunkCompleted) != 0; }));
    EXPECT_EQ(g_gateRuns, 1);
    ASSERT_TRUE(WaitUntil([] { return zulKestIsIdle(); }));
    DeallocateTree(gate);
  }
}

// Numbered gates that kick their scheduler themselves, and a blocker that
// holds the callback thread while the test opens and kicks gates.
constexpr int kGates = 40;
std::atomic<bool> g_numberedOpen[kGates];
std::mutex g_gateOrderMutex;
std::vector<int> g_gateOrder;
std::atomic<int> g_numberedRuns{0};
int GateNumber(ChunkCallbackRecord* record) {
  int number;
  std::memcpy(&number, record->filterData, sizeof(number));
  return number;
}
int32_t NumberedGate(ChunkCallbackRecord* record, int32_t event) {
  if (!g_numberedOpen[GateNumber(record)]) return ZUL_KEST_ERROR_RETRY;
  if (event == 1) {
    ++g_numberedRuns;
    std::lock_guard<std::mutex> lock(g_gateOrderMutex);
    g_gateOrder.push_back(GateNumber(record));
  }
  return ZUL_KEST_OK;
}
std::atomic<bool> g_blockerEntered{false};
std::atomic<bool> g_blockerReleased{false};
int32_t Blocker(ChunkCallbackRecord*, int32_t event) {
  if (event != 1) return ZUL_KEST_OK;
  g_blockerEntered = true;
  while (!g_blockerReleased) std::this_thread::yield();
  return ZUL_KEST_OK;
}

// A callback's own kick has the callback thread look at that callback
// again, not at the whole queue of waiting ones.  Gates opened and kicked
// together still run in queue order, also when more are kicked than the
// thread keeps names of; a kicked gate that is still busy does not run; no
// kick is lost (a lost one would surface as the busy back-off's warning).
TEST_F(SchedulerTest, SelfKickedCallbacksRunInQueueOrderAndOnlyWhenFree) {
  g_numberedRuns = 0;
  for (auto& open : g_numberedOpen) open = false;
  std::vector<ChunkID> gates;
  zulKestSuspend();
  for (int i = 0; i < kGates; ++i) gates.push_back(QueueSelfKicking(NumberedGate, i, true));
  zulKestResume();
  // Every child done: every gate waits, busy, for its own kick.
  for (ChunkID gate : gates) {
    ASSERT_TRUE(WaitUntil([&] { return AllChildrenCompleted(gate); }));
  }
  const std::vector<std::vector<int>> rounds = {{25, 3, 17},
                                                {39, 1, 30, 8, 22, 12, 35, 5, 27, 14, 19, 33}};
  for (const std::vector<int>& round : rounds) {
    SCOPED_TRACE(round.size() > kReadyHints ? "more kicks than names kept" : "a few kicks");
    g_blockerEntered = false;
    g_blockerReleased = false;
    const ChunkID blocker = QueueSelfKicking(Blocker, 0, false);
    ASSERT_TRUE(WaitUntil([] { return g_blockerEntered.load(); }));
    for (int number : round) {
      g_numberedOpen[number] = true;
      KickChunk(CallbackScheduler(), gates[number]);
    }
    KickChunk(CallbackScheduler(), gates[0]);  // still closed
    {
      std::lock_guard<std::mutex> lock(g_gateOrderMutex);
      g_gateOrder.clear();
    }
    g_blockerReleased = true;
    std::vector<int> expected = round;
    std::sort(expected.begin(), expected.end());
    ASSERT_TRUE(WaitUntil([&] {
      std::lock_guard<std::mutex> lock(g_gateOrderMutex);
      return g_gateOrder.size() >= expected.size();
    }));
    std::lock_guard<std::mutex> lock(g_gateOrderMutex);
    EXPECT_EQ(g_gateOrder, expected);
    DeallocateTree(blocker);
  }
  for (auto& open : g_numberedOpen) open = true;
  for (ChunkID gate : gates) KickChunk(CallbackScheduler(), gate);
  ASSERT_TRUE(WaitUntil([] { return zulKestIsIdle(); }));
  EXPECT_EQ(g_numberedRuns, kGates);
  EXPECT_EQ(CountOf(output_.text(), "An unexpected busy state"), 0u);
  for (ChunkID gate : gates) DeallocateTree(gate);
}

std::mutex g_namesMutex;
std::vector<std::string> g_completionThreads;
int RecordThread(void*, ZulKestOp, uint8_t event, int32_t) {
  if (event == ZUL_KEST_EVENT_COMPLETE) {
    std::lock_guard<std::mutex> lock(g_namesMutex);
    g_completionThreads.push_back(CurrentThreadName());
  }
  return 0;
}

TEST_F(SchedulerTest, FastPathRunsASingleStepRequestOnTheCallersThread) {
  kest2_common::TempDir dir;
  const std::string path = dir.path() + "/small";
  std::ofstream(path) << "hello";
  g_completionThreads.clear();
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  attr.pCallback = RecordThread;
  char buffer[5];
  attr.opflags = ZUL_KEST_OPFLAG_FAST_PATH | ZUL_KEST_OPFLAG_FAST_PATH_ALWAYS;
  EXPECT_EQ(zulKestOpSyncWaitForIO(zulKestFileRead(&attr, path.c_str(), buffer, 5, 0)), 5);
  attr.opflags = 0;
  EXPECT_EQ(zulKestOpSyncWaitForIO(zulKestFileRead(&attr, path.c_str(), buffer, 5, 0)), 5);
  ASSERT_EQ(g_completionThreads.size(), 2u);
  EXPECT_EQ(g_completionThreads[0], CurrentThreadName());
  EXPECT_EQ(g_completionThreads[1], "ZulKestCallback");
}

// Chunks run on callers' threads (the fast path, cancels) count as active
// while they run, so the I/O thread may go to sleep beside a queued chunk;
// the end of such an execution must wake it, or the queued read waits
// forever.
TEST_F(SchedulerTest, ExecutionsOnCallersThreadsNeverStrandQueuedWork) {
  kest2_common::TempDir dir;
  const std::string path = dir.path() + "/data";
  std::ofstream(path) << std::string(65536, 'q');
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestOpSyncWait(zulKestFHOpen(nullptr, &fh, path.c_str(), nullptr)), ZUL_KEST_OK);

  std::atomic<int> stranded{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      ZulKestOpAttr queued, fast;
      zulKestGetDefaultOpAttr(&queued);
      zulKestGetDefaultOpAttr(&fast);
      queued.opflags = 0;
      fast.opflags = ZUL_KEST_OPFLAG_FAST_PATH | ZUL_KEST_OPFLAG_FAST_PATH_ALWAYS;
      char buffer[4096];
      ZulKestStat stat;
      for (int i = 0; i < 400; ++i) {
        const int64_t offset = (i * 4096 + t) % 61440;
        const ZulKestOp read = zulKestFHPread(&queued, fh, buffer, sizeof(buffer), offset);
        const ZulKestOp statOp = zulKestFHStat(&fast, fh, &stat);
        // A cancel executes the cancelled chunk on this thread too.
        const ZulKestOp cancelled = zulKestFHPread(&queued, fh, buffer, sizeof(buffer), offset);
        zulKestOpCancel(cancelled);
        const ZulKestTime limit = zulKestTimeGetCurrent() + 10000000000LL;
        if (zulKestOpWaitUntil(read, limit) == ZUL_KEST_ERROR_TIMEOUT) ++stranded;
        zulKestOpSyncWait(read);
        zulKestOpSyncWait(statOp);
        zulKestOpSyncWait(cancelled);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(stranded.load(), 0);
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHClose(nullptr, fh)), ZUL_KEST_OK);
}

// The offsets of the native reads, in the order the I/O thread made them.
std::vector<int64_t> g_readOffsets;
void RecordRead(const ZulKestIOEvent* event) {
  if (event->kind != 1) return;
  std::lock_guard<std::mutex> lock(g_namesMutex);
  g_readOffsets.push_back(event->request->offset);
}

TEST_F(SchedulerTest, ReschedulingToAnEarlierDeadlineMovesWorkAhead) {
  kest2_common::TempDir dir;
  const std::string path = dir.path() + "/data";
  std::ofstream(path) << std::string(300000, 'x');
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestOpSyncWait(zulKestFHOpen(nullptr, &fh, path.c_str(), nullptr)), ZUL_KEST_OK);
  ZulKestParams params;
  ASSERT_TRUE(zulKestIsInitialized(&params));
  params.pEventCallback = RecordRead;
  zulKestUpdateParameters(&params);
  g_readOffsets.clear();

  // Reads modelled at 1 s per 64 KiB, about 1.5 s for each read here: a
  // deadline 2.3 s ahead is met ahead of the other read and missed behind
  // it, by about 0.75 s either way, however long this thread is held up.
  // Suspended, nothing runs and no measurement changes the model.
  zulKestSuspend();
  for (Scheduler* scheduler = SchedulerListHead(); scheduler != nullptr;
       scheduler = scheduler->next) {
    MutexLocker lock(&scheduler->mutex);
    scheduler->typeEstimate[CHUNK_FH_READ] = 1000000000;
  }
  std::vector<char> a(100000), b(100000);
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  const ZulKestTime now = zulKestTimeGetCurrent();
  attr.deadline = now + 10000000000LL;
  const ZulKestOp first = zulKestFHPread(&attr, fh, a.data(), 100000, 0);
  attr.deadline = now + 20000000000LL;
  const ZulKestOp second = zulKestFHPread(&attr, fh, b.data(), 100000, 200000);
  // The same deadline changes nothing, even with another priority.
  zulKestOpRescheduleWithPriority(second, now + 20000000000LL, 100);
  // Behind the first read it would finish too late; ahead of it, in time.
  zulKestOpReschedule(second, zulKestTimeGetCurrent() + 2300000000LL);
  zulKestResume();
  EXPECT_EQ(zulKestOpSyncWait(first), ZUL_KEST_OK);
  EXPECT_EQ(zulKestOpSyncWait(second), ZUL_KEST_OK);
  params.pEventCallback = nullptr;
  zulKestUpdateParameters(&params);
  EXPECT_EQ(g_readOffsets, (std::vector<int64_t>{200000, 0}));
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHClose(nullptr, fh)), ZUL_KEST_OK);
}

}  // namespace
