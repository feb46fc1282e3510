// The zlib codec's worker pool on real zlib streams: the wanted range and
// nothing else reaches the destination, failures keep zlib's codes, jobs
// from several threads all finish while the active count changes, only
// active workers are woken, and the codec starts and stops cleanly.

#include "archive/zlib_codec.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "archive/decompression_job.h"
#include "archive/zorba_format.h"
#include "common/random.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2::Codec;
using kest2::DecompressionJob;
using kest2::JobEvent;
using kest2::kJobPublished;
using Bytes = std::vector<uint8_t>;

const Codec* Zlib() { return kest2::ZlibCodec(); }

struct Block {
  Bytes plain;
  Bytes compressed;
};

// Letters with frequent short back-references, compressed by zlib.
Block MakeCompressedBlock(size_t size, uint32_t seed) {
  kest2_common::Random random(seed);
  Block block{Bytes(size), Bytes(compressBound(size))};
  Bytes& data = block.plain;
  for (size_t i = 0; i < size; ++i) {
    data[i] = i >= 1000 && random() % 4 != 0 ? data[i - 1000 + random() % 8]
                                             : static_cast<uint8_t>('a' + random() % 26);
  }
  uLongf length = block.compressed.size();
  EXPECT_EQ(compress2(block.compressed.data(), &length, data.data(), size, 6), Z_OK);
  block.compressed.resize(length);
  return block;
}

// A prepared job inflating `compressed` into output; the wanted range goes
// to destination.
DecompressionJob MakeJob(const Bytes& compressed, uint8_t* output, uint32_t outputSize,
                         uint8_t* destination, uint32_t offset, uint32_t wanted) {
  return DecompressionJob{nullptr,
                          Zlib()->tag,
                          kest2::kJobPrepared,
                          0,
                          nullptr,
                          compressed.data(),
                          output,
                          destination,
                          nullptr,
                          static_cast<uint32_t>(compressed.size()),
                          outputSize,
                          offset,
                          wanted,
                          0};
}

// A published job is no longer the codec's to pass on, so completion
// functions record globally.
std::atomic<int> g_completions{0};
void CountCompletion(DecompressionJob*, void*, JobEvent event) {
  if (event == kJobPublished) g_completions.fetch_add(1);
}

std::mutex g_namesMutex;
std::set<std::string> g_workerNames;
void RecordWorkerName(DecompressionJob*, void*, JobEvent) {
  char name[16] = {};
  pthread_getname_np(pthread_self(), name, sizeof(name));
  std::lock_guard<std::mutex> lock(g_namesMutex);
  g_workerNames.insert(name);
}

// Polls like the dearchiver does; false when the job never finishes.
bool AwaitDone(DecompressionJob* job) {
  return kest2_test::WaitUntil([job] { return Zlib()->isDone(job); });
}

kest2::ZlibCodecSleepers Sleepers() { return kest2::CountZlibCodecSleepers(); }

class ZlibCodecTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(Zlib()->init(3), 0); }
  void TearDown() override { Zlib()->terminate(); }
};

TEST_F(ZlibCodecTest, CopiesExactlyTheWantedRange) {
  const Block block = MakeCompressedBlock(70000, 1);
  const uint32_t size = static_cast<uint32_t>(block.plain.size());

  // The whole block inflates straight into the destination.
  Bytes whole(size);
  DecompressionJob job = MakeJob(block.compressed, whole.data(), size, whole.data(), 0, size);
  ASSERT_EQ(Zlib()->submit(&job), &job);
  int64_t produced = -1;
  EXPECT_EQ(Zlib()->wait(&job, &produced), Z_OK);
  EXPECT_EQ(produced, size);
  EXPECT_EQ(whole, block.plain);

  // Partial ranges go through a work buffer; a range running past the block
  // is cut at its end, and guard bytes around it stay untouched.
  struct Range {
    uint32_t offset, wanted, copied;
  };
  for (const Range& r : {Range{100, 5000, 5000}, Range{69000, 5000, 1000}, Range{size, 10, 0}}) {
    SCOPED_TRACE(r.offset);
    Bytes work(size);
    Bytes destination(r.wanted + 32, 0xEE);
    job = MakeJob(block.compressed, work.data(), size, destination.data() + 16, r.offset, r.wanted);
    ASSERT_EQ(Zlib()->submit(&job), &job);
    EXPECT_EQ(Zlib()->wait(&job, &produced), Z_OK);
    EXPECT_EQ(job.outputSize, size);
    EXPECT_TRUE(std::equal(block.plain.begin() + r.offset,
                           block.plain.begin() + r.offset + r.copied, destination.begin() + 16));
    for (size_t i = 0; i < destination.size(); ++i) {
      if (i < 16 || i >= 16 + r.copied) {
        ASSERT_EQ(destination[i], 0xEE) << i;
      }
    }
  }
}

