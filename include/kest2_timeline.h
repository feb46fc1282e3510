/*
 * kest2 timeline: a record of what the engine did, for a trace viewer.
 *
 * While a timeline records, the engine notes into it: every chunk it
 * executes (on the thread that ran it), every operating-system call of the
 * native layer, every operation from its acceptance to its completion with
 * its deadline and result, every archive block read and every block
 * inflated on the decompressor threads.  zulKestTimelineWrite turns the
 * notes into the Trace Event JSON that trace viewers open: one track per
 * thread, a span per chunk, call, block read and inflate, an asynchronous
 * span per operation, and an instant "deadline missed" where an operation
 * with a deadline completed after it.
 *
 * Storage: the caller hands the timeline its memory.  It holds a small
 * header, a table of thread names, a table of acceptance times (one entry
 * per operation slot) and a ring of fixed-size records.  Notes never
 * allocate, lock or do I/O: a note claims a record with one atomic add and
 * publishes it with a release store.  A full ring overwrites its oldest
 * records, so that a long run keeps the moments before it was stopped (where
 * whatever one looks for has usually just happened); the records lost that
 * way are counted.  An operation is one record, so an overwritten one is
 * gone whole, never half.  With the timeline off every note point costs one
 * relaxed atomic load.
 *
 * The timeline is independent of the library's initialisation: it may be
 * started before zulKestInitialize and written after zulKestTerminate.
 * Start, stop, info and write are meant for one controlling thread; they are
 * not thread-safe against each other (notes from any thread are).
 *
 * The JSON (all times in microseconds from the start of the recording,
 * with three decimals; events are not in time order):
 *   {"traceEvents":[ ... ], "displayTimeUnit":"ms", "otherData":{...}}
 *   "M" process_name ("kest2"), thread_name and thread_sort_index per
 *       thread (its system name: "ZulKestIO", "ZulKestCallback",
 *       "ZulKestZlib0", ..., or the caller thread's own name, else "caller")
 *   "X" cat "chunk": name the chunk type ("CHUNK_FH_READ"); args chunk,
 *       op (when the chunk belongs to one), priority, deadline, result
 *   "X" cat "native": name "open", "read", "write", "close", "stat",
 *       "sync", "dir open", "dir read", "dir close"; args chunk, path,
 *       offset and length (reads and writes)
 *   "X" cat "archive": name "block read" (args chunk, offset, bytes) or
 *       "inflate" (args compressed, inflated, result)
 *   "b"/"e" cat "op", id the operation handle ("0x00014001"): name the
 *       operation type ("OP_PATH_READ"); "b" args op, path, priority,
 *       deadline (absent without one), accepted (false when the operation
 *       was accepted before the recording started, or failed before it was
 *       accepted: the span then starts at its completion); "e" args result,
 *       bytes, missed
 *   "i" cat "deadline", name "deadline missed", on the completing thread;
 *       args op, deadline, late
 *   otherData: capacity, recorded, kept, lost, threads.
 * Operations still in flight when the timeline stops are not shown.
 */
#ifndef KEST2_TIMELINE_H_
#define KEST2_TIMELINE_H_

#include <stdint.h>

#include "kest2.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes of one record, and what the storage holds besides the records. */
#define ZUL_KEST_TIMELINE_RECORD_SIZE 128u
#define ZUL_KEST_TIMELINE_OVERHEAD 264448u
/* The fewest records a timeline takes. */
#define ZUL_KEST_TIMELINE_MIN_RECORDS 16u
/* Storage for a ring of `records` records. */
#define ZUL_KEST_TIMELINE_STORAGE_SIZE(records) \
  ((uint64_t)ZUL_KEST_TIMELINE_OVERHEAD + (uint64_t)(records)*ZUL_KEST_TIMELINE_RECORD_SIZE)
/* Threads the timeline names; the notes of any further thread share one
 * track, "other threads". */
#define ZUL_KEST_TIMELINE_THREADS 64u

/* 48 bytes. */
typedef struct ZulKestTimelineInfo {
  uint64_t capacity;     /* records the ring holds */
  uint64_t recorded;     /* notes taken since the start */
  uint64_t kept;         /* records the ring holds now */
  uint64_t lost;         /* recorded - kept: overwritten by newer notes (or
                            dropped, when two met in one slot) */
  uint32_t threads;      /* threads that took notes */
  uint32_t recording;    /* 1 while recording, else 0 */
  ZulKestTime startTime; /* when the recording started (monotonic clock) */
} ZulKestTimelineInfo;

/* Receives the JSON of zulKestTimelineWriteTo piece by piece; returns 0 to
 * go on, or a result code that stops the writing and is returned. */
typedef int32_t (*ZulKestTimelineSink)(void* context, const char* text, uint64_t length);

/* Starts recording into storage (size bytes, 8-byte aligned), which stays
 * the timeline's until the next start; the records of an earlier timeline
 * are forgotten.  The ring holds (size - ZUL_KEST_TIMELINE_OVERHEAD) /
 * ZUL_KEST_TIMELINE_RECORD_SIZE records.
 * Returns ZUL_KEST_OK, ZUL_KEST_ERROR_BAD_PTR (storage null),
 * ZUL_KEST_ERROR_BAD_ALIGNMENT (not 8-byte aligned), ZUL_KEST_ERROR_BAD_SIZE
 * (less than ZUL_KEST_TIMELINE_STORAGE_SIZE(ZUL_KEST_TIMELINE_MIN_RECORDS))
 * or ZUL_KEST_ERROR_BUSY (a timeline is recording).  Returns at once after
 * clearing the storage; works before initialisation. */
KEST2_EXPORT int32_t zulKestTimelineStart(void* storage, uint64_t size);
/* Stops recording; the records stay for zulKestTimelineWrite.  Blocks until
 * the notes other threads are taking at the moment are finished (a few
 * stores each).  Does nothing when no timeline records. */
KEST2_EXPORT void zulKestTimelineStop(void);
/* Fills *out with the counts of the current or last timeline.  Returns
 * ZUL_KEST_OK, ZUL_KEST_ERROR_BAD_PTR (out null) or
 * ZUL_KEST_ERROR_BAD_ARGUMENT (no timeline was started).  kept and lost are
 * exact once the timeline has stopped.  Reads the ring once; returns
 * without waiting. */
KEST2_EXPORT int32_t zulKestTimelineGetInfo(ZulKestTimelineInfo* out);
/* Writes the stopped timeline's JSON through sink(context, text, length),
 * in pieces of at most 4 KiB.  Returns ZUL_KEST_OK, ZUL_KEST_ERROR_BAD_PTR
 * (sink null), ZUL_KEST_ERROR_BAD_ARGUMENT (no timeline was started),
 * ZUL_KEST_ERROR_BUSY (still recording: stop it first) or the sink's code.
 * Runs the sink on the calling thread; blocks as long as the sink does.  May
 * be called again: the records stay until the next start. */
KEST2_EXPORT int32_t zulKestTimelineWriteTo(ZulKestTimelineSink sink, void* context);
/* As zulKestTimelineWriteTo, into a file at path (created, or truncated),
 * with permission bits 0644 less the umask.  Also returns
 * ZUL_KEST_ERROR_BAD_PATH (path null or empty, or a directory of it
 * missing) and the codes of a file that cannot be created or written
 * (ZUL_KEST_ERROR_ACCESS, ZUL_KEST_ERROR_BAD_SIZE for a full disk, ...).
 * Blocks while it writes the file. */
KEST2_EXPORT int32_t zulKestTimelineWrite(const char* path);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KEST2_TIMELINE_H_ */
