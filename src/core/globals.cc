// Process-wide state: see globals.h.

#include "core/globals.h"

#include "core/records.h"

namespace kest2 {

ZulKestParams g_KestParams;
GlobalLocks g_locks;
int32_t g_overlayCount;
thread_local uint32_t t_currentCallbackOp;

namespace {

bool g_autoInitialized;
bool g_locksCreated;
bool g_locksCreatedByInitialize;

}  // namespace

bool LocksCreated() { return g_locksCreated; }
void SetAutoInitialized(bool value) { g_autoInitialized = value; }
bool AutoInitialized() { return g_autoInitialized; }
bool LocksCreatedByInitialize() { return g_locksCreatedByInitialize; }
void SetLocksCreatedByInitialize(bool value) { g_locksCreatedByInitialize = value; }

bool CreateGlobalLocks() {
  if (g_locksCreated) return false;
  RwlockInitialize(&g_locks.defaultAttr, "ZulKestDefaultOpAttr");
  MutexInitialize(&g_locks.opWaitMutex, 0, "ZulKestOpWait");
  CondInitialize(&g_locks.opWaitCond, &g_locks.opWaitMutex, "ZulKestOpWait");
  MutexInitialize(&g_locks.chunk, kMutexRecursive, "ZulKestChunk");
  RwlockInitialize(&g_locks.filter, "ZulKestIOFilter");
  MutexInitialize(&g_locks.dirHandle, 0, "ZulKestDirHandle");
  RwlockInitialize(&g_locks.overlay, nullptr);
  g_locksCreated = true;
  return true;
}

void DestroyGlobalLocks() {
  if (!g_locksCreated) return;
  MutexDestroy(&g_locks.dirHandle);
  RwlockDestroy(&g_locks.filter);
  MutexDestroy(&g_locks.chunk);
  CondDestroy(&g_locks.opWaitCond);
  MutexDestroy(&g_locks.opWaitMutex);
  RwlockDestroy(&g_locks.defaultAttr);
  RwlockDestroy(&g_locks.overlay);
  g_locksCreated = false;
  g_locksCreatedByInitialize = false;
}

}  // namespace kest2
