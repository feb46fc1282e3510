// A scratch directory for the tests, the benchmarks, the fuzz targets and
// the kest2 program's demo: new, private to its owner, and gone with it.
#ifndef KEST2_TOOLS_COMMON_TEMP_DIR_H_
#define KEST2_TOOLS_COMMON_TEMP_DIR_H_

#include <string>

namespace kest2_common {

class TempDir {
 public:
  // Makes prefix + six random characters under the system's temporary
  // directory ($TMPDIR, else /tmp).  Throws std::system_error when that
  // fails: no owner can do its work without it.
  explicit TempDir(const std::string& prefix = "kest2_");
  // Removes the directory with its contents.
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

}  // namespace kest2_common

#endif  // KEST2_TOOLS_COMMON_TEMP_DIR_H_
