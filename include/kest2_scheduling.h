/*
 * kest2 scheduling options: opt-in changes to how the I/O schedulers order
 * their queues.  None is set by default, and without them every chunk is
 * placed as kest2.h describes: at the queue index where the fewest deadlines
 * are missed by the schedulers' time model, then where the queue finishes
 * soonest by that model (which groups reads that are neighbours on the
 * media).
 *
 * ZUL_KEST_SCHEDULING_DEADLINE_ORDER: among the places that miss equally,
 * prefer deadline order over the earliest estimated finish: the new chunk
 * goes where the fewest queued chunks are left on the wrong side of it (a
 * later deadline ahead, an earlier one behind), and the estimated finish
 * only decides between places equal in that too.  The time model, the
 * protection of chunks already late and the priorities stay as they are.
 * Meant for storage where seeking costs next to nothing (solid-state
 * drives, files in the page cache, RAM): there the finish estimate measures
 * little but the model's own seek costs, which start far above the real
 * ones and are only ever raised by measurement, and chasing it can file an
 * urgent read behind bulk reads that the model counts late anyway.  Costs
 * a search of the whole queue for every chunk placed, where the default
 * often proves the back of the queue right without one.
 *
 * ZUL_KEST_SCHEDULING_PRIORITY_ORDER: as the deadline order, with the
 * priority ranked first: a queued chunk of higher priority belongs ahead
 * of the new one and one of lower priority behind it, whatever their
 * deadlines; deadlines order chunks of equal priority.  It differs from
 * the deadline order once chunks of low priority fall overdue (under
 * overload): deadline order files a new urgent request behind them,
 * priority order ahead.  Set together with the deadline order, the
 * priority order is the one counted.
 *
 * ZUL_KEST_SCHEDULING_ORDER_ONLY, with one of the two orders: that order
 * alone places a chunk, and the time model is not consulted.  The queue is
 * kept sorted (a chunk goes behind its equals, and the next piece of a
 * transfer at the back is appended), and a chunk finds its place by binary
 * search, so placing costs O(log n) whatever the queue's depth; the full
 * search costs O(n) per chunk and holds the scheduler for it, which under
 * overload, with thousands of chunks queued, takes the time the reads
 * need.  What is given up is every judgement of the model: seeks are not
 * grouped, and a chunk may be filed where the model would see it, or
 * others, miss.  With the deadline order the I/O threads serve the
 * earliest deadline first; with the priority order the highest priority
 * first.  Meant for storage where seeking costs next to nothing, as above.
 * Set without an order, it is refused.
 *
 * The options are process-wide and independent of initialisation: they may
 * be set before zulKestInitialize, stay set across zulKestTerminate, and
 * apply to every chunk placed after the call.
 */
#ifndef KEST2_SCHEDULING_H_
#define KEST2_SCHEDULING_H_

#include <stdint.h>

#include "kest2.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZUL_KEST_SCHEDULING_DEADLINE_ORDER 0x00000001u
#define ZUL_KEST_SCHEDULING_PRIORITY_ORDER 0x00000002u
#define ZUL_KEST_SCHEDULING_ORDER_ONLY 0x00000004u
/* Every option this library knows. */
#define ZUL_KEST_SCHEDULING_ALL                                                \
  (ZUL_KEST_SCHEDULING_DEADLINE_ORDER | ZUL_KEST_SCHEDULING_PRIORITY_ORDER | \
   ZUL_KEST_SCHEDULING_ORDER_ONLY)

/* Sets the options (ZUL_KEST_SCHEDULING_* or'ed; 0 for the default
 * placement).  Returns ZUL_KEST_OK, or ZUL_KEST_ERROR_BAD_ARGUMENT (an
 * unknown bit, or ZUL_KEST_SCHEDULING_ORDER_ONLY without an order; nothing
 * changes).  Returns at once; thread-safe.  Chunks
 * already queued keep their places. */
KEST2_EXPORT int32_t zulKestSetSchedulingOptions(uint32_t options);
/* The options in force.  Returns at once. */
KEST2_EXPORT uint32_t zulKestGetSchedulingOptions(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KEST2_SCHEDULING_H_ */
