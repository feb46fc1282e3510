// The library as the command-line program uses it: initialised over storage
// the program owns for the length of one command, with the library's own
// messages (trace lines, statistics) going to standard error so that they
// never mix with a command's output.
#ifndef KEST2_TOOLS_KEST2_LIBRARY_SESSION_H_
#define KEST2_TOOLS_KEST2_LIBRARY_SESSION_H_

#include <cstdint>
#include <string>
#include <vector>

#include "common/library_storage.h"
#include "kest2.h"

namespace kest2_cli {

// One --overlay option: upper laid over lower.
struct OverlayOption {
  std::string lower;  // the overlaid path
  std::string upper;  // the path that takes its place
  uint8_t type;       // ZUL_KEST_OVERLAY_TYPE_*
};

struct SessionOptions {
  uint32_t debugFlags = 0;
  bool printStatistics = false;
  uint32_t ioThreads = 2;
  std::vector<OverlayOption> overlays;  // applied in the order given
};

// Parses "LOWER=UPPER[:MODE]" (MODE: opaque, translucent, newer, writable;
// translucent when absent).  False on a malformed value.
bool ParseOverlayOption(const std::string& text, OverlayOption* overlay);

class LibrarySession {
 public:
  explicit LibrarySession(const SessionOptions& options);
  ~LibrarySession();  // prints the statistics when asked, then terminates
  LibrarySession(const LibrarySession&) = delete;
  LibrarySession& operator=(const LibrarySession&) = delete;

  // 0, or the result code of the initialisation or of the first overlay
  // that could not be added.
  int32_t status() const { return m_status; }

 private:
  kest2_common::LibraryStorage m_storage;
  bool m_printStatistics;
  int32_t m_status;
};

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_LIBRARY_SESSION_H_
