#include "support/base64.h"

#include <array>
#include <cstring>

namespace tpcsdk {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Groups of input per output line: 19 groups make the 76 characters of a line.
constexpr std::int32_t kGroupsPerLine = 19;

// Two output characters for each 12-bit value, so that a group of three bytes is
// two look-ups.
constexpr std::array<char, 2 * 4096> MakePairs() {
  std::array<char, 2 * 4096> t{};
  for (int v = 0; v < 4096; ++v) {
    t[static_cast<size_t>(2 * v)] = kAlphabet[v >> 6];
    t[static_cast<size_t>(2 * v + 1)] = kAlphabet[v & 63];
  }
  return t;
}
constexpr std::array<char, 2 * 4096> kPairs = MakePairs();

// Anything outside the alphabet has this bit in its table entry.
constexpr std::uint32_t kNotInAlphabet = 1u << 24;

// For each place of a group, a character's six bits already shifted to where they
// land in the group's 24 bits; kNotInAlphabet for anything else.
constexpr std::array<std::uint32_t, 256> MakeDecode(int shift) {
  std::array<std::uint32_t, 256> t{};
  for (auto& v : t) v = kNotInAlphabet;
  for (std::uint32_t i = 0; i < 64; ++i)
    t[static_cast<unsigned char>(kAlphabet[i])] = i << shift;
  return t;
}
constexpr std::array<std::uint32_t, 256> kDecode0 = MakeDecode(18);
constexpr std::array<std::uint32_t, 256> kDecode1 = MakeDecode(12);
constexpr std::array<std::uint32_t, 256> kDecode2 = MakeDecode(6);
constexpr std::array<std::uint32_t, 256> kDecode3 = MakeDecode(0);

// Value inside a group, where anything outside the alphabet counts as 0.
inline unsigned Bits(unsigned char c) {
  const std::uint32_t v = kDecode3[c];
  return v & kNotInAlphabet ? 0u : v;
}

inline char* PutGroup(char* out, const unsigned char* in) {
  const unsigned v = (unsigned{in[0]} << 16) | (unsigned{in[1]} << 8) | in[2];
  std::memcpy(out, &kPairs[2 * (v >> 12)], 2);
  std::memcpy(out + 2, &kPairs[2 * (v & 0xFFF)], 2);
  return out + 4;
}

}  // namespace

std::string Base64Encode(const void* bytes, std::int32_t length) {
  std::string out;
  if (bytes == nullptr || length <= 0) return out;
  const auto* in = static_cast<const unsigned char*>(bytes);
  const std::int32_t groups = length / 3;
  const std::int32_t lines = groups / kGroupsPerLine;
  out.resize(static_cast<std::size_t>(groups) * 4 + static_cast<std::size_t>(lines) * 2 +
             (length % 3 ? 4 : 0));
  char* o = &out[0];
  // Whole lines, then the groups of the last, short line.
  for (std::int32_t l = 0; l < lines; ++l) {
    for (std::int32_t g = 0; g < kGroupsPerLine; ++g, in += 3) o = PutGroup(o, in);
    *o++ = '\r';
    *o++ = '\n';
  }
  for (std::int32_t g = lines * kGroupsPerLine; g < groups; ++g, in += 3) o = PutGroup(o, in);
  switch (length % 3) {
    case 1: {
      const unsigned v = unsigned{in[0]} << 16;
      *o++ = kAlphabet[(v >> 18) & 63];
      *o++ = kAlphabet[(v >> 12) & 63];
      *o++ = '=';
      *o++ = '=';
      break;
    }
    case 2: {
      const unsigned v = (unsigned{in[0]} << 16) | (unsigned{in[1]} << 8);
      *o++ = kAlphabet[(v >> 18) & 63];
      *o++ = kAlphabet[(v >> 12) & 63];
      *o++ = kAlphabet[(v >> 6) & 63];
      *o++ = '=';
      break;
    }
    default:
      break;
  }
  return out;
}

std::string Base64Decode(const char* text, std::int32_t length) {
  std::string out;
  if (text == nullptr || length <= 0) return out;
  const auto* in = reinterpret_cast<const unsigned char*>(text);
  const auto at = [&](std::int64_t i) -> unsigned char { return i < length ? in[i] : 0; };
  // Every group counts four characters and gives at most three bytes, so this is
  // the most the text can give; the output is sized once and cut to what was written.
  out.resize(static_cast<std::size_t>(length) / 4 * 3 + 3);
  auto* o = reinterpret_cast<unsigned char*>(&out[0]);
  std::int64_t count = 0;  // input consumed, as the loop bound sees it
  std::int64_t pos = 0;    // where the next character is read
  while (count < length) {
    // A whole group of four alphabet characters, the common case: no branch per
    // character, one test of the four table entries together.
    while (pos + 4 <= length && count < length) {
      const std::uint32_t v = kDecode0[in[pos]] | kDecode1[in[pos + 1]] | kDecode2[in[pos + 2]] |
                              kDecode3[in[pos + 3]];
      if (v & kNotInAlphabet) break;
      o[0] = static_cast<unsigned char>(v >> 16);
      o[1] = static_cast<unsigned char>(v >> 8);
      o[2] = static_cast<unsigned char>(v);
      o += 3;
      pos += 4;
      count += 4;
    }
    if (count >= length) break;
    // Anything else, one step at a time: a byte outside the alphabet where a group
    // would start is stepped over; inside a group only padding changes the course.
    const unsigned char first = at(pos);
    if (kDecode3[first] & kNotInAlphabet) {
      ++pos;
      ++count;
      continue;
    }
    const unsigned a = Bits(first);
    const unsigned b = Bits(at(pos + 1));
    pos += 2;
    *o++ = static_cast<unsigned char>((a << 2) | (b >> 4));
    const unsigned char third = at(pos);
    if (third != '=') {
      const unsigned c = Bits(third);
      ++pos;
      *o++ = static_cast<unsigned char>(((b & 15) << 4) | (c >> 2));
      const unsigned char fourth = at(pos);
      if (fourth != '=') {
        ++pos;
        *o++ = static_cast<unsigned char>(((c & 3) << 6) | Bits(fourth));
      }
    }
    count += 4;
  }
  out.resize(static_cast<std::size_t>(o - reinterpret_cast<unsigned char*>(&out[0])));
  return out;
}

}  // namespace tpcsdk
