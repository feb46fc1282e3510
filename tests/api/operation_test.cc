// Operations: completion and callbacks, waits from several threads, timed
// waits, deletion racing waiters, and the accessors' answers for bad
// handles.  Completion is driven here directly, as the engine will.

#include "api/operation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "api/request_support.h"
#include "common/library_storage.h"
#include "core/handletable.h"
#include "debug/trace.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2::Operation;

struct CallbackLog {
  std::atomic<int> completes{0};
  std::atomic<int> deletes{0};
  std::atomic<int32_t> lastError{0};
  bool deleteInsideComplete = false;
  int32_t waitInsideComplete = 1;
};

int32_t RecordingCallback(void* context, ZulKestOp op, uint8_t event, int32_t error) {
  CallbackLog* log = static_cast<CallbackLog*>(context);
  if (event == ZUL_KEST_EVENT_COMPLETE) {
    ++log->completes;
    log->lastError = error;
    if (log->deleteInsideComplete) {
      log->waitInsideComplete = zulKestOpWait(op);  // must not block
      zulKestOpDelete(op);
    }
  } else {
    ++log->deletes;
  }
  return 0;
}

class OperationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZulKestParams params = storage_.MakeParams(64, 8, 4);
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }
  void TearDown() override {
    kest2_test::SetDebugFlags(0);
    zulKestTerminate();
  }

  Operation* NewOp(CallbackLog* log = nullptr) {
    ZulKestOpAttr attr{};
    if (log != nullptr) {
      attr.pCallback = RecordingCallback;
      attr.pCallbackContext = log;
    }
    return kest2::OpCreate(&attr, OP_STAT);
  }

  // Waits until n threads are blocked in a wait on op.
  static void AwaitWaiters(const Operation* op, int n) {
    while (__atomic_load_n(&op->waiters, __ATOMIC_ACQUIRE) < n) std::this_thread::yield();
  }

  kest2_common::LibraryStorage storage_;
};

TEST_F(OperationTest, FailCompletesAtOnceAndCallsBackOnce) {
  CallbackLog log;
  Operation* op = NewOp(&log);
  ASSERT_NE(op, nullptr);
  const ZulKestOp h = op->h;
  EXPECT_EQ(zulKestOpGetError(h), ZUL_KEST_IN_PROGRESS);
  EXPECT_FALSE(zulKestOpIsDone(h));
  EXPECT_EQ(kest2::OpFail(op, ZUL_KEST_ERROR_BAD_PATH), h);
  EXPECT_EQ(log.completes.load(), 1);
  EXPECT_EQ(log.lastError.load(), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_TRUE(zulKestOpIsDone(h));
  EXPECT_EQ(zulKestOpGetError(h), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(zulKestOpWait(h), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(zulKestOpSyncWait(h), ZUL_KEST_ERROR_BAD_PATH);  // and deletes
  EXPECT_EQ(log.deletes.load(), 1);
  EXPECT_EQ(log.completes.load(), 1);
  EXPECT_EQ(zulKestOpGetError(h), ZUL_KEST_ERROR_BAD_OP);
  EXPECT_EQ(zulKestGetAllOps(nullptr, 0), 0);
}

TEST_F(OperationTest, FailReleasesTheHandleTheRequestCreated) {
  Operation* op = NewOp();
  // As an open request makes it: no descriptor yet.
  const uint32_t fh = kest2::NewFileHandle(nullptr)->h;
  op->targetHandle = fh;
  op->internalFlags = kest2::kOpOwnsNewHandle;
  kest2::OpFail(op, ZUL_KEST_ERROR_ACCESS);
  EXPECT_EQ(kest2::LookupHandle(kest2::kFhTable, fh), nullptr);
  zulKestOpDelete(op->h);
}

TEST_F(OperationTest, ManyWaitersAllSeeTheResult) {
  Operation* op = NewOp();
  const ZulKestOp h = op->h;
  constexpr int kWaiters = 6;
  std::vector<int32_t> results(kWaiters, 0);
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&, i] {
      results[i] = i % 2 == 0 ? zulKestOpWait(h)
                              : zulKestOpWaitUntil(h, zulKestTimeGetCurrent() + 30000000000LL);
    });
  }
  AwaitWaiters(op, kWaiters);
  kest2::OpFail(op, ZUL_KEST_ERROR_EOF);
  for (std::thread& t : waiters) t.join();
  for (int32_t r : results) EXPECT_EQ(r, ZUL_KEST_ERROR_EOF);
  EXPECT_EQ(op->waiters, 0);
  zulKestOpDelete(h);
}

