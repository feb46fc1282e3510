/*
 * kest2: a file I/O scheduling library.
 *
 * Every request (open, read, write, stat, directory listing, create, delete,
 * rename, truncate, prefetch, archive mount) becomes an operation with a
 * deadline and a priority.  The library splits it into chunks, orders the
 * chunks of all pending operations so that the fewest deadlines are missed,
 * and runs them on its own threads.  It allocates no memory for its objects:
 * the caller hands it fixed storage in ZulKestParams.
 *
 * This header is plain C.  Every record has a fixed layout and size that a
 * caller compiled against it relies on; integers are little-endian.  Objects
 * cross the boundary as 32-bit handles, never as pointers.
 *
 * Results: a function that can fail returns a signed 32-bit code, 0 for
 * success, 1 for "not finished yet", and negative ZUL_KEST_ERROR_* values.
 * Functions returning a count return a signed 64-bit value: the count, or an
 * error code sign-extended.
 */
#ifndef KEST2_H_
#define KEST2_H_

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#include "kest2_version.h"

#define KEST2_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

struct tm;

/* ------------------------------------------------------------------------ */
/* Result codes                                                              */
/* ------------------------------------------------------------------------ */

#define ZUL_KEST_OK 0
#define ZUL_KEST_IN_PROGRESS 1
#define ZUL_KEST_ERROR_UNIMPLEMENTED ((int32_t)0x80820000)
#define ZUL_KEST_ERROR_CANT_ALLOCATE_OP ((int32_t)0x80820001)
#define ZUL_KEST_ERROR_CANT_ALLOCATE_FH ((int32_t)0x80820002)
#define ZUL_KEST_ERROR_CANT_ALLOCATE_DH ((int32_t)0x80820003)
#define ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK ((int32_t)0x80820004)
#define ZUL_KEST_ERROR_BAD_PATH ((int32_t)0x80820005)
#define ZUL_KEST_ERROR_BAD_PTR ((int32_t)0x80820006)
#define ZUL_KEST_ERROR_BAD_OFFSET ((int32_t)0x80820007)
#define ZUL_KEST_ERROR_BAD_SIZE ((int32_t)0x80820008)
#define ZUL_KEST_ERROR_BAD_IOVCNT ((int32_t)0x80820009)
#define ZUL_KEST_ERROR_BAD_OP ((int32_t)0x8082000A)
#define ZUL_KEST_ERROR_BAD_FH ((int32_t)0x8082000B)
#define ZUL_KEST_ERROR_BAD_DH ((int32_t)0x8082000C)
#define ZUL_KEST_ERROR_BAD_ALIGNMENT ((int32_t)0x8082000D)
#define ZUL_KEST_ERROR_NOT_A_FILE ((int32_t)0x8082000E)
#define ZUL_KEST_ERROR_NOT_A_DIRECTORY ((int32_t)0x8082000F)
#define ZUL_KEST_ERROR_EOF ((int32_t)0x80820010)
#define ZUL_KEST_ERROR_TIMEOUT ((int32_t)0x80820011)
#define ZUL_KEST_ERROR_CANCELLED ((int32_t)0x80820012)
#define ZUL_KEST_ERROR_ACCESS ((int32_t)0x80820013)
#define ZUL_KEST_ERROR_DECOMPRESSION ((int32_t)0x80820014)
#define ZUL_KEST_ERROR_READ_ONLY ((int32_t)0x80820015)
#define ZUL_KEST_ERROR_WRITE_ONLY ((int32_t)0x80820016)
#define ZUL_KEST_ERROR_MEDIA_GONE ((int32_t)0x80820017)
#define ZUL_KEST_ERROR_PATH_TOO_LONG ((int32_t)0x80820018)
#define ZUL_KEST_ERROR_TOO_MANY_OVERLAYS ((int32_t)0x80820019)
#define ZUL_KEST_ERROR_BAD_OVERLAY ((int32_t)0x8082001A)
#define ZUL_KEST_ERROR_BAD_ORDER ((int32_t)0x8082001B)
#define ZUL_KEST_ERROR_BAD_INDEX ((int32_t)0x8082001C)
#define ZUL_KEST_ERROR_EVENT_NOT_HANDLED ((int32_t)0x8082001D)
#define ZUL_KEST_ERROR_BUSY ((int32_t)0x8082001E)
#define ZUL_KEST_ERROR_BAD_ARCHIVE ((int32_t)0x8082001F)
/* An argument outside its allowed values. */
#define ZUL_KEST_ERROR_BAD_ARGUMENT ((int32_t)0x80820020)
/* Reserved bits set in open flags, operation flags or filter flags. */
#define ZUL_KEST_ERROR_BAD_FLAGS ((int32_t)0x80820021)
/* The operating system reports that the target already exists. */
#define ZUL_KEST_ERROR_EXISTS ((int32_t)0x80820023)
/* Internal: a filter or handler asks to be run again later.  Never returned
 * to a caller. */
#define ZUL_KEST_ERROR_RETRY ((int32_t)0x80820024)

/* ------------------------------------------------------------------------ */
/* Handles, time and dates                                                   */
/* ------------------------------------------------------------------------ */

/* Handle layout: bits 0-13 slot, bits 14-15 table (1 op, 2 file, 3 dir),
 * bits 16-30 generation (1..32766), bit 31 zero.  0 is never valid.
 * 0x7FFF8000 + slot (0..255) is a descriptor-backed file handle. */
typedef uint32_t ZulKestOp;
typedef uint32_t ZulKestFH;
typedef uint32_t ZulKestDH;

/* Nanoseconds of the monotonic clock. */
typedef int64_t ZulKestTime;
/* Nanoseconds since 1970-01-01 00:00:00 UTC. */
typedef uint64_t ZulKestDate;

/* ------------------------------------------------------------------------ */
/* Operation attributes and callbacks                                        */
/* ------------------------------------------------------------------------ */

