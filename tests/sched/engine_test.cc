// Requests carried out end to end by the library's own threads: reads and
// writes through the queues, callbacks on the callback thread, suspension,
// cancellation (also racing the completion), many issuing threads, and
// termination with work in flight.

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "core/handletable.h"
#include "core/records.h"
#include "kest2.h"
#include "sched/chunk.h"
#include "test_support.h"

namespace {

using kest2_test::ReadFile;
using kest2_test::WriteFile;

using namespace kest2;

std::vector<uint8_t> Pattern(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes(size);
  uint32_t x = seed * 2654435761u + 1;
  for (auto& b : bytes) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<uint8_t>(x);
  }
  return bytes;
}

std::string ThreadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof(name));
  return name;
}

struct CallbackLog {
  std::atomic<int> completes{0};
  std::atomic<int> deletes{0};
  std::string completeThread;
};

int LogCallback(void* context, ZulKestOp, uint8_t event, int32_t) {
  auto* log = static_cast<CallbackLog*>(context);
  if (event == ZUL_KEST_EVENT_COMPLETE) {
    if (log->completes++ == 0) log->completeThread = ThreadName();
  } else {
    ++log->deletes;
  }
  return 0;
}

// Default attributes whose callback records into log.
ZulKestOpAttr LoggingAttr(CallbackLog* log) {
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  attr.pCallback = LogCallback;
  attr.pCallbackContext = log;
  return attr;
}

class EngineTest : public ::testing::Test {
 protected:
  void Start(uint32_t ioThreads = 1, uint32_t maxChunk = 0, uint32_t schedulers = 1) {
    ZulKestParams params = storage_.MakeParams(512, 64, 16, 1024, 16384);
    params.ioThreadCount = ioThreads;
    params.maxChunk = maxChunk;
    params.schedulerCount = schedulers;
    params.pVprintf = kest2_test::OutputCapture::Hook();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }
  void TearDown() override {
    if (zulKestIsInitialized(nullptr)) zulKestTerminate();
  }

  std::string MakeFile(const std::string& name, size_t size, uint32_t seed) {
    const std::string path = dir_.path() + "/" + name;
    WriteFile(path, Pattern(size, seed));
    return path;
  }

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
};

TEST_F(EngineTest, PathReadSplitIntoPiecesArrivesWholeAndCallsBackOnTheCallbackThread) {
  Start(2, 65536);
  const std::string path = MakeFile("big", 1000003, 1);
  std::vector<uint8_t> buffer(1000003);
  CallbackLog log;
  const ZulKestOpAttr attr = LoggingAttr(&log);
  const ZulKestOp op = zulKestFileRead(&attr, path.c_str(), buffer.data(), 1000003, 0);
  ASSERT_NE(op, 0u);
  EXPECT_EQ(zulKestOpWait(op), ZUL_KEST_OK);
  EXPECT_EQ(zulKestOpGetActualCount(op), 1000003);
  zulKestOpDelete(op);
  EXPECT_EQ(buffer, Pattern(1000003, 1));
  EXPECT_EQ(log.completes, 1);
  EXPECT_EQ(log.deletes, 1);
  EXPECT_EQ(log.completeThread, "ZulKestCallback");
  // The private handle of the path read is gone with the operation.
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
}

TEST_F(EngineTest, HandleLifecycleWritesThenReadsAndTracksThePosition) {
  Start();
  ZulKestOpenParams params{};
  params.openFlags = ZUL_KEST_O_READ | ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT;
  ZulKestFH fh = 0;
  const std::string path = dir_.path() + "/written";
  ASSERT_EQ(zulKestOpSyncWait(zulKestFHOpen(nullptr, &fh, path.c_str(), &params)), ZUL_KEST_OK);
  const std::vector<uint8_t> first = Pattern(5000, 2);
  const std::vector<uint8_t> second = Pattern(3000, 3);
  EXPECT_EQ(zulKestOpSyncWaitForIO(zulKestFHWrite(nullptr, fh, first.data(), 5000)), 5000);
  EXPECT_EQ(zulKestOpSyncWaitForIO(zulKestFHWrite(nullptr, fh, second.data(), 3000)), 3000);
  EXPECT_EQ(Lookup<FileHandle>(kFhTable, fh)->offset, 8000);
  std::vector<uint8_t> back(9000);
  // A read past the end returns what there is.
  const int64_t got = zulKestOpSyncWaitForIO(zulKestFHPread(nullptr, fh, back.data(), 9000, 0));
  EXPECT_EQ(got, 8000);
  EXPECT_EQ(std::memcmp(back.data(), first.data(), 5000), 0);
  EXPECT_EQ(std::memcmp(back.data() + 5000, second.data(), 3000), 0);
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHClose(nullptr, fh)), ZUL_KEST_OK);
  EXPECT_EQ(ReadFile(path).size(), 8000u);
}

