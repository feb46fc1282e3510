// Process-wide control: suspension and the listing of live handles.
//
// The suspend count changes only atomically; calls nest, so n suspensions
// need n resumptions, and a resume without a matching suspend leaves it 0.

#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "kest2.h"
#include "sched/scheduler.h"

namespace kest2 {
int32_t g_suspendCount;

namespace {

int32_t ListHandles(HandleTableId table, uint32_t* handles, int32_t length) {
  const uint32_t maxCount =
      (handles == nullptr || length < 0) ? 0 : static_cast<uint32_t>(length);
  return static_cast<int32_t>(EnumerateHandles(table, handles, maxCount));
}

}  // namespace
}  // namespace kest2

using namespace kest2;

extern "C" void zulKestSuspend(void) {
  KEST2_TRACE_API("zulKestSuspend");
  __atomic_add_fetch(&g_suspendCount, 1, __ATOMIC_ACQ_REL);
}

extern "C" void zulKestResume(void) {
  KEST2_TRACE_API("zulKestResume");
  int32_t count = __atomic_load_n(&g_suspendCount, __ATOMIC_ACQUIRE);
  while (count > 0) {
    if (__atomic_compare_exchange_n(&g_suspendCount, &count, count - 1, false,
                                    __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
      // The call that lifts the last suspension sets the threads going.
      if (count == 1) KickAllSchedulers();
      break;
    }
  }
}

extern "C" uint32_t zulKestGetSuspendCount(void) {
  KEST2_TRACE_API("zulKestGetSuspendCount");
  return static_cast<uint32_t>(__atomic_load_n(&g_suspendCount, __ATOMIC_ACQUIRE));
}

extern "C" bool zulKestIsSuspended(void) {
  KEST2_TRACE_API("zulKestIsSuspended");
  return __atomic_load_n(&g_suspendCount, __ATOMIC_ACQUIRE) > 0;
}

extern "C" int32_t zulKestGetAllOps(ZulKestOp* handles, int32_t length) {
  KEST2_TRACE_API("zulKestGetAllOps");
  return ListHandles(kOpTable, handles, length);
}

extern "C" int32_t zulKestGetAllFHs(ZulKestFH* handles, int32_t length) {
  KEST2_TRACE_API("zulKestGetAllFHs");
  return ListHandles(kFhTable, handles, length);
}

extern "C" int32_t zulKestGetAllDHs(ZulKestDH* handles, int32_t length) {
  KEST2_TRACE_API("zulKestGetAllDHs");
  return ListHandles(kDhTable, handles, length);
}

extern "C" void zulKestCancelAllOps(void) {
  KEST2_TRACE_API("zulKestCancelAllOps");
  // Closes are never cancelled: a cancelled tree still closes its files.
  ForEachHandle(
      kOpTable,
      [](uint32_t handle, void*) {
        const Operation* op = Lookup<Operation>(kOpTable, handle);
        if (op != nullptr && op->what != OP_FH_CLOSE && op->what != OP_DH_CLOSE)
          zulKestOpCancel(handle);
      },
      nullptr);
}

extern "C" void zulKestCloseAllFiles(void) {
  KEST2_TRACE_API("zulKestCloseAllFiles");
  ForEachHandle(kFhTable, [](uint32_t handle, void*) { zulKestFHCloseSync(nullptr, handle); },
                nullptr);
}

extern "C" void zulKestShutdownAndCancelOps(void) {
  KEST2_TRACE_API("zulKestShutdownAndCancelOps");
  zulKestCancelAllOps();
  zulKestTerminate();
}

extern "C" bool zulKestIsIdle(void) {
  KEST2_TRACE_API("zulKestIsIdle");
  return SchedulersIdle();
}
