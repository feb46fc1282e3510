// Progress of long work (pack, unpack, verify, cp) on standard error:
//
//   kest2 pack: 40.0 of 120.0 MiB (33%), 12 of 300 files, 85.2 MiB/s, 2 s left
//
// By default the line is shown only when standard error is a terminal and
// the work has taken more than a second, and it is redrawn in place.
// --progress shows it always (on a file or pipe, one line per second and a
// final 100 % line); --no-progress never.
#ifndef KEST2_TOOLS_KEST2_PROGRESS_H_
#define KEST2_TOOLS_KEST2_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <string>

namespace kest2_cli {

enum class ProgressMode { kAuto, kAlways, kNever };

// Set once by the program from its options, before a command runs.
void SetProgressMode(ProgressMode mode);
ProgressMode GetProgressMode();

class Progress {
 public:
  // `command` names the line ("pack"); a total of 0 files leaves the file
  // count out of the line.
  Progress(const char* command, uint64_t totalBytes, uint64_t totalFiles);
  ~Progress();  // ends a line left in place
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Counts work done; redraws the line when it is due.  Called from one
  // thread.
  void Add(uint64_t bytes, uint64_t files = 0);

  // The work is complete: prints the final line when the line was shown
  // (always when forced).
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;
  void Draw(bool final);

  std::string m_command;
  uint64_t m_totalBytes;
  uint64_t m_totalFiles;
  uint64_t m_bytes = 0;
  uint64_t m_files = 0;
  Clock::time_point m_start;
  Clock::time_point m_lastDraw;
  bool m_terminal;
  bool m_forced;
  bool m_shown = false;  // a line was drawn
  bool m_finished = false;
};

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_PROGRESS_H_
