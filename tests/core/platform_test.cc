// Platform layer: owner bookkeeping, fatal stops on misuse, timed waits,
// threads and sleeping, with real threads.

#include <pthread.h>

#include <atomic>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "core/platform.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using namespace kest2;

TEST(PlatformMutexTest, RecursiveMutexStaysOwnedUntilLastUnlock) {
  HybPlatformMutex mutex;
  MutexInitialize(&mutex, kMutexRecursive, "test");
  EXPECT_EQ(mutex.recursionCount, 0);
  for (int i = 0; i < 3; ++i) MutexLock(&mutex);
  EXPECT_TRUE(ThreadIdEqual(MutexOwner(&mutex), CurrentThreadId()));
  MutexUnlock(&mutex);
  MutexUnlock(&mutex);
  EXPECT_TRUE(ThreadIdEqual(MutexOwner(&mutex), CurrentThreadId()));
  MutexUnlock(&mutex);
  EXPECT_EQ(MutexOwner(&mutex), 0u);
  MutexDestroy(&mutex);
}

// Both kinds exclude other threads; the recursive one until the holder's
// last unlock (its nesting is counted above the system mutex).
TEST(PlatformMutexTest, BothKindsExcludeOtherThreads) {
  for (int kind : {0, kMutexRecursive}) {
    HybPlatformMutex mutex;
    MutexInitialize(&mutex, kind, "counter");
    EXPECT_EQ(mutex.recursionCount, kind == kMutexRecursive ? 0 : -1);
    long counter = 0;
    std::atomic<int> intruded{0};
    std::thread threads[4];
    for (std::thread& t : threads) {
      t = std::thread([&] {
        for (int i = 0; i < 20000; ++i) {
          MutexLocker lock(&mutex);
          if (kind == kMutexRecursive) {
            MutexLock(&mutex);
            MutexUnlock(&mutex);  // still held by this thread after it
          }
          const long seen = counter;
          if (!ThreadIdEqual(MutexOwner(&mutex), CurrentThreadId())) ++intruded;
          counter = seen + 1;
        }
      });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(counter, 80000) << "kind " << kind;
    EXPECT_EQ(intruded.load(), 0) << "kind " << kind;
    MutexDestroy(&mutex);
  }
}

using PlatformDeathTest = ::testing::Test;

TEST(PlatformDeathTest, MisuseStopsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        HybPlatformMutex mutex;
        MutexInitialize(&mutex, 0, "m");
        MutexUnlock(&mutex);  // not held
      },
      "");
  EXPECT_DEATH(
      {
        HybPlatformMutex mutex;
        MutexInitialize(&mutex, 0, "m");
        HybPlatformCond cond;
        CondInitialize(&cond, &mutex, "c");
        CondSignal(&cond);  // mutex not held
      },
      "");
  EXPECT_DEATH(
      {
        HybPlatformMutex mutex;
        MutexInitialize(&mutex, 0, "m");
        MutexLock(&mutex);
        MutexDestroy(&mutex);  // still owned
      },
      "");
  EXPECT_DEATH(SleepMilliseconds(-1), "");
}

TEST(PlatformCondTest, TimedWaitWithPastDeadlineTimesOut) {
  HybPlatformMutex mutex;
  MutexInitialize(&mutex, 0, "m");
  HybPlatformCond cond;
  CondInitialize(&cond, &mutex, "c");
  MutexLock(&mutex);
  EXPECT_FALSE(CondTimedWait(&cond, NowMicroseconds() - 1000000));
  const int64_t before = NowMicroseconds();
  EXPECT_FALSE(CondTimedWait(&cond, before + 20000));
  EXPECT_GE(NowMicroseconds() - before, 19000);
  // Ownership is handed back after the wait.
  EXPECT_TRUE(ThreadIdEqual(MutexOwner(&mutex), CurrentThreadId()));
  MutexUnlock(&mutex);
  CondDestroy(&cond);
  MutexDestroy(&mutex);
}

// A signal wakes a waiter, timed or not.  The waiter holds the recursive
// mutex twice: the wait gives it up wholly, another thread nests in it
// meanwhile, and the waiter comes back holding it twice.
TEST(PlatformCondTest, SignalWakesAWaiterThatKeepsItsNesting) {
  for (bool timed : {false, true}) {
    HybPlatformMutex mutex;
    MutexInitialize(&mutex, kMutexRecursive, "m");
    HybPlatformCond cond;
    CondInitialize(&cond, &mutex, "c");
    std::atomic<bool> waiting{false};
    bool ready = false;
    bool woken = !timed;
    const int64_t start = NowMicroseconds();
    std::thread waiter([&] {
      MutexLock(&mutex);
      MutexLock(&mutex);
      waiting = true;
      while (!ready) {
        if (timed) {
          woken = CondTimedWait(&cond, NowMicroseconds() + 10000000);
        } else {
          CondWait(&cond);
        }
      }
      MutexUnlock(&mutex);
      EXPECT_TRUE(ThreadIdEqual(MutexOwner(&mutex), CurrentThreadId())) << "timed " << timed;
      MutexUnlock(&mutex);
    });
    while (!waiting) std::this_thread::yield();
    MutexLock(&mutex);  // succeeds only once the waiter is inside its wait
    MutexLock(&mutex);
    ready = true;
    CondSignal(&cond);
    MutexUnlock(&mutex);
    MutexUnlock(&mutex);
    waiter.join();
    EXPECT_TRUE(woken);
    EXPECT_EQ(MutexOwner(&mutex), 0u);
    EXPECT_LT(NowMicroseconds() - start, 5000000);
    CondDestroy(&cond);
    MutexDestroy(&mutex);
  }
}

