// The baseline the deadline benchmark compares against: a plain thread pool
// that serves read requests strictly in arrival order with pread, knowing
// nothing of deadlines or priorities.
#ifndef KEST2_BENCH_FIFO_POOL_H_
#define KEST2_BENCH_FIFO_POOL_H_

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "kest2.h"

namespace kest2_bench {

struct FifoRead {
  int fd;
  void* buffer;
  int64_t length;
  int64_t offset;
  // Written by the worker: the byte count (or -errno) and when it finished.
  int64_t* result;
  ZulKestTime* finish;
};

class FifoPool {
 public:
  explicit FifoPool(int threads);
  // Serves what is queued, then stops the workers.
  ~FifoPool();
  FifoPool(const FifoPool&) = delete;
  FifoPool& operator=(const FifoPool&) = delete;

  void Submit(const FifoRead& read);
  // Returns once every submitted read has finished.
  void Drain();

 private:
  void Worker();

  std::mutex m_mutex;
  std::condition_variable m_work;
  std::condition_variable m_idle;
  std::deque<FifoRead> m_queue;
  int m_running = 0;
  bool m_stopping = false;
  std::vector<std::thread> m_threads;
};

}  // namespace kest2_bench

#endif  // KEST2_BENCH_FIFO_POOL_H_
