// The native primitives: the result mapping, the open-flag translation,
// directory listing over several refills and the profiling-event helper.
// The other primitives are exercised through the handlers' tests.

#include "io/native_fs.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/temp_dir.h"
#include "core/globals.h"
#include "core/platform.h"
#include "test_support.h"

namespace {

using namespace kest2;

TEST(MapNativeErrorTest, MinusOneAndRawErrnoNumbers) {
  const struct { int err; int32_t expected; } minusOne[] = {
      {0, -1}, {ENOENT, ZUL_KEST_ERROR_BAD_PATH}, {ENOTDIR, ZUL_KEST_ERROR_NOT_A_DIRECTORY},
      {EISDIR, ZUL_KEST_ERROR_NOT_A_FILE}, {ENAMETOOLONG, ZUL_KEST_ERROR_BAD_PATH},
      {EIO, -5}, {EACCES, -EACCES}};  // other raw errno numbers come back negated
  for (const auto& c : minusOne) {
    errno = c.err;
    EXPECT_EQ(MapNativeError(-1), c.expected) << "errno " << c.err;
    if (c.err != 0) {
      EXPECT_EQ(MapNativeError(c.err), c.expected) << "raw " << c.err;
    }
  }
  errno = 0;
  EXPECT_EQ(MapNativeError(0), 0);
}

TEST(MapNativeErrorTest, KernelCodesMapByMeaningAndNeverStayRaw) {
  const struct { int err; int32_t expected; } cases[] = {
      {EPERM, ZUL_KEST_ERROR_ACCESS}, {ENOENT, ZUL_KEST_ERROR_BAD_PATH},
      {EBADF, ZUL_KEST_ERROR_BAD_FH}, {EACCES, ZUL_KEST_ERROR_ACCESS},
      {EBUSY, ZUL_KEST_ERROR_BUSY}, {EEXIST, ZUL_KEST_ERROR_EXISTS},
      {ENODEV, ZUL_KEST_ERROR_MEDIA_GONE}, {ENOTDIR, ZUL_KEST_ERROR_NOT_A_DIRECTORY},
      {EISDIR, ZUL_KEST_ERROR_NOT_A_FILE}, {EINVAL, ZUL_KEST_ERROR_BAD_PATH},
      {EFBIG, ZUL_KEST_ERROR_BAD_SIZE}, {EROFS, ZUL_KEST_ERROR_READ_ONLY},
      {ERANGE, ZUL_KEST_ERROR_EOF}, {EOPNOTSUPP, ZUL_KEST_ERROR_BAD_PATH},
      {ETIMEDOUT, ZUL_KEST_ERROR_TIMEOUT}, {ENAMETOOLONG, ZUL_KEST_ERROR_BAD_PATH},
      {ENOTEMPTY, ZUL_KEST_ERROR_ACCESS}, {ENOSYS, ZUL_KEST_ERROR_MEDIA_GONE},
      {ELOOP, ZUL_KEST_ERROR_BAD_PATH}, {EFAULT, ZUL_KEST_ERROR_BAD_PTR},
      {ENOSPC, ZUL_KEST_ERROR_BAD_SIZE}, {EDQUOT, ZUL_KEST_ERROR_BAD_SIZE},
      {EOVERFLOW, ZUL_KEST_ERROR_BAD_SIZE}, {EIO, ZUL_KEST_ERROR_MEDIA_GONE},
      {ENXIO, ZUL_KEST_ERROR_MEDIA_GONE}, {EMFILE, ZUL_KEST_ERROR_CANT_ALLOCATE_FH},
      {ENFILE, ZUL_KEST_ERROR_CANT_ALLOCATE_FH}, {ENOMEM, ZUL_KEST_ERROR_CANT_ALLOCATE_FH},
      {EXDEV, ZUL_KEST_ERROR_ACCESS}, {EMLINK, ZUL_KEST_ERROR_ACCESS},
      {EAGAIN, ZUL_KEST_ERROR_BUSY}, {ETXTBSY, ZUL_KEST_ERROR_BUSY},
      {EINTR, ZUL_KEST_ERROR_BUSY}, {ESPIPE, ZUL_KEST_ERROR_NOT_A_FILE},
      {EPIPE, ZUL_KEST_ERROR_MEDIA_GONE}, {ESTALE, ZUL_KEST_ERROR_MEDIA_GONE},
      {ENOMEDIUM, ZUL_KEST_ERROR_MEDIA_GONE},
      {EPROTO, ZUL_KEST_ERROR_MEDIA_GONE}};  // not expected from file calls at all
  for (const auto& c : cases)
    EXPECT_EQ(MapNativeError(KernelResultFromErrno(c.err)), c.expected) << "errno " << c.err;
  // Library codes and other negative values pass unchanged.
  for (int32_t code : {ZUL_KEST_ERROR_BAD_OFFSET, ZUL_KEST_ERROR_RETRY, -5, kKernelErrorBase})
    EXPECT_EQ(MapNativeError(code), code);
}

TEST(SystemOpenFlagsTest, AccessOptionsAndCreationMode) {
  EXPECT_EQ(SystemOpenFlags(0), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(SystemOpenFlags(ZUL_KEST_O_READ), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(SystemOpenFlags(ZUL_KEST_O_WRITE), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(SystemOpenFlags(ZUL_KEST_O_READ | ZUL_KEST_O_WRITE | ZUL_KEST_O_USER_MASK |
                         ZUL_KEST_O_RESERVED_MASK),
            O_RDWR | O_CLOEXEC);
  EXPECT_EQ(SystemOpenFlags(ZUL_KEST_O_WRITE | ZUL_KEST_O_APPEND | ZUL_KEST_O_CREAT |
                         ZUL_KEST_O_TRUNC | ZUL_KEST_O_DIRECT),
            O_WRONLY | O_APPEND | O_CREAT | O_TRUNC | O_DIRECT | O_CLOEXEC);
  EXPECT_EQ(MapOpenMode(ZUL_KEST_O_WRITE, 0644), 0u);
  EXPECT_EQ(MapOpenMode(ZUL_KEST_O_CREAT, -1), 0777u);
  EXPECT_EQ(MapOpenMode(ZUL_KEST_O_CREAT, 0x12345), 0x2345u);
}

TEST(NativeFsTest, PositionalTransfersAndBadOffset) {
  kest2_common::TempDir dir;
  const std::string path = dir.path() + "/f";
  int32_t fd = 7;
  EXPECT_EQ(NativeOpen(path.c_str(), ZUL_KEST_O_READ, -1, &fd), KernelResultFromErrno(ENOENT));
  EXPECT_EQ(fd, -1);
  ASSERT_GE(NativeOpen(path.c_str(), ZUL_KEST_O_READ | ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT,
                       0600, &fd), 0);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(NativePwrite(fd, "hello", 5, 3), 5);
  char buf[16];
  EXPECT_EQ(NativePread(fd, buf, sizeof(buf), 3), 5);  // short: a count
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0) << "no shared file position moved";
  EXPECT_EQ(NativePwrite(fd, "x", 1, -1), ZUL_KEST_ERROR_BAD_OFFSET);
  EXPECT_EQ(NativeClose(fd), 0);
  EXPECT_EQ(NativeClose(fd), KernelResultFromErrno(EBADF));
}

TEST(NativeDirTest, ListsThreeThousandEntriesExactlyOnce) {
  kest2_common::TempDir dir;
  std::set<std::string> expected{"a_directory"};
  ASSERT_EQ(NativeMkdir((dir.path() + "/a_directory").c_str(), -1), 0);
  for (int i = 0; i < 3000; ++i) {
    // 56-byte raw entries: three 64 KiB refills.
    const std::string name = "entry_" + std::to_string(i) + "_padding_padding_padding";
    const int fd = ::open((dir.path() + "/" + name).c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ::close(fd);
    expected.insert(name);
  }
  auto state = std::make_unique<NativeDirState>();  // 64 KiB: not for the stack
  int32_t fd = -1;
  ASSERT_EQ(NativeDirOpen(dir.path().c_str(), &fd, state.get()), 0);
  EXPECT_EQ(state->count, -1);
  std::set<std::string> seen;
  NativeDirEntry entry;
  int32_t rc;
  while ((rc = NativeDirRead(fd, &entry, state.get())) == 1) {
    const std::string name(entry.name);
    EXPECT_EQ(entry.namelen, name.size());
    EXPECT_NE(name, ".");
    EXPECT_NE(name, "..");
    EXPECT_TRUE(seen.insert(name).second) << "duplicate " << name;
    EXPECT_TRUE(name != "a_directory" || entry.type == DT_DIR) << "type";
  }
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(state->count, -1);
  EXPECT_EQ(state->position, -1);
  EXPECT_EQ(NativeDirRead(fd, &entry, state.get()), 0) << "stays at the end";
  EXPECT_EQ(NativeDirClose(fd), 0);
}

TEST(NativeDirTest, OpenAndReadFailures) {
  kest2_common::TempDir dir;
  auto state = std::make_unique<NativeDirState>();
  const std::string file = dir.path() + "/file";
  ::close(::open(file.c_str(), O_CREAT | O_WRONLY, 0644));
  int32_t fd = 5;
  state->count = 77;
  EXPECT_EQ(NativeDirOpen(file.c_str(), &fd, state.get()), ZUL_KEST_ERROR_NOT_A_DIRECTORY);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(state->count, -1) << "reset before the checks";
  EXPECT_EQ(NativeDirOpen((dir.path() + "/none").c_str(), &fd, state.get()),
            KernelResultFromErrno(ENOENT));
  NativeDirEntry entry;
  EXPECT_EQ(NativeDirRead(0, &entry, nullptr), ZUL_KEST_ERROR_BAD_PTR);
  EXPECT_EQ(NativeDirRead(-1, &entry, state.get()), KernelResultFromErrno(EBADF));
  ASSERT_EQ(NativeDirOpen(dir.path().c_str(), &fd, state.get()), 0);
  EXPECT_EQ(NativeDirRead(fd, &entry, state.get()), 1);
  EXPECT_STREQ(entry.name, "file");
  EXPECT_EQ(NativeDirRead(fd, &entry, state.get()), 0);
  EXPECT_EQ(NativeDirClose(fd), 0);
}

std::vector<ZulKestIOEvent> g_events;
std::vector<ZulKestIORequest> g_requests;
void RecordEvent(const ZulKestIOEvent* event) {
  g_events.push_back(*event);
  g_requests.push_back(*event->request);
}

TEST(NativeEventTest, ReportsOnceOnlyWhenTheHookIsSetBeforeAndAfter) {
  g_events.clear();
  g_requests.clear();
  g_KestParams.pEventCallback = RecordEvent;
  NativeEvent read(kEventRead, CHUNKID_INVALID, "/p", 10, 20, 30);
  read.Finish();
  read.Finish();  // reports nothing more
  NativeEvent stat(kEventStat, CHUNKID_INVALID, "/q");
  stat.Finish();
  NativeEvent removed(kEventOpen, CHUNKID_INVALID, "/r");
  g_KestParams.pEventCallback = nullptr;
  removed.Finish();
  NativeEvent installed(kEventOpen, CHUNKID_INVALID, "/s");
  g_KestParams.pEventCallback = RecordEvent;
  installed.Finish();
  g_KestParams.pEventCallback = nullptr;

  ASSERT_EQ(g_events.size(), 2u);
  EXPECT_EQ(g_events[0].kind, kEventRead);
  EXPECT_NE(g_events[0].startTime, 0u);
  EXPECT_GE(g_events[0].endTime, g_events[0].startTime);
  EXPECT_EQ(g_requests[0].offset, 10);
  EXPECT_EQ(g_requests[0].position, 20);
  EXPECT_EQ(g_requests[0].length, 30);
  EXPECT_STREQ(g_requests[0].path, "/p");
  EXPECT_EQ(g_events[1].kind, kEventStat);
  EXPECT_EQ(g_requests[1].offset, 0);
  EXPECT_EQ(g_requests[1].position, INT64_MAX);
  EXPECT_EQ(g_requests[1].length, 0);
}

}  // namespace
