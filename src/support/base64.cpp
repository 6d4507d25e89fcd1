#include "support/base64.h"

namespace tpcsdk {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Value of an alphabet character, -1 for anything else.
int Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Value inside a group, where anything outside the alphabet counts as 0.
unsigned Bits(unsigned char c) {
  const int v = Value(c);
  return v < 0 ? 0u : static_cast<unsigned>(v);
}

}  // namespace

std::string Base64Encode(const void* bytes, std::int32_t length) {
  std::string out;
  if (bytes == nullptr || length <= 0) return out;
  const auto* in = static_cast<const unsigned char*>(bytes);
  const std::int32_t groups = length / 3;
  out.reserve(static_cast<std::size_t>(groups) * 4 + static_cast<std::size_t>(groups / 19) * 2 + 4);
  int line = 0;
  for (std::int32_t g = 0; g < groups; ++g, in += 3) {
    const unsigned v = (unsigned{in[0]} << 16) | (unsigned{in[1]} << 8) | in[2];
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(kAlphabet[(v >> 6) & 63]);
    out.push_back(kAlphabet[v & 63]);
    line += 4;
    if (line >= 76) {
      out += "\r\n";
      line = 0;
    }
  }
  switch (length % 3) {
    case 1: {
      const unsigned v = unsigned{in[0]} << 16;
      out.push_back(kAlphabet[(v >> 18) & 63]);
      out.push_back(kAlphabet[(v >> 12) & 63]);
      out += "==";
      break;
    }
    case 2: {
      const unsigned v = (unsigned{in[0]} << 16) | (unsigned{in[1]} << 8);
      out.push_back(kAlphabet[(v >> 18) & 63]);
      out.push_back(kAlphabet[(v >> 12) & 63]);
      out.push_back(kAlphabet[(v >> 6) & 63]);
      out.push_back('=');
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
  out.reserve(static_cast<std::size_t>(length) / 4 * 3 + 3);
  std::int64_t count = 0;  // input consumed, as the loop bound sees it
  std::int64_t pos = 0;    // where the next character is read
  while (count < length) {
    const unsigned char first = at(pos);
    if (Value(first) < 0) {
      ++pos;
      ++count;
      continue;
    }
    const unsigned a = Bits(first);
    const unsigned b = Bits(at(pos + 1));
    pos += 2;
    out.push_back(static_cast<char>((a << 2) | (b >> 4)));
    const unsigned char third = at(pos);
    if (third != '=') {
      const unsigned c = Bits(third);
      ++pos;
      out.push_back(static_cast<char>(((b & 15) << 4) | (c >> 2)));
      const unsigned char fourth = at(pos);
      if (fourth != '=') {
        ++pos;
        out.push_back(static_cast<char>(((c & 3) << 6) | Bits(fourth)));
      }
    }
    count += 4;
  }
  return out;
}

}  // namespace tpcsdk