TEST_F(EngineTest, ArgumentErrorsCompleteAtOnceWithTheirCodes) {
  Start();
  char byte;
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHRead(nullptr, 12345, &byte, 1)), ZUL_KEST_ERROR_BAD_FH);
  EXPECT_EQ(zulKestOpSyncWait(zulKestFileRead(nullptr, nullptr, &byte, 1, 0)), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(zulKestOpSyncWait(zulKestFileRead(nullptr, "/x", &byte, -1, 0)), ZUL_KEST_ERROR_BAD_SIZE);
  const std::string path = MakeFile("small", 10, 4);
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestOpSyncWait(zulKestFHOpen(nullptr, &fh, path.c_str(), nullptr)), ZUL_KEST_OK);
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHWrite(nullptr, fh, &byte, 1)), ZUL_KEST_ERROR_READ_ONLY);
  ZulKestBuffer iov[9] = {};
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHPreadv(nullptr, fh, iov, 9, 0)), ZUL_KEST_ERROR_BAD_IOVCNT);
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHPreadv(nullptr, fh, iov, 8, 0)), ZUL_KEST_OK);
  ZulKestOpAttr attr;
  zulKestGetDefaultOpAttr(&attr);
  attr.opflags = 0x400;
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHPread(&attr, fh, &byte, 1, 0)), ZUL_KEST_ERROR_BAD_FLAGS);
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHClose(nullptr, fh)), ZUL_KEST_OK);
  // A failed open releases the handle it was given.
  ZulKestFH missing = 0;
  const std::string gone = dir_.path() + "/missing";
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHOpen(nullptr, &missing, gone.c_str(), nullptr)),
            ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(Lookup<FileHandle>(kFhTable, missing), nullptr);
}

TEST_F(EngineTest, SuspensionHoldsQueuedWorkUntilResumed) {
  Start();
  const std::string path = MakeFile("held", 4096, 5);
  std::vector<uint8_t> buffer(4096);
  zulKestSuspend();
  zulKestSuspend();
  const ZulKestOp op = zulKestFileRead(nullptr, path.c_str(), buffer.data(), 4096, 0);
  EXPECT_EQ(zulKestOpWaitUntil(op, zulKestTimeGetCurrent() + 100000000), ZUL_KEST_ERROR_TIMEOUT);
  EXPECT_FALSE(zulKestIsIdle());
  zulKestResume();  // still suspended once
  EXPECT_EQ(zulKestOpWaitUntil(op, zulKestTimeGetCurrent() + 50000000), ZUL_KEST_ERROR_TIMEOUT);
  zulKestResume();
  EXPECT_EQ(zulKestOpSyncWait(op), ZUL_KEST_OK);
  EXPECT_EQ(buffer, Pattern(4096, 5));
  EXPECT_TRUE(zulKestIsIdle());
}

std::atomic<int> g_executedReads{0};
std::atomic<int> g_executedCloses{0};
void CountExecutions(const ZulKestIOEvent* event) {
  if (event->kind != 13) return;
  const auto* subject = reinterpret_cast<const ZulKestSchedulerEventSubject*>(event->request);
  if (subject->chunkType == CHUNK_FH_READ) ++g_executedReads;
  if (subject->chunkType == CHUNK_FH_CLOSE) ++g_executedCloses;
}

