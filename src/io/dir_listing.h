// The directory-handle chunks at the bottom of the filter stack: opening a
// listing (CHUNK_DH_OPEN), reading it one ZulKestDirEntry at a time
// (CHUNK_DH_READ) and closing it (CHUNK_DH_CLOSE), served by the overlaid
// directory listing (io/overlay_dir_listing.h) in the buffer the caller gave
// to zulKestDHOpen.
//
// An open whose buffer cannot hold the listing fails with
// ZUL_KEST_ERROR_BAD_SIZE and reports the buffer length that would do
// through the operation's actual count (-1 when the length was not the
// reason); the caller retries with a buffer of that length.
//
// Thread-safety: the handlers run on the I/O threads; the chunk engine runs
// a handle's open before its reads and its reads before its close.
#ifndef KEST2_SRC_IO_DIR_LISTING_H_
#define KEST2_SRC_IO_DIR_LISTING_H_

namespace kest2 {

// Installs the three handlers in the native dispatch table.  Call once the
// library is initialised; installing again is harmless.
void InstallDirectoryListing();

}  // namespace kest2

#endif  // KEST2_SRC_IO_DIR_LISTING_H_
