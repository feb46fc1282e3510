// Where a new chunk goes in an I/O scheduler's queue.
//
// Design note: the queue is simulated with a small time model.  Each chunk
// costs its type's estimated duration (for reads and writes, per 64 KiB)
// plus a seek: nothing when it continues where the previous positioned
// chunk ended, a cost per 64 KiB of distance within the same stream, a far
// seek otherwise.  A chunk is late when the simulated clock passes its
// deadline; its lateness is then its priority.  Every queue index is tried:
// an index is refused when it makes a later chunk late with a higher
// lateness than the new chunk's own, and among the rest the one with the
// fewest misses, then the earliest finish, wins.  Sequential reads of one
// stream skip the simulation and are appended.
//
// With an ordering option, places that miss equally are told apart by
// order before the finish: the fewest queued chunks left on the wrong side
// of the new one (by deadline, or by priority and then deadline).  On
// storage where seeks cost next to nothing the estimated finish only
// measures the model's seek costs, and chasing it files an urgent read
// behind bulk reads that the model already counts late.  With the
// order-only option the order alone places the chunk, by binary search in
// a queue it keeps sorted, and the model is not consulted.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "core/disc_map.h"
#include "core/handletable.h"
#include "core/records.h"
#include "kest2_scheduling.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

constexpr ZulKestTime kDefaultDeadlineDelay = 300000000000LL;  // 300 s
constexpr ZulKestTime kIdleStartDelay = 10000;                 // 10 us
constexpr int64_t kStreamAppendDistance = 32768;
constexpr ZulKestTime kMaxSeekCost = 1000000000;  // 1 s
constexpr uint64_t kPseudoPositionMask = 0x6FFFFFF000000000ULL;
constexpr uint64_t kStreamMask = 0xEFFFFFF000000000ULL;

bool IsTransfer(const ChunkHeader* chunk) {
  return chunk->type == CHUNK_FH_READ || chunk->type == CHUNK_FH_WRITE;
}

// What the time model needs of one chunk, read once per placement.
struct StepInput {
  ZulKestTime cost;  // its own duration, seek aside
  ZulKestTime deadline;
  PositionKey key;  // positioned: where it starts
  int64_t length;   // positioned: how far it goes
  int8_t priority;
  bool positioned;
};

// The time model as one placement applies it, with the seek cap's division
// done once rather than at every step.
class TimeModel {
 public:
  explicit TimeModel(const Scheduler* scheduler) REQUIRES(scheduler->mutex)
      : m_estimates(scheduler->typeEstimate),
        m_farSeek(scheduler->seekEstimate[0]),
        m_perStep(static_cast<uint64_t>(scheduler->seekEstimate[1])),
        m_maxSteps(m_perStep != 0 ? static_cast<uint64_t>(kMaxSeekCost) / m_perStep : UINT64_MAX) {}

  StepInput Describe(ChunkID id) const {
    const ChunkHeader* chunk = ChunkAt(id);
    StepInput in{};
    in.deadline = chunk->deadline;
    in.priority = chunk->priority;
    in.positioned = IsPositionedTransfer(chunk);
    // Positioned: per 64 KiB, split so that large requests cannot overflow.
    const ZulKestTime estimate = m_estimates[chunk->type];
    if (!in.positioned) {
      in.cost = estimate;
      return in;
    }
    in.key = ChunkPositionKey(id);
    in.length = reinterpret_cast<const ChunkFhIoRecord*>(chunk)->reqCount;
    in.cost = (in.length / 65536) * estimate + ((in.length % 65536) * estimate) / 65536;
    return in;
  }

  // Advances the simulation by one chunk; returns its lateness.
  int32_t Step(const StepInput& in, int32_t referenceLateness, EstimateState* state) const {
    state->clock += in.cost;
    if (in.positioned) {
      state->clock += Seek(state->head, in.key);
      state->head = PositionKey{in.key.handle, in.key.position + in.length};
    } else {
      state->head.handle = -1;
    }
    int32_t lateness = kOnTime;
    if (in.deadline < state->clock) {
      ++state->misses;
      lateness = in.priority;
    }
    if (lateness > referenceLateness) ++state->laterHigher;
    if (lateness == referenceLateness) ++state->laterEqual;
    return lateness;
  }

