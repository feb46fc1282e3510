// The archive dearchiver filter: mounts archives at mount points and answers
// every chunk that names a path below one, or a handle opened through one,
// from the archive instead of the native file system.
//
// Each new chunk tree is walked children first.  A chunk is passed down
// untouched, answered at once (completed with its result), or replaced by
// chunks of the dearchiver's own (a read becomes block reads and inflating;
// a mount becomes its chain).  A replacement is offered again until it
// stays as it is.

#include <cstring>

#include "archive/archive_directory.h"
#include "archive/archive_mount.h"
#include "archive/archive_read.h"
#include "archive/archive_tracker.h"
#include "archive/codec_registry.h"
#include "archive/zlib_codec.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/dump.h"
#include "debug/trace.h"
#include "io/filter_walk.h"
#include "kest2.h"
#include "sched/chunk_tree.h"

namespace kest2 {
namespace {

constexpr uint64_t kContextSize = sizeof(ZulKestZorbaDearchiverContext);
constexpr uintptr_t kWorkBufferAlignment = 64;

int32_t g_useCount;
bool g_disabled;

bool Aligned(const void* p, uintptr_t alignment) {
  return reinterpret_cast<uintptr_t>(p) % alignment == 0;
}

int32_t Initialize(ZulKestZorbaDearchiverContext* context) {
  if (context == nullptr || context->pWorkBuffer == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  if (context->sizeOfContext != kContextSize) {
    zulKestPrintf("KEST2 ERROR: sizeOfContext %lld != expected %lld.\n",
                  static_cast<long long>(context->sizeOfContext), static_cast<long long>(kContextSize));
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  if (context->workBufferSize == 0) {
    zulKestPrintf("KEST2 ERROR: workBufferSize too small\n");
    return ZUL_KEST_ERROR_BAD_SIZE;
  }
  if (!Aligned(context->pWorkBuffer, kWorkBufferAlignment)) {
    zulKestPrintf("KEST2 ERROR: The dearchiver's pWorkBuffer must be %d-byte aligned!\n",
                  static_cast<int>(kWorkBufferAlignment));
    return ZUL_KEST_ERROR_BAD_ALIGNMENT;
  }
  if ((context->flags & ~uint64_t{ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES}) != 0) {
    zulKestPrintf("KEST2 ERROR: Invalid dearchiver flags (0x%08X)\n",
                  static_cast<unsigned>(context->flags));
    return ZUL_KEST_ERROR_BAD_FLAGS;
  }
  for (unsigned i = 0; i < 3; ++i) {
    if (context->reserved[i] != 0) {
      zulKestPrintf("KEST2 ERROR: The dearchiver's context reserved[%u] field is not zero.\n", i);
      return ZUL_KEST_ERROR_BAD_SIZE;
    }
  }
  if (__atomic_fetch_add(&g_useCount, 1, __ATOMIC_ACQ_REL) == 0) {
    MutexInitialize(DearchiverMutex(), 1, "ZulKestDearchiver");
    const int32_t registered = RegisterCodec(ZlibCodec());
    if (registered != ZUL_KEST_OK) {
      zulKestPrintf("KEST2 ERROR: dearchiver codec registration failed with 0x%x\n",
                    static_cast<unsigned>(registered));
      MutexDestroy(DearchiverMutex());
      __atomic_sub_fetch(&g_useCount, 1, __ATOMIC_ACQ_REL);
      return ZUL_KEST_ERROR_DECOMPRESSION;
    }
  }
  KEST2_TRACE(kTraceZorba, "Initialize", "%s", "");
  return ZUL_KEST_OK;
}

void Terminate() {
  KEST2_TRACE(kTraceZorba, "Terminate", "%s", "");
  if (__atomic_sub_fetch(&g_useCount, 1, __ATOMIC_ACQ_REL) != 0) return;
  MutexDestroy(DearchiverMutex());
  __atomic_store_n(&g_disabled, false, __ATOMIC_RELEASE);
  UnregisterCodec(ZlibCodec());
}

// The context must still be what Initialize accepted; the application may
// have let it go out of scope.
bool StateIsSound(const ZulKestZorbaDearchiverContext* context) {
  if (__atomic_load_n(&g_disabled, __ATOMIC_ACQUIRE)) return false;
  const bool sound = context != nullptr && Aligned(context, 8) &&
                     context->sizeOfContext == kContextSize && context->workBufferSize != 0 &&
                     context->pWorkBuffer != nullptr &&
                     Aligned(context->pWorkBuffer, kWorkBufferAlignment) && context->flags <= 1 &&
                     __atomic_load_n(&context->reserved[0], __ATOMIC_ACQUIRE) % 8 == 0 &&
                     __atomic_load_n(&context->reserved[1], __ATOMIC_ACQUIRE) <= 7;
  if (!sound) {
    zulKestPrintf("KEST2 ERROR: The dearchiver's internal state is corrupt and it will be disabled!\n");
    zulKestPrintf(
        "KEST2 ERROR: A common cause of this problem is declaring the "
        "ZulKestZorbaDearchiverContext on the stack. Both the ZulKestZorbaDearchiverContext and "
        "pWorkBuffer must remain valid while the I/O filter is in place!\n");
    __atomic_store_n(&g_disabled, true, __ATOMIC_RELEASE);
  }
  return sound;
}

// --- Answers ---------------------------------------------------------------

using Outcome = FilterOutcome;

Outcome Answer(ChunkID id, int32_t result, ChunkID* replacement) {
  return AnswerChunk(kTraceZorba, id, result, replacement);
}

Outcome Replace(ChunkID id, ChunkID by, ChunkID* replacement) {
  return ReplaceChunkWith(kTraceZorba, id, by, replacement);
}

// Whether a loose listing has also read its native directory to the end.
bool ListingFinished(uint32_t dh) {
  const DirHandle* dir = Lookup<DirHandle>(kDhTable, dh);
  if (dir == nullptr) return true;
  ArchiveDirData data;
  std::memcpy(&data, dir->filterData, sizeof(data));
  return data.exhausted == kListingNativeDone;
}

void StoreBool(void* result, bool value) {
  if (result != nullptr) *static_cast<bool*>(result) = value;
}

void BindFile(ZulKestZorbaDearchiverContext* context, FileHandle* file, ArchiveTracker* tracker,
              const uint8_t* entry) {
  file->filterContext = context;
  const ArchiveFileData data{tracker->id, EntryIndex(tracker, entry)};
  std::memcpy(file->filterData, &data, sizeof(data));
  __atomic_store_n(&file->size, static_cast<int64_t>(GetEntrySize(entry)), __ATOMIC_RELEASE);
  __atomic_store_n(&file->offset, int64_t{0}, __ATOMIC_RELEASE);
}

void BindDir(ZulKestZorbaDearchiverContext* context, DirHandle* dir, ArchiveTracker* tracker) {
  dir->filterContext = context;
  ArchiveDirData data{};
  data.id = tracker != nullptr ? tracker->id : 0;
  data.position = -1;
  std::memcpy(dir->filterData, &data, sizeof(data));
}

const char* ChunkPathText(ChunkID id) {
  const StoredPath* path = GetChunkPath(id);
  return path != nullptr ? GetPath(path) : nullptr;
}

// Path changes: create, delete, rename.
Outcome FilterChange(ZulKestZorbaDearchiverContext* context, ChunkID id, uint8_t type, FindResult found,
                     ChunkID* replacement) {
  switch (found) {
    case FINDRESULT_NOT_OURS:
      return Outcome::kDown;
    case FINDRESULT_MISSING:
      if (LooseFiles(context) || type == CHUNK_DIR_CREATE) return Outcome::kDown;
      return Answer(id, ZUL_KEST_ERROR_BAD_PATH, replacement);
    case FINDRESULT_FILE:
      return Answer(id, type == CHUNK_DIR_DELETE ? ZUL_KEST_ERROR_NOT_A_DIRECTORY : ZUL_KEST_ERROR_READ_ONLY,
                    replacement);
    case FINDRESULT_DIR:
      return Answer(id,
                    type == CHUNK_FILE_DELETE  ? ZUL_KEST_ERROR_NOT_A_FILE
                    : type == CHUNK_DIR_CREATE ? ZUL_KEST_ERROR_BAD_PATH
                                               : ZUL_KEST_ERROR_READ_ONLY,
                    replacement);
  }
  return Outcome::kDown;
}

// Answers one chunk, or replaces it.  REQUIRES: dearchiver mutex held.
Outcome FilterChunk(ZulKestZorbaDearchiverContext* context, ChunkID id, ChunkID* replacement) {
  ChunkHeader* chunk = ChunkAt(id);
  const uint8_t type = chunk->type;
  const bool loose = LooseFiles(context);
  const uint32_t handle = GetChunkHandle(id);
  ArchiveTracker* tracker = nullptr;
  const uint8_t* entry = nullptr;
  auto lookupPath = [&]() -> FindResult {
    const char* path = ChunkPathText(id);
    if (path == nullptr || ArchiveList(context) == nullptr) return FINDRESULT_NOT_OURS;
    return LookupPath(context, path, &tracker, &entry);
  };
  switch (type) {
    case CHUNK_FH_OPEN: {
      const FindResult found = lookupPath();
      if (found == FINDRESULT_DIR) return Answer(id, ZUL_KEST_ERROR_NOT_A_FILE, replacement);
      if (found == FINDRESULT_MISSING && !loose) return Answer(id, ZUL_KEST_ERROR_BAD_PATH, replacement);
      if (found != FINDRESULT_FILE) return Outcome::kDown;
      FileHandle* file = Lookup<FileHandle>(kFhTable, handle);
      if (file == nullptr) return Answer(id, ZUL_KEST_ERROR_BAD_FH, replacement);
      KEST2_TRACE(kTraceZorba, "Open", "\"%s\" owns %s", tracker->mountPoint, ChunkPathText(id));
      BindFile(context, file, tracker, entry);
      if ((file->openParams.openFlags & (ZUL_KEST_O_WRITE | ZUL_KEST_O_APPEND | ZUL_KEST_O_TRUNC)) != 0)
        return Answer(id, ZUL_KEST_ERROR_READ_ONLY, replacement);
      __atomic_store_n(&file->opened, 1u, __ATOMIC_RELEASE);
      ChunkRecord<ChunkFhOpenRecord>(id)->modificationDate = tracker->archiveStat.modificationDate;
      return Answer(id, ZUL_KEST_OK, replacement);
    }
    case CHUNK_FH_READ: {
      if (!LookupFH(context, handle, &tracker, &entry)) return Outcome::kDown;
      const FileHandle* file = Lookup<FileHandle>(kFhTable, handle);
      KEST2_TRACE(kTraceZorba, "FilterChunk", "reading from archive \"%s\" for %s", tracker->mountPoint,
                  GetPath(&file->path));
      const ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(id);
      ChunkID read = CHUNKID_INVALID;
      const int32_t result = CreateReadChunksUnlocked(context, &read, tracker, entry, io->buffer,
                                                      io->offset, io->reqCount, io->actCount);
      if (result != ZUL_KEST_OK || read == CHUNKID_INVALID) return Answer(id, result, replacement);
      return Replace(id, read, replacement);
    }
    case CHUNK_FH_WRITE:
      if (!LookupFH(context, handle, nullptr, nullptr)) return Outcome::kDown;
      return Answer(id, ZUL_KEST_ERROR_READ_ONLY, replacement);
    case CHUNK_FH_SYNC:
      if (!LookupFH(context, handle, nullptr, nullptr)) return Outcome::kDown;
      return Answer(id, ZUL_KEST_OK, replacement);
    case CHUNK_FH_CLOSE: {
      if (FindArchiveByHandle(context, handle) != nullptr) {
        char dump[kDumpBufferSize];
        KEST2_TRACE(kTraceZorba, "FilterChunk", "attempt to close an archive FH. Unmounting instead: %s\n",
                    zulKestDebugDumpFH(handle, dump, sizeof(dump)));
        ChunkID close = CHUNKID_INVALID;
        const int32_t result = UnmountArchive(context, handle, &close);
        return result == ZUL_KEST_OK ? Replace(id, close, replacement) : Answer(id, result, replacement);
      }
      const FileHandle* file = Lookup<FileHandle>(kFhTable, handle);
      if (file == nullptr || file->filterContext != context) return Outcome::kDown;
      ReleaseHandle(kFhTable, handle);
      return Answer(id, ZUL_KEST_OK, replacement);
    }
    case CHUNK_DH_OPEN: {
      const FindResult found = lookupPath();
      if (found == FINDRESULT_FILE) return Answer(id, ZUL_KEST_ERROR_NOT_A_DIRECTORY, replacement);
      if (found == FINDRESULT_MISSING && !loose) return Answer(id, ZUL_KEST_ERROR_BAD_PATH, replacement);
      if (found == FINDRESULT_NOT_OURS) return Outcome::kDown;
      DirHandle* dir = Lookup<DirHandle>(kDhTable, handle);
      if (dir == nullptr) return Answer(id, ZUL_KEST_ERROR_BAD_DH, replacement);
      KEST2_TRACE(kTraceZorba, "DHOpen", "pDH: %p, h: %d, path: %s", static_cast<void*>(dir),
                  static_cast<int>(handle), ChunkPathText(id));
      BindDir(context, dir, tracker);
      __atomic_store_n(&dir->opened, 1u, __ATOMIC_RELEASE);
      if (!loose) return Answer(id, ZUL_KEST_OK, replacement);
      ChunkID chain = CHUNKID_INVALID;
      const int32_t result = BuildLooseOpen(context, id, &chain);
      return result == ZUL_KEST_OK ? Replace(id, chain, replacement) : Answer(id, result, replacement);
    }
    case CHUNK_DH_READ:
    case CHUNK_DH_READ_BULK: {
      if (!LookupDH(context, handle, &tracker)) return Outcome::kDown;
      const bool bulk = type == CHUNK_DH_READ_BULK;
      const int32_t result = ReadArchiveDirectory(context, id, bulk);
      if (result != ZUL_KEST_ERROR_EOF || !loose || ListingFinished(handle))
        return Answer(id, result, replacement);
      ChunkID chain = CHUNKID_INVALID;
      const int32_t built = BuildLooseRead(context, id, &chain);
      return built == ZUL_KEST_OK ? Replace(id, chain, replacement) : Answer(id, built, replacement);
    }
    case CHUNK_DH_CLOSE: {
      DirHandle* dir = Lookup<DirHandle>(kDhTable, handle);
      if (dir == nullptr || dir->filterContext != context) return Outcome::kDown;
      const uint32_t native = LooseListing(handle);
      KEST2_TRACE(kTraceZorba, "DHClose", "pDH: %p, h: %d, m_nativeDH: %lld\n", static_cast<void*>(dir),
                  static_cast<int>(handle), static_cast<long long>(native));
      ReleaseHandle(kDhTable, handle);
      if (native == 0 || LookupHandle(kDhTable, native) == nullptr) return Answer(id, ZUL_KEST_OK, replacement);
      // The native listing is closed (and its handle released) natively.
      const ChunkID close = AllocateChunk(CHUNK_DH_CLOSE);
      if (close == CHUNKID_INVALID) {
        ReleaseHandle(kDhTable, native);
        return Answer(id, ZUL_KEST_OK, replacement);
      }
      ChunkRecord<ChunkHandleRecord>(close)->h = native;
      return Replace(id, close, replacement);
    }
    case CHUNK_DIR_EXISTS:
    case CHUNK_FILE_EXISTS:
    case CHUNK_EXISTS: {
      const FindResult found = lookupPath();
      if (found == FINDRESULT_NOT_OURS || (found == FINDRESULT_MISSING && loose)) return Outcome::kDown;
      const bool exists = type == CHUNK_DIR_EXISTS    ? found == FINDRESULT_DIR
                          : type == CHUNK_FILE_EXISTS ? found == FINDRESULT_FILE
                                                      : found != FINDRESULT_MISSING;
      StoreBool(ChunkRecord<ChunkPathResultRecord>(id)->result, exists);
      return Answer(id, ZUL_KEST_OK, replacement);
    }
    case CHUNK_FILE_SIZE: {
      const FindResult found = lookupPath();
      if (found == FINDRESULT_DIR) return Answer(id, ZUL_KEST_ERROR_NOT_A_FILE, replacement);
      if (found == FINDRESULT_MISSING && !loose) return Answer(id, ZUL_KEST_ERROR_BAD_PATH, replacement);
      if (found != FINDRESULT_FILE) return Outcome::kDown;
      auto* size = static_cast<int64_t*>(ChunkRecord<ChunkPathResultRecord>(id)->result);
      if (size != nullptr) *size = static_cast<int64_t>(GetEntrySize(entry));
      return Answer(id, ZUL_KEST_OK, replacement);
    }
    case CHUNK_STAT: {
      ChunkStatRecord* stat = ChunkRecord<ChunkStatRecord>(id);
      if (stat->h != 0) {
        if (!LookupFH(context, stat->h, &tracker, &entry)) return Outcome::kDown;
      } else {
        const FindResult found = lookupPath();
        if (found == FINDRESULT_MISSING && !loose) return Answer(id, ZUL_KEST_ERROR_BAD_PATH, replacement);
        if (found != FINDRESULT_FILE && found != FINDRESULT_DIR) return Outcome::kDown;
      }
      if (stat->stat != nullptr) GetStat(tracker, entry, stat->stat);
      return Answer(id, ZUL_KEST_OK, replacement);
    }
    case CHUNK_TRUNCATE: {
      if (handle != 0 && LookupFH(context, handle, nullptr, nullptr))
        return Answer(id, ZUL_KEST_ERROR_READ_ONLY, replacement);
      const FindResult found = lookupPath();
      if (found == FINDRESULT_DIR) return Answer(id, ZUL_KEST_ERROR_NOT_A_FILE, replacement);
      if (found == FINDRESULT_FILE) return Answer(id, ZUL_KEST_ERROR_READ_ONLY, replacement);
      if (found == FINDRESULT_MISSING && !loose) return Answer(id, ZUL_KEST_ERROR_BAD_PATH, replacement);
      return Outcome::kDown;
    }
    case CHUNK_DIR_CREATE:
    case CHUNK_DIR_DELETE:
    case CHUNK_FILE_DELETE:
    case CHUNK_DELETE:
    case CHUNK_RENAME:
      return FilterChange(context, id, type, lookupPath(), replacement);
    case CHUNK_RESOLVE:
      return Answer(id, ZUL_KEST_ERROR_UNIMPLEMENTED, replacement);
    case CHUNK_ARCHIVE_QUERY:
    case CHUNK_ARCHIVE_MOUNT: {
      ChunkID chain = CHUNKID_INVALID;
      const int32_t result = BuildMountChain(context, id, &chain);
      return result == ZUL_KEST_OK ? Replace(id, chain, replacement) : Answer(id, result, replacement);
    }
    case CHUNK_ARCHIVE_UNMOUNT: {
      ChunkID close = CHUNKID_INVALID;
      const int32_t result = UnmountArchive(context, handle, &close);
      return result == ZUL_KEST_OK ? Replace(id, close, replacement) : Answer(id, result, replacement);
    }
    default:
      return Outcome::kDown;
  }
}

Outcome FilterOne(void* context, ChunkID id, ChunkID* replacement) {
  return FilterChunk(static_cast<ZulKestZorbaDearchiverContext*>(context), id, replacement);
}

}  // namespace

}  // namespace kest2

using namespace kest2;

extern "C" int32_t zulKestIOFilterZorbaDearchiver(void* pFilterContext, int32_t event,
                                                  void* pArgument) {
  auto* context = static_cast<ZulKestZorbaDearchiverContext*>(pFilterContext);
  if (event == ZUL_KEST_IOFILTER_EVENT_INITIALIZE) return Initialize(context);
  if (!StateIsSound(context)) return ZUL_KEST_ERROR_BAD_PTR;
  switch (event) {
    case ZUL_KEST_IOFILTER_EVENT_TERMINATE:
      Terminate();
      return ZUL_KEST_OK;
    case ZUL_KEST_IOFILTER_EVENT_GET_DESCRIPTION:
      if (pArgument == nullptr) return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
      std::strcpy(static_cast<char*>(pArgument), "description not implemented");
      return ZUL_KEST_OK;
    case ZUL_KEST_IOFILTER_EVENT_FILTER_CHUNK: {
      if (pArgument == nullptr) return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
      ChunkID* root = static_cast<ChunkID*>(pArgument);
      DearchiverLocker lock;
      *root = WalkChildrenFirst(context, *root, FilterOne);
      return ZUL_KEST_OK;
    }
    default:
      return ZUL_KEST_ERROR_EVENT_NOT_HANDLED;
  }
}
