// POSIX port of the platform layer: pthreads, clock_gettime,
// gettimeofday, the C library's UTC calendar and /proc for the debugger.  See platform.h for the
// contract and the failure rule.

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "core/platform.h"

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace kest2 {
namespace {

constexpr const char* kDefaultThreadName = "HybPlatformThread";
constexpr const char* kDefaultRwlockName = "HybPlatformRwlock";

// Linux places the thread's static TLS and (under sanitizers) shadow frames
// on its stack; tiny stacks that suffice on other systems overflow here.
#if defined(KEST2_SANITIZER_BUILD)
constexpr int64_t kMinimumStackSize = 1 << 20;
#else
constexpr int64_t kMinimumStackSize = 256 << 10;  // overlay resolution recurses
#endif

inline void CheckOk(int rc) {
  if (rc != 0) FatalStop();
}

inline ThreadId LoadOwner(const HybPlatformMutex* mutex) {
  return __atomic_load_n(&mutex->owner, __ATOMIC_RELAXED);
}

inline void StoreOwner(HybPlatformMutex* mutex, ThreadId owner) {
  __atomic_store_n(&mutex->owner, owner, __ATOMIC_RELAXED);
}

void RequireOwner(const HybPlatformMutex* mutex) {
  if (mutex == nullptr || !ThreadIdEqual(LoadOwner(mutex), CurrentThreadId()))
    FatalStop();
}

// Nice value for a console-scale priority (lower is more urgent).
int NiceFromPriority(int32_t priority) {
  int nice = (priority - 260) / 128;
  if (nice < -20) nice = -20;
  if (nice > 19) nice = 19;
  return nice;
}

void* ThreadTrampoline(void* raw) {
  HybPlatformThreadStart* start = static_cast<HybPlatformThreadStart*>(raw);
  // The record is valid inside the thread before the creator stores the id.
  __atomic_store_n(&start->threadId, CurrentThreadId(), __ATOMIC_RELEASE);
  // Named from inside, so the name is in place before the entry runs.
  pthread_setname_np(pthread_self(), start->name);
  if (start->applyNice) {
    // Best effort: becoming more urgent than the creator needs privileges;
    // when refused the thread keeps the creator's scheduling.
    pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
    (void)setpriority(PRIO_PROCESS, static_cast<id_t>(tid), start->niceValue);
  }
  start->entry(start->argument);
  return nullptr;
}

}  // namespace

[[noreturn]] void FatalStop() { __builtin_trap(); }

// --- Mutexes ---------------------------------------------------------------

void MutexInitialize(HybPlatformMutex* mutex, int kind, const char* name) {
  mutex->owner = 0;
  mutex->recursionCount = kind == kMutexRecursive ? 0 : -1;
  mutex->name = name;
  pthread_mutexattr_t attr;
  CheckOk(pthread_mutexattr_init(&attr));
#if defined(PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP)  // the kind itself is an enum
  const int plainType = PTHREAD_MUTEX_ADAPTIVE_NP;
#else
  const int plainType = PTHREAD_MUTEX_NORMAL;
#endif
  // Recursion is counted here, over the adaptive kind: a contended
  // recursive pthread mutex sleeps at once, while the chunk lock is held for
  // short stretches by threads that mostly run on the other core.
  CheckOk(pthread_mutexattr_settype(&attr, plainType));
  // No priority inheritance: the library's threads run under the
  // time-sharing scheduler (priorities become nice values), where boosting
  // a holder does nothing, while every contended PI mutex goes through the
  // kernel's rt-mutex path and cannot spin (4x slower at 16 reads in flight
  // with two I/O threads).
  CheckOk(pthread_mutex_init(&mutex->mutex, &attr));
  CheckOk(pthread_mutexattr_destroy(&attr));
}

void MutexLock(HybPlatformMutex* mutex) NO_THREAD_SAFETY_ANALYSIS {
  ThreadId self = CurrentThreadId();
  // Only this thread can have stored itself as the owner, so the relaxed
  // load answers "do I already hold it" without a race; the count is read
  // only once that is known.
  if (ThreadIdEqual(LoadOwner(mutex), self) && mutex->recursionCount >= 0) {
    ++mutex->recursionCount;
    return;
  }
  CheckOk(pthread_mutex_lock(&mutex->mutex));
  StoreOwner(mutex, self);
  if (mutex->recursionCount >= 0) mutex->recursionCount = 1;
}

void MutexUnlock(HybPlatformMutex* mutex) NO_THREAD_SAFETY_ANALYSIS {
  RequireOwner(mutex);
  if (mutex->recursionCount > 0 && --mutex->recursionCount != 0) return;
  StoreOwner(mutex, 0);
  CheckOk(pthread_mutex_unlock(&mutex->mutex));
}

void MutexDestroy(HybPlatformMutex* mutex) {
  if (!ThreadIdEqual(LoadOwner(mutex), 0)) FatalStop();
  CheckOk(pthread_mutex_destroy(&mutex->mutex));
  StoreOwner(mutex, 0);
}

ThreadId MutexOwner(const HybPlatformMutex* mutex) { return LoadOwner(mutex); }

// --- Condition variables ---------------------------------------------------

void CondInitialize(HybPlatformCond* cond, HybPlatformMutex* mutex,
                    const char* name) {
  pthread_condattr_t attr;
  CheckOk(pthread_condattr_init(&attr));
  // Timed waits are relative; measuring them on the monotonic clock keeps a
  // wall-clock step from stretching or cutting them.
  CheckOk(pthread_condattr_setclock(&attr, CLOCK_MONOTONIC));
  CheckOk(pthread_cond_init(&cond->cond, &attr));
  CheckOk(pthread_condattr_destroy(&attr));
  cond->mutex = mutex;
  cond->name = name;
}

void CondDestroy(HybPlatformCond* cond) {
  CheckOk(pthread_cond_destroy(&cond->cond));
  cond->mutex = nullptr;
}

void CondWait(HybPlatformCond* cond) {
  HybPlatformMutex* mutex = cond->mutex;
  RequireOwner(mutex);
  ThreadId self = CurrentThreadId();
  int32_t depth = mutex->recursionCount;  // others lock it meanwhile
  StoreOwner(mutex, 0);
  int rc = pthread_cond_wait(&cond->cond, &mutex->mutex);
  StoreOwner(mutex, self);
  mutex->recursionCount = depth;
  CheckOk(rc);
}

bool CondTimedWait(HybPlatformCond* cond, int64_t deadlineMicroseconds) {
  HybPlatformMutex* mutex = cond->mutex;
  RequireOwner(mutex);
  ThreadId self = CurrentThreadId();
  int32_t depth = mutex->recursionCount;  // others lock it meanwhile
  StoreOwner(mutex, 0);
  int64_t remaining = deadlineMicroseconds - NowMicroseconds();
  if (remaining < 0) remaining = 0;
  // The wait takes a 32-bit count of microseconds.
  uint32_t timeout = static_cast<uint32_t>(remaining);
  timespec until;
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += timeout / 1000000u;
  until.tv_nsec += static_cast<long>(timeout % 1000000u) * 1000;
  if (until.tv_nsec >= 1000000000L) {
    until.tv_sec += 1;
    until.tv_nsec -= 1000000000L;
  }
  int rc = pthread_cond_timedwait(&cond->cond, &mutex->mutex, &until);
  StoreOwner(mutex, self);
  mutex->recursionCount = depth;
  if (rc == ETIMEDOUT) return false;
  CheckOk(rc);
  return true;
}

void CondSignal(HybPlatformCond* cond) {
  RequireOwner(cond->mutex);
  CheckOk(pthread_cond_signal(&cond->cond));
}

void CondBroadcast(HybPlatformCond* cond) {
  RequireOwner(cond->mutex);
  CheckOk(pthread_cond_broadcast(&cond->cond));
}

// --- Read-write locks ------------------------------------------------------

void RwlockInitialize(HybPlatformRwlock* rwlock, const char* name) {
  rwlock->name = name != nullptr ? name : kDefaultRwlockName;
  CheckOk(pthread_rwlock_init(&rwlock->lock, nullptr));
}

void RwlockDestroy(HybPlatformRwlock* rwlock) {
  CheckOk(pthread_rwlock_destroy(&rwlock->lock));
}

void RwlockReadLock(HybPlatformRwlock* rwlock) NO_THREAD_SAFETY_ANALYSIS {
  CheckOk(pthread_rwlock_rdlock(&rwlock->lock));
}

void RwlockReadUnlock(HybPlatformRwlock* rwlock) NO_THREAD_SAFETY_ANALYSIS {
  CheckOk(pthread_rwlock_unlock(&rwlock->lock));
}

void RwlockWriteLock(HybPlatformRwlock* rwlock) NO_THREAD_SAFETY_ANALYSIS {
  CheckOk(pthread_rwlock_wrlock(&rwlock->lock));
}

void RwlockWriteUnlock(HybPlatformRwlock* rwlock) NO_THREAD_SAFETY_ANALYSIS {
  CheckOk(pthread_rwlock_unlock(&rwlock->lock));
}

// --- Threads ---------------------------------------------------------------

int32_t CreateThread(HybPlatformThreadStart* start,
                     const HybPlatformThreadParams* params,
                     void (*entry)(void* argument), void* argument) {
  if (start == nullptr || entry == nullptr) return kKernelErrorInvalid;
  pthread_attr_t attr;
  int rc = pthread_attr_init(&attr);
  if (rc != 0) return KernelResultFromErrno(rc);
  rc = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
  if (rc == 0 && params != nullptr) {
    if (params->affinityMask != 0) {
      cpu_set_t cpus;
      CPU_ZERO(&cpus);
      for (int cpu = 0; cpu < 64 && cpu < CPU_SETSIZE; ++cpu) {
        if ((params->affinityMask >> cpu) & 1u) CPU_SET(cpu, &cpus);
      }
      // A mask naming no usable processor is not an error.
      (void)pthread_attr_setaffinity_np(&attr, sizeof(cpus), &cpus);
    }
    if (params->stackSize != 0) {
      int64_t stackSize = params->stackSize;
      if (stackSize < kMinimumStackSize) stackSize = kMinimumStackSize;
      rc = pthread_attr_setstacksize(&attr, static_cast<size_t>(stackSize));
    }
  }
  if (rc != 0) {
    pthread_attr_destroy(&attr);
    return KernelResultFromErrno(rc);
  }

  const char* name = (params != nullptr && params->name[0] != 0)
                         ? params->name
                         : kDefaultThreadName;
  std::memset(start->name, 0, sizeof(start->name));
  for (int i = 0; i < kThreadNameSize - 1 && name[i] != 0; ++i) start->name[i] = name[i];
  start->entry = entry;
  start->argument = argument;
  start->threadId = 0;
  start->applyNice = params != nullptr && params->priority != 0;
  start->niceValue = start->applyNice ? NiceFromPriority(params->priority) : 0;

  rc = pthread_create(&start->thread, &attr, ThreadTrampoline, start);
  pthread_attr_destroy(&attr);
  if (rc != 0) return KernelResultFromErrno(rc);
  __atomic_store_n(&start->threadId, static_cast<ThreadId>(start->thread),
                   __ATOMIC_RELEASE);
  return 0;
}

void JoinThread(HybPlatformThreadStart* start) {
  if (start == nullptr) FatalStop();
  CheckOk(pthread_join(start->thread, nullptr));
}

ThreadId CurrentThreadId() { return static_cast<ThreadId>(pthread_self()); }

bool CurrentThreadName(char* name, size_t size) {
  if (size < kThreadNameSize) return false;
  return pthread_getname_np(pthread_self(), name, size) == 0;
}

bool ThreadIdEqual(ThreadId a, ThreadId b) {
  if (a == 0 || b == 0) return a == b;
  return pthread_equal(static_cast<pthread_t>(a), static_cast<pthread_t>(b)) !=
         0;
}

void YieldProcessor() {
  // Yielding rather than pausing: with more spinners than cores, a thread
  // that has work must not wait for a spinner's time slice to end.
  sched_yield();
}

// --- Clocks and sleeping ---------------------------------------------------

int64_t NowMicroseconds() {
  timeval now;
  if (gettimeofday(&now, nullptr) != 0) FatalStop();
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

void SleepMilliseconds(int64_t ms) {
  if (ms < 0) FatalStop();
  int64_t deadline = NowMicroseconds() + ms * 1000;
  int64_t remaining = deadline - NowMicroseconds();
  if (remaining < 1) remaining = 1;
  while (remaining > 0) {
    uint32_t micros = static_cast<uint32_t>(remaining);
    timespec interval{static_cast<time_t>(micros / 1000000u),
                      static_cast<long>(micros % 1000000u) * 1000};
    nanosleep(&interval, nullptr);
    remaining = deadline - NowMicroseconds();
  }
}

// --- Locks in static storage ----------------------------------------------

void MutexLock(HybPlatformStaticMutex* mutex) NO_THREAD_SAFETY_ANALYSIS { CheckOk(pthread_mutex_lock(&mutex->mutex)); }

void MutexUnlock(HybPlatformStaticMutex* mutex) NO_THREAD_SAFETY_ANALYSIS {
  CheckOk(pthread_mutex_unlock(&mutex->mutex));
}

// --- Clocks and calendar ---------------------------------------------------

int64_t MonotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

uint64_t CycleCounter() {
#if defined(__x86_64__) || defined(__i386__)
  return __rdtsc();
#else
  return static_cast<uint64_t>(MonotonicNanoseconds());
#endif
}

void UtcFromSeconds(int64_t seconds, struct tm* fields) {
  const time_t t = static_cast<time_t>(seconds);
  gmtime_r(&t, fields);
}

int64_t SecondsFromUtc(struct tm* fields) {
  const time_t seconds = timegm(fields);
  return seconds == static_cast<time_t>(-1) ? -1 : static_cast<int64_t>(seconds);
}

// --- Debugging ---------------------------------------------------------------

bool DebuggerAttached() {
  FILE* status = std::fopen("/proc/self/status", "r");
  if (status == nullptr) return false;
  char line[256];
  bool attached = false;
  while (std::fgets(line, sizeof(line), status) != nullptr) {
    if (std::strncmp(line, "TracerPid:", 10) == 0) {
      int pid = 0;
      attached = std::sscanf(line + 10, "%d", &pid) == 1 && pid != 0;
      break;
    }
  }
  std::fclose(status);
  return attached;
}

void BreakIntoDebugger() { raise(SIGTRAP); }

}  // namespace kest2
