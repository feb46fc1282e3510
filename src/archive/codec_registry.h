// The codec registry: the decompressors that the dearchiver finds by an
// archive's compression tag, and the library-wide decompressor thread
// counts.
//
// Thread-safety: slots change only by compare-and-exchange; the counts are
// single bytes read and written atomically.
#ifndef KEST2_SRC_ARCHIVE_CODEC_REGISTRY_H_
#define KEST2_SRC_ARCHIVE_CODEC_REGISTRY_H_

#include <cstdint>

namespace kest2 {

struct DecompressionJob;

// Capability bit: the codec can serve the dearchiver.
constexpr uint16_t kCodecDearchiver = 4;

struct Codec {
  int32_t (*init)(uint8_t maximumThreads);
  void (*terminate)();
  void (*setThreadCount)(uint8_t count);
  DecompressionJob* (*submit)(DecompressionJob* job);
  bool (*isDone)(DecompressionJob* job);
  int32_t (*wait)(DecompressionJob* job, int64_t* produced);
  uint32_t tag;  // the archive header's compression field, read big-endian
  uint32_t limits[2];
  uint32_t reserved[2];
  uint8_t alignment;  // log2 of the alignment an output in caller memory needs
  uint16_t capabilities;
};

// Sets both thread counts from the parameters' decompressor thread count.
void InitializeCodecRegistry(uint8_t decompressorThreads);
// Stops and drops every codec still registered (with a warning each), then
// zeroes the counts.
void TerminateCodecs();

// Claims the first empty slot and starts the codec with the maximum thread
// count: 0, -1 (no slot, null codec or no init), or init's failure.
int32_t RegisterCodec(const Codec* codec);
// Empties the codec's slot and stops it; false when it was not registered.
bool UnregisterCodec(const Codec* codec);
// The first codec with the tag and every required capability bit, or null.
const Codec* FindCodec(uint32_t tag, uint16_t capabilities);

// 0 becomes 1, above the maximum the maximum; every codec is told.
uint8_t SetDecompressorThreadCount(uint8_t count);
uint8_t GetDecompressorThreadCount();

}  // namespace kest2

#endif  // KEST2_SRC_ARCHIVE_CODEC_REGISTRY_H_
