// The one shared native directory buffer: room for one native directory
// listing state (two 32-bit words and 64 KiB of raw entries).  Directory
// listings borrow it while they read the operating system's entries and
// hand it back; the "ZulKestDHWaitLock" mutex hands it out.
//
// Thread-safety: AcquireNativeDirBuffer blocks until the buffer is free;
// the holder owns it until ReleaseNativeDirBuffer.
#ifndef KEST2_SRC_IO_NATIVE_DIR_BUFFER_H_
#define KEST2_SRC_IO_NATIVE_DIR_BUFFER_H_

#include <cstddef>

namespace kest2 {

constexpr size_t kNativeDirBufferSize = 0x10008;

// Creates / destroys the lock; called by library initialisation and
// termination.
void InitializeNativeDirBuffer();
void TerminateNativeDirBuffer();

// Takes the lock and returns the buffer (8-byte aligned,
// kNativeDirBufferSize bytes).
void* AcquireNativeDirBuffer();
void ReleaseNativeDirBuffer();

}  // namespace kest2

#endif  // KEST2_SRC_IO_NATIVE_DIR_BUFFER_H_
