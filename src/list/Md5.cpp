#include "list/Md5.h"

#include <cstring>

namespace {

// Reads the little-endian 32-bit word at `p`; compilers turn this into one
// load on little-endian machines, and it needs no alignment.
inline uint32_t loadLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

inline void storeLe32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

inline uint32_t rotl(uint32_t x, int s) { return (x << s) | (x >> (32 - s)); }

// The four auxiliary functions of RFC 1321, 3.4 (F and G in their usual
// cheaper but equal forms).
inline uint32_t F(uint32_t x, uint32_t y, uint32_t z) {
  return z ^ (x & (y ^ z));
}
inline uint32_t G(uint32_t x, uint32_t y, uint32_t z) {
  return y ^ (z & (x ^ y));
}
inline uint32_t H(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
inline uint32_t I(uint32_t x, uint32_t y, uint32_t z) { return y ^ (x | ~z); }

}  // namespace

// One operation of a round: a = b + ((a + f(b,c,d) + x + t) <<< s).
#define ZRX_MD5_STEP(f, a, b, c, d, x, s, t) \
  (a) = (b) + rotl((a) + f((b), (c), (d)) + (x) + (t), (s))

void Md5::init() {
  state_[0] = 0x67452301u;
  state_[1] = 0xefcdab89u;
  state_[2] = 0x98badcfeu;
  state_[3] = 0x10325476u;
  length_ = 0;
}

void Md5::update(const void* data, std::size_t length) {
  const auto* in = static_cast<const uint8_t*>(data);
  std::size_t used = static_cast<std::size_t>(length_ % 64);
  length_ += length;

  // Complete a block begun by an earlier call.
  if (used != 0) {
    const std::size_t room = 64 - used;
    if (length < room) {
      std::memcpy(buffer_ + used, in, length);
      return;
    }
    std::memcpy(buffer_ + used, in, room);
    transform(buffer_);
    in += room;
    length -= room;
  }
  // Whole blocks straight from the input, without a copy.
  for (; length >= 64; in += 64, length -= 64) transform(in);
  if (length != 0) std::memcpy(buffer_, in, length);
}

void Md5::finish(uint8_t digest[16]) {
  // Padding: one 0x80 byte, zeros up to 56 mod 64, then the message length
  // in bits as a little-endian 64-bit number.
  const uint64_t bitLength = length_ * 8;
  std::size_t used = static_cast<std::size_t>(length_ % 64);
  buffer_[used++] = 0x80;
  if (used > 56) {
    std::memset(buffer_ + used, 0, 64 - used);
    transform(buffer_);
    used = 0;
  }
  std::memset(buffer_ + used, 0, 56 - used);
  storeLe32(buffer_ + 56, static_cast<uint32_t>(bitLength));
  storeLe32(buffer_ + 60, static_cast<uint32_t>(bitLength >> 32));
  transform(buffer_);

  for (int i = 0; i < 4; ++i) storeLe32(digest + 4 * i, state_[i]);
  // Nothing of this message stays behind in the object.
  std::memset(state_, 0, sizeof(state_));
  length_ = 0;
  std::memset(buffer_, 0, sizeof(buffer_));
}

std::string Md5::digestText(const std::string& text) {
  static constexpr char kHexDigits[] = "0123456789ABCDEF";
  uint8_t digest[16];
  init();
  update(text.data(), text.size());
  finish(digest);
  std::string result(32, '\0');
  for (int i = 0; i < 16; ++i) {
    result[2 * i] = kHexDigits[digest[i] >> 4];
    result[2 * i + 1] = kHexDigits[digest[i] & 0x0F];
  }
  return result;
}

// The four rounds of RFC 1321, 3.4, on one 64-byte block.
void Md5::transform(const uint8_t block[64]) {
  uint32_t x[16];
  for (int i = 0; i < 16; ++i) x[i] = loadLe32(block + 4 * i);
  uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];

  ZRX_MD5_STEP(F, a, b, c, d, x[0], 7, 0xd76aa478u);
  ZRX_MD5_STEP(F, d, a, b, c, x[1], 12, 0xe8c7b756u);
  ZRX_MD5_STEP(F, c, d, a, b, x[2], 17, 0x242070dbu);
  ZRX_MD5_STEP(F, b, c, d, a, x[3], 22, 0xc1bdceeeu);
  ZRX_MD5_STEP(F, a, b, c, d, x[4], 7, 0xf57c0fafu);
  ZRX_MD5_STEP(F, d, a, b, c, x[5], 12, 0x4787c62au);
  ZRX_MD5_STEP(F, c, d, a, b, x[6], 17, 0xa8304613u);
  ZRX_MD5_STEP(F, b, c, d, a, x[7], 22, 0xfd469501u);
  ZRX_MD5_STEP(F, a, b, c, d, x[8], 7, 0x698098d8u);
  ZRX_MD5_STEP(F, d, a, b, c, x[9], 12, 0x8b44f7afu);
  ZRX_MD5_STEP(F, c, d, a, b, x[10], 17, 0xffff5bb1u);
  ZRX_MD5_STEP(F, b, c, d, a, x[11], 22, 0x895cd7beu);
  ZRX_MD5_STEP(F, a, b, c, d, x[12], 7, 0x6b901122u);
  ZRX_MD5_STEP(F, d, a, b, c, x[13], 12, 0xfd987193u);
  ZRX_MD5_STEP(F, c, d, a, b, x[14], 17, 0xa679438eu);
  ZRX_MD5_STEP(F, b, c, d, a, x[15], 22, 0x49b40821u);

