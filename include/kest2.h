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
#define ZUL_KEST_OPFLAG_FAST_PATH_ALWAYS 0x001u /* with FAST_PATH: open/close/
                                                   stat may run on the caller
                                                   even when busy */
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
/* Every function says what it does, what it returns, whether it blocks (waits
 * for I/O, for an operation or for a lock held across I/O) or returns at
 * once, and which thread runs the callback when it takes one. */

/* Library version as (major << 16) | (minor << 8) | patch.  Returns at
 * once; works before initialisation. */
KEST2_EXPORT uint32_t zulKestGetVersion(void);

/* --- Initialisation and global state ------------------------------------ */
/* None of these takes a callback. */

/* Validates and copies params, carves the storage tables out of the caller's
 * storage and starts the library's threads.
 * Returns ZUL_KEST_OK (also when already initialised: adjustable fields are
 * updated when params has the current size), ZUL_KEST_ERROR_BAD_PTR (params
 * or a storage pointer null), ZUL_KEST_ERROR_BAD_SIZE (paramsSize not 176; a
 * reserved, padding or extraFlags field not zero; reservedMode above 1; a
 * storage area too small for one unit or above 16384 units, 65536 chunks),
 * ZUL_KEST_ERROR_BAD_ALIGNMENT (storage not 8-byte aligned), or a kernel code
 * (0x80020000 + errno) when a thread cannot be started.  A failure leaves the
 * library uninitialised.  Returns once the threads have started.  Not
 * thread-safe against other calls or requests in flight. */
KEST2_EXPORT int32_t zulKestInitialize(const ZulKestParams* params);
/* Undoes zulKestInitialize.  Lifts any suspension and blocks until every
 * queued chunk has run (operations in flight complete; zulKestCancelAllOps
 * first to cut them short), then stops the threads, removes the filters and
 * overlays, closes the handles still open and reports operations never
 * deleted.  Prints a warning when not initialised.  Not thread-safe. */
KEST2_EXPORT void zulKestTerminate(void);
/* True when initialised; copies the library's parameters to out if given.
 * Returns at once. */
KEST2_EXPORT bool zulKestIsInitialized(ZulKestParams* out);
/* Updates the adjustable fields (debugFlags, maxChunk, hooks, thread
 * priorities and affinities) as given, without defaults; ignored when params
 * is null or of another size, or the library is not initialised.  Running
 * threads keep their priorities.  Returns at once. */
KEST2_EXPORT void zulKestUpdateParameters(const ZulKestParams* params);
/* Create / destroy the global locks ahead of (and across) initialisation;
 * locks created here outlive zulKestTerminate.  zulKestDataTerm destroys the
 * set whoever created it: never call it while initialised.  Both return at
 * once; neither is thread-safe. */
KEST2_EXPORT void zulKestDataInit(void);
KEST2_EXPORT void zulKestDataTerm(void);

/* Default attributes, used by requests whose attr is null: the calling
 * thread's defaults when set, else the global ones when set, else zero.  A
 * record passed to a request is used whole, never merged.  All return at
 * once. */
/* Sets the global defaults; null or an all-zero record clears them. */
KEST2_EXPORT void zulKestSetGlobalDefaultOpAttr(const ZulKestOpAttr* attr);
/* Copies the global defaults to out; false (out zeroed) when none are set or
 * out is null. */
KEST2_EXPORT bool zulKestGetGlobalDefaultOpAttr(ZulKestOpAttr* out);
/* Sets the calling thread's defaults; null clears them, an all-zero record
 * sets zero defaults that win over the global ones. */
KEST2_EXPORT void zulKestSetThreadDefaultOpAttr(const ZulKestOpAttr* attr);
/* Copies the calling thread's defaults to out (zero when never set); true
 * when they are set, false also when out is null. */
KEST2_EXPORT bool zulKestGetThreadDefaultOpAttr(ZulKestOpAttr* out);
/* The effective defaults of the calling thread into out (ignored if null). */
KEST2_EXPORT void zulKestGetDefaultOpAttr(ZulKestOpAttr* out);

/* Suspension nests: while the count is above 0 no scheduler thread takes a
 * new chunk and nothing runs on the fast path; requests still queue.  The
 * resume that brings it to 0 sets the threads going; a resume without a
 * suspend leaves it at 0.  All four return at once. */
KEST2_EXPORT void zulKestSuspend(void);
KEST2_EXPORT void zulKestResume(void);
KEST2_EXPORT uint32_t zulKestGetSuspendCount(void);
KEST2_EXPORT bool zulKestIsSuspended(void);
/* zulKestCancelAllOps, then zulKestTerminate: blocks as zulKestTerminate. */
KEST2_EXPORT void zulKestShutdownAndCancelOps(void);
/* Cancels every live operation except closes (zulKestOpCancel each).
 * Returns without waiting for them to complete. */
KEST2_EXPORT void zulKestCancelAllOps(void);
/* Closes every live file handle with zulKestFHCloseSync and default
 * attributes (a mounted archive's handle is unmounted).  Descriptor-backed
 * handles are left alone.  Blocks until every close is done. */
KEST2_EXPORT void zulKestCloseAllFiles(void);
/* True when every scheduler queue is empty (and before initialisation).
 * Returns at once. */
KEST2_EXPORT bool zulKestIsIdle(void);

/* Fill handles (may be null) with up to length live handles in slot order,
 * zero the rest; return the number of live objects (may exceed length).  A
 * null array or negative length only counts.  Return at once. */
KEST2_EXPORT int32_t zulKestGetAllOps(ZulKestOp* handles, int32_t length);
KEST2_EXPORT int32_t zulKestGetAllFHs(ZulKestFH* handles, int32_t length);
KEST2_EXPORT int32_t zulKestGetAllDHs(ZulKestDH* handles, int32_t length);

/* All library text goes through these; pVprintf receives it when set, else
 * standard output (flushed).  They return what the hook or vprintf returns
 * and block only as long as the output does.  They work before
 * initialisation. */
