/* example_support: the set-up that the kest2 examples share.
 *
 * Every example except hello_kest2 (which shows the set-up in full) starts
 * the library through example_start_library and works in a temporary
 * directory of its own.  What an example is about stays in its own file;
 * only the plumbing lives here. */
#ifndef KEST2_EXAMPLE_SUPPORT_H
#define KEST2_EXAMPLE_SUPPORT_H

#include <stdint.h>

#include "kest2.h"

/* The longest path the examples use, counting the terminating zero. */
#define PATH_MAX_BYTES 1024

/* Starts the library over storage for the given numbers of operations,
 * file handles, directory handles and chunks.  `params` is NULL or a zeroed
 * record in which the example has set what it is about (threads, hooks,
 * trace flags); its header, storage areas and thread priorities are filled
 * in here.  Prints the reason and returns the error when it fails. */
int32_t example_start_library(ZulKestParams* params, uint32_t opUnits, uint32_t fhUnits, uint32_t dhUnits,
                              uint32_t chunkUnits);

/* Creates the directory /tmp/kest2-NAME-XXXXXX and returns its path, or
 * prints the reason and returns NULL. */
const char* example_make_temp_dir(const char* name);

/* Deletes the (emptied) temporary directory through the library; returns 1
 * when that fails, 0 when it worked, so that callers can count failures. */
int example_remove_temp_dir(void);

/* "<temporary directory>/<name>", in one of four rotating buffers: up to
 * four results can be used at once. */
const char* example_path(const char* name);

/* Writes `length` bytes to `path` through the library; returns 1 when not
 * all of them were written, 0 when they were. */
int example_write_file(const char* path, const void* bytes, int64_t length);

#endif /* KEST2_EXAMPLE_SUPPORT_H */
