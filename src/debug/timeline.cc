// The timeline recorder: see debug/timeline.h and include/kest2_timeline.h.
//
// A note is taken inside a writer section: the global count of notes in
// progress goes up before the recording flag is read, and down once the
// record is published.  Stop clears the flag and waits for the count to
// reach 0, so after it no note touches the storage (a note that counted
// itself in after the flag was cleared sees it clear and leaves).  The
// count lives in static storage, not in the caller's: a note must never
// touch storage the caller may have freed after a stop.
//
// A slot of the ring may be claimed by two notes when the ring wraps while
// the first is still filling it; the busy mark lets only one fill it at a
// time and the other's note is dropped (and counted as lost), so no record
// is ever torn.

#include "debug/timeline.h"

#include <cstddef>
#include <cstring>

namespace kest2 {

bool g_timelineRecording;

namespace {

TimelineStorage* g_timeline;
uint32_t g_writers;   // notes in progress; atomic
uint32_t g_sessions;  // starts so far

// Which entry of the current timeline's thread table is this thread's.
thread_local uint32_t t_session;
thread_local uint16_t t_thread;

constexpr uint32_t kOpSlotMask = kTimelineAcceptSlots - 1;
constexpr char kCallerName[] = "caller";

uint16_t ThisThread(TimelineStorage* timeline) {
  if (t_session == timeline->session) return t_thread;
  const uint32_t index = __atomic_fetch_add(&timeline->threadsClaimed, 1u, __ATOMIC_RELAXED);
  uint16_t slot = kTimelineOtherThreads;
  if (index < ZUL_KEST_TIMELINE_THREADS) {
    slot = static_cast<uint16_t>(index);
    TimelineThread* entry = &timeline->threads[index];
    entry->threadId = CurrentThreadId();
    if (!CurrentThreadName(entry->name, sizeof(entry->name)) || entry->name[0] == '\0')
      std::memcpy(entry->name, kCallerName, sizeof(kCallerName));
    __atomic_store_n(&entry->ready, 1u, __ATOMIC_RELEASE);
  }
  t_session = timeline->session;
  t_thread = slot;
  return slot;
}

// Keeps the last bytes of a path: they tell files apart.
void CopyPathTail(char* out, size_t size, const char* path) {
  if (path == nullptr) {
    out[0] = '\0';
    return;
  }
  const size_t length = std::strlen(path);
  const size_t keep = length < size - 1 ? length : size - 1;
  std::memcpy(out, path + (length - keep), keep);
  out[keep] = '\0';
}

// The timeline to note into, with this thread counted in as a writer; null
// (and not counted) when none records.
TimelineStorage* EnterNote() {
  __atomic_add_fetch(&g_writers, 1u, __ATOMIC_SEQ_CST);
  if (!__atomic_load_n(&g_timelineRecording, __ATOMIC_SEQ_CST)) {
    __atomic_sub_fetch(&g_writers, 1u, __ATOMIC_RELEASE);
    return nullptr;
  }
  return __atomic_load_n(&g_timeline, __ATOMIC_ACQUIRE);
}

void LeaveNote() { __atomic_sub_fetch(&g_writers, 1u, __ATOMIC_RELEASE); }

// Claims the next slot and marks it busy; null when the slot is still being
// filled by a note that claimed it one lap earlier.
TimelineRecord* ClaimRecord(TimelineStorage* timeline, uint64_t* number) {
  *number = __atomic_fetch_add(&timeline->claimed, uint64_t{1}, __ATOMIC_RELAXED);
  TimelineRecord* record = &timeline->records[*number % timeline->capacity];
  uint64_t seen = __atomic_load_n(&record->sequence, __ATOMIC_RELAXED);
  if (seen == kTimelineBusy ||
      !__atomic_compare_exchange_n(&record->sequence, &seen, kTimelineBusy, false, __ATOMIC_ACQUIRE,
                                   __ATOMIC_RELAXED)) {
    return nullptr;
  }
  return record;
}

// Takes one note: fill(record, timeline) writes its fields over a zeroed
// record whose times and thread are set.
template <typename Fill>
void Note(TimelineKind kind, int64_t begin, Fill fill) {
  TimelineStorage* timeline = EnterNote();
  if (timeline == nullptr) return;
  const int64_t end = MonotonicNanoseconds();
  const uint16_t thread = ThisThread(timeline);
  uint64_t number;
  TimelineRecord* record = ClaimRecord(timeline, &number);
  if (record != nullptr) {
    std::memset(reinterpret_cast<char*>(record) + sizeof(record->sequence), 0,
                sizeof(*record) - sizeof(record->sequence));
    record->kind = static_cast<uint8_t>(kind);
    record->begin = begin != 0 ? begin : end;
    record->end = end;
    record->thread = thread;
    fill(record, timeline);
    __atomic_store_n(&record->sequence, number + 1, __ATOMIC_RELEASE);
  }
  LeaveNote();
}

}  // namespace

void TimelineNoteChunk(int64_t begin, uint16_t chunk, const char* typeName, uint32_t op,
                       int8_t priority, ZulKestTime deadline, int32_t result) {
  Note(TimelineKind::kChunk, begin, [&](TimelineRecord* record, TimelineStorage*) {
    record->chunk = chunk;
    record->label = typeName;
    record->op = op;
    record->priority = priority;
    record->deadline = deadline;
    record->result = result;
  });
}

void TimelineNoteNative(int64_t begin, uint16_t chunk, uint8_t kind, const char* path,
                        int64_t offset, int64_t length) {
  Note(TimelineKind::kNative, begin, [&](TimelineRecord* record, TimelineStorage*) {
    record->chunk = chunk;
    record->type = kind;
    record->offset = offset;
    record->amount = length;
    CopyPathTail(record->text, sizeof(record->text), path);
  });
}

void TimelineNoteAccept(uint32_t op) {
  TimelineStorage* timeline = EnterNote();
  if (timeline == nullptr) return;
  TimelineAccept* entry = &timeline->accepts[op & kOpSlotMask];
  __atomic_store_n(&entry->time, MonotonicNanoseconds(), __ATOMIC_RELAXED);
  __atomic_store_n(&entry->thread, ThisThread(timeline), __ATOMIC_RELAXED);
  __atomic_store_n(&entry->op, op, __ATOMIC_RELAXED);
  LeaveNote();
}

void TimelineNoteCompletion(uint32_t op, uint16_t what, int8_t priority, ZulKestTime deadline,
                            int32_t result, int64_t bytes, const char* path) {
  Note(TimelineKind::kOperation, 0, [&](TimelineRecord* record, TimelineStorage* timeline) {
    record->op = op;
    record->type = static_cast<uint8_t>(what);
    record->priority = priority;
    record->deadline = deadline;
    record->result = result;
    record->amount = bytes;
    CopyPathTail(record->text, sizeof(record->text), path);
    // The span starts at the acceptance when it was noted: the operation's
    // slot of the table is its own until it is deleted, after this.
    TimelineAccept* entry = &timeline->accepts[op & kOpSlotMask];
    if (__atomic_load_n(&entry->op, __ATOMIC_RELAXED) != op) return;
    record->begin = __atomic_load_n(&entry->time, __ATOMIC_RELAXED);
    record->chunk = __atomic_load_n(&entry->thread, __ATOMIC_RELAXED);
    record->flags = kTimelineAccepted;
    __atomic_store_n(&entry->op, 0u, __ATOMIC_RELAXED);
  });
}

void TimelineNoteInflate(int64_t begin, uint32_t compressed, uint32_t inflated, int32_t result) {
  Note(TimelineKind::kInflate, begin, [&](TimelineRecord* record, TimelineStorage*) {
    record->offset = compressed;
    record->amount = inflated;
    record->result = result;
  });
}

void TimelineNoteBlockRead(int64_t begin, uint16_t chunk, int64_t offset, int64_t bytes) {
  Note(TimelineKind::kBlockRead, begin, [&](TimelineRecord* record, TimelineStorage*) {
    record->chunk = chunk;
    record->offset = offset;
    record->amount = bytes;
  });
}

TimelineStorage* CurrentTimeline() { return __atomic_load_n(&g_timeline, __ATOMIC_ACQUIRE); }

uint64_t CountKeptRecords(const TimelineStorage* timeline) {
  const uint64_t claimed = __atomic_load_n(&timeline->claimed, __ATOMIC_ACQUIRE);
  const uint64_t used = claimed < timeline->capacity ? claimed : timeline->capacity;
  uint64_t kept = 0;
  for (uint64_t i = 0; i < used; ++i) {
    const uint64_t sequence = __atomic_load_n(&timeline->records[i].sequence, __ATOMIC_ACQUIRE);
    if (sequence != 0 && sequence != kTimelineBusy) ++kept;
  }
  return kept;
}

}  // namespace kest2

