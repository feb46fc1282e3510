// The Chunker: see chunker.h.

#include "sched/chunker.h"

#include <climits>
#include <cstring>

#include "core/globals.h"
#include "core/handletable.h"
#include "debug/format.h"
#include "debug/trace.h"
#include "sched/chunk_tree.h"
#include "sched/execute.h"

namespace kest2 {
namespace {

TreeFilter g_treeFilter;  // null: no filters

// Builds one tree; every failure records its code and answers false, and
// the caller frees whatever was built.
class TreeBuilder {
 public:
  explicit TreeBuilder(Operation* op) : m_op(op), m_root(CHUNKID_INVALID) {}

  ChunkID Build();

 private:
  template <typename T>
  T* Child(ChunkID parent, uint8_t type, ChunkID* id = nullptr) {
    const ChunkID child = AllocateChildChunk(parent, type);
    if (child == CHUNKID_INVALID) return Fail<T>(ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK);
    if (id != nullptr) *id = child;
    return ChunkRecord<T>(child);
  }

  template <typename T>
  T* Fail(int32_t code) {
    m_op->err = code;
    return nullptr;
  }

  const StoredPath* Path() const { return &m_op->path; }
  void* Buffer0() const { return m_op->buffers[0].pPtr; }
  int64_t* ActCount() const { return &m_op->actCount; }

  FileHandle* LiveFile() {
    FileHandle* file = Lookup<FileHandle>(kFhTable, m_op->targetHandle);
    if (file == nullptr) m_op->err = ZUL_KEST_ERROR_BAD_FH;
    return file;
  }

  DirHandle* LiveDir() {
    DirHandle* dir = Lookup<DirHandle>(kDhTable, m_op->targetHandle);
    if (dir == nullptr) m_op->err = ZUL_KEST_ERROR_BAD_DH;
    return dir;
  }

  // The handle keeps the path it was opened with.
  // The handle keeps the operation's path, already normal and digested.
  bool CopyPathInto(StoredPath* path) {
    CopyStoredPath(path, &m_op->path);
    return true;
  }

  // A copy of a string in a CHUNK_BUFFER child of parent, or null.
  const char* CopyString(ChunkID parent, const char* text) {
    const size_t length = StringLength(text);
    char* copy = static_cast<char*>(AllocateBufferChunk(parent, length + 1));
    if (copy == nullptr) return Fail<const char>(ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK);
    std::memcpy(copy, text, length + 1);
    return copy;
  }

  bool Simple();
  bool Vector(uint8_t type);
  bool OpenBelowClose(uint8_t middleType);

