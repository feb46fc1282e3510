// What the library needs from the operating system's thread library: locks,
// condition variables, read-write locks, threads, sleeping, clocks and the
// calendar.  Every other file takes its locks, threads and clocks from here
// (and its file calls from core/system_calls.h); the POSIX port is
// platform_posix.cc.
//
// Failure rule: a call that cannot legitimately fail (initialising, locking,
// unlocking, waiting, signalling, joining, destroying) stops the process at
// once through FatalStop().  Only two soft outcomes reach callers: a timed
// wait that times out, and the result of a thread creation.
//
// Thread-safety: every function may be called from any thread.  A mutex's
// owner bookkeeping is written only by the thread that holds (or is about to
// release) it; condition waits hand ownership over explicitly.
#ifndef KEST2_SRC_CORE_PLATFORM_H_
#define KEST2_SRC_CORE_PLATFORM_H_

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "core/thread_annotations.h"

struct tm;

namespace kest2 {

using ThreadId = uint64_t;

// Kernel result codes are 0x80020000 plus an errno number.
constexpr int32_t kKernelErrorBase = static_cast<int32_t>(0x80020000u);
constexpr int32_t kKernelErrorInvalid = kKernelErrorBase + 22;   // EINVAL
constexpr int32_t kKernelErrorTimedOut = kKernelErrorBase + 60;  // time-out
inline int32_t KernelResultFromErrno(int err) {
  return err == 0 ? 0 : kKernelErrorBase + err;
}

// Stops the process at once (an undefined-instruction trap); prints nothing.
[[noreturn]] void FatalStop();

// --- Mutexes -------------------------------------------------------------

constexpr int kMutexRecursive = 1;  // any other kind is non-recursive

struct CAPABILITY("mutex") HybPlatformMutex {
  pthread_mutex_t mutex;
  ThreadId owner;          // holder, 0 when unowned
  int32_t recursionCount;  // -1: non-recursive; else nesting depth
  const char* name;        // kept for diagnostics
};

// Recursive for kind 1; adaptive (a short spin before sleeping) where the
// system has that kind.
void MutexInitialize(HybPlatformMutex* mutex, int kind, const char* name);
void MutexLock(HybPlatformMutex* mutex) ACQUIRE(mutex);
// REQUIRES: the calling thread holds the mutex (fatal otherwise).
void MutexUnlock(HybPlatformMutex* mutex) RELEASE(mutex);
// REQUIRES: the mutex is unowned (fatal otherwise).
void MutexDestroy(HybPlatformMutex* mutex);
// The holder's thread id, 0 when unowned.
ThreadId MutexOwner(const HybPlatformMutex* mutex);

// Scoped lock for C++ callers, over any mutex with MutexLock and
// MutexUnlock (the kind is deduced: MutexLocker lock(&mutex)).
template <typename Mutex>
class SCOPED_CAPABILITY MutexLocker {
 public:
  explicit MutexLocker(Mutex* mutex) ACQUIRE(mutex) : m_mutex(mutex) { MutexLock(m_mutex); }
  ~MutexLocker() RELEASE() { MutexUnlock(m_mutex); }
  MutexLocker(const MutexLocker&) = delete;
  MutexLocker& operator=(const MutexLocker&) = delete;

