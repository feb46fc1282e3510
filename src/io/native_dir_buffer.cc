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

// The lock stands for the buffer, which its holder may keep across calls:
// the analysis does not follow it.
void* AcquireNativeDirBuffer() NO_THREAD_SAFETY_ANALYSIS {
  MutexLock(&g_dirBufferLock);
  return g_dirBuffer;
}

void ReleaseNativeDirBuffer() NO_THREAD_SAFETY_ANALYSIS { MutexUnlock(&g_dirBufferLock); }

}  // namespace kest2
