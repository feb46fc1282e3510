// The --timeline FILE option: the program's command recorded by the
// library's timeline, on storage the program owns, and written to FILE as
// Trace Event JSON when the command has ended, also when it failed.
#ifndef KEST2_TOOLS_KEST2_TIMELINE_RECORDING_H_
#define KEST2_TOOLS_KEST2_TIMELINE_RECORDING_H_

#include <cstdint>
#include <memory>
#include <string>

namespace kest2_cli {

// Records with the default storage: 64 MiB, about half a million records.
constexpr uint64_t kTimelineStorageBytes = uint64_t{64} << 20;

class TimelineRecording {
 public:
  // Starts recording when path is not empty.
  explicit TimelineRecording(const std::string& path, uint64_t bytes = kTimelineStorageBytes);
  ~TimelineRecording();  // stops a recording not finished
  TimelineRecording(const TimelineRecording&) = delete;
  TimelineRecording& operator=(const TimelineRecording&) = delete;

  // 0, or the result code of the start.
  int32_t status() const { return m_status; }

  // Stops, writes the file and warns on standard error when records were
  // lost.  Returns the command's exit status, or 1 when it was 0 and the
  // file could not be written (an error line says why).
  int Finish(int commandStatus);

 private:
  std::string m_path;
  std::unique_ptr<uint64_t[]> m_storage;
  int32_t m_status = 0;
  bool m_recording = false;
};

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_TIMELINE_RECORDING_H_