TEST_F(OperationTest, TimedWaitsTimeOutOrFinishJustInTime) {
  Operation* op = NewOp();
  const ZulKestOp h = op->h;
  kest2_test::SetDebugFlags(kest2::kTraceOp);
  {
    kest2_test::OutputCapture out;
    EXPECT_EQ(zulKestOpWaitUntil(h, zulKestTimeGetCurrent() - 1000), ZUL_KEST_ERROR_TIMEOUT);
    EXPECT_NE(out.text().find("WaitUntil       timed out without blocking for op 0x"),
              std::string::npos)
        << out.text();
  }
  kest2_test::SetDebugFlags(0);
  const ZulKestTime start = zulKestTimeGetCurrent();
  EXPECT_EQ(zulKestOpWaitUntil(h, start + 30000000), ZUL_KEST_ERROR_TIMEOUT);
  EXPECT_GE(zulKestTimeGetCurrent() - start, 30000000);

  // Completion while a 30 s wait blocks: the waiter gets the result, woken
  // by the completion long before its deadline would have ended the wait.
  std::thread completer([op] {
    AwaitWaiters(op, 1);
    kest2::OpCompleteOk(op);
  });
  const ZulKestTime before = zulKestTimeGetCurrent();
  EXPECT_EQ(zulKestOpWaitUntil(h, before + 30000000000LL), ZUL_KEST_OK);
  EXPECT_LT(zulKestTimeGetCurrent() - before, 15000000000LL);
  completer.join();
  zulKestOpDelete(h);
}

TEST_F(OperationTest, DeleteWaitsForCompletionWhileOthersWait) {
  CallbackLog log;
  Operation* op = NewOp(&log);
  const ZulKestOp h = op->h;
  std::atomic<int32_t> waited{1};
  std::thread waiter([&] { waited = zulKestOpWait(h); });
  std::thread deleter([&] { zulKestOpDelete(h); });
  AwaitWaiters(op, 2);  // the deleter waits for completion too
  EXPECT_EQ(log.deletes.load(), 0);
  kest2::OpFail(op, ZUL_KEST_ERROR_CANCELLED);
  waiter.join();
  deleter.join();
  EXPECT_EQ(waited.load(), ZUL_KEST_ERROR_CANCELLED);
  EXPECT_EQ(log.deletes.load(), 1);
  EXPECT_EQ(kest2::LookupHandle(kest2::kOpTable, h), nullptr);
}

TEST_F(OperationTest, CallbackMayWaitAndDeleteItsOwnOperation) {
  CallbackLog log;
  log.deleteInsideComplete = true;
  Operation* op = NewOp(&log);
  const ZulKestOp h = op->h;
  std::atomic<int32_t> waited{1};
  std::thread waiter([&] { waited = zulKestOpWait(h); });
  AwaitWaiters(op, 1);
  kest2::OpFail(op, ZUL_KEST_ERROR_ACCESS);
  waiter.join();
  EXPECT_EQ(log.waitInsideComplete, ZUL_KEST_ERROR_ACCESS);
  EXPECT_EQ(log.deletes.load(), 1);  // nested inside the COMPLETE callback
  EXPECT_EQ(waited.load(), ZUL_KEST_ERROR_ACCESS);
  EXPECT_EQ(kest2::LookupHandle(kest2::kOpTable, h), nullptr);
}

TEST_F(OperationTest, SyncWaitForIOReportsBytesOnEndOfFile) {
  Operation* op = NewOp();
  op->actCount = 1234;
  kest2::OpFail(op, ZUL_KEST_ERROR_EOF);
  EXPECT_EQ(zulKestOpSyncWaitForIO(op->h), 1234);
  Operation* failed = NewOp();
  failed->actCount = 10;
  kest2::OpFail(failed, ZUL_KEST_ERROR_ACCESS);
  EXPECT_EQ(zulKestOpSyncWaitForIO(failed->h), static_cast<int64_t>(ZUL_KEST_ERROR_ACCESS));
  EXPECT_EQ(zulKestOpSyncWaitForIO(0), static_cast<int64_t>(ZUL_KEST_ERROR_BAD_OP));
  EXPECT_EQ(zulKestOpSyncWait(0), ZUL_KEST_ERROR_CANT_ALLOCATE_OP);
}