TEST_F(EngineTest, CancellingQueuedReadsStillClosesTheFile) {
  Start(1, 65536);
  g_executedReads = 0;
  g_executedCloses = 0;
  ZulKestParams params;
  ASSERT_TRUE(zulKestIsInitialized(&params));
  params.pEventCallback = CountExecutions;
  zulKestUpdateParameters(&params);
  const std::string path = MakeFile("cancelled", 1 << 20, 6);
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestOpSyncWait(zulKestFHOpen(nullptr, &fh, path.c_str(), nullptr)), ZUL_KEST_OK);
  std::vector<uint8_t> buffer(1 << 20);
  zulKestSuspend();
  const ZulKestOp read = zulKestFHPread(nullptr, fh, buffer.data(), 1 << 20, 0);
  EXPECT_FALSE(zulKestOpIsCancelled(read));
  zulKestOpCancel(read);
  EXPECT_TRUE(zulKestOpIsCancelled(read));
  zulKestResume();
  EXPECT_EQ(zulKestOpWait(read), ZUL_KEST_ERROR_CANCELLED);
  EXPECT_EQ(zulKestOpGetActualCount(read), 0);
  zulKestOpDelete(read);
  // Every piece was counted down, so the close is not held back.
  EXPECT_EQ(Lookup<FileHandle>(kFhTable, fh)->m_pendingIO, 0);
  EXPECT_EQ(zulKestOpSyncWait(zulKestFHClose(nullptr, fh)), ZUL_KEST_OK);
  // The skipped pieces ran no handler, so none is reported as executed;
  // the close did run.
  EXPECT_EQ(g_executedReads, 0);
  EXPECT_EQ(g_executedCloses, 1);
  // Cancelling a finished operation changes nothing.
  const ZulKestOp done = zulKestFileRead(nullptr, path.c_str(), buffer.data(), 16, 0);
  EXPECT_EQ(zulKestOpWait(done), ZUL_KEST_OK);
  zulKestOpCancel(done);
  EXPECT_EQ(zulKestOpGetError(done), ZUL_KEST_OK);
  EXPECT_FALSE(zulKestOpIsCancelled(done));
  zulKestOpDelete(done);
}

TEST_F(EngineTest, CancelRacingCompletionEndsEitherWayWithNothingLost) {
  Start(2, 16384);
  const std::string path = MakeFile("race", 200000, 7);
  const std::vector<uint8_t> expected = Pattern(200000, 7);
  int cancelled = 0;
  int completed = 0;
  for (int round = 0; round < 200; ++round) {
    std::vector<uint8_t> buffer(200000);
    CallbackLog log;
    const ZulKestOpAttr attr = LoggingAttr(&log);
    const ZulKestOp op = zulKestFileRead(&attr, path.c_str(), buffer.data(), 200000, 0);
    std::thread canceller([op, round] {
      for (int spin = 0; spin < round * 7; ++spin) std::this_thread::yield();
      zulKestOpCancel(op);
    });
    const int32_t result = zulKestOpWait(op);
    canceller.join();
    if (result == ZUL_KEST_OK) {
      ++completed;
      EXPECT_EQ(buffer, expected);
    } else {
      ASSERT_EQ(result, ZUL_KEST_ERROR_CANCELLED);
      ++cancelled;
    }
    zulKestOpDelete(op);
    EXPECT_EQ(log.completes, 1);
  }
  EXPECT_EQ(cancelled + completed, 200);
  EXPECT_TRUE(zulKestIsIdle());
  EXPECT_EQ(zulKestGetAllOps(nullptr, 0), 0);
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
  zulKestTerminate();
  EXPECT_EQ(output_.text().find("still allocated"), std::string::npos) << output_.text();
}

