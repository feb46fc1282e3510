// Caller storage for the library's handle tables and chunks, and the
// parameters record that hands it over.  The tests, the benchmarks, the
// fuzz targets and the kest2 program all start the library on storage
// sized here.
#ifndef KEST2_TOOLS_COMMON_LIBRARY_STORAGE_H_
#define KEST2_TOOLS_COMMON_LIBRARY_STORAGE_H_

#include <cstdint>
#include <vector>

#include "kest2.h"

namespace kest2_common {

class LibraryStorage {
 public:
  // Sizes the storage for the given numbers of operations, file handles,
  // directory handles and chunks (dropping what it held) and returns a
  // parameters record that points at it, for paths of up to pathMax bytes
  // (0 or above 1024: the library's 1024).  Every other field is zero but
  // the thread priorities, -1 (the default).  The storage must
  // stay untouched until the library is terminated.
  ZulKestParams MakeParams(uint32_t operations = 64, uint32_t fileHandles = 32,
                           uint32_t dirHandles = 16, uint32_t pathMax = 1024,
                           uint32_t chunks = 1024);

 private:
  std::vector<uint64_t> m_operations, m_fileHandles, m_dirHandles, m_chunks;
};

}  // namespace kest2_common

#endif  // KEST2_TOOLS_COMMON_LIBRARY_STORAGE_H_
