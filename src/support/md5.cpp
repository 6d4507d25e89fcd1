#include "support/md5.h"

#include <cstring>

namespace tpcsdk {
namespace {

constexpr std::uint32_t kInit[4] = {0x67452301u, 0xefcdab89u, 0x98badcfeu, 0x10325476u};

inline std::uint32_t Rotl(std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// The four round functions, in the forms with the fewest operations.
inline std::uint32_t F(std::uint32_t b, std::uint32_t c, std::uint32_t d) { return d ^ (b & (c ^ d)); }
inline std::uint32_t G(std::uint32_t b, std::uint32_t c, std::uint32_t d) { return c ^ (d & (b ^ c)); }
inline std::uint32_t H(std::uint32_t b, std::uint32_t c, std::uint32_t d) { return b ^ c ^ d; }
inline std::uint32_t I(std::uint32_t b, std::uint32_t c, std::uint32_t d) { return c ^ (b | ~d); }

// One step: a = b + ((a + fn(b, c, d) + word + constant) <<< s).
#define MD5_STEP(fn, a, b, c, d, word, constant, s) \
  a = b + Rotl(a + fn(b, c, d) + (word) + (constant), s)

// The 64 steps over one 64-byte block, written out so that every message index,
// constant (floor(abs(sin(i + 1)) * 2^32)) and rotation is fixed at compile time.
void Transform(std::uint32_t state[4], const std::uint8_t* block) {
  std::uint32_t m[16];
  for (int i = 0; i < 16; ++i) {
    m[i] = static_cast<std::uint32_t>(block[4 * i]) |
           static_cast<std::uint32_t>(block[4 * i + 1]) << 8 |
           static_cast<std::uint32_t>(block[4 * i + 2]) << 16 |
           static_cast<std::uint32_t>(block[4 * i + 3]) << 24;
  }
  std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

  MD5_STEP(F, a, b, c, d, m[0], 0xd76aa478, 7);
  MD5_STEP(F, d, a, b, c, m[1], 0xe8c7b756, 12);
  MD5_STEP(F, c, d, a, b, m[2], 0x242070db, 17);
  MD5_STEP(F, b, c, d, a, m[3], 0xc1bdceee, 22);
  MD5_STEP(F, a, b, c, d, m[4], 0xf57c0faf, 7);
  MD5_STEP(F, d, a, b, c, m[5], 0x4787c62a, 12);
  MD5_STEP(F, c, d, a, b, m[6], 0xa8304613, 17);
  MD5_STEP(F, b, c, d, a, m[7], 0xfd469501, 22);
  MD5_STEP(F, a, b, c, d, m[8], 0x698098d8, 7);
  MD5_STEP(F, d, a, b, c, m[9], 0x8b44f7af, 12);
  MD5_STEP(F, c, d, a, b, m[10], 0xffff5bb1, 17);
  MD5_STEP(F, b, c, d, a, m[11], 0x895cd7be, 22);
  MD5_STEP(F, a, b, c, d, m[12], 0x6b901122, 7);
  MD5_STEP(F, d, a, b, c, m[13], 0xfd987193, 12);
  MD5_STEP(F, c, d, a, b, m[14], 0xa679438e, 17);
  MD5_STEP(F, b, c, d, a, m[15], 0x49b40821, 22);

  MD5_STEP(G, a, b, c, d, m[1], 0xf61e2562, 5);
  MD5_STEP(G, d, a, b, c, m[6], 0xc040b340, 9);
  MD5_STEP(G, c, d, a, b, m[11], 0x265e5a51, 14);
  MD5_STEP(G, b, c, d, a, m[0], 0xe9b6c7aa, 20);
  MD5_STEP(G, a, b, c, d, m[5], 0xd62f105d, 5);
  MD5_STEP(G, d, a, b, c, m[10], 0x02441453, 9);
  MD5_STEP(G, c, d, a, b, m[15], 0xd8a1e681, 14);
  MD5_STEP(G, b, c, d, a, m[4], 0xe7d3fbc8, 20);
  MD5_STEP(G, a, b, c, d, m[9], 0x21e1cde6, 5);
  MD5_STEP(G, d, a, b, c, m[14], 0xc33707d6, 9);
  MD5_STEP(G, c, d, a, b, m[3], 0xf4d50d87, 14);
  MD5_STEP(G, b, c, d, a, m[8], 0x455a14ed, 20);
  MD5_STEP(G, a, b, c, d, m[13], 0xa9e3e905, 5);
  MD5_STEP(G, d, a, b, c, m[2], 0xfcefa3f8, 9);
  MD5_STEP(G, c, d, a, b, m[7], 0x676f02d9, 14);
  MD5_STEP(G, b, c, d, a, m[12], 0x8d2a4c8a, 20);

  MD5_STEP(H, a, b, c, d, m[5], 0xfffa3942, 4);
  MD5_STEP(H, d, a, b, c, m[8], 0x8771f681, 11);
  MD5_STEP(H, c, d, a, b, m[11], 0x6d9d6122, 16);
  MD5_STEP(H, b, c, d, a, m[14], 0xfde5380c, 23);
  MD5_STEP(H, a, b, c, d, m[1], 0xa4beea44, 4);
  MD5_STEP(H, d, a, b, c, m[4], 0x4bdecfa9, 11);
  MD5_STEP(H, c, d, a, b, m[7], 0xf6bb4b60, 16);
  MD5_STEP(H, b, c, d, a, m[10], 0xbebfbc70, 23);
  MD5_STEP(H, a, b, c, d, m[13], 0x289b7ec6, 4);
  MD5_STEP(H, d, a, b, c, m[0], 0xeaa127fa, 11);
  MD5_STEP(H, c, d, a, b, m[3], 0xd4ef3085, 16);
  MD5_STEP(H, b, c, d, a, m[6], 0x04881d05, 23);
  MD5_STEP(H, a, b, c, d, m[9], 0xd9d4d039, 4);
  MD5_STEP(H, d, a, b, c, m[12], 0xe6db99e5, 11);
  MD5_STEP(H, c, d, a, b, m[15], 0x1fa27cf8, 16);
  MD5_STEP(H, b, c, d, a, m[2], 0xc4ac5665, 23);

  MD5_STEP(I, a, b, c, d, m[0], 0xf4292244, 6);
  MD5_STEP(I, d, a, b, c, m[7], 0x432aff97, 10);
  MD5_STEP(I, c, d, a, b, m[14], 0xab9423a7, 15);
  MD5_STEP(I, b, c, d, a, m[5], 0xfc93a039, 21);
  MD5_STEP(I, a, b, c, d, m[12], 0x655b59c3, 6);
  MD5_STEP(I, d, a, b, c, m[3], 0x8f0ccc92, 10);
  MD5_STEP(I, c, d, a, b, m[10], 0xffeff47d, 15);
  MD5_STEP(I, b, c, d, a, m[1], 0x85845dd1, 21);
  MD5_STEP(I, a, b, c, d, m[8], 0x6fa87e4f, 6);
  MD5_STEP(I, d, a, b, c, m[15], 0xfe2ce6e0, 10);
  MD5_STEP(I, c, d, a, b, m[6], 0xa3014314, 15);
  MD5_STEP(I, b, c, d, a, m[13], 0x4e0811a1, 21);
  MD5_STEP(I, a, b, c, d, m[4], 0xf7537e82, 6);
  MD5_STEP(I, d, a, b, c, m[11], 0xbd3af235, 10);
  MD5_STEP(I, c, d, a, b, m[2], 0x2ad7d2bb, 15);
  MD5_STEP(I, b, c, d, a, m[9], 0xeb86d391, 21);

  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

#undef MD5_STEP

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
  // Fill a partly filled block first; whole blocks of the input are then read
  // where they are, and the rest waits in the buffer.
  if (used > 0) {
    const std::size_t take = length < 64 - used ? length : 64 - used;
    std::memcpy(context.buffer + used, in, take);
    used += take;
    in += take;
    length -= take;
    if (used < 64) return;
    Transform(context.state, context.buffer);
  }
  for (; length >= 64; in += 64, length -= 64) Transform(context.state, in);
  if (length > 0) std::memcpy(context.buffer, in, length);
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