// A cancel may land while an open is executing; when the open then succeeds
// the operation still fails as cancelled, and what the open got from the
// system (a descriptor, a directory listing) must go with its handle.
TEST_F(EngineTest, CancelledOpensLeaveNoHandleAndNoDescriptor) {
  Start(2);
  const std::string path = MakeFile("opened", 100, 12);
  std::vector<uint64_t> listing(16384);  // the native state and the merged listing
  const size_t descriptors = kest2_test::OpenDescriptors();
  int cancelled = 0;
  int opened = 0;
  for (int round = 0; round < 400; ++round) {
    const bool directory = round % 2 == 1;
    ZulKestFH fh = 0;
    ZulKestDH dh = 0;
    const ZulKestOp op =
        directory ? zulKestDHOpen(nullptr, &dh, dir_.path().c_str(), listing.data(),
                                  static_cast<int64_t>(listing.size() * sizeof(uint64_t)))
                  : zulKestFHOpen(nullptr, &fh, path.c_str(), nullptr);
    ASSERT_NE(op, 0u);
    // Every fourth pair is cancelled before any thread may take it, so that
    // some cancels land however the race goes on this machine.
    const bool held = round % 8 >= 6;
    if (held) zulKestSuspend();
    std::thread canceller([op, round] {
      for (int spin = 0; spin < (round / 2) * 5; ++spin) std::this_thread::yield();
      zulKestOpCancel(op);
    });
    if (held) {
      canceller.join();
      zulKestResume();
    }
    const int32_t result = zulKestOpWait(op);
    if (!held) canceller.join();
    zulKestOpDelete(op);
    if (result == ZUL_KEST_OK) {
      ++opened;
      EXPECT_EQ(directory ? zulKestDHCloseSync(nullptr, dh) : zulKestFHCloseSync(nullptr, fh),
                ZUL_KEST_OK);
    } else {
      ASSERT_EQ(result, ZUL_KEST_ERROR_CANCELLED);
      ++cancelled;
      EXPECT_FALSE(zulKestIsValidHandle(directory ? dh : fh));
    }
    ASSERT_EQ(kest2_test::OpenDescriptors(), descriptors) << "round " << round;
  }
  EXPECT_GT(cancelled, 0);
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
  EXPECT_EQ(zulKestGetAllDHs(nullptr, 0), 0);
}

TEST_F(EngineTest, ExhaustedChunkStorageFailsTheRequestAndLeaksNothing) {
  // Room for a few small trees, not for a read split into hundreds of pieces.
  ZulKestParams params = storage_.MakeParams(64, 32, 16, 1024, 200);
  params.maxChunk = 4096;
  params.pVprintf = kest2_test::OutputCapture::Hook();
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  const std::string path = MakeFile("pieces", 1 << 20, 11);
  std::vector<uint8_t> buffer(1 << 20);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(zulKestOpSyncWait(zulKestFileRead(nullptr, path.c_str(), buffer.data(), 1 << 20, 0)),
              ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK);
    // What the failed request took is back: a small read still fits.
    EXPECT_EQ(zulKestOpSyncWaitForIO(zulKestFileRead(nullptr, path.c_str(), buffer.data(), 4096, 0)),
              4096);
  }
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 0);
  zulKestTerminate();
  EXPECT_EQ(output_.text().find("still allocated"), std::string::npos) << output_.text();
}

