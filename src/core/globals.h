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
struct GlobalLocks {
  HybPlatformRwlock defaultAttr;  // "ZulKestDefaultOpAttr"
  HybPlatformMutex opWaitMutex;   // "ZulKestOpWait"
  HybPlatformCond opWaitCond;     // "ZulKestOpWait"
  HybPlatformMutex chunk;         // "ZulKestChunk", recursive
  HybPlatformRwlock filter;       // "ZulKestIOFilter"
  HybPlatformMutex dirHandle;     // "ZulKestDirHandle"
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
