// The native handlers run real chunks against files in a temporary
// directory.  The tests run as root, which bypasses permission bits, so
// refusals come from cases root cannot bypass (a directory opened for
// writing, a write through a read-only descriptor, mkdir below a regular
// file, rmdir of a non-empty directory); the chmod case skips under root.

#include "io/native_handlers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "io/native_fs.h"
#include "sched/chunk_tree.h"
#include "sched/execute.h"
#include "test_support.h"

namespace {

using namespace kest2;

std::mutex g_eventMutex;
std::vector<ZulKestIOEvent> g_events;
std::vector<ZulKestIORequest> g_requests;
void RecordEvent(const ZulKestIOEvent* event) {
  std::lock_guard<std::mutex> lock(g_eventMutex);
  g_events.push_back(*event);
  g_requests.push_back(*event->request);
}
std::vector<int> Kinds() {
  std::vector<int> kinds;
  for (const ZulKestIOEvent& e : g_events) kinds.push_back(e.kind);
  return kinds;
}

void WriteFile(const std::string& path, const std::string& data) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(::write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  ::close(fd);
}
std::string ReadFile(const std::string& path) {
  char buf[256];
  const int fd = ::open(path.c_str(), O_RDONLY);
  const ssize_t n = fd < 0 ? -1 : ::read(fd, buf, sizeof(buf));
  if (fd >= 0) ::close(fd);
  return n < 0 ? "<missing>" : std::string(buf, static_cast<size_t>(n));
}
int OpenDescriptorCount() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) count += fcntl(fd, F_GETFD) != -1;
  return count;
}

class NativeHandlersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zulKestDataInit();
    ZulKestParams params = storage_.MakeParams();
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
    g_events.clear();
    g_requests.clear();
  }
  void TearDown() override {
    kest2_test::SetDebugFlags(0);
    g_KestParams.pEventCallback = nullptr;
    for (uint32_t h : handles_) {
      if (FileHandle* fh = Fh(h)) {
        if (fh->nativeFH >= 0) ::close(fh->nativeFH);
        ReleaseHandle(kFhTable, h);
      }
    }
    for (ChunkID id : chunks_) DeallocateChunk(id);
    kest2_test::OutputCapture quiet;
    zulKestTerminate();
    zulKestDataTerm();
  }

  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }
  const StoredPath* Stored(const std::string& path) {
    paths_.emplace_back(StoredPathSize(PathMax()), 0);
    StoredPath* stored = reinterpret_cast<StoredPath*>(paths_.back().data());
    EXPECT_TRUE(SetPath(stored, path.c_str(), true));
    return stored;
  }
  // A file handle as an open request leaves it before the open runs.
  uint32_t NewHandle(const std::string& path, uint16_t openFlags) {
    const uint32_t h = AllocateHandle(kFhTable);
    FileHandle* fh = Fh(h);
    fh->nativeFH = -1;
    fh->openParams.openFlags = openFlags;
    EXPECT_TRUE(SetPath(&fh->path, path.c_str(), true));
    handles_.push_back(h);
    return h;
  }
  static FileHandle* Fh(uint32_t h) { return Lookup<FileHandle>(kFhTable, h); }
  template <typename T>
  T* New(uint8_t type, ChunkID* id = nullptr) {
    const ChunkID chunk = AllocateChunk(type);
    EXPECT_NE(chunk, CHUNKID_INVALID);
    chunks_.push_back(chunk);
    if (id != nullptr) *id = chunk;
    return ChunkRecord<T>(chunk);
  }
  int32_t Run() { return ExecuteNative(chunks_.back()); }

  int32_t Open(uint32_t h, const std::string& path, int32_t mode = -1) {
    ChunkFhOpenRecord* c = New<ChunkFhOpenRecord>(CHUNK_FH_OPEN);
    c->h = h;
    c->path = Stored(path);
    c->mode = mode;
    return Run();
  }
  uint32_t OpenHandle(const std::string& path, uint16_t openFlags) {
    const uint32_t h = NewHandle(path, openFlags);
    EXPECT_EQ(Open(h, path), ZUL_KEST_OK) << path;
    return h;
  }
  int32_t Io(uint8_t type, uint32_t h, int64_t offset, int64_t count, const void* buffer,
             int64_t* act, ChunkID* id = nullptr) {
    ChunkFhIoRecord* c = New<ChunkFhIoRecord>(type, id);
    c->h = h;
    c->offset = offset;
    c->position = INT64_MAX;
    c->reqCount = count;
    c->actCount = act;
    c->buffer = const_cast<void*>(buffer);
    return id != nullptr ? 0 : Run();
  }
  int32_t Write(uint32_t h, int64_t offset, const std::string& data, int64_t* act) {
    return Io(CHUNK_FH_WRITE, h, offset, static_cast<int64_t>(data.size()), data.data(), act);
  }
  int32_t OnHandle(uint8_t type, uint32_t h) {
    New<ChunkHandleRecord>(type)->h = h;
    return Run();
  }
  int32_t OnPath(uint8_t type, const std::string& path, void* result = nullptr) {
    ChunkPathResultRecord* c = New<ChunkPathResultRecord>(type);  // path first in all of them
    c->path = Stored(path);
    if (type != CHUNK_DIR_DELETE && type != CHUNK_FILE_DELETE && type != CHUNK_DELETE)
      c->result = result;
    return Run();
  }
  int Exists(uint8_t type, const std::string& path) {
    bool answer = true;
    return OnPath(type, path, &answer) == ZUL_KEST_OK ? answer : -1;
  }
  int32_t Stat(uint32_t h, const StoredPath* path, ZulKestStat* out) {
    ChunkStatRecord* c = New<ChunkStatRecord>(CHUNK_STAT);
    c->h = h;
    c->path = path;
    c->stat = out;
    return Run();
  }
  int32_t Truncate(uint32_t h, const StoredPath* path, int64_t size) {
    ChunkTruncateRecord* c = New<ChunkTruncateRecord>(CHUNK_TRUNCATE);
    c->h = h;
    c->path = path;
    c->newSize = size;
    return Run();
  }

  kest2_common::LibraryStorage storage_;
  kest2_common::TempDir dir_;
  std::deque<std::vector<char>> paths_;
  std::vector<uint32_t> handles_;
  std::vector<ChunkID> chunks_;
};

TEST_F(NativeHandlersTest, RoundTripAndRecordedSize) {
  const uint32_t h = OpenHandle(Path("d"), ZUL_KEST_O_READ | ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT);
  const int32_t fd = Fh(h)->nativeFH;
  ASSERT_GE(fd, 0);
  std::string data;
  for (int i = 0; i < 120; ++i) data.push_back(static_cast<char>('A' + i % 26));
  int64_t act = 0;
  ASSERT_EQ(Write(h, 0, data, &act), ZUL_KEST_OK);
  EXPECT_EQ(Fh(h)->size, 120);
  char buf[100] = {};
  ASSERT_EQ(Io(CHUNK_FH_READ, h, 50, 100, buf, &act), ZUL_KEST_OK);
  EXPECT_EQ(act, 120 + 70) << "100 at 50 of 120 bytes adds 70";
  EXPECT_EQ(std::string(buf, 70), data.substr(50));
  ASSERT_EQ(Write(h, 1000, "0123456789", &act), ZUL_KEST_OK);
  EXPECT_EQ(Fh(h)->size, 1010);
  ASSERT_EQ(Write(h, 5, "abc", &act), ZUL_KEST_OK);
  EXPECT_EQ(Fh(h)->size, 1010) << "a write inside the file keeps the size";
  EXPECT_EQ(OnHandle(CHUNK_FH_BARRIER, h), ZUL_KEST_OK);
  EXPECT_EQ(OnHandle(CHUNK_FH_SYNC, h), ZUL_KEST_OK);
  EXPECT_EQ(OnHandle(CHUNK_FH_CLOSE, h), ZUL_KEST_OK);
  EXPECT_EQ(Fh(h), nullptr) << "close releases the handle";
  EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "and closes the descriptor";

  struct timespec times[2] = {{1000000000, 0}, {1234567890, 500}};
  ASSERT_EQ(utimensat(AT_FDCWD, Path("d").c_str(), times, 0), 0);
  ChunkFhOpenRecord* open = New<ChunkFhOpenRecord>(CHUNK_FH_OPEN);
  open->h = NewHandle(Path("d"), ZUL_KEST_O_READ);
  open->path = Stored(Path("d"));
  ASSERT_EQ(Run(), ZUL_KEST_OK);
  EXPECT_EQ(Fh(open->h)->size, 1010);
  EXPECT_EQ(open->modificationDate, 1234567890ull * 1000000000ull);
}

