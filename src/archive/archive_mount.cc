// Mounting, querying and unmounting archives: see archive_mount.h.

#include "archive/archive_mount.h"

#include <algorithm>
#include <cstring>

#include "archive/archive_read.h"
#include "archive/archive_tracker.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/platform.h"
#include "core/records.h"
#include "debug/dump.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

constexpr uint64_t kManifestSizeLimit = 0x3FFFFFFFFFFFFFFFULL;

// What the stages of one mount share, in a buffer chunk of the chain.
struct MountState {
  ZulKestZorbaDearchiverContext* context;
  uint32_t archiveHandle;
  bool query;
  const char* mountPoint;  // null for a query
  uint8_t* buffer;
  uint64_t bufferSize;
  int64_t* actCount;
  ArchiveTracker* tracker;  // null when the buffer cannot hold one
  ZorbaHeader header;
  ZulKestStat stat;
  uint8_t rawHeader[kZorbaHeaderReadSize];
  int64_t headerCount;
  int64_t tocCount;
  int64_t manifestCount;
  uint8_t* tocTarget;
  uint64_t mountPointArea;
  ChunkID tocCallback;
  ChunkID manifestCallback;
  ChunkID failureClose;
};

MountState* StateOf(ChunkCallbackRecord* record) {
  MountState* state;
  std::memcpy(&state, record->filterData, sizeof(state));
  return state;
}

const char* ArchivePathText(const MountState* state) {
  const FileHandle* file = Lookup<FileHandle>(kFhTable, state->archiveHandle);
  return file != nullptr ? GetPath(&file->path) : "";
}

int32_t NotEnoughBytes(const char* stage, int64_t count, const MountState* state) {
  KEST2_TRACE(kTraceZorba, stage, "failed, not enough bytes (%d) reading %s\n",
              static_cast<int>(count), ArchivePathText(state));
  return ZUL_KEST_ERROR_EOF;
}

// Links a new chunk below parent and hands it to the scheduler with the
// parent's priority and deadline.
int32_t ScheduleBelow(ChunkID parent, ChunkID child) {
  {
    ChunkLocker lock;
    if (!LinkChunks(parent, child)) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    PrepareChunk(child, ChunkAt(parent)->priority, ChunkAt(parent)->deadline);
  }
  ScheduleTree(child, 0, false);
  return ZUL_KEST_OK;
}

// --- Header stage --------------------------------------------------------

