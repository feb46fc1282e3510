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
                  static_cast<long long>(context->sizeOfContext),
                  static_cast<long long>(kContextSize));
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
    zulKestPrintf(
        "KEST2 ERROR: The dearchiver's internal state is corrupt and it will be disabled!\n");
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

// One chunk offered to the dearchiver, and the archive entry its path or
// handle leads to once a step has looked it up.
struct Offer {
  ZulKestZorbaDearchiverContext* context;
  ChunkID id;
  uint8_t type;
  uint32_t handle;
  bool loose;
  ChunkID* replacement;
  ArchiveTracker* tracker;
  const uint8_t* entry;

  FindResult FindByPath() REQUIRES(DearchiverMutex()) {
    const char* path = ChunkPathText(id);
    if (path == nullptr || ArchiveList(context) == nullptr) return FINDRESULT_NOT_OURS;
    return LookupPath(context, path, &tracker, &entry);
  }
  bool FindByHandle() REQUIRES(DearchiverMutex()) {
    return LookupFH(context, handle, &tracker, &entry);
  }
  bool HandleIsOurs() REQUIRES(DearchiverMutex()) {
    return LookupFH(context, handle, nullptr, nullptr);
  }

  Outcome Answer(int32_t result) { return AnswerChunk(kTraceZorba, id, result, replacement); }
  Outcome Replace(ChunkID by) { return ReplaceChunkWith(kTraceZorba, id, by, replacement); }
  // What a builder made (by) stands in for this chunk, or its error
  // (result) answers it.
  Outcome ReplaceOrAnswer(int32_t result, ChunkID by) {
    return result == ZUL_KEST_OK ? Replace(by) : Answer(result);
  }
};

// For a path that must name an archived file: true with *refusal set when
// the chunk is answered or goes down here, false when the file was found.
bool NotAFile(Offer& offer, FindResult found, Outcome* refusal) {
  if (found == FINDRESULT_FILE) return false;
  if (found == FINDRESULT_DIR) {
    *refusal = offer.Answer(ZUL_KEST_ERROR_NOT_A_FILE);
  } else if (found == FINDRESULT_MISSING && !offer.loose) {
    *refusal = offer.Answer(ZUL_KEST_ERROR_BAD_PATH);
  } else {
    *refusal = Outcome::kDown;
  }
  return true;
}

// --- Steps, one per chunk type --------------------------------------------

Outcome OpenFile(Offer& offer) REQUIRES(DearchiverMutex()) {
  Outcome refusal;
  if (NotAFile(offer, offer.FindByPath(), &refusal)) return refusal;
  FileHandle* file = Lookup<FileHandle>(kFhTable, offer.handle);
  if (file == nullptr) return offer.Answer(ZUL_KEST_ERROR_BAD_FH);
  KEST2_TRACE(kTraceZorba, "Open", "\"%s\" owns %s", offer.tracker->mountPoint,
              ChunkPathText(offer.id));
  BindFile(offer.context, file, offer.tracker, offer.entry);
  if ((file->openParams.openFlags & (ZUL_KEST_O_WRITE | ZUL_KEST_O_APPEND | ZUL_KEST_O_TRUNC)) != 0)
    return offer.Answer(ZUL_KEST_ERROR_READ_ONLY);
  __atomic_store_n(&file->opened, 1u, __ATOMIC_RELEASE);
  ChunkRecord<ChunkFhOpenRecord>(offer.id)->modificationDate =
      offer.tracker->archiveStat.modificationDate;
  return offer.Answer(ZUL_KEST_OK);
}

