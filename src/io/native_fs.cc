// The native primitives over the system call table: interrupted calls are
// restarted here, failures become kKernelErrorBase + errno, and directory
// listings read the kernel's raw entries into the caller's NativeDirState
// and hand them out one at a time as fixed-size NativeDirEntry records.

#include "io/native_fs.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "core/globals.h"
#include "core/platform.h"
#include "debug/timeline.h"
#include "sched/chunk_tree.h"

namespace kest2 {

namespace {

// errno values above this are not kernel codes of ours.
constexpr uint32_t kKernelErrnoLimit = 0x10000;

const SystemCalls& System() { return SystemCallTable(); }

// The kernel code of a failed call's -errno answer.  A failure always
// yields a negative code, even if the answer carried no number.
int32_t FailureCode(int64_t answer) {
  const int err = static_cast<int>(-answer);
  return KernelResultFromErrno(err > 0 ? err : kErrnoIo);
}

// Folds a call's answer into the primitives' convention.
int32_t ResultOf(int64_t answer) { return answer < 0 ? FailureCode(answer) : 0; }

template <typename Call>
auto Restarting(Call call) -> decltype(call()) {
  for (;;) {
    auto answer = call();
    if (answer != -kErrnoInterrupted) return answer;
  }
}

// Layout of the kernel's linux_dirent64 record; read with memcpy because a
// caller's state buffer need not keep the records 8-byte aligned.
constexpr size_t kDirentInoOffset = 0;
constexpr size_t kDirentReclenOffset = 16;
constexpr size_t kDirentTypeOffset = 18;
constexpr size_t kDirentNameOffset = 19;

}  // namespace

// --- Result mapping -------------------------------------------------------

int32_t MapNativeError(int32_t result) {
  if (result == 0) return 0;
  if (result == -1) {
    const int err = LastErrno();
    if (err == 0) return -1;
    result = err;
  }
  // A raw errno number: only the path answers are translated.
  if (result > 0) return CodeFromRawErrno(result);
  const uint32_t err = static_cast<uint32_t>(result) - static_cast<uint32_t>(kKernelErrorBase);
  if (err != 0 && err < kKernelErrnoLimit) return CodeFromErrno(static_cast<int>(err));
  return result;
}

// --- Open flags -------------------------------------------------------------

uint32_t MapOpenMode(uint32_t openFlags, int32_t mode) {
  if ((openFlags & ZUL_KEST_O_CREAT) == 0) return 0;
  if (mode == -1) return 0777;
  return static_cast<uint32_t>(mode) & 0xFFFF;
}

// --- Primitives -------------------------------------------------------------

int32_t NativeOpen(const char* path, uint32_t openFlags, int32_t mode, int32_t* fd) {
  const int flags = SystemOpenFlags(openFlags);
  const uint32_t creationMode = MapOpenMode(openFlags, mode);
  const int32_t rc = Restarting([&] { return System().open(path, flags, creationMode); });
  if (fd != nullptr) *fd = rc < 0 ? -1 : rc;
  return rc < 0 ? FailureCode(rc) : rc;
}

int32_t NativeClose(int32_t fd) {
  // Linux releases the descriptor even when close reports EINTR; retrying
  // could close a descriptor another thread has just been given.
  const int32_t rc = System().close(fd);
  if (rc == 0 || rc == -kErrnoInterrupted) return 0;
  return FailureCode(rc);
}

int64_t NativePread(int32_t fd, void* buffer, int64_t count, int64_t offset) {
  const int64_t rc =
      Restarting([&] { return System().pread(fd, buffer, static_cast<uint64_t>(count), offset); });
  return rc < 0 ? FailureCode(rc) : rc;
}

int64_t NativeRead(int32_t fd, void* buffer, int64_t count) {
  const int64_t rc =
      Restarting([&] { return System().read(fd, buffer, static_cast<uint64_t>(count)); });
  return rc < 0 ? FailureCode(rc) : rc;
}

int64_t NativeWrite(int32_t fd, const void* buffer, int64_t count) {
  const int64_t rc =
      Restarting([&] { return System().write(fd, buffer, static_cast<uint64_t>(count)); });
  return rc < 0 ? FailureCode(rc) : rc;
}

int64_t NativeTransferWhole(int32_t fd, void* buffer, int64_t count, bool positional,
                            int64_t offset, bool write, int64_t* failure) {
  *failure = 0;
  int64_t done = 0;
  // At least one call, so that the system judges a bad count or offset.
  do {
    char* at = static_cast<char*>(buffer) + done;
    const int64_t left = count - done;
    int64_t moved;
    if (positional) {
      moved = write ? NativePwrite(fd, at, left, offset + done)
                    : NativePread(fd, at, left, offset + done);
    } else {
      moved = write ? NativeWrite(fd, at, left) : NativeRead(fd, at, left);
    }
    if (moved < 0) {
      *failure = moved;
      break;
    }
    if (moved == 0) break;
    done += moved;
  } while (done < count);
  return done;
}

int64_t NativeSeek(int32_t fd, int64_t offset, int whence) {
  const int64_t rc = System().seek(fd, offset, whence);
  return rc < 0 ? FailureCode(rc) : rc;
}

void FillLibraryStat(const NativeStat& st, ZulKestStat* out) {
  constexpr int64_t kNanosecondsPerSecond = 1000000000;
  std::memset(out, 0, sizeof(*out));
  out->fileSize = st.size;
  out->accessDate = static_cast<ZulKestDate>(st.accessSeconds * kNanosecondsPerSecond);
  out->modificationDate = static_cast<ZulKestDate>(st.modificationSeconds * kNanosecondsPerSecond);
  out->creationDate = 0;
  if (NativeIsDirectory(st)) out->statFlags |= ZUL_KEST_STAT_DIRECTORY;
  if ((st.mode & kNativeModeOwnerRead) != 0) out->statFlags |= ZUL_KEST_STAT_READABLE;
  if ((st.mode & kNativeModeOwnerWrite) != 0) out->statFlags |= ZUL_KEST_STAT_WRITABLE;
  out->mode = st.mode & 0xFFFF;
}

int64_t NativePwrite(int32_t fd, const void* buffer, int64_t count, int64_t offset) {
  const int64_t rc =
      Restarting([&] { return System().pwrite(fd, buffer, static_cast<uint64_t>(count), offset); });
  if (rc >= 0) return rc;
  if (rc == -kErrnoInvalid) return ZUL_KEST_ERROR_BAD_OFFSET;
  return FailureCode(rc);
}

int32_t NativeFsync(int32_t fd) {
  return ResultOf(Restarting([&] { return System().fsync(fd); }));
}

int32_t NativeFtruncate(int32_t fd, int64_t size) {
  return ResultOf(Restarting([&] { return System().ftruncate(fd, size); }));
}

int32_t NativeTruncate(const char* path, int64_t size) {
  return ResultOf(Restarting([&] { return System().truncate(path, size); }));
}

int32_t NativeStatPath(const char* path, NativeStat* out) {
  return ResultOf(Restarting([&] { return System().stat(path, out); }));
}

int32_t NativeStatFd(int32_t fd, NativeStat* out) {
  return ResultOf(Restarting([&] { return System().fstat(fd, out); }));
}

int32_t NativeMkdir(const char* path, int32_t mode) {
  const uint32_t m = mode == -1 ? 0777 : static_cast<uint32_t>(mode) & 0xFFFF;
  return ResultOf(Restarting([&] { return System().mkdir(path, m); }));
}

int32_t NativeRmdir(const char* path) {
  return ResultOf(Restarting([&] { return System().rmdir(path); }));
}

int32_t NativeUnlink(const char* path) {
  return ResultOf(Restarting([&] { return System().unlink(path); }));
}

int32_t NativeRename(const char* oldPath, const char* newPath) {
  return ResultOf(Restarting([&] { return System().rename(oldPath, newPath); }));
}

// --- Directory listing ------------------------------------------------------

int32_t NativeDirOpen(const char* path, int32_t* fd, NativeDirState* state) {
  if (fd != nullptr) *fd = -1;
  if (state == nullptr || fd == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  state->count = -1;
  state->position = -1;
  std::memset(state->entries, 0, sizeof(state->entries));
  NativeStat st{};
  const int32_t statResult = NativeStatPath(path, &st);
  if (statResult < 0) return statResult;
  if (!NativeIsDirectory(st)) return ZUL_KEST_ERROR_NOT_A_DIRECTORY;
  const int32_t rc = Restarting([&] { return System().openDirectory(path); });
  if (rc < 0) return FailureCode(rc);
  *fd = rc;
  return 0;
}

int32_t NativeDirRead(int32_t fd, NativeDirEntry* entry, NativeDirState* state) {
  if (state == nullptr || entry == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  for (;;) {
    if (state->count < 0 || state->position >= state->count) {
      const int64_t rc =
          Restarting([&] { return System().getdents(fd, state->entries, sizeof(state->entries)); });
      if (rc <= 0) {
        state->count = -1;
        state->position = -1;
        return rc == 0 ? 0 : FailureCode(rc);
      }
      state->count = static_cast<int32_t>(rc);
      state->position = 0;
    }
    const uint8_t* raw = state->entries + state->position;
    uint64_t ino;
    uint16_t reclen;
    std::memcpy(&ino, raw + kDirentInoOffset, sizeof(ino));
    std::memcpy(&reclen, raw + kDirentReclenOffset, sizeof(reclen));
    if (reclen == 0 || state->position + reclen > state->count) {
      // A record the kernel cannot have written: drop the rest of the
      // buffer rather than loop on it.
      state->position = state->count;
      continue;
    }
    state->position += reclen;
    const char* name = reinterpret_cast<const char*>(raw + kDirentNameOffset);
    const size_t nameRoom = reclen - kDirentNameOffset;
    const size_t nameLength = strnlen(name, nameRoom < kNativeDirNameMax ? nameRoom : kNativeDirNameMax);
    if (ino == 0) continue;
    if ((nameLength == 1 && name[0] == '.') ||
        (nameLength == 2 && name[0] == '.' && name[1] == '.'))
      continue;
    std::memset(entry, 0, sizeof(*entry));
    entry->fileno = static_cast<uint32_t>(ino);
    entry->reclen = static_cast<uint16_t>(sizeof(NativeDirEntry));
    entry->type = raw[kDirentTypeOffset];
    entry->namelen = static_cast<uint8_t>(nameLength);
    std::memcpy(entry->name, name, nameLength);
    return 1;
  }
}

int32_t NativeDirClose(int32_t fd) {
  const int32_t result = NativeClose(fd);
  return result < 0 ? result : 0;
}

// --- Profiling --------------------------------------------------------------

NativeEvent::NativeEvent(uint8_t kind, ChunkID chunk, const char* path)
    : NativeEvent(kind, chunk, path, 0, INT64_MAX, 0) {}

NativeEvent::NativeEvent(uint8_t kind, ChunkID chunk, const char* path, int64_t offset,
                         int64_t position, int64_t length)
    : m_hook(EventHook()), m_timelineBegin(TimelineBegin()) {
  if (m_hook == nullptr && m_timelineBegin == 0) return;
  std::memset(&m_request, 0, sizeof(m_request));
  std::memset(&m_event, 0, sizeof(m_event));
  m_request.offset = offset;
  m_request.position = position;
  m_request.length = length;
  m_request.path = path;
  m_request.chunkId = chunk;
  if (chunk != CHUNKID_INVALID) {
    const ChunkHeader* header = ChunkAt(chunk);
    m_request.deadline = header->deadline;
    m_request.priority = header->priority;
  }
  m_event.request = &m_request;
  m_event.kind = kind;
  if (m_hook != nullptr) m_event.startTime = CycleCounter();
}

void NativeEvent::Finish() {
  const uint64_t end = m_hook != nullptr ? CycleCounter() : 0;
  if (m_timelineBegin != 0) {
    TimelineNoteNative(m_timelineBegin, m_request.chunkId, m_event.kind, m_request.path,
                       m_request.offset, m_request.length);
    m_timelineBegin = 0;
  }
  if (m_hook == nullptr) return;
  m_event.endTime = end;
  m_hook = nullptr;  // one report per call
  const ZulKestEventHook hook = EventHook();
  if (hook != nullptr) hook(&m_event);  // not when removed during the call
}

}  // namespace kest2