using namespace kest2;

extern "C" int32_t zulKestTimelineStart(void* storage, uint64_t size) {
  if (storage == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if ((reinterpret_cast<uintptr_t>(storage) & 7) != 0) return ZUL_KEST_ERROR_BAD_ALIGNMENT;
  if (size < ZUL_KEST_TIMELINE_STORAGE_SIZE(ZUL_KEST_TIMELINE_MIN_RECORDS))
    return ZUL_KEST_ERROR_BAD_SIZE;
  if (TimelineRecording()) return ZUL_KEST_ERROR_BUSY;
  std::memset(storage, 0, size);
  TimelineStorage* timeline = static_cast<TimelineStorage*>(storage);
  timeline->capacity = (size - ZUL_KEST_TIMELINE_OVERHEAD) / ZUL_KEST_TIMELINE_RECORD_SIZE;
  // Sessions start at 1: a thread's cached session 0 never matches.
  timeline->session = __atomic_add_fetch(&g_sessions, 1u, __ATOMIC_RELAXED);
  timeline->startTime = MonotonicNanoseconds();
  __atomic_store_n(&g_timeline, timeline, __ATOMIC_RELEASE);
  __atomic_store_n(&g_timelineRecording, true, __ATOMIC_SEQ_CST);
  return ZUL_KEST_OK;
}

extern "C" void zulKestTimelineStop(void) {
  if (!TimelineRecording()) return;
  __atomic_store_n(&g_timelineRecording, false, __ATOMIC_SEQ_CST);
  while (__atomic_load_n(&g_writers, __ATOMIC_ACQUIRE) != 0) YieldProcessor();
}

extern "C" int32_t zulKestTimelineGetInfo(ZulKestTimelineInfo* out) {
  if (out == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  std::memset(out, 0, sizeof(*out));
  const TimelineStorage* timeline = CurrentTimeline();
  if (timeline == nullptr) return ZUL_KEST_ERROR_BAD_ARGUMENT;
  out->capacity = timeline->capacity;
  out->recorded = __atomic_load_n(&timeline->claimed, __ATOMIC_ACQUIRE);
  out->kept = CountKeptRecords(timeline);
  out->lost = out->recorded > out->kept ? out->recorded - out->kept : 0;
  const uint32_t threads = __atomic_load_n(&timeline->threadsClaimed, __ATOMIC_ACQUIRE);
  out->threads = threads;
  out->recording = TimelineRecording() ? 1 : 0;
  out->startTime = timeline->startTime;
  return ZUL_KEST_OK;
}
