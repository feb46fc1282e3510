#include "read_pool.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>

namespace kest2_bench {

ReadPool::ReadPool(int threads, QueueOrder order) : m_order(order) {
  for (int i = 0; i < threads; ++i) m_threads.emplace_back([this] { Worker(); });
}

ReadPool::~ReadPool() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
  }
  m_work.notify_all();
  for (std::thread& thread : m_threads) thread.join();
}

void ReadPool::Submit(const PoolRead& read) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    const ZulKestTime key = m_order == QueueOrder::kDeadline ? read.deadline : 0;
    m_queue.push(Queued{key, m_arrivals++, read});
  }
  m_work.notify_one();
}

void ReadPool::Drain() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_idle.wait(lock, [this] { return m_queue.empty() && m_running == 0; });
}

void ReadPool::Worker() {
  pthread_setname_np(pthread_self(), m_order == QueueOrder::kDeadline ? "EdfIO" : "FifoIO");
  std::unique_lock<std::mutex> lock(m_mutex);
  for (;;) {
    m_work.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
    if (m_queue.empty()) return;  // stopping, nothing left
    const PoolRead read = m_queue.top().read;
    m_queue.pop();
    ++m_running;
    lock.unlock();
    int64_t got;
    do {
      got = ::pread(read.fd, read.buffer, static_cast<size_t>(read.length), read.offset);
    } while (got < 0 && errno == EINTR);
    *read.result = got < 0 ? -errno : got;
    *read.finish = zulKestTimeGetCurrent();
    lock.lock();
    if (--m_running == 0 && m_queue.empty()) m_idle.notify_all();
  }
}

}  // namespace kest2_bench
