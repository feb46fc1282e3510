// StoredPath: the one fixed-size record in which the library keeps a path,
// normalised, with the MD5 digest of its text.
//
// Layout (16 + pathMax bytes): digest[16], then text[pathMax].  The last
// byte of text doubles as the isPointer flag: 0 means the path is inline and
// NUL-terminated in text; 1 means the first 8 bytes of text hold a pointer
// to a string kept elsewhere by the record's owner (names that already live
// in a mounted archive's buffer).  Records are embedded in operations and
// handles whose size follows pathMax, so the struct below declares only the
// digest and the first byte of text; the owner reserves the rest.
//
// Thread-safety: plain data owned by the embedding object; no state here.
#ifndef KEST2_SRC_CORE_STORED_PATH_H_
#define KEST2_SRC_CORE_STORED_PATH_H_

#include <cstddef>
#include <cstdint>

#include "core/md5.h"

namespace kest2 {

struct StoredPath {
  uint8_t digest[kMd5DigestSize];
  char text[1];  // really pathMax bytes, see above
};

// Bytes a StoredPath takes for a given pathMax.
constexpr size_t StoredPathSize(uint32_t pathMax) { return 16 + pathMax; }

// Empties the record: zero digest, empty inline text.
void ClearPath(StoredPath* path);
// Normalises source into the record and digests it.  On failure the record
// is left empty and, when reportErrors is set, one message is printed.
bool SetPath(StoredPath* path, const char* source, bool reportErrors);
// Copies a stored path (its text, or its pointer, and its digest) without
// normalising or digesting it again.
void CopyStoredPath(StoredPath* to, const StoredPath* from);
// Stores a pointer to an already normal string kept by the caller.  Needs
// pathMax >= 9; prints a message and leaves the record empty otherwise.
bool SetPathPointer(StoredPath* path, const char* source);
// The record's characters, inline or through its pointer.
const char* GetPath(const StoredPath* path);
// True when the record holds no characters.
inline bool PathIsEmpty(const StoredPath* path) { return GetPath(path)[0] == 0; }

}  // namespace kest2

#endif  // KEST2_SRC_CORE_STORED_PATH_H_