// A read becomes block reads and inflating.
Outcome ReadFile(Offer& offer) REQUIRES(DearchiverMutex()) {
  if (!offer.FindByHandle()) return Outcome::kDown;
  const FileHandle* file = Lookup<FileHandle>(kFhTable, offer.handle);
  KEST2_TRACE(kTraceZorba, "FilterChunk", "reading from archive \"%s\" for %s",
              offer.tracker->mountPoint, GetPath(&file->path));
  const ChunkFhIoRecord* io = ChunkRecord<ChunkFhIoRecord>(offer.id);
  ChunkID read = CHUNKID_INVALID;
  const int32_t result =
      CreateReadChunksUnlocked(offer.context, &read, offer.tracker, offer.entry, io->buffer,
                               io->offset, io->reqCount, io->actCount);
  if (result != ZUL_KEST_OK || read == CHUNKID_INVALID) return offer.Answer(result);
  return offer.Replace(read);
}

Outcome RefuseWrite(Offer& offer) REQUIRES(DearchiverMutex()) {
  return offer.HandleIsOurs() ? offer.Answer(ZUL_KEST_ERROR_READ_ONLY) : Outcome::kDown;
}

Outcome SyncFile(Offer& offer) REQUIRES(DearchiverMutex()) {
  return offer.HandleIsOurs() ? offer.Answer(ZUL_KEST_OK) : Outcome::kDown;
}

// Closing an archive's own handle unmounts the archive.
Outcome CloseFile(Offer& offer) REQUIRES(DearchiverMutex()) {
  if (FindArchiveByHandle(offer.context, offer.handle) != nullptr) {
    char dump[kDumpBufferSize];
    KEST2_TRACE(kTraceZorba, "FilterChunk",
                "attempt to close an archive FH. Unmounting instead: %s\n",
                zulKestDebugDumpFH(offer.handle, dump, sizeof(dump)));
    ChunkID close = CHUNKID_INVALID;
    const int32_t result = UnmountArchive(offer.context, offer.handle, &close);
    return offer.ReplaceOrAnswer(result, close);
  }
  const FileHandle* file = Lookup<FileHandle>(kFhTable, offer.handle);
  if (file == nullptr || file->filterContext != offer.context) return Outcome::kDown;
  ReleaseHandle(kFhTable, offer.handle);
  return offer.Answer(ZUL_KEST_OK);
}

// With loose files the native directory of the same path is opened too.
Outcome OpenDir(Offer& offer) REQUIRES(DearchiverMutex()) {
  const FindResult found = offer.FindByPath();
  if (found == FINDRESULT_FILE) return offer.Answer(ZUL_KEST_ERROR_NOT_A_DIRECTORY);
  if (found == FINDRESULT_MISSING && !offer.loose) return offer.Answer(ZUL_KEST_ERROR_BAD_PATH);
  if (found == FINDRESULT_NOT_OURS) return Outcome::kDown;
  DirHandle* dir = Lookup<DirHandle>(kDhTable, offer.handle);
  if (dir == nullptr) return offer.Answer(ZUL_KEST_ERROR_BAD_DH);
  KEST2_TRACE(kTraceZorba, "DHOpen", "pDH: %p, h: %d, path: %s", static_cast<void*>(dir),
              static_cast<int>(offer.handle), ChunkPathText(offer.id));
  BindDir(offer.context, dir, offer.tracker);
  __atomic_store_n(&dir->opened, 1u, __ATOMIC_RELEASE);
  if (!offer.loose) return offer.Answer(ZUL_KEST_OK);
  ChunkID chain = CHUNKID_INVALID;
  const int32_t result = BuildLooseOpen(offer.context, offer.id, &chain);
  return offer.ReplaceOrAnswer(result, chain);
}

// The archive's entries first; with loose files the native listing after.
Outcome ReadDir(Offer& offer) REQUIRES(DearchiverMutex()) {
  if (!LookupDH(offer.context, offer.handle, &offer.tracker)) return Outcome::kDown;
  const int32_t listed =
      ReadArchiveDirectory(offer.context, offer.id, offer.type == CHUNK_DH_READ_BULK);
  if (listed != ZUL_KEST_ERROR_EOF || !offer.loose || ListingFinished(offer.handle))
    return offer.Answer(listed);
  ChunkID chain = CHUNKID_INVALID;
  const int32_t result = BuildLooseRead(offer.context, offer.id, &chain);
  return offer.ReplaceOrAnswer(result, chain);
}

