// Caller storage for the library: see library_storage.h.

#include "common/library_storage.h"

namespace kest2_common {
namespace {

// Zeroed 64-bit words, so that every table starts aligned.
void Carve(std::vector<uint64_t>* words, uint64_t bytes, void** where, uint64_t* size) {
  words->assign(bytes / 8, 0);
  *where = words->data();
  *size = words->size() * 8;
}

}  // namespace

ZulKestParams LibraryStorage::MakeParams(uint32_t operations, uint32_t fileHandles,
                                         uint32_t dirHandles, uint32_t pathMax, uint32_t chunks) {
  // The units hold paths as long as the library will take.
  const uint32_t unitPathMax = pathMax == 0 || pathMax > 1024 ? 1024 : pathMax;
  ZulKestParams params{};
  params.header = ZUL_KEST_PARAMS_HEADER(pathMax);
  Carve(&m_operations, ZUL_KEST_STORAGE_SIZE(operations, ZUL_KEST_OP_UNIT_SIZE(unitPathMax)),
        &params.opStorage, &params.opStorageSize);
  Carve(&m_fileHandles, ZUL_KEST_STORAGE_SIZE(fileHandles, ZUL_KEST_FH_UNIT_SIZE(unitPathMax)),
        &params.fhStorage, &params.fhStorageSize);
  Carve(&m_dirHandles, ZUL_KEST_STORAGE_SIZE(dirHandles, ZUL_KEST_DH_UNIT_SIZE(unitPathMax)),
        &params.dhStorage, &params.dhStorageSize);
  Carve(&m_chunks, ZUL_KEST_STORAGE_SIZE(chunks, ZUL_KEST_CHUNK_UNIT_SIZE), &params.chunkStorage,
        &params.chunkStorageSize);
  for (int i = 0; i < 3; ++i) params.threadPriority[i] = -1;
  return params;
}

}  // namespace kest2_common