TEST(PlatformRwlockTest, ReadersShareWritersExclude) {
  HybPlatformRwlock lock;
  RwlockInitialize(&lock, nullptr);
  EXPECT_STREQ(lock.name, "HybPlatformRwlock");
  RwlockReadLock(&lock);
  std::atomic<bool> secondReaderIn{false};
  std::thread reader([&] {
    RwlockReadLock(&lock);
    secondReaderIn = true;
    RwlockReadUnlock(&lock);
  });
  reader.join();
  EXPECT_TRUE(secondReaderIn);
  std::atomic<pid_t> writerThread{0};
  std::atomic<bool> writerIn{false};
  std::thread writer([&] {
    writerThread = kest2_test::SystemThreadId();
    RwlockWriteLock(&lock);
    writerIn = true;
    RwlockWriteUnlock(&lock);
  });
  // The writer has tried while the reader holds the lock: it is asleep in
  // it, or (wrongly) inside.
  EXPECT_TRUE(kest2_test::WaitUntil(
      [&] { return writerIn || (writerThread != 0 && kest2_test::AsleepInFutex(writerThread)); }));
  EXPECT_FALSE(writerIn);
  RwlockReadUnlock(&lock);
  writer.join();
  EXPECT_TRUE(writerIn);
  RwlockDestroy(&lock);
}

struct NameProbe {
  char seen[32];
  ThreadId idInside;
  HybPlatformThreadStart* start;
  ThreadId recordInside;
};

void ProbeEntry(void* raw) {
  NameProbe* probe = static_cast<NameProbe*>(raw);
  pthread_getname_np(pthread_self(), probe->seen, sizeof(probe->seen));
  probe->idInside = CurrentThreadId();
  probe->recordInside = __atomic_load_n(&probe->start->threadId, __ATOMIC_ACQUIRE);
}

TEST(PlatformThreadTest, NamesDefaultAndAreCutTo15Characters) {
  struct Case {
    const char* given;
    const char* expected;
  };
  const Case cases[] = {{"", "HybPlatformThread"},
                        {"ABCDEFGHIJKLMNOPQRST", "ABCDEFGHIJKLMNO"},
                        {"ZulKestIO", "ZulKestIO"}};
  for (const Case& c : cases) {
    HybPlatformThreadStart start{};
    HybPlatformThreadParams params{};
    std::strncpy(params.name, c.given, sizeof(params.name) - 1);
    params.stackSize = 0x4000;
    NameProbe probe{};
    probe.start = &start;
    ASSERT_EQ(CreateThread(&start, &params, ProbeEntry, &probe), 0);
    JoinThread(&start);
    // The system keeps at most 15 characters of a thread's name.
    EXPECT_EQ(std::string(start.name), std::string(c.expected).substr(0, 15));
    EXPECT_EQ(std::string(probe.seen), std::string(c.expected).substr(0, 15));
    EXPECT_TRUE(ThreadIdEqual(probe.idInside, start.threadId));
    EXPECT_TRUE(ThreadIdEqual(probe.recordInside, probe.idInside));
  }
}

TEST(PlatformThreadTest, NullArgumentsAndNullParams) {
  HybPlatformThreadStart start{};
  EXPECT_EQ(CreateThread(nullptr, nullptr, ProbeEntry, nullptr), kKernelErrorInvalid);
  EXPECT_EQ(CreateThread(&start, nullptr, nullptr, nullptr), kKernelErrorInvalid);
  NameProbe probe{};
  probe.start = &start;
  ASSERT_EQ(CreateThread(&start, nullptr, ProbeEntry, &probe), 0);
  JoinThread(&start);
  EXPECT_STREQ(probe.seen, "HybPlatformThre");
  EXPECT_STREQ(start.name, "HybPlatformThre");
}

TEST(PlatformThreadTest, PriorityAndAffinityAreBestEffort) {
  HybPlatformThreadStart start{};
  HybPlatformThreadParams params{};
  params.priority = 700;  // less urgent: always allowed
  params.affinityMask = 1;
  NameProbe probe{};
  probe.start = &start;
  ASSERT_EQ(CreateThread(&start, &params, ProbeEntry, &probe), 0);
  JoinThread(&start);
  params.priority = 1;  // more urgent than the creator: may be refused
  ASSERT_EQ(CreateThread(&start, &params, ProbeEntry, &probe), 0);
  JoinThread(&start);
}

TEST(PlatformSleepTest, SleepsAtLeastTheRequestedTime) {
  const int64_t before = NowMicroseconds();
  SleepMilliseconds(0);
  const int64_t afterZero = NowMicroseconds();
  EXPECT_GE(afterZero - before, 1);
  SleepMilliseconds(15);
  EXPECT_GE(NowMicroseconds() - afterZero, 15000);
}

TEST(PlatformClockTest, MicrosecondConversionsRoundUp) {
  EXPECT_EQ(MicrosecondsToNanoseconds(7), 7000);
  EXPECT_EQ(NanosecondsToMicroseconds(1), 1);
  EXPECT_EQ(NanosecondsToMicroseconds(1000), 1);
  EXPECT_EQ(NanosecondsToMicroseconds(1001), 2);
  EXPECT_EQ(NanosecondsToMicroseconds(0), 0);
}

}  // namespace