 private:
  ZulKestTime Seek(const PositionKey& head, const PositionKey& key) const {
    if (!SameStream(head, key)) return m_farSeek;
    if (key.position == head.position) return 0;
    const uint64_t distance =
        key.position > head.position
            ? static_cast<uint64_t>(key.position) - static_cast<uint64_t>(head.position)
            : static_cast<uint64_t>(head.position) - static_cast<uint64_t>(key.position);
    const uint64_t steps = distance / 65536;
    if (steps > m_maxSteps) return kMaxSeekCost;
    const uint64_t cost = steps * m_perStep;
    return cost > static_cast<uint64_t>(kMaxSeekCost) ? kMaxSeekCost
                                                      : static_cast<ZulKestTime>(cost);
  }

  const ZulKestTime* m_estimates;
  ZulKestTime m_farSeek;
  uint64_t m_perStep;   // per 64 KiB of distance
  uint64_t m_maxSteps;  // more steps than this cost the cap
};

uint32_t g_placementOptions;

// The order the ordering options count inversions against: by deadline,
// or by priority first (higher first) and deadline among equals.
enum class QueueOrder { kNone, kDeadline, kPriorityThenDeadline };

QueueOrder OrderOf(uint32_t options) {
  if ((options & ZUL_KEST_SCHEDULING_PRIORITY_ORDER) != 0) return QueueOrder::kPriorityThenDeadline;
  if ((options & ZUL_KEST_SCHEDULING_DEADLINE_ORDER) != 0) return QueueOrder::kDeadline;
  return QueueOrder::kNone;
}

// -1 when `queued` belongs ahead of `chunk` in that order, 1 when behind
// it, 0 when neither.
int CompareInOrder(QueueOrder order, const StepInput& queued, const StepInput& chunk) {
  if (order == QueueOrder::kPriorityThenDeadline && queued.priority != chunk.priority)
    return queued.priority > chunk.priority ? -1 : 1;
  if (queued.deadline != chunk.deadline) return queued.deadline < chunk.deadline ? -1 : 1;
  return 0;
}

struct Candidate {
  bool found = false;
  uint64_t index = 0;
  uint32_t misses = 0;
  uint64_t inversions = 0;  // counted only under an ordering option
  ZulKestTime clock = 0;
};

// Per-candidate flags of InsertScratch::flags.
constexpr uint8_t kLaterHigher = 1;     // a later chunk would be late with a higher lateness
constexpr uint8_t kLaterEqual = 2;      // a later chunk would have the same lateness
constexpr uint8_t kEligible = 4;        // no higher lateness than the chunk it follows
constexpr uint8_t kBelongsAhead = 8;    // in the ordering option's order, ahead of the chunk
constexpr uint8_t kBelongsBehind = 16;  // ... behind it

int64_t SaturatingSub(int64_t a, int64_t b) {
  int64_t out;
  if (!__builtin_sub_overflow(a, b, &out)) return out;
  return b < 0 ? INT64_MAX : INT64_MIN;
}

// The chunks queued behind the candidate index, as far as a candidate's
// shift can make them late.  Every shift lies in [minShift, maxShift]: a
// chunk whose slack is below minShift is late behind every candidate and is
// only counted (with its priority), one whose slack reaches maxShift is
// never late.  Only the chunks in between go into a Fenwick tree over their
// slack ranks and a segment tree of the smallest slack per priority; in a
// long queue they are usually few, which keeps placement near linear.
class LaterChunks {
 public:
  LaterChunks(InsertScratch* scratch, uint64_t count, int64_t minShift, int64_t maxShift)
      : m_s(scratch), m_minShift(minShift), m_maxShift(maxShift) {
    for (uint64_t c = 0; c < count; ++c) {
      const int64_t slack = m_s->slack[c];
      if (slack >= minShift && slack < maxShift) m_s->order[m_middle++] = static_cast<uint16_t>(c);
    }
    std::sort(m_s->order, m_s->order + m_middle,
              [this](uint16_t a, uint16_t b) { return m_s->slack[a] < m_s->slack[b]; });
    for (uint64_t r = 0; r < m_middle; ++r) m_s->rank[m_s->order[r]] = static_cast<uint16_t>(r);
    std::memset(m_s->counts, 0, (m_middle + 1) * sizeof(m_s->counts[0]));
    for (int64_t& slack : m_s->prioritySlack) slack = INT64_MAX;
    std::memset(m_alwaysAt, 0, sizeof(m_alwaysAt));
  }

