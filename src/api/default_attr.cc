// Default operation attributes: one set for the whole process (guarded by the
// "ZulKestDefaultOpAttr" read-write lock) and one per thread (thread-local,
// no lock).  A request without attributes takes the calling thread's set when
// it has one, else the process's, else all zero.

#include <cstring>

#include "core/globals.h"
#include "debug/trace.h"
#include "kest2.h"

namespace kest2 {
namespace {

ZulKestOpAttr g_globalDefaults GUARDED_BY(g_locks.defaultAttr);
bool g_globalDefaultsSet;  // read without the lock before the locked copy

thread_local ZulKestOpAttr t_threadDefaults;
thread_local bool t_threadDefaultsSet;

bool IsAllZero(const ZulKestOpAttr* attr) {
  static const ZulKestOpAttr kZero{};
  return std::memcmp(attr, &kZero, sizeof(ZulKestOpAttr)) == 0;
}

bool GlobalDefaultsSet() {
  return __atomic_load_n(&g_globalDefaultsSet, __ATOMIC_ACQUIRE);
}

// The lock exists only with the global lock set; before that the host is
// single-threaded by contract and the record is used without it.  (That
// condition is beyond the analysis.)
void ReadLockDefaults() ACQUIRE_SHARED(g_locks.defaultAttr) NO_THREAD_SAFETY_ANALYSIS {
  if (LocksCreated()) RwlockReadLock(&g_locks.defaultAttr);
}
void ReadUnlockDefaults() RELEASE_SHARED(g_locks.defaultAttr) NO_THREAD_SAFETY_ANALYSIS {
  if (LocksCreated()) RwlockReadUnlock(&g_locks.defaultAttr);
}
void WriteLockDefaults() ACQUIRE(g_locks.defaultAttr) NO_THREAD_SAFETY_ANALYSIS {
  if (LocksCreated()) RwlockWriteLock(&g_locks.defaultAttr);
}
void WriteUnlockDefaults() RELEASE(g_locks.defaultAttr) NO_THREAD_SAFETY_ANALYSIS {
  if (LocksCreated()) RwlockWriteUnlock(&g_locks.defaultAttr);
}

}  // namespace
}  // namespace kest2

using namespace kest2;

extern "C" void zulKestSetGlobalDefaultOpAttr(const ZulKestOpAttr* attr) {
  KEST2_TRACE_API("zulKestSetGlobalDefaultOpAttr");
  WriteLockDefaults();
  if (attr == nullptr || IsAllZero(attr)) {
    std::memset(&g_globalDefaults, 0, sizeof(g_globalDefaults));
    __atomic_store_n(&g_globalDefaultsSet, false, __ATOMIC_RELEASE);
  } else {
    std::memcpy(&g_globalDefaults, attr, sizeof(g_globalDefaults));
    __atomic_store_n(&g_globalDefaultsSet, true, __ATOMIC_RELEASE);
  }
  WriteUnlockDefaults();
}

extern "C" bool zulKestGetGlobalDefaultOpAttr(ZulKestOpAttr* out) {
  KEST2_TRACE_API("zulKestGetGlobalDefaultOpAttr");
  if (out == nullptr) return false;
  if (!GlobalDefaultsSet()) {
    std::memset(out, 0, sizeof(*out));
    return false;
  }
  ReadLockDefaults();
  std::memcpy(out, &g_globalDefaults, sizeof(*out));
  ReadUnlockDefaults();
  return true;
}

extern "C" void zulKestSetThreadDefaultOpAttr(const ZulKestOpAttr* attr) {
  KEST2_TRACE_API("zulKestSetThreadDefaultOpAttr");
  if (attr == nullptr) {
    std::memset(&t_threadDefaults, 0, sizeof(t_threadDefaults));
    t_threadDefaultsSet = false;
  } else {
    std::memcpy(&t_threadDefaults, attr, sizeof(t_threadDefaults));
    t_threadDefaultsSet = true;
  }
}

extern "C" bool zulKestGetThreadDefaultOpAttr(ZulKestOpAttr* out) {
  KEST2_TRACE_API("zulKestGetThreadDefaultOpAttr");
  if (out == nullptr) return false;
  std::memcpy(out, &t_threadDefaults, sizeof(*out));
  return t_threadDefaultsSet;
}

extern "C" void zulKestGetDefaultOpAttr(ZulKestOpAttr* out) {
  KEST2_TRACE_API("zulKestGetDefaultOpAttr");
  if (out == nullptr) return;
  if (t_threadDefaultsSet) {
    std::memcpy(out, &t_threadDefaults, sizeof(*out));
  } else if (GlobalDefaultsSet()) {
    ReadLockDefaults();
    std::memcpy(out, &g_globalDefaults, sizeof(*out));
    ReadUnlockDefaults();
  } else {
    std::memset(out, 0, sizeof(*out));
  }
}
