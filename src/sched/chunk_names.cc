// Names of the chunk types, for dumps and trace lines.

#include "debug/format.h"
#include "sched/chunk.h"

namespace kest2 {
namespace {

constexpr const char* kChunkTypeNames[kChunkTypeCount] = {
    "CHUNK_NULL",        "CHUNK_ROOT",          "CHUNK_PARENT",        "CHUNK_CHILD",
    "CHUNK_CALLBACK",    "CHUNK_BUFFER",        "CHUNK_FH_OPEN",       "CHUNK_FH_READ",
    "CHUNK_FH_WRITE",    "CHUNK_FH_BARRIER",    "CHUNK_FH_SYNC",       "CHUNK_FH_CLOSE",
    "CHUNK_DH_OPEN",     "CHUNK_DH_READ",       "CHUNK_DH_READ_BULK",  "CHUNK_DH_CLOSE",
    "CHUNK_DIR_EXISTS",  "CHUNK_DIR_CREATE",    "CHUNK_DIR_DELETE",    "CHUNK_FILE_EXISTS",
    "CHUNK_FILE_DELETE", "CHUNK_FILE_SIZE",     "CHUNK_DELETE",        "CHUNK_EXISTS",
    "CHUNK_STAT",        "CHUNK_TRUNCATE",      "CHUNK_PREFETCH",      "CHUNK_RESOLVE",
    "CHUNK_RENAME",      "CHUNK_ARCHIVE_QUERY", "CHUNK_ARCHIVE_MOUNT", "CHUNK_ARCHIVE_UNMOUNT",
    "CHUNK_CHSTAT",      "CHUNK_DEVCTL",        "CHUNK_IOCTL",         "CHUNK_SYNC",
};

// Decimal text of a value outside the table.  Shared by every caller, like
// the operation type names: a name taken on one thread may be overwritten
// by another thread's unknown value.
char g_chunkTypeNumber[8];

}  // namespace

const char* ChunkTypeName(uint8_t type) {
  if (type < kChunkTypeCount) return kChunkTypeNames[type];
  FormatBounded(g_chunkTypeNumber, sizeof(g_chunkTypeNumber), "%u", static_cast<unsigned>(type));
  return g_chunkTypeNumber;
}

}  // namespace kest2
