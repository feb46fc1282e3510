// The overlay table and the resolver: see overlay_table.h.

#include "io/overlay_table.h"

#include <cstring>

#include "core/globals.h"
#include "debug/trace.h"
#include "io/native_fs.h"

namespace kest2 {
namespace {

constexpr uint8_t kMaxType = ZUL_KEST_OVERLAY_TYPE_WRITABLE;
constexpr uint8_t kMaxPublicOrder = 127;
constexpr const char kNotFound[] =
    "Couldn't find a matching overlay ID that is visible to this process.\n";

OverlayEntry g_table[kOverlayTableSize];
int32_t g_count;
int32_t g_nextId = 1;
// How deep this thread is in overlay read holds (see OverlayReadLocker).
thread_local int t_readDepth;

// The write side, for table changes; before the global locks exist (no
// library yet) the table is changed unlocked, as the other global state.
// The lock exists only with the global lock set (before it, the host is
// single-threaded); the locker asserts it for the analysis.
class OverlayWriteLocker {
 public:
  OverlayWriteLocker() ASSERT_CAPABILITY(g_locks.overlay) NO_THREAD_SAFETY_ANALYSIS
      : m_locked(LocksCreated()) {
    if (m_locked) RwlockWriteLock(&g_locks.overlay);
  }
  ~OverlayWriteLocker() NO_THREAD_SAFETY_ANALYSIS {
    if (m_locked) RwlockWriteUnlock(&g_locks.overlay);
  }
  OverlayWriteLocker(const OverlayWriteLocker&) = delete;
  OverlayWriteLocker& operator=(const OverlayWriteLocker&) = delete;