  Operation* m_op;
  ChunkID m_root;
};

// open below [read | write | prefetch] below close, for the requests that
// carry a private file handle for the length of the request.
bool TreeBuilder::OpenBelowClose(uint8_t middleType) {
  FileHandle* file = LiveFile();
  if (file == nullptr) return false;
  ChunkID close;
  auto* closeRecord = Child<ChunkHandleRecord>(m_root, CHUNK_FH_CLOSE, &close);
  if (closeRecord == nullptr) return false;
  closeRecord->h = m_op->targetHandle;

  ChunkID openParent = close;
  const bool transfer = middleType == CHUNK_FH_READ || middleType == CHUNK_FH_WRITE;
  if (transfer && m_op->buffers[0].length == 0) {
    m_op->actCount = 0;  // nothing to move: the open hangs below the close
  } else if (transfer) {
    ChunkID io;
    auto* record = Child<ChunkFhIoRecord>(close, middleType, &io);
    if (record == nullptr) return false;
    record->h = m_op->targetHandle;
    record->offset = m_op->offset;
    record->reqCount = m_op->buffers[0].length;
    record->buffer = Buffer0();
    record->actCount = ActCount();
    openParent = io;
  } else {
    ChunkID prefetch;
    auto* record = Child<ChunkPrefetchRecord>(close, CHUNK_PREFETCH, &prefetch);
    if (record == nullptr) return false;
    record->h = m_op->targetHandle;
    record->offset = m_op->offset;
    record->reqCount = m_op->what == OP_PREFETCH_FILE_RANGE ? m_op->arg : INT64_MAX;
    record->actCount = ActCount();
    openParent = prefetch;
  }
  auto* open = Child<ChunkFhOpenRecord>(openParent, CHUNK_FH_OPEN);
  if (open == nullptr) return false;
  open->h = m_op->targetHandle;
  open->path = Path();
  open->mode = -1;
  return CopyPathInto(&file->path);
}

// One chunk per vector element, all children of the root.  Reads stop after
// the element that reaches the end of an open file of known size.
bool TreeBuilder::Vector(uint8_t type) {
  FileHandle* file = LiveFile();
  if (file == nullptr) return false;
  int64_t offset = m_op->offset;
  const uint32_t count = m_op->bufferCount <= ZUL_KEST_MAX_BUFFERS ? m_op->bufferCount : 0;
  for (uint32_t i = 0; i < count; ++i) {
    auto* record = Child<ChunkFhIoRecord>(m_root, type);
    if (record == nullptr) return false;
    record->h = m_op->targetHandle;
    record->offset = offset;
    record->reqCount = m_op->buffers[i].length;
    record->buffer = m_op->buffers[i].pPtr;
    record->actCount = ActCount();
    offset += m_op->buffers[i].length;
    if (type == CHUNK_FH_READ && __atomic_load_n(&file->opened, __ATOMIC_ACQUIRE) != 0 &&
        __atomic_load_n(&file->size, __ATOMIC_ACQUIRE) <= offset) {
      break;
    }
  }
  return true;
}

// Every request whose tree is one chunk below the root (plus copies).
bool TreeBuilder::Simple() {
  const uint32_t h = m_op->targetHandle;
  switch (m_op->what) {
    case OP_DELETE:
    case OP_DIRECTORY_DELETE:
    case OP_FILE_DELETE: {
      const uint8_t type = m_op->what == OP_DELETE           ? CHUNK_DELETE
                           : m_op->what == OP_FILE_DELETE   ? CHUNK_FILE_DELETE
                                                            : CHUNK_DIR_DELETE;
      auto* r = Child<ChunkPathRecord>(m_root, type);
      if (r == nullptr) return false;
      r->path = Path();
      return true;
    }
    case OP_DH_CLOSE:
    case OP_FH_CLOSE:
    case OP_FH_SYNC:
    case OP_ARCHIVE_UNMOUNT: {
      const uint8_t type = m_op->what == OP_DH_CLOSE   ? CHUNK_DH_CLOSE
                           : m_op->what == OP_FH_CLOSE ? CHUNK_FH_CLOSE
                           : m_op->what == OP_FH_SYNC  ? CHUNK_FH_SYNC
                                                       : CHUNK_ARCHIVE_UNMOUNT;
      auto* r = Child<ChunkHandleRecord>(m_root, type);
      if (r == nullptr) return false;
      r->h = h;
      return true;
    }
    case OP_DH_OPEN: {
      DirHandle* dir = LiveDir();
      if (dir == nullptr) return false;
      auto* r = Child<ChunkDhOpenRecord>(m_root, CHUNK_DH_OPEN);
      if (r == nullptr) return false;
      r->h = h;
      r->path = Path();
      r->actCount = ActCount();
      return CopyPathInto(&dir->path);
    }
    case OP_DH_READ: {
      if (LiveDir() == nullptr) return false;
      auto* r = Child<ChunkDhReadRecord>(m_root, CHUNK_DH_READ);
      if (r == nullptr) return false;
      r->h = h;
      r->entry = Buffer0();
      r->entrySize = static_cast<uint64_t>(m_op->buffers[0].length);
      return true;
    }
    case OP_DIRECTORY_CREATE: {
      auto* r = Child<ChunkDirCreateRecord>(m_root, CHUNK_DIR_CREATE);
      if (r == nullptr) return false;
      r->mode = static_cast<int32_t>(m_op->arg);
      r->path = Path();
      return true;
    }
    case OP_DIRECTORY_EXISTS:
    case OP_EXISTS:
    case OP_FILE_EXISTS:
    case OP_FILE_GET_SIZE: {
      const uint8_t type = m_op->what == OP_DIRECTORY_EXISTS ? CHUNK_DIR_EXISTS
                           : m_op->what == OP_EXISTS         ? CHUNK_EXISTS
                           : m_op->what == OP_FILE_EXISTS    ? CHUNK_FILE_EXISTS
                                                             : CHUNK_FILE_SIZE;
      auto* r = Child<ChunkPathResultRecord>(m_root, type);
      if (r == nullptr) return false;
      r->path = Path();
      r->result = Buffer0();
      return true;
    }
    case OP_FH_OPEN: {
      FileHandle* file = LiveFile();
      if (file == nullptr) return false;
      auto* r = Child<ChunkFhOpenRecord>(m_root, CHUNK_FH_OPEN);
      if (r == nullptr) return false;
      r->h = h;
      r->path = Path();
      r->mode = static_cast<int32_t>(m_op->arg);
      return CopyPathInto(&file->path);
    }
    case OP_FH_STAT:
    case OP_STAT: {
      auto* r = Child<ChunkStatRecord>(m_root, CHUNK_STAT);
      if (r == nullptr) return false;
      r->h = h;
      r->stat = static_cast<ZulKestStat*>(Buffer0());
      if (m_op->what == OP_STAT) r->path = Path();
      return true;
    }
    case OP_FH_TRUNCATE:
    case OP_TRUNCATE: {
      auto* r = Child<ChunkTruncateRecord>(m_root, CHUNK_TRUNCATE);
      if (r == nullptr) return false;
      r->newSize = m_op->arg;
      if (m_op->what == OP_FH_TRUNCATE) {
        r->h = h;
      } else {
        r->path = Path();
      }
      return true;
    }
    case OP_PREFETCH_FH:
    case OP_PREFETCH_FH_RANGE: {
      auto* r = Child<ChunkPrefetchRecord>(m_root, CHUNK_PREFETCH);
      if (r == nullptr) return false;
      r->h = h;
      r->offset = m_op->offset;
      r->reqCount = m_op->what == OP_PREFETCH_FH ? INT64_MAX : m_op->arg;
      return true;
    }
    case OP_RENAME: {
      ChunkID rename;
      auto* r = Child<ChunkRenameRecord>(m_root, CHUNK_RENAME, &rename);
      if (r == nullptr) return false;
      r->path = Path();
      r->newPath = CopyString(rename, reinterpret_cast<const char*>(m_op->arg));
      return r->newPath != nullptr;
    }
    case OP_RESOLVE: {
      auto* r = Child<ChunkResolveRecord>(m_root, CHUNK_RESOLVE);
      if (r == nullptr) return false;
      r->output = Buffer0();
      r->path = Path();
      r->args[0] = m_op->offset;
      r->args[1] = m_op->arg;
      return true;
    }
    case OP_ARCHIVE_QUERY:
    case OP_ARCHIVE_MOUNT: {
      FileHandle* file = LiveFile();
      if (file == nullptr) return false;
      ChunkID archive;
      auto* r = Child<ChunkArchiveRecord>(
          m_root, m_op->what == OP_ARCHIVE_QUERY ? CHUNK_ARCHIVE_QUERY : CHUNK_ARCHIVE_MOUNT,
          &archive);
      if (r == nullptr) return false;
      r->h = h;
      r->path = Path();
      r->args[0] = static_cast<int64_t>(reinterpret_cast<uintptr_t>(Buffer0()));
      r->args[1] = m_op->buffers[0].length;
      r->actCount = ActCount();
      if (m_op->arg != 0) {
        r->mountPoint = CopyString(archive, reinterpret_cast<const char*>(m_op->arg));
        if (r->mountPoint == nullptr) return false;
      }
      return CopyPathInto(&file->path);
    }
    case OP_CH_STAT: {
      auto* r = Child<ChunkChstatRecord>(m_root, CHUNK_CHSTAT);
      if (r == nullptr) return false;
      r->stat = static_cast<ZulKestStat*>(Buffer0());
      r->path = Path();
      r->mask = static_cast<uint32_t>(m_op->arg);
      return true;
    }
    case OP_DEVCTL:
    case OP_IOCTL: {
      int64_t* args;
      if (m_op->what == OP_DEVCTL) {
        auto* r = Child<ChunkDevctlRecord>(m_root, CHUNK_DEVCTL);
        if (r == nullptr) return false;
        r->path = Path();
        r->command = static_cast<int32_t>(m_op->arg);
        args = r->args;
      } else {
        auto* r = Child<ChunkIoctlRecord>(m_root, CHUNK_IOCTL);
        if (r == nullptr) return false;
        r->h = h;
        r->command = static_cast<int32_t>(m_op->arg);
        args = r->args;
      }
      for (int i = 0; i < 2; ++i) {
        args[2 * i] = static_cast<int64_t>(reinterpret_cast<uintptr_t>(m_op->buffers[i].pPtr));
        args[2 * i + 1] = m_op->buffers[i].length;
      }
      return true;
    }
    case OP_SYNC: {
      auto* r = Child<ChunkSyncRecord>(m_root, CHUNK_SYNC);
      if (r == nullptr) return false;
      r->flags = static_cast<int32_t>(m_op->arg);
      r->path = Path();
      return true;
    }
    default:
      zulKestPrintf(
          "Chunker::CreateInitialChunks received an invalid op! handle = 0x%08lX, pOp = "
          "0x%08llX, what = %d\n",
          static_cast<unsigned long>(m_op->h),
          static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(m_op)),
          static_cast<int>(m_op->what));
      m_op->err = ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
      return false;
  }
}

ChunkID TreeBuilder::Build() {
  m_root = AllocateChunk(CHUNK_ROOT);
  if (m_root == CHUNKID_INVALID) {
    m_op->err = ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    return CHUNKID_INVALID;
  }
  ChunkRecord<ChunkRootRecord>(m_root)->op = m_op->h;
  bool built;
  switch (m_op->what) {
    case OP_FH_PREADV:
    case OP_FH_READV:
      built = Vector(CHUNK_FH_READ);
      break;
    case OP_FH_PWRITEV:
    case OP_FH_WRITEV:
      built = Vector(CHUNK_FH_WRITE);
      break;
    case OP_PATH_READ:
      built = OpenBelowClose(CHUNK_FH_READ);
      break;
    case OP_PATH_WRITE:
      built = OpenBelowClose(CHUNK_FH_WRITE);
      break;
    case OP_PREFETCH_FILE:
    case OP_PREFETCH_FILE_RANGE:
      built = OpenBelowClose(CHUNK_PREFETCH);
      break;
    default:
      built = Simple();
      break;
  }
  if (!built) {
    DeallocateTree(m_root);
    return CHUNKID_INVALID;
  }
  return m_root;
}

bool ChildrenAllCompleted(ChunkID root) {
  return GetChild(root, 0) == CHUNKID_INVALID || AllChildrenCompleted(root);
}

// Splits one read or write chunk into pieces of at most maxChunk bytes.
int32_t SplitTransfer(ChunkID id, uint32_t maxChunk) {
  auto* first = ChunkRecord<ChunkFhIoRecord>(id);
  const int64_t total = first->reqCount;
  KEST2_TRACE(kTraceChunk, "ChunkTree", "chunking read (chunk %d) of %lld bytes",
              static_cast<int>(id), static_cast<long long>(total));
  first->reqCount = maxChunk;
  const FileHandle* file = Lookup<FileHandle>(kFhTable, first->h);
  const bool knownEnd = first->header.type == CHUNK_FH_READ && file != nullptr &&
                        __atomic_load_n(&file->opened, __ATOMIC_ACQUIRE) != 0;
  const int64_t fileSize = file != nullptr ? __atomic_load_n(&file->size, __ATOMIC_ACQUIRE) : 0;
  for (int64_t covered = maxChunk; covered < total; covered += maxChunk) {
    if (knownEnd && first->offset + covered >= fileSize) break;
    const ChunkID piece = AllocateChunk(first->header.type);
    if (piece == CHUNKID_INVALID) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    auto* record = ChunkRecord<ChunkFhIoRecord>(piece);
    record->h = first->h;
    record->offset = first->offset + covered;
    record->reqCount = total - covered < maxChunk ? total - covered : maxChunk;
    record->buffer = static_cast<uint8_t*>(first->buffer) + covered;
    record->actCount = first->actCount;
    bool linked = false;
    for (uint32_t i = 0;; ++i) {
      const ChunkID parent = GetParent(id, i);
      if (parent == CHUNKID_INVALID) break;
      linked = LinkChunks(parent, piece) || linked;
    }
    if (!linked) {
      DeallocateChunk(piece);
      return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    }
    for (uint32_t i = 0;; ++i) {
      const ChunkID child = GetChild(id, i);
      if (child == CHUNKID_INVALID) break;
      if (!LinkChunks(piece, child)) return ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    }
  }
  return ZUL_KEST_OK;
}

}  // namespace

