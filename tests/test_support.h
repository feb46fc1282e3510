// Small helpers shared by the tests.
#ifndef KEST2_TESTS_TEST_SUPPORT_H_
#define KEST2_TESTS_TEST_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kest2.h"

namespace kest2_test {

// Collects everything the library prints while it is alive, by installing a
// pVprintf hook in the library's parameters copy (and restoring the previous
// hook afterwards).  One capture at a time.
class OutputCapture {
 public:
  OutputCapture();
  ~OutputCapture();
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  // A copy: library threads may be appending while the test reads.
  std::string text() const;
  // The hook itself, for parameters records handed to zulKestInitialize
  // (which replaces the library's hook with the record's).
  static ZulKestVprintfHook Hook();
  void Clear();

 private:
  ZulKestVprintfHook m_previous;
};

// A whole file's bytes (empty when it cannot be read).
std::vector<uint8_t> ReadFile(const std::string& path);
// Writes a file whole, making its directories first.
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);

// Switches trace modules while the library's threads may be reading them.
void SetDebugFlags(uint32_t flags);

// Caller storage for the three handle tables and the chunks, sized for the
// given unit counts, and a parameters record that points at it.
struct TestStorage {
  std::vector<uint64_t> op, fh, dh, chunk;
};
ZulKestParams MakeParams(TestStorage* storage, uint32_t opUnits = 64,
                         uint32_t fhUnits = 32, uint32_t dhUnits = 16,
                         uint32_t pathMax = 1024, uint32_t chunkUnits = 1024);

// A dearchiver context over its work buffer: three parts of 70,000 bytes
// (a 64 KiB block and its row each), 64-byte aligned as the filter wants.
class DearchiverWork {
 public:
  DearchiverWork();
  DearchiverWork(const DearchiverWork&) = delete;
  DearchiverWork& operator=(const DearchiverWork&) = delete;
  ZulKestZorbaDearchiverContext* context() { return &m_context; }

 private:
  std::vector<uint64_t> m_buffer;
  ZulKestZorbaDearchiverContext m_context{};
};

// The process's open descriptors, counted in /proc/self/fd (the count
// includes the one the listing itself holds, the same in every call).
size_t OpenDescriptors();

// A directory under the system's temporary directory, removed with its
// contents at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

}  // namespace kest2_test

#endif  // KEST2_TESTS_TEST_SUPPORT_H_