 private:
  Mutex* m_mutex;
};

// --- Condition variables -------------------------------------------------

struct HybPlatformCond {
  pthread_cond_t cond;
  HybPlatformMutex* mutex;  // the mutex it is always used with
  const char* name;
};

void CondInitialize(HybPlatformCond* cond, HybPlatformMutex* mutex,
                    const char* name);
void CondDestroy(HybPlatformCond* cond);
// REQUIRES (all four): the calling thread holds cond->mutex (fatal
// otherwise).
void CondWait(HybPlatformCond* cond);
// deadline is a time of the platform microsecond clock (NowMicroseconds).
// Returns true when woken, false on time-out.  A deadline more than 2^32
// microseconds away waits for the remainder modulo 2^32: callers re-check
// their condition after every return.
bool CondTimedWait(HybPlatformCond* cond, int64_t deadlineMicroseconds);
void CondSignal(HybPlatformCond* cond);
void CondBroadcast(HybPlatformCond* cond);

// --- Read-write locks ----------------------------------------------------

struct CAPABILITY("rwlock") HybPlatformRwlock {
  pthread_rwlock_t lock;
  const char* name;
};

// A null name gives "HybPlatformRwlock".
void RwlockInitialize(HybPlatformRwlock* rwlock, const char* name);
void RwlockDestroy(HybPlatformRwlock* rwlock);
void RwlockReadLock(HybPlatformRwlock* rwlock) ACQUIRE_SHARED(rwlock);
void RwlockReadUnlock(HybPlatformRwlock* rwlock) RELEASE_SHARED(rwlock);
void RwlockWriteLock(HybPlatformRwlock* rwlock) ACQUIRE(rwlock);
void RwlockWriteUnlock(HybPlatformRwlock* rwlock) RELEASE(rwlock);

// --- Threads -------------------------------------------------------------

constexpr int kThreadNameSize = 16;

struct HybPlatformThreadParams {
  int64_t stackSize;      // bytes; 0 keeps the system default
  uint64_t affinityMask;  // CPU mask; 0 keeps the system default
  // Scheduling priority on the console scale, where lower numbers are more
  // urgent (the library's defaults are 260 for I/O and callback threads and
  // 700 for decompressors); 0 inherits the creator's scheduling.  Linux
  // time-sharing threads have no static priority, so the port maps the value
  // onto the thread's nice value: (priority - 260) / 128, clamped to
  // -20..19.  Raising urgency above the creator's needs privileges; when it
  // is refused the thread keeps the creator's scheduling.
  int32_t priority;
  uint32_t reserved;
  char name[kThreadNameSize];  // empty: "HybPlatformThread"
};

// One per thread, owned by the creator and kept alive for the thread's life.
struct HybPlatformThreadStart {
  ThreadId threadId;  // 0 when no thread is attached
  void (*entry)(void* argument);
  void* argument;
  char name[kThreadNameSize];  // at most 15 characters, NUL-terminated
  pthread_t thread;            // the port's join handle
  int32_t niceValue;           // the port's mapping of the priority
  bool applyNice;
};

// Creates a joinable thread running entry(argument).  params may be null.
// Returns 0 or a kernel result code; kKernelErrorInvalid for a null start or
// entry.
int32_t CreateThread(HybPlatformThreadStart* start,
                     const HybPlatformThreadParams* params,
                     void (*entry)(void* argument), void* argument);
// Waits for the thread to end; the caller then clears start->threadId.
void JoinThread(HybPlatformThreadStart* start);
ThreadId CurrentThreadId();
// The calling thread's name as the system keeps it (at most 15 characters),
// into name (at least kThreadNameSize bytes); false when it cannot be had.
bool CurrentThreadName(char* name, size_t size);
bool ThreadIdEqual(ThreadId a, ThreadId b);
// One step of a spin-wait: lets the other threads of this core run.
void YieldProcessor();
// How long a thread about to sleep first watches for what it waits for:
// falling asleep and being woken costs tens of microseconds on a virtual
// machine, more than a whole small request.
constexpr int64_t kSpinBeforeSleepMicroseconds = 50;

// --- Locks in static storage ----------------------------------------------

// A plain lock that needs no initialising call, for state that exists before
// the library is initialised (filter installs): never recursive, no owner
// bookkeeping.
struct CAPABILITY("mutex") HybPlatformStaticMutex {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};
void MutexLock(HybPlatformStaticMutex* mutex) ACQUIRE(mutex);
void MutexUnlock(HybPlatformStaticMutex* mutex) RELEASE(mutex);

// --- Clocks, calendar and sleeping -----------------------------------------

// Nanoseconds of the monotonic clock.
int64_t MonotonicNanoseconds();
// The processor's time-stamp counter (nanoseconds of the monotonic clock
// where there is none): the time base of the profiling events.
uint64_t CycleCounter();
// UTC calendar fields of seconds since the epoch.
void UtcFromSeconds(int64_t seconds, struct tm* fields);
// Seconds since the epoch of UTC calendar fields (normalised as the C
// library does); -1 when they cannot be represented.
int64_t SecondsFromUtc(struct tm* fields);

// Microseconds since the Unix epoch (UTC) of the time-of-day clock; used
// for dates, timed waits and sleeps.
int64_t NowMicroseconds();
// Yields the core until done() or kSpinBeforeSleepMicroseconds have
// passed; returns done().
template <typename Done>
bool SpinBeforeSleep(Done done) {
  const int64_t until = NowMicroseconds() + kSpinBeforeSleepMicroseconds;
  while (!done()) {
    if (NowMicroseconds() >= until) return false;
    YieldProcessor();
  }
  return true;
}
inline int64_t MicrosecondsToNanoseconds(int64_t x) { return x * 1000; }
// Rounds positive values up.
inline int64_t NanosecondsToMicroseconds(int64_t x) { return (x + 999) / 1000; }
// Sleeps at least once (0 yields for 1 microsecond) and resumes when woken
// early.  Negative ms is fatal.
void SleepMilliseconds(int64_t ms);

// --- Debugging ---------------------------------------------------------------

// True when a tracer (a debugger) is attached to the process.
bool DebuggerAttached();
// Stops in the attached debugger (a breakpoint trap).
void BreakIntoDebugger();

}  // namespace kest2

#endif  // KEST2_SRC_CORE_PLATFORM_H_