typedef enum ZulKestOpEvent {
  ZUL_KEST_EVENT_COMPLETE = 1, /* finished; error is the result */
  ZUL_KEST_EVENT_DELETE = 2    /* the operation is being deleted */
} ZulKestOpEvent;

/* callback(pCallbackContext, op, event, error); the result is ignored. */
typedef int32_t (*ZulKestOpCallback)(void* pCallbackContext, ZulKestOp op,
                                     uint8_t event, int32_t error);

/* Operation flags (ZulKestOpAttr.opflags). */
#define ZUL_KEST_OPFLAG_FAST_PATH_ALWAYS 0x001u /* open/close/stat may run on
                                                   the caller even when busy */
#define ZUL_KEST_OPFLAG_CACHE_BYPASS 0x002u /* RAM caches neither serve nor
                                              fill this request's reads */
#define ZUL_KEST_OPFLAG_CACHE_STREAM 0x004u /* read once: leave the RAM
                                              caches alone, as BYPASS */
#define ZUL_KEST_OPFLAG_CACHE_TRUST 0x200u  /* opens skip the RAM caches'
                                              stale check of the file */
#define ZUL_KEST_OPFLAG_SYNC 0x080u       /* set by the synchronous twins */
#define ZUL_KEST_OPFLAG_FAST_PATH 0x100u  /* allow the caller-thread path */
#define ZUL_KEST_OPFLAGS_VALID_MASK 0x3FFu /* bits above are rejected */

/* 48 bytes.  A null attribute pointer selects the defaults. */
typedef struct ZulKestOpAttr {
  ZulKestTime deadline; /* 0: no deadline (300 s after queuing) */
  ZulKestOpCallback pCallback;
  void* pCallbackContext;
  signed int priority : 8;    /* larger is more urgent */
  unsigned int opflags : 24;  /* ZUL_KEST_OPFLAG_* */
  uint32_t userTag;           /* never read by the library */
  void* userPtr;              /* never read by the library */
  uint64_t reserved;
} ZulKestOpAttr;

/* 16 bytes.  Vectored requests take 1 to 8 of these. */
typedef struct ZulKestBuffer {
  void* pPtr;
  int64_t length;
} ZulKestBuffer;

#define ZUL_KEST_MAX_BUFFERS 8

/* ------------------------------------------------------------------------ */
/* Open parameters                                                           */
/* ------------------------------------------------------------------------ */

#define ZUL_KEST_O_READ 0x0001u
#define ZUL_KEST_O_WRITE 0x0002u
#define ZUL_KEST_O_APPEND 0x0004u
#define ZUL_KEST_O_CREAT 0x0008u
#define ZUL_KEST_O_TRUNC 0x0010u
#define ZUL_KEST_O_DIRECT 0x1000u
/* Bits 0x0100-0x0800 are kept with the handle and never passed on. */
#define ZUL_KEST_O_USER_MASK 0x0F00u
/* Bits that make an open fail with ZUL_KEST_ERROR_BAD_FLAGS. */
#define ZUL_KEST_O_RESERVED_MASK 0xE0E0u

/* 24 bytes.  A null pointer means all zero (read access). */
typedef struct ZulKestOpenParams {
  uint16_t openFlags; /* ZUL_KEST_O_* */
  uint16_t opflags;   /* written by the library: low 16 opflags of the open */
  uint32_t reserved0;
  uint64_t reserved1; /* kept with the handle */
  uint64_t reserved2; /* kept with the handle */
} ZulKestOpenParams;

/* ------------------------------------------------------------------------ */
/* Stat record and directory entries                                         */
/* ------------------------------------------------------------------------ */

#define ZUL_KEST_STAT_DIRECTORY 0x1u
#define ZUL_KEST_STAT_READABLE 0x2u
#define ZUL_KEST_STAT_WRITABLE 0x4u

/* 80 bytes. */
typedef struct ZulKestStat {
  int64_t fileSize;
  ZulKestDate accessDate;       /* whole seconds */
  ZulKestDate modificationDate; /* whole seconds */
  ZulKestDate creationDate;     /* 0 from the native file system */
  uint32_t statFlags;           /* ZUL_KEST_STAT_* */
  uint8_t reserved[36];
  uint64_t mode; /* the file system's mode bits */
} ZulKestStat;

#define ZUL_KEST_DIR_ENTRY_PATH_MAX 1024

/* 1048 bytes.  fullPath is "directory/name"; the name starts at
 * offsetToName. */
typedef struct ZulKestDirEntry {
  int64_t fileSize;
  uint32_t statFlags;
  uint16_t nameLength;
  uint16_t fullPathLength;
  uint16_t offsetToName;
  uint8_t reserved[6];
  char fullPath[ZUL_KEST_DIR_ENTRY_PATH_MAX];
} ZulKestDirEntry;

typedef enum ZulKestWhence {
  ZUL_KEST_SEEK_SET = 0,
  ZUL_KEST_SEEK_CUR = 1,
  ZUL_KEST_SEEK_END = 2
} ZulKestWhence;

/* 1040 bytes: the record of zulKestResolve.  The filters that answer a
 * resolve define what the two fields mean. */
typedef struct ZulKestResolveRecord {
  int64_t offset;
  int64_t arg;
  char path[1024];
} ZulKestResolveRecord;

/* ------------------------------------------------------------------------ */
/* Profiling hook                                                            */
/* ------------------------------------------------------------------------ */

typedef struct ZulKestIORequest {
  int64_t offset;   /* reads and writes, else 0 */
  int64_t position; /* reads and writes, else INT64_MAX */
  int64_t length;   /* reads and writes, else 0 */
  ZulKestTime deadline;
  const char* path;
  uint16_t chunkId;
  int8_t priority;
} ZulKestIORequest;

/* The subject of the scheduler events (kinds 9-13): their `request` field
 * points at this record instead; cast it back. */
typedef struct ZulKestSchedulerEventSubject {
  uint64_t threadId; /* the thread that took the step */
  uint16_t chunkId;
  uint8_t chunkType;
} ZulKestSchedulerEventSubject;

