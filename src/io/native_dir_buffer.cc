// The shared native directory buffer: see native_dir_buffer.h.

#include "io/native_dir_buffer.h"

#include "core/platform.h"

namespace kest2 {
namespace {

HybPlatformMutex g_dirBufferLock;
bool g_dirBufferLockReady;
alignas(8) unsigned char g_dirBuffer[kNativeDirBufferSize];

}  // namespace

void InitializeNativeDirBuffer() {
  if (g_dirBufferLockReady) return;
  MutexInitialize(&g_dirBufferLock, 0, "ZulKestDHWaitLock");
  g_dirBufferLockReady = true;
}

void TerminateNativeDirBuffer() {
  if (!g_dirBufferLockReady) return;
  MutexDestroy(&g_dirBufferLock);
  g_dirBufferLockReady = false;
}

void* AcquireNativeDirBuffer() {
  MutexLock(&g_dirBufferLock);
  return g_dirBuffer;
}

void ReleaseNativeDirBuffer() { MutexUnlock(&g_dirBufferLock); }

}  // namespace kest2
