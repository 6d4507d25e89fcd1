#include "support/md5.h"

#include <cstring>

namespace tpcsdk {
namespace {

constexpr std::uint32_t kInit[4] = {0x67452301u, 0xefcdab89u, 0x98badcfeu, 0x10325476u};

// Per-step left rotations, four per round.
constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// floor(abs(sin(i + 1)) * 2^32).
constexpr std::uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

inline std::uint32_t Rotl(std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

void Transform(std::uint32_t state[4], const std::uint8_t block[64]) {
  std::uint32_t m[16];
  for (int i = 0; i < 16; ++i) {
    m[i] = static_cast<std::uint32_t>(block[4 * i]) |
           static_cast<std::uint32_t>(block[4 * i + 1]) << 8 |
           static_cast<std::uint32_t>(block[4 * i + 2]) << 16 |
           static_cast<std::uint32_t>(block[4 * i + 3]) << 24;
  }
  std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (int i = 0; i < 64; ++i) {
    std::uint32_t f;
    int g;
    switch (i / 16) {
      case 0: f = (b & c) | (~b & d); g = i; break;
      case 1: f = (d & b) | (~d & c); g = (5 * i + 1) % 16; break;
      case 2: f = b ^ c ^ d; g = (3 * i + 5) % 16; break;
      default: f = c ^ (b | ~d); g = (7 * i) % 16; break;
    }
    const std::uint32_t next = b + Rotl(a + f + kSine[i] + m[g], kShift[i / 16][i % 4]);
    a = d;
    d = c;
    c = b;
    b = next;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

void Finish(Md5Context& ctx) {
  std::uint8_t length[8];
  for (int i = 0; i < 8; ++i) length[i] = static_cast<std::uint8_t>(ctx.bit_count >> (8 * i));
  // Pad with 0x80 and zeros to 56 bytes modulo 64, then the 64-bit bit length.
  const std::size_t used = static_cast<std::size_t>((ctx.bit_count >> 3) & 63);
  const std::size_t pad = used < 56 ? 56 - used : 120 - used;
  std::uint8_t padding[64] = {0x80};
  Md5Update(ctx, padding, pad);
  Md5Update(ctx, length, 8);
  for (int i = 0; i < 16; ++i) ctx.digest[i] = static_cast<std::uint8_t>(ctx.state[i / 4] >> (8 * (i % 4)));
  ctx.finished = true;
}

}  // namespace

void Md5Init(Md5Context& context) {
  context = Md5Context{};
  std::memcpy(context.state, kInit, sizeof kInit);
}

void Md5Update(Md5Context& context, const void* bytes, std::size_t length) {
  if (context.finished || bytes == nullptr) return;
  const auto* in = static_cast<const std::uint8_t*>(bytes);
  std::size_t used = static_cast<std::size_t>((context.bit_count >> 3) & 63);
  context.bit_count += static_cast<std::uint64_t>(length) << 3;
  while (length > 0) {
    const std::size_t take = length < 64 - used ? length : 64 - used;
    std::memcpy(context.buffer + used, in, take);
    used += take;
    in += take;
    length -= take;
    if (used == 64) {
      Transform(context.state, context.buffer);
      used = 0;
    }
  }
}

std::string Md5HexDigest(Md5Context& context) {
  if (!context.finished) Finish(context);
  static const char kHex[] = "0123456789abcdef";
  std::string out(32, '0');
  for (int i = 0; i < 16; ++i) {
    out[2 * i] = kHex[context.digest[i] >> 4];
    out[2 * i + 1] = kHex[context.digest[i] & 15];
  }
  return out;
}

std::string Md5Hex(const std::string& bytes) {
  Md5Context ctx;
  Md5Init(ctx);
  Md5Update(ctx, bytes.data(), bytes.size());
  return Md5HexDigest(ctx);
}

}  // namespace tpcsdk
