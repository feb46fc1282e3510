// MD5 (RFC 1321): see md5.h.
//
// The message is processed in 64-byte blocks; a partial block waits in
// context->buffer until more bytes arrive or Md5Final pads it.  Words are
// read and written little-endian byte by byte, so the code does not depend on
// the machine's byte order or on the alignment of the caller's data.

#include "core/md5.h"

#include <cstring>

namespace kest2 {
namespace {

// Per-step left-rotation amounts, four per round.
constexpr uint8_t kShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Additive constants: floor(abs(sin(i + 1)) * 2^32).
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

inline uint32_t RotateLeft(uint32_t x, uint32_t n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t LoadLe32(const uint8_t* p) {
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

inline void StoreLe32(uint8_t* p, uint32_t x) {
  p[0] = static_cast<uint8_t>(x);
  p[1] = static_cast<uint8_t>(x >> 8);
  p[2] = static_cast<uint8_t>(x >> 16);
  p[3] = static_cast<uint8_t>(x >> 24);
}

// Mixes one 64-byte block into state.
void TransformBlock(uint32_t state[4], const uint8_t block[64]) {
  uint32_t x[16];
  for (int i = 0; i < 16; ++i) x[i] = LoadLe32(block + 4 * i);

  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (int i = 0; i < 64; ++i) {
    const int round = i / 16;
    uint32_t f;
    int index;
    switch (round) {
      case 0:
        f = (b & c) | (~b & d);
        index = i;
        break;
      case 1:
        f = (d & b) | (~d & c);
        index = (5 * i + 1) % 16;
        break;
      case 2:
        f = b ^ c ^ d;
        index = (3 * i + 5) % 16;
        break;
      default:
        f = c ^ (b | ~d);
        index = (7 * i) % 16;
        break;
    }
    const uint32_t rotated = RotateLeft(a + f + kSine[i] + x[index], kShift[round][i % 4]);
    a = d;
    d = c;
    c = b;
    b += rotated;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

}  // namespace

void Md5Init(Md5Context* context) {
  context->state[0] = 0x67452301;
  context->state[1] = 0xefcdab89;
  context->state[2] = 0x98badcfe;
  context->state[3] = 0x10325476;
  context->bitCount = 0;
  std::memset(context->buffer, 0, sizeof(context->buffer));
}

void Md5Update(Md5Context* context, const void* data, size_t length) {
  if (length == 0) return;  // data may then be null
  const uint8_t* input = static_cast<const uint8_t*>(data);
  size_t buffered = static_cast<size_t>((context->bitCount >> 3) & 63);
  context->bitCount += static_cast<uint64_t>(length) << 3;

  // Complete a partial block first.
  if (buffered != 0) {
    const size_t take = length < 64 - buffered ? length : 64 - buffered;
    std::memcpy(context->buffer + buffered, input, take);
    buffered += take;
    input += take;
    length -= take;
    if (buffered < 64) return;
    TransformBlock(context->state, context->buffer);
  }
  // Whole blocks straight from the caller's data.
  for (; length >= 64; input += 64, length -= 64) TransformBlock(context->state, input);
  // Keep the tail for later.
  if (length != 0) std::memcpy(context->buffer, input, length);
}

void Md5Final(Md5Context* context, uint8_t digest[kMd5DigestSize]) {
  // Pad with one 1 bit and zeros to 56 bytes mod 64, then append the
  // message length in bits, little-endian.
  uint8_t lengthBytes[8];
  StoreLe32(lengthBytes, static_cast<uint32_t>(context->bitCount));
  StoreLe32(lengthBytes + 4, static_cast<uint32_t>(context->bitCount >> 32));

  static const uint8_t kPadding[64] = {0x80};
  const size_t buffered = static_cast<size_t>((context->bitCount >> 3) & 63);
  const size_t padLength = buffered < 56 ? 56 - buffered : 120 - buffered;
  Md5Update(context, kPadding, padLength);
  Md5Update(context, lengthBytes, sizeof(lengthBytes));

  for (int i = 0; i < 4; ++i) StoreLe32(digest + 4 * i, context->state[i]);
  // Leave no trace of the message in the context.
  std::memset(context, 0, sizeof(*context));
}

uint8_t* PathDigest(const void* data, size_t length, uint8_t* out16) {
  Md5Context context;
  Md5Init(&context);
  Md5Update(&context, data, length);
  Md5Final(&context, out16);
  return out16;
}

}  // namespace kest2