/* kind: 0 open, 1 read, 2 write, 3 close, 4 stat, 5 sync, 6 directory open,
 * 7 directory read, 8 directory close; scheduler events: 9 schedule a tree,
 * 10 unschedule a tree, 11 add a chunk to a queue, 12 remove a chunk from a
 * queue, 13 execute a chunk. */
typedef struct ZulKestIOEvent {
  uint64_t startTime; /* time-stamp counter before the system call */
  uint64_t endTime;   /* and after it */
  const ZulKestIORequest* request;
  uint8_t kind;
} ZulKestIOEvent;

typedef int (*ZulKestVprintfHook)(const char* format, va_list args);
typedef void* (*ZulKestMemcpyHook)(void* dst, const void* src, size_t size);
typedef void (*ZulKestEventHook)(const ZulKestIOEvent* pEvent);

/* ------------------------------------------------------------------------ */
/* Parameters                                                                */
/* ------------------------------------------------------------------------ */

#define ZUL_KEST_PARAMS_SIZE 176
/* The header word a caller sets: size 176 and the longest path in bytes
 * (terminator included; 0 selects 1024). */
#define ZUL_KEST_PARAMS_HEADER(pathMax) \
  ((uint32_t)(ZUL_KEST_PARAMS_SIZE << 1) | ((uint32_t)(pathMax) << 16))

/* debugFlags: one trace switch per module. */
#define ZUL_KEST_DEBUG_API 0x01u
#define ZUL_KEST_DEBUG_SCHED 0x02u
#define ZUL_KEST_DEBUG_OP 0x04u
#define ZUL_KEST_DEBUG_CHUNK 0x08u
#define ZUL_KEST_DEBUG_IO 0x10u
#define ZUL_KEST_DEBUG_CACHE 0x20u
#define ZUL_KEST_DEBUG_ZORBA 0x40u
#define ZUL_KEST_DEBUG_OVRLY 0x80u

/* threadPriority / threadAffinity / threadStackSize indices. */
#define ZUL_KEST_THREAD_IO 0
#define ZUL_KEST_THREAD_DECOMPRESSOR 1
#define ZUL_KEST_THREAD_CALLBACK 2

/* 176 bytes, given to zulKestInitialize; the library keeps a copy. */
typedef struct ZulKestParams {
  union {
    uint32_t header; /* ZUL_KEST_PARAMS_HEADER(pathMax) */
    struct {
      uint32_t initialized : 1; /* set in the library's copy */
      uint32_t paramsSize : 15; /* must be 176 */
      uint32_t pathMax : 16;    /* 0 or above 1024 becomes 1024 */
    };
  };
  uint32_t debugFlags;      /* ZUL_KEST_DEBUG_* */
  uint32_t schedulerCount;  /* I/O scheduler queues, 1 or 2 */
  uint32_t ioThreadCount;   /* I/O threads per queue, 1 to 3 */
  uint32_t reservedMode;    /* 0 or 1 */
  uint32_t maxChunk;        /* largest read/write piece; 0: 0x80000 */
  uint8_t decompressorThreadCount; /* 1 to 3; 0 selects 2 */
  uint8_t spare;
  uint8_t padding[2]; /* must be zero */
  uint64_t extraFlags; /* must be zero */
  uint64_t reserved;   /* must be zero */
  void* opStorage;     /* operations */
  uint64_t opStorageSize;
  void* fhStorage; /* file handles */
  uint64_t fhStorageSize;
  void* dhStorage; /* directory handles */
  uint64_t dhStorageSize;
  void* chunkStorage; /* chunks */
  uint64_t chunkStorageSize;
  ZulKestVprintfHook pVprintf;     /* all output goes here when set */
  ZulKestMemcpyHook pMemcpy;       /* kept, never called by operations */
  ZulKestEventHook pEventCallback; /* one record per native call */
  int32_t threadPriority[3];   /* I/O, decompressor, callback; -1 default */
  uint32_t threadAffinity[3];  /* CPU masks, 0 default */
  int32_t threadStackSize[3];  /* bytes; raised to the minimum */
  uint32_t reserved2;
} ZulKestParams;

/* Bytes per unit of each storage area for a given pathMax (1..1024); the
 * caller sizes its storage as units * unit size plus one bit per unit,
 * rounded up to 8 bytes. */
#define ZUL_KEST_OP_UNIT_SIZE(pathMax) ((((pathMax) + 255u) / 8u) * 8u)
#define ZUL_KEST_FH_UNIT_SIZE(pathMax) ((((pathMax) + 103u) / 8u) * 8u)
#define ZUL_KEST_DH_UNIT_SIZE(pathMax) ((((pathMax) + 111u) / 8u) * 8u)
#define ZUL_KEST_CHUNK_UNIT_SIZE 16u
#define ZUL_KEST_STORAGE_SIZE(units, unitSize) \
  ((uint64_t)(units) * (unitSize) + ((((uint64_t)(units) + 63u) / 64u) * 8u))

/* ------------------------------------------------------------------------ */
/* Operation types                                                           */
/* ------------------------------------------------------------------------ */

typedef enum ZulKestOpType {
  OP_DELETE = 0,
  OP_DH_CLOSE = 1,
  OP_DH_OPEN = 2,
  OP_DH_READ = 3,
  OP_DH_READ_BULK = 4,
  OP_DIRECTORY_CREATE = 5,
  OP_DIRECTORY_DELETE = 6,
  OP_DIRECTORY_EXISTS = 7,
  OP_EXISTS = 8,
  OP_FH_CLOSE = 9,
  OP_FH_OPEN = 10,
  OP_FH_PREADV = 11,
  OP_FH_PWRITEV = 12,
  OP_FH_READV = 13,
  OP_FH_STAT = 14,
  OP_FH_SYNC = 15,
  OP_FH_TRUNCATE = 16,
  OP_FH_WRITEV = 17,
  OP_FILE_DELETE = 18,
  OP_FILE_EXISTS = 19,
  OP_FILE_GET_SIZE = 20,
  OP_PATH_READ = 21,
  OP_PATH_WRITE = 22,
  OP_PREFETCH_FH = 23,
  OP_PREFETCH_FH_RANGE = 24,
  OP_PREFETCH_FILE = 25,
  OP_PREFETCH_FILE_RANGE = 26,
  OP_RENAME = 27,
  OP_RESOLVE = 28,
  OP_STAT = 29,
  OP_TRUNCATE = 30,
  OP_ARCHIVE_QUERY = 31,
  OP_ARCHIVE_MOUNT = 32,
  OP_ARCHIVE_UNMOUNT = 33,
  OP_CH_STAT = 34,
  OP_DEVCTL = 35,
  OP_IOCTL = 36,
  OP_SYNC = 37
} ZulKestOpType;

