// Mounted archives and their lookups: see archive_tracker.h.

#include "archive/archive_tracker.h"

#include <cstring>

#include "core/handletable.h"
#include "core/records.h"
#include "debug/dump.h"
#include "debug/trace.h"

namespace kest2 {
namespace {

HybPlatformMutex g_dearchiverMutex;
int32_t g_nextArchiveId = 1;

// Archives seen before, by a digest of their header fields, TOC and
// manifest, so that an archive unmounted and mounted again gets its old ID
// back and handles opened through it work again.  Guarded by the
// dearchiver mutex; the oldest memory goes first.
constexpr int kRememberedArchives = 64;
struct RememberedArchive {
  uint8_t digest[kMd5DigestSize];
  int32_t id;
};
RememberedArchive g_remembered[kRememberedArchives];
int g_rememberedNext;

constexpr size_t kDirectoryKeyMax = 1024;

uint64_t RoundUp8(uint64_t value) { return (value + 7) & ~uint64_t{7}; }

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

bool IgnoresCase(const ArchiveTracker* tracker) {
  return (tracker->header.archiveFlags & ZORBA_FLAG_IGNORE_CASE) != 0;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Compares n bytes the way the archive sorts its manifest: signed bytes, or
// ASCII-lowered unsigned bytes when it ignores case.
int CompareKeyed(const ArchiveTracker* tracker, const char* a, const char* b, size_t n) {
  const bool fold = IgnoresCase(tracker);
  for (size_t i = 0; i < n; ++i) {
    int x, y;
    if (fold) {
      x = static_cast<unsigned char>(Lower(a[i]));
      y = static_cast<unsigned char>(Lower(b[i]));
    } else {
      x = static_cast<signed char>(a[i]);
      y = static_cast<signed char>(b[i]);
    }
    if (x != y) return x - y;
    if (a[i] == '\0') return 0;
  }
  return 0;
}

// Whether path begins with key (n bytes) at a component boundary.
bool BeginsWithDirectory(const ArchiveTracker* tracker, const char* path, const char* key,
                         size_t n) {
  if (std::strlen(path) < n || CompareKeyed(tracker, path, key, n) != 0) return false;
  return n == 0 || IsSeparator(key[n - 1]) || path[n] == '\0' || IsSeparator(path[n]);
}

// The first component of path after the directory key.
void ChildAfter(const char* path, size_t keyLength, char* name, size_t size) {
  const char* start = path + keyLength;
  while (IsSeparator(*start)) ++start;
  size_t length = 0;
  while (start[length] != '\0' && !IsSeparator(start[length])) ++length;
  if (length >= size) length = size - 1;
  std::memcpy(name, start, length);
  name[length] = '\0';
}

// The directory key the manifest is searched with.
size_t DirectoryKey(const ArchiveTracker* tracker, const char* directory, char* key) {
  size_t n = 0;
  if ((tracker->header.archiveFlags & ZORBA_FLAG_ABSOLUTE_PATHS) != 0 && directory[0] != '/')
    key[n++] = '/';
  for (const char* c = directory; *c != '\0' && n < kDirectoryKeyMax; ++c)
    key[n++] = *c == '\\' ? '/' : *c;
  key[n] = '\0';
  return n;
}

// Identical archives (header fields up to tocSize, TOC and manifest) share
// an ID, so handles into one stay valid across an unmount and remount.
bool SameArchive(const ArchiveTracker* a, const ArchiveTracker* b) {
  return a->manifestSize == b->manifestSize && a->manifestPathCount == b->manifestPathCount &&
         a->header.magic == b->header.magic && a->header.version == b->header.version &&
         a->header.compression == b->header.compression &&
         a->header.tocLength == b->header.tocLength &&
         a->header.tocEntrySize == b->header.tocEntrySize &&
         a->header.tocEntryCount == b->header.tocEntryCount &&
         a->header.blockSize == b->header.blockSize &&
         a->header.archiveFlags == b->header.archiveFlags &&
         a->header.tocOffset == b->header.tocOffset && a->header.tocSize == b->header.tocSize &&
         std::memcmp(a->toc, b->toc, a->header.tocLength) == 0 &&
         std::memcmp(a->manifestText, b->manifestText, a->manifestSize) == 0;
}

void ArchiveDigest(const ArchiveTracker* tracker, uint8_t* digest) {
  const ZorbaHeader& h = tracker->header;
  const uint64_t fields[] = {
      h.magic,        h.version,       h.compression,         h.tocLength,
      h.tocEntrySize, h.tocEntryCount, h.blockSize,           h.archiveFlags,
      h.tocOffset,    h.tocSize,       tracker->manifestSize, tracker->manifestPathCount};
  Md5Context md5;
  Md5Init(&md5);
  Md5Update(&md5, fields, sizeof(fields));
  Md5Update(&md5, tracker->toc, h.tocLength);
  Md5Update(&md5, tracker->manifestText, tracker->manifestSize);
  Md5Final(&md5, digest);
}

const char* HandlePathText(uint32_t h) {
  const FileHandle* file = Lookup<FileHandle>(kFhTable, h);
  return file != nullptr ? GetPath(&file->path) : "";
}

}  // namespace

HybPlatformMutex* DearchiverMutex() { return &g_dearchiverMutex; }

bool DearchiverMutexHeld() {
  return ThreadIdEqual(MutexOwner(&g_dearchiverMutex), CurrentThreadId());
}

uint64_t MountPointArea(uint64_t mountPointLength) {
  return mountPointLength + 1 <= 255 ? 256 : RoundUp8(mountPointLength + 1);
}

MountLayout ComputeMountLayout(const ZorbaHeader& header, uint64_t mountPointArea,
                               uint64_t manifestSize) {
  MountLayout layout;
  layout.mountPoint = kTrackerSize;
  layout.blockIndex = layout.mountPoint + mountPointArea;
  layout.toc = layout.blockIndex + RoundUp8(BlockIndexSize(header));
  layout.manifestPaths = layout.toc + RoundUp8(header.tocLength);
  layout.manifestText =
      layout.manifestPaths +
      8 * static_cast<uint64_t>(header.tocEntryCount > 0 ? header.tocEntryCount - 1 : 0);
  layout.total = layout.manifestText + manifestSize + 1;
  return layout;
}

void AddMountedArchive(ZulKestZorbaDearchiverContext* context, ArchiveTracker* tracker) {
  tracker->id = 0;
  for (ArchiveTracker* other = ArchiveList(context); other != nullptr; other = other->next) {
    if (!SameArchive(tracker, other)) continue;
    KEST2_TRACE(kTraceZorba, "AllocateID",
                "duplicate archives detected, assigning same ID to both. FHs 0x%08X (%s) and "
                "0x%08X (%s).\n",
                tracker->archiveHandle, HandlePathText(tracker->archiveHandle),
                other->archiveHandle, HandlePathText(other->archiveHandle));
    tracker->id = other->id;
    break;
  }
  uint8_t digest[kMd5DigestSize];
  ArchiveDigest(tracker, digest);
  for (const RememberedArchive& seen : g_remembered) {
    if (tracker->id == 0 && seen.id != 0 && std::memcmp(seen.digest, digest, sizeof(digest)) == 0)
      tracker->id = seen.id;
  }
  if (tracker->id == 0) {
    tracker->id = __atomic_fetch_add(&g_nextArchiveId, 1, __ATOMIC_ACQ_REL);
    RememberedArchive& slot = g_remembered[g_rememberedNext];
    g_rememberedNext = (g_rememberedNext + 1) % kRememberedArchives;
    std::memcpy(slot.digest, digest, sizeof(digest));
    slot.id = tracker->id;
  }
  tracker->next = ArchiveList(context);
  SetArchiveList(context, tracker);
}

ArchiveTracker* RemoveMountedArchive(ZulKestZorbaDearchiverContext* context, uint32_t h) {
  ArchiveTracker* previous = nullptr;
  for (ArchiveTracker* tracker = ArchiveList(context); tracker != nullptr;
       tracker = tracker->next) {
    if (tracker->archiveHandle == h) {
      if (previous == nullptr) {
        SetArchiveList(context, tracker->next);
      } else {
        previous->next = tracker->next;
      }
      tracker->next = nullptr;
      return tracker;
    }
    previous = tracker;
  }
  return nullptr;
}

ArchiveTracker* FindArchiveById(ZulKestZorbaDearchiverContext* context, int32_t id) {
  for (ArchiveTracker* t = ArchiveList(context); t != nullptr; t = t->next) {
    if (t->id == id) return t;
  }
  return nullptr;
}

ArchiveTracker* FindArchiveByHandle(ZulKestZorbaDearchiverContext* context, uint32_t h) {
  for (ArchiveTracker* t = ArchiveList(context); t != nullptr; t = t->next) {
    if (t->archiveHandle == h) return t;
  }
  return nullptr;
}

bool MountPointCovers(const ArchiveTracker* tracker, const char* path, const char** relative) {
  const size_t length = tracker->mountPointLength;
  const char* mount = tracker->mountPoint;
  if (std::strlen(path) < length) return false;
  const bool fold = IgnoresCase(tracker);
  for (size_t i = 0; i < length; ++i) {
    if (fold ? Lower(path[i]) != Lower(mount[i]) : path[i] != mount[i]) return false;
  }
  if (!(length == 0 || IsSeparator(mount[length - 1]) || path[length] == '\0' ||
        IsSeparator(path[length]))) {
    return false;
  }
  // The rest begins at the separator that ends the mount point (or that
  // follows it).
  const char* rest =
      length > 0 && IsSeparator(mount[length - 1]) ? path + length - 1 : path + length;
  if ((tracker->header.archiveFlags & ZORBA_FLAG_ABSOLUTE_PATHS) == 0) {
    while (*rest == '/') ++rest;
  }
  *relative = rest;
  return true;
}

FindResult LookupPath(ZulKestZorbaDearchiverContext* context, const char* path,
                      ArchiveTracker** trackerOut, const uint8_t** entryOut) {
  ArchiveTracker* covering = nullptr;  // the newest archive below whose mount point the path is
  for (ArchiveTracker* tracker = ArchiveList(context); tracker != nullptr;
       tracker = tracker->next) {
    const char* relative = nullptr;
    if (!MountPointCovers(tracker, path, &relative)) continue;
    if (covering == nullptr) covering = tracker;
    FindResult result = FINDRESULT_MISSING;
    const uint8_t* entry = nullptr;
    char child[256];
    if (relative[0] == '\0' || std::strcmp(relative, "/") == 0) {
      result = FINDRESULT_DIR;
    } else if ((entry = FindEntryByPath(tracker->header, tracker->toc, relative)) != nullptr) {
      result = FINDRESULT_FILE;
    } else if (DirSearch(tracker, relative, -1, child, sizeof(child)) >= 0) {
      result = FINDRESULT_DIR;
    }
    if (result == FINDRESULT_MISSING) continue;
    KEST2_TRACE(kTraceZorba, "LookupPath", "archive \"%s\" owns %s \"%s\"\n",
                HandlePathText(tracker->archiveHandle), result == FINDRESULT_FILE ? "file" : "dir",
                path);
    if (trackerOut != nullptr) *trackerOut = tracker;
    if (entryOut != nullptr) *entryOut = entry;
    return result;
  }
  if (covering != nullptr) {
    KEST2_TRACE(kTraceZorba, "LookupPath", "archive \"%s\" owns %s \"%s\"\n",
                HandlePathText(covering->archiveHandle), "path, but no file/dir was found:", path);
    if (trackerOut != nullptr) *trackerOut = covering;
    return FINDRESULT_MISSING;
  }
  KEST2_TRACE(kTraceZorba, "LookupPath", "%s = FINDRESULT_NOT_OURS\n", path);
  return FINDRESULT_NOT_OURS;
}

bool LookupFH(ZulKestZorbaDearchiverContext* context, uint32_t fh, ArchiveTracker** trackerOut,
              const uint8_t** entryOut) {
  const FileHandle* file = Lookup<FileHandle>(kFhTable, fh);
  if (file == nullptr || file->filterContext != context) return false;
  ArchiveFileData data;
  std::memcpy(&data, file->filterData, sizeof(data));
  ArchiveTracker* tracker = FindArchiveById(context, data.id);
  char dump[kDumpBufferSize];
  if (tracker == nullptr || data.tocIndex >= tracker->header.tocEntryCount) {
    KEST2_TRACE(kTraceZorba, "LookupFH", "fh is from an already-closed archive: %s\n",
                zulKestDebugDumpFH(fh, dump, sizeof(dump)));
    return false;
  }
  KEST2_TRACE(kTraceZorba, "LookupFH", "archive \"%s\" owns %s\n",
              HandlePathText(tracker->archiveHandle), zulKestDebugDumpFH(fh, dump, sizeof(dump)));
  if (trackerOut != nullptr) *trackerOut = tracker;
  if (entryOut != nullptr)
    *entryOut = tracker->toc + static_cast<uint64_t>(data.tocIndex) * tracker->header.tocEntrySize;
  return true;
}

bool LookupDH(ZulKestZorbaDearchiverContext* context, uint32_t dh, ArchiveTracker** trackerOut) {
  const DirHandle* dir = Lookup<DirHandle>(kDhTable, dh);
  if (dir == nullptr || dir->filterContext != context) return false;
  ArchiveDirData data;
  std::memcpy(&data, dir->filterData, sizeof(data));
  ArchiveTracker* tracker = FindArchiveById(context, data.id);
  if (tracker == nullptr) {
    char dump[kDumpBufferSize];
    KEST2_TRACE(kTraceZorba, "LookupDH", "dh is from an already-closed archive: %s\n",
                zulKestDebugDumpDH(dh, dump, sizeof(dump)));
    return false;
  }
  if (trackerOut != nullptr) *trackerOut = tracker;
  return true;
}

int64_t DirSearch(const ArchiveTracker* tracker, const char* directory, int64_t position,
                  char* childName, size_t childNameSize) {
  char key[kDirectoryKeyMax + 2];
  const size_t n = DirectoryKey(tracker, directory, key);
  const int64_t count = tracker->manifestPathCount;
  const char* const* paths = tracker->manifestPaths;
  if (position < 0) {
    // The first path not less than the key and a separator: the paths
    // inside the directory lie together from there.  The key alone could
    // find a sibling that shares its name and sorts before the separator
    // ("sub.txt" and "sub-old" come before "sub/x"), and hide the directory.
    size_t searched = n;
    if (n > 0 && !IsSeparator(key[n - 1])) {
      key[searched++] = '/';
      key[searched] = '\0';
    }
    int64_t low = 0, high = count;
    while (low < high) {
      const int64_t middle = low + (high - low) / 2;
      if (CompareKeyed(tracker, paths[middle], key, searched) < 0) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    if (low >= count || !BeginsWithDirectory(tracker, paths[low], key, n)) return -1;
    ChildAfter(paths[low], n, childName, childNameSize);
    return low;
  }
  char previous[256];
  ChildAfter(paths[position], n, previous, sizeof(previous));
  for (int64_t p = position + 1; p < count; ++p) {
    if (!BeginsWithDirectory(tracker, paths[p], key, n)) return -1;
    ChildAfter(paths[p], n, childName, childNameSize);
    if (CompareKeyed(tracker, childName, previous, sizeof(previous)) != 0) return p;
  }
  return -1;
}

void GetStat(const ArchiveTracker* tracker, const uint8_t* entry, ZulKestStat* out) {
  *out = tracker->archiveStat;
  if (entry != nullptr) {
    out->fileSize = static_cast<int64_t>(GetEntrySize(entry));
    out->statFlags = ZUL_KEST_STAT_READABLE;
  } else {
    out->fileSize = 0;
    out->statFlags = ZUL_KEST_STAT_DIRECTORY | ZUL_KEST_STAT_READABLE;
  }
  KEST2_TRACE(kTraceZorba, "GetStat", "%s", "");
}

bool CheckMountBuffer(const ArchiveTracker* tracker) {
  const auto address = [](const void* p) { return reinterpret_cast<uintptr_t>(p); };
  const bool intact = tracker != nullptr && address(tracker) % 8 == 0 &&
                      tracker->header.tocSorted != 0 && tracker->mountPoint != nullptr &&
                      address(tracker) < address(tracker->mountPoint) &&
                      address(tracker->mountPoint) < address(tracker->blockIndex) &&
                      // The index is empty when every file is stored, the path array when
                      // the archive holds no file.
                      address(tracker->blockIndex) <= address(tracker->toc) &&
                      address(tracker->toc) < address(tracker->manifestPaths) &&
                      address(tracker->manifestPaths) <= address(tracker->manifestText) &&
                      IsHeaderValid(tracker->header) &&
                      Lookup<FileHandle>(kFhTable, tracker->archiveHandle) != nullptr;
  if (!intact) {
    zulKestPrintf("KEST2 ERROR: The archive mountBuffer at 0x%08llX is corrupt!\n",
                  static_cast<unsigned long long>(address(tracker)));
  }
  return intact;
}

}  // namespace kest2
