// The native handlers and their dispatch table.
//
// Every handler has the same frame: look up the handle the chunk names
// (unknown: BAD_FH), take the path from the chunk or the handle, write the
// entry trace, make the native call inside a NativeEvent, and map a failure
// with MapNativeError after tracing the raw code ("error 0x%08X").  Trace
// texts and names are fixed: tools read them.

#include "io/native_handlers.h"

#include <cstring>

#include "core/handletable.h"
#include "core/records.h"
#include "core/stored_path.h"
#include "debug/trace.h"
#include "io/native_fs.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "sched/execute.h"

namespace kest2 {

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

// The characters of a chunk's path, or null when it has none.
const char* PathText(const StoredPath* path) {
  return path == nullptr ? nullptr : GetPath(path);
}

// For trace lines, which print missing paths as empty text.
const char* Printable(const char* path) { return path == nullptr ? "" : path; }

void TraceError(const char* function, int64_t raw) {
  KEST2_TRACE(kTraceIo, function, "error 0x%08X", static_cast<uint32_t>(raw));
}

// Maps a failed native result after tracing its raw value.
int32_t Fail(const char* function, int64_t raw) {
  TraceError(function, raw);
  return MapNativeError(static_cast<int32_t>(raw));
}

// Raises fh->size to at least newEnd; concurrent writes of one handle may
// race here, so the larger end always wins.
void RaiseRecordedSize(FileHandle* fh, int64_t newEnd) {
  int64_t current = __atomic_load_n(&fh->size, __ATOMIC_RELAXED);
  while (current < newEnd &&
         !__atomic_compare_exchange_n(&fh->size, &current, newEnd, true, __ATOMIC_RELAXED,
                                      __ATOMIC_RELAXED)) {
  }
}

// --- Handlers installed by other layers -------------------------------------

int32_t Unimplemented(ChunkID) { return ZUL_KEST_ERROR_UNIMPLEMENTED; }

NativeHandler g_dhOpenHandler = Unimplemented;
NativeHandler g_dhReadHandler = Unimplemented;
NativeHandler g_dhCloseHandler = Unimplemented;

int32_t CallInstalled(NativeHandler* slot, ChunkID id) {
  return __atomic_load_n(slot, __ATOMIC_ACQUIRE)(id);
}

int32_t DhOpenHandler(ChunkID id) { return CallInstalled(&g_dhOpenHandler, id); }
int32_t DhReadHandler(ChunkID id) { return CallInstalled(&g_dhReadHandler, id); }
int32_t DhCloseHandler(ChunkID id) { return CallInstalled(&g_dhCloseHandler, id); }

void Install(NativeHandler* slot, NativeHandler handler) {
  __atomic_store_n(slot, handler == nullptr ? Unimplemented : handler, __ATOMIC_RELEASE);
}

// --- Chunk engine ------------------------------------------------------------

int32_t Callback(ChunkID id) {
  ChunkCallbackRecord* chunk = ChunkRecord<ChunkCallbackRecord>(id);
  if (chunk->callback == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  return chunk->callback(chunk, 1);
}

// --- File handles ------------------------------------------------------------

int32_t FhOpen(ChunkID id) {
  static const char kName[] = "zulKestNativeFHOpen";
  ChunkFhOpenRecord* chunk = ChunkRecord<ChunkFhOpenRecord>(id);
  FileHandle* fh = Lookup<FileHandle>(kFhTable, chunk->h);
  if (fh == nullptr) return ZUL_KEST_ERROR_BAD_FH;
  __atomic_store_n(&fh->nativeFH, -1, __ATOMIC_RELAXED);
  const char* path = PathText(chunk->path);
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  const uint32_t openFlags = fh->openParams.openFlags;
  KEST2_TRACE(kTraceIo, kName, "(\"%s\",flags=0x%04X,mode=(octal)0%o)", path, openFlags,
              static_cast<uint32_t>(chunk->mode));

  int32_t fd;
  NativeEvent openEvent(kEventOpen, id, path);
  const int32_t opened = NativeOpen(path, openFlags, chunk->mode, &fd);
  openEvent.Finish();
  if (opened < 0) return Fail(kName, opened);

  // The status of the descriptor, not of the path, so that type and size
  // describe the file actually opened even if the path changed meanwhile.
  KEST2_TRACE(kTraceIo, "zulKestNativeStat", "(\"%s\")", path);
  NativeStat st{};
  NativeEvent statEvent(kEventStat, id, path);
  const int32_t statResult = NativeStatFd(fd, &st);
  statEvent.Finish();
  if (statResult < 0 || NativeIsDirectory(st)) {
    if (statResult < 0) TraceError("zulKestNativeFHStat", statResult);
    NativeEvent closeEvent(kEventClose, id, path);
    NativeClose(fd);
    closeEvent.Finish();
    return statResult < 0 ? MapNativeError(statResult) : ZUL_KEST_ERROR_NOT_A_FILE;
  }
  chunk->modificationDate =
      static_cast<ZulKestDate>(st.modificationSeconds * kNanosecondsPerSecond);
  __atomic_store_n(&fh->size, st.size, __ATOMIC_RELAXED);
  __atomic_store_n(&fh->nativeFH, fd, __ATOMIC_RELEASE);
  return ZUL_KEST_OK;
}

// A whole read or write piece: the rest of a piece the system cut short
// must not be reported as moved.
int64_t TransferWhole(int32_t fd, ChunkFhIoRecord* chunk, bool isWrite, int64_t* failure) {
  return NativeTransferWhole(fd, chunk->buffer, chunk->reqCount, true, chunk->offset, isWrite,
                             failure);
}

// CHUNK_FH_READ and CHUNK_FH_WRITE.
int32_t FhTransfer(ChunkID id) {
  ChunkFhIoRecord* chunk = ChunkRecord<ChunkFhIoRecord>(id);
  const bool isWrite = chunk->header.type == CHUNK_FH_WRITE;
  const char* name = isWrite ? "zulKestNativeFHPwrite" : "zulKestNativeFHPread";
  FileHandle* fh = Lookup<FileHandle>(kFhTable, chunk->h);
  if (fh == nullptr) return ZUL_KEST_ERROR_BAD_FH;
  if (chunk->reqCount < 0) return ZUL_KEST_ERROR_BAD_SIZE;
  const int32_t fd = __atomic_load_n(&fh->nativeFH, __ATOMIC_ACQUIRE);
  const char* path = GetPath(&fh->path);
  KEST2_TRACE(kTraceIo, name, "(fd=%d=\"%s\",buf=0x%08llX,nbyte=%lld,offset=%08llX)", fd, path,
              static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(chunk->buffer)),
              static_cast<long long>(chunk->reqCount),
              static_cast<unsigned long long>(chunk->offset));

  int64_t count = 0;
  int64_t failure = 0;
  if (chunk->reqCount != 0) {
    if (isWrite) {
      NativeEvent event(kEventWrite, id, path, chunk->offset, chunk->position, chunk->reqCount);
      count = TransferWhole(fd, chunk, true, &failure);
      event.Finish();
    } else if (fd == -1) {
      return ZUL_KEST_ERROR_BAD_FH;
    } else if (chunk->offset < __atomic_load_n(&fh->size, __ATOMIC_RELAXED)) {
      NativeEvent event(kEventRead, id, path, chunk->offset, chunk->position, chunk->reqCount);
      count = TransferWhole(fd, chunk, false, &failure);
      event.Finish();
    }
  }
  // Bytes moved before a failure are real: the caller's count and the
  // handle's size say so, and the failure is reported all the same.  A
  // failure that moved nothing changes neither.
  if (failure == 0 || count != 0) {
    if (isWrite) RaiseRecordedSize(fh, chunk->offset + count);
    if (chunk->actCount != nullptr) __atomic_add_fetch(chunk->actCount, count, __ATOMIC_ACQ_REL);
  }
  if (failure < 0) return Fail(name, failure);
  if (count == 0 && chunk->reqCount != 0) {
    KEST2_TRACE(kTraceIo, name, "EOF");
    return ZUL_KEST_ERROR_EOF;
  }
  return ZUL_KEST_OK;
}

int32_t FhBarrier(ChunkID id) {
  static const char kName[] = "zulKestNativeFHBarrier";
  const ChunkHandleRecord* chunk = ChunkRecord<ChunkHandleRecord>(id);
  FileHandle* fh = Lookup<FileHandle>(kFhTable, chunk->h);
  if (fh == nullptr) return ZUL_KEST_ERROR_BAD_FH;
  const int32_t fd = __atomic_load_n(&fh->nativeFH, __ATOMIC_ACQUIRE);
  KEST2_TRACE(kTraceIo, kName, "(fd=%d=\"%s\")", fd, GetPath(&fh->path));
  const int32_t result = NativeFsync(fd);
  return result < 0 ? Fail(kName, result) : ZUL_KEST_OK;
}

int32_t FhSync(ChunkID id) {
  static const char kName[] = "zulKestNativeFHSync";
  const ChunkHandleRecord* chunk = ChunkRecord<ChunkHandleRecord>(id);
  FileHandle* fh = Lookup<FileHandle>(kFhTable, chunk->h);
  if (fh == nullptr) return ZUL_KEST_ERROR_BAD_FH;
  const int32_t fd = __atomic_load_n(&fh->nativeFH, __ATOMIC_ACQUIRE);
  const char* path = GetPath(&fh->path);
  NativeEvent event(kEventSync, id, path);
  const int32_t result = NativeFsync(fd);
  event.Finish();
  KEST2_TRACE(kTraceIo, kName, "(fd=%d) path=\"%s\" err = 0x%x", fd, path,
              static_cast<uint32_t>(result));
  return result < 0 ? Fail(kName, result) : ZUL_KEST_OK;
}

int32_t FhClose(ChunkID id) {
  static const char kName[] = "zulKestNativeFHClose";
  const ChunkHandleRecord* chunk = ChunkRecord<ChunkHandleRecord>(id);
  FileHandle* fh = Lookup<FileHandle>(kFhTable, chunk->h);
  if (fh == nullptr) return ZUL_KEST_ERROR_BAD_FH;
  const int32_t fd = __atomic_exchange_n(&fh->nativeFH, -1, __ATOMIC_ACQ_REL);
  const char* path = GetPath(&fh->path);
  KEST2_TRACE(kTraceIo, kName, "(fd=%d=\"%s\")", fd, path);
  NativeEvent event(kEventClose, id, path);
  const int32_t result = NativeClose(fd);
  event.Finish();
  if (result < 0) TraceError(kName, result);
  // The handle goes whatever the kernel said: its descriptor is gone or
  // was never valid, and the caller cannot retry a close.
  ReleaseHandle(kFhTable, chunk->h);
  return MapNativeError(result);
}

// --- Paths -------------------------------------------------------------------

// CHUNK_DIR_EXISTS, CHUNK_FILE_EXISTS, CHUNK_EXISTS.  "Does not exist" is an
// answer, not an error: the result is 0 whenever the answer could be
// written.
int32_t Exists(ChunkID id) {
  const ChunkPathResultRecord* chunk = ChunkRecord<ChunkPathResultRecord>(id);
  bool* answer = static_cast<bool*>(chunk->result);
  if (answer == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  *answer = false;
  const char* path = PathText(chunk->path);
  if (path == nullptr) return ZUL_KEST_OK;
  KEST2_TRACE(kTraceIo, "Exists", "(\"%s\")", path);
  NativeStat st{};
  NativeEvent event(kEventStat, id, path);
  const int32_t result = NativeStatPath(path, &st);
  event.Finish();
  if (result < 0) {
    TraceError("zulKestNativeStat", result);
    return ZUL_KEST_OK;
  }
  const bool isDirectory = NativeIsDirectory(st);
  const bool isFile = NativeIsRegular(st);
  KEST2_TRACE(kTraceIo, "Exists", "found, ISDIR = %d, ISFILE = %d", isDirectory ? 1 : 0,
              isFile ? 1 : 0);
  switch (chunk->header.type) {
    case CHUNK_FILE_EXISTS:
      *answer = isFile;
      break;
    case CHUNK_DIR_EXISTS:
      *answer = isDirectory;
      break;
    default:
      *answer = true;
      break;
  }
  return ZUL_KEST_OK;
}

int32_t DirCreate(ChunkID id) {
  static const char kName[] = "zulKestNativeDirCreate";
  const ChunkDirCreateRecord* chunk = ChunkRecord<ChunkDirCreateRecord>(id);
  const char* path = PathText(chunk->path);
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  KEST2_TRACE(kTraceIo, kName, "(\"%s\",mode=(octal)0%o)", path,
              static_cast<uint32_t>(chunk->mode));
  const int32_t result = NativeMkdir(path, chunk->mode);
  return result < 0 ? Fail(kName, result) : ZUL_KEST_OK;
}

// CHUNK_DIR_DELETE and CHUNK_FILE_DELETE: one call each.
int32_t RemovePath(ChunkID id, const char* name, int32_t (*remove)(const char*)) {
  const ChunkPathRecord* chunk = ChunkRecord<ChunkPathRecord>(id);
  const char* path = PathText(chunk->path);
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  KEST2_TRACE(kTraceIo, name, "(\"%s\")", path);
  const int32_t result = remove(path);
  return result < 0 ? Fail(name, result) : ZUL_KEST_OK;
}

int32_t DirDelete(ChunkID id) { return RemovePath(id, "DirDelete", NativeRmdir); }
int32_t FileDelete(ChunkID id) { return RemovePath(id, "FileDelete", NativeUnlink); }

int32_t Delete(ChunkID id) {
  static const char kName[] = "Delete";
  const ChunkPathRecord* chunk = ChunkRecord<ChunkPathRecord>(id);
  const char* path = PathText(chunk->path);
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  KEST2_TRACE(kTraceIo, kName, "(\"%s\")", path);
  NativeStat st{};
  NativeEvent event(kEventStat, id, path);
  const int32_t statResult = NativeStatPath(path, &st);
  event.Finish();
  if (statResult < 0) {
    KEST2_TRACE(kTraceIo, kName, "zulKestNativeStat error 0x%08X",
                static_cast<uint32_t>(statResult));
    return MapNativeError(statResult);
  }
  const int32_t result = NativeIsDirectory(st) ? NativeRmdir(path) : NativeUnlink(path);
  return result < 0 ? Fail(kName, result) : ZUL_KEST_OK;
}

int32_t FileSize(ChunkID id) {
  static const char kName[] = "zulKestNativeStat";
  const ChunkPathResultRecord* chunk = ChunkRecord<ChunkPathResultRecord>(id);
  const char* path = PathText(chunk->path);
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  if (chunk->result == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  KEST2_TRACE(kTraceIo, kName, "(\"%s\")", path);
  NativeStat st{};
  NativeEvent event(kEventStat, id, path);
  const int32_t result = NativeStatPath(path, &st);
  event.Finish();
  if (result < 0) return Fail(kName, result);
  if (NativeIsDirectory(st)) return ZUL_KEST_ERROR_NOT_A_FILE;
  *static_cast<int64_t*>(chunk->result) = st.size;
  return ZUL_KEST_OK;
}

int32_t Stat(ChunkID id) {
  const ChunkStatRecord* chunk = ChunkRecord<ChunkStatRecord>(id);
  if (chunk->stat == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  NativeStat st{};
  int32_t result;
  if (chunk->h != 0) {
    FileHandle* fh = Lookup<FileHandle>(kFhTable, chunk->h);
    if (fh == nullptr) return ZUL_KEST_ERROR_BAD_FH;
    const int32_t fd = __atomic_load_n(&fh->nativeFH, __ATOMIC_ACQUIRE);
    const char* path = GetPath(&fh->path);
    KEST2_TRACE(kTraceIo, "zulKestNativeFHStat", "(fd=%d) path=\"%s\"", fd, path);
    NativeEvent event(kEventStat, id, path);
    result = NativeStatFd(fd, &st);
    event.Finish();
  } else {
    const char* path = PathText(chunk->path);
    if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
    KEST2_TRACE(kTraceIo, "zulKestNativeStat", "(\"%s\")", path);
    NativeEvent event(kEventStat, id, path);
    result = NativeStatPath(path, &st);
    event.Finish();
  }
  if (result < 0) return Fail("zulKestNativeStat/zulKestNativeFHStat", result);
  FillLibraryStat(st, chunk->stat);
  return ZUL_KEST_OK;
}

int32_t Truncate(ChunkID id) {
  static const char kName[] = "zulKestNativeTruncate";
  const ChunkTruncateRecord* chunk = ChunkRecord<ChunkTruncateRecord>(id);
  FileHandle* fh = Lookup<FileHandle>(kFhTable, chunk->h);
  const char* path;
  int32_t fd = -1;
  if (fh != nullptr) {
    fd = __atomic_load_n(&fh->nativeFH, __ATOMIC_ACQUIRE);
    path = GetPath(&fh->path);
  } else {
    path = PathText(chunk->path);
    if (path == nullptr) return ZUL_KEST_ERROR_BAD_FH;
  }
  if (chunk->newSize < 0) return ZUL_KEST_ERROR_BAD_SIZE;
  KEST2_TRACE(kTraceIo, kName, "(\"%s\",fd = %d, size=%lld)", path, fd,
              static_cast<long long>(chunk->newSize));
  const int32_t result =
      fd != -1 ? NativeFtruncate(fd, chunk->newSize) : NativeTruncate(path, chunk->newSize);
  if (result < 0) return Fail(kName, result);
  if (fh != nullptr) __atomic_store_n(&fh->size, chunk->newSize, __ATOMIC_RELAXED);
  return ZUL_KEST_OK;
}

int32_t Rename(ChunkID id) {
  static const char kName[] = "zulKestNativeRename";
  const ChunkRenameRecord* chunk = ChunkRecord<ChunkRenameRecord>(id);
  const char* oldPath = PathText(chunk->path);
  if (oldPath == nullptr || chunk->newPath == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  KEST2_TRACE(kTraceIo, kName, "(old=\"%s\", new=\"%s\")", oldPath, chunk->newPath);
  const int32_t result = NativeRename(oldPath, chunk->newPath);
  return result < 0 ? Fail(kName, result) : ZUL_KEST_OK;
}

// The native file system resolves a path to itself.
int32_t Resolve(ChunkID id) {
  const ChunkResolveRecord* chunk = ChunkRecord<ChunkResolveRecord>(id);
  const char* path = PathText(chunk->path);
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  if (chunk->output == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  ZulKestResolveRecord* out = static_cast<ZulKestResolveRecord*>(chunk->output);
  out->offset = chunk->args[0];
  out->arg = chunk->args[1];
  const size_t length = strnlen(path, sizeof(out->path) - 1);
  std::memcpy(out->path, path, length);
  out->path[length] = '\0';
  return ZUL_KEST_OK;
}

// --- Requests the native file system accepts without effect -----------------

int32_t ChStat(ChunkID id) {
  const ChunkChstatRecord* chunk = ChunkRecord<ChunkChstatRecord>(id);
  if (PathText(chunk->path) == nullptr) {
    KEST2_TRACE(kTraceIo, "zulKestNativeChStat", "(\"Missing path!\")");
    return ZUL_KEST_ERROR_BAD_PATH;
  }
  return ZUL_KEST_OK;
}

int32_t DevCtl(ChunkID id) {
  const ChunkDevctlRecord* chunk = ChunkRecord<ChunkDevctlRecord>(id);
  const char* path = PathText(chunk->path);
  if (path == nullptr) return ZUL_KEST_ERROR_BAD_PATH;
  KEST2_TRACE(kTraceIo, "zulKestNativeDevCtl", "(\"%s\",cmd=%d,arg=%p,arglen=%ld,buf=%p,buflen=%ld)",
              path, chunk->command, reinterpret_cast<void*>(chunk->args[0]),
              static_cast<long>(chunk->args[1]), reinterpret_cast<void*>(chunk->args[2]),
              static_cast<long>(chunk->args[3]));
  return ZUL_KEST_OK;
}

int32_t IoCtl(ChunkID id) {
  const ChunkIoctlRecord* chunk = ChunkRecord<ChunkIoctlRecord>(id);
  FileHandle* fh = Lookup<FileHandle>(kFhTable, chunk->h);
  if (fh == nullptr) return ZUL_KEST_ERROR_BAD_FH;
  const int32_t fd = __atomic_load_n(&fh->nativeFH, __ATOMIC_ACQUIRE);
  if (fd == -1) return ZUL_KEST_ERROR_BAD_FH;
  KEST2_TRACE(kTraceIo, "zulKestNativeIoCtl", "(fh=%ld,cmd=%d,arg=%p,arglen=%ld,buf=%p,buflen=%ld)",
              static_cast<long>(fd), chunk->command, reinterpret_cast<void*>(chunk->args[0]),
              static_cast<long>(chunk->args[1]), reinterpret_cast<void*>(chunk->args[2]),
              static_cast<long>(chunk->args[3]));
  return ZUL_KEST_OK;
}

int32_t Sync(ChunkID id) {
  const ChunkSyncRecord* chunk = ChunkRecord<ChunkSyncRecord>(id);
  const char* path = Printable(PathText(chunk->path));
  KEST2_TRACE(kTraceIo, "zulKestNativeSync", "for path=\"%s\", flags=0x%x", path,
              static_cast<uint32_t>(chunk->flags));
  NativeEvent event(kEventSync, id, path);
  event.Finish();
  return ZUL_KEST_OK;
}

// --- Dispatch ----------------------------------------------------------------

constexpr NativeHandler kHandlers[kChunkTypeCount] = {
    Unimplemented,   // CHUNK_NULL
    CompleteRoot,    // CHUNK_ROOT
    Unimplemented,   // CHUNK_PARENT
    Unimplemented,   // CHUNK_CHILD
    Callback,        // CHUNK_CALLBACK
    Unimplemented,   // CHUNK_BUFFER
    FhOpen,          // CHUNK_FH_OPEN
    FhTransfer,      // CHUNK_FH_READ
    FhTransfer,      // CHUNK_FH_WRITE
    FhBarrier,       // CHUNK_FH_BARRIER
    FhSync,          // CHUNK_FH_SYNC
    FhClose,         // CHUNK_FH_CLOSE
    DhOpenHandler,   // CHUNK_DH_OPEN
    DhReadHandler,   // CHUNK_DH_READ
    Unimplemented,   // CHUNK_DH_READ_BULK
    DhCloseHandler,  // CHUNK_DH_CLOSE
    Exists,          // CHUNK_DIR_EXISTS
    DirCreate,       // CHUNK_DIR_CREATE
    DirDelete,       // CHUNK_DIR_DELETE
    Exists,          // CHUNK_FILE_EXISTS
    FileDelete,      // CHUNK_FILE_DELETE
    FileSize,        // CHUNK_FILE_SIZE
    Delete,          // CHUNK_DELETE
    Exists,          // CHUNK_EXISTS
    Stat,            // CHUNK_STAT
    Truncate,        // CHUNK_TRUNCATE
    Unimplemented,   // CHUNK_PREFETCH: the RAM cache serves it
    Resolve,         // CHUNK_RESOLVE
    Rename,          // CHUNK_RENAME
    Unimplemented,   // CHUNK_ARCHIVE_QUERY: the archive filter serves these
    Unimplemented,   // CHUNK_ARCHIVE_MOUNT
    Unimplemented,   // CHUNK_ARCHIVE_UNMOUNT
    ChStat,          // CHUNK_CHSTAT
    DevCtl,          // CHUNK_DEVCTL
    IoCtl,           // CHUNK_IOCTL
    Sync,            // CHUNK_SYNC
};

}  // namespace

int32_t ExecuteNative(ChunkID chunk) {
  if (chunk == CHUNKID_INVALID) return ZUL_KEST_ERROR_BAD_ARGUMENT;
  const uint8_t type = ChunkAt(chunk)->type;
  if (type >= kChunkTypeCount) return ZUL_KEST_ERROR_UNIMPLEMENTED;
  return kHandlers[type](chunk);
}

void SetDirectoryHandlers(NativeHandler open, NativeHandler read, NativeHandler close) {
  Install(&g_dhOpenHandler, open);
  Install(&g_dhReadHandler, read);
  Install(&g_dhCloseHandler, close);
}

}  // namespace kest2