KEST2_EXPORT int32_t zulKestPrintf(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
KEST2_EXPORT int zulKestVprintf(const char* format, va_list args);

/* Byte-wise comparison (signed bytes), like strcmp / strncmp; no
 * normalisation.  Return at once. */
KEST2_EXPORT int32_t zulKestPathcmp(const char* a, const char* b);
KEST2_EXPORT int32_t zulKestPathncmp(const char* a, const char* b,
                                     size_t length);
/* Normalises src into dst (size bytes): separators unified to '/', "." and
 * ".." resolved, repeated separators collapsed.  Returns the length, or
 * size + 1 on failure (null dst, null/empty source, or no room).  Returns at
 * once. */
KEST2_EXPORT uint64_t zulKestPathNormalize(char* dst, const char* src,
                                           uint64_t size);

/* --- Time and dates ----------------------------------------------------- */
/* All return at once and work before initialisation. */

/* Now on the monotonic clock, in nanoseconds: the base of every deadline. */
KEST2_EXPORT ZulKestTime zulKestTimeGetCurrent(void);
/* Conversions between ZulKestTime and nanoseconds (the same number). */
KEST2_EXPORT int64_t zulKestTimeToNanoseconds(ZulKestTime time);
KEST2_EXPORT ZulKestTime zulKestTimeFromNanoseconds(int64_t nanoseconds);
/* Writes "seconds.microseconds" of the current time; returns 0. */
KEST2_EXPORT int32_t zulKestTraceTimestamp(char* buffer, size_t size);
/* Now on the wall clock (microsecond resolution), as a ZulKestDate. */
KEST2_EXPORT ZulKestDate zulKestDateGetCurrent(void);
/* UTC calendar fields of date's whole seconds; a null tm is returned
 * unchanged. */
KEST2_EXPORT struct tm* zulKestDateToComponents(ZulKestDate date,
                                                struct tm* tm);
/* The date of UTC calendar fields (fields out of range carry over, as
 * timegm does); 0 for null or fields that cannot be converted.  Dates before
 * 1970 have no ZulKestDate. */
KEST2_EXPORT ZulKestDate zulKestDateFromComponents(const struct tm* tm);

/* --- Operations --------------------------------------------------------- */
/* "Finished" means completed, or that the caller is the operation's own
 * completion callback: waiting or deleting there returns at once.  Every
 * waiter is woken by the completion.  Deleting (zulKestOpDelete and the two
 * sync waits) runs the DELETE event of the operation's callback on the
 * deleting thread. */

/* Waits for op; returns its result: ZUL_KEST_OK or the operation's error
 * code, ZUL_KEST_ERROR_BAD_OP when op is not live (or deleted meanwhile).
 * Blocks until op has finished. */
KEST2_EXPORT int32_t zulKestOpWait(ZulKestOp op);
/* As zulKestOpWait, but gives up at deadline (monotonic clock) with
 * ZUL_KEST_ERROR_TIMEOUT; a past deadline only polls.  Blocks until op has
 * finished or the deadline has passed. */
KEST2_EXPORT int32_t zulKestOpWaitUntil(ZulKestOp op, ZulKestTime deadline);
/* Waits for op, deletes it and returns its result; ZUL_KEST_ERROR_BAD_OP
 * when op is not live, ZUL_KEST_ERROR_CANT_ALLOCATE_OP when op is 0 (so the
 * result of a request can be passed straight in).  Blocks until op has
 * finished. */
KEST2_EXPORT int32_t zulKestOpSyncWait(ZulKestOp op);
/* As zulKestOpSyncWait for transfers: the actual count when the result is
 * ZUL_KEST_OK or ZUL_KEST_ERROR_EOF, else the code (ZUL_KEST_ERROR_BAD_OP for
 * op 0 or not live).  Blocks until op has finished. */
KEST2_EXPORT int64_t zulKestOpSyncWaitForIO(ZulKestOp op);
/* Deletes op, waiting for it first when it has not finished; prints a
 * message when op is not live.  The handle is gone afterwards.  Blocks until
 * op has finished and no other thread waits on it. */
KEST2_EXPORT void zulKestOpDelete(ZulKestOp op);
/* Cancels op if it is live and not finished and its completion has not
 * started: it then completes with ZUL_KEST_ERROR_CANCELLED (work already done
 * stays done; a cancelled open releases its handle).  Too late does nothing.
 * Returns without waiting for the completion, whose callback runs on
 * "ZulKestCallback". */
KEST2_EXPORT void zulKestOpCancel(ZulKestOp op);
/* True when zulKestOpCancel marked op; false when op is not live.  Returns
 * at once. */
KEST2_EXPORT bool zulKestOpIsCancelled(ZulKestOp op);
/* True when op has finished or is not live.  Returns at once. */
KEST2_EXPORT bool zulKestOpIsDone(ZulKestOp op);
/* ZUL_KEST_IN_PROGRESS until op has finished, then its result;
 * ZUL_KEST_ERROR_BAD_OP when op is not live.  Returns at once. */
KEST2_EXPORT int32_t zulKestOpGetError(ZulKestOp op);
/* Accessors; null or 0 when op is not live, and valid until op is deleted.
 * All return at once.  The attributes as given (deadline and priority as at
 * creation), the stored path (normalised and resolved through the overlays;
 * empty for handle requests), the eight buffer entries, the file offset. */
KEST2_EXPORT const ZulKestOpAttr* zulKestOpGetAttr(ZulKestOp op);
KEST2_EXPORT const char* zulKestOpGetPath(ZulKestOp op);
KEST2_EXPORT const ZulKestBuffer* zulKestOpGetBuffer(ZulKestOp op);
KEST2_EXPORT int64_t zulKestOpGetOffset(ZulKestOp op);
/* The sum of the buffer lengths. */
KEST2_EXPORT int64_t zulKestOpGetRequestCount(ZulKestOp op);
/* What was transferred (bytes read or written); for a listing open that
 * failed with ZUL_KEST_ERROR_BAD_SIZE, the buffer length it needs; for an
 * archive mount or query, the mount buffer size. */
KEST2_EXPORT int64_t zulKestOpGetActualCount(ZulKestOp op);
/* Moves op's queued chunks to a new deadline and priority (zulKestOpReschedule
 * keeps op's priority).  Nothing happens when op is not live, has finished
 * or has not been scheduled yet, or when deadline equals the deadline op was
 * created with (even with a new priority).  Returns without waiting for
 * I/O. */
KEST2_EXPORT void zulKestOpReschedule(ZulKestOp op, ZulKestTime deadline);
KEST2_EXPORT void zulKestOpRescheduleWithPriority(ZulKestOp op,
                                                  ZulKestTime deadline,
                                                  int8_t priority);

/* --- Asynchronous requests ---------------------------------------------- */
/* Each returns the new operation (argument errors complete it at once), or
 * 0 when no operation could be allocated.  The result comes from a wait,
 * zulKestOpGetError or the callback; the caller deletes the operation.
 * Blocking: none waits for its I/O.  Accepting a request may still do some
 * work on the calling thread: overlay resolution stats candidate files, a
 * filter may answer the request at once, ZUL_KEST_OPFLAG_FAST_PATH lets
 * single steps run here, and a full scheduler queue makes it wait for room.
 * Callback: the COMPLETE event runs on the library's callback thread
 * "ZulKestCallback", except when the operation completes at once (argument
 * error, nothing to do, answered by a filter, or run on the fast path): then
 * it runs on the calling thread before the request returns.  The DELETE
 * event runs on the thread that deletes the operation.
 * Results: the codes listed for each, and for any request
 * ZUL_KEST_ERROR_BAD_FLAGS (opflags above ZUL_KEST_OPFLAGS_VALID_MASK),
 * ZUL_KEST_ERROR_CANT_ALLOCATE_CHUNK (chunk storage full) or
 * ZUL_KEST_ERROR_CANCELLED.  A path request also gives
 * ZUL_KEST_ERROR_BAD_PATH (null or empty path), ZUL_KEST_ERROR_PATH_TOO_LONG
 * (longer than pathMax) and the codes of zulKestOverlayResolveSync.
 * Operating-system failures arrive as library codes: ZUL_KEST_ERROR_ +
 * BAD_PATH (no such file), ACCESS (not permitted, directory not empty),
 * EXISTS, NOT_A_FILE, NOT_A_DIRECTORY, READ_ONLY (read-only file system),
 * BAD_SIZE (no space, too large), BUSY, CANT_ALLOCATE_FH (out of
 * descriptors) or MEDIA_GONE (the device failed). */

/* Opens path as a new file handle, written to *pFH at once (0 when none
 * could be given) and usable once the operation succeeds; a failed open
 * releases it.
 * mode applies with ZUL_KEST_O_CREAT (zulKestFHOpen: -1, giving 0777).
 * Results: ZUL_KEST_ERROR_BAD_PTR (pFH null), ZUL_KEST_ERROR_BAD_FLAGS
 * (openFlags in ZUL_KEST_O_RESERVED_MASK), ZUL_KEST_ERROR_CANT_ALLOCATE_FH
 * (file-handle table full), ZUL_KEST_ERROR_NOT_A_FILE (a directory),
 * ZUL_KEST_ERROR_READ_ONLY (write access to an archived file). */
KEST2_EXPORT ZulKestOp zulKestFHOpen(const ZulKestOpAttr* attr, ZulKestFH* pFH,
                                     const char* path,
                                     const ZulKestOpenParams* openParams);
KEST2_EXPORT ZulKestOp zulKestFHOpenWithMode(
    const ZulKestOpAttr* attr, ZulKestFH* pFH, const char* path,
    const ZulKestOpenParams* openParams, int32_t mode);
/* Reads or writes length bytes at the handle's position, taken when the
 * request is made; completion moves the position past the bytes moved (to
 * the file size at end of file; to unknown, -1, after any other failure:
 * seek before the next such request).  Results: ZUL_KEST_ERROR_BAD_SIZE
 * (length < 0), ZUL_KEST_ERROR_BAD_FH, ZUL_KEST_ERROR_BAD_OFFSET (position
 * negative or unknown), ZUL_KEST_ERROR_BAD_PTR (buf null, length not 0),
 * ZUL_KEST_ERROR_WRITE_ONLY (read without ZUL_KEST_O_READ),
 * ZUL_KEST_ERROR_READ_ONLY (write without ZUL_KEST_O_WRITE),
 * ZUL_KEST_ERROR_EOF (a read starting at or past the end; one cut short by
 * the end succeeds with fewer bytes), ZUL_KEST_ERROR_BAD_ARCHIVE or
 * ZUL_KEST_ERROR_DECOMPRESSION (damaged archive data).  Length 0 completes at
 * once with success. */
KEST2_EXPORT ZulKestOp zulKestFHRead(const ZulKestOpAttr* attr, ZulKestFH fh,
                                     void* buf, int64_t length);
KEST2_EXPORT ZulKestOp zulKestFHWrite(const ZulKestOpAttr* attr, ZulKestFH fh,
                                      const void* buf, int64_t length);
/* As zulKestFHRead / zulKestFHWrite at offset; the position does not move
 * (a write may raise the known size).  ZUL_KEST_ERROR_BAD_OFFSET: offset < 0,
 * or a write offset the system refuses. */
KEST2_EXPORT ZulKestOp zulKestFHPread(const ZulKestOpAttr* attr, ZulKestFH fh,
                                      void* buf, int64_t length,
                                      int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFHPwrite(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       const void* buf, int64_t length,
                                       int64_t offset);
/* As zulKestFHRead / zulKestFHWrite with count (1 to ZUL_KEST_MAX_BUFFERS)
 * buffers filled or written in order.  ZUL_KEST_ERROR_BAD_IOVCNT (count out
 * of range), ZUL_KEST_ERROR_BAD_PTR (iov null, or a buffer with pPtr null). */
KEST2_EXPORT ZulKestOp zulKestFHReadv(const ZulKestOpAttr* attr, ZulKestFH fh,
                                      const ZulKestBuffer* iov, int32_t count);
KEST2_EXPORT ZulKestOp zulKestFHWritev(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       const ZulKestBuffer* iov,
                                       int32_t count);
/* As zulKestFHPread / zulKestFHPwrite with buffers, as zulKestFHReadv. */
KEST2_EXPORT ZulKestOp zulKestFHPreadv(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       const ZulKestBuffer* iov, int32_t count,
                                       int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFHPwritev(const ZulKestOpAttr* attr,
                                        ZulKestFH fh, const ZulKestBuffer* iov,
                                        int32_t count, int64_t offset);
/* Fills *pStat with the open file's status.  Results: ZUL_KEST_ERROR_BAD_PTR
 * (pStat null), ZUL_KEST_ERROR_BAD_FH. */
KEST2_EXPORT ZulKestOp zulKestFHStat(const ZulKestOpAttr* attr, ZulKestFH fh,
                                     ZulKestStat* pStat);
/* Sets the open file's length.  Results: ZUL_KEST_ERROR_BAD_FH,
 * ZUL_KEST_ERROR_BAD_SIZE (length < 0), ZUL_KEST_ERROR_READ_ONLY (an
 * archived file). */
KEST2_EXPORT ZulKestOp zulKestFHTruncate(const ZulKestOpAttr* attr,
                                         ZulKestFH fh, int64_t length);
/* Flushes the open file to its device.  Results: ZUL_KEST_ERROR_BAD_FH. */
KEST2_EXPORT ZulKestOp zulKestFHSync(const ZulKestOpAttr* attr, ZulKestFH fh);
/* Closes fh; the handle is released whatever the system answers.  Closing
 * a mounted archive's handle unmounts it.  Results: ZUL_KEST_ERROR_BAD_FH. */
KEST2_EXPORT ZulKestOp zulKestFHClose(const ZulKestOpAttr* attr, ZulKestFH fh);
/* Opens a listing of the directory path (merged with overlays and mounted
 * archives) as a new directory handle, written to *pDH at once and usable
 * once the operation succeeds; a failed open releases it.  The listing lives
 * in buf (8-byte aligned, 0x10008 bytes of state, then the entries), which
 * must stay valid until the close.  Results: ZUL_KEST_ERROR_BAD_PTR (pDH
 * null, or buf null with length not 0), ZUL_KEST_ERROR_CANT_ALLOCATE_DH,
 * ZUL_KEST_ERROR_BAD_SIZE (buf too small: zulKestOpGetActualCount gives the
 * length needed; buf null and length 0 only ask for it),
 * ZUL_KEST_ERROR_BAD_ALIGNMENT, ZUL_KEST_ERROR_NOT_A_DIRECTORY. */
KEST2_EXPORT ZulKestOp zulKestDHOpen(const ZulKestOpAttr* attr, ZulKestDH* pDH,
                                     const char* path, void* buf,
                                     int64_t length);
/* Fills *pEntry with the next entry.  Results: ZUL_KEST_ERROR_BAD_DH,
 * ZUL_KEST_ERROR_BAD_PTR (pEntry null), ZUL_KEST_ERROR_EOF (no more
 * entries), ZUL_KEST_ERROR_PATH_TOO_LONG (the entry's full path does not fit
 * fullPath). */
KEST2_EXPORT ZulKestOp zulKestDHRead(const ZulKestOpAttr* attr, ZulKestDH dh,
                                     ZulKestDirEntry* pEntry);
/* Closes the listing; the handle is released whatever happens.  Results:
 * ZUL_KEST_ERROR_BAD_DH. */
KEST2_EXPORT ZulKestOp zulKestDHClose(const ZulKestOpAttr* attr, ZulKestDH dh);
/* Creates the directory path with mode (zulKestDirectoryCreate: -1, giving
 * 0777).  Results: ZUL_KEST_ERROR_EXISTS, ZUL_KEST_ERROR_BAD_PATH (no
 * parent), ZUL_KEST_ERROR_READ_ONLY or ZUL_KEST_ERROR_BAD_PATH (inside a
 * mounted archive). */
KEST2_EXPORT ZulKestOp zulKestDirectoryCreate(const ZulKestOpAttr* attr,
                                              const char* path);
KEST2_EXPORT ZulKestOp zulKestDirectoryCreateWithMode(const ZulKestOpAttr* attr,
                                                      const char* path,
                                                      int32_t mode);
/* Removes the empty directory path.  Results: ZUL_KEST_ERROR_ACCESS (not
 * empty), ZUL_KEST_ERROR_NOT_A_DIRECTORY, ZUL_KEST_ERROR_READ_ONLY (inside a
 * mounted archive). */
KEST2_EXPORT ZulKestOp zulKestDirectoryDelete(const ZulKestOpAttr* attr,
                                              const char* path);
/* Write to *pExists whether path is a directory (zulKestDirectoryExists), a
 * regular file (zulKestFileExists) or anything (zulKestExists).  "No" is an
 * answer, also when the path cannot be looked at: the result is ZUL_KEST_OK
 * whenever the answer is written.  Results: ZUL_KEST_ERROR_BAD_PTR (pExists
 * null). */
KEST2_EXPORT ZulKestOp zulKestDirectoryExists(const ZulKestOpAttr* attr,
                                              const char* path,
                                              bool* pExists);
KEST2_EXPORT ZulKestOp zulKestFileExists(const ZulKestOpAttr* attr,
                                         const char* path, bool* pExists);
KEST2_EXPORT ZulKestOp zulKestExists(const ZulKestOpAttr* attr,
                                     const char* path, bool* pExists);
/* Writes path's size to *pSize.  Results: ZUL_KEST_ERROR_BAD_PTR (pSize
 * null), ZUL_KEST_ERROR_NOT_A_FILE (a directory). */
KEST2_EXPORT ZulKestOp zulKestFileGetSize(const ZulKestOpAttr* attr,
                                          const char* path, int64_t* pSize);
/* Removes the file path (zulKestDelete: the file or empty directory).
 * Results: ZUL_KEST_ERROR_NOT_A_FILE (zulKestFileDelete on a directory),
 * ZUL_KEST_ERROR_ACCESS (directory not empty), ZUL_KEST_ERROR_READ_ONLY
 * (inside a mounted archive). */
KEST2_EXPORT ZulKestOp zulKestFileDelete(const ZulKestOpAttr* attr,
                                         const char* path);
KEST2_EXPORT ZulKestOp zulKestDelete(const ZulKestOpAttr* attr,
                                     const char* path);
/* Fills *pStat with path's status.  Results: ZUL_KEST_ERROR_BAD_PTR (pStat
 * null). */
KEST2_EXPORT ZulKestOp zulKestStat(const ZulKestOpAttr* attr, const char* path,
                                   ZulKestStat* pStat);
/* Renames oldPath to newPath (newPath is resolved for writing).  Equal
 * strings complete at once with success.  Results: ZUL_KEST_ERROR_BAD_PATH
 * (either null or empty), ZUL_KEST_ERROR_ACCESS (across file systems),
 * ZUL_KEST_ERROR_READ_ONLY (inside a mounted archive). */
KEST2_EXPORT ZulKestOp zulKestRename(const ZulKestOpAttr* attr,
                                     const char* oldPath, const char* newPath);
/* Copies *in to *out, then lets the filters answer for in->path: natively,
 * out->path becomes the path normalised and resolved through the overlays.
 * Results: ZUL_KEST_ERROR_BAD_PTR (in or out null),
 * ZUL_KEST_ERROR_UNIMPLEMENTED (while the dearchiver is installed). */
KEST2_EXPORT ZulKestOp zulKestResolve(const ZulKestOpAttr* attr,
                                      const ZulKestResolveRecord* in,
                                      ZulKestResolveRecord* out);
/* Reads or writes length bytes of the file path at offset through a private
 * handle (a write creates the file, mode 0777).  Results:
 * ZUL_KEST_ERROR_BAD_SIZE (length < 0), ZUL_KEST_ERROR_BAD_OFFSET
 * (offset < 0), ZUL_KEST_ERROR_BAD_PTR (buf null),
 * ZUL_KEST_ERROR_CANT_ALLOCATE_FH, ZUL_KEST_ERROR_EOF (a read at or past the
 * end), ZUL_KEST_ERROR_READ_ONLY (a write to an archived file). */
KEST2_EXPORT ZulKestOp zulKestFileRead(const ZulKestOpAttr* attr,
                                       const char* path, void* buf,
                                       int64_t length, int64_t offset);
KEST2_EXPORT ZulKestOp zulKestFileWrite(const ZulKestOpAttr* attr,
                                        const char* path, const void* buf,
                                        int64_t length, int64_t offset);
/* Sets the length of the file path.  Results: ZUL_KEST_ERROR_BAD_SIZE
 * (length < 0), ZUL_KEST_ERROR_NOT_A_FILE, ZUL_KEST_ERROR_READ_ONLY (inside a
 * mounted archive). */
KEST2_EXPORT ZulKestOp zulKestFileTruncate(const ZulKestOpAttr* attr,
                                           const char* path, int64_t length);
/* Loads the file path (or offset..offset + length of it) into the RAM cache
 * that serves it.  Results: ZUL_KEST_ERROR_CANT_ALLOCATE_FH,
 * ZUL_KEST_ERROR_UNIMPLEMENTED (no installed cache serves the file). */
KEST2_EXPORT ZulKestOp zulKestCachePrefetchFile(const ZulKestOpAttr* attr,
                                                const char* path);
KEST2_EXPORT ZulKestOp zulKestCachePrefetchFileRange(const ZulKestOpAttr* attr,
                                                     const char* path,
                                                     int64_t offset,
                                                     int64_t length);
/* As zulKestCachePrefetchFile for an open file.  Results:
 * ZUL_KEST_ERROR_BAD_FH (zulKestCachePrefetchFH; the range form does not
 * check fh and ends with ZUL_KEST_ERROR_UNIMPLEMENTED instead),
 * ZUL_KEST_ERROR_UNIMPLEMENTED. */
KEST2_EXPORT ZulKestOp zulKestCachePrefetchFH(const ZulKestOpAttr* attr,
                                              ZulKestFH fh);
KEST2_EXPORT ZulKestOp zulKestCachePrefetchFHRange(const ZulKestOpAttr* attr,
                                                   ZulKestFH fh,
                                                   int64_t offset,
                                                   int64_t length);
/* Reads the archive's header and table of contents and reports the mount
 * buffer it needs through zulKestOpGetActualCount; the archive is closed
 * again.  openParams: as for an open, read-only.  Results:
 * ZUL_KEST_ERROR_READ_ONLY (ZUL_KEST_O_WRITE asked),
 * ZUL_KEST_ERROR_CANT_ALLOCATE_FH, ZUL_KEST_ERROR_BAD_ARCHIVE (not an
 * archive, or damaged), ZUL_KEST_ERROR_EOF (file too short),
 * ZUL_KEST_ERROR_BAD_SIZE (a third of the dearchiver's work buffer is
 * smaller than the archive's block size), ZUL_KEST_ERROR_UNIMPLEMENTED (no
 * dearchiver installed). */
KEST2_EXPORT ZulKestOp zulKestArchiveGetMountBufferSize(
    const ZulKestOpAttr* attr, const char* archivePath,
    const ZulKestOpenParams* openParams);
/* Mounts the archive at mountPoint: paths below it then name the archived
 * files.  *pFH receives the archive's file handle at once; buf (length bytes)
 * holds the mount's tables and must stay valid until the unmount.  Results:
 * ZUL_KEST_ERROR_BAD_PTR (pFH or mountPoint null, or buf null with length
 * not 0), ZUL_KEST_ERROR_BAD_SIZE (buf smaller than the size
 * zulKestArchiveGetMountBufferSize reports, which zulKestOpGetActualCount
 * then gives), and the codes of zulKestArchiveGetMountBufferSize. */
KEST2_EXPORT ZulKestOp zulKestArchiveMount(const ZulKestOpAttr* attr,
                                           ZulKestFH* pFH,
                                           const char* archivePath,
                                           const char* mountPoint, void* buf,
                                           int64_t length,
                                           const ZulKestOpenParams* openParams);
/* Unmounts the archive mounted with file handle fh and closes fh.  Results:
 * ZUL_KEST_ERROR_BAD_FH (not live, or not a mounted archive's handle),
 * ZUL_KEST_ERROR_UNIMPLEMENTED (no dearchiver installed). */
KEST2_EXPORT ZulKestOp zulKestArchiveUnmount(const ZulKestOpAttr* attr,
                                             ZulKestFH fh);

/* --- Cache, overlay, filter and archive settings ------------------------- */
/* These create no operation and run on the calling thread; the filter
 * functions that zulKestIOFilterAdd takes are called as described there. */

/* Does nothing: caches are flushed by file or range. */
KEST2_EXPORT void zulKestCacheFlushSync(void);
/* Drops the blocks of path (the whole file, or offset..offset + length)
 * from the RAM cache that serves it.  Returns once they are dropped. */
KEST2_EXPORT void zulKestCacheFlushFileSync(const char* path);
KEST2_EXPORT void zulKestCacheFlushFileRangeSync(const char* path,
                                                 int64_t offset,
                                                 int64_t length);
/* Asks the installed filters whether one holds the whole file (its size
 * written to *pSize when it does, else 0).  Returns the index (0 or more) of
 * the filter that holds it, ZUL_KEST_ERROR_BAD_INDEX when none does, or the
 * size query's code.  Blocks for the size query (zulKestFileGetSizeSync). */
KEST2_EXPORT int32_t zulKestCacheContainsFileSync(const char* path,
                                                  int64_t* pSize);
/* As zulKestCacheContainsFileSync for offset..offset + length; returns at
 * once. */
KEST2_EXPORT int32_t zulKestCacheContainsFileRangeSync(const char* path,
                                                       int64_t offset,
                                                       int64_t length);

/* Overlays of this process, in order (0..127, lower first); requests accepted
 * after a change see it.  Add, remove and modify wait for resolutions in
 * progress; otherwise all return at once. */
/* Adds overlay and writes its id to *pId.  Results: ZUL_KEST_ERROR_BAD_PTR
 * (overlay or pId null), ZUL_KEST_ERROR_BAD_OVERLAY (type above 3, order
 * negative), ZUL_KEST_ERROR_PATH_TOO_LONG (dst or src not terminated),
 * ZUL_KEST_ERROR_BAD_PATH (a path does not normalise),
 * ZUL_KEST_ERROR_TOO_MANY_OVERLAYS (64 installed). */
KEST2_EXPORT int32_t zulKestOverlayAdd(const ZulKestOverlay* overlay,
                                       int32_t* pId);
/* Removes overlay id.  Results: ZUL_KEST_ERROR_BAD_OVERLAY (no such id). */
KEST2_EXPORT int32_t zulKestOverlayRemove(int32_t id);
/* Zeroes *pOut and copies overlay id into it, id included.  Results:
 * ZUL_KEST_ERROR_BAD_PTR (pOut null), ZUL_KEST_ERROR_BAD_OVERLAY. */
KEST2_EXPORT int32_t zulKestOverlayGetInfo(int32_t id, ZulKestOverlay* pOut);
/* Replaces overlay id by *overlay (a new order moves it).  Results as
 * zulKestOverlayAdd, and ZUL_KEST_ERROR_BAD_OVERLAY for an unknown id. */
KEST2_EXPORT int32_t zulKestOverlayModify(int32_t id,
                                          const ZulKestOverlay* overlay);
/* Writes up to length ids (the rest of ids zeroed) and the total to *pCount
 * (may be null).  Results: ZUL_KEST_ERROR_BAD_PTR (ids null, length not 0). */
KEST2_EXPORT int32_t zulKestOverlayGetList(int32_t* ids, int32_t length,
                                           int32_t* pCount);
/* Resolves path through the overlays (forWrite 0 or 1) into out (outSize up
 * to 1024 bytes); a failure leaves out as far as it got.  Results:
 * ZUL_KEST_ERROR_BAD_PTR (path or out null), ZUL_KEST_ERROR_BAD_SIZE (outSize
 * above 1024), ZUL_KEST_ERROR_PATH_TOO_LONG (path or result does not fit),
 * ZUL_KEST_ERROR_BAD_ARGUMENT (forWrite above 1), ZUL_KEST_ERROR_BAD_PATH.
 * Blocks while it stats the candidates of translucent and newer overlays. */
KEST2_EXPORT int32_t zulKestOverlayResolveSync(uint32_t forWrite,
                                               const char* path, char* out,
                                               uint64_t outSize);

/* Filters, slots 0 to 255: a lower index sees each request first.  A filter
 * function runs on the thread that accepts a request (to see its chunk
 * tree), that asks a cache query, or that adds or removes the filter, and on
 * the library's threads ("ZulKestCallback" runs its own chunks): it must be
 * re-entrant. */
/* Sends function ZUL_KEST_IOFILTER_EVENT_INITIALIZE on the calling thread
 * and, when it accepts, installs it at index.  Results:
 * ZUL_KEST_ERROR_BAD_PTR (function null), ZUL_KEST_ERROR_BAD_INDEX (out of
 * range or taken), or the filter's answer when it is neither ZUL_KEST_OK nor
 * ZUL_KEST_ERROR_EVENT_NOT_HANDLED.  Returns once installed. */
KEST2_EXPORT int32_t zulKestIOFilterAdd(int32_t index,
                                        ZulKestIOFilterCallback function,
                                        void* pFilterContext);
/* The function and context at index (either out pointer may be null).
 * Results: ZUL_KEST_ERROR_BAD_INDEX (out of range or empty).  Returns at
 * once. */
KEST2_EXPORT int32_t zulKestIOFilterGetInfo(int32_t index,
                                            ZulKestIOFilterCallback* pFunction,
                                            void** ppFilterContext);
/* Clears slot index, then sends ZUL_KEST_IOFILTER_EVENT_TERMINATE on the
 * calling thread (an error answer is printed as a warning).  Results:
 * ZUL_KEST_ERROR_BAD_INDEX (out of range or empty).  Waits for filter walks
 * in progress. */
KEST2_EXPORT int32_t zulKestIOFilterRemove(int32_t index);

/* How many decompressor threads take archive work: 0 becomes 1, above the
 * decompressorThreadCount of initialisation that count.  Returns the count
 * applied (0 before initialisation), at once. */
KEST2_EXPORT uint32_t zulKestArchiveSetDecompressorThreadCount(uint8_t count);
/* The count in use; 0 before initialisation.  Returns at once. */
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

/* The library's own filters: pass one with its context to zulKestIOFilterAdd
 * (put the cache before the dearchiver to cache inflated bytes).  Their
 * ZUL_KEST_IOFILTER_EVENT_INITIALIZE answers: ZUL_KEST_ERROR_BAD_PTR (context
 * or work buffer null), ZUL_KEST_ERROR_BAD_SIZE (sizeOfContext, a work buffer
 * too small, a blockSize of 0, or dearchiver reserved words not 0),
 * ZUL_KEST_ERROR_BAD_ALIGNMENT (work buffer), and for the dearchiver
 * ZUL_KEST_ERROR_BAD_FLAGS (unknown flags) or ZUL_KEST_ERROR_DECOMPRESSION
 * (its decompressor could not start); for the cache the codes of resolving
 * pPath.  A filter that finds its context damaged later prints an error,
 * answers ZUL_KEST_ERROR_BAD_PTR and disables itself.  Only the library calls
 * them, on the threads named for filters above. */
KEST2_EXPORT int32_t zulKestIOFilterZorbaDearchiver(void* pFilterContext,
                                                    int32_t event,
                                                    void* pArgument);
KEST2_EXPORT int32_t zulKestIOFilterCache(void* pFilterContext, int32_t event,
                                          void* pArgument);

/* --- Synchronous twins ---------------------------------------------------- */
/* Each issues its request, waits, deletes the operation and returns the
 * result.  Before initialisation, and on descriptor-backed handles, they call
 * the operating system directly.
 * Blocking: each blocks the calling thread until its work is done.
 * Callback: the request runs with a copy of the attributes (attr, or the
 * defaults) with ZUL_KEST_OPFLAG_SYNC and ZUL_KEST_OPFLAG_FAST_PATH added
 * (the archive query and mount clear FAST_PATH), so a callback in attr sees
 * COMPLETE on the calling thread or on "ZulKestCallback" (always the latter
 * for the archive query and mount), and DELETE on the calling thread.  The
 * direct path runs no callback.
 * Results: those of the asynchronous request, and
 * ZUL_KEST_ERROR_CANT_ALLOCATE_OP when the operation table is full
 * (ZUL_KEST_ERROR_BAD_OP from the transfers and
 * zulKestArchiveGetMountBufferSizeSync).  Counts are returned as int64_t:
 * the count, or a negative code; end of file counts as success with the
 * bytes transferred.  On the direct path, failures of the operating system
 * arrive as the codes listed for the requests.  Descriptor-backed handles
 * work with these twins and the handle utilities only: the asynchronous
 * requests refuse them with ZUL_KEST_ERROR_BAD_FH. */

/* As zulKestFHOpen / zulKestFHOpenWithMode, but waits.  Direct: opens with
 * openFlags (read when openParams is null; reserved bits are not checked) and
 * gives a descriptor-backed handle; ZUL_KEST_ERROR_BAD_PTR (pFH null),
 * ZUL_KEST_ERROR_CANT_ALLOCATE_FH (all 256 descriptor slots taken). */
KEST2_EXPORT int32_t zulKestFHOpenSync(const ZulKestOpAttr* attr,
                                       ZulKestFH* pFH, const char* path,
                                       const ZulKestOpenParams* openParams);
KEST2_EXPORT int32_t zulKestFHOpenWithModeSync(
    const ZulKestOpAttr* attr, ZulKestFH* pFH, const char* path,
    const ZulKestOpenParams* openParams, int32_t mode);
/* As zulKestFHRead / zulKestFHWrite / zulKestFHPread / zulKestFHPwrite, but
 * wait: the count, or a negative code.  A negative length gives
 * ZUL_KEST_ERROR_BAD_SIZE before anything else.  Direct: at the descriptor's
 * own position (or offset); ZUL_KEST_ERROR_BAD_PTR (buf null). */
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
/* As zulKestFHReadv / zulKestFHWritev / zulKestFHPreadv / zulKestFHPwritev,
 * but wait: the count, or a negative code.  iov null gives
 * ZUL_KEST_ERROR_BAD_PTR before anything else.  Direct: the buffers in order
 * up to the first with pPtr null (count is not checked); a failure returns
 * its code even after earlier buffers moved. */
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
/* As zulKestFHStat, but waits.  Direct: the descriptor's status;
 * ZUL_KEST_ERROR_BAD_PTR (pStat null). */
KEST2_EXPORT int32_t zulKestFHStatSync(const ZulKestOpAttr* attr, ZulKestFH fh,
                                       ZulKestStat* pStat);
/* As zulKestFHTruncate, but waits.  Direct: ZUL_KEST_ERROR_UNIMPLEMENTED. */
KEST2_EXPORT int32_t zulKestFHTruncateSync(const ZulKestOpAttr* attr,
                                           ZulKestFH fh, int64_t length);
/* As zulKestFHSync, but waits.  Direct: flushes the descriptor. */
KEST2_EXPORT int32_t zulKestFHSyncSync(const ZulKestOpAttr* attr,
                                       ZulKestFH fh);
/* As zulKestFHClose, but waits.  Direct: closes the descriptor and frees
 * its slot. */
KEST2_EXPORT int32_t zulKestFHCloseSync(const ZulKestOpAttr* attr,
                                        ZulKestFH fh);
/* As zulKestDHOpen / zulKestDHRead / zulKestDHClose, but wait (the length a
 * too small buffer needs is not reported).  Before initialisation:
 * ZUL_KEST_ERROR_UNIMPLEMENTED. */
KEST2_EXPORT int32_t zulKestDHOpenSync(const ZulKestOpAttr* attr,
                                       ZulKestDH* pDH, const char* path,
                                       void* buf, int64_t length);
KEST2_EXPORT int32_t zulKestDHReadSync(const ZulKestOpAttr* attr, ZulKestDH dh,
                                       ZulKestDirEntry* pEntry);
KEST2_EXPORT int32_t zulKestDHCloseSync(const ZulKestOpAttr* attr,
                                        ZulKestDH dh);
/* As zulKestDirectoryCreate / zulKestDirectoryCreateWithMode /
 * zulKestDirectoryDelete, but wait.  Direct: mkdir / rmdir. */
KEST2_EXPORT int32_t zulKestDirectoryCreateSync(const ZulKestOpAttr* attr,
                                                const char* path);
KEST2_EXPORT int32_t zulKestDirectoryCreateWithModeSync(
    const ZulKestOpAttr* attr, const char* path, int32_t mode);
KEST2_EXPORT int32_t zulKestDirectoryDeleteSync(const ZulKestOpAttr* attr,
                                                const char* path);
/* As zulKestDirectoryExists / zulKestFileExists / zulKestExists, but wait
 * and return the answer: false also on any failure. */
KEST2_EXPORT bool zulKestDirectoryExistsSync(const ZulKestOpAttr* attr,
                                             const char* path);
KEST2_EXPORT bool zulKestFileExistsSync(const ZulKestOpAttr* attr,
                                        const char* path);
KEST2_EXPORT bool zulKestExistsSync(const ZulKestOpAttr* attr,
                                    const char* path);
/* As zulKestFileGetSize, but waits: the size, or a negative code.  Direct:
 * 0 for anything but a regular file (a directory is not an error there). */
KEST2_EXPORT int64_t zulKestFileGetSizeSync(const ZulKestOpAttr* attr,
                                            const char* path);
/* As zulKestFileDelete / zulKestDelete, but wait.  Direct: unlink, or rmdir
 * for a directory (zulKestDeleteSync). */
KEST2_EXPORT int32_t zulKestFileDeleteSync(const ZulKestOpAttr* attr,
                                           const char* path);
KEST2_EXPORT int32_t zulKestDeleteSync(const ZulKestOpAttr* attr,
                                       const char* path);
/* As zulKestStat, but waits.  Direct: ZUL_KEST_ERROR_BAD_PTR (pStat null);
 * the record is zeroed first. */
KEST2_EXPORT int32_t zulKestStatSync(const ZulKestOpAttr* attr,
                                     const char* path, ZulKestStat* pStat);
/* As zulKestRename, but waits.  Direct: ZUL_KEST_ERROR_BAD_PATH (either
 * null), then rename. */
KEST2_EXPORT int32_t zulKestRenameSync(const ZulKestOpAttr* attr,
                                       const char* oldPath,
                                       const char* newPath);
/* As zulKestResolve, but waits.  Direct: ZUL_KEST_ERROR_BAD_PTR (in or out
 * null), else *in copied to *out unchanged. */
KEST2_EXPORT int32_t zulKestResolveSync(const ZulKestOpAttr* attr,
                                        const ZulKestResolveRecord* in,
                                        ZulKestResolveRecord* out);
/* As zulKestFileRead / zulKestFileWrite, but wait: the count, or a negative
 * code.  Direct: ZUL_KEST_ERROR_BAD_PTR (buf null), then the file is opened
 * (a write creates it) before a negative length gives
 * ZUL_KEST_ERROR_BAD_SIZE. */
KEST2_EXPORT int64_t zulKestFileReadSync(const ZulKestOpAttr* attr,
                                         const char* path, void* buf,
                                         int64_t length, int64_t offset);
KEST2_EXPORT int64_t zulKestFileWriteSync(const ZulKestOpAttr* attr,
                                          const char* path, const void* buf,
                                          int64_t length, int64_t offset);
/* As zulKestFileTruncate, but waits.  Direct: truncate. */
KEST2_EXPORT int32_t zulKestFileTruncateSync(const ZulKestOpAttr* attr,
                                             const char* path, int64_t length);
/* As zulKestCachePrefetchFile / zulKestCachePrefetchFileRange /
 * zulKestCachePrefetchFH / zulKestCachePrefetchFHRange, but wait.  Direct
 * (no cache exists): ZUL_KEST_ERROR_UNIMPLEMENTED for the whole-file form,
 * ZUL_KEST_OK for the others. */
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
/* As zulKestArchiveGetMountBufferSize, but waits: the mount buffer size, or
 * a negative code.  Before initialisation: ZUL_KEST_ERROR_UNIMPLEMENTED. */
KEST2_EXPORT int64_t zulKestArchiveGetMountBufferSizeSync(
    const ZulKestOpAttr* attr, const char* archivePath,
    const ZulKestOpenParams* openParams);
/* As zulKestArchiveMount / zulKestArchiveUnmount, but wait (a too small
 * buffer's needed size is not reported).  Before initialisation:
 * ZUL_KEST_ERROR_UNIMPLEMENTED. */
KEST2_EXPORT int32_t zulKestArchiveMountSync(
    const ZulKestOpAttr* attr, ZulKestFH* pFH, const char* archivePath,
    const char* mountPoint, void* buf, int64_t length,
    const ZulKestOpenParams* openParams);
KEST2_EXPORT int32_t zulKestArchiveUnmountSync(const ZulKestOpAttr* attr,
                                               ZulKestFH fh);

/* --- Handle utilities ----------------------------------------------------- */
/* None blocks (the descriptor-backed forms make one system call) or takes a
 * callback; all work before initialisation. */

/* True for a live operation, file or directory handle, and for any
 * descriptor-backed file handle 0x7FFF8000..0x7FFF80FF, in use or not. */
KEST2_EXPORT bool zulKestIsValidHandle(uint32_t handle);
/* Moves fh's position and returns it.  No range check: a negative position
 * makes the next request at the position fail with ZUL_KEST_ERROR_BAD_OFFSET.
 * -1 when fh is not live.  Descriptor-backed, or before initialisation: the
 * system's seek, the new position or a negative code. */
KEST2_EXPORT int64_t zulKestFHSeek(ZulKestFH fh, int64_t offset,
                                   ZulKestWhence whence);
/* fh's position; -1 when fh is not live or its position is unknown (after a
 * failed relative transfer).  Descriptor-backed: the system's position or a
 * negative code. */
KEST2_EXPORT int64_t zulKestFHTell(ZulKestFH fh);
/* fh's operating-system descriptor; -1 when fh is not live or has none (not
 * open yet, or an archived file). */
KEST2_EXPORT int32_t zulKestFHToFileno(ZulKestFH fh);
/* A descriptor-backed file handle for fd, which stays the caller's until
 * zulKestFHCloseSync closes it; 0 when fd is -1 or all 256 slots are taken. */
KEST2_EXPORT ZulKestFH zulKestFilenoToFH(int32_t fd);
/* Frees a descriptor-backed handle's slot without closing its descriptor;
 * other handles are ignored. */
KEST2_EXPORT void zulKestDeallocateFileno(ZulKestFH fh);
/* fh's stored path (normalised, resolved through the overlays), its last
 * known size, and its open parameters (openFlags completed, opflags filled);
 * null or -1 when fh is not live.  Pointers stay valid until fh is released.
 * zulKestDHGetPath: the same for a directory handle. */
KEST2_EXPORT const char* zulKestFHGetPath(ZulKestFH fh);
KEST2_EXPORT int64_t zulKestFHGetSize(ZulKestFH fh);
KEST2_EXPORT const ZulKestOpenParams* zulKestFHGetOpenParams(ZulKestFH fh);
KEST2_EXPORT const char* zulKestDHGetPath(ZulKestDH dh);

/* --- Diagnostics ----------------------------------------------------------- */
/* Each dump writes one line into buffer (size bytes, always NUL-terminated)
 * and returns it.  A null buffer selects one of four internal 512-byte
 * buffers used in turn, so up to four dumps fit in one printf.  Dumps return
 * at once, take no lock and work before initialisation. */

/* The code's name ("ZUL_KEST_ERROR_BAD_PATH"), or "0x%08X" for any other
 * value, ZUL_KEST_ERROR_BAD_ARGUMENT and the codes after it included. */
KEST2_EXPORT char* zulKestDebugDumpError(int32_t code, char* buffer,
                                         size_t size);
/* The object's fields, or its state (BOGUS, REALLOCATED, DELETED) when the
 * handle is not live. */
KEST2_EXPORT char* zulKestDebugDumpOp(ZulKestOp op, char* buffer, size_t size);
KEST2_EXPORT char* zulKestDebugDumpFH(ZulKestFH fh, char* buffer, size_t size);
KEST2_EXPORT char* zulKestDebugDumpDH(ZulKestDH dh, char* buffer, size_t size);
/* "YYYY-MM-DD hh:mm:ss[.nnnnnnnnn] UTC". */
KEST2_EXPORT char* zulKestDebugDumpDate(ZulKestDate date, char* buffer,
                                        size_t size);

/* Storage and queue statistics.  Get zeroes *pStatistics (ignored if null)
 * and fills it when initialised; Reset sets every high-water mark to the
 * current value; Print writes them (and the RAM caches') through
 * zulKestPrintf.  Each takes every queue's mutex briefly; none waits for
 * I/O. */
KEST2_EXPORT void zulKestStatisticsGet(ZulKestStatistics* pStatistics);
KEST2_EXPORT void zulKestStatisticsReset(void);
KEST2_EXPORT void zulKestStatisticsPrint(void);
/* Time stamps: a lock-free ring of 32768 tagged marks that any thread may
 * save to (past that, the oldest are overwritten); print writes them with
 * absolute and delta microseconds and clears them.  All return at once
 * (print as fast as the output).  tag must stay valid until the stamps are
 * printed. */
KEST2_EXPORT void zulKestSaveTimeStamp(const char* tag, uint32_t value);
KEST2_EXPORT void zulKestClearTimeStamps(void);
KEST2_EXPORT void zulKestPrintTimeStamps(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KEST2_H_ */