TEST_F(EngineTest, ManyThreadsIssuingAtOnceAllGetTheirBytes) {
  Start(3, 32768);
  constexpr int kFiles = 4;
  constexpr int kThreads = 6;
  constexpr int kReadsPerThread = 40;
  constexpr size_t kSize = 300000;
  std::vector<std::string> paths;
  for (int i = 0; i < kFiles; ++i) paths.push_back(MakeFile("f" + std::to_string(i), kSize, 10 + i));
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<uint8_t> buffer(70000);
      for (int r = 0; r < kReadsPerThread; ++r) {
        const int file = (t + r) % kFiles;
        const int64_t offset = (t * 7919 + r * 104729) % (kSize - buffer.size());
        ZulKestOpAttr attr;
        zulKestGetDefaultOpAttr(&attr);
        attr.priority = static_cast<int8_t>(r % 3);
        attr.deadline = zulKestTimeGetCurrent() + (r % 4) * 1000000;
        const int64_t got = zulKestOpSyncWaitForIO(zulKestFileRead(
            &attr, paths[file].c_str(), buffer.data(), static_cast<int64_t>(buffer.size()), offset));
        const std::vector<uint8_t> expected = Pattern(kSize, 10 + file);
        const bool whole = got == static_cast<int64_t>(buffer.size());
        if (!whole || std::memcmp(buffer.data(), expected.data() + offset, buffer.size()) != 0) {
          ++mismatches;
          ADD_FAILURE() << "thread " << t << " read " << r << " of file " << file << " at "
                        << offset << ": " << (whole ? "wrong bytes" : "result ") << (whole ? 0 : got);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, 0);
  EXPECT_TRUE(zulKestIsIdle());
}

// A full queue holds every submitting thread until there is room.  The
// count passes the mark only once on its way down, so all of them must be
// woken then, not one.
TEST_F(EngineTest, EveryThreadWaitingForRoomInAFullQueueGoesOn) {
  constexpr int kWaiters = 3;
  constexpr int kFull = 8191;  // one above the mark at which submitters wait
  ZulKestParams params = storage_.MakeParams(kFull + 64, 8, 4, 64, 65536);
  params.pVprintf = kest2_test::OutputCapture::Hook();
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  const std::string path = MakeFile("full", 4096, 13);
  ZulKestFH fh = 0;
  ASSERT_EQ(zulKestFHOpenSync(nullptr, &fh, path.c_str(), nullptr), ZUL_KEST_OK);
  uint8_t byte = 0;
  std::vector<ZulKestOp> ops;
  zulKestSuspend();
  for (int i = 0; i < kFull; ++i) {
    ops.push_back(zulKestFHPread(nullptr, fh, &byte, 1, i % 4096));
    ASSERT_NE(ops.back(), 0u);
  }
  std::atomic<int> done{0};
  std::vector<std::thread> waiters;
  for (int t = 0; t < kWaiters; ++t) {
    waiters.emplace_back([&] {
      uint8_t mine = 0;
      EXPECT_EQ(zulKestOpSyncWaitForIO(zulKestFHPread(nullptr, fh, &mine, 1, 0)), 1);
      ++done;
    });
  }
  auto waiting = [this] {
    const std::string text = output_.text();
    int count = 0;
    for (size_t at = text.find("queue is full, waiting"); at != std::string::npos;
         at = text.find("queue is full, waiting", at + 1))
      ++count;
    return count;
  };
  ASSERT_TRUE(kest2_test::WaitUntil([&] { return waiting() == kWaiters; }));
  zulKestResume();
  // A waiter left asleep would hang here (the watchdog names the test).
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(done, kWaiters);
  for (ZulKestOp op : ops) EXPECT_EQ(zulKestOpSyncWaitForIO(op), 1);
  EXPECT_EQ(zulKestFHCloseSync(nullptr, fh), ZUL_KEST_OK);
}

TEST_F(EngineTest, TerminationWaitsForQueuedWorkToDrain) {
  Start(1, 65536);
  const std::string path = MakeFile("drain", 1 << 20, 8);
  std::vector<std::vector<uint8_t>> buffers(20, std::vector<uint8_t>(1 << 20));
  CallbackLog log;
  const ZulKestOpAttr attr = LoggingAttr(&log);
  zulKestSuspend();
  for (auto& buffer : buffers) {
    ASSERT_NE(zulKestFileRead(&attr, path.c_str(), buffer.data(), 1 << 20, 0), 0u);
  }
  // Termination lifts the suspension and runs everything queued first.
  zulKestTerminate();
  EXPECT_EQ(log.completes, 20);
  for (const auto& buffer : buffers) EXPECT_EQ(buffer, Pattern(1 << 20, 8));
  // The operations were never deleted: the pool reports them.
  EXPECT_NE(output_.text().find("of ops still allocated"), std::string::npos) << output_.text();
}

std::vector<std::string> ThreadNames() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(entry.path() / "comm");
    std::string name;
    std::getline(comm, name);
    names.push_back(name);
  }
  return names;
}

