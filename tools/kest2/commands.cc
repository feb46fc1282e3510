// The subcommands of the kest2 program: see commands.h.

#include "kest2/commands.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "kest2.h"
#include "kest2/archive_session.h"
#include "kest2/demo_command.h"
#include "kest2/library_session.h"
#include "kest2/pack_command.h"

namespace kest2_cli {
namespace {

constexpr int64_t kTransferSize = 1 << 20;

int Fail(const char* command, const std::string& path, int64_t code) {
  std::fprintf(stderr, "kest2 %s: %s: %s\n", command, path.c_str(), ErrorName(code).c_str());
  return 1;
}

// Streams a file to standard output: two reads stay in flight so that the
// library reads the next piece while this one is written out.
int CatFiles(const Arguments& paths);

// `cat ARCHIVE PATH...` reads paths inside the archive; any other form
// reads files.
int Cat(const Arguments& arguments) {
  if (arguments.size() < 2 || !LooksLikeArchive(arguments[0])) return CatFiles(arguments);
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

struct Listed {
  std::string name;
  int64_t size;
  bool directory;
};

int ListDirectory(const std::string& path);

// `ls ARCHIVE` lists the archive's top directory.
int Ls(const Arguments& arguments) {
  const std::string path = arguments.empty() ? std::string(".") : arguments[0];
  if (!LooksLikeArchive(path)) return ListDirectory(path);
  ArchiveSession archive;
  const int32_t mounted = archive.Mount(path);
  if (mounted != ZUL_KEST_OK) return Fail("ls", path, mounted);
  return ListDirectory(path);
}

int ListDirectory(const std::string& path) {
  // The listing keeps its state in the caller's buffer; when it is too
  // small the open says how much it needs.
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
    if (result != ZUL_KEST_OK) return Fail("ls", path, result);
    break;
  }
  std::vector<Listed> entries;
  ZulKestDirEntry entry;
  int32_t result;
  while ((result = zulKestDHReadSync(nullptr, dh, &entry)) == ZUL_KEST_OK) {
    entries.push_back(Listed{entry.fullPath + entry.offsetToName, entry.fileSize,
                             (entry.statFlags & ZUL_KEST_STAT_DIRECTORY) != 0});
  }
  zulKestDHCloseSync(nullptr, dh);
  if (result != ZUL_KEST_ERROR_EOF) return Fail("ls", path, result);
  std::sort(entries.begin(), entries.end(),
            [](const Listed& a, const Listed& b) { return a.name < b.name; });
  for (const Listed& listed : entries) {
    std::printf("%c %12lld  %s%s\n", listed.directory ? 'd' : '-',
                static_cast<long long>(listed.size), listed.name.c_str(),
                listed.directory ? "/" : "");
  }
  return 0;
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

int Cp(const Arguments& arguments) {
  const std::string& source = arguments[0];
  const std::string& target = arguments[1];
  ZulKestFH in = 0;
  int32_t result = zulKestFHOpenSync(nullptr, &in, source.c_str(), nullptr);
  if (result != ZUL_KEST_OK) return Fail("cp", source, result);
  ZulKestOpenParams writing{};
  writing.openFlags = ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT | ZUL_KEST_O_TRUNC;
  ZulKestFH out = 0;
  result = zulKestFHOpenSync(nullptr, &out, target.c_str(), &writing);
  if (result != ZUL_KEST_OK) {
    zulKestFHCloseSync(nullptr, in);
    return Fail("cp", target, result);
  }
  std::vector<char> buffer(kTransferSize);
  int status = 0;
  for (int64_t offset = 0;;) {
    const int64_t got = zulKestFHPreadSync(nullptr, in, buffer.data(), kTransferSize, offset);
    if (got < 0) {
      status = Fail("cp", source, got);
      break;
    }
    if (got == 0) break;
    const int64_t put = zulKestFHPwriteSync(nullptr, out, buffer.data(), got, offset);
    if (put != got) {
      status = Fail("cp", target, put < 0 ? put : ZUL_KEST_ERROR_EOF);
      break;
    }
    offset += got;
  }
  zulKestFHCloseSync(nullptr, in);
  result = zulKestFHCloseSync(nullptr, out);
  if (status == 0 && result != ZUL_KEST_OK) status = Fail("cp", target, result);
  return status;
}

const Command kCommands[] = {
    {"cat", "PATH...", "write files to standard output",
     "Reads each file through the library, two 1 MiB reads in flight, and writes\n"
     "it to standard output.  'kest2 cat ARCHIVE PATH...' writes files stored in\n"
     "an archive made by 'kest2 pack'.\n",
     1, SIZE_MAX, Cat},
    {"ls", "[DIR|ARCHIVE]", "list a directory or an archive",
     "Lists the directory (default: the current one), one entry per line: type\n"
     "('d' or '-'), size in bytes and name, sorted by name.  Given an archive\n"
     "made by 'kest2 pack', lists the archive's top directory.\n",
     0, 1, Ls},
    {"stat", "PATH...", "show the status of files and directories",
     "Prints type, size, mode, the owner's access and the modification and\n"
     "access dates of each path.\n",
     1, SIZE_MAX, Stat},
    {"cp", "SRC DST", "copy a file",
     "Copies SRC to DST through the library in 1 MiB pieces; DST is created or\n"
     "truncated.\n",
     2, 2, Cp},
    {"pack", "[OPTIONS] DIR ARCHIVE", "pack a directory into an archive", kPackHelp, 2, SIZE_MAX,
     Pack, false},
    {"demo", "[--files N] [--dir DIR]", "stream a generated, packed and overlaid data set", kDemoHelp, 0,
     4, Demo},
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
