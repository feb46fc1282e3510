// Progress lines on standard error: see progress.h.

#include "kest2/progress.h"

#include <unistd.h>

#include <cstdio>

namespace kest2_cli {
namespace {

ProgressMode g_mode = ProgressMode::kAuto;

// Work shorter than this shows nothing unless forced: a line that flashes
// up and vanishes tells nobody anything.
constexpr std::chrono::milliseconds kQuietStart{1000};
// A terminal line is redrawn this often; a file or pipe gets a line a
// second so that a log stays readable.
constexpr std::chrono::milliseconds kTerminalRedraw{200};
constexpr std::chrono::milliseconds kLogRedraw{1000};

double Seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

std::string Mebibytes(uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", static_cast<double>(bytes) / (1 << 20));
  return text;
}

}  // namespace

void SetProgressMode(ProgressMode mode) { g_mode = mode; }
ProgressMode GetProgressMode() { return g_mode; }

Progress::Progress(const char* command, uint64_t totalBytes, uint64_t totalFiles)
    : m_command(command),
      m_totalBytes(totalBytes),
      m_totalFiles(totalFiles),
      m_start(Clock::now()),
      m_lastDraw(m_start),
      m_terminal(::isatty(STDERR_FILENO) == 1),
      m_forced(g_mode == ProgressMode::kAlways) {}

Progress::~Progress() {
  // Work that stopped early leaves its last line standing, ended.
  if (m_shown && m_terminal && !m_finished) std::fputc('\n', stderr);
}

void Progress::Add(uint64_t bytes, uint64_t files) {
  m_bytes += bytes;
  m_files += files;
  if (g_mode == ProgressMode::kNever || (!m_forced && !m_terminal)) return;
  const Clock::time_point now = Clock::now();
  if (!m_forced && now - m_start < kQuietStart) return;
  if (now - m_lastDraw < (m_terminal ? kTerminalRedraw : kLogRedraw)) return;
  m_lastDraw = now;
  Draw(false);
}

void Progress::Finish() {
  if (m_finished) return;
  m_finished = true;
  if (m_forced || m_shown) Draw(true);
}

void Progress::Draw(bool final) {
  const double elapsed = Seconds(Clock::now() - m_start);
  const double rate = elapsed > 0 ? static_cast<double>(m_bytes) / elapsed : 0;
  const uint64_t bytes = final ? m_totalBytes : m_bytes;
  const int percent =
      m_totalBytes == 0 ? 100 : static_cast<int>(100.0 * static_cast<double>(bytes) / m_totalBytes);
  std::string line = "kest2 " + m_command + ": " + Mebibytes(bytes) + " of " +
                     Mebibytes(m_totalBytes) + " MiB (" + std::to_string(percent) + "%)";
  if (m_totalFiles != 0) {
    line += ", " + std::to_string(final ? m_totalFiles : m_files) + " of " +
            std::to_string(m_totalFiles) + " files";
  }
  char tail[64];
  std::snprintf(tail, sizeof(tail), ", %.1f MiB/s", rate / (1 << 20));
  line += tail;
  if (final) {
    std::snprintf(tail, sizeof(tail), ", done in %.1f s", elapsed);
  } else if (rate > 0 && m_totalBytes > m_bytes) {
    std::snprintf(tail, sizeof(tail), ", %.0f s left",
                  static_cast<double>(m_totalBytes - m_bytes) / rate + 0.5);
  } else {
    tail[0] = '\0';
  }
  line += tail;
  // On a terminal the line is drawn over itself and the rest of the old
  // line cleared; elsewhere each drawing is a line of its own.
  if (m_terminal) {
    std::fprintf(stderr, "\r%s\033[K%s", line.c_str(), final ? "\n" : "");
  } else {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
  std::fflush(stderr);
  m_shown = true;
}

}  // namespace kest2_cli