ChunkID CreateInitialChunks(Operation* op) { return TreeBuilder(op).Build(); }

int32_t ChunkTree(ChunkID id) {
  const uint32_t maxChunk = __atomic_load_n(&g_KestParams.maxChunk, __ATOMIC_RELAXED);
  const ChunkHeader* chunk = ChunkAt(id);
  // The children as they are now: new pieces share them and are not visited.
  ChunkID children[64];
  const uint32_t count = GetChildren(id, children, 64);
  if ((chunk->type == CHUNK_FH_READ || chunk->type == CHUNK_FH_WRITE) &&
      (LoadChunkFlags(chunk) & kChunkNoSplit) == 0 && maxChunk != 0 &&
      reinterpret_cast<const ChunkFhIoRecord*>(chunk)->reqCount > maxChunk) {
    const int32_t result = SplitTransfer(id, maxChunk);
    if (result != ZUL_KEST_OK) return result;
  }
  for (uint32_t i = 0; i < count; ++i) {
    const int32_t result = ChunkTree(children[i]);
    if (result != ZUL_KEST_OK) return result;
  }
  // Trees wider than the local list are rare (vectors have at most eight
  // elements); visit the rest in place.
  for (uint32_t i = count;; ++i) {
    if (count < 64) break;
    const ChunkID child = GetChild(id, i);
    if (child == CHUNKID_INVALID) break;
    const int32_t result = ChunkTree(child);
    if (result != ZUL_KEST_OK) return result;
  }
  return ZUL_KEST_OK;
}

