// Text dumps of error codes, operations, file and directory handles, dates
// and filters.  The texts are fixed: tools and tests read them.

#include "debug/dump.h"

#include <ctime>

#include "core/handletable.h"
#include "core/records.h"
#include "core/stored_path.h"
#include "debug/format.h"

namespace kest2 {
namespace {

constexpr int kSharedDumpBuffers = 4;
char g_sharedDumpBuffers[kSharedDumpBuffers][kDumpBufferSize];
uint32_t g_nextSharedDumpBuffer;
char g_opTypeNumber[8];

constexpr const char* kErrorNames[] = {
    "ZUL_KEST_ERROR_UNIMPLEMENTED",     "ZUL_KEST_ERROR_CANT_ALLOCATE_OP",
    "ZUL_KEST_ERROR_CANT_ALLOCATE_FH",  "ZUL_KEST_ERROR_CANT_ALLOCATE_DH",
    "ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK", "ZUL_KEST_ERROR_BAD_PATH",
    "ZUL_KEST_ERROR_BAD_PTR",           "ZUL_KEST_ERROR_BAD_OFFSET",
    "ZUL_KEST_ERROR_BAD_SIZE",          "ZUL_KEST_ERROR_BAD_IOVCNT",
    "ZUL_KEST_ERROR_BAD_OP",            "ZUL_KEST_ERROR_BAD_FH",
    "ZUL_KEST_ERROR_BAD_DH",            "ZUL_KEST_ERROR_BAD_ALIGNMENT",
    "ZUL_KEST_ERROR_NOT_A_FILE",        "ZUL_KEST_ERROR_NOT_A_DIRECTORY",
    "ZUL_KEST_ERROR_EOF",               "ZUL_KEST_ERROR_TIMEOUT",
    "ZUL_KEST_ERROR_CANCELLED",         "ZUL_KEST_ERROR_ACCESS",
    "ZUL_KEST_ERROR_DECOMPRESSION",     "ZUL_KEST_ERROR_READ_ONLY",
    "ZUL_KEST_ERROR_WRITE_ONLY",        "ZUL_KEST_ERROR_MEDIA_GONE",
    "ZUL_KEST_ERROR_PATH_TOO_LONG",     "ZUL_KEST_ERROR_TOO_MANY_OVERLAYS",
    "ZUL_KEST_ERROR_BAD_OVERLAY",       "ZUL_KEST_ERROR_BAD_ORDER",
    "ZUL_KEST_ERROR_BAD_INDEX",         "ZUL_KEST_ERROR_EVENT_NOT_HANDLED",
    "ZUL_KEST_ERROR_BUSY",              "ZUL_KEST_ERROR_BAD_ARCHIVE",
};
static_assert(sizeof(kErrorNames) / sizeof(kErrorNames[0]) == 32, "");

constexpr const char* kOpTypeNames[] = {
    "OP_DELETE",           "OP_DH_CLOSE",          "OP_DH_OPEN",
    "OP_DH_READ",          "OP_DH_READ_BULK",      "OP_DIRECTORY_CREATE",
    "OP_DIRECTORY_DELETE", "OP_DIRECTORY_EXISTS",  "OP_EXISTS",
    "OP_FH_CLOSE",         "OP_FH_OPEN",           "OP_FH_PREADV",
    "OP_FH_PWRITEV",       "OP_FH_READV",          "OP_FH_STAT",
    "OP_FH_SYNC",          "OP_FH_TRUNCATE",       "OP_FH_WRITEV",
    "OP_FILE_DELETE",      "OP_FILE_EXISTS",       "OP_FILE_GET_SIZE",
    "OP_PATH_READ",        "OP_PATH_WRITE",        "OP_PREFETCH_FH",
    "OP_PREFETCH_FH_RANGE", "OP_PREFETCH_FILE",    "OP_PREFETCH_FILE_RANGE",
    "OP_RENAME",           "OP_RESOLVE",           "OP_STAT",
    "OP_TRUNCATE",         "OP_ARCHIVE_QUERY",     "OP_ARCHIVE_MOUNT",
    "OP_ARCHIVE_UNMOUNT",  "OP_CH_STAT",           "OP_DEVCTL",
    "OP_IOCTL",            "OP_SYNC",
};
constexpr uint16_t kOpTypeCount = sizeof(kOpTypeNames) / sizeof(kOpTypeNames[0]);
static_assert(kOpTypeCount == 38, "");

}  // namespace

bool SelectDumpBuffer(char** buffer, size_t* size) {
  if (*buffer == nullptr) {
    const uint32_t turn =
        __atomic_fetch_add(&g_nextSharedDumpBuffer, 1u, __ATOMIC_RELAXED);
    *buffer = g_sharedDumpBuffers[turn % kSharedDumpBuffers];
    *size = kDumpBufferSize;
  }
  return *size != 0;
}

namespace {

// Types whose dump always shows the offset and the request/actual counts.
bool IsTransferType(uint16_t what) {
  switch (what) {
    case OP_FH_PREADV:
    case OP_FH_PWRITEV:
    case OP_FH_READV:
    case OP_FH_WRITEV:
    case OP_PATH_READ:
    case OP_PATH_WRITE:
    case OP_PREFETCH_FH_RANGE:
    case OP_PREFETCH_FILE_RANGE:
      return true;
    default:
      return false;
  }
}

bool AnyAttributeSet(const ZulKestOpAttr& attr) {
  return attr.priority != 0 || attr.deadline != 0 || attr.opflags != 0 ||
         attr.pCallback != nullptr || attr.pCallbackContext != nullptr ||
         attr.userTag != 0 || attr.userPtr != nullptr;
}

unsigned long long PointerBits(const void* p) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p));
}

