// "kest2 unpack": see unpack_command.h.

#include "kest2/unpack_command.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kest2.h"
#include "kest2/archive_reader.h"
#include "kest2/archive_session.h"
#include "kest2/error_words.h"
#include "kest2/progress.h"
#include "kest2/safe_names.h"
#include "kest2/target_directory.h"

namespace kest2_cli {

const char kUnpackHelp[] =
    "Writes every file of ARCHIVE below DIR, which is made when missing, with\n"
    "the directories the files' names need.  The names come from the archive's\n"
    "manifest and are checked first.  A name is refused, with a line naming it\n"
    "and the reason, when it is absolute (unless the archive says its names\n"
    "are, which then means below DIR), climbs out of DIR with '..', is empty or\n"
    "has an empty component, or holds a NUL or a control character; the other\n"
    "files are still written.  No symbolic link below DIR is followed, and an\n"
    "existing file is not overwritten unless --force is given.  A file that\n"
    "fails is removed, so every file left is complete.  File data is read\n"
    "through the library.\n"
    "\n"
    "Options:\n"
    "  --force    replace existing regular files (never a link or a directory)\n"
    "  --strict   write nothing when a name is refused\n"
    "\n"
    "Exit status: 0 when every file was written; 1 when a name was refused, a\n"
    "file could not be written, or the archive is missing or damaged; 2 on bad\n"
    "usage.\n";

namespace {

constexpr int64_t kTransferSize = 1 << 20;

bool WriteAll(int fd, const uint8_t* data, size_t length, std::string* error) {
  while (length > 0) {
    const ssize_t n = ::write(fd, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = std::strerror(n < 0 ? errno : EIO);
      return false;
    }
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

// Whether the library's lookups reach the entry of `name` as stored: they
// normalise the path ("\" to "/", "." and ".." resolved, "//" collapsed)
// and hash the result, keeping its leading "/" when the archive's names are
// absolute, so only a name already in that form finds its own entry.
bool LibraryReaches(const std::string& name, bool absolute) {
  if (name.find('\\') != std::string::npos || absolute != (name[0] == '/')) return false;
  std::vector<char> normal(name.size() + 2);
  const uint64_t length = zulKestPathNormalize(normal.data(), name.c_str(), normal.size());
  return length == name.size() && name.compare(0, name.size(), normal.data(), length) == 0;
}

// "manifest name 3 \"a/b\"": how a name is shown in messages.
std::string NameAt(size_t index, const std::string& name) {
  return "manifest name " + std::to_string(index + 1) + " \"" + EscapeName(name) + "\"";
}

class Unpacker {
 public:
  Unpacker(const std::string& archive, const std::string& directory, bool force, bool strict)
      : m_archive(archive), m_directory(directory), m_force(force), m_strict(strict) {}

  int Run();

 private:
  struct Planned {
    size_t index;  // in the manifest
    std::vector<std::string> components;
    int64_t entry;  // in the TOC; -1 when no entry has the name
  };

  int ArchiveFailure(const ReadProblem& problem) const;
  bool Write(const Planned& planned, uint32_t entry);
  bool CopyThroughLibrary(const std::string& name, uint64_t size, int fd, const std::string& shown);
  bool CopyThroughReader(const std::string& name, uint32_t entry, int fd, const std::string& shown);

  const std::string& m_archive;
  const std::string& m_directory;
  const bool m_force;
  const bool m_strict;
  ArchiveReader m_reader;
  TargetDirectory m_target;
  std::vector<std::string> m_names;
  bool m_absolute = false;  // the archive's names begin with "/"
  Progress* m_progress = nullptr;
  std::vector<uint8_t> m_buffers[2];
};

int Unpacker::ArchiveFailure(const ReadProblem& problem) const {
  std::fprintf(stderr, "kest2 unpack: %s: %s%s\n", m_archive.c_str(),
               problem.damaged ? "damaged archive: " : "", problem.what.c_str());
  return 1;
}

int Unpacker::Run() {
  ReadProblem problem;
  if (!m_reader.Open(m_archive, &problem) || !m_reader.ReadManifest(&m_names, &problem)) {
    return ArchiveFailure(problem);
  }
  m_absolute = (m_reader.header().archiveFlags & kest2::ZORBA_FLAG_ABSOLUTE_PATHS) != 0;

  // Every name is judged before anything is written, so that --strict
  // writes nothing at all.
  std::vector<Planned> plan;
  uint64_t totalBytes = 0;
  size_t refused = 0;
  for (size_t i = 0; i < m_names.size(); ++i) {
    CheckedName checked = CheckName(m_names[i], m_absolute);
    if (checked.verdict != NameVerdict::kSafe) {
      std::fprintf(stderr, "kest2 unpack: %s: %s refused: %s\n", m_archive.c_str(),
                   NameAt(i, m_names[i]).c_str(), VerdictWords(checked.verdict));
      ++refused;
      if (m_strict) break;
      continue;
    }
    const int64_t entry = m_reader.FindByName(m_names[i]);
    if (entry >= 0) totalBytes += kest2::GetEntrySize(m_reader.Entry(static_cast<uint32_t>(entry)));
    plan.push_back(Planned{i, std::move(checked.components), entry});
  }
  if (m_strict && refused > 0) {
    std::printf("%s: nothing written to %s: a name was refused and --strict was given\n",
                m_archive.c_str(), m_directory.c_str());
    return 1;
  }

  ArchiveSession session;
  const int32_t mounted = session.Mount(m_archive);
  if (mounted != ZUL_KEST_OK) return Fail("unpack", m_archive, mounted);
  std::string error;
  if (!m_target.Open(m_directory, &error)) {
    std::fprintf(stderr, "kest2 unpack: %s: %s\n", m_directory.c_str(), error.c_str());
    return 1;
  }

  Progress progress("unpack", totalBytes, plan.size());
  m_progress = &progress;
  m_buffers[0].resize(kTransferSize);
  m_buffers[1].resize(kTransferSize);
  size_t written = 0, failed = 0;
  uint64_t bytes = 0;
  for (const Planned& planned : plan) {
    if (planned.entry < 0) {
      std::fprintf(stderr, "kest2 unpack: %s: %s: no file in the archive has this name\n",
                   m_archive.c_str(), NameAt(planned.index, m_names[planned.index]).c_str());
      ++failed;
      continue;
    }
    const uint32_t entry = static_cast<uint32_t>(planned.entry);
    if (Write(planned, entry)) {
      ++written;
      bytes += kest2::GetEntrySize(m_reader.Entry(entry));
    } else {
      ++failed;
    }
    progress.Add(0, 1);
  }
  m_progress = nullptr;
  if (refused == 0 && failed == 0) {
    progress.Finish();
    std::printf("%s: %zu files, %llu bytes written to %s\n", m_archive.c_str(), written,
                static_cast<unsigned long long>(bytes), m_directory.c_str());
    return 0;
  }
  std::printf("%s: %zu of %zu files, %llu bytes written to %s; %zu %s refused, %zu %s failed\n",
              m_archive.c_str(), written, m_names.size(), static_cast<unsigned long long>(bytes),
              m_directory.c_str(), refused, refused == 1 ? "name" : "names", failed,
              failed == 1 ? "file" : "files");
  return 1;
}

bool Unpacker::Write(const Planned& planned, uint32_t entry) {
  const std::string& name = m_names[planned.index];
  NewFile file;
  std::string error;
  if (!m_target.Create(planned.components, m_force, &file, &error)) {
    std::fprintf(stderr, "kest2 unpack: %s: %s not written: %s\n", m_archive.c_str(),
                 NameAt(planned.index, name).c_str(), error.c_str());
    return false;
  }
  std::string shown = m_directory;
  for (const std::string& component : planned.components) shown += "/" + EscapeName(component);
  const bool copied =
      LibraryReaches(name, m_absolute)
          ? CopyThroughLibrary(name, kest2::GetEntrySize(m_reader.Entry(entry)), file.fd(), shown)
          : CopyThroughReader(name, entry, file.fd(), shown);
  if (!copied) return false;
  if (!file.Commit(&error)) {
    std::fprintf(stderr, "kest2 unpack: %s: %s\n", shown.c_str(), error.c_str());
    return false;
  }
  return true;
}

// Two reads stay in flight, so that the library reads the next piece while
// this one is written.  The reads ask for no byte past the file's size.
bool Unpacker::CopyThroughLibrary(const std::string& name, uint64_t size, int fd,
                                  const std::string& shown) {
  const std::string path = m_archive + (name[0] == '/' ? "" : "/") + name;
  ZulKestFH fh = 0;
  const int32_t opened = zulKestFHOpenSync(nullptr, &fh, path.c_str(), nullptr);
  if (opened != ZUL_KEST_OK) {
    Fail("unpack", EscapeName(path), opened);
    return false;
  }
  ZulKestOp pending[2] = {0, 0};
  int64_t asked[2] = {0, 0};
  uint64_t offset = 0;
  const auto issue = [&](int slot) {
    if (offset >= size) return;
    asked[slot] = static_cast<int64_t>(std::min<uint64_t>(kTransferSize, size - offset));
    pending[slot] = zulKestFHPread(nullptr, fh, m_buffers[slot].data(), asked[slot],
                                   static_cast<int64_t>(offset));
    offset += static_cast<uint64_t>(asked[slot]);
  };
  issue(0);
  issue(1);
  bool ok = true;
  for (int turn = 0; pending[turn] != 0; turn ^= 1) {
    const int64_t got = zulKestOpSyncWaitForIO(pending[turn]);
    pending[turn] = 0;
    std::string error;
    if (got < 0) {
      Fail("unpack", EscapeName(path), got);
      ok = false;
    } else if (got != asked[turn]) {
      std::fprintf(stderr, "kest2 unpack: %s: the library read %lld bytes where %lld were due\n",
                   EscapeName(path).c_str(), static_cast<long long>(got),
                   static_cast<long long>(asked[turn]));
      ok = false;
    } else if (!WriteAll(fd, m_buffers[turn].data(), static_cast<size_t>(got), &error)) {
      std::fprintf(stderr, "kest2 unpack: %s: %s\n", shown.c_str(), error.c_str());
      ok = false;
    }
    if (!ok) break;
    m_progress->Add(static_cast<uint64_t>(got));
    issue(turn);
  }
  for (ZulKestOp op : pending) {
    if (op != 0) zulKestOpSyncWait(op);
  }
  zulKestFHCloseSync(nullptr, fh);
  return ok;
}

bool Unpacker::CopyThroughReader(const std::string& name, uint32_t entry, int fd,
                                 const std::string& shown) {
  std::string writeError;
  ReadProblem problem;
  const bool read = m_reader.ReadEntry(
      entry, EscapeName(name),
      [&](const uint8_t* bytes, size_t length) {
        if (!WriteAll(fd, bytes, length, &writeError)) return false;
        m_progress->Add(length);
        return true;
      },
      &problem);
  if (read) return true;
  if (!writeError.empty()) {
    std::fprintf(stderr, "kest2 unpack: %s: %s\n", shown.c_str(), writeError.c_str());
  } else {
    ArchiveFailure(problem);
  }
  return false;
}

}  // namespace

int Unpack(const Arguments& arguments) {
  bool force = false, strict = false;
  std::vector<std::string> operands;
  const int status =
      ParseFlags("unpack", arguments,
                 {{"--force", nullptr, &force}, {"--strict", nullptr, &strict}}, &operands);
  if (status != 0) return status;
  if (operands.size() != 2) return UsageError("unpack", "expects ARCHIVE and DIR");
  Unpacker unpacker(operands[0], operands[1], force, strict);
  return unpacker.Run();
}

}  // namespace kest2_cli
