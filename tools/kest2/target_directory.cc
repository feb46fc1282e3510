// Writing files below one directory: see target_directory.h.

#include "kest2/target_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "kest2/safe_names.h"

namespace kest2_cli {
namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Why `name` in the directory `at` could not be opened as a directory:
// a link and a file say so; anything else is the host's error.
std::string WhyNotADirectory(int at, const std::string& name, const std::string& shown, int code) {
  struct stat st;
  if (::fstatat(at, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    if (S_ISLNK(st.st_mode)) return shown + " is a symbolic link, which unpack does not follow";
    if (!S_ISDIR(st.st_mode)) return shown + " exists and is not a directory";
  }
  return shown + ": " + std::strerror(code);
}

}  // namespace

NewFile::~NewFile() { Abandon(); }

void NewFile::Abandon() {
  if (m_fd >= 0) {
    ::close(m_fd);
    ::unlinkat(m_directory, m_name.c_str(), 0);
    m_fd = -1;
  }
  if (m_directory >= 0) ::close(m_directory);
  m_directory = -1;
}

bool NewFile::Commit(std::string* error) {
  const int closed = ::close(m_fd);
  const int code = errno;
  m_fd = -1;
  if (closed != 0) {
    ::unlinkat(m_directory, m_name.c_str(), 0);
    *error = std::strerror(code);
  }
  ::close(m_directory);
  m_directory = -1;
  return closed == 0;
}

TargetDirectory::~TargetDirectory() {
  if (m_fd >= 0) ::close(m_fd);
}

bool TargetDirectory::Open(const std::string& path, std::string* error) {
  m_path = path;
  std::error_code made;
  std::filesystem::create_directories(path, made);
  if (made) {
    *error = made.message();
    return false;
  }
  m_fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_fd < 0) {
    *error = std::strerror(errno);
    return false;
  }
  return true;
}

bool TargetDirectory::Create(const std::vector<std::string>& components, bool replace,
                             NewFile* file, std::string* error) {
  if (components.empty()) {
    *error = m_path + ": no file name";
    return false;
  }
  int level = ::dup(m_fd);
  if (level < 0) {
    *error = m_path + ": " + std::strerror(errno);
    return false;
  }
  std::string shown = m_path;
  for (size_t k = 0; k + 1 < components.size(); ++k) {
    const char* name = components[k].c_str();
    shown += "/" + EscapeName(components[k]);
    int next = ::openat(level, name, kDirectoryFlags);
    if (next < 0 && errno == ENOENT) {
      // Made by someone else in between is as good as made here.
      if (::mkdirat(level, name, 0755) != 0 && errno != EEXIST) {
        *error = shown + ": " + std::strerror(errno);
        ::close(level);
        return false;
      }
      next = ::openat(level, name, kDirectoryFlags);
    }
    if (next < 0) {
      *error = WhyNotADirectory(level, name, shown, errno);
      ::close(level);
      return false;
    }
    ::close(level);
    level = next;
  }
  const std::string& leaf = components.back();
  shown += "/" + EscapeName(leaf);
  struct stat st;
  if (replace && ::fstatat(level, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    if (!S_ISREG(st.st_mode)) {
      *error = shown + " exists and is not a regular file; --force replaces only those";
      ::close(level);
      return false;
    }
    if (::unlinkat(level, leaf.c_str(), 0) != 0 && errno != ENOENT) {
      *error = shown + ": " + std::strerror(errno);
      ::close(level);
      return false;
    }
  }
  // O_EXCL also refuses a link at the leaf, dangling or not.
  const int fd =
      ::openat(level, leaf.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    const int code = errno;
    if (code == EEXIST && replace) {
      *error = shown + " was made again while being replaced";
    } else if (code == EEXIST) {
      const bool regular =
          ::fstatat(level, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
      *error =
          shown + (regular ? " exists (--force replaces it)" : " exists and is not a regular file");
    } else {
      *error = shown + ": " + std::strerror(code);
    }
    ::close(level);
    return false;
  }
  file->Abandon();
  file->m_directory = level;
  file->m_fd = fd;
  file->m_name = leaf;
  return true;
}

}  // namespace kest2_cli