TEST_F(ZlibCodecTest, FailedStreamsKeepZlibCodesAndCopyNothing) {
  const Block block = MakeCompressedBlock(20000, 2);
  const uint32_t size = static_cast<uint32_t>(block.plain.size());
  const Bytes untouched(size, 0xEE);
  Bytes work(size);
  Bytes destination;
  auto run = [&](const Bytes& compressed, uint32_t room) {
    destination = untouched;
    DecompressionJob job = MakeJob(compressed, work.data(), room, destination.data(), 0, size);
    EXPECT_EQ(Zlib()->submit(&job), &job);
    EXPECT_TRUE(AwaitDone(&job));
    return job;
  };

  // Every byte inflates, but the check value at the end does not match.
  Bytes badCheck = block.compressed;
  badCheck.back() ^= 1;
  DecompressionJob job = run(badCheck, size);
  EXPECT_EQ(job.result, Z_DATA_ERROR);
  EXPECT_EQ(destination, untouched);

  // A block that inflates to more than its length fails rather than passing
  // as a full block; so does garbage in the middle of a stream, however zlib
  // happens to decode it.
  job = run(block.compressed, size - 1);
  EXPECT_EQ(job.result, Z_BUF_ERROR);
  EXPECT_EQ(destination, untouched);
  for (size_t at = 10; at + 8 < block.compressed.size(); at += block.compressed.size() / 7) {
    Bytes garbled = block.compressed;
    for (size_t i = at; i < at + 8; ++i) garbled[i] ^= 0x5A;
    job = run(garbled, size);
    EXPECT_FALSE(job.result == Z_OK && job.outputSize == size) << at;
    if (job.result < 0) {
      EXPECT_EQ(destination, untouched) << at;
    }
  }

  // No room for output: inflate is not even tried.
  job = run(block.compressed, 0);
  EXPECT_EQ(job.result, Z_BUF_ERROR);
  EXPECT_EQ(job.outputSize, 0u);

  // Room to spare, or bytes after the end of the stream: the block is whole
  // and says how long it is, as zlib would.
  for (const Bytes& stream : {block.compressed, [&] {
                                Bytes trailing = block.compressed;
                                trailing.insert(trailing.end(), {1, 2, 3, 4});
                                return trailing;
                              }()}) {
    Bytes roomy(size + 100);
    DecompressionJob whole = MakeJob(stream, roomy.data(), size + 100, nullptr, 0, size);
    ASSERT_EQ(Zlib()->submit(&whole), &whole);
    ASSERT_TRUE(AwaitDone(&whole));
    EXPECT_EQ(whole.result, Z_OK);
    EXPECT_EQ(whole.outputSize, size);
    EXPECT_TRUE(std::equal(block.plain.begin(), block.plain.end(), roomy.begin()));
  }

  // A truncated stream reports its progress as a short output.
  job = run(Bytes(block.compressed.begin(), block.compressed.begin() + block.compressed.size() / 2),
            size);
  EXPECT_EQ(job.result, Z_OK);
  EXPECT_GT(job.outputSize, 0u);
  EXPECT_LT(job.outputSize, size);
}