 private:
  const bool m_locked;
};

bool IsSeparator(char c) { return c == '/' || c == '\\' || c == ':'; }

bool Terminated(const char* text, size_t size) { return std::memchr(text, 0, size) != nullptr; }

bool CheckTarget(int32_t target, const char* function) {
  if (target == kThisProcess) return true;
  KEST2_TRACE(kTraceOvrly, function, "%s", "This process or thread is not privileged.\n");
  return false;
}

void TraceTable(const char* function) {
  if (!TraceEnabled(kTraceOvrly)) return;
  for (int32_t i = 0; i < g_count; ++i) {
    const OverlayEntry& e = g_table[i];
    TraceLine(kTraceOvrly, function, "list[%d] = { pid 0x%08X, id %d, order %d, src %s, dst %s }\n",
              i, static_cast<unsigned>(e.pid), e.id, static_cast<uint8_t>(e.order), e.src, e.dst);
  }
}

// Type, termination and normal form of an entry's paths.
int32_t Normalize(const OverlayEntry* in, OverlayEntry* out) {
  if (in->type > kMaxType || in->order < 0) return ZUL_KEST_ERROR_BAD_OVERLAY;
  if (!Terminated(in->dst, kOverlayPathSize) || !Terminated(in->src, kOverlayPathSize))
    return ZUL_KEST_ERROR_PATH_TOO_LONG;
  OverlayEntry entry{};
  entry.type = in->type;
  entry.order = in->order;
  entry.pid = kThisProcess;
  // An empty dst lays src over every path; it stays empty.
  uint64_t length = 0;
  if (in->dst[0] != 0) {
    length = zulKestPathNormalize(entry.dst, in->dst, kOverlayPathSize);
    if (length >= kOverlayPathSize) return ZUL_KEST_ERROR_BAD_PATH;
  }
  entry.dstLength = static_cast<uint16_t>(length);
  length = zulKestPathNormalize(entry.src, in->src, kOverlayPathSize);
  if (length >= kOverlayPathSize) return ZUL_KEST_ERROR_BAD_PATH;
  entry.srcLength = static_cast<uint16_t>(length);
  *out = entry;
  return ZUL_KEST_OK;
}

// Index of the visible entry with this id, or -1.
int32_t Find(int32_t id) REQUIRES_SHARED(g_locks.overlay) {
  for (int32_t i = 0; i < g_count; ++i) {
    if (g_table[i].id == id && g_table[i].order >= 0 && g_table[i].pid == kThisProcess) return i;
  }
  return -1;
}

// Before the first entry whose order is not lower.
void Insert(const OverlayEntry& entry) REQUIRES(g_locks.overlay) {
  int32_t at = 0;
  while (at < g_count &&
         static_cast<uint8_t>(g_table[at].order) < static_cast<uint8_t>(entry.order))
    ++at;
  std::memmove(&g_table[at + 1], &g_table[at],
               sizeof(OverlayEntry) * static_cast<size_t>(g_count - at));
  g_table[at] = entry;
  __atomic_store_n(&g_count, g_count + 1, __ATOMIC_RELEASE);
}

void RemoveAt(int32_t at) {
  std::memmove(&g_table[at], &g_table[at + 1],
               sizeof(OverlayEntry) * static_cast<size_t>(g_count - at - 1));
  __atomic_store_n(&g_count, g_count - 1, __ATOMIC_RELEASE);
  std::memset(&g_table[g_count], 0, sizeof(OverlayEntry));
}

// The prefix dst ends at a component boundary of path.
bool MatchesAtBoundary(const OverlayEntry& e, const char* path) {
  if (e.dstLength == 0) return true;
  if (std::strncmp(path, e.dst, e.dstLength) != 0) return false;
  const char next = path[e.dstLength];
  return next == 0 || next == '/' || next == '\\' || next == ':' ||
         IsSeparator(e.dst[e.dstLength - 1]);
}

// src + the rest of path after dst, with one separator between them.
// False when it does not fit in size bytes.
bool BuildCandidate(const OverlayEntry& e, const char* path, char* out, uint64_t size) {
  const char* rest = path + e.dstLength;
  const size_t restLength = std::strlen(rest);
  size_t length = e.srcLength;
  if (length + 1 > size) return false;
  std::memcpy(out, e.src, length);
  const bool srcEndsWithSeparator = length > 0 && IsSeparator(e.src[length - 1]);
  if (srcEndsWithSeparator && restLength > 0 && rest[0] == e.src[length - 1]) {
    ++rest;
  } else if (!srcEndsWithSeparator && restLength > 0 && rest[0] != '/' && rest[0] != '\\') {
    if (length + 2 > size) return false;
    out[length++] = '/';
  }
  const size_t tail = std::strlen(rest);
  if (length + tail + 1 > size) return false;
  std::memcpy(out + length, rest, tail + 1);
  return true;
}

// The status of candidate as resolved through the overlays from `first`
// on: the resolver's result, or the stat's error.
int32_t ResolveAndStat(const OverlayResolveParams& params, int32_t first, char* scratch,
                       const char* candidate, ZulKestStat* stat) {
  std::memset(stat, 0, sizeof(*stat));
  char local[kResolveBufferSize];
  std::strncpy(local, candidate, sizeof(local) - 1);
  local[sizeof(local) - 1] = 0;
  OverlayResolveParams inner = params;
  inner.bufferSize = sizeof(local);
  const int32_t resolved = OverlayResolveFromIndex(inner, first, scratch, local);
  if (resolved < 0) return resolved;
  NativeStat native{};
  KEST2_TRACE(kTraceIo, "zulKestNativeStat", "(\"%s\")", local);
  NativeEvent event(kEventStat, CHUNKID_INVALID, local);
  const int32_t result = NativeStatPath(local, &native);
  event.Finish();
  if (result < 0) return MapNativeError(result);
  FillLibraryStat(native, stat);
  return resolved;
}

}  // namespace

OverlayReadLocker::OverlayReadLocker() : m_locked(t_readDepth++ == 0 && LocksCreated()) {
  if (m_locked) RwlockReadLock(&g_locks.overlay);
}

OverlayReadLocker::~OverlayReadLocker() {
  --t_readDepth;
  if (m_locked) RwlockReadUnlock(&g_locks.overlay);
}

int32_t OverlayFromPublic(const ZulKestOverlay* overlay, OverlayEntry* entry) {
  if (overlay == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (overlay->type > kMaxType || overlay->order < 0) return ZUL_KEST_ERROR_BAD_OVERLAY;
  if (!Terminated(overlay->dst, kOverlayPathSize) || !Terminated(overlay->src, kOverlayPathSize))
    return ZUL_KEST_ERROR_PATH_TOO_LONG;
  *entry = OverlayEntry{};
  entry->type = overlay->type;
  entry->order = overlay->order;
  entry->pid = kThisProcess;
  std::memcpy(entry->dst, overlay->dst, kOverlayPathSize);
  std::memcpy(entry->src, overlay->src, kOverlayPathSize);
  return ZUL_KEST_OK;
}

int32_t OverlayAdd(int32_t target, const OverlayEntry* in, int32_t* id) {
  if (id == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  *id = 0;
  KEST2_TRACE(kTraceOvrly, "Add", "currentProcess=0x%08x, targetProcess=0x%08x, src=%s, dst=%s\n",
              kThisProcess, static_cast<unsigned>(target), in != nullptr ? in->src : "",
              in != nullptr ? in->dst : "");
  if (!CheckTarget(target, "Add")) return ZUL_KEST_ERROR_ACCESS;
  if (in == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  OverlayEntry entry;
  const int32_t normalized = Normalize(in, &entry);
  if (normalized != ZUL_KEST_OK) return normalized;
  OverlayWriteLocker lock;
  if (g_count == kOverlayTableSize) return ZUL_KEST_ERROR_TOO_MANY_OVERLAYS;
  entry.id = g_nextId++;
  if (g_nextId == 0) g_nextId = 1;
  Insert(entry);
  *id = entry.id;
  KEST2_TRACE(kTraceOvrly, "Add", "returning id %d\n", entry.id);
  TraceTable("Add");
  return ZUL_KEST_OK;
}

int32_t OverlayRemove(int32_t target, int32_t id) {
  KEST2_TRACE(kTraceOvrly, "Remove", "currentProcess=0x%08x, targetProcess=0x%08x, id=%d\n",
              kThisProcess, static_cast<unsigned>(target), id);
  if (!CheckTarget(target, "Remove")) return ZUL_KEST_ERROR_ACCESS;
  OverlayWriteLocker lock;
  const int32_t at = Find(id);
  if (at < 0) {
    KEST2_TRACE(kTraceOvrly, "Remove", "%s", kNotFound);
    return ZUL_KEST_ERROR_BAD_OVERLAY;
  }
  RemoveAt(at);
  TraceTable("Remove");
  return ZUL_KEST_OK;
}

int32_t OverlayGetInfo(int32_t target, int32_t id, OverlayEntry* out) {
  KEST2_TRACE(kTraceOvrly, "GetInfo", "currentProcess=0x%08x, targetProcess=0x%08x, id=%d\n",
              kThisProcess, static_cast<unsigned>(target), id);
  if (!CheckTarget(target, "GetInfo")) return ZUL_KEST_ERROR_ACCESS;
  if (out == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  OverlayReadLocker lock;
  const int32_t at = Find(id);
  if (at < 0) {
    KEST2_TRACE(kTraceOvrly, "GetInfo", "%s", kNotFound);
    return ZUL_KEST_ERROR_BAD_OVERLAY;
  }
  *out = g_table[at];
  return ZUL_KEST_OK;
}

int32_t OverlayModify(int32_t target, int32_t id, const OverlayEntry* in) {
  KEST2_TRACE(kTraceOvrly, "Modify",
              "currentProcess=0x%08x, targetProcess=0x%08x, id=%d, src=%s, dst=%s\n", kThisProcess,
              static_cast<unsigned>(target), id, in != nullptr ? in->src : "",
              in != nullptr ? in->dst : "");
  if (!CheckTarget(target, "Modify")) return ZUL_KEST_ERROR_ACCESS;
  if (in == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  OverlayEntry entry;
  const int32_t normalized = Normalize(in, &entry);
  if (normalized != ZUL_KEST_OK) return normalized;
  entry.id = id;
  OverlayWriteLocker lock;
  const int32_t at = Find(id);
  if (at < 0) {
    KEST2_TRACE(kTraceOvrly, "Modify", "%s", kNotFound);
    return ZUL_KEST_ERROR_BAD_OVERLAY;
  }
  if (g_table[at].order == entry.order) {
    g_table[at] = entry;
  } else {
    RemoveAt(at);
    Insert(entry);
  }
  return ZUL_KEST_OK;
}

int32_t OverlayGetList(int32_t target, uint8_t minOrder, uint8_t maxOrder, int32_t* ids,
                       int32_t length, int32_t* count) {
  if (!CheckTarget(target, "GetList")) return ZUL_KEST_ERROR_ACCESS;
  if (ids == nullptr && length != 0) return ZUL_KEST_ERROR_BAD_PTR;
  OverlayReadLocker lock;
  if (ids != nullptr && length > 0)
    std::memset(ids, 0, sizeof(int32_t) * static_cast<size_t>(length));
  int32_t found = 0;
  for (int32_t i = 0; i < g_count; ++i) {
    const OverlayEntry& e = g_table[i];
    const uint8_t order = static_cast<uint8_t>(e.order);
    if (e.order < 0 || e.pid != kThisProcess || order < minOrder || order > maxOrder) continue;
    if (found < length) ids[found] = e.id;
    ++found;
  }
  if (count != nullptr) *count = found;
  return ZUL_KEST_OK;
}

void OverlayRemoveAllForProcess(int32_t target) {
  for (;;) {
    int32_t id = 0;
    {
      OverlayReadLocker lock;
      for (int32_t i = 0; i < g_count && id == 0; ++i) {
        const OverlayEntry& e = g_table[i];
        if (e.order >= 0 && e.pid == target && static_cast<uint8_t>(e.order) <= kMaxPublicOrder)
          id = e.id;
      }
    }
    if (id == 0 || OverlayRemove(target, id) != ZUL_KEST_OK) return;
  }
}

int32_t OverlayResolveSync(int32_t target, uint32_t forWrite, const char* path, char* out,
                           uint64_t outSize, uint8_t minOrder, uint8_t maxOrder) {
  if (path == nullptr || out == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (outSize > kResolveBufferSize) return ZUL_KEST_ERROR_BAD_SIZE;
  if (outSize == 0 || strnlen(path, outSize) == outSize) return ZUL_KEST_ERROR_PATH_TOO_LONG;
  if (minOrder > maxOrder) return ZUL_KEST_ERROR_BAD_ORDER;
  std::strcpy(out, path);
  char scratch[kResolveBufferSize];
  const OverlayResolveParams params{target, forWrite, outSize, minOrder, maxOrder};
  const int32_t result = OverlayResolveFromIndex(params, 0, scratch, out);
  if (result < 0) {
    KEST2_TRACE(kTraceOvrly, "ResolveSync", "final result: failed with error 0x%08X\n",
                static_cast<unsigned>(result));
    return result;
  }
  KEST2_TRACE(kTraceOvrly, "ResolveSync", "%s final result: %s -> %s\n",
              result == 0 ? "Overlay no change," : "Overlay modified, ", path, out);
  return ZUL_KEST_OK;
}

int32_t OverlayResolveFromIndex(const OverlayResolveParams& params, int32_t first, char* scratch,
                                char* path) {
  static const char kName[] = "ResolveSyncFromIndex";
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (params.forWrite > 1) return ZUL_KEST_ERROR_BAD_ARGUMENT;
  if (params.bufferSize == 0 || strnlen(path, params.bufferSize) == params.bufferSize)
    return ZUL_KEST_ERROR_PATH_TOO_LONG;
  if (params.targetProcess != kThisProcess && params.targetProcess != kEveryProcess) {
    KEST2_TRACE(kTraceOvrly, kName, "%s",
                "unprivileged process or thread resolving other process overlays.\n");
    return ZUL_KEST_OK;
  }
  std::memset(scratch, 0, kResolveBufferSize);
  const uint64_t length = zulKestPathNormalize(scratch, path, params.bufferSize);
  if (length >= params.bufferSize) return ZUL_KEST_ERROR_BAD_PATH;
  std::memcpy(path, scratch, length + 1);

  OverlayReadLocker lock;
  int32_t firstAccepted = kOverlayTableSize;
  bool currentKnown = false;
  bool currentExists = false;
  int32_t currentValidUntil = kOverlayTableSize;
  ZulKestStat current{};
  ZulKestStat candidateStat{};
  for (int32_t i = first; i < g_count; ++i) {
    const OverlayEntry& e = g_table[i];
    const uint8_t order = static_cast<uint8_t>(e.order);
    if (order < params.minOrder || order > params.maxOrder) {
      KEST2_TRACE(kTraceOvrly, kName,
                  "REJECTED overlay[%d] (id %d, order %d): not in order range\n", i, e.id, e.order);
      continue;
    }
    if (e.pid != kEveryProcess && e.pid != params.targetProcess) {
      KEST2_TRACE(kTraceOvrly, kName, "REJECTED overlay[%d] (id %d, order %d): pid mismatch\n", i,
                  e.id, e.order);
      continue;
    }
    if (!MatchesAtBoundary(e, path)) {
      KEST2_TRACE(kTraceOvrly, kName, "REJECTED overlay[%d] (id %d, order %d): no match (%s, %s)\n",
                  i, e.id, e.order, e.dst, path);
      continue;
    }
    if (!BuildCandidate(e, path, scratch, params.bufferSize)) return ZUL_KEST_ERROR_PATH_TOO_LONG;
    KEST2_TRACE(kTraceOvrly, kName, "CANDIDATE overlay[%d] (id %d, order %d): '%s' -> '%s'\n", i,
                e.id, e.order, path, scratch);
    uint8_t type = e.type;
    if (type == ZUL_KEST_OVERLAY_TYPE_WRITABLE)
      type =
          params.forWrite == 1 ? ZUL_KEST_OVERLAY_TYPE_OPAQUE : ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT;
    char candidate[kResolveBufferSize];
    std::memcpy(candidate, scratch, std::strlen(scratch) + 1);
    if (type == ZUL_KEST_OVERLAY_TYPE_OPAQUE) {
      KEST2_TRACE(kTraceOvrly, kName, "ACCEPT overlay[%d] (id %d, order %d): opaque\n", i, e.id,
                  e.order);
      currentKnown = false;
    } else {
      KEST2_TRACE(kTraceOvrly, kName, "non-opaque calling stat on candidate path %s\n", candidate);
      const int32_t candidateResult =
          ResolveAndStat(params, i + 1, scratch, candidate, &candidateStat);
      if (candidateResult < 0) {
        KEST2_TRACE(kTraceOvrly, kName, "REJECT overlay[%d] (id %d, order %d): does not exist\n", i,
                    e.id, e.order);
        continue;
      }
      if (type == ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT) {
        KEST2_TRACE(kTraceOvrly, kName,
                    "ACCEPT overlay[%d] (id %d, order %d): translucent and file exists\n", i, e.id,
                    e.order);
      } else {
        if (!currentKnown || i >= currentValidUntil) {
          const int32_t currentResult = ResolveAndStat(params, i + 1, scratch, path, &current);
          currentValidUntil = currentResult < 1 ? kOverlayTableSize : currentResult - 1;
          currentExists = currentResult >= 0;
          currentKnown = true;
        }
        if (!currentExists || current.modificationDate == 0) {
          KEST2_TRACE(kTraceOvrly, kName,
                      "ACCEPT overlay[%d] (id %d, order %d): previous path doesn't exist, and this "
                      "one does\n",
                      i, e.id, e.order);
        } else if (candidateStat.modificationDate <= current.modificationDate) {
          KEST2_TRACE(kTraceOvrly, kName,
                      "REJECT overlay[%d] (id %d, order %d): mod date is the same or older\n", i,
                      e.id, e.order);
          continue;
        } else {
          KEST2_TRACE(kTraceOvrly, kName,
                      "ACCEPT overlay[%d] (id %d, order %d): mod date is newer\n", i, e.id,
                      e.order);
        }
      }
      current = candidateStat;
      currentKnown = true;
      currentExists = true;
      currentValidUntil = candidateResult < 1 ? kOverlayTableSize : candidateResult - 1;
    }
    std::memcpy(path, candidate, std::strlen(candidate) + 1);
    if (i < firstAccepted) firstAccepted = i;
  }
  return firstAccepted == kOverlayTableSize ? 0 : firstAccepted + 1;
}

int32_t OverlayNativeStatFromIndex(int32_t target, uint32_t forWrite, const char* path,
                                   NativeStat* stat, char* scratch, int32_t first, uint8_t minOrder,
                                   uint8_t maxOrder) {
  std::memset(stat, 0, sizeof(*stat));
  char local[kResolveBufferSize];
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  std::strncpy(local, path, sizeof(local) - 1);
  local[sizeof(local) - 1] = 0;
  const OverlayResolveParams params{target, forWrite, sizeof(local), minOrder, maxOrder};
  const int32_t resolved = OverlayResolveFromIndex(params, first, scratch, local);
  if (resolved < 0) return resolved;
  KEST2_TRACE(kTraceOvrly, "NativeStatSyncFromIndex", "zulKestNativeStat %s\n", local);
  NativeEvent event(kEventStat, CHUNKID_INVALID, local);
  const int32_t result = NativeStatPath(local, stat);
  event.Finish();
  return result;
}

int32_t OverlayCount() { return g_count; }
const OverlayEntry* OverlayAt(int32_t index) {
  return index >= 0 && index < g_count ? &g_table[index] : nullptr;
}

bool OverlaysInstalled() { return __atomic_load_n(&g_count, __ATOMIC_ACQUIRE) > 0; }

}  // namespace kest2