/* ------------------------------------------------------------------------ */
/* Filters                                                                   */
/* ------------------------------------------------------------------------ */

/* result = filter(context, event, argument) */
typedef int32_t (*ZulKestIOFilterCallback)(void* pFilterContext, int32_t event,
                                           void* pArgument);

#define ZUL_KEST_IOFILTER_EVENT_FILTER_CHUNK (-1)
#define ZUL_KEST_IOFILTER_EVENT_INITIALIZE 0
#define ZUL_KEST_IOFILTER_EVENT_TERMINATE 1
#define ZUL_KEST_IOFILTER_EVENT_GET_DESCRIPTION 2
#define ZUL_KEST_IOFILTER_EVENT_CACHE_CONTAINS 3
#define ZUL_KEST_IOFILTER_EVENT_CACHE_FLUSH 4

#define ZUL_KEST_IOFILTER_MAX 256
#define ZUL_KEST_IOFILTER_DESCRIPTION_SIZE 256

typedef struct ZulKestIOFilterRange {
  const char* path;
  int64_t offset;
  int64_t length; /* INT64_MAX: to the end of the file */
} ZulKestIOFilterRange;

/* ------------------------------------------------------------------------ */
/* Overlays                                                                  */
/* ------------------------------------------------------------------------ */

#define ZUL_KEST_OVERLAY_TYPE_OPAQUE 0
#define ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT 1
#define ZUL_KEST_OVERLAY_TYPE_NEWER 2
#define ZUL_KEST_OVERLAY_TYPE_WRITABLE 3
#define ZUL_KEST_OVERLAY_PATH_SIZE 292

/* 600 bytes. */
typedef struct ZulKestOverlay {
  uint8_t type; /* ZUL_KEST_OVERLAY_TYPE_* */
  int8_t order; /* 0..127, lower first */
  uint8_t reserved[10];
  int32_t id; /* written by zulKestOverlayGetInfo */
  char dst[ZUL_KEST_OVERLAY_PATH_SIZE]; /* the overlaid path */
  char src[ZUL_KEST_OVERLAY_PATH_SIZE]; /* the path that takes its place */
} ZulKestOverlay;

/* ------------------------------------------------------------------------ */
/* Statistics                                                                */
/* ------------------------------------------------------------------------ */

typedef struct ZulKestStatisticsEntry {
  uint64_t current;
  uint64_t highWater;
  uint64_t maxAvailable;
  uint64_t bytesPerUnit;
} ZulKestStatisticsEntry;

/* 224 bytes. */
typedef struct ZulKestStatistics {
  ZulKestStatisticsEntry opStorage;
  ZulKestStatisticsEntry fhStorage;
  ZulKestStatisticsEntry dhStorage;
  ZulKestStatisticsEntry chunkStorage;
  ZulKestStatisticsEntry ioQueue[2]; /* HDD queue first when it exists */
  ZulKestStatisticsEntry callbackQueue;
} ZulKestStatistics;

/* ======================================================================== */
/* Functions                                                                 */
/* ======================================================================== */

/* Library version as (major << 16) | (minor << 8) | patch. */
KEST2_EXPORT uint32_t zulKestGetVersion(void);

/* --- Initialisation and global state ------------------------------------ */

/* Validates and copies params, carves the storage tables out of the caller's
 * storage and starts the library's threads.
 * Returns ZUL_KEST_OK (also when already initialised: adjustable fields are
 * updated), ZUL_KEST_ERROR_BAD_PTR, ZUL_KEST_ERROR_BAD_SIZE or
 * ZUL_KEST_ERROR_BAD_ALIGNMENT.  Not thread-safe against other calls. */
KEST2_EXPORT int32_t zulKestInitialize(const ZulKestParams* params);
/* Undoes zulKestInitialize; does not wait for operations in flight. */
KEST2_EXPORT void zulKestTerminate(void);
/* True when initialised; copies the library's parameters to out if given. */
KEST2_EXPORT bool zulKestIsInitialized(ZulKestParams* out);
/* Updates the adjustable fields (debugFlags, maxChunk, hooks, thread
 * priorities and affinities) as given, without defaults. */
KEST2_EXPORT void zulKestUpdateParameters(const ZulKestParams* params);
/* Create / destroy the global locks ahead of (and across) initialisation. */
KEST2_EXPORT void zulKestDataInit(void);
KEST2_EXPORT void zulKestDataTerm(void);

KEST2_EXPORT void zulKestSetGlobalDefaultOpAttr(const ZulKestOpAttr* attr);
KEST2_EXPORT bool zulKestGetGlobalDefaultOpAttr(ZulKestOpAttr* out);
KEST2_EXPORT void zulKestSetThreadDefaultOpAttr(const ZulKestOpAttr* attr);
KEST2_EXPORT bool zulKestGetThreadDefaultOpAttr(ZulKestOpAttr* out);
KEST2_EXPORT void zulKestGetDefaultOpAttr(ZulKestOpAttr* out);