TEST_F(OperationTest, AccessorsOfBadHandles) {
  for (ZulKestOp bad : {0u, 0x80014000u, 0x00018000u, 0x00014000u + 60}) {
    EXPECT_EQ(zulKestOpWait(bad), ZUL_KEST_ERROR_BAD_OP);
    EXPECT_EQ(zulKestOpWaitUntil(bad, 0), ZUL_KEST_ERROR_BAD_OP);
    EXPECT_EQ(zulKestOpGetError(bad), ZUL_KEST_ERROR_BAD_OP);
    EXPECT_TRUE(zulKestOpIsDone(bad));
    EXPECT_FALSE(zulKestOpIsCancelled(bad));
    EXPECT_EQ(zulKestOpGetAttr(bad), nullptr);
    EXPECT_EQ(zulKestOpGetPath(bad), nullptr);
    EXPECT_EQ(zulKestOpGetBuffer(bad), nullptr);
    EXPECT_EQ(zulKestOpGetOffset(bad), 0);
    EXPECT_EQ(zulKestOpGetRequestCount(bad), 0);
    EXPECT_EQ(zulKestOpGetActualCount(bad), 0);
  }
  kest2_test::OutputCapture out;
  zulKestOpDelete(0x00014007);
  EXPECT_EQ(out.text(), "zulKestOpDelete: called with an invalid op 0x00014007.\n");
}

TEST_F(OperationTest, AttributesAndRequestFields) {
  ZulKestOpAttr threadDefaults{};
  threadDefaults.userTag = 77;
  zulKestSetThreadDefaultOpAttr(&threadDefaults);
  Operation* op = kest2::OpCreate(nullptr, OP_FH_PREADV);
  zulKestSetThreadDefaultOpAttr(nullptr);
  ASSERT_NE(op, nullptr);
  EXPECT_EQ(zulKestOpGetAttr(op->h)->userTag, 77u);
  EXPECT_EQ(op->rootChunk, -1);
  op->buffers[0].length = 100;
  op->buffers[7].length = 5;
  op->offset = 4096;
  EXPECT_EQ(zulKestOpGetRequestCount(op->h), 105);
  EXPECT_EQ(zulKestOpGetOffset(op->h), 4096);
  EXPECT_STREQ(zulKestOpGetPath(op->h), "");
  kest2::OpCompleteOk(op);
  zulKestOpDelete(op->h);
}

TEST_F(OperationTest, TableExhaustionAndReuse) {
  std::vector<ZulKestOp> handles;
  for (Operation* op; (op = NewOp()) != nullptr;) handles.push_back(op->h);
  EXPECT_EQ(handles.size(), 64u);
  for (ZulKestOp h : handles) {
    kest2::OpCompleteOk(kest2::Lookup<Operation>(kest2::kOpTable, h));
    EXPECT_EQ(zulKestOpSyncWait(h), ZUL_KEST_OK);
  }
  Operation* again = NewOp();
  ASSERT_NE(again, nullptr);
  for (ZulKestOp h : handles) EXPECT_NE(again->h, h);  // new generation
  kest2::OpCompleteOk(again);
  zulKestOpDelete(again->h);
}

TEST_F(OperationTest, ConcurrentCompletionsWaitsAndDeletes) {
  // Workers complete operations that other threads wait on and delete:
  // every waiter gets its operation's own result and nothing leaks.
  constexpr int kRounds = 300;
  std::atomic<int> wrong{0};
  kest2_test::OutputCapture quiet;  // the reported second deletes
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        Operation* op = NewOp();
        if (op == nullptr) continue;
        const ZulKestOp h = op->h;
        const int32_t code = (i % 3 == 0) ? ZUL_KEST_OK : ZUL_KEST_ERROR_EOF;
        std::thread completer([op, code] {
          if (code == ZUL_KEST_OK) {
            kest2::OpCompleteOk(op);
          } else {
            kest2::OpFail(op, code);
          }
        });
        const int32_t got = (i + t) % 2 == 0 ? zulKestOpSyncWait(h) : zulKestOpWait(h);
        if (got != code) ++wrong;
        completer.join();
        zulKestOpDelete(h);  // second delete after SyncWait: invalid, reported
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(zulKestGetAllOps(nullptr, 0), 0);
}

}  // namespace