TEST_F(ZlibCodecTest, RefusesUnpreparedJobs) {
  const Block block = MakeCompressedBlock(1000, 3);
  Bytes out(1000);
  DecompressionJob job = MakeJob(block.compressed, out.data(), 1000, out.data(), 0, 1000);
  job.jobFlags = kest2::kJobDone;  // done but never prepared
  EXPECT_EQ(Zlib()->submit(&job), nullptr);
  EXPECT_EQ(job.result, 0);
  EXPECT_EQ(job.jobFlags, kest2::kJobDone);
  EXPECT_EQ(Zlib()->submit(nullptr), nullptr);
  EXPECT_TRUE(Zlib()->isDone(nullptr));
  EXPECT_EQ(Zlib()->wait(nullptr, nullptr), -1);
}

// What a completion function saw of its job at each event.
struct CompletionSighting {
  DecompressionJob* job = nullptr;
  bool doneAtInflated = true;
  bool outputReadyAtInflated = false;
  bool doneAtPublished = false;
};
CompletionSighting g_sighting;
std::atomic<int> g_sightings{0};  // counted after each event's fields are written
DecompressionJob* g_watchedJob = nullptr;
const uint8_t* g_expectedOutput = nullptr;
int g_ownerMark;
void WatchCompletion(DecompressionJob* job, void* owner, JobEvent event) {
  EXPECT_EQ(owner, &g_ownerMark);
  if (event == kest2::kJobInflated) {
    // The owner gives its work buffers back here: the bytes must be out and
    // the job not yet published, or the owner could reuse it underneath.
    g_sighting.job = job;
    g_sighting.doneAtInflated = (kest2::LoadJobFlags(job) & kest2::kJobDone) != 0;
    g_sighting.outputReadyAtInflated =
        job->result == Z_OK &&
        std::memcmp(job->destination, g_expectedOutput, job->wantedLength) == 0;
  } else {
    EXPECT_EQ(job, nullptr);
    g_sighting.doneAtPublished = (kest2::LoadJobFlags(g_watchedJob) & kest2::kJobDone) != 0;
  }
  g_sightings.fetch_add(1);
}

TEST_F(ZlibCodecTest, CompletionHearsInflatedBeforeTheDoneBitThenPublished) {
  const Block block = MakeCompressedBlock(30000, 21);
  Bytes work(30000), destination(5000);
  DecompressionJob job =
      MakeJob(block.compressed, work.data(), 30000, destination.data(), 7000, 5000);
  job.completion = WatchCompletion;
  job.owner = &g_ownerMark;
  g_sighting = CompletionSighting{};
  g_sightings = 0;
  g_watchedJob = &job;
  g_expectedOutput = block.plain.data() + 7000;
  ASSERT_EQ(Zlib()->submit(&job), &job);
  ASSERT_TRUE(AwaitDone(&job));
  // The published event follows the done bit, which the owner may see first.
  ASSERT_TRUE(kest2_test::WaitUntil([] { return g_sightings.load() >= 2; }));
  ASSERT_EQ(g_sightings.load(), 2);
  EXPECT_EQ(g_sighting.job, &job);
  EXPECT_FALSE(g_sighting.doneAtInflated);
  EXPECT_TRUE(g_sighting.outputReadyAtInflated);
  EXPECT_TRUE(g_sighting.doneAtPublished);
}

