// The timeline recorder (include/kest2_timeline.h): what the engine's note
// points call, and the layout of the caller's storage that the writer reads.
//
// Every note point is guarded by TimelineRecording(), one relaxed load, so
// that a timeline that is off costs nothing more.  A span's point takes
// TimelineBegin() before the work (0 when off) and calls its note after it
// when that was not 0.  The notes take the end time themselves.
//
// Thread-safety: notes may be taken on any thread at once (the slot claim
// and publication are atomic; no lock, allocation or I/O).  Start, stop and
// the writer belong to one controlling thread; stop waits for the notes in
// progress, so the writer reads a ring nobody writes.
#ifndef KEST2_SRC_DEBUG_TIMELINE_H_
#define KEST2_SRC_DEBUG_TIMELINE_H_

#include <cstddef>
#include <cstdint>

#include "core/platform.h"
#include "kest2_timeline.h"

namespace kest2 {

// --- Note points ------------------------------------------------------------

// True while a timeline records.
extern bool g_timelineRecording;
inline bool TimelineRecording() { return __atomic_load_n(&g_timelineRecording, __ATOMIC_RELAXED); }

// The start of a span: now on the monotonic clock while recording, else 0.
inline int64_t TimelineBegin() { return TimelineRecording() ? MonotonicNanoseconds() : 0; }

// A chunk's handler ran from begin until now.  typeName is a static string;
// op is 0 when the chunk belongs to no operation.
void TimelineNoteChunk(int64_t begin, uint16_t chunk, const char* typeName, uint32_t op,
                       int8_t priority, ZulKestTime deadline, int32_t result);
// One operating-system call of the native layer (kind: ZulKestIOEvent's 0
// to 8) ran from begin until now.  path may be null.
void TimelineNoteNative(int64_t begin, uint16_t chunk, uint8_t kind, const char* path,
                        int64_t offset, int64_t length);
// An operation is accepted now (its span starts).
void TimelineNoteAccept(uint32_t op);
// An operation completes now with result, having moved `bytes`; deadline 0
// means none.  path may be null or empty.
void TimelineNoteCompletion(uint32_t op, uint16_t what, int8_t priority, ZulKestTime deadline,
                            int32_t result, int64_t bytes, const char* path);
// A decompressor thread inflated a block of `compressed` bytes into
// `inflated` bytes, from begin until now, with zlib's result.
void TimelineNoteInflate(int64_t begin, uint32_t compressed, uint32_t inflated, int32_t result);
// An archive block of `bytes` at `offset` of the archive was read by the
// chunk from begin until now.
void TimelineNoteBlockRead(int64_t begin, uint16_t chunk, int64_t offset, int64_t bytes);

// --- Storage layout ---------------------------------------------------------

enum class TimelineKind : uint8_t {
  kChunk = 1,
  kNative = 2,
  kOperation = 3,
  kInflate = 4,
  kBlockRead = 5,
};

// TimelineRecord::flags.
constexpr uint8_t kTimelineAccepted = 1;  // an operation's begin is its acceptance

// One note; 128 bytes.  `sequence` is 0 while empty, kTimelineBusy while a
// note fills it, and the note's claim number + 1 once published.
struct TimelineRecord {
  uint64_t sequence;
  int64_t begin;  // monotonic nanoseconds
  int64_t end;
  ZulKestTime deadline;  // 0: none
  int64_t amount;        // bytes: read length, inflated size, operation count
  int64_t offset;        // file offset, archive offset, compressed size
  const char* label;     // static text: a chunk type's name, or null
  uint32_t op;           // operation handle, 0 when none
  int32_t result;
  uint16_t thread;  // index in the thread table, or kTimelineOtherThreads
  // The chunk; for an operation accepted while recording, the thread table
  // index of the thread that accepted it.
  uint16_t chunk;
  uint8_t kind;  // TimelineKind
  uint8_t type;  // native call kind, or operation type
  int8_t priority;
  uint8_t flags;
  char text[56];  // a path's last 55 bytes, NUL-terminated
};
static_assert(sizeof(TimelineRecord) == ZUL_KEST_TIMELINE_RECORD_SIZE, "");

constexpr uint64_t kTimelineBusy = ~uint64_t{0};
constexpr uint16_t kTimelineOtherThreads = ZUL_KEST_TIMELINE_THREADS;

// One thread's name; `ready` is set (release) once the rest is written.
struct TimelineThread {
  uint64_t threadId;
  char name[16];
  uint32_t ready;
  uint32_t reserved;
};
static_assert(sizeof(TimelineThread) == 32, "");

// When an operation was accepted, by its handle's slot (bits 0-13).
struct TimelineAccept {
  uint32_t op;  // the operation's handle, 0 when none was accepted
  uint16_t thread;
  uint16_t reserved;
  int64_t time;
};
static_assert(sizeof(TimelineAccept) == 16, "");
constexpr uint32_t kTimelineAcceptSlots = 16384;

// The storage: this header, then the records.
struct TimelineStorage {
  uint64_t capacity;        // records in the ring
  uint64_t claimed;         // notes claimed; atomic
  uint32_t threadsClaimed;  // atomic; may pass ZUL_KEST_TIMELINE_THREADS
  uint32_t session;
  int64_t startTime;
  uint8_t reserved[224];
  TimelineThread threads[ZUL_KEST_TIMELINE_THREADS];
  TimelineAccept accepts[kTimelineAcceptSlots];
  TimelineRecord records[1];  // capacity of them
};
static_assert(offsetof(TimelineStorage, records) == ZUL_KEST_TIMELINE_OVERHEAD, "");

// The current or last timeline, or null when none was started.  The writer
// reads it after stop.
TimelineStorage* CurrentTimeline();

// How many of the ring's records hold a published note.
uint64_t CountKeptRecords(const TimelineStorage* timeline);

}  // namespace kest2

#endif  // KEST2_SRC_DEBUG_TIMELINE_H_