int32_t HeaderStage(ChunkCallbackRecord* record, int32_t event) {
  if (event != 1) return ZUL_KEST_OK;
  if (record->error != ZUL_KEST_OK) return record->error;
  MountState* state = StateOf(record);
  if (state->headerCount < static_cast<int64_t>(kZorbaHeaderReadSize))
    return NotEnoughBytes("header", state->headerCount, state);
  ParseHeader(state->rawHeader, &state->header);
  if (!IsHeaderValid(state->header) || state->header.compression != kZorbaCompressionZlib) {
    KEST2_TRACE(kTraceZorba, "header", "%s", "failed archive header check\n");
    return ZUL_KEST_ERROR_BAD_ARCHIVE;
  }
  state->mountPointArea =
      state->query ? kQueryMountPointArea : MountPointArea(std::strlen(state->mountPoint));
  const MountLayout layout = ComputeMountLayout(state->header, state->mountPointArea, 0);
  if (state->buffer != nullptr && state->bufferSize >= kTrackerSize) {
    ArchiveTracker* tracker = reinterpret_cast<ArchiveTracker*>(state->buffer);
    std::memset(tracker, 0, kTrackerSize);
    tracker->header = state->header;
    tracker->archiveHandle = state->archiveHandle;
    tracker->archiveStat = state->stat;
    state->tracker = tracker;
    if (state->bufferSize >= layout.blockIndex) {
      if (state->mountPoint == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
      tracker->mountPoint = reinterpret_cast<char*>(state->buffer + layout.mountPoint);
      tracker->mountPointLength = static_cast<uint32_t>(std::strlen(state->mountPoint));
      std::memcpy(tracker->mountPoint, state->mountPoint, tracker->mountPointLength + 1);
    }
    if (state->bufferSize >= layout.toc) tracker->blockIndex = state->buffer + layout.blockIndex;
    if (state->bufferSize >= layout.manifestPaths) tracker->toc = state->buffer + layout.toc;
  }
  const ChunkID read = AllocateChunk(CHUNK_FH_READ);
  if (read == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(read);
  io->h = state->archiveHandle;
  io->offset = static_cast<int64_t>(state->header.tocOffset);
  io->position = INT64_MAX;
  io->actCount = &state->tocCount;
  if (state->tracker != nullptr && state->tracker->toc != nullptr) {
    state->tocTarget = state->tracker->toc;
    io->reqCount = state->header.tocLength;
  } else {
    // Only the first entry, where a query expects the manifest.
    state->tocTarget =
        static_cast<uint8_t*>(AllocateBufferChunk(state->tocCallback, state->header.tocEntrySize));
    if (state->tocTarget == nullptr) {
      DeallocateChunk(read);
      return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    }
    io->reqCount = state->header.tocEntrySize;
  }
  io->buffer = state->tocTarget;
  const int32_t scheduled = ScheduleBelow(state->tocCallback, read);
  if (scheduled != ZUL_KEST_OK) DeallocateChunk(read);
  return scheduled;
}

// --- TOC stage -----------------------------------------------------------

// The archive file's size: the mount stats it; a query does not, and takes
// the size its open recorded in the handle.
uint64_t ArchiveSize(const MountState* state) {
  if (!state->query) return static_cast<uint64_t>(state->stat.fileSize);
  const FileHandle* fh = Lookup<FileHandle>(kFhTable, state->archiveHandle);
  const int64_t size = fh != nullptr ? __atomic_load_n(&fh->size, __ATOMIC_RELAXED) : 0;
  return size > 0 ? static_cast<uint64_t>(size) : 0;
}

// The buffer size a mount reports comes from the archive's own fields, and
// a caller allocates it: a damaged field must not ask for terabytes.  The
// TOC must lie in the file, and the manifest cannot be larger than the
// blocks the TOC has rows for (compressed) or than the file (stored).
bool MountSizeFieldsFit(const ZorbaHeader& header, uint64_t archiveSize, uint64_t manifestSize) {
  if (header.tocOffset > archiveSize || header.tocLength > archiveSize - header.tocOffset)
    return false;
  const uint64_t inBlocks = BlockRowCount(header) * header.blockSize;
  return manifestSize <= std::max(inBlocks, archiveSize);
}

int32_t TocStage(ChunkCallbackRecord* record, int32_t event) {
  if (event != 1) return ZUL_KEST_OK;
  if (record->error != ZUL_KEST_OK) return record->error;
  MountState* state = StateOf(record);
  ZulKestZorbaDearchiverContext* context = state->context;
  if (state->tocCount <= 0) return NotEnoughBytes("TOC", state->tocCount, state);
  const uint64_t scratch = context->workBufferSize / 3;
  if (scratch < state->header.blockSize) {
    KEST2_TRACE(kTraceZorba, "TOC",
                "failed, archive block size of %lld but scratch space size of %lld\n",
                static_cast<long long>(state->header.blockSize), static_cast<long long>(scratch));
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  ArchiveTracker* tracker = state->tracker;
  const uint8_t* manifest;
  const bool whole = tracker != nullptr && state->tocTarget == tracker->toc;
  if (whole) {
    if (state->tocCount != static_cast<int64_t>(state->header.tocLength))
      return NotEnoughBytes("TOC", state->tocCount, state);
    // A corrupt archive must fail here, not in a later read.
    if (CheckArchiveLayout(tracker->header, static_cast<uint64_t>(state->stat.fileSize)) !=
            ZUL_KEST_OK ||
        CheckToc(tracker->header, tracker->toc, static_cast<uint64_t>(state->stat.fileSize)) !=
            ZUL_KEST_OK ||
        (tracker->blockIndex != nullptr &&
         BuildBlockIndex(tracker->header, tracker->toc, tracker->blockIndex) != ZUL_KEST_OK)) {
      return ZUL_KEST_ERROR_BAD_ARCHIVE;
    }
    SortToc(&tracker->header, tracker->toc);
    manifest = FindManifestEntry(tracker->header, tracker->toc);
    if (manifest == nullptr) {
      KEST2_TRACE(kTraceZorba, "TOC", "%s", "failed, couldn't find manifest in TOC\n");
      return ZUL_KEST_ERROR_BAD_ARCHIVE;
    }
  } else {
    if (state->tocCount != static_cast<int64_t>(state->header.tocEntrySize))
      return NotEnoughBytes("TOC", state->tocCount, state);
    static const uint8_t kZeroDigest[kMd5DigestSize] = {};
    if (std::memcmp(state->tocTarget, kZeroDigest, kMd5DigestSize) != 0) {
      KEST2_TRACE(kTraceZorba, "TOC", "%s",
                  "failed, couldn't find manifest at first entry of TOC\n");
      return ZUL_KEST_ERROR_BAD_ARCHIVE;
    }
    manifest = state->tocTarget;
  }
  const uint64_t manifestSize = GetEntrySize(manifest);
  if (manifestSize == 0 || manifestSize >= kManifestSizeLimit ||
      !MountSizeFieldsFit(state->header, ArchiveSize(state), manifestSize)) {
    return ZUL_KEST_ERROR_BAD_ARCHIVE;
  }
  const MountLayout layout = ComputeMountLayout(state->header, state->mountPointArea, manifestSize);
  if (state->actCount != nullptr)
    __atomic_store_n(state->actCount, static_cast<int64_t>(layout.total), __ATOMIC_RELEASE);
  if (state->query) return ZUL_KEST_OK;
  if (state->bufferSize < layout.total || tracker == nullptr) {
    KEST2_TRACE(kTraceZorba, "TOC", "failed, need a bigger mountBuffer (need %d bytes, have %d)\n",
                static_cast<int>(layout.total), static_cast<int>(state->bufferSize));
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  tracker->manifestSize = manifestSize;
  tracker->manifestPaths = reinterpret_cast<const char**>(state->buffer + layout.manifestPaths);
  tracker->manifestText = reinterpret_cast<char*>(state->buffer + layout.manifestText);
  ChunkID readRoot;
  int32_t result;
  {
    DearchiverLocker lock;
    result = CreateReadChunksUnlocked(context, &readRoot, tracker, manifest, tracker->manifestText,
                                      0, static_cast<int64_t>(manifestSize), &state->manifestCount);
  }
  if (result != ZUL_KEST_OK) {
    KEST2_TRACE(kTraceZorba, "TOC", "%s", "failed creating chunks to read manifest\n");
    return result;
  }
  // The manifest's reads go below the manifest stage, which the engine
  // marks scheduled before it schedules the chain below it.
  while ((LoadChunkFlags(ChunkAt(state->manifestCallback)) & kChunkScheduled) == 0)
    SleepMilliseconds(5);
  result = ScheduleBelow(state->manifestCallback, readRoot);
  if (result != ZUL_KEST_OK) DeallocateTree(readRoot);
  return result;
}

// --- Manifest stage ------------------------------------------------------

// Sort order of manifest paths, which directory searches follow.
bool PathBefore(bool ignoreCase, const char* a, const char* b) {
  for (;; ++a, ++b) {
    int x, y;
    if (ignoreCase) {
      x = static_cast<unsigned char>(*a >= 'A' && *a <= 'Z' ? *a - 'A' + 'a' : *a);
      y = static_cast<unsigned char>(*b >= 'A' && *b <= 'Z' ? *b - 'A' + 'a' : *b);
    } else {
      x = static_cast<signed char>(*a);
      y = static_cast<signed char>(*b);
    }
    if (x != y) return x < y;
    if (*a == '\0') return false;
  }
}

int32_t IndexManifest(MountState* state) {
  ArchiveTracker* tracker = state->tracker;
  if (state->manifestCount != static_cast<int64_t>(tracker->manifestSize))
    return NotEnoughBytes("manifest", state->manifestCount, state);
  char* text = tracker->manifestText;
  char* const stop = text + tracker->manifestSize;
  *stop = '\0';
  const uint32_t capacity = tracker->header.tocEntryCount - 1;
  uint32_t count = 0;
  for (char* line = text; line < stop;) {
    char* end = static_cast<char*>(std::memchr(line, '\n', static_cast<size_t>(stop - line)));
    if (end == nullptr) end = stop;
    *end = '\0';
    if (end > line) {
      if (count >= capacity) {
        KEST2_TRACE(kTraceZorba, "manifest", "%s",
                    "failed, more entries in manifest than files in the archive!\n");
        return ZUL_KEST_ERROR_BAD_ARCHIVE;
      }
      tracker->manifestPaths[count++] = line;
    }
    line = end + 1;
  }
  tracker->manifestPathCount = count;
  const bool ignoreCase = (tracker->header.archiveFlags & ZORBA_FLAG_IGNORE_CASE) != 0;
  std::sort(tracker->manifestPaths, tracker->manifestPaths + count,
            [ignoreCase](const char* a, const char* b) { return PathBefore(ignoreCase, a, b); });
  return ZUL_KEST_OK;
}

int32_t ManifestStage(ChunkCallbackRecord* record, int32_t event) {
  if (event != 1) return ZUL_KEST_OK;
  MountState* state = StateOf(record);
  int32_t result = record->error;
  if (result == ZUL_KEST_OK) result = IndexManifest(state);
  if (result == ZUL_KEST_OK) {
    {
      DearchiverLocker lock;
      AddMountedArchive(state->context, state->tracker);
    }
    DeallocateChunk(state->failureClose);
    return ZUL_KEST_OK;
  }
  // The archive file was opened: close it before the mount reports.
  const ChunkID parent = GetParent(ChunkIdOf(record), 0);
  if (parent == CHUNKID_INVALID || ScheduleBelow(parent, state->failureClose) != ZUL_KEST_OK) {
    zulKestPrintf("KEST2 Warning: unable to schedule a close after an archive mount failure.\n");
    DeallocateChunk(state->failureClose);
  }
  return result;
}

ChunkID NewCallback(ChunkID parent, ChunkCallbackFunction function,
                    ZulKestZorbaDearchiverContext* context) {
  const ChunkID id = parent == CHUNKID_INVALID ? AllocateChunk(CHUNK_CALLBACK)
                                               : AllocateChildChunk(parent, CHUNK_CALLBACK);
  if (id == CHUNKID_INVALID) return id;
  ChunkCallbackRecord* record = ChunkRecord<ChunkCallbackRecord>(id);
  record->callback = function;
  record->context = context;
  return id;
}

void SetState(ChunkID callback, MountState* state) {
  std::memcpy(ChunkRecord<ChunkCallbackRecord>(callback)->filterData, &state, sizeof(state));
}

}  // namespace

int32_t BuildMountChain(ZulKestZorbaDearchiverContext* context, ChunkID chunk,
                        ChunkID* replacement) {
  const ChunkArchiveRecord* mount = ChunkRecord<ChunkArchiveRecord>(chunk);
  const bool query = ChunkAt(chunk)->type == CHUNK_ARCHIVE_QUERY;
  const char* archivePath = mount->path != nullptr ? GetPath(mount->path) : "";
  if (query) {
    KEST2_TRACE(kTraceZorba, "GetMountBufferSize path ", "\"%s\"\n", archivePath);
  } else {
    KEST2_TRACE(kTraceZorba, "Mount path ", "\"%s\" <- \"%s\"\n",
                mount->mountPoint != nullptr ? mount->mountPoint : "", archivePath);
  }
  uint8_t* buffer = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(mount->args[0]));
  const uint64_t bufferSize = static_cast<uint64_t>(mount->args[1] > 0 ? mount->args[1] : 0);
  if (buffer != nullptr) std::memset(buffer, 0, bufferSize);

  // top <- TOC stage <- header stage <- header read <- stat <- open
  ChunkID top;
  if (query) {
    top = AllocateChunk(CHUNK_FH_CLOSE);
    if (top != CHUNKID_INVALID) ChunkRecord<ChunkHandleRecord>(top)->h = mount->h;
  } else {
    top = NewCallback(CHUNKID_INVALID, ManifestStage, context);
  }
  const ChunkID toc = NewCallback(top, TocStage, context);
  const ChunkID header = NewCallback(toc, HeaderStage, context);
  const ChunkID headerRead = AllocateChildChunk(header, CHUNK_FH_READ);
  const ChunkID stat = query ? headerRead : AllocateChildChunk(headerRead, CHUNK_STAT);
  const ChunkID open = AllocateChildChunk(stat, CHUNK_FH_OPEN);
  auto* state = static_cast<MountState*>(AllocateBufferChunk(header, sizeof(MountState)));
  const ChunkID failureClose = query ? CHUNKID_INVALID : AllocateChunk(CHUNK_FH_CLOSE);
  if (top == CHUNKID_INVALID || toc == CHUNKID_INVALID || header == CHUNKID_INVALID ||
      headerRead == CHUNKID_INVALID || stat == CHUNKID_INVALID || open == CHUNKID_INVALID ||
      state == nullptr || (!query && failureClose == CHUNKID_INVALID)) {
    if (top != CHUNKID_INVALID) DeallocateTree(top);
    if (failureClose != CHUNKID_INVALID) DeallocateChunk(failureClose);
    return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  }
  std::memset(state, 0, sizeof(*state));
  state->context = context;
  state->archiveHandle = mount->h;
  state->query = query;
  state->mountPoint = mount->mountPoint;
  state->buffer = buffer;
  state->bufferSize = buffer != nullptr ? bufferSize : 0;
  state->actCount = mount->actCount;
  state->tocCallback = toc;
  state->manifestCallback = query ? CHUNKID_INVALID : top;
  state->failureClose = failureClose;
  if (!query) {
    ChunkRecord<ChunkHandleRecord>(failureClose)->h = mount->h;
    SetState(top, state);
    ChunkStatRecord* statRecord = ChunkRecord<ChunkStatRecord>(stat);
    statRecord->h = mount->h;
    statRecord->stat = &state->stat;
  }
  SetState(toc, state);
  SetState(header, state);
  ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(headerRead);
  io->h = mount->h;
  io->offset = 0;
  io->position = INT64_MAX;
  io->reqCount = kZorbaHeaderReadSize;
  io->buffer = state->rawHeader;
  io->actCount = &state->headerCount;
  ChunkFhOpenRecord* openRecord = ChunkRecord<ChunkFhOpenRecord>(open);
  openRecord->h = mount->h;
  openRecord->path = mount->path;
  openRecord->mode = -1;
  *replacement = top;
  return ZUL_KEST_OK;
}

int32_t UnmountArchive(ZulKestZorbaDearchiverContext* context, uint32_t h, ChunkID* replacement) {
  ArchiveTracker* tracker = FindArchiveByHandle(context, h);
  if (tracker == nullptr) {
    char dump[kDumpBufferSize];
    KEST2_TRACE(kTraceZorba, "Unmount", "error - not a mounted archive FH: %s\n",
                zulKestDebugDumpFH(h, dump, sizeof(dump)));
    return ZUL_KEST_ERROR_BAD_FH;
  }
  const ChunkID close = AllocateChunk(CHUNK_FH_CLOSE);
  if (close == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
  const FileHandle* file = Lookup<FileHandle>(kFhTable, h);
  KEST2_TRACE(kTraceZorba, "Unmount", "\"%s\" <- \"%s\"\n", tracker->mountPoint,
              file != nullptr ? GetPath(&file->path) : "");
  RemoveMountedArchive(context, h);
  ChunkRecord<ChunkHandleRecord>(close)->h = h;
  *replacement = close;
  return ZUL_KEST_OK;
}

}  // namespace kest2
