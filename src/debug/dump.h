// One-line text dumps of the library's objects, for trace lines and for the
// application's developers.  Each dump writes into the caller's buffer (or,
// given a null buffer, into one of four shared 512-byte buffers used in
// turn) and returns it, always NUL-terminated within its size.
//
// Thread-safety: dumps read objects without their locks; a dump of an object
// that changes meanwhile may mix old and new fields.  A dump in a shared
// buffer stays valid until four more such dumps have been made.
#ifndef KEST2_SRC_DEBUG_DUMP_H_
#define KEST2_SRC_DEBUG_DUMP_H_

#include <cstddef>
#include <cstdint>

#include "kest2.h"

namespace kest2 {

constexpr size_t kDumpBufferSize = 512;

// Points *buffer at the next shared buffer when it is null (and sets *size).
// Returns false when nothing may be written (a caller's buffer of size 0).
bool SelectDumpBuffer(char** buffer, size_t* size);

// Appends prefix and the name of a result code (or its "0x%08X" text).
void AppendErrorName(char* buffer, size_t size, const char* prefix, int32_t code);

// The name of a result code ("ZUL_KEST_ERROR_BAD_PATH"), or null for a code
// without one (those print as "0x%08X").
const char* ErrorName(int32_t code);

// "OP_FH_OPEN" and so on; other values as decimal text in a shared buffer.
const char* OpTypeName(uint16_t what);

// "iofilter 0x...:{ pFilterContext:0x..., desc:"..." }".
char* DumpFilter(ZulKestIOFilterCallback function, void* context, char* buffer,
                 size_t size);

// Appends the fields of the operation with handle `op` found at `object`
// (" what:..., done:..., ...") without the closing " }".
void AppendOpFields(char* buffer, size_t size, const void* object);

}  // namespace kest2

#endif  // KEST2_SRC_DEBUG_DUMP_H_