void AppendAttributes(char* buffer, size_t size, const ZulKestOpAttr& attr) {
  AppendFormat(buffer, size, ", attr:{ priority:%d", attr.priority);
  if (attr.deadline != 0) {
    AppendFormat(buffer, size, ", deadline:%lld.%06lld",
                 static_cast<long long>(attr.deadline / 1000000000),
                 static_cast<long long>((attr.deadline % 1000000000) / 1000));
  }
  if (attr.opflags != 0)
    AppendFormat(buffer, size, ", opflags:0x%08X", static_cast<unsigned>(attr.opflags));
  if (attr.pCallback != nullptr) {
    AppendFormat(buffer, size, ", pCallback:0x%08llX",
                 PointerBits(reinterpret_cast<const void*>(attr.pCallback)));
  }
  if (attr.pCallbackContext != nullptr) {
    AppendFormat(buffer, size, ", pCallbackContext:0x%08llX",
                 PointerBits(attr.pCallbackContext));
  }
  if (attr.userTag != 0) {
    AppendFormat(buffer, size, ", userTag:0x%08llX",
                 static_cast<unsigned long long>(attr.userTag));
  }
  if (attr.userPtr != nullptr)
    AppendFormat(buffer, size, ", userPtr:0x%08llX", PointerBits(attr.userPtr));
  AppendFormat(buffer, size, " }");
}

void AppendPath(char* buffer, size_t size, const StoredPath* path) {
  if (!PathIsEmpty(path)) AppendFormat(buffer, size, ", path:\"%s\"", GetPath(path));
}

void AppendFhFields(char* buffer, size_t size, const void* object) {
  const FileHandle* fh = static_cast<const FileHandle*>(object);
  AppendFormat(buffer, size, " offset:%lld, size:%lld, nativeFH:%d",
               static_cast<long long>(fh->offset),
               static_cast<long long>(fh->size), fh->nativeFH);
  AppendPath(buffer, size, &fh->path);
}

void AppendDhFields(char* buffer, size_t size, const void* object) {
  const DirHandle* dh = static_cast<const DirHandle*>(object);
  AppendFormat(buffer, size, " nativeDH:0x%08llX",
               static_cast<unsigned long long>(dh->nativeDH));
  AppendPath(buffer, size, &dh->path);
}

// The common frame of the three handle dumps: the opening, then either the
// live object's fields, or its state word (and, for a freed slot, the fields
// it was left with), then " }".
char* DumpHandle(HandleTableId table, const char* kind, uint32_t handle,
                 char* buffer, size_t size,
                 void (*appendFields)(char*, size_t, const void*)) {
  if (!SelectDumpBuffer(&buffer, &size)) return buffer;
  FormatBounded(buffer, size, "%s 0x%08X:{", kind, handle);
  const void* object = LookupHandle(table, handle);
  if (object != nullptr) {
    appendFields(buffer, size, object);
  } else {
    object = LookupHandleUnchecked(table, handle);
    if (object == nullptr) {
      AppendFormat(buffer, size, " state:%s", "BOGUS");
    } else if (ObjectHandle(object) != 0) {
      AppendFormat(buffer, size, " state:%s", "REALLOCATED");
    } else {
      AppendFormat(buffer, size, " state:%s,", "DELETED");
      appendFields(buffer, size, object);
    }
  }
  AppendFormat(buffer, size, " }");
  return buffer;
}

}  // namespace

void AppendErrorName(char* buffer, size_t size, const char* prefix, int32_t code) {
  const char* name = ErrorName(code);
  if (name != nullptr) {
    AppendFormat(buffer, size, "%s%s", prefix, name);
  } else {
    AppendFormat(buffer, size, "%s0x%08X", prefix, static_cast<uint32_t>(code));
  }
}

const char* ErrorName(int32_t code) {
  if (code == ZUL_KEST_OK) return "ZUL_KEST_OK";
  if (code == ZUL_KEST_IN_PROGRESS) return "ZUL_KEST_IN_PROGRESS";
  const uint32_t value = static_cast<uint32_t>(code);
  if (value >= 0x80820000u && value <= 0x8082001Fu) return kErrorNames[value - 0x80820000u];
  return nullptr;
}