TEST_F(EngineTest, SchedulerThreadsCarryTheirNames) {
  Start(2, 0, 2);
  auto count = [](const std::vector<std::string>& names, const std::string& wanted) {
    return std::count(names.begin(), names.end(), wanted);
  };
  // Each thread names itself once it runs.
  std::vector<std::string> names;
  kest2_test::WaitUntil([&] {
    names = ThreadNames();
    return count(names, "ZulKestIO /") == 2 && count(names, "ZulKestIO") == 2 &&
           count(names, "ZulKestCallback") == 1;
  });
  EXPECT_EQ(count(names, "ZulKestCallback"), 1);
  EXPECT_EQ(count(names, "ZulKestIO"), 2);
  EXPECT_EQ(count(names, "ZulKestIO /"), 2);
  zulKestTerminate();
  for (const std::string& name : ThreadNames()) EXPECT_EQ(name.rfind("ZulKest", 0), std::string::npos) << name;
}

std::atomic<int> g_schedulerEvents[16];
void CountEvent(const ZulKestIOEvent* event) {
  if (event->kind < 16) ++g_schedulerEvents[event->kind];
}

TEST_F(EngineTest, ProfilingHookSeesTheSchedulerSteps) {
  for (auto& count : g_schedulerEvents) count = 0;
  Start();
  ZulKestParams params;
  ASSERT_TRUE(zulKestIsInitialized(&params));
  params.pEventCallback = CountEvent;
  zulKestUpdateParameters(&params);
  const std::string path = MakeFile("events", 1000, 9);
  std::vector<uint8_t> buffer(1000);
  EXPECT_EQ(zulKestOpSyncWaitForIO(zulKestFileRead(nullptr, path.c_str(), buffer.data(), 1000, 0)),
            1000);
  // The root's execution is reported after its completion has released
  // the waiter, so that last event may still be on its way.
  kest2_test::WaitUntil([] { return g_schedulerEvents[13] >= 4; });
  EXPECT_EQ(g_schedulerEvents[9], 1);   // one tree scheduled
  EXPECT_GE(g_schedulerEvents[11], 4);  // open, read, close, root
  EXPECT_GE(g_schedulerEvents[13], 4);
  EXPECT_EQ(g_schedulerEvents[1], 1);   // one native read
}

// A tree is queued in runs gathered per scheduler; one far wider than a run
// (a read split into 256 pieces) must still be queued whole, every chunk
// once, whether it starts on the caller's fast path or not.
TEST_F(EngineTest, AWideTreeIsQueuedWholeWithOrWithoutTheFastPath) {
  constexpr size_t kSize = 256 * 4096;
  for (uint32_t opflags : {0u, ZUL_KEST_OPFLAG_FAST_PATH}) {
    SCOPED_TRACE(opflags);
    for (auto& count : g_schedulerEvents) count = 0;
    Start(2, 4096);
    ZulKestParams params;
    ASSERT_TRUE(zulKestIsInitialized(&params));
    params.pEventCallback = CountEvent;
    zulKestUpdateParameters(&params);
    const std::string path = MakeFile("wide", kSize, 21);
    std::vector<uint8_t> buffer(kSize);
    ZulKestOpAttr attr;
    zulKestGetDefaultOpAttr(&attr);
    attr.opflags = opflags;
    EXPECT_EQ(zulKestOpSyncWaitForIO(zulKestFileRead(&attr, path.c_str(), buffer.data(), kSize, 0)),
              static_cast<int64_t>(kSize));
    EXPECT_EQ(buffer, Pattern(kSize, 21));
    kest2_test::WaitUntil([] { return g_schedulerEvents[13] >= 259; });
    // Open, 256 pieces, close and root: each queued (or run at once on the
    // fast path) exactly once, and each executed.
    EXPECT_EQ(g_schedulerEvents[11], 259);
    EXPECT_EQ(g_schedulerEvents[13], 259);
    EXPECT_EQ(g_schedulerEvents[1], 256);
    EXPECT_TRUE(zulKestIsIdle());
    zulKestTerminate();
    EXPECT_EQ(output_.text().find("still allocated"), std::string::npos) << output_.text();
  }
}

}  // namespace
