// Reports one scheduler step (scheduling a tree, queueing, removal,
// execution) to the profiling hook.
//
// Construct it just before the step and Finish() just after.  The hook is
// read at both moments and called once, only when it is set at both; with
// no hook installed the cost is one relaxed load.
#ifndef KEST2_SRC_SCHED_SCHEDULER_EVENT_H_
#define KEST2_SRC_SCHED_SCHEDULER_EVENT_H_

#include <cstdint>

#include "core/globals.h"
#include "core/platform.h"
#include "sched/chunk_tree.h"

namespace kest2 {

class SchedulerEvent {
 public:
  SchedulerEvent(uint8_t kind, ChunkID chunk) : m_hook(EventHook()), m_kind(kind), m_chunk(chunk) {
    if (m_hook == nullptr) return;
    // The type is read now: the chunk may be gone once the step is over.
    m_type = chunk != CHUNKID_INVALID ? ChunkAt(chunk)->type : 0;
    m_start = CycleCounter();
  }
  SchedulerEvent(const SchedulerEvent&) = delete;
  SchedulerEvent& operator=(const SchedulerEvent&) = delete;
  ~SchedulerEvent() { Finish(); }

  void Finish() {
    if (m_hook == nullptr) return;
    m_hook = nullptr;
    const uint64_t end = CycleCounter();
    const ZulKestEventHook hook = EventHook();
    if (hook == nullptr) return;
    ZulKestSchedulerEventSubject subject{};
    subject.threadId = CurrentThreadId();
    subject.chunkId = m_chunk;
    subject.chunkType = m_type;
    ZulKestIOEvent event{};
    event.startTime = m_start;
    event.endTime = end;
    event.request = reinterpret_cast<const ZulKestIORequest*>(&subject);
    event.kind = m_kind;
    hook(&event);
  }

 private:
  ZulKestEventHook m_hook;
  uint64_t m_start = 0;
  uint8_t m_kind;
  uint8_t m_type = 0;
  ChunkID m_chunk;
};

}  // namespace kest2

#endif  // KEST2_SRC_SCHED_SCHEDULER_EVENT_H_