KEST2_EXPORT void zulKestSuspend(void);
KEST2_EXPORT void zulKestResume(void);
KEST2_EXPORT uint32_t zulKestGetSuspendCount(void);
KEST2_EXPORT bool zulKestIsSuspended(void);
KEST2_EXPORT void zulKestShutdownAndCancelOps(void);
KEST2_EXPORT void zulKestCancelAllOps(void);
KEST2_EXPORT void zulKestCloseAllFiles(void);
KEST2_EXPORT bool zulKestIsIdle(void);

/* Fill handles (may be null) with up to length live handles in slot order,
 * zero the rest; return the number of live objects. */
KEST2_EXPORT int32_t zulKestGetAllOps(ZulKestOp* handles, int32_t length);
KEST2_EXPORT int32_t zulKestGetAllFHs(ZulKestFH* handles, int32_t length);
KEST2_EXPORT int32_t zulKestGetAllDHs(ZulKestDH* handles, int32_t length);

/* All library text goes through these; pVprintf receives it when set. */
KEST2_EXPORT int32_t zulKestPrintf(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
KEST2_EXPORT int zulKestVprintf(const char* format, va_list args);

/* Byte-wise comparison (signed bytes), like strcmp / strncmp. */
KEST2_EXPORT int32_t zulKestPathcmp(const char* a, const char* b);
KEST2_EXPORT int32_t zulKestPathncmp(const char* a, const char* b,
                                     size_t length);
/* Normalises src into dst (size bytes): separators unified to '/', "." and
 * ".." resolved, repeated separators collapsed.  Returns the length, or
 * size + 1 on failure (null/empty source, or no room). */
KEST2_EXPORT uint64_t zulKestPathNormalize(char* dst, const char* src,
                                           uint64_t size);

/* --- Time and dates ----------------------------------------------------- */

KEST2_EXPORT ZulKestTime zulKestTimeGetCurrent(void);
KEST2_EXPORT int64_t zulKestTimeToNanoseconds(ZulKestTime time);
KEST2_EXPORT ZulKestTime zulKestTimeFromNanoseconds(int64_t nanoseconds);
/* Writes "seconds.microseconds" of the current time; returns 0. */
KEST2_EXPORT int32_t zulKestTraceTimestamp(char* buffer, size_t size);
KEST2_EXPORT ZulKestDate zulKestDateGetCurrent(void);
/* UTC calendar fields of date; a null tm is returned unchanged. */
KEST2_EXPORT struct tm* zulKestDateToComponents(ZulKestDate date,
                                                struct tm* tm);
/* The date of UTC calendar fields; 0 for null or rejected fields. */
KEST2_EXPORT ZulKestDate zulKestDateFromComponents(const struct tm* tm);

/* --- Operations --------------------------------------------------------- */

KEST2_EXPORT int32_t zulKestOpWait(ZulKestOp op);
KEST2_EXPORT int32_t zulKestOpWaitUntil(ZulKestOp op, ZulKestTime deadline);
KEST2_EXPORT int32_t zulKestOpSyncWait(ZulKestOp op);
KEST2_EXPORT int64_t zulKestOpSyncWaitForIO(ZulKestOp op);
KEST2_EXPORT void zulKestOpDelete(ZulKestOp op);
KEST2_EXPORT void zulKestOpCancel(ZulKestOp op);
KEST2_EXPORT bool zulKestOpIsCancelled(ZulKestOp op);
KEST2_EXPORT bool zulKestOpIsDone(ZulKestOp op);
KEST2_EXPORT int32_t zulKestOpGetError(ZulKestOp op);
KEST2_EXPORT const ZulKestOpAttr* zulKestOpGetAttr(ZulKestOp op);
KEST2_EXPORT const char* zulKestOpGetPath(ZulKestOp op);
KEST2_EXPORT const ZulKestBuffer* zulKestOpGetBuffer(ZulKestOp op);
KEST2_EXPORT int64_t zulKestOpGetOffset(ZulKestOp op);
KEST2_EXPORT int64_t zulKestOpGetRequestCount(ZulKestOp op);
KEST2_EXPORT int64_t zulKestOpGetActualCount(ZulKestOp op);
KEST2_EXPORT void zulKestOpReschedule(ZulKestOp op, ZulKestTime deadline);
KEST2_EXPORT void zulKestOpRescheduleWithPriority(ZulKestOp op,
                                                  ZulKestTime deadline,
                                                  int8_t priority);

/* --- Asynchronous requests ---------------------------------------------- */
/* Each returns the new operation (argument errors complete it at once), or
 * 0 when no operation could be allocated. */

KEST2_EXPORT ZulKestOp zulKestFHOpen(const ZulKestOpAttr* attr, ZulKestFH* pFH,
                                     const char* path,
                                     const ZulKestOpenParams* openParams);
KEST2_EXPORT ZulKestOp zulKestFHOpenWithMode(
    const ZulKestOpAttr* attr, ZulKestFH* pFH, const char* path,
    const ZulKestOpenParams* openParams, int32_t mode);
KEST2_EXPORT ZulKestOp zulKestFHRead(const ZulKestOpAttr* attr, ZulKestFH fh,
                                     void* buf, int64_t length);
KEST2_EXPORT ZulKestOp zulKestFHWrite(const ZulKestOpAttr* attr, ZulKestFH fh,
                                      const void* buf, int64_t length);
KEST2_EXPORT ZulKestOp zulKestFHPread(const ZulKestOpAttr* attr, ZulKestFH fh,
                                      void* buf, int64_t length,
                                      int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFHPwrite(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       const void* buf, int64_t length,
                                       int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFHReadv(const ZulKestOpAttr* attr, ZulKestFH fh,
                                      const ZulKestBuffer* iov, int32_t count);
KEST2_EXPORT ZulKestOp zulKestFHWritev(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       const ZulKestBuffer* iov,
                                       int32_t count);
KEST2_EXPORT ZulKestOp zulKestFHPreadv(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       const ZulKestBuffer* iov, int32_t count,
                                       int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFHPwritev(const ZulKestOpAttr* attr,
                                        ZulKestFH fh, const ZulKestBuffer* iov,
                                        int32_t count, int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFHStat(const ZulKestOpAttr* attr, ZulKestFH fh,
                                     ZulKestStat* pStat);
KEST2_EXPORT ZulKestOp zulKestFHTruncate(const ZulKestOpAttr* attr,
                                         ZulKestFH fh, int64_t length);
KEST2_EXPORT ZulKestOp zulKestFHSync(const ZulKestOpAttr* attr, ZulKestFH fh);
KEST2_EXPORT ZulKestOp zulKestFHClose(const ZulKestOpAttr* attr, ZulKestFH fh);
KEST2_EXPORT ZulKestOp zulKestDHOpen(const ZulKestOpAttr* attr, ZulKestDH* pDH,
                                     const char* path, void* buf,
                                     int64_t length);
KEST2_EXPORT ZulKestOp zulKestDHRead(const ZulKestOpAttr* attr, ZulKestDH dh,
                                     ZulKestDirEntry* pEntry);
KEST2_EXPORT ZulKestOp zulKestDHClose(const ZulKestOpAttr* attr, ZulKestDH dh);
KEST2_EXPORT ZulKestOp zulKestDirectoryCreate(const ZulKestOpAttr* attr,
                                              const char* path);
KEST2_EXPORT ZulKestOp zulKestDirectoryCreateWithMode(const ZulKestOpAttr* attr,
                                                      const char* path,
                                                      int32_t mode);
KEST2_EXPORT ZulKestOp zulKestDirectoryDelete(const ZulKestOpAttr* attr,
                                              const char* path);
KEST2_EXPORT ZulKestOp zulKestDirectoryExists(const ZulKestOpAttr* attr,
                                              const char* path,
                                              bool* pExists);
KEST2_EXPORT ZulKestOp zulKestFileExists(const ZulKestOpAttr* attr,
                                         const char* path, bool* pExists);
KEST2_EXPORT ZulKestOp zulKestExists(const ZulKestOpAttr* attr,
                                     const char* path, bool* pExists);
KEST2_EXPORT ZulKestOp zulKestFileGetSize(const ZulKestOpAttr* attr,
                                          const char* path, int64_t* pSize);
KEST2_EXPORT ZulKestOp zulKestFileDelete(const ZulKestOpAttr* attr,
                                         const char* path);
KEST2_EXPORT ZulKestOp zulKestDelete(const ZulKestOpAttr* attr,
                                     const char* path);
KEST2_EXPORT ZulKestOp zulKestStat(const ZulKestOpAttr* attr, const char* path,
                                   ZulKestStat* pStat);
KEST2_EXPORT ZulKestOp zulKestRename(const ZulKestOpAttr* attr,
                                     const char* oldPath, const char* newPath);
KEST2_EXPORT ZulKestOp zulKestResolve(const ZulKestOpAttr* attr,
                                      const ZulKestResolveRecord* in,
                                      ZulKestResolveRecord* out);
KEST2_EXPORT ZulKestOp zulKestFileRead(const ZulKestOpAttr* attr,
                                       const char* path, void* buf,
                                       int64_t length, int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFileWrite(const ZulKestOpAttr* attr,
                                        const char* path, const void* buf,
                                        int64_t length, int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFileTruncate(const ZulKestOpAttr* attr,
                                           const char* path, int64_t length);
KEST2_EXPORT ZulKestOp zulKestCachePrefetchFile(const ZulKestOpAttr* attr,
                                                const char* path);
KEST2_EXPORT ZulKestOp zulKestCachePrefetchFileRange(const ZulKestOpAttr* attr,
                                                     const char* path,
                                                     int64_t offset,
                                                     int64_t length);
KEST2_EXPORT ZulKestOp zulKestCachePrefetchFH(const ZulKestOpAttr* attr,
                                              ZulKestFH fh);
KEST2_EXPORT ZulKestOp zulKestCachePrefetchFHRange(const ZulKestOpAttr* attr,
                                                   ZulKestFH fh,
                                                   int64_t offset,
                                                   int64_t length);
KEST2_EXPORT ZulKestOp zulKestArchiveGetMountBufferSize(
    const ZulKestOpAttr* attr, const char* archivePath,
    const ZulKestOpenParams* openParams);
KEST2_EXPORT ZulKestOp zulKestArchiveMount(const ZulKestOpAttr* attr,
                                           ZulKestFH* pFH,
                                           const char* archivePath,
                                           const char* mountPoint, void* buf,
                                           int64_t length,
                                           const ZulKestOpenParams* openParams);
KEST2_EXPORT ZulKestOp zulKestArchiveUnmount(const ZulKestOpAttr* attr,
                                             ZulKestFH fh);

/* --- Cache, overlay, filter and archive settings ------------------------- */

KEST2_EXPORT void zulKestCacheFlushSync(void);
KEST2_EXPORT void zulKestCacheFlushFileSync(const char* path);
KEST2_EXPORT void zulKestCacheFlushFileRangeSync(const char* path,
                                                 int64_t offset,
                                                 int64_t length);
KEST2_EXPORT int32_t zulKestCacheContainsFileSync(const char* path,
                                                  int64_t* pSize);
KEST2_EXPORT int32_t zulKestCacheContainsFileRangeSync(const char* path,
                                                       int64_t offset,
                                                       int64_t length);

KEST2_EXPORT int32_t zulKestOverlayAdd(const ZulKestOverlay* overlay,
                                       int32_t* pId);
KEST2_EXPORT int32_t zulKestOverlayRemove(int32_t id);
KEST2_EXPORT int32_t zulKestOverlayGetInfo(int32_t id, ZulKestOverlay* pOut);
KEST2_EXPORT int32_t zulKestOverlayModify(int32_t id,
                                          const ZulKestOverlay* overlay);
KEST2_EXPORT int32_t zulKestOverlayGetList(int32_t* ids, int32_t length,
                                           int32_t* pCount);
KEST2_EXPORT int32_t zulKestOverlayResolveSync(uint32_t forWrite,
                                               const char* path, char* out,
                                               uint64_t outSize);

KEST2_EXPORT int32_t zulKestIOFilterAdd(int32_t index,
                                        ZulKestIOFilterCallback function,
                                        void* pFilterContext);
KEST2_EXPORT int32_t zulKestIOFilterGetInfo(int32_t index,
                                            ZulKestIOFilterCallback* pFunction,
                                            void** ppFilterContext);
KEST2_EXPORT int32_t zulKestIOFilterRemove(int32_t index);

KEST2_EXPORT uint32_t zulKestArchiveSetDecompressorThreadCount(uint8_t count);
KEST2_EXPORT uint32_t zulKestArchiveGetDecompressorThreadCount(void);

/* The archive dearchiver's context (56 bytes).  It and its work buffer must
 * stay valid and untouched while the filter is installed: the dearchiver
 * keeps its own state in the reserved words. */
#define ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES 0x1u /* loose files beside and
                                                     under mount points */
typedef struct ZulKestZorbaDearchiverContext {
  uint64_t sizeOfContext;  /* sizeof(ZulKestZorbaDearchiverContext) */
  uint64_t workBufferSize; /* three equal buffers, each at least one block */
  void* pWorkBuffer;       /* 64-byte aligned */
  uint64_t flags;          /* ZUL_KEST_ZORBA_DEARCHIVER_* */
  uint64_t reserved[3];    /* 0 when the filter is added */
} ZulKestZorbaDearchiverContext;

/* A RAM cache's context (72 bytes).  It and its work buffer must stay valid
 * and untouched while the filter is installed.  The work buffer holds a
 * header of (pathMax + 80) & ~7 bytes, then N entries of 64 bytes and N
 * blocks of blockSize bytes, N = (workBufferSize - header) / (blockSize + 64).
 * Several caches may be installed; each serves the files below pPath (every
 * file when pPath is null or empty) that no deeper cache claims. */
typedef struct ZulKestRamCacheContext {
  uint64_t sizeOfContext;  /* sizeof(ZulKestRamCacheContext) */
  uint64_t workBufferSize; /* at least 0x20000 */
  uint64_t blockSize;      /* bytes per cache block, not 0 */
  void* pWorkBuffer;       /* 8-byte aligned */
  const char* pPath;       /* directory or file served; null: every path */
  uint64_t reserved0;      /* 0 */
  uint64_t reserved[3];
} ZulKestRamCacheContext;

/* The library's own filters. */
KEST2_EXPORT int32_t zulKestIOFilterZorbaDearchiver(void* pFilterContext,
                                                    int32_t event,
                                                    void* pArgument);
KEST2_EXPORT int32_t zulKestIOFilterCache(void* pFilterContext, int32_t event,
                                          void* pArgument);

/* --- Synchronous twins ---------------------------------------------------- */
/* Each issues its request, waits, deletes the operation and returns the
 * result.  Before initialisation, and on descriptor-backed handles, they call
 * the operating system directly. */

KEST2_EXPORT int32_t zulKestFHOpenSync(const ZulKestOpAttr* attr,
                                       ZulKestFH* pFH, const char* path,
                                       const ZulKestOpenParams* openParams);
KEST2_EXPORT int32_t zulKestFHOpenWithModeSync(
    const ZulKestOpAttr* attr, ZulKestFH* pFH, const char* path,
    const ZulKestOpenParams* openParams, int32_t mode);
KEST2_EXPORT int64_t zulKestFHReadSync(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       void* buf, int64_t length);
KEST2_EXPORT int64_t zulKestFHWriteSync(const ZulKestOpAttr* attr,
                                        ZulKestFH fh, const void* buf,
                                        int64_t length);
KEST2_EXPORT int64_t zulKestFHPreadSync(const ZulKestOpAttr* attr,
                                        ZulKestFH fh, void* buf,
                                        int64_t length, int64_t offset);
KEST2_EXPORT int64_t zulKestFHPwriteSync(const ZulKestOpAttr* attr,
                                         ZulKestFH fh, const void* buf,
                                         int64_t length, int64_t offset);
KEST2_EXPORT int64_t zulKestFHReadvSync(const ZulKestOpAttr* attr,
                                        ZulKestFH fh, const ZulKestBuffer* iov,
                                        int32_t count);
KEST2_EXPORT int64_t zulKestFHWritevSync(const ZulKestOpAttr* attr,
                                         ZulKestFH fh,
                                         const ZulKestBuffer* iov,
                                         int32_t count);
KEST2_EXPORT int64_t zulKestFHPreadvSync(const ZulKestOpAttr* attr,
                                         ZulKestFH fh,
                                         const ZulKestBuffer* iov,
                                         int32_t count, int64_t offset);
KEST2_EXPORT int64_t zulKestFHPwritevSync(const ZulKestOpAttr* attr,
                                          ZulKestFH fh,
                                          const ZulKestBuffer* iov,
                                          int32_t count, int64_t offset);
KEST2_EXPORT int32_t zulKestFHStatSync(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       ZulKestStat* pStat);
KEST2_EXPORT int32_t zulKestFHTruncateSync(const ZulKestOpAttr* attr,
                                           ZulKestFH fh, int64_t length);
KEST2_EXPORT int32_t zulKestFHSyncSync(const ZulKestOpAttr* attr,
                                       ZulKestFH fh);
KEST2_EXPORT int32_t zulKestFHCloseSync(const ZulKestOpAttr* attr,
                                        ZulKestFH fh);
KEST2_EXPORT int32_t zulKestDHOpenSync(const ZulKestOpAttr* attr,
                                       ZulKestDH* pDH, const char* path,
                                       void* buf, int64_t length);
KEST2_EXPORT int32_t zulKestDHReadSync(const ZulKestOpAttr* attr, ZulKestDH dh,
                                       ZulKestDirEntry* pEntry);
KEST2_EXPORT int32_t zulKestDHCloseSync(const ZulKestOpAttr* attr,
                                        ZulKestDH dh);
KEST2_EXPORT int32_t zulKestDirectoryCreateSync(const ZulKestOpAttr* attr,
                                                const char* path);
KEST2_EXPORT int32_t zulKestDirectoryCreateWithModeSync(
    const ZulKestOpAttr* attr, const char* path, int32_t mode);
KEST2_EXPORT int32_t zulKestDirectoryDeleteSync(const ZulKestOpAttr* attr,
                                                const char* path);
KEST2_EXPORT bool zulKestDirectoryExistsSync(const ZulKestOpAttr* attr,
                                             const char* path);
KEST2_EXPORT bool zulKestFileExistsSync(const ZulKestOpAttr* attr,
                                        const char* path);
KEST2_EXPORT bool zulKestExistsSync(const ZulKestOpAttr* attr,
                                    const char* path);
KEST2_EXPORT int64_t zulKestFileGetSizeSync(const ZulKestOpAttr* attr,
                                            const char* path);
KEST2_EXPORT int32_t zulKestFileDeleteSync(const ZulKestOpAttr* attr,
                                           const char* path);
KEST2_EXPORT int32_t zulKestDeleteSync(const ZulKestOpAttr* attr,
                                       const char* path);
KEST2_EXPORT int32_t zulKestStatSync(const ZulKestOpAttr* attr,
                                     const char* path, ZulKestStat* pStat);
KEST2_EXPORT int32_t zulKestRenameSync(const ZulKestOpAttr* attr,
                                       const char* oldPath,
                                       const char* newPath);
KEST2_EXPORT int32_t zulKestResolveSync(const ZulKestOpAttr* attr,
                                        const ZulKestResolveRecord* in,
                                        ZulKestResolveRecord* out);
KEST2_EXPORT int64_t zulKestFileReadSync(const ZulKestOpAttr* attr,
                                         const char* path, void* buf,
                                         int64_t length, int64_t offset);
KEST2_EXPORT int64_t zulKestFileWriteSync(const ZulKestOpAttr* attr,
                                          const char* path, const void* buf,
                                          int64_t length, int64_t offset);
KEST2_EXPORT int32_t zulKestFileTruncateSync(const ZulKestOpAttr* attr,
                                             const char* path, int64_t length);
KEST2_EXPORT int32_t zulKestCachePrefetchFileSync(const ZulKestOpAttr* attr,
                                                  const char* path);
KEST2_EXPORT int32_t zulKestCachePrefetchFileRangeSync(
    const ZulKestOpAttr* attr, const char* path, int64_t offset,
    int64_t length);
KEST2_EXPORT int32_t zulKestCachePrefetchFHSync(const ZulKestOpAttr* attr,
                                                ZulKestFH fh);
KEST2_EXPORT int32_t zulKestCachePrefetchFHRangeSync(const ZulKestOpAttr* attr,
                                                     ZulKestFH fh,
                                                     int64_t offset,
                                                     int64_t length);
KEST2_EXPORT int64_t zulKestArchiveGetMountBufferSizeSync(
    const ZulKestOpAttr* attr, const char* archivePath,
    const ZulKestOpenParams* openParams);
KEST2_EXPORT int32_t zulKestArchiveMountSync(
    const ZulKestOpAttr* attr, ZulKestFH* pFH, const char* archivePath,
    const char* mountPoint, void* buf, int64_t length,
    const ZulKestOpenParams* openParams);
KEST2_EXPORT int32_t zulKestArchiveUnmountSync(const ZulKestOpAttr* attr,
                                               ZulKestFH fh);

/* --- Handle utilities ----------------------------------------------------- */

KEST2_EXPORT bool zulKestIsValidHandle(uint32_t handle);
KEST2_EXPORT int64_t zulKestFHSeek(ZulKestFH fh, int64_t offset,
                                   ZulKestWhence whence);
KEST2_EXPORT int64_t zulKestFHTell(ZulKestFH fh);
KEST2_EXPORT int32_t zulKestFHToFileno(ZulKestFH fh);
KEST2_EXPORT ZulKestFH zulKestFilenoToFH(int32_t fd);
KEST2_EXPORT void zulKestDeallocateFileno(ZulKestFH fh);
KEST2_EXPORT const char* zulKestFHGetPath(ZulKestFH fh);
KEST2_EXPORT int64_t zulKestFHGetSize(ZulKestFH fh);
KEST2_EXPORT const ZulKestOpenParams* zulKestFHGetOpenParams(ZulKestFH fh);
KEST2_EXPORT const char* zulKestDHGetPath(ZulKestDH dh);

/* --- Diagnostics ----------------------------------------------------------- */
/* Each dump writes one line into buffer (size bytes, always NUL-terminated)
 * and returns it.  A null buffer selects one of four internal 512-byte
 * buffers used in turn, so up to four dumps fit in one printf. */

KEST2_EXPORT char* zulKestDebugDumpError(int32_t code, char* buffer,
                                         size_t size);
KEST2_EXPORT char* zulKestDebugDumpOp(ZulKestOp op, char* buffer, size_t size);
KEST2_EXPORT char* zulKestDebugDumpFH(ZulKestFH fh, char* buffer, size_t size);
KEST2_EXPORT char* zulKestDebugDumpDH(ZulKestDH dh, char* buffer, size_t size);
KEST2_EXPORT char* zulKestDebugDumpDate(ZulKestDate date, char* buffer,
                                        size_t size);

KEST2_EXPORT void zulKestStatisticsGet(ZulKestStatistics* pStatistics);
KEST2_EXPORT void zulKestStatisticsReset(void);
KEST2_EXPORT void zulKestStatisticsPrint(void);
/* tag must stay valid until the stamps are printed. */
KEST2_EXPORT void zulKestSaveTimeStamp(const char* tag, uint32_t value);
KEST2_EXPORT void zulKestClearTimeStamps(void);
KEST2_EXPORT void zulKestPrintTimeStamps(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KEST2_H_ */