  void Add(uint64_t index, int8_t priority) {
    ++m_added;
    const int64_t slack = m_s->slack[index];
    if (slack >= m_maxShift) return;
    if (slack < m_minShift) {
      ++m_always;
      m_alwaysAt[static_cast<uint8_t>(priority + 128)] = true;
      if (priority > m_alwaysHighest) m_alwaysHighest = priority;
      return;
    }
    m_middleAdded = true;
    for (uint64_t r = m_s->rank[index] + 1u; r <= m_middle; r += r & (~r + 1)) ++m_s->counts[r];
    for (uint32_t node = 256u + static_cast<uint8_t>(priority + 128); node != 0; node >>= 1) {
      if (slack < m_s->prioritySlack[node]) m_s->prioritySlack[node] = slack;
    }
  }

  // How many would miss their deadlines if their finish moved by shift.
  uint64_t Late(int64_t shift) const {
    uint64_t below = 0, size = m_middle;  // middle ranks whose slack < shift
    while (size > 0) {
      const uint64_t half = size / 2;
      if (m_s->slack[m_s->order[below + half]] < shift) {
        below += half + 1;
        size -= half + 1;
      } else {
        size = half;
      }
    }
    uint64_t late = m_always;
    for (uint64_t r = below; r > 0; r -= r & (~r + 1)) late += m_s->counts[r];
    return late;
  }

  // Whether one of them with a priority above `priority` would be late.
  bool LateAbove(int32_t priority, int64_t shift) const {
    return m_alwaysHighest > priority || (priority < 127 && MiddleLate(priority + 1, 127, shift));
  }

  // Whether one of them with exactly `priority` would be late.
  bool LateAt(int32_t priority, int64_t shift) const {
    return m_alwaysAt[priority + 128] || MiddleLate(priority, priority, shift);
  }

  uint64_t size() const { return m_added; }

 private:
  // Whether a middle chunk with a priority in [low, high] would be late.
  bool MiddleLate(int32_t low, int32_t high, int64_t shift) const {
    if (!m_middleAdded) return false;
    uint32_t left = 256u + static_cast<uint32_t>(low + 128);
    uint32_t right = 256u + static_cast<uint32_t>(high + 128) + 1u;
    for (; left < right; left >>= 1, right >>= 1) {
      if ((left & 1u) != 0 && m_s->prioritySlack[left++] < shift) return true;
      if ((right & 1u) != 0 && m_s->prioritySlack[--right] < shift) return true;
    }
    return false;
  }

  InsertScratch* m_s;
  int64_t m_minShift;
  int64_t m_maxShift;
  uint64_t m_middle = 0;  // chunks between the bounds, ranked in m_s->order
  uint64_t m_added = 0;
  uint64_t m_always = 0;  // added chunks late behind every candidate
  bool m_middleAdded = false;
  int32_t m_alwaysHighest = INT32_MIN;
  bool m_alwaysAt[256];  // by priority + 128
};

// True when the back is where the simulation would put the chunk, proven
// from the summary without walking the queue: when
//  - no two neighbours in the queue are positioned on one stream, and the
//    new chunk, if positioned, shares its stream with no queued chunk, then
//    every positioned chunk behind the first pays the far seek wherever the
//    new one goes, so every place but the front delays the rest by exactly
//    the new chunk's own cost at the back (the front is worked out);
//  - the queue's finish, bounded from above, is before every queued
//    deadline, and the new chunk's own deadline holds at the back;
// then every place misses nothing, ends at the same time or later, and on
// a tie the back wins (a chunk that costs nothing goes the full way).
bool BackWinsOutright(const Scheduler* scheduler, ChunkID id, ZulKestTime start)
    REQUIRES(scheduler->mutex) {
  const QueueSummary& summary = scheduler->summary;
  const uint64_t count = scheduler->m_queueCount;
  if (summary.count != count || summary.sameStreamPairs != 0) return false;
  const ChunkHeader* chunk = ChunkAt(id);
  if (IsPositionedTransfer(chunk) ? summary.streams[StreamBucket(id)] != 0
                                  : scheduler->typeEstimate[chunk->type] <= 0) {
    return false;
  }
  // Behind a chunk without a position no seek is ever near: the new
  // chunk's cost at the back, whatever the last entry is.
  EstimateState own{};
  own.head = PositionKey{-1, 0};
  EstimateStep(scheduler, id, INT32_MAX, &own);
  const ZulKestTime backCost = own.clock;

  const PositionKey head{scheduler->lastHandle, scheduler->lastEnd};
  const ChunkID first = QueueAt(scheduler, 0);
  EstimateState alone{};
  alone.head = head;
  EstimateStep(scheduler, first, INT32_MAX, &alone);
  EstimateState behind{};
  behind.head = head;
  EstimateStep(scheduler, id, INT32_MAX, &behind);
  EstimateStep(scheduler, first, INT32_MAX, &behind);
  if (behind.clock - alone.clock < backCost) return false;

  // The first entry is counted twice over (exactly, and again in the sums),
  // which only makes the bound safer.
  __int128 finish = static_cast<__int128>(start) + alone.clock;
  finish += static_cast<__int128>(summary.positioned) * scheduler->seekEstimate[0];
  for (int type = 0; type < kChunkTypeCount; ++type) {
    const __int128 estimate = scheduler->typeEstimate[type];
    finish += summary.unpositioned[type] * estimate;
    // Each positioned chunk costs at most its share of the per-64-KiB rate.
    finish += (summary.transferBytes[type] * estimate + 65535) / 65536;
  }
  return finish <= summary.minDeadline && finish + backCost <= chunk->deadline;
}

