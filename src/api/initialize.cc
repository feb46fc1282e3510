// Bring-up and tear-down of the library, and its parameters copy.
//
// zulKestInitialize validates and copies the caller's record, applies
// defaults and clamps, creates the global lock set when it does not exist,
// then carves the operation, file-handle and directory-handle tables and the
// chunk storage out of the caller's storage, undoing everything in reverse
// at the first failure.
// zulKestTerminate undoes a successful initialisation in reverse.  Neither is
// safe against concurrent calls or requests in flight.

#include <cstring>

#include "api/operation.h"
#include "archive/codec_registry.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "debug/trace.h"
#include "io/dir_listing.h"
#include "io/filter_chain.h"
#include "io/native_dir_buffer.h"
#include "io/native_handlers.h"
#include "io/overlay_table.h"
#include "kest2.h"
#include "sched/chunk_tree.h"
#include "sched/chunker.h"
#include "sched/execute.h"
#include "sched/scheduler.h"

namespace kest2 {
namespace {

constexpr uint32_t kParamsHeaderSizeMask = 0xFFFE;
constexpr uint32_t kParamsHeaderSize = ZUL_KEST_PARAMS_SIZE << 1;  // 0x160
constexpr uint64_t kTableAlignment = 8;

constexpr int32_t kDefaultThreadPriority[3] = {260, 700, 260};
constexpr int32_t kMinimumThreadStack[3] = {0x14000, 0x4000, 0x4000};

// The default memory-copy hook; ranges may overlap.
void* LibraryMemcpy(void* dst, const void* src, size_t size) {
  return std::memmove(dst, src, size);
}

bool HasCurrentLayout(const ZulKestParams* params) {
  return (params->header & kParamsHeaderSizeMask) == kParamsHeaderSize;
}

// Copies the run-time adjustable fields as given, without defaults.
void ApplyAdjustableFields(const ZulKestParams* params) {
  __atomic_store_n(&g_KestParams.debugFlags, params->debugFlags, __ATOMIC_RELAXED);
  __atomic_store_n(&g_KestParams.maxChunk, params->maxChunk, __ATOMIC_RELAXED);
  __atomic_store_n(&g_KestParams.pVprintf, params->pVprintf, __ATOMIC_RELAXED);
  __atomic_store_n(&g_KestParams.pEventCallback, params->pEventCallback,
                   __ATOMIC_RELAXED);
  ZulKestMemcpyHook copy =
      params->pMemcpy != nullptr ? params->pMemcpy : LibraryMemcpy;
  __atomic_store_n(&g_KestParams.pMemcpy, copy, __ATOMIC_RELAXED);
  for (int i = 0; i < 3; ++i) {
    g_KestParams.threadPriority[i] = params->threadPriority[i];
    g_KestParams.threadAffinity[i] = params->threadAffinity[i];
  }
}

void ApplyDefaultsAndClamps(ZulKestParams* p) {
  if (p->pathMax == 0 || p->pathMax > kDefaultPathMax) p->pathMax = kDefaultPathMax;
  for (int i = 0; i < 3; ++i) {
    if (p->threadPriority[i] == -1) p->threadPriority[i] = kDefaultThreadPriority[i];
    if (p->threadStackSize[i] < kMinimumThreadStack[i])
      p->threadStackSize[i] = kMinimumThreadStack[i];
  }
  if (p->schedulerCount == 0) p->schedulerCount = 1;
  if (p->schedulerCount >= 3) p->schedulerCount = 2;
  if (p->ioThreadCount == 0) p->ioThreadCount = 1;
  if (p->ioThreadCount >= 4) p->ioThreadCount = 3;
  if (p->maxChunk == 0) p->maxChunk = 0x80000;
  if (p->decompressorThreadCount == 0) p->decompressorThreadCount = 2;
  if (p->decompressorThreadCount >= 4) p->decompressorThreadCount = 3;
}

bool ReservedFieldsAreZero(const ZulKestParams* p) {
  return p->padding[0] == 0 && p->padding[1] == 0 && p->extraFlags == 0 &&
         p->reserved == 0 && p->reservedMode < 2;
}

// Creates the global lock set when it does not exist, then counts the
// overlays that were added before it existed; true when this call created it.
bool CreateLocksAndCountOverlays() {
  if (!CreateGlobalLocks()) return false;
  int32_t count = 0;
  g_overlayCount =
      OverlayGetList(kThisProcess, 0, 127, nullptr, 0, &count) == ZUL_KEST_OK ? count : 0;
  return true;
}

}  // namespace
}  // namespace kest2

using namespace kest2;

