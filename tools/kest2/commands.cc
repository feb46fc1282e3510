// The subcommands of the kest2 program: see commands.h.

#include "kest2/commands.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>

#include "kest2.h"
#include "kest2/archive_session.h"
#include "kest2/demo_command.h"
#include "kest2/error_words.h"
#include "kest2/library_session.h"
#include "kest2/ls_command.h"
#include "kest2/pack_command.h"
#include "kest2/progress.h"
#include "kest2/timeline_command.h"
#include "kest2/unpack_command.h"
#include "kest2/verify_command.h"

namespace kest2_cli {

int ParseFlags(const char* command, const Arguments& arguments, std::initializer_list<Flag> flags,
               std::vector<std::string>* operands) {
  bool optionsEnded = false;
  for (const std::string& argument : arguments) {
    if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
      operands->push_back(argument);
      continue;
    }
    if (argument == "--") {
      optionsEnded = true;
      continue;
    }
    const Flag* known = std::find_if(flags.begin(), flags.end(), [&argument](const Flag& flag) {
      return argument == flag.name || (flag.alias != nullptr && argument == flag.alias);
    });
    if (known == flags.end()) return UsageError(command, "unknown option " + argument);
    *known->value = true;
  }
  return 0;
}

namespace {

constexpr int64_t kTransferSize = 1 << 20;

// Streams a file to standard output: two reads stay in flight so that the
// library reads the next piece while this one is written out.
int CatFiles(const Arguments& paths);

// Reads the paths, mounting each archive file that one of them passes
// through (ARCHIVE/PATH) at its own path, once.  A path under an archive
// that cannot be mounted is reported with the archive.
int CatThroughArchives(const Arguments& paths) {
  std::map<std::string, std::unique_ptr<ArchiveSession>> mounted;
  std::map<std::string, bool> usable;
  Arguments readable;
  int status = 0;
  for (const std::string& path : paths) {
    std::string archive, inside;
    if (SplitArchivePath(path, &archive, &inside)) {
      if (usable.count(archive) == 0) {
        // Each archive gets a filter slot of its own.
        auto session = std::make_unique<ArchiveSession>(static_cast<int>(mounted.size()));
        const int32_t result = session->Mount(archive);
        usable[archive] = result == ZUL_KEST_OK;
        if (result != ZUL_KEST_OK) status = Fail("cat", archive, result);
        mounted[archive] = std::move(session);
      }
      if (!usable[archive]) continue;
    }
    readable.push_back(path);
  }
  return std::max(status, CatFiles(readable));
}

// `cat ARCHIVE PATH...` reads paths inside the archive; any other form
// reads files, loose or inside archives (ARCHIVE/PATH).
int Cat(const Arguments& arguments) {
  if (arguments.size() < 2 || !LooksLikeArchive(arguments[0])) return CatThroughArchives(arguments);
  ArchiveSession archive;
  const int32_t mounted = archive.Mount(arguments[0]);
  if (mounted != ZUL_KEST_OK) return Fail("cat", arguments[0], mounted);
  Arguments inside;
  for (size_t i = 1; i < arguments.size(); ++i) {
    const std::string& path = arguments[i];
    inside.push_back(arguments[0] + (path.empty() || path[0] != '/' ? "/" : "") + path);
  }
  return CatFiles(inside);
}

int CatFiles(const Arguments& paths) {
  std::vector<char> buffers[2] = {std::vector<char>(kTransferSize),
                                  std::vector<char>(kTransferSize)};
  int status = 0;
  for (const std::string& path : paths) {
    ZulKestFH fh = 0;
    const int32_t opened = zulKestFHOpenSync(nullptr, &fh, path.c_str(), nullptr);
    if (opened != ZUL_KEST_OK) {
      status = Fail("cat", path, opened);
      continue;
    }
    int64_t offset = 0;
    ZulKestOp pending[2];
    for (int i = 0; i < 2; ++i) {
      pending[i] = zulKestFHPread(nullptr, fh, buffers[i].data(), kTransferSize, offset);
      offset += kTransferSize;
    }
    for (int turn = 0;; turn ^= 1) {
      const int64_t got = zulKestOpSyncWaitForIO(pending[turn]);
      pending[turn] = 0;
      if (got < 0) {
        status = Fail("cat", path, got);
        break;
      }
      std::fwrite(buffers[turn].data(), 1, static_cast<size_t>(got), stdout);
      if (got < kTransferSize) break;
      pending[turn] = zulKestFHPread(nullptr, fh, buffers[turn].data(), kTransferSize, offset);
      offset += kTransferSize;
    }
    for (ZulKestOp op : pending) {
      if (op != 0) zulKestOpSyncWait(op);
    }
    zulKestFHCloseSync(nullptr, fh);
  }
  std::fflush(stdout);
  return status;
}

int Stat(const Arguments& paths) {
  int status = 0;
  for (const std::string& path : paths) {
    ZulKestStat st;
    const int32_t result = zulKestStatSync(nullptr, path.c_str(), &st);
    if (result != ZUL_KEST_OK) {
      status = Fail("stat", path, result);
      continue;
    }
    char modified[64], accessed[64];
    std::printf("%s\n  type:     %s\n  size:     %lld bytes\n  mode:     %04llo\n"
                "  access:   %s%s\n  modified: %s\n  accessed: %s\n",
                path.c_str(), (st.statFlags & ZUL_KEST_STAT_DIRECTORY) ? "directory" : "file",
                static_cast<long long>(st.fileSize), static_cast<unsigned long long>(st.mode & 07777),
                (st.statFlags & ZUL_KEST_STAT_READABLE) ? "read" : "",
                (st.statFlags & ZUL_KEST_STAT_WRITABLE) ? " write" : "",
                zulKestDebugDumpDate(st.modificationDate, modified, sizeof(modified)),
                zulKestDebugDumpDate(st.accessDate, accessed, sizeof(accessed)));
  }
  return status;
}

// The copy is written to a temporary name beside the target and renamed
// over it only once every byte is written and the handle closed, so that a
// failed copy (a full disk, a read error) leaves the target as it was.
class TemporaryCopy {
 public:
  explicit TemporaryCopy(const std::string& target) : m_target(target) {}
  ~TemporaryCopy() {
    if (m_fh != 0) zulKestFHCloseSync(nullptr, m_fh);
    if (!m_path.empty()) zulKestFileDeleteSync(nullptr, m_path.c_str());
  }
  TemporaryCopy(const TemporaryCopy&) = delete;
  TemporaryCopy& operator=(const TemporaryCopy&) = delete;