// Four submitters, half of their jobs polled with completion functions and
// half waited for, while another thread keeps changing the active count.
TEST_F(ZlibCodecTest, JobsFromSeveralThreadsAllFinishWhileTheCountChanges) {
  kest2_test::OutputCapture capture;
  std::vector<Block> blocks;
  for (uint32_t i = 0; i < 6; ++i) blocks.push_back(MakeCompressedBlock(1000 + i * 13000, 10 + i));
  constexpr int kThreads = 4;
  constexpr int kJobsPerThread = 150;
  g_completions = 0;
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    const uint8_t counts[] = {1, 0, 2, 200, 3, 1};
    for (int i = 0; !stop; ++i) {
      Zlib()->setThreadCount(counts[i % 6]);
      // Only paces the changes so that the submitters get the lock too; the
      // test orders nothing by it and holds at any pace.
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  });
  std::atomic<int> failures{0};
  std::vector<std::thread> submitters;
  for (int t = 0; t < kThreads; ++t) {
    submitters.emplace_back([&, t] {
      kest2_common::Random random(100 + t);
      for (int n = 0; n < kJobsPerThread; ++n) {
        const Block& block = blocks[random() % blocks.size()];
        const uint32_t size = static_cast<uint32_t>(block.plain.size());
        const uint32_t offset = random() % size;
        const uint32_t wanted = 1 + random() % (size - offset);
        Bytes work(size), destination(wanted);
        DecompressionJob job =
            MakeJob(block.compressed, work.data(), size, destination.data(), offset, wanted);
        const bool polled = n % 2 == 0;
        if (polled) job.completion = CountCompletion;
        bool ok = Zlib()->submit(&job) == &job;
        int64_t produced = 0;
        if (ok && polled) ok = AwaitDone(&job) && job.result == Z_OK;
        if (ok && !polled) ok = Zlib()->wait(&job, &produced) == Z_OK && produced == size;
        ok = ok && job.outputSize == size &&
             std::equal(destination.begin(), destination.end(), block.plain.begin() + offset);
        if (!ok) failures.fetch_add(1);
      }
    });
  }
  for (std::thread& t : submitters) t.join();
  stop = true;
  changer.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(g_completions.load(), kThreads * kJobsPerThread / 2);
  // The arena held inflate's state and window every time.
  EXPECT_EQ(capture.text(), "");
}

TEST_F(ZlibCodecTest, WakesOnlyActiveWorkers) {
  // Every worker asleep first, so that none picks up the queue on its own.
  ASSERT_TRUE(kest2_test::WaitUntil([] { return Sleepers().parkedWorkers == 3; }));
  Zlib()->setThreadCount(1);
  g_workerNames.clear();
  const Block block = MakeCompressedBlock(40000, 4);
  std::vector<Bytes> outputs(40, Bytes(40000));
  std::vector<DecompressionJob> jobs;
  for (Bytes& out : outputs)
    jobs.push_back(MakeJob(block.compressed, out.data(), 40000, out.data(), 0, 40000));
  for (DecompressionJob& job : jobs) {
    job.completion = RecordWorkerName;
    ASSERT_EQ(Zlib()->submit(&job), &job);
  }
  for (DecompressionJob& job : jobs) ASSERT_TRUE(AwaitDone(&job));
  std::lock_guard<std::mutex> lock(g_namesMutex);
  EXPECT_EQ(g_workerNames, std::set<std::string>{"ZulKestZlib0"});
}