extern "C" int32_t zulKestInitialize(const ZulKestParams* params) {
  if (params == nullptr) {
    zulKestPrintf("zulKestInitialize: NULL parameters.\n");
    return ZUL_KEST_ERROR_BAD_PTR;
  }
  if (IsInitialized()) {
    zulKestPrintf(
        "zulKestInitialize: WARNING: KEST has already been %sinitialized. "
        "Updating parameters with new values.\n",
        AutoInitialized() ? "auto-" : "");
    if (HasCurrentLayout(params)) ApplyAdjustableFields(params);
    return ZUL_KEST_OK;
  }
  if (!HasCurrentLayout(params)) {
    zulKestPrintf(
        "zulKestInitialize: Unsupported paramsSize (%d, most recent is %d).\n",
        static_cast<int>(params->paramsSize), ZUL_KEST_PARAMS_SIZE);
    return ZUL_KEST_ERROR_BAD_SIZE;
  }

  std::memcpy(&g_KestParams, params, sizeof(ZulKestParams));
  g_KestParams.initialized = 0;
  if (g_KestParams.pMemcpy == nullptr) g_KestParams.pMemcpy = LibraryMemcpy;
  KEST2_TRACE_API("zulKestInitialize");

  ApplyDefaultsAndClamps(&g_KestParams);
  if (!ReservedFieldsAreZero(&g_KestParams)) {
    zulKestPrintf(
        "KEST2 ERROR: A reserved, padding, or extraFlags field is not zero.\n");
    return ZUL_KEST_ERROR_BAD_SIZE;
  }

  if (CreateLocksAndCountOverlays()) SetLocksCreatedByInitialize(true);

  const uint32_t pathMax = g_KestParams.pathMax;
  int built = 0;  // steps set up so far
  int32_t result = HandleTableSetUp(kOpTable, g_KestParams.opStorage,
                                    g_KestParams.opStorageSize,
                                    kTableAlignment, OpUnitSize(pathMax));
  if (result == ZUL_KEST_OK) {
    ++built;
    result = HandleTableSetUp(kFhTable, g_KestParams.fhStorage,
                              g_KestParams.fhStorageSize, kTableAlignment,
                              FhUnitSize(pathMax));
  }
  if (result == ZUL_KEST_OK) {
    ++built;
    result = HandleTableSetUp(kDhTable, g_KestParams.dhStorage,
                              g_KestParams.dhStorageSize, kTableAlignment,
                              DhUnitSize(pathMax));
  }
  if (result == ZUL_KEST_OK) {
    ++built;
    result = InitializeChunkStorage(g_KestParams.chunkStorage, g_KestParams.chunkStorageSize);
  }
  if (result == ZUL_KEST_OK) {
    ++built;
    InitializeNativeDirBuffer();
    SetRootCompletion(CompleteOperation);
    SetTreeFilter(FilterNewTree);
    InstallDirectoryListing();
    result = StartSchedulers(ExecuteNative);
  }
  if (result == ZUL_KEST_OK) {
    InitializeCodecRegistry(static_cast<uint8_t>(g_KestParams.decompressorThreadCount));
    __atomic_store_n(&g_KestParams.header, g_KestParams.header | 1u,
                     __ATOMIC_RELEASE);
    return ZUL_KEST_OK;
  }

  // Undo, newest first.
  if (built >= 4) {
    TerminateNativeDirBuffer();
    TerminateChunkStorage();
  }
  if (built >= 3) HandleTableTearDown(kDhTable);
  if (built >= 2) HandleTableTearDown(kFhTable);
  if (built >= 1) HandleTableTearDown(kOpTable);
  if (LocksCreatedByInitialize()) DestroyGlobalLocks();
  return result;
}

extern "C" void zulKestTerminate(void) {
  if (!IsInitialized()) {
    zulKestPrintf("zulKestTerminate: WARNING: KEST is not initialized.\n");
    return;
  }
  KEST2_TRACE_API("zulKestTerminate");
  if (__atomic_exchange_n(&g_suspendCount, 0, __ATOMIC_ACQ_REL) != 0) KickAllSchedulers();
  ShutdownSchedulers();
  __atomic_store_n(&g_KestParams.header, g_KestParams.header & ~1u,
                   __ATOMIC_RELEASE);
  SetAutoInitialized(false);

  RemoveAllFilters();
  TerminateCodecs();
  OverlayRemoveAllForProcess(kThisProcess);
  __atomic_store_n(&g_overlayCount, 0, __ATOMIC_RELEASE);
  TerminateChunkStorage();
  TerminateNativeDirBuffer();
  // What the application left open is closed before its handle goes.
  const auto closeAndRelease = [](uint32_t handle, void*) { CloseAndReleaseHandle(handle); };
  ForEachHandle(kDhTable, closeAndRelease, nullptr);
  HandleTableTearDown(kDhTable);
  ForEachHandle(kFhTable, closeAndRelease, nullptr);
  HandleTableTearDown(kFhTable);
  // Operations are the caller's to delete; what is left is reported.
  HandleTableTearDown(kOpTable);

  if (LocksCreatedByInitialize()) DestroyGlobalLocks();

  __atomic_store_n(&g_KestParams.debugFlags, 0u, __ATOMIC_RELAXED);
  __atomic_store_n(&g_KestParams.pEventCallback, ZulKestEventHook{nullptr},
                   __ATOMIC_RELAXED);
  __atomic_store_n(&g_KestParams.pMemcpy, ZulKestMemcpyHook{nullptr},
                   __ATOMIC_RELAXED);
  __atomic_store_n(&g_KestParams.pVprintf, ZulKestVprintfHook{nullptr},
                   __ATOMIC_RELAXED);
}

extern "C" bool zulKestIsInitialized(ZulKestParams* out) {
  KEST2_TRACE_API("zulKestIsInitialized");
  if (!IsInitialized()) return false;
  if (out != nullptr) std::memcpy(out, &g_KestParams, sizeof(ZulKestParams));
  return true;
}

extern "C" void zulKestUpdateParameters(const ZulKestParams* params) {
  KEST2_TRACE_API("zulKestUpdateParameters");
  if (params == nullptr || !HasCurrentLayout(params) || !IsInitialized()) return;
  ApplyAdjustableFields(params);
}

extern "C" void zulKestDataInit(void) {
  KEST2_TRACE_API("zulKestDataInit");
  CreateLocksAndCountOverlays();
}

extern "C" void zulKestDataTerm(void) {
  KEST2_TRACE_API("zulKestDataTerm");
  DestroyGlobalLocks();
}