  // Creates TARGET.XXXXXX with the given permission bits (the process's
  // umask applies, as for any new file).  The library has no exclusive
  // create, so a name already taken is skipped and six random characters
  // make a collision with a file created in between unlikely.
  int32_t Create(int32_t mode) {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::random_device device;
    std::string candidate;
    for (int attempt = 0; attempt < 100; ++attempt) {
      candidate = m_target + ".";
      for (int i = 0; i < 6; ++i) candidate += kLetters[device() % (sizeof(kLetters) - 1)];
      if (!zulKestExistsSync(nullptr, candidate.c_str())) break;
    }
    ZulKestOpenParams writing{};
    writing.openFlags = ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT | ZUL_KEST_O_TRUNC;
    const int32_t result =
        zulKestFHOpenWithModeSync(nullptr, &m_fh, candidate.c_str(), &writing, mode);
    if (result != ZUL_KEST_OK) {
      m_fh = 0;
      return result;
    }
    m_path = candidate;
    return ZUL_KEST_OK;
  }

  ZulKestFH fh() const { return m_fh; }

  // Closes the handle and renames the file over the target.  On failure
  // the destructor removes the temporary file.
  int32_t Commit() {
    const int32_t closed = zulKestFHCloseSync(nullptr, m_fh);
    m_fh = 0;
    if (closed != ZUL_KEST_OK) return closed;
    const int32_t renamed = zulKestRenameSync(nullptr, m_path.c_str(), m_target.c_str());
    if (renamed == ZUL_KEST_OK) m_path.clear();
    return renamed;
  }

