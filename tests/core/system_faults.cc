#include "core/system_faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "core/system_calls.h"
#include "kest2.h"
#include "test_support.h"

namespace kest2_test {
namespace {

using kest2::SystemCalls;
using kest2::SystemStat;

struct Rule {
  std::atomic<uint64_t> calls{0};
  std::atomic<uint64_t> injected{0};
  std::atomic<uint64_t> nth{0};  // 0: no failure armed
  std::atomic<int64_t> remaining{0};
  std::atomic<int> err{0};
};

Rule g_rules[SystemFaults::kCallCount];
std::atomic<uint64_t> g_shortNth{0};
std::atomic<uint64_t> g_shortBytes{0};
std::atomic<bool> g_interruptOnce{false};
// Per thread: the last call was interrupted, so its retry goes through.
thread_local bool t_interrupted = false;

const SystemCalls& Real() { return kest2::DefaultSystemCalls(); }

// The answer a wrapper gives instead of the system's, or 0 to call it.
int64_t Cue(SystemFaults::Call call) {
  Rule& rule = g_rules[call];
  const uint64_t n = rule.calls.fetch_add(1) + 1;
  if (g_interruptOnce.load()) {
    t_interrupted = !t_interrupted;
    if (t_interrupted) return -EINTR;
  }
  const uint64_t nth = rule.nth.load();
  if (nth == 0 || n < nth) return 0;
  int64_t left = rule.remaining.load();
  while (left != 0) {
    if (rule.remaining.compare_exchange_weak(left, left < 0 ? left : left - 1)) {
      rule.injected.fetch_add(1);
      return -rule.err.load();
    }
  }
  return 0;
}

int32_t Open(const char* path, int32_t flags, uint32_t mode) {
  const int64_t cue = Cue(SystemFaults::kOpen);
  return cue != 0 ? static_cast<int32_t>(cue) : Real().open(path, flags, mode);
}
int32_t OpenDirectory(const char* path) {
  const int64_t cue = Cue(SystemFaults::kOpenDirectory);
  return cue != 0 ? static_cast<int32_t>(cue) : Real().openDirectory(path);
}
int32_t Close(int32_t fd) {
  const int64_t cue = Cue(SystemFaults::kClose);
  if (cue == 0) return Real().close(fd);
  // Linux releases the descriptor whatever close reports.
  Real().close(fd);
  return static_cast<int32_t>(cue);
}
int64_t Pread(int32_t fd, void* buffer, uint64_t count, int64_t offset) {
  const uint64_t shortNth = g_shortNth.load();
  const int64_t cue = Cue(SystemFaults::kPread);
  if (cue != 0) return cue;
  if (shortNth != 0 && g_rules[SystemFaults::kPread].calls.load() == shortNth)
    count = std::min<uint64_t>(count, g_shortBytes.load());
  return Real().pread(fd, buffer, count, offset);
}
int64_t Pwrite(int32_t fd, const void* buffer, uint64_t count, int64_t offset) {
  const int64_t cue = Cue(SystemFaults::kPwrite);
  return cue != 0 ? cue : Real().pwrite(fd, buffer, count, offset);
}
int32_t Fsync(int32_t fd) {
  const int64_t cue = Cue(SystemFaults::kFsync);
  return cue != 0 ? static_cast<int32_t>(cue) : Real().fsync(fd);
}
int32_t Stat(const char* path, SystemStat* out) {
  const int64_t cue = Cue(SystemFaults::kStat);
  return cue != 0 ? static_cast<int32_t>(cue) : Real().stat(path, out);
}
int32_t Fstat(int32_t fd, SystemStat* out) {
  const int64_t cue = Cue(SystemFaults::kFstat);
  return cue != 0 ? static_cast<int32_t>(cue) : Real().fstat(fd, out);
}
int64_t Getdents(int32_t fd, void* buffer, uint64_t size) {
  const int64_t cue = Cue(SystemFaults::kGetdents);
  return cue != 0 ? cue : Real().getdents(fd, buffer, size);
}

}  // namespace

SystemFaults::SystemFaults() {
  for (Rule& rule : g_rules) {
    rule.calls = 0;
    rule.injected = 0;
    rule.nth = 0;
    rule.remaining = 0;
  }
  g_shortNth = 0;
  g_interruptOnce = false;
  SystemCalls& table = kest2::SystemCallTable();
  table.open = Open;
  table.openDirectory = OpenDirectory;
  table.close = Close;
  table.pread = Pread;
  table.pwrite = Pwrite;
  table.fsync = Fsync;
  table.stat = Stat;
  table.fstat = Fstat;
  table.getdents = Getdents;
}

SystemFaults::~SystemFaults() { kest2::SystemCallTable() = kest2::DefaultSystemCalls(); }

void SystemFaults::Fail(Call call, uint64_t nth, int err, int64_t times) {
  Rule& rule = g_rules[call];
  rule.err = err;
  rule.remaining = times;
  rule.nth = rule.calls.load() + nth;
}

void SystemFaults::ShortRead(uint64_t nth, uint64_t bytes) {
  g_shortBytes = bytes;
  g_shortNth = g_rules[kPread].calls.load() + nth;
}

void SystemFaults::InterruptEveryCallOnce() { g_interruptOnce = true; }

uint64_t SystemFaults::Calls(Call call) const { return g_rules[call].calls.load(); }

uint64_t SystemFaults::Injected(Call call) const { return g_rules[call].injected.load(); }

ResourceCounts ResourceCounts::Now() {
  ZulKestStatistics statistics;
  zulKestStatisticsGet(&statistics);
  ResourceCounts counts;
  counts.operations = statistics.opStorage.current;
  counts.fileHandles = statistics.fhStorage.current;
  counts.directoryHandles = statistics.dhStorage.current;
  counts.chunks = statistics.chunkStorage.current;
  counts.callbackQueue = statistics.callbackQueue.current;
  counts.descriptors = OpenDescriptors();
  return counts;
}

ResourceCounts ResourceCounts::Settled() {
  ResourceCounts last = Now();
  for (int same = 0, wait = 0; same < 3 && wait < 200; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const ResourceCounts now = Now();
    same = now == last ? same + 1 : 0;
    last = now;
  }
  return last;
}

void ExpectResourcesBack(const ResourceCounts& before) {
  ResourceCounts now;
  WaitUntil([&] {
    now = ResourceCounts::Now();
    return now == before;
  });
  EXPECT_EQ(now.operations, before.operations) << "operations";
  EXPECT_EQ(now.fileHandles, before.fileHandles) << "file handles";
  EXPECT_EQ(now.directoryHandles, before.directoryHandles) << "directory handles";
  EXPECT_EQ(now.chunks, before.chunks) << "chunks";
  EXPECT_EQ(now.callbackQueue, before.callbackQueue) << "queued callbacks";
  EXPECT_EQ(now.descriptors, before.descriptors) << "open descriptors";
}

}  // namespace kest2_test
