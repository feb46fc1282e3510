// Writing files below one directory, never outside it: what `kest2 unpack`
// writes through.  Names come in as components already checked (see
// safe_names.h), so none is "..", empty or absolute; what is left is the
// file system itself.  A symbolic link planted under the directory (by an
// earlier archive, by whoever else can write there) would carry a write
// out of it, so every level is opened from the one above with openat and
// O_NOFOLLOW, and the file is created with O_EXCL | O_NOFOLLOW: a link met
// anywhere below the directory stops the write instead of being followed,
// and nothing is checked first and used later, so there is no window in
// which a link could be swapped in.  An existing file is never
// overwritten unless asked, and then only a regular file, which is removed
// and created anew (a hard link to a file elsewhere loses that name; its
// other names keep their bytes).
#ifndef KEST2_TOOLS_KEST2_TARGET_DIRECTORY_H_
#define KEST2_TOOLS_KEST2_TARGET_DIRECTORY_H_

#include <string>
#include <vector>

namespace kest2_cli {

// A file being written.  It is removed again unless Commit succeeds, so
// that a file left behind is always complete.
class NewFile {
 public:
  NewFile() = default;
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  int fd() const { return m_fd; }
  // Closes the file and keeps it.  False, with *error the host's words,
  // when the close reports an error; the file is then removed.
  bool Commit(std::string* error);

 private:
  friend class TargetDirectory;
  void Abandon();

  int m_directory = -1;  // the level the file is in
  int m_fd = -1;
  std::string m_name;
};

class TargetDirectory {
 public:
  TargetDirectory() = default;
  ~TargetDirectory();
  TargetDirectory(const TargetDirectory&) = delete;
  TargetDirectory& operator=(const TargetDirectory&) = delete;

  // Opens the directory, making it and its missing parents first.  The
  // path is the user's own, so links in it are followed.
  bool Open(const std::string& path, std::string* error);

  // Creates the file at components[0]/.../components[n-1] below the
  // directory with mode 0644 (directories made on the way 0755; the umask
  // applies).  replace: an existing regular file is replaced.  False, with
  // *error in words naming the level that stopped it ("out/a is a symbolic
  // link, which unpack does not follow").
  bool Create(const std::vector<std::string>& components, bool replace, NewFile* file,
              std::string* error);

 private:
  std::string m_path;
  int m_fd = -1;
};

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_TARGET_DIRECTORY_H_
