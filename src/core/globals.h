// Process-wide state of the library: the parameters copy, the global lock
// set and the flags that say who created it.
//
// Thread-safety: the parameters copy is written only by initialisation,
// termination and zulKestUpdateParameters, which the host calls while no
// request is in flight; the run-time adjustable words that other threads read
// while they may change (debugFlags, hooks) are read with the accessors
// below, which use relaxed atomic loads.
#ifndef KEST2_SRC_CORE_GLOBALS_H_
#define KEST2_SRC_CORE_GLOBALS_H_

#include <cstdint>

#include "core/platform.h"
#include "kest2.h"

namespace kest2 {

// The library's copy of the caller's parameters.  Its `initialized` bit is
// the library's initialised state.
extern ZulKestParams g_KestParams;

// The default and largest path length (terminator included).
constexpr uint32_t kDefaultPathMax = 1024;

// pathMax of the parameters copy; before the first initialisation the
// default applies.
inline uint32_t PathMax() {
  uint32_t pathMax = g_KestParams.pathMax;
  return pathMax == 0 ? kDefaultPathMax : pathMax;
}

inline uint32_t DebugFlags() { return __atomic_load_n(&g_KestParams.debugFlags, __ATOMIC_RELAXED); }

inline bool IsInitialized() {
  return (__atomic_load_n(&g_KestParams.header, __ATOMIC_ACQUIRE) & 1u) != 0;
}

inline ZulKestVprintfHook VprintfHook() {
  return __atomic_load_n(&g_KestParams.pVprintf, __ATOMIC_RELAXED);
}

inline ZulKestEventHook EventHook() {
  return __atomic_load_n(&g_KestParams.pEventCallback, __ATOMIC_RELAXED);
}

// The suspend count: while above 0 no scheduler thread takes a chunk.
// Changed only atomically (control.cc).
extern int32_t g_suspendCount;
inline int32_t SuspendCount() { return __atomic_load_n(&g_suspendCount, __ATOMIC_ACQUIRE); }

// The global lock set, created together and destroyed together.
//
// Lock order, outermost first; a thread takes a lock only while holding
// ones above it in this list:
//   0. "ZulKestDHWaitLock": an overlay listing that borrows the shared
//      native directory buffer holds it around its whole open
//   1. the filter table lock "ZulKestIOFilter" (read, for a whole walk) and
//      the overlay table lock
//   2. a filter's own lock: the dearchiver's "ZulKestDearchiver" (recursive)
//      or a RAM cache's "ZulKestRamcache"
//   3. one scheduler's "ZulKestScheduler" (never two at once: kicks of other
//      schedulers wait until the own mutex is released)
//   4. the chunk lock "ZulKestChunk" (recursive)
//   5. innermost, holding nothing below them: the zlib codec's "ZulKestZlib",
//      "ZulKestOpWait", "ZulKestDefaultOpAttr"
// No engine lock is held while a chunk's handler runs.  A filter offering
// its own chunks to later filters on a scheduler thread reads the filter
// table without the filter lock, because it already holds the chunk lock.
// Clang checks the annotated requirements (core/thread_annotations.h); the
// order itself is this comment's.
struct GlobalLocks {
  HybPlatformRwlock defaultAttr;  // "ZulKestDefaultOpAttr"
  HybPlatformMutex opWaitMutex;   // "ZulKestOpWait"
  HybPlatformCond opWaitCond;     // "ZulKestOpWait"
  HybPlatformMutex chunk;         // "ZulKestChunk", recursive
  HybPlatformRwlock filter;       // "ZulKestIOFilter"
  HybPlatformMutex dirHandle;     // "ZulKestDirHandle": part of the set, taken by nothing
  HybPlatformRwlock overlay;      // default name
};

extern GlobalLocks g_locks;

// True while the global lock set exists.
bool LocksCreated();

// The automatic-initialisation flag: a host that initialises the library on
// the application's behalf sets it before its own zulKestInitialize, so that
// the application's later call is reported as a repeated "auto-"
// initialisation.
void SetAutoInitialized(bool value);
bool AutoInitialized();

// The count of installed overlays, kept by the overlay entry points.
extern int32_t g_overlayCount;

// Creates the global lock set when it does not exist; returns true when this
// call created it.
bool CreateGlobalLocks();
// Destroys the lock set when it exists and clears both lock flags.
void DestroyGlobalLocks();
// True when the current lock set was created by zulKestInitialize (and is
// therefore destroyed by zulKestTerminate).
bool LocksCreatedByInitialize();
void SetLocksCreatedByInitialize(bool value);

}  // namespace kest2

#endif  // KEST2_SRC_CORE_GLOBALS_H_