Outcome CloseDir(Offer& offer) {
  DirHandle* dir = Lookup<DirHandle>(kDhTable, offer.handle);
  if (dir == nullptr || dir->filterContext != offer.context) return Outcome::kDown;
  const uint32_t native = LooseListing(offer.handle);
  KEST2_TRACE(kTraceZorba, "DHClose", "pDH: %p, h: %d, m_nativeDH: %lld\n", static_cast<void*>(dir),
              static_cast<int>(offer.handle), static_cast<long long>(native));
  ReleaseHandle(kDhTable, offer.handle);
  if (native == 0 || LookupHandle(kDhTable, native) == nullptr) return offer.Answer(ZUL_KEST_OK);
  // The native listing is closed (and its handle released) natively.
  const ChunkID close = AllocateChunk(CHUNK_DH_CLOSE);
  if (close == CHUNKID_INVALID) {
    ReleaseHandle(kDhTable, native);
    return offer.Answer(ZUL_KEST_OK);
  }
  ChunkRecord<ChunkHandleRecord>(close)->h = native;
  return offer.Replace(close);
}

Outcome AnswerExists(Offer& offer) REQUIRES(DearchiverMutex()) {
  const FindResult found = offer.FindByPath();
  if (found == FINDRESULT_NOT_OURS || (found == FINDRESULT_MISSING && offer.loose))
    return Outcome::kDown;
  const bool exists = offer.type == CHUNK_DIR_EXISTS    ? found == FINDRESULT_DIR
                      : offer.type == CHUNK_FILE_EXISTS ? found == FINDRESULT_FILE
                                                        : found != FINDRESULT_MISSING;
  StoreBool(ChunkRecord<ChunkPathResultRecord>(offer.id)->result, exists);
  return offer.Answer(ZUL_KEST_OK);
}

Outcome AnswerFileSize(Offer& offer) REQUIRES(DearchiverMutex()) {
  Outcome refusal;
  if (NotAFile(offer, offer.FindByPath(), &refusal)) return refusal;
  auto* size = static_cast<int64_t*>(ChunkRecord<ChunkPathResultRecord>(offer.id)->result);
  if (size != nullptr) *size = static_cast<int64_t>(GetEntrySize(offer.entry));
  return offer.Answer(ZUL_KEST_OK);
}

// A stat names either a handle or a path.
Outcome AnswerStat(Offer& offer) REQUIRES(DearchiverMutex()) {
  ChunkStatRecord* stat = ChunkRecord<ChunkStatRecord>(offer.id);
  if (stat->h != 0) {
    offer.handle = stat->h;
    if (!offer.FindByHandle()) return Outcome::kDown;
  } else {
    const FindResult found = offer.FindByPath();
    if (found == FINDRESULT_MISSING && !offer.loose) return offer.Answer(ZUL_KEST_ERROR_BAD_PATH);
    if (found != FINDRESULT_FILE && found != FINDRESULT_DIR) return Outcome::kDown;
  }
  if (stat->stat != nullptr) GetStat(offer.tracker, offer.entry, stat->stat);
  return offer.Answer(ZUL_KEST_OK);
}

Outcome RefuseTruncate(Offer& offer) REQUIRES(DearchiverMutex()) {
  if (offer.handle != 0 && offer.HandleIsOurs()) return offer.Answer(ZUL_KEST_ERROR_READ_ONLY);
  const FindResult found = offer.FindByPath();
  if (found == FINDRESULT_DIR) return offer.Answer(ZUL_KEST_ERROR_NOT_A_FILE);
  if (found == FINDRESULT_FILE) return offer.Answer(ZUL_KEST_ERROR_READ_ONLY);
  if (found == FINDRESULT_MISSING && !offer.loose) return offer.Answer(ZUL_KEST_ERROR_BAD_PATH);
  return Outcome::kDown;
}