TEST_F(NativeHandlersTest, EndOfFileAndZeroLengthMakeNoSystemCall) {
  WriteFile(Path("empty"), "");
  WriteFile(Path("ten"), "0123456789");
  const uint32_t empty = OpenHandle(Path("empty"), ZUL_KEST_O_READ);
  const uint32_t ten = OpenHandle(Path("ten"), ZUL_KEST_O_READ | ZUL_KEST_O_WRITE);
  g_KestParams.pEventCallback = RecordEvent;
  char buf[16];
  int64_t act = 5;
  EXPECT_EQ(Io(CHUNK_FH_READ, empty, 0, 10, buf, &act), ZUL_KEST_ERROR_EOF);
  EXPECT_EQ(Io(CHUNK_FH_READ, ten, 10, 4, buf, &act), ZUL_KEST_ERROR_EOF);  // at the size
  EXPECT_EQ(Io(CHUNK_FH_READ, ten, 3, 0, buf, &act), ZUL_KEST_OK);
  EXPECT_EQ(Io(CHUNK_FH_WRITE, ten, 3, 0, buf, &act), ZUL_KEST_OK);
  EXPECT_EQ(act, 5);
  EXPECT_TRUE(g_events.empty()) << "no system call";
  ASSERT_EQ(::truncate(Path("ten").c_str(), 2), 0);  // shrank behind the recorded size
  EXPECT_EQ(Io(CHUNK_FH_READ, ten, 5, 4, buf, &act), ZUL_KEST_ERROR_EOF);
  EXPECT_EQ(Kinds(), std::vector<int>{kEventRead});
}

