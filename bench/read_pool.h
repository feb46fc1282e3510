// The baselines the deadline benchmark compares against: a plain thread
// pool that serves read requests with pread, in one of two orders.
//
//   arrival   first come, first served; knows nothing of deadlines (FIFO)
//   deadline  earliest deadline first, ties in arrival order (EDF): what an
//             engine programmer writes in an afternoon for deadline work
//
// Neither can interrupt a pread once a worker has started it.
#ifndef KEST2_BENCH_READ_POOL_H_
#define KEST2_BENCH_READ_POOL_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "kest2.h"

namespace kest2_bench {

enum class QueueOrder { kArrival, kDeadline };

struct PoolRead {
  int fd;
  void* buffer;
  int64_t length;
  int64_t offset;
  ZulKestTime deadline;  // absolute; orders the deadline pool's queue
  // Written by the worker: the byte count (or -errno) and when it finished.
  int64_t* result;
  ZulKestTime* finish;
};

class ReadPool {
 public:
  ReadPool(int threads, QueueOrder order);
  // Serves what is queued, then stops the workers.
  ~ReadPool();
  ReadPool(const ReadPool&) = delete;
  ReadPool& operator=(const ReadPool&) = delete;

  void Submit(const PoolRead& read);
  // Returns once every submitted read has finished.
  void Drain();

 private:
  struct Queued {
    ZulKestTime key;  // the deadline, or 0 in arrival order
    uint64_t arrival;
    PoolRead read;
  };
  // The queue's top is the entry that sorts first: smallest key, then the
  // earliest arrival.
  struct ServedLater {
    bool operator()(const Queued& a, const Queued& b) const {
      return a.key != b.key ? a.key > b.key : a.arrival > b.arrival;
    }
  };

  void Worker();

  const QueueOrder m_order;
  std::mutex m_mutex;
  std::condition_variable m_work;
  std::condition_variable m_idle;
  std::priority_queue<Queued, std::vector<Queued>, ServedLater> m_queue;
  uint64_t m_arrivals = 0;
  int m_running = 0;
  bool m_stopping = false;
  std::vector<std::thread> m_threads;
};

}  // namespace kest2_bench

#endif  // KEST2_BENCH_READ_POOL_H_