// Path changes (create, delete, rename): archives are read-only.
Outcome RefuseChange(Offer& offer) REQUIRES(DearchiverMutex()) {
  switch (offer.FindByPath()) {
    case FINDRESULT_NOT_OURS:
      return Outcome::kDown;
    case FINDRESULT_MISSING:
      if (offer.loose || offer.type == CHUNK_DIR_CREATE) return Outcome::kDown;
      return offer.Answer(ZUL_KEST_ERROR_BAD_PATH);
    case FINDRESULT_FILE:
      return offer.Answer(offer.type == CHUNK_DIR_DELETE ? ZUL_KEST_ERROR_NOT_A_DIRECTORY
                                                         : ZUL_KEST_ERROR_READ_ONLY);
    case FINDRESULT_DIR:
      return offer.Answer(offer.type == CHUNK_FILE_DELETE  ? ZUL_KEST_ERROR_NOT_A_FILE
                          : offer.type == CHUNK_DIR_CREATE ? ZUL_KEST_ERROR_BAD_PATH
                                                           : ZUL_KEST_ERROR_READ_ONLY);
  }
  return Outcome::kDown;
}

Outcome RefuseResolve(Offer& offer) { return offer.Answer(ZUL_KEST_ERROR_UNIMPLEMENTED); }

// A query or a mount becomes its chain of reads and checks.
Outcome Mount(Offer& offer) {
  ChunkID chain = CHUNKID_INVALID;
  const int32_t result = BuildMountChain(offer.context, offer.id, &chain);
  return offer.ReplaceOrAnswer(result, chain);
}

Outcome Unmount(Offer& offer) REQUIRES(DearchiverMutex()) {
  ChunkID close = CHUNKID_INVALID;
  const int32_t result = UnmountArchive(offer.context, offer.handle, &close);
  return offer.ReplaceOrAnswer(result, close);
}

using Step = Outcome (*)(Offer& offer);

// The step for a chunk type; null for types that always go down.
Step StepFor(uint8_t type) {
  switch (type) {
    case CHUNK_FH_OPEN:
      return OpenFile;
    case CHUNK_FH_READ:
      return ReadFile;
    case CHUNK_FH_WRITE:
      return RefuseWrite;
    case CHUNK_FH_SYNC:
      return SyncFile;
    case CHUNK_FH_CLOSE:
      return CloseFile;
    case CHUNK_DH_OPEN:
      return OpenDir;
    case CHUNK_DH_READ:
    case CHUNK_DH_READ_BULK:
      return ReadDir;
    case CHUNK_DH_CLOSE:
      return CloseDir;
    case CHUNK_DIR_EXISTS:
    case CHUNK_FILE_EXISTS:
    case CHUNK_EXISTS:
      return AnswerExists;
    case CHUNK_FILE_SIZE:
      return AnswerFileSize;
    case CHUNK_STAT:
      return AnswerStat;
    case CHUNK_TRUNCATE:
      return RefuseTruncate;
    case CHUNK_DIR_CREATE:
    case CHUNK_DIR_DELETE:
    case CHUNK_FILE_DELETE:
    case CHUNK_DELETE:
    case CHUNK_RENAME:
      return RefuseChange;
    case CHUNK_RESOLVE:
      return RefuseResolve;
    case CHUNK_ARCHIVE_QUERY:
    case CHUNK_ARCHIVE_MOUNT:
      return Mount;
    case CHUNK_ARCHIVE_UNMOUNT:
      return Unmount;
    default:
      return nullptr;
  }
}

// Answers one chunk, or replaces it.
Outcome FilterOne(void* context, ChunkID id, ChunkID* replacement) REQUIRES(DearchiverMutex()) {
  const uint8_t type = ChunkAt(id)->type;
  const Step step = StepFor(type);
  if (step == nullptr) return Outcome::kDown;
  auto* dearchiver = static_cast<ZulKestZorbaDearchiverContext*>(context);
  Offer offer{dearchiver,  id,      type,   GetChunkHandle(id), LooseFiles(dearchiver),
              replacement, nullptr, nullptr};
  return step(offer);
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