TEST_F(NativeHandlersTest, OpenFailuresLeaveTheHandleUnopened) {
  const int descriptors = OpenDescriptorCount();
  g_KestParams.pEventCallback = RecordEvent;
  uint32_t h = NewHandle(Path("missing"), ZUL_KEST_O_READ);
  Fh(h)->nativeFH = 99;
  EXPECT_EQ(Open(h, Path("missing")), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(Fh(h)->nativeFH, -1);
  h = NewHandle(dir_.path(), ZUL_KEST_O_READ);  // the kernel opens it, the stat refuses
  EXPECT_EQ(Open(h, dir_.path()), ZUL_KEST_ERROR_NOT_A_FILE);
  EXPECT_EQ(Fh(h)->nativeFH, -1);
  EXPECT_EQ(Kinds(), (std::vector<int>{kEventOpen, kEventOpen, kEventStat, kEventClose}));
  h = NewHandle(dir_.path(), ZUL_KEST_O_WRITE);  // EISDIR, even for root
  EXPECT_EQ(Open(h, dir_.path()), ZUL_KEST_ERROR_NOT_A_FILE);
  WriteFile(Path("plain"), "p");
  EXPECT_EQ(Open(NewHandle(Path("plain/x"), 0), Path("plain/x")),
            ZUL_KEST_ERROR_NOT_A_DIRECTORY);
  EXPECT_EQ(Open(0x12345, Path("plain")), ZUL_KEST_ERROR_BAD_FH);
  EXPECT_EQ(OpenDescriptorCount(), descriptors) << "no descriptor leaked";
}

TEST_F(NativeHandlersTest, PermissionBitsRefuseTheOpen) {
  WriteFile(Path("locked"), "secret");
  ASSERT_EQ(::chmod(Path("locked").c_str(), 0), 0);
  if (geteuid() != 0) {
    EXPECT_EQ(Open(NewHandle(Path("locked"), ZUL_KEST_O_READ), Path("locked")),
              ZUL_KEST_ERROR_ACCESS);
    return;
  }
  // Root passes permission bits, so the refusal is checked in a child that
  // has given its privileges up (a plain open and the mapping, no threads).
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
    const int32_t result = NativeOpen(Path("locked").c_str(), ZUL_KEST_O_READ, -1, nullptr);
    _exit(result < 0 && MapNativeError(result) == ZUL_KEST_ERROR_ACCESS ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2: could not drop privileges; 1: the open was not refused";
}

TEST_F(NativeHandlersTest, TransferAndCloseErrors) {
  WriteFile(Path("f"), "abc");
  const uint32_t ro = OpenHandle(Path("f"), ZUL_KEST_O_READ);
  char buf[4];
  int64_t act = 0;
  EXPECT_EQ(Io(CHUNK_FH_READ, ro, 0, -1, buf, &act), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(Io(CHUNK_FH_READ, 0x4242, 0, 1, buf, &act), ZUL_KEST_ERROR_BAD_FH);
  EXPECT_EQ(Write(ro, 0, "x", &act), ZUL_KEST_ERROR_BAD_FH) << "read-only descriptor";
  const uint32_t rw = OpenHandle(Path("f"), ZUL_KEST_O_READ | ZUL_KEST_O_WRITE);
  EXPECT_EQ(Write(rw, -4, "x", &act), ZUL_KEST_ERROR_BAD_OFFSET);
  EXPECT_EQ(act, 0);
  EXPECT_EQ(Io(CHUNK_FH_READ, rw, 0, 3, buf, nullptr), ZUL_KEST_OK) << "no accumulator";
  const uint32_t unopened = NewHandle(Path("f"), ZUL_KEST_O_READ);
  Fh(unopened)->size = 100;
  EXPECT_EQ(Io(CHUNK_FH_READ, unopened, 0, 1, buf, &act), ZUL_KEST_ERROR_BAD_FH);
  EXPECT_EQ(OnHandle(CHUNK_FH_CLOSE, unopened), ZUL_KEST_ERROR_BAD_FH);
  EXPECT_EQ(Fh(unopened), nullptr) << "released although close failed";
  EXPECT_EQ(OnHandle(CHUNK_FH_SYNC, unopened), ZUL_KEST_ERROR_BAD_FH);
}

TEST_F(NativeHandlersTest, ConcurrentTransfersOnOneHandle) {
  const uint32_t h = OpenHandle(Path("s"), ZUL_KEST_O_READ | ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT);
  constexpr int kThreads = 4, kBlocks = 64, kBlock = 512;
  std::vector<std::string> blocks;
  std::vector<char> back(kBlocks * kBlock);
  std::vector<ChunkID> writes(kBlocks), reads(kBlocks);
  int64_t written = 0, read = 0;
  for (int i = 0; i < kBlocks; ++i) blocks.emplace_back(kBlock, static_cast<char>('a' + i % 26));
  for (int i = 0; i < kBlocks; ++i) {
    Io(CHUNK_FH_WRITE, h, i * kBlock, kBlock, blocks[i].data(), &written, &writes[i]);
    Io(CHUNK_FH_READ, h, i * kBlock, kBlock, &back[i * kBlock], &read, &reads[i]);
  }
  for (const std::vector<ChunkID>* pass : {&writes, &reads}) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([pass, t] {
        for (size_t i = t; i < pass->size(); i += kThreads)
          EXPECT_EQ(ExecuteNative((*pass)[i]), ZUL_KEST_OK);
      });
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(written, kBlocks * kBlock);
  EXPECT_EQ(read, kBlocks * kBlock);
  EXPECT_EQ(Fh(h)->size, kBlocks * kBlock) << "the largest end wins";
  for (int i = 0; i < kBlocks; ++i)
    ASSERT_EQ(std::string(&back[i * kBlock], kBlock), blocks[i]) << "block " << i;
}

TEST_F(NativeHandlersTest, TruncateAndRename) {
  const uint32_t h = OpenHandle(Path("t"), ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT);
  int64_t act = 0;
  ASSERT_EQ(Write(h, 0, "0123456789", &act), ZUL_KEST_OK);
  EXPECT_EQ(Truncate(h, nullptr, 4), ZUL_KEST_OK);
  EXPECT_EQ(Fh(h)->size, 4);
  EXPECT_EQ(ReadFile(Path("t")), "0123");
  EXPECT_EQ(Truncate(h, nullptr, 8192), ZUL_KEST_OK);
  EXPECT_EQ(Fh(h)->size, 8192);
  EXPECT_EQ(Truncate(h, nullptr, -1), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(Truncate(0x4242, Stored(Path("t")), 2), ZUL_KEST_OK) << "unknown handle: by path";
  EXPECT_EQ(ReadFile(Path("t")), "01");
  EXPECT_EQ(Truncate(0, Stored(Path("t")), -5), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(Truncate(0, Stored(Path("none")), 1), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(Truncate(0, nullptr, 1), ZUL_KEST_ERROR_BAD_FH);

  WriteFile(Path("to"), "old");
  const std::string target = Path("to");
  ChunkRenameRecord* rename = New<ChunkRenameRecord>(CHUNK_RENAME);
  rename->path = Stored(Path("t"));
  rename->newPath = target.c_str();
  ASSERT_EQ(Run(), ZUL_KEST_OK);
  EXPECT_EQ(ReadFile(target), "01");
  EXPECT_EQ(ReadFile(Path("t")), "<missing>");
  EXPECT_EQ(Run(), ZUL_KEST_ERROR_BAD_PATH) << "the source is gone";
  rename->newPath = nullptr;
  EXPECT_EQ(Run(), ZUL_KEST_ERROR_BAD_PATH);
}

TEST_F(NativeHandlersTest, ExistsFileSizeAndStat) {
  WriteFile(Path("f"), std::string(777, 'q'));
  g_KestParams.pEventCallback = RecordEvent;
  const std::string paths[] = {Path("missing"), Path("f"), dir_.path(), Path("f/x")};
  const int answers[][3] = {{0, 0, 0}, {1, 1, 0}, {1, 0, 1}, {0, 0, 0}};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(Exists(CHUNK_EXISTS, paths[i]), answers[i][0]) << paths[i];
    EXPECT_EQ(Exists(CHUNK_FILE_EXISTS, paths[i]), answers[i][1]) << paths[i];
    EXPECT_EQ(Exists(CHUNK_DIR_EXISTS, paths[i]), answers[i][2]) << paths[i];
  }
  EXPECT_EQ(Kinds(), std::vector<int>(12, kEventStat));

  int64_t size = -7;
  EXPECT_EQ(OnPath(CHUNK_FILE_SIZE, Path("f"), &size), ZUL_KEST_OK);
  EXPECT_EQ(size, 777);
  EXPECT_EQ(OnPath(CHUNK_FILE_SIZE, dir_.path(), &size), ZUL_KEST_ERROR_NOT_A_FILE);
  EXPECT_EQ(OnPath(CHUNK_FILE_SIZE, Path("none"), &size), ZUL_KEST_ERROR_BAD_PATH);

  ASSERT_EQ(::chmod(Path("f").c_str(), 0640), 0);
  struct timespec times[2] = {{1100000000, 123}, {1200000000, 456}};
  ASSERT_EQ(utimensat(AT_FDCWD, Path("f").c_str(), times, 0), 0);
  ZulKestStat st;
  std::memset(&st, 0xEE, sizeof(st));
  ASSERT_EQ(Stat(0, Stored(Path("f")), &st), ZUL_KEST_OK);
  EXPECT_EQ(st.fileSize, 777);
  EXPECT_EQ(st.accessDate, 1100000000ull * 1000000000ull);
  EXPECT_EQ(st.modificationDate, 1200000000ull * 1000000000ull);
  EXPECT_EQ(st.creationDate, 0u);
  EXPECT_EQ(st.statFlags, ZUL_KEST_STAT_READABLE | ZUL_KEST_STAT_WRITABLE);
  EXPECT_EQ(st.mode, 0100640u);
  EXPECT_EQ(st.reserved[0] | st.reserved[35], 0) << "cleared first";
  ASSERT_EQ(::chmod(Path("f").c_str(), 0200), 0);
  ASSERT_EQ(Stat(OpenHandle(Path("f"), ZUL_KEST_O_WRITE), nullptr, &st), ZUL_KEST_OK);
  EXPECT_EQ(st.statFlags, ZUL_KEST_STAT_WRITABLE);
  ASSERT_EQ(Stat(0, Stored(dir_.path()), &st), ZUL_KEST_OK);
  EXPECT_EQ(st.statFlags & ZUL_KEST_STAT_DIRECTORY, ZUL_KEST_STAT_DIRECTORY);
  EXPECT_EQ(Stat(0, Stored(Path("none")), &st), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(Stat(0, nullptr, &st), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(Stat(0x4242, Stored(Path("f")), &st), ZUL_KEST_ERROR_BAD_FH);
}

TEST_F(NativeHandlersTest, CreateAndDelete) {
  ChunkDirCreateRecord* mkdir = New<ChunkDirCreateRecord>(CHUNK_DIR_CREATE);
  mkdir->path = Stored(Path("d"));
  mkdir->mode = 0700;
  EXPECT_EQ(Run(), ZUL_KEST_OK);
  struct stat st;
  ASSERT_EQ(::stat(Path("d").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(Run(), ZUL_KEST_ERROR_EXISTS);
  WriteFile(Path("plain"), "p");
  mkdir->path = Stored(Path("plain/d"));
  EXPECT_EQ(Run(), ZUL_KEST_ERROR_NOT_A_DIRECTORY);
  WriteFile(Path("d/in"), "1");
  EXPECT_EQ(OnPath(CHUNK_DIR_DELETE, Path("d")), ZUL_KEST_ERROR_ACCESS) << "not empty";
  EXPECT_EQ(OnPath(CHUNK_FILE_DELETE, Path("d")), ZUL_KEST_ERROR_NOT_A_FILE);
  EXPECT_EQ(OnPath(CHUNK_FILE_DELETE, Path("d/in")), ZUL_KEST_OK);
  EXPECT_EQ(OnPath(CHUNK_FILE_DELETE, Path("d/in")), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(OnPath(CHUNK_DIR_DELETE, Path("plain")), ZUL_KEST_ERROR_NOT_A_DIRECTORY);
  EXPECT_EQ(OnPath(CHUNK_DELETE, Path("d")), ZUL_KEST_OK);
  EXPECT_EQ(OnPath(CHUNK_DELETE, Path("plain")), ZUL_KEST_OK);
  EXPECT_EQ(OnPath(CHUNK_DELETE, Path("plain")), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_NE(::stat(Path("d").c_str(), &st), 0);
}

int32_t g_callbackEvent = 0;
int32_t TestCallback(ChunkCallbackRecord*, int32_t event) {
  g_callbackEvent = event;
  return ZUL_KEST_ERROR_RETRY;
}
int32_t Installed(ChunkID) { return 77; }

TEST_F(NativeHandlersTest, RequestsWithoutEffectAndDispatch) {
  ZulKestResolveRecord out;
  ChunkResolveRecord* resolve = New<ChunkResolveRecord>(CHUNK_RESOLVE);
  resolve->output = &out;
  resolve->path = Stored("/some//where/./file");
  resolve->args[0] = 11;
  resolve->args[1] = -22;
  ASSERT_EQ(Run(), ZUL_KEST_OK);
  EXPECT_STREQ(out.path, "/some/where/file");
  EXPECT_EQ(out.offset, 11);
  EXPECT_EQ(out.arg, -22);

  WriteFile(Path("f"), "abc");
  New<ChunkChstatRecord>(CHUNK_CHSTAT)->path = Stored(Path("f"));
  EXPECT_EQ(Run(), ZUL_KEST_OK);
  New<ChunkDevctlRecord>(CHUNK_DEVCTL)->path = Stored(Path("f"));
  EXPECT_EQ(Run(), ZUL_KEST_OK);
  for (uint8_t type : {CHUNK_RESOLVE, CHUNK_CHSTAT, CHUNK_DEVCTL}) {
    New<ChunkHeader>(type);
    EXPECT_EQ(Run(), ZUL_KEST_ERROR_BAD_PATH) << "no path";
  }
  ChunkIoctlRecord* ioctl = New<ChunkIoctlRecord>(CHUNK_IOCTL);
  ioctl->h = NewHandle(Path("f"), ZUL_KEST_O_READ);
  EXPECT_EQ(Run(), ZUL_KEST_ERROR_BAD_FH) << "known but not open";
  ioctl->h = OpenHandle(Path("f"), ZUL_KEST_O_READ);
  EXPECT_EQ(ExecuteNative(chunks_[chunks_.size() - 2]), ZUL_KEST_OK);
  g_KestParams.pEventCallback = RecordEvent;
  New<ChunkSyncRecord>(CHUNK_SYNC)->path = Stored(Path("f"));
  EXPECT_EQ(Run(), ZUL_KEST_OK);
  EXPECT_EQ(Kinds(), std::vector<int>{kEventSync});

  New<ChunkCallbackRecord>(CHUNK_CALLBACK)->callback = TestCallback;
  EXPECT_EQ(Run(), ZUL_KEST_ERROR_RETRY);
  EXPECT_EQ(g_callbackEvent, 1);
  // (Roots and directory listings are served by the handlers that library
  // initialisation installs.)
  for (uint8_t type : {CHUNK_NULL, CHUNK_PARENT, CHUNK_CHILD, CHUNK_DH_READ_BULK, CHUNK_PREFETCH,
                       CHUNK_ARCHIVE_QUERY, CHUNK_ARCHIVE_MOUNT, CHUNK_ARCHIVE_UNMOUNT}) {
    New<ChunkHeader>(type);
    EXPECT_EQ(Run(), ZUL_KEST_ERROR_UNIMPLEMENTED) << ChunkTypeName(type);
  }
  SetDirectoryHandlers(Installed, Installed, Installed);
  SetRootCompletion(Installed);
  for (uint8_t type : {CHUNK_ROOT, CHUNK_DH_OPEN, CHUNK_DH_READ, CHUNK_DH_CLOSE}) {
    New<ChunkHeader>(type);
    EXPECT_EQ(Run(), 77) << ChunkTypeName(type);
  }
  SetDirectoryHandlers(nullptr, nullptr, nullptr);
  SetRootCompletion(nullptr);
  EXPECT_EQ(Run(), ZUL_KEST_ERROR_UNIMPLEMENTED) << "defaults restored";
  EXPECT_EQ(ExecuteNative(CHUNKID_INVALID), ZUL_KEST_ERROR_BAD_ARGUMENT);
}

// The "io" lines, time stamp and thread id dropped: "name-column text".
std::vector<std::string> IoLines(const std::string& out) {
  std::vector<std::string> lines;
  const std::string tag = " kest2/io    0x";
  for (size_t at = out.find(tag); at != std::string::npos; at = out.find(tag, at + 1)) {
    const size_t text = out.find(' ', at + tag.size()) + 1;
    lines.push_back(out.substr(text, out.find('\n', text) - text));
  }
  return lines;
}
std::string Line(const char* function, const std::string& text) {
  char column[64];
  std::snprintf(column, sizeof(column), "%-15s ", function);
  return column + text;
}

TEST_F(NativeHandlersTest, TraceLinesAreExact) {
  WriteFile(Path("f"), "0123456789");
  const std::string f = Path("f"), m = Path("missing");
  const uint32_t h = NewHandle(f, ZUL_KEST_O_READ | ZUL_KEST_O_CREAT);
  const uint32_t missing = NewHandle(m, ZUL_KEST_O_READ);
  kest2_test::OutputCapture capture;
  kest2_test::SetDebugFlags(kTraceIo);
  ASSERT_EQ(Open(h, f, 0644), ZUL_KEST_OK);
  char buf[16];
  EXPECT_EQ(Io(CHUNK_FH_READ, h, 0x1A, 4, buf, nullptr), ZUL_KEST_ERROR_EOF);
  EXPECT_EQ(Exists(CHUNK_EXISTS, f), 1);
  EXPECT_EQ(Exists(CHUNK_EXISTS, m), 0);
  const std::string fd = std::to_string(Fh(h)->nativeFH);
  EXPECT_EQ(OnHandle(CHUNK_FH_CLOSE, h), ZUL_KEST_OK);
  EXPECT_EQ(Open(missing, m), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(Truncate(0, Stored(m), 5), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(OnPath(CHUNK_DELETE, m), ZUL_KEST_ERROR_BAD_PATH);
  New<ChunkHeader>(CHUNK_CHSTAT);
  EXPECT_EQ(Run(), ZUL_KEST_ERROR_BAD_PATH);
  ChunkSyncRecord* sync = New<ChunkSyncRecord>(CHUNK_SYNC);
  sync->path = Stored("/x");
  sync->flags = 0x2A;
  EXPECT_EQ(Run(), ZUL_KEST_OK);
  kest2_test::SetDebugFlags(0);

  char bufText[32];
  std::snprintf(bufText, sizeof(bufText), "0x%08llX",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(buf)));
  const std::vector<std::string> expected = {
      Line("zulKestNativeFHOpen", "(\"" + f + "\",flags=0x0009,mode=(octal)0644)"),
      Line("zulKestNativeStat", "(\"" + f + "\")"),
      Line("zulKestNativeFHPread",
           "(fd=" + fd + "=\"" + f + "\",buf=" + bufText + ",nbyte=4,offset=0000001A)"),
      Line("zulKestNativeFHPread", "EOF"),
      Line("Exists", "(\"" + f + "\")"),
      Line("Exists", "found, ISDIR = 0, ISFILE = 1"),
      Line("Exists", "(\"" + m + "\")"),
      Line("zulKestNativeStat", "error 0x80020002"),
      Line("zulKestNativeFHClose", "(fd=" + fd + "=\"" + f + "\")"),
      Line("zulKestNativeFHOpen", "(\"" + m + "\",flags=0x0001,mode=(octal)037777777777)"),
      Line("zulKestNativeFHOpen", "error 0x80020002"),
      Line("zulKestNativeTruncate", "(\"" + m + "\",fd = -1, size=5)"),
      Line("zulKestNativeTruncate", "error 0x80020002"),
      Line("Delete", "(\"" + m + "\")"),
      Line("Delete", "zulKestNativeStat error 0x80020002"),
      Line("zulKestNativeChStat", "(\"Missing path!\")"),
      Line("zulKestNativeSync", "for path=\"/x\", flags=0x2a"),
  };
  EXPECT_EQ(IoLines(capture.text()), expected) << capture.text();
}

}  // namespace
