// Makes the system fail the library: swaps entries of the system call table
// (core/system_calls.h) for wrappers that fail on cue and otherwise call
// the system, and puts the table back at destruction.  One instance at a
// time; arm it before the requests that should meet the fault.
#ifndef KEST2_TESTS_CORE_SYSTEM_FAULTS_H_
#define KEST2_TESTS_CORE_SYSTEM_FAULTS_H_

#include <cstddef>
#include <cstdint>

namespace kest2_test {

// What a fault could leave taken: the library's operations, handles, chunks
// and queued callbacks, and the process's open descriptors.
struct ResourceCounts {
  uint64_t operations = 0;
  uint64_t fileHandles = 0;
  uint64_t directoryHandles = 0;
  uint64_t chunks = 0;
  uint64_t callbackQueue = 0;
  size_t descriptors = 0;

  static ResourceCounts Now();
  // The counts once they have stopped changing: a synchronous call returns
  // when its operation is done, and the thread that completed it may still
  // be releasing the operation's chunk tree.
  static ResourceCounts Settled();
  bool operator==(const ResourceCounts& other) const {
    return operations == other.operations && fileHandles == other.fileHandles &&
           directoryHandles == other.directoryHandles && chunks == other.chunks &&
           callbackQueue == other.callbackQueue && descriptors == other.descriptors;
  }
};
// Adds a test failure for every count that differs from `before` once the
// library's threads have had up to two seconds to get back to it.
void ExpectResourcesBack(const ResourceCounts& before);

class SystemFaults {
 public:
  enum Call {
    kOpen,
    kOpenDirectory,
    kClose,
    kPread,
    kPwrite,
    kFsync,
    kStat,
    kFstat,
    kGetdents,
    kCallCount
  };

  SystemFaults();
  ~SystemFaults();
  SystemFaults(const SystemFaults&) = delete;
  SystemFaults& operator=(const SystemFaults&) = delete;

  // Counting from now, the nth call (1-based) of `call` and the times - 1
  // after it fail with err instead of reaching the system (times -1: every
  // call from the nth on).  A failed close still closes the descriptor, as
  // Linux does.
  void Fail(Call call, uint64_t nth, int err, int64_t times = 1);
  // The nth pread transfers at most `bytes` bytes: a short read.
  void ShortRead(uint64_t nth, uint64_t bytes);
  // Every call of every wrapped entry is interrupted (EINTR) once before it
  // reaches the system.
  void InterruptEveryCallOnce();
  // Calls of `call` that reached a wrapper since construction, interrupted
  // ones included.
  uint64_t Calls(Call call) const;
  // Calls of `call` that failed on cue.
  uint64_t Injected(Call call) const;
};

}  // namespace kest2_test

#endif  // KEST2_TESTS_CORE_SYSTEM_FAULTS_H_