void SetTreeFilter(TreeFilter filter) { __atomic_store_n(&g_treeFilter, filter, __ATOMIC_RELEASE); }

ChunkID CreateChunkTree(Operation* op, bool* finishedNow) {
  *finishedNow = false;
  ChunkID root;
  {
    const PrivateTreeScope privateTree(true);
    root = CreateInitialChunks(op);
  }
  if (root == CHUNKID_INVALID) return root;
  // Filters may join the new tree to chunks of trees already running.
  bool filtered = false;
  if (const TreeFilter filter = __atomic_load_n(&g_treeFilter, __ATOMIC_ACQUIRE)) {
    root = filter(root, &filtered);
    if (root == CHUNKID_INVALID) {
      // A filter answered the whole tree.  If it also finished the
      // operation, there is nothing left to do; otherwise the operation is
      // completed by the caller with what the filter left in it.
      *finishedNow = OpFinishedForThisThread(op);
      return CHUNKID_INVALID;
    }
  }
  if (ChildrenAllCompleted(root)) {
    CompleteRoot(root);
    DeallocateTree(root);
    *finishedNow = true;
    return CHUNKID_INVALID;
  }
  int32_t split;
  {
    const PrivateTreeScope privateTree(!filtered);
    split = ChunkTree(root);
  }
  if (split != ZUL_KEST_OK) {
    DeallocateTree(root);
    op->err = ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    return CHUNKID_INVALID;
  }
  ChunkLocker lock;
  PrepareChunk(root, static_cast<int8_t>(op->attr.priority), op->attr.deadline);
  if (!LinkChunks(GlobalRootChunk(), root)) {
    DeallocateTree(root);
    op->err = ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK;
    return CHUNKID_INVALID;
  }
  return root;
}

}  // namespace kest2
