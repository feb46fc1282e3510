// A scratch directory: see temp_dir.h.

#include "common/temp_dir.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace kest2_common {

TempDir::TempDir(const std::string& prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "XXXXXX")).string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
  }
  m_path = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

}  // namespace kest2_common