  ZRX_MD5_STEP(G, a, b, c, d, x[1], 5, 0xf61e2562u);
  ZRX_MD5_STEP(G, d, a, b, c, x[6], 9, 0xc040b340u);
  ZRX_MD5_STEP(G, c, d, a, b, x[11], 14, 0x265e5a51u);
  ZRX_MD5_STEP(G, b, c, d, a, x[0], 20, 0xe9b6c7aau);
  ZRX_MD5_STEP(G, a, b, c, d, x[5], 5, 0xd62f105du);
  ZRX_MD5_STEP(G, d, a, b, c, x[10], 9, 0x02441453u);
  ZRX_MD5_STEP(G, c, d, a, b, x[15], 14, 0xd8a1e681u);
  ZRX_MD5_STEP(G, b, c, d, a, x[4], 20, 0xe7d3fbc8u);
  ZRX_MD5_STEP(G, a, b, c, d, x[9], 5, 0x21e1cde6u);
  ZRX_MD5_STEP(G, d, a, b, c, x[14], 9, 0xc33707d6u);
  ZRX_MD5_STEP(G, c, d, a, b, x[3], 14, 0xf4d50d87u);
  ZRX_MD5_STEP(G, b, c, d, a, x[8], 20, 0x455a14edu);
  ZRX_MD5_STEP(G, a, b, c, d, x[13], 5, 0xa9e3e905u);
  ZRX_MD5_STEP(G, d, a, b, c, x[2], 9, 0xfcefa3f8u);
  ZRX_MD5_STEP(G, c, d, a, b, x[7], 14, 0x676f02d9u);
  ZRX_MD5_STEP(G, b, c, d, a, x[12], 20, 0x8d2a4c8au);

  ZRX_MD5_STEP(H, a, b, c, d, x[5], 4, 0xfffa3942u);
  ZRX_MD5_STEP(H, d, a, b, c, x[8], 11, 0x8771f681u);
  ZRX_MD5_STEP(H, c, d, a, b, x[11], 16, 0x6d9d6122u);
  ZRX_MD5_STEP(H, b, c, d, a, x[14], 23, 0xfde5380cu);
  ZRX_MD5_STEP(H, a, b, c, d, x[1], 4, 0xa4beea44u);
  ZRX_MD5_STEP(H, d, a, b, c, x[4], 11, 0x4bdecfa9u);
  ZRX_MD5_STEP(H, c, d, a, b, x[7], 16, 0xf6bb4b60u);
  ZRX_MD5_STEP(H, b, c, d, a, x[10], 23, 0xbebfbc70u);
  ZRX_MD5_STEP(H, a, b, c, d, x[13], 4, 0x289b7ec6u);
  ZRX_MD5_STEP(H, d, a, b, c, x[0], 11, 0xeaa127fau);
  ZRX_MD5_STEP(H, c, d, a, b, x[3], 16, 0xd4ef3085u);
  ZRX_MD5_STEP(H, b, c, d, a, x[6], 23, 0x04881d05u);
  ZRX_MD5_STEP(H, a, b, c, d, x[9], 4, 0xd9d4d039u);
  ZRX_MD5_STEP(H, d, a, b, c, x[12], 11, 0xe6db99e5u);
  ZRX_MD5_STEP(H, c, d, a, b, x[15], 16, 0x1fa27cf8u);
  ZRX_MD5_STEP(H, b, c, d, a, x[2], 23, 0xc4ac5665u);

  ZRX_MD5_STEP(I, a, b, c, d, x[0], 6, 0xf4292244u);
  ZRX_MD5_STEP(I, d, a, b, c, x[7], 10, 0x432aff97u);
  ZRX_MD5_STEP(I, c, d, a, b, x[14], 15, 0xab9423a7u);
  ZRX_MD5_STEP(I, b, c, d, a, x[5], 21, 0xfc93a039u);
  ZRX_MD5_STEP(I, a, b, c, d, x[12], 6, 0x655b59c3u);
  ZRX_MD5_STEP(I, d, a, b, c, x[3], 10, 0x8f0ccc92u);
  ZRX_MD5_STEP(I, c, d, a, b, x[10], 15, 0xffeff47du);
  ZRX_MD5_STEP(I, b, c, d, a, x[1], 21, 0x85845dd1u);
  ZRX_MD5_STEP(I, a, b, c, d, x[8], 6, 0x6fa87e4fu);
  ZRX_MD5_STEP(I, d, a, b, c, x[15], 10, 0xfe2ce6e0u);
  ZRX_MD5_STEP(I, c, d, a, b, x[6], 15, 0xa3014314u);
  ZRX_MD5_STEP(I, b, c, d, a, x[13], 21, 0x4e0811a1u);
  ZRX_MD5_STEP(I, a, b, c, d, x[4], 6, 0xf7537e82u);
  ZRX_MD5_STEP(I, d, a, b, c, x[11], 10, 0xbd3af235u);
  ZRX_MD5_STEP(I, c, d, a, b, x[2], 15, 0x2ad7d2bbu);
  ZRX_MD5_STEP(I, b, c, d, a, x[9], 21, 0xeb86d391u);

  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
}

#undef ZRX_MD5_STEP
