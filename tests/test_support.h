// Small helpers shared by the tests.  The library's storage, scratch
// directories and random numbers come from tools/common, which the
// benchmarks, the fuzz targets and the kest2 program share.
#ifndef KEST2_TESTS_TEST_SUPPORT_H_
#define KEST2_TESTS_TEST_SUPPORT_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "kest2.h"

namespace kest2_test {

// Collects everything the library prints while it is alive, by installing a
// pVprintf hook in the library's parameters copy (and restoring the previous
// hook afterwards).  One capture at a time.
class OutputCapture {
 public:
  OutputCapture();
  ~OutputCapture();
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  // A copy: library threads may be appending while the test reads.
  std::string text() const;
  // The hook itself, for parameters records handed to zulKestInitialize
  // (which replaces the library's hook with the record's).
  static ZulKestVprintfHook Hook();
  void Clear();

 private:
  ZulKestVprintfHook m_previous;
};

// A whole file's bytes (empty when it cannot be read).
std::vector<uint8_t> ReadFile(const std::string& path);
// Writes a file whole, making its directories first.
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);
void WriteFile(const std::string& path, const std::string& text);

// The seed of a randomised test: KEST2_TEST_SEED when it is set, to replay
// a failure the test reported with its seed, else a fresh one.
uint32_t TestSeed();

// Waits until condition() holds, yielding between looks; false when it
// still does not after 30 s.  The bound only turns a hang into a failure:
// what a test checks must never depend on how long the wait took.
template <typename Condition>
bool WaitUntil(Condition condition) {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > giveUp) return condition();
    std::this_thread::yield();
  }
  return true;
}

// The calling thread's id as the system knows it, for AsleepInFutex.
pid_t SystemThreadId();
// Whether a thread of this process sleeps in the futex call, where every
// contended lock and condition of the system's blocks.  A thread that has
// reached a blocking call may not be asleep in it yet; a test that needs
// the sleep (a wake-up order, a lock that must be contended) asks this.
bool AsleepInFutex(pid_t thread);

// Switches trace modules while the library's threads may be reading them.
void SetDebugFlags(uint32_t flags);

// A dearchiver context over its work buffer: three parts of 70,000 bytes
// (a 64 KiB block and its row each), 64-byte aligned as the filter wants.
class DearchiverWork {
 public:
  DearchiverWork();
  DearchiverWork(const DearchiverWork&) = delete;
  DearchiverWork& operator=(const DearchiverWork&) = delete;
  ZulKestZorbaDearchiverContext* context() { return &m_context; }

 private:
  std::vector<uint64_t> m_buffer;
  ZulKestZorbaDearchiverContext m_context{};
};

// The process's open descriptors, counted in /proc/self/fd (the count
// includes the one the listing itself holds, the same in every call).
size_t OpenDescriptors();

}  // namespace kest2_test

#endif  // KEST2_TESTS_TEST_SUPPORT_H_