const char* OpTypeName(uint16_t what) {
  if (what < kOpTypeCount) return kOpTypeNames[what];
  FormatBounded(g_opTypeNumber, sizeof(g_opTypeNumber), "%u", static_cast<unsigned>(what));
  return g_opTypeNumber;
}

void AppendOpFields(char* buffer, size_t size, const void* object) {
  const Operation* op = static_cast<const Operation*>(object);
  AppendFormat(buffer, size, " what:%s", OpTypeName(op->what));
  AppendFormat(buffer, size, ", done:%d", OpFinishedForThisThread(op) ? 1 : 0);
  AppendErrorName(buffer, size, ", err:", op->err);
  if (op->targetHandle != 0) AppendFormat(buffer, size, ", h:0x%08X", op->targetHandle);
  AppendPath(buffer, size, &op->path);
  const bool transfer = IsTransferType(op->what);
  if (op->offset != 0 || transfer)
    AppendFormat(buffer, size, ", offset:%lld", static_cast<long long>(op->offset));
  const uint32_t used = op->bufferCount <= ZUL_KEST_MAX_BUFFERS ? op->bufferCount
                                                                 : ZUL_KEST_MAX_BUFFERS;
  if (used != 0) {
    if (transfer) {
      int64_t requested = 0;
      for (uint32_t i = 0; i < used; ++i) requested += op->buffers[i].length;
      AppendFormat(buffer, size, ", reqCount:%lld, actCount:%lld",
                   static_cast<long long>(requested),
                   static_cast<long long>(op->actCount));
    }
    AppendFormat(buffer, size, ", buffers:[");
    for (uint32_t i = 0; i < used; ++i) {
      AppendFormat(buffer, size, "%s{ pPtr:0x%08llX, length:%lld }", i == 0 ? "" : ",",
                   PointerBits(op->buffers[i].pPtr),
                   static_cast<long long>(op->buffers[i].length));
    }
    AppendFormat(buffer, size, "]");
  }
  if (AnyAttributeSet(op->attr)) AppendAttributes(buffer, size, op->attr);
  if (op->rootChunk != -1) AppendFormat(buffer, size, ", rootChunk:%d", op->rootChunk);
  if (op->internalFlags != 0)
    AppendFormat(buffer, size, ", internalFlags:0x%08X", static_cast<unsigned>(op->internalFlags));
}

char* DumpFilter(ZulKestIOFilterCallback function, void* context, char* buffer,
                 size_t size) {
  if (!SelectDumpBuffer(&buffer, &size)) return buffer;
  FormatBounded(buffer, size, "iofilter 0x%08llX:{ pFilterContext:0x%08llX",
                PointerBits(reinterpret_cast<const void*>(function)),
                PointerBits(context));
  if (function != nullptr) {
    char description[ZUL_KEST_IOFILTER_DESCRIPTION_SIZE] = {};
    const int32_t result =
        function(context, ZUL_KEST_IOFILTER_EVENT_GET_DESCRIPTION, description);
    if (result == ZUL_KEST_OK) {
      description[sizeof(description) - 1] = 0;
      AppendFormat(buffer, size, ", desc:\"%s\"", description);
    } else {
      AppendErrorName(buffer, size, ", descErr:", result);
    }
  }
  AppendFormat(buffer, size, " }");
  return buffer;
}

}  // namespace kest2

using namespace kest2;

extern "C" char* zulKestDebugDumpError(int32_t code, char* buffer, size_t size) {
  if (!SelectDumpBuffer(&buffer, &size)) return buffer;
  const char* name = ErrorName(code);
  if (name != nullptr) {
    FormatBounded(buffer, size, "%s", name);
  } else {
    FormatBounded(buffer, size, "0x%08X", static_cast<uint32_t>(code));
  }
  return buffer;
}

extern "C" char* zulKestDebugDumpOp(ZulKestOp op, char* buffer, size_t size) {
  return DumpHandle(kOpTable, "op", op, buffer, size, AppendOpFields);
}

extern "C" char* zulKestDebugDumpFH(ZulKestFH fh, char* buffer, size_t size) {
  return DumpHandle(kFhTable, "fh", fh, buffer, size, AppendFhFields);
}

extern "C" char* zulKestDebugDumpDH(ZulKestDH dh, char* buffer, size_t size) {
  return DumpHandle(kDhTable, "dh", dh, buffer, size, AppendDhFields);
}

extern "C" char* zulKestDebugDumpDate(ZulKestDate date, char* buffer, size_t size) {
  if (!SelectDumpBuffer(&buffer, &size)) return buffer;
  struct tm fields {};
  zulKestDateToComponents(date, &fields);
  FormatBounded(buffer, size, "%d-%02d-%02d %02d:%02d:%02d", fields.tm_year + 1900,
                fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min,
                fields.tm_sec);
  const uint32_t nanoseconds = static_cast<uint32_t>(date % 1000000000u);
  if (nanoseconds != 0) AppendFormat(buffer, size, ".%09d", static_cast<int>(nanoseconds));
  AppendFormat(buffer, size, " UTC");
  return buffer;
}