// Tries every queue index for the new chunk as if the queue were simulated
// again with the chunk there.  Behind the entry that follows the new chunk
// the simulation differs from the queue's own only by a constant shift of
// the clock (a positioned chunk's seek depends on its predecessor alone), so
// one pass forward records each entry's slack and each candidate's shift,
// one pass backward counts the entries behind each candidate that the shift
// makes late, and a last pass picks the winner: O(n log n) at worst, near
// O(n) when few entries are within reach of the shifts, instead of
// simulating the rest of the queue for every index.
// The simulated queue starts at `start`.
uint64_t PlaceBySimulation(Scheduler* scheduler, ChunkID id, ZulKestTime start, QueueOrder order)
    REQUIRES(scheduler->mutex) {
  InsertScratch* scratch = &scheduler->insertScratch;
  const uint64_t count = scheduler->m_queueCount;
  const bool ordered = order != QueueOrder::kNone;
  uint64_t belongAhead = 0;  // queued chunks that belong ahead of the new one

  const TimeModel model(scheduler);
  const StepInput fresh = model.Describe(id);
  EstimateState prefix{};
  prefix.clock = start;
  prefix.head = PositionKey{scheduler->lastHandle, scheduler->lastEnd};
  int32_t previousLateness = 128;
  ZulKestTime minDeadline = LLONG_MAX;
  int64_t minShift = INT64_MAX, maxShift = INT64_MIN;
  // Queued chunks lie all over the chunk storage: each is fetched a few
  // entries ahead of its step.
  constexpr uint64_t kFetchAhead = 8;
  for (uint64_t c = 0; c < count && c < kFetchAhead; ++c)
    __builtin_prefetch(ChunkAt(QueueAt(scheduler, c)));
  for (uint64_t c = 0; c < count; ++c) {
    if (c + kFetchAhead < count) __builtin_prefetch(ChunkAt(QueueAt(scheduler, c + kFetchAhead)));
    const StepInput queued = model.Describe(QueueAt(scheduler, c));
    if (queued.deadline < minDeadline) minDeadline = queued.deadline;
    const int side = ordered ? CompareInOrder(order, queued, fresh) : 0;
    if (side < 0) ++belongAhead;
    EstimateState trial = prefix;
    const int32_t lateness = model.Step(fresh, INT32_MAX, &trial);
    trial.laterHigher = 0;
    trial.laterEqual = 0;
    model.Step(queued, lateness, &trial);
    const int32_t queuedLateness = model.Step(queued, 128, &prefix);
    scratch->slack[c] = SaturatingSub(queued.deadline, prefix.clock);
    scratch->shift[c] = SaturatingSub(trial.clock, prefix.clock);
    minShift = std::min(minShift, scratch->shift[c]);
    maxShift = std::max(maxShift, scratch->shift[c]);
    scratch->misses[c] = trial.misses;
    scratch->lateness[c] = static_cast<int16_t>(lateness);
    scratch->priority[c] = queued.priority;
    scratch->flags[c] = static_cast<uint8_t>(
        (trial.laterHigher != 0 ? kLaterHigher : 0) | (trial.laterEqual != 0 ? kLaterEqual : 0) |
        (lateness <= previousLateness || c == 0 ? kEligible : 0) | (side < 0 ? kBelongsAhead : 0) |
        (side > 0 ? kBelongsBehind : 0));
    previousLateness = queuedLateness;
  }

  // The walk gives the summary's deadline bound back its exact value (it
  // only ever falls while the queue is not empty).
  if (scheduler->summary.count != count) RebuildQueueSummary(scheduler);
  scheduler->summary.minDeadline = minDeadline;

  LaterChunks later(scratch, count, minShift, maxShift);
  for (uint64_t c = count; c-- > 0;) {
    if (c + 1 < count) later.Add(c + 1, scratch->priority[c + 1]);
    const int64_t shift = scratch->shift[c];
    const int32_t lateness = scratch->lateness[c];
    const uint64_t late = later.Late(shift);
    bool higher, equal;
    if (lateness == kOnTime) {
      higher = late != 0;
      equal = late != later.size();
    } else {
      higher = later.LateAbove(lateness, shift);
      equal = later.LateAt(lateness, shift);
    }
    scratch->misses[c] += static_cast<uint32_t>(late);
    scratch->flags[c] = static_cast<uint8_t>(scratch->flags[c] | (higher ? kLaterHigher : 0) |
                                             (equal ? kLaterEqual : 0));
  }

  // On an exact tie the later place wins (behind its equals), except that
  // an unpositioned chunk that costs nothing stays in front.
  const bool takeTies = fresh.positioned || fresh.cost > 0;
  Candidate best;
  auto consider = [&best, takeTies](uint64_t index, uint32_t misses, uint64_t inversions,
                                    ZulKestTime clock) {
    const bool better =
        !best.found || misses < best.misses ||
        (misses == best.misses &&
         (inversions < best.inversions || (inversions == best.inversions && clock < best.clock)));
    const bool tie =
        best.found && misses == best.misses && inversions == best.inversions && clock == best.clock;
    if (better || (tie && takeTies)) best = Candidate{true, index, misses, inversions, clock};
  };
  // Inversions at index c: the chunks ahead of it that belong behind the
  // new one plus those from c on that belong ahead.  Without an ordering
  // option every place counts 0.
  uint64_t behindButAhead = 0, aheadAlready = 0;
  auto inversions = [&]() { return behindButAhead + belongAhead - aheadAlready; };
  for (uint64_t c = 0; c < count; ++c) {
    const uint8_t flags = scratch->flags[c];
    if ((flags & kLaterHigher) == 0 && (flags & (kEligible | kLaterEqual)) != 0)
      consider(c, scratch->misses[c], inversions(), prefix.clock + scratch->shift[c]);
    if ((flags & kBelongsBehind) != 0) ++behindButAhead;
    if ((flags & kBelongsAhead) != 0) ++aheadAlready;
  }
  // At the back nothing follows the new chunk.
  EstimateState trial = prefix;
  if (model.Step(fresh, INT32_MAX, &trial) <= previousLateness || count == 0)
    consider(count, trial.misses, inversions(), trial.clock);
  return best.found ? best.index : count;
}

