// MD5 message digest (RFC 1321).  The library keys paths by the digest of
// their normalised text: the archive filter and the RAM cache compare paths
// in 16 bytes instead of character by character.  Not for security.
#ifndef KEST2_SRC_CORE_MD5_H_
#define KEST2_SRC_CORE_MD5_H_

#include <cstddef>
#include <cstdint>

namespace kest2 {

constexpr size_t kMd5DigestSize = 16;

// Incremental digest.  Plain data; no allocation.
struct Md5Context {
  uint32_t state[4];
  uint64_t bitCount;
  uint8_t buffer[64];
};

void Md5Init(Md5Context* context);
void Md5Update(Md5Context* context, const void* data, size_t length);
void Md5Final(Md5Context* context, uint8_t digest[kMd5DigestSize]);

// One-shot digest of length bytes; returns out16.
uint8_t* PathDigest(const void* data, size_t length, uint8_t* out16);

}  // namespace kest2

#endif  // KEST2_SRC_CORE_MD5_H_
