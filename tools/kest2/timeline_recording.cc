// The --timeline option: see timeline_recording.h.

#include "kest2/timeline_recording.h"

#include <cstdio>

#include "kest2.h"
#include "kest2/error_words.h"
#include "kest2_timeline.h"

namespace kest2_cli {

TimelineRecording::TimelineRecording(const std::string& path, uint64_t bytes) : m_path(path) {
  if (path.empty()) return;
  // Not zeroed here: the start clears what it uses.
  m_storage.reset(new uint64_t[bytes / 8]);
  m_status = zulKestTimelineStart(m_storage.get(), bytes / 8 * 8);
  m_recording = m_status == ZUL_KEST_OK;
}

TimelineRecording::~TimelineRecording() {
  if (m_recording) zulKestTimelineStop();
}

int TimelineRecording::Finish(int commandStatus) {
  if (!m_recording) return commandStatus;
  zulKestTimelineStop();
  m_recording = false;
  const int32_t written = zulKestTimelineWrite(m_path.c_str());
  if (written != ZUL_KEST_OK) {
    Fail("--timeline", m_path, written);
    return commandStatus != 0 ? commandStatus : 1;
  }
  ZulKestTimelineInfo info;
  if (zulKestTimelineGetInfo(&info) == ZUL_KEST_OK && info.lost != 0) {
    std::fprintf(stderr,
                 "kest2 warning: --timeline %s: %llu of %llu records lost; the ring holds %llu and "
                 "kept the newest\n",
                 m_path.c_str(), static_cast<unsigned long long>(info.lost),
                 static_cast<unsigned long long>(info.recorded),
                 static_cast<unsigned long long>(info.capacity));
  }
  return commandStatus;
}

}  // namespace kest2_cli