// The order-only placement: behind every queued chunk that belongs ahead
// of the new one or ties with it.  The queue is in that order when every
// chunk in it was placed so, and then the chunks that belong ahead are a
// prefix of it: a binary search finds its end.
uint64_t PlaceInOrder(const Scheduler* scheduler, ChunkID id, QueueOrder order)
    REQUIRES(scheduler->mutex) {
  const TimeModel model(scheduler);
  const StepInput fresh = model.Describe(id);
  uint64_t ahead = 0, size = scheduler->m_queueCount;
  while (size > 0) {
    const uint64_t half = size / 2;
    const StepInput queued = model.Describe(QueueAt(scheduler, ahead + half));
    if (CompareInOrder(order, queued, fresh) <= 0) {
      ahead += half + 1;
      size -= half + 1;
    } else {
      size = half;
    }
  }
  return ahead;
}

}  // namespace

bool IsPositionedTransfer(const ChunkHeader* chunk) {
  return (LoadChunkFlags(chunk) & kChunkPositioned) != 0 && IsTransfer(chunk);
}

bool SameStream(const PositionKey& a, const PositionKey& b) {
  if (a.handle != b.handle) return false;
  if (a.position < 0 || b.position < 0) {
    return (static_cast<uint64_t>(a.position) & kStreamMask) ==
           (static_cast<uint64_t>(b.position) & kStreamMask);
  }
  return true;
}

