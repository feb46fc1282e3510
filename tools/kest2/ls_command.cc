// "kest2 ls": see ls_command.h.

#include "kest2/ls_command.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kest2.h"
#include "kest2/archive_session.h"
#include "kest2/error_words.h"
#include "kest2/safe_names.h"

namespace kest2_cli {

const char kLsHelp[] =
    "Lists the directory (default: the current one), one entry per line: type\n"
    "('d' or '-'), size in bytes and name, sorted by name.  Given an archive\n"
    "made by 'kest2 pack', lists the archive's top directory; 'ls ARCHIVE PATH'\n"
    "and 'ls ARCHIVE/PATH' list the directory PATH inside it.  Names are\n"
    "printed as stored, with control characters escaped ('\\n', '\\033',\n"
    "'\\x7f'; a backslash as '\\\\'), so that no name can steer the terminal.\n"
    "\n"
    "  -R    list every directory below too, each under a 'PATH:' heading and\n"
    "        after a blank line; links to directories and the names '.' and\n"
    "        '..' are listed but not entered\n"
    "\n"
    "Exit status: 0 when every directory was listed, 1 when one could not be,\n"
    "2 on bad usage.\n";

namespace {

struct Listed {
  std::string name;
  int64_t size;
  bool directory;
};

// The library keeps a listing's state in the caller's buffer; when it is
// too small the open says how much it needs.
int32_t ReadDirectory(const std::string& path, std::vector<Listed>* entries) {
  std::vector<uint64_t> buffer(0x20000 / 8);
  ZulKestDH dh = 0;
  for (;;) {
    const ZulKestOp op = zulKestDHOpen(nullptr, &dh, path.c_str(), buffer.data(),
                                       static_cast<int64_t>(buffer.size() * 8));
    const int32_t result = zulKestOpWait(op);
    const int64_t needed = zulKestOpGetActualCount(op);
    zulKestOpDelete(op);
    if (result == ZUL_KEST_ERROR_BAD_SIZE && needed > static_cast<int64_t>(buffer.size() * 8)) {
      buffer.assign(static_cast<size_t>(needed + 7) / 8, 0);
      continue;
    }
    if (result != ZUL_KEST_OK) return result;
    break;
  }
  ZulKestDirEntry entry;
  int32_t result;
  while ((result = zulKestDHReadSync(nullptr, dh, &entry)) == ZUL_KEST_OK) {
    entries->push_back(Listed{entry.fullPath + entry.offsetToName, entry.fileSize,
                              (entry.statFlags & ZUL_KEST_STAT_DIRECTORY) != 0});
  }
  zulKestDHCloseSync(nullptr, dh);
  std::sort(entries->begin(), entries->end(),
            [](const Listed& a, const Listed& b) { return a.name < b.name; });
  return result == ZUL_KEST_ERROR_EOF ? ZUL_KEST_OK : result;
}

std::string Join(const std::string& directory, const std::string& name) {
  return directory.empty() || directory.back() == '/' ? directory + name : directory + "/" + name;
}

// Whether -R goes into a listed directory.  "." and ".." would lead back up
// (an archive may hold such names; the library resolves them), and a link
// to a directory may lead round in a circle, so neither is entered.  Paths
// inside an archive are not on disk, so lstat finds no link there.
bool Enters(const std::string& path, const Listed& listed) {
  if (!listed.directory || listed.name == "." || listed.name == "..") return false;
  struct stat st;
  return ::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode);
}

class Lister {
 public:
  explicit Lister(bool recursive) : m_recursive(recursive) {}

  void List(const std::string& path) {
    std::vector<Listed> entries;
    const int32_t result = ReadDirectory(path, &entries);
    if (result != ZUL_KEST_OK) {
      m_status = Fail("ls", EscapeName(path), result);
      return;
    }
    if (m_recursive) std::printf("%s%s:\n", m_first ? "" : "\n", EscapeName(path).c_str());
    m_first = false;
    for (const Listed& listed : entries) {
      std::printf("%c %12lld  %s%s\n", listed.directory ? 'd' : '-',
                  static_cast<long long>(listed.size), EscapeName(listed.name).c_str(),
                  listed.directory ? "/" : "");
    }
    if (!m_recursive) return;
    for (const Listed& listed : entries) {
      const std::string child = Join(path, listed.name);
      if (Enters(child, listed)) List(child);
    }
  }

  int status() const { return m_status; }

 private:
  const bool m_recursive;
  bool m_first = true;
  int m_status = 0;
};

}  // namespace

int Ls(const Arguments& arguments) {
  bool recursive = false;
  std::vector<std::string> operands;
  if (const int status =
          ParseFlags("ls", arguments, {{"-R", "--recursive", &recursive}}, &operands))
    return status;
  if (operands.size() > 2) return UsageError("ls", "expects [DIR | ARCHIVE [PATH]]");
  std::string archive, inside;
  if (operands.size() == 2) {
    archive = operands[0];
    inside = operands[1];
    if (!LooksLikeArchive(archive)) {
      const bool exists = zulKestExistsSync(nullptr, archive.c_str());
      return Fail("ls", archive, exists ? ZUL_KEST_ERROR_BAD_ARCHIVE : ZUL_KEST_ERROR_BAD_PATH);
    }
  } else if (operands.size() == 1) {
    if (LooksLikeArchive(operands[0])) {
      archive = operands[0];
    } else {
      SplitArchivePath(operands[0], &archive, &inside);
    }
  }
  Lister lister(recursive);
  if (archive.empty()) {
    lister.List(operands.empty() ? std::string(".") : operands[0]);
    return lister.status();
  }
  ArchiveSession session;
  const int32_t mounted = session.Mount(archive);
  if (mounted != ZUL_KEST_OK) return Fail("ls", archive, mounted);
  while (!inside.empty() && inside.front() == '/') inside.erase(0, 1);
  lister.List(inside.empty() ? archive : Join(archive, inside));
  return lister.status();
}

}  // namespace kest2_cli
