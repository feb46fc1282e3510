// The codec registry: see codec_registry.h.

#include "archive/codec_registry.h"

#include "debug/trace.h"
#include "kest2.h"

namespace kest2 {
namespace {

constexpr int kCodecSlots = 4;

const Codec* g_codecs[kCodecSlots];
uint8_t g_maximumThreads;
uint8_t g_currentThreads;

const Codec* LoadSlot(int slot) { return __atomic_load_n(&g_codecs[slot], __ATOMIC_ACQUIRE); }

// Empties the slot when it still holds codec.
bool ClearSlot(int slot, const Codec* codec) {
  const Codec* expected = codec;
  return __atomic_compare_exchange_n(&g_codecs[slot], &expected, nullptr, false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

}  // namespace

void InitializeCodecRegistry(uint8_t decompressorThreads) {
  __atomic_store_n(&g_maximumThreads, decompressorThreads, __ATOMIC_RELEASE);
  __atomic_store_n(&g_currentThreads, decompressorThreads, __ATOMIC_RELEASE);
}

void TerminateCodecs() {
  for (int slot = 0; slot < kCodecSlots; ++slot) {
    const Codec* codec = LoadSlot(slot);
    if (codec == nullptr || !ClearSlot(slot, codec)) continue;
    codec->terminate();
    zulKestPrintf("WARNING: Unregistered codec during termination\n");
  }
  __atomic_store_n(&g_maximumThreads, uint8_t{0}, __ATOMIC_RELEASE);
  __atomic_store_n(&g_currentThreads, uint8_t{0}, __ATOMIC_RELEASE);
}

int32_t RegisterCodec(const Codec* codec) {
  if (codec == nullptr || codec->init == nullptr) return -1;
  for (int slot = 0; slot < kCodecSlots; ++slot) {
    const Codec* empty = nullptr;
    if (!__atomic_compare_exchange_n(&g_codecs[slot], &empty, codec, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)) {
      continue;
    }
    const int32_t result = codec->init(__atomic_load_n(&g_maximumThreads, __ATOMIC_ACQUIRE));
    if (result != 0) ClearSlot(slot, codec);
    return result;
  }
  return -1;
}

bool UnregisterCodec(const Codec* codec) {
  for (int slot = 0; slot < kCodecSlots; ++slot) {
    if (codec != nullptr && ClearSlot(slot, codec)) {
      codec->terminate();
      return true;
    }
  }
  return false;
}

const Codec* FindCodec(uint32_t tag, uint16_t capabilities) {
  for (int slot = 0; slot < kCodecSlots; ++slot) {
    const Codec* codec = LoadSlot(slot);
    if (codec != nullptr && codec->tag == tag &&
        (codec->capabilities & capabilities) == capabilities) {
      return codec;
    }
  }
  return nullptr;
}

uint8_t SetDecompressorThreadCount(uint8_t count) {
  const uint8_t maximum = __atomic_load_n(&g_maximumThreads, __ATOMIC_ACQUIRE);
  if (count == 0) count = 1;
  if (count > maximum) count = maximum;
  for (int slot = 0; slot < kCodecSlots; ++slot) {
    const Codec* codec = LoadSlot(slot);
    if (codec != nullptr && codec->setThreadCount != nullptr) codec->setThreadCount(count);
  }
  __atomic_store_n(&g_currentThreads, count, __ATOMIC_RELEASE);
  return count;
}

uint8_t GetDecompressorThreadCount() { return __atomic_load_n(&g_currentThreads, __ATOMIC_ACQUIRE); }

}  // namespace kest2

using namespace kest2;

extern "C" uint32_t zulKestArchiveSetDecompressorThreadCount(uint8_t count) {
  KEST2_TRACE_API("zulKestArchiveSetDecompressorThreadCount");
  return SetDecompressorThreadCount(count);
}

extern "C" uint32_t zulKestArchiveGetDecompressorThreadCount(void) {
  KEST2_TRACE_API("zulKestArchiveGetDecompressorThreadCount");
  return GetDecompressorThreadCount();
}