uint32_t StreamBucket(ChunkID id) {
  const PositionKey key = ChunkPositionKey(id);
  // As SameStream: pseudo positions of one file share their stream bits;
  // media positions and handle offsets are one stream per key handle.
  const uint64_t stream = key.position < 0 ? static_cast<uint64_t>(key.position) & kStreamMask : 0;
  uint64_t x = stream ^ (static_cast<uint64_t>(key.handle) * 0x9E3779B97F4A7C15ull);
  x ^= x >> 29;
  x *= 0xBF58476D1CE4E5B9ull;
  x ^= x >> 32;
  return static_cast<uint32_t>(x % kStreamBuckets);
}

void ComputeChunkPosition(ChunkID id) {
  ChunkHeader* chunk = ChunkAt(id);
  if (!IsTransfer(chunk)) return;
  ChunkFhIoRecord* io = reinterpret_cast<ChunkFhIoRecord*>(chunk);
  const FileHandle* file = Lookup<FileHandle>(kFhTable, io->h);
  if (file == nullptr) {
    io->position = 1;
    return;
  }
  int64_t out[3] = {0, 0, 0};
  if (DiscMapQueryPosition(GetPath(&file->path), io->offset, io->reqCount, out) == 0) {
    io->position = out[1] << 16;
    return;
  }
  // A pseudo position: the path digest keeps different files apart in the
  // high bits, the offset orders a file's own pieces.
  uint64_t digestBits;
  std::memcpy(&digestBits, file->path.digest, sizeof(digestBits));
  io->position = static_cast<int64_t>(
      ((digestBits & kPseudoPositionMask) + static_cast<uint64_t>(io->offset)) |
      (uint64_t{1} << 63));
}

PositionKey ChunkPositionKey(ChunkID id) {
  const ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(id);
  if (io->position != INT64_MAX) return PositionKey{-2, io->position};
  return PositionKey{static_cast<int64_t>(io->h), io->offset};
}

int32_t EstimateStep(const Scheduler* scheduler, ChunkID id, int32_t referenceLateness,
                     EstimateState* state) {
  const TimeModel model(scheduler);
  return model.Step(model.Describe(id), referenceLateness, state);
}

uint64_t FindInsertPosition(Scheduler* scheduler, ChunkID id) {
  ChunkHeader* chunk = ChunkAt(id);
  const ZulKestTime now = zulKestTimeGetCurrent();
  {
    ChunkLocker lock;  // chunks below may already run and read it
    if (chunk->deadline == 0) chunk->deadline = now + kDefaultDeadlineDelay;
  }
  const uint64_t count = scheduler->m_queueCount;
  if (count == 0) return 0;

  // Stream append: the next piece of the read or write at the back.
  const ChunkID last = QueueAt(scheduler, count - 1);
  const ChunkHeader* lastChunk = ChunkAt(last);
  if (IsTransfer(chunk) && IsTransfer(lastChunk)) {
    const PositionKey key = ChunkPositionKey(id);
    const PositionKey lastKey = ChunkPositionKey(last);
    const int64_t lastEnd = lastKey.position + ChunkRecord<ChunkFhIoRecord>(last)->reqCount;
    if (key.handle == lastKey.handle && chunk->priority == lastChunk->priority &&
        lastChunk->deadline <= chunk->deadline &&
        std::llabs(key.position - lastEnd) < kStreamAppendDistance) {
      return count;
    }
  }

  const uint32_t options = PlacementOptions();
  const QueueOrder order = OrderOf(options);
  if (order != QueueOrder::kNone && (options & ZUL_KEST_SCHEDULING_ORDER_ONLY) != 0)
    return PlaceInOrder(scheduler, id, order);

  // The simulation starts when the running chunk is expected to finish,
  // or just after now when none runs.
  const ZulKestTime running = __atomic_load_n(&scheduler->runningFinish, __ATOMIC_RELAXED);
  const ZulKestTime start = running != 0 ? running : now + kIdleStartDelay;
  // The shortcut proves the back wins on misses and finish only; under an
  // ordering option a chunk that belongs ahead of queued ones may not go
  // there.
  if (order == QueueOrder::kNone && BackWinsOutright(scheduler, id, start)) return count;
  return PlaceBySimulation(scheduler, id, start, order);
}

uint32_t PlacementOptions() { return __atomic_load_n(&g_placementOptions, __ATOMIC_RELAXED); }

void SetPlacementOptions(uint32_t options) {
  __atomic_store_n(&g_placementOptions, options, __ATOMIC_RELAXED);
}

}  // namespace kest2
