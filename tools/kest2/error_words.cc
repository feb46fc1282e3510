// Result codes in words: see error_words.h.

#include "kest2/error_words.h"

#include <cstdio>

#include "kest2.h"

namespace kest2_cli {
namespace {

struct Words {
  int32_t code;
  const char* words;
};

// The words follow what the operating system's own tools say where the
// meaning is the same (a missing path, a refused permission), so that a
// message reads as a person expects it.
const Words kWords[] = {
    {ZUL_KEST_OK, "success"},
    {ZUL_KEST_IN_PROGRESS, "still in progress"},
    {ZUL_KEST_ERROR_UNIMPLEMENTED, "not supported"},
    {ZUL_KEST_ERROR_CANT_ALLOCATE_OP, "too many requests in flight"},
    {ZUL_KEST_ERROR_CANT_ALLOCATE_FH, "too many open files"},
    {ZUL_KEST_ERROR_CANT_ALLOCATE_DH, "too many open directories"},
    {ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK, "out of request storage"},
    {ZUL_KEST_ERROR_BAD_PATH, "no such file or directory"},
    {ZUL_KEST_ERROR_BAD_PTR, "bad buffer address"},
    {ZUL_KEST_ERROR_BAD_OFFSET, "offset out of range"},
    {ZUL_KEST_ERROR_BAD_SIZE, "bad size, or no space left"},
    {ZUL_KEST_ERROR_BAD_IOVCNT, "bad number of buffers"},
    {ZUL_KEST_ERROR_BAD_OP, "unknown request"},
    {ZUL_KEST_ERROR_BAD_FH, "bad file handle"},
    {ZUL_KEST_ERROR_BAD_DH, "bad directory handle"},
    {ZUL_KEST_ERROR_BAD_ALIGNMENT, "badly aligned buffer or offset"},
    {ZUL_KEST_ERROR_NOT_A_FILE, "not a regular file"},
    {ZUL_KEST_ERROR_NOT_A_DIRECTORY, "not a directory"},
    {ZUL_KEST_ERROR_EOF, "end of file"},
    {ZUL_KEST_ERROR_TIMEOUT, "timed out"},
    {ZUL_KEST_ERROR_CANCELLED, "cancelled"},
    {ZUL_KEST_ERROR_ACCESS, "permission denied"},
    {ZUL_KEST_ERROR_DECOMPRESSION, "damaged compressed data"},
    {ZUL_KEST_ERROR_READ_ONLY, "read-only file or file system"},
    {ZUL_KEST_ERROR_WRITE_ONLY, "open for writing only"},
    {ZUL_KEST_ERROR_MEDIA_GONE, "medium gone"},
    {ZUL_KEST_ERROR_PATH_TOO_LONG, "file name too long"},
    {ZUL_KEST_ERROR_TOO_MANY_OVERLAYS, "too many overlays"},
    {ZUL_KEST_ERROR_BAD_OVERLAY, "bad overlay"},
    {ZUL_KEST_ERROR_BAD_ORDER, "overlay order already taken"},
    {ZUL_KEST_ERROR_BAD_INDEX, "bad filter slot"},
    {ZUL_KEST_ERROR_EVENT_NOT_HANDLED, "not handled by the filter"},
    {ZUL_KEST_ERROR_BUSY, "busy"},
    {ZUL_KEST_ERROR_BAD_ARCHIVE, "not an archive, or a damaged one"},
    {ZUL_KEST_ERROR_BAD_ARGUMENT, "invalid argument"},
    {ZUL_KEST_ERROR_BAD_FLAGS, "invalid flags"},
    {ZUL_KEST_ERROR_EXISTS, "file exists"},
    {ZUL_KEST_ERROR_RETRY, "try again"},
};

}  // namespace

const char* ErrorWords(int64_t code) {
  for (const Words& entry : kWords) {
    if (entry.code == code) return entry.words;
  }
  return "unknown error";
}

std::string ErrorName(int64_t code) {
  char name[64];
  return zulKestDebugDumpError(static_cast<int32_t>(code), name, sizeof(name));
}

std::string DescribeError(int64_t code) {
  return std::string(ErrorWords(code)) + " (" + ErrorName(code) + ")";
}

int Fail(const char* command, const std::string& path, int64_t code) {
  std::fprintf(stderr, "kest2 %s: %s: %s\n", command, path.c_str(), DescribeError(code).c_str());
  return 1;
}

int UsageError(const char* command, const std::string& message) {
  std::fprintf(stderr, "kest2 %s: %s\nTry 'kest2 %s --help'.\n", command, message.c_str(), command);
  return 2;
}

}  // namespace kest2_cli