// Two threads wait for different jobs, and the first job to finish is the
// later waiter's.  Every finished job must wake every waiter, or the earlier
// one sleeps through the end of its own job.
TEST(ZlibCodecWaitTest, EveryFinishedJobWakesEveryWaiter) {
  ASSERT_EQ(Zlib()->init(1), 0);
  const Block first = MakeCompressedBlock(1000, 7);
  const Block second = MakeCompressedBlock(1 << 20, 8);
  Bytes firstOut(first.plain.size()), secondOut(second.plain.size());
  DecompressionJob firstJob =
      MakeJob(first.compressed, firstOut.data(), 1000, firstOut.data(), 0, 1000);
  DecompressionJob secondJob =
      MakeJob(second.compressed, secondOut.data(), 1 << 20, secondOut.data(), 0, 1 << 20);
  // Asleep in wait() in this order before either job is submitted: counted
  // there, and asleep in the system (a waiter still on its way to sleep
  // would take the first wake-up whoever it was meant for).
  auto asleepInWait = [](int waiters, const std::atomic<pid_t>& waiter) {
    return kest2_test::WaitUntil([&] {
      return Sleepers().waitingThreads == waiters && waiter != 0 &&
             kest2_test::AsleepInFutex(waiter);
    });
  };
  std::atomic<pid_t> secondWaiterId{0}, firstWaiterId{0};
  std::atomic<bool> secondWaiterBack{false};
  std::thread secondWaiter([&] {
    secondWaiterId = kest2_test::SystemThreadId();
    EXPECT_EQ(Zlib()->wait(&secondJob, nullptr), Z_OK);
    secondWaiterBack = true;
  });
  EXPECT_TRUE(asleepInWait(1, secondWaiterId));
  std::thread firstWaiter([&] {
    firstWaiterId = kest2_test::SystemThreadId();
    EXPECT_EQ(Zlib()->wait(&firstJob, nullptr), Z_OK);
  });
  EXPECT_TRUE(asleepInWait(2, firstWaiterId));
  ASSERT_EQ(Zlib()->submit(&firstJob), &firstJob);
  ASSERT_EQ(Zlib()->submit(&secondJob), &secondJob);
  firstWaiter.join();
  ASSERT_TRUE(AwaitDone(&secondJob));
  // A missed wake-up leaves the waiter asleep for good; only a bound on the
  // wait can tell that from a slow one.
  EXPECT_TRUE(kest2_test::WaitUntil([&] { return secondWaiterBack.load(); }))
      << "a waiter missed the end of its job";
  // Free a stuck waiter with more finished jobs, so that the test ends.
  while (!secondWaiterBack) {
    DecompressionJob extra = MakeJob(first.compressed, firstOut.data(), 1000, nullptr, 0, 0);
    ASSERT_EQ(Zlib()->submit(&extra), &extra);
    Zlib()->wait(&extra, nullptr);
  }
  secondWaiter.join();
  EXPECT_EQ(secondOut, second.plain);
  Zlib()->terminate();
}

// Start-stop cycles with every worker count; terminate finishes what is
// queued, and nothing is accepted after it.
TEST(ZlibCodecLifecycleTest, TerminateDrainsTheQueueAndCyclesCleanly) {
  const Block block = MakeCompressedBlock(30000, 5);
  for (uint8_t n : {0, 1, 2, 3, 9, 1, 3}) {
    SCOPED_TRACE(n);
    ASSERT_EQ(Zlib()->init(n), 0);
    EXPECT_EQ(Zlib()->init(n), ZUL_KEST_ERROR_BUSY);
    std::vector<Bytes> outputs(12, Bytes(30000));
    std::vector<DecompressionJob> jobs;
    for (Bytes& out : outputs)
      jobs.push_back(MakeJob(block.compressed, out.data(), 30000, out.data(), 0, 30000));
    for (DecompressionJob& job : jobs) ASSERT_EQ(Zlib()->submit(&job), &job);
    Zlib()->terminate();
    for (size_t i = 0; i < jobs.size(); ++i) {
      EXPECT_TRUE(Zlib()->isDone(&jobs[i]));
      EXPECT_EQ(jobs[i].result, Z_OK);
      EXPECT_EQ(outputs[i], block.plain);
    }
    EXPECT_EQ(Zlib()->submit(&jobs[0]), nullptr);
    Zlib()->terminate();
  }
}

TEST(ZlibCodecLifecycleTest, RegistersAsTheDearchiversZlibCodec) {
  const Codec* codec = Zlib();
  EXPECT_EQ(codec->tag, kest2::kZorbaCompressionZlib);
  EXPECT_EQ(codec->capabilities, kest2::kCodecDearchiver);
  EXPECT_EQ(codec->alignment, 0);
  EXPECT_EQ(codec->limits[0], 0x7FFFFFFFu);
  EXPECT_EQ(codec->limits[1], 0x7FFFFFFFu);
  kest2::InitializeCodecRegistry(2);
  ASSERT_EQ(kest2::RegisterCodec(codec), 0);
  EXPECT_EQ(kest2::FindCodec(kest2::kZorbaCompressionZlib, kest2::kCodecDearchiver), codec);
  EXPECT_EQ(kest2::SetDecompressorThreadCount(200), 2);
  EXPECT_TRUE(kest2::UnregisterCodec(codec));
  kest2::InitializeCodecRegistry(0);
}

}  // namespace