 private:
  const std::string& m_target;
  std::string m_path;
  ZulKestFH m_fh = 0;
};

// The library reports a write the file system has no room for (ENOSPC,
// EDQUOT, EFBIG) as ZUL_KEST_ERROR_BAD_SIZE; for a write that can only mean
// the space ran out, and the line says so.  A write that moves fewer bytes
// than asked without an error is reported as the same shortage.
int FailWrite(const std::string& target, int64_t code, int64_t written, int64_t total) {
  const std::string name = ErrorName(ZUL_KEST_ERROR_BAD_SIZE);
  if (code >= 0) {
    std::fprintf(stderr, "kest2 cp: %s: out of space after %lld of %lld bytes (%s)\n",
                 target.c_str(), static_cast<long long>(written), static_cast<long long>(total),
                 name.c_str());
    return 1;
  }
  if (code == ZUL_KEST_ERROR_BAD_SIZE) {
    std::fprintf(stderr,
                 "kest2 cp: %s: out of space (file system full, over quota or past the file "
                 "size limit) (%s)\n",
                 target.c_str(), name.c_str());
    return 1;
  }
  return Fail("cp", target, code);
}

int Cp(const Arguments& arguments) {
  const std::string& source = arguments[0];
  const std::string& target = arguments[1];
  ZulKestFH in = 0;
  int32_t result = zulKestFHOpenSync(nullptr, &in, source.c_str(), nullptr);
  if (result != ZUL_KEST_OK) return Fail("cp", source, result);
  // The copy takes the source's permission bits (not its set-id bits).
  ZulKestStat st;
  result = zulKestFHStatSync(nullptr, in, &st);
  if (result != ZUL_KEST_OK) {
    zulKestFHCloseSync(nullptr, in);
    return Fail("cp", source, result);
  }
  int status = 0;
  {
    TemporaryCopy out(target);
    result = out.Create(static_cast<int32_t>(st.mode & 0777));
    if (result != ZUL_KEST_OK) {
      status = Fail("cp", target, result);
    } else {
      std::vector<char> buffer(kTransferSize);
      Progress progress("cp", static_cast<uint64_t>(st.fileSize), 0);
      for (int64_t offset = 0;;) {
        const int64_t got = zulKestFHPreadSync(nullptr, in, buffer.data(), kTransferSize, offset);
        if (got < 0) {
          status = Fail("cp", source, got);
          break;
        }
        if (got == 0) break;
        const int64_t put = zulKestFHPwriteSync(nullptr, out.fh(), buffer.data(), got, offset);
        if (put != got) {
          status = FailWrite(target, put, offset + std::max<int64_t>(put, 0), st.fileSize);
          break;
        }
        offset += got;
        progress.Add(static_cast<uint64_t>(got));
      }
      if (status == 0) {
        result = out.Commit();
        if (result != ZUL_KEST_OK) status = FailWrite(target, result, 0, st.fileSize);
      }
      if (status == 0) progress.Finish();
    }
  }
  zulKestFHCloseSync(nullptr, in);
  return status;
}

const Command kCommands[] = {
    {"cat", "PATH...", "write files to standard output",
     "Reads each file through the library, two 1 MiB reads in flight, and writes\n"
     "it to standard output.  'kest2 cat ARCHIVE PATH...' and 'kest2 cat\n"
     "ARCHIVE/PATH' write files stored in an archive made by 'kest2 pack'.\n",
     1, SIZE_MAX, Cat},
    {"ls", "[-R] [DIR|ARCHIVE [PATH]]", "list a directory, or one in an archive", kLsHelp, 0, 4,
     Ls},
    {"stat", "PATH...", "show the status of files and directories",
     "Prints type, size, mode, the owner's access and the modification and\n"
     "access dates of each path.\n",
     1, SIZE_MAX, Stat},
    {"cp", "SRC DST", "copy a file",
     "Copies SRC to DST through the library in 1 MiB pieces.  The copy is written\n"
     "to a temporary file beside DST and renamed over DST only when complete, so\n"
     "a failed copy leaves DST as it was.  The copy gets SRC's permission bits\n"
     "(less the umask).\n",
     2, 2, Cp},
    {"pack", "[OPTIONS] DIR ARCHIVE", "pack a directory into an archive", kPackHelp, 2, SIZE_MAX,
     Pack, false},
    {"unpack", "[OPTIONS] ARCHIVE DIR", "write an archive's files into a directory", kUnpackHelp, 2,
     5, Unpack},
    {"verify", "ARCHIVE", "check every block and name of an archive", kVerifyHelp, 1, 2, Verify,
     false},
    {"demo", "[--files N] [--dir DIR]", "stream a generated, packed and overlaid data set",
     kDemoHelp, 0, 4, Demo},
    {"timeline", "FILE [--svg OUT]", "draw a trace written by --timeline", kTimelineHelp, 1, 4,
     TimelineCommand, false},
    {nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr},
};

}  // namespace

const Command* Commands() { return kCommands; }

const Command* FindCommand(const std::string& name) {
  for (const Command* command = kCommands; command->name != nullptr; ++command) {
    if (name == command->name) return command;
  }
  return nullptr;
}

}  // namespace kest2_cli
